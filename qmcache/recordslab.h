/* SPDX-License-Identifier: MIT */
// The heap blocks of one cache's records (a record with its data behind it),
// carved from chunks of the cache's own instead of taken from malloc one by
// one: no block header, sizes in steps of 8 bytes rather than malloc's 16
// (a record with 64 data bytes takes 176 bytes, not 192), no allocator call
// on an insert that reuses a block. (Its chunks stay on small pages: the
// kernel's zeroing of fresh 2 MiB pages cost inserts more than the fewer
// TLB misses saved lookups.)
//
// Blocks come in classes kGrain bytes apart up to kLargestBlock; each class
// has its own chunks (so a block's class is its chunk's) and a list of its
// free blocks. A freed block waits on its class's list for the next record
// of that size; the chunks go back to malloc when the last block is freed
// (a cache emptied or destroyed), so a cache that changes its record sizes
// keeps its old ones' room only until it is empty once.
//
// A slab belongs to its cache and is touched only by calls on that cache,
// which the host serialises, with one exception: records still held when
// their cache is destroyed outlive it, and so does their slab. The cache
// then abandons it; the slab joins a process-wide list of abandoned slabs,
// its blocks are given back under that list's lock (from any thread), and
// it goes with its last block.
//
// The shortcut is removed by deleting this file, the `slab` of CacheState
// (castate.h) and the slab's calls in NewRecord and DeleteRecord (a record
// is then a heap block of its own again); building with
// QMCACHE_WITHOUT_RECORD_SLAB makes Allocate refuse every block, which has the
// same effect (how the benchmark measures what the slab saves).
#ifndef QMCACHE_RECORDSLAB_H
#define QMCACHE_RECORDSLAB_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <mutex>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#define QMCACHE_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define QMCACHE_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define QMCACHE_POISON(p, n) ((void)(p), (void)(n))
#define QMCACHE_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

class RecordSlab {
 public:
  static constexpr size_t kGrain = 8;
  static constexpr size_t kLargestBlock = 512;

  RecordSlab() = default;
  RecordSlab(const RecordSlab&) = delete;
  RecordSlab& operator=(const RecordSlab&) = delete;

  // A block of at least `bytes` bytes (aligned to 8), or null when it is
  // larger than kLargestBlock or no chunk could be had.
  void* Allocate(size_t bytes) {
#ifdef QMCACHE_WITHOUT_RECORD_SLAB
    return nullptr;
#endif
    if (bytes == 0 || bytes > kLargestBlock) return nullptr;
    Class& c = classes_[(bytes - 1) / kGrain];
    const size_t size = ((bytes - 1) / kGrain + 1) * kGrain;
    void* block = c.free;
    if (block != nullptr) {
      QMCACHE_UNPOISON(block, size);
      c.free = *static_cast<void**>(block);
    } else {
      if (c.left < size && !NewChunk(c, size)) return nullptr;
      block = c.next;
      c.next += size;
      c.left -= size;
      QMCACHE_UNPOISON(block, size);
    }
    live_++;
    return block;
  }

  // Gives back `block` if it is one of this slab's, and says whether it
  // was. Safe on an abandoned slab from any thread; the slab may be gone
  // once this returns true.
  bool Free(void* block) {
    const Chunk* chunk = ChunkOf(block);
    if (chunk == nullptr) return false;
    if (abandoned_) {
      std::lock_guard<std::mutex> hold(AbandonedLock());
      GiveBackAbandoned(block, chunk);
      return true;
    }
    assert(live_ > 0);
    Class& c = classes_[chunk->size / kGrain - 1];
    QMCACHE_UNPOISON(block, chunk->size);
    *static_cast<void**>(block) = c.free;
    c.free = block;
    QMCACHE_POISON(block, chunk->size);
    if (--live_ == 0) ReleaseChunks();
    return true;
  }

  // The cache's end: the slab goes now if no block is in use, else with
  // its last block.
  static void Abandon(RecordSlab* slab) {
    std::lock_guard<std::mutex> hold(AbandonedLock());
    if (slab->live_ == 0) {
      delete slab;
      return;
    }
    slab->abandoned_ = true;
    slab->nextAbandoned_ = Abandoned();
    Abandoned() = slab;
  }

  // Gives back the block of a record that outlived its cache, if an
  // abandoned slab owns it, and says whether one did.
  static bool FreeOrphan(void* block) {
    std::lock_guard<std::mutex> hold(AbandonedLock());
    for (RecordSlab* slab = Abandoned(); slab != nullptr;
         slab = slab->nextAbandoned_) {
      if (const Chunk* chunk = slab->ChunkOf(block)) {
        slab->GiveBackAbandoned(block, chunk);
        return true;
      }
    }
    return false;
  }

 private:
  struct Class {
    void* free = nullptr;           // the newest freed block
    unsigned char* next = nullptr;  // the unused rest of the newest chunk
    size_t left = 0;
    size_t held = 0;  // bytes in its chunks
  };
  struct Chunk {
    uintptr_t begin;
    uintptr_t end;
    size_t size;  // of its blocks
  };
  // A class's new chunk holds an eighth of what its chunks hold already,
  // so that at most about an eighth lies unused; the first holds
  // kFirstBlocks blocks.
  static constexpr size_t kFirstBlocks = 4;
  static constexpr size_t kLargestChunk = 8 << 20;

  ~RecordSlab() { ReleaseChunks(); }

  bool NewChunk(Class& c, size_t size) {
    const size_t bytes =
        std::min(kLargestChunk, std::max(kFirstBlocks * size, c.held / 8));
    auto* begin = static_cast<unsigned char*>(malloc(bytes));
    if (begin == nullptr) return false;
    const Chunk chunk{reinterpret_cast<uintptr_t>(begin),
                      reinterpret_cast<uintptr_t>(begin) + bytes, size};
    try {
      chunks_.insert(std::upper_bound(chunks_.begin(), chunks_.end(), chunk,
                                      [](const Chunk& a, const Chunk& b) {
                                        return a.begin < b.begin;
                                      }),
                     chunk);
    } catch (...) {
      free(begin);
      return false;
    }
    QMCACHE_POISON(begin, bytes);
    // The old chunk's unused rest is given up: never more than one block.
    c.next = begin;
    c.left = bytes - bytes % size;
    c.held += bytes;
    return true;
  }

  // The chunk holding `block`, or null. Every record's end asks: the
  // search halves without a branch to mispredict.
  const Chunk* ChunkOf(const void* block) const {
    const auto at = reinterpret_cast<uintptr_t>(block);
    size_t n = chunks_.size();
    if (n == 0) return nullptr;
    const Chunk* last = chunks_.data();  // the last chunk starting at or below
    while (n > 1) {
      const size_t half = n / 2;
      last = last[half].begin <= at ? last + half : last;
      n -= half;
    }
    return last->begin <= at && at < last->end ? last : nullptr;
  }

  void ReleaseChunks() {
    for (const Chunk& chunk : chunks_) {
      QMCACHE_UNPOISON(reinterpret_cast<void*>(chunk.begin),
                       chunk.end - chunk.begin);
      free(reinterpret_cast<void*>(chunk.begin));
    }
    std::vector<Chunk>().swap(chunks_);
    for (Class& c : classes_) c = Class();
  }

  // Under AbandonedLock: the block of an abandoned slab, which goes with
  // its last one.
  void GiveBackAbandoned(void* block, const Chunk* chunk) {
    QMCACHE_POISON(block, chunk->size);
    if (--live_ != 0) return;
    RecordSlab** link = &Abandoned();
    while (*link != this) link = &(*link)->nextAbandoned_;
    *link = nextAbandoned_;
    delete this;
  }

  static std::mutex& AbandonedLock() {
    static std::mutex lock;
    return lock;
  }
  static RecordSlab*& Abandoned() {
    static RecordSlab* first = nullptr;
    return first;
  }

  Class classes_[kLargestBlock / kGrain];
  std::vector<Chunk> chunks_;  // by address
  size_t live_ = 0;            // blocks in use
  bool abandoned_ = false;
  RecordSlab* nextAbandoned_ = nullptr;
};

#endif  // QMCACHE_RECORDSLAB_H
