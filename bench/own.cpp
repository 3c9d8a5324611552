// SPDX-License-Identifier: MIT
// libqmcache's own costs: one eviction pass and one key-tree rebuild over a
// cache of N records, and the fixed cost of a call.
//
// Only the reclamation call itself is timed; the cache is brought back to
// its starting state between passes outside the timing:
//  - pass: every record is a second old and equally graded, and the cache
//    holds one record more than its mark (90% of the budget), so each pass
//    grades and sorts every record and erases one or two. This is what a
//    cache stuck over its budget pays on every insert. A record of the
//    current second (never a candidate) then refills the erased bytes. The
//    reference beside it: walking a std::map of the same N keys, grading
//    each entry, and sorting the grades.
//  - rebuild: 20,001 keys are inserted and erased with the controller
//    detached (so that nothing reclaims their nodes), then RebuildTree
//    rebuilds the tree from the N records.
//  - fixed: CA_SEARCH on a cache of one record, beside a bare
//    BTree::Search and the stopwatch and statistic every call pays for.
#include <dlfcn.h>

#include <functional>
#include <map>

#include "harness.h"
#include "qmcache/castatistic.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

namespace {

// The clock of record ages and grades. Off (outside pass and rebuild),
// time() is the C library's.
std::atomic<bool> fakeOn{false};
std::atomic<long> fakeNow{0};

}  // namespace

// Stands in for the C library's time() in the whole process, libqmcache
// included (it calls time() through the PLT).
extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) {
  using TimeFn = time_t (*)(time_t*);
  static const TimeFn real = reinterpret_cast<TimeFn>(dlsym(RTLD_NEXT, "time"));
  const time_t now = fakeOn.load(std::memory_order_relaxed)
                         ? static_cast<time_t>(fakeNow.load())
                         : real(nullptr);
  if (out != nullptr) *out = now;
  return now;
}

namespace qmbench {
namespace {

constexpr int kLength = 64;  // bytes charged per record

struct FakeClock {
  FakeClock() {
    fakeNow = 1000000000;
    fakeOn = true;
  }
  ~FakeClock() { fakeOn = false; }
};

CACacheAction* Filled(unsigned int maxBytes, const std::vector<Key>& keys) {
  CA_INIT(1);
  CAParams params{};
  params.maxBytes = maxBytes;
  auto* h = static_cast<CACacheAction*>(CA_CREATE("bench", &params));
  const char value = 'v';
  for (const Key& k : keys)
    CA_INSERT(h, 0, 0, 0, kKeySize, k.bytes, 1, kLength, &value);
  return h;
}

// CPU seconds of f(): on a shared machine, time spent descheduled would
// count against whatever ran then.
double Time(const std::function<void()>& f) {
  const double start = CpuNow();
  f();
  return CpuNow() - start;
}

// Runs `step` (which returns the seconds to count) at least `min` times,
// and up to 10 x `min` times until half a second has been counted; the
// median.
double MedianOf(size_t min, const std::function<double()>& step) {
  std::vector<double> v;
  double total = 0;
  while (v.size() < min || (total < 0.5 && v.size() < 10 * min)) {
    v.push_back(step());
    total += v.back();
  }
  return Median(v);
}

}  // namespace

void RunPass(const Options& o, Result* r) {
  const size_t n = o.records;
  const FakeClock clock;
  const std::vector<Key> keys = RandomKeys(n, kStoredKeys);
  const unsigned int held = static_cast<unsigned int>(n * kLength);
  CACacheAction* h = Filled(
      static_cast<unsigned int>((held - kLength / 2) * 10.0 / 9.0), keys);
  // One second of age keeps every grade near the budget, below the 1e9
  // above which a pass erases a record even after its target is met.
  fakeNow += 1;
  size_t refill = 0, erased = 0;
  r->Figure("pass_s", MedianOf(5, [&] {
              const unsigned int before = h->cache->params.allocated;
              const double s = Time([&] { cafree->Compress(h); });
              const unsigned int freed = before - h->cache->params.allocated;
              erased += freed / kLength;
              const std::string key = "refill" + std::to_string(refill++);
              CA_INSERT(h, 0, 0, 0, static_cast<int>(key.size()), key.data(), 1,
                        static_cast<int>(freed), "r");
              return s;
            }));
  r->Figure("erased_per_pass",
            static_cast<double>(erased) / static_cast<double>(refill));
  r->Figure("passes", static_cast<double>(refill));
  if (erased == 0) r->failure = "no pass erased a record";
  CA_CLOSE(h);

  struct Grade {
    long created;
    unsigned int hits;
  };
  std::map<std::string, Grade> map;
  Rng rng(77);
  for (const Key& k : keys)
    map.emplace(std::string(reinterpret_cast<const char*>(k.bytes), kKeySize),
                Grade{static_cast<long>(rng.Next() % 3600),
                      static_cast<unsigned int>(1 + rng.Next() % 20)});
  std::vector<double> grades;
  grades.reserve(n);
  const double budget = static_cast<double>(n) * kLength;
  r->Figure("walk_sort_s", MedianOf(3, [&] {
              return Time([&] {
                grades.clear();
                for (const auto& e : map)
                  grades.push_back((3601.0 - e.second.created) /
                                       (e.second.hits + 1.0) * budget +
                                   kLength);
                std::sort(grades.begin(), grades.end(), std::greater<>());
              });
            }));
}

void RunRebuild(const Options& o, Result* r) {
  const size_t n = o.records;
  const FakeClock clock;
  CACacheAction* h = Filled(4000000000u, RandomKeys(n, kStoredKeys));
  r->Figure("rebuild_s", MedianOf(3, [&] {
              // The free nodes are made with the controller away, so that
              // the erases do not rebuild on their own.
              CAFree* controller = cafree;
              cafree = nullptr;
              for (int i = 0; i < 20001; ++i) {
                const std::string key = "free" + std::to_string(i);
                const int length = static_cast<int>(key.size());
                CA_INSERT(h, 0, 0, 0, length, key.data(), 1, kLength, "f");
                CA_ERASE(h, CA_SEARCH(h, 0, length, key.data()));
              }
              cafree = controller;
              const double s = Time([&] { cafree->RebuildTree(h); });
              if (h->cache->params.nodes != n) r->failure = "no rebuild";
              return s;
            }));
  CA_CLOSE(h);
}

namespace {

constexpr int kBatch = 4096;

// A batch of kBatch calls of `op`: its CPU seconds. after() runs outside
// the timing.
template <typename Op, typename After>
std::function<double()> Batch(Op op, After after) {
  return [op, after]() mutable {
    const double cpu0 = CpuNow();
    for (int i = 0; i < kBatch; i++) op();
    const double s = CpuNow() - cpu0;
    after();
    return s;
  };
}
template <typename Op>
std::function<double()> Batch(Op op) {
  return Batch(op, [] {});
}

}  // namespace

// The calls are measured in turn, a batch of each in every round, so that
// all of them meet the same machine; the median batch of each.
void RunFixed(const Options&, Result* r) {
  const Key hit = RandomKeys(1, kStoredKeys)[0];
  Key key = hit, miss = RandomKeys(1, kAbsentKeys)[0];
  CAParams params{};
  params.maxBytes = 0xFFFFFFFFu;
  void* h = CA_CREATE("bench", &params);
  CA_INSERT(h, 0, 0, 0, kKeySize, hit.bytes, kValueSize, kValueSize, hit.bytes);
  BTree* root = nullptr;
  root = new BTree(key.bytes, kKeySize, nullptr, &root);
  CAClock clock;
  CAStatistic stat(8);
  void *held = nullptr, *absent = nullptr;
  BTree *found = nullptr, *notFound = nullptr;
  double sum = 0;
  const std::pair<const char*, std::function<double()>> calls[] = {
      {"search_hit_ns",
       Batch([&] { held = CA_SEARCH(h, 0, kKeySize, hit.bytes); },
             [&] {
               for (int i = 0; i < kBatch; i++) CA_FREE(h, held);
             })},
      {"search_miss_ns",
       Batch([&] { absent = CA_SEARCH(h, 0, kKeySize, miss.bytes); })},
      {"bare_search_hit_ns",
       Batch([&] { found = root->Search(key.bytes, kKeySize); })},
      {"bare_search_miss_ns",
       Batch([&] { notFound = root->Search(miss.bytes, kKeySize); })},
      {"clock_start_stop_ns", Batch([&] {
         clock.Start();
         sum += clock.Stop();
       })},
      {"stat_add_ns", Batch([&] { stat.Add(1, 1e-7); })},
  };
  std::vector<double> times[6];
  for (int round = 0; round < 500; round++)
    for (int i = 0; i < 6; i++) times[i].push_back(calls[i].second());
  for (int i = 0; i < 6; i++)
    r->Figure(calls[i].first, Median(times[i]) * 1e9 / kBatch);
  if (held == nullptr || absent != nullptr || found != root ||
      notFound != nullptr || sum < 0)
    r->failure = "a search found what it should not, or missed";
  CA_CLOSE(h);
  delete root;
}

}  // namespace qmbench
