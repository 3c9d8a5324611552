// SPDX-License-Identifier: MIT
// The data buffer (CAMem) and a record's data behind it.
#include <string.h>

#include "support.h"

TEST(Platform, ABufferHoldsSizePlusOneBytesGrowsAndKnowsItIsSound) {
  // Even a size-0 buffer gets a block, one byte longer than the size (ASan);
  // none is made when size + 1 would wrap.
  EXPECT_TRUE(CAMem(0).get() && memset(CAMem(8).get(), 0, 9) &&
              CAMem(~0UL).checkmem(0) == 1);
  void* h = Open("c");
  Put(h, "k", "data in 16 bytes");  // its extra byte takes a heap step
  CARecord* r = static_cast<CARecord*>(NodeOf(h, "k")->payload);
  // A stored record is sound; where it keeps its data behind it, its block
  // holds the extra byte too. Then, step by step: it never shrinks; a
  // non-zero state answers 0 yet grows (moving the data out); growth again
  // reallocates; impossible growth keeps the buffer. Each step gives the
  // result, the size and whether the data is still behind the record.
  auto behind = [r] { return r->data == (unsigned char*)(r + 1); };
  const long b = behind();
  Ints got = {r->checkmem(0)};
  if (b) r->data[16] = 0;  // ASan watches the block's end
  for (const Ints& s : {Ints{0, 2}, {3, 1000}, {0, 2000}, {0, -1}}) {
    r->state = s[0];
    got.insert(got.end(), {r->realloc(s[1]), (long)r->size, behind()});
  }
  EXPECT_EQ(got, Ints({0, 1, 16, b, 0, 1000, 0, 1, 2000, 0, -1, 2000, 0}));
  r->external = 1;  // left alone, and not sound with a block
  EXPECT_TRUE(r->realloc(9999) == 1 && r->size == 2000 && r->checkmem(0) == 1);
  // Grown, it still has its extra byte (ASan); a spoiled mark is unsound.
  r->data[r->size] = r->external = 0;
  r->magic[3] = '?';
  EXPECT_TRUE(r->checkmem(0) == 1 && !memcmp(r->data, "data", 4));
  // The structure check, which sees it too, is off until switched on.
  EXPECT_TRUE(!CA_CHECKCACHE(1) && CA_SETCHECK(1) && CA_CHECKCACHE(0));
  CA_DEINIT();
}
