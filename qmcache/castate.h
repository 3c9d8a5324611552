/* SPDX-License-Identifier: MIT */
// A cache's private state, its one owner and its one accessor.
//
// A cache keeps some state of its own beside its exported fields. It hangs in
// front of the cache's handle table: the table's heap block starts with a
// pointer to the state, and `actions` points just past it, so the exported
// layout of CACache stays as it is and every cache has a state, however it
// was constructed. The table functions below are the state's
// only owner: they make it with the table and free it with the table.
// StateOf is the only way to it. Everything in it is touched only by calls
// on that cache, which the host serialises, so none of it needs a lock.
#ifndef QMCACHE_CASTATE_H
#define QMCACHE_CASTATE_H

#include <stdlib.h>
#include <string.h>

#include <unordered_set>

#include "keyindex.h"
#include "nodearena.h"
#include "qmcache/qmcache.hpp"
#include "quietpass.h"
#include "recordslab.h"
#include "treetop.h"

struct CacheState {
  CacheState() = default;
  CacheState(const CacheState&) = delete;
  CacheState& operator=(const CacheState&) = delete;
  // The cache's end; its records' slab goes with its last block.
  ~CacheState() { RecordSlab::Abandon(slab); }

  // Records that left the tree while held and are still alive. A destroyed
  // cache clears their `cache`, so their last release touches no dead cache.
  std::unordered_set<CARecord*> detachedHeld;
  // Every node of the record tree by its key (keyindex.h).
  KeyIndex index;
  // A copy of the record tree's top levels for inserts (treetop.h).
  TreeTop top;
  // The record tree's nodes (nodearena.h).
  NodeArena nodes;
  // The cache's last pass, if it found nothing (quietpass.h).
  QuietPass quietPass;
  // The heap blocks of the cache's records (recordslab.h).
  RecordSlab* slab = new RecordSlab();
};

// The state of a cache, from construction to destruction.
inline CacheState* StateOf(const CACache* cache) {
  return reinterpret_cast<CacheState* const*>(cache->actions)[-1];
}

// The handle table: `slots` null handles behind a new state.
inline CACacheAction** NewActionTable(int slots) {
  void** block = static_cast<void**>(calloc(slots + 1, sizeof(void*)));
  block[0] = new CacheState();
  return reinterpret_cast<CACacheAction**>(block + 1);
}

// The same table with `slots` more null slots at its end (same state).
inline CACacheAction** GrowActionTable(CACacheAction** table, int oldSlots,
                                       int slots) {
  void** block = reinterpret_cast<void**>(table) - 1;
  block = static_cast<void**>(
      realloc(block, (oldSlots + slots + 1) * sizeof(void*)));
  memset(block + 1 + oldSlots, 0, slots * sizeof(void*));
  return reinterpret_cast<CACacheAction**>(block + 1);
}

// Frees the table and its state.
inline void FreeActionTable(CACacheAction** table) {
  if (table == nullptr) return;
  void** block = reinterpret_cast<void**>(table) - 1;
  delete static_cast<CacheState*>(block[0]);
  free(block);
}

// The quiet pass's hook (see quietpass.h for who calls it): `record` of
// `cache` may have become a candidate; null when anything may have.
inline void NoteCandidate(CACache* cache, const CARecord* record) {
  StateOf(cache)->quietPass.Note(record);
}

#endif  // QMCACHE_CASTATE_H
