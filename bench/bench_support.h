/* SPDX-License-Identifier: MIT */
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

#include "sampling.h"

namespace qmbench {

using qmsample::Permutation;
using qmsample::Rng;
using qmsample::ZipfSample;

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

// `n` distinct keys of `kind` in random order. Keys from MissKeys(kind, n)
// never equal one of these: random keys come from another stream (a clash
// is a 2^-128 event), numbered keys are the odd numbers where these are the
// even ones, so misses interleave with hits in key order.
std::vector<std::string> MakeKeys(int kind, size_t n);
std::vector<std::string> MissKeys(int kind, size_t n);

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
