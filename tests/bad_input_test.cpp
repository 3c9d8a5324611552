// What hosts get wrong: bad handles, null records and keys, negative and
// overflowing lengths, absurd names, ages and statistic slots. Each call gets
// its documented result, nothing crashes, and the cache it was aimed at keeps
// every record and counter it had.
#include <gtest/gtest.h>
#include <string.h>
#include <time.h>

#include <functional>
#include <string>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

namespace {

time_t now = 1700000000;

int released = 0;
unsigned long releasedSize = 0;
void* releasedData = nullptr;
void Count(int, unsigned long size, void* data) {
  released++;
  releasedSize = size;
  releasedData = data;
}

CAParams Params(void* handle) {
  CAParams p;
  memset(&p, 0xEE, sizeof p);
  EXPECT_EQ(CA_GETCACHESTAT(handle, &p), 1);
  return p;
}

void* Open(const char* name, unsigned int budget) {
  CAParams p;
  memset(&p, 0, sizeof p);
  p.maxBytes = budget;
  return CA_CREATE(name, &p);
}

unsigned long SlotCount(void* handle, int slot) {
  _CAStat s;
  EXPECT_EQ(CA_GETSTAT(handle, slot, &s), 1);
  return s.count;
}

class BadInput : public ::testing::Test {
 protected:
  void SetUp() override {
    CA_DEINIT();
    CA_INIT(1);
    released = 0;
    CA_SETFREE(&Count);
    h = Open("victim", 0);
    ASSERT_EQ(CA_INSERT(h, 5, CAREC_CALLBACK, 0, 3, "key", 4, 40, "data"), 1);
    ASSERT_EQ(CA_INSERT(h, 6, 0, 0, 4, "key2", 2, 2, "zz"), 1);
  }
  void TearDown() override {
    CA_SETFREE(nullptr);
    CA_DEINIT();
  }

  // The two records and the counters are as SetUp left them.
  void ExpectIntact(const char* what) {
    SCOPED_TRACE(what);
    CAParams p = Params(h);
    EXPECT_EQ(p.maxBytes, 1048576u);
    EXPECT_EQ(p.allocated, 42u);
    void* r = CA_SEARCH(h, 0, 3, "key");
    ASSERT_NE(r, nullptr);
    CAQuery q;
    ASSERT_EQ(CA_QUERY(h, r, &q), 1);
    EXPECT_EQ(q.tag, 5);
    EXPECT_EQ(q.length, 40);
    EXPECT_EQ(memcmp(q.data, "data", 4), 0);
    CA_FREE(h, r);
    EXPECT_EQ(released, 0);
  }

  void* h = nullptr;
};

}  // namespace

// A size widened from a negative int asks malloc for an impossible block;
// the library must cope with the null it gets. AddressSanitizer would abort
// on such a request instead of returning null.
extern "C" __attribute__((visibility("default"))) const char*
__asan_default_options() {
  return "allocator_may_return_null=1";
}

extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = now;
  return now;
}

TEST_F(BadInput, HandlesThatAreNotHandles) {
  alignas(8) unsigned char magicThenJunk[64] = {'C', 'A', 'A', 'C', 0, 0, 1};
  alignas(8) unsigned char foreign[64];
  memset(foreign, 0x41, sizeof foreign);
  alignas(8) unsigned char zeros[64] = {};
  struct Case {
    const char* name;
    void* handle;
  };
  const Case cases[] = {{"null", nullptr},
                        {"magic followed by a non-zero byte", magicThenJunk},
                        {"foreign bytes", foreign},
                        {"zeros", zeros}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    void* bad = c.handle;
    EXPECT_EQ(CA_INSERT(bad, 1, 0, 0, 3, "key", 1, 1, "x"), -1);
    EXPECT_EQ(CA_SEARCH(bad, 0, 3, "key"), nullptr);
    void* r = CA_SEARCH(h, 0, 3, "key");
    CAQuery q;
    memset(&q, 0x11, sizeof q);
    EXPECT_EQ(CA_QUERY(bad, r, &q), 0);
    EXPECT_EQ(q.tag, 0x11111111) << "the query record was written";
    CA_FREE(bad, r);
    CA_ERASE(bad, r);
    CA_FREE(h, r);  // the one real hold
    int count = 99;
    EXPECT_EQ(CA_LIST(bad, &count), nullptr);
    EXPECT_EQ(count, 99);
    // CA_LIST_FREE with a bad handle frees nothing: the block stays ours.
    void** list = CA_LIST(h, &count);
    ASSERT_NE(list, nullptr);
    CA_LIST_FREE(bad, list);
    EXPECT_TRUE(list[0] == r || list[1] == r);
    CA_LIST_FREE(h, list);
    CA_CLOSE(bad);
    CAParams p;
    memset(&p, 0x22, sizeof p);
    EXPECT_EQ(CA_GETCACHESTAT(bad, &p), 0);
    EXPECT_EQ(p.maxBytes, 0x22222222u) << "the parameter record was written";
    _CAStat s;
    memset(&s, 0x33, sizeof s);
    if (bad != nullptr) {
      EXPECT_EQ(CA_GETSTAT(bad, 0, &s), 0);
      EXPECT_EQ(s.count, 0u);
      EXPECT_EQ(s.total, 0.0);
    }
    EXPECT_EQ(magicThenJunk[6], 1);
    EXPECT_EQ(foreign[0], 0x41);
    ExpectIntact(c.name);
  }
  // None of the refused calls recorded a time in the victim's slots 4 and 5.
  EXPECT_EQ(SlotCount(h, CASTAT_RELEASE), 8u);  // ours: two per case
  EXPECT_EQ(SlotCount(h, CASTAT_ERASE), 0u);
}

TEST_F(BadInput, HandleOpenedAfterAnotherWasClosed) {
  void* a = Open("short-lived", 0);
  ASSERT_EQ(CA_INSERT(a, 0, CAREC_CALLBACK, 0, 1, "x", 1, 100, "x"), 1);
  CA_CLOSE(a);
  EXPECT_EQ(released, 1);  // the cache went with its unheld record
  released = 0;
  // The successor (often at the same address) is a fresh cache.
  void* b = Open("short-lived", 0);
  CAParams p = Params(b);
  EXPECT_EQ(p.allocated, 0u);
  EXPECT_EQ(p.nodes, 0u);
  EXPECT_EQ(CA_SEARCH(b, 0, 1, "x"), nullptr);
  EXPECT_EQ(CA_INSERT(b, 0, 0, 0, 1, "x", 1, 3, "y"), 1);
  EXPECT_EQ(Params(b).allocated, 3u);
  CA_CLOSE(b);
  ExpectIntact("successor");
}

TEST_F(BadInput, NullRecordsAndKeys) {
  unsigned long queries = SlotCount(h, CASTAT_QUERY);
  CAQuery q;
  memset(&q, 0x11, sizeof q);
  EXPECT_EQ(CA_QUERY(h, nullptr, &q), 0);
  EXPECT_EQ(q.hits, 0x11111111);
  CA_FREE(h, nullptr);
  CA_ERASE(h, nullptr);
  EXPECT_EQ(SlotCount(h, CASTAT_QUERY), queries);
  EXPECT_EQ(SlotCount(h, CASTAT_RELEASE), 0u);
  EXPECT_EQ(SlotCount(h, CASTAT_ERASE), 0u);
  CA_LIST_FREE(h, nullptr);  // freeing no list is allowed

  // A null key of length 0 is the empty key.
  EXPECT_EQ(CA_INSERT(h, 9, 0, 0, 0, nullptr, 1, 0, "e"), 1);
  void* r = CA_SEARCH(h, 0, 0, nullptr);
  ASSERT_NE(r, nullptr);
  ASSERT_EQ(CA_QUERY(h, r, &q), 1);
  EXPECT_EQ(q.tag, 9);
  EXPECT_EQ(q.keyLength, 0);
  EXPECT_EQ(CA_SEARCH(h, 0, 0, ""), r) << "the empty key, spelled otherwise";
  CA_FREE(h, r);
  CA_FREE(h, r);
  // A null key with bytes to read, and data missing for a non-zero size.
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 3, nullptr, 1, 1, "x"), -1);
  EXPECT_EQ(CA_SEARCH(h, 0, 3, nullptr), nullptr);
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 3, "new", 5, 1, nullptr), -1);
  EXPECT_EQ(CA_SEARCH(h, 0, 3, "new"), nullptr);
  // Erase the empty key again so that the victim is as it was.
  r = CA_SEARCH(h, 0, 0, "");
  CA_ERASE(h, r);
  CAParams p = Params(h);
  EXPECT_EQ(p.nodes, 3u);
  EXPECT_EQ(p.usedNodes, 2u);
  EXPECT_EQ(p.allocated, 42u);
}

TEST_F(BadInput, NegativeAndOverflowingLengths) {
  // A negative key length would widen to an enormous one: refused.
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, -1, "key", 1, 1, "x"), -1);
  EXPECT_EQ(CA_INSERT(h, 0, 0, 0, -2147483647 - 1, "key", 1, 1, "x"), -1);
  EXPECT_EQ(CA_SEARCH(h, 0, -3, "key"), nullptr);
  ExpectIntact("negative key lengths");

  // size -1: size + 1 would wrap to 0, so no block is allocated; a size
  // widened from another negative int cannot be allocated. Either way no
  // record is stored: the key is new (1), its node stays empty and the
  // callback sees the dropped record. Replacing a real record with such a
  // one leaves the key without a record.
  const int sizes[] = {-1, -2, -2147483647 - 1};
  int keyNo = 0;
  for (int size : sizes) {
    SCOPED_TRACE(size);
    char key[8] = {'n', static_cast<char>('0' + keyNo++)};
    released = 0;
    EXPECT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 2, key, size, 5, "abc"), 1);
    EXPECT_EQ(released, 1);
    EXPECT_EQ(releasedSize,
              static_cast<unsigned long>(static_cast<long>(size)));
    EXPECT_EQ(CA_SEARCH(h, 0, 2, key), nullptr);
    EXPECT_EQ(Params(h).allocated, 42u) << "a dropped record charges nothing";
    EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 2, key, 3, 7, "abc"), 0);
    EXPECT_EQ(Params(h).allocated, 49u);
    EXPECT_EQ(CA_INSERT(h, 0, 0, 0, 2, key, size, 5, "abc"), 0);
    EXPECT_EQ(CA_SEARCH(h, 0, 2, key), nullptr);
    EXPECT_EQ(Params(h).allocated, 42u);
    void* k2 = CA_SEARCH(h, 0, 4, "key2");
    EXPECT_NE(k2, nullptr) << "a rebuild keeps every record";
    CA_FREE(h, k2);
  }
  released = 0;
  // Per key: +1 node and +1 used for the new (empty) node, +1 used when the
  // empty node is filled, and the dropped replacement unlinks one record and
  // counts the node again. So usedNodes overtakes nodes (4 against 6 after
  // the second key), the free count (nodes - usedNodes, 32 bits) wraps above
  // 20,000, and the next unlink rebuilds the tree: 2 nodes for the 2
  // records. The third key then gives 3 nodes, 4 counted as used.
  CAParams p = Params(h);
  EXPECT_EQ(p.nodes, 3u);
  EXPECT_EQ(p.usedNodes, 4u);
  EXPECT_EQ(SlotCount(h, CASTAT_REBUILD), 1u);

  // A negative accounted length is charged by its low 32 bits and given back
  // the same way: the byte count returns to where it was.
  void* g = Open("lengths", 0);
  ASSERT_EQ(CA_INSERT(g, 0, 0, 0, 1, "n", 1, -1, "x"), 1);
  EXPECT_EQ(Params(g).allocated, 0xFFFFFFFFu);
  void* r = CA_SEARCH(g, 0, 1, "n");
  ASSERT_NE(r, nullptr) << "over budget, but made this second: not evicted";
  CAQuery q;
  ASSERT_EQ(CA_QUERY(g, r, &q), 1);
  EXPECT_EQ(q.length, -1);
  CA_ERASE(g, r);
  EXPECT_EQ(Params(g).allocated, 0u);
  // Lengths whose sum wraps the 32-bit count.
  ASSERT_EQ(CA_INSERT(g, 0, 0, 0, 1, "a", 1, 2147483647, "x"), 1);
  ASSERT_EQ(CA_INSERT(g, 0, 0, 0, 1, "b", 1, 2147483647, "x"), 1);
  ASSERT_EQ(CA_INSERT(g, 0, 0, 0, 1, "c", 1, 3, "x"), 1);
  EXPECT_EQ(Params(g).allocated, 1u);  // 2 * (2^31 - 1) + 3 mod 2^32
  CA_CLOSE(g);
  ExpectIntact("lengths");
}

TEST_F(BadInput, AbsurdNamesAgesAndSlots) {
  // A name far longer than the check allows, and one of exactly 254 bytes.
  std::string longName(100000, 'L');
  void* big = Open(longName.c_str(), 0);
  ASSERT_NE(big, nullptr);
  void* again = Open(longName.c_str(), 5000);
  EXPECT_EQ(Params(again).maxBytes, 5000u) << "the same cache, re-opened";
  EXPECT_EQ(CA_CREATE(nullptr, nullptr), nullptr);
  void* defaults = CA_CREATE("null parameters", nullptr);
  ASSERT_NE(defaults, nullptr);
  EXPECT_EQ(Params(defaults).maxBytes, 1048576u);
  CA_CLOSE(defaults);

  CA_SETCHECK(1);
  YBTRACE_Clear();
  EXPECT_EQ(CA_CHECKCACHE(0), 1) << "a name over 254 bytes is a fault";
  EXPECT_EQ(YBTRACE_Count(), 0u) << "a silent check writes nothing";
  EXPECT_EQ(CA_CHECKCACHE(3), 1);
  EXPECT_GT(YBTRACE_Count(), 0u);
  // The formatting buffer is 512 bytes: no text entry is longer.
  for (size_t i = 0; i < YBTRACE_Count(); i++) {
    YBTRACE_Entry e;
    ASSERT_EQ(YBTRACE_Get(i, &e), 1);
    if (e.kind == YBTRACE_KIND_TEXT) {
      EXPECT_LT(e.textLength, 512u);
    }
  }
  YBTRACE_Clear();
  CA_CLOSE(again);
  CA_CLOSE(big);
  std::string edge(254, 'E');
  void* fine = Open(edge.c_str(), 0);
  EXPECT_EQ(CA_CHECKCACHE(3), 0);
  CA_CLOSE(fine);
  CA_SETCHECK(0);

  // Negative ages never hit, whatever the record's age.
  now += 5;
  EXPECT_EQ(CA_SEARCH(h, -1, 3, "key"), nullptr);
  EXPECT_EQ(CA_SEARCH(h, -2147483647 - 1, 3, "key"), nullptr);
  void* r = CA_SEARCH(h, 2147483647, 3, "key");
  EXPECT_NE(r, nullptr);
  CA_FREE(h, r);

  // Slots out of range read as zero, library-wide and per cache.
  const int slots[] = {-1, 8, 1000000, -2147483647 - 1};
  for (int slot : slots) {
    SCOPED_TRACE(slot);
    _CAStat s;
    memset(&s, 0x5A, sizeof s);
    EXPECT_EQ(CA_GETSTAT(nullptr, slot, &s), 1);
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.max, 0.0);
    memset(&s, 0x5A, sizeof s);
    EXPECT_EQ(CA_GETSTAT(h, slot, &s), 1);
    EXPECT_EQ(s.count, 0u);
    EXPECT_EQ(s.last, 0.0);
  }
  EXPECT_EQ(SlotCount(nullptr, CASTAT_SEARCH), SlotCount(h, CASTAT_SEARCH));
  ExpectIntact("names, ages and slots");
}
