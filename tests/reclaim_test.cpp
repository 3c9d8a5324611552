// Reclamation: grading, eviction passes, tree rebuilds, the triggers and the
// controller's pending list.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

// The library reads the wall clock through time(); this definition takes its
// place for the whole process (default visibility puts it in the executable's
// dynamic symbols, where the library's calls find it first).
static time_t g_now = 1000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = g_now;
  return g_now;
}

namespace {

using Lines = std::vector<std::string>;
using Ints = std::vector<long>;

CACacheAction* Open(const std::string& name, unsigned int maxBytes) {
  CAParams params{};
  params.maxBytes = maxBytes;
  return static_cast<CACacheAction*>(CA_CREATE(name.c_str(), &params));
}
int Put(void* h, const std::string& key, int length, int flags = 0,
        int lifetime = 0, char value = 'x') {
  return CA_INSERT(h, 0, flags, lifetime, static_cast<int>(key.size()),
                   key.data(), 1, length, &value);
}
// Inserts records made `ago` seconds before now, written "key:length" with an
// optional ":flags" of P (pinned) and E<lifetime> (expires).
void PutAll(void* h, const std::string& records, int ago = 0) {
  g_now -= ago;
  std::istringstream words(records);
  for (std::string w; words >> w;) {
    char key[32] = "", flags[16] = "";
    int length = 0;
    sscanf(w.c_str(), "%31[^:]:%d:%15s", key, &length, flags);
    const char* e = strchr(flags, 'E');
    Put(h, key, length,
        (strchr(flags, 'P') ? CAREC_PINNED : 0) | (e ? CAREC_EXPIRES : 0),
        e ? atoi(e + 1) : 0);
  }
  g_now += ago;
}
void* Hold(void* h, const std::string& key) {
  return CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data());
}
// A 4-byte big-endian key: tree order is numeric order.
std::string Key(unsigned int i) {
  const char b[4] = {static_cast<char>(i >> 24), static_cast<char>(i >> 16),
                     static_cast<char>(i >> 8), static_cast<char>(i)};
  return std::string(b, 4);
}
std::string KeyOf(const BTree* n) {
  return std::string(reinterpret_cast<const char*>(n->key), n->keyLength);
}
// The key's node, found without adding a hit to its record.
BTree* NodeOf(CACacheAction* h, const std::string& key) {
  auto* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(key.data()));
  BTree* root = h->cache->tree;
  return root == nullptr ? nullptr : root->Search(bytes, key.size());
}
// Keys that still have a record, in tree order.
Lines Survivors(CACacheAction* h) {
  Lines keys;
  BTreeNumerator walk(h->cache->tree, 0);
  for (BTree* n = walk.Next(); n != nullptr; n = walk.Next())
    if (n->payload != nullptr) keys.push_back(KeyOf(n));
  return keys;
}
// Allocated bytes, nodes, then the counts of erases, eviction passes and
// rebuilds (a null handle: zero sizes and the library-wide counts).
Ints Figures(void* h) {
  auto* a = static_cast<CACacheAction*>(h);
  Ints out = {a ? static_cast<long>(a->cache->params.allocated) : 0,
              a ? static_cast<long>(a->cache->params.nodes) : 0};
  for (int slot : {CASTAT_ERASE, CASTAT_EVICTION, CASTAT_REBUILD}) {
    _CAStat stat;
    CA_GETSTAT(h, slot, &stat);
    out.push_back(static_cast<long>(stat.count));
  }
  return out;
}
long Passes(void* h) { return Figures(h)[3]; }
int LiveHandles(CACache* cache) {
  int live = 0;
  for (int i = 0; i < cache->actionSlots; ++i) live += cache->actions[i] != 0;
  return live;
}
// Trace lines written while `run` runs, without their " at <time>" tails.
template <class F>
Lines Traced(F run) {
  // Named after the process too: tests of other processes (ctest runs
  // several at once) write logs of their own.
  static int serial = 0;
  const std::string path = testing::TempDir() + "reclaim_" +
                           std::to_string(getpid()) + "_" +
                           std::to_string(++serial) + ".log";
  trace = new Trace(path.c_str());
  run();
  delete trace;
  trace = nullptr;
  std::ifstream in(path);
  Lines out;
  for (std::string line; std::getline(in, line);)
    out.push_back(line.substr(0, line.rfind(" at ")));
  return out;
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
// Broken links, record/node disagreements and node-counter mismatches.
unsigned int Faults(CACache* c) {
  unsigned int nodes = 0, used = 0;
  unsigned int faults = c->tree != nullptr && (c->tree->parent != nullptr ||
                                               c->tree->parentLink != &c->tree);
  BTreeNumerator walk(c->tree, 0);
  for (BTree* n = walk.Next(); n != nullptr; n = walk.Next(), ++nodes) {
    const CARecord* r = static_cast<CARecord*>(n->payload);
    used += r != nullptr;
    faults += *n->parentLink != n ||
              (n->left != nullptr && n->left->parent != n) ||
              (n->right != nullptr && n->right->parent != n) ||
              (r != nullptr && (r->node != n || r->cache != c));
  }
  return faults + (nodes != c->params.nodes) + (used != c->params.usedNodes);
}
// Keys 0 .. keep-1 kept, `erased` more inserted and erased after them.
CACacheAction* WithFreeNodes(const std::string& name, unsigned int keep,
                             unsigned int erased) {
  CACacheAction* h = Open(name, 1000000000);
  for (unsigned int i = 0; i < keep + erased; ++i) Put(h, Key(i), 1);
  for (unsigned int i = keep; i < keep + erased; ++i)
    CA_ERASE(h, Hold(h, Key(i)));
  return h;
}
// Ten old records at 20,000 free nodes under a budget that keeps five;
// re-opening clears the cache's statistics.
CACacheAction* OverBudgetAtThreshold(const std::string& name) {
  WithFreeNodes(name, 10, 20000);  // its handle keeps the cache open
  g_now += 10;
  return Open(name, 5);
}
// A pass that erases nothing and sets the pass clock to now.
void StartPassNow() { Put(Open("pass-clock", 10), "pin", 100, CAREC_PINNED); }
CAFreeEntry* AddEntry(CACache* cache) {
  auto* e = static_cast<CAFreeEntry*>(malloc(sizeof(CAFreeEntry)));
  *e = {nullptr, new CACacheAction(cache), 0};
  CAFreeEntry** link = &cafree->pending;
  while (*link != nullptr) link = &(*link)->next;
  return *link = e;
}

class ReclaimTest : public testing::Test {
 protected:
  void SetUp() override {
    CA_DEINIT();
    g_now = 1000000;
    CA_INIT(1);
  }
  void TearDown() override { CA_DEINIT(); }
};

TEST_F(ReclaimTest, GradeWeighsAgeHitsAndLengthWhileFlagsOverrule) {
  CACacheAction* h = Open("grades", 1000000);
  PutAll(h, "plain:100 read:100 held:100 exp0:10:E0 exp5:10:E5 expheld:10:E5");
  PutAll(h, "pinexp:10:PE0");
  CA_INSERT(h, 0, 0, 0, 5, "empty", 0, 10, "x");  // a node without record
  ASSERT_NE(NodeOf(h, "empty"), nullptr);
  CA_FREE(h, Hold(h, "read"));
  void* held = Hold(h, "held");
  void* expHeld = Hold(h, "expheld");
  const time_t made = g_now;
  auto grades = [&](int age, unsigned long budget) {
    g_now = made + age;
    StartPassNow();
    std::vector<double> out;
    for (const char* key : {"plain", "read", "held", "exp0", "exp5", "expheld",
                            "pinexp", "empty"})
      out.push_back(cafree->DeleteGrad(NodeOf(h, key), budget));
    return out;
  };
  using G = std::vector<double>;
  // Made in the pass's second: only what has expired; pinning beats expiry.
  EXPECT_EQ(grades(0, 1000), (G{0, 0, 0, -1, 0, 0, 0, 0}));
  // (age + 1) / (hits + 1) * budget + length, held records never.
  EXPECT_EQ(grades(4, 1000),
            (G{2600, 5.0 / 3 * 1000 + 100, 0, -1, 0, 0, 0, 0}));
  // Expired records go even while held; budget 0 leaves the length alone.
  EXPECT_EQ(grades(9, 1000),
            (G{5100, 10.0 / 3 * 1000 + 100, 0, -1, -1, -1, 0, 0}));
  EXPECT_EQ(grades(9, 0), (G{100, 100, 0, -1, -1, -1, 0, 0}));
  CA_FREE(h, held);
  CA_FREE(h, expHeld);
  EXPECT_EQ(grades(9, 1000)[2], 10.0 / 3 * 1000 + 100);  // searched once
}

TEST_F(ReclaimTest, QuickSortDescendsAndOrdersEqualGradesByItsPartitions) {
  // Candidate i is tagged i; gives the tags in sorted order.
  auto sorted = [](const std::vector<double>& g) {
    for (size_t i = 0; i < g.size(); ++i) {
      cafree->grades[i] = g[i];
      cafree->candidates[i] = reinterpret_cast<BTree*>(i);
    }
    cafree->QuickSort(0, static_cast<int>(g.size()) - 1);
    std::vector<size_t> tags;
    for (size_t i = 0; i < g.size(); ++i)
      tags.push_back(reinterpret_cast<size_t>(cafree->candidates[i]));
    return tags;
  };
  using V = std::vector<size_t>;
  EXPECT_EQ(sorted({5, 5, 5}), (V{2, 1, 0}));
  EXPECT_EQ(sorted({5, 5, 5, 5}), (V{2, 3, 0, 1}));
  EXPECT_EQ(sorted({1, 3, 2, 3, 1}), (V{1, 3, 2, 4, 0}));
  EXPECT_EQ(sorted({1e10, 7, 1e10, 1e10}), (V{2, 3, 0, 1}));
  EXPECT_EQ(sorted({2, 2, 1, 1, 2, 2}), (V{5, 4, 0, 1, 2, 3}));
  EXPECT_EQ(sorted({1e10, 1e10, 1e10, 1e10, 1e10}), (V{3, 4, 2, 0, 1}));
  EXPECT_EQ(sorted({7}), (V{0}));
  // A large random array comes out descending with every pair kept.
  std::vector<double> g;
  srand(7);
  while (g.size() < cafree->gradCapacity) g.push_back(rand() % 13);
  const V order = sorted(g);
  EXPECT_EQ(std::set<size_t>(order.begin(), order.end()).size(), g.size());
  for (size_t i = 0; i < g.size(); ++i) {
    EXPECT_EQ(cafree->grades[i], g[order[i]]);
    EXPECT_GE(g[order[i > 0 ? i - 1 : 0]], g[order[i]]);
  }
}

TEST_F(ReclaimTest, APassErasesTheWorstGradedUntilTheMarkAndStops) {
  CACacheAction* h = Open("budget", 1000);  // mark 900
  // Made in one second: the pass their last insert starts has no candidate.
  PutAll(h, "a:100 b:80 c:60 p:810:P", 10);
  // Allocated, nodes, erases, eviction passes, rebuilds.
  EXPECT_EQ(Figures(h), (Ints{1050, 4, 0, 1, 0}));
  EXPECT_EQ(LiveHandles(h->cache), 1);  // the pass's own handle is gone
  EXPECT_EQ(cafree->busy, 0);
  CAParams before, after;
  CA_GETCACHESTAT(h, &before);
  int met = -1;
  EXPECT_EQ(Traced([&] { met = cafree->Compress(h); }),
            (Lines{"CACACHE Cache has 150 bytes to delete",
                   "CACACHE Found 3 record avaiable to delete",
                   "CACACHE 1. Delete 100 bytes", "CACACHE 1. Deleted",
                   "CACACHE 2. Delete 80 bytes", "CACACHE 2. Deleted",
                   "CACACHE 2 record deleted"}));
  EXPECT_EQ(met, 1);
  EXPECT_EQ(Survivors(h), (Lines{"c", "p"}));
  EXPECT_EQ(Figures(h), (Ints{870, 4, 2, 2, 0}));
  EXPECT_EQ(Figures(nullptr), (Ints{0, 0, 2, 2, 0}));
  CA_GETCACHESTAT(h, &after);  // erases are handle work, the pass is not
  EXPECT_EQ(after.timing.count, before.timing.count + 2);
  EXPECT_EQ(Faults(h->cache), 0u);
  // At the mark a pass does nothing; one byte above it the old "c" goes.
  Put(h, "d", 30);
  EXPECT_EQ(Traced([&] { EXPECT_EQ(cafree->Compress(h), 1); }), Lines{});
  Put(h, "e", 1);
  EXPECT_EQ(Erased(Traced([&] { cafree->Compress(h); })), Ints{60});
  EXPECT_EQ(Survivors(h), (Lines{"d", "e", "p"}));
  EXPECT_EQ(Figures(h), (Ints{841, 6, 3, 3, 0}));
}

TEST_F(ReclaimTest, TheBudgetTriggerFiresOneByteAboveMaxBytesWhenIdle) {
  for (unsigned int budget : {1u, 1000u, 1048576u}) {
    CACacheAction* h = Open("edge" + std::to_string(budget), budget);
    Put(h, "a", static_cast<int>(budget));
    EXPECT_EQ(Passes(h), 0) << budget;
    Put(h, "b", 1);
    EXPECT_EQ(Passes(h), 1) << budget;
  }
  CACacheAction* h = Open("default", 0);
  EXPECT_EQ(h->cache->params.maxBytes, 1048576u);
  const Lines lines = Traced([&] { Put(h, "big", 1048577); });
  EXPECT_EQ(lines, (Lines{"CACACHE Cache has 104858 bytes to delete",
                          "CACACHE Found 0 record avaiable to delete",
                          "CACACHE 0 record deleted",
                          "CACACHE Insert a record Length=1048577"}));
  // While a pass runs (busy) or without a controller, only counters move.
  cafree->busy = 1;
  Put(h, "c", 1);
  cafree->busy = 0;
  CAFree* controller = cafree;
  cafree = nullptr;
  Put(h, "d", 1);
  cafree = controller;
  EXPECT_EQ(Figures(h), (Ints{1048579, 3, 0, 1, 0}));
  Put(h, "e", 1);
  EXPECT_EQ(Passes(h), 2);
}

TEST_F(ReclaimTest, ExpiredRecordsGoFirstEvenHeldAndAfterTheTarget) {
  CACacheAction* h = Open("forced", 1000);
  // Ten bytes over the mark, nothing expired yet: only "x" goes.
  PutAll(h, "e1:10:E5 e2:20:E5 e3:30:E5 l:200:E1000 p:300:P x:350", 4);
  CARecord* e3 = static_cast<CARecord*>(Hold(h, "e3"));
  EXPECT_EQ(cafree->Compress(h), 1);
  EXPECT_EQ(Survivors(h), (Lines{"e1", "e2", "e3", "l", "p"}));
  Put(h, "x", 350);
  g_now += 1;  // e3 goes first and meets the target; e2 and e1 follow
  EXPECT_EQ(Erased(Traced([&] { cafree->Compress(h); })), (Ints{30, 20, 10}));
  EXPECT_EQ(Survivors(h), (Lines{"l", "p", "x"}));  // "x" graded below 1e9
  EXPECT_EQ(e3->node, nullptr);  // detached, still alive for its holder
  EXPECT_EQ(h->cache->params.allocated, 880u);
  CA_FREE(h, e3);
  EXPECT_EQ(h->cache->params.allocated, 850u);
  EXPECT_EQ(Faults(h->cache), 0u);
  // Equal forced grades leave in the order of the sort's partitions.
  CACacheAction* o = Open("order", 1000);
  PutAll(o, "a:1:E0 b:2:E0 c:3:E0 d:4:E0");
  const Lines lines = Traced([&] { Put(o, "z", 995, CAREC_PINNED); });
  EXPECT_EQ(lines.front(), "CACACHE Cache has 105 bytes to delete");
  EXPECT_EQ(Erased(lines), (Ints{3, 4, 1, 2}));
  EXPECT_EQ(Survivors(o), Lines{"z"});
}

TEST_F(ReclaimTest, BudgetZeroErasesEveryCandidateLongestFirst) {
  CACacheAction* h = Open("zero", 1000000);
  PutAll(h, "k1:30 k2:50 k3:10 k4:40 pin:70:P held:20", 100);
  CA_FREE(h, Hold(h, "k2"));  // more hits do not matter at 0
  void* held = Hold(h, "held");
  void* h2 = Open("zero", 0);  // re-opening with 0 sets a budget of 0
  EXPECT_EQ(h->cache->params.maxBytes, 0u);
  const Lines lines = Traced([&] { Put(h2, "fresh", 5); });
  EXPECT_EQ(Erased(lines), (Ints{50, 40, 30, 10}));
  EXPECT_EQ(Survivors(h), (Lines{"fresh", "held", "pin"}));
  EXPECT_EQ(cafree->Compress(h), 0);  // still over: every insert passes again
  Put(h2, "more", 1);
  EXPECT_EQ(Figures(h), (Ints{96, 8, 4, 3, 0}));
  CA_FREE(h, held);
  EXPECT_EQ(Faults(h->cache), 0u);
}

TEST_F(ReclaimTest, GradeArraysGrowInStepsOfAHundred) {
  EXPECT_EQ(cafree->gradCapacity, 100u);
  for (unsigned int records : {100u, 101u, 201u}) {
    const std::string name = "grow" + std::to_string(records);
    CACacheAction* h = Open(name, 1000000);
    for (unsigned int i = 0; i < records; ++i) Put(h, Key(i), 1);
    g_now += 10;
    EXPECT_EQ(cafree->Compress(Open(name, 10)), 1);  // mark 9
    EXPECT_EQ(h->cache->params.allocated, 9u);
    EXPECT_EQ(cafree->gradCapacity, (records + 99) / 100 * 100);
    EXPECT_EQ(Faults(h->cache), 0u);
  }
}

// Preorder of a balanced tree over lo..hi: the median first.
void MedianFirst(int lo, int hi, std::vector<int>* order) {
  const int mid = lo + (hi - lo) / 2;
  order->push_back(mid);
  if (lo < mid) MedianFirst(lo, mid - 1, order);
  if (hi > mid) MedianFirst(mid + 1, hi, order);
}

TEST_F(ReclaimTest, MoreThan20000FreeNodesRebuildTheTreeInBatchesOf1000) {
  // The erase that leaves 20,001 free nodes, not 20,000, starts a pass: it
  // shows in the eviction slot of a cache above its mark and within budget.
  CACacheAction* t = WithFreeNodes("trigger", 2, 19999);
  Put(t, "big", 98);
  t = Open("trigger", 100);  // mark 90, re-opening clears the statistics
  CA_ERASE(t, Hold(t, Key(1)));
  EXPECT_EQ(Figures(t), (Ints{99, 20002, 1, 0, 0}));
  CA_ERASE(t, Hold(t, Key(0)));
  EXPECT_EQ(Figures(t), (Ints{98, 1, 2, 1, 1}));
  for (int keep : {5, 0, 1000, 1001, 2500}) {
    SCOPED_TRACE(keep);
    const unsigned int erased = keep == 5 ? 20000 : 20001;
    CACacheAction* h =
        WithFreeNodes(std::to_string(keep), keep + 1, erased - 1);
    std::vector<void*> records;
    for (int i = 0; i < keep; ++i)
      records.push_back(NodeOf(h, Key(i))->payload);
    void* last = Hold(h, Key(keep));
    char line[64];
    snprintf(line, sizeof line, "CACACHE Record %p erased from cache", last);
    const Lines rebuilt = {"CACACHE Rebuild binary tree 20001 free tree node",
                           line};
    EXPECT_EQ(Traced([&] { CA_ERASE(h, last); }),
              keep == 5 ? Lines{line} : rebuilt);
    cafree->RebuildTree(h);  // at 20,000 free nodes or fewer: nothing
    EXPECT_EQ(Figures(h), (Ints{keep, keep == 5 ? 20005 : keep, erased, 0,
                                keep == 5 ? 0 : 1}));
    EXPECT_EQ(Faults(h->cache), 0u);
    if (keep == 5) continue;
    // Every record is found again at its key; serials give the making order.
    std::vector<std::pair<unsigned int, int>> made;
    BTreeNumerator walk(h->cache->tree, 0);
    for (BTree* n = walk.Next(); n != nullptr; n = walk.Next()) {
      EXPECT_EQ(NodeOf(h, Key(made.size())), n);
      EXPECT_EQ(n->payload, records[made.size()]);
      made.emplace_back(n->serial, static_cast<int>(made.size()));
    }
    ASSERT_EQ(made.size(), records.size());
    std::sort(made.begin(), made.end());
    std::vector<int> order, expected;
    for (const auto& m : made) order.push_back(m.second);
    for (int lo = 0; lo < keep; lo += 1000)
      MedianFirst(lo, std::min(lo + 999, keep - 1), &expected);
    EXPECT_EQ(order, expected);
    if (keep == 0) {
      EXPECT_EQ(h->cache->tree, nullptr);
      EXPECT_EQ(Put(h, "again", 1), 1);
      EXPECT_EQ(Faults(h->cache), 0u);
    } else if (keep == 2500) {  // worked by hand
      EXPECT_EQ((std::vector<int>{order[0], order[1], order[999], order[1000],
                                  order[2000], order[2499]}),
                (std::vector<int>{499, 249, 999, 1499, 2249, 2499}));
    }
  }
}

TEST_F(ReclaimTest, AReplacementAtTheThresholdKeepsItsNewRecordInTheTree) {
  for (bool holdOld : {false, true}) {
    SCOPED_TRACE(holdOld);
    CACacheAction* h = WithFreeNodes(holdOld ? "held" : "free", 3, 20000);
    void* old = holdOld ? Hold(h, Key(1)) : nullptr;
    for (char value : {'p', 'q', 'r'}) {
      EXPECT_EQ(Put(h, Key(1), 1, 0, 0, value), 0);
      BTree* node = NodeOf(h, Key(1));
      ASSERT_TRUE(node != nullptr && node->payload != nullptr);
      EXPECT_EQ(
          *static_cast<char*>(static_cast<CARecord*>(node->payload)->get()),
          value);
      EXPECT_EQ(KeyOf(node), Key(1));
      EXPECT_EQ(Faults(h->cache), 0u);  // also: the record names its node
    }
    EXPECT_LE(h->cache->params.nodes - h->cache->params.usedNodes, 20000u);
    if (old != nullptr) CA_FREE(h, old);
  }
}

TEST_F(ReclaimTest, ErasesOfAPassStartNoNestedPass) {
  CACacheAction* h = OverBudgetAtThreshold("nested");
  Put(h, "fresh", 1);  // six erased by one pass, then the rebuild
  EXPECT_EQ(Figures(h), (Ints{5, 5, 6, 1, 1}));
  EXPECT_EQ(Faults(h->cache), 0u);
  // The same holds for a pass started directly, outside any trigger.
  CACacheAction* direct = OverBudgetAtThreshold("direct");
  EXPECT_EQ(cafree->Compress(direct), 1);
  EXPECT_EQ(Figures(direct), (Ints{5, 20010, 5, 1, 0}));
  cafree->RebuildTree(direct);
  EXPECT_EQ(Figures(direct), (Ints{5, 5, 5, 1, 1}));
  EXPECT_EQ(Faults(direct->cache), 0u);
}

struct FlagStopper : CAFreeStopper {
  bool* deleted;
  explicit FlagStopper(bool* flag) : deleted(flag) {}
  ~FlagStopper() override { *deleted = true; }
};

TEST_F(ReclaimTest, ProcedureWorksThroughPendingEntriesUntilStopped) {
  CACacheAction* met = OverBudgetAtThreshold("met");
  CACacheAction* pinned = Open("pinned", 10);
  Put(pinned, "p", 20, CAREC_PINNED);  // one pass already, unable to meet
  cafree->Procedure();                 // an empty list: nothing to do
  AddEntry(met->cache);
  CAFreeEntry* stuck = AddEntry(pinned->cache);
  EXPECT_EQ(LiveHandles(met->cache), 3);
  cafree->Procedure();
  EXPECT_EQ(cafree->pending, stuck);  // the met entry is dropped
  EXPECT_TRUE(stuck->next == nullptr && stuck->done == 0 && !cafree->busy);
  EXPECT_EQ(LiveHandles(met->cache), 2);
  // One pass only, although its erases crossed 20,000 free nodes.
  EXPECT_EQ(Figures(met), (Ints{5, 5, 5, 1, 1}));
  EXPECT_EQ(Faults(met->cache), 0u);
  EXPECT_EQ(Passes(pinned), 2);
  bool stopperDeleted = false;
  cafree->stopper = new FlagStopper(&stopperDeleted);
  cafree->Procedure();
  EXPECT_EQ(Passes(pinned), 2);  // stopped
  EXPECT_EQ(cafree->pending, stuck);
  stuck->done = 1;  // done entries are dropped even while stopped
  cafree->Procedure();
  EXPECT_EQ(cafree->pending, nullptr);
  EXPECT_EQ(LiveHandles(pinned->cache), 1);
  AddEntry(pinned->cache);  // left for the controller's destructor
  CA_DEINIT();
  EXPECT_TRUE(stopperDeleted);
}

TEST_F(ReclaimTest, DeleteFromListDropsTheFirstEntryOfTheCache) {
  CACacheAction* a = Open("list-a", 1000);
  CACacheAction* b = Open("list-b", 1000);
  CAFreeEntry* first = AddEntry(b->cache);
  CAFreeEntry* mine = AddEntry(a->cache);
  // The entry's handle belongs to the entry alone.
  EXPECT_EQ(a->cache->DeleteAction(mine->action), 1);
  cafree->DeleteFromList(nullptr);
  cafree->DeleteFromList(reinterpret_cast<CACache*>(&first));  // unknown
  EXPECT_EQ(first->next, mine);
  CA_CLOSE(a);  // destroys the cache, which drops its entry
  EXPECT_EQ(cafree->pending, first);
  EXPECT_TRUE(first->next == nullptr && first->action->cache == b->cache);
}

}  // namespace
