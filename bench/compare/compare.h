/* SPDX-License-Identifier: MIT */
// qmcache_compare: one cache library, one workload, one process.
//
// Every contender stores the same 16-byte random keys with 64-byte values
// and is driven through the same loops (RunWorkload below), on one thread.
// A contender is a class with
//
//   static constexpr const char* kName;
//   static constexpr bool kEvicts;       // false: only the fill workloads
//   explicit C(const Sizing&);
//   bool Lookup(const Key&, unsigned char* out);  // hit: 64 bytes to `out`
//   bool Insert(const Key&, const unsigned char* value);  // false: failed
//   size_t Records();                    // records held now
//   void Finish(Result*);                // its own figures, if any
//
// A lookup is the whole round trip a host makes to read a value: find the
// entry, copy its 64 bytes out, give the entry back.
#ifndef QMCACHE_BENCH_COMPARE_H
#define QMCACHE_BENCH_COMPARE_H

#include <malloc.h>
#include <time.h>
#include <x86intrin.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "sampling.h"

namespace qmcompare {

using qmsample::Permutation;
using qmsample::Rng;
using qmsample::ZipfSample;

constexpr size_t kKeySize = 16;
constexpr size_t kValueSize = 64;
// Bytes a record must hold whatever the container: its key and its value.
constexpr size_t kPayload = kKeySize + kValueSize;
// Capacity that the caches whose budget is split over shards get, over the
// bytes they must hold, in the workloads that must not evict: keys do not
// spread evenly over the shards, and a shard that fills up evicts.
constexpr double kShardHeadroom = 1.25;

struct Key {
  unsigned char bytes[kKeySize];
};

enum class Workload { kHit, kMiss, kInsert, kReadThrough, kChurn };
const char* WorkloadName(Workload w);
bool ParseWorkload(const std::string& name, Workload* out);
inline bool IsFill(Workload w) {
  return w == Workload::kHit || w == Workload::kMiss || w == Workload::kInsert;
}

struct Options {
  Workload workload = Workload::kHit;
  size_t records = 1000000;  // fill size; key universe of readthrough
  size_t keys = 0;           // key universe (0: from records and workload)
  size_t budget = 0;         // budget in records (0: from keys)
  size_t ops = 0;            // operations of readthrough/churn (0: 2 records)
  double zipf = 0.99;
  bool latency = false;  // time every operation
  double timeLimit = 0;  // seconds for the measured loop (0: none)
};

// What a contender is to hold.
struct Sizing {
  bool evicts;           // false: the budget must never be reached
  size_t budgetRecords;  // records the budget pays for (when evicts)
  size_t expected;       // records stored (when it does not evict)
};

// The figures of one statistic slot of libqmcache.
struct SlotFigures {
  bool present = false;
  unsigned long count = 0;
  double total = 0, max = 0;
};

struct Result {
  std::string contender;
  Workload workload = Workload::kHit;
  size_t records = 0, keys = 0, budget = 0, ops = 0;
  size_t opsDone = 0, lookups = 0, hits = 0, inserts = 0;
  size_t failedInserts = 0, badValues = 0;
  bool truncated = false;
  double wallSeconds = 0, cpuSeconds = 0;
  bool haveMemory = false;
  size_t heapBefore = 0, heapEmpty = 0, heapAfter = 0;
  size_t peakRecords = 0, finalRecords = 0;
  bool latency = false;
  double p50 = 0, p99 = 0, p999 = 0, max = 0;  // nanoseconds
  double tscGhz = 0, timerNs = 0;
  std::string capacity;  // how the contender was sized, for the report
  SlotFigures eviction, rebuild;
  std::string failure;  // empty when every check passed
  uint64_t sink = 0;
};

// ---- keys, values, samples ----

// `n` random keys from the stream `seed`; two streams never share a key
// but by a 2^-128 chance.
std::vector<Key> RandomKeys(size_t n, uint64_t seed);

// The value stored under `key`: the key's first half, 48 fixed bytes, the
// key's second half. A lookup checks the halves against the key it asked
// for, so a contender that hands back the wrong value cannot go unnoticed.
inline void MakeValue(const Key& key, unsigned char* value) {
  static const struct Fill {
    unsigned char bytes[kValueSize];
    Fill() {
      for (size_t i = 0; i < kValueSize; i++)
        bytes[i] = static_cast<unsigned char>(i * 7 + 1);
    }
  } fill;
  std::memcpy(value, fill.bytes, kValueSize);
  std::memcpy(value, key.bytes, 8);
  std::memcpy(value + kValueSize - 8, key.bytes + 8, 8);
}

// Reads all 64 bytes (into `sink`) and says whether they belong to `key`.
inline bool ValueMatches(const Key& key, const unsigned char* value,
                         uint64_t* sink) {
  uint64_t w[kValueSize / 8];
  std::memcpy(w, value, kValueSize);
  uint64_t sum = 0;
  for (uint64_t x : w) sum += x;
  *sink += sum;
  return std::memcmp(value, key.bytes, 8) == 0 &&
         std::memcmp(value + kValueSize - 8, key.bytes + 8, 8) == 0;
}

// Heap bytes handed out and not given back (small and mmapped blocks,
// allocator headers and rounding included).
inline size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

// ---- clocks ----

inline uint64_t Tick() {
  _mm_lfence();
  uint64_t t = __rdtsc();
  _mm_lfence();
  return t;
}

inline double ThreadCpuSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) +
         1e-9 * static_cast<double>(ts.tv_nsec);
}

using Steady = std::chrono::steady_clock;

inline double SecondsSince(Steady::time_point start) {
  return std::chrono::duration<double>(Steady::now() - start).count();
}

// Median cost, in ticks, of reading the tick counter twice around nothing.
uint64_t TimerOverheadTicks();

// Fills p50/p99/p99.9/max of `r` from per-operation ticks.
void Percentiles(std::vector<uint64_t>* ticks, double ticksPerNs, Result* r);

// ---- the measured loop ----

// Runs op(i) for i in [0, n), timing each call into lat[i] when kTimed,
// then after(i) outside the timing. Stops early (and says so) once
// `limit` seconds have passed. Returns the operations done.
template <bool kTimed, typename Op, typename After>
size_t Loop(size_t n, Op&& op, After&& after, uint64_t* lat, double limit,
            Steady::time_point start, bool* truncated) {
  for (size_t i = 0; i < n; i++) {
    if ((i & 1023) == 0 && limit > 0 && SecondsSince(start) > limit) {
      *truncated = true;
      return i;
    }
    if constexpr (kTimed) {
      const uint64_t t0 = Tick();
      op(i);
      lat[i] = Tick() - t0;
    } else {
      op(i);
    }
    after(i);
  }
  return n;
}

// Everything the loops read, made before the contender exists. The
// measured loop reads its keys in sequence from `stream`, as a host has the
// key at hand when it calls: no contender pays for fetching it from a
// random place.
struct Plan {
  std::vector<Key> fill;    // stored before the measured loop (hit, miss)
  std::vector<Key> stream;  // the key of each measured operation
};

Plan MakePlan(const Options& o, size_t keys, size_t ops);

// Derived sizes: key universe, budget in records, operations.
void Sizes(const Options& o, size_t* keys, size_t* budget, size_t* ops);

template <typename C>
void RunWorkload(const Options& o, Result* r) {
  size_t nKeys, budget, nOps;
  Sizes(o, &nKeys, &budget, &nOps);
  r->contender = C::kName;
  r->workload = o.workload;
  r->records = o.records;
  r->keys = nKeys;
  r->budget = IsFill(o.workload) ? 0 : budget;
  r->ops = nOps;
  r->latency = o.latency;

  const Plan plan = MakePlan(o, nKeys, nOps);
  std::vector<uint64_t> lat(o.latency ? nOps : 0);
  const Sizing sizing{!IsFill(o.workload), budget, nKeys};
  unsigned char value[kValueSize];
  unsigned char out[kValueSize];

  const size_t heapBefore = HeapInUse();
  std::unique_ptr<C> c(new C(sizing));
  r->heapBefore = heapBefore;
  r->heapEmpty = HeapInUse();

  auto insert = [&](const Key& k) {
    MakeValue(k, value);
    if (!c->Insert(k, value)) r->failedInserts++;
  };
  auto lookup = [&](const Key& k) {
    if (!c->Lookup(k, out)) return false;
    if (!ValueMatches(k, out, &r->sink)) r->badValues++;
    return true;
  };

  // The fill of hit and miss is not measured; the fill is what insert
  // measures.
  if (o.workload == Workload::kHit || o.workload == Workload::kMiss) {
    for (const Key& k : plan.fill) insert(k);
    r->heapAfter = HeapInUse();
    r->haveMemory = true;
    r->peakRecords = c->Records();
    if (r->peakRecords != nKeys) {
      r->failure = "holds " + std::to_string(r->peakRecords) +
                   " records after filling " + std::to_string(nKeys);
    }
  }

  const uint64_t timer = TimerOverheadTicks();
  const Steady::time_point start = Steady::now();
  const uint64_t tick0 = __rdtsc();
  const double cpu0 = ThreadCpuSeconds();
  bool truncated = false;
  size_t done = 0;
  auto nothing = [](size_t) {};
  auto run = [&](auto&& op, auto&& after) {
    done = o.latency ? Loop<true>(nOps, op, after, lat.data(), o.timeLimit,
                                  start, &truncated)
                     : Loop<false>(nOps, op, after, nullptr, o.timeLimit, start,
                                   &truncated);
  };
  switch (o.workload) {
    case Workload::kHit:
    case Workload::kMiss:
      run([&](size_t i) { r->hits += lookup(plan.stream[i]); }, nothing);
      r->lookups = done;
      break;
    case Workload::kInsert:
      run([&](size_t i) { insert(plan.stream[i]); }, nothing);
      r->inserts = done;
      break;
    case Workload::kReadThrough:
    case Workload::kChurn:
      run(
          [&](size_t i) {
            const Key& k = plan.stream[i];
            if (lookup(k)) {
              r->hits++;
            } else {
              insert(k);
              r->inserts++;
            }
          },
          [&](size_t i) {
            if ((i & 255) == 0)
              r->peakRecords = std::max(r->peakRecords, c->Records());
          });
      r->lookups = done;
      break;
  }
  r->cpuSeconds = ThreadCpuSeconds() - cpu0;
  const uint64_t tick1 = __rdtsc();
  r->wallSeconds = SecondsSince(start);
  r->opsDone = done;
  r->truncated = truncated;
  r->tscGhz = static_cast<double>(tick1 - tick0) / (r->wallSeconds * 1e9);
  r->timerNs = static_cast<double>(timer) / r->tscGhz;

  r->finalRecords = c->Records();
  r->peakRecords = std::max(r->peakRecords, r->finalRecords);
  if (o.workload == Workload::kInsert) {
    r->heapAfter = HeapInUse();
    r->haveMemory = true;
  }
  if (o.latency) {
    lat.resize(done);
    Percentiles(&lat, r->tscGhz, r);
  }
  c->Finish(r);

  // Checks that hold for every contender.
  std::string& f = r->failure;
  if (f.empty() && r->badValues != 0)
    f = std::to_string(r->badValues) + " lookups returned a wrong value";
  if (f.empty() && r->failedInserts != 0)
    f = std::to_string(r->failedInserts) + " inserts failed";
  if (f.empty() && o.workload == Workload::kHit && r->hits != r->lookups)
    f = "hit workload: " + std::to_string(r->lookups - r->hits) +
        " stored keys not found";
  if (f.empty() && o.workload == Workload::kMiss && r->hits != 0)
    f = "miss workload: " + std::to_string(r->hits) + " absent keys found";
  if (f.empty() && o.workload == Workload::kInsert && !truncated &&
      r->finalRecords != nKeys)
    f = "insert workload: holds " + std::to_string(r->finalRecords) +
        " records after inserting " + std::to_string(nKeys);
  if (f.empty() && !IsFill(o.workload) && r->hits + r->inserts != done)
    f = "readthrough: lookups and inserts do not add up";
}

}  // namespace qmcompare

#endif  // QMCACHE_BENCH_COMPARE_H
