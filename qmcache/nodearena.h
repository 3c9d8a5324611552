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
              BTree** parentLink);
  // Frees every node made here at once (no destructor runs: a node owns
  // nothing beyond its block).
  void Release();
  void Swap(NodeArena& other);

 private:
  struct Chunk {
    Chunk* next;
  };
  // The first chunk's size; later ones double.
  static constexpr size_t kFirstChunk = 4096;
  Chunk* chunks_ = nullptr;
  unsigned char* free_ = nullptr;  // the unused rest of the newest chunk
  size_t left_ = 0;
  size_t nextChunk_ = kFirstChunk;
};

#endif  // QMCACHE_NODEARENA_H
