// The key tree: its order, its shapes after rotation, its walk and its
// printing self-check, on trees up to a million nodes deep.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

using Key = std::string;

unsigned char* Bytes(const Key& k) { return (unsigned char*)k.data(); }
Key KeyOf(const BTree* n) { return Key((const char*)n->key, n->keyLength); }
Key Byte(int b) { return Key(1, static_cast<char>(b)); }
Key BigEndian(unsigned v) {
  return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
}

// Of two keys where one is a prefix of the other, the longer sorts first.
struct TreeOrder {
  bool operator()(const Key& a, const Key& b) const {
    int r = memcmp(a.data(), b.data(), std::min(a.size(), b.size()));
    return r != 0 ? r < 0 : a.size() > b.size();
  }
};

struct Tree {
  BTree* root = nullptr;
  ~Tree() { delete root; }
  BTree* Insert(const Key& k, int* existed = nullptr) {
    int dummy = 0;
    if (root != nullptr)
      return root->Insert(Bytes(k), k.size(), existed ? existed : &dummy);
    if (existed != nullptr) *existed = 0;
    return root = new BTree(Bytes(k), k.size(), nullptr, &root);
  }
  BTree* Search(const Key& k) {
    return root ? root->Search(Bytes(k), k.size()) : nullptr;
  }
};

// Levels of a subtree, checking every link and height field on the way.
unsigned long Verify(BTree* n, BTree* parent, BTree** link) {
  if (n == nullptr) return 0;
  EXPECT_TRUE(n->parent == parent && n->parentLink == link && *link == n);
  unsigned long l = Verify(n->left, n, &n->left);
  unsigned long r = Verify(n->right, n, &n->right);
  EXPECT_TRUE(n->leftHeight == l && n->rightHeight == r) << KeyOf(n);
  return std::max(l, r) + 1;
}

// The shape of single-byte-key trees, e.g. "4(2(1,3),6(5,7))".
std::string Shape(const BTree* n) {
  if (n == nullptr) return "";
  std::string s = std::to_string(n->key[0]);
  if (n->left || n->right)
    s += "(" + Shape(n->left) + "," + Shape(n->right) + ")";
  return s;
}

std::vector<Key> Walk(BTree* start, int reverse, std::vector<int>* depths) {
  std::vector<Key> keys;
  BTreeNumerator it(start, reverse);
  while (BTree* n = it.Next()) {
    keys.push_back(KeyOf(n));
    if (depths != nullptr) depths->push_back(it.lastDepth);
  }
  EXPECT_EQ(it.Next(), nullptr);
  return keys;
}

// CheckTreeRoot's printed text; `count` gets the number of nodes visited.
std::string Printed(BTree* n, int* count, bool root = true) {
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

// Run-time memcmp: a call with constant arguments may be folded to -1/0/1.
int (*volatile const Cmp)(const void*, const void*, size_t) = memcmp;

TEST(KeyTree, CompareGivesTheTreeOrderWithMemcmpsOwnValue) {
  Tree t;
  BTree* ab = t.Insert("ab");
  EXPECT_EQ(-1, ab->Compare(Bytes("a"), 1));   // the given key is a prefix
  EXPECT_EQ(1, ab->Compare(Bytes("abc"), 3));  // this key is a prefix
  EXPECT_EQ(0, ab->Compare(Bytes("ab"), 2));
  EXPECT_EQ(Cmp("ab", "az", 2), ab->Compare(Bytes("az"), 2));
  EXPECT_EQ(Cmp("ab", "zz", 2), ab->Compare(Bytes("zzz"), 3));
  EXPECT_GT(t.Insert(Byte(0x80))->Compare(Bytes(Byte(0x7F)), 1), 0);
  BTree* empty = t.Insert(Key());  // a prefix of every key: it sorts last
  EXPECT_EQ(1, empty->Compare(Bytes("a"), 1));
  EXPECT_EQ(0, empty->Compare(nullptr, 0));
  EXPECT_EQ(empty, t.Search(Key()));
}

// Keys over a small alphabet with zero bytes make many prefixes and repeats.
TEST(KeyTree, AgreesWithAnOrderedMapAtEveryStep) {
  std::mt19937 rng(12345);
  const char alphabet[] = {'\0', '\x01', 'a', 'b', '\x7f', '\x80', '\xff'};
  auto randomKey = [&] {
    Key k(rng() % 6, '\0');
    for (char& c : k) c = alphabet[rng() % sizeof(alphabet)];
    return k;
  };
  Tree t;
  std::map<Key, BTree*, TreeOrder> model;
  for (int i = 0; i < 4000; ++i) {
    Key k = randomKey();
    unsigned before = BTree::cnt;
    int existed = -1;
    BTree* n = t.Insert(k, &existed);
    ASSERT_EQ(k, KeyOf(n));
    EXPECT_EQ(model.count(k), (size_t)existed);
    EXPECT_EQ(before + 1 - existed, BTree::cnt);
    EXPECT_TRUE(existed || n->serial == before);
    if (!existed) model[k] = n;
    EXPECT_EQ(model[k], n);
    if (i % 500 != 499) continue;
    int count = 0;
    EXPECT_EQ("", Printed(t.root, &count));
    EXPECT_EQ(model.size(), (size_t)count);
    Verify(t.root, nullptr, &t.root);
    std::vector<Key> keys;
    for (auto& kv : model) {
      keys.push_back(kv.first);
      EXPECT_EQ(kv.second, t.Search(kv.first));
    }
    EXPECT_EQ(keys, Walk(t.root, 0, nullptr));
    std::reverse(keys.begin(), keys.end());
    EXPECT_EQ(keys, Walk(t.root, 1, nullptr));
    for (int j = 0; j < 50; ++j) {
      Key other = randomKey();
      EXPECT_EQ(model.count(other) == 1, t.Search(other) != nullptr);
      int c = t.root->Compare(Bytes(other), other.size());
      Key r = KeyOf(t.root);
      EXPECT_EQ(c > 0   ? 1
                : c < 0 ? -1
                        : 0,
                TreeOrder()(other, r) - TreeOrder()(r, other));
    }
  }
}

TEST(KeyTree, SingleRotationsGiveTheseShapes) {
  struct {
    std::vector<int> keys;
    std::string shape;
  } cases[] = {{{1, 2, 3, 4, 5, 6, 7}, "4(2(1,3),6(5,7))"},
               {{7, 6, 5, 4, 3, 2, 1}, "4(2(1,3),6(5,7))"},
               {{1, 2, 3}, "2(1,3)"},
               {{1, 3, 2}, "1(,3(2,))"}};
  for (auto& c : cases) {
    Tree t;
    for (int k : c.keys) t.Insert(Byte(k));
    EXPECT_EQ(c.shape, Shape(t.root));
    Verify(t.root, nullptr, &t.root);  // the root holder was rewritten too
  }
  Tree t;
  for (unsigned i = 0; i < 10000; ++i) t.Insert(BigEndian(i));
  EXPECT_EQ(14u, Verify(t.root, nullptr, &t.root));
  Tree chain;  // smallest, largest, next smallest, ... never rotates
  for (unsigned i = 0; i < 1000; ++i)
    chain.Insert(BigEndian(i % 2 ? 999 - i / 2 : i / 2));
  EXPECT_EQ(1000u, Verify(chain.root, nullptr, &chain.root));
}

TEST(KeyTree, WalkReportsDepthsAndSurvivesPayloadChanges) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  std::vector<int> depths;
  std::vector<Key> up = Walk(t.root, 0, &depths), down = up;
  std::reverse(down.begin(), down.end());
  EXPECT_EQ(7u, up.size());
  EXPECT_TRUE(std::is_sorted(up.begin(), up.end()));
  EXPECT_EQ((std::vector<int>{2, 1, 2, 0, 2, 1, 2}), depths);
  depths.clear();
  EXPECT_EQ(down, Walk(t.root, 7, &depths));
  EXPECT_EQ((std::vector<int>{2, 1, 2, 0, 2, 1, 2}), depths);
  EXPECT_EQ(up, Walk(t.root->left, 0, nullptr));  // goes on through ancestors
  EXPECT_EQ(down, Walk(t.root->right, 1, nullptr));
  EXPECT_TRUE(Walk(nullptr, 0, nullptr).empty());
  int marker = 0;
  std::vector<Key> seen;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next();) {
    n->payload = &marker;  // payloads may change during a walk
    seen.push_back(KeyOf(n));
  }
  EXPECT_EQ(up, seen);
}

// Sets a field for one case; the returned function restores it.
template <typename F, typename V>
std::function<void()> Set(F& field, V value) {
  F old = field;
  field = value;
  return [&field, old] { field = old; };
}

// CheckTree's text with addresses of nodes and their links given as names
// ("n4", "n4.left"), taken before any damage.
using Names = std::vector<std::pair<std::string, std::string>>;
std::string Named(BTree* start, int* count, const Names& names) {
  std::string text = Printed(start, count);
  for (auto& [from, to] : names) {
    for (size_t at; (at = text.find(from)) != std::string::npos;)
      text.replace(at, from.size(), to);
  }
  return text;
}

TEST(KeyTree, CheckTreePrintsEachFaultInPreorder) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  BTree *n4 = t.root, *n2 = n4->left, *n1 = n2->left, *n3 = n2->right,
        *n6 = n4->right, *n7 = n6->right;
  Names all;
  for (BTree* n : {n1, n2, n3, n4, n6, n7}) {
    std::string name = "n" + std::to_string(n->key[0]);
    all.push_back({Line("%p", (void*)&n->left), name + ".left"});
    all.push_back({Line("%p", (void*)&n->right), name + ".right"});
    all.push_back({Line("%p", (void*)n), name});
  }
  int count = 0;
  auto expect = [&](std::vector<std::function<void()>> undo, std::string text) {
    EXPECT_EQ(text, Named(n4, &count, all));
    EXPECT_EQ(7, count);
    for (auto& u : undo) u();
    EXPECT_EQ("", Printed(n4, &count));
  };
  expect({Set(n2->leftHeight, 3)},
         "Counting problem n4 l:2 3\nCounting problem n2 l:3 0\n");
  expect({Set(n2->leftHeight, 0), Set(n3->parent, n4)},
         "Counting problem n2 l:0 0\n**Parent pointer error n2 l:n3 "
         "l->p:n4\nCounting problem n2 l:0\n");
  expect({Set(n1->parentLink, &n2->right)},
         "**Parent p.pointer error n2 l:n1 l->p:n2.right\n");
  unsigned char* k2 = n2->key;
  expect({Set(n2->key, n4->key), Set(n4->key, k2)},
         Line("Compare problem n4 l:n2 %d\n", Cmp("\2", "\4", 1)) +
             Line("Compare problem n2 r:n3 %d\n", Cmp("\4", "\3", 1)));
  expect({Set(n7->key[0], 6), Set(n6->rightHeight, 0)},
         "Counting problem n6 r:0 0\nCompare problem n6 r:n7 0\nCounting "
         "problem n6 l:0\n");
  expect({Set(n3->key[0], 5)}, "");  // not parent and child: not compared
  expect({Set(n1->parent, n6), Set(n7->parent, n2),
          Set(n2->parentLink, &n4->right)},
         "**Parent p.pointer error n4 l:n2 l->p:n4.right\n**Parent pointer "
         "error n2 l:n1 l->p:n6\n**Parent pointer error n6 l:n7 l->p:n2\n");
  EXPECT_EQ("Root illegal n2 parent=n4\n", Named(n2, &count, all));
  EXPECT_EQ(3, count);
  EXPECT_EQ("", Printed(n2, &count, false));
}

TEST(KeyTree, ClearAttrClearsPinnedAndExpiresBelowTheNodeOnly) {
  Tree t;
  for (int i = 1; i <= 15; ++i) t.Insert(Byte(i));
  std::vector<CARecord*> records;
  for (BTreeNumerator it(t.root, 0); BTree* n = it.Next();) {
    if (n->key[0] % 3 == 0) continue;  // empty nodes, some above records
    records.push_back(new CARecord(1, 1, (void*)"x", n, nullptr, 0, -1, 0));
    n->payload = records.back();
  }
  t.root->left->ClearAttr();
  for (CARecord* r : records) {
    bool below = r->node->key[0] < 8;
    EXPECT_EQ(below ? ~(CAREC_PINNED | CAREC_EXPIRES) : -1, r->flags);
  }
  t.root->ClearAttr();
  for (CARecord* r : records) {
    EXPECT_EQ(~(CAREC_PINNED | CAREC_EXPIRES), r->flags);
    delete r;
  }
}

// Built directly (inserting a chain takes quadratic time); checked, walked,
// cleared and destroyed in a default-sized stack.
TEST(KeyTree, MillionNodeChainNeedsNoStack) {
  const unsigned n = 1000000;
  Tree t;
  BTree** link = &t.root;
  BTree* parent = nullptr;
  std::vector<BTree*> nodes;
  for (unsigned i = 0; i < n; ++i) {
    Key k = BigEndian(i % 2 ? n - 1 - i / 2 : i / 2);
    nodes.push_back(*link = new BTree(Bytes(k), 4, parent, link));
    link = i % 2 == 0 ? &nodes[i]->right : &nodes[i]->left;
    parent = nodes[i];
  }
  for (unsigned i = 0; i + 1 < n; ++i)
    (i % 2 ? nodes[i]->leftHeight : nodes[i]->rightHeight) = n - 1 - i;
  CARecord* deep = new CARecord(1, 1, (void*)"x", nodes[n - 1], nullptr, 0,
                                CAREC_EXPIRES, 0);
  nodes[n - 1]->payload = deep;
  int count = 0;
  EXPECT_EQ("", Printed(t.root, &count));
  EXPECT_EQ((int)n, count);
  nodes[n - 1]->parent = nodes[0];
  EXPECT_EQ(Line("**Parent pointer error %p l:%p l->p:%p\n",
                 (void*)nodes[n - 2], (void*)nodes[n - 1], (void*)nodes[0]),
            Printed(t.root, &count));
  nodes[n - 1]->parent = nodes[n - 2];
  t.root->ClearAttr();
  EXPECT_EQ(0, deep->flags);
  std::vector<Key> walked = Walk(t.root, 0, nullptr);
  EXPECT_EQ(n, walked.size());
  EXPECT_TRUE(walked.front() == BigEndian(0) &&
              walked.back() == BigEndian(n - 1));
  delete t.root;  // the destructor must not recurse
  t.root = nullptr;
  delete deep;
}

}  // namespace
