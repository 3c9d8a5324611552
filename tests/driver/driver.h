// A random driver of the exported calls that checks, as it goes, what the
// library states about itself rather than what a second implementation of
// it would do:
//  - the structure check finds nothing, and the tree's self-check prints
//    nothing and counts the cache's `nodes`;
//  - `usedNodes` is the number of records in the tree, and `allocated` the
//    charged lengths of the live records, held detached ones included;
//  - every destroyed record's callback comes exactly once;
//  - the insert's result says whether the key was new, a key just stored is
//    found with the data just stored, and a key just erased is not found.
// The release callback uses the library again (stores, erases, searches,
// lists, closes handles), on the record's own cache and on others, so the
// checks also hold when the host re-enters the library from its callback.
//
// The choices come from a Chooser: a seeded generator for the command-line
// driver, the input bytes for the fuzz target. The executable that includes
// this header defines `time()` to return `qmdriver::g_now`.
#ifndef QMCACHE_TESTS_DRIVER_DRIVER_H
#define QMCACHE_TESTS_DRIVER_DRIVER_H

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

namespace qmdriver {

// The wall clock the library sees (through the interposed time()).
inline time_t g_now = 1700000000;

class Chooser {
 public:
  virtual ~Chooser() = default;
  virtual uint32_t Below(uint32_t n) = 0;  // in [0, n); 0 when n is 0
  virtual bool Exhausted() const { return false; }
  bool Percent(uint32_t p) { return Below(100) < p; }
  int Range(int lo, int hi) {
    return lo + static_cast<int>(Below(hi - lo + 1));
  }
};

class RandomChooser : public Chooser {  // splitmix64
 public:
  explicit RandomChooser(uint64_t seed) : state_(seed) {}
  uint32_t Below(uint32_t n) override {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return n == 0 ? 0 : static_cast<uint32_t>((z ^ (z >> 31)) % n);
  }

 private:
  uint64_t state_;
};

class BytesChooser : public Chooser {  // zeros once the input is used up
 public:
  BytesChooser(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint32_t Below(uint32_t n) override {
    uint32_t v = 0;
    for (int i = n <= 0x100 ? 1 : 2; i > 0; --i, ++pos_)
      v = (v << 8) | (pos_ < size_ ? data_[pos_] : 0);
    return n <= 1 ? 0 : v % n;
  }
  bool Exhausted() const override { return pos_ >= size_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

struct Totals {
  uint64_t steps = 0, inserts = 0, hits = 0, erases = 0, callbacks = 0,
           reentries = 0, bulk = 0, checks = 0;
};

class Driver {
 public:
  Driver(Chooser& chooser, uint32_t maxBulk, uint32_t checkEvery)
      : ch_(chooser), maxBulk_(maxBulk), checkEvery_(checkEvery) {}

  // Runs up to `steps` steps, then tears everything down and releases the
  // last holds. False on a failed check; `error()` says which.
  bool Run(uint64_t steps) {
    try {
      current_ = this;
      CA_DEINIT();
      CA_INIT(1);
      CA_SETCHECK(1);
      CA_SETFREE(&Released);
      for (uint64_t i = 0; i < steps && !ch_.Exhausted(); ++i) {
        totals_.steps++;
        Step();
        if (i % checkEvery_ == 0) CheckAll();
      }
      CheckAll();
      Shutdown();
    } catch (const std::string& message) {
      error_ = message;
    }
    current_ = nullptr;
    CA_SETFREE(nullptr);
    return error_.empty();
  }
  const std::string& error() const { return error_; }
  const Totals& totals() const { return totals_; }

 private:
  static constexpr int kCaches = 3;
  static constexpr unsigned int kBudgets[kCaches] = {600, 5000, 0};

  // ---- Checks --------------------------------------------------------------

  [[noreturn]] __attribute__((format(printf, 2, 3))) void Fail(const char* f,
                                                               ...) {
    char text[512];
    va_list args;
    va_start(args, f);
    vsnprintf(text, sizeof text, f, args);
    va_end(args);
    throw "step " + std::to_string(totals_.steps) + " (" + op_ + ", clock " +
        std::to_string(g_now) + "): " + text;
  }
  void Expect(bool ok, const char* what) {
    if (!ok) Fail("%s", what);
  }

  // The counters of one cache against its tree and the driver's holds.
  void CheckCounters(int slot) {
    CACacheAction* h = Handle(slot);
    if (h == nullptr) return;
    CACache* c = h->cache;
    unsigned int nodes = 0, records = 0, bytes = 0;
    BTreeNumerator walk(c->tree, 0);
    for (BTree* n = walk.Next(); n != nullptr; n = walk.Next(), ++nodes) {
      if (auto* r = static_cast<CARecord*>(n->payload)) {
        records++;
        bytes += static_cast<unsigned int>(r->length);
      }
    }
    std::unordered_set<void*> counted;
    for (auto& hold : holds_) {
      auto* r = static_cast<CARecord*>(hold.second);
      if (r->node == nullptr && r->cache == c && counted.insert(r).second)
        bytes += static_cast<unsigned int>(r->length);
      if (r->node != nullptr) Expect(r->node->payload == r, "hold's node");
    }
    // An insert of size 0 stores no record yet counts its node as used, and
    // only a rebuild (or a new cache) brings `usedNodes` back to the records:
    // beyond the records, it counts the dropped inserts since then.
    const long drift = static_cast<long>(c->params.usedNodes) - records;
    const long dropped = dropped_[slot];
    if (nodes != c->params.nodes || bytes != c->params.allocated ||
        !(drift == drift_[slot] + dropped || (drift >= 0 && drift <= dropped)))
      Fail("cache %d: nodes %u/%u, records %u (+%ld dropped)/%u, bytes %u/%u",
           slot, nodes, c->params.nodes, records, drift_[slot] + dropped,
           c->params.usedNodes, bytes, c->params.allocated);
    drift_[slot] = drift;
    dropped_[slot] = 0;
  }

  void CheckAll() {
    totals_.checks++;
    if (CA_CHECKCACHE(0) != 0) {
      YBTRACE_Clear();
      CA_CHECKCACHE(1);
      std::string report;
      YBTRACE_Entry e;
      for (size_t i = 0; YBTRACE_Get(i, &e); ++i)
        if (e.kind == YBTRACE_KIND_TEXT) report += std::string(e.text) + "; ";
      YBTRACE_Clear();
      Fail("the structure check reports %s", report.c_str());
    }
    for (int s = 0; s < kCaches; ++s) {
      CheckCounters(s);
      CACacheAction* h = Handle(s);
      if (h == nullptr || h->cache->tree == nullptr) continue;
      // The self-check prints its findings: catch them in a file.
      fflush(stdout);
      FILE* out = tmpfile();
      int saved = dup(1);
      dup2(fileno(out), 1);
      int counted = h->cache->tree->CheckTreeRoot();
      fflush(stdout);
      dup2(saved, 1);
      close(saved);
      long printed = lseek(fileno(out), 0, SEEK_END);
      fclose(out);
      if (printed != 0 || counted != static_cast<int>(h->cache->params.nodes))
        Fail("cache %d: self-check printed %ld bytes, counted %d", s, printed,
             counted);
    }
  }

  // ---- Caches, keys and records -------------------------------------------

  CACacheAction* Handle(int slot) {
    return static_cast<CACacheAction*>(handles_[slot]);
  }
  void* Open(int slot) {
    CAParams p{};
    p.maxBytes = kBudgets[slot];
    return CA_CREATE(("cache" + std::to_string(slot)).c_str(), &p);
  }
  void* Opened(int slot) {
    if (handles_[slot] == nullptr) handles_[slot] = Open(slot);
    return handles_[slot];
  }
  // Keys of 1 to 255 bytes: the structure check reports any other length.
  std::string RandomKey() { return "k" + std::to_string(ch_.Below(40)); }
  bool Percent(uint32_t p) { return ch_.Percent(p); }
  BTree* NodeOf(int slot, const std::string& key) {
    CACacheAction* h = Handle(slot);
    if (h == nullptr || h->cache->tree == nullptr) return nullptr;
    auto* bytes =
        reinterpret_cast<unsigned char*>(const_cast<char*>(key.data()));
    return h->cache->tree->Search(bytes, key.size());
  }
  CARecord* RecordOf(int slot, const std::string& key) {
    BTree* n = NodeOf(slot, key);
    return n == nullptr ? nullptr : static_cast<CARecord*>(n->payload);
  }
  static uint64_t SerialOf(const CARecord* r) {
    uint64_t serial = 0;
    if (r->size >= 9) memcpy(&serial, r->data, 8);
    return serial;
  }

  // Stores a record whose data names it (serial, cache slot, key); returns
  // the insert's result and its serial.
  std::pair<int, uint64_t> Store(int slot, const std::string& key, int flags,
                                 bool empty = false, int length = -1) {
    const uint64_t serial = ++serial_;
    std::string data(reinterpret_cast<const char*>(&serial), 8);
    data += static_cast<char>(slot);
    data += key;
    if (!empty && (flags & CAREC_CALLBACK)) alive_.insert(serial);
    if (empty && (flags & CAREC_CALLBACK)) emptyDue_++;
    if (empty) dropped_[slot]++;
    const int r =
        CA_INSERT(Opened(slot), ch_.Range(-5, 5), flags, ch_.Range(-2, 4),
                  static_cast<int>(key.size()), key.data(),
                  empty ? 0 : static_cast<int>(data.size()),
                  length >= 0 ? length : ch_.Range(0, 300), data.data());
    return {r, serial};
  }

  // ---- The release callback -----------------------------------------------

  static void Released(int flags, unsigned long size, void* data) {
    if (current_ != nullptr) current_->OnRelease(flags, size, data);
  }

  void OnRelease(int flags, unsigned long size, void* data) {
    totals_.callbacks++;
    if ((flags & CAREC_CALLBACK) == 0) Fail("a callback without the flag");
    if (size == 0) {
      emptySeen_++;
      return;
    }
    uint64_t serial;
    memcpy(&serial, data, 8);
    if (alive_.erase(serial) == 0)
      Fail("record %llu called back twice", (unsigned long long)serial);
    const int slot = static_cast<unsigned char*>(data)[8];
    const std::string key(static_cast<char*>(data) + 9, size - 9);
    if (depth_ >= 2 || Percent(40)) return;
    depth_++;
    totals_.reentries++;
    const int other = ch_.Below(kCaches);
    const std::string any = RandomKey();
    const bool anyFree = !(other == guardSlot_ && any == guardKey_);
    switch (ch_.Below(6)) {
      case 0:  // moved back under its own key, unless the driver erases it
        if (handles_[slot] != nullptr &&
            !(erasing_ && slot == guardSlot_ && key == guardKey_))
          Store(slot, key, CAREC_CALLBACK);
        break;
      case 1:
        if (handles_[other] != nullptr && anyFree)
          Store(other, any, CAREC_CALLBACK | (Percent(20) ? CAREC_EXPIRES : 0));
        break;
      case 2:
        if (handles_[other] != nullptr && anyFree) {
          void* r = CA_SEARCH(handles_[other], 0, static_cast<int>(any.size()),
                              any.data());
          CA_ERASE(handles_[other], r);
        }
        break;
      case 3:
        if (handles_[other] != nullptr) {
          int count = 0;
          void** list = CA_LIST(handles_[other], &count);
          CA_LIST_FREE(handles_[other], list);
        }
        break;
      case 4:
        if (spares_[other] != nullptr) {
          void* spare = spares_[other];
          spares_[other] = nullptr;
          CA_CLOSE(spare);
        }
        break;
      default:
        if (handles_[other] != nullptr) {
          void* r = CA_SEARCH(handles_[other], 0, static_cast<int>(any.size()),
                              any.data());
          CAQuery q;
          if (r != nullptr) Expect(CA_QUERY(handles_[other], r, &q) == 1, "q");
          CA_FREE(handles_[other], r);
        }
    }
    depth_--;
  }

  // ---- Steps ---------------------------------------------------------------

  void Step() {
    const int slot = ch_.Below(kCaches);
    void* h = Opened(slot);
    switch (ch_.Below(20)) {
      case 0:
      case 1:
      case 2:
      case 3:
      case 4: {
        op_ = "insert";
        totals_.inserts++;
        const std::string key = RandomKey();
        const int flags = (Percent(90) ? CAREC_CALLBACK : 0) |
                          (Percent(10) ? CAREC_PINNED : 0) |
                          (Percent(15) ? CAREC_EXPIRES : 0);
        const bool empty = Percent(5);
        const bool existed = NodeOf(slot, key) != nullptr;
        guardSlot_ = slot, guardKey_ = key, erasing_ = false;
        auto [result, serial] = Store(slot, key, flags, empty);
        guardSlot_ = -1;
        Expect(result == (existed ? 0 : 1), "insert's result");
        CARecord* r = RecordOf(slot, key);
        if (!empty && !(flags & CAREC_EXPIRES))
          Expect(r != nullptr && SerialOf(r) == serial, "stored record lost");
        if (empty) Expect(r == nullptr, "a record of size 0 was stored");
        break;
      }
      case 5:
      case 6:
      case 7:
      case 8: {
        op_ = "search";
        const std::string key = RandomKey();
        static const int kAges[] = {0, 0, 0, 1, 2, -1};
        void* r = CA_SEARCH(h, kAges[ch_.Below(6)],
                            static_cast<int>(key.size()), key.data());
        if (r == nullptr) break;
        totals_.hits++;
        Expect(r == RecordOf(slot, key), "search found another record");
        if (Percent(50)) {
          holds_.push_back({slot, r});
        } else {
          CA_FREE(h, r);
        }
        break;
      }
      case 9:
      case 10:
      case 11: {
        if (holds_.empty()) break;
        const size_t i = ch_.Below(static_cast<uint32_t>(holds_.size()));
        auto* r = static_cast<CARecord*>(holds_[i].second);
        const int heldIn = holds_[i].first;
        holds_.erase(holds_.begin() + static_cast<long>(i));
        CAQuery q;
        Expect(CA_QUERY(h, r, &q) == 1 &&
                   (q.key == nullptr) == (r->node == nullptr),
               "query of a held record");
        if (Percent(50)) {
          op_ = "free";
          CA_FREE(h, r);
          break;
        }
        op_ = "erase";
        totals_.erases++;
        const int at = r->node != nullptr && Handle(heldIn) != nullptr &&
                               r->cache == Handle(heldIn)->cache
                           ? heldIn
                           : -1;
        const std::string key(static_cast<char*>(q.key), q.keyLength);
        guardSlot_ = at, guardKey_ = key, erasing_ = true;
        CA_ERASE(h, r);
        guardSlot_ = -1;
        if (at >= 0) Expect(RecordOf(at, key) == nullptr, "erased key found");
        break;
      }
      case 12: {
        op_ = "list";
        int count = -1;
        void** list = CA_LIST(h, &count);
        int records = 0;
        BTreeNumerator walk(Handle(slot)->cache->tree, 0);
        for (BTree* n = walk.Next(); n != nullptr; n = walk.Next())
          records += n->payload != nullptr;
        Expect(count == records, "the list misses records");
        if (count > 0) {
          void* r = list[ch_.Below(count)];
          bool held = false;
          for (auto& hold : holds_) held |= hold.second == r;
          if (!held && Percent(50)) CA_ERASE(h, r);
        }
        CA_LIST_FREE(h, list);
        break;
      }
      case 13:
        op_ = "clock";
        g_now += Percent(10) ? -2 : ch_.Range(0, 3);
        break;
      case 14:
        op_ = "bulk";
        Bulk(slot);
        break;
      case 15:
        op_ = "spare";
        if (spares_[slot] == nullptr) {
          spares_[slot] = Open(slot);
        } else {
          void* spare = spares_[slot];
          spares_[slot] = nullptr;
          CA_CLOSE(spare);
        }
        break;
      case 16:
        op_ = "close";
        if (Percent(20)) {
          handles_[slot] = nullptr;
          CA_CLOSE(h);
        }
        break;
      case 17:
        op_ = "deinit";
        if (Percent(10)) {
          for (int s = 0; s < kCaches; ++s) handles_[s] = spares_[s] = nullptr;
          CA_DEINIT();
          CA_INIT(ch_.Below(2));
        }
        break;
      default: {
        op_ = "stat";
        CAParams p;
        Expect(CA_GETCACHESTAT(h, &p) == 1, "stat");
        _CAStat s;
        Expect(CA_GETSTAT(Percent(50) ? h : nullptr, ch_.Below(8), &s) == 1,
               "stat slot");
      }
    }
    if (Handle(slot) != nullptr && Handle(slot)->cache->params.nodes < 3000)
      CheckCounters(slot);
  }

  // Keys stored and erased again, now and then enough to pass the rebuild's
  // threshold of 20,000 free nodes. They charge nothing: a cache stuck over
  // its budget would run a pass over every node for each of them.
  void Bulk(int slot) {
    totals_.bulk++;
    const uint32_t n = Percent(20) ? maxBulk_ : ch_.Below(200) + 1;
    const uint32_t base = ch_.Below(1000000);
    for (uint32_t i = 0; i < n; ++i) {
      const std::string key = "b" + std::to_string(base + i);
      Store(slot, key, 0, false, 0);
      void* h = Handle(slot);
      if (h == nullptr) return;
      CA_ERASE(h, CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data()));
    }
  }

  // Tears everything down, then gives back the last holds through a new
  // cache: every record must have been called back by then.
  void Shutdown() {
    op_ = "shutdown";
    for (int s = 0; s < kCaches; ++s) handles_[s] = spares_[s] = nullptr;
    CA_DEINIT();
    void* late = CA_CREATE("late", nullptr);
    for (auto& hold : holds_) CA_FREE(late, hold.second);
    holds_.clear();
    CA_DEINIT();
    if (!alive_.empty()) Fail("%zu records never called back", alive_.size());
    if (emptySeen_ != emptyDue_)
      Fail("dropped records called back %llu times, expected %llu",
           (unsigned long long)emptySeen_, (unsigned long long)emptyDue_);
  }

  static inline Driver* current_ = nullptr;
  Chooser& ch_;
  const uint32_t maxBulk_, checkEvery_;
  const char* op_ = "start";
  void* handles_[kCaches] = {};
  void* spares_[kCaches] = {};
  std::vector<std::pair<int, void*>> holds_;
  std::unordered_set<uint64_t> alive_;  // records that will call back
  uint64_t serial_ = 0, emptyDue_ = 0, emptySeen_ = 0;
  long drift_[kCaches] = {}, dropped_[kCaches] = {};
  int depth_ = 0;
  // The driver's current key: callbacks keep off it, but for moving the
  // replaced record back under it while the driver inserts.
  int guardSlot_ = -1;
  std::string guardKey_;
  bool erasing_ = false;
  Totals totals_;
  std::string error_;
};

}  // namespace qmdriver

#endif  // QMCACHE_TESTS_DRIVER_DRIVER_H
