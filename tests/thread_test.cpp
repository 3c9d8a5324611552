// The worker-thread wrapper: start, cooperative stop, cancellation after the
// stop time-out, and threads that finish by themselves.

#include <gtest/gtest.h>

#include <atomic>

#include "qmcache/qmcache.hpp"

namespace {

int Load(const int& v) { return __atomic_load_n(&v, __ATOMIC_SEQ_CST); }
pthread_t* Id(CAThread& t) {
  return __atomic_load_n(&t.thread, __ATOMIC_SEQ_CST);
}
template <class F>
bool Eventually(F done) {
  for (int i = 0; i < 5000 && !done(); ++i) CASleep(1);
  return done();
}
// Positive, and not the 1 that marks a cancelled thread.
bool EndedByItself(CAThread& t) { return Load(t.runState) > 1; }

enum Mode { kCooperative, kStubborn, kMarksItselfFinished };

// Works until asked to stop (a stubborn one never stops by itself; the last
// kind marks itself finished, then goes on until released).
class Worker : public CAThread {
 public:
  explicit Worker(Mode mode) : mode_(mode) {}
  ~Worker() override { Stop(); }
  void Procedure() override {
    runs++;
    while (mode_ == kStubborn || Load(stopRequest) == 0) beats++, CASleep(2);
    if (mode_ == kMarksItselfFinished) {
      __atomic_store_n(&runState, 7, __ATOMIC_SEQ_CST);
    }
    while (!release) CASleep(1);
    finished = true;
  }
  const Mode mode_;
  std::atomic<int> runs{0};
  std::atomic<long> beats{0};
  std::atomic<bool> release{mode_ != kMarksItselfFinished}, finished{false};
};

// Its thread touches it after Procedure returns, so it lives to the end.
Worker marksItselfFinished(kMarksItselfFinished);

TEST(ThreadTest, CooperativeStopKeepsTheFirstArgumentAndNeverRestarts) {
  int first = 0, second = 0;
  Worker t(kCooperative), quick(kCooperative);
  t.Start(0, &first);
  t.Start(0, &second);  // already started: ignored
  ASSERT_TRUE(Eventually([&] { return t.runs == 1; }));
  t.Start(0, &second);
  t.Stop();
  EXPECT_TRUE(t.finished.load());  // it saw the request and returned
  EXPECT_TRUE(EndedByItself(t));
  t.Start(0, &second);  // finished: not started again
  CASleep(20);
  EXPECT_EQ(1, t.runs.load());
  EXPECT_EQ(&first, t.argument);

  quick.Start(0, nullptr);
  quick.Stop();  // right after Start: still waits for the thread
  EXPECT_TRUE(quick.finished.load());
  EXPECT_TRUE(EndedByItself(quick));
}

TEST(ThreadTest, StopLeavesNeverStartedAndSelfEndedThreadsAlone) {
  {
    CAThread never;
    never.Stop();  // returns at once
    EXPECT_EQ(-1, never.runState);
    EXPECT_EQ(0, never.stopRequest);
    CAThread t;  // its Procedure returns at once
    t.Start(0, nullptr);
    ASSERT_TRUE(Eventually([&] { return Load(t.runState) > 0; }));
    t.Stop();
    EXPECT_EQ(0, t.stopRequest);
    EXPECT_TRUE(EndedByItself(t));
    EXPECT_NE(nullptr, Id(t));  // freed by the destructor (LeakSanitizer)
  }
  Worker& w = marksItselfFinished;
  w.Start(0, nullptr);
  ASSERT_TRUE(Eventually([&] { return w.runs == 1; }));
  w.Stop();
  EXPECT_EQ(7, Load(w.runState));
  EXPECT_NE(nullptr, Id(w));
  w.release = true;  // still alive after Stop
  EXPECT_TRUE(Eventually([&] { return w.finished.load(); }));
}

TEST(ThreadTest, AStubbornThreadIsCancelledAfterTheTimeout) {
  for (int timeout : {150, -100}) {  // -100 or less: no wait at all
    Worker t(kStubborn);
    t.stopTimeout = timeout;
    t.Start(0, nullptr);
    ASSERT_TRUE(Eventually([&] { return t.beats > 0; }));
    t.Stop();
    EXPECT_EQ(1, Load(t.runState));
    EXPECT_EQ(nullptr, Id(t));
    long beats = t.beats;
    CASleep(30);
    EXPECT_EQ(beats, t.beats.load()) << "still runs after " << timeout;
  }
}

}  // namespace
