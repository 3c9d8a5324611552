// Events, timed mutexes and the shared/exclusive gate, in single-threaded
// mode (everything succeeds at once) and with real threads.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

// Polls `done` for up to about five seconds.
template <class F>
bool Eventually(F done) {
  for (int i = 0; i < 5000 && !done(); ++i) CASleep(1);
  return done();
}

template <class F>
auto Elsewhere(F f) {
  return std::async(std::launch::async, f);
}

template <class T>
bool Blocked(std::future<T>& f) {  // still running after 30 ms
  return f.wait_for(std::chrono::milliseconds(30)) != std::future_status::ready;
}

int Load(const int& v) { return __atomic_load_n(&v, __ATOMIC_SEQ_CST); }

// m.Enter(ms) on another thread, which leaves again at once.
std::future<int> EnterElsewhere(CAMutex& m, int ms) {
  return Elsewhere([&m, ms] {
    int rc = m.Enter(ms);
    if (rc == 1) m.Exit();
    return rc;
  });
}

TEST(LocksTest, SingleThreadedModeGrantsEveryWaitAndLockWithoutLocking) {
  SingleThreaded = 1;
  CAEvent e;  // clear: a real wait would block or time out
  CAMutex m;
  CAUniq g;
  for (int ms : {-1, 0, 5}) {
    EXPECT_EQ(1, e.Wait(ms)) << ms;
    EXPECT_EQ(1, m.Enter(ms)) << ms;
  }
  g.Enter();
  EXPECT_EQ(1, g.UniEnter());
  EXPECT_EQ(0, g.sharers);
  SingleThreaded = 0;  // the default; other threads now find every lock free
  EXPECT_EQ(1, EnterElsewhere(m, 0).get());
}

TEST(LocksTest, SetStaysSetPostReleasesOneWaitClearTimesOut) {
  CAEvent e;
  EXPECT_EQ(0, e.Wait(0));
  EXPECT_EQ(0, e.Wait(20));
  e.Set();
  for (int ms : {-1, 0, 10}) EXPECT_EQ(1, e.Wait(ms)) << ms;
  e.Reset();
  EXPECT_EQ(0, e.Wait(0));
  for (int ms : {-1, 0, 10}) {
    e.Post();
    EXPECT_EQ(1, e.Wait(ms)) << ms;
    EXPECT_EQ(0, e.Wait(0)) << ms;
  }
  e.Set();
  e.Post();  // the last signal wins
  EXPECT_EQ(1, e.Wait(0));
  EXPECT_EQ(0, e.Wait(0));

  // Blocked waiters: a post releases one of them, a set the other.
  std::atomic<int> done{0};
  auto wait = [&](int ms) {
    int r = e.Wait(ms);
    done++;
    return r;
  };
  auto untimed = Elsewhere([&] { return wait(-1); });
  auto timed = Elsewhere([&] { return wait(5000); });
  CASleep(50);
  e.Post();
  EXPECT_TRUE(Eventually([&] { return done == 1; }));
  CASleep(30);
  EXPECT_EQ(1, done.load()) << "one post released two waiters";
  while (done < 2) e.Set(), CASleep(1);
  EXPECT_EQ(1, untimed.get());
  EXPECT_EQ(1, timed.get());
  EXPECT_EQ(1, e.Wait(0));
}

TEST(LocksTest, MutexIsRecursiveAndExcludesOtherThreads) {
  CAMutex m;
  EXPECT_EQ(1, m.Enter(-1));
  EXPECT_EQ(1, m.Enter(0));
  EXPECT_EQ(1, m.Enter(50));
  EXPECT_EQ(-1, EnterElsewhere(m, 0).get());  // busy is a failure, not 0
  EXPECT_EQ(0, EnterElsewhere(m, 30).get());
  m.Exit();
  m.Exit();
  EXPECT_EQ(-1, EnterElsewhere(m, 0).get());  // still held once
  auto untimed = EnterElsewhere(m, -1), timed = EnterElsewhere(m, 5000);
  EXPECT_TRUE(Blocked(untimed) && Blocked(timed));
  m.Exit();
  EXPECT_EQ(1, untimed.get());
  EXPECT_EQ(1, timed.get());
  EXPECT_EQ(1, EnterElsewhere(m, 0).get());
  EXPECT_EQ(6, m.entries);
}

TEST(LocksTest, ATimedEntryWaitsAfreshAfterAnExitThatLeavesTheMutexHeld) {
  CAMutex m;
  ASSERT_EQ(1, m.Enter(-1));
  ASSERT_EQ(1, m.Enter(-1));
  auto timed = EnterElsewhere(m, 600);
  CASleep(400);
  m.Exit();  // one level of two: the waiter finds it held and waits again
  CASleep(400);
  m.Exit();  // free at 800 ms: after the first 600 ms, within the second
  EXPECT_EQ(1, timed.get());
  EXPECT_EQ(3, m.entries);
}

TEST(LocksTest, UniEnterWaitsForSharersToDrainAndExcludesNewOnes) {
  CAUniq g;
  std::atomic<int> leaving{0}, uni{99};
  std::atomic<bool> endUni{false};
  std::vector<std::future<void>> sharers;
  for (int i = 0; i < 3; ++i) {
    sharers.push_back(Elsewhere([&, i] {
      g.Enter();
      while (leaving <= i) CASleep(1);
      g.Exit();
    }));
  }
  EXPECT_TRUE(Eventually([&] { return Load(g.sharers) == 3; }));  // all in
  auto exclusive = Elsewhere([&] {
    uni = g.UniEnter();  // the gate is left by the thread that entered it
    while (!endUni) CASleep(1);
    g.UniExit();
  });
  EXPECT_TRUE(Eventually([&] { return Load(g.uniWaiting) == 1; }));
  auto newcomer = Elsewhere([&] {
    g.Enter();
    g.Exit();
  });
  for (int k = 1; k < 3; ++k) {
    leaving = k;
    EXPECT_TRUE(Eventually([&] { return Load(g.sharers) == 3 - k; }));
    CASleep(10);
    EXPECT_EQ(99, uni.load()) << "exclusive with " << 3 - k << " sharers";
  }
  leaving = 3;
  EXPECT_TRUE(Eventually([&] { return uni != 99; }));
  EXPECT_EQ(1, uni.load());
  EXPECT_TRUE(Blocked(newcomer)) << "a sharer entered during exclusive use";
  endUni = true;
  newcomer.get();
  EXPECT_EQ(0, Load(g.sharers));
}

TEST(LocksTest, StressKeepsGateAndMutexExclusive) {
  CAUniq g;
  CAMutex m;
  long counter = 0;  // guarded by m alone
  std::atomic<int> shared{0}, exclusive{0};
  std::vector<std::future<void>> threads;
  for (int t = 0; t < 4; ++t) {
    threads.push_back(Elsewhere([&] {
      for (int i = 0; i < 300; ++i) {
        g.Enter();
        shared++;
        std::this_thread::yield();
        shared--;
        g.Exit();
        EXPECT_EQ(1, g.UniEnter());
        EXPECT_TRUE(exclusive++ == 0 && shared == 0) << "not exclusive";
        exclusive--;
        g.UniExit();
        // Every hold is short: a timed entry that gives up has lost the
        // wake-up of an Exit, or timed out while the mutex was free.
        ASSERT_EQ(1, m.Enter(i % 2 ? 5000 : -1));
        long seen = counter;
        std::this_thread::yield();  // invites a lost update
        counter = seen + 1;
        m.Exit();
      }
    }));
  }
  for (auto& th : threads) th.get();
  EXPECT_EQ(4 * 300, counter);
  EXPECT_EQ(0, g.sharers);
}

}  // namespace
