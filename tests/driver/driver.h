/* SPDX-License-Identifier: MIT */
// A random driver of the exported calls that checks, as it goes, what the
// library states about itself:
//  - the structure check finds nothing; the tree's self-check prints nothing
//    and counts the cache's `nodes`;
//  - `usedNodes` is the number of records in the tree, `allocated` the
//    charged lengths of the live records, held ones that left the tree
//    included;
//  - every destroyed record's callback comes exactly once;
//  - an insert's result says whether the key was new, a key just stored is
//    found with the data just stored, a key just erased is not found, a
//    search finds the key's record unless it is as old as the age limit, a
//    list holds every record of the tree, and bad input gets its result
//    and changes nothing.
// The release callback uses the library again (stores, erases, searches,
// lists, opens and closes a second handle, closes a cache's last handle,
// switches the threading mode), on the record's own cache and on others;
// the callbacks of CA_DEINIT find every handle invalid.
//
// The choices come from a seeded generator (the command-line driver) or
// from the fuzzer's input bytes. The library's clock is the driver's: the
// one program that includes this header gets its `time()`.
#ifndef QMCACHE_TESTS_DRIVER_DRIVER_H
#define QMCACHE_TESTS_DRIVER_DRIVER_H

#include <string.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

namespace qmdriver {

inline time_t g_now = 1700000000;

class Driver {
 public:
  // Choices from a splitmix64 generator, or from `bytes` (zeros after).
  Driver(uint64_t seed, uint32_t maxBulk) : seed_(seed), maxBulk_(maxBulk) {}
  Driver(const uint8_t* bytes, size_t size, uint32_t maxBulk)
      : bytes_(bytes), size_(size), maxBulk_(maxBulk) {}

  // Runs up to `steps` steps, tears everything down and releases the last
  // holds. False on a failed check; `error` says which.
  bool Run(uint64_t steps) {
    current_ = this;
    fflush(stdout);  // standard output goes to an empty file meanwhile
    FILE* out = tmpfile();
    const int saved = dup(1);
    dup2(fileno(out), 1);
    try {
      CA_DEINIT();
      CA_SETCHECK(CA_INIT(1));
      CA_SETFREE(&Released);
      for (step_ = 0; step_ < steps && (!bytes_ || at_ < size_); ++step_) {
        Step();
        if (step_ % 64 == 0) CheckAll();
      }
      CheckAll();
      CA_DEINIT();
      Forget();
      void* late = CA_CREATE("late", nullptr);
      for (auto& hold : holds_) CA_FREE(late, hold.second);
      CA_DEINIT();
      Expect(alive_.empty(), "callbacks missed");
    } catch (const std::string& message) {
      error = message;
    }
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    fclose(out);
    current_ = nullptr;
    CA_SETFREE(nullptr);
    return error.empty();
  }
  std::string error;
  uint64_t reentries = 0;  // callbacks that used the library

 private:
  static constexpr int kCaches = 3;

  uint32_t Below(uint32_t n) {
    uint64_t z = 0;
    for (int i = n > 256 ? 2 : 1; bytes_ != nullptr && i > 0; --i, ++at_)
      z = z << 8 | (at_ < size_ ? bytes_[at_] : 0);
    if (bytes_ == nullptr) {
      z = (seed_ += 0x9E3779B97F4A7C15ULL);
      z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
      z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
      z ^= z >> 31;
    }
    return n == 0 ? 0 : (uint32_t)(z % n);
  }
  bool Percent(uint32_t p) { return Below(100) < p; }
  void Expect(bool ok, const std::string& what) {
    if (!ok) throw "step " + std::to_string(step_) + " " + op_ + ": " + what;
  }
  void Forget() { memset(handles_, 0, sizeof handles_); }
  CACache* CacheOf(int slot) {
    auto* h = static_cast<CACacheAction*>(handles_[slot]);
    return h ? h->cache : nullptr;
  }
  // The key's node, found by the tree's own descent (no hit counted).
  BTree* NodeOf(int slot, const std::string& key) {
    CACache* c = CacheOf(slot);
    return c && c->tree
               ? c->tree->Search((unsigned char*)key.data(), key.size())
               : nullptr;
  }
  void* RecordOf(int slot, const std::string& key) {
    BTree* n = NodeOf(slot, key);
    return n ? n->payload : nullptr;
  }
  // The records in the tree and the bytes they charge.
  std::pair<unsigned, unsigned> Tree(CACache* c) {
    std::pair<unsigned, unsigned> sum{0, 0};
    BTreeNumerator walk(c->tree, 0);
    for (BTree* n; (n = walk.Next()) != nullptr;)
      if (auto* r = static_cast<CARecord*>(n->payload))
        sum = {sum.first + 1, sum.second + (unsigned)r->length};
    return sum;
  }

  void CheckCounters(int slot) {
    CACache* c = CacheOf(slot);
    if (c == nullptr) return;
    auto [records, bytes] = Tree(c);
    std::unordered_set<void*> counted;  // held records out of the tree
    for (auto& hold : holds_) {
      auto* r = static_cast<CARecord*>(hold.second);
      if (!r->node && r->cache == c && counted.insert(r).second)
        bytes += r->length;
    }
    Expect(bytes == c->params.allocated && records == c->params.usedNodes,
           "counters of cache " + std::to_string(slot));
  }

  void CheckAll() {
    YBTRACE_Entry e{};
    YBTRACE_Clear();
    if (CA_CHECKCACHE(1) != 0)
      Expect(false, std::string("structure check: ") +
                        (YBTRACE_Get(0, &e) ? e.text : ""));
    for (int s = 0; s < kCaches; ++s) {
      CheckCounters(s);
      CACache* c = CacheOf(s);
      if (c == nullptr || c->tree == nullptr) continue;
      const int counted = c->tree->CheckTreeRoot();
      fflush(stdout);  // it prints its findings: into the empty file
      Expect(counted == (int)c->params.nodes && lseek(1, 0, SEEK_END) == 0,
             "self-check of cache " + std::to_string(s));
    }
  }

  void* Open(int slot) {
    CAParams p{slot == 0 ? 600u : slot == 1 ? 5000u : 0u, 0, 0, 0, {}};
    return CA_CREATE(("cache" + std::to_string(slot)).c_str(), &p);
  }
  void* Opened(int slot) {
    return handles_[slot] ? handles_[slot] : (handles_[slot] = Open(slot));
  }
  // Keys of 1 to 255 bytes (the structure check reports any other length),
  // of every length class of the key index. Keys of a length differ in their
  // middle byte; all share their other bytes, so long prefixes are common.
  std::string RandomKey() {
    static const int lengths[] = {1, 2, 3, 4, 5, 7, 8, 9, 12, 16, 17, 26, 255};
    const uint32_t i = Below(39);
    std::string key(lengths[i % 13], 'k');
    key[key.size() / 2] = (char)('0' + i / 13);
    return key;
  }

  // Stores a record whose data names it (serial, slot, key).
  int Store(int slot, const std::string& key, int flags, int length = -1) {
    const uint64_t serial = ++serial_;
    const std::string data =
        std::string((const char*)&serial, 8) + (char)slot + key;
    if (flags & CAREC_CALLBACK) alive_[serial]++;
    const int result =
        CA_INSERT(Opened(slot), (int)Below(11) - 5, flags, (int)Below(7) - 2,
                  (int)key.size(), key.data(), (int)data.size(),
                  length >= 0 ? length : (int)Below(301), data.data());
    if (result == -1) alive_.erase(serial);  // an invalid handle: no record
    return result;
  }

  static void Released(int flags, unsigned long size, void* data) {
    if (current_ != nullptr) current_->OnRelease(flags, size, data);
  }

  void OnRelease(int flags, unsigned long size, void* data) {
    Expect((flags & CAREC_CALLBACK) != 0, "a callback without the flag");
    uint64_t serial;
    memcpy(&serial, data, 8);
    auto entry = alive_.find(serial);
    Expect(entry != alive_.end(), "a record called back twice");
    if (--entry->second == 0) alive_.erase(entry);
    const int slot = static_cast<unsigned char*>(data)[8];
    const std::string key(static_cast<char*>(data) + 9, size - 9);
    if (depth_ >= 2 || Percent(40)) return;
    depth_++;
    reentries++;
    const int other = (int)Below(kCaches);
    void* h = handles_[other];
    const std::string any = RandomKey();
    const bool free = h && !(other == guardSlot_ && any == guardKey_);
    int count;
    const uint32_t what = Below(7);
    // 0: moved back under its own key, unless the driver erases that key.
    if (what == 0 && handles_[slot] &&
        !(erasing_ && slot == guardSlot_ && key == guardKey_))
      Store(slot, key, CAREC_CALLBACK);
    else if (what == 1 && free)
      Store(other, any, CAREC_CALLBACK);
    else if (what == 2 && free)
      CA_ERASE(h, CA_SEARCH(h, 0, (int)any.size(), any.data()));
    else if (what == 3 && h)
      CA_LIST_FREE(h, CA_LIST(h, &count));
    else if (what == 4 && h)
      CA_CLOSE(Open(other));  // one of two handles
    else if (what == 5 && handles_[slot] && depth_ == 1 &&
             handles_[slot] != inUse_)  // the last handle of its own cache
      CA_CLOSE(std::exchange(handles_[slot], nullptr));
    else if (what == 6)
      CA_INIT((int)Below(2));  // during a pass: once the pass is over
    depth_--;
  }

  void Step() {
    const int slot = (int)Below(kCaches);
    void* h = inUse_ = Opened(slot);
    const std::string key = RandomKey();
    const int k = (int)key.size();
    const uint32_t op = Below(18);
    op_ = std::to_string(op);
    if (op < 5) {  // insert
      const int flags = (Percent(90) ? CAREC_CALLBACK : 0) |
                        (Percent(10) ? CAREC_PINNED : 0) |
                        (Percent(15) ? CAREC_EXPIRES : 0);
      const bool existed = NodeOf(slot, key) != nullptr;
      std::tie(guardSlot_, guardKey_, erasing_) = std::tuple(slot, key, false);
      const uint64_t mine = serial_ + 1;
      Expect(Store(slot, key, flags) == !existed, "insert's result");
      guardSlot_ = -1;
      auto* r = static_cast<CARecord*>(RecordOf(slot, key));
      Expect((flags & CAREC_EXPIRES) ||  // an expired one may go now
                 (r && memcmp(r->data, &mine, 8) == 0),
             "the key's record is not the one just stored");
    } else if (op < 9) {  // search: a hit unless as old as the limit
      const int maxAge = Percent(50) ? 0 : (int)Below(4) - 1;
      auto* there = static_cast<CARecord*>(RecordOf(slot, key));
      void* r = CA_SEARCH(h, maxAge, k, key.data());
      const bool young = there && (!maxAge || g_now - there->created < maxAge);
      CAQuery q;
      Expect(r == (young ? there : nullptr) && (!r || CA_QUERY(h, r, &q) == 1),
             "the search's result");
      (r && Percent(50)) ? holds_.push_back({slot, r}) : CA_FREE(h, r);
    } else if (op < 12 && !holds_.empty()) {  // give back a hold
      const size_t i = Below((uint32_t)holds_.size());
      const auto [heldIn, held] = holds_[i];
      auto* r = static_cast<CARecord*>(held);
      holds_.erase(holds_.begin() + (long)i);
      CAQuery q;
      Expect(CA_QUERY(h, r, &q) == 1 && (!q.key) == (!r->node), "query");
      if (Percent(50)) return CA_FREE(h, r);
      const bool attached = r->node && r->cache == CacheOf(heldIn);
      guardSlot_ = attached ? heldIn : -1;
      erasing_ = true;
      guardKey_.assign(static_cast<char*>(q.key), q.keyLength);
      CA_ERASE(h, r);
      guardSlot_ = -1;
      Expect(!attached || !RecordOf(heldIn, guardKey_), "erased key found");
    } else if (op == 12) {  // list, and erase a listed record nobody holds
      int count = -1;
      void** list = CA_LIST(h, &count);
      Expect(count == (int)Tree(CacheOf(slot)).first,
             "the list misses records");
      void* r = count > 0 ? list[Below(count)] : nullptr;
      for (auto& hold : holds_) r = hold.second == r ? nullptr : r;
      if (r && Percent(50)) CA_ERASE(h, r);
      CA_LIST_FREE(h, list);
    } else if (op == 13) {
      g_now += Percent(10) ? -2 : Below(4);
    } else if (op == 14) {  // now and then past 20,000 free nodes
      const uint32_t n = Percent(20) ? maxBulk_ : Below(200) + 1;
      const std::string base = std::string(Below(3) * 12 + 1, 'b') +
                               std::to_string(Below(1000000)) + ".";
      for (uint32_t i = 0; i < n; ++i) {
        const std::string b = base + std::to_string(i);
        inUse_ = Opened(slot);
        Store(slot, b, 0, 0);
        void* r = CA_SEARCH(Opened(slot), 0, (int)b.size(), b.data());
        // Erased through any cache's handle: the pass that the erase fires
        // may then close the slot's last handle. The clock moves on before
        // the erase that fires it, so that the pass finds candidates.
        CAParams& p = CacheOf(slot)->params;
        if (p.nodes - p.usedNodes == 20000) g_now++;
        void* eraser = handles_[Below(kCaches)];
        CA_ERASE(inUse_ = eraser ? eraser : Opened(slot), r);
      }
    } else if (op == 15) {  // a second handle, then the first one goes
      void* second = Open(slot);
      CA_CLOSE(std::exchange(handles_[slot], second));
    } else if (op == 16 && Percent(20)) {
      CA_CLOSE(std::exchange(handles_[slot], nullptr));
    } else if (op == 16) {  // bad input: its result, and nothing changes
      alignas(8) static unsigned char bad[16] = {'C', 'A', 'A', 'C', 0, 0, 1};
      void* r = holds_.empty() ? nullptr : holds_[0].second;
      CAQuery q{};
      CAParams p{7, 0, 0, 0, {}};  // left as it is
      _CAStat stat[2] = {{9, 0, 0, 0, 0}, {9, 0, 0, 0, 0}};
      int count = 5;
      Expect(CA_INSERT(bad, 0, 0, 0, k, key.data(), 1, 1, "x") == -1 &&
                 CA_INSERT(h, 0, 0, 0, -1, key.data(), 1, 1, "x") == -1 &&
                 CA_INSERT(h, 0, 0, 0, k, nullptr, 1, 1, "x") == -1 &&
                 CA_INSERT(h, 0, 0, 0, k, key.data(), 5, 1, nullptr) == -1 &&
                 !CA_SEARCH(bad, 0, k, key.data()) &&
                 !CA_SEARCH(h, 0, -k, key.data()) &&
                 !CA_SEARCH(h, 0, k, nullptr) && !CA_QUERY(bad, r, &q) &&
                 !CA_QUERY(h, nullptr, &q) && !q.data &&
                 !CA_LIST(bad, &count) && count == 5 &&
                 !CA_GETCACHESTAT(bad, &p) && p.maxBytes == 7 &&
                 !CA_GETSTAT(bad, 1, &stat[0]) && !stat[0].count &&
                 CA_GETSTAT(h, 8 + (int)Below(3), &stat[1]) && !stat[1].count &&
                 !CA_CREATE(nullptr, nullptr),
             "bad input");
      for (auto release : {CA_FREE, CA_ERASE}) release(bad, r);
      CA_CLOSE(bad);
      CA_FREE(h, nullptr);
      void** list = CA_LIST(h, &count);
      for (void* by : {(void*)bad, h}) CA_LIST_FREE(by, list);
    } else if (op == 17 && Percent(10)) {
      CA_DEINIT();
      Forget();
      CA_INIT((int)Below(2));
    }
    if (CacheOf(slot) && CacheOf(slot)->params.nodes < 3000)
      CheckCounters(slot);
  }

  static inline Driver* current_ = nullptr;
  uint64_t seed_ = 0;
  const uint8_t* bytes_ = nullptr;
  size_t size_ = 0, at_ = 0;
  const uint32_t maxBulk_;
  uint64_t step_ = 0, serial_ = 0;
  std::string op_;
  void* handles_[kCaches] = {};
  std::vector<std::pair<int, void*>> holds_;
  std::unordered_map<uint64_t, int> alive_;  // records that will call back
  int depth_ = 0;
  // The handle of the step's call in progress, which a callback must not
  // close.
  void* inUse_ = nullptr;
  // The driver's current key: callbacks keep off it, but for moving the
  // replaced record back under it while the driver inserts.
  int guardSlot_ = -1;
  std::string guardKey_;
  bool erasing_ = false;
};

}  // namespace qmdriver

// Exported, so that the library's calls find it before libc's.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  return t != nullptr ? *t = qmdriver::g_now : qmdriver::g_now;
}

#endif  // QMCACHE_TESTS_DRIVER_DRIVER_H
