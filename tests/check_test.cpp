// The structure check: verdicts and the first fault's report, read back from
// the trace service's log. Every test damages objects on purpose and
// restores them before the library tears down.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

namespace {

struct Entry {
  unsigned int traceId;
  int kind;
  std::string text;
  std::vector<unsigned char> bytes;
};

std::vector<Entry> Log() {
  std::vector<Entry> out;
  for (size_t i = 0; i < YBTRACE_Count(); ++i) {
    YBTRACE_Entry e;
    if (!YBTRACE_Get(i, &e)) break;
    out.push_back({e.traceId, e.kind, std::string(e.text, e.textLength),
                   std::vector<unsigned char>(e.bytes, e.bytes + e.byteCount)});
  }
  return out;
}

// Entry `i` of the log, or an empty entry (kind 0) when there is none.
Entry At(size_t i) {
  std::vector<Entry> log = Log();
  return i < log.size() ? log[i] : Entry{0, 0, "", {}};
}

template <typename... Args>
std::string Line(const char* format, Args... args) {
  char buf[1024];
  snprintf(buf, sizeof(buf), format, args...);
  return buf;
}

void* P(const void* p) { return const_cast<void*>(p); }

std::string Key4(unsigned int v) {
  std::string k(4, '\0');
  for (int i = 0; i < 4; ++i) k[i] = static_cast<char>(v >> (24 - 8 * i));
  return k;
}

class StructureCheck : public testing::Test {
 protected:
  void SetUp() override {
    CA_INIT(1);
    CA_SETCHECK(1);
    YBTRACE_Clear();
  }
  void TearDown() override {
    CA_DEINIT();
    YBTRACE_Clear();
  }

  CACache* Open(const std::string& name, void** handle = nullptr) {
    CAParams params;
    memset(&params, 0, sizeof(params));
    params.maxBytes = 100u << 20;
    void* h = CA_CREATE(name.c_str(), &params);
    if (handle != nullptr) *handle = h;
    return static_cast<CACacheAction*>(h)->cache;
  }

  void Put(CACache* cache, const std::string& key) {
    void* h = cache->actions[0];
    ASSERT_GE(CA_INSERT(h, 0, 0, 0, static_cast<int>(key.size()), key.data(), 4,
                        4, "data"),
              0);
  }

  // The check's verdict with a fresh log; with traceId 0 it must write and
  // format nothing and give the same verdict.
  int Check(unsigned int traceId = 9) {
    memset(CACache::cache_buf, 'z', sizeof(CACache::cache_buf));
    YBTRACE_Clear();
    int silent = CA_CHECKCACHE(0);
    EXPECT_EQ(YBTRACE_Count(), 0u);
    for (char c : CACache::cache_buf) EXPECT_EQ(c, 'z');
    int verdict = CA_CHECKCACHE(traceId);
    EXPECT_EQ(silent, verdict);
    for (const Entry& e : Log()) EXPECT_EQ(e.traceId, traceId);
    return verdict;
  }

  static void ExpectText(const Entry& e, const std::string& text) {
    EXPECT_EQ(e.kind, YBTRACE_KIND_TEXT);
    EXPECT_EQ(e.text, text);
  }
  static void ExpectDump(const Entry& e, const std::string& label,
                         const void* address, size_t length) {
    EXPECT_EQ(e.kind, YBTRACE_KIND_DUMP);
    EXPECT_EQ(e.text, label);
    ASSERT_EQ(e.bytes.size(), length) << label;
    EXPECT_EQ(memcmp(e.bytes.data(), address, length), 0) << label;
  }
  static void ExpectBanner(const std::vector<Entry>& log, CACache* c) {
    ASSERT_GE(log.size(), 2u);
    ExpectText(log[0],
               Line("CACache - name: '%s', address: %p", c->name, P(c)));
    ExpectDump(log[1], "CACache structure", c, sizeof(CACache));
  }
};

TEST_F(StructureCheck, SwitchAndLifecycle) {
  CACache* c = Open("x");
  Put(c, "k");
  c->magic[0] = '?';
  EXPECT_EQ(CA_SETCHECK(0), 0);
  EXPECT_EQ(CA_CHECKCACHE(3), 0);
  EXPECT_EQ(YBTRACE_Count(), 0u);
  EXPECT_EQ(CA_SETCHECK(5), 1);
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 2u);
  ExpectText(log[0], Line("invalid CACache structure - name: '%s', address: %p",
                          "x", P(c)));
  ExpectDump(log[1], "CACache structure", c, sizeof(CACache));
  // The class entry gives the same verdict.
  EXPECT_EQ(CACache::CheckCache(0), 1);
  c->magic[0] = '%';
  EXPECT_EQ(Check(), 0);
  EXPECT_EQ(YBTRACE_Count(), 0u);

  CA_DEINIT();
  EXPECT_EQ(CA_CHECKCACHE(3), 0);
  EXPECT_EQ(MainStat, nullptr);  // not initialised on demand
  CA_INIT(1);
  EXPECT_EQ(Check(), 0);  // no cache at all
}

TEST_F(StructureCheck, CacheFields) {
  CACache* c = Open("cache");
  Put(c, "k");
  char* name = c->name;
  c->name = reinterpret_cast<char*>(1000);
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 2u);
  ExpectText(log[0], Line("invalid CACache structure - address: %p", P(c)));
  c->name = name;

  CACacheAction** actions = c->actions;
  c->actions = nullptr;
  EXPECT_EQ(Check(), 1);
  log = Log();
  ASSERT_EQ(log.size(), 2u);
  ExpectText(log[0], Line("invalid CACache structure - name: '%s', address: %p",
                          "cache", P(c)));
  c->actions = actions;

  BTree* tree = c->tree;
  c->tree = reinterpret_cast<BTree*>(1);
  EXPECT_EQ(Check(), 1);
  ExpectText(At(0), Line("invalid CACache structure - name: '%s', address: %p",
                         "cache", P(c)));
  c->tree = tree;

  // The root's link to its holder.
  tree->parentLink = &tree->left;
  EXPECT_EQ(Check(), 1);
  log = Log();
  ASSERT_EQ(log.size(), 5u);
  ExpectText(log[0], "invalid CACache or BTree structure");
  EXPECT_EQ(log[0].text.size(), 34u);
  ExpectText(log[1], Line("CACache - name: '%s', address: %p", "cache", P(c)));
  ExpectText(log[3], Line("BTree address: %p", P(tree)));
  ExpectDump(log[4], "BTree structure", tree, sizeof(BTree));
  tree->parentLink = &c->tree;
  EXPECT_EQ(Check(), 0);
}

TEST_F(StructureCheck, CacheNameLength) {
  std::string ok(254, 'n'), bad(255, 'n');
  Open(ok);
  EXPECT_EQ(Check(), 0);
  CACache* c = Open(bad);
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 4u);
  ExpectText(log[0], Line("CACache address: %p", P(c)));
  ExpectDump(log[1], "CACache structure", c, sizeof(CACache));
  ExpectText(log[2], "invalid CACache name");
  EXPECT_EQ(log[2].text.size(), 20u);
  ExpectDump(log[3], "CACache name", bad.data(), 255);
}

// A line quoting a name longer than the buffer is cut, never overrun.
TEST_F(StructureCheck, LongNameLineFitsBuffer) {
  std::string name(700, 'w');
  CACache* c = Open(name);
  CACacheAction** actions = c->actions;
  c->actions = reinterpret_cast<CACacheAction**>(8);
  EXPECT_EQ(Check(), 1);
  c->actions = actions;
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 2u);
  std::string full = Line("invalid CACache structure - name: '%s', address: %p",
                          name.c_str(), P(c));
  ASSERT_GT(full.size(), 511u);
  ExpectText(log[0], full.substr(0, 511));
  EXPECT_EQ(CACache::cache_buf[511], '\0');
}

TEST_F(StructureCheck, HandleTable) {
  void* h1 = nullptr;
  CACache* c = Open("h", &h1);
  void* h2 = nullptr;
  CACache* other = Open("other", &h2);
  Open("h");  // a third handle, in slot 1 of "h"
  ASSERT_EQ(c->actions[0], h1);
  EXPECT_EQ(Check(), 0);

  // A handle whose cache is another one.
  CACacheAction* a = c->actions[1];
  a->cache = other;
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 5u);
  ExpectBanner(log, c);
  ExpectDump(log[2], "Actions table", c->actions, 16 * sizeof(void*));
  ExpectText(
      log[3],
      Line("invalid CACacheAction address or structure - address: %p", P(a)));
  ExpectDump(log[4], "CACacheAction structure", a, sizeof(CACacheAction));
  a->cache = c;

  // A damaged magic: "CAAC" followed by a non-zero byte.
  reinterpret_cast<unsigned char*>(&a->magic)[5] = 1;
  EXPECT_EQ(Check(), 1);
  ExpectText(
      At(3),
      Line("invalid CACacheAction address or structure - address: %p", P(a)));
  reinterpret_cast<unsigned char*>(&a->magic)[5] = 0;

  // A small integer in a free slot.
  c->actions[7] = reinterpret_cast<CACacheAction*>(77);
  EXPECT_EQ(Check(), 1);
  log = Log();
  ASSERT_GE(log.size(), 4u);
  ExpectText(log[3],
             Line("invalid CACacheAction address or structure - address: %p",
                  reinterpret_cast<void*>(77)));
  c->actions[7] = nullptr;
  EXPECT_EQ(Check(), 0);
}

TEST_F(StructureCheck, NodeFields) {
  CACache* c = Open("n");
  for (unsigned int i = 0; i < 7; ++i) Put(c, Key4(i));
  BTree* root = c->tree;
  BTree* leaf = root->left->left;
  ASSERT_NE(leaf, nullptr);

  root->rightHeight = 2001;
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 5u);
  ExpectBanner(log, c);
  ExpectText(log[2], Line("invalid BTree structure - address: %p", P(root)));
  ExpectDump(log[3], "BTree structure", root, sizeof(BTree));
  ExpectDump(log[4], "BTree key", root->key, 4);
  root->rightHeight = 2;

  memcpy(leaf->magic, "%%Bt", 4);
  EXPECT_EQ(Check(), 1);
  ExpectText(At(2), Line("invalid BTree structure - address: %p", P(leaf)));
  memcpy(leaf->magic, "%%BT", 4);

  // Key lengths of 0 and 256: reported without a key dump.
  for (unsigned long length : {0ul, 256ul}) {
    leaf->keyLength = length;
    EXPECT_EQ(Check(), 1);
    log = Log();
    ASSERT_EQ(log.size(), 4u) << length;
    ExpectText(log[2], Line("invalid BTree structure - address: %p", P(leaf)));
    leaf->keyLength = 4;
  }

  // A child without a height, and a small-integer payload.
  BTree* inner = root->left;
  inner->leftHeight = 0;
  EXPECT_EQ(Check(), 1);
  log = Log();
  ASSERT_EQ(log.size(), 5u);
  ExpectText(log[2], Line("invalid BTree structure - address: %p", P(inner)));
  ExpectDump(log[4], "BTree key", inner->key, 4);
  inner->leftHeight = 1;
  root->right->rightHeight = 0;
  EXPECT_EQ(Check(), 1);
  ExpectText(At(2),
             Line("invalid BTree structure - address: %p", P(root->right)));
  root->right->rightHeight = 1;
  void* payload = leaf->payload;
  leaf->payload = reinterpret_cast<void*>(999);
  EXPECT_EQ(Check(), 1);
  ExpectText(At(2), Line("invalid BTree structure - address: %p", P(leaf)));
  leaf->payload = payload;

  // A child whose parent pointer is wrong, found after its own subtree.
  BTree* right = root->right;
  right->parent = inner;
  EXPECT_EQ(Check(), 1);
  log = Log();
  ASSERT_EQ(log.size(), 7u);
  ExpectBanner(log, c);
  ExpectText(log[2],
             Line("invalid BTree structures - address1: %p, address2: %p",
                  P(root), P(right)));
  ExpectDump(log[3], "BTree structure1", root, sizeof(BTree));
  ExpectDump(log[4], "BTree key1", root->key, 4);
  ExpectDump(log[5], "BTree structure2", right, sizeof(BTree));
  ExpectDump(log[6], "BTree key2", right->key, 4);
  right->parent = root;

  // A cycle back to an ancestor is a bad link, not an endless walk.
  BTree* rightLeaf = right->right;
  rightLeaf->left = root;
  rightLeaf->leftHeight = 1;
  EXPECT_EQ(Check(), 1);
  ExpectText(At(2),
             Line("invalid BTree structures - address1: %p, address2: %p",
                  P(rightLeaf), P(root)));
  rightLeaf->left = nullptr;
  rightLeaf->leftHeight = 0;
  EXPECT_EQ(Check(), 0);
}

TEST_F(StructureCheck, KeyLengthBounds) {
  CACache* c = Open("k");
  Put(c, std::string(255, '\0'));
  Put(c, std::string(1, 'a'));
  EXPECT_EQ(Check(), 0);
  EXPECT_EQ(CACache::BTreeCheck(0, c->tree, c), 0);
  // Another fault of a node with a 255-byte key: no key dump; 254: a dump.
  BTree* root = c->tree;
  ASSERT_EQ(root->keyLength, 255u);
  root->magic[2] = 'b';
  EXPECT_EQ(Check(), 1);
  EXPECT_EQ(Log().size(), 4u);
  root->keyLength = 254;
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 5u);
  ExpectDump(log[4], "BTree key", root->key, 254);
  root->keyLength = 255;
  root->magic[2] = 'B';
  EXPECT_EQ(Check(), 0);
}

// A registry payload that is a small integer cannot be read; it is reported
// by its address alone.
TEST_F(StructureCheck, SmallIntegerCachePointer) {
  CACache* c = Open("s");
  BTree* node = CACache::caches;
  ASSERT_EQ(node->payload, c);
  node->payload = reinterpret_cast<void*>(12);
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 1u);
  ExpectText(log[0], Line("invalid CACache structure - address: %p",
                          reinterpret_cast<void*>(12)));
  node->payload = c;
  EXPECT_EQ(Check(), 0);
}

TEST_F(StructureCheck, Records) {
  CACache* c = Open("r");
  for (unsigned int i = 0; i < 7; ++i) Put(c, Key4(i));
  BTree* root = c->tree;
  BTree* leaf = root->left->left;
  CARecord* rootRecord = static_cast<CARecord*>(root->payload);
  CARecord* leafRecord = static_cast<CARecord*>(leaf->payload);

  rootRecord->magic[3] = 'X';
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 7u);
  ExpectBanner(log, c);
  ExpectText(log[2], Line("BTree address: %p", P(root)));
  ExpectDump(log[3], "BTree structure", root, sizeof(BTree));
  ExpectDump(log[4], "BTree key", root->key, 4);
  ExpectText(log[5],
             Line("invalid CARecord structure - address: %p", P(rootRecord)));
  ExpectDump(log[6], "CARecord structure", rootRecord, sizeof(CARecord));

  // Records come after both subtrees: the leaf's fault is found first.
  leafRecord->node = root;
  EXPECT_EQ(Check(), 1);
  ExpectText(At(2), Line("BTree address: %p", P(leaf)));
  rootRecord->magic[3] = 'M';
  leafRecord->node = leaf;

  CACache* other = Open("r2");
  leafRecord->cache = other;
  EXPECT_EQ(Check(), 1);
  ExpectText(At(5),
             Line("invalid CARecord structure - address: %p", P(leafRecord)));
  leafRecord->cache = c;

  // An empty node passes.
  leaf->payload = nullptr;
  EXPECT_EQ(Check(), 0);
  leaf->payload = leafRecord;
  EXPECT_EQ(Check(), 0);
}

// The first damaged cache in name order ends the check.
TEST_F(StructureCheck, StopsAtFirstCache) {
  CACache* a = Open("a");
  CACache* b = Open("b");
  Put(a, "1");
  Put(b, "1");
  b->magic[1] = 'x';
  EXPECT_EQ(Check(), 1);
  ExpectText(At(0), Line("invalid CACache structure - name: '%s', address: %p",
                         "b", P(b)));
  a->tree->keyLength = 0;
  EXPECT_EQ(Check(), 1);
  std::vector<Entry> log = Log();
  ASSERT_EQ(log.size(), 4u);
  ExpectBanner(log, a);
  a->tree->keyLength = 1;
  b->magic[1] = '%';
  EXPECT_EQ(Check(), 0);
}

// A zig-zag insertion order makes a chain; its root's height is the number
// of nodes less one, and heights above 2000 are faults.
TEST_F(StructureCheck, ChainHeightBound) {
  for (unsigned int n : {2001u, 2002u}) {
    CACache* c = Open("chain" + std::to_string(n));
    for (unsigned int i = 0; i < n; ++i) {
      Put(c, Key4(i % 2 == 0 ? i / 2 : n - 1 - i / 2));
    }
    ASSERT_EQ(c->tree->rightHeight, n - 1);
    if (n == 2001) {
      EXPECT_EQ(Check(), 0);
      continue;
    }
    EXPECT_EQ(Check(), 1);
    std::vector<Entry> log = Log();
    ASSERT_EQ(log.size(), 5u);
    ExpectText(log[2],
               Line("invalid BTree structure - address: %p", P(c->tree)));
    EXPECT_EQ(CACache::BTreeCheck(0, c->tree->right, c), 0);
  }
}

}  // namespace
