// SPDX-License-Identifier: MIT
// Reclamation: grading, eviction passes and the pass that skips its walk,
// tree rebuilds and the key index they refill, their triggers and the
// pending list. (The random driver's callbacks use the library during
// passes and replacements at random.)
#include <algorithm>
#include <functional>
#include <set>
#include <sstream>

#include "support.h"

// Records written "key:length" with an optional ":P" (pinned) or ":E<n>"
// (expires after n seconds), made `ago` seconds before now.
void PutAll(void* h, const std::string& records, int ago = 0) {
  g_now -= ago;
  std::istringstream words(records);
  for (std::string w; words >> w;) {
    char key[32] = "", f[16] = "";
    int length = 0;
    sscanf(w.c_str(), "%31[^:]:%d:%15s", key, &length, f);
    Put(h, key, "v", length,
        (*f == 'P') * CAREC_PINNED | (*f == 'E') * CAREC_EXPIRES, atoi(f + 1));
  }
  g_now += ago;
}
// Allocated bytes, nodes, and the counts of erases, passes and rebuilds.
Ints Figures(void* h) {
  return {Params(h).allocated, Params(h).nodes, Count(h, CASTAT_ERASE),
          Count(h, CASTAT_EVICTION), Count(h, CASTAT_REBUILD)};
}
// Lengths named by the "N. Delete L bytes" lines of the passes `run` starts.
template <class F>
Ints Erased(F run) {
  Ints out;
  long n, length;
  for (const std::string& l : Traced(run))
    if (sscanf(l.c_str(), "CACACHE %ld. Delete %ld bytes", &n, &length) == 2)
      out.push_back(length);
  return out;
}
// Keys 0 .. keep-1 kept, `erased` more stored and erased after them.
CACacheAction* WithFreeNodes(const std::string& name, int keep, int erased) {
  CACacheAction* h = Open(name, 1000000000);
  for (int i = 0; i < keep + erased; ++i) Put(h, Key(i), "v", 1, 0);
  for (int i = keep; i < keep + erased; ++i) CA_ERASE(h, Hold(h, Key(i)));
  return h;
}

using Reclaim = Fresh;

TEST_F(Reclaim, GradeWeighsAgeHitsAndLengthWhileFlagsOverrule) {
  CACacheAction* h = Open("grades", 1000000);
  PutAll(h, "plain:100 read:100 held:100 exp0:10:E0 exp5:10:E5 pin:10:P");
  CA_FREE(h, Hold(h, "read"));
  void* held = Hold(h, "held");
  auto grades = [&](int age, unsigned long budget) {
    g_now += age;  // a pass sets the grading clock to now
    Put(Open("clock", 10), "pin", "v", 100, CAREC_PINNED);
    g_now -= age;
    std::vector<double> out;
    for (const char* k : {"plain", "read", "held", "exp0", "exp5", "pin", "x"})
      out.push_back(cafree->DeleteGrad(NodeOf(h, k), budget));
    return out;
  };
  using G = std::vector<double>;
  // Made in the pass's second: only what has expired. Else (age + 1) /
  // (hits + 1) * budget + length; held and pinned records never.
  EXPECT_EQ(grades(0, 1000), (G{0, 0, 0, -1, 0, 0, 0}));
  EXPECT_EQ(grades(9, 1000), (G{5100, 10.0 / 3 * 1000 + 100, 0, -1, -1, 0, 0}));
  CA_FREE(h, held);
  EXPECT_EQ(grades(9, 1000)[2], 10.0 / 3 * 1000 + 100);
  // Equal grades leave the sort in the order its partitions give.
  auto sorted = [](const std::vector<double>& g) {
    std::string order;
    std::copy(g.begin(), g.end(), cafree->grades);
    for (size_t i = 0; i < g.size(); ++i) cafree->candidates[i] = (BTree*)i;
    cafree->QuickSort(0, (int)g.size() - 1);
    for (size_t i = 0; i < g.size(); ++i)
      order += '0' + (char)(long)cafree->candidates[i];
    return order;
  };
  EXPECT_EQ(sorted({5, 5, 5, 5}) + sorted({2, 2, 1, 1, 2, 2}), "2301540123");
}

TEST_F(Reclaim, APassErasesTheWorstGradedAboveTheMarkOnceBudgetIsPassed) {
  CACacheAction* h = Open("budget", 1000);  // mark 900
  // Made in one second: the pass of the last insert finds no candidate.
  PutAll(h, "a:100 b:80 c:60 p:810:P", 10);
  EXPECT_EQ(Figures(h), (Ints{1050, 4, 0, 1, 0}));
  EXPECT_EQ(Traced([&] { EXPECT_EQ(cafree->Compress(h), 1); }),
            (Lines{"CACACHE Cache has 150 bytes to delete",
                   "CACACHE Found 3 record avaiable to delete",
                   "CACACHE 1. Delete 100 bytes", "CACACHE 1. Deleted",
                   "CACACHE 2. Delete 80 bytes", "CACACHE 2. Deleted",
                   "CACACHE 2 record deleted"}));
  EXPECT_EQ(Keys(h), (Lines{"c", "p"}));
  EXPECT_EQ(Figures(h), (Ints{870, 4, 2, 2, 0}));
  EXPECT_EQ(Params(h).timing.count, 6u);  // erases time as handle work
  Put(h, "d", "v", 30);                   // at the mark, a pass does nothing
  EXPECT_EQ(Traced([&] { EXPECT_EQ(cafree->Compress(h), 1); }), Lines{});
  Put(h, "e", "v", 1);  // one byte above it, the old "c" goes
  EXPECT_EQ(Erased([&] { cafree->Compress(h); }), Ints{60});
  CACacheAction* s = Open("short", 1000);  // 100 to delete, 99 there: 0
  PutAll(s, "a:60 b:39 p:901:P", 10);
  EXPECT_EQ(cafree->Compress(s), 0);
  // The trigger fires one byte above the budget, not at it, and neither
  // while a pass runs nor without a controller.
  CACacheAction* t = Open("default");
  Put(t, "a", "v", 1048576);
  Put(t, "big", "v", 1);
  cafree->busy = 1;
  Put(t, "c", "v", 1);
  CAFree* controller = std::exchange(cafree, nullptr);
  Put(t, "d", "v", 1);
  (cafree = controller)->busy = 0;
  EXPECT_EQ(Figures(t), (Ints{1048579, 4, 0, 1, 0}));
  CA_CLOSE(t);  // the pass's own handle is gone: the cache goes with this one
  EXPECT_EQ(Params(Open("default")).allocated, 0u);
}

TEST_F(Reclaim, ExpiredRecordsGoFirstEvenHeldAndBudgetZeroTakesAll) {
  CACacheAction* h = Open("forced", 1000);
  PutAll(h, "e1:10:E5 e2:20:E5 e3:30:E5 l:200:E1000 p:300:P x:350", 4);
  void* e3 = Hold(h, "e3");
  EXPECT_EQ(cafree->Compress(h), 1);  // nothing expired yet: "x" goes
  Put(h, "x", "v", 350);
  g_now += 1;  // e3 goes first and meets the target; e2 and e1 follow
  EXPECT_EQ(Erased([&] { cafree->Compress(h); }), (Ints{30, 20, 10}));
  EXPECT_EQ(Keys(h), (Lines{"l", "p", "x"}));  // "x" is graded below 1e9
  CA_FREE(h, e3);
  // A budget of 0 (re-opened with 0) erases every candidate, the forced
  // ones first (their order is the sort's), then the longest.
  CACacheAction* z = Open("zero");
  PutAll(z, "k1:30 k2:50 k3:10 k4:40 pin:70:P held:20 a:5:E0 b:6:E0", 100);
  for (int i = 0; i < 98; ++i) Put(z, "n" + std::to_string(i), "v", 1);
  void* held = Hold(z, "held");
  g_now += 1;  // the 98 become candidates too: 104 in all
  Ints erased = Erased([&] { Put(Open("zero", 0), "fresh", "v", 5); });
  std::sort(erased.begin(), erased.begin() + 2);
  EXPECT_EQ(Ints(erased.begin(), erased.begin() + 6),
            (Ints{5, 6, 50, 40, 30, 10}));
  // 104 erased, and the grade table grown by 100 past 100.
  EXPECT_TRUE(erased.size() == 104 && cafree->gradCapacity == 200);
  EXPECT_EQ(Keys(z), (Lines{"fresh", "held", "pin"}));
  EXPECT_EQ(cafree->Compress(z), 0);  // still over: every insert passes again
  CA_FREE(z, held);
}

// A pass that found no candidate may skip the next one in its second under
// its budget; a record stored, given back, unpinned by a close or weighed
// under a new budget is still seen at once.
TEST_F(Reclaim, APassSeesEachNewCandidateAfterAPassThatFoundNone) {
  Open("quiet");
  CACacheAction* h = Open("quiet");  // re-opened with 0: a budget of 0
  PutAll(h, "held:1 pin:1:P zero:0", 5);
  void* held = Hold(h, "held");
  const std::pair<std::string, std::function<void()>> routes[] = {
      {"exp", [&] { Put(h, "exp", "v", 1, CAREC_EXPIRES); }},
      {"held", [&] { CA_FREE(h, held); }},
      {"pin", [&] { CA_CLOSE(Open("quiet")); }},  // still a budget of 0
      {"zero", [&] { Open("quiet", 1); }}};  // length 0 weighs under 1 only
  for (auto& [victim, route] : routes) {
    Put(h, "quiet " + victim, "v", 1);  // a pass that finds no candidate
    route();
    Put(h, "after " + victim, "v", 1);
    EXPECT_EQ(NodeOf(h, victim)->payload, nullptr) << victim;
  }
  g_now += 1;  // the next second: the rest are candidates too
  Put(h, "last", "v", 1);
  EXPECT_EQ(Keys(h), Lines{"last"});
}

// A pending entry for the handle's cache, its handle the entry's alone.
CAFreeEntry* Pending(CACacheAction* h, CAFreeEntry* next) {
  auto* entry = static_cast<CAFreeEntry*>(malloc(sizeof(CAFreeEntry)));
  *entry = {next, new CACacheAction(h->cache), 0};
  h->cache->DeleteAction(entry->action);
  return entry;
}

TEST_F(Reclaim, ThePendingListKeepsTheCachesWhosePassFellShort) {
  CACacheAction *met = Open("met", 100), *shy = Open("shy", 100);
  PutAll(met, "a:60 b:70", 10);
  PutAll(shy, "p:150:P", 10);
  cafree->pending = Pending(met, Pending(shy, Pending(Open("gone"), nullptr)));
  CAFreeEntry* kept = cafree->pending->next;
  CA_CLOSE(kept->next->action->cache->actions[0]);  // its entry goes with it
  cafree->Procedure();
  EXPECT_TRUE(cafree->pending == kept && !kept->next && !kept->done);
  EXPECT_EQ(Keys(met), Lines{"a"});
  cafree->stopper = new CAFreeStopper;  // stopped: only done entries go
  CAFreeEntry* waiting = cafree->pending = Pending(met, kept);
  kept->done = 1;
  cafree->Procedure();
  EXPECT_TRUE(cafree->pending == waiting && !waiting->next && !waiting->done);
  EXPECT_EQ(Count(shy, CASTAT_EVICTION) + Count(met, CASTAT_EVICTION), 4);
}

TEST_F(Reclaim, Over20000FreeNodesRebuildTheTreeInBatchesOf1000AfterAnyPass) {
  for (int keep : {5, 0, 2500}) {
    const int erased = keep == 5 ? 20000 : 20001;  // 20,000 are left alone
    auto* h = WithFreeNodes("f" + std::to_string(keep), keep + 1, erased - 1);
    const Lines lines = Traced([&] { CA_ERASE(h, Hold(h, Key(keep))); });
    const std::string rebuild =
        "CACACHE Rebuild binary tree 20001 free tree node";
    EXPECT_EQ(lines.size() == 3 && lines[1] == rebuild, keep != 5);
    EXPECT_EQ(Figures(h),
              (Ints{keep, keep == 5 ? 20005 : keep, erased, 0, keep != 5}));
    EXPECT_EQ(CA_CHECKCACHE(0), 0);
    if (keep == 5) CA_CLOSE(h);  // its 20,000 free nodes go without a rebuild
    // Serials count the nodes as they are made: in each batch of 1000 the
    // median, then the left half (median first), then the right half.
    auto made = [&](int i) {
      return NodeOf(h, Key(i))->serial - NodeOf(h, Key(499))->serial;
    };
    if (keep != 2500) continue;
    EXPECT_EQ(Ints({made(249), made(124), made(749), made(1499), made(2249)}),
              Ints({1, 2, 500, 1000, 2000}));
  }
  // A pass's erases cross 20,000 free nodes but start no nested pass, also
  // when a host calls it: the rebuild after a triggered pass handles them.
  WithFreeNodes("nested", 10, 20000);
  g_now += 10;
  CACacheAction* n = Open("nested", 5);
  EXPECT_EQ(cafree->Compress(n), 1);
  Put(n, "fresh", "v", 1);
  EXPECT_EQ(Figures(n), (Ints{5, 5, 6, 2, 1}));
  // A replacement whose unlink leaves 20,001 free nodes rebuilds the tree
  // once the new record is in its node.
  CACacheAction* r = WithFreeNodes("replaced", 1, 20000);
  EXPECT_TRUE(Put(r, Key(0), "new", 1, 0) == 0 && Get(r, Key(0)) == "new");
}

// Keys of every length class, all of 'x' or with one 'y' (first, middle or
// last) where keys of a length differ: each a prefix of the longer ones but
// for that byte. Those starting with 'y' are erased, then a rebuild drops
// their nodes.
TEST_F(Reclaim, KeysOfEveryLengthAreFoundReplacedErasedAndFoundAfterARebuild) {
  std::set<std::string> keys;
  for (size_t n : {0, 1, 2, 3, 4, 6, 7, 8, 9, 13, 16, 17, 26, 100, 255})
    for (size_t at : {n, size_t{0}, n / 2, n - 1})
      if (at <= n) keys.insert(std::string(n, 'x').replace(at, 1, "y", at < n));
  CACacheAction* h = Open("keys", 1000000000);
  for (const std::string& k : keys)
    EXPECT_TRUE(Put(h, k, "old") == 1 && Put(h, k, "v" + k) == 0 &&
                Get(h, k) == "v" + k)
        << k.size();
  for (const std::string& k : keys)
    if (k.compare(0, 1, "y") == 0) CA_ERASE(h, Hold(h, k));
  WithFreeNodes("keys", 0, 20000);
  for (const std::string& k : keys) {
    const bool erased = k.compare(0, 1, "y") == 0;
    EXPECT_TRUE(Get(h, k) == (erased ? "-" : "v" + k) &&
                Put(h, k, "v" + k) == erased)
        << k.size();
  }
}

// The release callback may use the library again, on this very cache too.
std::function<void(const std::string&)> onRelease;
void Reenter(int, unsigned long size, void* data) {
  if (onRelease) onRelease(std::string(static_cast<char*>(data), size));
}

TEST_F(Reclaim, ACallbackMayEndTheCacheOfItsPassOrSwitchTheModeDuringIt) {
  CA_SETFREE(&Reenter);
  // An erase through another cache's handle fires the pass of the record's
  // cache, whose callback closes that cache's last handle: the pass's own
  // handle, the last one then, takes the cache with it before the erase ends.
  CACacheAction* a = WithFreeNodes("a", 1, 20000);
  Put(a, "x", "gone", 1);
  void* held = Hold(a, Key(0));
  CA_CLOSE(Open("a"));  // budget 0: "x" goes once a second old
  g_now += 1;
  onRelease = [&](const std::string& data) {
    released.push_back(data);
    CA_CLOSE(a);
  };
  void* b = Open("b");
  CA_ERASE(b, held);
  EXPECT_TRUE(released == Lines{"gone"} && Count(b, CASTAT_ERASE) == 1);
  EXPECT_EQ(Params(Open("a")).nodes, 0u);  // a new cache
  // A mode switch asked for in a pass waits for the pass's end; the pass
  // erases what it would have erased.
  CACacheAction* m = Open("m", 10);
  Put(m, "1", "v", 4);
  Put(m, "2", "v", 4);
  g_now += 1;
  Ints modes;
  onRelease = [&](const std::string&) {
    modes.push_back(SingleThreaded);
    CA_INIT(0);
  };
  EXPECT_EQ(Erased([&] { Put(m, "3", "v", 8); }), (Ints{4, 4}));
  EXPECT_TRUE(modes == (Ints{1, 1}) && SingleThreaded == 0);
  onRelease = nullptr;
}

TEST_F(Reclaim, CallbacksOfCADeinitFindEveryHandleInvalidAndMayNotCallIt) {
  CA_SETFREE(&Reenter);
  void* p = Open("p");
  void* q = Open("q");
  Put(p, "1", "1");
  Put(q, "2", "2");
  Ints results;
  onRelease = [&](const std::string& data) {
    released.push_back(data);
    CA_CLOSE(p);
    results.push_back(Put(p, "k"));
    results.push_back(Put(q, "k"));
    results.push_back(CA_CREATE("new", nullptr) != nullptr);
  };
  CA_DEINIT();
  EXPECT_EQ(released, (Lines{"1", "2"}));
  EXPECT_EQ(results, (Ints{-1, -1, 0, -1, -1, 0}));
  EXPECT_TRUE(cafree == nullptr && CACache::caches == nullptr);  // still down
  onRelease = nullptr;
}

// CA_DEINIT in a callback is refused; a debug build stops there, and on a
// callback that closes the handle of a call in progress. (Death tests keep
// a block of their own: no count of blocks here.)
TEST(ReclaimDeathTest, CADeinitFromACallbackIsRefused) {
  CA_SETFREE(&Reenter);
  void* h = Open("d");
  Put(h, "k");
  onRelease = [&](const std::string&) { CA_DEINIT(); };
  EXPECT_DEBUG_DEATH(CA_ERASE(h, Hold(h, "k")), "CA_DEINIT.*release callback");
  EXPECT_TRUE(cafree != nullptr && Put(h, "j") == 1);
#ifndef NDEBUG
  onRelease = [&](const std::string&) { CA_CLOSE(h); };
  EXPECT_DEATH(CA_ERASE(h, Hold(h, "k")), "handle of a call in progress");
#endif
  onRelease = nullptr;
}
