// SPDX-License-Identifier: MIT
// The companions and the data buffer: statistic slots and the stopwatch
// (libqmstat), the in-memory trace service (libybtrace), and CAMem.
#include <malloc.h>
#include <string.h>

#include <chrono>

#include "qmcache/ybtrace.h"
#include "support.h"

using std::chrono::steady_clock;

// What Get answers for a slot: its result, then count, total, min, max, last.
static std::string Slot(CAStatistic& stat, int slot) {
  _CAStat s = {9, 9, 9, 9, 9};  // a missing zero-fill shows
  const int r = stat.Get(slot, &s, 1);
  return Format("%d %lu %g %g %g %g", r, s.count, s.total, s.min, s.max,
                s.last);
}
// Clears the log from the callback: neither deadlocks nor frees the entry.
static void Seen(const YBTRACE_Entry* e, void* log) {
  YBTRACE_Clear();
  *static_cast<std::string*>(log) += e->text;
}

TEST(Platform, SlotsKeepFiguresTheStopwatchSkipsPausesAndTracesAreCopies) {
  CAStatistic stat(8);
  for (int v : {4, 1, 2, 3}) EXPECT_EQ(stat.Add(3, v), 1);
  EXPECT_EQ(stat.Add(-1, 1) + stat.Add(8, 1), 0);
  EXPECT_EQ(Slot(stat, 3), "1 4 10 1 4 3");
  stat.Cleanup();  // and beyond the slots, Get zero-fills
  EXPECT_EQ(Slot(stat, 3) + ", " + Slot(stat, 8), "1 0 0 0 0 0, 0 0 0 0 0 0");
  CAClock clock;  // suspended intervals are left out
  const auto begin = steady_clock::now();
  clock.Start();
  CASleep(20);
  clock.Suspend();
  CASleep(150);
  clock.Resume();
  CASleep(20);
  const double run = clock.Stop();
  const std::chrono::duration<double> all = steady_clock::now() - begin;
  EXPECT_TRUE(run >= 0.04 && run < all.count() - 0.14 && !clock.Stop()) << run;
  std::string log;
  EXPECT_FALSE(YBTRACE_SetCallback(Seen, &log) ||
               YBTRACE_Trace2(9, "clears", "xy", 2));
  EXPECT_EQ(YBTRACE_SetCallback(nullptr, nullptr), Seen);
  char block[3] = {0x25, 0, '\xff'};  // nothing past it is read (ASan)
  EXPECT_FALSE(YBTRACE_Text(4, "abX", 2) || YBTRACE_Trace2(3, "lbl", block, 3));
  block[0] = 'z';
  YBTRACE_Entry e, f;  // the dump holds a copy
  ASSERT_TRUE(YBTRACE_Get(0, &e) && YBTRACE_Get(1, &f) && !YBTRACE_Get(2, &f));
  EXPECT_EQ(log + e.text + f.text + "=" + f.hex, "clearsablbl=25 00 ff");
}

TEST(Platform, ABufferHoldsSizePlusOneBytesGrowsAndKnowsItIsSound) {
  // Even a size-0 buffer gets a block, one byte longer than the size (ASan);
  // none is made when size + 1 would wrap.
  EXPECT_TRUE(CAMem(0).get() && memset(CAMem(8).get(), 0, 9) &&
              CAMem(~0UL).checkmem(0) == 1);
  void* h = Open("c");
  Put(h, "k", "data in 16 bytes");  // its extra byte takes a heap step
  CARecord* r = static_cast<CARecord*>(NodeOf(h, "k")->payload);
  // A stored record keeps its data, and the extra byte, behind it and is
  // sound. Then, step by step: it never shrinks; a non-zero state answers 0
  // yet grows (moving the data out); growth again reallocates; impossible
  // growth keeps the buffer. Each step gives the result, the size and
  // whether the data is still behind the record.
  auto behind = [r] { return r->data == (unsigned char*)(r + 1); };
  Ints got = {behind(), r->checkmem(0),
              malloc_usable_size(r) > sizeof(CARecord) + 16};
  for (const Ints& s : {Ints{0, 2}, {3, 1000}, {0, 2000}, {0, -1}}) {
    r->state = s[0];
    got.insert(got.end(), {r->realloc(s[1]), (long)r->size, behind()});
  }
  EXPECT_EQ(got,
            Ints({1, 0, 1, 1, 16, 1, 0, 1000, 0, 1, 2000, 0, -1, 2000, 0}));
  r->external = 1;  // left alone, and not sound with a block
  EXPECT_TRUE(r->realloc(9999) == 1 && r->size == 2000 && r->checkmem(0) == 1);
  // Grown, it still has its extra byte (ASan); a spoiled mark is unsound.
  r->data[r->size] = 0;
  r->external = 0;
  r->magic[3] = '?';
  EXPECT_TRUE(r->checkmem(0) == 1 && !memcmp(r->data, "data", 4));
  // The structure check, which sees it too, is off until switched on.
  EXPECT_TRUE(!CA_CHECKCACHE(1) && CA_SETCHECK(1) && CA_CHECKCACHE(0));
  CA_DEINIT();
}
