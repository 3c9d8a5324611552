/* SPDX-License-Identifier: MIT */
/* libqmcache: named in-memory caches of keyed records inside the process.
 *
 * A cache is known by its name. CA_CREATE opens it and returns an access
 * handle, the only thing the host holds for a cache; every record call takes
 * a handle. Records are copies of the host's data stored under byte-string
 * keys (any bytes, zero bytes included; the empty key is a key), each with an
 * accounted length charged against the cache's byte budget, an integer tag,
 * flag bits and a lifetime.
 *
 * Conventions
 *  - Results: 1 for done / found, 0 for nothing done, -1 for an invalid
 *    handle where an int is returned (CA_INSERT); pointer results are null
 *    for none. No call reports an error in words and no call throws.
 *  - A handle is recognised by its magic. Null and foreign pointers are
 *    rejected; a handle that was closed (CA_CLOSE) or destroyed (CA_DEINIT)
 *    has been freed and must not be passed again.
 *  - Record pointers and lists are taken on trust: pass only pointers that
 *    you hold and that are still alive.
 *  - Lengths cross this interface as int and must not be negative.
 *  - Times are whole seconds of the wall clock (time()).
 *
 * Ownership
 *  - A record pointer returned by CA_SEARCH is a hold: the record stays alive
 *    (even if replaced, erased or evicted in the meantime) until you give the
 *    hold back with CA_FREE or CA_ERASE.
 *  - A list returned by CA_LIST belongs to you until CA_LIST_FREE; the
 *    records it points to are not held and may be destroyed by the next
 *    insert or erase on the cache.
 *  - CAParams, CAQuery, _CAStat, keys and data blocks that you pass stay
 *    yours; the library copies what it keeps.
 *
 * Threads
 *  The library starts no thread and takes no lock for cache work. Calls that
 *  touch one cache must be serialised by the host, and so must every call
 *  that can start reclamation (CA_INSERT and CA_ERASE, on any cache), since
 *  eviction runs on the caller's thread with process-wide scratch state.
 *  CA_INIT and CA_DEINIT must not run concurrently with any other call.
 *  Calls on different caches may otherwise run at once: the library-wide
 *  statistic loses no value to them.
 *
 * Reserved names
 *  The library exports the globals `trace`, `cafree`, `free_handle`,
 *  `SingleThreaded` and `MainStat` under these plain names (qmcache.hpp
 *  declares them). A host must not define a global of any of these names:
 *  the dynamic linker binds the library's references to the host's object,
 *  and the first call that uses it fails. The CA_ and YBTRACE_ prefixes and
 *  the classes listed in docs/REFERENCE.md are reserved too.
 *
 * Reclamation
 *  When a cache's `allocated` bytes pass its `maxBytes`, the insert that
 *  crossed the budget runs an eviction pass before it returns: expired
 *  records (CAREC_EXPIRES) are forced out, then the worst-graded records
 *  (old, rarely read, long) are erased until the cache is at or below 90% of
 *  its budget. Records that are pinned, held, or were made in the current
 *  second are never graded for eviction. A key tree with more than 20,000
 *  empty nodes is rebuilt right after.
 */
#ifndef QMCACHE_QMCACHE_H
#define QMCACHE_QMCACHE_H

#include "qmcache/export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Version of this interface. */
#define QMCACHE_VERSION_MAJOR 1
#define QMCACHE_VERSION_MINOR 1
#define QMCACHE_VERSION_PATCH 0

/* Record flag bits (CA_INSERT's `flags`). All other bits are stored and
 * reported unchanged. */
/* Call the release callback (CA_SETFREE) when the record is destroyed. */
#define CAREC_CALLBACK 0x02000000
/* Eviction never chooses the record. Cleared when any handle of the cache is
 * closed. */
#define CAREC_PINNED 0x04000000
/* Eviction ignores the record until `lifetime` seconds have passed since it
 * was made, then forces it out first, even while it is held. Cleared when
 * any handle of the cache is closed. */
#define CAREC_EXPIRES 0x08000000

/* Statistic slots (CA_GETSTAT). Every value is an elapsed time in seconds. */
#define CASTAT_INSERT 0     /* every insert that stored a record */
#define CASTAT_SEARCH 1     /* every search, hit or miss */
#define CASTAT_SEARCH_HIT 2 /* searches that returned a record */
#define CASTAT_QUERY 3      /* CA_QUERY */
#define CASTAT_RELEASE 4    /* CA_FREE */
#define CASTAT_ERASE 5      /* CA_ERASE and every record evicted */
#define CASTAT_EVICTION 6   /* eviction passes */
#define CASTAT_REBUILD 7    /* key-tree rebuilds */

/* The figures of one statistic slot (40 bytes). An empty slot is all zero. */
typedef struct _CAStat {
  unsigned long count; /* number of values added */
  double total;        /* their sum */
  double min;          /* the smallest */
  double max;          /* the largest */
  double last;         /* the latest */
} _CAStat;

/* A cache's parameters and counters (56 bytes), filled by CA_CREATE and
 * CA_GETCACHESTAT. Only `maxBytes` is read, by CA_CREATE. */
typedef struct CAParams {
  unsigned int maxBytes;  /* byte budget; 0 at first creation means 1 MiB */
  unsigned int allocated; /* bytes charged by the cache's live records */
  unsigned int nodes;     /* key-tree nodes, empty ones included */
  unsigned int usedNodes; /* key-tree nodes that carry a record */
  _CAStat timing;         /* all handle operations on the cache */
} CAParams;

/* A record's properties, filled by CA_QUERY. The pointers point into library
 * memory: `data` while the record lives, `key` while its tree node lives (a
 * tree rebuild, which any insert or erase can start, discards nodes). */
typedef struct CAQuery {
  int hits;       /* 1 at insertion, +1 per search hit */
  int tag;        /* as inserted */
  int flags;      /* as inserted (CAREC_PINNED/EXPIRES cleared by a close) */
  int age;        /* seconds since the record was made */
  int keyLength;  /* 0 when the record has left its cache */
  void* key;      /* null when the record has left its cache */
  int dataLength; /* bytes of data */
  int length;     /* accounted length */
  void* data;     /* the record's own copy of the data */
} CAQuery;

/* Release callback: receives a record's flags, data size and data block just
 * before the record is destroyed, for records inserted with CAREC_CALLBACK.
 * It must not keep or free the block. It may call the library again: store
 * the data in a cache (the same one included), search, release, erase, list,
 * open caches, close handles, switch the mode with CA_INIT. The call in
 * progress copes with what it did:
 *  - A callback of an eviction pass that closes the last handle of the
 *    pass's cache (an erase through another cache's handle fires the pass of
 *    the record's cache) ends that cache when the pass is over; the erase
 *    that fired the pass completes, and no record is lost.
 *  - CA_INIT with the other mode from a callback of an eviction pass takes
 *    effect when the pass is over; the pass ends in the mode it began with.
 *  - Callbacks run by CA_DEINIT find every handle invalid already (a call
 *    with one gets the invalid-handle result) and the library torn down:
 *    CA_CREATE returns null and CA_INIT does nothing there.
 * It must not:
 *  - close the handle of a call in progress (the one destroying the record,
 *    or one that encloses it);
 *  - call CA_DEINIT (refused).
 * A debug build stops with a message when a callback does either. */
typedef void (*CAFreeHandle)(int flags, unsigned long size, void* data);

/* ---- Library ---------------------------------------------------------- */

/* Initialises the library. `singleThreaded` non-zero makes the exported lock
 * classes no-ops (the default when a call initialises on demand); 0 makes
 * them lock. Calling it again with another mode switches the mode, leaving
 * caches untouched (from a release callback of an eviction pass: once the
 * pass is over). Returns 1. */
QMCACHE_API int CA_INIT(int singleThreaded);

/* Tears the library down: makes every handle invalid, destroys every cache
 * (records nobody holds are released, calling the release callback), frees
 * the handles, writes "CACACHE Closed" to the trace log and destroys the log.
 * Harmless when not initialised. Returns 1. Not from a release callback. */
QMCACHE_API int CA_DEINIT(void);

/* Fills `out` with the figures of statistic `slot` (CASTAT_*): library-wide
 * for a null handle, of the handle's cache otherwise. Returns 1 (a slot out
 * of range reads as all zero), or 0 with `out` zero-filled for an invalid
 * handle. Initialises on demand. */
QMCACHE_API int CA_GETSTAT(void* handle, int slot, _CAStat* out);

/* ---- Caches and handles ----------------------------------------------- */

/* Opens the cache `name` (created on first open, with `params->maxBytes` as
 * budget, 0 meaning 1 MiB) and returns a new handle; null only for a null
 * `name`. Opening an existing cache empties its statistics and sets its
 * budget to `params->maxBytes` as given (0 included). The cache's parameters
 * are written back to `params`. A null `params` reads as `maxBytes` 0 and
 * receives nothing: the default budget at creation, but a budget of 0 on a
 * re-open. Initialises on demand. */
QMCACHE_API void* CA_CREATE(const char* name, CAParams* params);

/* Copies the cache's parameters to `params`. Returns 1, or 0 (params
 * untouched) for an invalid handle. Initialises on demand. */
QMCACHE_API int CA_GETCACHESTAT(void* handle, CAParams* params);

/* Closes a handle and frees it. Closing the last handle destroys the cache
 * with every record nobody holds. Closing one of several handles sets the
 * cache's budget to 0 and clears CAREC_PINNED and CAREC_EXPIRES in all its
 * records. An invalid handle is ignored. */
QMCACHE_API void CA_CLOSE(void* handle);

/* ---- Records ---------------------------------------------------------- */

/* Stores a copy of `size` bytes of `data` under the key (`keyLength` bytes
 * at `key`), charging `length` bytes to the cache, and replaces the key's
 * previous record (which lives on while held). Returns 1 when the key was
 * new to the cache, 0 when it existed, -1 for an invalid handle (and, with
 * nothing done, for a negative `keyLength`, a null `key` with a positive
 * `keyLength`, or a null `data` with a positive `size`). A `size` of 0 stores
 * no record, yet the result still says whether the key was new. May run
 * reclamation before it returns. */
QMCACHE_API int CA_INSERT(void* handle, int tag, int flags, int lifetime,
                          int keyLength, const void* key, int size, int length,
                          const void* data);

/* Finds the key's record if it is younger than `maxAge` seconds, its age
 * being the current time minus its creation time as a signed count (0: any
 * age; a negative limit finds only records made after the clock stepped
 * back, whose age is more negative still). Returns the record as a hold
 * that you must give back with CA_FREE or CA_ERASE, or null (also for an
 * invalid handle, a negative `keyLength` or a null `key` with a positive
 * `keyLength`). */
QMCACHE_API void* CA_SEARCH(void* handle, int maxAge, int keyLength,
                            const void* key);

/* Fills `query` with the properties of `record` (a held or listed record).
 * Returns 1, or 0 for an invalid handle or a null record. Does not count
 * as a hit and takes no hold. */
QMCACHE_API int CA_QUERY(void* handle, void* record, CAQuery* query);

/* Gives back one hold on `record`. The record stays cached; a record that
 * already left its cache is destroyed with its last hold. Ignored for an
 * invalid handle or a null record. */
QMCACHE_API void CA_FREE(void* handle, void* record);

/* Gives back one hold on `record` and removes it from its cache; it is
 * destroyed now unless other holds remain. A record from CA_LIST (not held)
 * is destroyed at once. Ignored for an invalid handle or a null record. */
QMCACHE_API void CA_ERASE(void* handle, void* record);

/* Installs the release callback (null removes it). Returns 1 when a callback
 * was installed before, else 0. Initialises on demand. */
QMCACHE_API int CA_SETFREE(CAFreeHandle callback);

/* ---- Listing ---------------------------------------------------------- */

/* Returns a block of record pointers (not holds) in key-tree pre-order, with
 * one entry per tree node and null entries after the last record, and sets
 * `*count` to the number of records. An empty cache gives null and 0; an
 * invalid handle gives null and leaves `*count` alone. Free the block with
 * CA_LIST_FREE before your next insert or erase on the cache. */
QMCACHE_API void** CA_LIST(void* handle, int* count);

/* Frees a block from CA_LIST (null is allowed). Nothing is done for an
 * invalid handle. */
QMCACHE_API void CA_LIST_FREE(void* handle, void* list);

/* ---- Structure check -------------------------------------------------- */

/* Switches the structure check on (non-zero) or off. Returns 1 when it is now
 * on, else 0. */
QMCACHE_API int CA_SETCHECK(int on);

/* Validates every cache, handle, key-tree node and record. Returns 1 at the
 * first fault found, after reporting it to the trace service under `traceId`
 * (0: report nothing); 0 when all is sound, when checking is off, or when the
 * library is not initialised. */
QMCACHE_API int CA_CHECKCACHE(unsigned int traceId);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
static_assert(sizeof(_CAStat) == 40, "_CAStat is 40 bytes");
static_assert(sizeof(CAParams) == 56, "CAParams is 56 bytes");
#else
_Static_assert(sizeof(_CAStat) == 40, "_CAStat is 40 bytes");
_Static_assert(sizeof(CAParams) == 56, "CAParams is 56 bytes");
#endif

#endif /* QMCACHE_QMCACHE_H */
