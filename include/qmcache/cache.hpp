// SPDX-License-Identifier: MIT
// libqmcache for C++ hosts: caches and holds that give themselves back.
//
// A header-only layer over the C calls of qmcache.h; it adds no symbol to
// libqmcache.so. Namespace `qm`.
//
//   qm::Cache        a handle on a named cache, closed on destruction. Takes
//                    no lock: use it from one thread at a time.
//   qm::SharedCache  the same operations, safe to call from any thread; it
//                    takes the locks the library asks its hosts to take
//                    (see "Locks" below).
//   qm::Hold         a record found by find(): the record stays alive while
//                    the hold lives, and the hold is given back exactly once,
//                    on destruction or reset().
//
//   qm::SharedCache pages("pages", 1 << 20);          // 1 MiB budget
//   pages.insert("/index", body, {/*tag*/ 1});
//   if (qm::Hold page = pages.find("/index", 60))    // younger than 60 s
//     send(page.data());                             // a view of the record
//   // the hold is given back here
//
// Results are the library's own: insert() gives 1 for a new key, 0 for a
// replaced one and -1 for a refused call (qm::kAdded, kReplaced, kRefused);
// find() gives an empty hold for a miss or a refused call. An argument that
// the C interface cannot carry (a key, a data block or a length of more than
// INT_MAX bytes, a null data pointer with a size) is refused here, before it
// reaches the library. Nothing here throws apart from std::bad_alloc, and no
// destructor lets an exception out.
//
// Lifetimes. A hold keeps its handle open: a Cache destroyed while holds of
// it are out closes its handle when the last of them is given back. Destroy
// every Cache and Hold before CA_DEINIT, which frees the handles.
//
// Locks (qm::SharedCache). The library takes no lock for cache work; it asks
// a multi-threaded host to serialise
//  - every call on one cache: the key tree, the records and their hold
//    counts and the cache's counters are plain memory. So each cache has
//    one lock, shared by every SharedCache open on its name, taken by every
//    call on the cache: find, insert, erase, the listing, params(),
//    stats(), a hold's accessors, and a hold given back, from whatever
//    thread;
//  - every call that can start reclamation, on any cache: an insert (its
//    charge can pass the budget; a replacement empties a tree node) and an
//    erase (an emptied node can pass the free-node limit). The eviction pass
//    and the tree rebuild work in the controller's process-wide arrays, so
//    insert() and erase() also hold one process-wide lock, qm::processLock().
//    Giving a hold back never starts reclamation (at most it destroys a
//    record that already left its tree), so it takes the cache's lock alone;
//  - opening and closing, which change the registry of cache names and the
//    controller's list: these hold the process-wide lock as well.
// The process-wide lock is always taken before a cache's lock. Code that
// calls the C interface beside SharedCache in the same process holds
// qm::processLock() around its own inserts, erases, opens and closes, and
// leaves the caches that SharedCache has open to it.
//
// No lock is needed for the library-wide statistic (CA_GETSTAT with a null
// handle) that every timed call adds to: it keeps each thread's additions
// apart and loses none, so calls on separate caches run in parallel.
//
// The release callback (CA_SETFREE) stays the library's one per process.
// With SharedCache it runs inside the call that destroys the record, on that
// thread, under that call's locks, which are not re-entrant: it must not
// call a SharedCache. Copy the data out and deal with it after the call.
// A multi-threaded host that installs the trace log calls CA_INIT(0) first,
// so that the log's own lock locks.
//
// The process-wide lock and the table of cache locks are inline objects of
// this header, one per program: a host that uses the layer from several
// shared objects gives them default visibility.
#ifndef QMCACHE_CACHE_HPP
#define QMCACHE_CACHE_HPP

#include <pthread.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "qmcache/qmcache.h"

namespace qm {

// insert()'s results.
inline constexpr int kAdded = 1;     // the key was new
inline constexpr int kReplaced = 0;  // the key's record was replaced
inline constexpr int kRefused = -1;  // no open handle, or a bad argument

// Record flags (InsertOptions::flags); other bits are the host's own.
inline constexpr int kCallback = CAREC_CALLBACK;  // call the release callback
inline constexpr int kPinned = CAREC_PINNED;      // never evicted
inline constexpr int kExpires = CAREC_EXPIRES;    // goes after `lifetime` s

// insert()'s options, in this order: {tag, flags, lifetime, length}. (A
// constructor rather than an aggregate, so that {tag} draws no
// missing-initializer warning.)
struct InsertOptions {
  InsertOptions(int tag_ = 0, int flags_ = 0, int lifetime_ = 0,
                std::optional<std::size_t> length_ = std::nullopt) noexcept
      : tag(tag_), flags(flags_), lifetime(lifetime_), length(length_) {}
  int tag;
  int flags;
  int lifetime;  // seconds; read for records with kExpires
  // Bytes charged against the budget; the data's size when not given.
  std::optional<std::size_t> length;
};

// A cache's parameters and counters: maxBytes, allocated, nodes, usedNodes
// and the timing of every operation on it.
using Params = CAParams;
// The figures of one statistic slot: count, total, min, max, last (seconds).
using Slot = _CAStat;
// A cache's statistic slots, in the order of the CASTAT_* numbers.
struct Stats {
  Slot insert, search, searchHit, query, release, erase, eviction, rebuild;
};

// A mutex that never throws (BasicLockable, for std::lock_guard).
class Mutex {
 public:
  Mutex() noexcept = default;
  ~Mutex() { pthread_mutex_destroy(&mutex_); }
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;
  void lock() noexcept { pthread_mutex_lock(&mutex_); }
  void unlock() noexcept { pthread_mutex_unlock(&mutex_); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
};

// Held by every SharedCache call that can start reclamation, opens or
// closes (see "Locks" above).
inline Mutex& processLock() noexcept {
  static Mutex lock;
  return lock;
}

namespace detail {

constexpr std::size_t kMaxLength = INT_MAX;

// One cache name opened through SharedCache: its lock, shared by every
// SharedCache on the name, and how many of them are open.
struct Name {
  Mutex lock;
  std::size_t handles = 0;
};
using Names = std::map<std::string, Name>;
inline Names& names() {  // under processLock()
  static Names table;
  return table;
}

// One open handle and the holds taken through it.
struct Handle {
  void* handle = nullptr;
  Name* name = nullptr;  // SharedCache only
  Names::iterator where;
  std::size_t holds = 0;
  bool orphaned = false;  // its Cache is gone: close with the last hold
};

// The cache's lock, for a SharedCache's handle.
class CacheLock {
 public:
  explicit CacheLock(const Handle* h) noexcept
      : lock_(h->name != nullptr ? &h->name->lock : nullptr) {
    if (lock_ != nullptr) lock_->lock();
  }
  ~CacheLock() {
    if (lock_ != nullptr) lock_->unlock();
  }
  CacheLock(const CacheLock&) = delete;
  CacheLock& operator=(const CacheLock&) = delete;

 private:
  Mutex* lock_;
};

// The process-wide lock, then the cache's, for a SharedCache's handle.
class ReclaimLock {
 public:
  explicit ReclaimLock(const Handle* h) noexcept
      : process_(h->name != nullptr ? Enter() : nullptr), cache_(h) {}
  ~ReclaimLock() {
    if (process_ != nullptr) process_->unlock();
  }
  ReclaimLock(const ReclaimLock&) = delete;
  ReclaimLock& operator=(const ReclaimLock&) = delete;

 private:
  static Mutex* Enter() noexcept {
    processLock().lock();
    return &processLock();
  }
  Mutex* process_;
  CacheLock cache_;
};

inline void Close(Handle* h) noexcept {
  if (h->name != nullptr) {
    std::lock_guard<Mutex> lock(processLock());
    {
      std::lock_guard<Mutex> cacheLock(h->name->lock);
      CA_CLOSE(h->handle);
    }
    if (--h->name->handles == 0) names().erase(h->where);
  } else {
    CA_CLOSE(h->handle);
  }
  delete h;
}

// The owner lets go: close now, or leave it to the last hold.
inline void Orphan(Handle* h) noexcept {
  {
    CacheLock lock(h);
    if (h->holds != 0) {
      h->orphaned = true;
      return;
    }
  }
  Close(h);
}

inline CAQuery Query(Handle* h, void* record) noexcept {
  CAQuery q{};
  CacheLock lock(h);
  CA_QUERY(h->handle, record, &q);
  return q;
}

}  // namespace detail

template <bool kShared>
class BasicCache;

// A held record. Move-only; empty after a miss, after reset() or erase(),
// and when moved from. data(), tag() and length() are read once, when the
// record is found (they never change); key(), hits(), flags() and age() are
// read when asked. key() is empty once the record has left its cache
// (replaced, erased or evicted), which it may do while held.
class Hold {
 public:
  Hold() noexcept = default;
  Hold(Hold&& other) noexcept
      : owner_(std::exchange(other.owner_, nullptr)),
        record_(other.record_),
        data_(other.data_),
        tag_(other.tag_),
        length_(other.length_) {}
  Hold& operator=(Hold&& other) noexcept {
    if (this != &other) {
      reset();
      owner_ = std::exchange(other.owner_, nullptr);
      record_ = other.record_;
      data_ = other.data_;
      tag_ = other.tag_;
      length_ = other.length_;
    }
    return *this;
  }
  ~Hold() { reset(); }

  // Gives the hold back (once; an empty hold does nothing).
  void reset() noexcept {
    detail::Handle* h = std::exchange(owner_, nullptr);
    if (h == nullptr) return;
    bool last;
    {
      detail::CacheLock lock(h);
      CA_FREE(h->handle, record_);
      last = --h->holds == 0 && h->orphaned;
    }
    if (last) detail::Close(h);
  }

  explicit operator bool() const noexcept { return owner_ != nullptr; }
  std::string_view data() const noexcept {
    return owner_ ? data_ : std::string_view();
  }
  int tag() const noexcept { return owner_ ? tag_ : 0; }
  int length() const noexcept { return owner_ ? length_ : 0; }
  std::string key() const {
    CAQuery q = Query();
    return q.key != nullptr ? std::string(static_cast<const char*>(q.key),
                                          static_cast<std::size_t>(q.keyLength))
                            : std::string();
  }
  int hits() const noexcept { return Query().hits; }
  int flags() const noexcept { return Query().flags; }
  int age() const noexcept { return Query().age; }

  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;

 private:
  template <bool>
  friend class BasicCache;

  Hold(detail::Handle* owner, void* record, const CAQuery& q) noexcept
      : owner_(owner),
        record_(record),
        data_(static_cast<const char*>(q.data),
              static_cast<std::size_t>(q.dataLength)),
        tag_(q.tag),
        length_(q.length) {}
  CAQuery Query() const noexcept {
    return owner_ ? detail::Query(owner_, record_) : CAQuery{};
  }

  detail::Handle* owner_ = nullptr;
  void* record_ = nullptr;
  std::string_view data_;
  int tag_ = 0;
  int length_ = 0;
};

// One record of a listing, seen only inside forEach(): its views point into
// the cache and the list, which live no longer than the call.
class Entry {
 public:
  std::string_view key() const noexcept {
    return q_.key ? std::string_view(static_cast<const char*>(q_.key),
                                     static_cast<std::size_t>(q_.keyLength))
                  : std::string_view();
  }
  std::string_view data() const noexcept {
    return std::string_view(static_cast<const char*>(q_.data),
                            static_cast<std::size_t>(q_.dataLength));
  }
  int hits() const noexcept { return q_.hits; }
  int tag() const noexcept { return q_.tag; }
  int flags() const noexcept { return q_.flags; }
  int age() const noexcept { return q_.age; }
  int length() const noexcept { return q_.length; }

  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;

 private:
  template <bool>
  friend class BasicCache;
  explicit Entry(const CAQuery& q) noexcept : q_(q) {}
  CAQuery q_;
};

// qm::Cache (kShared false) and qm::SharedCache (kShared true).
template <bool kShared>
class BasicCache {
 public:
  // Not open: every call is refused as for an invalid handle.
  BasicCache() noexcept = default;
  // Opens (or creates) the cache `name`. Only params.maxBytes is read: the
  // budget in bytes; 0 at creation means 1 MiB, and re-opening an open cache
  // sets its budget as given, 0 included. A name with a zero byte is
  // refused (the cache stays closed).
  explicit BasicCache(std::string_view name, std::uint32_t maxBytes = 0)
      : BasicCache(name, CAParams{maxBytes, 0, 0, 0, {}}) {}
  BasicCache(std::string_view name, CAParams params) {
    if (name.find('\0') != std::string_view::npos) return;
    std::string copy(name);
    auto h = std::make_unique<detail::Handle>();
    if constexpr (kShared) {
      std::lock_guard<Mutex> lock(processLock());
      h->where = detail::names().try_emplace(copy).first;
      h->name = &h->where->second;
      std::lock_guard<Mutex> cacheLock(h->name->lock);
      h->handle = CA_CREATE(copy.c_str(), &params);
      ++h->name->handles;
    } else {
      h->handle = CA_CREATE(copy.c_str(), &params);
    }
    h_ = h.release();
  }
  BasicCache(BasicCache&& other) noexcept
      : h_(std::exchange(other.h_, nullptr)) {}
  BasicCache& operator=(BasicCache&& other) noexcept {
    if (this != &other) {
      close();
      h_ = std::exchange(other.h_, nullptr);
    }
    return *this;
  }
  ~BasicCache() { close(); }
  BasicCache(const BasicCache&) = delete;
  BasicCache& operator=(const BasicCache&) = delete;

  explicit operator bool() const noexcept { return h_ != nullptr; }

  // Closes the handle now, or when the last hold of it is given back.
  void close() noexcept {
    if (h_ != nullptr) detail::Orphan(std::exchange(h_, nullptr));
  }

  // Stores a copy of `data` under `key` and replaces the key's record (which
  // lives on while held). May run an eviction pass before it returns.
  int insert(std::string_view key, std::string_view data,
             const InsertOptions& options = {}) {
    return insert(key, static_cast<const void*>(data.data()), data.size(),
                  options);
  }
  // (No default options here: insert(key, "text", {tag}) must not take
  // {tag} for a size.)
  int insert(std::string_view key, const void* data, std::size_t size,
             const InsertOptions& options) {
    const std::size_t length = options.length.value_or(size);
    if (h_ == nullptr || key.size() > detail::kMaxLength ||
        size > detail::kMaxLength || length > detail::kMaxLength ||
        (data == nullptr && size != 0))
      return kRefused;
    detail::ReclaimLock lock(h_);
    return CA_INSERT(h_->handle, options.tag, options.flags, options.lifetime,
                     static_cast<int>(key.size()), key.data(),
                     static_cast<int>(size), static_cast<int>(length), data);
  }

  // The key's record, held, if it is younger than maxAge seconds (0: any
  // age); an empty hold otherwise.
  [[nodiscard]] Hold find(std::string_view key, int maxAge = 0) noexcept {
    if (h_ == nullptr || key.size() > detail::kMaxLength) return Hold();
    detail::CacheLock lock(h_);
    void* record =
        CA_SEARCH(h_->handle, maxAge, static_cast<int>(key.size()), key.data());
    if (record == nullptr) return Hold();
    CAQuery q{};
    CA_QUERY(h_->handle, record, &q);
    ++h_->holds;
    return Hold(h_, record, q);
  }

  // Gives the hold back and removes its record from the cache; the record
  // is destroyed unless other holds remain. Returns false, with the hold
  // untouched, for an empty hold or a hold taken through another handle.
  bool erase(Hold& hold) noexcept {
    if (h_ == nullptr || hold.owner_ != h_) return false;
    detail::ReclaimLock lock(h_);
    CA_ERASE(h_->handle, hold.record_);
    --h_->holds;
    hold.owner_ = nullptr;
    return true;
  }

  // Calls fn(const qm::Entry&) for every record, in key-tree pre-order,
  // and returns their number. The records are not held: fn must not call
  // this cache (a SharedCache's lock is held throughout).
  template <typename Fn>
  int forEach(Fn&& fn) const {
    if (h_ == nullptr) return 0;
    detail::CacheLock lock(h_);
    int count = 0;
    void** list = CA_LIST(h_->handle, &count);
    struct Release {
      void* handle;
      void** list;
      ~Release() { CA_LIST_FREE(handle, list); }
    } release{h_->handle, list};
    for (int i = 0; i < count; ++i) {
      CAQuery q{};
      if (CA_QUERY(h_->handle, list[i], &q) == 1) {
        const Entry entry(q);
        fn(entry);
      }
    }
    return count;
  }

  Params params() const noexcept {
    Params p{};
    if (h_ == nullptr) return p;
    detail::CacheLock lock(h_);
    CA_GETCACHESTAT(h_->handle, &p);
    return p;
  }

  Stats stats() const noexcept {
    Stats s{};
    if (h_ == nullptr) return s;
    Slot* slots[] = {&s.insert,  &s.search, &s.searchHit, &s.query,
                     &s.release, &s.erase,  &s.eviction,  &s.rebuild};
    detail::CacheLock lock(h_);
    for (int i = 0; i < 8; ++i) CA_GETSTAT(h_->handle, i, slots[i]);
    return s;
  }

  // The library's handle, for the C calls the layer does not wrap. Calls
  // made with it on a SharedCache take the locks above themselves.
  void* handle() const noexcept { return h_ ? h_->handle : nullptr; }

 private:
  detail::Handle* h_ = nullptr;
};

using Cache = BasicCache<false>;
using SharedCache = BasicCache<true>;

}  // namespace qm

#endif  // QMCACHE_CACHE_HPP
