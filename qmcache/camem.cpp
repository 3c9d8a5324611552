// SPDX-License-Identifier: MIT
// Records: a data buffer plus the bookkeeping of search, eviction and
// release, and the reference counting that decides when a record goes.
//
// A record is attached while `node` is set (its node's payload is the record)
// and held while `refCount` > 0. It is destroyed when it is neither: by
// Unlink/Erase of an unheld record, or by the Free of its last hold once it
// has left its tree. Destruction gives the record's bytes back to its cache's
// `allocated` count.
//
// A record can outlive its cache: one that is held when it leaves its tree
// (replaced, erased or evicted while held, or still attached when the cache
// is destroyed) stays alive for its holders. Each cache therefore keeps, in
// its private state, the records that left its tree while held; its
// destructor clears their `cache` (OrphanDetachedRecords), and Unlink and
// Free skip the `allocated` update for a record without a cache, so a late
// release never touches a destroyed cache, nor a new cache that reuses its
// address. The set is touched only on that rare path and only by calls on
// its own cache, which the host serialises: no lock.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <new>

#include "cainternal.h"
#include "qmcache/qmcache.hpp"

CACritical CARecord::recordHnd;

namespace {

void NoteDetachedHeld(CARecord* record) {
  if (record->cache != nullptr)
    StateOf(record->cache)->detachedHeld.insert(record);
}

// Gives the record's accounted bytes back to its cache (32-bit counter, low
// bits of the length), unless the cache is already gone, and destroys it.
void Destroy(CARecord* record, bool wasDetachedHeld) {
  CACache* cache = record->cache;
  if (cache != nullptr) {
    cache->params.allocated -= (unsigned int)record->length;
    if (wasDetachedHeld) StateOf(cache)->detachedHeld.erase(record);
  }
  DeleteRecord(record);
}

}  // namespace

void OrphanDetachedRecords(CACache* cache) {
  CacheState* state = StateOf(cache);
  for (CARecord* record : state->detachedHeld) record->cache = nullptr;
  state->detachedHeld.clear();
}

namespace {

unsigned char* BlockBehind(CARecord* record) {
  return reinterpret_cast<unsigned char*>(record + 1);
}

// The constructors' work once the buffer exists.
void Fill(CARecord* r, unsigned long size, unsigned long length, void* data,
          BTree* node, CACache* cache, int tag, int flags, long lifetime) {
  r->created = time(nullptr);
  r->length = length;
  r->hits = 1;
  r->tag = tag;
  r->node = node;
  r->flags = flags;
  r->cache = cache;
  r->lifetime = lifetime;
  // The buffer holds size + 1 bytes. For the largest size that count wraps;
  // CAMem then allocates nothing, and the record is not valid either way:
  // never a tiny block with a huge copy.
  void* block = r->get();
  if (size != 0 && size + 1 != 0 && block != nullptr) {
    r->valid = 1;
    memmove(block, data, size);
  } else {
    r->valid = 0;
  }
  r->release();
  r->refCount = 0;
}

// Data blocks up to this size share the record's heap block.
constexpr unsigned long kLargestBlockBehind = 1UL << 40;

}  // namespace

CARecord::CARecord(unsigned long size, unsigned long length, void* data,
                   BTree* node, CACache* cache, int tag, int flags,
                   long lifetime)
    : CAMem(size) {
  Fill(this, size, length, data, node, cache, tag, flags, lifetime);
}

CARecord::CARecord(BlockGiven, unsigned long size, unsigned long length,
                   void* data, BTree* node, CACache* cache, int tag, int flags,
                   long lifetime)
    : CAMem(BlockGiven(), size, BlockBehind(this)) {
  Fill(this, size, length, data, node, cache, tag, flags, lifetime);
}

CARecord* NewRecord(unsigned long size, unsigned long length, void* data,
                    BTree* node, CACache* cache, int tag, int flags,
                    long lifetime) {
  // One heap block for the record and its data: one allocation instead of
  // two, and the data on the cache lines that follow the record's fields.
  // The cache's slab gives the blocks it has classes for.
  if (size < kLargestBlockBehind) {
    const unsigned long bytes = sizeof(CARecord) + size + 1;
    void* block =
        cache != nullptr ? StateOf(cache)->slab->Allocate(bytes) : nullptr;
    if (block == nullptr) block = ::operator new(bytes, std::nothrow);
    if (block != nullptr) {
      return new (block) CARecord(CARecord::BlockGiven(), size, length, data,
                                  node, cache, tag, flags, lifetime);
    }
  }
  // No such block: the data gets a block of its own, or none (the record is
  // then not valid).
  return new CARecord(size, length, data, node, cache, tag, flags, lifetime);
}

void DeleteRecord(CARecord* record) {
  // The slab is found before the destructor runs the release callback,
  // which may end the cache (the slab then outlives it, for this block).
  RecordSlab* slab =
      record->cache != nullptr ? StateOf(record->cache)->slab : nullptr;
  record->~CARecord();
  const bool given =
      slab != nullptr ? slab->Free(record) : RecordSlab::FreeOrphan(record);
  if (!given) ::operator delete(record);
}

namespace {
// Release callbacks running on this thread (they may nest).
thread_local int callbacksRunning = 0;
}  // namespace

bool InReleaseCallback() { return callbacksRunning != 0; }

CARecord::~CARecord() {
  // The callback sees the block before CAMem's destructor frees it.
  if ((flags & CAREC_CALLBACK) != 0 && free_handle != nullptr) {
    ++callbacksRunning;
    free_handle(flags, size, data);
    --callbacksRunning;
  }
  // Data behind the record goes with the record's own block.
  if (data == BlockBehind(this)) data = nullptr;
}

namespace {

// Unlink's work. With `due`, the free-node trigger is noted there instead of
// fired.
void Detach(CARecord* record, CACacheAction* action, bool* due) {
  const bool wasAttached = record->node != nullptr;
  bool noted = !wasAttached;  // among the cache's detached records
  if (wasAttached) {
    record->node->payload = nullptr;
    record->node = nullptr;
    // Noted before FreeNode: a pass that it starts may destroy the cache's
    // other records, but never this held one.
    if (record->refCount != 0) NoteDetachedHeld(record);
    // FreeNode may run a reclamation pass that replaces the whole tree, so
    // the old node is not touched again after this call.
    CACache* cache = record->cache;
    if (cache != nullptr && CountFreeNode(cache)) {
      if (due != nullptr) {
        *due = true;
      } else {
        // Through a handle of another cache (the host's erase passes no
        // test of ownership), the pass may end this cache: a callback closes
        // its last handle, and the pass's own handle, then the last, takes
        // the cache with it. The record, about to go, then waits among the
        // cache's detached records, so that the cache's end orphans it like
        // a held one and its destruction below charges no dead cache.
        if (record->refCount == 0 &&
            (action == nullptr || action->cache != cache)) {
          NoteDetachedHeld(record);
          noted = true;
        }
        FireFreeNodeTrigger(cache, action);
      }
    }
  }
  if (record->refCount == 0) Destroy(record, noted);
}

}  // namespace

void UnlinkDeferringTrigger(CARecord* record, bool* due) {
  Detach(record, nullptr, due);
}

void CARecord::Unlink(CACacheAction* action) { Detach(this, action, nullptr); }

void CARecord::Erase(CACacheAction* action) {
  if (refCount > 0) refCount--;
  Unlink(action);
}

void CARecord::Free() {
  if (refCount > 0) refCount--;
  if (node != nullptr) {
    if (cache != nullptr) NoteCandidate(cache, this);  // perhaps no longer held
    return;
  }
  if (refCount == 0) Destroy(this, true);
}
