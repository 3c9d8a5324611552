/* SPDX-License-Identifier: MIT */
// The value the block-cache contenders keep: a heap block of the 64 bytes,
// given to the cache with a deleter that frees it, the way a host hands an
// object to RocksDB's or LevelDB's cache.
#ifndef QMCACHE_BENCH_VALUE_BLOCK_H
#define QMCACHE_BENCH_VALUE_BLOCK_H

#include <cstring>

#include "compare.h"

namespace qmcompare {

struct ValueBlock {
  unsigned char bytes[kValueSize];
};

inline ValueBlock* NewValueBlock(const unsigned char* value) {
  ValueBlock* b = new ValueBlock;
  std::memcpy(b->bytes, value, kValueSize);
  return b;
}

}  // namespace qmcompare

#endif  // QMCACHE_BENCH_VALUE_BLOCK_H
