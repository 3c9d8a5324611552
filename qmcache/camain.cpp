// SPDX-License-Identifier: MIT
// The exported CA_ calls, the library's global state and the trace log.
#include <assert.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "caconst.h"
#include "cainternal.h"
#include "qmcache/qmcache.hpp"

// ==== Global state ===========================================================

// The threading mode comes first: the lock classes read it from load time on,
// and it stays 0 (real locking) until a controller is built.
int SingleThreaded = 0;
CAStatistic* MainStat = nullptr;
Trace* trace = nullptr;
CAFreeHandle free_handle = nullptr;
CAFree* cafree = nullptr;

// 1 while the library is initialised.
static int inited = 0;
// 1 while the structure check is switched on; survives CA_DEINIT.
static int checkEnabled = 0;
// 1 while CA_DEINIT takes the caches down. The release callbacks it runs find
// the library torn down: they neither start it again nor open a cache.
static int tearingDown = 0;
// A mode switch asked for while a pass runs on the controller (from a
// release callback): the controller is replaced once the pass is over.
static int switchDue = 0;
static int switchMode = 0;

namespace {

// Calls that work without an explicit CA_INIT start the library in
// single-threaded mode.
void InitOnDemand() {
  if (!inited && !tearingDown) CA_INIT(kOnDemandMode);
}

void ReplaceController(int singleThreaded) {
  CAFree* old = cafree;
  cafree = nullptr;
  delete old;
  cafree = new CAFree(singleThreaded);
}

// Lengths cross the interface as int; they are widened with their sign.
unsigned long Widen(int value) {
  return static_cast<unsigned long>(static_cast<long>(value));
}

// A key the library can read: a negative length would be widened to an
// enormous one, and a null key has no bytes to read. Such keys are refused
// like an invalid handle (-1 from CA_INSERT, null from CA_SEARCH) before
// anything is touched; so is a null data block with bytes to copy.
bool KeyIsUsable(int keyLength, const void* key) {
  return keyLength >= 0 && (key != nullptr || keyLength == 0);
}

// asctime's layout: "Www Mmm dd hh:mm:ss yyyy\n" plus the terminating zero.
constexpr size_t kTimeTextSize = 26;

}  // namespace

// ==== Trace log ==============================================================

// A null path opens nothing, like a path that cannot be opened: the log is
// valid and silent.
Trace::Trace(char const* path) : lock(), file(nullptr) {
  if (path != nullptr) file = fopen(path, "w");
}

Trace::~Trace() {
  if (file != nullptr) {
    fclose(file);
    file = nullptr;
  }
}

// One line: the message, " at " and the local time in asctime's layout. The
// reentrant conversions give the same text as localtime/asctime without
// their shared buffers; they still run inside the lock so that the time
// written follows the order of the lines. When the lock cannot be taken
// within 1000 ms (or has no core) the line is dropped: a lost line is
// preferable to two writers interleaving in one file.
void Trace::Write(char const* format, ...) {
  if (file == nullptr) return;
  if (lock.Enter(kTraceLockTimeout) != 1) return;

  char timeText[kTimeTextSize];
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr ||
      asctime_r(&local, timeText) == nullptr) {
    // Out of asctime's range (a year past 9999): keep the line's shape.
    snprintf(timeText, sizeof timeText, "%s", "??? ??? ?? ??:??:?? ????\n");
  }

  va_list args;
  va_start(args, format);
  vfprintf(file, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
  va_end(args);
  fprintf(file, " at %s", timeText);
  fflush(file);

  lock.Exit();
}

// ==== Mode switches ==========================================================

// Called by the controller when a pass ends; it may delete the controller
// that calls it, which then touches nothing of its own.
void ApplyDeferredMode() {
  if (!switchDue || cafree == nullptr || cafree->busy) return;
  switchDue = 0;
  if (switchMode != SingleThreaded) ReplaceController(switchMode);
}

// ==== Exported calls =========================================================

extern "C" {

// Re-initialising with the mode unchanged keeps the current controller: it
// holds nothing but scratch state between passes, so rebuilding it would buy
// nothing. The mode is compared as given, since the controller stores it
// unchanged in SingleThreaded.
//
// A switch asked for while a pass runs (a release callback of that pass asks)
// waits for the pass to end: the pass goes on with the controller and the
// mode it started with, and the last mode asked for is applied when it is
// over. Inside CA_DEINIT's teardown nothing is started again.
int CA_INIT(int singleThreaded) {
  if (tearingDown) return 1;
  if (!inited) {
    if (MainStat == nullptr) MainStat = new CAStatistic(kStatSlots);
    if (cafree == nullptr) cafree = new CAFree(singleThreaded);
    inited = 1;
    return 1;
  }
  if (cafree != nullptr && cafree->busy) {
    switchDue = 1;
    switchMode = singleThreaded;
  } else if (singleThreaded != SingleThreaded) {
    ReplaceController(singleThreaded);
  }
  return 1;
}

// From a release callback the teardown would free the cache, the handle or
// the controller that the call in progress still uses: a debug build stops
// there, a release build refuses the call.
int CA_DEINIT(void) {
  if (InReleaseCallback()) {
    assert(!"CA_DEINIT called from a release callback");
    return 1;
  }
  if (!inited) return 1;
  inited = 0;
  switchDue = 0;

  delete MainStat;
  MainStat = nullptr;

  // No controller from here on: the teardown below starts no reclamation.
  CAFree* controller = cafree;
  cafree = nullptr;
  delete controller;

  tearingDown = 1;
  CACache::CleanUp();
  tearingDown = 0;

  if (trace != nullptr) {
    trace->Write("CACACHE Closed");
    Trace* log = trace;
    trace = nullptr;
    delete log;
  }
  return 1;
}

int CA_GETSTAT(void* handle, int slot, _CAStat* out) {
  InitOnDemand();
  if (trace != nullptr) trace->Write("CACACHE Status returned");

  if (handle == nullptr && MainStat != nullptr) {
    MainStat->Get(slot, out, kStatGetMode);
    return 1;
  }
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr && action->cache != nullptr) {
    action->cache->stats.Get(slot, out, kStatGetMode);
    return 1;
  }
  memset(out, 0, sizeof *out);
  return 0;
}

// A null name opens nothing (null result); a null parameter record reads as
// maxBytes 0 (the default budget at creation, a budget of 0 on a re-open) and
// receives nothing back.
void* CA_CREATE(const char* name, CAParams* params) {
  InitOnDemand();
  if (name == nullptr || tearingDown) return nullptr;
  CAParams defaults;
  if (params == nullptr) {
    memset(&defaults, 0, sizeof defaults);
    params = &defaults;
  }
  CACacheAction* action = CACache::Create(const_cast<char*>(name), params);
  assert(action != nullptr);
  if (trace != nullptr) {
    trace->Write("CACACHE Create Cache '%s' returns %p", name,
                 static_cast<void*>(action));
  }
  return action;
}

int CA_GETCACHESTAT(void* handle, CAParams* params) {
  InitOnDemand();
  if (trace != nullptr) trace->Write("CACACHE Status for all timings returned");
  return CACache::GetCacheStat(handle, params);
}

void CA_CLOSE(void* handle) {
  CACache::Close(handle);
  if (trace != nullptr) trace->Write("CACACHE %p cache closed", handle);
}

int CA_INSERT(void* handle, int tag, int flags, int lifetime, int keyLength,
              const void* key, int size, int length, const void* data) {
  int result = -1;
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr && KeyIsUsable(keyLength, key) &&
      (data != nullptr || size <= 0)) {
    result =
        action->Insert(tag, flags, static_cast<long>(lifetime),
                       Widen(keyLength), const_cast<void*>(key), Widen(size),
                       Widen(length), const_cast<void*>(data));
  }
  if (trace != nullptr)
    trace->Write("CACACHE Insert a record Length=%d", length);
  return result;
}

void* CA_SEARCH(void* handle, int maxAge, int keyLength, const void* key) {
  void* record = nullptr;
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr && KeyIsUsable(keyLength, key)) {
    record = action->Search(static_cast<long>(maxAge), Widen(keyLength),
                            const_cast<void*>(key));
  }
  if (trace != nullptr) trace->Write("CACACHE Search a record is %p", record);
  return record;
}

int CA_QUERY(void* handle, void* record, CAQuery* query) {
  int result = 0;
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr) result = action->Query(record, query);
  if (trace != nullptr) trace->Write("CACACHE Record %p returned", record);
  return result;
}

void CA_FREE(void* handle, void* record) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr) action->FreeHandle(record);
  if (trace != nullptr) trace->Write("CACACHE Record %p released", record);
}

void CA_ERASE(void* handle, void* record) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr) action->EraseHandle(record);
  if (trace != nullptr) {
    trace->Write("CACACHE Record %p erased from cache", record);
  }
}

int CA_SETFREE(CAFreeHandle callback) {
  InitOnDemand();
  int hadOne = free_handle != nullptr ? 1 : 0;
  free_handle = callback;
  if (trace != nullptr) {
    trace->Write("CACACHE FreeHandle set to %p",
                 reinterpret_cast<void*>(callback));
  }
  return hadOne;
}

// A null `count` is served from a local int, so the call still lists and the
// trace line reports the size the host would have seen.
void** CA_LIST(void* handle, int* count) {
  int localCount = 0;
  int* counter = count != nullptr ? count : &localCount;
  void** list = nullptr;
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr) list = action->GetCacheAsList(counter);
  if (trace != nullptr) {
    trace->Write("CACACHE as a list returned with size: %d", *counter);
  }
  return list;
}

void CA_LIST_FREE(void* handle, void* list) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action == nullptr) return;
  if (trace != nullptr) trace->Write("CACACHE_LIST Record %p released", list);
  action->FreeList(list);
}

int CA_SETCHECK(int on) {
  checkEnabled = on != 0 ? 1 : 0;
  return checkEnabled;
}

// Never initialises on demand: an uninitialised library has nothing to check.
int CA_CHECKCACHE(unsigned int traceId) {
  if (!checkEnabled || !inited) return 0;
  int result = CACache::CheckCache(traceId);
  if (trace != nullptr) trace->Write("CACACHE check cache");
  return result;
}

}  // extern "C"
