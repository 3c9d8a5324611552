// SPDX-License-Identifier: MIT
// The data buffer, the lock and event classes, the worker-thread wrapper and
// the sleep helper.
//
// Every waiting or locking operation first reads `SingleThreaded`: while it
// is non-zero the operation succeeds at once without touching any POSIX
// object. The signalling operations of CAEvent ignore the flag.
//
// Fields that several threads touch outside a POSIX mutex (an event's
// `signal` after the wait has unlocked, the gate's counters, a thread's
// `runState` and `thread`) are read and written with __atomic builtins, so
// their accesses are well defined and visible to ThreadSanitizer.

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cassert>

#include "caconst.h"
#include "qmcache/qmcache.hpp"

// ---- Private types ---------------------------------------------------------

struct CAEventState {
  int signal;  // 0 clear, 1 set, -1 posted
  pthread_mutex_t mutex;
  pthread_cond_t cond;
};

struct CAMutexCore {
  pthread_mutex_t mutex;  // recursive
  CAEvent released;       // set by every successful Exit
  // Successful Exits so far, counted under `released`'s mutex. A timed
  // entry waits for this count to move, never for the event's flag, which
  // another entrant could reset between an Exit and the wait.
  unsigned long exits;
};

namespace {

// CAThread::runState while Stop is cancelling the thread. TP, when its
// Procedure returns, claims 0 -> kFinished; Stop claims 0 -> kCancelling;
// whichever exchange succeeds decides who ends the thread.
const int kFinished = 2;
const int kCancelling = 3;

// The longest sleep whose microsecond count still fits 32 bits.
const int kMaxSleepChunkMs = 4294967;

int LoadInt(const int* p) { return __atomic_load_n(p, __ATOMIC_SEQ_CST); }
void StoreInt(int* p, int v) { __atomic_store_n(p, v, __ATOMIC_SEQ_CST); }

void InitRecursiveMutex(pthread_mutex_t* m) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(m, &attr);
  pthread_mutexattr_destroy(&attr);
}

// Reads the signal after the wait has unlocked: set stays set, a post is
// consumed. Returns 1 for either, -1 for a clear event. The post is cleared
// by an exchange so that a Set arriving meanwhile is not overwritten.
int TakeSignal(CAEventState* s) {
  int value = LoadInt(&s->signal);
  if (value > 0) return 1;
  if (value == -1) {
    int expected = -1;
    __atomic_compare_exchange_n(&s->signal, &expected, 0, false,
                                __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return 1;
  }
  return -1;
}

}  // namespace

// ---- CAMem -----------------------------------------------------------------

namespace {
// The largest size a buffer may hold: its block has one byte more.
constexpr unsigned long kMaxBlock = PTRDIFF_MAX;
}  // namespace

CAMem::CAMem(unsigned long size) {
  memcpy(magic, kMemMagic, sizeof(magic));
  external = 0;
  this->size = size;
  state = 0;
  // No block can be larger than PTRDIFF_MAX bytes, so such a size (a
  // negative length widened by the C interface, say) fails at once; this
  // also keeps size + 1 from wrapping to a block too small for `size`.
  data = size >= kMaxBlock ? nullptr
                           : static_cast<unsigned char*>(malloc(size + 1));
}

CAMem::CAMem(BlockGiven, unsigned long size, unsigned char* block) {
  memcpy(magic, kMemMagic, sizeof(magic));
  external = 0;
  this->size = size;
  state = 0;
  data = block;
}

CAMem::~CAMem() { free(data); }

void* CAMem::get() { return data; }

void CAMem::release() {}

int CAMem::realloc(unsigned long newSize) {
  if (newSize <= size) return 1;  // a buffer never shrinks
  int result = state == 0 ? 1 : 0;
  if (external != 0 || data == nullptr) return result;
  if (newSize >= kMaxBlock) return -1;  // no block can be that large
  // A record made by the library keeps its data behind it, in its own heap
  // block: growing it moves the data to a block of its own. (A host's own
  // buffer has its block elsewhere: a separate heap block never starts
  // right behind the record-sized object it belongs to.)
  void* grown;
  if (data == reinterpret_cast<unsigned char*>(this) + sizeof(CARecord)) {
    grown = malloc(newSize + 1);
    if (grown != nullptr) memcpy(grown, data, size);
  } else {
    grown = ::realloc(data, newSize + 1);
  }
  if (grown == nullptr) return -1;
  data = static_cast<unsigned char*>(grown);
  size = newSize;
  return result;
}

int CAMem::checkmem(unsigned long) {
  if (memcmp(magic, kMemMagic, sizeof(magic)) != 0) return 1;
  if (external == 0) return data != nullptr ? 0 : 1;
  return data == nullptr ? 0 : 1;
}

// ---- CAEvent ---------------------------------------------------------------

CAEvent::CAEvent() {
  state = static_cast<CAEventState*>(calloc(1, sizeof(CAEventState)));
  if (state == nullptr) return;
  pthread_mutex_init(&state->mutex, nullptr);
  pthread_cond_init(&state->cond, nullptr);
  state->signal = 0;
}

CAEvent::~CAEvent() {
  if (state == nullptr) return;
  pthread_cond_destroy(&state->cond);
  pthread_mutex_destroy(&state->mutex);
  free(state);
  state = nullptr;
}

int CAEvent::Wait(int ms) {
  if (SingleThreaded) return 1;
  CAEventState* s = state;
  if (s == nullptr) return -1;
  pthread_mutex_lock(&s->mutex);

  if (ms < 0) {
    // One wait, no loop: whatever woke the thread ends the wait.
    if (LoadInt(&s->signal) == 0) pthread_cond_wait(&s->cond, &s->mutex);
    pthread_mutex_unlock(&s->mutex);
    return TakeSignal(s);
  }

  struct timeval now;
  gettimeofday(&now, nullptr);
  long n = static_cast<long>(ms % 1000) * 1000000L +
           static_cast<long>(now.tv_usec) * 1000L;
  struct timespec deadline;
  deadline.tv_nsec = n % 1000000000L;
  deadline.tv_sec = now.tv_sec + ms / 1000 + n / 1000000000L;

  if (LoadInt(&s->signal) != 0) {
    pthread_mutex_unlock(&s->mutex);
    return TakeSignal(s);
  }

  int rc;
  do {
    rc = pthread_cond_timedwait(&s->cond, &s->mutex, &deadline);
    if (LoadInt(&s->signal) == 0 && rc == ETIMEDOUT) {
      pthread_mutex_unlock(&s->mutex);
      return 0;
    }
  } while (LoadInt(&s->signal) == 0);
  pthread_mutex_unlock(&s->mutex);

  // A signal seen together with the deadline counts as a time-out, and a
  // post seen that way is left for the next waiter.
  int value = LoadInt(&s->signal);
  if (value > 0) return rc == 0 ? 1 : (rc == ETIMEDOUT ? 0 : -1);
  if (value == -1 && rc == 0) return TakeSignal(s);
  return rc == ETIMEDOUT ? 0 : -1;
}

// Set, Post and Reset change `signal` under the event's mutex, the same one
// Wait holds between its test of `signal` and its sleep, so a signal can
// never fall into that gap and be lost.
void CAEvent::Set() {
  CAEventState* s = state;
  if (s == nullptr) return;
  pthread_mutex_lock(&s->mutex);
  StoreInt(&s->signal, 1);
  pthread_cond_signal(&s->cond);
  pthread_mutex_unlock(&s->mutex);
}

void CAEvent::Post() {
  CAEventState* s = state;
  if (s == nullptr) return;
  pthread_mutex_lock(&s->mutex);
  StoreInt(&s->signal, -1);
  pthread_cond_signal(&s->cond);
  pthread_mutex_unlock(&s->mutex);
}

void CAEvent::Reset() {
  CAEventState* s = state;
  if (s == nullptr) return;
  pthread_mutex_lock(&s->mutex);
  StoreInt(&s->signal, 0);
  pthread_mutex_unlock(&s->mutex);
}

// ---- CAMutex ---------------------------------------------------------------

CAMutex::CAMutex() : core(nullptr), entries(0) {
  core = new CAMutexCore;
  core->exits = 0;
  InitRecursiveMutex(&core->mutex);
}

CAMutex::~CAMutex() {
  if (core == nullptr) return;
  pthread_mutex_destroy(&core->mutex);
  delete core;  // destroys `released`
  core = nullptr;
}

namespace {

unsigned long ExitsSoFar(CAMutexCore* core) {
  CAEventState* s = core->released.state;
  pthread_mutex_lock(&s->mutex);
  unsigned long exits = core->exits;
  pthread_mutex_unlock(&s->mutex);
  return exits;
}

// Waits up to `ms` milliseconds for an Exit after the count `seen`. True when
// one came (perhaps already before the wait began), false at the deadline.
bool WaitForExit(CAMutexCore* core, unsigned long seen, int ms) {
  CAEventState* s = core->released.state;
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += (long)(ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  pthread_mutex_lock(&s->mutex);
  int rc = 0;
  while (core->exits == seen && rc != ETIMEDOUT) {
    rc = pthread_cond_timedwait(&s->cond, &s->mutex, &deadline);
  }
  const bool exited = core->exits != seen;
  pthread_mutex_unlock(&s->mutex);
  return exited;
}

}  // namespace

// A timed entry tries the lock and, while it is busy, waits for the next
// Exit; every Exit wakes every waiter, and a waiter that still finds the
// mutex held (another thread took it first, or the holder left one level of
// a recursive entry) waits again for up to the whole time-out. The count of
// Exits is read before each try, so an Exit between a failed try and the
// wait is never missed; and a wait that times out tries once more, so an
// entry never times out while the mutex is free.
int CAMutex::Enter(int timeout) {
  if (SingleThreaded) return 1;
  if (core == nullptr) return -1;
  if (timeout > 0) {
    if (core->released.state == nullptr) return -1;  // nothing to wait on
    for (;;) {
      const unsigned long seen = ExitsSoFar(core);
      int rc = pthread_mutex_trylock(&core->mutex);
      if (rc == 0) break;
      if (rc != EBUSY) return -1;
      if (!WaitForExit(core, seen, timeout)) {
        rc = pthread_mutex_trylock(&core->mutex);
        if (rc == 0) break;
        return rc == EBUSY ? 0 : -1;
      }
    }
  } else if (timeout == 0) {
    // A busy mutex gives -1 here, not 0.
    if (pthread_mutex_trylock(&core->mutex) != 0) return -1;
  } else {
    if (pthread_mutex_lock(&core->mutex) != 0) return -1;
  }
  entries += 1;  // written only by the holder
  return 1;
}

// Sets `released` as CAEvent::Set does, counting the Exit under the same
// lock, and wakes every timed entry.
void CAMutex::Exit() {
  if (SingleThreaded || core == nullptr) return;
  // An unlock by a thread that does not hold the mutex fails and wakes no
  // one.
  if (pthread_mutex_unlock(&core->mutex) != 0) return;
  CAEventState* s = core->released.state;
  if (s == nullptr) return;
  pthread_mutex_lock(&s->mutex);
  core->exits += 1;
  StoreInt(&s->signal, 1);
  pthread_cond_broadcast(&s->cond);
  pthread_mutex_unlock(&s->mutex);
}

// ---- CACritical ------------------------------------------------------------

CACritical::CACritical() { InitRecursiveMutex(&mutex); }

CACritical::~CACritical() { pthread_mutex_destroy(&mutex); }

void CACritical::Enter() {
  if (SingleThreaded) return;
  pthread_mutex_lock(&mutex);
}

void CACritical::Exit() {
  if (SingleThreaded) return;
  pthread_mutex_unlock(&mutex);
}

// ---- CAUniq ----------------------------------------------------------------
// `sharers` is raised under entryLock and lowered under exitLock, two
// different locks, so it is changed with atomic read-modify-write
// operations; `uniWaiting` is likewise read and written atomically.

CAUniq::CAUniq() : sharers(0), uniWaiting(0) {}

CAUniq::~CAUniq() {}

void CAUniq::Enter() {
  if (SingleThreaded) return;
  entryLock.Enter();  // blocks while an exclusive holder keeps the gate
  __atomic_add_fetch(&sharers, 1, __ATOMIC_SEQ_CST);
  entryLock.Exit();
}

void CAUniq::Exit() {
  if (SingleThreaded) return;
  exitLock.Enter();
  int left = __atomic_sub_fetch(&sharers, 1, __ATOMIC_SEQ_CST);
  assert(left >= 0);
  if (left == 0 && LoadInt(&uniWaiting) != 0) drained.Set();
  exitLock.Exit();
}

int CAUniq::UniEnter() {
  if (SingleThreaded) return 1;
  entryLock.Enter();  // held until UniExit, whatever the result
  if (LoadInt(&sharers) == 0) return 1;
  StoreInt(&uniWaiting, 1);
  drained.Reset();
  // The last sharer may have left between the first test and the raising
  // of uniWaiting; it then saw no waiter and set nothing. Testing again
  // after the flag is up and the event reset catches that: any Exit that
  // drains the gate later sees the flag and sets `drained`.
  if (LoadInt(&sharers) == 0) return 1;
  if (drained.Wait(-1) == 1) {
    drained.Reset();
    return 1;
  }
  // The wait failed: entryLock stays held and uniWaiting stays 1; the
  // caller ends with UniExit as after a success.
  return 0;
}

void CAUniq::UniExit() {
  if (SingleThreaded) return;
  StoreInt(&uniWaiting, 0);
  pthread_mutex_unlock(&entryLock.mutex);
}

// ---- Threads ---------------------------------------------------------------

CAFreeStopper::~CAFreeStopper() {}

void CAThreadProc::Procedure() {}

CAThreadProc::~CAThreadProc() {}

CAThread::CAThread()
    : runState(-1),
      thread(nullptr),
      stopRequest(0),
      stopTimeout(1000),
      argument(nullptr) {}

void CAThread::Procedure() {}

void CAThread::Start(unsigned long, void* arg) {
  // A thread already created but not yet running still has runState -1;
  // its stored `thread` marks it as started, so it is not started twice.
  if (LoadInt(&runState) != -1 ||
      __atomic_load_n(&thread, __ATOMIC_SEQ_CST) != nullptr) {
    return;
  }
  argument = arg;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t* id = new pthread_t;
  int rc = pthread_create(id, &attr, TP, this);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    delete id;  // runState stays -1: Start may be tried again
    return;
  }
  __atomic_store_n(&thread, id, __ATOMIC_SEQ_CST);
}

void CAThread::Suspend() {}

void CAThread::Resume() {}

void CAThread::Stop() {
  // Started but not yet running: wait until TP has marked it running, so
  // that a Stop (or destructor) right after Start does not miss it.
  while (LoadInt(&runState) == -1 &&
         __atomic_load_n(&thread, __ATOMIC_SEQ_CST) != nullptr) {
    CASleep(0);
  }
  if (LoadInt(&runState) != 0) return;
  StoreInt(&stopRequest, 1);
  if (stopTimeout >= -99) {
    int steps = stopTimeout / 100;
    for (int step = 1;; ++step) {
      CASleep(100);
      if (step > steps || LoadInt(&runState) != 0) break;
    }
  }
  if (LoadInt(&runState) > 0) return;  // finished by itself
  // Claim the cancellation. Failing means TP (or the Procedure) has just
  // marked the thread finished, and a finished thread is never cancelled.
  int expected = 0;
  if (!__atomic_compare_exchange_n(&runState, &expected, kCancelling, false,
                                   __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
    return;
  }
  pthread_t* id = __atomic_load_n(&thread, __ATOMIC_SEQ_CST);
  pthread_cancel(*id);
  CASleep(100);
  Suspend();
  __atomic_store_n(&thread, static_cast<pthread_t*>(nullptr), __ATOMIC_SEQ_CST);
  delete id;
  StoreInt(&runState, 1);
}

CAThread::~CAThread() {
  CAThread::Stop();
  // A thread that ended by itself (or whose Procedure marked it finished)
  // still has its heap pthread_t; Stop frees it only when it cancels.
  pthread_t* id = __atomic_exchange_n(&thread, static_cast<pthread_t*>(nullptr),
                                      __ATOMIC_SEQ_CST);
  delete id;
}

void* TP(void* arg) {
  CAThread* t = static_cast<CAThread*>(arg);
  // `thread` is stored only after pthread_create has returned.
  while (__atomic_load_n(&t->thread, __ATOMIC_SEQ_CST) == nullptr) CASleep(0);
  StoreInt(&t->runState, 0);
  // Stop's last resort must end a procedure that never reaches a
  // cancellation point, so the thread accepts cancellation anywhere.
  // NOLINTNEXTLINE(concurrency-thread-canceltype-asynchronous)
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  CASleep(0);
  t->Procedure();
  // Record that the thread finished by itself, so Stop never cancels a
  // thread that is gone. If Stop has already claimed the cancellation,
  // stay alive until it arrives: pthread_cancel must not target a thread
  // that has ended. A Procedure that set runState positive itself has
  // already said it is finished.
  int expected = 0;
  if (!__atomic_compare_exchange_n(&t->runState, &expected, kFinished, false,
                                   __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST) &&
      expected == kCancelling) {
    for (;;) CASleep(1000);
  }
  return nullptr;
}

void CASleep(int ms) {
  if (ms < 0) return;
  // usleep takes a 32-bit microsecond count; longer sleeps than
  // kMaxSleepChunkMs would overflow it, so they are made in chunks.
  while (ms > kMaxSleepChunkMs) {
    usleep(static_cast<useconds_t>(kMaxSleepChunkMs) * 1000u);
    ms -= kMaxSleepChunkMs;
  }
  usleep(static_cast<unsigned int>(ms) * 1000u);
}
