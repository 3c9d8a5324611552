// Reclamation: grading, eviction passes, tree rebuilds, their triggers, the
// controller's pending list, and release callbacks that use the library
// while a replacement or a pass is under way.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <set>
#include <sstream>

#include "support.h"

namespace {

// Records written "key:length" with an optional ":flags" of P (pinned) and
// E<lifetime> (expires), made `ago` seconds before now.
void PutAll(void* h, const std::string& records, int ago = 0) {
  g_now -= ago;
  std::istringstream words(records);
  for (std::string w; words >> w;) {
    char key[32] = "", flags[16] = "";
    int length = 0;
    sscanf(w.c_str(), "%31[^:]:%d:%15s", key, &length, flags);
    const char* e = strchr(flags, 'E');
    Put(h, key, "v", length,
        (strchr(flags, 'P') ? CAREC_PINNED : 0) | (e ? CAREC_EXPIRES : 0),
        e ? atoi(e + 1) : 0);
  }
  g_now += ago;
}
// Allocated bytes, nodes, and the counts of erases, passes and rebuilds.
Ints Figures(void* h) {
  CAParams p = Params(h);
  return {p.allocated, p.nodes, Count(h, CASTAT_ERASE),
          Count(h, CASTAT_EVICTION), Count(h, CASTAT_REBUILD)};
}
// Lengths named by a pass's "N. Delete L bytes" lines, in order.
Ints Erased(const Lines& lines) {
  Ints out;
  long n, length;
  for (const std::string& l : lines)
    if (sscanf(l.c_str(), "CACACHE %ld. Delete %ld bytes", &n, &length) == 2)
      out.push_back(length);
  return out;
}
// What a cache states about itself: a sound structure, a tree that counts
// `nodes` nodes, and `usedNodes` records in it.
void ExpectSound(void* h) {
  CACache* c = static_cast<CACacheAction*>(h)->cache;
  CA_SETCHECK(1);
  EXPECT_EQ(CA_CHECKCACHE(0), 0);
  EXPECT_EQ(c->tree ? c->tree->CheckTreeRoot() : 0, (int)c->params.nodes);
  EXPECT_EQ(Keys(h).size(), c->params.usedNodes);
}
// Keys 0 .. keep-1 kept, `erased` more stored and erased after them.
CACacheAction* WithFreeNodes(const std::string& name, int keep, int erased) {
  CACacheAction* h = Open(name, 1000000000);
  for (int i = 0; i < keep + erased; ++i) Put(h, Key(i), "v", 1, 0);
  for (int i = keep; i < keep + erased; ++i) Erase(h, Key(i));
  return h;
}
// A pass that erases nothing and sets the pass clock to now.
void StartPassNow() {
  Put(Open("pass-clock", 10), "pin", "v", 100, CAREC_PINNED);
}

using Reclaim = Fresh;

TEST_F(Reclaim, GradeWeighsAgeHitsAndLengthWhileFlagsOverrule) {
  CACacheAction* h = Open("grades", 1000000);
  PutAll(h, "plain:100 read:100 held:100 exp0:10:E0 exp5:10:E5 pinexp:10:PE0");
  CA_INSERT(h, 0, 0, 0, 5, "empty", 0, 10, "x");  // a node without record
  CA_FREE(h, Hold(h, "read"));
  void* held = Hold(h, "held");
  const time_t made = g_now;
  auto grades = [&](int age, unsigned long budget) {
    g_now = made + age;
    StartPassNow();
    std::vector<double> out;
    for (const char* k :
         {"plain", "read", "held", "exp0", "exp5", "pinexp", "empty"})
      out.push_back(cafree->DeleteGrad(NodeOf(h, k), budget));
    return out;
  };
  using G = std::vector<double>;
  // Made in the pass's second: only what has expired; pinning beats expiry.
  EXPECT_EQ(grades(0, 1000), (G{0, 0, 0, -1, 0, 0, 0}));
  // (age + 1) / (hits + 1) * budget + length; held records never.
  EXPECT_EQ(grades(9, 1000), (G{5100, 10.0 / 3 * 1000 + 100, 0, -1, -1, 0, 0}));
  EXPECT_EQ(grades(4, 0), (G{100, 100, 0, -1, 0, 0, 0}));
  CA_FREE(h, held);
  EXPECT_EQ(grades(9, 1000)[2], 10.0 / 3 * 1000 + 100);
}

TEST_F(Reclaim, QuickSortDescendsAndOrdersEqualGradesByItsPartitions) {
  auto sorted = [](const std::vector<double>& g) {  // tags in sorted order
    for (size_t i = 0; i < g.size(); ++i) {
      cafree->grades[i] = g[i];
      cafree->candidates[i] = reinterpret_cast<BTree*>(i);
    }
    cafree->QuickSort(0, static_cast<int>(g.size()) - 1);
    Ints tags;
    for (size_t i = 0; i < g.size(); ++i)
      tags.push_back(reinterpret_cast<long>(cafree->candidates[i]));
    return tags;
  };
  EXPECT_EQ(sorted({5, 5, 5, 5}), (Ints{2, 3, 0, 1}));
  EXPECT_EQ(sorted({1, 3, 2, 3, 1}), (Ints{1, 3, 2, 4, 0}));
  EXPECT_EQ(sorted({2, 2, 1, 1, 2, 2}), (Ints{5, 4, 0, 1, 2, 3}));
  EXPECT_EQ(sorted({1e10, 1e10, 1e10, 1e10, 1e10}), (Ints{3, 4, 2, 0, 1}));
  std::vector<double> g(100);
  for (size_t i = 0; i < g.size(); ++i) g[i] = (i * 7919) % 13;
  const Ints order = sorted(g);
  EXPECT_EQ(std::set<long>(order.begin(), order.end()).size(), g.size());
  for (size_t i = 1; i < g.size(); ++i) EXPECT_GE(g[order[i - 1]], g[order[i]]);
}

TEST_F(Reclaim, APassErasesTheWorstGradedUntilTheMarkAndStops) {
  CACacheAction* h = Open("budget", 1000);  // mark 900
  // Made in one second: the pass their last insert starts finds nothing.
  PutAll(h, "a:100 b:80 c:60 p:810:P", 10);
  EXPECT_EQ(Figures(h), (Ints{1050, 4, 0, 1, 0}));
  EXPECT_EQ(h->cache->actions[1], nullptr);  // the pass's handle is gone
  int met = -1;
  EXPECT_EQ(Traced([&] { met = cafree->Compress(h); }),
            (Lines{"CACACHE Cache has 150 bytes to delete",
                   "CACACHE Found 3 record avaiable to delete",
                   "CACACHE 1. Delete 100 bytes", "CACACHE 1. Deleted",
                   "CACACHE 2. Delete 80 bytes", "CACACHE 2. Deleted",
                   "CACACHE 2 record deleted"}));
  EXPECT_EQ(met, 1);
  EXPECT_EQ(Keys(h), (Lines{"c", "p"}));
  EXPECT_EQ(Figures(h), (Ints{870, 4, 2, 2, 0}));
  EXPECT_EQ(Params(h).timing.count, 6u);  // erases time as handle work
  Put(h, "d", "v", 30);                   // at the mark: nothing to do
  EXPECT_EQ(Traced([&] { EXPECT_EQ(cafree->Compress(h), 1); }), Lines{});
  Put(h, "e", "v", 1);  // one byte above: the old "c" goes
  EXPECT_EQ(Erased(Traced([&] { cafree->Compress(h); })), Ints{60});
  EXPECT_EQ(Keys(h), (Lines{"d", "e", "p"}));
  ExpectSound(h);
}

TEST_F(Reclaim, TriggersFireAboveTheBudgetAndAbove20000FreeNodes) {
  for (unsigned int budget : {1u, 1000u}) {
    CACacheAction* h = Open("edge" + std::to_string(budget), budget);
    Put(h, "a", "v", static_cast<int>(budget));
    Put(h, "b", "v", 0);
    EXPECT_EQ(Count(h, CASTAT_EVICTION), 0) << budget;
    Put(h, "c", "v", 1);
    EXPECT_EQ(Count(h, CASTAT_EVICTION), 1) << budget;
  }
  CACacheAction* h = Open("default");
  EXPECT_EQ(Traced([&] { Put(h, "big", "v", 1048577); }),
            (Lines{"CACACHE Cache has 104858 bytes to delete",
                   "CACACHE Found 0 record avaiable to delete",
                   "CACACHE 0 record deleted",
                   "CACACHE Insert a record Length=1048577"}));
  cafree->busy = 1;     // while a pass runs, or without a controller, only
  Put(h, "c", "v", 1);  // the counters move
  cafree->busy = 0;
  CAFree* controller = std::exchange(cafree, nullptr);
  Put(h, "d", "v", 1);
  cafree = controller;
  EXPECT_EQ(Figures(h), (Ints{1048579, 3, 0, 1, 0}));
  // The erase that leaves 20,001 free nodes, not 20,000, starts a pass.
  CACacheAction* t = WithFreeNodes("nodes", 2, 19999);
  Put(t, "big", "v", 98);
  t = Open("nodes", 100);  // mark 90; re-opening clears the statistics
  Erase(t, Key(1));
  EXPECT_EQ(Figures(t), (Ints{99, 20002, 1, 0, 0}));
  Erase(t, Key(0));
  EXPECT_EQ(Figures(t), (Ints{98, 1, 2, 1, 1}));
}

TEST_F(Reclaim, ExpiredRecordsGoFirstEvenHeldAndBudgetZeroTakesAll) {
  CACacheAction* h = Open("forced", 1000);
  PutAll(h, "e1:10:E5 e2:20:E5 e3:30:E5 l:200:E1000 p:300:P x:350", 4);
  void* e3 = Hold(h, "e3");
  EXPECT_EQ(cafree->Compress(h), 1);  // nothing expired yet: "x" goes
  Put(h, "x", "v", 350);
  g_now += 1;  // e3 goes first and meets the target; e2 and e1 follow
  EXPECT_EQ(Erased(Traced([&] { cafree->Compress(h); })), (Ints{30, 20, 10}));
  EXPECT_EQ(Keys(h), (Lines{"l", "p", "x"}));  // "x" is graded below 1e9
  EXPECT_EQ(Params(h).allocated, 880u);        // e3 lives for its holder
  CA_FREE(h, e3);
  EXPECT_EQ(Params(h).allocated, 850u);
  // A budget of 0 (a re-opening with 0) erases every candidate, longest
  // first; equal grades leave in the order of the sort's partitions.
  CACacheAction* z = Open("zero");
  PutAll(z, "k1:30 k2:50 k3:10 k4:40 pin:70:P held:20 a:5:E0 b:6:E0", 100);
  void* held = Hold(z, "held");
  const Lines lines = Traced([&] { Put(Open("zero", 0), "fresh", "v", 5); });
  EXPECT_EQ(Erased(lines), (Ints{6, 5, 50, 40, 30, 10}));
  EXPECT_EQ(Keys(z), (Lines{"fresh", "held", "pin"}));
  EXPECT_EQ(cafree->Compress(z), 0);  // still over: every insert passes again
  CA_FREE(z, held);
  ExpectSound(z);
}

TEST_F(Reclaim, GradeArraysGrowInStepsOfAHundred) {
  for (int records : {100, 101, 201}) {
    const std::string name = "grow" + std::to_string(records);
    CACacheAction* h = Open(name, 1000000);
    for (int i = 0; i < records; ++i) Put(h, Key(i), "v", 1);
    g_now += 10;
    EXPECT_EQ(cafree->Compress(Open(name, 10)), 1);  // mark 9
    EXPECT_EQ(Params(h).allocated, 9u);
    EXPECT_EQ(cafree->gradCapacity, (records + 99u) / 100 * 100);
  }
}

// Preorder of a balanced tree over lo..hi: the median first.
void MedianFirst(int lo, int hi, Ints* order) {
  const int mid = lo + (hi - lo) / 2;
  order->push_back(mid);
  if (lo < mid) MedianFirst(lo, mid - 1, order);
  if (hi > mid) MedianFirst(mid + 1, hi, order);
}

TEST_F(Reclaim, ARebuildKeepsTheRecordsInBatchesOf1000MedianFirst) {
  for (int keep : {5, 0, 2500}) {
    SCOPED_TRACE(keep);
    const int erased = keep == 5 ? 20000 : 20001;  // 20,000 are left alone
    CACacheAction* h =
        WithFreeNodes(std::to_string(keep), keep + 1, erased - 1);
    void* last = Hold(h, Key(keep));
    const Lines lines = Traced([&] { CA_ERASE(h, last); });
    EXPECT_EQ(lines.size(), keep == 5 ? 1u : 2u);
    EXPECT_EQ(lines[0],
              keep == 5 ? lines.back()
                        : "CACACHE Rebuild binary tree 20001 free tree node");
    EXPECT_EQ(Figures(h), (Ints{keep, keep == 5 ? 20005 : keep, erased, 0,
                                keep == 5 ? 0 : 1}));
    ExpectSound(h);
    if (keep == 5) continue;
    // The nodes' serials give the order in which they were made.
    std::vector<std::pair<unsigned int, long>> made;
    BTreeNumerator walk(h->cache->tree, 0);
    for (BTree* n = walk.Next(); n != nullptr; n = walk.Next()) {
      EXPECT_EQ(NodeOf(h, Key(made.size())), n);
      made.emplace_back(n->serial, made.size());
    }
    std::sort(made.begin(), made.end());
    Ints order, expected;
    for (const auto& m : made) order.push_back(m.second);
    for (int lo = 0; lo < keep; lo += 1000)
      MedianFirst(lo, std::min(lo + 999, keep - 1), &expected);
    EXPECT_EQ(order, expected);
    EXPECT_EQ(h->cache->tree == nullptr, keep == 0);
    EXPECT_EQ(Put(h, "again"), 1);
  }
}

TEST_F(Reclaim, AReplacementAtTheThresholdKeepsItsRecordAndPassesDoNotNest) {
  CACacheAction* h = WithFreeNodes("replace", 3, 20000);
  void* old = Hold(h, Key(1));
  for (const char* value : {"p", "q"}) {
    EXPECT_EQ(Put(h, Key(1), value, 1), 0);
    EXPECT_EQ(Get(h, Key(1)), value);
    ExpectSound(h);
  }
  CA_FREE(h, old);
  // The erases of a pass cross 20,000 free nodes but start no nested pass:
  // the rebuild after the pass handles them.
  WithFreeNodes("nested", 10, 20000);
  g_now += 10;
  CACacheAction* n = Open("nested", 5);
  Put(n, "fresh", "v", 1);
  EXPECT_EQ(Figures(n), (Ints{5, 5, 6, 1, 1}));
  ExpectSound(n);
}

TEST_F(Reclaim, ProcedureWorksThroughPendingEntriesUntilStopped) {
  auto add = [](CACache* cache) {
    auto* e = static_cast<CAFreeEntry*>(malloc(sizeof(CAFreeEntry)));
    *e = {nullptr, new CACacheAction(cache), 0};
    cache->DeleteAction(e->action);  // the entry's handle is the entry's
    CAFreeEntry** link = &cafree->pending;
    while (*link != nullptr) link = &(*link)->next;
    return *link = e;
  };
  CACacheAction* met = Open("met", 1000);
  PutAll(met, "a:600 b:600", 10);
  CACacheAction* pinned = Open("pinned", 10);
  Put(pinned, "p", "v", 20, CAREC_PINNED);  // a pass that cannot meet it
  cafree->Procedure();                      // an empty list: nothing
  add(met->cache);
  CAFreeEntry* stuck = add(pinned->cache);
  cafree->Procedure();
  EXPECT_EQ(cafree->pending, stuck);  // the met entry is dropped
  EXPECT_TRUE(stuck->next == nullptr && stuck->done == 0 && !cafree->busy);
  EXPECT_EQ(Keys(met), Lines{"a"});  // equal grades: the sort puts b first
  EXPECT_EQ(Count(pinned, CASTAT_EVICTION), 2);
  struct Stopper : CAFreeStopper {};
  cafree->stopper = new Stopper;
  cafree->Procedure();
  EXPECT_EQ(Count(pinned, CASTAT_EVICTION), 2);  // stopped
  CAFreeEntry* other = add(met->cache);
  cafree->DeleteFromList(nullptr);
  CA_CLOSE(met);  // a destroyed cache drops its first entry
  EXPECT_TRUE(cafree->pending == stuck && stuck->next == nullptr);
  (void)other;
  stuck->done = 1;  // done entries are dropped even while stopped
  cafree->Procedure();
  EXPECT_EQ(cafree->pending, nullptr);
  add(pinned->cache);  // left for the controller's destructor
}

// The release callback may use the library again, on this very cache too.
std::function<void(const std::string&)> onRelease;
void Reenter(int, unsigned long size, void* data) {
  if (onRelease) onRelease(std::string(static_cast<char*>(data), size));
}

TEST_F(Reclaim, CallbacksMayUseTheLibraryDuringAReplacementOrAPass) {
  CA_SETFREE(&Reenter);
  // The callback of a replaced record replaces another key, which starts
  // the rebuild that discards the node the outer insert refills.
  CACacheAction* h = Open("rebuilt", 1000000000);
  for (int i = 0; i < 20010; ++i) Put(h, Key(i), "old", 1);
  for (int i = 10; i < 20010; ++i) Erase(h, Key(i));  // 20,000 free nodes
  onRelease = [&](const std::string&) {
    onRelease = nullptr;
    EXPECT_EQ(Put(h, Key(2), "inner"), 0);
  };
  EXPECT_EQ(Put(h, Key(1), "outer"), 0);
  EXPECT_EQ(Get(h, Key(1)) + Get(h, Key(2)), "outerinner");
  EXPECT_EQ(Params(h).nodes, 10u);  // rebuilt, then the key made anew
  ExpectSound(h);
  // It stores under the key being replaced: the outer record stays.
  int calls = 0;
  onRelease = [&](const std::string& value) {
    if (calls++ == 0) Put(h, Key(1), "from " + value);
  };
  EXPECT_EQ(Put(h, Key(1), "last"), 0);
  EXPECT_EQ(Get(h, Key(1)), "last");
  EXPECT_EQ(calls, 2);  // "outer", then "from outer"
  // Evicted records move into the same cache (no nested pass starts), erase
  // a candidate still to come (passed over) and close another handle.
  CACacheAction* e = Open("evicting", 100);
  void* spare = Open("evicting", 100);
  for (int i = 0; i < 50; ++i) Put(e, Key(i), std::to_string(i), 2);
  g_now += 10;
  std::string first;
  onRelease = [&](const std::string& value) {
    if (!first.empty()) return;
    Put(e, "moved " + value, first = value, 50);
    Erase(e, Key(49));
    CA_CLOSE(spare);
  };
  Put(e, "trigger", "t", 1);
  EXPECT_EQ(Get(e, "moved " + first) + Get(e, Key(49)) + Get(e, "trigger"),
            first + "-t");
  onRelease = nullptr;
  ExpectSound(e);
}

}  // namespace
