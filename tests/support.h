/* SPDX-License-Identifier: MIT */
// What the tests share: the C interface turned into plain values, a clock
// the tests set, the release callback's log and the trace log's lines.
// Every test program includes this header once: it defines time() for the
// whole process (exported, so the library's calls find it first), and
// operator new and delete, which count the blocks in use.
#ifndef QMCACHE_TESTS_SUPPORT_H
#define QMCACHE_TESTS_SUPPORT_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <new>
#include <string>
#include <vector>

#include "qmcache/qmcache.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

time_t g_now = 1000000;
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  return t != nullptr ? *t = g_now : g_now;
}

std::atomic<long> g_blocks{0};  // from operator new, not yet deleted
// (noinline: inlined, g++ pairs the malloc inside with the delete and warns)
__attribute__((noinline)) void* operator new(size_t size,
                                             const std::nothrow_t&) noexcept {
  void* block = malloc(size != 0 ? size : 1);
  g_blocks += block != nullptr;
  return block;
}
void* operator new(size_t size) {
  void* block = operator new(size, std::nothrow);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
  g_blocks -= block != nullptr;
  free(block);
}
void operator delete(void* block, size_t) noexcept { operator delete(block); }

using Lines = std::vector<std::string>;
using Ints = std::vector<long>;

// The data of every record destroyed with CAREC_CALLBACK, in order.
inline Lines released;
inline void Release(int, unsigned long size, void* data) {
  released.push_back(data ? std::string((char*)data, size) : "<none>");
}

inline CACacheAction* Open(const std::string& name, unsigned maxBytes = 0) {
  CAParams p{maxBytes, 0, 0, 0, {}};
  return static_cast<CACacheAction*>(CA_CREATE(name.c_str(), &p));
}
// Stores `value` under `key`, charging `length` (default: the value's size).
inline int Put(void* h, const std::string& key, const std::string& value = "v",
               int length = -1, int flags = CAREC_CALLBACK, int life = 0) {
  return CA_INSERT(h, 7, flags, life, (int)key.size(), key.data(),
                   (int)value.size(), length < 0 ? (int)value.size() : length,
                   value.data());
}
inline void* Hold(void* h, const std::string& key, int maxAge = 0) {
  return CA_SEARCH(h, maxAge, (int)key.size(), key.data());
}
inline CAQuery Query(void* h, void* record) {
  CAQuery q{};
  EXPECT_EQ(CA_QUERY(h, record, &q), 1);
  return q;
}
// The key's value without keeping a hold, or "-".
inline std::string Get(void* h, const std::string& key) {
  void* r = Hold(h, key);
  if (r == nullptr) return "-";
  CAQuery q = Query(h, r);
  CA_FREE(h, r);
  return std::string((char*)q.data, q.dataLength);
}
inline CAParams Params(void* h) {
  CAParams p{};
  CA_GETCACHESTAT(h, &p);
  return p;
}
// Values added to a statistic slot of the handle's cache (null: library),
// each the time that something took.
inline long Count(void* h, int slot) {
  _CAStat s{};
  CA_GETSTAT(h, slot, &s);
  EXPECT_TRUE(s.count == 0 || s.min > 0) << "a stopwatch never started";
  return (long)s.count;
}
inline std::string KeyOf(const BTree* n) {
  return std::string((const char*)n->key, n->keyLength);
}
inline BTree* NodeOf(void* h, const std::string& key) {
  BTree* root = static_cast<CACacheAction*>(h)->cache->tree;
  return root ? root->Search((unsigned char*)key.data(), key.size()) : nullptr;
}
// Keys that carry a record, in tree order.
inline Lines Keys(void* h) {
  Lines keys;
  BTreeNumerator walk(static_cast<CACacheAction*>(h)->cache->tree, 0);
  for (BTree* n; (n = walk.Next()) != nullptr;)
    if (n->payload != nullptr) keys.push_back(KeyOf(n));
  return keys;
}
// A 4-byte big-endian key: tree order is numeric order.
inline std::string Key(unsigned i) {
  return {char(i >> 24), char(i >> 16), char(i >> 8), char(i)};
}
// printf into a string.
template <typename... Args>
std::string Format(const char* format, Args... args) {
  char text[1024];
  snprintf(text, sizeof text, format, args...);
  return text;
}
// A file name no other process uses (ctest runs tests side by side).
inline std::string TempPath(const std::string& stem) {
  return testing::TempDir() + stem + std::to_string(getpid());
}
// A log's lines without their " at <time>" tails; `stamps` gets the tails.
inline Lines ReadLog(const std::string& path, Lines* stamps = nullptr) {
  std::ifstream in(path);
  Lines out;
  for (std::string line; std::getline(in, line);) {
    out.push_back(line.substr(0, line.rfind(" at ")));
    if (stamps) stamps->push_back(line.substr(line.rfind(" at ") + 4));
  }
  return out;
}
// The trace lines that `run` writes.
template <class F>
inline Lines Traced(F run) {
  const std::string path = TempPath("trace");
  trace = new Trace(path.c_str());
  run();
  delete std::exchange(trace, nullptr);
  const Lines lines = ReadLog(path);
  unlink(path.c_str());
  return lines;
}

// Every test starts from a fresh library with the callback logging and the
// structure check on; CA_DEINIT then gives back every block it took.
struct Fresh : testing::Test {
  long blocks = 0;
  void SetUp() override {
    // The statistics and the trace service keep their tables from their
    // first use on, and so does a debug build's list of calls in progress.
    // (A release build starts each test program's library from scratch.)
    CAStatistic(1).Add(0, 1);
    YBTRACE_Clear();
#ifndef NDEBUG
    Put(Open("first"), "k");
#endif
    CA_DEINIT();
    g_now = 1000000;
    released = Lines();
    blocks = g_blocks;
    CA_INIT(1);
    CA_SETFREE(&Release);
    CA_SETCHECK(1);
  }
  void TearDown() override {
    CA_DEINIT();
    released = Lines();
    YBTRACE_Clear();  // the trace service's copies are not the library's
    EXPECT_EQ(g_blocks, blocks) << "blocks the library kept";
  }
};

#endif  // QMCACHE_TESTS_SUPPORT_H
