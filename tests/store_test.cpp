// Caches, handles and records: handle tables, re-opening and closing, the
// record life cycle with holds, search ages, node counters and listing.
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "qmcache/qmcache.hpp"

// The library's wall clock, moved by hand (exported to interpose libc's).
static time_t g_now = 1700000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = g_now;
  return g_now;
}

namespace {

std::vector<std::string> freed;  // data of every record the callback saw

void OnRelease(int, unsigned long size, void* data) {
  freed.emplace_back(data != nullptr ? static_cast<char*>(data) : "", size);
}

using Counters = std::vector<unsigned int>;  // allocated, nodes, usedNodes

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now = 1700000000;
    freed.clear();
    CA_INIT(1);
    CA_SETFREE(OnRelease);
  }
  void TearDown() override {
    CA_DEINIT();
    free_handle = nullptr;
  }
  static void* Open(const char* name, unsigned int maxBytes = 0) {
    CAParams p{};
    p.maxBytes = maxBytes;
    return CA_CREATE(name, &p);
  }
  static CACache* CacheOf(void* h) {
    return static_cast<CACacheAction*>(h)->cache;
  }
  // Inserts `data` charged at its own size unless `length` is given.
  static int Put(void* h, const std::string& key, const std::string& data,
                 int flags = CAREC_CALLBACK, int length = -1) {
    return CA_INSERT(h, 7, flags, 60, (int)key.size(), key.data(),
                     (int)data.size(), length < 0 ? (int)data.size() : length,
                     data.data());
  }
  static void* Find(void* h, const std::string& key, int maxAge = 0) {
    return CA_SEARCH(h, maxAge, (int)key.size(), key.data());
  }
  static std::string DataOf(void* h, void* record) {
    CAQuery q;
    if (CA_QUERY(h, record, &q) != 1) return "<no query>";
    return std::string(static_cast<char*>(q.data), q.dataLength);
  }
  static Counters Count(void* h) {
    CAParams p;
    EXPECT_EQ(1, CA_GETCACHESTAT(h, &p));
    return {p.allocated, p.nodes, p.usedNodes};
  }
  static unsigned long Slot(void* h, int slot) {
    _CAStat s;
    CA_GETSTAT(h, slot, &s);
    return s.count;
  }
  // Data of the listed records; the entries after them must be null.
  static std::vector<std::string> List(void* h) {
    std::vector<std::string> out;
    int n = -1;
    void** list = CA_LIST(h, &n);
    EXPECT_EQ(list == nullptr, n == 0);
    for (int i = 0; i < n; i++) out.push_back(DataOf(h, list[i]));
    for (unsigned i = n; list != nullptr && i < CacheOf(h)->params.nodes; i++)
      EXPECT_EQ(nullptr, list[i]);
    CA_LIST_FREE(h, list);
    return out;
  }
};

TEST_F(StoreTest, HandleTableGrowsBySixteenAndReusesFreedSlots) {
  std::vector<void*> h;
  for (int i = 0; i < 17; i++) h.push_back(Open("grow"));
  CACache* c = CacheOf(h[0]);
  ASSERT_EQ(32, c->actionSlots);
  for (int i = 0; i < 32; i++)
    EXPECT_EQ(i < 17 ? h[i] : nullptr, c->actions[i]);
  CA_CLOSE(h[3]);
  EXPECT_EQ(nullptr, c->actions[3]);
  EXPECT_EQ(Open("grow"), c->actions[3]);
  EXPECT_EQ(32, c->actionSlots);
}

TEST_F(StoreTest, ReopenSharesTheCacheAndClosingOneOfTwoClearsFlags) {
  CAParams p;
  memset(&p, 0x77, sizeof(p));
  p.maxBytes = 0;
  void* a = CA_CREATE("cache", &p);
  EXPECT_EQ(1048576u, p.maxBytes);  // 0 on first open: the default
  EXPECT_EQ(0u, p.allocated + p.nodes + p.usedNodes + p.timing.count);
  const int kept = 0x10 | CAREC_CALLBACK;
  ASSERT_EQ(1, Put(a, "k", "data", kept | CAREC_PINNED | CAREC_EXPIRES));
  ASSERT_EQ(1, Put(a, "j", "abc", 0, 40));
  EXPECT_EQ(2u, Slot(a, CASTAT_INSERT));
  memset(&p, 0x77, sizeof(p));
  p.maxBytes = 0;
  void* b = CA_CREATE("cache", &p);
  EXPECT_EQ(CacheOf(a), CacheOf(b));
  EXPECT_EQ(0u, p.maxBytes);  // taken as given on re-open
  EXPECT_EQ(Counters({44, 2, 2}),
            Counters({p.allocated, p.nodes, p.usedNodes}));
  EXPECT_EQ(0u, p.timing.count);  // statistics emptied
  EXPECT_EQ(0u, Slot(a, CASTAT_INSERT));
  EXPECT_NE(CacheOf(a), CacheOf(Open("cache2")));
  EXPECT_NE(CacheOf(a), CacheOf(Open("")));

  p.maxBytes = 500;
  CA_CREATE("cache", &p);
  CA_CLOSE(b);  // one of several handles: budget 0, two flags cleared
  ASSERT_EQ(1, CA_GETCACHESTAT(a, &p));
  EXPECT_EQ(0u, p.maxBytes);
  void* r = Find(a, "k");
  CAQuery q;
  ASSERT_EQ(1, CA_QUERY(a, r, &q));
  EXPECT_EQ(kept, q.flags);
  CA_FREE(a, r);
  EXPECT_TRUE(freed.empty());

  for (void* handle :
       std::vector<void*>(CacheOf(a)->actions, CacheOf(a)->actions + 16))
    CA_CLOSE(handle);  // the last close destroys the cache
  EXPECT_EQ(std::vector<std::string>{"data"}, freed);
  void* again = Open("cache");
  EXPECT_EQ(1048576u, CacheOf(again)->params.maxBytes);
  EXPECT_EQ(Counters({0, 0, 0}), Count(again));
}

TEST_F(StoreTest, RecordLivesWhileHeldOrAttached) {
  void* h = Open("life");
  ASSERT_EQ(1, Put(h, "key", "value", CAREC_CALLBACK, 100));
  void* r1 = Find(h, "key");
  void* r2 = Find(h, "key");
  ASSERT_TRUE(r1 != nullptr && r1 == r2);
  g_now += 5;
  CAQuery q;
  ASSERT_EQ(1, CA_QUERY(h, r1, &q));
  EXPECT_EQ(3, q.hits);  // 1 at insertion, 2 searches; a query is no hit
  EXPECT_EQ(7, q.tag);
  EXPECT_EQ(5, q.age);
  EXPECT_EQ("key", std::string(static_cast<char*>(q.key), q.keyLength));
  EXPECT_EQ(5, q.dataLength);
  EXPECT_EQ(100, q.length);
  ASSERT_EQ(1, CA_QUERY(h, r1, &q));
  EXPECT_EQ(3, q.hits);

  // Replaced while held: detached, still charged, destroyed with the last
  // of its two holds.
  ASSERT_EQ(0, Put(h, "key", "newer", CAREC_CALLBACK, 20));
  EXPECT_EQ(Counters({120, 1, 1}), Count(h));
  ASSERT_EQ(1, CA_QUERY(h, r1, &q));
  EXPECT_TRUE(q.key == nullptr && q.keyLength == 0);
  EXPECT_EQ("value", DataOf(h, r1));
  CA_ERASE(h, r2);  // drops a hold; the record has already left the cache
  EXPECT_TRUE(freed.empty());
  CA_FREE(h, r1);
  EXPECT_EQ(std::vector<std::string>{"value"}, freed);
  EXPECT_EQ(Counters({20, 1, 1}), Count(h));

  // Released while attached and unheld: stays. Erased: destroyed at once.
  void* cur = Find(h, "key");
  EXPECT_EQ("newer", DataOf(h, cur));
  CA_FREE(h, cur);
  CA_FREE(h, cur);
  EXPECT_EQ(1u, freed.size());
  CA_ERASE(h, cur);
  EXPECT_EQ(nullptr, Find(h, "key"));
  EXPECT_EQ(Counters({0, 1, 0}), Count(h));
  EXPECT_EQ((std::vector<std::string>{"value", "newer"}), freed);

  // Replacing an unheld record destroys it during the insert; an emptied
  // node is found again.
  ASSERT_EQ(0, Put(h, "key", "third"));
  ASSERT_EQ(0, Put(h, "key", "fourth", CAREC_CALLBACK, 4));
  EXPECT_EQ("third", freed.back());
  EXPECT_EQ(Counters({4, 1, 1}), Count(h));
  CA_FREE(h, nullptr);
  CA_ERASE(h, nullptr);
  EXPECT_EQ(3u, Slot(h, CASTAT_RELEASE));  // null records are not counted
  EXPECT_EQ(2u, Slot(h, CASTAT_ERASE));

  // Size 0 stores no record yet reports whether the key was new; it still
  // replaces (and so destroys) the old record.
  EXPECT_EQ(1, CA_INSERT(h, 1, CAREC_CALLBACK, 0, 1, "a", 0, 9, "x"));
  EXPECT_EQ(0, CA_INSERT(h, 1, 0, 0, 3, "key", 0, 9, "x"));
  EXPECT_EQ(nullptr, Find(h, "a"));
  EXPECT_EQ(nullptr, Find(h, "key"));
  EXPECT_EQ("fourth", freed.back());
  // A size of -1 widens to one whose buffer size wraps: no record either.
  EXPECT_EQ(1, CA_INSERT(h, 1, 0, 0, 1, "c", -1, 1, "abc"));
  EXPECT_EQ(nullptr, Find(h, "c"));
  EXPECT_EQ(Counters({0, 3, 3}), Count(h));
  EXPECT_EQ(4u, Slot(h, CASTAT_INSERT));
}

TEST_F(StoreTest, HeldRecordOutlivesItsCache) {
  void* h = Open("gone");
  void* other = Open("other");
  Put(h, "k", "payload");
  Put(h, "j", "unheld");
  CARecord* r = static_cast<CARecord*>(Find(h, "k"));
  CA_CLOSE(h);
  EXPECT_EQ(std::vector<std::string>{"unheld"}, freed);
  EXPECT_TRUE(r->cache == nullptr && r->node == nullptr);
  CA_FREE(other, r);  // must not touch the destroyed cache (ASan)
  EXPECT_EQ("payload", freed.back());
  EXPECT_EQ(Counters({0, 0, 0}), Count(other));

  Put(other, "k", "late");
  CARecord* late = static_cast<CARecord*>(Find(other, "k"));
  CA_DEINIT();
  EXPECT_EQ(2u, freed.size());
  EXPECT_EQ(nullptr, late->cache);
  late->Free();
  EXPECT_EQ("late", freed.back());
}

TEST_F(StoreTest, SearchHitsOnlyRecordsYoungerThanMaxAge) {
  void* h = Open("age");
  Put(h, "k", "v");
  struct {
    int advance, maxAge;
    bool hit;
  } cases[] = {{0, 1, true},
               {0, -1, false},
               {1, 1, false},
               {0, -5, false},
               {0, 2, true},
               {100000, 0, true},
               // The clock stepped back: the record's age is -10, and a
               // signed limit above that age still finds it.
               {-100011, -1, true},
               {0, -9, true},
               {0, -10, false}};
  for (auto& c : cases) {
    g_now += c.advance;
    void* r = Find(h, "k", c.maxAge);
    EXPECT_EQ(c.hit, r != nullptr) << c.maxAge << " at " << g_now;
    CA_FREE(h, r);
  }
  EXPECT_EQ(9u, Slot(h, CASTAT_SEARCH));
  EXPECT_EQ(5u, Slot(h, CASTAT_SEARCH_HIT));
  CAQuery q;
  void* r = Find(h, "k");
  CA_QUERY(h, r, &q);
  CA_FREE(h, r);
  EXPECT_EQ(7, q.hits);  // the misses did not count
}

TEST_F(StoreTest, ListIsPreorderAndReachesBelowEmptiedNodes) {
  void* h = Open("list");
  EXPECT_TRUE(List(h).empty());
  for (int k : {2, 1, 3}) Put(h, std::string(1, k), std::to_string(k) + "!");
  EXPECT_EQ((std::vector<std::string>{"2!", "1!", "3!"}), List(h));
  CA_ERASE(h, Find(h, std::string(1, 2)));  // empty the root
  EXPECT_EQ((std::vector<std::string>{"1!", "3!"}), List(h));

  void* g = Open("seven");
  for (int k : {4, 2, 6, 1, 3, 5, 7})
    Put(g, std::string(1, k), "r" + std::to_string(k));
  CA_ERASE(g, Find(g, std::string(1, 2)));
  CA_ERASE(g, Find(g, std::string(1, 6)));
  EXPECT_EQ((std::vector<std::string>{"r4", "r1", "r3", "r5", "r7"}), List(g));

  // First/Next walk ascending over every node, empty ones included.
  CACache* c = CacheOf(g);
  BTreeNumerator* it = nullptr;
  std::string order;
  for (BTree* n = c->First(&it); n != nullptr; n = c->Next(&it))
    order += std::to_string(n->key[0]) + (n->payload ? "," : "-,");
  EXPECT_EQ("1,2-,3,4,5,6-,7,", order);
  EXPECT_EQ(nullptr, it);
  EXPECT_EQ(nullptr, c->Next(&it));
  EXPECT_EQ(nullptr, CacheOf(Open("none"))->First(&it));
}

// Replacing a record in a cache just past the 20,000 free-node limit: the
// unlink fires the rebuild, which must keep the new record in a live node.
TEST_F(StoreTest, ReplacementAtTheFreeNodeLimitKeepsTheNewRecord) {
  void* h = Open("rebuild", 1u << 30);
  CACache* c = CacheOf(h);
  Put(h, "keep", "old");
  Put(h, "drop", "gone");
  for (int round = 0; round < 2; round++) {
    CAFree* controller = cafree;
    cafree = nullptr;  // empty 20,001 nodes without reclaiming
    for (int i = 0; i <= 20000; i++) Put(h, "k" + std::to_string(i), "v", 0);
    for (int i = 0; i <= 20000; i++)
      CA_ERASE(h, Find(h, "k" + std::to_string(i)));
    cafree = controller;
    ASSERT_EQ(20001u, c->params.nodes - c->params.usedNodes);
    // Round 0 replaces "keep"; round 1 replaces "drop" by a size-0 insert.
    ASSERT_EQ(0, round == 0 ? Put(h, "keep", "new")
                            : CA_INSERT(h, 0, 0, 0, 4, "drop", 0, 0, "x"));
    EXPECT_EQ(round + 1u, Slot(h, CASTAT_REBUILD));
    CARecord* rec = static_cast<CARecord*>(Find(h, "keep"));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(rec, rec->node->payload);
    EXPECT_EQ("keep", std::string((char*)rec->node->key, rec->node->keyLength));
    EXPECT_EQ("new", DataOf(h, rec));
    CA_FREE(h, rec);
  }
  EXPECT_EQ((std::vector<std::string>{"old", "gone"}), freed);
  EXPECT_EQ(nullptr, Find(h, "drop"));
  EXPECT_EQ(Counters({3, 1, 1}), Count(h));
}

}  // namespace
