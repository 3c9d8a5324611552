/* SPDX-License-Identifier: MIT */
// Links between the library's own modules that are not part of the
// exported interface.
#ifndef QMCACHE_CAINTERNAL_H
#define QMCACHE_CAINTERNAL_H

#include <string.h>
#include <time.h>

#include <unordered_set>
#include <vector>

#include "caconst.h"
#include "castate.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"

// The node after `n` in a pre-order walk (node, left subtree, right
// subtree) of the subtree rooted at `top`, or null after its last node. It
// moves along child and parent links only, so a chain-shaped tree of any
// length needs no stack; the walk never climbs above `top`.
inline BTree* PreorderNext(BTree* n, const BTree* top) {
  if (n->left != nullptr) return n->left;
  if (n->right != nullptr) return n->right;
  // A leaf: climb to the nearest ancestor whose right subtree is still to
  // be visited, coming up from its left side.
  for (;;) {
    if (n == top) return nullptr;
    BTree* p = n->parent;
    if (p == nullptr) return nullptr;
    if (p->left == n && p->right != nullptr) return p->right;
    n = p;
  }
}

// What both node constructors set: a leaf under `parent` whose key bytes
// will be at `store`. The serial is taken before the key is allocated.
inline void MakeLeaf(BTree* n, unsigned char* store, unsigned long keyLength,
                     BTree* parent, BTree** parentLink) {
  memcpy(n->magic, kNodeMagic, sizeof(n->magic));
  n->keyLength = keyLength;
  n->serial = BTree::cnt++;
  n->payload = nullptr;
  n->key = store;
  n->parent = parent;
  n->parentLink = parentLink;
  n->left = n->right = nullptr;
  n->leftHeight = n->rightHeight = 0;
}

// BTree::Insert for a record tree: a new node comes from `arena`.
BTree* InsertNode(BTree* root, unsigned char* key, unsigned long keyLength,
                  int* existed, NodeArena* arena);

// The node with exactly this key in the cache's record tree (empty nodes
// included), or null. Found through the index; a debug build checks it
// against the tree's own descent.
BTree* FindNode(CACache* cache, const unsigned char* key,
                unsigned long keyLength);

// A record for a cache: its data lies behind it in the same heap block when
// such a block can be had. Every record the library makes comes from here,
// and goes with DeleteRecord.
CARecord* NewRecord(unsigned long size, unsigned long length, void* data,
                    BTree* node, CACache* cache, int tag, int flags,
                    long lifetime);
void DeleteRecord(CARecord* record);

// The count of CACache::FreeNode: lowers `usedNodes` and tells whether the
// free-node trigger is due, without firing it.
bool CountFreeNode(CACache* cache);
// The rest of CACache::FreeNode once the count said the trigger is due.
void FireFreeNodeTrigger(CACache* cache, CACacheAction* action);

// CARecord::Unlink for a replacement: the free-node trigger is not fired but
// noted in `due`, for the insert to fire once its new record is in place.
void UnlinkDeferringTrigger(CARecord* record, bool* due);

// Calls `visit(node)` for every node of the tree below `root` in ascending
// order, the sequence of a BTreeNumerator. The walk keeps the way back on
// `stack` instead of climbing parent links, so it reads every node once, and
// it fetches each node's right child as soon as it passes the node, long
// before it gets there. `visit` must not change the tree's shape.
template <class Visit>
void WalkInOrder(BTree* root, std::vector<BTree*>& stack, Visit visit) {
  stack.clear();
  BTree* n = root;
  for (;;) {
    while (n != nullptr) {
      Prefetch(n->right);
      stack.push_back(n);
      n = n->left;
    }
    if (stack.empty()) return;
    n = stack.back();
    stack.pop_back();
    visit(n);
    n = n->right;
  }
}

// True while the host's release callback runs on this thread.
bool InReleaseCallback();

// Applies the mode switch that CA_INIT deferred while a pass was running,
// once the controller is idle. It may delete the controller: a member of
// CAFree calls it last and touches nothing of its own afterwards.
void ApplyDeferredMode();

// Called by a cache's destructor once its tree is gone: every record of the
// cache that left its tree while held, and is still alive, forgets the cache,
// so that its last release updates no destroyed cache.
void OrphanDetachedRecords(CACache* cache);

#endif  // QMCACHE_CAINTERNAL_H
