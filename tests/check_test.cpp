// SPDX-License-Identifier: MIT
// The structure check: its verdict and the report of the first fault, read
// back from the trace service. Each case damages one field and repairs it.
#include <stdint.h>
#include <string.h>

#include <functional>

#include "qmcache/ybtrace.h"
#include "support.h"

// A dump entry as the report shows it: its label and its size.
std::string D(const char* label, size_t size) {
  return std::string(label) + "#" + std::to_string(size) + "\n";
}

// A damage to one field, and its repair.
struct Change {
  std::function<void()> apply, undo;
};
template <typename F, typename V>
Change Set(F& field, V bad) {
  F old = field;
  return {[&field, bad] { field = (F)(uintptr_t)bad; },
          [&field, old] { field = old; }};
}

// The verdict; `report` gets the report, one line per entry. With trace id 0
// the check gives the same verdict and neither writes nor formats.
std::string report(4096, ' ');  // its block comes before any test counts
int Check() {
  memset(CACache::cache_buf, 'z', sizeof(CACache::cache_buf));
  YBTRACE_Clear();
  const int silent = CA_CHECKCACHE(0);
  EXPECT_TRUE(YBTRACE_Count() == 0 &&
              std::string(CACache::cache_buf, 512) == std::string(512, 'z'));
  EXPECT_EQ(CA_CHECKCACHE(1), silent);
  report.clear();
  YBTRACE_Entry e;
  for (size_t i = 0; YBTRACE_Get(i, &e); ++i) {
    report += e.kind == YBTRACE_KIND_TEXT
                  ? std::string(e.text, e.textLength) + "\n"
                  : D(e.text, e.byteCount);
    EXPECT_EQ(e.traceId, 1u);
  }
  return silent;
}

using StructureCheck = Fresh;

TEST_F(StructureCheck, ReportsTheFirstFaultOfEachKind) {
  CACache* c = Open("c")->cache;
  CACache* o = Open("o")->cache;
  for (unsigned i = 0; i < 7; ++i) Put(c->actions[0], Key(i), "data");
  CACacheAction* a = (CACacheAction*)CA_CREATE("c", nullptr);  // slot 1
  BTree *root = c->tree, *inner = root->left, *leaf = inner->left,
        *right = root->right, *rightLeaf = right->right;
  auto *rootRec = (CARecord*)root->payload, *leafRec = (CARecord*)leaf->payload;
  BTree* registry = CACache::caches;  // the first cache in name order
  const std::string named =
      Format("invalid CACache structure - name: 'c', address: %p\n", c);
  const std::string kC = D("CACache structure", sizeof(CACache));
  const std::string banner =
      Format("CACache - name: 'c', address: %p\n", c) + kC;
  const std::string kN = D("BTree structure", sizeof(BTree)),
                    kK = D("BTree key", 4);
  auto node = [&](BTree* n, bool key = true) {
    return banner + Format("invalid BTree structure - address: %p\n", n) + kN +
           (key ? kK : "");
  };
  auto link = [&](BTree* n, BTree* child) {
    return banner +
           Format("invalid BTree structures - address1: %p, address2: %p\n", n,
                  child) +
           D("BTree structure1", sizeof(BTree)) + D("BTree key1", 4) +
           D("BTree structure2", sizeof(BTree)) + D("BTree key2", 4);
  };
  auto record = [&](BTree* n, CARecord* r) {
    return banner + Format("BTree address: %p\n", n) + kN + kK +
           Format("invalid CARecord structure - address: %p\n", r) +
           D("CARecord structure", sizeof(CARecord));
  };
  auto handle = [&](void* h, bool dump = true) {
    return banner + D("Actions table", 16 * sizeof(void*)) +
           Format("invalid CACacheAction address or structure - address: %p\n",
                  h) +
           (dump ? D("CACacheAction structure", sizeof(CACacheAction)) : "");
  };
  unsigned char* magic = (unsigned char*)&a->magic;
  std::pair<std::vector<Change>, std::string> cases[] = {
      {{Set(c->magic[0], '?')}, named + kC},
      {{Set(c->name, 1000)},
       Format("invalid CACache structure - address: %p\n", c) + kC},
      {{Set(c->actions, 0)}, named + kC},
      {{Set(c->tree, 1)}, named + kC},
      {{Set(registry->payload, 12)},
       Format("invalid CACache structure - address: %p\n", (void*)12)},
      {{Set(root->parentLink, &root->left)},
       "invalid CACache or BTree structure\n" + banner +
           Format("BTree address: %p\n", root) + kN},
      {{Set(a->cache, o)}, handle(a)},
      {{Set(magic[5], 1)}, handle(a)},
      {{Set(c->actions[7], 77)}, handle((void*)77, false)},
      {{Set(root->rightHeight, 2001)}, node(root)},
      {{Set(leaf->magic[3], 't')}, node(leaf)},
      {{Set(leaf->keyLength, 0)}, node(leaf, false)},
      {{Set(leaf->keyLength, 256)}, node(leaf, false)},
      {{Set(inner->leftHeight, 0)}, node(inner)},
      {{Set(right->rightHeight, 0)}, node(right)},
      {{Set(leaf->payload, 999)}, node(leaf)},
      {{Set(right->parent, inner)}, link(root, right)},
      {{Set(rightLeaf->left, root), Set(rightLeaf->leftHeight, 1)},
       link(rightLeaf, root)},
      {{Set(rootRec->magic[3], 'X')}, record(root, rootRec)},
      // Records come after both subtrees: the leaf's fault is found first.
      {{Set(rootRec->magic[3], 'X'), Set(leafRec->node, root)},
       record(leaf, leafRec)},
      {{Set(leafRec->cache, o)}, record(leaf, leafRec)},
      {{Set(leaf->payload, 0)}, ""},  // an empty node is sound
  };
  for (auto& [changes, want] : cases) {
    for (Change& change : changes) change.apply();
    EXPECT_EQ(want.empty() ? 0 : 1, Check());
    EXPECT_EQ(want, report);
    for (Change& change : changes) change.undo();
    EXPECT_EQ(0, Check()) << want;
  }
}

TEST_F(StructureCheck, AnswersOnlyWhenOnAndBoundsNamesAndKeys) {
  std::string name(700, 'w');  // its report line is cut, never overrun
  CACache* x = Open(name)->cache;
  x->magic[0] = '?';
  EXPECT_EQ(CA_SETCHECK(0) + CA_CHECKCACHE(3) + (int)YBTRACE_Count(), 0);
  EXPECT_TRUE(CA_SETCHECK(5) == 1 && Check() == 1);
  const std::string line = Format(
      "invalid CACache structure - name: '%s', address: %p", name.c_str(), x);
  EXPECT_EQ(report.substr(0, 512), line.substr(0, 511) + "\n");
  x->magic[0] = '%';
  x->name[255] = '\0';  // 255 characters: one too many
  EXPECT_EQ(Check(), 1);
  EXPECT_EQ(report, Format("CACache address: %p\n", x) +
                        D("CACache structure", sizeof(CACache)) +
                        "invalid CACache name\n" + D("CACache name", 255));
  x->name[254] = '\0';
  CACache* z = Open("z")->cache;  // after the long name, which is sound
  Put(z->actions[0], std::string(255, '\0'));
  Put(z->actions[0], "a");
  z->tree->magic[2] = 'b';  // a 255-byte key is not dumped, a 254-byte one is
  EXPECT_TRUE(Check() == 1 && report.find("BTree key") == std::string::npos);
  z->tree->keyLength = 254;
  EXPECT_TRUE(Check() == 1 &&
              report.find(D("BTree key", 254)) != std::string::npos);
}
