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
// a side table, the records that left its tree while held; its destructor
// clears their `cache` (OrphanDetachedRecords), and Unlink and Free skip the
// `allocated` update for a record without a cache, so a late release never
// touches a destroyed cache, nor a new cache that reuses its address. The
// table is touched only on that rare path and has its own lock, since
// records of different caches may be released on different threads.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "cainternal.h"
#include "qmcache/qmcache.hpp"

CACritical CARecord::recordHnd;

namespace {

std::mutex detachedLock;
// Records detached while held, by the cache they still charge.
std::unordered_map<CACache*, std::unordered_set<CARecord*>> detachedHeld;

void NoteDetachedHeld(CARecord* record) {
  if (record->cache == nullptr) return;
  std::lock_guard<std::mutex> guard(detachedLock);
  detachedHeld[record->cache].insert(record);
}

// Gives the record's accounted bytes back to its cache (32-bit counter, low
// bits of the length), unless the cache is already gone, and destroys it.
void Destroy(CARecord* record, bool wasDetachedHeld) {
  CACache* cache = record->cache;
  if (cache != nullptr) {
    cache->params.allocated -= (unsigned int)record->length;
    if (wasDetachedHeld) {
      std::lock_guard<std::mutex> guard(detachedLock);
      auto entry = detachedHeld.find(cache);
      if (entry != detachedHeld.end()) {
        entry->second.erase(record);
        if (entry->second.empty()) detachedHeld.erase(entry);
      }
    }
  }
  delete record;
}

}  // namespace

void OrphanDetachedRecords(CACache* cache) {
  std::lock_guard<std::mutex> guard(detachedLock);
  auto entry = detachedHeld.find(cache);
  if (entry == detachedHeld.end()) return;
  for (CARecord* record : entry->second) record->cache = nullptr;
  detachedHeld.erase(entry);
}

CARecord::CARecord(unsigned long size, unsigned long length, void* data,
                   BTree* node, CACache* cache, int tag, int flags,
                   long lifetime)
    : CAMem(size) {
  created = time(nullptr);
  this->length = length;
  hits = 1;
  this->tag = tag;
  this->node = node;
  this->flags = flags;
  this->cache = cache;
  this->lifetime = lifetime;
  // The buffer holds size + 1 bytes. For the largest size that count wraps;
  // CAMem then allocates nothing, and the record is not valid either way:
  // never a tiny block with a huge copy.
  void* block = get();
  if (size != 0 && size + 1 != 0 && block != nullptr) {
    valid = 1;
    memmove(block, data, size);
  } else {
    valid = 0;
  }
  release();
  refCount = 0;
}

CARecord::~CARecord() {
  // The callback sees the block before CAMem's destructor frees it.
  if ((flags & CAREC_CALLBACK) != 0 && free_handle != nullptr)
    free_handle(flags, size, data);
}

void CARecord::Unlink(CACacheAction* action) {
  const bool wasAttached = node != nullptr;
  if (wasAttached) {
    node->payload = nullptr;
    node = nullptr;
    // Noted before FreeNode: a pass that it starts may destroy the cache's
    // other records, but never this held one.
    if (refCount != 0) NoteDetachedHeld(this);
    // FreeNode may run a reclamation pass that replaces the whole tree, so
    // the old node is not touched again after this call.
    if (cache != nullptr) cache->FreeNode(action);
  }
  if (refCount == 0) Destroy(this, !wasAttached);
}

void CARecord::Erase(CACacheAction* action) {
  if (refCount > 0) refCount--;
  Unlink(action);
}

void CARecord::Free() {
  if (refCount > 0) refCount--;
  if (node != nullptr) return;
  if (refCount == 0) Destroy(this, true);
}
