// SPDX-License-Identifier: MIT
// The key tree: its order, its shapes after rotation (which its printing
// self-check finds sound) and its walk.
#include <string.h>

#include <random>

#include "support.h"

unsigned char* Bytes(const std::string& k) { return (unsigned char*)k.data(); }

struct Tree {
  BTree* root = nullptr;
  ~Tree() { delete root; }
  BTree* Insert(const std::string& k, int* existed = nullptr) {
    int ignored;
    if (root == nullptr) return root = new BTree(Bytes(k), k.size(), 0, &root);
    return root->Insert(Bytes(k), k.size(), existed ? existed : &ignored);
  }
  explicit Tree(int n = 0) {  // keys 1 .. n, each a single byte
    for (int i = 1; i <= n; ++i) Insert(std::string(1, (char)i));
  }
};
std::string Walk(BTree* start, int reverse, Ints* depths = nullptr) {
  std::string keys;
  BTreeNumerator it(start, reverse);
  for (BTree* n; (n = it.Next()) != nullptr; keys += KeyOf(n))
    if (depths) depths->push_back(it.lastDepth);
  return keys + (it.Next() ? "!" : "");
}
// Run-time memcmp: a call with constant arguments may be folded to -1/0/1.
int (*volatile const Cmp)(const void*, const void*, size_t) = memcmp;

TEST(KeyTree, KeysSortBytewiseWithEachKeyBeforeItsPrefixes) {
  Tree t;
  BTree* ab = t.Insert("ab");
  EXPECT_EQ(Ints({ab->Compare(Bytes("a"), 1), ab->Compare(Bytes("abc"), 3),
                  ab->Compare(Bytes("ab"), 2), ab->Compare(Bytes("az"), 2),
                  ab->Compare(Bytes("zzz"), 3)}),
            Ints({-1, 1, 0, Cmp("ab", "az", 2), Cmp("ab", "zz", 2)}));
  t.Insert("\x80");
  BTree* empty = t.Insert("");  // a prefix of every key: it sorts last
  const unsigned before = BTree::cnt;
  int existed = 0;
  EXPECT_TRUE(t.Insert("", &existed) == empty && existed == 1);
  BTree* abc = t.Insert("abc", &existed);
  EXPECT_TRUE(!existed && abc->serial == before && BTree::cnt == before + 1);
  EXPECT_EQ(Walk(t.root, 0), "abcab\x80");
  EXPECT_TRUE(t.root->Search(Bytes("abc"), 3) == abc &&
              t.root->Search(Bytes("a"), 1) == nullptr);
}

TEST(KeyTree, SingleRotationsGiveTheseShapesAndTheWalkFollowsThem) {
  // A shape: each key's depth, in key order.
  const std::pair<std::vector<int>, Ints> cases[] = {
      {{1, 2, 3, 4, 5, 6, 7}, {2, 1, 2, 0, 2, 1, 2}},
      {{7, 6, 5, 4, 3, 2, 1}, {2, 1, 2, 0, 2, 1, 2}},
      {{1, 3, 2}, {0, 2, 1}},
      {{3, 1, 2}, {1, 2, 0}}};
  for (auto& [keys, shape] : cases) {  // the self-check finds them sound
    Tree t;
    Ints depths;
    for (int k : keys) t.Insert(std::string(1, (char)k));
    EXPECT_EQ(Walk(t.root, 0, &depths).size() + Walk(t.root, 1).size(),
              2 * keys.size());
    testing::internal::CaptureStdout();  // it prints nothing, counts nodes
    const int counted = t.root->CheckTreeRoot();
    EXPECT_EQ(testing::internal::GetCapturedStdout() + std::to_string(counted),
              std::to_string(keys.size()));
    EXPECT_EQ(depths, shape);
  }
  Tree t(7);
  Ints depths, back;
  EXPECT_EQ(Walk(t.root, 0, &depths), "\1\2\3\4\5\6\7");
  EXPECT_EQ(Walk(t.root, 7, &back), "\7\6\5\4\3\2\1");
  EXPECT_EQ(depths, back);
  EXPECT_EQ(Walk(t.root->left, 0), "\1\2\3\4\5\6\7");  // on through ancestors
  EXPECT_EQ(Walk(nullptr, 0), "");
  t.root->left->left->key[0] = 2;  // a key equal to its parent's
  testing::internal::CaptureStdout();
  t.root->CheckTreeRoot();
  EXPECT_NE(testing::internal::GetCapturedStdout().find("Compare problem"),
            std::string::npos);
}

// A cache's tree has the shape BTree::Insert gives the same keys in the same
// order, however the cache's inserts descend: keys of 16 random bytes, keys
// sharing their first eight bytes (all 0xFF among them), keys under eight.
TEST(KeyTree, ACachesTreeHasTheShapeBTreeInsertGivesItsKeys) {
  std::mt19937 random(7);
  void* h = Open("shape");
  Tree plain;
  for (int i = 0; i < 30000; ++i) {
    std::string k(i % 7 == 0 ? random() % 8 : 16, 0);
    for (char& c : k) c = (char)random();
    if (i % 5 == 0 && k.size() == 16) k.replace(0, 8, 8, i % 2 ? 'x' : '\xff');
    Put(h, k, "v", 1, 0);
    plain.Insert(k);
  }
  Ints depths[2];
  EXPECT_EQ(Walk(static_cast<CACacheAction*>(h)->cache->tree, 0, &depths[0]),
            Walk(plain.root, 0, &depths[1]));
  EXPECT_EQ(depths[0], depths[1]);
  CA_DEINIT();
}
