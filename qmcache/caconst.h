/* SPDX-License-Identifier: MIT */
// The fixed numbers of the library's contract, each named once. Everything
// that a host can see depend on (a magic it may test, a limit that decides
// when reclamation runs, a statistic slot it reads, a bit a close clears)
// is written here and nowhere else in the library.
#ifndef QMCACHE_CACONST_H
#define QMCACHE_CACONST_H

#include <stddef.h>
#include <stdint.h>

#include "qmcache/qmcache.h"

// ---- Magics -----------------------------------------------------------------

// An open handle's first 8 bytes: "CAAC" and four zero bytes, read as one
// little-endian 64-bit word. All 8 bytes are compared.
constexpr unsigned long kHandleMagic = 0x43414143UL;
// The first 4 bytes of a cache, a key-tree node and a data buffer.
constexpr char kCacheMagic[4] = {'%', '%', 'C', 'C'};
constexpr char kNodeMagic[4] = {'%', '%', 'B', 'T'};
constexpr char kMemMagic[4] = {'%', '%', 'C', 'M'};

// ---- Statistics -------------------------------------------------------------

// Slots of MainStat and of every cache's `stats`: CASTAT_INSERT (0) up to
// CASTAT_REBUILD (7).
constexpr int kStatSlots = CASTAT_REBUILD + 1;
static_assert(kStatSlots == 8, "the statistic has eight slots");
// A cache's `timing` has one slot: every handle operation.
constexpr int kTimingSlots = 1;
// Where the two kinds of reclamation record their time (never in `timing`).
constexpr int kEvictionSlot = CASTAT_EVICTION;
constexpr int kRebuildSlot = CASTAT_REBUILD;
// The third argument of every CAStatistic::Get the library makes.
constexpr int kStatGetMode = 1;

// ---- Caches and handles -----------------------------------------------------

// The mode in which a call that needs the library starts it when the host
// has not called CA_INIT.
constexpr int kOnDemandMode = 1;
// The budget of a cache created with maxBytes 0.
constexpr unsigned int kDefaultBudget = 1048576;
// A cache's handle table starts with, and grows by, this many slots.
constexpr int kActionGrowth = 16;

// ---- Records ----------------------------------------------------------------

// What closing a handle clears in every record of its cache.
constexpr int kClearAttrMask = ~(CAREC_PINNED | CAREC_EXPIRES);

// ---- Reclamation ------------------------------------------------------------

// More free (record-less) nodes than this in a cache's tree fire the
// free-node trigger, and make the rebuild replace the tree.
constexpr unsigned int kFreeNodeLimit = 20000;
// An eviction pass brings a cache below its mark: its budget less a tenth.
inline unsigned int EvictionMark(unsigned int maxBytes) {
  return maxBytes - maxBytes / 10;
}
// The grade arrays start with, and grow by, this many entries.
constexpr unsigned int kGradeStep = 100;
// A record that must go (expired) is entered with this grade, ahead of
// every ordinary one.
constexpr double kForcedGrade = 1e10;
// Once the byte target is met, candidates graded at least this still go.
constexpr double kAlwaysGrade = 1e9;
// The rebuild inserts the remaining records in batches of this many, each
// median first.
constexpr int kRebuildBatch = 1000;

// ---- Trace log and structure check -----------------------------------------

// How long a trace line waits for the log's lock (ms) before it is dropped.
constexpr int kTraceLockTimeout = 1000;
// Pointer values up to this are never valid addresses.
constexpr uintptr_t kLowestAddress = 1000;
// Node fields the structure check accepts.
constexpr unsigned long kMaxHeight = 2000;
constexpr unsigned long kMaxKeyLength = 255;
// The longest cache name the structure check accepts.
constexpr size_t kMaxCacheName = 254;

#endif  // QMCACHE_CACONST_H
