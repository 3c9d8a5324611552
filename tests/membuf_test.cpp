// The guarded data buffer CAMem: its block, growth and soundness test.

#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <type_traits>

#include "qmcache/qmcache.hpp"

namespace {

static_assert(!std::is_copy_constructible<CAMem>::value &&
                  !std::is_copy_assignable<CAMem>::value,
              "a buffer owns its block and must not be copied");

TEST(MemBufTest, BlockHoldsSizePlusOneBytesUnlessThatWraps) {
  for (unsigned long size : {0ul, 16ul}) {
    CAMem m(size);
    EXPECT_EQ(0, memcmp(m.magic, "%%CM", 4));
    EXPECT_EQ(size, m.size);
    ASSERT_NE(nullptr, m.get());
    memset(m.get(), 0x5a, size + 1);  // every byte writable (ASan checks)
    m.release();                      // does nothing: the block stays
    EXPECT_EQ(m.data, m.get());
    EXPECT_EQ(0x5a, m.data[size]);
    EXPECT_EQ(0, m.checkmem(0));
  }
  CAMem huge(ULONG_MAX);  // size + 1 would wrap around to 0
  EXPECT_EQ(nullptr, huge.get());
  EXPECT_EQ(1, huge.checkmem(0));
  EXPECT_EQ(1, huge.realloc(ULONG_MAX));  // not greater: nothing to do
}

TEST(MemBufTest, ReallocGrowsOwnedBlocksKeepingDataButNeverShrinks) {
  CAMem m(8);
  memcpy(m.get(), "abcdefgh", 8);
  // Never shrinks; a non-zero state answers 0 yet grows; impossible growth
  // keeps the buffer; an external buffer is left alone.
  struct {
    unsigned long external, state, to, size;
    int result;
  } steps[] = {{0, 0, 4, 8, 1},          {0, 0, 8, 8, 1},
               {0, 0, 4096, 4096, 1},    {0, 3, 100, 4096, 1},
               {0, 3, 8192, 8192, 0},    {0, 0, ULONG_MAX, 8192, -1},
               {1, 0, 1 << 20, 8192, 1}, {1, 1, 1 << 20, 8192, 0}};
  for (const auto& s : steps) {
    m.external = s.external;
    m.state = static_cast<int>(s.state);
    EXPECT_EQ(s.result, m.realloc(s.to)) << s.to;
    EXPECT_EQ(s.size, m.size) << s.to;
    EXPECT_EQ(0, memcmp(m.get(), "abcdefgh", 8)) << s.to;
    m.data[m.size] = 1;  // the extra byte is there (ASan checks)
  }
  m.external = m.state = 0;
  free(m.data);
  m.data = nullptr;  // no block: nothing to grow
  EXPECT_EQ(1, m.realloc(1 << 20));
  EXPECT_EQ(nullptr, m.data);
}

TEST(MemBufTest, CheckmemWantsTheMagicAndABlockOnlyWhenOwned) {
  CAMem m(4);
  EXPECT_EQ(0, m.checkmem(123456));  // the argument plays no part
  for (int at : {0, 3}) {
    m.magic[at] ^= 1;
    EXPECT_EQ(1, m.checkmem(0)) << at;
    m.magic[at] ^= 1;
  }
  unsigned char* block = m.data;
  m.external = 0x1000;
  EXPECT_EQ(1, m.checkmem(0));
  m.data = nullptr;
  EXPECT_EQ(0, m.checkmem(0));
  m.external = 0;
  EXPECT_EQ(1, m.checkmem(0));
  m.data = block;
  EXPECT_EQ(0, m.checkmem(0));
}

}  // namespace
