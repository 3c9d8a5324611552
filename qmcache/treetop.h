/* SPDX-License-Identifier: MIT */
// A compact copy of the top levels of one cache's record tree, so that the
// descent of an insert reads its first steps from a small array that stays
// in the processor's cache instead of from nodes spread over the whole
// arena. In a tree of a million nodes the insert's descent takes about
// twenty steps, each waiting for the one before; the top dozen of them are
// the same few thousand nodes for every key.
//
// The copy holds, in breadth-first order (the root at entry 1, the children
// of entry i at 2i and 2i + 1, so that four grandchildren share a cache
// line), every node of the top kLevels levels with the first
// eight bytes of its key as a big-endian number, so that most steps are
// decided without reading the node. The insert is the plain one
// (InsertNode): the same nodes, links and rotations in the same order; only
// where its first steps read from differs. The copy is kept exact: a leaf
// linked within the top levels is added, and a rotation within them copies
// the rotated subtree's top again. It is made when the tree first reaches
// kSmallestTree nodes, and dropped (Reset) when the tree is replaced.
//
// The shortcut is removed by deleting this file and NodeForKey's call of
// Insert (FindNode, then InsertNode, in its place), with the two calls of
// Reset. Building with QMCACHE_WITHOUT_TREE_TOP keeps the copy from ever
// being made, which has the same effect (how the benchmark measures what
// it saves).
#ifndef QMCACHE_TREETOP_H
#define QMCACHE_TREETOP_H

#include <assert.h>
#include <stdint.h>
#include <stdlib.h>

#include "keyorder.h"
#include "nodearena.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"

class TreeTop {
 public:
  static constexpr int kLevels = 12;
  static constexpr size_t kEntries = size_t{1} << kLevels;  // 64 KiB
  static constexpr size_t kSmallestTree = size_t{1} << (kLevels + 1);

  TreeTop() = default;
  ~TreeTop() { free(entries_); }
  TreeTop(const TreeTop&) = delete;
  TreeTop& operator=(const TreeTop&) = delete;

  // InsertNode(root, ...) for a tree of `nodes` nodes, asking `find()`
  // for the key's node (null when the key is new) before it reads a node
  // or links one: the caller's quicker way to a key the tree has, which
  // then has the time the copy's steps take to fetch its memory.
  template <class Find>
  BTree* Insert(BTree* root, unsigned char* key, unsigned long keyLength,
                int* existed, NodeArena* arena, size_t nodes, Find find) {
    if (!Ready(root, nodes)) {
      BTree* found = find();
      *existed = found != nullptr;
      return found != nullptr
                 ? found
                 : InsertNode(root, key, keyLength, existed, arena);
    }
    const uint64_t prefix = PrefixOf(key, keyLength);
    size_t at[kLevels];  // the entry of each level on the key's path
    size_t i = 1;
    int depth = 0;
    // find(), asked once before the first node is read or linked.
    bool asked = false;
    auto known = [&]() -> BTree* {
      if (asked) return nullptr;
      asked = true;
      return find();
    };
    BTree* node;
    for (;;) {
      const Entry& e = entries_[i];
      BTree* n = e.node;
      at[depth] = i;
      int c;
      if (prefix != kNoPrefix && e.prefix != kNoPrefix && e.prefix != prefix) {
        c = e.prefix > prefix ? 1 : -1;
      } else {
        if (BTree* found = known()) {
          *existed = 1;
          return found;
        }
        c = KeyOrder(n->key, n->keyLength, key, keyLength);
        if (c == 0) {
          *existed = 1;
          return n;
        }
      }
      BTree** link = c > 0 ? &n->left : &n->right;
      const size_t child = 2 * i + (c > 0 ? 0 : 1);
      depth++;
      if (depth == kLevels || entries_[child].node == nullptr) {
        if (BTree* found = known()) {
          *existed = 1;
          return found;
        }
      }
      if (depth < kLevels) {
        if (entries_[child].node != nullptr) {
          if (depth + 1 < kLevels) Prefetch(&entries_[2 * child]);
          i = child;
          continue;
        }
        // The path ends inside the copy: the new leaf joins it.
        *existed = 0;
        node = arena->Make(key, keyLength, n, link);
        *link = node;
        entries_[child] = EntryOf(node);
        break;
      }
      // Below the copy, the descent goes on in the nodes.
      if (*link == nullptr) {
        *existed = 0;
        node = arena->Make(key, keyLength, n, link);
        *link = node;
        break;
      }
      node = LinkNode(*link, key, keyLength, existed, arena, &depth);
      if (*existed != 0) return node;
      break;
    }
    // `node` is a new leaf at `depth`. A rotation within the copy moves
    // the subtree it was at; that subtree's top is copied again.
    int climbed = 0;
    BTree* rotated = ReOrgClimb(node, &climbed);
    if (rotated != nullptr && depth - climbed < kLevels) {
      const int level = depth - climbed;
      Copy(at[level], rotated->parent, level);
    }
    assert(entries_[1].node->parent == nullptr);
#ifndef NDEBUG
    // A debug build compares the whole copy with the tree now and then.
    if (++inserts_ % 256 == 0) assert(Matches(1, entries_[1].node, 0));
#endif
    return node;
  }

  // The tree is replaced or gone: the copy is made again when needed.
  void Reset() { ready_ = false; }

 private:
  struct Entry {
    uint64_t prefix;  // kNoPrefix: compare the node's key
    BTree* node;      // null: no node here
  };
  // No key shorter than eight bytes gets a prefix, and a key's first eight
  // bytes are never all 0xFF with this value's meaning: such keys compare
  // in the node.
  static constexpr uint64_t kNoPrefix = ~uint64_t{0};

  static uint64_t PrefixOf(const unsigned char* key, unsigned long keyLength) {
    if (keyLength < 8) return kNoPrefix;
    return __builtin_bswap64(keyorder::Load64(key));
  }
  static Entry EntryOf(BTree* node) {
    if (node == nullptr) return Entry{kNoPrefix, nullptr};
    return Entry{PrefixOf(node->key, node->keyLength), node};
  }

  bool Ready(BTree* root, size_t nodes) {
#ifdef QMCACHE_WITHOUT_TREE_TOP
    return false;
#endif
    if (ready_ && entries_[1].node == root) return true;
    assert(!ready_);  // the root changes only by a rotation the copy follows
    if (root == nullptr || nodes < kSmallestTree) return false;
    if (entries_ == nullptr) {
      entries_ = static_cast<Entry*>(
          aligned_alloc(kCacheLine, kEntries * sizeof(Entry)));
      if (entries_ == nullptr) return false;
    }
    Copy(1, root, 0);
    ready_ = true;
    return true;
  }

  // Copies the subtree of `node` (null: none) into entry `i` of `level` and
  // the entries below it.
  void Copy(size_t i, BTree* node, int level) {
    if (level >= kLevels) return;
    entries_[i] = EntryOf(node);
    Copy(2 * i, node != nullptr ? node->left : nullptr, level + 1);
    Copy(2 * i + 1, node != nullptr ? node->right : nullptr, level + 1);
  }

  // Whether entry `i` of `level` and those below it copy `node`'s subtree.
  bool Matches(size_t i, BTree* node, int level) const {
    if (level >= kLevels) return true;
    const Entry e = EntryOf(node);
    if (entries_[i].node != e.node || entries_[i].prefix != e.prefix)
      return false;
    return Matches(2 * i, node != nullptr ? node->left : nullptr, level + 1) &&
           Matches(2 * i + 1, node != nullptr ? node->right : nullptr,
                   level + 1);
  }

  Entry* entries_ = nullptr;
  bool ready_ = false;
#ifndef NDEBUG
  unsigned long inserts_ = 0;  // through the copy
#endif
};

#endif  // QMCACHE_TREETOP_H
