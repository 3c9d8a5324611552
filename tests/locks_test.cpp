// Events, timed mutexes, the shared/exclusive gate and the worker thread, in
// single-threaded mode (everything succeeds at once) and with real threads.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "qmcache/qmcache.hpp"

namespace {

using std::chrono::milliseconds;

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
bool Blocked(std::future<T>& f, int ms = 30) {  // still running after ms
  return f.wait_for(milliseconds(ms)) != std::future_status::ready;
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

TEST(Locks, AnEventStaysSetWhileEachPostReleasesOneWait) {
  CAEvent e;
  EXPECT_EQ(e.Wait(0) + e.Wait(20), 0);  // clear: both time out
  e.Set();
  EXPECT_EQ(e.Wait(-1) + e.Wait(0) + e.Wait(10), 3);
  e.Reset(), e.Post();
  EXPECT_EQ(e.Wait(-1), 1);
  EXPECT_EQ(e.Wait(0), 0);  // the post was consumed
  auto untimed = Elsewhere([&] { return e.Wait(-1); });
  auto timed = Elsewhere([&] { return e.Wait(5000); });
  EXPECT_TRUE(Blocked(untimed) && Blocked(timed));
  e.Post();
  EXPECT_TRUE(
      Eventually([&] { return !Blocked(untimed, 0) || !Blocked(timed, 0); }));
  EXPECT_TRUE(Blocked(untimed) || Blocked(timed)) << "a post released both";
  e.Set();
  EXPECT_EQ(untimed.get() + timed.get(), 2);
}

TEST(Locks, AMutexIsRecursiveExcludesOthersAndTimesOutOnlyWhileHeld) {
  CAMutex m;
  EXPECT_TRUE(m.Enter(-1) == 1 && m.Enter(0) == 1 && m.Enter(50) == 1);
  EXPECT_EQ(EnterElsewhere(m, 30).get(), 0);
  EXPECT_EQ(Elsewhere([&] { return m.Enter(0); }).get(), -1);  // busy: -1
  // A waiter that an Exit wakes while the mutex stays held (one level of
  // three left) waits again for up to its whole time-out.
  auto untimed = EnterElsewhere(m, -1), timed = EnterElsewhere(m, 600);
  CASleep(400);
  m.Exit(), m.Exit();
  CASleep(400);
  m.Exit();  // free at 800 ms: after the first 600 ms, within the second
  EXPECT_EQ(untimed.get() + timed.get(), 2);
  EXPECT_EQ(m.entries, 5);
}

// Threads take turns sharing the gate and holding it alone. An exclusive
// holder waits for the sharers inside to leave and keeps new ones out; nor
// does it share the gate with another exclusive holder, or the counter it
// changes would lose updates.
TEST(Locks, TheGateAdmitsSharersOrOneExclusiveHolderNeverBoth) {
  CAUniq g;
  long counter = 0;
  std::atomic<int> sharing{0};
  std::future<void> threads[4];
  for (auto& thread : threads)
    thread = Elsewhere([&] {
      for (int i = 0; i < 300; ++i) {
        g.Enter(), sharing++, std::this_thread::yield(), sharing--, g.Exit();
        EXPECT_EQ(g.UniEnter(), 1);
        const long seen = counter;
        std::this_thread::yield();  // room for anyone else to come in
        EXPECT_EQ(sharing.load(), 0) << "a sharer inside during exclusive use";
        counter = seen + 1, g.UniExit();
      }
    });
  for (auto& thread : threads) thread.get();
  EXPECT_EQ(counter, 4 * 300);
}

// Works until asked to stop; one started without an argument never stops by
// itself.
struct Worker : CAThread {
  ~Worker() override { Stop(); }
  void Procedure() override {
    for (runs++; !argument || Load(stopRequest) == 0; beats++) CASleep(2);
  }
  std::atomic<int> runs{0}, beats{0};
};

TEST(Threads, AStopIsCooperativeUntilItsTimeOutThenCancels) {
  Worker t, stubborn;  // made before any thread starts
  t.Start(0, &t);
  t.Start(0, &stubborn);  // already started: ignored
  t.Stop();
  EXPECT_GT(Load(t.runState), 1);  // it returned by itself: not cancelled
  EXPECT_TRUE(t.runs == 1 && t.argument == &t);
  CAThread never;
  never.Stop();  // returns at once
  EXPECT_TRUE(never.runState == -1 && never.stopRequest == 0);
  stubborn.stopTimeout = 150;
  stubborn.Start(0, nullptr);
  const auto begin = std::chrono::steady_clock::now();
  stubborn.Stop();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(150));
  EXPECT_TRUE(Load(stubborn.runState) == 1 && stubborn.thread == nullptr);
  const int beats = stubborn.beats;
  stubborn.Start(0, nullptr);  // stopped: not started again
  CASleep(30);
  EXPECT_TRUE(stubborn.beats == beats && stubborn.runs == 1) << "still runs";
}

}  // namespace
