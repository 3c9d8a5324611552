// Caches, handles and records through the C interface: what each call
// returns, what it changes, when records die and what bad input gets.
#include <dlfcn.h>
#include <pthread.h>
#include <string.h>

#include <functional>

#include "support.h"

// Every pthread_mutex_lock of the process passes through here, so that a
// test can count the locks the library takes on its thread.
thread_local int locksTaken = -1;  // -1: not counting
extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) {
  using Lock = int (*)(pthread_mutex_t*);
  static Lock real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, __func__));
  if (locksTaken >= 0) locksTaken++;
  return real(mutex);
}

namespace {

using Store = Fresh;

TEST_F(Store, ACacheIsSharedByNameAndLivesWhileAHandleDoes) {
  CAParams p{};
  p.allocated = p.nodes = 99;
  void* a = CA_CREATE("c", &p);  // a new cache: the default budget
  EXPECT_EQ(p.maxBytes, 1048576u);
  EXPECT_EQ(p.allocated + p.nodes + p.usedNodes, 0u);
  Put(a, "k", "v", 10, CAREC_CALLBACK | CAREC_PINNED | CAREC_EXPIRES);
  p = CAParams{};  // re-opened with 0: a budget of 0, statistics emptied
  void* b = CA_CREATE("c", &p);
  EXPECT_NE(a, b);
  EXPECT_EQ(p.maxBytes, 0u);
  EXPECT_EQ(p.allocated, 10u);
  EXPECT_EQ(p.nodes, 1u);
  EXPECT_EQ(p.timing.count, 0u);
  EXPECT_EQ(Get(b, "k"), "v");
  EXPECT_EQ(Get(Open("cc"), "k"), "-");  // another name, another cache
  EXPECT_EQ(Get(Open(""), "k"), "-");    // the empty name is a name
  // Closing one of several handles: budget 0, pinning and expiry cleared.
  void* x = Open("c", 500);
  EXPECT_EQ(Params(a).maxBytes, 500u);
  CA_CLOSE(x);
  EXPECT_EQ(Params(a).maxBytes, 0u);
  EXPECT_EQ(Query(a, NodeOf(a, "k")->payload).flags, CAREC_CALLBACK);
  // The handle table grows by 16 and reuses the lowest free slot.
  CACache* c = static_cast<CACacheAction*>(a)->cache;
  std::vector<void*> more;
  while (more.size() < 15) more.push_back(Open("c"));
  EXPECT_EQ(c->actionSlots, 32);
  EXPECT_EQ(c->actions[16], more.back());
  CA_CLOSE(c->actions[3]);
  EXPECT_EQ(Open("c"), c->actions[3]);
  for (int i = 0; i < c->actionSlots; ++i)
    if (c->actions[i] != nullptr && c->actions[i] != a) CA_CLOSE(c->actions[i]);
  EXPECT_TRUE(released.empty());
  CA_CLOSE(a);  // the last handle: the cache and its records go
  EXPECT_EQ(released, Lines{"v"});
  EXPECT_EQ(Params(Open("c")).nodes, 0u);
}

TEST_F(Store, InsertCopiesAndSearchHoldsAndQueryTells) {
  void* h = Open("r");
  char data[] = "abc";
  EXPECT_EQ(CA_INSERT(h, 7, CAREC_CALLBACK | 0x10, 0, 1, "k", 3, 100, data), 1);
  data[0] = 'X';  // a copy was stored
  void* r = Hold(h, "k");
  g_now += 3;
  CAQuery q = Query(h, r);
  EXPECT_EQ(std::string(static_cast<char*>(q.data), 3), "abc");
  EXPECT_EQ(std::vector<int>({q.hits, q.tag, q.flags, q.age, q.keyLength,
                              q.dataLength, q.length}),
            std::vector<int>({2, 7, CAREC_CALLBACK | 0x10, 3, 1, 3, 100}));
  EXPECT_EQ(memcmp(q.key, "k", 1), 0);
  EXPECT_EQ(Query(h, r).hits, 2);  // a query is no hit
  EXPECT_EQ(static_cast<CARecord*>(r)->refCount, 1);
  CA_FREE(h, r);
  CA_FREE(h, r);  // nothing held: nothing changes
  EXPECT_EQ(static_cast<CARecord*>(r)->refCount, 0);
  EXPECT_EQ(Put(h, "k", "new", 5), 0);  // replaced, the unheld old one goes
  EXPECT_EQ(released, Lines{"abc"});
  // Size 0 stores nothing, yet tells whether the key was new, counts the
  // node as used and passes the dropped record to the callback.
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "z", 0, 9, "q"), 1);
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "k", 0, 9, "q"), 0);
  EXPECT_EQ(released, (Lines{"abc", "", "new", ""}));
  EXPECT_EQ(Get(h, "k") + Get(h, "z"), "--");
  CAParams p = Params(h);
  EXPECT_EQ(std::vector<unsigned>({p.allocated, p.nodes, p.usedNodes}),
            std::vector<unsigned>({0, 2, 2}));
}

TEST_F(Store, SearchFindsOnlyRecordsYoungerThanMaxAge) {
  void* h = Open("age");
  Put(h, "k");
  const struct {
    int advance, maxAge;
    bool hit;
  } cases[] = {{0, 1, true},
               {0, -1, false},
               {1, 1, false},
               {0, 2, true},
               {100000, 0, true},
               // The clock stepped back: the record's age is -10, and a
               // signed limit above that age still finds it.
               {-100011, -1, true},
               {0, -9, true},
               {0, -10, false}};
  for (const auto& c : cases) {
    g_now += c.advance;
    void* r = Hold(h, "k", c.maxAge);
    EXPECT_EQ(c.hit, r != nullptr) << c.maxAge << " at " << g_now;
    CA_FREE(h, r);
  }
  EXPECT_EQ(Count(h, CASTAT_SEARCH), 8);
  EXPECT_EQ(Count(h, CASTAT_SEARCH_HIT), 5);
  EXPECT_EQ(Query(h, NodeOf(h, "k")->payload).hits, 6);  // misses count not
}

TEST_F(Store, AHeldRecordLivesOnAfterItLeavesItsCache) {
  void* h = Open("held");
  Put(h, "k", "old", 30);
  void* first = Hold(h, "k");
  void* second = Hold(h, "k");
  Put(h, "k", "new", 20);  // replaced while held: alive, out of the tree
  EXPECT_EQ(Query(h, first).key, nullptr);
  EXPECT_EQ(Params(h).allocated, 50u);
  CA_ERASE(h, first);  // one of two holds
  CA_FREE(h, second);  // the last one destroys it
  EXPECT_EQ(released, Lines{"old"});
  EXPECT_EQ(Params(h).allocated, 20u);
  void* kept = Hold(h, "k");
  void* other = Hold(h, "k");
  CA_ERASE(h, kept);  // erased with another hold left: the key misses at once
  EXPECT_EQ(Get(h, "k"), "-");
  EXPECT_EQ(Query(h, other).length, 20);
  // Records held across their cache's teardown (held in the tree, or left
  // it while held) forget the cache: their late release touches no cache,
  // and nothing on this path takes a lock.
  CA_INIT(0);
  Put(h, "a", "a", 100);
  void* attached = Hold(h, "a");
  locksTaken = 0;
  CA_CLOSE(h);
  void* next = Open("next");  // likely where the old cache was
  Put(next, "n", "n", 3);
  CA_FREE(next, attached);
  CA_FREE(next, other);
  EXPECT_EQ(locksTaken, 0);
  locksTaken = -1;
  EXPECT_EQ(released, (Lines{"old", "a", "new"}));
  EXPECT_EQ(Params(next).allocated, 3u);
}

TEST_F(Store, AListIsThePreorderOfEveryRecordInTheTree) {
  void* h = Open("list");
  int count = -5;
  EXPECT_EQ(CA_LIST(h, &count), nullptr);
  EXPECT_EQ(count, 0);
  for (const char* k : {"2", "1", "3"}) Put(h, k, k);
  Erase(h, "2");  // the root loses its record, the records below it stay
  void** list = CA_LIST(h, &count);
  ASSERT_EQ(count, 2);
  auto data = [&](void* r) {
    EXPECT_EQ(Query(h, r).hits, 1);  // listing takes no hold
    return std::string(static_cast<char*>(Query(h, r).data), 1);
  };
  EXPECT_EQ(data(list[0]) + data(list[1]), "13");
  EXPECT_EQ(list[2], nullptr);  // one entry per node
  CA_ERASE(h, list[1]);         // not held: destroyed at once
  EXPECT_EQ(released, (Lines{"2", "3"}));
  CA_LIST_FREE(h, list);
}

TEST_F(Store, EveryOperationIsTimedInItsSlot) {
  void* a = Open("a");
  void* b = Open("b");
  Put(a, "k");
  Put(a, "j");
  void* hit = Hold(a, "k");
  Hold(a, "none");
  Hold(b, "k");
  Query(a, hit);
  CA_FREE(a, hit);
  Erase(a, "j");
  CA_QUERY(a, nullptr, nullptr);  // refused before any work: not timed
  CA_FREE(a, nullptr);
  Ints library, cache;
  for (int slot = 0; slot < 9; ++slot) {
    library.push_back(Count(nullptr, slot));
    cache.push_back(Count(a, slot));
  }
  EXPECT_EQ(library, (Ints{2, 4, 2, 1, 1, 1, 0, 0, 0}));
  EXPECT_EQ(cache, (Ints{2, 3, 2, 1, 1, 1, 0, 0, 0}));
  EXPECT_EQ(Params(a).timing.count, 8u);  // every handle operation on "a"
}

TEST_F(Store, TheLibraryStartsOnDemandSwitchesModesAndStartsAfresh) {
  CA_DEINIT();
  EXPECT_EQ(CA_CHECKCACHE(0), 0);  // does not start the library
  EXPECT_TRUE(cafree == nullptr && MainStat == nullptr);
  _CAStat s;
  std::function<void()> starters[] = {[] { Open("c"); },
                                      [] { CA_SETFREE(&Release); },
                                      [] { CA_GETCACHESTAT(nullptr, nullptr); },
                                      [&] { CA_GETSTAT(nullptr, 0, &s); }};
  for (auto& start : starters) {
    SingleThreaded = 0;
    start();
    EXPECT_TRUE(cafree != nullptr && MainStat != nullptr && SingleThreaded);
    EXPECT_EQ(CA_DEINIT(), 1);
  }
  void* h = Open("c");
  Put(h, "k");
  CAFree* controller = cafree;
  EXPECT_EQ(CA_INIT(1), 1);
  EXPECT_EQ(cafree, controller);  // same mode, same controller
  EXPECT_EQ(CA_INIT(0), 1);
  EXPECT_EQ(SingleThreaded, 0);
  EXPECT_EQ(Get(h, "k"), "v");  // the caches stay
  EXPECT_EQ(CA_SETFREE(nullptr), 1);
  EXPECT_EQ(CA_SETFREE(nullptr), 0);
  EXPECT_EQ(CA_DEINIT(), 1);
  EXPECT_EQ(CA_DEINIT(), 1);
  EXPECT_TRUE(released.empty() && CACache::caches == nullptr);
  EXPECT_EQ(Get(Open("c"), "k"), "-");
  EXPECT_EQ(Count(nullptr, CASTAT_INSERT), 0);
}

TEST_F(Store, BadInputGetsItsResultAndTouchesNothing) {
  void* h = Open("victim");
  Put(h, "key", "x", 42);
  void* r = Hold(h, "key");
  alignas(8) unsigned char magicThenJunk[16] = {'C', 'A', 'A', 'C', 0, 0, 1};
  alignas(8) unsigned char zeros[16] = {};
  for (void* bad :
       {static_cast<void*>(nullptr), static_cast<void*>(magicThenJunk),
        static_cast<void*>(zeros)}) {
    EXPECT_EQ(Put(bad, "k2"), -1);
    EXPECT_EQ(Hold(bad, "key"), nullptr);
    CAQuery q;
    memset(&q, 0x11, sizeof q);
    EXPECT_EQ(CA_QUERY(bad, r, &q), 0);
    EXPECT_EQ(q.tag, 0x11111111);
    CA_FREE(bad, r);
    CA_ERASE(bad, r);
    CA_CLOSE(bad);
    int count = 99;
    EXPECT_EQ(CA_LIST(bad, &count), nullptr);
    EXPECT_EQ(count, 99);
    void** list = CA_LIST(h, &count);
    CA_LIST_FREE(bad, list);  // freed by the real handle below, not twice
    CA_LIST_FREE(h, list);
    CAParams p;
    memset(&p, 0x22, sizeof p);
    EXPECT_EQ(CA_GETCACHESTAT(bad, &p), 0);
    EXPECT_EQ(p.maxBytes, 0x22222222u);
    _CAStat s;
    memset(&s, 0x33, sizeof s);
    EXPECT_EQ(CA_GETSTAT(bad, 1, &s), bad == nullptr ? 1 : 0);
    if (bad != nullptr) {
      EXPECT_EQ(s.count + s.total, 0.0);
    }
  }
  // Keys the library cannot read, and data missing for a non-zero size.
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, -1, "key", 1, 1, "x"), -1);
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 3, nullptr, 1, 1, "x"), -1);
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 3, "new", 5, 1, nullptr), -1);
  EXPECT_EQ(CA_SEARCH(h, 0, -3, "key"), nullptr);
  EXPECT_EQ(CA_SEARCH(h, 0, 3, nullptr), nullptr);
  // A size widened from a negative int cannot be had: dropped, not crashed.
  EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "n", -1, 5, "abc"), 1);
  EXPECT_EQ(Get(h, "n"), "-");
  // Out-of-range slots read as zero; a null name opens nothing.
  _CAStat s;
  memset(&s, 0x5A, sizeof s);
  EXPECT_EQ(CA_GETSTAT(h, 8, &s), 1);
  EXPECT_EQ(s.count, 0u);
  EXPECT_EQ(CA_CREATE(nullptr, nullptr), nullptr);
  EXPECT_EQ(Params(CA_CREATE("defaults", nullptr)).maxBytes, 1048576u);
  CA_FREE(h, r);
  CAParams p = Params(h);
  EXPECT_EQ(std::vector<unsigned>({p.allocated, p.nodes, p.usedNodes}),
            std::vector<unsigned>({42, 2, 2}));
  EXPECT_EQ(Count(h, CASTAT_RELEASE), 1);
  EXPECT_EQ(Count(h, CASTAT_ERASE), 0);
}

}  // namespace
