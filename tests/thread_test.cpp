// The worker-thread wrapper: start, cooperative stop, cancellation after the
// stop time-out, and threads that finish by themselves.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "qmcache/qmcache.hpp"

namespace {

int Load(const int* p) { return __atomic_load_n(p, __ATOMIC_SEQ_CST); }

pthread_t* LoadThread(CAThread& t) {
  return __atomic_load_n(&t.thread, __ATOMIC_SEQ_CST);
}

bool Eventually(const std::function<bool()>& done) {
  auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!done()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Works until asked to stop, then returns.
class Cooperative : public CAThread {
 public:
  ~Cooperative() override { Stop(); }
  void Procedure() override {
    seen = argument;
    runs++;
    while (Load(&stopRequest) == 0) CASleep(2);
    finished = true;
  }
  std::atomic<int> runs{0};
  std::atomic<bool> finished{false};
  std::atomic<void*> seen{nullptr};
};

// Ignores stopRequest: only cancellation ends it.
class Stubborn : public CAThread {
 public:
  void Procedure() override {
    for (;;) {
      beats++;
      CASleep(5);
    }
  }
  std::atomic<long> beats{0};
};

// Marks itself finished when asked to stop, then goes on working until
// released.
class SelfFinishing : public CAThread {
 public:
  void Procedure() override {
    while (Load(&stopRequest) == 0) CASleep(2);
    __atomic_store_n(&runState, 7, __ATOMIC_SEQ_CST);
    while (!release.load()) CASleep(1);
    finished = true;
  }
  std::atomic<bool> release{false};
  std::atomic<bool> finished{false};
};

// The thread touches the object after its Procedure has returned, so this one
// lives until the process ends rather than racing the test's scope.
SelfFinishing selfFinishing;

class ThreadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = SingleThreaded;
    SingleThreaded = 0;
  }
  void TearDown() override { SingleThreaded = saved_; }

 private:
  int saved_ = 0;
};

TEST_F(ThreadTest, NewAndNeverStartedThreads) {
  CAThread t;
  EXPECT_EQ(-1, t.runState);
  EXPECT_EQ(nullptr, t.thread);
  EXPECT_EQ(0, t.stopRequest);
  EXPECT_EQ(1000, t.stopTimeout);
  EXPECT_EQ(nullptr, t.argument);

  t.Stop();  // nothing to stop: no request is made
  EXPECT_EQ(-1, t.runState);
  EXPECT_EQ(0, t.stopRequest);
  EXPECT_EQ(nullptr, t.thread);
}

TEST_F(ThreadTest, CooperativeStop) {
  Cooperative t;
  int first = 0, second = 0;
  t.Start(0, &first);
  t.Start(0, &second);  // already started: ignored
  EXPECT_EQ(&first, t.argument);
  ASSERT_TRUE(Eventually([&] { return t.runs.load() == 1; }));
  EXPECT_EQ(0, Load(&t.runState));
  EXPECT_NE(nullptr, LoadThread(t));
  t.Start(0, &second);
  EXPECT_EQ(&first, t.argument);

  t.Stop();
  EXPECT_EQ(1, Load(&t.stopRequest));
  EXPECT_TRUE(t.finished.load());  // it returned: not cancelled
  EXPECT_GT(Load(&t.runState), 0);
  EXPECT_NE(1, Load(&t.runState));  // 1 would mean cancelled
  EXPECT_EQ(&first, t.seen.load());

  t.Start(0, &second);  // finished: not started again
  t.Stop();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(1, t.runs.load());
  EXPECT_EQ(&first, t.argument);
}

TEST_F(ThreadTest, StopRightAfterStartWaitsForTheThread) {
  Cooperative t;
  t.Start(0, nullptr);
  t.Stop();
  EXPECT_EQ(1, t.runs.load());
  EXPECT_TRUE(t.finished.load());
  EXPECT_GT(Load(&t.runState), 0);
  EXPECT_NE(1, Load(&t.runState));
}

TEST_F(ThreadTest, ThreadThatFinishedByItselfIsNotCancelled) {
  // The class's own Procedure returns at once.
  CAThread t;
  t.Start(0, nullptr);
  ASSERT_TRUE(Eventually([&] { return Load(&t.runState) > 0; }));
  EXPECT_NE(1, Load(&t.runState));
  t.Stop();
  EXPECT_NE(1, Load(&t.runState));
  EXPECT_EQ(0, t.stopRequest);  // Stop saw a finished thread and did nothing
  // Its pthread_t is still held here; the destructor frees it (a leak would
  // show under LeakSanitizer).
  EXPECT_NE(nullptr, LoadThread(t));
}

TEST_F(ThreadTest, ProcedureThatMarksItselfFinishedIsNotCancelled) {
  SelfFinishing& t = selfFinishing;
  t.Start(0, nullptr);
  ASSERT_TRUE(Eventually([&] { return Load(&t.runState) == 0; }));
  t.Stop();
  EXPECT_EQ(7, Load(&t.runState));
  EXPECT_NE(nullptr, LoadThread(t));
  // Still alive after Stop: it finishes its work once released.
  t.release = true;
  ASSERT_TRUE(Eventually([&] { return t.finished.load(); }));
}

TEST_F(ThreadTest, StubbornThreadIsCancelledAfterTheTimeout) {
  Stubborn t;
  t.stopTimeout = 200;
  t.Start(0, nullptr);
  ASSERT_TRUE(Eventually([&] { return t.beats.load() > 0; }));
  t.Stop();
  EXPECT_EQ(1, Load(&t.stopRequest));
  EXPECT_EQ(1, Load(&t.runState));
  EXPECT_EQ(nullptr, LoadThread(t));
  long beats = t.beats.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(beats, t.beats.load()) << "the thread still runs";

  // A time-out of -100 or less cancels without waiting at all.
  Stubborn u;
  u.stopTimeout = -100;
  u.Start(0, nullptr);
  ASSERT_TRUE(Eventually([&] { return u.beats.load() > 0; }));
  u.Stop();
  EXPECT_EQ(1, Load(&u.runState));
  EXPECT_EQ(nullptr, LoadThread(u));
  beats = u.beats.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(60));
  EXPECT_EQ(beats, u.beats.load());
}

// A worker that answers requests through a CAThreadProc's two events.
class Responder : public CAThread {
 public:
  ~Responder() override { Stop(); }
  void Procedure() override {
    CAThreadProc* channel = static_cast<CAThreadProc*>(argument);
    while (Load(&stopRequest) == 0) {
      if (channel->request.Wait(10) == 1) {
        answered++;
        channel->reply.Post();
      }
    }
  }
  std::atomic<int> answered{0};
};

TEST_F(ThreadTest, ThreadProcEventsCarryAHandShake) {
  CAThreadProc channel;
  channel.Procedure();  // the class's own does nothing
  Responder r;
  r.Start(0, &channel);
  for (int i = 1; i <= 3; ++i) {
    channel.request.Post();
    EXPECT_EQ(1, channel.reply.Wait(10000));
    EXPECT_EQ(i, r.answered.load());
  }
  r.Stop();
  EXPECT_GT(Load(&r.runState), 0);
  EXPECT_NE(1, Load(&r.runState));
}

}  // namespace
