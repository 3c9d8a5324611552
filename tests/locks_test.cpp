// Events, timed mutexes, critical sections and the shared/exclusive gate, in
// single-threaded mode (everything succeeds at once) and with real threads.

#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "qmcache/qmcache.hpp"

#if defined(__SANITIZE_THREAD__)
#define QMCACHE_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QMCACHE_TEST_TSAN 1
#endif
#endif
#ifndef QMCACHE_TEST_TSAN
#define QMCACHE_TEST_TSAN 0
#endif

// The event's private state, laid out as the library lays it out, so tests
// can read the signal and wake a waiter without setting it.
struct CAEventState {
  int signal;
  pthread_mutex_t mutex;
  pthread_cond_t cond;
};

namespace {

int Signal(CAEvent& e) {
  return __atomic_load_n(&e.state->signal, __ATOMIC_SEQ_CST);
}

int Sharers(CAUniq& g) { return __atomic_load_n(&g.sharers, __ATOMIC_SEQ_CST); }

int UniWaiting(CAUniq& g) {
  return __atomic_load_n(&g.uniWaiting, __ATOMIC_SEQ_CST);
}

// Polls `done` for up to ten seconds; false if it never became true.
bool Eventually(const std::function<bool()>& done) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Wakes the event's waiter without a signal, until `returned` is true.
void WakeWithoutSignal(CAEvent& e, const std::atomic<bool>& returned) {
  while (!returned.load()) {
    pthread_mutex_lock(&e.state->mutex);
    pthread_cond_signal(&e.state->cond);
    pthread_mutex_unlock(&e.state->mutex);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

class LocksTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = SingleThreaded;
    SingleThreaded = 0;
  }
  void TearDown() override { SingleThreaded = saved_; }

 private:
  int saved_ = 0;
};

TEST_F(LocksTest, SingleThreadedModeSucceedsWithoutLocking) {
  SingleThreaded = 1;

  CAEvent e;
  EXPECT_EQ(1, e.Wait(-1));  // clear, yet no block
  EXPECT_EQ(1, e.Wait(0));
  EXPECT_EQ(0, Signal(e));
  e.Post();  // signalling still changes the state
  EXPECT_EQ(-1, Signal(e));
  EXPECT_EQ(1, e.Wait(0));
  EXPECT_EQ(-1, Signal(e));  // not consumed: the wait did not read it
  e.Set();
  EXPECT_EQ(1, Signal(e));
  e.Reset();
  EXPECT_EQ(0, Signal(e));

  CAMutex m;
  EXPECT_EQ(1, m.Enter(0));
  EXPECT_EQ(1, m.Enter(5));
  EXPECT_EQ(1, m.Enter(-1));
  EXPECT_EQ(0, m.entries);

  CACritical c;
  c.Enter();
  CAUniq g;
  g.Enter();
  EXPECT_EQ(0, Sharers(g));
  EXPECT_EQ(1, g.UniEnter());
  EXPECT_EQ(1, g.UniEnter());

  // Nothing above took a POSIX lock: another thread, with real locking on,
  // gets every one of them at once.
  SingleThreaded = 0;
  int mutexEntry = 0, criticalTry = 0, gateTry = 0;
  std::thread([&] {
    mutexEntry = m.Enter(0);
    if (mutexEntry == 1) m.Exit();
    criticalTry = pthread_mutex_trylock(&c.mutex);
    if (criticalTry == 0) pthread_mutex_unlock(&c.mutex);
    gateTry = pthread_mutex_trylock(&g.entryLock.mutex);
    if (gateTry == 0) pthread_mutex_unlock(&g.entryLock.mutex);
  }).join();
  EXPECT_EQ(1, mutexEntry);
  EXPECT_EQ(0, criticalTry);
  EXPECT_EQ(0, gateTry);
}

TEST_F(LocksTest, EventStatesAndWaitResults) {
  CAEvent e;
  EXPECT_EQ(0, Signal(e));
  EXPECT_EQ(0, e.Wait(0));  // clear: times out at once
  EXPECT_EQ(0, e.Wait(20));

  e.Set();
  EXPECT_EQ(1, e.Wait(0));
  EXPECT_EQ(1, e.Wait(-1));
  EXPECT_EQ(1, e.Wait(10));  // a set event stays set
  EXPECT_EQ(1, Signal(e));

  e.Reset();
  EXPECT_EQ(0, Signal(e));
  EXPECT_EQ(0, e.Wait(0));

  e.Post();
  EXPECT_EQ(-1, Signal(e));
  EXPECT_EQ(1, e.Wait(0));  // consumes the post
  EXPECT_EQ(0, Signal(e));
  EXPECT_EQ(0, e.Wait(20));

  e.Post();
  EXPECT_EQ(1, e.Wait(-1));
  EXPECT_EQ(0, Signal(e));

  // The last signal wins.
  e.Set();
  e.Post();
  EXPECT_EQ(-1, Signal(e));
  e.Set();
  EXPECT_EQ(1, Signal(e));
}

TEST_F(LocksTest, EventWakesBlockedWaiters) {
  CAEvent e;
  std::atomic<int> result{99};
  std::thread untimed([&] { result = e.Wait(-1); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  e.Set();
  untimed.join();
  EXPECT_EQ(1, result.load());
  EXPECT_EQ(1, Signal(e));

  // A post wakes one waiter, which consumes it; the other keeps waiting
  // for the next post.
  e.Reset();
  std::atomic<int> returned{0}, ones{0};
  auto waiter = [&] {
    if (e.Wait(10000) == 1) ones++;
    returned++;
  };
  std::thread a(waiter), b(waiter);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  e.Post();
  ASSERT_TRUE(Eventually([&] { return returned.load() == 1; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(1, returned.load());
  EXPECT_EQ(0, Signal(e));
  e.Post();
  a.join();
  b.join();
  EXPECT_EQ(2, ones.load());
  EXPECT_EQ(0, Signal(e));
}

TEST_F(LocksTest, WakeUpWithoutSignal) {
  CAEvent e;
  // An untimed wait ends at the first wake-up, signalled or not.
  std::atomic<bool> returned{false};
  std::atomic<int> result{99};
  std::thread untimed([&] {
    result = e.Wait(-1);
    returned = true;
  });
  WakeWithoutSignal(e, returned);
  untimed.join();
  EXPECT_EQ(-1, result.load());

  // A timed wait goes back to sleep until its deadline.
  returned = false;
  std::thread timed([&] {
    result = e.Wait(150);
    returned = true;
  });
  WakeWithoutSignal(e, returned);
  timed.join();
  EXPECT_EQ(0, result.load());

  // ... or until a real signal.
  returned = false;
  std::atomic<bool> stopWaking{false};
  std::thread timedSet([&] {
    result = e.Wait(10000);
    returned = true;
  });
  std::thread waker([&] { WakeWithoutSignal(e, stopWaking); });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(returned.load());
  e.Post();
  timedSet.join();
  stopWaking = true;
  waker.join();
  EXPECT_EQ(1, result.load());
  EXPECT_EQ(0, Signal(e));
}

TEST_F(LocksTest, MutexIsRecursiveAndCountsEntries) {
  CAMutex m;
  EXPECT_EQ(1, m.Enter(-1));
  EXPECT_EQ(1, m.Enter(0));
  EXPECT_EQ(1, m.Enter(50));
  EXPECT_EQ(3, m.entries);

  int other = 99;
  std::thread([&] { other = m.Enter(0); }).join();
  EXPECT_EQ(-1, other);

  m.Exit();
  m.Exit();
  std::thread([&] { other = m.Enter(0); }).join();
  EXPECT_EQ(-1, other);  // still held once
  m.Exit();
  std::thread([&] {
    other = m.Enter(0);
    if (other == 1) m.Exit();
  }).join();
  EXPECT_EQ(1, other);
  EXPECT_EQ(4, m.entries);  // never lowered by Exit
}

TEST_F(LocksTest, MutexHeldByAnotherThread) {
  CAMutex m;
  std::atomic<bool> held{false}, release{false};
  std::thread holder([&] {
    ASSERT_EQ(1, m.Enter(-1));
    held = true;
    while (!release.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    m.Exit();
  });
  ASSERT_TRUE(Eventually([&] { return held.load(); }));

  EXPECT_EQ(-1, m.Enter(0));  // busy is a failure here, not a time-out
  EXPECT_EQ(0, m.Enter(30));
  EXPECT_EQ(1, m.entries);
#if !QMCACHE_TEST_TSAN
  // An Exit by a thread that does not hold the mutex releases nothing
  // (ThreadSanitizer rejects the attempt itself).
  m.Exit();
  EXPECT_EQ(-1, m.Enter(0));
  EXPECT_EQ(0, m.Enter(20));
#endif

  // A timed entry gets the mutex when the holder leaves within the time.
  std::atomic<int> timed{99};
  std::thread waiter([&] {
    timed = m.Enter(10000);
    if (timed == 1) m.Exit();
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(99, timed.load());
  release = true;
  holder.join();
  waiter.join();
  EXPECT_EQ(1, timed.load());

  EXPECT_EQ(1, m.Enter(-1));
  m.Exit();
  EXPECT_EQ(3, m.entries);
}

TEST_F(LocksTest, MutexStressKeepsMutualExclusion) {
  CAMutex m;
  long counter = 0;  // guarded by m only
  std::atomic<int> inside{0}, overlaps{0};
  const int kThreads = 4, kRounds = 2000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        int timeout = (t + i) % 3 == 0 ? -1 : 1000;
        while (m.Enter(timeout) != 1) {
        }
        if (inside.fetch_add(1) != 0) overlaps++;
        counter++;
        std::this_thread::yield();  // invite the others in
        inside.fetch_sub(1);
        m.Exit();
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(kThreads * kRounds, counter);
  EXPECT_EQ(kThreads * kRounds, m.entries);
}

TEST_F(LocksTest, CriticalSectionLocksItsOwnMutex) {
  CACritical c;
  c.Enter();
  c.Enter();  // recursive
  int busy = 0;
  std::thread([&] { busy = pthread_mutex_trylock(&c.mutex); }).join();
  EXPECT_EQ(EBUSY, busy);
  // The CAMutex part is a separate lock and stays free.
  int base = 0;
  std::thread([&] {
    base = c.CAMutex::Enter(0);
    if (base == 1) c.CAMutex::Exit();
  }).join();
  EXPECT_EQ(1, base);

  c.Exit();
  std::thread([&] { busy = pthread_mutex_trylock(&c.mutex); }).join();
  EXPECT_EQ(EBUSY, busy);
  c.Exit();
  std::thread([&] {
    busy = pthread_mutex_trylock(&c.mutex);
    if (busy == 0) pthread_mutex_unlock(&c.mutex);
  }).join();
  EXPECT_EQ(0, busy);
}

TEST_F(LocksTest, GateWithoutContentionLeavesDrainedAlone) {
  CAUniq g;
  g.drained.Post();  // a marker that any Set or Reset would overwrite
  g.Enter();
  g.Enter();
  EXPECT_EQ(2, Sharers(g));
  g.Exit();
  g.Exit();
  EXPECT_EQ(0, Sharers(g));
  EXPECT_EQ(-1, Signal(g.drained));

  EXPECT_EQ(1, g.UniEnter());
  EXPECT_EQ(0, UniWaiting(g));
  EXPECT_EQ(-1, Signal(g.drained));
  int busy = 0;
  std::thread([&] { busy = pthread_mutex_trylock(&g.entryLock.mutex); }).join();
  EXPECT_EQ(EBUSY, busy);  // held for the whole exclusive section
  g.UniExit();
  std::thread([&] {
    busy = pthread_mutex_trylock(&g.entryLock.mutex);
    if (busy == 0) pthread_mutex_unlock(&g.entryLock.mutex);
  }).join();
  EXPECT_EQ(0, busy);
}

TEST_F(LocksTest, GateAdmitsSharersAndExcludesThemDuringExclusiveAccess) {
  CAUniq g;
  const int kSharers = 4;
  std::atomic<int> entered{0};
  std::atomic<bool> leave[kSharers];
  for (auto& l : leave) l = false;
  std::vector<std::thread> sharers;
  for (int i = 0; i < kSharers; ++i) {
    sharers.emplace_back([&, i] {
      g.Enter();
      entered++;
      while (!leave[i].load()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      g.Exit();
    });
  }
  // All are inside at once.
  ASSERT_TRUE(Eventually([&] { return entered.load() == kSharers; }));
  EXPECT_EQ(kSharers, Sharers(g));

  // The exclusive entrant must end its section on its own thread: the gate
  // is a recursive POSIX mutex, owned by the thread that locked it.
  std::atomic<int> uni{99};
  std::atomic<bool> endExclusive{false};
  std::thread exclusive([&] {
    uni = g.UniEnter();
    while (!endExclusive.load()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    g.UniExit();
  });
  ASSERT_TRUE(Eventually([&] { return UniWaiting(g) == 1; }));

  // A newcomer is held at the gate while the exclusive entrant waits.
  std::atomic<bool> late{false};
  std::thread newcomer([&] {
    g.Enter();
    late = true;
    g.Exit();
  });

  for (int i = 0; i < kSharers - 1; ++i) {
    leave[i] = true;
    ASSERT_TRUE(Eventually([&] { return Sharers(g) == kSharers - 1 - i; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(99, uni.load()) << "exclusive access with sharers inside";
  }
  leave[kSharers - 1] = true;
  ASSERT_TRUE(Eventually([&] { return uni.load() != 99; }));
  EXPECT_EQ(1, uni.load());
  EXPECT_EQ(0, Sharers(g));
  EXPECT_EQ(1, UniWaiting(g));  // until UniExit
  EXPECT_EQ(0, Signal(g.drained));

  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(late.load());
  endExclusive = true;
  exclusive.join();
  EXPECT_EQ(0, UniWaiting(g));
  newcomer.join();
  EXPECT_TRUE(late.load());
  for (auto& t : sharers) t.join();
  EXPECT_EQ(0, Sharers(g));
}

TEST_F(LocksTest, GateStressSharedAgainstExclusive) {
  CAUniq g;
  std::atomic<int> shared{0}, exclusive{0}, violations{0};
  const int kShared = 3, kRounds = 1500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kShared; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        g.Enter();
        shared++;
        std::this_thread::yield();
        if (exclusive.load() != 0) violations++;
        shared--;
        g.Exit();
      }
    });
  }
  // Two exclusive entrants also exclude each other.
  std::atomic<int> granted{0};
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds / 3; ++i) {
        if (g.UniEnter() == 1) granted++;
        if (exclusive.fetch_add(1) != 0 || shared.load() != 0) violations++;
        std::this_thread::yield();
        exclusive--;
        g.UniExit();
      }
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(0, violations.load());
  EXPECT_EQ(2 * (kRounds / 3), granted.load());
  EXPECT_EQ(0, Sharers(g));
  EXPECT_EQ(0, UniWaiting(g));
}

}  // namespace
