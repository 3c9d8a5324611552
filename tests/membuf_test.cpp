// The guarded data buffer CAMem: construction, growth and its soundness
// test.

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include "qmcache/qmcache.hpp"

namespace {

static_assert(!std::is_copy_constructible<CAMem>::value,
              "a buffer owns its block and must not be copied");
static_assert(!std::is_copy_assignable<CAMem>::value,
              "a buffer owns its block and must not be copied");

TEST(MemBufTest, EmptyBufferStillHasABlock) {
  CAMem m(0);
  EXPECT_EQ(0, memcmp(m.magic, "%%CM", 4));
  uint32_t word;
  memcpy(&word, m.magic, sizeof(word));
  EXPECT_EQ(0x4D432525u, word);
  EXPECT_EQ(0u, m.size);
  EXPECT_EQ(0u, m.external);
  EXPECT_EQ(0, m.state);
  ASSERT_NE(nullptr, m.data);  // one byte beyond the (empty) data
  EXPECT_EQ(m.data, m.get());
  m.data[0] = 0x5a;  // the extra byte is writable (ASan checks the block)
  EXPECT_EQ(0, m.checkmem(0));
}

TEST(MemBufTest, BlockHoldsSizePlusOneBytes) {
  CAMem m(16);
  ASSERT_NE(nullptr, m.get());
  unsigned char* p = static_cast<unsigned char*>(m.get());
  for (int i = 0; i <= 16; ++i) p[i] = static_cast<unsigned char>(i);
  m.release();  // does nothing: the block stays
  EXPECT_EQ(p, m.get());
  EXPECT_EQ(16u, m.size);
  for (int i = 0; i <= 16; ++i) EXPECT_EQ(i, p[i]);
}

TEST(MemBufTest, UnallocatableSizeLeavesNoBlock) {
  // size + 1 would wrap around to 0.
  CAMem m(ULONG_MAX);
  EXPECT_EQ(nullptr, m.get());
  EXPECT_EQ(1, m.checkmem(0));
  EXPECT_EQ(1, m.realloc(ULONG_MAX));  // not greater: nothing to do
}

TEST(MemBufTest, ReallocGrowsButNeverShrinks) {
  CAMem m(8);
  memcpy(m.get(), "abcdefgh", 8);
  void* before = m.get();

  EXPECT_EQ(1, m.realloc(4));
  EXPECT_EQ(1, m.realloc(8));
  EXPECT_EQ(8u, m.size);
  EXPECT_EQ(before, m.get());

  EXPECT_EQ(1, m.realloc(4096));
  EXPECT_EQ(4096u, m.size);
  ASSERT_NE(nullptr, m.get());
  EXPECT_EQ(0, memcmp(m.get(), "abcdefgh", 8));
  m.data[4096] = 1;  // the grown block has its extra byte too

  // A non-zero state makes the answer 0, yet the buffer still grows.
  m.state = 3;
  EXPECT_EQ(0, m.realloc(8192));
  EXPECT_EQ(8192u, m.size);
  EXPECT_EQ(1, m.realloc(100));  // no growth: always 1
  m.state = 0;

  // Impossible growth fails and keeps the buffer as it was.
  void* kept = m.get();
  EXPECT_EQ(-1, m.realloc(ULONG_MAX));
  EXPECT_EQ(8192u, m.size);
  EXPECT_EQ(kept, m.get());
  EXPECT_EQ(0, memcmp(m.get(), "abcdefgh", 8));
}

TEST(MemBufTest, ReallocLeavesExternalOrMissingBlocksAlone) {
  CAMem m(8);
  m.external = 1;
  EXPECT_EQ(1, m.realloc(64));
  EXPECT_EQ(8u, m.size);
  m.state = 1;
  EXPECT_EQ(0, m.realloc(64));
  EXPECT_EQ(8u, m.size);
  m.external = 0;
  m.state = 0;

  free(m.data);
  m.data = nullptr;
  EXPECT_EQ(1, m.realloc(64));
  EXPECT_EQ(8u, m.size);
  EXPECT_EQ(nullptr, m.data);
}

TEST(MemBufTest, CheckmemJudgesMagicAndBlock) {
  CAMem m(4);
  EXPECT_EQ(0, m.checkmem(0));
  EXPECT_EQ(0, m.checkmem(123456));  // the argument plays no part

  m.magic[3] = 'X';
  EXPECT_EQ(1, m.checkmem(0));
  m.magic[3] = 'M';
  m.magic[0] = 0;
  EXPECT_EQ(1, m.checkmem(0));
  m.magic[0] = '%';
  EXPECT_EQ(0, m.checkmem(0));

  // An external buffer must have no block of its own.
  m.external = 0x1000;
  EXPECT_EQ(1, m.checkmem(0));
  unsigned char* block = m.data;
  m.data = nullptr;
  EXPECT_EQ(0, m.checkmem(0));
  m.external = 0;
  EXPECT_EQ(1, m.checkmem(0));  // an owned buffer without its block
  m.data = block;
  EXPECT_EQ(0, m.checkmem(0));
}

}  // namespace
