/* SPDX-License-Identifier: MIT */
/* The statistics component: timing slots and a stopwatch.
 *
 * libqmcache does not implement these classes itself; it links against the
 * shared library that provides them (libqmstat, a stand-in of our own, unless
 * the host supplies the platform's component under the same name).
 *
 * A CAStatistic holds a fixed number of slots. Each slot accumulates the
 * values added to it (elapsed seconds): how many, their sum, the smallest,
 * the largest and the last. A CAClock is a stopwatch whose suspended
 * intervals are not counted.
 *
 * A CAStatistic may be added to and read from several threads at once
 * without losing a value; Cleanup and the destructor must not overlap an Add
 * on the same object. A CAClock is one stopwatch for one thread at a time. */
#ifndef QMCACHE_CASTATISTIC_H
#define QMCACHE_CASTATISTIC_H

#include "qmcache/export.h"
#include "qmcache/qmcache.h"

#ifdef __cplusplus

class QMSTAT_API CAStatistic {
 public:
  /* A statistic with `slots` empty slots (a count of 0 or less gives none). */
  explicit CAStatistic(int slots);
  ~CAStatistic();

  /* Adds `value` to `slot`. Returns 1, or 0 (nothing recorded) when the slot
   * is out of range. */
  int Add(int slot, double value);

  /* Copies the figures of `slot` to `out`. Returns 1; for a slot out of range
   * `out` is zero-filled and the result is 0. `mode` is accepted for
   * compatibility and ignored. */
  int Get(int slot, _CAStat* out, int mode);

  /* Empties every slot. Returns 1. */
  int Cleanup();

  CAStatistic(const CAStatistic&) = delete;
  CAStatistic& operator=(const CAStatistic&) = delete;

 private:
  int slotCount;
  _CAStat* slots;
};

class QMSTAT_API CAClock {
 public:
  CAClock();
  ~CAClock();

  /* Begins a measurement (and ends any suspension). */
  void Start();
  /* Ends the measurement and returns its elapsed seconds, suspended
   * intervals excluded. A clock that was never started returns 0. */
  double Stop();
  /* Pauses the running measurement; a second Suspend is ignored. */
  void Suspend();
  /* Continues a suspended measurement; ignored when not suspended. */
  void Resume();

 private:
  long startTicks;     /* when the measurement began, 0 when idle */
  long suspendTicks;   /* when the current suspension began, 0 if none */
  long suspendedTotal; /* ticks spent suspended in this measurement */
};

#endif /* __cplusplus */

#endif /* QMCACHE_CASTATISTIC_H */
