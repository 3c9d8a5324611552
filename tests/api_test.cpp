// The exported calls as a host sees them: the library's life cycle, invalid
// handles, statistic slots and the release callback.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

std::vector<std::string> freed;  // data of every record the callback saw

void OnRelease(int, unsigned long size, void* data) {
  freed.emplace_back(static_cast<char*>(data), size);
}

void* Open(const char* name) {
  CAParams params{};
  return CA_CREATE(name, &params);
}

int Insert(void* h, const std::string& key, int flags = CAREC_CALLBACK) {
  return CA_INSERT(h, 7, flags, 0, static_cast<int>(key.size()), key.data(),
                   static_cast<int>(key.size()), 10, key.data());
}

void* Search(void* h, const std::string& key) {
  return CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data());
}

// Counts of slots 0..8 (8 is out of range and must read as zero).
std::vector<unsigned long> Counts(void* h) {
  std::vector<unsigned long> counts;
  for (int slot = 0; slot <= 8; slot++) {
    _CAStat stat;
    memset(&stat, 0xFF, sizeof stat);
    EXPECT_EQ(1, CA_GETSTAT(h, slot, &stat));
    counts.push_back(stat.count);
  }
  return counts;
}

class ApiTest : public ::testing::Test {
 protected:
  void SetUp() override { freed.clear(); }
  void TearDown() override {
    CA_DEINIT();
    free_handle = nullptr;
    CA_SETCHECK(0);
  }
};

TEST_F(ApiTest, OnlyCreateSetFreeAndStatusCallsInitialiseSingleThreaded) {
  char junk[16] = "junk";
  EXPECT_EQ(-1, Insert(junk, "k"));
  EXPECT_EQ(nullptr, Search(nullptr, "k"));
  CA_CLOSE(junk);
  EXPECT_EQ(1, CA_SETCHECK(7));
  EXPECT_EQ(0, CA_CHECKCACHE(0));
  EXPECT_TRUE(cafree == nullptr && MainStat == nullptr);
  CAParams params;
  _CAStat stat;
  std::function<bool()> calls[] = {
      [] { return Open("c") != nullptr; },
      [] { return CA_SETFREE(nullptr) == 0; },
      [&] { return CA_GETCACHESTAT(junk, &params) == 0; },
      [&] { return CA_GETSTAT(nullptr, 0, &stat) == 1; }};
  for (auto& call : calls) {
    SingleThreaded = 0;
    EXPECT_TRUE(call());
    EXPECT_TRUE(cafree != nullptr && MainStat != nullptr);
    EXPECT_EQ(1, SingleThreaded);
    EXPECT_EQ(1, CA_DEINIT());
  }
}

TEST_F(ApiTest, ModeSwitchKeepsCachesAndDeinitStartsAfresh) {
  void* h = Open("cache");
  ASSERT_EQ(1, Insert(h, "k"));
  CAStatistic* stat = MainStat;
  CAFree* controller = cafree;
  EXPECT_EQ(1, CA_INIT(1));
  EXPECT_EQ(controller, cafree);  // same mode: same controller
  EXPECT_EQ(1, CA_INIT(0));
  EXPECT_EQ(0, SingleThreaded);
  EXPECT_EQ(stat, MainStat);
  void* r = Search(h, "k");
  ASSERT_NE(nullptr, r);
  CA_FREE(h, r);
  EXPECT_EQ(1ul, Counts(nullptr)[CASTAT_INSERT]);
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_TRUE(cafree == nullptr && MainStat == nullptr);
  EXPECT_EQ(nullptr, CACache::caches);
  EXPECT_EQ(1, CA_DEINIT());
  h = Open("cache");
  EXPECT_EQ(nullptr, Search(h, "k"));
  EXPECT_EQ((std::vector<unsigned long>{0, 1, 0, 0, 0, 0, 0, 0, 0}),
            Counts(nullptr));
}

TEST_F(ApiTest, InvalidHandlesGetTheirResultAndTouchNothing) {
  void* h = Open("cache");
  ASSERT_EQ(1, Insert(h, "k"));
  void* r = Search(h, "k");
  ASSERT_NE(nullptr, r);
  alignas(16) char garbage[64] = "not a handle at all";
  alignas(16) unsigned char fake[64] = {'C', 'A', 'A', 'C', 0, 0, 0, 1};
  for (void* bad :
       {static_cast<void*>(nullptr), static_cast<void*>(garbage),
        static_cast<void*>(fake), static_cast<void*>(garbage + 1)}) {
    EXPECT_EQ(-1, Insert(bad, "k2"));
    EXPECT_EQ(nullptr, Search(bad, "k"));
    CAQuery query;
    memset(&query, 0x33, sizeof query);
    EXPECT_EQ(0, CA_QUERY(bad, r, &query));
    EXPECT_EQ(0x33333333, query.hits);
    int count = 42;
    EXPECT_EQ(nullptr, CA_LIST(bad, &count));
    EXPECT_EQ(42, count);
    void* block = malloc(16);
    CA_LIST_FREE(bad, block);  // must not free it: ASan sees a double free
    free(block);
    CA_FREE(bad, r);
    CA_ERASE(bad, r);
    CA_CLOSE(bad);
    CAParams params;
    memset(&params, 0xAB, sizeof params);
    EXPECT_EQ(0, CA_GETCACHESTAT(bad, &params));
    EXPECT_EQ(0xABABABABu, params.maxBytes);
    _CAStat stat;
    memset(&stat, 0xFF, sizeof stat);
    EXPECT_EQ(bad == nullptr ? 1 : 0, CA_GETSTAT(bad, CASTAT_SEARCH, &stat));
    _CAStat zero{};
    EXPECT_TRUE(bad == nullptr || memcmp(&zero, &stat, sizeof stat) == 0);
  }
  CAParams params;
  ASSERT_EQ(1, CA_GETCACHESTAT(h, &params));
  EXPECT_EQ(10u, params.allocated);
  EXPECT_EQ(1u, params.usedNodes);
  EXPECT_EQ((std::vector<unsigned long>{1, 1, 1, 0, 0, 0, 0, 0, 0}), Counts(h));
  CA_FREE(h, r);
  EXPECT_EQ(1ul, Counts(h)[CASTAT_RELEASE]);
}

TEST_F(ApiTest, StatisticsCountPerSlotPerCacheAndLibrary) {
  void* a = Open("a");
  void* b = Open("b");
  ASSERT_EQ(1, Insert(a, "k"));
  ASSERT_EQ(1, Insert(a, "j"));
  void* hit = Search(a, "k");
  ASSERT_NE(nullptr, hit);
  EXPECT_EQ(nullptr, Search(a, "other"));
  EXPECT_EQ(nullptr, Search(b, "k"));
  CAQuery query;
  EXPECT_EQ(1, CA_QUERY(a, hit, &query));
  CA_FREE(a, hit);
  CA_ERASE(a, Search(a, "j"));
  EXPECT_EQ((std::vector<unsigned long>{2, 4, 2, 1, 1, 1, 0, 0, 0}),
            Counts(nullptr));
  EXPECT_EQ((std::vector<unsigned long>{2, 3, 2, 1, 1, 1, 0, 0, 0}), Counts(a));
  EXPECT_EQ((std::vector<unsigned long>{0, 1, 0, 0, 0, 0, 0, 0, 0}), Counts(b));
  CAParams params;
  ASSERT_EQ(1, CA_GETCACHESTAT(a, &params));
  EXPECT_EQ(8ul, params.timing.count);  // every handle operation on "a"
}

TEST_F(ApiTest, CallbackSeesEachFlaggedRecordOnceIncludingAtDeinit) {
  EXPECT_EQ(0, CA_SETFREE(OnRelease));
  EXPECT_EQ(1, CA_SETFREE(OnRelease));
  void* h = Open("cache");
  void* other = Open("other");
  for (const char* key : {"a", "b"}) ASSERT_EQ(1, Insert(h, key));
  ASSERT_EQ(1, Insert(h, "plain", 0));
  ASSERT_EQ(1, Insert(other, "d"));
  CA_ERASE(h, Search(h, "a"));
  EXPECT_EQ(std::vector<std::string>{"a"}, freed);
  EXPECT_EQ(1, CA_DEINIT());
  EXPECT_EQ((std::vector<std::string>{"a", "b", "d"}), freed);
  EXPECT_EQ(&OnRelease, free_handle);  // survives the teardown
  h = Open("cache");
  EXPECT_EQ(1, CA_SETFREE(nullptr));
  EXPECT_EQ(0, CA_SETFREE(nullptr));
  ASSERT_EQ(1, Insert(h, "e"));
  CA_ERASE(h, Search(h, "e"));
  EXPECT_EQ(3u, freed.size());
}

}  // namespace
