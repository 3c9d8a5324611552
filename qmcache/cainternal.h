// Links between the library's own modules that are not part of the
// exported interface.
#ifndef QMCACHE_CAINTERNAL_H
#define QMCACHE_CAINTERNAL_H

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

// Called by a cache's destructor once its tree is gone: every record of the
// cache that left its tree while held, and is still alive, forgets the cache,
// so that its last release updates no destroyed cache.
void OrphanDetachedRecords(CACache* cache);

#endif  // QMCACHE_CAINTERNAL_H
