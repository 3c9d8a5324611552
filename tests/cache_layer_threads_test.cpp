// SPDX-License-Identifier: MIT
// The C++ layer (cache.hpp): holds given back exactly once, through moves,
// resets, erases and a cache that goes first; arguments the C interface
// cannot carry; SharedCache's locks under ThreadSanitizer.
#include <climits>
#include <mutex>
#include <thread>

#include "qmcache/cache.hpp"
#include "support.h"

template <typename C>
class Layer : public ::testing::Test {};
using Kinds = ::testing::Types<qm::Cache, qm::SharedCache>;
TYPED_TEST_SUITE(Layer, Kinds);

TYPED_TEST(Layer, EveryHoldIsGivenBackOnce) {
  TypeParam c("layer-once");
  ASSERT_EQ(c.insert("k", "value", {3}), qm::kAdded);
  {
    qm::Hold a = c.find("k");
    ASSERT_TRUE(a);
    EXPECT_TRUE(a.data() == "value" && a.length() == 5);
    qm::Hold b = std::move(a);
    a.reset();
    EXPECT_FALSE(a);
    b = c.find("k");  // the first hold goes back here
    EXPECT_TRUE(c.stats().release.count == 1 && b.hits() == 3);
    b.reset();
    b.reset();
    EXPECT_EQ(c.stats().release.count, 2u);
    qm::Hold e = c.find("k");
    EXPECT_TRUE(c.erase(e) && !e && !c.erase(e));
  }
  const qm::Stats s = c.stats();
  EXPECT_TRUE(s.release.count == 2 && s.erase.count == 1 && !c.find("k"));
  EXPECT_EQ(c.params().allocated, 0u);
}

TYPED_TEST(Layer, AHoldKeepsItsCacheOpen) {
  qm::Hold h;
  {
    TypeParam c("layer-orphan");
    c.insert("k", "value", {0, 0, 0, 100});
    h = c.find("k");
  }
  EXPECT_TRUE(h.data() == "value" && h.key() == "k" && h.length() == 100);
  h.reset();  // the last hold closes the handle: the cache goes
  EXPECT_EQ(TypeParam("layer-orphan").params().nodes, 0u);
}

TEST(LayerArguments, WhatTheCInterfaceCannotCarryIsRefused) {
  qm::Cache c("layer-refused");
  const std::size_t tooLong = std::size_t(INT_MAX) + 1;
  const std::string_view hugeKey("k", tooLong);  // never read
  EXPECT_EQ(c.insert(hugeKey, "v"), qm::kRefused);
  EXPECT_EQ(c.insert("k", "v", tooLong, {}), qm::kRefused);
  EXPECT_EQ(c.insert("k", "v", {0, 0, 0, tooLong}), qm::kRefused);
  EXPECT_EQ(c.insert("k", nullptr, 1, {}), qm::kRefused);
  EXPECT_TRUE(!c.find(hugeKey) && c.params().nodes == 0);
  qm::Cache none, nul(std::string_view("a\0b", 3));
  EXPECT_TRUE(!nul && none.insert("k", "v") == qm::kRefused && !none.find("k"));
}

// Four threads share one cache and each has a cache of its own; all run
// eviction passes (the budgets are small). Holds found by one thread are
// given back by another. Searches on separate caches run at once, and the
// library-wide statistic loses none of them.
TEST(LayerThreads, SharedAndSeparateCaches) {
  _CAStat before, after;
  CA_GETSTAT(nullptr, CASTAT_SEARCH, &before);
  qm::SharedCache shared("layer-shared", 1000);
  std::mutex handoffLock;
  std::vector<qm::Hold> handoff;
  auto work = [&](int t) {
    qm::SharedCache own("layer-own-" + std::to_string(t), 100);
    for (int i = 0; i < 400; ++i) {
      const std::string key = std::to_string(i % 50);
      shared.insert(key, std::string(40, char('a' + t)));
      own.insert(key, "own");
      qm::Hold h = shared.find(key);
      if (h && i % 3 == 0) shared.erase(h);
      {
        std::lock_guard<std::mutex> lock(handoffLock);
        handoff.push_back(std::move(h));
        if (handoff.size() > 8) handoff.erase(handoff.begin());
      }
      qm::Hold o = own.find(key);
      EXPECT_TRUE(o && o.data() == "own");
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
  for (std::thread& t : threads) t.join();
  handoff.clear();
  CA_GETSTAT(nullptr, CASTAT_SEARCH, &after);
  EXPECT_EQ(after.count - before.count, 4u * 400 * 2);

  const qm::Stats s = shared.stats();
  EXPECT_TRUE(s.eviction.count > 0 &&
              s.searchHit.count == s.release.count + s.erase.count);
  unsigned long charged = 0;
  shared.forEach([&](const qm::Entry& e) { charged += e.length(); });
  EXPECT_EQ(shared.params().allocated, charged);
}
