// SPDX-License-Identifier: MIT
// Caches, handles and records through the C interface: what each call
// returns, what it changes, when records die and what bad input gets.
#include <malloc.h>
#include <string.h>

#include "support.h"

// Heap bytes in use; 0 under valgrind, whose heap keeps no such figure.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
size_t HeapInUse() { return __sanitizer_get_current_allocated_bytes(); }
#else
size_t HeapInUse() { return mallinfo2().uordblks + mallinfo2().hblkhd; }
#endif

// "maxBytes allocated nodes usedNodes" of the handle's cache.
std::string Counters(void* h) {
  CAParams p = Params(h);
  return Format("%u %u %u %u", p.maxBytes, p.allocated, p.nodes, p.usedNodes);
}

using Store = Fresh;

TEST_F(Store, ACacheIsSharedByNameAndLivesWhileAHandleDoes) {
  CAParams p{0, 99, 99, 99, {}};
  void* a = CA_CREATE("c", &p);  // a new cache: the default budget, counters 0
  EXPECT_EQ(Counters(a), "1048576 0 0 0");
  EXPECT_EQ(Counters(CA_CREATE("n", nullptr)), "1048576 0 0 0");  // read as 0
  EXPECT_EQ(Counters(CA_CREATE("n", nullptr)), "0 0 0 0");
  Put(a, "k", "v", 10, CAREC_CALLBACK | CAREC_PINNED | CAREC_EXPIRES);
  p = CAParams{};  // re-opened with 0: a budget of 0, statistics emptied
  void* b = CA_CREATE("c", &p);
  EXPECT_TRUE(a != b && p.allocated == 10 && p.timing.count == 0);
  EXPECT_EQ(Get(Open("cc"), "k") + Get(Open(""), "k") + Get(b, "k"), "--v");
  CA_CLOSE(Open("c", 500));  // closing one of several: budget 0, no pinning
  EXPECT_EQ(Counters(a), "0 10 1 1");  // or expiry
  EXPECT_EQ(Query(a, NodeOf(a, "k")->payload).flags, CAREC_CALLBACK);
  // The handle table grows by 16 and reuses the lowest free slot.
  CACache* c = static_cast<CACacheAction*>(a)->cache;
  std::vector<void*> more;
  while (more.size() < 15) more.push_back(Open("c"));
  EXPECT_TRUE(c->actionSlots == 32 && c->actions[16] == more.back());
  CA_CLOSE(c->actions[3]);
  EXPECT_EQ(Open("c"), c->actions[3]);
  CACacheAction* extra = Open("c");  // leaves the table once; the cache stays
  EXPECT_TRUE(c->DeleteAction(extra) == 1 && c->DeleteAction(extra) == 0);
  c->InsertAction(extra);
  for (int i = 0; i < c->actionSlots; ++i)
    if (c->actions[i] != nullptr && c->actions[i] != a) CA_CLOSE(c->actions[i]);
  CACache::Delete((char*)"c");  // a cache with a handle is left alone
  EXPECT_TRUE(released.empty() && Counters(a) == "0 10 1 1");
  CA_CLOSE(a);  // the last handle: the cache and its records go
  EXPECT_EQ(released, Lines{"v"});
  EXPECT_EQ(Counters(Open("c")), "1048576 0 0 0");  // a new cache
}

TEST_F(Store, ARecordsBytesGoBackWithItEvenWhenItOutlivesItsCache) {
  const std::string value(64, 'v');  // a record takes over 104 + 65 bytes
  void* a = Open("a");
  auto fill = [&] {
    for (unsigned i = 0; i < 4000; ++i) Put(a, Key(i), value, -1, 0);
  };
  fill();
  const size_t filled = HeapInUse();
  for (unsigned i = 0; i < 4000; ++i) CA_ERASE(a, Hold(a, Key(i)));
  EXPECT_TRUE(filled == 0 || HeapInUse() + 4000 * 169 < filled);  // nodes stay
  fill();
  void* held[] = {Hold(a, Key(7)), Hold(a, Key(3999))};
  CA_CLOSE(a);
  CA_FREE(Open("b"), held[0]);  // through a handle of another cache
  CAQuery q = Query(Open("b"), held[1]);
  EXPECT_EQ(std::string((char*)q.data, q.dataLength), value);
  const size_t closed = HeapInUse();
  CA_FREE(Open("b"), held[1]);
  EXPECT_TRUE(closed == 0 || HeapInUse() + 169 < closed);
}

TEST_F(Store, InsertCopiesSearchHoldsQueryTellsAndSize0StoresNothing) {
  void* h = Open("r");
  char data[] = "abc";
  EXPECT_EQ(CA_INSERT(h, 7, CAREC_CALLBACK | 16, 0, 1, "k", 3, 100, data), 1);
  data[0] = 'X';  // a copy was stored
  void* r = Hold(h, "k");
  g_now += 3;
  CAQuery q = Query(h, r);
  EXPECT_EQ(std::string(static_cast<char*>(q.data), 3) + *(char*)q.key, "abck");
  EXPECT_EQ(Ints({q.hits, q.tag, q.flags, q.age, q.keyLength, q.dataLength,
                  q.length, Query(h, r).hits}),
            Ints({2, 7, CAREC_CALLBACK | 16, 3, 1, 3, 100, 2}));
  for (int i = 0; i < 2; ++i) CA_FREE(h, r);  // the second changes nothing
  EXPECT_EQ(static_cast<CARecord*>(r)->refCount, 0);
  EXPECT_EQ(Put(h, "k", "new", 5), 0);  // replaced: the unheld old one goes
  // Size 0 stores nothing, yet tells whether the key was new, counts the
  // node as used and passes the dropped record to the callback. So does a
  // size widened from a negative int, which cannot be had.
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "z", 0, 9, "q"), 1);
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "k", 0, 9, "q"), 0);
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "n", -1, 5, "abc"), 1);
  EXPECT_EQ(released, (Lines{"abc", "", "new", "", "<none>"}));
  EXPECT_EQ(Get(h, "k") + Get(h, "z") + Get(h, "n") + Counters(h),
            "---1048576 0 3 3");
}

TEST_F(Store, AListIsThePreorderOfEveryRecordInTheTree) {
  CACacheAction* h = Open("list");
  int count = -5;
  BTreeNumerator* it = nullptr;  // First/Next walk every node in key order
  EXPECT_TRUE(CA_LIST(h, &count) == nullptr && count == 0);
  EXPECT_TRUE(h->cache->First(&it) == nullptr && it == nullptr);
  for (const char* k : {"2", "1", "3"}) Put(h, k, k);
  // The root loses its record; the records below it stay.
  CA_ERASE(h, Hold(h, "2"));
  void** list = CA_LIST(h, &count);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(Query(h, list[1]).hits, 1);  // listing takes no hold
  EXPECT_TRUE(list[0] == NodeOf(h, "1")->payload && list[2] == nullptr);
  std::string order;
  for (BTree* n = h->cache->First(&it); n; n = h->cache->Next(&it))
    order += KeyOf(n) + (n->payload ? "," : "-,");
  EXPECT_EQ(order + (it ? "!" : ""), "1,2-,3,");
  CA_ERASE(h, list[1]);  // not held: destroyed at once
  EXPECT_EQ(released, (Lines{"2", "3"}));
  CA_LIST_FREE(h, list);
  const size_t inUse = mallinfo2().uordblks;  // a list freed is gone
  for (int i = 0; i < 100; ++i) CA_LIST_FREE(h, CA_LIST(h, &count));
  EXPECT_LT(mallinfo2().uordblks, inUse + 1000);  // 100 lost lists: 3200
}

TEST_F(Store, EveryOperationIsTimedInItsSlotAndTheLibraryStartsOnDemand) {
  CACacheAction* a = Open("a");
  for (const char* k : {"k", "j"}) Put(a, k);
  void* hit = Hold(a, "k");
  EXPECT_TRUE(!Hold(a, "none") && !Hold(Open("b"), "k") && Query(a, hit).hits);
  CA_FREE(a, hit);
  CA_ERASE(a, Hold(a, "j"));
  CA_QUERY(a, nullptr, nullptr);  // refused before any work: not timed
  CA_FREE(a, nullptr);
  Ints counts;  // the library's slots, then the cache's
  for (void* of : {(void*)nullptr, (void*)a})
    for (int slot = 0; slot < 9; ++slot) counts.push_back(Count(of, slot));
  EXPECT_EQ(counts,
            (Ints{2, 4, 2, 1, 1, 1, 0, 0, 0, 2, 3, 2, 1, 1, 1, 0, 0, 0}));
  _CAStat s;  // every handle operation on "a", in the one slot of `timing`
  EXPECT_TRUE(Params(a).timing.count == 8 && !a->cache->timing.Get(1, &s, 1));
  CA_DEINIT();
  EXPECT_EQ(CA_CHECKCACHE(0), 0);  // does not start the library
  size_t inUse = 0;  // nor does what a cache or the library took stay behind
  for (int starter = 0; starter < 400; ++starter) {
    if (starter == 4) inUse = mallinfo2().uordblks;
    EXPECT_TRUE(cafree == nullptr && MainStat == nullptr);
    SingleThreaded = 0;
    if (starter % 4 == 0) Put(Open("c"), "k", "v", 1, 0);
    if (starter % 4 == 1) CA_SETFREE(nullptr);
    if (starter % 4 == 2) CA_GETCACHESTAT(nullptr, nullptr);
    if (starter % 4 == 3) CA_GETSTAT(nullptr, 0, &s);
    EXPECT_TRUE(cafree != nullptr && MainStat != nullptr &&
                SingleThreaded == 1);
    EXPECT_EQ(CA_DEINIT() + CA_DEINIT(), 2);
  }
  EXPECT_LT(mallinfo2().uordblks, inUse + 1000);  // 100 caches lost: 10000+
  Put(Open("c"), "k");
  CAFree* controller = cafree;
  EXPECT_TRUE(CA_INIT(1) == 1 && cafree == controller);  // same mode, same one
  EXPECT_TRUE(CA_INIT(0) == 1 && SingleThreaded == 0 &&
              Get(Open("c"), "k") == "v");
  EXPECT_TRUE(CA_SETFREE(&Release) == 0 && CA_SETFREE(&Release) == 1);
  CA_DEINIT();
  EXPECT_EQ(Get(Open("c"), "k") + std::to_string(Count(nullptr, 0)), "-0");
}
