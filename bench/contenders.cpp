// SPDX-License-Identifier: MIT
// The contenders: libqmcache through its C calls and through the C++ layer,
// RocksDB's LRUCache and HyperClockCache and LevelDB's cache (when found at
// configure time), std::map and a hand-written LRU cache.
#include <cstdio>
#include <list>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>

#include "harness.h"
#include "qmcache/cache.hpp"
#include "qmcache/qmcache.h"
#if QMBENCH_HAVE_ROCKSDB
#include <rocksdb/cache.h>
#endif
#if QMBENCH_HAVE_LEVELDB
#include <leveldb/cache.h>
#endif

namespace qmbench {
namespace {

std::string_view View(const Key& k) {
  return std::string_view(reinterpret_cast<const char*>(k.bytes), kKeySize);
}

// libqmcache's budget is a 32-bit byte count; all ones is never reached.
unsigned int QmBudget(const Sizing& s) {
  return s.evicts ? static_cast<unsigned int>(s.budgetRecords * kValueSize)
                  : 0xFFFFFFFFu;
}

// ---- libqmcache through the C calls, as a C host uses it ----

class Qmcache {
 public:
  static constexpr const char* kName = "qmcache";
  static constexpr bool kEvicts = true;
  static constexpr bool kThreadSafe = false;

  explicit Qmcache(const Sizing& s) {
    CAParams params = {};
    params.maxBytes = budget_ = QmBudget(s);
    handle_ = CA_CREATE("bench", &params);
  }
  ~Qmcache() { CA_CLOSE(handle_); }

  bool Lookup(const Key& k, unsigned char* out) {
    void* rec = CA_SEARCH(handle_, 0, kKeySize, k.bytes);
    if (rec == nullptr) return false;
    CAQuery q;
    if (CA_QUERY(handle_, rec, &q) == 1 &&
        q.dataLength == static_cast<int>(kValueSize)) {
      std::memcpy(out, q.data, kValueSize);
    } else {
      std::memset(out, 0, kValueSize);  // counted as a wrong value
    }
    CA_FREE(handle_, rec);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    return CA_INSERT(handle_, 0, 0, 0, kKeySize, k.bytes, kValueSize,
                     kValueSize, value) >= 0;
  }

  size_t Records() {
    CAParams p;
    return CA_GETCACHESTAT(handle_, &p) == 1 ? p.usedNodes : 0;
  }

  // The library's own figures of its eviction passes and tree rebuilds.
  void Finish(Result* r) {
    r->capacity = "maxBytes=" + std::to_string(budget_);
    for (auto [slot, name] : {std::pair{CASTAT_EVICTION, "eviction"},
                              std::pair{CASTAT_REBUILD, "rebuild"}}) {
      _CAStat s;
      if (CA_GETSTAT(handle_, slot, &s) != 1) continue;
      const std::string n(name);
      r->Figure((n + "_count").c_str(), static_cast<double>(s.count));
      r->Figure((n + "_total_s").c_str(), s.total);
      r->Figure((n + "_max_s").c_str(), s.max);
    }
  }

 private:
  void* handle_;
  unsigned int budget_;
};

// ---- libqmcache through the C++ layer: find() and the hold given back ----

template <bool kShared>
class Layer {
 public:
  static constexpr const char* kName = kShared ? "qm_shared" : "qm_cache";
  static constexpr bool kEvicts = true;
  static constexpr bool kThreadSafe = kShared;

  explicit Layer(const Sizing& s) : cache_("bench", QmBudget(s)) {}

  bool Lookup(const Key& k, unsigned char* out) {
    const qm::Hold hold = cache_.find(View(k));
    if (!hold) return false;
    if (hold.data().size() == kValueSize) {
      std::memcpy(out, hold.data().data(), kValueSize);
    } else {
      std::memset(out, 0, kValueSize);
    }
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    return cache_.insert(View(k), value, kValueSize, {}) >= 0;
  }

  size_t Records() { return cache_.params().usedNodes; }
  void Finish(Result* r) {
    r->capacity = "maxBytes=" + std::to_string(cache_.params().maxBytes);
  }

 private:
  qm::BasicCache<kShared> cache_;
};

// ---- containers a host writes without a cache library ----

class StdMap {
 public:
  static constexpr const char* kName = "std_map";
  static constexpr bool kEvicts = false;
  static constexpr bool kThreadSafe = false;

  explicit StdMap(const Sizing&) {}

  bool Lookup(const Key& k, unsigned char* out) {
    // Transparent comparison: looks up by view, no key string is made.
    auto it = map_.find(View(k));
    if (it == map_.end()) return false;
    std::memcpy(out, it->second.data(), kValueSize);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    map_.insert_or_assign(
        std::string(View(k)),
        std::string(reinterpret_cast<const char*>(value), kValueSize));
    return true;
  }

  size_t Records() { return map_.size(); }
  void Finish(Result* r) { r->capacity = "unbounded"; }

 private:
  std::map<std::string, std::string, std::less<>> map_;
};

// A least-recently-used cache as it is commonly written by hand: a list in
// use order and a hash index keyed by std::string into it (so a lookup
// makes a key string), evicting from the cold end past the budget.
class HandLru {
 public:
  static constexpr const char* kName = "lru";
  static constexpr bool kEvicts = true;
  static constexpr bool kThreadSafe = false;

  explicit HandLru(const Sizing& s)
      : budget_(s.evicts ? s.budgetRecords * kValueSize : SIZE_MAX) {}

  bool Lookup(const Key& k, unsigned char* out) {
    auto it = index_.find(std::string(View(k)));
    if (it == index_.end()) return false;
    order_.splice(order_.begin(), order_, it->second);
    std::memcpy(out, it->second->value.data(), kValueSize);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    std::string key(View(k));
    std::string v(reinterpret_cast<const char*>(value), kValueSize);
    auto it = index_.find(key);
    if (it != index_.end()) {
      it->second->value = std::move(v);
      order_.splice(order_.begin(), order_, it->second);
    } else {
      order_.push_front(Entry{key, std::move(v)});
      index_.emplace(std::move(key), order_.begin());
      bytes_ += kValueSize;
    }
    while (bytes_ > budget_) {
      index_.erase(order_.back().key);
      order_.pop_back();
      bytes_ -= kValueSize;
    }
    return true;
  }

  size_t Records() { return index_.size(); }
  void Finish(Result* r) {
    r->capacity = budget_ == SIZE_MAX ? std::string("unbounded")
                                      : "budget=" + std::to_string(budget_);
  }

 private:
  struct Entry {
    std::string key, value;
  };
  size_t budget_, bytes_ = 0;
  std::list<Entry> order_;
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

// ---- block caches used as key-value caches ----
//
// The value is a heap block of the 64 bytes, given to the cache with a
// deleter that frees it, as a host hands an object to RocksDB's or
// LevelDB's cache. Every entry is charged 64 bytes and the caches' own
// metadata is not charged, so a budget holds as many entries as the other
// contenders' budgets do. Where nothing may be evicted the capacity gets
// headroom: it is split over shards.

struct ValueBlock {
  unsigned char bytes[kValueSize];
};

template <typename Slice>
void DeleteBlock(const Slice&, void* value) {
  delete static_cast<ValueBlock*>(value);
}

size_t BlockCapacity(const Sizing& s) {
  return s.evicts ? s.budgetRecords * kValueSize
                  : static_cast<size_t>(static_cast<double>(s.expected) *
                                        kValueSize * kShardHeadroom);
}

// Lookup, Value, copy, Release: the same in both libraries.
template <typename Cache, typename Slice>
bool BlockLookup(Cache& cache, const Key& k, unsigned char* out) {
  auto* h = cache.Lookup(Slice(reinterpret_cast<const char*>(k.bytes), 16));
  if (h == nullptr) return false;
  std::memcpy(out, static_cast<ValueBlock*>(cache.Value(h))->bytes, kValueSize);
  cache.Release(h);
  return true;
}

ValueBlock* NewBlock(const unsigned char* value) {
  auto* b = new ValueBlock;
  std::memcpy(b->bytes, value, kValueSize);
  return b;
}

#if QMBENCH_HAVE_ROCKSDB
template <bool kClock>
class Rocksdb {
 public:
  static constexpr const char* kName = kClock ? "rocksdb_hcc" : "rocksdb_lru";
  static constexpr bool kEvicts = true;
  static constexpr bool kThreadSafe = true;

  explicit Rocksdb(const Sizing& s) {
    if constexpr (kClock) {
      rocksdb::HyperClockCacheOptions opts(BlockCapacity(s), kValueSize);
      opts.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
      cache_ = opts.MakeSharedCache();
    } else {
      rocksdb::LRUCacheOptions opts;
      opts.capacity = BlockCapacity(s);
      opts.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
      cache_ = rocksdb::NewLRUCache(opts);
    }
  }

  bool Lookup(const Key& k, unsigned char* out) {
    return BlockLookup<rocksdb::Cache, rocksdb::Slice>(*cache_, k, out);
  }

  bool Insert(const Key& k, const unsigned char* value) {
    // No handle is kept: the entry is released at once (and on failure the
    // deleter has already freed the block).
    return cache_
        ->Insert(rocksdb::Slice(View(k).data(), kKeySize), NewBlock(value),
                 kValueSize, &DeleteBlock<rocksdb::Slice>)
        .ok();
  }

  size_t Records() { return cache_->GetUsage() / kValueSize; }
  void Finish(Result* r) {
    r->capacity = std::string(cache_->Name()) +
                  " capacity=" + std::to_string(cache_->GetCapacity());
  }

 private:
  std::shared_ptr<rocksdb::Cache> cache_;
};
#endif

#if QMBENCH_HAVE_LEVELDB
class Leveldb {
 public:
  static constexpr const char* kName = "leveldb";
  static constexpr bool kEvicts = true;
  static constexpr bool kThreadSafe = true;

  explicit Leveldb(const Sizing& s)
      : capacity_(BlockCapacity(s)), cache_(leveldb::NewLRUCache(capacity_)) {}

  bool Lookup(const Key& k, unsigned char* out) {
    return BlockLookup<leveldb::Cache, leveldb::Slice>(*cache_, k, out);
  }

  bool Insert(const Key& k, const unsigned char* value) {
    leveldb::Cache::Handle* h = cache_->Insert(
        leveldb::Slice(View(k).data(), kKeySize), NewBlock(value), kValueSize,
        &DeleteBlock<leveldb::Slice>);
    if (h == nullptr) return false;
    cache_->Release(h);
    return true;
  }

  size_t Records() { return cache_->TotalCharge() / kValueSize; }
  void Finish(Result* r) {
    r->capacity = "capacity=" + std::to_string(capacity_);
  }

 private:
  size_t capacity_;
  std::unique_ptr<leveldb::Cache> cache_;
};
#endif

template <typename C>
Contender Register() {
  return Contender{C::kName, &RunWorkload<C>, C::kEvicts, C::kThreadSafe,
                   nullptr};
}

}  // namespace

const std::vector<Contender>& Contenders() {
  static const std::vector<Contender> all = {
    Register<Qmcache>(),
    Register<Layer<false>>(),
    Register<Layer<true>>(),
#if QMBENCH_HAVE_ROCKSDB
    Register<Rocksdb<false>>(),
    Register<Rocksdb<true>>(),
#else
    {"rocksdb_lru", nullptr, true, true, "RocksDB was not found"},
    {"rocksdb_hcc", nullptr, true, true, "RocksDB was not found"},
#endif
#if QMBENCH_HAVE_LEVELDB
    Register<Leveldb>(),
#else
    {"leveldb", nullptr, true, true, "LevelDB was not found"},
#endif
    Register<StdMap>(),
    Register<HandLru>(),
  };
  return all;
}

}  // namespace qmbench
