// The companions and the data buffer: statistic slots and the stopwatch
// (libqmstat), the in-memory trace service (libybtrace), and CAMem.
#include <limits.h>
#include <string.h>

#include "qmcache/ybtrace.h"
#include "support.h"

namespace {

std::string Slot(CAStatistic& stat, int slot) {
  _CAStat s;
  memset(&s, 0x5a, sizeof s);  // a missing zero-fill shows
  const int r = stat.Get(slot, &s, 1);
  char text[96];
  snprintf(text, sizeof text, "%d:%lu %g %g %g %g", r, s.count, s.total, s.min,
           s.max, s.last);
  return text;
}

TEST(Platform, StatisticSlotsAccumulateApartAndRefuseOutOfRange) {
  CAStatistic stat(8);
  for (double v : {0.5, 0.25, 2.0, 1.0}) EXPECT_EQ(stat.Add(3, v), 1);
  for (int slot : {-1, 8, INT_MIN}) EXPECT_EQ(stat.Add(slot, 1.0), 0);
  EXPECT_EQ(Slot(stat, 3), "1:4 3.75 0.25 2 1");
  EXPECT_EQ(Slot(stat, 2), "1:0 0 0 0 0");
  EXPECT_EQ(Slot(stat, 8), "0:0 0 0 0 0");
  EXPECT_EQ(stat.Cleanup(), 1);
  stat.Add(3, 7.0);  // bounds start afresh
  EXPECT_EQ(Slot(stat, 3), "1:1 7 7 7 7");
  CAStatistic none(-5);
  EXPECT_EQ(none.Add(0, 1.0) + none.Get(0, nullptr, 1), 0);
  // The stopwatch leaves suspended intervals out; stopped while suspended,
  // it ends where the suspension began.
  CAClock clock;
  EXPECT_EQ(clock.Stop(), 0.0);
  for (bool resume : {true, false}) {
    clock.Start();
    usleep(20000);
    clock.Suspend();
    usleep(150000);
    clock.Suspend();  // ignored: already suspended
    if (resume) clock.Resume(), clock.Resume(), usleep(20000);
    const double run = clock.Stop();
    EXPECT_TRUE(run >= (resume ? 0.04 : 0.02) && run < 0.12) << run;
  }
}

void Seen(const YBTRACE_Entry* e, void* log) {
  if (e->traceId == 9) YBTRACE_Clear();  // calling back must not deadlock
  *static_cast<std::string*>(log) += std::string(e->text, e->textLength) + "/";
}

TEST(Platform, TheTraceServiceKeepsCopiesOfExactlyTheGivenBytes) {
  YBTRACE_Clear();
  unsigned char* block = static_cast<unsigned char*>(malloc(3));
  memcpy(block, "\x25\x00\xff", 3);  // nothing past it is read (ASan)
  YBTRACE_Text(42, "abcX", 3);
  YBTRACE_Trace2(3, "label", block, 3);
  free(block);  // the entry holds a copy
  YBTRACE_Entry e;
  ASSERT_EQ(YBTRACE_Get(0, &e), 1);
  EXPECT_EQ(std::string(e.text) + e.hex, "abc");
  ASSERT_EQ(YBTRACE_Get(1, &e), 1);
  EXPECT_EQ(std::string(e.text) + "=" + e.hex + std::to_string(e.traceId),
            "label=25 00 ff3");
  EXPECT_EQ(YBTRACE_Get(2, &e), 0);
  std::string log;
  EXPECT_EQ(YBTRACE_SetCallback(Seen, &log), nullptr);
  YBTRACE_Text(1, "seen", 4);
  YBTRACE_Trace2(9, "clears", "xy", 2);
  EXPECT_EQ(YBTRACE_SetCallback(nullptr, nullptr), Seen);
  YBTRACE_Text(1, "unseen", 6);
  EXPECT_EQ(log, "seen/clears/");
  EXPECT_EQ(YBTRACE_Count(), 1u);
  YBTRACE_Clear();
}

TEST(Platform, ABufferHoldsSizePlusOneBytesGrowsAndKnowsItIsSound) {
  CAMem m(8);
  memcpy(m.get(), "abcdefgh", 9);  // the extra byte is there (ASan)
  m.release();
  EXPECT_EQ(m.checkmem(12345), 0);
  // Never shrinks; a non-zero state answers 0 yet grows; impossible growth
  // keeps the buffer; an external buffer is left alone.
  const struct {
    unsigned long external, state, to, size;
    int result;
  } steps[] = {{0, 0, 4, 8, 1},
               {0, 0, 4096, 4096, 1},
               {0, 3, 8192, 8192, 0},
               {0, 0, ULONG_MAX, 8192, -1},
               {1, 1, 1 << 20, 8192, 0}};
  for (const auto& s : steps) {
    m.external = s.external;
    m.state = static_cast<int>(s.state);
    EXPECT_EQ(m.realloc(s.to), s.result) << s.to;
    EXPECT_EQ(m.size, s.size);
    EXPECT_EQ(memcmp(m.get(), "abcdefgh", 8), 0);
  }
  EXPECT_EQ(m.checkmem(0), 1);  // external with a block
  m.magic[3] = '?', m.external = 0;
  EXPECT_EQ(m.checkmem(0), 1);
  m.magic[3] = 'M';
  EXPECT_EQ(m.checkmem(0), 0);
  CAMem huge(ULONG_MAX);  // size + 1 would wrap to 0: no block at all
  EXPECT_TRUE(huge.get() == nullptr && huge.checkmem(0) == 1);
  // A stored record keeps its data behind it; growing moves it out.
  void* h = Open("c");
  Put(h, "k", "data");
  CARecord* r = static_cast<CARecord*>(NodeOf(h, "k")->payload);
  EXPECT_EQ(r->data, reinterpret_cast<unsigned char*>(r + 1));
  EXPECT_EQ(r->realloc(1000), 1);
  EXPECT_TRUE(r->size == 1000 && memcmp(r->data, "data", 4) == 0);
  CA_DEINIT();
}

}  // namespace
