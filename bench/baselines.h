/* SPDX-License-Identifier: MIT */
// Reference containers measured next to libqmcache on the same workloads.
#ifndef QMCACHE_BENCH_BASELINES_H
#define QMCACHE_BENCH_BASELINES_H

#include <cstddef>
#include <list>
#include <string>
#include <unordered_map>

namespace qmbench {

// A least-recently-used cache as it is commonly written by hand: a list in
// use order and a hash index into it, evicting from the cold end while the
// charged bytes exceed the budget.
class LruCache {
 public:
  explicit LruCache(size_t budget) : budget_(budget) {}

  // The value of `key`, made most recently used; null when absent.
  const std::string* Get(const std::string& key) {
    auto it = index_.find(key);
    if (it == index_.end()) return nullptr;
    order_.splice(order_.begin(), order_, it->second);
    return &it->second->value;
  }

  // Stores `value` under `key`, charging `charge` bytes; true when the key
  // was new.
  bool Put(const std::string& key, const std::string& value, size_t charge) {
    auto it = index_.find(key);
    if (it != index_.end()) {
      Entry& e = *it->second;
      bytes_ -= e.charge;
      e.value = value;
      e.charge = charge;
      bytes_ += charge;
      order_.splice(order_.begin(), order_, it->second);
      Trim();
      return false;
    }
    order_.push_front(Entry{key, value, charge});
    index_.emplace(key, order_.begin());
    bytes_ += charge;
    Trim();
    return true;
  }

  size_t size() const { return index_.size(); }
  size_t bytes() const { return bytes_; }

 private:
  struct Entry {
    std::string key;
    std::string value;
    size_t charge;
  };

  void Trim() {
    while (bytes_ > budget_ && !order_.empty()) {
      Entry& cold = order_.back();
      bytes_ -= cold.charge;
      index_.erase(cold.key);
      order_.pop_back();
    }
  }

  size_t budget_;
  size_t bytes_ = 0;
  std::list<Entry> order_;
  std::unordered_map<std::string, std::list<Entry>::iterator> index_;
};

}  // namespace qmbench

#endif  // QMCACHE_BENCH_BASELINES_H
