// SPDX-License-Identifier: MIT
// Statistic slots and a stopwatch (libqmstat).
//
// The stopwatch runs around every cache operation, so reading the time must
// cost a few nanoseconds and never a system call. When the processor's time
// stamp counter ticks at a constant rate whatever the power state (the
// "invariant TSC"), ticks are read with rdtsc and converted to seconds with a
// rate measured once against CLOCK_MONOTONIC. Otherwise ticks are
// nanoseconds of CLOCK_MONOTONIC, which the vDSO serves without entering the
// kernel.
//
// CAClock keeps its three longs as declared in the header; they hold ticks of
// the source chosen above (never 0 for a real reading, so 0 means "not set").

#include "qmcache/castatistic.h"

#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unordered_map>
#include <utility>
#include <vector>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#include <x86intrin.h>
#define QMSTAT_HAVE_TSC 1
#else
#define QMSTAT_HAVE_TSC 0
#endif

namespace {

long MonotonicNanos() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long>(ts.tv_sec) * 1000000000L + ts.tv_nsec;
}

#if QMSTAT_HAVE_TSC
bool HasInvariantTsc() {
  unsigned int eax = 0, ebx = 0, ecx = 0, edx = 0;
  if (!__get_cpuid(0x80000000u, &eax, &ebx, &ecx, &edx) || eax < 0x80000007u)
    return false;
  if (!__get_cpuid(0x80000007u, &eax, &ebx, &ecx, &edx)) return false;
  return (edx & (1u << 8)) != 0;
}

// Counts TSC ticks over a few milliseconds of CLOCK_MONOTONIC. Each end is
// read between two monotonic readings and the tightest pair of a few tries
// is kept, so the error per end stays at a few tens of nanoseconds.
double MeasureSecondsPerTick() {
  auto sample = [](long* nanos, unsigned long long* ticks) {
    long best = -1;
    for (int i = 0; i < 5; i++) {
      long a = MonotonicNanos();
      unsigned long long t = __rdtsc();
      long b = MonotonicNanos();
      if (best < 0 || b - a < best) {
        best = b - a;
        *nanos = a + (b - a) / 2;
        *ticks = t;
      }
    }
  };
  long n0 = 0, n1 = 0;
  unsigned long long t0 = 0, t1 = 0;
  sample(&n0, &t0);
  // A short spin rather than a sleep: a sleep may be stretched by the
  // scheduler, which is harmless, but a spin keeps the first use brief.
  while (MonotonicNanos() - n0 < 5000000L) {
  }
  sample(&n1, &t1);
  if (t1 <= t0 || n1 <= n0) return 0.0;
  return static_cast<double>(n1 - n0) * 1e-9 / static_cast<double>(t1 - t0);
}
#endif

// The time source, chosen on first use. Until then `source` is 0; it is
// published (release) after `secondsPerTick`, so a reader that sees it set
// (acquire) also sees the rate. The first-use path is kept out of line so
// that Start and Stop stay a handful of instructions.
enum Source { kUnset = 0, kTsc = 1, kMonotonic = 2 };
std::atomic<int> source{kUnset};
double secondsPerTick = 1e-9;

__attribute__((noinline, cold)) int ChooseSource() {
  static std::once_flag once;
  std::call_once(once, [] {
    int chosen = kMonotonic;
#if QMSTAT_HAVE_TSC
    if (HasInvariantTsc()) {
      double s = MeasureSecondsPerTick();
      if (s > 0.0) {
        secondsPerTick = s;
        chosen = kTsc;
      }
    }
#endif
    source.store(chosen, std::memory_order_release);
  });
  return source.load(std::memory_order_acquire);
}

inline int CurrentSource() {
  int s = source.load(std::memory_order_acquire);
  return __builtin_expect(s != kUnset, 1) ? s : ChooseSource();
}

// Ticks of the chosen source; never 0, which the clock uses for "not set".
inline long Now() {
  long t;
#if QMSTAT_HAVE_TSC
  if (__builtin_expect(CurrentSource() == kTsc, 1))
    t = static_cast<long>(__rdtsc());
  else
#else
  CurrentSource();
#endif
    t = MonotonicNanos();
  return t != 0 ? t : 1;
}

inline double ToSeconds(long ticks) {
  CurrentSource();  // orders the read of the rate after its publication
  return static_cast<double>(ticks) * secondsPerTick;
}

}  // namespace

// ---- CAStatistic ----
//
// A statistic may be added to from several threads at once: the library's
// own MainStat is, whenever a host runs calls on different caches from
// different threads. Nothing added may be lost, and an Add on one thread must
// stay as cheap as a plain update. So every set of figures has one writer:
//  - the first thread that adds to a statistic owns its primary cells;
//  - every other thread that adds to it gets cells of its own (a shard),
//    found through a small table of that thread's;
//  - when a thread ends, its shards are folded into the statistic's
//    `retired` cells, under the statistic's mutex.
// A writer updates its cells without any locked instruction (see Cell), and
// Get merges the primary cells, the shards and the retired cells. `last` is
// the value added latest: once a second thread has added, each cell stamps
// its `last` with the tick of the Add. (While one thread adds alone, its
// `last` is the last; it leaves the stamp alone, which keeps its Add as
// short as a plain update.)
//
// Cleanup must not run while another thread adds to the same statistic (the
// library empties a cache's statistics only on a call on that cache, which
// the host serialises); figures added meanwhile may survive it or not.

namespace {

// One slot's figures as one thread writes them. Only that thread writes a
// cell, so it reads its own figures with plain loads; it publishes each with
// a relaxed atomic store, and readers on other threads use relaxed atomic
// loads (Peek), which keeps their concurrent reads well defined.
struct Cell {
  unsigned long count = 0;
  double total = 0, min = 0, max = 0, last = 0;
  long stamp = 0;  // tick at which `last` was added, among several writers
};

template <typename T>
inline void Publish(T& field, T value) {
  __atomic_store(&field, &value, __ATOMIC_RELAXED);
}

template <typename T>
inline T Peek(const T& field) {
  T value;
  __atomic_load(&field, &value, __ATOMIC_RELAXED);
  return value;
}

// A slot's figures merged from several cells.
struct Figures {
  unsigned long count = 0;
  double total = 0, min = 0, max = 0, last = 0;
  long stamp = 0;
};

constexpr auto kRelaxed = std::memory_order_relaxed;

// This thread's table of shards. Initial-exec TLS: one instruction to reach,
// no call.
struct ThreadTable;
__attribute__((
    tls_model("initial-exec"))) thread_local ThreadTable* threadTable = nullptr;

// This thread's identity as a statistic owner: its thread pointer, which no
// other live thread has (one instruction to read). It is aligned, so its low
// bit is free for kOthers.
inline uintptr_t ThisThread() {
  return reinterpret_cast<uintptr_t>(__builtin_thread_pointer());
}
constexpr uintptr_t kOthers = 1;

inline __attribute__((always_inline)) void Write(Cell& c, double value) {
  const unsigned long n = c.count;
  if (n == 0 || value < c.min) Publish(c.min, value);
  if (n == 0 || value > c.max) Publish(c.max, value);
  Publish(c.total, c.total + value);
  Publish(c.last, value);
  Publish(c.count, n + 1);
}

// A Write among other writers: its `last` must be ordered against theirs.
void WriteStamped(Cell& c, double value) {
  Publish(c.stamp, Now());
  Write(c, value);
}

void Merge(const Cell& c, Figures* f) {
  const unsigned long n = Peek(c.count);
  if (n == 0) return;
  const double lo = Peek(c.min), hi = Peek(c.max);
  const long stamp = Peek(c.stamp);
  if (f->count == 0 || lo < f->min) f->min = lo;
  if (f->count == 0 || hi > f->max) f->max = hi;
  if (f->count == 0 || stamp >= f->stamp) {
    f->last = Peek(c.last);
    f->stamp = stamp;
  }
  f->count += n;
  f->total += Peek(c.total);
}

void Store(const Figures& f, Cell& c) {
  Publish(c.count, f.count);
  Publish(c.total, f.total);
  Publish(c.min, f.min);
  Publish(c.max, f.max);
  Publish(c.last, f.last);
  Publish(c.stamp, f.stamp);
}

void Clear(Cell* cells, int n) {
  for (int i = 0; i < n; i++) Store(Figures(), cells[i]);
}

// The cold parts of a statistic: what the other threads and Get need.
struct Shared {
  explicit Shared(int n);
  const uint64_t id;  // never reused: threads' tables are keyed on it
  std::mutex mutex;   // guards the two below
  std::vector<std::unique_ptr<Cell[]>> shards;  // other threads' cells
  std::unique_ptr<Cell[]> retired;              // ended threads' figures
};

// A statistic's `slots` points at its primary cells; this header lies just
// before them, so that an Add reaches the owner and the cells together.
struct Storage {
  // The thread that writes the primary cells (its thread pointer), with
  // kOthers set once any other thread has added too.
  std::atomic<uintptr_t> owner{0};
  Shared* shared;
  int slots;
  Cell* primary() { return reinterpret_cast<Cell*>(this + 1); }
  static Storage* Of(_CAStat* slots) {
    return reinterpret_cast<Storage*>(slots) - 1;
  }
};
static_assert(sizeof(Storage) % alignof(Cell) == 0, "cells follow aligned");

// Every live statistic by id, so that a thread that ends folds its shards
// only into statistics that still exist. Never destroyed: a statistic may
// outlive static destruction.
struct Registry {
  std::mutex mutex;
  std::unordered_map<uint64_t, Storage*> live;
  uint64_t nextId = 1;
};
Registry& Statistics() {
  static Registry* registry = new Registry;
  return *registry;
}

Shared::Shared(int n)
    : id([] {
        Registry& r = Statistics();
        std::lock_guard<std::mutex> hold(r.mutex);
        return r.nextId++;
      }()),
      retired(new Cell[n]) {}

// The shards this thread writes: a direct-mapped table of the latest ones,
// and all of them with their statistics' ids for the thread's end.
struct ThreadTable {
  struct Recent {
    uint64_t id = 0;
    Cell* cells = nullptr;
  };
  static constexpr size_t kRecent = 64;
  Recent recent[kRecent];
  std::vector<std::pair<uint64_t, Cell*>> owned;
  size_t prunedAt = 16;  // size of `owned` that makes it drop dead entries
};

// At a thread's end: its shards' figures move into `retired` of every
// statistic that is still alive.
void EndThread(void* table) {
  auto* t = static_cast<ThreadTable*>(table);
  threadTable = nullptr;
  Registry& r = Statistics();
  {
    std::lock_guard<std::mutex> hold(r.mutex);
    for (auto& [id, cells] : t->owned) {
      auto found = r.live.find(id);
      if (found == r.live.end()) continue;
      Storage* s = found->second;
      Shared* sh = s->shared;
      std::lock_guard<std::mutex> holdStat(sh->mutex);
      for (int i = 0; i < s->slots; i++) {
        Figures f;
        Merge(sh->retired[i], &f);
        Merge(cells[i], &f);
        Store(f, sh->retired[i]);
      }
      for (auto it = sh->shards.begin(); it != sh->shards.end(); ++it) {
        if (it->get() != cells) continue;
        sh->shards.erase(it);
        break;
      }
    }
  }
  delete t;
}

pthread_key_t endKey;
ThreadTable* TableOfThisThread() {
  if (threadTable != nullptr) return threadTable;
  static pthread_once_t once = PTHREAD_ONCE_INIT;
  pthread_once(&once, [] { pthread_key_create(&endKey, EndThread); });
  threadTable = new ThreadTable;
  pthread_setspecific(endKey, threadTable);
  return threadTable;
}

// Forgets the shards of statistics that no longer exist.
void Prune(ThreadTable* t) {
  Registry& r = Statistics();
  std::lock_guard<std::mutex> hold(r.mutex);
  auto dead = [&r](const std::pair<uint64_t, Cell*>& e) {
    return r.live.count(e.first) == 0;
  };
  t->owned.erase(std::remove_if(t->owned.begin(), t->owned.end(), dead),
                 t->owned.end());
  t->prunedAt = 2 * t->owned.size() + 16;
}

// The cells this thread writes for a statistic it does not own: the first
// thread to add becomes the owner; any other finds (or makes) its shard.
Cell* CellsOfOtherThread(Storage* s) {
  Shared* sh = s->shared;
  ThreadTable* t = TableOfThisThread();
  ThreadTable::Recent& recent = t->recent[sh->id % ThreadTable::kRecent];
  if (recent.id == sh->id) return recent.cells;
  Cell* cells = nullptr;
  for (auto& [id, owned] : t->owned) {
    if (id == sh->id) cells = owned;
  }
  if (cells == nullptr) {
    if (t->owned.size() >= t->prunedAt) Prune(t);
    std::lock_guard<std::mutex> hold(sh->mutex);
    sh->shards.emplace_back(new Cell[s->slots]);
    cells = sh->shards.back().get();
    s->owner.fetch_or(kOthers);  // the owner stamps its `last` from now on
    t->owned.emplace_back(sh->id, cells);
  }
  recent.id = sh->id;
  recent.cells = cells;
  return cells;
}

}  // namespace

// `slots` is the component's own: it points at the primary cells of a
// Storage (above), not at _CAStat records.
CAStatistic::CAStatistic(int slots)
    : slotCount(slots > 0 ? slots : 0), slots(nullptr) {
  if (slotCount == 0) return;
  void* block = ::operator new(sizeof(Storage) + slotCount * sizeof(Cell));
  auto* s = new (block) Storage();
  s->slots = slotCount;
  for (int i = 0; i < slotCount; i++) new (s->primary() + i) Cell();
  s->shared = new Shared(slotCount);
  {
    Registry& r = Statistics();
    std::lock_guard<std::mutex> hold(r.mutex);
    r.live.emplace(s->shared->id, s);
  }
  this->slots = reinterpret_cast<_CAStat*>(s->primary());
}

CAStatistic::~CAStatistic() {
  if (slots == nullptr) return;
  Storage* s = Storage::Of(slots);
  {
    Registry& r = Statistics();
    std::lock_guard<std::mutex> hold(r.mutex);
    r.live.erase(s->shared->id);
  }
  delete s->shared;
  s->~Storage();  // the cells are trivially destructible
  ::operator delete(s);
}

// The Add of an owner that adds alone is a few loads and stores with no
// call, so it needs no stack frame; everything else takes this path.
namespace {
__attribute__((noinline)) int AddAmongOthers(Storage* s, int slot,
                                             double value) {
  const uintptr_t me = ThisThread();
  uintptr_t owner = s->owner.load(kRelaxed);
  if (owner == 0 && s->owner.compare_exchange_strong(owner, me)) {
    Write(s->primary()[slot], value);  // the first to add: alone so far
    return 1;
  }
  Cell* cells = owner == (me | kOthers) ? s->primary() : CellsOfOtherThread(s);
  WriteStamped(cells[slot], value);
  return 1;
}
}  // namespace

int CAStatistic::Add(int slot, double value) {
  if (slot < 0 || slot >= slotCount) return 0;
  Storage* s = Storage::Of(slots);
  if (__builtin_expect(s->owner.load(kRelaxed) != ThisThread(), 0))
    return AddAmongOthers(s, slot, value);
  Write(s->primary()[slot], value);
  return 1;
}

int CAStatistic::Get(int slot, _CAStat* out, int /*mode*/) {
  if (out == nullptr) return 0;
  if (slot < 0 || slot >= slotCount) {
    std::memset(out, 0, sizeof(*out));
    return 0;
  }
  Storage* s = Storage::Of(slots);
  Figures f;
  {
    std::lock_guard<std::mutex> hold(s->shared->mutex);
    Merge(s->primary()[slot], &f);
    Merge(s->shared->retired[slot], &f);
    for (auto& shard : s->shared->shards) Merge(shard[slot], &f);
  }
  out->count = f.count;
  out->total = f.total;
  out->min = f.min;
  out->max = f.max;
  out->last = f.last;
  return 1;
}

int CAStatistic::Cleanup() {
  if (slots == nullptr) return 1;
  Storage* s = Storage::Of(slots);
  std::lock_guard<std::mutex> hold(s->shared->mutex);
  Clear(s->primary(), slotCount);
  Clear(s->shared->retired.get(), slotCount);
  for (auto& shard : s->shared->shards) Clear(shard.get(), slotCount);
  return 1;
}

// ---- CAClock ----

CAClock::CAClock() : startTicks(0), suspendTicks(0), suspendedTotal(0) {}

CAClock::~CAClock() = default;

void CAClock::Start() {
  startTicks = Now();
  suspendTicks = 0;
  suspendedTotal = 0;
}

double CAClock::Stop() {
  if (startTicks == 0) return 0.0;
  // A measurement stopped while suspended ends where the suspension began.
  long end = suspendTicks != 0 ? suspendTicks : Now();
  long run = end - startTicks - suspendedTotal;
  startTicks = 0;
  suspendTicks = 0;
  suspendedTotal = 0;
  if (run <= 0) return 0.0;
  return ToSeconds(run);
}

void CAClock::Suspend() {
  if (startTicks == 0 || suspendTicks != 0) return;
  suspendTicks = Now();
}

void CAClock::Resume() {
  if (suspendTicks == 0) return;
  long now = Now();
  // Readings on different cores may differ by a few ticks; never let that
  // make the suspended total shrink.
  if (now > suspendTicks) suspendedTotal += now - suspendTicks;
  suspendTicks = 0;
}
