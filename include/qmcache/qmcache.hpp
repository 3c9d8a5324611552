// SPDX-License-Identifier: MIT
// libqmcache's exported C++ classes and globals.
//
// Hosts that only cache records need nothing but qmcache.h. This header
// exposes the library's building blocks for hosts that link against them:
// the key tree (BTree, BTreeNumerator), the data buffer (CAMem), the locks
// and events (CAEvent, CAMutex, CACritical, CAUniq), the worker thread
// (CAThread, CAThreadProc, TP, CASleep), and the library's internal classes
// and globals with their exact layout, for diagnosis and tests.
//
// None of these classes locks on its own behalf: the owner of an object
// serialises its use. The lock classes obey the global mode `SingleThreaded`:
// while it is non-zero every wait and lock succeeds at once without locking.
#ifndef QMCACHE_QMCACHE_HPP
#define QMCACHE_QMCACHE_HPP

#include <pthread.h>
#include <stdio.h>
#include <time.h>

#include "qmcache/castatistic.h"
#include "qmcache/export.h"
#include "qmcache/qmcache.h"

class BTree;
class CACache;
class CACacheAction;
class CAFree;
class CARecord;
class Trace;

// ---- Globals ---------------------------------------------------------------

// Library-wide statistic (8 slots, CASTAT_*); exists while initialised.
QMCACHE_API extern CAStatistic* MainStat;
// Threading mode given to the last CA_INIT: non-zero disables every lock.
QMCACHE_API extern int SingleThreaded;
// The installed trace log, or null. The host installs one by storing a
// `new Trace(path)` here; from then on the library owns it and CA_DEINIT
// destroys it.
QMCACHE_API extern Trace* trace;
// The release callback (see CA_SETFREE).
QMCACHE_API extern CAFreeHandle free_handle;
// The reclamation controller; exists while initialised.
QMCACHE_API extern CAFree* cafree;

// ---- Locks and events ------------------------------------------------------
// Time-outs are milliseconds; negative means no limit.

struct CAEventState;
struct CAMutexCore;

// An event: Set (stays set), Post (wakes one waiter, consumed by it), Reset.
class QMCACHE_API CAEvent {
 public:
  CAEvent();
  ~CAEvent();
  // 1 signalled, 0 timed out, -1 failed (or woken without a signal).
  int Wait(int ms);
  void Set();
  void Post();
  void Reset();

  CAEvent(const CAEvent&) = delete;
  CAEvent& operator=(const CAEvent&) = delete;

  CAEventState* state;
};

// A recursive mutex whose entry can be bounded by a time-out.
class QMCACHE_API CAMutex {
 public:
  CAMutex();
  ~CAMutex();
  // 1 entered, 0 timed out, -1 failed. Enter(0) on a busy mutex gives -1.
  // A timed entry waits up to `timeout` ms afresh after every Exit that
  // leaves the mutex held by someone else; it never times out while the
  // mutex is free.
  int Enter(int timeout);
  void Exit();

  CAMutex(const CAMutex&) = delete;
  CAMutex& operator=(const CAMutex&) = delete;

  CAMutexCore* core;
  int entries;  // successful entries so far; never lowered
};

// A CAMutex followed by a plain recursive mutex, which Enter/Exit use.
class QMCACHE_API CACritical : public CAMutex {
 public:
  CACritical();
  ~CACritical();
  void Enter();
  void Exit();

  pthread_mutex_t mutex;
};

// A shared/exclusive gate: many threads in shared mode (Enter/Exit) or one
// in exclusive mode (UniEnter/UniExit). A thread inside in shared mode must
// leave before it asks for exclusive access.
class QMCACHE_API CAUniq {
 public:
  CAUniq();
  ~CAUniq();
  void Enter();
  void Exit();
  // 1 when exclusive access is held, 0 when the wait failed; call UniExit
  // after either result.
  int UniEnter();
  void UniExit();

  CACritical entryLock;
  CACritical exitLock;
  int sharers;
  CAEvent drained;
  int uniWaiting;
};

// ---- Key tree --------------------------------------------------------------

// A node of a binary key tree, rebalanced by single rotations on insertion.
// Keys are byte strings compared bytewise as unsigned values; a key sorts
// before its own prefixes ("abc" < "ab" < "a"). Nodes are never removed one
// by one: an owner empties a node by clearing `payload`. Not thread-safe.
class QMCACHE_API BTree {
 public:
  // A detached node holding a copy of the key; the caller links it in at
  // `parentLink` (for a new tree: parent null, parentLink = &rootHolder).
  BTree(unsigned char* key, unsigned long keyLength, BTree* parent,
        BTree** parentLink);
  // Destroys the whole subtree below this node (not the node's own memory,
  // not the payloads).
  ~BTree();

  // > 0 when this node's key sorts after the given key, < 0 before, 0 equal.
  int Compare(unsigned char* key, unsigned long keyLength);
  // The node with exactly this key (empty nodes included), or null.
  BTree* Search(unsigned char* key, unsigned long keyLength);
  // The key's node: the existing one (*existed = 1) or a new empty one
  // (*existed = 0). May rotate the root: re-read the root holder afterwards.
  BTree* Insert(unsigned char* key, unsigned long keyLength, int* existed);
  // Updates heights upwards from a newly linked node, rotating at most once.
  void ReOrg();
  // Clears CAREC_PINNED and CAREC_EXPIRES in every record of the subtree.
  void ClearAttr();
  // Prints every link, height and order fault of the subtree to stdout;
  // returns the number of nodes visited.
  int CheckTree();
  // As CheckTree, after testing that this node has no parent.
  int CheckTreeRoot();

  BTree(const BTree&) = delete;
  BTree& operator=(const BTree&) = delete;

  char magic[4];  // "%%BT"
  unsigned int serial;
  BTree* parent;
  BTree** parentLink;
  unsigned long leftHeight;
  BTree* left;
  unsigned long rightHeight;
  BTree* right;
  unsigned long keyLength;
  unsigned char* key;
  void* payload;

  // Nodes ever constructed, in all trees.
  static unsigned int cnt;

 private:
  // The library's own record trees keep each node's key copy in the node's
  // own heap block, right behind it; this constructor makes such a node.
  friend class NodeArena;
  struct KeyBehind {};
  __attribute__((visibility("hidden")))
  BTree(KeyBehind, unsigned char* key, unsigned long keyLength, BTree* parent,
        BTree** parentLink);
};

// A stackless in-order walk of a key tree, ascending or (reverse != 0)
// descending. Payloads may change during a walk; the tree's shape must not.
class QMCACHE_API BTreeNumerator {
 public:
  BTreeNumerator(BTree* start, int reverse);
  // The next node, or null when the walk is over (and on every later call).
  BTree* Next();

  BTree* current;
  int subtreePending;
  int depth;
  int reverse;
  int lastDepth;
};

// ---- Records ---------------------------------------------------------------

// A guarded data buffer of `size` bytes (one more is allocated).
class QMCACHE_API CAMem {
 public:
  explicit CAMem(unsigned long size);
  ~CAMem();
  void* get();
  void release();
  // Grows the buffer (never shrinks): 1 or 0 (see `state`), -1 on failure.
  int realloc(unsigned long newSize);
  // 0 for a sound buffer, 1 for a broken one.
  int checkmem(unsigned long length);

  CAMem(const CAMem&) = delete;
  CAMem& operator=(const CAMem&) = delete;

  char magic[4];  // "%%CM"
  unsigned long size;
  unsigned long external;
  int state;
  unsigned char* data;

 protected:
  // A buffer whose block the caller provides (see CARecord).
  struct BlockGiven {};
  __attribute__((visibility("hidden")))
  CAMem(BlockGiven, unsigned long size, unsigned char* block);
};

// A cached record: its data buffer and bookkeeping. The host's record
// pointer is the CARecord itself.
class QMCACHE_API CARecord : public CAMem {
 public:
  CARecord(unsigned long size, unsigned long length, void* data, BTree* node,
           CACache* cache, int tag, int flags, long lifetime);
  ~CARecord();
  // Detaches the record from its node; destroys it when nobody holds it.
  void Unlink(CACacheAction* action);
  // Drops one hold (if any), then Unlink.
  void Erase(CACacheAction* action);
  // Drops one hold; destroys a detached record with its last hold.
  void Free();

  BTree* node;
  CACache* cache;
  unsigned long length;
  int flags;
  int tag;
  long lifetime;
  int refCount;
  time_t created;
  unsigned int hits;
  unsigned char valid;

  static CACritical recordHnd;

 private:
  // The records that the library stores keep their data in the record's own
  // heap block, right behind it; this constructor makes such a record.
  friend CARecord* NewRecord(unsigned long, unsigned long, void*, BTree*,
                             CACache*, int, int, long);
  __attribute__((visibility("hidden")))
  CARecord(BlockGiven, unsigned long size, unsigned long length, void* data,
           BTree* node, CACache* cache, int tag, int flags, long lifetime);
};

// ---- Caches and handles ----------------------------------------------------

class QMCACHE_API CACache {
 public:
  static CACacheAction* Create(char* name, CAParams* params);
  static int GetCacheStat(void* handle, CAParams* params);
  static void Close(void* handle);
  static void Delete(char* name);
  static void CleanUp();

  CACache(char* name, CAParams* params);
  ~CACache();
  void InsertAction(CACacheAction* action);
  int DeleteAction(CACacheAction* action);

  // Wrapped ascending walk of the record tree; the numerator is freed when
  // the walk returns null.
  BTree* First(BTreeNumerator** iterator);
  BTree* Next(BTreeNumerator** iterator);

  // Reclamation triggers.
  void Allocated(unsigned long bytes, CACacheAction* action);
  void FreeNode(CACacheAction* action);

  // Structure check.
  static int CheckCache(unsigned int traceId);
  static int BTreeCheck(unsigned int traceId, BTree* node, CACache* cache);

  CACache(const CACache&) = delete;
  CACache& operator=(const CACache&) = delete;

  CAStatistic stats;  // 8 slots, CASTAT_*
  char magic[4];      // "%%CC"
  int closing;
  char* name;
  int actionSlots;
  CACacheAction** actions;
  CAParams params;
  CAStatistic timing;  // 1 slot: every handle operation
  BTree* tree;
  CAUniq gate;

  static BTree* caches;  // the registry of caches by name
  static CAUniq uniq;
  static char cache_buf[512];
};

// An access handle on a cache.
class QMCACHE_API CACacheAction {
 public:
  // A pointer whose first 8 bytes are the handle magic, else null.
  static CACacheAction* GetAction(void* handle);

  explicit CACacheAction(CACache* cache);
  ~CACacheAction();
  void Close();

  int Insert(int tag, int flags, long lifetime, unsigned long keyLength,
             void* key, unsigned long size, unsigned long length, void* data);
  CARecord* Search(long maxAge, unsigned long keyLength, void* key);
  int Query(void* record, CAQuery* query);
  void FreeHandle(void* record);
  void EraseHandle(void* record);      // the host's erase: drops a hold
  void EraseHandle(CARecord* record);  // eviction's erase: keeps the holds
  void** GetCacheAsList(int* count);
  int TreeToArray(BTree* node, void** list, int* count);
  void FreeList(void* list);

  CACacheAction(const CACacheAction&) = delete;
  CACacheAction& operator=(const CACacheAction&) = delete;

  unsigned long magic;  // "CAAC" and four zero bytes while open
  CACache* cache;
  CAClock clock;
};

// ---- Reclamation -----------------------------------------------------------

// An entry of the controller's pending list (a malloc'ed block).
struct CAFreeEntry {
  CAFreeEntry* next;
  CACacheAction* action;  // owned by the entry
  int done;
};

// An object a host may attach to CAFree::stopper; while one is attached,
// CAFree::Procedure processes no entry. The controller deletes it.
class QMCACHE_API CAFreeStopper {
 public:
  virtual ~CAFreeStopper();
};

// The reclamation controller: eviction passes and tree rebuilds.
class QMCACHE_API CAFree {
 public:
  explicit CAFree(int singleThreaded);
  virtual void Procedure();
  virtual ~CAFree();

  double DeleteGrad(BTree* node, unsigned long budget);
  void QuickSort(int lo, int hi);
  int Compress(CACacheAction* action);
  void RebuildTree(CACacheAction* action);
  void InsRecurs(BTree** root, BTree** nodes, int lo, int hi);
  void TriggerFree(CACache* cache);
  void DeleteFromList(CACache* cache);

  CAFree(const CAFree&) = delete;
  CAFree& operator=(const CAFree&) = delete;

  unsigned int gradCapacity;
  double* grades;
  BTree** candidates;
  int busy;
  CAClock clock;
  CAFreeStopper* stopper;
  CACritical lock1;
  CAFreeEntry* pending;
  CACritical lock2;
};

// ---- Trace log -------------------------------------------------------------

// A trace log file: one line per call, "<message> at <asctime>". A path that
// cannot be opened gives a log that writes nothing.
class QMCACHE_API Trace {
 public:
  explicit Trace(char const* path);
  ~Trace();
  void Write(char const* format, ...) __attribute__((format(printf, 2, 3)));

  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  CAMutex lock;
  FILE* file;
};

// ---- Threads ---------------------------------------------------------------

// A worker thread: derive, override Procedure, Start. Stop asks the thread to
// end (stopRequest = 1), waits up to stopTimeout ms in 100 ms steps, then
// cancels it asynchronously. A derived class whose Procedure uses its own
// members should call Stop in its own destructor.
class QMCACHE_API CAThread {
 public:
  CAThread();
  virtual void Procedure();
  virtual void Stop();
  virtual ~CAThread();
  void Start(unsigned long ignored, void* argument);
  void Suspend();
  void Resume();

  CAThread(const CAThread&) = delete;
  CAThread& operator=(const CAThread&) = delete;

  int runState;  // -1 not started, 0 running, positive finished or stopped
  pthread_t* thread;
  int stopRequest;
  int stopTimeout;
  void* argument;
};

// A procedure object with two events for a host's own hand-shake.
class QMCACHE_API CAThreadProc {
 public:
  virtual void Procedure();
  virtual ~CAThreadProc();

  CAEvent request;
  CAEvent reply;
};

// The thread entry handed to pthread_create; `thread` is the CAThread.
QMCACHE_API void* TP(void* thread);
// Sleeps `ms` milliseconds; a negative value returns at once.
QMCACHE_API void CASleep(int ms);

#endif  // QMCACHE_QMCACHE_HPP
