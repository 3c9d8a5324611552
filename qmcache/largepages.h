/* SPDX-License-Identifier: MIT */
// Asking the kernel to back a cache's large blocks (the node arena's chunks,
// the key index's table) with 2 MiB pages. A descent or a lookup in a cache
// of a million records touches a few lines in each of a dozen pages spread
// over hundreds of megabytes; on 4 KiB pages nearly each of those touches
// also misses the TLB. The blocks stay malloc's (and are counted as heap);
// only the 2 MiB-aligned stretches inside a block are advised, so nothing
// is allocated beyond what the block holds. Where the kernel does not offer
// such pages the advice is refused and ignored.
//
// The shortcut changes no result: making AdviseLargePages' body empty
// removes it whole, and so does building with QMCACHE_WITHOUT_LARGE_PAGES
// (how the benchmark measures what it saves).
#ifndef QMCACHE_LARGEPAGES_H
#define QMCACHE_LARGEPAGES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>

// The size of the pages asked for, and the smallest block worth advising.
constexpr size_t kLargePage = size_t{2} << 20;

inline void AdviseLargePages(void* block, size_t bytes) {
#ifdef QMCACHE_WITHOUT_LARGE_PAGES
  return;
#endif
  if (block == nullptr || bytes < kLargePage) return;
  const uintptr_t begin = reinterpret_cast<uintptr_t>(block);
  const uintptr_t first = (begin + kLargePage - 1) & ~(kLargePage - 1);
  const uintptr_t last = (begin + bytes) & ~(kLargePage - 1);
  if (last <= first) return;
  // Advice only: a kernel without large pages answers EINVAL, and the
  // block is as good on small pages.
  (void)madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

#endif  // QMCACHE_LARGEPAGES_H
