// The release callback calling the library again. Hosts use the callback to
// move a destroyed record's data elsewhere, into another cache or back into
// the same one. Whatever the callback does through the public calls, during
// a replacement, an erase, an eviction pass or a teardown, the outer call
// must keep the record it stores, touch no freed memory (AddressSanitizer
// and valgrind run this suite) and leave the counters in step with the tree.
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <functional>
#include <string>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"

static time_t g_now = 1000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = g_now;
  return g_now;
}

namespace {

// What the callback does; it sees the data of the record being destroyed.
std::function<void(const std::string&)> onRelease;
int releases = 0;
void Released(int, unsigned long size, void* data) {
  releases++;
  if (onRelease) onRelease(std::string(static_cast<char*>(data), size));
}

CACacheAction* Open(const char* name, unsigned int maxBytes) {
  CAParams p{};
  p.maxBytes = maxBytes;
  return static_cast<CACacheAction*>(CA_CREATE(name, &p));
}
int Put(void* h, const std::string& key, const std::string& value,
        int length = 1) {
  return CA_INSERT(h, 0, CAREC_CALLBACK, 0, static_cast<int>(key.size()),
                   key.data(), static_cast<int>(value.size()), length,
                   value.data());
}
// The key's value, or "-" for a miss; takes no hold.
std::string Get(void* h, const std::string& key) {
  void* r = CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data());
  if (r == nullptr) return "-";
  CAQuery q;
  CA_QUERY(h, r, &q);
  CA_FREE(h, r);
  return std::string(static_cast<char*>(q.data), q.dataLength);
}
void Erase(void* h, const std::string& key) {
  void* r = CA_SEARCH(h, 0, static_cast<int>(key.size()), key.data());
  if (r != nullptr) CA_ERASE(h, r);
}
std::string Key(int i) { return "key" + std::to_string(i); }

// What a cache states about itself: the structure check finds nothing, the
// tree's self-count is `nodes`, `usedNodes` counts the records in the tree
// and `allocated` their charged lengths (no record is held here).
void ExpectSound(CACacheAction* h) {
  CACache* c = h->cache;
  EXPECT_EQ(CA_CHECKCACHE(0), 0);
  unsigned int records = 0, bytes = 0;
  BTreeNumerator walk(c->tree, 0);
  for (BTree* n = walk.Next(); n != nullptr; n = walk.Next()) {
    auto* r = static_cast<CARecord*>(n->payload);
    if (r == nullptr) continue;
    EXPECT_EQ(r->node, n);
    records++;
    bytes += static_cast<unsigned int>(r->length);
  }
  EXPECT_EQ(c->tree ? c->tree->CheckTreeRoot() : 0,
            static_cast<int>(c->params.nodes));
  EXPECT_EQ(c->params.usedNodes, records);
  EXPECT_EQ(c->params.allocated, bytes);
}

class ReentryTest : public testing::Test {
 protected:
  void SetUp() override {
    CA_DEINIT();
    g_now = 1000000;
    CA_INIT(1);
    CA_SETCHECK(1);
    CA_SETFREE(&Released);
    releases = 0;
  }
  void TearDown() override {
    onRelease = nullptr;
    CA_SETFREE(nullptr);
    CA_DEINIT();
  }
};

// The callback of a replaced record replaces another key; that insert
// starts the rebuild (one free node too many) that discards the node the
// outer insert is refilling.
TEST_F(ReentryTest, AReplacementKeepsItsRecordWhenTheCallbackRebuildsTheTree) {
  CACacheAction* h = Open("rebuilt", 1000000000);
  for (int i = 0; i < 20010; ++i) Put(h, Key(i), "old");
  for (int i = 10; i < 20010; ++i) Erase(h, Key(i));
  ASSERT_EQ(h->cache->params.nodes - h->cache->params.usedNodes, 20000u);
  onRelease = [&](const std::string& value) {
    if (value == "old") {
      onRelease = nullptr;
      EXPECT_EQ(Put(h, Key(2), "inner"), 0);
    }
  };
  EXPECT_EQ(Put(h, Key(1), "outer"), 0);
  EXPECT_EQ(Get(h, Key(1)), "outer");
  EXPECT_EQ(Get(h, Key(2)), "inner");
  EXPECT_EQ(h->cache->params.nodes, 10u);  // rebuilt, then the key made anew
  ExpectSound(h);
}

// The callback stores under the very key being replaced: the outer record is
// the one that stays, and the callback's record is replaced in turn.
TEST_F(ReentryTest, AReplacementOutlastsARecordTheCallbackStoresUnderItsKey) {
  CACacheAction* h = Open("same", 1000000000);
  Put(h, "k", "first");
  int calls = 0;
  onRelease = [&](const std::string& value) {
    if (calls++ == 0) {
      EXPECT_EQ(Put(h, "k", "from " + value), 0);
    }
  };
  EXPECT_EQ(Put(h, "k", "outer", 7), 0);
  EXPECT_EQ(Get(h, "k"), "outer");
  EXPECT_EQ(releases, 2);  // "first", then "from first"
  ExpectSound(h);
}

// Evicted records moved by their callback: into the same cache (more bytes
// over the budget, which starts no nested pass), erasing a candidate the
// pass has yet to reach (passed over), closing another handle, and into a
// second cache.
TEST_F(ReentryTest, AnEvictionPassCopesWithCallbacksThatUseTheLibrary) {
  CACacheAction* h = Open("evicting", 100);
  CACacheAction* spare = Open("evicting", 100);  // budget as given
  CACacheAction* archive = Open("archive", 1000000000);
  for (int i = 0; i < 50; ++i) Put(h, Key(i), "v" + std::to_string(i), 2);
  g_now += 10;
  int moved = 0;
  onRelease = [&](const std::string& value) {
    Put(archive, value, value);
    if (moved++ == 0) {
      Put(h, "fresh", "fresh", 50);
      Erase(h, Key(49));
      CA_CLOSE(spare);
    }
  };
  Put(h, "trigger", "t", 1);
  EXPECT_GT(moved, 1);
  EXPECT_EQ(Get(h, "fresh"), "fresh");
  EXPECT_EQ(Get(h, "trigger"), "t");
  EXPECT_EQ(Get(archive, "v49"), "v49");
  ExpectSound(h);
  ExpectSound(archive);
}

// A host's erase whose callback erases, stores and re-stores in the same
// cache, including the erased key itself.
TEST_F(ReentryTest, AnEraseCopesWithACallbackThatRefillsItsKey) {
  CACacheAction* h = Open("erasing", 1000000000);
  for (int i = 0; i < 5; ++i) Put(h, Key(i), "v");
  int calls = 0;
  onRelease = [&](const std::string&) {
    if (calls++ > 0) return;
    Put(h, Key(0), "back");
    Erase(h, Key(1));
    Put(h, "new", "n");
  };
  Erase(h, Key(0));
  EXPECT_EQ(Get(h, Key(0)), "back");
  EXPECT_EQ(Get(h, Key(1)), "-");
  EXPECT_EQ(Get(h, "new"), "n");
  ExpectSound(h);
}

// A cache torn down by its last close, and all caches by CA_DEINIT: the
// callbacks of its records fill, search, list and close other caches.
TEST_F(ReentryTest, TeardownsCopeWithCallbacksThatUseOtherCaches) {
  CACacheAction* doomed = Open("doomed", 1000000000);
  CACacheAction* archive = Open("archive", 1000000000);
  CACacheAction* last = Open("last", 1000000000);
  for (int i = 0; i < 100; ++i) Put(doomed, Key(i), Key(i));
  Put(last, "l", "l");
  onRelease = [&](const std::string& value) {
    if (value == "l") return;
    Put(archive, value, value);
    EXPECT_EQ(Get(archive, value), value);
    int count = -1;
    void** list = CA_LIST(archive, &count);
    EXPECT_GT(count, 0);
    CA_LIST_FREE(archive, list);
    if (last != nullptr) CA_CLOSE(last), last = nullptr;
  };
  CA_CLOSE(doomed);
  EXPECT_EQ(releases, 101);  // the hundred records and the closed "l"
  EXPECT_EQ(Get(archive, Key(99)), Key(99));
  ExpectSound(archive);

  CACacheAction* second = Open("second", 1000000000);
  Put(second, "s", "s");
  onRelease = [&](const std::string& value) {
    if (value != "s") Get(second, value);  // the caches go one by one
  };
  CA_DEINIT();
  EXPECT_EQ(releases, 202);
}

}  // namespace
