// The key tree: its order, its shapes after rotation, its walk and its
// printing self-check, on trees up to a million nodes deep.
#include <string.h>

#include <algorithm>
#include <functional>

#include "support.h"

namespace {

unsigned char* Bytes(const std::string& k) { return (unsigned char*)k.data(); }
std::string Byte(int b) { return std::string(1, static_cast<char>(b)); }

struct Tree {
  BTree* root = nullptr;
  ~Tree() { delete root; }
  BTree* Insert(const std::string& k, int* existed = nullptr) {
    int ignored;
    if (root != nullptr)
      return root->Insert(Bytes(k), k.size(), existed ? existed : &ignored);
    return root = new BTree(Bytes(k), k.size(), nullptr, &root);
  }
};

// The shape of single-byte-key trees, e.g. "4(2(1,3),6(5,7))", checking
// every link and height on the way.
std::string Shape(BTree* n, BTree* parent, BTree** link, unsigned long* h) {
  *h = 0;
  if (n == nullptr) return "";
  EXPECT_TRUE(n->parent == parent && n->parentLink == link && *link == n);
  unsigned long l, r;
  std::string s = std::to_string(n->key[0]),
              left = Shape(n->left, n, &n->left, &l),
              right = Shape(n->right, n, &n->right, &r);
  EXPECT_TRUE(n->leftHeight == l && n->rightHeight == r);
  *h = std::max(l, r) + 1;
  return n->left || n->right ? s + "(" + left + "," + right + ")" : s;
}
unsigned long Height(Tree& t) {
  unsigned long h;
  Shape(t.root, nullptr, &t.root, &h);
  return h;
}
Lines Walk(BTree* start, int reverse, Ints* depths = nullptr) {
  Lines keys;
  BTreeNumerator it(start, reverse);
  for (BTree* n; (n = it.Next()) != nullptr;) {
    keys.push_back(KeyOf(n));
    if (depths != nullptr) depths->push_back(it.lastDepth);
  }
  EXPECT_EQ(it.Next(), nullptr);
  return keys;
}
// What CheckTreeRoot (or CheckTree) prints; `count` gets its result.
std::string Printed(BTree* n, int* count, bool root = true) {
  testing::internal::CaptureStdout();
  *count = root ? n->CheckTreeRoot() : n->CheckTree();
  return testing::internal::GetCapturedStdout();
}
std::string Line(const char* format, const void* a, const void* b,
                 const void* c) {
  char buf[256];
  snprintf(buf, sizeof buf, format, a, b, c);
  return buf;
}
// Run-time memcmp: a call with constant arguments may be folded to -1/0/1.
int (*volatile const Cmp)(const void*, const void*, size_t) = memcmp;

TEST(KeyTree, KeysSortBytewiseWithEachKeyBeforeItsPrefixes) {
  Tree t;
  BTree* ab = t.Insert("ab");
  EXPECT_EQ(ab->Compare(Bytes("a"), 1), -1);   // the given key is a prefix
  EXPECT_EQ(ab->Compare(Bytes("abc"), 3), 1);  // this key is a prefix
  EXPECT_EQ(ab->Compare(Bytes("ab"), 2), 0);
  EXPECT_EQ(ab->Compare(Bytes("az"), 2), Cmp("ab", "az", 2));  // unreduced
  EXPECT_EQ(ab->Compare(Bytes("zzz"), 3), Cmp("ab", "zz", 2));
  EXPECT_GT(t.Insert(Byte(0x80))->Compare(Bytes(Byte(0x7F)), 1), 0);
  BTree* empty = t.Insert("");  // a prefix of every key: it sorts last
  EXPECT_EQ(empty->Compare(nullptr, 0), 0);
  const unsigned before = BTree::cnt;
  int existed = 0;
  EXPECT_EQ(t.Insert("", &existed), empty);
  EXPECT_EQ(existed, 1);
  BTree* abc = t.Insert("abc", &existed);
  EXPECT_TRUE(existed == 0 && abc->serial == before &&
              BTree::cnt == before + 1);
  EXPECT_EQ(Walk(t.root, 0), (Lines{"abc", "ab", "\x80", ""}));
  for (const char* k : {"abc", "ab", ""})
    EXPECT_EQ(KeyOf(t.root->Search(Bytes(k), strlen(k))), k);
  EXPECT_EQ(t.root->Search(Bytes("a"), 1), nullptr);
}

TEST(KeyTree, SingleRotationsGiveTheseShapes) {
  const struct {
    std::vector<int> keys;
    std::string shape;
  } cases[] = {{{1, 2, 3, 4, 5, 6, 7}, "4(2(1,3),6(5,7))"},
               {{7, 6, 5, 4, 3, 2, 1}, "4(2(1,3),6(5,7))"},
               {{1, 2, 3}, "2(1,3)"},
               {{1, 3, 2}, "1(,3(2,))"},
               {{3, 1, 2}, "3(1(,2),)"}};
  for (auto& c : cases) {
    Tree t;
    for (int k : c.keys) t.Insert(Byte(k));
    unsigned long h;
    EXPECT_EQ(Shape(t.root, nullptr, &t.root, &h), c.shape);
  }
  Tree up, chain;
  for (unsigned i = 0; i < 10000; ++i) up.Insert(Key(i));
  EXPECT_EQ(Height(up), 14u);
  // Smallest, largest, next smallest ... never rotates: a chain.
  for (unsigned i = 0; i < 1000; ++i)
    chain.Insert(Key(i % 2 ? 999 - i / 2 : i / 2));
  EXPECT_EQ(Height(chain), 1000u);
}

TEST(KeyTree, TheWalkGoesInOrderEitherWayAndOnThroughAncestors) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  Ints depths, back;
  Lines up = Walk(t.root, 0, &depths), down = Walk(t.root, 7, &back);
  EXPECT_EQ(up, (Lines{Byte(1), Byte(2), Byte(3), Byte(4), Byte(5), Byte(6),
                       Byte(7)}));
  std::reverse(down.begin(), down.end());
  EXPECT_EQ(down, up);
  EXPECT_EQ(depths, (Ints{2, 1, 2, 0, 2, 1, 2}));
  EXPECT_EQ(back, depths);
  EXPECT_EQ(Walk(t.root->left, 0), up);
  EXPECT_EQ(Walk(t.root->right, 1).size(), 7u);
  EXPECT_TRUE(Walk(nullptr, 0).empty());
}

TEST(KeyTree, CheckTreePrintsEachFaultInPreorder) {
  Tree t;
  for (int i = 1; i <= 7; ++i) t.Insert(Byte(i));
  BTree *n4 = t.root, *n2 = n4->left, *n1 = n2->left, *n3 = n2->right,
        *n6 = n4->right, *n7 = n6->right;
  int count = 0;
  // Each case damages fields, compares the text and repairs them.
  auto expect = [&](std::vector<std::function<void()>> damage,
                    std::function<void()> repair, const std::string& text) {
    for (auto& d : damage) d();
    EXPECT_EQ(Printed(n4, &count), text);
    EXPECT_EQ(count, 7);
    repair();
    EXPECT_EQ(Printed(n4, &count), "");
  };
  const char* counting = "Counting problem %p l:%d %d\n";
  char buf[128];
  snprintf(buf, sizeof buf, counting, (void*)n4, 2, 3);
  std::string text = buf;
  snprintf(buf, sizeof buf, counting, (void*)n2, 3, 0);
  expect(
      {[&] { n2->leftHeight = 3; }}, [&] { n2->leftHeight = 1; }, text + buf);
  expect(
      {[&] { n3->parent = n4; }}, [&] { n3->parent = n2; },
      Line("**Parent pointer error %p l:%p l->p:%p\n", n2, n3, n4));
  expect(
      {[&] { n1->parentLink = &n2->right; }},
      [&] { n1->parentLink = &n2->left; },
      Line("**Parent p.pointer error %p l:%p l->p:%p\n", n2, n1, &n2->right));
  snprintf(buf, sizeof buf, "Counting problem %p r:%d %d\n", (void*)n6, 0, 0);
  text = buf;
  snprintf(buf, sizeof buf, "Compare problem %p r:%p %d\n", (void*)n6,
           (void*)n7, 0);
  text += buf;
  snprintf(buf, sizeof buf, "Counting problem %p l:%d\n", (void*)n6, 0);
  expect(
      {[&] { n7->key[0] = 6; }, [&] { n6->rightHeight = 0; }},
      [&] { n7->key[0] = 7, n6->rightHeight = 1; }, text + buf);
  expect(
      {[&] { n3->key[0] = 5; }}, [&] { n3->key[0] = 3; }, "");  // not a pair
  std::swap(n2->key, n4->key);
  snprintf(buf, sizeof buf, "Compare problem %p l:%p %d\n", (void*)n4,
           (void*)n2, Cmp("\2", "\4", 1));
  text = buf;
  snprintf(buf, sizeof buf, "Compare problem %p r:%p %d\n", (void*)n2,
           (void*)n3, Cmp("\4", "\3", 1));
  EXPECT_EQ(Printed(n4, &count), text + buf);
  std::swap(n2->key, n4->key);
  EXPECT_EQ(Printed(n2, &count),
            Line("Root illegal %p parent=%p\n", n2, n4, nullptr));
  EXPECT_EQ(count, 3);
  EXPECT_EQ(Printed(n2, &count, false), "");
}

// Built directly (inserting a chain takes quadratic time); checked, walked,
// cleared and destroyed in a default-sized stack.
TEST(KeyTree, AMillionNodeChainNeedsNoStackAndClearAttrReachesItAll) {
  const unsigned n = 1000000;
  Tree t;
  BTree** link = &t.root;
  BTree* parent = nullptr;
  std::vector<BTree*> nodes;
  for (unsigned i = 0; i < n; ++i) {
    std::string k = Key(i % 2 ? n - 1 - i / 2 : i / 2);
    nodes.push_back(*link = new BTree(Bytes(k), 4, parent, link));
    link = i % 2 == 0 ? &nodes[i]->right : &nodes[i]->left;
    parent = nodes[i];
  }
  for (unsigned i = 0; i + 1 < n; ++i)
    (i % 2 ? nodes[i]->leftHeight : nodes[i]->rightHeight) = n - 1 - i;
  CARecord deep(1, 1, (void*)"x", nodes[n - 1], nullptr, 0, -1, 0);
  CARecord top(1, 1, (void*)"x", nodes[1], nullptr, 0, -1, 0);
  nodes[n - 1]->payload = &deep;  // below empty nodes
  nodes[1]->payload = &top;
  int count = 0;
  EXPECT_EQ(Printed(t.root, &count), "");
  EXPECT_EQ(count, static_cast<int>(n));
  nodes[2]->ClearAttr();  // below node 2 only: not node 1
  EXPECT_EQ(top.flags, -1);
  EXPECT_EQ(deep.flags, ~(CAREC_PINNED | CAREC_EXPIRES));
  Lines walked = Walk(t.root, 0);
  EXPECT_TRUE(walked.size() == n && walked.front() == Key(0) &&
              walked.back() == Key(n - 1));
  delete t.root;  // the destructor must not recurse
  t.root = nullptr;
}

}  // namespace
