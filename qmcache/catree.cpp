// SPDX-License-Identifier: MIT
// The key tree: a binary search tree of heap nodes, each holding a copy of a
// byte-string key and an unowned payload, rebalanced after every insertion
// by at most one single rotation; its stackless in-order walk; and its
// printing self-check.
//
// Invariants of a sound tree:
//  - *parentLink == this for every node; the root has parent null and its
//    parentLink names its root holder; a child's parent is its parent node.
//  - leftHeight/rightHeight are 0 without a child, else 1 + the larger of the
//    child's two heights.
//  - In-order is the tree order of Compare; no two keys are equal.
//
// Trees can degenerate into chains as long as the number of keys (a zig-zag
// insertion order never rotates), so nothing here recurses over a tree: the
// destructor, ClearAttr and CheckTree all iterate.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cassert>
#include <new>
#include <vector>

#include "caconst.h"
#include "cainternal.h"
#include "keyorder.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"

// Advanced with a plain increment: only `serial` is derived from it and
// nothing relies on serials being unique, so concurrent insertions into
// different trees may at worst share a serial. Tree operations are not
// thread-safe anyway.
unsigned int BTree::cnt = 0;

namespace {

unsigned long Max(unsigned long a, unsigned long b) { return a > b ? a : b; }

// Rotates right at `p`, whose left child is `n`: n takes p's place (through
// p's parentLink, which rewrites the root holder at the root), n's right
// subtree moves under p, and p becomes n's right child.
void RotateRight(BTree* p, BTree* n) {
  assert(p->left == n);
  n->parent = p->parent;
  n->parentLink = p->parentLink;
  *n->parentLink = n;

  p->left = n->right;
  p->leftHeight = n->rightHeight;
  if (p->left != nullptr) {
    p->left->parentLink = &p->left;
    p->left->parent = p;
  }

  n->right = p;
  p->parentLink = &n->right;
  p->parent = n;
  n->rightHeight = Max(p->leftHeight, p->rightHeight) + 1;
}

// The mirror image of RotateRight: `n` is p's right child.
void RotateLeft(BTree* p, BTree* n) {
  assert(p->right == n);
  n->parent = p->parent;
  n->parentLink = p->parentLink;
  *n->parentLink = n;

  p->right = n->left;
  p->rightHeight = n->leftHeight;
  if (p->right != nullptr) {
    p->right->parentLink = &p->right;
    p->right->parent = p;
  }

  n->left = p;
  p->parentLink = &n->left;
  p->parent = n;
  n->leftHeight = Max(p->leftHeight, p->rightHeight) + 1;
}

// The tests that CheckTree makes of one node, printing every violation.
void CheckNode(BTree* n) {
  BTree* l = n->left;
  BTree* r = n->right;
  if (l != nullptr) {
    if (l->parent != n) {
      printf("**Parent pointer error %p l:%p l->p:%p\n", static_cast<void*>(n),
             static_cast<void*>(l), static_cast<void*>(l->parent));
    }
    if (l->parentLink != &n->left) {
      printf("**Parent p.pointer error %p l:%p l->p:%p\n",
             static_cast<void*>(n), static_cast<void*>(l),
             static_cast<void*>(l->parentLink));
    }
    unsigned long h = Max(l->leftHeight, l->rightHeight);
    if (n->leftHeight != h + 1) {
      printf("Counting problem %p l:%d %d\n", static_cast<void*>(n),
             static_cast<int>(n->leftHeight), static_cast<int>(h));
    }
    int c = n->Compare(l->key, l->keyLength);
    if (c <= 0) {
      printf("Compare problem %p l:%p %d\n", static_cast<void*>(n),
             static_cast<void*>(l), c);
    }
  }
  if (r != nullptr) {
    if (r->parent != n) {
      printf("**Parent pointer error %p l:%p l->p:%p\n", static_cast<void*>(n),
             static_cast<void*>(r), static_cast<void*>(r->parent));
    }
    if (r->parentLink != &n->right) {
      printf("**Parent p.pointer error %p l:%p l->p:%p\n",
             static_cast<void*>(n), static_cast<void*>(r),
             static_cast<void*>(r->parentLink));
    }
    unsigned long h = Max(r->leftHeight, r->rightHeight);
    if (n->rightHeight != h + 1) {
      printf("Counting problem %p r:%d %d\n", static_cast<void*>(n),
             static_cast<int>(n->rightHeight), static_cast<int>(h));
    }
    int c = n->Compare(r->key, r->keyLength);
    if (c >= 0) {
      printf("Compare problem %p r:%p %d\n", static_cast<void*>(n),
             static_cast<void*>(r), c);
    }
  }
  if (l != nullptr && n->leftHeight == 0) {
    printf("Counting problem %p l:%d\n", static_cast<void*>(n), 0);
  }
  if (r != nullptr && n->rightHeight == 0) {
    printf("Counting problem %p l:%d\n", static_cast<void*>(n), 0);
  }
}

}  // namespace

// ==== Nodes =================================================================

// A key copy that cannot be allocated throws std::bad_alloc, as the node's
// own allocation would: `new BTree(...)` then releases the node again and
// BTree::Insert leaves the tree unchanged (it has already set `existed`).
BTree::BTree(unsigned char* key, unsigned long keyLength, BTree* parent,
             BTree** parentLink) {
  MakeLeaf(this, nullptr, keyLength, parent, parentLink);
  this->key = static_cast<unsigned char*>(malloc(keyLength));
  if (this->key == nullptr && keyLength != 0) throw std::bad_alloc();
  if (keyLength != 0) memcpy(this->key, key, keyLength);
}

// A record tree's node, made by its arena (nodearena.h): the key copy lies
// right behind the node in the same block.
BTree::BTree(KeyBehind, unsigned char* key, unsigned long keyLength,
             BTree* parent, BTree** parentLink) {
  MakeLeaf(this, reinterpret_cast<unsigned char*>(this + 1), keyLength, parent,
           parentLink);
  if (keyLength != 0) memcpy(this->key, key, keyLength);
}

// Destroys the subtree without recursion (WalkDepthFirst), each node once
// both of its subtrees are gone: unhooked from its children first, its own
// destructor then has nothing below it.
BTree::~BTree() {
  auto more = [](BTree*) { return true; };
  WalkDepthFirst(
      this, [](BTree*, BTree*) { return true; }, more,
      [this](BTree* n) {
        if (n != this) {
          n->left = nullptr;
          n->right = nullptr;
          delete n;
        }
        return true;
      });
  if (key != nullptr) free(key);
}

int BTree::Compare(unsigned char* key, unsigned long keyLength) {
  return OrderKeys(this->key, this->keyLength, key, keyLength,
                   keyorder::Memcmp);
}

BTree* BTree::Search(unsigned char* key, unsigned long keyLength) {
  BTree* n = this;
  while (n != nullptr) {
    // Both children are fetched while this key is compared: a lookup in a
    // large tree is bound by the memory latency of each level.
    Prefetch(n->left);
    Prefetch(n->right);
    int c = KeyOrder(n->key, n->keyLength, key, keyLength);
    if (c == 0) return n;
    n = c > 0 ? n->left : n->right;
  }
  return nullptr;
}

namespace {

// The descent of BTree::Insert from `n`: the node with the key (`existed`
// 1), or a new leaf made by `make(key, keyLength, parent, parentLink)` and
// linked where the key belongs, not yet rebalanced. `depth` counts the
// levels descended.
template <class Make>
BTree* DescendAndLink(BTree* n, unsigned char* key, unsigned long keyLength,
                      int* existed, Make make, int* depth) {
  for (;;) {
    // Both children (and the key behind a node that keeps it there) are
    // fetched while this key is compared: a descent in a large tree is
    // bound by the memory latency of each level.
    for (BTree* child : {n->left, n->right}) {
      if (child == nullptr) continue;
      Prefetch(child, 2);
    }
    int c = KeyOrder(n->key, n->keyLength, key, keyLength);
    if (c == 0) {
      *existed = 1;
      return n;
    }
    BTree** link = c > 0 ? &n->left : &n->right;
    ++*depth;
    if (*link != nullptr) {
      n = *link;
      continue;
    }
    *existed = 0;
    BTree* node = make(key, keyLength, n, link);
    *link = node;
    return node;
  }
}

}  // namespace

BTree* BTree::Insert(unsigned char* key, unsigned long keyLength,
                     int* existed) {
  int depth = 0;
  BTree* node = DescendAndLink(
      this, key, keyLength, existed,
      [](unsigned char* k, unsigned long n, BTree* parent, BTree** link) {
        return new BTree(k, n, parent, link);
      },
      &depth);
  if (*existed == 0) node->ReOrg();
  return node;
}

BTree* LinkNode(BTree* from, unsigned char* key, unsigned long keyLength,
                int* existed, NodeArena* arena, int* depth) {
  return DescendAndLink(
      from, key, keyLength, existed,
      [arena](unsigned char* k, unsigned long n, BTree* parent, BTree** link) {
        return arena->Make(k, n, parent, link);
      },
      depth);
}

BTree* InsertNode(BTree* root, unsigned char* key, unsigned long keyLength,
                  int* existed, NodeArena* arena) {
  int depth = 0;
  BTree* node = LinkNode(root, key, keyLength, existed, arena, &depth);
  if (*existed == 0) node->ReOrg();
  return node;
}

// Climbs from a newly linked node while the subtree it is in grows, and
// rotates once where a single rotation makes the subtree strictly lower;
// the rotated subtree is then as high as before the insertion, so nothing
// above it changes.
void BTree::ReOrg() {
  int climbed = 0;
  ReOrgClimb(this, &climbed);
}

BTree* ReOrgClimb(BTree* node, int* climbed) {
  BTree* n = node;
  for (;;) {
    BTree* p = n->parent;
    if (p == nullptr) return nullptr;
    ++*climbed;
    if (p->left == n) {
      p->leftHeight++;
      if (Max(p->leftHeight, p->rightHeight) >
          Max(n->leftHeight, Max(n->rightHeight, p->rightHeight) + 1)) {
        RotateRight(p, n);
        return p;
      }
      if (p->leftHeight <= p->rightHeight) return nullptr;
    } else {
      assert(p->right == n);
      p->rightHeight++;
      if (Max(p->leftHeight, p->rightHeight) >
          Max(n->rightHeight, Max(n->leftHeight, p->leftHeight) + 1)) {
        RotateLeft(p, n);
        return p;
      }
      if (p->rightHeight <= p->leftHeight) return nullptr;
    }
    n = p;
  }
}

// Pre-order (WalkPreorder). Empty nodes are passed over, not their
// subtrees.
void BTree::ClearAttr() {
  WalkPreorder(this, [](BTree* n) {
    if (n->payload != nullptr) {
      static_cast<CARecord*>(n->payload)->flags &= kClearAttrMask;
    }
  });
}

// ==== Self-check ============================================================

// Pre-order (WalkPreorder). The walk follows only the child links, so
// damaged parent links and heights, which are what it reports, cannot lead
// it astray.
int BTree::CheckTree() {
  int count = 0;
  WalkPreorder(this, [&count](BTree* n) {
    count++;
    CheckNode(n);
  });
  return count;
}

int BTree::CheckTreeRoot() {
  if (parent != nullptr) {
    printf("Root illegal %p parent=%p\n", static_cast<void*>(this),
           static_cast<void*>(parent));
  }
  return CheckTree();
}

// ==== Enumeration ===========================================================

BTreeNumerator::BTreeNumerator(BTree* start, int reverse) {
  current = start;
  this->reverse = reverse;
  depth = 0;
  lastDepth = 0;
  subtreePending = 1;
  if (start == nullptr) {
    subtreePending = 0;
    return;
  }
  if (reverse == 0) {
    while (current->left != nullptr) {
      current = current->left;
      depth++;
    }
    subtreePending = current->right != nullptr ? 1 : 0;
  } else {
    while (current->right != nullptr) {
      current = current->right;
      depth++;
    }
    subtreePending = current->left != nullptr ? 1 : 0;
  }
}

// Ascending: after a node comes the leftmost node of its right subtree, or,
// without one, the first ancestor reached from its left side. Descending is
// the mirror image.
BTree* BTreeNumerator::Next() {
  lastDepth = depth;
  if (current == nullptr) return nullptr;
  BTree* result = current;
  BTree* far = reverse == 0 ? current->right : current->left;
  if (subtreePending == 1 && far != nullptr) {
    BTree* n = far;
    depth++;
    for (;;) {
      BTree* near = reverse == 0 ? n->left : n->right;
      if (near == nullptr) break;
      n = near;
      depth++;
    }
    current = n;
    subtreePending = (reverse == 0 ? n->right : n->left) != nullptr ? 1 : 0;
    return result;
  }
  BTree* n = current;
  for (;;) {
    BTree* p = n->parent;
    depth--;
    if (p == nullptr) {
      current = nullptr;
      break;
    }
    if ((reverse == 0 ? p->left : p->right) == n) {
      current = p;
      break;
    }
    n = p;
  }
  subtreePending = 1;
  return result;
}
