/* SPDX-License-Identifier: MIT */
// An index from key to tree node for one cache's record tree, so that a
// search, a miss and a replacement find the key's node without descending
// the tree. The tree stays what it is (its shape, its nodes, the order in
// which they are made); the index only mirrors it: every node of the tree,
// empty ones included, is in the index, and nothing else.
//
// The tree never removes a node on its own, so neither does the index: it
// gains a node whenever the tree does, and is refilled from the new nodes
// when a rebuild replaces the tree.
//
// Open addressing with linear probing over a power-of-two table. A slot
// holds the node's address in its low 48 bits and 16 bits of the key's hash
// above them, so that a probe rarely reads a node whose key differs. The
// table doubles beyond 7/10 full; doubling reads every node's key again.
#ifndef QMCACHE_KEYINDEX_H
#define QMCACHE_KEYINDEX_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <new>

#include "caconst.h"
#include "keyorder.h"
#include "largepages.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"

class KeyIndex {
 public:
  KeyIndex() = default;
  ~KeyIndex() { free(slots_); }
  KeyIndex(const KeyIndex&) = delete;
  KeyIndex& operator=(const KeyIndex&) = delete;

  // The node with exactly this key, or null.
  BTree* Find(const unsigned char* key, unsigned long keyLength) const {
    if (count_ == 0) return nullptr;
    const uint64_t hash = Hash(key, keyLength);
    const uint64_t tag = hash & kTagMask;
    for (size_t i = hash & mask_;; i = (i + 1) & mask_) {
      const uint64_t slot = slots_[i];
      if (slot == 0) return nullptr;
      if ((slot & kTagMask) == tag) {
        BTree* node = NodeIn(slot);
        if (SameKey(node->key, node->keyLength, key, keyLength)) return node;
      }
    }
  }

  // Fetches the slot where Find(key, keyLength) starts.
  void PrefetchSlot(const unsigned char* key, unsigned long keyLength) const {
    if (slots_ != nullptr) Prefetch(&slots_[Hash(key, keyLength) & mask_]);
  }

  // False once a node lay beyond the 48 bits that a slot holds (never seen
  // on x86-64 Linux, whose user addresses have 47): the owner then finds
  // its nodes by descending the tree.
  bool usable() const { return usable_; }

  // Adds a node whose key the index does not hold yet.
  void Add(BTree* node) {
    if ((reinterpret_cast<uintptr_t>(node) & kTagMask) != 0) usable_ = false;
    if (!usable_) return;
    if ((count_ + 1) * 10 > Capacity() * 7) Grow(count_ + 1);
    Place(node, Hash(node->key, node->keyLength));
    count_++;
  }

  // Adds `n` nodes (at most kBatch) whose keys the index does not hold yet:
  // their slots are fetched together before any is filled.
  static constexpr size_t kBatch = kRebuildBatch;
  void AddAll(BTree* const* nodes, size_t n) {
    for (size_t i = 0; i < n; i++) usable_ &= !(Address(nodes[i]) & kTagMask);
    if (!usable_ || n == 0) return;
    if ((count_ + n) * 10 > Capacity() * 7) Grow(count_ + n);
    PlaceGroup(nodes, n);
    count_ += n;
  }

  // Forgets every node, keeping room for `expected` of them.
  void Reset(size_t expected) {
    count_ = 0;
    usable_ = true;
    if (expected * 10 > Capacity() * 7 || Capacity() > 4 * Fitting(expected)) {
      free(slots_);
      slots_ = nullptr;
      mask_ = 0;
      if (expected > 0) Allocate(Fitting(expected));
    } else if (slots_ != nullptr) {
      memset(slots_, 0, Capacity() * sizeof(uint64_t));
    }
  }

  size_t size() const { return count_; }

 private:
  static constexpr uint64_t kTagMask = 0xFFFF000000000000ULL;

  static uintptr_t Address(const BTree* node) {
    return reinterpret_cast<uintptr_t>(node);
  }
  static BTree* NodeIn(uint64_t slot) {
    return reinterpret_cast<BTree*>(static_cast<uintptr_t>(slot & ~kTagMask));
  }

  static uint64_t Load64(const unsigned char* p) { return keyorder::Load64(p); }
  static uint64_t Load32(const unsigned char* p) { return keyorder::Load32(p); }
  static uint64_t Mix(uint64_t a, uint64_t b) {
    const __uint128_t r = static_cast<__uint128_t>(a) * b;
    return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
  }
  // A multiply-and-fold hash over 16 bytes at a time; its low bits choose
  // the slot, its high bits make the tag.
  static uint64_t Hash(const unsigned char* p, unsigned long n) {
    const uint64_t k0 = 0xa0761d6478bd642fULL, k1 = 0xe7037ed1a0b428dbULL,
                   k2 = 0x8ebc6af09c88c6e3ULL;
    uint64_t seed = k2 ^ Mix(n ^ k0, k1);
    uint64_t a = 0, b = 0;
    if (n > 16) {
      unsigned long left = n;
      while (left > 16) {
        seed = Mix(Load64(p) ^ k1, Load64(p + 8) ^ seed);
        p += 16;
        left -= 16;
      }
      a = Load64(p + left - 16);
      b = Load64(p + left - 8);
    } else if (n >= 8) {
      a = Load64(p);
      b = Load64(p + n - 8);
    } else if (n >= 4) {
      a = Load32(p);
      b = Load32(p + n - 4);
    } else if (n > 0) {
      a = (uint64_t{p[0]} << 16) | (uint64_t{p[n >> 1]} << 8) | p[n - 1];
    }
    return Mix(k1 ^ n, Mix(a ^ k1, b ^ seed));
  }

  size_t Capacity() const { return slots_ == nullptr ? 0 : mask_ + 1; }
  static size_t Fitting(size_t n) {
    size_t capacity = 16;
    while (n * 10 > capacity * 7) capacity *= 2;
    return capacity;
  }
  void Allocate(size_t capacity) {
    slots_ = static_cast<uint64_t*>(calloc(capacity, sizeof(uint64_t)));
    if (slots_ == nullptr) throw std::bad_alloc();
    AdviseLargePages(slots_, capacity * sizeof(uint64_t));
    mask_ = capacity - 1;
  }
  void Place(BTree* node, uint64_t hash) {
    size_t i = hash & mask_;
    while (slots_[i] != 0) i = (i + 1) & mask_;
    slots_[i] = (hash & kTagMask) | reinterpret_cast<uintptr_t>(node);
  }
  // Places `n` nodes (at most kBatch): their slots are fetched together
  // before any is filled.
  void PlaceGroup(BTree* const* nodes, size_t n) {
    uint64_t hashes[kBatch];
    for (size_t i = 0; i < n; i++) {
      hashes[i] = Hash(nodes[i]->key, nodes[i]->keyLength);
      Prefetch(&slots_[hashes[i] & mask_], 1, true);
    }
    for (size_t i = 0; i < n; i++) Place(nodes[i], hashes[i]);
  }
  void Grow(size_t needed) {
    uint64_t* old = slots_;
    const size_t oldCapacity = Capacity();
    slots_ = nullptr;
    Allocate(Fitting(needed) < 2 * oldCapacity ? 2 * oldCapacity
                                               : Fitting(needed));
    // Every node's key is read again, from all over the arena: a group of
    // nodes is fetched together (with the key behind each) before any is
    // hashed.
    constexpr size_t kGroup = 32;
    static_assert(kGroup <= kBatch, "a group is placed as a batch");
    BTree* group[kGroup];
    size_t n = 0;
    for (size_t i = 0; i < oldCapacity; i++) {
      if (old[i] == 0) continue;
      group[n] = NodeIn(old[i]);
      Prefetch(group[n], 2);
      if (++n == kGroup) {
        PlaceGroup(group, n);
        n = 0;
      }
    }
    PlaceGroup(group, n);
    free(old);
  }

  uint64_t* slots_ = nullptr;
  size_t mask_ = 0;
  size_t count_ = 0;
  bool usable_ = true;
};

#endif  // QMCACHE_KEYINDEX_H
