// The exported calls: their frame, results, invalid handles, the library's
// life cycle, statistics slots, record life cycle and listing.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

namespace {

struct Released {
  int calls = 0;
  int flags = 0;
  unsigned long size = 0;
  std::string data;
};
Released released;

void OnRelease(int flags, unsigned long size, void* data) {
  released.calls++;
  released.flags = flags;
  released.size = size;
  released.data.assign(static_cast<const char*>(data), size);
}

void* Open(const char* name, unsigned int maxBytes = 0) {
  CAParams params{};
  params.maxBytes = maxBytes;
  return CA_CREATE(name, &params);
}

int Put(void* handle, const std::string& key, const std::string& data,
        int length, int flags = 0) {
  return CA_INSERT(handle, 7, flags, 0, static_cast<int>(key.size()),
                   key.data(), static_cast<int>(data.size()), length,
                   data.data());
}

void* Find(void* handle, const std::string& key) {
  return CA_SEARCH(handle, 0, static_cast<int>(key.size()), key.data());
}

CAParams Params(void* handle) {
  CAParams params{};
  EXPECT_EQ(1, CA_GETCACHESTAT(handle, &params));
  return params;
}

unsigned long Count(void* handle, int slot) {
  _CAStat stat;
  memset(&stat, 0xFF, sizeof stat);
  EXPECT_EQ(1, CA_GETSTAT(handle, slot, &stat));
  return stat.count;
}

std::string KeyOf(void* handle, void* record) {
  CAQuery query{};
  EXPECT_EQ(1, CA_QUERY(handle, record, &query));
  return std::string(static_cast<const char*>(query.key), query.keyLength);
}

bool AllZero(const void* p, size_t n) {
  const unsigned char* bytes = static_cast<const unsigned char*>(p);
  for (size_t i = 0; i < n; i++) {
    if (bytes[i] != 0) return false;
  }
  return true;
}

class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override { released = Released(); }
  void TearDown() override {
    CA_DEINIT();
    free_handle = nullptr;
    CA_SETCHECK(0);
  }
};

TEST_F(ApiTest, InitialisesOnDemandOnlyWhereDue) {
  ASSERT_EQ(nullptr, cafree);
  // Calls that take a handle, and the check, never initialise.
  char junk[16] = "junk";
  EXPECT_EQ(-1, Put(junk, "k", "v", 1));
  EXPECT_EQ(nullptr, Find(nullptr, "k"));
  CA_CLOSE(junk);
  EXPECT_EQ(1, CA_SETCHECK(7));
  EXPECT_EQ(0, CA_CHECKCACHE(0));
  EXPECT_EQ(nullptr, cafree);
  EXPECT_EQ(nullptr, MainStat);

  // Each of the four initialising calls starts the library single-threaded.
  CAParams params;
  _CAStat stat;
  for (int call = 0; call < 4; call++) {
    ASSERT_EQ(nullptr, cafree);
    SingleThreaded = 0;
    switch (call) {
      case 0:
        EXPECT_NE(nullptr, Open("c"));
        break;
      case 1:
        EXPECT_EQ(0, CA_SETFREE(nullptr));
        break;
      case 2:
        EXPECT_EQ(0, CA_GETCACHESTAT(junk, &params));
        break;
      case 3:
        EXPECT_EQ(1, CA_GETSTAT(nullptr, 0, &stat));
        break;
    }
    EXPECT_NE(nullptr, cafree) << call;
    EXPECT_NE(nullptr, MainStat) << call;
    EXPECT_EQ(1, SingleThreaded) << call;
    EXPECT_EQ(1, CA_DEINIT());
  }
}

TEST_F(ApiTest, ModeSwitchKeepsCachesAndStatistics) {
  void* h = Open("cache");
  EXPECT_EQ(1, SingleThreaded);
  ASSERT_EQ(1, Put(h, "k", "data", 40));
  CAStatistic* stat = MainStat;

  EXPECT_EQ(1, CA_INIT(0));
  EXPECT_EQ(0, SingleThreaded);
  EXPECT_NE(nullptr, cafree);
  EXPECT_EQ(stat, MainStat);
  EXPECT_EQ(1ul, Count(nullptr, CASTAT_INSERT));
  EXPECT_EQ(40u, Params(h).allocated);
  void* r = Find(h, "k");
  ASSERT_NE(nullptr, r);
  CA_FREE(h, r);

  // The same mode again keeps the controller.
  CAFree* controller = cafree;
  EXPECT_EQ(1, CA_INIT(0));
  EXPECT_EQ(controller, cafree);
  EXPECT_EQ(1, CA_INIT(1));
  EXPECT_EQ(1, SingleThreaded);
  EXPECT_EQ(1ul, Params(h).usedNodes);
}

TEST_F(ApiTest, DeinitTwiceThenStartsAfresh) {
  void* h = Open("cache");
  ASSERT_EQ(1, Put(h, "k", "data", 40));
  EXPECT_EQ(nullptr, Find(h, "missing"));
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ(nullptr, cafree);
  EXPECT_EQ(nullptr, MainStat);
  EXPECT_EQ(nullptr, CACache::caches);
  EXPECT_EQ(1, CA_DEINIT());

  EXPECT_EQ(1, CA_INIT(1));
  CAParams params;
  memset(&params, 0x5A, sizeof params);
  params.maxBytes = 0;
  h = CA_CREATE("cache", &params);
  EXPECT_EQ(1048576u, params.maxBytes);
  EXPECT_EQ(0u, params.allocated);
  EXPECT_EQ(0u, params.nodes);
  EXPECT_EQ(nullptr, Find(h, "k"));
  EXPECT_EQ(1ul, Count(nullptr, CASTAT_SEARCH));  // the fresh MainStat
  EXPECT_EQ(0ul, Count(nullptr, CASTAT_INSERT));
}

TEST_F(ApiTest, InvalidHandlesAreRefused) {
  void* h = Open("cache");
  ASSERT_EQ(1, Put(h, "k", "data", 40));
  void* r = Find(h, "k");
  ASSERT_NE(nullptr, r);

  alignas(16) char garbage[64] = "not a handle at all";
  alignas(16) unsigned char fake[64] = {'C', 'A', 'A', 'C', 0, 0, 0, 1};
  // A host may pass any address, aligned or not.
  void* invalid[] = {nullptr, garbage, fake, garbage + 1};
  for (void* bad : invalid) {
    SCOPED_TRACE(bad == garbage ? "garbage" : bad == fake ? "fake" : "other");
    EXPECT_EQ(-1, Put(bad, "k2", "data", 40));
    EXPECT_EQ(nullptr, Find(bad, "k"));
    CAQuery query;
    memset(&query, 0x33, sizeof query);
    EXPECT_EQ(0, CA_QUERY(bad, r, &query));
    EXPECT_EQ(0x33333333, query.hits);
    int count = 42;
    EXPECT_EQ(nullptr, CA_LIST(bad, &count));
    EXPECT_EQ(42, count);
    // The block stays allocated; freeing it here would fault under ASan if
    // the library had freed it.
    void* block = malloc(16);
    CA_LIST_FREE(bad, block);
    free(block);
    CA_FREE(bad, r);
    CA_ERASE(bad, r);
    CA_CLOSE(bad);
    CAParams params;
    memset(&params, 0xAB, sizeof params);
    EXPECT_EQ(0, CA_GETCACHESTAT(bad, &params));
    EXPECT_EQ(0xABABABABu, params.maxBytes);
    if (bad != nullptr) {
      _CAStat stat;
      memset(&stat, 0xFF, sizeof stat);
      EXPECT_EQ(0, CA_GETSTAT(bad, CASTAT_SEARCH, &stat));
      EXPECT_TRUE(AllZero(&stat, sizeof stat));
    }
  }
  // Nothing above touched the cache or the held record.
  CAParams params = Params(h);
  EXPECT_EQ(40u, params.allocated);
  EXPECT_EQ(1u, params.usedNodes);
  EXPECT_EQ("k", KeyOf(h, r));
  EXPECT_EQ(1ul, Count(h, CASTAT_SEARCH));
  EXPECT_EQ(0ul, Count(h, CASTAT_RELEASE));
  CA_FREE(h, r);
  EXPECT_EQ(1ul, Count(h, CASTAT_RELEASE));
}

TEST_F(ApiTest, StatisticsCountPerSlotPerCacheAndLibrary) {
  void* a = Open("a");
  void* b = Open("b");
  ASSERT_EQ(1, Put(a, "k", "data", 4));
  void* hit = Find(a, "k");
  ASSERT_NE(nullptr, hit);
  EXPECT_EQ(nullptr, Find(a, "other"));
  EXPECT_EQ(nullptr, Find(b, "k"));
  CAQuery query;
  EXPECT_EQ(1, CA_QUERY(a, hit, &query));
  CA_FREE(a, hit);

  EXPECT_EQ(1ul, Count(nullptr, CASTAT_INSERT));
  EXPECT_EQ(3ul, Count(nullptr, CASTAT_SEARCH));
  EXPECT_EQ(1ul, Count(nullptr, CASTAT_SEARCH_HIT));
  EXPECT_EQ(1ul, Count(nullptr, CASTAT_QUERY));
  EXPECT_EQ(1ul, Count(nullptr, CASTAT_RELEASE));
  EXPECT_EQ(0ul, Count(nullptr, CASTAT_ERASE));
  EXPECT_EQ(2ul, Count(a, CASTAT_SEARCH));
  EXPECT_EQ(1ul, Count(a, CASTAT_SEARCH_HIT));
  EXPECT_EQ(1ul, Count(b, CASTAT_SEARCH));
  EXPECT_EQ(0ul, Count(b, CASTAT_SEARCH_HIT));
  EXPECT_EQ(0ul, Count(b, CASTAT_INSERT));
  // Every handle operation of a cache also lands in its timing slot.
  EXPECT_EQ(5ul, Params(a).timing.count);
}

TEST_F(ApiTest, RecordLivesWhileHeldAndIsReleasedOnce) {
  EXPECT_EQ(0, CA_SETFREE(OnRelease));
  EXPECT_EQ(1, CA_SETFREE(OnRelease));
  void* h = Open("cache");
  ASSERT_EQ(1, Put(h, "k", "old", 10, CAREC_CALLBACK));
  void* held = Find(h, "k");
  ASSERT_NE(nullptr, held);

  // Replacing a held record detaches it; it stays charged until released.
  EXPECT_EQ(0, Put(h, "k", "new!", 20, CAREC_CALLBACK));
  EXPECT_EQ(0, released.calls);
  EXPECT_EQ(30u, Params(h).allocated);
  CAQuery query{};
  ASSERT_EQ(1, CA_QUERY(h, held, &query));
  EXPECT_EQ(0, query.keyLength);
  EXPECT_EQ(nullptr, query.key);
  EXPECT_EQ("old", std::string(static_cast<char*>(query.data), 3));

  CA_FREE(h, held);
  EXPECT_EQ(1, released.calls);
  EXPECT_EQ(CAREC_CALLBACK, released.flags);
  EXPECT_EQ(3ul, released.size);
  EXPECT_EQ("old", released.data);
  EXPECT_EQ(20u, Params(h).allocated);

  // Releasing an attached record keeps it; erasing it destroys it.
  void* current = Find(h, "k");
  ASSERT_NE(nullptr, current);
  CA_FREE(h, current);
  EXPECT_EQ(1, released.calls);
  current = Find(h, "k");
  ASSERT_NE(nullptr, current);
  CA_ERASE(h, current);
  EXPECT_EQ(2, released.calls);
  EXPECT_EQ("new!", released.data);
  EXPECT_EQ(nullptr, Find(h, "k"));
  EXPECT_EQ(0u, Params(h).allocated);

  // Teardown releases the remaining flagged records, each exactly once.
  ASSERT_EQ(1, Put(h, "a", "1", 1, CAREC_CALLBACK));
  ASSERT_EQ(1, Put(h, "b", "2", 1, CAREC_CALLBACK));
  ASSERT_EQ(1, Put(h, "c", "3", 1));
  void* other = Open("other");
  ASSERT_EQ(1, Put(other, "d", "4", 1, CAREC_CALLBACK));
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ(5, released.calls);
  EXPECT_EQ(&OnRelease, free_handle);  // survives the teardown

  // Without the callback installed nothing is called.
  h = Open("cache");
  EXPECT_EQ(1, CA_SETFREE(nullptr));
  EXPECT_EQ(0, CA_SETFREE(nullptr));
  ASSERT_EQ(1, Put(h, "e", "5", 1, CAREC_CALLBACK));
  CA_ERASE(h, Find(h, "e"));
  EXPECT_EQ(5, released.calls);
}

TEST_F(ApiTest, ListsRecordsInTreeOrder) {
  void* h = Open("cache");
  int count = 5;
  EXPECT_EQ(nullptr, CA_LIST(h, &count));
  EXPECT_EQ(0, count);

  ASSERT_EQ(1, Put(h, "2", "two", 3));
  ASSERT_EQ(1, Put(h, "1", "one", 3));
  ASSERT_EQ(1, Put(h, "3", "three", 5));
  count = -1;
  void** list = CA_LIST(h, &count);
  ASSERT_NE(nullptr, list);
  ASSERT_EQ(3, count);
  std::vector<std::string> keys;
  for (int i = 0; i < count; i++) keys.push_back(KeyOf(h, list[i]));
  EXPECT_EQ((std::vector<std::string>{"2", "1", "3"}), keys);
  CAQuery query{};
  ASSERT_EQ(1, CA_QUERY(h, list[2], &query));
  EXPECT_EQ(1, query.hits);  // listing is not a hit
  EXPECT_EQ(5, query.dataLength);
  CA_LIST_FREE(h, list);
  CA_LIST_FREE(h, nullptr);

  // An empty node keeps its entry in the block, behind the records.
  ASSERT_EQ(1, Put(h, "4", "", 0));
  unsigned int nodes = Params(h).nodes;
  ASSERT_EQ(4u, nodes);
  list = CA_LIST(h, &count);
  ASSERT_NE(nullptr, list);
  ASSERT_LE(count, 3);
  for (unsigned int i = count; i < nodes; i++) EXPECT_EQ(nullptr, list[i]);
  CA_LIST_FREE(h, list);
}

}  // namespace
