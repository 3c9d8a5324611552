// SPDX-License-Identifier: MIT
// LevelDB's block cache (a sharded LRU) used as a key-value cache; every
// entry is charged its 64 value bytes.
#include <leveldb/cache.h>

#include <string>

#include "compare.h"
#include "contenders.h"
#include "value_block.h"

namespace qmcompare {
namespace {

void DeleteBlock(const leveldb::Slice&, void* value) {
  delete static_cast<ValueBlock*>(value);
}

class Leveldb {
 public:
  static constexpr const char* kName = "leveldb";
  static constexpr bool kEvicts = true;

  // Without eviction the budget gets headroom: its 16 shards each hold a
  // sixteenth of it, and keys do not spread evenly over them.
  explicit Leveldb(const Sizing& s)
      : capacity_(s.evicts ? s.budgetRecords * kValueSize
                           : static_cast<size_t>(
                                 static_cast<double>(s.expected * kValueSize) *
                                 kShardHeadroom)),
        cache_(leveldb::NewLRUCache(capacity_)) {}

  bool Lookup(const Key& k, unsigned char* out) {
    leveldb::Cache::Handle* h = cache_->Lookup(Slice(k));
    if (h == nullptr) return false;
    std::memcpy(out, static_cast<ValueBlock*>(cache_->Value(h))->bytes,
                kValueSize);
    cache_->Release(h);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    leveldb::Cache::Handle* h = cache_->Insert(Slice(k), NewValueBlock(value),
                                               kValueSize, &DeleteBlock);
    if (h == nullptr) return false;
    cache_->Release(h);
    return true;
  }

  size_t Records() { return cache_->TotalCharge() / kValueSize; }

  void Finish(Result* r) {
    r->capacity = "capacity=" + std::to_string(capacity_);
  }

 private:
  static leveldb::Slice Slice(const Key& k) {
    return leveldb::Slice(reinterpret_cast<const char*>(k.bytes), kKeySize);
  }

  size_t capacity_;
  std::unique_ptr<leveldb::Cache> cache_;
};

}  // namespace

void RunLeveldb(const Options& o, Result* r) { RunWorkload<Leveldb>(o, r); }

}  // namespace qmcompare
