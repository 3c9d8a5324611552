// SPDX-License-Identifier: MIT
// Cost of one eviction pass and of one key-tree rebuild over caches of
// 10^4, 10^5 and 10^6 records.
//
// Only the reclamation call itself is timed (manual time); the cache is
// built before the loop and brought back to its starting state between
// iterations outside the timed region:
//  - reclaim/eviction_pass: every record is old and equally graded; the
//    budget puts the cache one record above its mark, so each pass grades
//    and sorts all records and erases one or two of them. This is the cost
//    that a cache stuck over its budget pays on every insert. A fresh
//    record refills the erased bytes afterwards.
//  - reclaim/rebuild: 20,001 extra keys are inserted and erased with the
//    controller detached (so nothing reclaims them), then RebuildTree
//    rebuilds the tree from the n records.
#include <benchmark/benchmark.h>

#include <chrono>
#include <string>
#include <vector>

#include "bench_support.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

namespace qmbench {
namespace {

constexpr int kLength = 64;  // bytes charged per record
constexpr unsigned int kExtraFree = 20001;

CACacheAction* Fill(const char* name, unsigned int maxBytes,
                    const std::vector<std::string>& keys) {
  CA_INIT(1);
  CAParams params{};
  params.maxBytes = maxBytes;
  auto* h = static_cast<CACacheAction*>(CA_CREATE(name, &params));
  const char value = 'v';
  for (const std::string& key : keys) {
    CA_INSERT(h, 0, 0, 0, static_cast<int>(key.size()), key.data(), 1, kLength,
              &value);
  }
  return h;
}

std::string Filler(const char* prefix, unsigned long i) {
  return std::string(prefix) + std::to_string(i);
}

template <typename F>
double Seconds(F&& f) {
  const auto start = std::chrono::steady_clock::now();
  f();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
      .count();
}

void EvictionPass(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  FakeClockStart(1000000000);
  const std::vector<std::string> keys = MakeKeys(kBigEndian4, n);
  // Mark (90% of the budget) just below the bytes held.
  const unsigned int held = static_cast<unsigned int>(n * kLength);
  const unsigned int maxBytes =
      static_cast<unsigned int>((held - kLength / 2) * 10.0 / 9.0);
  CACacheAction* h = Fill("bench-evict", maxBytes, keys);
  // One second of age keeps every grade near the budget, below the 1e9
  // above which a pass erases a record even after its target is met.
  FakeClockAdvance(1);
  unsigned long refill = 0;
  unsigned long erased = 0;
  for (auto _ : state) {
    const unsigned int before = h->cache->params.allocated;
    int met = 0;
    state.SetIterationTime(Seconds([&] { met = cafree->Compress(h); }));
    benchmark::DoNotOptimize(met);
    const unsigned int freed = before - h->cache->params.allocated;
    erased += freed / kLength;
    // A record of this second: back over the mark, and never a candidate.
    const std::string key = Filler("refill", refill++);
    const char value = 'r';
    CA_INSERT(h, 0, 0, 0, static_cast<int>(key.size()), key.data(), 1,
              static_cast<int>(freed), &value);
  }
  state.counters["records"] = static_cast<double>(n);
  state.counters["erased_per_pass"] =
      static_cast<double>(erased) / static_cast<double>(state.iterations());
  CA_CLOSE(h);
  FakeClockStop();
}

void Rebuild(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  FakeClockStart(1000000000);
  const std::vector<std::string> keys = MakeKeys(kBigEndian4, n);
  CACacheAction* h = Fill("bench-rebuild", 4000000000u, keys);
  const char value = 'f';
  for (auto _ : state) {
    // Make the free nodes with the controller away, so that the erases do
    // not rebuild on their own.
    CAFree* controller = cafree;
    cafree = nullptr;
    for (unsigned long i = 0; i < kExtraFree; ++i) {
      const std::string key = Filler("free", i);
      const int length = static_cast<int>(key.size());
      CA_INSERT(h, 0, 0, 0, length, key.data(), 1, kLength, &value);
      CA_ERASE(h, CA_SEARCH(h, 0, length, key.data()));
    }
    cafree = controller;
    state.SetIterationTime(Seconds([&] { cafree->RebuildTree(h); }));
    if (h->cache->params.nodes != n) state.SkipWithError("no rebuild");
  }
  state.counters["records"] = static_cast<double>(n);
  CA_CLOSE(h);
  FakeClockStop();
}

BENCHMARK(EvictionPass)
    ->Name("reclaim/eviction_pass")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(Rebuild)
    ->Name("reclaim/rebuild")
    ->Arg(10000)
    ->Arg(100000)
    ->Arg(1000000)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace qmbench
