// A reference model of libqmcache's public behaviour and a driver that runs
// random sequences of the exported calls against both, comparing after every
// step. The choices come from a Chooser: a seeded generator for the
// command-line driver, the input bytes for the fuzz target.
//
// The model keeps, per cache, the set of keys in its tree (with the record
// each one carries, if any), the counters allocated/nodes/usedNodes, the
// statistic counts, and every live record with its fields and holds. It
// replays eviction exactly: grading, the descending in-place sort, the erase
// walk and the rebuild at more than 20,000 free nodes.
//
// The executable that includes this header defines `time()` so that the
// library reads the driver's clock, `qmmodel::g_now`.
#ifndef QMCACHE_TESTS_MODEL_MODEL_H
#define QMCACHE_TESTS_MODEL_MODEL_H

#include <fcntl.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

namespace qmmodel {

// The wall clock the library sees (through the interposed time()).
inline time_t g_now = 1700000000;

// ---- Sources of choices -----------------------------------------------------

class Chooser {
 public:
  virtual ~Chooser() = default;
  // A value in [0, n); 0 when n is 0.
  virtual uint32_t Below(uint32_t n) = 0;
  // True once the source has nothing more to say (the fuzz input is used up).
  virtual bool Exhausted() const { return false; }
  bool Percent(uint32_t p) { return Below(100) < p; }
  int32_t Range(int32_t lo, int32_t hi) {  // inclusive
    return lo + static_cast<int32_t>(Below(static_cast<uint32_t>(hi - lo) + 1));
  }
};

// splitmix64: small, fast and good enough to pick operations.
class RandomChooser : public Chooser {
 public:
  explicit RandomChooser(uint64_t seed) : state_(seed) {}
  uint32_t Below(uint32_t n) override {
    if (n == 0) return 0;
    return static_cast<uint32_t>(Next() % n);
  }

 private:
  uint64_t Next() {
    uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  uint64_t state_;
};

// Reads as few input bytes as the range needs; zeros once the input ends.
class BytesChooser : public Chooser {
 public:
  BytesChooser(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  uint32_t Below(uint32_t n) override {
    if (n <= 1) return 0;
    uint32_t v = 0;
    int bytes = n <= 0x100 ? 1 : n <= 0x10000 ? 2 : 4;
    for (int i = 0; i < bytes; i++) {
      v = (v << 8) | (pos_ < size_ ? data_[pos_] : 0);
      if (pos_ <= size_) pos_++;
    }
    return v % n;
  }
  bool Exhausted() const override { return pos_ >= size_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// ---- The model
// ----------------------------------------------------------------

// The key tree's order: bytewise over the common length; a key sorts before
// its own prefixes.
struct TreeOrder {
  bool operator()(const std::string& a, const std::string& b) const {
    size_t n = std::min(a.size(), b.size());
    int c = memcmp(a.data(), b.data(), n);
    if (c != 0) return c < 0;
    return a.size() > b.size();
  }
};

struct MCache;

struct MRec {
  uint64_t id = 0;
  void* ptr = nullptr;      // the library's record, once seen
  MCache* cache = nullptr;  // null once its cache was destroyed
  std::string key;          // the key it was inserted under
  int tag = 0;
  int flags = 0;
  long lifetime = 0;
  uint64_t size = 0;
  uint64_t length = 0;
  time_t created = 0;
  uint32_t hits = 1;
  int ref = 0;
  bool attached = false;
};

struct MCache {
  std::string name;
  uint32_t maxBytes = 0;
  uint32_t allocated = 0;
  uint32_t nodes = 0;
  uint32_t used = 0;
  std::map<std::string, MRec*, TreeOrder> tree;  // every node, empty ones too
  std::vector<void*> handles;
  uint64_t stat[8] = {};
  uint64_t timing = 0;
  std::vector<std::string> pool;  // keys worth trying again
  bool bulk = false;
};

struct Options {
  uint32_t fullCheckEvery = 400;  // steps between full comparisons
  uint32_t maxBulk = 6000;        // largest bulk insert
  bool installTrace = true;       // sometimes install a trace log (/dev/null)
  bool verbose = false;           // print every step on stderr
  // Give back the holds on records that left their cache before the cache
  // is destroyed. Off: such a record is released after its cache went,
  // which the library must survive.
  bool spareDetached = false;
};

struct Totals {
  uint64_t steps = 0, inserts = 0, replaced = 0, dropped = 0, hits = 0,
           misses = 0, frees = 0, erases = 0, lists = 0, passes = 0,
           evicted = 0, rebuilds = 0, callbacks = 0, fullChecks = 0,
           treeChecks = 0, faultVerdicts = 0, creates = 0, closes = 0,
           deinits = 0, maxNodes = 0;
};

struct Divergence {
  std::string message;
};

// What the release callback saw.
struct Seen {
  int flags;
  uint64_t size;
  std::string data;
  bool operator<(const Seen& o) const {
    return std::tie(flags, size, data) < std::tie(o.flags, o.size, o.data);
  }
  bool operator==(const Seen& o) const {
    return flags == o.flags && size == o.size && data == o.data;
  }
};

inline std::vector<Seen> g_seen;

inline void ReleaseCallback(int flags, unsigned long size, void* data) {
  Seen s{flags, size, std::string()};
  if (size != 0 && data != nullptr)
    s.data.assign(static_cast<const char*>(data), size);
  g_seen.push_back(std::move(s));
}

// Data bytes of the record with model id `id`: the id first, so that every
// record of eight bytes or more is unique.
inline std::string DataFor(uint64_t id, uint64_t size) {
  std::string d(size, '\0');
  for (uint64_t i = 0; i < size; i++) {
    d[i] = i < 8 ? static_cast<char>(id >> (8 * i))
                 : static_cast<char>((id * 2654435761u + i * 40503u) >> 7);
  }
  return d;
}

inline std::string Printable(const std::string& key) {
  std::string out;
  char buf[8];
  for (unsigned char c : key) {
    if (c >= 0x21 && c < 0x7f && c != '\\') {
      out += static_cast<char>(c);
    } else {
      snprintf(buf, sizeof buf, "\\x%02x", c);
      out += buf;
    }
  }
  return out.size() > 60 ? out.substr(0, 60) + "..." : out;
}

class Driver {
 public:
  Driver(Chooser& chooser, const Options& options)
      : ch_(chooser), opt_(options) {}

  // Runs up to `steps` steps (or until the chooser is exhausted), then tears
  // everything down. Returns false on a divergence; `error()` says which.
  bool Run(uint64_t steps) {
    uint64_t sinceCheck = 0;
    try {
      Begin();
      for (uint64_t i = 0; i < steps && !ch_.Exhausted(); i++) {
        totals_.steps++;
        Step();
        if (opt_.verbose)
          fprintf(stderr, "%llu %s clock %lld\n",
                  static_cast<unsigned long long>(totals_.steps), op_,
                  static_cast<long long>(g_now));
        // A full comparison costs as much as the caches are big: space them
        // out with the node count.
        if (opt_.fullCheckEvery != 0 &&
            ++sinceCheck >=
                std::max<uint64_t>(opt_.fullCheckEvery, TotalNodes() / 16)) {
          sinceCheck = 0;
          FullCheck();
        }
      }
      FullCheck();
      Shutdown();
    } catch (const Divergence& d) {
      error_ = d.message;
      return false;
    }
    return true;
  }

  const std::string& error() const { return error_; }
  const Totals& totals() const { return totals_; }

 private:
  // ---- Failure reporting -------------------------------------------------

  [[noreturn]] __attribute__((format(printf, 2, 3))) void Fail(
      const char* format, ...) {
    char buf[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    char head[160];
    snprintf(head, sizeof head, "step %llu (%s, clock %lld): ",
             static_cast<unsigned long long>(totals_.steps), op_,
             static_cast<long long>(g_now));
    throw Divergence{std::string(head) + buf};
  }

  void Expect(bool ok, const char* what) {
    if (!ok) Fail("%s", what);
  }

  // ---- Start and end -------------------------------------------------------

  void Begin() {
    op_ = "begin";
    g_seen.clear();
    // Whatever an earlier run left: no callback, checks on.
    CA_SETFREE(nullptr);
    inited_ = true;  // CA_SETFREE initialised on demand (or it already was)
    CA_DEINIT();
    inited_ = false;
    g_seen.clear();
    callback_ = false;
    Expect(CA_SETCHECK(1) == 1, "CA_SETCHECK(1) did not return 1");
    checkOn_ = true;
  }

  void Shutdown() {
    op_ = "shutdown";
    // Give every hold back, close every handle, tear down: nothing may stay.
    while (!holds_.empty()) FreeHold(holds_.size() - 1);
    while (!handles_.empty()) CloseHandle(handles_.back());
    CA_DEINIT();
    ModelDeinit();
    CheckCallbacks();
    if (!recs_.empty())
      Fail("%zu records still alive in the model after teardown", recs_.size());
    CA_SETFREE(nullptr);
    callback_ = false;
    g_seen.clear();
  }

  // ---- One step ------------------------------------------------------------

  void Step() {
    uint32_t r = ch_.Below(1000);
    if (r < 300) {
      op_ = "insert";
      OpInsert();
    } else if (r < 470) {
      op_ = "search";
      OpSearch();
    } else if (r < 520) {
      op_ = "query";
      OpQueryHold();
    } else if (r < 600) {
      op_ = "free";
      if (!holds_.empty()) FreeHold(ch_.Below(holds_.size()));
    } else if (r < 650) {
      op_ = "erase";
      if (!holds_.empty()) EraseHold(ch_.Below(holds_.size()));
    } else if (r < 690) {
      op_ = "list";
      OpList(false);
    } else if (r < 760) {
      op_ = "clock";
      OpClock();
    } else if (r < 790) {
      op_ = "create";
      OpCreate(false);
    } else if (r < 808) {
      op_ = "close";
      if (handles_.empty()) return;
      void* h = PickHandle();
      MCache* c = handleCache_.at(h);
      // Big caches take long to build: mostly keep their last handle.
      if (c->bulk && c->handles.size() == 1 && ch_.Percent(85)) return;
      CloseHandle(h);
    } else if (r < 830) {
      op_ = "getstat";
      OpGetStat();
    } else if (r < 840) {
      op_ = "setfree";
      OpSetFree();
    } else if (r < 850) {
      op_ = "bad handle";
      OpBadHandle();
    } else if (r < 853) {
      // Rare: each bulk step does thousands of calls.
      op_ = "bulk insert";
      OpBulkInsert();
    } else if (r < 854) {
      op_ = "bulk erase";
      OpList(true);
    } else if (r < 868) {
      op_ = "insert";
      OpInsert();
    } else if (r < 869) {
      op_ = "deinit";
      if (ch_.Below(4) != 0) return;  // rare: it drops the big caches
      SpareDetached(nullptr);
      CA_DEINIT();
      ModelDeinit();
      CheckCallbacks();
    } else if (r < 872) {
      op_ = "init";
      Expect(CA_INIT(static_cast<int>(ch_.Below(2))) == 1,
             "CA_INIT did not return 1");
      if (!inited_) ModelInit();
    } else if (r < 875) {
      op_ = "setcheck";
      int on = static_cast<int>(ch_.Below(3));
      Expect(CA_SETCHECK(on) == (on != 0 ? 1 : 0), "CA_SETCHECK result");
      checkOn_ = on != 0;
    } else if (r < 877) {
      op_ = "trace";
      if (opt_.installTrace && trace == nullptr && inited_)
        trace = new Trace("/dev/null");
    } else if (r < 900) {
      op_ = "insert size 0";
      OpInsert(true);
    } else {
      op_ = "insert";
      OpInsert();
    }
  }

  // ---- Picking -------------------------------------------------------------

  void* PickHandle() {
    if (handles_.empty()) return nullptr;
    return handles_[ch_.Below(handles_.size())];
  }

  // A handle, opening a cache when none is open.
  void* AnyHandle() {
    if (handles_.empty()) OpCreate(false);
    return PickHandle();
  }

  static constexpr const char kAlphabet[] = {0x00,
                                             0x01,
                                             'a',
                                             'b',
                                             0x7f,
                                             static_cast<char>(0x80),
                                             static_cast<char>(0xff)};

  std::string NewKey(MCache* c) {
    if (!c->pool.empty() && ch_.Percent(30)) {
      // A neighbour of a known key: one byte shorter or longer.
      std::string k = c->pool[ch_.Below(c->pool.size())];
      if (k.size() > 1 && ch_.Percent(50)) {
        k.pop_back();
      } else {
        k += kAlphabet[ch_.Below(sizeof kAlphabet)];
      }
      return k;
    }
    // Empty keys and keys over 255 bytes are legal but fail the structure
    // check while their node lives: keep them rare.
    uint32_t r = ch_.Below(1000);
    size_t len = r < 3     ? 0
                 : r < 600 ? ch_.Range(1, 4)
                 : r < 997 ? ch_.Range(5, 12)
                           : ch_.Range(250, 260);
    std::string k(len, '\0');
    for (auto& b : k) b = kAlphabet[ch_.Below(sizeof kAlphabet)];
    return k;
  }

  std::string PickKey(MCache* c) {
    if (!c->tree.empty() && c->tree.size() < 2000 && ch_.Percent(35)) {
      auto it = c->tree.begin();
      std::advance(it, ch_.Below(c->tree.size()));
      return it->first;  // a key that has a node
    }
    if (!c->pool.empty() && ch_.Percent(60))
      return c->pool[ch_.Below(c->pool.size())];
    std::string k = NewKey(c);
    Remember(c, k);
    return k;
  }

  void Remember(MCache* c, const std::string& k) {
    if (c->pool.size() < 256) {
      c->pool.push_back(k);
    } else {
      c->pool[ch_.Below(c->pool.size())] = k;
    }
  }

  int PickFlags() {
    int f = static_cast<int>(ch_.Below(0x10000)) << ch_.Below(9);
    f &= ~(CAREC_CALLBACK | CAREC_PINNED | CAREC_EXPIRES);
    if (ch_.Percent(60)) f |= CAREC_CALLBACK;
    if (ch_.Percent(8)) f |= CAREC_PINNED;
    if (ch_.Percent(20)) f |= CAREC_EXPIRES;
    if (ch_.Percent(5)) f |= static_cast<int>(0x80000000u);
    return f;
  }

  int PickSize() {
    uint32_t r = ch_.Below(100);
    if (r < 6) return 0;
    if (r < 60) return ch_.Range(1, 16);
    if (r < 98) return ch_.Range(17, 200);
    return ch_.Range(201, 3000);
  }

  int PickLength(MCache* c) {
    uint32_t r = ch_.Below(100);
    uint32_t budget = c->maxBytes;
    if (r < 10) return 0;
    if (r < 15 && budget > c->allocated && budget - c->allocated < 0x7fffffff) {
      // Land exactly on the budget, or one past it.
      return static_cast<int>(budget - c->allocated) +
             static_cast<int>(ch_.Below(2));
    }
    if (r < 17) return ch_.Range(0x10000000, 0x7fffffff);  // wraps allocated
    uint32_t top = budget / 6 + 1;
    if (top > 0x7fffffff) top = 0x7fffffff;
    return static_cast<int>(ch_.Below(top));
  }

  uint32_t PickBudget() {
    uint32_t r = ch_.Below(100);
    if (r < 20) return 0;
    if (r < 60) return static_cast<uint32_t>(ch_.Range(50, 3000));
    if (r < 85) return static_cast<uint32_t>(ch_.Range(3000, 200000));
    if (r < 97) return 1048576;
    return 0xffffffffu;
  }

  std::string PickName() {
    static const char* const kNames[] = {"",  "a",     "ab",      "abc",
                                         "b", "c\x80", "records", "other"};
    uint32_t r = ch_.Below(1000);
    if (r < 4) return std::string(255 + ch_.Below(3), 'n');  // too long
    if (r < 20) return std::string(254, 'm');
    return kNames[ch_.Below(sizeof kNames / sizeof kNames[0])];
  }

  // ---- Library calls with the model beside them -----------------------------

  void OpCreate(bool bulk) {
    if (handles_.size() >= 16) {
      CloseHandle(PickHandle());
      return;
    }
    std::string name;
    if (bulk) {
      name = "bulk" + std::to_string(ch_.Below(2));
    } else {
      name = PickName();
    }
    CAParams p;
    memset(&p, 0xA5, sizeof p);  // garbage the library must overwrite
    uint32_t budget = bulk ? 1048576 : PickBudget();
    p.maxBytes = budget;
    void* h = CA_CREATE(name.c_str(), &p);
    totals_.creates++;
    if (h == nullptr) Fail("CA_CREATE(\"%s\") returned null", name.c_str());
    if (handleCache_.count(h))
      Fail("CA_CREATE returned %p, an open handle's address", h);
    if (!inited_) ModelInit();
    auto it = caches_.find(name);
    MCache* c;
    if (it != caches_.end()) {
      c = it->second.get();
      std::fill(std::begin(c->stat), std::end(c->stat), 0);
      c->timing = 0;
      c->maxBytes = budget;
    } else {
      auto fresh = std::make_unique<MCache>();
      fresh->name = name;
      fresh->maxBytes = budget == 0 ? 1048576 : budget;
      fresh->bulk = bulk;
      c = fresh.get();
      caches_[name] = std::move(fresh);
    }
    c->handles.push_back(h);
    handles_.push_back(h);
    handleCache_[h] = c;
    ComparePar(c, p, "CA_CREATE");
    static const _CAStat zero = {};
    if (memcmp(&p.timing, &zero, sizeof zero) != 0)
      Fail("CA_CREATE of \"%s\": timing not all zero (count %lu)",
           Printable(name).c_str(), p.timing.count);
  }

  // With `spareDetached`, gives back every hold on a record that left
  // cache `c` (or any cache, for null) while held.
  void SpareDetached(MCache* c) {
    if (!opt_.spareDetached) return;
    for (size_t i = holds_.size(); i-- > 0;) {
      MRec* r = holds_[i];
      if (!r->attached && r->cache != nullptr &&
          (c == nullptr || r->cache == c))
        FreeHold(i);
    }
  }

  void CloseHandle(void* h) {
    MCache* c = handleCache_.at(h);
    if (c->handles.size() == 1) {
      SpareDetached(c);
      // FreeHold may have opened a cache, never closed this handle.
    }
    CA_CLOSE(h);
    totals_.closes++;
    handleCache_.erase(h);
    handles_.erase(std::find(handles_.begin(), handles_.end(), h));
    c->handles.erase(std::find(c->handles.begin(), c->handles.end(), h));
    // Closing any handle, the last one too, zeroes the budget and clears the
    // pinned and expiring bits of the records in the tree.
    c->maxBytes = 0;
    for (auto& kv : c->tree)
      if (kv.second != nullptr) kv.second->flags &= 0xF3FFFFFF;
    if (c->handles.empty()) {
      DestroyCache(c);
    } else {
      CheckCounters(c);
    }
    CheckCallbacks();
  }

  void OpInsert(bool size0 = false) {
    void* h = AnyHandle();
    MCache* c = handleCache_.at(h);
    std::string key = PickKey(c);
    int tag = static_cast<int>(ch_.Below(0x10000)) - 0x8000;
    int flags = PickFlags();
    int lifetime = ch_.Range(-2, 10);
    int size = size0 ? 0 : PickSize();
    int length = PickLength(c);
    Insert(h, key, tag, flags, lifetime, size, length);
  }

  void Insert(void* h, const std::string& key, int tag, int flags, int lifetime,
              int size, int length) {
    MCache* c = handleCache_.at(h);
    uint64_t id = nextId_++;
    std::string data = DataFor(id, static_cast<uint64_t>(size));
    const void* dp = size != 0 ? data.data() : nullptr;
    int got = CA_INSERT(h, tag, flags, lifetime, static_cast<int>(key.size()),
                        key.data(), size, length, dp);
    int want = ModelInsert(h, c, id, key, tag, flags, lifetime, size, length);
    if (opt_.verbose)
      fprintf(stderr,
              "  insert '%s' into '%s' size %d length %d flags %#x -> %d\n",
              Printable(key).c_str(), Printable(c->name).c_str(), size, length,
              flags, got);
    if (got != want)
      Fail("CA_INSERT key '%s' returned %d, model %d", Printable(key).c_str(),
           got, want);
    CheckCallbacks();
    CheckCounters(c);
  }

  void OpSearch() {
    if (handles_.empty()) return OpCreate(false);
    void* h = PickHandle();
    MCache* c = handleCache_.at(h);
    std::string key = PickKey(c);
    static const int kAges[] = {0, 0, 0, 1, 2, 3, 10, 1000, -1, -7};
    int maxAge = kAges[ch_.Below(sizeof kAges / sizeof kAges[0])];
    void* got = CA_SEARCH(h, maxAge, static_cast<int>(key.size()), key.data());
    Count(c, CASTAT_SEARCH, true);
    auto it = c->tree.find(key);
    MRec* r = it == c->tree.end() ? nullptr : it->second;
    // A negative limit never hits; otherwise the age must stay below it.
    if (r != nullptr && maxAge != 0 &&
        static_cast<long>(g_now - r->created) >= maxAge)
      r = nullptr;
    if ((got != nullptr) != (r != nullptr))
      Fail("CA_SEARCH '%s' maxAge %d: got %p, model %s", Printable(key).c_str(),
           maxAge, got, r ? "hit" : "miss");
    if (r == nullptr) {
      totals_.misses++;
      return;
    }
    totals_.hits++;
    r->hits++;
    r->ref++;
    Count(c, CASTAT_SEARCH_HIT, false);
    Learn(r, got);
    holds_.push_back(r);
    if (holds_.size() > 300) FreeHold(ch_.Below(holds_.size()));
    if (ch_.Percent(30)) Query(h, r);
  }

  void OpQueryHold() {
    if (holds_.empty()) return;
    Query(AnyHandle(), holds_[ch_.Below(holds_.size())]);
  }

  void FreeHold(size_t index) {
    MRec* r = holds_[index];
    holds_.erase(holds_.begin() + index);
    void* h = AnyHandle();
    MCache* hc = handleCache_.at(h);
    MCache* rc = r->cache;
    CA_FREE(h, r->ptr);
    totals_.frees++;
    Count(hc, CASTAT_RELEASE, true);
    if (r->ref > 0) r->ref--;
    if (!r->attached && r->ref == 0) Destroy(r);
    CheckCallbacks();
    CheckCounters(hc);
    if (rc != nullptr && rc != hc) CheckCounters(rc);
  }

  void EraseHold(size_t index) {
    MRec* r = holds_[index];
    holds_.erase(holds_.begin() + index);
    void* h = AnyHandle();
    EraseRecord(h, r);
  }

  // The host's erase of `r` through `h`; the caller has already dropped the
  // hold it gives back (if any) from `holds_`.
  void EraseRecord(void* h, MRec* r) {
    MCache* hc = handleCache_.at(h);
    MCache* rc = r->cache;
    CA_ERASE(h, r->ptr);
    totals_.erases++;
    if (r->ref > 0) r->ref--;
    Unlink(r, false);
    Count(hc, CASTAT_ERASE, true);
    CheckCallbacks();
    if (caches_.count(hc->name)) CheckCounters(hc);
    if (rc != nullptr && rc != hc) CheckCounters(rc);
  }

  void Query(void* h, MRec* r) {
    MCache* hc = handleCache_.at(h);
    CAQuery q;
    memset(&q, 0x5A, sizeof q);
    int got = CA_QUERY(h, r->ptr, &q);
    if (got != 1) Fail("CA_QUERY of record %p returned %d", r->ptr, got);
    Count(hc, CASTAT_QUERY, true);
    std::string data = DataFor(r->id, r->size);
    int age = static_cast<int>(static_cast<uint32_t>(g_now) -
                               static_cast<uint32_t>(r->created));
    if (q.hits != static_cast<int>(r->hits) || q.tag != r->tag ||
        q.flags != r->flags || q.age != age ||
        q.dataLength != static_cast<int>(r->size) ||
        q.length != static_cast<int>(r->length))
      Fail(
          "CA_QUERY of '%s': hits %d/%u tag %d/%d flags %#x/%#x age %d/%d "
          "dataLength %d/%llu length %d/%llu (library/model)",
          Printable(r->key).c_str(), q.hits, r->hits, q.tag, r->tag, q.flags,
          r->flags, q.age, age, q.dataLength,
          static_cast<unsigned long long>(r->size), q.length,
          static_cast<unsigned long long>(r->length));
    if (r->size != 0 && memcmp(q.data, data.data(), r->size) != 0)
      Fail("CA_QUERY of '%s': data bytes differ", Printable(r->key).c_str());
    if (r->attached) {
      if (q.keyLength != static_cast<int>(r->key.size()) ||
          (q.key == nullptr && !r->key.empty()) ||
          (!r->key.empty() && memcmp(q.key, r->key.data(), r->key.size())))
        Fail("CA_QUERY of attached '%s': key length %d or bytes differ",
             Printable(r->key).c_str(), q.keyLength);
    } else if (q.keyLength != 0 || q.key != nullptr) {
      Fail("CA_QUERY of detached '%s': keyLength %d key %p, want 0 and null",
           Printable(r->key).c_str(), q.keyLength, q.key);
    }
  }

  void OpList(bool bulkErase) {
    if (handles_.empty()) return;
    void* h = PickHandle();
    MCache* c = handleCache_.at(h);
    if (bulkErase) {
      for (void* b : handles_)
        if (handleCache_[b]->bulk) h = b;
      c = handleCache_.at(h);
    } else if (c->nodes > 4000) {
      return;  // walking big caches is the bulk erase's business
    }
    int count = -12345;
    void** list = CA_LIST(h, &count);
    totals_.lists++;
    size_t attached = 0;
    for (auto& kv : c->tree) attached += kv.second != nullptr;
    if (c->nodes == 0) {
      if (list != nullptr || count != 0)
        Fail("CA_LIST of a cache without nodes: %p count %d", (void*)list,
             count);
      return;
    }
    if (list == nullptr) Fail("CA_LIST returned null with %u nodes", c->nodes);
    if (count != static_cast<int>(attached))
      Fail("CA_LIST count %d, model %zu records", count, attached);
    // The list is the tree's records in pre-order.
    std::vector<void*> pre;
    BTree* root = static_cast<CACacheAction*>(h)->cache->tree;
    std::vector<BTree*> stack;
    if (root != nullptr) stack.push_back(root);
    while (!stack.empty()) {
      BTree* n = stack.back();
      stack.pop_back();
      if (n->payload != nullptr) pre.push_back(n->payload);
      if (n->right != nullptr) stack.push_back(n->right);
      if (n->left != nullptr) stack.push_back(n->left);
    }
    if (pre.size() != attached)
      Fail("tree holds %zu records, model %zu", pre.size(), attached);
    for (int i = 0; i < count; i++) {
      if (list[i] != pre[i])
        Fail("CA_LIST entry %d is %p, pre-order has %p", i, list[i], pre[i]);
      CARecord* lr = static_cast<CARecord*>(list[i]);
      std::string key(reinterpret_cast<char*>(lr->node->key),
                      lr->node->keyLength);
      auto it = c->tree.find(key);
      if (it == c->tree.end() || it->second == nullptr)
        Fail("CA_LIST lists '%s', which the model has no record for",
             Printable(key).c_str());
      Learn(it->second, list[i]);
    }
    for (uint32_t i = static_cast<uint32_t>(count); i < c->nodes; i++)
      if (list[i] != nullptr) Fail("CA_LIST entry %u past the count is set", i);
    // Erase some listed records: those the model still knows alive.
    uint32_t toErase = bulkErase ? static_cast<uint32_t>(count)
                                 : (ch_.Percent(40) ? ch_.Below(4) : 0);
    uint32_t keepOneIn = bulkErase ? 1 + ch_.Below(8) : 1;
    for (uint32_t i = 0; i < toErase && i < static_cast<uint32_t>(count); i++) {
      uint32_t idx = bulkErase ? i : ch_.Below(count);
      if (bulkErase && keepOneIn > 1 && idx % keepOneIn == 0) continue;
      auto pit = byPtr_.find(list[idx]);
      if (pit == byPtr_.end()) continue;  // destroyed meanwhile
      MRec* r = pit->second;
      if (r->ref > 0) {
        // The erase gives back one of our holds.
        holds_.erase(std::find(holds_.begin(), holds_.end(), r));
      }
      EraseRecord(h, r);
    }
    CA_LIST_FREE(h, list);
  }

  void OpClock() {
    uint32_t r = ch_.Below(100);
    if (r < 50) {
      g_now += 1;
    } else if (r < 75) {
      g_now += ch_.Range(2, 6);
    } else if (r < 90) {
      g_now += ch_.Range(7, 120);
    } else if (r < 96) {
      g_now += 3600;
    } else {
      g_now -= ch_.Range(1, 3);  // the wall clock was set back
    }
  }

  void OpGetStat() {
    _CAStat s;
    bool library = handles_.empty() || ch_.Percent(40);
    int slot = static_cast<int>(ch_.Below(8));
    if (ch_.Percent(5)) slot = ch_.Percent(50) ? -1 : 8;
    memset(&s, 0x77, sizeof s);
    if (library) {
      int got = CA_GETSTAT(nullptr, slot, &s);
      if (!inited_) ModelInit();
      if (got != 1) Fail("CA_GETSTAT(null, %d) returned %d", slot, got);
      uint64_t want = slot >= 0 && slot < 8 ? main_[slot] : 0;
      if (s.count != want)
        Fail("library slot %d count %lu, model %llu", slot, s.count,
             static_cast<unsigned long long>(want));
    } else {
      void* h = PickHandle();
      MCache* c = handleCache_.at(h);
      int got = CA_GETSTAT(h, slot, &s);
      if (got != 1) Fail("CA_GETSTAT(handle, %d) returned %d", slot, got);
      uint64_t want = slot >= 0 && slot < 8 ? c->stat[slot] : 0;
      if (s.count != want)
        Fail("cache '%s' slot %d count %lu, model %llu",
             Printable(c->name).c_str(), slot, s.count,
             static_cast<unsigned long long>(want));
    }
  }

  void OpSetFree() {
    bool install = ch_.Percent(85);
    int got = CA_SETFREE(install ? &ReleaseCallback : nullptr);
    if (!inited_) ModelInit();
    if (got != (callback_ ? 1 : 0))
      Fail("CA_SETFREE returned %d with a callback %s installed", got,
           callback_ ? "" : "not");
    callback_ = install;
  }

  void OpBadHandle() {
    // Null, foreign, and a handle magic followed by non-zero bytes.
    alignas(8) unsigned char fake[64];
    memset(fake, 0, sizeof fake);
    memcpy(fake, "CAAC", 4);
    fake[4 + ch_.Below(4)] = static_cast<unsigned char>(1 + ch_.Below(255));
    alignas(8) unsigned char foreign[64];
    memset(foreign, 0x33, sizeof foreign);
    void* bad[] = {nullptr, fake, foreign};
    void* h = bad[ch_.Below(3)];
    const char key[] = "a";
    char data[4] = {1, 2, 3, 4};
    Expect(CA_INSERT(h, 1, 0, 0, 1, key, 4, 4, data) == -1,
           "CA_INSERT with a bad handle did not return -1");
    Expect(CA_SEARCH(h, 0, 1, key) == nullptr,
           "CA_SEARCH with a bad handle found something");
    CAQuery q;
    Expect(CA_QUERY(h, data, &q) == 0, "CA_QUERY with a bad handle");
    int count = 77;
    Expect(CA_LIST(h, &count) == nullptr && count == 77,
           "CA_LIST with a bad handle");
    CA_FREE(h, data);
    CA_ERASE(h, data);
    CA_LIST_FREE(h, data);
    CA_CLOSE(h);
    CAParams p;
    memset(&p, 0x44, sizeof p);
    CAParams before = p;
    int got = CA_GETCACHESTAT(h, &p);
    if (!inited_) ModelInit();
    Expect(got == 0 && memcmp(&p, &before, sizeof p) == 0,
           "CA_GETCACHESTAT with a bad handle");
    _CAStat s;
    memset(&s, 0x55, sizeof s);
    static const _CAStat zero = {};
    if (h != nullptr) {
      Expect(CA_GETSTAT(h, 0, &s) == 0 && memcmp(&s, &zero, sizeof s) == 0,
             "CA_GETSTAT with a bad handle");
    }
    if (fake[0] != 'C' || foreign[0] != 0x33) Fail("a bad handle was written");
    for (auto& kv : caches_) CheckCounters(kv.second.get());
    CheckCallbacks();
  }

  void OpBulkInsert() {
    // Many distinct keys in one of two big caches: enough churn to pass the
    // rebuild threshold of 20,000 free nodes.
    MCache* c = nullptr;
    for (void* h : handles_)
      if (handleCache_[h]->bulk && ch_.Percent(70)) c = handleCache_[h];
    if (c == nullptr) {
      OpCreate(true);
      for (void* h : handles_)
        if (handleCache_[h]->bulk) c = handleCache_[h];
      if (c == nullptr) return;
    }
    if (c->nodes > 120000) {
      // Big enough: closing a handle either drops the cache or, with other
      // handles left, sets its budget to 0 so that inserts evict.
      CloseHandle(c->handles.front());
      return;
    }
    uint32_t n = 200 + ch_.Below(opt_.maxBulk);
    if (c->maxBytes < 1048576 || c->allocated > 1048576 - 3 * n) {
      // Over budget every insert would grade the whole cache: open one more
      // handle with a budget of 1 MiB first (or leave the cache alone).
      if (handles_.size() >= 16 || c->allocated > 1048576 - 3 * n) return;
      ReopenBulk(c);
    }
    void* h = c->handles[ch_.Below(c->handles.size())];
    for (uint32_t i = 0; i < n; i++) {
      std::string key(6, '\0');
      for (auto& b : key) b = static_cast<char>(ch_.Below(256));
      int flags = ch_.Percent(50) ? CAREC_CALLBACK : 0;
      if (ch_.Percent(2)) flags |= CAREC_EXPIRES;
      int size = ch_.Range(0, 4);
      int length = ch_.Range(0, 3);
      uint64_t id = nextId_++;
      std::string data = DataFor(id, static_cast<uint64_t>(size));
      int got = CA_INSERT(h, 0, flags, 0, static_cast<int>(key.size()),
                          key.data(), size, length, data.data());
      int want = ModelInsert(h, c, id, key, 0, flags, 0, size, length);
      if (got != want)
        Fail("bulk CA_INSERT %u returned %d, model %d", i, got, want);
      if (i % 64 == 0) Remember(c, key);
      if ((i & 255) == 0) {
        CheckCallbacks();
        CheckCounters(c);
      }
    }
    CheckCallbacks();
    CheckCounters(c);
    // Sometimes open a second handle and close it: the budget drops to 0, so
    // the next insert evicts everything older than this second.
    if (ch_.Percent(30) && handles_.size() < 16) CloseHandle(ReopenBulk(c));
  }

  // Opens one more handle on bulk cache `c` with a budget of 1 MiB.
  void* ReopenBulk(MCache* c) {
    CAParams p;
    memset(&p, 0, sizeof p);
    p.maxBytes = 1048576;
    void* h2 = CA_CREATE(c->name.c_str(), &p);
    std::fill(std::begin(c->stat), std::end(c->stat), 0);
    c->timing = 0;
    c->maxBytes = 1048576;
    c->handles.push_back(h2);
    handles_.push_back(h2);
    handleCache_[h2] = c;
    ComparePar(c, p, "CA_CREATE of a bulk cache");
    return h2;
  }

  // ---- The model's operations ---------------------------------------------

  void ModelInit() {
    inited_ = true;
    std::fill(std::begin(main_), std::end(main_), 0);
  }

  void ModelDeinit() {
    if (!inited_) return;
    inited_ = false;
    std::vector<MCache*> all;
    for (auto& kv : caches_) all.push_back(kv.second.get());
    for (MCache* c : all) {
      for (void* h : c->handles) {
        handleCache_.erase(h);
        handles_.erase(std::find(handles_.begin(), handles_.end(), h));
      }
      c->handles.clear();
      DestroyCache(c);
    }
    totals_.deinits++;
  }

  // Adds one value to `slot` of the cache (and its timing, for a handle
  // operation) and of the library.
  void Count(MCache* c, int slot, bool handleOp) {
    if (handleOp) c->timing++;
    c->stat[slot]++;
    if (inited_) main_[slot]++;
  }

  void Learn(MRec* r, void* p) {
    if (r->ptr != nullptr && r->ptr != p)
      Fail("record '%s' was %p, now %p", Printable(r->key).c_str(), r->ptr, p);
    auto it = byPtr_.find(p);
    if (it != byPtr_.end() && it->second != r)
      Fail("pointer %p names two live records ('%s' and '%s')", p,
           Printable(it->second->key).c_str(), Printable(r->key).c_str());
    r->ptr = p;
    byPtr_[p] = r;
  }

  int ModelInsert(void* h, MCache* c, uint64_t id, const std::string& key,
                  int tag, int flags, int lifetime, int size, int length) {
    (void)h;
    totals_.inserts++;
    auto it = c->tree.find(key);
    bool existed = it != c->tree.end();
    bool due = false;
    if (!existed) {
      it = c->tree.emplace(key, nullptr).first;
      c->nodes++;
      c->used++;
      totals_.maxNodes = std::max<uint64_t>(totals_.maxNodes, c->nodes);
    } else {
      if (it->second != nullptr) {
        totals_.replaced++;
        // The free-node trigger of the replacement waits for the new record.
        MRec* old = it->second;
        it->second = nullptr;
        old->attached = false;
        c->used--;
        due = FreeCount(c) > 20000;
        if (old->ref == 0) Destroy(old);
      }
      c->used++;
    }
    auto rec = std::make_unique<MRec>();
    MRec* r = rec.get();
    r->id = id;
    r->cache = c;
    r->key = key;
    r->tag = tag;
    r->flags = flags;
    r->lifetime = lifetime;
    r->size = static_cast<uint64_t>(static_cast<int64_t>(size));
    r->length = static_cast<uint64_t>(static_cast<int64_t>(length));
    r->created = g_now;
    recs_[id] = std::move(rec);
    int result = existed ? 0 : 1;
    if (size == 0) {
      totals_.dropped++;
      Destroy(r, false);
      if (due) TriggerFree(c);
      return result;
    }
    c->tree[key] = r;
    r->attached = true;
    c->allocated += static_cast<uint32_t>(r->length);
    // A charge over the budget runs the pass that also serves the deferred
    // free-node trigger.
    if (c->allocated > c->maxBytes) {
      TriggerFree(c);
    } else if (due) {
      TriggerFree(c);
    }
    Count(c, CASTAT_INSERT, true);
    return result;
  }

  static uint32_t FreeCount(const MCache* c) { return c->nodes - c->used; }

  uint64_t TotalNodes() const {
    uint64_t n = 0;
    for (auto& kv : caches_) n += kv.second->tree.size();
    return n;
  }

  // Takes `r` out of its tree node (if attached), with the free-node trigger
  // (suppressed while a pass runs), then destroys it when nobody holds it.
  void Unlink(MRec* r, bool inPass) {
    if (r->attached && r->cache != nullptr) {
      MCache* c = r->cache;
      c->tree[r->key] = nullptr;
      r->attached = false;
      c->used--;
      if (!inPass && FreeCount(c) > 20000) TriggerFree(c);
    }
    r->attached = false;
    if (r->ref == 0) Destroy(r);
  }

  // `charged`: the record's length was added to its cache (a dropped record
  // of size 0 never was).
  void Destroy(MRec* r, bool charged = true) {
    if (charged && r->cache != nullptr)
      r->cache->allocated -= static_cast<uint32_t>(r->length);
    if ((r->flags & CAREC_CALLBACK) != 0 && callback_)
      expected_.push_back(Seen{r->flags, r->size, DataFor(r->id, r->size)});
    if (r->ptr != nullptr) byPtr_.erase(r->ptr);
    recs_.erase(r->id);
  }

  void DestroyCache(MCache* c) {
    // Unheld records go with the cache; held ones forget it.
    for (auto& kv : c->tree) {
      MRec* r = kv.second;
      if (r == nullptr) continue;
      kv.second = nullptr;
      r->attached = false;
      if (r->ref == 0) {
        Destroy(r);
      }
    }
    for (auto& kv : recs_)
      if (kv.second->cache == c) kv.second->cache = nullptr;
    caches_.erase(c->name);
  }

  void TriggerFree(MCache* c) {
    if (busy_) return;
    busy_ = true;
    Compress(c);
    Rebuild(c);
    busy_ = false;
  }

  static double Grade(const MRec* r, uint32_t budget, time_t freeTime) {
    if (r->flags & CAREC_PINNED) return 0;
    long age = static_cast<long>(freeTime - r->created);
    if (r->flags & CAREC_EXPIRES) return r->lifetime <= age ? -1 : 0;
    if (r->ref != 0) return 0;
    if (age == 0) return 0;
    double uses = static_cast<double>(static_cast<uint64_t>(r->hits) + 1);
    return (static_cast<double>(age + 1) / uses) * static_cast<double>(budget) +
           static_cast<double>(r->length);
  }

  void Sort(std::vector<double>& g, std::vector<MRec*>& c, int lo, int hi) {
    while (lo < hi) {
      double pivot = g[(lo + hi) / 2];
      int i = lo, j = hi;
      do {
        while (g[i] > pivot) ++i;
        while (g[j] < pivot) --j;
        if (i < j) {
          std::swap(g[i], g[j]);
          std::swap(c[i], c[j]);
          ++i;
          --j;
        } else if (i == j) {
          ++i;
          --j;
        }
      } while (i <= j);
      // The two parts are disjoint: the smaller one recursively.
      if (j - lo < hi - i) {
        if (j > lo) Sort(g, c, lo, j);
        lo = i;
      } else {
        if (i < hi) Sort(g, c, i, hi);
        hi = j;
      }
    }
  }

  void Compress(MCache* c) {
    uint32_t mark = c->maxBytes - c->maxBytes / 10;
    if (c->allocated <= mark) return;
    totals_.passes++;
    int64_t remaining = static_cast<int64_t>(c->allocated - mark);
    std::vector<double> grades;
    std::vector<MRec*> cands;
    for (auto& kv : c->tree) {
      if (kv.second == nullptr) continue;
      double g = Grade(kv.second, c->maxBytes, g_now);
      if (g == 0) continue;
      grades.push_back(g < 0 ? 1e10 : g);
      cands.push_back(kv.second);
    }
    int n = static_cast<int>(grades.size());
    if (n >= 2) Sort(grades, cands, 0, n - 1);
    for (int i = 0; i < n; i++) {
      if (remaining <= 0 && grades[i] < 1e9) break;
      MRec* r = cands[i];
      if (!r->attached) continue;
      remaining -= static_cast<int64_t>(r->length);
      totals_.evicted++;
      // Eviction's erase keeps the host's holds.
      Unlink(r, true);
      Count(c, CASTAT_ERASE, true);
    }
    Count(c, 6, false);
  }

  void Rebuild(MCache* c) {
    if (FreeCount(c) <= 20000) return;
    totals_.rebuilds++;
    for (auto it = c->tree.begin(); it != c->tree.end();) {
      if (it->second == nullptr) {
        it = c->tree.erase(it);
      } else {
        ++it;
      }
    }
    c->nodes = c->used = static_cast<uint32_t>(c->tree.size());
    Count(c, 7, false);
  }

  // ---- Comparisons ---------------------------------------------------------

  void ComparePar(MCache* c, const CAParams& p, const char* call) {
    if (p.maxBytes != c->maxBytes || p.allocated != c->allocated ||
        p.nodes != c->nodes || p.usedNodes != c->used ||
        p.timing.count != c->timing)
      Fail(
          "%s of '%s': maxBytes %u/%u allocated %u/%u nodes %u/%u usedNodes "
          "%u/%u timing count %lu/%llu (library/model)",
          call, Printable(c->name).c_str(), p.maxBytes, c->maxBytes,
          p.allocated, c->allocated, p.nodes, c->nodes, p.usedNodes, c->used,
          p.timing.count, static_cast<unsigned long long>(c->timing));
  }

  // Both sides of a cache, for the divergence report (verbose runs).
  void Dump(MCache* c) {
    if (!opt_.verbose || c->handles.empty()) return;
    fprintf(stderr, "model '%s' maxBytes %u allocated %u nodes %u used %u:\n",
            Printable(c->name).c_str(), c->maxBytes, c->allocated, c->nodes,
            c->used);
    for (auto& kv : recs_) {
      MRec* r = kv.second.get();
      if (r->cache != c) continue;
      fprintf(stderr,
              "  '%s' len %llu ref %d att %d created %lld flags %#x life %ld "
              "hits %u ptr %p\n",
              Printable(r->key).c_str(), (unsigned long long)r->length, r->ref,
              r->attached, (long long)r->created, r->flags, r->lifetime,
              r->hits, r->ptr);
    }
    fprintf(stderr, "library:\n");
    std::vector<BTree*> stack;
    BTree* root = static_cast<CACacheAction*>(c->handles[0])->cache->tree;
    if (root != nullptr) stack.push_back(root);
    while (!stack.empty()) {
      BTree* n = stack.back();
      stack.pop_back();
      if (n->left) stack.push_back(n->left);
      if (n->right) stack.push_back(n->right);
      CARecord* r = static_cast<CARecord*>(n->payload);
      std::string key(reinterpret_cast<char*>(n->key), n->keyLength);
      if (r == nullptr) {
        fprintf(stderr, "  '%s' empty\n", Printable(key).c_str());
      } else {
        fprintf(stderr, "  '%s' len %lu ref %d created %lld ptr %p\n",
                Printable(key).c_str(), r->length, r->refCount,
                (long long)r->created, (void*)r);
      }
    }
  }

  void CheckCounters(MCache* c) {
    if (c->handles.empty()) return;
    CAParams p;
    memset(&p, 0xC3, sizeof p);
    if (CA_GETCACHESTAT(c->handles[0], &p) != 1)
      Fail("CA_GETCACHESTAT on an open handle did not return 1");
    if (p.allocated != c->allocated || p.usedNodes != c->used) Dump(c);
    ComparePar(c, p, "CA_GETCACHESTAT");
    // The reclamation slots, which no host operation fills.
    for (int slot = CASTAT_ERASE; slot <= CASTAT_REBUILD; slot++) {
      _CAStat s;
      CA_GETSTAT(nullptr, slot, &s);
      if (s.count != main_[slot]) {
        Dump(c);
        Fail("library slot %d count %lu, model %llu", slot, s.count,
             static_cast<unsigned long long>(main_[slot]));
      }
      CA_GETSTAT(c->handles[0], slot, &s);
      if (s.count != c->stat[slot])
        Fail("cache '%s' slot %d count %lu, model %llu",
             Printable(c->name).c_str(), slot, s.count,
             static_cast<unsigned long long>(c->stat[slot]));
    }
  }

  void CheckCallbacks() {
    if (g_seen.empty() && expected_.empty()) return;
    std::sort(g_seen.begin(), g_seen.end());
    std::sort(expected_.begin(), expected_.end());
    if (!(g_seen == expected_)) {
      size_t i = 0;
      while (i < g_seen.size() && i < expected_.size() &&
             g_seen[i] == expected_[i])
        i++;
      Fail(
          "release callback: %zu calls, model expects %zu (first difference "
          "at %zu: library flags %#x size %llu, model flags %#x size %llu)",
          g_seen.size(), expected_.size(), i,
          i < g_seen.size() ? g_seen[i].flags : 0,
          i < g_seen.size() ? static_cast<unsigned long long>(g_seen[i].size)
                            : 0ull,
          i < expected_.size() ? expected_[i].flags : 0,
          i < expected_.size()
              ? static_cast<unsigned long long>(expected_[i].size)
              : 0ull);
    }
    totals_.callbacks += g_seen.size();
    g_seen.clear();
    expected_.clear();
  }

  // Runs BTree::CheckTreeRoot with stdout captured; returns what it printed.
  static std::string CheckTreeCaptured(BTree* root, int* count) {
    fflush(stdout);
    int saved = dup(1);
    FILE* tmp = tmpfile();
    dup2(fileno(tmp), 1);
    *count = root->CheckTreeRoot();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    std::string out;
    char buf[512];
    rewind(tmp);
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, tmp)) > 0) out.append(buf, n);
    fclose(tmp);
    return out;
  }

  // Compares every cache's tree, records and counters with the model, runs
  // both self-checks and sees that CA_CHECKCACHE's verdict is the model's.
  void FullCheck() {
    const char* saved = op_;
    op_ = "full check";
    totals_.fullChecks++;
    bool fault = false;
    for (auto& kv : caches_) {
      MCache* c = kv.second.get();
      CACache* lc = static_cast<CACacheAction*>(c->handles[0])->cache;
      if (c->nodes != c->tree.size())
        Fail("model of '%s': nodes %u but %zu keys", Printable(c->name).c_str(),
             c->nodes, c->tree.size());
      uint32_t sum = 0;
      for (auto& rk : recs_)
        if (rk.second->cache == c)
          sum += static_cast<uint32_t>(rk.second->length);
      if (sum != c->allocated)
        Fail("model of '%s': allocated %u, live lengths %u",
             Printable(c->name).c_str(), c->allocated, sum);
      CheckCounters(c);
      BTree* root = lc->tree;
      if (root == nullptr) {
        if (!c->tree.empty())
          Fail("'%s' has no tree, model %zu nodes", Printable(c->name).c_str(),
               c->tree.size());
        continue;
      }
      if (root->parentLink != &lc->tree) Fail("root's parentLink is wrong");
      int count = 0;
      std::string printed = CheckTreeCaptured(root, &count);
      totals_.treeChecks++;
      if (!printed.empty())
        Fail("CheckTreeRoot of '%s' printed: %.300s",
             Printable(c->name).c_str(), printed.c_str());
      if (count != static_cast<int>(c->tree.size()))
        Fail("CheckTreeRoot counted %d nodes, model %zu", count,
             c->tree.size());
      // In-order walk of the real tree against the model's key order.
      auto mit = c->tree.begin();
      std::vector<BTree*> stack;
      BTree* n = root;
      while (n != nullptr || !stack.empty()) {
        while (n != nullptr) {
          stack.push_back(n);
          n = n->left;
        }
        n = stack.back();
        stack.pop_back();
        std::string key(reinterpret_cast<char*>(n->key), n->keyLength);
        if (mit == c->tree.end() || mit->first != key)
          Fail("tree key '%s' where the model has '%s'", Printable(key).c_str(),
               mit == c->tree.end() ? "(end)" : Printable(mit->first).c_str());
        if (n->keyLength == 0 || n->keyLength > 255 || n->leftHeight > 2000 ||
            n->rightHeight > 2000)
          fault = true;
        MRec* r = mit->second;
        if ((n->payload != nullptr) != (r != nullptr))
          Fail("node '%s' payload %p, model %s", Printable(key).c_str(),
               n->payload, r ? "a record" : "empty");
        if (r != nullptr) {
          CARecord* lr = static_cast<CARecord*>(n->payload);
          if (lr->node != n || lr->cache != lc)
            Fail("record of '%s' does not point back at its node and cache",
                 Printable(key).c_str());
          Learn(r, lr);
          Query(c->handles[0], r);
        }
        ++mit;
        n = n->right;
      }
      if (mit != c->tree.end())
        Fail("tree ends before the model's key '%s'",
             Printable(mit->first).c_str());
    }
    // Held records, detached ones included.
    for (MRec* r : holds_) Query(AnyHandle(), r);
    // Statistic counts of the library and of every cache.
    for (int slot = 0; slot < 8; slot++) {
      _CAStat s;
      if (inited_) {
        CA_GETSTAT(nullptr, slot, &s);
        if (s.count != main_[slot])
          Fail("library slot %d count %lu, model %llu", slot, s.count,
               static_cast<unsigned long long>(main_[slot]));
      }
      for (auto& kv : caches_) {
        MCache* c = kv.second.get();
        CA_GETSTAT(c->handles[0], slot, &s);
        if (s.count != c->stat[slot])
          Fail("cache '%s' slot %d count %lu, model %llu",
               Printable(c->name).c_str(), slot, s.count,
               static_cast<unsigned long long>(c->stat[slot]));
      }
    }
    // The structure check: silent or reported. (The queries above may have
    // opened a cache: names are looked at only now.)
    for (auto& kv : caches_)
      if (kv.first.size() > 254) fault = true;
    if (fault) totals_.faultVerdicts++;
    int want = checkOn_ && inited_ && fault ? 1 : 0;
    unsigned int traceId = ch_.Percent(20) ? 7 : 0;
    YBTRACE_Clear();
    int got = CA_CHECKCACHE(traceId);
    if (got != want) {
      // The report's text entries say what the check took for a fault.
      std::string report;
      for (size_t i = 0; i < YBTRACE_Count() && report.size() < 400; i++) {
        YBTRACE_Entry e;
        if (YBTRACE_Get(i, &e) && e.kind == YBTRACE_KIND_TEXT)
          report += std::string(" | ") + e.text;
      }
      Fail("CA_CHECKCACHE(%u) returned %d, model %d%s", traceId, got, want,
           report.c_str());
    }
    size_t entries = YBTRACE_Count();
    if ((traceId != 0 && want == 1) != (entries != 0))
      Fail("CA_CHECKCACHE(%u) with verdict %d left %zu trace entries", traceId,
           got, entries);
    YBTRACE_Clear();
    CheckCallbacks();
    op_ = saved;
  }

  Chooser& ch_;
  Options opt_;
  Totals totals_;
  std::string error_;
  const char* op_ = "";

  std::map<std::string, std::unique_ptr<MCache>> caches_;
  // Open handles in the order they were opened: picking by index keeps a
  // seed's run independent of the addresses the allocator hands out.
  std::vector<void*> handles_;
  std::unordered_map<void*, MCache*> handleCache_;
  std::unordered_map<uint64_t, std::unique_ptr<MRec>> recs_;
  std::unordered_map<void*, MRec*> byPtr_;
  std::vector<MRec*> holds_;
  std::vector<Seen> expected_;
  uint64_t main_[8] = {};
  uint64_t nextId_ = 1;
  bool inited_ = false;
  bool busy_ = false;
  bool callback_ = false;
  bool checkOn_ = false;
};

}  // namespace qmmodel

#endif  // QMCACHE_TESTS_MODEL_MODEL_H
