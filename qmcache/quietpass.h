/* SPDX-License-Identifier: MIT */
// The quiet pass: an eviction pass that would find no candidate is skipped.
//
// A cache stuck over its budget with nothing evictable (its records all made
// in the current second, say) runs a pass for every insert, and each such
// pass would grade every record only to find none. The cache therefore
// remembers its last pass when it found no candidate: a pass in the same
// second, under the same budget, finds none either, as long as nothing has
// happened since that could have made a record a candidate.
//
// Everything that can make a record a candidate goes through one hook,
// NoteCandidate:
//  - a record stored (CACacheAction::Insert, once it is its node's payload);
//  - a record given back (CARecord::Free of a record still in its tree: one
//    hold fewer);
//  - a handle closed (CACacheAction::Close: the budget drops to 0 and the
//    pinned and expiry flags go from every record);
//  - a budget changed (CACache::Create re-opening the cache).
// A record detached from its tree needs no call: a pass grades only what is
// in the tree, so leaving it can only take a candidate away. Time needs none
// either: the pass remembers its second.
//
// Removing the shortcut: delete this file, the QuietPass member of
// CacheState and its one use in CAFree::Compress (call the collection
// directly), and the NoteCandidate calls.
#ifndef QMCACHE_QUIETPASS_H
#define QMCACHE_QUIETPASS_H

#include <assert.h>
#include <time.h>

#include "qmcache/qmcache.hpp"

// A record's grade in a pass at `at` under `budget`: 0 when it is no
// candidate, -1 when it must go, else its rank (the eviction's own rule).
double EvictionGrade(const CARecord* record, time_t at, unsigned long budget);

class QuietPass {
 public:
  // The hook: `record` (stored or given back) may now be a candidate; null
  // when anything may have changed.
  void Note(const CARecord* record) {
    if (valid_ &&
        (record == nullptr || EvictionGrade(record, when_, budget_) != 0))
      valid_ = false;
  }

  // The candidates of a pass at `now` under `budget`: `collect()`, the walk
  // that grades every record and returns how many it found, or 0 without
  // the walk when the last pass found none and nothing has been noted since.
  // A debug build walks anyway (on every pass over a tree of up to 1024
  // nodes, on every 1024th over a larger one) and checks that it finds none.
  template <class Collect>
  unsigned int Run(time_t now, unsigned int budget, unsigned int nodes,
                   Collect collect) {
    unsigned int found = 0;
    if (valid_ && when_ == now && budget_ == budget) {
#ifndef NDEBUG
      static unsigned long skips = 0;
      if (nodes <= 1024 || ++skips % 1024 == 0) assert(collect() == 0);
#endif
    } else {
      found = collect();
    }
    (void)nodes;
    valid_ = found == 0;
    when_ = now;
    budget_ = budget;
    return found;
  }

 private:
  bool valid_ = false;
  time_t when_ = 0;
  unsigned int budget_ = 0;
};

#endif  // QMCACHE_QUIETPASS_H
