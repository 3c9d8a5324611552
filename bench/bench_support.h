// Shared pieces of the benchmarks: key sets, the value block, Zipf samples,
// a controllable wall clock and heap accounting.
//
// The executable defines `time()` (bench_support.cpp). libqmcache calls it
// through the PLT, so the fake clock below drives record ages and eviction
// grades. Any benchmark source of this executable that needs a fixed or
// advancing clock uses FakeClock*; none may define `time` itself.
#ifndef QMCACHE_BENCH_SUPPORT_H
#define QMCACHE_BENCH_SUPPORT_H

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qmbench {

// The two key shapes every contender is measured with.
enum KeyKind {
  kRandom16 = 0,   // 16 uniformly random bytes
  kBigEndian4 = 1  // a 32-bit number, most significant byte first
};
const char* KeyKindName(int kind);

// Every stored value is this many bytes (and is charged as such).
constexpr int kValueSize = 64;
// A fixed block of kValueSize bytes.
const char* ValueBytes();

// A small deterministic generator (splitmix64).
class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next();
  // Uniform in [0, bound).
  uint64_t Below(uint64_t bound) { return Next() % bound; }
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

 private:
  uint64_t state_;
};

// `n` distinct keys of `kind` in random order. Keys from MissKeys(kind, n)
// never equal one of these: random keys come from another stream (a clash
// is a 2^-128 event), numbered keys are the odd numbers where these are the
// even ones, so misses interleave with hits in key order.
std::vector<std::string> MakeKeys(int kind, size_t n);
std::vector<std::string> MissKeys(int kind, size_t n);

// A random permutation of 0..n-1.
std::vector<uint32_t> Permutation(size_t n, uint64_t seed);

// `count` indexes in 0..n-1 drawn with Zipf exponent `s`; rank r (0 the
// most frequent) is mapped to a random index so hot keys are scattered.
std::vector<uint32_t> ZipfSample(size_t n, double s, size_t count,
                                 uint64_t seed);

// The fake wall clock. Off (the default), time() is the C library's.
void FakeClockStart(time_t now);
void FakeClockAdvance(long seconds);
void FakeClockStop();

// Bytes the C heap has handed out and not taken back (small and mmapped
// blocks, allocator headers and rounding included).
size_t HeapInUse();

// Sizes to measure: 1000, 100000, 1000000, or the comma-separated list in
// the environment variable QMBENCH_SIZES.
const std::vector<size_t>& Sizes();

}  // namespace qmbench

#endif  // QMCACHE_BENCH_SUPPORT_H
