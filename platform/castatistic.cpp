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

#include <time.h>

#include <atomic>
#include <cstring>
#include <mutex>

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

CAStatistic::CAStatistic(int slots)
    : slotCount(slots > 0 ? slots : 0),
      slots(slots > 0 ? new _CAStat[slots]() : nullptr) {}

CAStatistic::~CAStatistic() { delete[] slots; }

int CAStatistic::Add(int slot, double value) {
  if (slot < 0 || slot >= slotCount) return 0;
  _CAStat& s = slots[slot];
  if (s.count == 0) {
    s.min = value;
    s.max = value;
  } else {
    if (value < s.min) s.min = value;
    if (value > s.max) s.max = value;
  }
  s.count++;
  s.total += value;
  s.last = value;
  return 1;
}

int CAStatistic::Get(int slot, _CAStat* out, int /*mode*/) {
  if (out == nullptr) return 0;
  if (slot < 0 || slot >= slotCount) {
    std::memset(out, 0, sizeof(*out));
    return 0;
  }
  *out = slots[slot];
  return 1;
}

int CAStatistic::Cleanup() {
  for (int i = 0; i < slotCount; i++) slots[i] = _CAStat();
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
