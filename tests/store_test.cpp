// Caches, handles and records, at the class level and through the C calls.
#include <limits.h>
#include <string.h>
#include <time.h>

#include <map>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

// The wall clock seen by the library: tests move it by hand. The build hides
// symbols by default; this one must be exported to interpose libc's time.
static time_t g_now = 1700000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = g_now;
  return g_now;
}

namespace {

struct Released {
  int flags;
  unsigned long size;
  std::string data;  // empty when the block was null
};
std::vector<Released> g_released;

void Recorder(int flags, unsigned long size, void* data) {
  std::string bytes;
  if (data != nullptr) bytes.assign(static_cast<char*>(data), size);
  g_released.push_back({flags, size, bytes});
}

class StoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    g_now = 1700000000;
    g_released.clear();
    CA_INIT(1);
    CA_SETFREE(Recorder);
  }
  void TearDown() override {
    CA_DEINIT();
    free_handle = nullptr;
  }

  static void* Open(const char* name, unsigned int maxBytes = 0) {
    CAParams p;
    memset(&p, 0, sizeof(p));
    p.maxBytes = maxBytes;
    return CA_CREATE(name, &p);
  }
  static CACache* CacheOf(void* h) {
    return static_cast<CACacheAction*>(h)->cache;
  }
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
  static CAParams Stat(void* h) {
    CAParams p;
    memset(&p, 0xAB, sizeof(p));
    EXPECT_EQ(1, CA_GETCACHESTAT(h, &p));
    return p;
  }
  static unsigned long SlotCount(void* h, int slot) {
    _CAStat s;
    CA_GETSTAT(h, slot, &s);
    return s.count;
  }
  // Data of the records in list order.
  static std::vector<std::string> ListData(void* h, int* count) {
    std::vector<std::string> out;
    void** list = CA_LIST(h, count);
    for (int i = 0; list != nullptr && i < *count; i++)
      out.push_back(DataOf(h, list[i]));
    if (list != nullptr) {
      unsigned int nodes = CacheOf(h)->params.nodes;
      for (unsigned int i = *count; i < nodes; i++) EXPECT_EQ(nullptr, list[i]);
    }
    CA_LIST_FREE(h, list);
    return out;
  }
};

TEST_F(StoreTest, HandleValidationComparesAllEightBytes) {
  void* h = Open("v");
  EXPECT_EQ(h, CACacheAction::GetAction(h));
  EXPECT_EQ(nullptr, CACacheAction::GetAction(nullptr));
  unsigned char fake[16] = {'C', 'A', 'A', 'C', 0, 0, 0, 1};
  EXPECT_EQ(nullptr, CACacheAction::GetAction(fake));
  EXPECT_EQ(-1, Put(fake, "k", "d"));
  CA_CLOSE(fake);  // ignored
  CAParams p;
  memset(&p, 0x5A, sizeof(p));
  EXPECT_EQ(0, CA_GETCACHESTAT(fake, &p));
  EXPECT_EQ(0x5A5A5A5Au, p.maxBytes);
  fake[7] = 0;
  EXPECT_NE(nullptr, CACacheAction::GetAction(fake));
}

TEST_F(StoreTest, HandleTableGrowsBySixteenAndReusesFreeSlots) {
  std::vector<void*> h;
  for (int i = 0; i < 17; i++) h.push_back(Open("grow"));
  CACache* c = CacheOf(h[0]);
  ASSERT_EQ(32, c->actionSlots);
  for (int i = 0; i < 17; i++) EXPECT_EQ(h[i], c->actions[i]);
  for (int i = 17; i < 32; i++) EXPECT_EQ(nullptr, c->actions[i]);
  CA_CLOSE(h[3]);
  EXPECT_EQ(nullptr, c->actions[3]);
  void* again = Open("grow");
  EXPECT_EQ(again, c->actions[3]);
  EXPECT_EQ(32, c->actionSlots);
  EXPECT_EQ(0, c->DeleteAction(reinterpret_cast<CACacheAction*>(&again)));
}

TEST_F(StoreTest, OpenAndReopenWriteParamsBack) {
  CAParams p;
  memset(&p, 0x77, sizeof(p));
  p.maxBytes = 0;
  void* a = CA_CREATE("cache", &p);
  EXPECT_EQ(1048576u, p.maxBytes);
  EXPECT_EQ(0u, p.allocated);
  EXPECT_EQ(0u, p.nodes);
  EXPECT_EQ(0u, p.usedNodes);
  EXPECT_EQ(0u, p.timing.count);
  ASSERT_EQ(1, Put(a, "k1", "hello"));
  ASSERT_EQ(1, Put(a, "k2", "abc", 0, 40));
  EXPECT_EQ(2u, Stat(a).timing.count);
  EXPECT_EQ(2u, SlotCount(a, CASTAT_INSERT));

  memset(&p, 0x77, sizeof(p));
  p.maxBytes = 0;
  void* b = CA_CREATE("cache", &p);
  EXPECT_NE(a, b);
  EXPECT_EQ(CacheOf(a), CacheOf(b));
  EXPECT_EQ(0u, p.maxBytes);  // no default on re-open
  EXPECT_EQ(45u, p.allocated);
  EXPECT_EQ(2u, p.nodes);
  EXPECT_EQ(2u, p.usedNodes);
  EXPECT_EQ(0u, p.timing.count);  // both statistics emptied
  EXPECT_EQ(0u, SlotCount(a, CASTAT_INSERT));
  void* r = Find(b, "k1");
  ASSERT_NE(nullptr, r);
  EXPECT_EQ("hello", DataOf(b, r));
  CA_FREE(b, r);
  CAParams q = Stat(a);
  EXPECT_EQ(0, memcmp(&q, &p, 16));  // same counters
  EXPECT_EQ(3u, q.timing.count);     // search, query, release

  // A longer name and the empty name are caches of their own.
  void* longer = Open("cache2");
  void* empty = Open("");
  EXPECT_NE(CacheOf(a), CacheOf(longer));
  EXPECT_NE(CacheOf(longer), CacheOf(empty));
  EXPECT_EQ(0u, Stat(longer).nodes);
}

TEST_F(StoreTest, ClosingOneOfTwoHandlesZeroesBudgetAndClearsFlags) {
  void* a = Open("two");
  void* b = Open("two");
  const int other = 0x10 | CAREC_CALLBACK;
  Put(a, "k", "data", other | CAREC_PINNED | CAREC_EXPIRES);
  CA_CLOSE(b);
  EXPECT_EQ(0u, Stat(a).maxBytes);
  void* r = Find(a, "k");
  ASSERT_NE(nullptr, r);
  CAQuery q;
  ASSERT_EQ(1, CA_QUERY(a, r, &q));
  EXPECT_EQ(other, q.flags);
  CA_FREE(a, r);
  EXPECT_TRUE(g_released.empty());
}

TEST_F(StoreTest, LastCloseDestroysTheCache) {
  void* a = Open("last");
  Put(a, "x", "one");
  Put(a, "y", "two", 0);
  CA_CLOSE(a);
  ASSERT_EQ(1u, g_released.size());  // only the record asking for it
  EXPECT_EQ("one", g_released[0].data);
  EXPECT_EQ(CAREC_CALLBACK, g_released[0].flags);
  EXPECT_EQ(3u, g_released[0].size);
  CAParams p;
  memset(&p, 0, sizeof(p));
  p.maxBytes = 0;
  void* b = CA_CREATE("last", &p);
  EXPECT_EQ(1048576u, p.maxBytes);  // a new cache gets the default again
  EXPECT_EQ(0u, p.allocated);
  EXPECT_EQ(0u, p.nodes);
  EXPECT_EQ(nullptr, CacheOf(b)->tree);
  EXPECT_EQ(nullptr, Find(b, "x"));
}

TEST_F(StoreTest, RecordLifeCycleWithHolds) {
  void* h = Open("life");
  ASSERT_EQ(1, Put(h, "key", "value", CAREC_CALLBACK, 100));
  EXPECT_EQ(100u, Stat(h).allocated);
  CARecord* r1 = static_cast<CARecord*>(Find(h, "key"));
  ASSERT_NE(nullptr, r1);
  EXPECT_EQ(1, r1->refCount);
  EXPECT_EQ(2u, r1->hits);
  CARecord* r2 = static_cast<CARecord*>(Find(h, "key"));
  EXPECT_EQ(r1, r2);
  EXPECT_EQ(2, r1->refCount);
  EXPECT_EQ(3u, r1->hits);

  CAQuery q;
  g_now += 5;
  ASSERT_EQ(1, CA_QUERY(h, r1, &q));
  EXPECT_EQ(3, q.hits);
  EXPECT_EQ(7, q.tag);
  EXPECT_EQ(5, q.age);
  EXPECT_EQ(3, q.keyLength);
  EXPECT_EQ(0, memcmp(q.key, "key", 3));
  EXPECT_EQ(5, q.dataLength);
  EXPECT_EQ(100, q.length);
  EXPECT_EQ(3u, r1->hits);  // a query is not a hit
  EXPECT_EQ(2, r1->refCount);

  CA_ERASE(h, r2);  // drops one hold and leaves the cache; one hold remains
  EXPECT_EQ(nullptr, Find(h, "key"));
  EXPECT_EQ(1, r1->refCount);
  EXPECT_EQ(nullptr, r1->node);
  EXPECT_EQ(100u, Stat(h).allocated);  // still alive, still charged
  EXPECT_EQ(0u, Stat(h).usedNodes);
  EXPECT_TRUE(g_released.empty());
  ASSERT_EQ(1, CA_QUERY(h, r1, &q));
  EXPECT_EQ(nullptr, q.key);
  CA_FREE(h, r1);  // the last hold of a detached record destroys it
  ASSERT_EQ(1u, g_released.size());
  EXPECT_EQ("value", g_released[0].data);
  EXPECT_EQ(0u, Stat(h).allocated);
  EXPECT_EQ(1u, Stat(h).nodes);
}

TEST_F(StoreTest, FreeOfUnheldAttachedRecordChangesNothingButIsTimed) {
  void* h = Open("free");
  Put(h, "a", "x");
  int n = 0;
  void** list = CA_LIST(h, &n);
  ASSERT_EQ(1, n);
  CARecord* r = static_cast<CARecord*>(list[0]);
  CA_LIST_FREE(h, list);
  CA_FREE(h, r);
  EXPECT_EQ(0, r->refCount);
  EXPECT_EQ(1u, SlotCount(h, CASTAT_RELEASE));
  CA_FREE(h, nullptr);
  CA_ERASE(h, nullptr);
  EXPECT_EQ(1u, SlotCount(h, CASTAT_RELEASE));
  EXPECT_EQ(0u, SlotCount(h, CASTAT_ERASE));
  CA_ERASE(h, r);  // nobody holds it: destroyed at once
  EXPECT_EQ(1u, g_released.size());
  EXPECT_EQ(1u, SlotCount(h, CASTAT_ERASE));
  EXPECT_EQ(0u, Stat(h).allocated);
}

TEST_F(StoreTest, HeldRecordSurvivesItsCache) {
  void* h = Open("gone");
  void* other = Open("other");
  Put(h, "k", "payload", CAREC_CALLBACK, 30);
  Put(h, "j", "unheld");
  CARecord* r = static_cast<CARecord*>(Find(h, "k"));
  ASSERT_NE(nullptr, r);
  CA_CLOSE(h);  // destroys the cache; the held record is only detached
  ASSERT_EQ(1u, g_released.size());
  EXPECT_EQ("unheld", g_released[0].data);
  EXPECT_EQ(nullptr, r->cache);
  EXPECT_EQ(nullptr, r->node);
  CAQuery q;
  ASSERT_EQ(1, CA_QUERY(other, r, &q));
  EXPECT_EQ(nullptr, q.key);
  EXPECT_EQ(0, q.keyLength);
  CA_FREE(other, r);  // must not touch the destroyed cache (ASan)
  ASSERT_EQ(2u, g_released.size());
  EXPECT_EQ("payload", g_released[1].data);
  EXPECT_EQ(0u, Stat(other).allocated);

  // The same through library teardown, released at the class level.
  void* again = Open("gone");
  Put(again, "k", "late");
  CARecord* late = static_cast<CARecord*>(Find(again, "k"));
  CA_DEINIT();
  EXPECT_EQ(2u, g_released.size());
  EXPECT_EQ(nullptr, late->cache);
  late->Free();
  ASSERT_EQ(3u, g_released.size());
  EXPECT_EQ("late", g_released[2].data);
}

TEST_F(StoreTest, ReplacementKeepsHeldOldRecord) {
  void* h = Open("rep");
  ASSERT_EQ(1, Put(h, "k", "old", CAREC_CALLBACK, 10));
  void* old = Find(h, "k");
  ASSERT_EQ(0, Put(h, "k", "newer", CAREC_CALLBACK, 20));
  EXPECT_EQ(1u, Stat(h).nodes);
  EXPECT_EQ(1u, Stat(h).usedNodes);
  EXPECT_EQ(30u, Stat(h).allocated);
  CAQuery q;
  ASSERT_EQ(1, CA_QUERY(h, old, &q));
  EXPECT_EQ(nullptr, q.key);
  EXPECT_EQ(0, q.keyLength);
  EXPECT_EQ("old", DataOf(h, old));
  void* now = Find(h, "k");
  EXPECT_NE(old, now);
  EXPECT_EQ("newer", DataOf(h, now));
  EXPECT_TRUE(g_released.empty());
  CA_FREE(h, old);
  ASSERT_EQ(1u, g_released.size());
  EXPECT_EQ("old", g_released[0].data);
  EXPECT_EQ(20u, Stat(h).allocated);
  CA_FREE(h, now);
  // Replacing an unheld record destroys it during the insert.
  ASSERT_EQ(0, Put(h, "k", "third", CAREC_CALLBACK, 5));
  ASSERT_EQ(2u, g_released.size());
  EXPECT_EQ("newer", g_released[1].data);
  EXPECT_EQ(5u, Stat(h).allocated);
}

TEST_F(StoreTest, SizeZeroAndWrappingSizeStoreNoRecord) {
  void* h = Open("zero");
  EXPECT_EQ(1, CA_INSERT(h, 1, CAREC_CALLBACK, 0, 1, "a", 0, 9, "x"));
  EXPECT_EQ(nullptr, Find(h, "a"));
  CAParams p = Stat(h);
  EXPECT_EQ(1u, p.nodes);
  EXPECT_EQ(1u, p.usedNodes);
  EXPECT_EQ(0u, p.allocated);
  EXPECT_EQ(0u, SlotCount(h, CASTAT_INSERT));  // nothing recorded
  ASSERT_EQ(1u, g_released.size());
  EXPECT_EQ(0u, g_released[0].size);

  // Replacing a record by an empty one: old record gone, count raised.
  ASSERT_EQ(1, Put(h, "b", "bee"));
  EXPECT_EQ(0, CA_INSERT(h, 1, 0, 0, 1, "b", 0, 3, "x"));
  EXPECT_EQ(nullptr, Find(h, "b"));
  p = Stat(h);
  EXPECT_EQ(2u, p.nodes);
  EXPECT_EQ(2u, p.usedNodes);
  EXPECT_EQ(0u, p.allocated);
  ASSERT_EQ(2u, g_released.size());
  EXPECT_EQ("bee", g_released[1].data);

  // A size of -1 widens to the largest size, whose buffer count wraps.
  char small[4] = "abc";
  EXPECT_EQ(1, CA_INSERT(h, 1, CAREC_CALLBACK, 0, 1, "c", -1, 1, small));
  EXPECT_EQ(nullptr, Find(h, "c"));
  ASSERT_EQ(3u, g_released.size());
  EXPECT_EQ(ULONG_MAX, g_released[2].size);
  EXPECT_EQ("", g_released[2].data);  // no block was ever made
}

TEST_F(StoreTest, SearchHonoursMaxAge) {
  void* h = Open("age");
  Put(h, "k", "v");
  void* r = Find(h, "k", 1);  // same second: age 0 < 1
  ASSERT_NE(nullptr, r);
  CA_FREE(h, r);
  EXPECT_EQ(nullptr, Find(h, "k", -1));
  g_now += 1;
  EXPECT_EQ(nullptr, Find(h, "k", 1));
  EXPECT_EQ(nullptr, Find(h, "k", -5));
  r = Find(h, "k", 2);
  ASSERT_NE(nullptr, r);
  CA_FREE(h, r);
  g_now += 100000;
  r = Find(h, "k", 0);
  ASSERT_NE(nullptr, r);
  CA_FREE(h, r);
  CARecord* rec = static_cast<CARecord*>(r);
  EXPECT_EQ(4u, rec->hits);  // three hits; the misses left it alone
  EXPECT_EQ(0, rec->refCount);
  EXPECT_EQ(6u, SlotCount(h, CASTAT_SEARCH));
  EXPECT_EQ(3u, SlotCount(h, CASTAT_SEARCH_HIT));
  EXPECT_EQ(3u, SlotCount(nullptr, CASTAT_SEARCH_HIT));
}

TEST_F(StoreTest, NodeCountersAndOperationTiming) {
  void* h = Open("count");
  void* empty = Open("empty");
  EXPECT_EQ(nullptr, Find(empty, "none"));
  EXPECT_EQ(1u, SlotCount(empty, CASTAT_SEARCH));
  EXPECT_EQ(1u, Stat(empty).timing.count);

  Put(h, "a", "1");
  Put(h, "b", "2");
  void* r = Find(h, "a");
  CA_ERASE(h, r);
  CAParams p = Stat(h);
  EXPECT_EQ(2u, p.nodes);
  EXPECT_EQ(1u, p.usedNodes);
  EXPECT_EQ(1u, p.allocated);
  EXPECT_EQ(0, Put(h, "a", "1"));  // the emptied node is found again
  p = Stat(h);
  EXPECT_EQ(2u, p.nodes);
  EXPECT_EQ(2u, p.usedNodes);
  EXPECT_EQ(1, Put(h, "c", "3"));
  EXPECT_EQ(3u, Stat(h).nodes);
  // insert x4, search, erase; each adds once to the cache's timing slot.
  EXPECT_EQ(4u, SlotCount(h, CASTAT_INSERT));
  EXPECT_EQ(6u, Stat(h).timing.count);
  EXPECT_EQ(1u, SlotCount(h, CASTAT_ERASE));

  // A handle detached from its cache does nothing and records nothing.
  CACacheAction* a = static_cast<CACacheAction*>(h);
  CACache* c = a->cache;
  a->cache = nullptr;
  EXPECT_EQ(-1, a->Insert(0, 0, 0, 1, (void*)"z", 1, 1, (void*)"z"));
  EXPECT_EQ(nullptr, a->Search(0, 1, (void*)"a"));
  CAQuery q;
  EXPECT_EQ(0, a->Query(r, &q));
  int n = 5;
  EXPECT_EQ(nullptr, a->GetCacheAsList(&n));
  EXPECT_EQ(0, n);
  a->cache = c;
  EXPECT_EQ(6u, Stat(h).timing.count);
}

TEST_F(StoreTest, ListIsPreorderAndReachesBelowEmptyNodes) {
  void* h = Open("list");
  int n = 42;
  EXPECT_EQ(nullptr, CA_LIST(h, &n));
  EXPECT_EQ(0, n);
  Put(h, std::string(1, 2), "two");
  Put(h, std::string(1, 1), "one");
  Put(h, std::string(1, 3), "three");
  n = 42;
  EXPECT_EQ((std::vector<std::string>{"two", "one", "three"}), ListData(h, &n));
  EXPECT_EQ(3, n);
  CA_ERASE(h, Find(h, std::string(1, 2)));  // empty the root
  EXPECT_EQ((std::vector<std::string>{"one", "three"}), ListData(h, &n));
  EXPECT_EQ(2, n);

  // Invalid handle: null, count untouched.
  char fake[8] = {};
  n = 9;
  EXPECT_EQ(nullptr, CA_LIST(fake, &n));
  EXPECT_EQ(9, n);

  // A balanced tree of 7 with an emptied inner node.
  void* g = Open("seven");
  for (int k : {4, 2, 6, 1, 3, 5, 7})
    Put(g, std::string(1, (char)k), std::to_string(k));
  CA_ERASE(g, Find(g, std::string(1, 2)));
  EXPECT_EQ((std::vector<std::string>{"4", "1", "3", "6", "5", "7"}),
            ListData(g, &n));
}

TEST_F(StoreTest, ListWalksAChainWithoutRecursion) {
  void* h = Open("chain");
  CACache* c = CacheOf(h);
  const int kNodes = 400000;
  // A zig-zag chain built by hand, a record on every 1000th node.
  BTree* root = nullptr;
  BTree* last = nullptr;
  std::vector<CARecord*> records;
  for (int i = 0; i < kNodes; i++) {
    unsigned char key[4] = {(unsigned char)(i >> 24), (unsigned char)(i >> 16),
                            (unsigned char)(i >> 8), (unsigned char)i};
    BTree** link = last == nullptr ? &root
                   : (i % 2)       ? &last->left
                                   : &last->right;
    BTree* node = new BTree(key, 4, last, link);
    *link = node;
    if (i % 1000 == 999) {
      CARecord* r = new CARecord(4, 4, key, node, c, i, 0, 0);
      node->payload = r;
      records.push_back(r);
    }
    last = node;
  }
  c->tree = root;
  c->params.nodes = kNodes;
  int n = 0;
  void** list = CA_LIST(h, &n);
  ASSERT_EQ((int)records.size(), n);
  for (int i = 0; i < n; i++) EXPECT_EQ(records[i], list[i]);
  CA_LIST_FREE(h, list);
  // Take the chain down bottom-up, then hand the cache back empty.
  for (CARecord* r : records) delete r;
  while (last != nullptr) {
    BTree* up = last->parent;
    if (up != nullptr) *last->parentLink = nullptr;
    delete last;
    last = up;
  }
  c->tree = nullptr;
  c->params.nodes = 0;
}

TEST_F(StoreTest, FirstAndNextWalkTheRecordTree) {
  void* h = Open("walk");
  CACache* c = CacheOf(h);
  BTreeNumerator* it = reinterpret_cast<BTreeNumerator*>(1);
  EXPECT_EQ(nullptr, c->First(&it));
  EXPECT_EQ(nullptr, it);
  EXPECT_EQ(nullptr, c->Next(&it));  // no walk open: nothing
  for (const char* k : {"m", "c", "x", "a", "ab"}) Put(h, k, k);
  CA_ERASE(h, Find(h, "x"));  // empty nodes are walked too
  std::string order;
  for (BTree* n = c->First(&it); n != nullptr; n = c->Next(&it)) {
    order += std::string((char*)n->key, n->keyLength);
    order += n->payload != nullptr ? "," : "-,";
  }
  EXPECT_EQ("ab,a,c,m,x-,", order);
  EXPECT_EQ(nullptr, it);
}

TEST_F(StoreTest, ReplacementDuringFreeNodeRebuildKeepsTheNewRecord) {
  void* h = Open("rebuild", 1u << 30);
  CACache* c = CacheOf(h);
  const int kRecords = 20005;
  for (int i = 0; i < kRecords; i++) Put(h, "k" + std::to_string(i), "v", 0);
  Put(h, "keep", "old");
  Put(h, "drop", "gone");
  // Empty the nodes without reclaiming: the counters move, nothing runs.
  CAFree* controller = cafree;
  cafree = nullptr;
  for (int i = 0; i < kRecords; i++) {
    void* r = Find(h, "k" + std::to_string(i));
    ASSERT_NE(nullptr, r);
    CA_ERASE(h, r);
  }
  cafree = controller;
  ASSERT_EQ((unsigned)kRecords, c->params.nodes - c->params.usedNodes);

  // The unlink of the old record crosses the free-node limit; the rebuild
  // runs only once the new record is in place.
  ASSERT_EQ(0, Put(h, "keep", "new"));
  ASSERT_NE(nullptr, c->tree);
  EXPECT_EQ(2u, c->params.nodes);
  EXPECT_EQ(2u, c->params.usedNodes);
  void* r = Find(h, "keep");
  ASSERT_NE(nullptr, r);
  CARecord* rec = static_cast<CARecord*>(r);
  EXPECT_EQ(rec, rec->node->payload);
  EXPECT_EQ(0, memcmp(rec->node->key, "keep", 4));
  EXPECT_EQ("new", DataOf(h, r));
  CA_FREE(h, r);
  EXPECT_EQ(1u, SlotCount(h, CASTAT_REBUILD));

  // Same crossing, but the new record is dropped (size 0).
  cafree = nullptr;
  for (int i = 0; i < kRecords; i++) Put(h, "k" + std::to_string(i), "v", 0);
  for (int i = 0; i < kRecords; i++)
    CA_ERASE(h, Find(h, "k" + std::to_string(i)));
  cafree = controller;
  g_released.clear();
  EXPECT_EQ(0, CA_INSERT(h, 0, CAREC_CALLBACK, 0, 4, "drop", 0, 0, "x"));
  EXPECT_EQ(2u, SlotCount(h, CASTAT_REBUILD));
  ASSERT_EQ(2u, g_released.size());  // the old record, then the dropped one
  EXPECT_EQ("gone", g_released[0].data);
  EXPECT_EQ(0u, g_released[1].size);
  EXPECT_EQ(nullptr, Find(h, "drop"));
  r = Find(h, "keep");
  ASSERT_NE(nullptr, r);
  EXPECT_EQ("new", DataOf(h, r));
  CA_FREE(h, r);
  EXPECT_EQ(1u, c->params.nodes);  // only "keep" carries a record
}

}  // namespace
