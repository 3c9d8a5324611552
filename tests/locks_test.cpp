// SPDX-License-Identifier: MIT
// Events, timed mutexes, the shared/exclusive gate and the worker thread, in
// single-threaded mode (everything succeeds at once) and with real threads.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "support.h"

const auto Elsewhere = [](auto f) { return std::async(std::launch::async, f); };
// True while `f` is still running after `ms` milliseconds.
const auto Blocked = [](auto& f, int ms = 30) {
  return f.wait_for(std::chrono::milliseconds(ms)) != std::future_status::ready;
};
int Load(const int& v) { return __atomic_load_n(&v, __ATOMIC_SEQ_CST); }
std::future<int> EnterElsewhere(CAMutex& m, int ms) {  // and leave at once
  return Elsewhere([&m, ms] {
    const int entered = m.Enter(ms);
    if (entered == 1) m.Exit();
    return entered;
  });
}

TEST(Locks, SingleThreadedModeGrantsEveryWaitAndLockWithoutLocking) {
  SingleThreaded = 1;
  CAMutex m;
  CAUniq g;
  for (int ms : {-1, 0, 5}) EXPECT_EQ(CAEvent().Wait(ms) + m.Enter(ms), 2);
  g.Enter();
  EXPECT_TRUE(g.UniEnter() == 1 && g.sharers == 0 && m.entries == 0);
  SingleThreaded = 0;  // other threads now find every lock free
  EXPECT_EQ(EnterElsewhere(m, 0).get(), 1);
}

TEST(Locks, APostReleasesOneWaitWhileASetReleasesAllUntilReset) {
  CAEvent e;  // made clear: both wait, the timed one first
  auto timed = Elsewhere([&] { return e.Wait(5000); });
  CASleep(30);
  auto untimed = Elsewhere([&] { return e.Wait(-1); });
  CASleep(30);
  e.Post();  // then poll for up to about five seconds
  for (int i = 0; i < 5000 && Blocked(untimed, 1) && Blocked(timed, 0);) ++i;
  EXPECT_NE(Blocked(untimed), Blocked(timed)) << "a post released both/none";
  e.Set();
  EXPECT_EQ(untimed.get() + timed.get() + e.Wait(-1) + e.Wait(0) + e.Wait(9),
            5);
  e.Reset();
  EXPECT_EQ(e.Wait(0) + e.Wait(20), 0);  // clear: both time out
  e.Post();  // no one waits: the post waits for the next Wait
  EXPECT_TRUE(e.Wait(-1) == 1 && e.Wait(0) == 0) << "a post serves one Wait";
  auto woken = Elsewhere([&] { return e.Wait(-1); });
  CASleep(30);
  e.Post();  // taken here first, it leaves the woken waiter -1
  const int here = e.Wait(0);
  EXPECT_EQ((here == 1) + (woken.get() == 1), 1) << "a post serves one Wait";
}

TEST(Locks, AMutexIsRecursiveExcludesOthersAndTimesOutOnlyWhileHeld) {
  CAMutex m;
  CAMutexCore* core = std::exchange(m.core, nullptr);  // none: -1
  EXPECT_EQ(m.Enter(-1) + m.Enter(0) + m.Enter(5), -3);
  m.core = core;
  EXPECT_TRUE(m.Enter(-1) == 1 && m.Enter(0) == 1 && m.Enter(50) == 1);
  auto late = Elsewhere([&] { return m.Enter(990); });  // times out in time
  EXPECT_TRUE(!Blocked(late, 1500) && late.get() == 0);
  EXPECT_EQ(Elsewhere([&] { return m.Enter(0); }).get(), -1);  // busy: -1
  // A waiter that an Exit wakes while the mutex stays held (one level of
  // three left) waits again for up to its whole time-out.
  auto untimed = EnterElsewhere(m, -1), timed = EnterElsewhere(m, 1999);
  CASleep(400);
  for (int level = 0; level < 2; ++level) m.Exit();
  CASleep(1700);
  m.Exit();  // free at 2100 ms: past the first 1999, in the second
  EXPECT_TRUE(untimed.get() + timed.get() == 2 && m.entries == 5) << m.entries;
}

// Threads take turns sharing the gate and holding it alone. An exclusive
// holder waits for the sharers inside to leave and keeps new ones out, and
// never shares the gate with another exclusive holder.
TEST(Locks, TheGateAdmitsSharersOrOneExclusiveHolderNeverBoth) {
  CAUniq g;
  std::atomic<int> inside{0};  // sharers count 1 each, an exclusive holder 1000
  const auto work = [&] {
    for (int i = 0; i < 300; ++i) {
      g.Enter();
      EXPECT_LT(++inside, 1000) << "shared with an exclusive holder";
      inside--;
      g.Exit();
      EXPECT_TRUE(g.UniEnter() == 1 && (inside += 1000) == 1000) << inside;
      std::this_thread::yield();  // room for anyone else to come in
      EXPECT_EQ(inside -= 1000, 0) << "another came in during exclusive use";
      g.UniExit();
    }
  };
  auto a = Elsewhere(work), b = Elsewhere(work), c = Elsewhere(work);
  work();
  for (auto* other : {&a, &b, &c}) other->get();
}

// Works until asked to stop; one started without an argument never stops by
// itself, nor reaches a cancellation point (unless ThreadSanitizer's
// runtime, which an asynchronous cancel would break, is there).
const bool deafSleeps = dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr;
struct Worker : CAThread {
  void Procedure() override {
    for (runs++; !argument || Load(stopRequest) == 0; beats++)
      if (argument || deafSleeps) CASleep(2);
  }
  std::atomic<int> runs{0}, beats{0};
};

TEST(Threads, AStopIsCooperativeUntilItsTimeOutThenCancelsForGood) {
  Worker t, deaf;  // made before any thread starts
  deaf.Stop();     // never started: returns at once, changes nothing
  EXPECT_TRUE(deaf.runState == -1 && deaf.stopRequest == 0);
  t.Start(0, &t);
  t.Start(0, &deaf);  // ignored
  t.Stop();
  // It returned by itself, not cancelled, having run once for its argument.
  EXPECT_TRUE(Load(t.runState) > 1 && t.runs == 1 && t.argument == &t);
  deaf.stopTimeout = 400;  // five steps of 100 ms, then a cancel and 100 ms
  const long blocks = g_blocks;
  deaf.Start(0, nullptr);
  {
    auto stopping = Elsewhere([&] { deaf.Stop(); });
    EXPECT_TRUE(Blocked(stopping, 550)) << "cancelled before its time-out";
  }
  EXPECT_EQ(g_blocks, blocks) << "a cancel keeps the thread's block";
  const int beats = deaf.beats.load();
  deaf.Start(0, nullptr);  // stopped: not started again
  CASleep(30);
  EXPECT_TRUE(deaf.runState == 1 && !deaf.thread && deaf.beats == beats);
}
