/* SPDX-License-Identifier: MIT */
// The nodes of one cache's record tree, each in one block with its key copy,
// bump-allocated from chunks that belong to the tree as a whole.
//
// A record tree never loses a node before the whole tree goes (a removed
// record only empties its node), so its nodes need no freeing one by one:
// the tree's teardown, or the rebuild that replaces it, frees the chunks.
// One block per node (the node, then its key) halves the heap blocks a new
// key costs and puts the key on the cache lines a descent reads anyway.
//
// Only the library builds record trees; their nodes must not be deleted
// with `delete`, nor nodes made elsewhere linked into them.
#ifndef QMCACHE_NODEARENA_H
#define QMCACHE_NODEARENA_H

#include <stddef.h>
#include <stdlib.h>

#include <algorithm>
#include <new>
#include <utility>

#include "largepages.h"
#include "qmcache/qmcache.hpp"

class NodeArena {
 public:
  NodeArena() = default;
  ~NodeArena() { Release(); }
  NodeArena(const NodeArena&) = delete;
  NodeArena& operator=(const NodeArena&) = delete;

  // A new, unlinked node with its own copy of the key, as the BTree
  // constructor makes it (serial, magic, links and heights).
  BTree* Make(unsigned char* key, unsigned long keyLength, BTree* parent,
              BTree** parentLink) {
    const size_t block = RoundUp8(sizeof(BTree) + keyLength);
    if (block > left_) NewChunk(block);
    void* at = free_;
    free_ += block;
    left_ -= block;
    return new (at)
        BTree(BTree::KeyBehind(), key, keyLength, parent, parentLink);
  }

  // Frees every node made here at once (no destructor runs: a node owns
  // nothing beyond its block).
  void Release() {
    while (chunks_ != nullptr) {
      Chunk* next = chunks_->next;
      free(chunks_);
      chunks_ = next;
    }
    free_ = nullptr;
    left_ = 0;
    held_ = 0;
  }

  void Swap(NodeArena& other) {
    std::swap(chunks_, other.chunks_);
    std::swap(free_, other.free_);
    std::swap(left_, other.left_);
    std::swap(held_, other.held_);
  }

 private:
  struct Chunk {
    Chunk* next;
  };
  // A new chunk holds an eighth of what the arena holds already, so that
  // at most about an eighth lies unused, within these bounds; the largest
  // holds three 2 MiB pages whatever malloc's alignment (largepages.h).
  static constexpr size_t kFirstChunk = 4096;
  static constexpr size_t kLargestChunk = 8 << 20;

  static size_t RoundUp8(size_t n) { return (n + 7) & ~size_t{7}; }

  // A chunk with room for `block` bytes becomes the newest.
  void NewChunk(size_t block) {
    const size_t head = RoundUp8(sizeof(Chunk));
    size_t size = std::min(kLargestChunk, std::max(kFirstChunk, held_ / 8));
    while (size < head + block) size *= 2;
    auto* chunk = static_cast<Chunk*>(malloc(size));
    if (chunk == nullptr) throw std::bad_alloc();
    AdviseLargePages(chunk, size);
    chunk->next = chunks_;
    chunks_ = chunk;
    free_ = reinterpret_cast<unsigned char*>(chunk) + head;
    left_ = size - head;
    held_ += size;
  }

  Chunk* chunks_ = nullptr;
  unsigned char* free_ = nullptr;  // the unused rest of the newest chunk
  size_t left_ = 0;
  size_t held_ = 0;  // bytes in chunks
};

// BTree::Insert for a record tree, whose new nodes come from its arena
// (catree.cpp).
BTree* InsertNode(BTree* root, unsigned char* key, unsigned long keyLength,
                  int* existed, NodeArena* arena);

// InsertNode's two steps. LinkNode descends from `from` to the key's node
// (`existed` 1) or links a new leaf from `arena` where the key belongs,
// adding the levels it descends to `depth`. ReOrgClimb then rebalances
// like BTree::ReOrg: it returns the node it rotated at, or null, and adds
// to `climbed` the levels from the leaf up to that node.
BTree* LinkNode(BTree* from, unsigned char* key, unsigned long keyLength,
                int* existed, NodeArena* arena, int* depth);
BTree* ReOrgClimb(BTree* node, int* climbed);

#endif  // QMCACHE_NODEARENA_H
