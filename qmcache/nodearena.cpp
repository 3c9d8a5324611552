// SPDX-License-Identifier: MIT
// The node arena of the record trees (see nodearena.h): each node is made in
// one block with its key copy, bump-allocated from chunks of the tree.
#include "nodearena.h"

#include <stdlib.h>
#include <string.h>

#include <new>
#include <utility>

#include "cainternal.h"

BTree::BTree(KeyBehind, unsigned char* key, unsigned long keyLength,
             BTree* parent, BTree** parentLink) {
  MakeLeaf(this, reinterpret_cast<unsigned char*>(this + 1), keyLength, parent,
           parentLink);
  if (keyLength != 0) memcpy(this->key, key, keyLength);
}

namespace {
// Chunks double up to this size.
constexpr size_t kLargestChunk = 1 << 20;
size_t RoundUp8(size_t n) { return (n + 7) & ~size_t{7}; }
}  // namespace

BTree* NodeArena::Make(unsigned char* key, unsigned long keyLength,
                       BTree* parent, BTree** parentLink) {
  const size_t block = RoundUp8(sizeof(BTree) + keyLength);
  if (block > left_) {
    const size_t head = RoundUp8(sizeof(Chunk));
    size_t size = nextChunk_;
    while (size < head + block) size *= 2;
    auto* chunk = static_cast<Chunk*>(malloc(size));
    if (chunk == nullptr) throw std::bad_alloc();
    chunk->next = chunks_;
    chunks_ = chunk;
    free_ = reinterpret_cast<unsigned char*>(chunk) + head;
    left_ = size - head;
    if (nextChunk_ < kLargestChunk) nextChunk_ *= 2;
  }
  void* at = free_;
  free_ += block;
  left_ -= block;
  return new (at) BTree(BTree::KeyBehind(), key, keyLength, parent, parentLink);
}

void NodeArena::Release() {
  while (chunks_ != nullptr) {
    Chunk* next = chunks_->next;
    free(chunks_);
    chunks_ = next;
  }
  free_ = nullptr;
  left_ = 0;
  nextChunk_ = kFirstChunk;
}

void NodeArena::Swap(NodeArena& other) {
  std::swap(chunks_, other.chunks_);
  std::swap(free_, other.free_);
  std::swap(left_, other.left_);
  std::swap(nextChunk_, other.nextChunk_);
}
