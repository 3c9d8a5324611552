// SPDX-License-Identifier: MIT
// Containers a host writes without a cache library: std::map (no eviction)
// and the hand-written LRU cache of bench/baselines.h.
#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "baselines.h"
#include "compare.h"
#include "contenders.h"

namespace qmcompare {
namespace {

std::string_view View(const Key& k) {
  return std::string_view(reinterpret_cast<const char*>(k.bytes), kKeySize);
}

class StdMap {
 public:
  static constexpr const char* kName = "std_map";
  static constexpr bool kEvicts = false;

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

class HandLru {
 public:
  static constexpr const char* kName = "lru";
  static constexpr bool kEvicts = true;

  explicit HandLru(const Sizing& s)
      : budget_(s.evicts ? s.budgetRecords * kValueSize : SIZE_MAX),
        cache_(budget_) {}

  bool Lookup(const Key& k, unsigned char* out) {
    // Its index is keyed by std::string: a lookup makes one.
    const std::string* v = cache_.Get(std::string(View(k)));
    if (v == nullptr) return false;
    std::memcpy(out, v->data(), kValueSize);
    return true;
  }

  bool Insert(const Key& k, const unsigned char* value) {
    cache_.Put(std::string(View(k)),
               std::string(reinterpret_cast<const char*>(value), kValueSize),
               kValueSize);
    return true;
  }

  size_t Records() { return cache_.size(); }
  void Finish(Result* r) {
    r->capacity = budget_ == SIZE_MAX
                      ? std::string("unbounded")
                      : "budget=" + std::to_string(budget_) + " bytes";
  }

 private:
  size_t budget_;
  qmbench::LruCache cache_;
};

}  // namespace

void RunStdMap(const Options& o, Result* r) { RunWorkload<StdMap>(o, r); }
void RunHandLru(const Options& o, Result* r) { RunWorkload<HandLru>(o, r); }

}  // namespace qmcompare
