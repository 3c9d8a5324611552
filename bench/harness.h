/* SPDX-License-Identifier: MIT */
// qmcache_bench: libqmcache beside the caches hosts use, and its own costs.
//
// One run measures one workload of one contender in a process of its own
// and prints one JSON line; scripts/bench_report.py makes every run and
// writes docs/PERFORMANCE.md. Every contender stores the same 16-byte random
// keys with 64-byte values and is driven through the same loop
// (RunWorkload). A contender is a class with
//
//   static constexpr const char* kName;
//   static constexpr bool kEvicts;      // false: only the fill workloads
//   static constexpr bool kThreadSafe;  // may be called from any thread
//   explicit C(const Sizing&);
//   bool Lookup(const Key&, unsigned char* out);  // hit: 64 bytes to `out`
//   bool Insert(const Key&, const unsigned char* value);  // false: failed
//   size_t Records();                   // records held now
//   void Finish(Result*);               // how it was sized, own figures
//
// A lookup is the whole round trip a host makes to read a value: find the
// entry, copy its 64 bytes out, give the entry back.
#ifndef QMCACHE_BENCH_HARNESS_H
#define QMCACHE_BENCH_HARNESS_H

#include <time.h>
#include <x86intrin.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace qmbench {

constexpr size_t kKeySize = 16;
constexpr size_t kValueSize = 64;
// Bytes a record must hold whatever the container: its key and its value.
constexpr size_t kPayload = kKeySize + kValueSize;
// Capacity the sharded caches get over the bytes they must hold where
// nothing may be evicted: keys do not spread evenly over the shards, and a
// shard that fills up evicts.
constexpr double kShardHeadroom = 1.25;

struct Key {
  unsigned char bytes[kKeySize];
};

//   hit          fill N, look the stored keys up in random order
//   miss         fill N, look up keys never stored
//   mixed        as hit, but every tenth operation replaces the record
//   insert       insert N new keys; the budget is never reached
//   readthrough  Zipf over N keys, budget N/10: look up, insert on a miss
//   churn        as readthrough over N/10 keys, budget N/100
enum class Workload { kHit, kMiss, kMixed, kInsert, kReadThrough, kChurn };
const char* WorkloadName(Workload w);
bool ParseWorkload(const std::string& name, Workload* out);
inline bool Evicting(Workload w) {
  return w == Workload::kReadThrough || w == Workload::kChurn;
}

struct Options {
  Workload workload = Workload::kHit;
  size_t records = 1000000;  // N
  size_t ops = 0;            // per thread (0: N, or 2N when evicting)
  int threads = 1;           // hit, miss and mixed only
  bool latency = false;      // time every operation
};

// What a contender is to hold.
struct Sizing {
  bool evicts;           // false: the budget must never be reached
  size_t budgetRecords;  // records the budget pays for (when evicts)
  size_t expected;       // records stored (when it does not evict)
};

struct Result {
  std::string contender, workload;
  size_t records = 0, keys = 0, budget = 0, ops = 0;
  int threads = 1;
  size_t opsDone = 0, lookups = 0, hits = 0, inserts = 0;
  double wallSeconds = 0, cpuSeconds = 0;
  bool haveMemory = false;
  size_t heapBefore = 0, heapEmpty = 0, heapAfter = 0;
  size_t peakRecords = 0, finalRecords = 0;
  bool latency = false;
  double p50 = 0, p99 = 0, p999 = 0, max = 0, timerNs = 0;  // nanoseconds
  std::string capacity;  // how the contender was sized
  // Figures of a contender's own or of libqmcache's own workloads.
  std::vector<std::pair<std::string, double>> figures;
  std::string failure;  // empty when every check passed
  void Figure(const char* name, double v) { figures.emplace_back(name, v); }
};

// ---- keys, values, samples ----

class Rng {  // splitmix64
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

 private:
  uint64_t state_;
};

constexpr uint64_t kStoredKeys = 0x5eed0016u;
constexpr uint64_t kAbsentKeys = 0xdeadbeefu;
// `n` random keys of the stream `seed`; two streams never share a key but
// by a 2^-128 chance.
std::vector<Key> RandomKeys(size_t n, uint64_t seed);
// A random permutation of 0..n-1.
std::vector<uint32_t> Permutation(size_t n, uint64_t seed);
// `count` indexes in 0..n-1 drawn with Zipf exponent `s`; ranks are mapped
// to random indexes so that the hot keys are scattered.
std::vector<uint32_t> ZipfSample(size_t n, double s, size_t count,
                                 uint64_t seed);

// The value stored under `key`: the key's halves around 48 fixed bytes. A
// lookup checks the halves against the key it asked for, so a contender
// that hands back the wrong value cannot go unnoticed.
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
  for (uint64_t x : w) *sink += x;
  return std::memcmp(value, key.bytes, 8) == 0 &&
         std::memcmp(value + kValueSize - 8, key.bytes + 8, 8) == 0;
}

// Heap bytes handed out and not given back (small and mmapped blocks,
// allocator headers and rounding included).
size_t HeapInUse();

// ---- clocks ----

inline uint64_t Tick() {
  _mm_lfence();
  const uint64_t t = __rdtsc();
  _mm_lfence();
  return t;
}

inline double Seconds(clockid_t clock) {
  struct timespec ts;
  clock_gettime(clock, &ts);
  return static_cast<double>(ts.tv_sec) +
         1e-9 * static_cast<double>(ts.tv_nsec);
}
inline double Now() { return Seconds(CLOCK_MONOTONIC); }
inline double CpuNow() { return Seconds(CLOCK_PROCESS_CPUTIME_ID); }

// Median cost, in ticks, of reading the tick counter twice around nothing.
uint64_t TimerOverheadTicks();
// Fills p50/p99/p99.9/max of `r` from per-operation ticks.
void Percentiles(std::vector<uint64_t>* ticks, double ticksPerNs, Result* r);
double Median(std::vector<double> v);

// ---- the measured loop ----

// Derived sizes: key universe, budget in records, operations per thread.
struct Sizes {
  size_t keys, budget, ops;
};
Sizes SizesOf(const Options& o);

// Everything the loops read, made before the contender exists. The
// measured loop reads its keys in sequence from `stream` (cycling), as a
// host has the key at hand when it calls.
struct Plan {
  std::vector<Key> fill;    // stored before the measured loop
  std::vector<Key> stream;  // the keys of the measured operations
};
Plan MakePlan(const Options& o, const Sizes& s);

// What one thread did (a cache line of its own: threads do not share one).
struct alignas(64) Counts {
  size_t done = 0, lookups = 0, hits = 0, inserts = 0, failed = 0, bad = 0;
  size_t peak = 0;
  uint64_t sink = 0;
  void Add(const Counts& o) {
    done += o.done;
    lookups += o.lookups;
    hits += o.hits;
    inserts += o.inserts;
    failed += o.failed;
    bad += o.bad;
    peak = std::max(peak, o.peak);
  }
};

// Fills the failure of `r` when the counts break a rule of the workload.
void Check(const Options& o, const Counts& n, size_t keys, Result* r);

template <typename C>
void RunWorkload(const Options& o, Result* r) {
  const Sizes s = SizesOf(o);
  const Workload w = o.workload;
  r->keys = s.keys;
  r->budget = Evicting(w) ? s.budget : 0;
  r->ops = s.ops;
  const Plan plan = MakePlan(o, s);
  std::vector<uint64_t> lat(o.latency ? s.ops : 0);

  r->heapBefore = HeapInUse();
  std::unique_ptr<C> c(new C(Sizing{Evicting(w), s.budget, s.keys}));
  r->heapEmpty = HeapInUse();
  unsigned char value[kValueSize];
  Counts fill;
  for (const Key& k : plan.fill) {
    MakeValue(k, value);
    fill.failed += !c->Insert(k, value);
  }
  if (!plan.fill.empty()) {
    r->heapAfter = HeapInUse();
    r->haveMemory = true;
    if (c->Records() != s.keys)
      r->failure = "holds " + std::to_string(c->Records()) +
                   " records after filling " + std::to_string(s.keys);
  }

  // One thread's operations; thread t starts at its own place in the
  // stream. Outside the timing: the peak of records, every 256 operations.
  auto body = [&](int t, Counts* n) {
    unsigned char value[kValueSize], out[kValueSize];
    const std::vector<Key>& keys = plan.stream;
    size_t j = static_cast<size_t>(t) * keys.size() / o.threads;
    auto lookup = [&](const Key& k) {
      n->lookups++;
      if (!c->Lookup(k, out)) return false;
      n->hits++;
      if (!ValueMatches(k, out, &n->sink)) n->bad++;
      return true;
    };
    auto insert = [&](const Key& k) {
      MakeValue(k, value);
      n->inserts++;
      n->failed += !c->Insert(k, value);
    };
    for (size_t i = 0; i < s.ops; i++) {
      const Key& k = keys[j];
      if (++j == keys.size()) j = 0;
      const uint64_t t0 = o.latency ? Tick() : 0;
      switch (w) {
        case Workload::kHit:
        case Workload::kMiss:
          lookup(k);
          break;
        case Workload::kMixed:
          if (i % 10 == 9)
            insert(k);
          else
            lookup(k);
          break;
        case Workload::kInsert:
          insert(k);
          break;
        case Workload::kReadThrough:
        case Workload::kChurn:
          if (!lookup(k)) insert(k);
          break;
      }
      if (o.latency) lat[i] = Tick() - t0;
      n->done++;
      if (Evicting(w) && (i & 255) == 0)
        n->peak = std::max(n->peak, c->Records());
    }
  };

  std::vector<Counts> counts(o.threads);
  const uint64_t timer = TimerOverheadTicks();
  const double start = Now(), cpu0 = CpuNow();
  const uint64_t tick0 = __rdtsc();
  if (o.threads == 1) {
    body(0, &counts[0]);
  } else {
    std::vector<std::thread> threads;
    for (int t = 0; t < o.threads; t++)
      threads.emplace_back(body, t, &counts[t]);
    for (std::thread& t : threads) t.join();
  }
  const uint64_t tick1 = __rdtsc();
  r->cpuSeconds = CpuNow() - cpu0;
  r->wallSeconds = Now() - start;
  const double ticksPerNs =
      static_cast<double>(tick1 - tick0) / (r->wallSeconds * 1e9);
  r->timerNs = static_cast<double>(timer) / ticksPerNs;

  Counts n = fill;
  for (const Counts& x : counts) n.Add(x);
  r->opsDone = n.done;
  r->lookups = n.lookups;
  r->hits = n.hits;
  r->inserts = n.inserts;
  r->finalRecords = c->Records();
  r->peakRecords = std::max({n.peak, r->finalRecords, plan.fill.size()});
  if (w == Workload::kInsert) {
    r->heapAfter = HeapInUse();
    r->haveMemory = true;
  }
  if (o.latency) {
    lat.resize(n.done);
    Percentiles(&lat, ticksPerNs, r);
  }
  c->Finish(r);
  Check(o, n, s.keys, r);
}

struct Contender {
  const char* name;
  void (*run)(const Options&, Result*);  // null: not built
  bool evicts, threadSafe;
  const char* missing;  // why it was not built
};
const std::vector<Contender>& Contenders();

// libqmcache's own costs (own.cpp): one eviction pass and one key-tree
// rebuild over `records` records, and the fixed cost of a call.
void RunPass(const Options& o, Result* r);
void RunRebuild(const Options& o, Result* r);
void RunFixed(const Options& o, Result* r);

}  // namespace qmbench

#endif  // QMCACHE_BENCH_HARNESS_H
