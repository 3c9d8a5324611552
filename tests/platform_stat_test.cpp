// Statistic slots and the stopwatch of libqmstat.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "qmcache/castatistic.h"

namespace {

// A record filled with a non-zero pattern, to see that Get overwrites it.
_CAStat Dirty() {
  _CAStat s;
  std::memset(&s, 0x5a, sizeof(s));
  return s;
}

bool AllZero(const _CAStat& s) {
  static const _CAStat zero = {};
  return std::memcmp(&s, &zero, sizeof(s)) == 0;
}

TEST(PlatformStatTest, RecordSize) { EXPECT_EQ(40u, sizeof(_CAStat)); }

TEST(PlatformStatTest, SlotsAccumulateIndependently) {
  CAStatistic stat(8);
  _CAStat out = Dirty();
  ASSERT_EQ(1, stat.Get(3, &out, 1));
  EXPECT_TRUE(AllZero(out)) << "a fresh slot is empty";

  EXPECT_EQ(1, stat.Add(3, 0.5));
  EXPECT_EQ(1, stat.Add(3, 0.25));
  EXPECT_EQ(1, stat.Add(3, 2.0));
  EXPECT_EQ(1, stat.Add(3, 1.0));
  EXPECT_EQ(1, stat.Add(7, 9.0));

  out = Dirty();
  ASSERT_EQ(1, stat.Get(3, &out, 1));
  EXPECT_EQ(4u, out.count);
  EXPECT_DOUBLE_EQ(3.75, out.total);
  EXPECT_DOUBLE_EQ(0.25, out.min);
  EXPECT_DOUBLE_EQ(2.0, out.max);
  EXPECT_DOUBLE_EQ(1.0, out.last);

  // The first value of a slot sets both bounds, even above zero.
  ASSERT_EQ(1, stat.Get(7, &out, 0));
  EXPECT_EQ(1u, out.count);
  EXPECT_DOUBLE_EQ(9.0, out.min);
  EXPECT_DOUBLE_EQ(9.0, out.max);
  EXPECT_DOUBLE_EQ(9.0, out.last);
  EXPECT_DOUBLE_EQ(9.0, out.total);

  // Neighbouring slots are untouched.
  for (int slot : {0, 2, 4, 6}) {
    out = Dirty();
    ASSERT_EQ(1, stat.Get(slot, &out, 1));
    EXPECT_TRUE(AllZero(out)) << "slot " << slot;
  }
}

TEST(PlatformStatTest, OutOfRangeSlotsAreRefused) {
  CAStatistic stat(8);
  for (int slot : {-1, 8, 1000000, -2147483647 - 1, 2147483647}) {
    EXPECT_EQ(0, stat.Add(slot, 1.0)) << "slot " << slot;
    _CAStat out = Dirty();
    EXPECT_EQ(0, stat.Get(slot, &out, 1)) << "slot " << slot;
    EXPECT_TRUE(AllZero(out)) << "slot " << slot;
  }
  // The refused adds landed nowhere.
  for (int slot = 0; slot < 8; slot++) {
    _CAStat out = Dirty();
    ASSERT_EQ(1, stat.Get(slot, &out, 1));
    EXPECT_TRUE(AllZero(out)) << "slot " << slot;
  }
  EXPECT_EQ(0, stat.Get(0, nullptr, 1));

  // No slots at all: every slot is out of range.
  for (int count : {0, -5}) {
    CAStatistic none(count);
    _CAStat out = Dirty();
    EXPECT_EQ(0, none.Add(0, 1.0));
    EXPECT_EQ(0, none.Get(0, &out, 1));
    EXPECT_TRUE(AllZero(out));
    EXPECT_EQ(1, none.Cleanup());
  }
}

TEST(PlatformStatTest, CleanupEmptiesEverySlot) {
  CAStatistic stat(3);
  for (int slot = 0; slot < 3; slot++) stat.Add(slot, 4.0 + slot);
  EXPECT_EQ(1, stat.Cleanup());
  for (int slot = 0; slot < 3; slot++) {
    _CAStat out = Dirty();
    ASSERT_EQ(1, stat.Get(slot, &out, 1));
    EXPECT_TRUE(AllZero(out)) << "slot " << slot;
  }
  // After a cleanup the next value starts the bounds afresh.
  stat.Add(1, 7.0);
  _CAStat out;
  stat.Get(1, &out, 1);
  EXPECT_EQ(1u, out.count);
  EXPECT_DOUBLE_EQ(7.0, out.min);
  EXPECT_DOUBLE_EQ(7.0, out.max);
}

TEST(PlatformStatTest, ClockMeasuresRunningTimeOnly) {
  CAClock idle;
  EXPECT_EQ(0.0, idle.Stop()) << "a clock never started";
  idle.Suspend();
  idle.Resume();
  EXPECT_EQ(0.0, idle.Stop());

  CAClock clock;
  clock.Start();
  double a = clock.Stop();
  EXPECT_GE(a, 0.0);
  EXPECT_LT(a, 0.5);
  EXPECT_EQ(0.0, clock.Stop()) << "a stopped clock is idle";

  // Running time is counted.
  clock.Start();
  usleep(30000);
  double run = clock.Stop();
  EXPECT_GE(run, 0.025);
  EXPECT_LT(run, 5.0);

  // A suspended interval is left out; a second Suspend does not restart it.
  clock.Start();
  clock.Suspend();
  usleep(25000);
  clock.Suspend();
  usleep(25000);
  clock.Resume();
  clock.Resume();  // ignored: not suspended
  double suspended = clock.Stop();
  EXPECT_GE(suspended, 0.0);
  EXPECT_LT(suspended, 0.040);

  // Running time on both sides of a suspension adds up.
  clock.Start();
  usleep(15000);
  clock.Suspend();
  usleep(50000);
  clock.Resume();
  usleep(15000);
  double both = clock.Stop();
  EXPECT_GE(both, 0.025);
  EXPECT_LT(both, 0.045 + 0.5);

  // Stopping while suspended ends the measurement where the pause began.
  clock.Start();
  usleep(20000);
  clock.Suspend();
  usleep(60000);
  double cut = clock.Stop();
  EXPECT_GE(cut, 0.015);
  EXPECT_LT(cut, 0.060);

  // A restart forgets the previous measurement's suspension.
  clock.Start();
  clock.Suspend();
  clock.Start();
  usleep(20000);
  EXPECT_GE(clock.Stop(), 0.015);
}

}  // namespace
