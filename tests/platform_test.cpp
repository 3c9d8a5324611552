// The companions and the data buffer: statistic slots and the stopwatch
// (libqmstat), the in-memory trace service (libybtrace), and CAMem.
#include <limits.h>
#include <string.h>

#include <chrono>

#include "qmcache/ybtrace.h"
#include "support.h"

namespace {

// What Get answers for a slot: its result, then count, total, min, max, last.
using Figures = std::vector<double>;
Figures Slot(CAStatistic& stat, int slot) {
  _CAStat s;
  memset(&s, 0x5a, sizeof s);  // a missing zero-fill shows
  const int r = stat.Get(slot, &s, 1);
  return {double(r), double(s.count), s.total, s.min, s.max, s.last};
}
void Seen(const YBTRACE_Entry* e, void* log) {
  if (e->traceId == 9) YBTRACE_Clear();  // calling back must not deadlock
  *static_cast<std::string*>(log) += std::string(e->text, e->textLength) + "/";
}

TEST(Platform, SlotsKeepCountTotalBoundsAndLastAndTheStopwatchSkipsPauses) {
  CAStatistic stat(8);
  for (double v : {0.5, 0.25, 2.0, 1.0}) EXPECT_EQ(stat.Add(3, v), 1);
  EXPECT_EQ(stat.Add(-1, 1) + stat.Add(8, 1), 0);
  EXPECT_EQ(Slot(stat, 3), Figures({1, 4, 3.75, 0.25, 2, 1}));
  EXPECT_EQ(Slot(stat, 8), Figures(6, 0.0));  // zero-filled
  stat.Cleanup(), stat.Add(3, 7.0);           // bounds start afresh
  EXPECT_EQ(Slot(stat, 3), Figures({1, 1, 7, 7, 7, 7}));
  CAClock clock;  // suspended intervals are left out
  const auto begin = std::chrono::steady_clock::now();
  clock.Start(), usleep(20000), clock.Suspend(), usleep(150000);
  clock.Resume(), usleep(20000);
  const double run = clock.Stop();
  const std::chrono::duration<double> all =
      std::chrono::steady_clock::now() - begin;
  EXPECT_LT(run, all.count() - 0.14);  // the pause lasted at least 0.15 s
  EXPECT_TRUE(run >= 0.04 && clock.Stop() == 0) << run;
}

TEST(Platform, TheTraceServiceKeepsCopiesAndItsCallbackMayClearTheLog) {
  YBTRACE_Clear();
  char block[3] = {0x25, 0, '\xff'};  // nothing past it is read (ASan)
  YBTRACE_Text(42, "abcX", 3), YBTRACE_Trace2(3, "label", block, 3);
  block[0] = 'z';  // the entry holds a copy
  YBTRACE_Entry e, f;
  ASSERT_TRUE(YBTRACE_Get(0, &e) && YBTRACE_Get(1, &f) && !YBTRACE_Get(2, &f));
  EXPECT_EQ(std::string(e.text) + f.text + "=" + f.hex, "abclabel=25 00 ff");
  std::string log;
  YBTRACE_SetCallback(Seen, &log);
  YBTRACE_Text(1, "seen", 4), YBTRACE_Trace2(9, "clears", "xy", 2);
  EXPECT_EQ(YBTRACE_SetCallback(nullptr, nullptr), Seen);
  YBTRACE_Text(1, "unseen", 6);
  EXPECT_TRUE(log == "seen/clears/" && YBTRACE_Count() == 1);
}

TEST(Platform, ABufferHoldsSizePlusOneBytesGrowsAndKnowsItIsSound) {
  CAMem m(8), empty(0), huge(ULONG_MAX);  // the last: size + 1 would wrap
  memcpy(m.get(), "abcdefgh", 9);         // the extra byte is there (ASan)
  EXPECT_TRUE(empty.get() && !huge.get() && huge.checkmem(0) == 1);
  EXPECT_EQ(m.checkmem(12345), 0);
  // Never shrinks; a non-zero state answers 0 yet grows; impossible growth
  // keeps the buffer; an external buffer is left alone.
  const unsigned long steps[][5] = {{0, 0, 4, 8, 1},
                                    {0, 3, 8192, 8192, 0},
                                    {0, 0, ULONG_MAX, 8192, (unsigned long)-1},
                                    {1, 1, 1 << 20, 8192, 0}};
  for (const auto& s : steps) {
    m.external = s[0], m.state = (int)s[1];
    EXPECT_EQ(m.realloc(s[2]), (int)s[4]);
    EXPECT_TRUE(m.size == s[3] && memcmp(m.get(), "abcdefgh", 8) == 0);
  }
  memset(m.get(), 0, m.size + 1);  // grown, it still has the extra byte (ASan)
  EXPECT_EQ(m.checkmem(0), 1);     // external with a block
  m.external = 0, m.magic[3] = '?';
  EXPECT_EQ(m.checkmem(0), 1);
  // A stored record keeps its data behind it; growing moves it out.
  void* h = Open("c");
  Put(h, "k", "data");
  CARecord* r = static_cast<CARecord*>(NodeOf(h, "k")->payload);
  EXPECT_TRUE(r->data == (unsigned char*)(r + 1) && r->realloc(1000) == 1);
  EXPECT_TRUE(r->size == 1000 && memcmp(r->data, "data", 4) == 0);
  CA_DEINIT();
}

}  // namespace
