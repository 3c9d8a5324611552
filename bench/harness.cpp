// SPDX-License-Identifier: MIT
#include "harness.h"

#include <malloc.h>

#include <cmath>

namespace qmbench {

namespace {
const char* const kWorkloadNames[] = {"hit",    "miss",        "mixed",
                                      "insert", "readthrough", "churn"};
}

const char* WorkloadName(Workload w) {
  return kWorkloadNames[static_cast<int>(w)];
}

bool ParseWorkload(const std::string& name, Workload* out) {
  for (int i = 0; i < 6; i++) {
    if (name == kWorkloadNames[i]) {
      *out = static_cast<Workload>(i);
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

std::vector<uint32_t> Permutation(size_t n, uint64_t seed) {
  std::vector<uint32_t> p(n);
  for (size_t i = 0; i < n; i++) p[i] = static_cast<uint32_t>(i);
  Rng rng(seed);
  for (size_t i = n; i > 1; i--) std::swap(p[i - 1], p[rng.Next() % i]);
  return p;
}

std::vector<uint32_t> ZipfSample(size_t n, double s, size_t count,
                                 uint64_t seed) {
  std::vector<double> cdf(n);
  double sum = 0;
  for (size_t r = 0; r < n; r++) {
    sum += 1.0 / std::pow(static_cast<double>(r + 1), s);
    cdf[r] = sum;
  }
  const std::vector<uint32_t> rankToIndex = Permutation(n, seed ^ 0x2222);
  Rng rng(seed);
  std::vector<uint32_t> out(count);
  for (uint32_t& x : out) {
    const size_t r =
        std::lower_bound(cdf.begin(), cdf.end(), rng.Unit() * sum) -
        cdf.begin();
    x = rankToIndex[std::min(r, n - 1)];
  }
  return out;
}

size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
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
    const size_t rank = static_cast<size_t>(std::ceil(q * n));
    return static_cast<double>((*ticks)[std::clamp<size_t>(rank, 1, n) - 1]) /
           ticksPerNs;
  };
  r->p50 = at(0.50);
  r->p99 = at(0.99);
  r->p999 = at(0.999);
  r->max = static_cast<double>(ticks->back()) / ticksPerNs;
}

double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
  return v[v.size() / 2];
}

Sizes SizesOf(const Options& o) {
  const size_t n = o.records;
  if (!Evicting(o.workload)) {
    const bool once = o.workload == Workload::kInsert;  // each key once
    return Sizes{n, 0, once || o.ops == 0 ? n : o.ops};
  }
  // churn: a tenth of the keys, so that the same operations insert many
  // more bytes than the budget per second. Either budget holds a tenth of
  // its key universe.
  const size_t keys =
      std::max<size_t>(o.workload == Workload::kChurn ? n / 10 : n, 10);
  return Sizes{keys, keys / 10, o.ops != 0 ? o.ops : 2 * n};
}

Plan MakePlan(const Options& o, const Sizes& s) {
  Plan p;
  std::vector<Key> stored = RandomKeys(s.keys, kStoredKeys);
  auto pick = [&](const std::vector<uint32_t>& which) {
    p.stream.resize(which.size());
    for (size_t i = 0; i < which.size(); i++) p.stream[i] = stored[which[i]];
  };
  switch (o.workload) {
    case Workload::kHit:
    case Workload::kMixed:
      pick(Permutation(s.keys, 0x10c0 + s.keys));
      p.fill = std::move(stored);
      break;
    case Workload::kMiss:
      p.stream = RandomKeys(s.keys, kAbsentKeys);
      p.fill = std::move(stored);
      break;
    case Workload::kInsert:
      p.stream = std::move(stored);
      break;
    case Workload::kReadThrough:
    case Workload::kChurn:
      pick(ZipfSample(s.keys, 0.99, s.ops, 99));
      break;
  }
  return p;
}

void Check(const Options& o, const Counts& n, size_t keys, Result* r) {
  std::string& f = r->failure;
  auto fail = [&](bool broken, const std::string& why) {
    if (f.empty() && broken) f = why;
  };
  const Workload w = o.workload;
  fail(n.bad != 0, std::to_string(n.bad) + " lookups returned a wrong value");
  fail(n.failed != 0, std::to_string(n.failed) + " inserts failed");
  fail((w == Workload::kHit || w == Workload::kMixed) && n.hits != n.lookups,
       std::to_string(n.lookups - n.hits) + " stored keys not found");
  fail(w == Workload::kMiss && n.hits != 0,
       std::to_string(n.hits) + " absent keys found");
  fail(w == Workload::kInsert && r->finalRecords != keys,
       "holds " + std::to_string(r->finalRecords) +
           " records after inserting " + std::to_string(keys));
  fail(Evicting(w) && (n.lookups != n.done || n.hits + n.inserts != n.lookups),
       "lookups, hits and inserts do not add up");
}

}  // namespace qmbench
