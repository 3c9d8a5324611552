// SPDX-License-Identifier: MIT
// Record operations of libqmcache against std::map and a hand-written LRU
// cache, with the same keys and 64-byte values, at several sizes.
//
// Names are "<contender>/<workload>/<key kind>/<records>". Benchmarks whose
// iteration does many operations report the counter "ops_per_iter"; the
// time of one operation is then the iteration time divided by it.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "baselines.h"
#include "bench_support.h"
#include "qmcache/castatistic.h"
#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

namespace qmbench {
namespace {

// ---- Shared key sets and the one live fixture ----

struct KeySet {
  int kind;
  size_t n;
  std::vector<std::string> keys;    // stored, in insertion order
  std::vector<std::string> misses;  // never stored
  std::vector<uint32_t> order;      // lookup order over keys
};

const KeySet& Keys(int kind, size_t n) {
  static std::unique_ptr<KeySet> current;
  if (!current || current->kind != kind || current->n != n) {
    current.reset();
    auto ks = std::make_unique<KeySet>();
    ks->kind = kind;
    ks->n = n;
    ks->keys = MakeKeys(kind, n);
    ks->misses = MissKeys(kind, n);
    ks->order = Permutation(n, 0x10c0 + n);
    current = std::move(ks);
  }
  return *current;
}

// Building a store of a million records takes a second, so the store that
// the last benchmark used is kept while the next one asks for the same;
// benchmarks are registered so that users of one store run back to back.
struct Fixture {
  virtual ~Fixture() = default;
};

template <typename F>
F& Current(const std::string& id, const std::function<F*()>& make) {
  static std::unique_ptr<Fixture> live;
  static std::string liveId;
  if (liveId != id || !live) {
    live.reset();  // free the old store before the new one is built
    liveId.clear();
    live.reset(make());
    liveId = id;
  }
  return *static_cast<F*>(live.get());
}

std::string Value() { return std::string(ValueBytes(), kValueSize); }

// A cache with a budget too large to be reached (the counter is 32-bit).
void* OpenCache(unsigned int budget) {
  static int serial = 0;
  char name[64];
  snprintf(name, sizeof(name), "bench-%d", serial++);
  CAParams params = {};
  params.maxBytes = budget;
  return CA_CREATE(name, &params);
}
constexpr unsigned int kNoBudget = 0xFFFFFFFFu;

int QmInsert(void* h, const std::string& k) {
  return CA_INSERT(h, 0, 0, 0, static_cast<int>(k.size()), k.data(), kValueSize,
                   kValueSize, ValueBytes());
}

struct QmStore : Fixture {
  void* h;
  explicit QmStore(const KeySet& ks) : h(OpenCache(kNoBudget)) {
    for (const std::string& k : ks.keys) QmInsert(h, k);
  }
  ~QmStore() override { CA_CLOSE(h); }
};

struct MapStore : Fixture {
  std::map<std::string, std::string> m;
  explicit MapStore(const KeySet& ks) {
    std::string v = Value();
    for (const std::string& k : ks.keys) m.emplace(k, v);
  }
};

struct LruStore : Fixture {
  LruCache c;
  explicit LruStore(const KeySet& ks) : c(static_cast<size_t>(-1)) {
    std::string v = Value();
    for (const std::string& k : ks.keys) c.Put(k, v, kValueSize);
  }
};

std::string Id(const char* what, int kind, size_t n) {
  return std::string(what) + "/" + KeyKindName(kind) + "/" + std::to_string(n);
}

template <typename S>
S& Store(const char* what, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  return Current<S>(Id(what, kind, n), [&ks] { return new S(ks); });
}

// ---- libqmcache ----

void QmInsertReplace(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  void* h = Store<QmStore>("qm", kind, n).h;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& k = ks.keys[ks.order[i]];
    benchmark::DoNotOptimize(QmInsert(h, k));
    if (++i == n) i = 0;
  }
}

void QmSearchHit(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  void* h = Store<QmStore>("qm", kind, n).h;
  size_t i = 0, found = 0;
  for (auto _ : state) {
    const std::string& k = ks.keys[ks.order[i]];
    void* r = CA_SEARCH(h, 0, static_cast<int>(k.size()), k.data());
    if (r != nullptr) {
      found++;
      CA_FREE(h, r);
    }
    if (++i == n) i = 0;
  }
  if (found != static_cast<size_t>(state.iterations()))
    state.SkipWithError("a stored key was not found");
}

void QmSearchMiss(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  void* h = Store<QmStore>("qm", kind, n).h;
  size_t i = 0;
  for (auto _ : state) {
    const std::string& k = ks.misses[i];
    benchmark::DoNotOptimize(
        CA_SEARCH(h, 0, static_cast<int>(k.size()), k.data()));
    if (++i == n) i = 0;
  }
}

void QmQuery(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  void* h = Store<QmStore>("qm", kind, n).h;
  // Query works on held records: hold a spread of them for the run.
  size_t m = std::min<size_t>(n, 65536);
  std::vector<void*> held(m);
  for (size_t j = 0; j < m; j++) {
    const std::string& k = ks.keys[ks.order[j]];
    held[j] = CA_SEARCH(h, 0, static_cast<int>(k.size()), k.data());
  }
  CAQuery q;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(CA_QUERY(h, held[i], &q));
    if (++i == m) i = 0;
  }
  for (void* r : held) CA_FREE(h, r);
}

// ---- std::map ----

void MapInsertReplace(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& m = Store<MapStore>("map", kind, n).m;
  const std::string v = Value();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.insert_or_assign(ks.keys[ks.order[i]], v));
    if (++i == n) i = 0;
  }
}

void MapFindHit(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& m = Store<MapStore>("map", kind, n).m;
  size_t i = 0;
  for (auto _ : state) {
    auto it = m.find(ks.keys[ks.order[i]]);
    benchmark::DoNotOptimize(it->second.data());
    if (++i == n) i = 0;
  }
}

void MapFindMiss(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& m = Store<MapStore>("map", kind, n).m;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(m.find(ks.misses[i]));
    if (++i == n) i = 0;
  }
}

// ---- hand-written LRU cache ----

void LruInsertReplace(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& c = Store<LruStore>("lru", kind, n).c;
  const std::string v = Value();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(c.Put(ks.keys[ks.order[i]], v, kValueSize));
    if (++i == n) i = 0;
  }
}

void LruGetHit(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& c = Store<LruStore>("lru", kind, n).c;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(c.Get(ks.keys[ks.order[i]]));
    if (++i == n) i = 0;
  }
}

void LruGetMiss(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  auto& c = Store<LruStore>("lru", kind, n).c;
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(c.Get(ks.misses[i]));
    if (++i == n) i = 0;
  }
}

// ---- filling an empty store: insert time and memory per record ----
//
// One iteration fills a new store with every key. Heap bytes in use are
// read around the fill (outside the timed part): the growth divided by the
// records, less the key and value bytes, is the per-record overhead.

struct QmFill {
  void* h = OpenCache(kNoBudget);
  void Fill(const KeySet& ks) {
    for (const std::string& k : ks.keys) QmInsert(h, k);
  }
  ~QmFill() { CA_CLOSE(h); }
};

struct MapFill {
  std::map<std::string, std::string> m;
  void Fill(const KeySet& ks) {
    const std::string v = Value();
    for (const std::string& k : ks.keys) m.emplace(k, v);
  }
};

struct LruFill {
  LruCache c{static_cast<size_t>(-1)};
  void Fill(const KeySet& ks) {
    const std::string v = Value();
    for (const std::string& k : ks.keys) c.Put(k, v, kValueSize);
  }
};

template <typename S>
void InsertNew(benchmark::State& state, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  double perRecord = 0;
  for (auto _ : state) {
    state.PauseTiming();
    const size_t before = HeapInUse();
    auto store = std::make_unique<S>();
    state.ResumeTiming();
    store->Fill(ks);
    state.PauseTiming();
    perRecord =
        (static_cast<double>(HeapInUse()) - static_cast<double>(before)) /
        static_cast<double>(n);
    store.reset();
    state.ResumeTiming();
  }
  const double payload = static_cast<double>(ks.keys[0].size() + kValueSize);
  state.counters["ops_per_iter"] = static_cast<double>(n);
  state.counters["bytes_per_record"] = perRecord;
  state.counters["overhead_per_record"] = perRecord - payload;
}

// ---- the eviction baseline: in-order walk and sort of the grades ----

struct GradeRec {
  long created;
  unsigned int hits;
  unsigned long length;
};

struct WalkSortStore : Fixture {
  std::map<std::string, GradeRec> m;
  std::vector<double> grades;
  explicit WalkSortStore(const KeySet& ks) {
    Rng rng(77);
    for (const std::string& k : ks.keys)
      m.emplace(k, GradeRec{static_cast<long>(rng.Below(3600)),
                            static_cast<unsigned int>(1 + rng.Below(20)),
                            static_cast<unsigned long>(kValueSize)});
    grades.reserve(ks.keys.size());
  }
};

void WalkSort(benchmark::State& state, int kind, size_t n) {
  auto& s = Store<WalkSortStore>("walksort", kind, n);
  const double budget = static_cast<double>(n) * kValueSize;
  for (auto _ : state) {
    s.grades.clear();
    for (const auto& e : s.m) {
      double age = 3600.0 - static_cast<double>(e.second.created);
      s.grades.push_back((age + 1) / (e.second.hits + 1.0) * budget +
                         static_cast<double>(e.second.length));
    }
    std::sort(s.grades.begin(), s.grades.end(), std::greater<double>());
    benchmark::DoNotOptimize(s.grades.data());
  }
}

// ---- mixed workload: 90% search, 10% insert, Zipf 0.99 keys ----
//
// The budget is a tenth of the data, so eviction runs. The fake clock moves
// one second every 256 operations, so records age and can be graded (a
// record made in the current second is never evicted).

constexpr size_t kMixedOps = 1u << 20;
constexpr unsigned kOpsPerSecond = 256;

struct MixedPlan {
  std::vector<uint32_t> keys;
  std::vector<unsigned char> isInsert;
  explicit MixedPlan(size_t n) : keys(ZipfSample(n, 0.99, kMixedOps, 99)) {
    Rng rng(4242);
    isInsert.resize(kMixedOps);
    for (auto& b : isInsert) b = rng.Below(10) == 0;
  }
};

size_t MixedBudget(size_t n) { return n * kValueSize / 10; }

struct QmMixed : Fixture {
  const KeySet& ks;
  MixedPlan plan;
  void* h;
  size_t pos = 0;
  QmMixed(const KeySet& keys)
      : ks(keys),
        plan(keys.n),
        h(OpenCache(static_cast<unsigned int>(MixedBudget(keys.n)))) {
    FakeClockStart(1000000000);
    size_t hits = 0;
    Run(std::max<size_t>(keys.n, 200000), &hits);
  }
  ~QmMixed() override {
    CA_CLOSE(h);
    FakeClockStop();
  }
  bool Step() {
    size_t p = pos;
    pos = (pos + 1) & (kMixedOps - 1);
    if ((p & (kOpsPerSecond - 1)) == 0) FakeClockAdvance(1);
    const std::string& k = ks.keys[plan.keys[p]];
    if (plan.isInsert[p]) {
      QmInsert(h, k);
      return false;
    }
    void* r = CA_SEARCH(h, 0, static_cast<int>(k.size()), k.data());
    if (r == nullptr) return false;
    CA_FREE(h, r);
    return true;
  }
  void Run(size_t ops, size_t* hits) {
    for (size_t i = 0; i < ops; i++) *hits += Step();
  }
};

struct LruMixed : Fixture {
  const KeySet& ks;
  MixedPlan plan;
  LruCache c;
  std::string v = Value();
  size_t pos = 0;
  LruMixed(const KeySet& keys)
      : ks(keys), plan(keys.n), c(MixedBudget(keys.n)) {
    size_t hits = 0;
    for (size_t i = 0; i < std::max<size_t>(keys.n, 200000); i++)
      hits += Step();
  }
  bool Step() {
    size_t p = pos;
    pos = (pos + 1) & (kMixedOps - 1);
    const std::string& k = ks.keys[plan.keys[p]];
    if (plan.isInsert[p]) {
      c.Put(k, v, kValueSize);
      return false;
    }
    return c.Get(k) != nullptr;
  }
};

template <typename S>
void Mixed(benchmark::State& state, const char* what, int kind, size_t n) {
  const KeySet& ks = Keys(kind, n);
  S& s = Current<S>(Id(what, kind, n), [&ks] { return new S(ks); });
  size_t hits = 0, searches = 0;
  for (auto _ : state) {
    searches += !s.plan.isInsert[s.pos];
    hits += s.Step();
  }
  state.counters["hit_rate"] =
      searches != 0 ? static_cast<double>(hits) / searches : 0.0;
}

// ---- fixed cost of one call ----

struct OneRecord : Fixture {
  std::string key = MakeKeys(kRandom16, 1)[0];
  std::string miss = MissKeys(kRandom16, 1)[0];
  void* h = OpenCache(kNoBudget);
  BTree* root = nullptr;
  OneRecord() {
    QmInsert(h, key);
    root = new BTree(reinterpret_cast<unsigned char*>(&key[0]), key.size(),
                     nullptr, &root);
  }
  ~OneRecord() override {
    CA_CLOSE(h);
    delete root;
  }
};

OneRecord& One() {
  return Current<OneRecord>("one", [] { return new OneRecord(); });
}

void FixedSearchHit(benchmark::State& state) {
  OneRecord& o = One();
  int len = static_cast<int>(o.key.size());
  for (auto _ : state)
    benchmark::DoNotOptimize(CA_SEARCH(o.h, 0, len, o.key.data()));
  // Give back the holds outside the timed loop.
  void* r = CA_SEARCH(o.h, 0, len, o.key.data());
  for (int64_t i = 0; i <= state.iterations(); i++) CA_FREE(o.h, r);
}

void FixedSearchMiss(benchmark::State& state) {
  OneRecord& o = One();
  int len = static_cast<int>(o.miss.size());
  for (auto _ : state)
    benchmark::DoNotOptimize(CA_SEARCH(o.h, 0, len, o.miss.data()));
}

void BareSearchHit(benchmark::State& state) {
  OneRecord& o = One();
  auto* k = reinterpret_cast<unsigned char*>(&o.key[0]);
  for (auto _ : state) {
    benchmark::DoNotOptimize(k);
    benchmark::DoNotOptimize(o.root->Search(k, o.key.size()));
  }
}

void BareSearchMiss(benchmark::State& state) {
  OneRecord& o = One();
  auto* k = reinterpret_cast<unsigned char*>(&o.miss[0]);
  for (auto _ : state) {
    benchmark::DoNotOptimize(k);
    benchmark::DoNotOptimize(o.root->Search(k, o.miss.size()));
  }
}

void ClockStartStop(benchmark::State& state) {
  CAClock clock;
  for (auto _ : state) {
    clock.Start();
    benchmark::DoNotOptimize(clock.Stop());
  }
}

void StatisticAdd(benchmark::State& state) {
  CAStatistic stat(8);
  double v = 1e-7;
  for (auto _ : state) {
    benchmark::DoNotOptimize(v);
    stat.Add(1, v);
  }
}

// ---- registration ----

using Fn = void (*)(benchmark::State&, int, size_t);

void Add(const char* contender, const char* workload, int kind, size_t n,
         Fn fn) {
  std::string name = std::string(contender) + "/" + workload + "/" +
                     KeyKindName(kind) + "/" + std::to_string(n);
  benchmark::RegisterBenchmark(name.c_str(), fn, kind, n);
}

// Enough whole fills to total about a million inserts.
int64_t FillIterations(size_t n) {
  return std::max<int64_t>(1, static_cast<int64_t>(1000000 / n));
}

int Register() {
  const char* one = "/rand16/1";
  benchmark::RegisterBenchmark(
      (std::string("qm/fixed_search_hit") + one).c_str(), FixedSearchHit);
  benchmark::RegisterBenchmark(
      (std::string("qm/fixed_search_miss") + one).c_str(), FixedSearchMiss);
  benchmark::RegisterBenchmark(
      (std::string("btree/bare_search_hit") + one).c_str(), BareSearchHit);
  benchmark::RegisterBenchmark(
      (std::string("btree/bare_search_miss") + one).c_str(), BareSearchMiss);
  benchmark::RegisterBenchmark("stat/clock_start_stop", ClockStartStop);
  benchmark::RegisterBenchmark("stat/add", StatisticAdd);

  for (int kind : {kRandom16, kBigEndian4}) {
    for (size_t n : Sizes()) {
      Add("qm", "insert_replace", kind, n, QmInsertReplace);
      Add("qm", "search_hit", kind, n, QmSearchHit);
      Add("qm", "search_miss", kind, n, QmSearchMiss);
      Add("qm", "query", kind, n, QmQuery);
      Add("map", "insert_replace", kind, n, MapInsertReplace);
      Add("map", "search_hit", kind, n, MapFindHit);
      Add("map", "search_miss", kind, n, MapFindMiss);
      Add("lru", "insert_replace", kind, n, LruInsertReplace);
      Add("lru", "search_hit", kind, n, LruGetHit);
      Add("lru", "search_miss", kind, n, LruGetMiss);
      Add("baseline", "walk_sort", kind, n, WalkSort);
      for (auto [contender, fn] :
           {std::pair<const char*, Fn>{"qm", InsertNew<QmFill>},
            {"map", InsertNew<MapFill>},
            {"lru", InsertNew<LruFill>}}) {
        std::string name = std::string(contender) + "/insert_new/" +
                           KeyKindName(kind) + "/" + std::to_string(n);
        benchmark::RegisterBenchmark(name.c_str(), fn, kind, n)
            ->Iterations(FillIterations(n));
      }
      std::string mixed =
          std::string("/mixed/") + KeyKindName(kind) + "/" + std::to_string(n);
      benchmark::RegisterBenchmark(("qm" + mixed).c_str(), Mixed<QmMixed>,
                                   "qmmixed", kind, n);
      benchmark::RegisterBenchmark(("lru" + mixed).c_str(), Mixed<LruMixed>,
                                   "lrumixed", kind, n);
    }
  }
  return 0;
}

const int registered = Register();

}  // namespace
}  // namespace qmbench
