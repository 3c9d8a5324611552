// SPDX-License-Identifier: MIT
// The C++ layer (qmcache/cache.hpp) against the C calls it wraps, and
// SharedCache's throughput from one and two threads.
//
// A lookup is the round trip a host makes: find the record, copy its 64
// bytes out, give it back. In C that is CA_SEARCH + CA_QUERY + CA_FREE; with
// the layer, find() (which searches and queries) and the hold's destructor.
// Every cache holds 1000 records under 16-byte random keys.
//
//   layer/lookup/<how>/1000      one thread; how: c, cache, shared
//   layer/miss/<how>/1000        the same with keys never stored
//   layer/mt_<work>/<how>/<n>    n threads (1 or 2), real time, throughput in
//                                items_per_second; work: lookup, or mixed
//                                (90% lookups, 10% inserts that replace a
//                                record); how: one_cache (all threads share
//                                one SharedCache), own_cache (a SharedCache
//                                per thread), c_one_mutex (a cache per thread
//                                through the C calls, every call under one
//                                host mutex, the simplest correct host),
//                                rocksdb_lru (all threads share one RocksDB
//                                LRUCache, when RocksDB is built in)
#include <benchmark/benchmark.h>

#ifndef QMBENCH_HAVE_ROCKSDB
#define QMBENCH_HAVE_ROCKSDB 0
#endif
#if QMBENCH_HAVE_ROCKSDB
#include <rocksdb/cache.h>
#endif

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "bench_support.h"
#include "qmcache/cache.hpp"

namespace qmbench {
namespace {

constexpr size_t kLayerRecords = 1000;
constexpr unsigned int kNoBudget = 0xFFFFFFFFu;

const std::vector<std::string>& StoredKeys() {
  static const std::vector<std::string> keys =
      MakeKeys(kRandom16, kLayerRecords);
  return keys;
}
const std::vector<std::string>& AbsentKeys() {
  static const std::vector<std::string> keys =
      MissKeys(kRandom16, kLayerRecords);
  return keys;
}

std::string CacheName(const char* what) {
  static int serial = 0;
  return std::string("layer-bench-") + what + "-" + std::to_string(serial++);
}

template <typename C>
C* Filled(const char* what) {
  auto* c = new C(CacheName(what), kNoBudget);
  for (const std::string& k : StoredKeys())
    c->insert(k, std::string_view(ValueBytes(), kValueSize));
  return c;
}

void* FilledHandle(const char* what) {
  CAParams params = {};
  params.maxBytes = kNoBudget;
  void* h = CA_CREATE(CacheName(what).c_str(), &params);
  for (const std::string& k : StoredKeys())
    CA_INSERT(h, 0, 0, 0, static_cast<int>(k.size()), k.data(), kValueSize,
              kValueSize, ValueBytes());
  return h;
}

// ---- one thread: the C calls, qm::Cache, qm::SharedCache ----

bool CLookup(void* h, const std::string& k, char* out) {
  void* r = CA_SEARCH(h, 0, static_cast<int>(k.size()), k.data());
  if (r == nullptr) return false;
  CAQuery q;
  CA_QUERY(h, r, &q);
  std::memcpy(out, q.data, static_cast<size_t>(q.dataLength));
  CA_FREE(h, r);
  return true;
}

template <typename C>
bool LayerLookup(C& c, const std::string& k, char* out) {
  qm::Hold hold = c.find(k);
  if (!hold) return false;
  std::memcpy(out, hold.data().data(), hold.data().size());
  return true;
}

template <typename Lookup>
void Lookups(benchmark::State& state, const std::vector<std::string>& keys,
             Lookup&& lookup) {
  char out[kValueSize];
  size_t i = 0, hits = 0;
  for (auto _ : state) {
    hits += lookup(keys[i], out);
    benchmark::DoNotOptimize(out);
    if (++i == keys.size()) i = 0;
  }
  const bool wantHits = &keys == &StoredKeys();
  if (hits != (wantHits ? static_cast<size_t>(state.iterations()) : 0))
    state.SkipWithError("a lookup found what it should not, or missed");
}

// The three caches are filled key by key in turn, so that their records lie
// side by side in memory and none is favoured by where it landed.
struct OneThread {
  void* c = nullptr;
  qm::Cache cache{CacheName("cache"), kNoBudget};
  qm::SharedCache shared{CacheName("shared"), kNoBudget};
  OneThread() {
    CAParams params = {};
    params.maxBytes = kNoBudget;
    c = CA_CREATE(CacheName("c").c_str(), &params);
    const std::string_view value(ValueBytes(), kValueSize);
    for (const std::string& k : StoredKeys()) {
      CA_INSERT(c, 0, 0, 0, static_cast<int>(k.size()), k.data(), kValueSize,
                kValueSize, ValueBytes());
      cache.insert(k, value);
      shared.insert(k, value);
    }
  }
};
OneThread& One() {
  static OneThread* one = new OneThread;
  return *one;
}

void C(benchmark::State& state, bool hit) {
  void* h = One().c;
  Lookups(state, hit ? StoredKeys() : AbsentKeys(),
          [h](const std::string& k, char* out) { return CLookup(h, k, out); });
}

template <typename Cache>
void Layer(benchmark::State& state, bool hit) {
  Cache* c;
  if constexpr (std::is_same_v<Cache, qm::Cache>)
    c = &One().cache;
  else
    c = &One().shared;
  Lookups(
      state, hit ? StoredKeys() : AbsentKeys(),
      [c](const std::string& k, char* out) { return LayerLookup(*c, k, out); });
}

// ---- several threads ----

enum How { kOneCache, kOwnCache, kCOneMutex, kRocksLru };
constexpr int kMaxThreads = 2;

struct Shared {
  std::unique_ptr<qm::SharedCache> one;
  std::unique_ptr<qm::SharedCache> own[kMaxThreads];
  void* handles[kMaxThreads] = {};
  std::mutex hostMutex;
#if QMBENCH_HAVE_ROCKSDB
  std::shared_ptr<rocksdb::Cache> rocks;
#endif
};

#if QMBENCH_HAVE_ROCKSDB
// The peer's lookup: the same round trip, a copy of the value between
// Lookup and Release.
bool RocksLookup(rocksdb::Cache& c, const std::string& k, char* out) {
  rocksdb::Cache::Handle* h = c.Lookup(k);
  if (h == nullptr) return false;
  std::memcpy(out, c.Value(h), kValueSize);
  c.Release(h);
  return true;
}

void DeleteValue(const rocksdb::Slice&, void* value) {
  delete[] static_cast<char*>(value);
}

void RocksInsert(rocksdb::Cache& c, const std::string& k) {
  char* v = new char[kValueSize];
  std::memcpy(v, ValueBytes(), kValueSize);
  (void)c.Insert(k, v, kValueSize, &DeleteValue);
}
#endif

Shared& Caches() {
  static Shared* s = [] {
    auto* shared = new Shared;
    shared->one.reset(Filled<qm::SharedCache>("one"));
    for (int t = 0; t < kMaxThreads; ++t) {
      shared->own[t].reset(Filled<qm::SharedCache>("own"));
      shared->handles[t] = FilledHandle("mutex");
    }
#if QMBENCH_HAVE_ROCKSDB
    rocksdb::LRUCacheOptions opts;
    opts.capacity = 64 * kLayerRecords * kValueSize;  // never evicts
    opts.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
    shared->rocks = rocksdb::NewLRUCache(opts);
    for (const std::string& k : StoredKeys()) RocksInsert(*shared->rocks, k);
#endif
    return shared;
  }();
  return *s;
}

void Threads(benchmark::State& state, How how, bool mixed) {
  Shared& s = Caches();  // the first thread fills; the other waits
  const int t = state.thread_index();
  const std::vector<std::string>& keys = StoredKeys();
  const std::string_view value(ValueBytes(), kValueSize);
  char out[kValueSize];
  // Each thread walks the keys from its own starting point.
  size_t i = static_cast<size_t>(t) * keys.size() / kMaxThreads;
  size_t n = 0, hits = 0;
  for (auto _ : state) {
    const std::string& k = keys[i];
    const bool insert = mixed && n % 10 == 9;
    switch (how) {
      case kOneCache:
      case kOwnCache: {
        qm::SharedCache& c = how == kOneCache ? *s.one : *s.own[t];
        if (insert)
          c.insert(k, value);
        else
          hits += LayerLookup(c, k, out);
        break;
      }
      case kCOneMutex: {
        std::lock_guard<std::mutex> lock(s.hostMutex);
        if (insert)
          CA_INSERT(s.handles[t], 0, 0, 0, static_cast<int>(k.size()), k.data(),
                    kValueSize, kValueSize, value.data());
        else
          hits += CLookup(s.handles[t], k, out);
        break;
      }
      case kRocksLru:
#if QMBENCH_HAVE_ROCKSDB
        if (insert)
          RocksInsert(*s.rocks, k);
        else
          hits += RocksLookup(*s.rocks, k, out);
#endif
        break;
    }
    benchmark::DoNotOptimize(out);
    ++n;
    if (++i == keys.size()) i = 0;
  }
  state.SetItemsProcessed(state.iterations());
  if (hits + (mixed ? n / 10 : 0) != n)
    state.SkipWithError("a stored key was not found");
}

int RegisterLayer() {
  const std::string n = "/" + std::to_string(kLayerRecords);
  for (bool hit : {true, false}) {
    const std::string w = hit ? "layer/lookup/" : "layer/miss/";
    benchmark::RegisterBenchmark((w + "c" + n).c_str(), C, hit);
    benchmark::RegisterBenchmark((w + "cache" + n).c_str(), Layer<qm::Cache>,
                                 hit);
    benchmark::RegisterBenchmark((w + "shared" + n).c_str(),
                                 Layer<qm::SharedCache>, hit);
  }
  for (bool mixed : {false, true}) {
    for (auto [how, name] :
         {std::pair<How, const char*>{kOneCache, "one_cache"},
          {kOwnCache, "own_cache"},
          {kCOneMutex, "c_one_mutex"},
          {kRocksLru, "rocksdb_lru"}}) {
      if (how == kRocksLru && !QMBENCH_HAVE_ROCKSDB) continue;
      for (int threads = 1; threads <= kMaxThreads; ++threads) {
        const std::string full = std::string("layer/mt_") +
                                 (mixed ? "mixed/" : "lookup/") + name + "/" +
                                 std::to_string(threads);
        benchmark::RegisterBenchmark(full.c_str(), Threads, how, mixed)
            ->Threads(threads)
            ->UseRealTime();
      }
    }
  }
  return 0;
}

const int layerRegistered = RegisterLayer();

}  // namespace
}  // namespace qmbench
