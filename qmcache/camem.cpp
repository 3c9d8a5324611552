// Records: a data buffer plus the bookkeeping of search, eviction and
// release, and the reference counting that decides when a record goes.
//
// A record is attached while `node` is set (its node's payload is the record)
// and held while `refCount` > 0. It is destroyed when it is neither: by
// Unlink/Erase of an unheld record, or by the Free of its last hold once it
// has left its tree. Destruction gives the record's bytes back to its cache's
// `allocated` count.
//
// A record still held when its cache is destroyed has its `cache` cleared by
// the cache's teardown; Unlink and Free then skip the `allocated` update, so
// a late release never touches the destroyed cache.
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qmcache/qmcache.hpp"

CACritical CARecord::recordHnd;

namespace {

// Gives the record's accounted bytes back to its cache (32-bit counter, low
// bits of the length), unless the cache is already gone.
void Uncharge(CACache* cache, unsigned long length) {
  if (cache != nullptr) cache->params.allocated -= (unsigned int)length;
}

}  // namespace

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
  if (node != nullptr) {
    node->payload = nullptr;
    // FreeNode may run a reclamation pass that replaces the whole tree, so
    // the old node is not touched again after this call.
    if (cache != nullptr) cache->FreeNode(action);
  }
  node = nullptr;
  if (refCount == 0) {
    Uncharge(cache, length);
    delete this;
  }
}

void CARecord::Erase(CACacheAction* action) {
  if (refCount > 0) refCount--;
  Unlink(action);
}

void CARecord::Free() {
  if (refCount > 0) refCount--;
  if (node != nullptr) return;
  if (refCount == 0) {
    Uncharge(cache, length);
    delete this;
  }
}
