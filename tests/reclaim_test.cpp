// Reclamation: grading, eviction passes, tree rebuilds, the triggers and the
// controller's pending list.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "gtest/gtest.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

// The library reads the wall clock through time(); this definition takes its
// place for the whole process, so the tests set the clock by hand. Default
// visibility puts it in the executable's dynamic symbols, where the library's
// calls find it first.
static time_t g_now = 1000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = g_now;
  return g_now;
}

namespace {

CACacheAction* Open(const char* name, unsigned int maxBytes) {
  CAParams params{};
  params.maxBytes = maxBytes;
  return static_cast<CACacheAction*>(CA_CREATE(name, &params));
}

// A 4-byte big-endian key: tree order is numeric order.
std::string Key(unsigned int i) {
  const char bytes[4] = {static_cast<char>(i >> 24), static_cast<char>(i >> 16),
                         static_cast<char>(i >> 8), static_cast<char>(i)};
  return std::string(bytes, 4);
}

int Put(void* h, const std::string& key, int length, int flags = 0,
        int lifetime = 0, char value = 'x') {
  return CA_INSERT(h, 0, flags, lifetime, static_cast<int>(key.size()),
                   key.data(), 1, length, &value);
}

BTree* NodeOf(CACacheAction* h, const std::string& key) {
  BTree* root = h->cache->tree;
  if (root == nullptr) return nullptr;
  return root->Search(
      reinterpret_cast<unsigned char*>(const_cast<char*>(key.data())),
      key.size());
}

// The key's record without searching for it (a search would add a hit).
CARecord* RecordOf(CACacheAction* h, const std::string& key) {
  BTree* node = NodeOf(h, key);
  return node == nullptr ? nullptr : static_cast<CARecord*>(node->payload);
}

void EraseKey(void* h, const std::string& key) {
  void* record = CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data());
  ASSERT_NE(record, nullptr);
  CA_ERASE(h, record);
}

unsigned long Count(void* h, int slot) {
  _CAStat stat;
  CA_GETSTAT(h, slot, &stat);
  return stat.count;
}

int LiveHandles(CACache* cache) {
  int live = 0;
  for (int i = 0; i < cache->actionSlots; ++i) live += cache->actions[i] != 0;
  return live;
}

// Links, record/node agreement and the node counters of a cache's tree.
void ExpectSound(CACache* cache) {
  if (cache->tree != nullptr) {
    EXPECT_EQ(cache->tree->parent, nullptr);
    EXPECT_EQ(cache->tree->parentLink, &cache->tree);
  }
  unsigned int nodes = 0, used = 0, faults = 0;
  BTreeNumerator walk(cache->tree, 0);
  for (BTree* n = walk.Next(); n != nullptr; n = walk.Next()) {
    ++nodes;
    faults += *n->parentLink != n;
    faults += n->left != nullptr && n->left->parent != n;
    faults += n->right != nullptr && n->right->parent != n;
    if (n->payload != nullptr) {
      ++used;
      const CARecord* r = static_cast<CARecord*>(n->payload);
      faults += r->node != n || r->cache != cache;
    }
  }
  EXPECT_EQ(faults, 0u);
  EXPECT_EQ(nodes, cache->params.nodes);
  EXPECT_EQ(used, cache->params.usedNodes);
}

// A pass over an over-budget cache of pinned records: it sets the pass's
// reference time to now and erases nothing.
void StartPassNow() {
  static const char kName[] = "pass-clock";
  void* h = Open(kName, 10);
  Put(h, "pin", 100, CAREC_PINNED);
}

struct Tracer {
  std::string path;
  explicit Tracer(const char* name)
      : path(testing::TempDir() + "reclaim_" + name + ".log") {
    trace = new Trace(path.c_str());
  }
  // Messages written so far, without their " at <time>" tails.
  std::vector<std::string> Lines() const {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
      const size_t at = line.rfind(" at ");
      out.push_back(at == std::string::npos ? line : line.substr(0, at));
    }
    return out;
  }
};

void StopTrace() {
  delete trace;
  trace = nullptr;
}

std::string Printed(const char* format, const void* p) {
  char text[64];
  snprintf(text, sizeof text, format, p);
  return text;
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

TEST_F(ReclaimTest, GradeWeighsAgeUseLengthAndFlags) {
  CACacheAction* h = Open("grades", 1000000);
  Put(h, "plain", 100);
  Put(h, "read", 100);
  CA_FREE(h, CA_SEARCH(h, 0, 4, "read"));  // hits 2
  Put(h, "held", 100);
  void* held = CA_SEARCH(h, 0, 4, "held");
  Put(h, "exp0", 10, CAREC_EXPIRES, 0);
  Put(h, "exp5", 10, CAREC_EXPIRES, 5);
  Put(h, "expheld", 10, CAREC_EXPIRES, 5);
  void* expHeld = CA_SEARCH(h, 0, 7, "expheld");
  Put(h, "pinexp", 10, CAREC_PINNED | CAREC_EXPIRES, 0);
  CA_INSERT(h, 0, 0, 0, 5, "empty", 0, 10, "x");  // a node without record
  ASSERT_NE(NodeOf(h, "empty"), nullptr);
  auto grade = [&](const char* key, unsigned long budget = 1000) {
    return cafree->DeleteGrad(NodeOf(h, key), budget);
  };

  StartPassNow();
  EXPECT_EQ(grade("plain"), 0);  // made in the pass's second
  EXPECT_EQ(grade("exp0"), -1);
  EXPECT_EQ(grade("exp5"), 0);
  EXPECT_EQ(grade("empty"), 0);

  g_now += 4;
  StartPassNow();
  EXPECT_EQ(grade("plain"), 2600);  // (5 / 2) * 1000 + 100
  EXPECT_EQ(grade("exp5"), 0);
  EXPECT_EQ(grade("expheld"), 0);

  g_now += 5;  // 9 seconds after the records were made
  StartPassNow();
  EXPECT_EQ(grade("plain"), 5100);
  EXPECT_EQ(grade("read"), 10.0 / 3.0 * 1000 + 100);
  EXPECT_EQ(grade("plain", 0), 100);  // budget 0: the length alone
  EXPECT_EQ(grade("held"), 0);
  EXPECT_EQ(grade("exp5"), -1);
  EXPECT_EQ(grade("expheld"), -1);  // expired records go even while held
  EXPECT_EQ(grade("pinexp"), 0);    // pinning wins over expiry
  CA_FREE(h, held);
  CA_FREE(h, expHeld);
  EXPECT_EQ(grade("held"), 10.0 / 3.0 * 1000 + 100);  // searched once
}

TEST_F(ReclaimTest, QuickSortOrdersEqualGradesByItsPartitionScheme) {
  struct Case {
    std::vector<double> grades;
    const char* expected;  // the tags a, b, c ... after the sort
  };
  const Case cases[] = {
      {{5, 5, 5}, "cba"},
      {{5, 5, 5, 5}, "cdab"},
      {{1, 3, 2, 3, 1}, "bdcea"},
      {{1e10, 7, 1e10, 1e10}, "cdab"},
      {{2, 2, 1, 1, 2, 2}, "feabcd"},
      {{1e10, 1e10, 1e10, 1e10, 1e10}, "decab"},
      {{7}, "a"},
  };
  for (const Case& c : cases) {
    const int n = static_cast<int>(c.grades.size());
    for (int i = 0; i < n; ++i) {
      cafree->grades[i] = c.grades[i];
      cafree->candidates[i] = reinterpret_cast<BTree*>(uintptr_t{'a'} + i);
    }
    cafree->QuickSort(0, n - 1);
    std::string tags;
    for (int i = 0; i < n; ++i) {
      tags +=
          static_cast<char>(reinterpret_cast<uintptr_t>(cafree->candidates[i]));
      if (i > 0) {
        EXPECT_GE(cafree->grades[i - 1], cafree->grades[i]);
      }
    }
    EXPECT_EQ(tags, c.expected);
  }

  // A large random array comes out descending with every pair kept.
  srand(7);
  const int n = static_cast<int>(cafree->gradCapacity);
  for (int i = 0; i < n; ++i) {
    cafree->grades[i] = rand() % 13;
    cafree->candidates[i] = reinterpret_cast<BTree*>(
        static_cast<uintptr_t>(cafree->grades[i] * 1000 + i));
  }
  cafree->QuickSort(0, n - 1);
  for (int i = 0; i < n; ++i) {
    const uintptr_t tag = reinterpret_cast<uintptr_t>(cafree->candidates[i]);
    EXPECT_EQ(static_cast<double>(tag / 1000), cafree->grades[i]);
    if (i > 0) {
      EXPECT_GE(cafree->grades[i - 1], cafree->grades[i]);
    }
  }
}

TEST_F(ReclaimTest, PassErasesUntilTheMarkIsReached) {
  CACacheAction* h = Open("budget", 1000);  // mark 900
  Put(h, "a", 100);
  Put(h, "b", 80);
  Put(h, "c", 60);
  Put(h, "p", 810, CAREC_PINNED);  // 1050: a pass that finds no candidate
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 1u);
  EXPECT_EQ(h->cache->params.allocated, 1050u);
  EXPECT_EQ(LiveHandles(h->cache), 1);  // the pass's own handle is gone
  EXPECT_EQ(cafree->busy, 0);

  g_now += 10;
  CAParams before, after;
  CA_GETCACHESTAT(h, &before);
  const unsigned long erases = Count(h, CASTAT_ERASE);
  const unsigned long mainPasses = Count(nullptr, CASTAT_EVICTION);
  Tracer log("budget");
  EXPECT_EQ(cafree->Compress(h), 1);
  const std::vector<std::string> expected = {
      "CACACHE Cache has 150 bytes to delete",
      "CACACHE Found 3 record avaiable to delete",
      "CACACHE 1. Delete 100 bytes",
      "CACACHE 1. Deleted",
      "CACACHE 2. Delete 80 bytes",
      "CACACHE 2. Deleted",
      "CACACHE 2 record deleted"};
  EXPECT_EQ(log.Lines(), expected);
  StopTrace();
  EXPECT_EQ(RecordOf(h, "a"), nullptr);
  EXPECT_EQ(RecordOf(h, "b"), nullptr);
  EXPECT_NE(RecordOf(h, "c"), nullptr);
  EXPECT_NE(RecordOf(h, "p"), nullptr);
  EXPECT_EQ(h->cache->params.allocated, 870u);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 2u);
  EXPECT_EQ(Count(nullptr, CASTAT_EVICTION), mainPasses + 1);
  EXPECT_EQ(Count(h, CASTAT_ERASE), erases + 2);
  CA_GETCACHESTAT(h, &after);  // erases are handle work, the pass is not
  EXPECT_EQ(after.timing.count, before.timing.count + 2);
  ExpectSound(h->cache);

  // At the mark nothing happens: no line, no statistic.
  Put(h, "d", 30);
  EXPECT_EQ(h->cache->params.allocated, 900u);
  Tracer atMark("at_mark");
  EXPECT_EQ(cafree->Compress(h), 1);
  EXPECT_TRUE(atMark.Lines().empty());
  // One byte above it a pass runs: "c" is old enough to go.
  Put(h, "e", 1);
  EXPECT_EQ(cafree->Compress(h), 1);
  EXPECT_EQ(atMark.Lines().back(), "CACACHE 1 record deleted");
  EXPECT_EQ(RecordOf(h, "c"), nullptr);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 3u);
}

TEST_F(ReclaimTest, DefaultBudgetPassWithoutCandidatesTraces) {
  CACacheAction* h = Open("default", 0);
  EXPECT_EQ(h->cache->params.maxBytes, 1048576u);
  Tracer log("default");
  Put(h, "big", 1048577);
  const std::vector<std::string> expected = {
      "CACACHE Cache has 104858 bytes to delete",
      "CACACHE Found 0 record avaiable to delete", "CACACHE 0 record deleted",
      "CACACHE Insert a record Length=1048577"};
  EXPECT_EQ(log.Lines(), expected);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 1u);
}

TEST_F(ReclaimTest, ForcedRecordsGoEvenHeldAndAfterTheTarget) {
  CACacheAction* h = Open("forced", 1000);
  Put(h, "e1", 10, CAREC_EXPIRES, 5);
  Put(h, "e2", 20, CAREC_EXPIRES, 5);
  Put(h, "e3", 30, CAREC_EXPIRES, 5);
  CARecord* e3 = static_cast<CARecord*>(CA_SEARCH(h, 0, 2, "e3"));
  Put(h, "l", 200, CAREC_EXPIRES, 1000);
  Put(h, "p", 300, CAREC_PINNED);
  Put(h, "x", 350);  // 910: ten bytes above the mark
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 0u);

  g_now += 4;  // not yet expired: only "x" is a candidate
  EXPECT_EQ(cafree->Compress(h), 1);
  EXPECT_EQ(RecordOf(h, "x"), nullptr);
  EXPECT_NE(RecordOf(h, "e1"), nullptr);
  Put(h, "x", 350);

  g_now += 1;  // e1..e3 expire; e3 goes first and meets the target alone
  EXPECT_EQ(cafree->Compress(h), 1);
  EXPECT_EQ(RecordOf(h, "e1"), nullptr);
  EXPECT_EQ(RecordOf(h, "e2"), nullptr);
  EXPECT_EQ(RecordOf(h, "e3"), nullptr);
  EXPECT_NE(RecordOf(h, "x"), nullptr);  // graded below 1e9: it stays
  EXPECT_NE(RecordOf(h, "l"), nullptr);
  EXPECT_NE(RecordOf(h, "p"), nullptr);
  EXPECT_EQ(e3->node, nullptr);  // detached, still alive for its holder
  EXPECT_EQ(h->cache->params.allocated, 880u);
  CA_FREE(h, e3);
  EXPECT_EQ(h->cache->params.allocated, 850u);
  ExpectSound(h->cache);
}

TEST_F(ReclaimTest, EqualForcedGradesLeaveInPartitionOrder) {
  CACacheAction* h = Open("order", 1000);
  for (int i = 0; i < 4; ++i) {
    Put(h, std::string(1, static_cast<char>('a' + i)), i + 1, CAREC_EXPIRES, 0);
  }
  Tracer log("order");
  Put(h, "z", 995, CAREC_PINNED);  // 1005: the pass runs now
  std::vector<std::string> deletes;
  for (const std::string& line : log.Lines()) {
    if (line.find("bytes") != std::string::npos &&
        line.find(". Delete") != std::string::npos) {
      deletes.push_back(line);
    }
  }
  const std::vector<std::string> expected = {
      "CACACHE 1. Delete 3 bytes", "CACACHE 2. Delete 4 bytes",
      "CACACHE 3. Delete 1 bytes", "CACACHE 4. Delete 2 bytes"};
  EXPECT_EQ(deletes, expected);
  EXPECT_EQ(log.Lines().front(), "CACACHE Cache has 105 bytes to delete");
  EXPECT_EQ(h->cache->params.allocated, 995u);
}

TEST_F(ReclaimTest, ZeroBudgetErasesEveryCandidateLongestFirst) {
  CACacheAction* h = Open("zero", 1000000);
  Put(h, "k1", 30);
  Put(h, "k2", 50);
  CA_FREE(h, CA_SEARCH(h, 0, 2, "k2"));  // more hits do not matter at 0
  Put(h, "k3", 10);
  Put(h, "k4", 40);
  Put(h, "pin", 70, CAREC_PINNED);
  Put(h, "held", 20);
  void* held = CA_SEARCH(h, 0, 4, "held");
  g_now += 100;
  void* h2 = Open("zero", 0);  // re-opening with 0 sets a budget of 0
  EXPECT_EQ(h->cache->params.maxBytes, 0u);
  Tracer log("zero");
  Put(h2, "fresh", 5);  // over budget: the pass runs now
  std::vector<std::string> deletes;
  for (const std::string& line : log.Lines()) {
    if (line.find(" bytes") != std::string::npos &&
        line.find("Delete") != std::string::npos) {
      deletes.push_back(line);
    }
  }
  const std::vector<std::string> expected = {
      "CACACHE 1. Delete 50 bytes", "CACACHE 2. Delete 40 bytes",
      "CACACHE 3. Delete 30 bytes", "CACACHE 4. Delete 10 bytes"};
  EXPECT_EQ(deletes, expected);
  EXPECT_NE(RecordOf(h, "pin"), nullptr);
  EXPECT_NE(RecordOf(h, "held"), nullptr);
  EXPECT_NE(RecordOf(h, "fresh"), nullptr);
  EXPECT_EQ(h->cache->params.allocated, 95u);
  // Still over budget: every insert runs a full pass again.
  Put(h2, "more", 1);
  Put(h2, "more2", 1);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 3u);
  CA_FREE(h, held);
  ExpectSound(h->cache);
}

TEST_F(ReclaimTest, GradeArraysGrowInStepsOfAHundred) {
  EXPECT_EQ(cafree->gradCapacity, 100u);
  for (unsigned int records : {100u, 101u, 201u}) {
    const std::string name = "grow" + std::to_string(records);
    CACacheAction* h = Open(name.c_str(), 1000000);
    for (unsigned int i = 0; i < records; ++i) Put(h, Key(i), 1);
    g_now += 10;
    CACacheAction* small = Open(name.c_str(), 10);  // mark 9
    EXPECT_EQ(cafree->Compress(small), 1);
    EXPECT_EQ(small->cache->params.allocated, 9u);
    EXPECT_EQ(cafree->gradCapacity, (records + 99) / 100 * 100);
    ExpectSound(h->cache);
  }
}

TEST_F(ReclaimTest, TriggerFiresOnlyAboveTheBudget) {
  CACacheAction* h = Open("edge", 1000);
  Put(h, "a", 600);
  Put(h, "b", 400);
  EXPECT_EQ(h->cache->params.allocated, 1000u);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 0u);
  Put(h, "c", 1);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 1u);

  // While a pass runs (busy) or without a controller, only counters move.
  cafree->busy = 1;
  Put(h, "d", 1);
  cafree->busy = 0;
  CAFree* controller = cafree;
  cafree = nullptr;
  Put(h, "e", 1);
  cafree = controller;
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 1u);
  EXPECT_EQ(h->cache->params.allocated, 1003u);
  Put(h, "f", 1);
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 2u);
  EXPECT_EQ(Count(nullptr, CASTAT_EVICTION), 2u);
}

// A cache holding `keep` records (keys 0 .. keep-1, made now) after
// `erased` more records were inserted and erased (keys from `keep` upwards).
CACacheAction* TreeWithFreeNodes(const char* name, unsigned int keep,
                                 unsigned int erased) {
  CACacheAction* h = Open(name, 1000000000);
  for (unsigned int i = 0; i < keep + erased; ++i) Put(h, Key(i), 1);
  for (unsigned int i = keep; i < keep + erased; ++i) EraseKey(h, Key(i));
  return h;
}

TEST_F(ReclaimTest, RebuildStartsAboveTwentyThousandFreeNodes) {
  CACacheAction* h = TreeWithFreeNodes("rebuild", 5, 20000);
  EXPECT_EQ(h->cache->params.nodes, 20005u);
  EXPECT_EQ(h->cache->params.usedNodes, 5u);
  cafree->RebuildTree(h);
  EXPECT_EQ(h->cache->params.nodes, 20005u);
  EXPECT_EQ(Count(h, CASTAT_REBUILD), 0u);

  Put(h, Key(20005), 1);
  CARecord* last = RecordOf(h, Key(20005));
  void* doomed = CA_SEARCH(h, 0, 4, Key(3).data());
  Tracer log("rebuild");
  CA_ERASE(h, doomed);  // the 20,001st free node
  const std::vector<std::string> expected = {
      "CACACHE Rebuild binary tree 20001 free tree node",
      Printed("CACACHE Record %p erased from cache", doomed)};
  EXPECT_EQ(log.Lines(), expected);
  EXPECT_EQ(Count(h, CASTAT_REBUILD), 1u);
  EXPECT_EQ(Count(nullptr, CASTAT_REBUILD), 1u);
  EXPECT_EQ(h->cache->params.nodes, 5u);
  EXPECT_EQ(h->cache->params.usedNodes, 5u);
  ExpectSound(h->cache);
  for (unsigned int i : {0u, 1u, 2u, 4u})
    EXPECT_NE(RecordOf(h, Key(i)), nullptr);
  EXPECT_EQ(RecordOf(h, Key(20005)), last);
  EXPECT_EQ(NodeOf(h, Key(3)), nullptr);  // empty nodes are gone
  EXPECT_EQ(NodeOf(h, Key(10)), nullptr);
}

TEST_F(ReclaimTest, RebuildOfATreeWithoutRecordsLeavesNoTree) {
  CACacheAction* h = TreeWithFreeNodes("emptied", 0, 20001);
  EXPECT_EQ(h->cache->tree, nullptr);
  EXPECT_EQ(h->cache->params.nodes, 0u);
  EXPECT_EQ(h->cache->params.usedNodes, 0u);
  EXPECT_EQ(Put(h, "again", 1), 1);
  EXPECT_EQ(h->cache->tree->parentLink, &h->cache->tree);
  ExpectSound(h->cache);
}

// Insertion order of a rebuild: batches of 1000 in key order, each median
// first (preorder of a balanced tree over the batch).
void MedianFirst(int lo, int hi, std::vector<int>* order) {
  const int mid = lo + (hi - lo) / 2;
  order->push_back(mid);
  if (lo < mid) MedianFirst(lo, mid - 1, order);
  if (hi > mid) MedianFirst(mid + 1, hi, order);
}

TEST_F(ReclaimTest, RebuildInsertsBatchesOfAThousandMedianFirst) {
  for (int keep : {1000, 1001, 2500}) {
    SCOPED_TRACE(keep);
    const std::string name = "batch" + std::to_string(keep);
    CACacheAction* h = TreeWithFreeNodes(name.c_str(), keep, 20001);
    ASSERT_EQ(h->cache->params.nodes, static_cast<unsigned int>(keep));
    ExpectSound(h->cache);

    // Nodes in key order with their serials; serials give the making order.
    std::vector<std::pair<unsigned int, int>> made;
    BTreeNumerator walk(h->cache->tree, 0);
    int index = 0;
    for (BTree* n = walk.Next(); n != nullptr; n = walk.Next(), ++index) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(n->key), n->keyLength),
                Key(index));
      made.emplace_back(n->serial, index);
    }
    ASSERT_EQ(index, keep);
    std::sort(made.begin(), made.end());
    std::vector<int> order;
    for (const auto& m : made) order.push_back(m.second);

    EXPECT_EQ(order[0], 499);
    EXPECT_EQ(order[1], 249);
    EXPECT_EQ(order[999], 999);
    if (keep == 1001) {
      EXPECT_EQ(order[1000], 1000);
    }
    if (keep == 2500) {
      EXPECT_EQ(order[1000], 1499);
      EXPECT_EQ(order[2000], 2249);
      EXPECT_EQ(order[2499], 2499);
    }
    std::vector<int> expected;
    for (int lo = 0; lo < keep; lo += 1000) {
      MedianFirst(lo, std::min(lo + 999, keep - 1), &expected);
    }
    EXPECT_EQ(order, expected);
  }
}

TEST_F(ReclaimTest, ReplacementAtTheRebuildThresholdKeepsTheNewRecord) {
  for (bool holdOld : {false, true}) {
    SCOPED_TRACE(holdOld);
    const char* name = holdOld ? "replace-held" : "replace";
    CACacheAction* h = TreeWithFreeNodes(name, 3, 20000);
    void* old = holdOld ? CA_SEARCH(h, 0, 4, Key(1).data()) : nullptr;
    for (char value : {'p', 'q', 'r'}) {
      EXPECT_EQ(Put(h, Key(1), 1, 0, 0, value), 0);
      BTree* node = NodeOf(h, Key(1));
      ASSERT_NE(node, nullptr);
      CARecord* record = static_cast<CARecord*>(node->payload);
      ASSERT_NE(record, nullptr);
      EXPECT_EQ(record->node, node);
      EXPECT_EQ(*static_cast<char*>(record->get()), value);
      EXPECT_EQ(
          std::string(reinterpret_cast<char*>(node->key), node->keyLength),
          Key(1));
      ExpectSound(h->cache);
    }
    EXPECT_LE(h->cache->params.nodes - h->cache->params.usedNodes, 20000u);
    if (old != nullptr) CA_FREE(h, old);
  }
}

// Erasing records of a cache that sits at 20,000 free nodes: the pass's own
// erases cross the threshold but start no second pass.
CACacheAction* OverBudgetAtThreshold(const char* name) {
  TreeWithFreeNodes(name, 10, 20000);  // its handle keeps the cache open
  g_now += 10;
  return Open(name, 5);  // mark 5: five of the ten records must go
}

TEST_F(ReclaimTest, ErasesOfAPassStartNoNestedPass) {
  CACacheAction* h = OverBudgetAtThreshold("nested");
  Put(h, "fresh", 1);  // over budget: one pass, then the rebuild
  EXPECT_EQ(Count(h, CASTAT_EVICTION), 1u);
  EXPECT_EQ(Count(h, CASTAT_REBUILD), 1u);
  EXPECT_EQ(h->cache->params.nodes, h->cache->params.usedNodes);
  EXPECT_EQ(h->cache->params.usedNodes, 5u);
  ExpectSound(h->cache);

  // The same holds for a pass started directly, outside any trigger.
  CACacheAction* direct = OverBudgetAtThreshold("nested-direct");
  EXPECT_EQ(cafree->Compress(direct), 1);
  EXPECT_EQ(Count(direct, CASTAT_EVICTION), 1u);
  EXPECT_EQ(Count(direct, CASTAT_REBUILD), 0u);
  EXPECT_EQ(direct->cache->params.nodes, 20010u);
  cafree->RebuildTree(direct);
  EXPECT_EQ(direct->cache->params.nodes, 5u);
  ExpectSound(direct->cache);
}

CAFreeEntry* AddEntry(CACache* cache) {
  CAFreeEntry* entry = static_cast<CAFreeEntry*>(malloc(sizeof(CAFreeEntry)));
  entry->action = new CACacheAction(cache);
  entry->done = 0;
  entry->next = nullptr;
  CAFreeEntry** link = &cafree->pending;
  while (*link != nullptr) link = &(*link)->next;
  *link = entry;
  return entry;
}

struct FlagStopper : CAFreeStopper {
  bool* deleted;
  explicit FlagStopper(bool* flag) : deleted(flag) {}
  ~FlagStopper() override { *deleted = true; }
};

TEST_F(ReclaimTest, ProcedureWorksThroughPendingEntries) {
  CACacheAction* met = OverBudgetAtThreshold("met");
  CACacheAction* pinned = Open("pinned", 10);
  Put(pinned, "p", 20, CAREC_PINNED);  // one pass already, unable to meet
  cafree->Procedure();                 // an empty list: nothing to do

  AddEntry(met->cache);
  CAFreeEntry* stuck = AddEntry(pinned->cache);
  EXPECT_EQ(LiveHandles(met->cache), 3);
  cafree->Procedure();
  EXPECT_EQ(cafree->pending, stuck);  // the met entry is dropped
  EXPECT_EQ(stuck->next, nullptr);
  EXPECT_EQ(stuck->done, 0);
  EXPECT_EQ(LiveHandles(met->cache), 2);
  EXPECT_EQ(cafree->busy, 0);
  // One pass only, although its erases crossed 20,000 free nodes.
  EXPECT_EQ(Count(met, CASTAT_EVICTION), 1u);
  EXPECT_EQ(Count(met, CASTAT_REBUILD), 1u);
  EXPECT_EQ(met->cache->params.nodes, 5u);
  ExpectSound(met->cache);
  EXPECT_EQ(Count(pinned, CASTAT_EVICTION), 2u);

  bool stopperDeleted = false;
  cafree->stopper = new FlagStopper(&stopperDeleted);
  cafree->Procedure();
  EXPECT_EQ(Count(pinned, CASTAT_EVICTION), 2u);  // stopped
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
  CACache* unknown = reinterpret_cast<CACache*>(&first);
  cafree->DeleteFromList(unknown);
  EXPECT_EQ(first->next, mine);
  CA_CLOSE(a);  // destroys the cache, which drops its entry
  EXPECT_EQ(cafree->pending, first);
  EXPECT_EQ(first->next, nullptr);
  EXPECT_EQ(first->action->cache, b->cache);
}

}  // namespace
