// SPDX-License-Identifier: MIT
#include "sampling.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace qmsample {

std::vector<uint32_t> Permutation(size_t n, uint64_t seed) {
  std::vector<uint32_t> p(n);
  for (size_t i = 0; i < n; i++) p[i] = static_cast<uint32_t>(i);
  Rng rng(seed);
  for (size_t i = n; i > 1; i--) std::swap(p[i - 1], p[rng.Below(i)]);
  return p;
}

std::vector<uint32_t> ZipfSample(size_t n, double s, size_t count,
                                 uint64_t seed) {
  std::vector<double> cdf(n);
  double sum = 0;
  for (size_t r = 0; r < n; r++) {
    sum += 1.0 / std::pow(static_cast<double>(r + 1), s);
    cdf[r] = sum;
  }
  const std::vector<uint32_t> rankToIndex = Permutation(n, seed ^ 0x2222);
  Rng rng(seed);
  std::vector<uint32_t> out(count);
  for (size_t i = 0; i < count; i++) {
    const double u = rng.Unit() * sum;
    size_t r = std::lower_bound(cdf.begin(), cdf.end(), u) - cdf.begin();
    if (r >= n) r = n - 1;
    out[i] = rankToIndex[r];
  }
  return out;
}

}  // namespace qmsample
