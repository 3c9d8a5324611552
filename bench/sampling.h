/* SPDX-License-Identifier: MIT */
// Deterministic sampling for the benchmarks and the comparison program: a
// splitmix64 generator, random permutations and Zipf-distributed draws, so
// that both measure the same access patterns.
#ifndef QMCACHE_BENCH_SAMPLING_H
#define QMCACHE_BENCH_SAMPLING_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qmsample {

class Rng {
 public:
  explicit Rng(uint64_t seed) : state_(seed) {}
  uint64_t Next() {
    uint64_t z = (state_ += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
  }
  // Uniform in [0, bound).
  uint64_t Below(uint64_t bound) { return Next() % bound; }
  // Uniform in [0, 1).
  double Unit() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

 private:
  uint64_t state_;
};

// A random permutation of 0..n-1.
std::vector<uint32_t> Permutation(size_t n, uint64_t seed);

// `count` indexes in 0..n-1 drawn with Zipf exponent `s`; rank r (0 the
// most frequent) is mapped to a random index so hot keys are scattered.
std::vector<uint32_t> ZipfSample(size_t n, double s, size_t count,
                                 uint64_t seed);

}  // namespace qmsample

#endif  // QMCACHE_BENCH_SAMPLING_H
