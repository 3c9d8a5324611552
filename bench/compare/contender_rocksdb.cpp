// SPDX-License-Identifier: MIT
// RocksDB's block caches used as a key-value cache: the LRU cache and the
// HyperClockCache. Every entry is charged its 64 value bytes; the caches'
// own metadata is not charged, so a budget holds as many entries as the
// other contenders' budgets do.
#include <rocksdb/cache.h>

#include <string>

#include "compare.h"
#include "contenders.h"
#include "value_block.h"

namespace qmcompare {
namespace {

void DeleteBlock(const rocksdb::Slice&, void* value) {
  delete static_cast<ValueBlock*>(value);
}

// The capacity a cache gets: the budget, or with headroom for the uneven
// spread of keys over shards when nothing may be evicted.
size_t Capacity(const Sizing& s) {
  if (s.evicts) return s.budgetRecords * kValueSize;
  return static_cast<size_t>(static_cast<double>(s.expected * kValueSize) *
                             kShardHeadroom);
}

class RocksdbCache {
 public:
  explicit RocksdbCache(std::shared_ptr<rocksdb::Cache> cache)
      : cache_(std::move(cache)) {}

  bool Lookup(const Key& k, unsigned char* out) {
    rocksdb::Cache::Handle* h = cache_->Lookup(Slice(k));
    if (h == nullptr) return false;
    std::memcpy(out, static_cast<ValueBlock*>(cache_->Value(h))->bytes,
                kValueSize);
    cache_->Release(h);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    // Without a handle to hold, the entry is released at once (and on
    // failure the deleter has already freed the block).
    return cache_
        ->Insert(Slice(k), NewValueBlock(value), kValueSize, &DeleteBlock)
        .ok();
  }

  size_t Records() { return cache_->GetUsage() / kValueSize; }

  void Describe(Result* r) const {
    r->capacity = std::string(cache_->Name()) +
                  " capacity=" + std::to_string(cache_->GetCapacity());
  }

 private:
  static rocksdb::Slice Slice(const Key& k) {
    return rocksdb::Slice(reinterpret_cast<const char*>(k.bytes), kKeySize);
  }

  std::shared_ptr<rocksdb::Cache> cache_;
};

class RocksdbLru : public RocksdbCache {
 public:
  static constexpr const char* kName = "rocksdb_lru";
  static constexpr bool kEvicts = true;

  explicit RocksdbLru(const Sizing& s) : RocksdbCache(Make(s)) {}
  void Finish(Result* r) { Describe(r); }

 private:
  static std::shared_ptr<rocksdb::Cache> Make(const Sizing& s) {
    rocksdb::LRUCacheOptions opts;
    opts.capacity = Capacity(s);
    opts.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
    return rocksdb::NewLRUCache(opts);
  }
};

class RocksdbHcc : public RocksdbCache {
 public:
  static constexpr const char* kName = "rocksdb_hcc";
  static constexpr bool kEvicts = true;

  explicit RocksdbHcc(const Sizing& s) : RocksdbCache(Make(s)) {}
  void Finish(Result* r) { Describe(r); }

 private:
  static std::shared_ptr<rocksdb::Cache> Make(const Sizing& s) {
    rocksdb::HyperClockCacheOptions opts(Capacity(s), kValueSize);
    opts.metadata_charge_policy = rocksdb::kDontChargeCacheMetadata;
    return opts.MakeSharedCache();
  }
};

}  // namespace

void RunRocksdbLru(const Options& o, Result* r) {
  RunWorkload<RocksdbLru>(o, r);
}
void RunRocksdbHcc(const Options& o, Result* r) {
  RunWorkload<RocksdbHcc>(o, r);
}

}  // namespace qmcompare
