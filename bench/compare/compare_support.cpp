// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>

#include "compare.h"

namespace qmcompare {

const char* WorkloadName(Workload w) {
  switch (w) {
    case Workload::kHit:
      return "hit";
    case Workload::kMiss:
      return "miss";
    case Workload::kInsert:
      return "insert";
    case Workload::kReadThrough:
      return "readthrough";
    case Workload::kChurn:
      return "churn";
  }
  return "?";
}

bool ParseWorkload(const std::string& name, Workload* out) {
  for (Workload w : {Workload::kHit, Workload::kMiss, Workload::kInsert,
                     Workload::kReadThrough, Workload::kChurn}) {
    if (name == WorkloadName(w)) {
      *out = w;
      return true;
    }
  }
  return false;
}

std::vector<Key> RandomKeys(size_t n, uint64_t seed) {
  Rng rng(seed);
  std::vector<Key> keys(n);
  for (Key& k : keys) {
    const uint64_t w[2] = {rng.Next(), rng.Next()};
    std::memcpy(k.bytes, w, kKeySize);
  }
  return keys;
}

void Sizes(const Options& o, size_t* keys, size_t* budget, size_t* ops) {
  if (IsFill(o.workload)) {
    *keys = o.keys != 0 ? o.keys : o.records;
    *ops = *keys;
    *budget = 0;
    return;
  }
  // readthrough: the key universe is the records; churn: a tenth of them,
  // so the same operations insert many more bytes than the budget per
  // second. Either budget holds a tenth of its key universe.
  const size_t universe =
      o.workload == Workload::kChurn ? o.records / 10 : o.records;
  *keys = o.keys != 0 ? o.keys : std::max<size_t>(universe, 10);
  *budget = o.budget != 0 ? o.budget : std::max<size_t>(*keys / 10, 1);
  *ops = o.ops != 0 ? o.ops : 2 * o.records;
}

Plan MakePlan(const Options& o, size_t keys, size_t ops) {
  Plan p;
  std::vector<Key> stored = RandomKeys(keys, 0x5eed0016u);
  auto pick = [&](const std::vector<uint32_t>& which) {
    p.stream.resize(which.size());
    for (size_t i = 0; i < which.size(); i++) p.stream[i] = stored[which[i]];
  };
  switch (o.workload) {
    case Workload::kHit:
      pick(Permutation(keys, 0x10c0 + keys));
      p.fill = std::move(stored);
      break;
    case Workload::kMiss:
      p.stream = RandomKeys(keys, 0xdeadbeefu);
      p.fill = std::move(stored);
      break;
    case Workload::kInsert:
      p.stream = std::move(stored);
      break;
    case Workload::kReadThrough:
    case Workload::kChurn:
      pick(ZipfSample(keys, o.zipf, ops, 99));
      break;
  }
  return p;
}

uint64_t TimerOverheadTicks() {
  std::vector<uint64_t> d(1001);
  for (uint64_t& x : d) {
    const uint64_t t0 = Tick();
    x = Tick() - t0;
  }
  std::nth_element(d.begin(), d.begin() + d.size() / 2, d.end());
  return d[d.size() / 2];
}

void Percentiles(std::vector<uint64_t>* ticks, double ticksPerNs, Result* r) {
  if (ticks->empty() || ticksPerNs <= 0) return;
  std::sort(ticks->begin(), ticks->end());
  const size_t n = ticks->size();
  // Nearest rank: the smallest value with at least q of the values at or
  // below it.
  auto at = [&](double q) {
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(n)));
    rank = std::min(std::max<size_t>(rank, 1), n);
    return static_cast<double>((*ticks)[rank - 1]) / ticksPerNs;
  };
  r->p50 = at(0.50);
  r->p99 = at(0.99);
  r->p999 = at(0.999);
  r->max = static_cast<double>(ticks->back()) / ticksPerNs;
}

}  // namespace qmcompare
