// SPDX-License-Identifier: MIT
// The public header from plain C: a cache's life through the main calls.
// Exits non-zero, naming each failed check, when a check fails.
#include <stdio.h>
#include <string.h>

#include "qmcache/qmcache.h"

#define CHECK(c) (failed += !(c) && fprintf(stderr, "%d: %s\n", __LINE__, #c))
static int released = 0, count = -1, failed = 0;

static void OnFree(int flags, unsigned long size, void* data) {
  released += flags == CAREC_CALLBACK && size == 5 && !memcmp(data, "data1", 5);
}

int main(void) {
  CAParams params = {4096, 0, 0, 0, {0, 0, 0, 0, 0}};
  CAQuery q;
  void *h = CA_CREATE("c-cache", &params), *record;
  CHECK(!CA_SETFREE(OnFree) && CA_INSERT(h, 4, 0, 0, 1, "2", 1, 60, "2") == 1 &&
        CA_INSERT(h, 3, CAREC_CALLBACK, 0, 3, "one", 5, 50, "data1") == 1);
  CHECK(CA_QUERY(h, record = CA_SEARCH(h, 0, 3, "one"), &q) && q.hits == 2);
  CHECK(q.tag == 3 && q.length == 50 && q.dataLength == 5 &&
        !memcmp(q.data, "data1", 5));
  // Given back, the record stays cached (and listed) until it is erased.
  CA_FREE(h, record);
  CA_LIST_FREE(h, CA_LIST(h, &count));
  CA_ERASE(h, record);
  CHECK(count == 2 && released == 1 && CA_SEARCH(h, 0, 3, "one") == NULL);
  CHECK(CA_GETCACHESTAT(h, &params) && params.allocated == 60 &&
        CA_GETSTAT(NULL, CASTAT_SEARCH, &params.timing) &&
        params.timing.count == 2 && CA_SETCHECK(1) && !CA_CHECKCACHE(0));
  // Closing the last handle destroys the cache.
  CA_CLOSE(h);
  return CA_DEINIT() != 1 || failed;
}
