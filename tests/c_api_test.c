/* The public interface used from plain C: every call once, with its result
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

static int releasedCalls = 0;

static void OnRelease(int flags, unsigned long size, void* data) {
  (void)data;
  if (flags == CAREC_CALLBACK && size == 5) releasedCalls++;
}

int main(void) {
  CAParams params;
  CAQuery query;
  _CAStat stat;
  void* handle;
  void* record;
  void** list;
  int count = -1;

  CHECK(CA_INIT(1) == 1);
  CHECK(CA_SETFREE(OnRelease) == 0);
  memset(&params, 0, sizeof params);
  params.maxBytes = 4096;
  handle = CA_CREATE("c-cache", &params);
  CHECK(handle != NULL);
  CHECK(params.maxBytes == 4096);

  CHECK(CA_INSERT(handle, 3, CAREC_CALLBACK, 0, 3, "one", 5, 50, "data1") == 1);
  CHECK(CA_INSERT(handle, 4, 0, 0, 3, "two", 5, 60, "data2") == 1);
  CHECK(CA_INSERT(handle, 5, 0, 0, 3, "two", 5, 70, "data3") == 0);
  CHECK(CA_INSERT(NULL, 5, 0, 0, 3, "two", 5, 70, "data3") == -1);

  record = CA_SEARCH(handle, 0, 3, "one");
  CHECK(record != NULL);
  CHECK(CA_SEARCH(handle, 0, 5, "three") == NULL);
  memset(&query, 0, sizeof query);
  CHECK(CA_QUERY(handle, record, &query) == 1);
  CHECK(query.hits == 2);
  CHECK(query.tag == 3);
  CHECK(query.length == 50);
  CHECK(query.dataLength == 5);
  CHECK(query.keyLength == 3 && memcmp(query.key, "one", 3) == 0);
  CHECK(memcmp(query.data, "data1", 5) == 0);
  CA_FREE(handle, record);

  list = CA_LIST(handle, &count);
  CHECK(list != NULL);
  CHECK(count == 2);
  CA_LIST_FREE(handle, list);

  CHECK(CA_GETCACHESTAT(handle, &params) == 1);
  CHECK(params.allocated == 120);
  CHECK(params.usedNodes == 2);

  record = CA_SEARCH(handle, 0, 3, "one");
  CA_ERASE(handle, record);
  CHECK(releasedCalls == 1);
  CHECK(CA_SEARCH(handle, 0, 3, "one") == NULL);

  CHECK(CA_GETSTAT(NULL, CASTAT_SEARCH, &stat) == 1);
  CHECK(stat.count == 4);
  CHECK(CA_GETSTAT(handle, CASTAT_SEARCH_HIT, &stat) == 1);
  CHECK(stat.count == 2);
  CHECK(CA_SETCHECK(1) == 1);
  CHECK(CA_CHECKCACHE(0) == 0);

  CA_CLOSE(handle);
  handle = CA_CREATE("c-cache", &params);
  CHECK(params.allocated == 0);
  CHECK(CA_DEINIT() == 1);
  CHECK(CA_DEINIT() == 1);

  if (failures != 0) {
    fprintf(stderr, "%d check(s) failed\n", failures);
    return 1;
  }
  printf("c_api_test: all checks passed\n");
  return 0;
}
