// Events, timed mutexes, the shared/exclusive gate and the worker thread, in
// single-threaded mode (everything succeeds at once) and with real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

template <class F>
bool Eventually(F done) {  // polls for up to about five seconds
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
std::future<int> EnterElsewhere(CAMutex& m, int ms) {  // and leave at once
  return Elsewhere([&m, ms] { return m.Enter(ms) == 1 ? (m.Exit(), 1) : 0; });
}

TEST(Locks, SingleThreadedModeGrantsEveryWaitAndLockWithoutLocking) {
  SingleThreaded = 1;
  CAEvent e;
  CAMutex m;
  CAUniq g;
  for (int ms : {-1, 0, 5}) EXPECT_TRUE(e.Wait(ms) == 1 && m.Enter(ms) == 1);
  g.Enter();
  EXPECT_TRUE(g.UniEnter() == 1 && g.sharers == 0 && m.entries == 0);
  SingleThreaded = 0;  // other threads now find every lock free
  EXPECT_EQ(EnterElsewhere(m, 0).get(), 1);
}

TEST(Locks, SetStaysSetPostReleasesOneWaitClearTimesOut) {
  CAEvent e;
  EXPECT_EQ(e.Wait(0) + e.Wait(20), 0);
  e.Set();
  EXPECT_EQ(e.Wait(-1) + e.Wait(0) + e.Wait(10), 3);
  e.Reset(), e.Post();
  EXPECT_EQ(e.Wait(-1), 1);
  EXPECT_EQ(e.Wait(0), 0);  // a post is consumed
  std::atomic<int> done{0};
  auto wait = [&](int ms) {
    return [&, ms] {
      const int r = e.Wait(ms);
      return done++, r;
    };
  };
  auto untimed = Elsewhere(wait(-1)), timed = Elsewhere(wait(5000));
  CASleep(50);
  e.Post();  // releases one blocked waiter; a set the other
  EXPECT_TRUE(Eventually([&] { return done == 1; }));
  CASleep(30);
  EXPECT_EQ(done.load(), 1) << "one post released two waiters";
  while (done < 2) e.Set(), CASleep(1);
  EXPECT_EQ(untimed.get() + timed.get(), 2);
}

TEST(Locks, AMutexIsRecursiveExcludesOthersAndTimesOutOnlyWhileHeld) {
  CAMutex m;
  EXPECT_TRUE(m.Enter(-1) == 1 && m.Enter(0) == 1 && m.Enter(50) == 1);
  EXPECT_EQ(EnterElsewhere(m, 30).get(), 0);
  EXPECT_EQ(Elsewhere([&] { return m.Enter(0); }).get(), -1);  // busy: -1
  m.Exit(), m.Exit();
  auto untimed = EnterElsewhere(m, -1), timed = EnterElsewhere(m, 5000);
  EXPECT_TRUE(Blocked(untimed) && Blocked(timed));
  m.Exit();
  EXPECT_EQ(untimed.get() + timed.get(), 2);
  EXPECT_EQ(m.entries, 5);
  // A waiter that an Exit wakes while the mutex stays held (one level of
  // two left) waits again for up to its whole time-out.
  m.Enter(-1), m.Enter(-1);
  timed = EnterElsewhere(m, 600);
  CASleep(400);
  m.Exit();
  CASleep(400);
  m.Exit();  // free at 800 ms: after the first 600 ms, within the second
  EXPECT_EQ(timed.get(), 1);
}

TEST(Locks, TheGateWaitsForSharersToDrainAndKeepsNewOnesOut) {
  CAUniq g;
  std::atomic<int> leaving{0}, uni{99};
  std::vector<std::future<void>> sharers;
  for (int i = 0; i < 2; ++i)
    sharers.push_back(Elsewhere([&, i] {
      g.Enter();
      while (leaving <= i) CASleep(1);
      g.Exit();
    }));
  EXPECT_TRUE(Eventually([&] { return Load(g.sharers) == 2; }));
  auto exclusive = Elsewhere([&] {
    uni = g.UniEnter();
    while (leaving < 3) CASleep(1);
    g.UniExit();
  });
  EXPECT_TRUE(Eventually([&] { return Load(g.uniWaiting) == 1; }));
  auto newcomer = Elsewhere([&] { g.Enter(), g.Exit(); });
  leaving = 1;
  EXPECT_TRUE(Eventually([&] { return Load(g.sharers) == 1; }));
  CASleep(10);
  EXPECT_EQ(uni.load(), 99) << "exclusive with a sharer inside";
  leaving = 2;
  EXPECT_TRUE(Eventually([&] { return uni == 1; }));
  EXPECT_TRUE(Blocked(newcomer)) << "a sharer entered during exclusive use";
  leaving = 3;
  newcomer.get();
}

TEST(Locks, StressKeepsGateAndMutexExclusive) {
  CAUniq g;
  CAMutex m;
  long counter = 0;  // guarded by m alone
  std::atomic<int> shared{0}, exclusive{0};
  std::vector<std::future<void>> threads;
  for (int t = 0; t < 4; ++t)
    threads.push_back(Elsewhere([&] {
      for (int i = 0; i < 300; ++i) {
        g.Enter(), shared++, std::this_thread::yield(), shared--, g.Exit();
        EXPECT_EQ(g.UniEnter(), 1);
        EXPECT_TRUE(exclusive++ == 0 && shared == 0) << "not exclusive";
        exclusive--, g.UniExit();
        // Every hold is short: a timed entry that gives up has lost the
        // wake-up of an Exit, or timed out while the mutex was free.
        ASSERT_EQ(m.Enter(i % 2 ? 5000 : -1), 1);
        const long seen = counter;
        std::this_thread::yield();  // invites a lost update
        counter = seen + 1;
        m.Exit();
      }
    }));
  for (auto& th : threads) th.get();
  EXPECT_EQ(counter, 4 * 300);
}

// Works until asked to stop; a stubborn one never stops by itself.
struct Worker : CAThread {
  explicit Worker(bool stubborn) : stubborn(stubborn) {}
  ~Worker() override { Stop(); }
  void Procedure() override {
    for (runs++; stubborn || Load(stopRequest) == 0; beats++) CASleep(2);
  }
  const bool stubborn;
  std::atomic<int> runs{0}, beats{0};
};

TEST(Threads, AStopIsCooperativeUntilItsTimeOutThenCancels) {
  int first = 0, second = 0;
  Worker t(false);
  t.Start(0, &first);
  t.Start(0, &second);  // already started: ignored
  ASSERT_TRUE(Eventually([&] { return t.runs == 1; }));
  t.Stop();
  EXPECT_GT(Load(t.runState), 1);  // it returned by itself: not cancelled
  t.Start(0, &second);             // finished: not started again
  CASleep(20);
  EXPECT_TRUE(t.runs == 1 && t.argument == &first);
  CAThread never;
  never.Stop();  // returns at once
  EXPECT_TRUE(never.runState == -1 && never.stopRequest == 0);
  Worker slow(true), quick(true);  // made before any thread starts
  for (Worker* w : {&slow, &quick}) {
    Worker& stubborn = *w;
    const int timeout = stubborn.stopTimeout = w == &slow ? 150 : -100;
    stubborn.Start(0, nullptr);
    ASSERT_TRUE(Eventually([&] { return stubborn.beats > 0; }));
    const auto begin = std::chrono::steady_clock::now();
    stubborn.Stop();
    EXPECT_GE(std::chrono::steady_clock::now() - begin,
              std::chrono::milliseconds(timeout > 0 ? 200 : 100));
    EXPECT_TRUE(Load(stubborn.runState) == 1 && stubborn.thread == nullptr);
    const int beats = stubborn.beats;
    CASleep(30);
    EXPECT_EQ(stubborn.beats.load(), beats) << "still runs";
  }
}

}  // namespace
