// Statistic slots and the stopwatch of libqmstat.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "qmcache/castatistic.h"

namespace {

// Get's result for `slot`, into a record first filled with a non-zero
// pattern so that a missing zero-fill shows.
int Get(CAStatistic& stat, int slot, _CAStat* out) {
  std::memset(out, 0x5a, sizeof(*out));
  return stat.Get(slot, out, 1);
}

bool Empty(const _CAStat& s) {
  static const _CAStat zero = {};
  return std::memcmp(&s, &zero, sizeof(s)) == 0;
}

TEST(PlatformStatTest, SlotsAccumulateApartAndRefuseOutOfRangeIndexes) {
  CAStatistic stat(8);
  _CAStat out;
  for (double v : {0.5, 0.25, 2.0, 1.0}) EXPECT_EQ(1, stat.Add(3, v));
  EXPECT_EQ(1, stat.Add(7, 9.0));  // a first value sets both bounds
  for (int slot : {-1, 8, 1000000, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(0, stat.Add(slot, 1.0)) << slot;
    EXPECT_EQ(0, Get(stat, slot, &out)) << slot;
    EXPECT_TRUE(Empty(out)) << slot;
  }
  EXPECT_EQ(0, stat.Get(0, nullptr, 1));
  _CAStat want[8] = {};
  want[3] = {4, 3.75, 0.25, 2.0, 1.0};
  want[7] = {1, 9.0, 9.0, 9.0, 9.0};
  for (int slot = 0; slot < 8; slot++) {  // the refused adds landed nowhere
    ASSERT_EQ(1, Get(stat, slot, &out));
    EXPECT_EQ(0, std::memcmp(&want[slot], &out, sizeof(out))) << slot;
  }
  EXPECT_EQ(1, stat.Cleanup());
  for (int slot = 0; slot < 8; slot++) {
    ASSERT_EQ(1, Get(stat, slot, &out));
    EXPECT_TRUE(Empty(out)) << slot;
  }
  stat.Add(3, 7.0);  // bounds start afresh after a cleanup
  EXPECT_EQ(1, Get(stat, 3, &out));
  EXPECT_EQ(7.0, out.min);
  for (int count : {0, -5}) {  // no slots at all
    CAStatistic none(count);
    EXPECT_EQ(0, none.Add(0, 1.0));
    EXPECT_EQ(0, Get(none, 0, &out));
    EXPECT_TRUE(Empty(out));
    EXPECT_EQ(1, none.Cleanup());
  }
}

TEST(PlatformStatTest, ClockLeavesSuspendedIntervalsOut) {
  CAClock clock;
  EXPECT_EQ(0.0, clock.Stop());  // never started
  clock.Start();
  usleep(10000);
  clock.Suspend();
  usleep(150000);
  clock.Suspend();  // ignored: already suspended
  clock.Resume();
  clock.Resume();  // ignored: not suspended
  usleep(10000);
  double run = clock.Stop();
  EXPECT_GE(run, 0.015);
  EXPECT_LT(run, 0.12);          // coarse, yet below the pause alone
  EXPECT_EQ(0.0, clock.Stop());  // a stopped clock is idle
  clock.Start();
  usleep(10000);
  clock.Suspend();
  usleep(150000);
  run = clock.Stop();  // ends where the pause began
  EXPECT_GE(run, 0.008);
  EXPECT_LT(run, 0.12);
}

}  // namespace
