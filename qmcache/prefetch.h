/* SPDX-License-Identifier: MIT */
// Fetching memory ahead of its use. Every prefetch of the library goes
// through Prefetch; none changes a result, so making its body empty removes
// the shortcut whole (and is how to measure what it buys).
#ifndef QMCACHE_PREFETCH_H
#define QMCACHE_PREFETCH_H

// The cache line size the prefetches assume.
constexpr unsigned long kCacheLine = 64;

// Asks for `lines` cache lines from `p` on (for writing when `forWrite`).
// A null `p` is allowed with one line only.
inline void Prefetch(const void* p, unsigned int lines = 1,
                     bool forWrite = false) {
  const char* at = static_cast<const char*>(p);
  for (unsigned int i = 0; i < lines; i++) {
    if (forWrite) {
      __builtin_prefetch(at + i * kCacheLine, 1);
    } else {
      __builtin_prefetch(at + i * kCacheLine);
    }
  }
}

#endif  // QMCACHE_PREFETCH_H
