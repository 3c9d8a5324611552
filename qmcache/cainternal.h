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

// The one depth-first walk of a subtree (besides BTreeNumerator and
// WalkInOrder). It follows child links only, never `parent` or the heights,
// so a damaged tree cannot lead it astray, and keeps its way back on the
// heap, so a chain-shaped tree of any length needs no deep stack. For every
// node n it calls, in this order:
//   enter(n, parent)  on reaching n (parent null at `top`): pre-order;
//   between(n)        once n's left subtree is done, before its right one;
//   leave(n)          once both subtrees are done: post-order.
// Each returns false to end the walk at once, which then returns false. A
// node's child links are read just before its subtree is entered, so leave
// may delete the node; the walk touches it no more. A leaf at `top` costs
// no allocation.
template <class Enter, class Between, class Leave>
bool WalkDepthFirst(BTree* top, Enter enter, Between between, Leave leave) {
  if (top == nullptr) return true;
  if (!enter(top, nullptr)) return false;
  enum Step { kLeft, kRight, kLeave };
  struct Frame {
    BTree* node;
    Step next;
  };
  std::vector<Frame> path;
  BTree* n = top;
  Step step = kLeft;
  for (;;) {
    BTree* child = nullptr;
    if (step == kLeft) {
      child = n->left;
      step = kRight;
    } else if (step == kRight) {
      if (!between(n)) return false;
      child = n->right;
      step = kLeave;
    } else {
      if (!leave(n)) return false;
      if (path.empty()) return true;
      n = path.back().node;
      step = path.back().next;
      path.pop_back();
      continue;
    }
    if (child == nullptr) continue;
    if (!enter(child, n)) return false;
    path.push_back({n, step});
    n = child;
    step = kLeft;
  }
}

// The pre-order (node, left subtree, right subtree) of WalkDepthFirst:
// `visit(node)` for every node of the subtree.
template <class Visit>
void WalkPreorder(BTree* top, Visit visit) {
  auto none = [](BTree*) { return true; };
  WalkDepthFirst(
      top,
      [&](BTree* n, BTree*) {
        visit(n);
        return true;
      },
      none, none);
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
