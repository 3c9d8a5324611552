// The public header from plain C: a cache's life through the main calls.
// Exits non-zero when a check fails.
#include <stdio.h>
#include <string.h>

#include "qmcache/qmcache.h"

static int failures = 0, released = 0;
#define CHECK(c) \
  ((c) ? 0 : (fprintf(stderr, "line %d: %s\n", __LINE__, #c), failures++))

static void OnRelease(int flags, unsigned long size, void* data) {
  released += flags == CAREC_CALLBACK && size == 5 && !memcmp(data, "data1", 5);
}

int main(void) {
  CAParams params = {4096, 0, 0, 0, {0, 0, 0, 0, 0}};
  CAQuery q;
  _CAStat stat;
  int count = -1;
  void* h = CA_CREATE("c-cache", &params);
  CHECK(CA_SETFREE(OnRelease) == 0 && h != NULL && params.maxBytes == 4096);
  CHECK(CA_INSERT(h, 3, CAREC_CALLBACK, 0, 3, "one", 5, 50, "data1") == 1);
  CHECK(CA_INSERT(h, 4, 0, 0, 3, "two", 5, 60, "data2") == 1);
  void* record = CA_SEARCH(h, 0, 3, "one");
  CHECK(CA_QUERY(h, record, &q) == 1 && q.hits == 2 && q.length == 50);
  CHECK(q.tag == 3 && q.dataLength == 5 && !memcmp(q.data, "data1", 5));
  CA_FREE(h, record);
  CA_LIST_FREE(h, CA_LIST(h, &count));
  CHECK(count == 2 && CA_GETCACHESTAT(h, &params) && params.allocated == 110);
  CA_ERASE(h, CA_SEARCH(h, 0, 3, "one"));
  CHECK(released == 1 && CA_SEARCH(h, 0, 3, "one") == NULL);
  CHECK(CA_GETSTAT(NULL, CASTAT_SEARCH, &stat) && stat.count == 3);
  CHECK(CA_SETCHECK(1) == 1 && CA_CHECKCACHE(0) == 0);
  CA_CLOSE(h);
  CHECK(CA_DEINIT() == 1);
  return failures != 0;
}
