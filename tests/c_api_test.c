/* The public interface used from plain C: the main calls with their results
 * checked. Exits non-zero when any check fails. */
#include <stdio.h>
#include <string.h>

#include "qmcache/qmcache.h"

static int failures = 0;
#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      failures++;                                                              \
    }                                                                          \
  } while (0)

static int released = 0;
static void OnRelease(int flags, unsigned long size, void* data) {
  if (flags == CAREC_CALLBACK && size == 5 && memcmp(data, "data1", 5) == 0)
    released++;
}

int main(void) {
  CAParams params;
  CAQuery query;
  _CAStat stat;
  void* h;
  void* record;
  void** list;
  int count = -1;

  CHECK(CA_INIT(1) == 1);
  CHECK(CA_SETFREE(OnRelease) == 0);
  memset(&params, 0, sizeof params);
  params.maxBytes = 4096;
  h = CA_CREATE("c-cache", &params);
  CHECK(h != NULL && params.maxBytes == 4096);
  CHECK(CA_INSERT(h, 3, CAREC_CALLBACK, 0, 3, "one", 5, 50, "data1") == 1);
  CHECK(CA_INSERT(h, 4, 0, 0, 3, "two", 5, 60, "data2") == 1);
  CHECK(CA_INSERT(h, 5, 0, 0, 3, "two", 5, 70, "data3") == 0);
  CHECK(CA_INSERT(NULL, 5, 0, 0, 3, "two", 5, 70, "data3") == -1);

  record = CA_SEARCH(h, 0, 3, "one");
  CHECK(CA_SEARCH(h, 0, 5, "three") == NULL);
  CHECK(CA_QUERY(h, record, &query) == 1);
  CHECK(query.hits == 2 && query.tag == 3 && query.length == 50);
  CHECK(query.keyLength == 3 && memcmp(query.key, "one", 3) == 0);
  CHECK(query.dataLength == 5 && memcmp(query.data, "data1", 5) == 0);
  CA_FREE(h, record);
  list = CA_LIST(h, &count);
  CHECK(list != NULL && count == 2);
  CA_LIST_FREE(h, list);
  CHECK(CA_GETCACHESTAT(h, &params) == 1);
  CHECK(params.allocated == 120 && params.usedNodes == 2);

  CA_ERASE(h, CA_SEARCH(h, 0, 3, "one"));
  CHECK(released == 1 && CA_SEARCH(h, 0, 3, "one") == NULL);
  CHECK(CA_GETSTAT(NULL, CASTAT_SEARCH, &stat) == 1 && stat.count == 4);
  CHECK(CA_GETSTAT(h, CASTAT_SEARCH_HIT, &stat) == 1 && stat.count == 2);
  CHECK(CA_SETCHECK(1) == 1 && CA_CHECKCACHE(0) == 0);
  CA_CLOSE(h);
  h = CA_CREATE("c-cache", &params);
  CHECK(params.allocated == 0);
  CHECK(CA_DEINIT() == 1 && CA_DEINIT() == 1);

  if (failures != 0) fprintf(stderr, "%d check(s) failed\n", failures);
  return failures != 0;
}
