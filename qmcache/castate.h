/* SPDX-License-Identifier: MIT */
// A cache's private state, its one owner and its one accessor.
//
// A cache keeps some state of its own beside its exported fields. It hangs in
// front of the cache's handle table: the table's heap block starts with a
// pointer to the state, and `actions` points just past it, so the exported
// layout of CACache stays as it is and every cache has a state, however it
// was constructed. The table functions below (castate.cpp) are the state's
// only owner: they make it with the table and free it with the table.
// StateOf is the only way to it. Everything in it is touched only by calls
// on that cache, which the host serialises, so none of it needs a lock.
#ifndef QMCACHE_CASTATE_H
#define QMCACHE_CASTATE_H

#include <unordered_set>

#include "keyindex.h"
#include "nodearena.h"
#include "qmcache/qmcache.hpp"
#include "quietpass.h"

struct CacheState {
  // Records that left the tree while held and are still alive. A destroyed
  // cache clears their `cache`, so their last release touches no dead cache.
  std::unordered_set<CARecord*> detachedHeld;
  // Every node of the record tree by its key (keyindex.h).
  KeyIndex index;
  // The record tree's nodes (nodearena.h).
  NodeArena nodes;
  // The cache's last pass, if it found nothing (quietpass.h).
  QuietPass quietPass;
};

// The state of a cache, from construction to destruction.
inline CacheState* StateOf(const CACache* cache) {
  return reinterpret_cast<CacheState* const*>(cache->actions)[-1];
}

// The handle table: `slots` null handles behind a new state.
CACacheAction** NewActionTable(int slots);
// The same table with `slots` more null slots at its end (same state).
CACacheAction** GrowActionTable(CACacheAction** table, int oldSlots, int slots);
// Frees the table and its state.
void FreeActionTable(CACacheAction** table);

// The quiet pass's hook (see quietpass.h for who calls it): `record` of
// `cache` may have become a candidate; null when anything may have.
inline void NoteCandidate(CACache* cache, const CARecord* record) {
  StateOf(cache)->quietPass.Note(record);
}

#endif  // QMCACHE_CASTATE_H
