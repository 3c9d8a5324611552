// Key tree, its walk and its printing self-check.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

using Key = std::string;

unsigned char* Bytes(const Key& k) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(k.data()));
}

Key KeyOf(const BTree* n) {
  return Key(reinterpret_cast<const char*>(n->key), n->keyLength);
}

Key Byte(int b) { return Key(1, static_cast<char>(b)); }

Key BigEndian(unsigned int v) {
  Key k(4, '\0');
  for (int i = 0; i < 4; ++i) k[i] = static_cast<char>(v >> (24 - 8 * i));
  return k;
}

// The model's order: bytewise unsigned; of two keys where one is a prefix
// of the other, the longer sorts first.
struct TreeOrder {
  bool operator()(const Key& a, const Key& b) const {
    size_t n = std::min(a.size(), b.size());
    int r = memcmp(a.data(), b.data(), n);
    if (r != 0) return r < 0;
    return a.size() > b.size();
  }
};

// A tree with its root holder; deleting the root destroys all nodes.
struct Tree {
  BTree* root = nullptr;
  ~Tree() { delete root; }
  BTree* Insert(const Key& k, int* existed = nullptr) {
    int dummy;
    if (existed == nullptr) existed = &dummy;
    if (root == nullptr) {
      root = new BTree(Bytes(k), k.size(), nullptr, &root);
      *existed = 0;
      return root;
    }
    return root->Insert(Bytes(k), k.size(), existed);
  }
  BTree* Search(const Key& k) {
    return root == nullptr ? nullptr : root->Search(Bytes(k), k.size());
  }
};

unsigned long Levels(const BTree* n) {
  return std::max(n->leftHeight, n->rightHeight) + 1;
}

// Actual height (levels) of a subtree, checking every link and height field
// on the way. Used on trees of moderate height only.
unsigned long Verify(BTree* n, BTree* parent, BTree** link) {
  if (n == nullptr) return 0;
  EXPECT_EQ(memcmp(n->magic, "%%BT", 4), 0);
  EXPECT_EQ(n->parent, parent);
  EXPECT_EQ(n->parentLink, link);
  EXPECT_EQ(*n->parentLink, n);
  unsigned long l = Verify(n->left, n, &n->left);
  unsigned long r = Verify(n->right, n, &n->right);
  EXPECT_EQ(n->leftHeight, l);
  EXPECT_EQ(n->rightHeight, r);
  return std::max(l, r) + 1;
}

std::vector<Key> Walk(BTree* start, int reverse, std::vector<int>* depths) {
  std::vector<Key> keys;
  BTreeNumerator it(start, reverse);
  while (BTree* n = it.Next()) {
    keys.push_back(KeyOf(n));
    if (depths != nullptr) depths->push_back(it.lastDepth);
  }
  EXPECT_EQ(it.Next(), nullptr);
  EXPECT_EQ(it.Next(), nullptr);
  return keys;
}

std::string CheckOutput(BTree* n, bool root, int* count) {
  testing::internal::CaptureStdout();
  *count = root ? n->CheckTreeRoot() : n->CheckTree();
  return testing::internal::GetCapturedStdout();
}

template <typename... Args>
std::string Line(const char* format, Args... args) {
  char buf[256];
  snprintf(buf, sizeof(buf), format, args...);
  return buf;
}

void* P(const void* p) { return const_cast<void*>(p); }

int Sign(int v) { return (v > 0) - (v < 0); }

// The C library's memcmp at run time (the compiler may fold a call with
// constant arguments to -1/0/+1, while the library's value is unreduced).
int (*volatile const Cmp)(const void*, const void*, size_t) = memcmp;

TEST(KeyTree, CompareUsesTreeOrder) {
  Tree t;
  BTree* ab = t.Insert("ab");
  Key a = "a", abc = "abc";
  EXPECT_EQ(ab->Compare(Bytes(a), 1), -1);   // the given key is a prefix
  EXPECT_EQ(ab->Compare(Bytes(abc), 3), 1);  // this key is a prefix
  EXPECT_EQ(ab->Compare(Bytes("ab"), 2), 0);
  // Equal lengths, and a differing common prefix, give memcmp's own value.
  Key az = "az", zz = "zzz";
  EXPECT_EQ(ab->Compare(Bytes(az), 2), Cmp("ab", "az", 2));
  EXPECT_EQ(ab->Compare(Bytes(zz), 3), Cmp("ab", "zz", 2));
  EXPECT_LT(ab->Compare(Bytes(zz), 3), 0);
  BTree* hi = t.Insert(Byte(0x80));
  Key lo = Byte(0x7F);
  EXPECT_GT(hi->Compare(Bytes(lo), 1), 0);
  // The zero-length key is a prefix of every key: it sorts last.
  BTree* empty = t.Insert(Key());
  EXPECT_EQ(empty->keyLength, 0u);
  EXPECT_EQ(empty->Compare(Bytes(a), 1), 1);
  EXPECT_EQ(empty->Compare(nullptr, 0), 0);
  EXPECT_EQ(t.Search(Key()), empty);
}

// Random keys over a small alphabet with zero bytes make many prefixes and
// repeats; the tree must agree with an ordered map at every step.
TEST(KeyTree, AgreesWithOrderedModel) {
  std::mt19937 rng(12345);
  const char alphabet[] = {'\0', '\x01', 'a', 'b', '\x7f', '\x80', '\xff'};
  auto random_key = [&] {
    Key k(rng() % 6, '\0');
    for (char& c : k) c = alphabet[rng() % sizeof(alphabet)];
    return k;
  };
  Tree t;
  std::map<Key, int, TreeOrder> model;
  std::vector<int> values(4000);
  for (int i = 0; i < 4000; ++i) {
    Key k = random_key();
    unsigned int before = BTree::cnt;
    int existed = -1;
    BTree* n = t.Insert(k, &existed);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(KeyOf(n), k);
    auto found = model.find(k);
    if (found != model.end()) {
      EXPECT_EQ(existed, 1);
      EXPECT_EQ(BTree::cnt, before);
      EXPECT_EQ(n->payload, &values[found->second]);
    } else {
      EXPECT_EQ(existed, 0);
      EXPECT_EQ(BTree::cnt, before + 1);
      EXPECT_EQ(n->serial, before);
      EXPECT_EQ(n->payload, nullptr);
      n->payload = &values[i];
      model[k] = i;
    }
    if (i % 200 != 199) continue;

    ASSERT_EQ(t.root->parent, nullptr);
    unsigned long height = Verify(t.root, nullptr, &t.root);
    EXPECT_EQ(height, Levels(t.root));
    int count = 0;
    EXPECT_EQ(CheckOutput(t.root, true, &count), "");
    EXPECT_EQ(count, static_cast<int>(model.size()));

    std::vector<Key> expected;
    for (auto& kv : model) expected.push_back(kv.first);
    EXPECT_EQ(Walk(t.root, 0, nullptr), expected);
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(Walk(t.root, 1, nullptr), expected);

    for (auto& kv : model) {
      BTree* s = t.Search(kv.first);
      ASSERT_NE(s, nullptr);
      EXPECT_EQ(s->payload, &values[kv.second]);
    }
    for (int j = 0; j < 50; ++j) {
      Key probe = random_key() + 'q';
      EXPECT_EQ(t.Search(probe), nullptr);
      Key other = random_key();
      BTree* s = t.Search(other);
      EXPECT_EQ(s != nullptr, model.count(other) == 1);
      // Compare's sign matches the model's order.
      int c = t.root->Compare(Bytes(other), other.size());
      Key rk = KeyOf(t.root);
      EXPECT_EQ(Sign(c), TreeOrder()(other, rk)   ? 1
                         : TreeOrder()(rk, other) ? -1
                                                  : 0);
    }
  }
}

TEST(KeyTree, WorkedShapes) {
  for (int reverse = 0; reverse < 2; ++reverse) {
    Tree t;
    for (int i = 1; i <= 7; ++i) t.Insert(Byte(reverse ? 8 - i : i));
    BTree* r = t.root;
    ASSERT_EQ(KeyOf(r), Byte(4));
    ASSERT_EQ(KeyOf(r->left), Byte(2));
    ASSERT_EQ(KeyOf(r->right), Byte(6));
    EXPECT_EQ(KeyOf(r->left->left), Byte(1));
    EXPECT_EQ(KeyOf(r->left->right), Byte(3));
    EXPECT_EQ(KeyOf(r->right->left), Byte(5));
    EXPECT_EQ(KeyOf(r->right->right), Byte(7));
    EXPECT_EQ(r->leftHeight, 2u);
    EXPECT_EQ(r->rightHeight, 2u);
    for (BTree* inner : {r->left, r->right}) {
      EXPECT_EQ(inner->leftHeight, 1u);
      EXPECT_EQ(inner->rightHeight, 1u);
      for (BTree* leaf : {inner->left, inner->right}) {
        EXPECT_EQ(leaf->left, nullptr);
        EXPECT_EQ(leaf->right, nullptr);
        EXPECT_EQ(leaf->leftHeight + leaf->rightHeight, 0u);
      }
    }
    Verify(r, nullptr, &t.root);
    int count = 0;
    EXPECT_EQ(CheckOutput(r, true, &count), "");
    EXPECT_EQ(count, 7);
  }

  // 1, 2, 3 rotates at the root and rewrites the root holder.
  {
    Tree t;
    BTree* one = t.Insert(Byte(1));
    BTree* two = t.Insert(Byte(2));
    BTree* three = t.Insert(Byte(3));
    EXPECT_EQ(t.root, two);
    EXPECT_EQ(two->parent, nullptr);
    EXPECT_EQ(two->parentLink, &t.root);
    EXPECT_EQ(two->left, one);
    EXPECT_EQ(two->right, three);
    EXPECT_EQ(one->parentLink, &two->left);
    EXPECT_EQ(three->parentLink, &two->right);
    Verify(t.root, nullptr, &t.root);
  }
  // 1, 3, 2 does not rotate.
  {
    Tree t;
    BTree* one = t.Insert(Byte(1));
    BTree* three = t.Insert(Byte(3));
    BTree* two = t.Insert(Byte(2));
    EXPECT_EQ(t.root, one);
    EXPECT_EQ(one->leftHeight, 0u);
    EXPECT_EQ(one->rightHeight, 2u);
    EXPECT_EQ(one->right, three);
    EXPECT_EQ(three->left, two);
    EXPECT_EQ(three->right, nullptr);
    Verify(t.root, nullptr, &t.root);
  }
  // Ascending big-endian keys stay balanced.
  {
    Tree t;
    for (unsigned int i = 0; i < 10000; ++i) t.Insert(BigEndian(i));
    EXPECT_EQ(Verify(t.root, nullptr, &t.root), 14u);
    int count = 0;
    EXPECT_EQ(CheckOutput(t.root, true, &count), "");
    EXPECT_EQ(count, 10000);
  }
  // Smallest, largest, next smallest, ... never rotates: a chain.
  {
    Tree t;
    const int n = 1000;
    for (int i = 0; i < n; ++i) {
      unsigned int v = i % 2 == 0 ? i / 2 : n - 1 - i / 2;
      t.Insert(BigEndian(v));
    }
    EXPECT_EQ(Verify(t.root, nullptr, &t.root), static_cast<unsigned long>(n));
    EXPECT_EQ(KeyOf(t.root), BigEndian(0));
  }
}

TEST(KeyTree, SearchFindsOnlyInsertedPrefixesAndEmptyNodes) {
  Tree t;
  for (Key k : {"abc", "a", "abd", "b"}) t.Insert(k);
  EXPECT_NE(t.Search("abc"), nullptr);
  EXPECT_NE(t.Search("a"), nullptr);
  EXPECT_EQ(t.Search("ab"), nullptr);
  EXPECT_EQ(t.Search("abcd"), nullptr);
  EXPECT_EQ(t.Search(Key("a\0", 2)), nullptr);
  int marker = 0;
  BTree* b = t.Search("b");
  b->payload = &marker;
  b->payload = nullptr;  // the object went away: the node stays
  EXPECT_EQ(t.Search("b"), b);
  unsigned int before = BTree::cnt;
  int existed = 0;
  EXPECT_EQ(t.Insert("b", &existed), b);
  EXPECT_EQ(existed, 1);
  EXPECT_EQ(BTree::cnt, before);
  t.Insert("ab");
  EXPECT_EQ(Walk(t.root, 0, nullptr),
            (std::vector<Key>{"abc", "abd", "ab", "a", "b"}));
}

TEST(KeyTreeWalk, DepthsAndEdges) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  std::vector<int> depths;
  std::vector<Key> up = Walk(t.root, 0, &depths);
  ASSERT_EQ(up.size(), 7u);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(up[i], Byte(i + 1));
  EXPECT_EQ(depths, (std::vector<int>{2, 1, 2, 0, 2, 1, 2}));
  depths.clear();
  std::vector<Key> down = Walk(t.root, 7, &depths);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(down[i], Byte(7 - i));
  EXPECT_EQ(depths, (std::vector<int>{2, 1, 2, 0, 2, 1, 2}));

  // Clearing payloads during the walk leaves the sequence alone.
  int marker = 0;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next();)
    n->payload = &marker;
  std::vector<Key> seen;
  int empty_seen = 0;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next();) {
    if (n->payload == nullptr) empty_seen++;  // empty nodes come out too
    n->payload = nullptr;
    t.root->right->payload = nullptr;
    seen.push_back(KeyOf(n));
  }
  EXPECT_EQ(seen, up);
  EXPECT_EQ(empty_seen, 1);  // node 6, emptied before it was due

  // A walk started on an inner node goes on through its ancestors.
  EXPECT_EQ(Walk(t.root->left, 0, nullptr),
            (std::vector<Key>{Byte(1), Byte(2), Byte(3), Byte(4), Byte(5),
                              Byte(6), Byte(7)}));
  EXPECT_EQ(Walk(t.root->right, 1, nullptr),
            (std::vector<Key>{Byte(7), Byte(6), Byte(5), Byte(4), Byte(3),
                              Byte(2), Byte(1)}));

  EXPECT_TRUE(Walk(nullptr, 0, nullptr).empty());
  Tree single;
  single.Insert("x");
  EXPECT_EQ(Walk(single.root, 1, nullptr), std::vector<Key>{"x"});
}

TEST(KeyTreeCheck, ReportsEachFault) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  BTree* n4 = t.root;
  BTree* n2 = n4->left;
  BTree* n1 = n2->left;
  BTree* n3 = n2->right;
  BTree* n6 = n4->right;
  BTree* n7 = n6->right;
  int count = 0;

  // A leaf below a leftHeight of 3; the root then sees a wrong height too.
  n2->leftHeight = 3;
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("Counting problem %p l:%d %d\n", P(n4), 2, 3) +
                Line("Counting problem %p l:%d %d\n", P(n2), 3, 0));
  EXPECT_EQ(count, 7);
  // A left child under a leftHeight of 0: row 3, then after the right-side
  // tests the zero-height line.
  n2->leftHeight = 0;
  n3->parent = n4;
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("Counting problem %p l:%d %d\n", P(n2), 0, 0) +
                Line("**Parent pointer error %p l:%p l->p:%p\n", P(n2), P(n3),
                     P(n4)) +
                Line("Counting problem %p l:%d\n", P(n2), 0));
  n2->leftHeight = 1;
  n3->parent = n2;

  // A wrong parentLink alone.
  n1->parentLink = &n2->right;
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("**Parent p.pointer error %p l:%p l->p:%p\n", P(n2), P(n1),
                 P(&n2->right)));
  n1->parentLink = &n2->left;

  // Keys of a node and its left child swapped.
  std::swap(n4->key, n2->key);
  int c4 = Cmp("\x02", "\x04", 1);
  int c2 = Cmp("\x04", "\x03", 1);
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("Compare problem %p l:%p %d\n", P(n4), P(n2), c4) +
                Line("Compare problem %p r:%p %d\n", P(n2), P(n3), c2));
  std::swap(n4->key, n2->key);

  // A right child whose key equals its parent's; a right height of 0.
  n7->key[0] = 6;
  n6->rightHeight = 0;
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("Counting problem %p r:%d %d\n", P(n6), 0, 0) +
                Line("Compare problem %p r:%p %d\n", P(n6), P(n7), 0) +
                Line("Counting problem %p l:%d\n", P(n6), 0));
  n7->key[0] = 7;
  n6->rightHeight = 1;

  // Order beyond parent and child is not tested.
  n3->key[0] = 5;
  EXPECT_EQ(CheckOutput(n4, true, &count), "");
  n3->key[0] = 3;

  // An inner node as root.
  EXPECT_EQ(CheckOutput(n2, true, &count),
            Line("Root illegal %p parent=%p\n", P(n2), P(n4)));
  EXPECT_EQ(count, 3);
  EXPECT_EQ(CheckOutput(n2, false, &count), "");
  EXPECT_EQ(count, 3);

  // Several faults come out in pre-order: node, left subtree, right subtree.
  n1->parent = n6;
  n7->parent = n2;
  n2->parentLink = &n4->right;
  EXPECT_EQ(CheckOutput(n4, true, &count),
            Line("**Parent p.pointer error %p l:%p l->p:%p\n", P(n4), P(n2),
                 P(&n4->right)) +
                Line("**Parent pointer error %p l:%p l->p:%p\n", P(n2), P(n1),
                     P(n6)) +
                Line("**Parent pointer error %p l:%p l->p:%p\n", P(n6), P(n7),
                     P(n2)));
  EXPECT_EQ(count, 7);
  n1->parent = n2;
  n7->parent = n6;
  n2->parentLink = &n4->left;
  EXPECT_EQ(CheckOutput(n4, true, &count), "");
}

// Record flags: ClearAttr removes the pinned and expiring bits everywhere
// below the node it is called on, empty nodes included, and nothing else.
TEST(KeyTree, ClearAttrClearsTwoBitsInSubtree) {
  Tree t;
  std::vector<CARecord*> records;
  std::vector<int> original;
  for (int i = 1; i <= 31; ++i) t.Insert(Byte(i));
  char data[4] = {1, 2, 3, 4};
  int i = 0;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next(); ++i) {
    if (i % 3 == 0) {
      records.push_back(nullptr);
      original.push_back(0);
      continue;  // an empty node, maybe above records
    }
    int flags = static_cast<int>(0xFFFFFFFFu - static_cast<unsigned int>(i));
    if (i % 5 == 0) flags = CAREC_PINNED | 7;
    CARecord* r = new CARecord(4, 4, data, n, nullptr, i, flags, 10);
    n->payload = r;
    records.push_back(r);
    original.push_back(flags);
  }
  // Only the left subtree of the root first.
  t.root->left->ClearAttr();
  i = 0;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next(); ++i) {
    if (records[i] == nullptr) continue;
    bool below = KeyOf(n) < KeyOf(t.root);
    int expected =
        below ? (original[i] & ~(CAREC_PINNED | CAREC_EXPIRES)) : original[i];
    EXPECT_EQ(records[i]->flags, expected) << i;
  }
  t.root->ClearAttr();
  for (size_t j = 0; j < records.size(); ++j) {
    if (records[j] == nullptr) continue;
    EXPECT_EQ(records[j]->flags, original[j] & ~(CAREC_PINNED | CAREC_EXPIRES));
  }
  // Destroying the tree leaves the records alone.
  delete t.root;
  t.root = nullptr;
  for (CARecord* r : records) {
    if (r == nullptr) continue;
    EXPECT_EQ(memcmp(r->magic, "%%CM", 4), 0);
    EXPECT_EQ(memcmp(r->get(), data, 4), 0);
    delete r;
  }
}

// A zig-zag chain of a million keys (built directly: inserting it would take
// quadratic time) is checked, cleared and destroyed in a default stack.
TEST(KeyTree, MillionNodeChainNeedsNoStack) {
  const unsigned int n = 1000000;
  Tree t;
  BTree** link = &t.root;
  BTree* parent = nullptr;
  std::vector<BTree*> nodes;
  nodes.reserve(n);
  for (unsigned int i = 0; i < n; ++i) {
    unsigned int v = i % 2 == 0 ? i / 2 : n - 1 - i / 2;
    Key k = BigEndian(v);
    BTree* node = new BTree(Bytes(k), 4, parent, link);
    *link = node;
    nodes.push_back(node);
    link = i % 2 == 0 ? &node->right : &node->left;
    parent = node;
  }
  for (unsigned int i = 0; i + 1 < n; ++i) {
    unsigned long h = n - 1 - i;
    (i % 2 == 0 ? nodes[i]->rightHeight : nodes[i]->leftHeight) = h;
  }
  char data[1] = {0};
  CARecord* deep = new CARecord(1, 1, data, nodes[n - 1], nullptr, 0,
                                CAREC_EXPIRES | CAREC_CALLBACK, 0);
  CARecord* mid = new CARecord(1, 1, data, nodes[n / 2], nullptr, 0, -1, 0);
  nodes[n - 1]->payload = deep;
  nodes[n / 2]->payload = mid;

  int count = 0;
  EXPECT_EQ(CheckOutput(t.root, true, &count), "");
  EXPECT_EQ(count, static_cast<int>(n));
  // A fault at the bottom is still found.
  nodes[n - 1]->parent = nodes[0];
  EXPECT_EQ(CheckOutput(t.root, true, &count),
            Line("**Parent pointer error %p l:%p l->p:%p\n", P(nodes[n - 2]),
                 P(nodes[n - 1]), P(nodes[0])));
  nodes[n - 1]->parent = nodes[n - 2];

  t.root->ClearAttr();
  EXPECT_EQ(deep->flags, CAREC_CALLBACK);
  EXPECT_EQ(mid->flags, static_cast<int>(0xF3FFFFFFu));

  std::vector<Key> walked = Walk(t.root, 0, nullptr);
  ASSERT_EQ(walked.size(), n);
  EXPECT_EQ(walked.front(), BigEndian(0));
  EXPECT_EQ(walked.back(), BigEndian(n - 1));

  delete t.root;  // the destructor must not recurse
  t.root = nullptr;
  delete deep;
  delete mid;
}

}  // namespace
