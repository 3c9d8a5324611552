// SPDX-License-Identifier: MIT
// The reclamation controller (CAFree): eviction passes, key-tree rebuilds,
// the trigger entry point and the pending list.
//
// Design notes
//  - Everything here runs on the thread of the host call that crossed a
//    limit, and takes no lock. The grade arrays, `freeTime`, `deleted` and
//    `busy` are process-wide scratch state: the host serialises every call
//    that can start reclamation.
//  - `busy` keeps the erases of a running pass from starting another pass
//    through CACache::FreeNode. A nested pass would overwrite the candidate
//    arrays and could rebuild (and so free) the very tree nodes that the
//    running pass still holds in `candidates`.
//  - A release callback of a pass may ask CA_INIT for the other mode, which
//    replaces the controller. The replacement waits until the controller is
//    idle again: TriggerFree, and Compress or Procedure called on an idle
//    controller, apply it last thing (ApplyDeferredMode), as it may delete
//    the controller they run on.
//  - The candidate arrays survive from pass to pass and only grow, so a cache
//    of steady size grades its records without allocating.
//
// What may be attached to `stopper`: any object of a class derived from
// CAFreeStopper, allocated with `new`. The controller owns it from then on
// and deletes it in its own destructor; while one is attached, Procedure
// works through no further entry of the pending list (it still drops the
// entries already done). The library itself never attaches one.
//
// Memory for the candidate arrays: when the arrays cannot be grown, the pass
// keeps the capacity it has and grades no further candidates beyond it; it
// still erases from those it collected. A controller whose first arrays
// could not be had starts with a capacity of 0 and tries again at the first
// candidate.
//
// The pending list: the library adds no entries and nothing in it calls
// Procedure. A host that adds entries keeps at most one entry per cache
// (DeleteFromList removes only the first match), and the entry's handle must
// belong to the entry alone: it must not stay registered in the cache's
// handle table, because a cache destroys every handle of its table before it
// calls DeleteFromList, which destroys the entry's handle once more.
#include <stdlib.h>
#include <time.h>

#include <cassert>
#include <utility>
#include <vector>

#include "caconst.h"
#include "cainternal.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"

// Reference time of the current eviction pass; every grade of the pass is
// computed against it.
static time_t freeTime;
// Records erased so far in the current pass; numbers the pass's trace lines.
static unsigned long deleted;

namespace {

// How many nodes ahead of its grading (or erasing) a record is fetched.
constexpr unsigned int kGradeAhead = 8;

// Fetches the fields of a record that grading and erasing read.
inline void PrefetchRecord(const void* payload) {
  if (payload == nullptr) return;
  const CARecord* record = static_cast<const CARecord*>(payload);
  Prefetch(&record->length);
  Prefetch(&record->valid);
}

// The way back of the controller's walks, kept from walk to walk (passes
// and rebuilds never overlap).
std::vector<BTree*>& WalkStack() {
  static std::vector<BTree*> stack;
  return stack;
}

#ifndef NDEBUG
// The walk of passes and rebuilds visits the nodes in the numerator's order.
void CheckWalkOrder(CACache* cache) {
  std::vector<BTree*> walked, stack;
  WalkInOrder(cache->tree, stack, [&](BTree* node) { walked.push_back(node); });
  BTreeNumerator numerator(cache->tree, 0);
  for (BTree* node : walked) assert(numerator.Next() == node);
  assert(numerator.Next() == nullptr);
}
#endif

// Grows both grade arrays by one step. Returns false, keeping the current
// capacity, when the memory cannot be had.
bool GrowGrades(CAFree* f) {
  unsigned int capacity = f->gradCapacity + kGradeStep;
  double* grades =
      static_cast<double*>(realloc(f->grades, capacity * sizeof(double)));
  if (grades == nullptr) return false;
  f->grades = grades;
  BTree** candidates =
      static_cast<BTree**>(realloc(f->candidates, capacity * sizeof(void*)));
  if (candidates == nullptr) return false;
  f->candidates = candidates;
  f->gradCapacity = capacity;
  return true;
}

// Adds the controller's clock reading to a pass slot of the cache and of the
// library; reclamation time never goes to the cache's `timing`.
void RecordPass(CACache* cache, int slot, double elapsed) {
  cache->stats.Add(slot, elapsed);
  if (MainStat != nullptr) MainStat->Add(slot, elapsed);
}

// Puts the figures of the cache's `timing` slot into its parameters.
void RefreshTiming(CACache* cache) {
  cache->timing.Get(0, &cache->params.timing, kStatGetMode);
}

}  // namespace

namespace {

// CAFree::InsRecurs; the new nodes come from `arena` when one is given.
void InsertMedianFirst(BTree** root, BTree** nodes, int lo, int hi,
                       NodeArena* arena) {
  // Median first: a batch of 1000 recurses at most ten levels deep.
  const int mid = lo + (hi - lo) / 2;
  BTree* source = nodes[mid];
  if (source != nullptr && source->payload != nullptr) {
    BTree* made;
    int existed = 0;  // keys of one tree are unique
    if (*root == nullptr) {
      made = arena != nullptr
                 ? arena->Make(source->key, source->keyLength, nullptr, root)
                 : new BTree(source->key, source->keyLength, nullptr, root);
      *root = made;
    } else if (arena != nullptr) {
      made = InsertNode(*root, source->key, source->keyLength, &existed, arena);
    } else {
      made = (*root)->Insert(source->key, source->keyLength, &existed);
    }
    CARecord* record = static_cast<CARecord*>(source->payload);
    record->node = made;
    made->payload = record;
  }
  if (lo < mid) InsertMedianFirst(root, nodes, lo, mid - 1, arena);
  if (hi > mid) InsertMedianFirst(root, nodes, mid + 1, hi, arena);
}

}  // namespace

CAFree::CAFree(int singleThreaded) : clock(), lock1(), lock2() {
  gradCapacity = kGradeStep;
  SingleThreaded = singleThreaded;
  grades = static_cast<double*>(malloc(kGradeStep * sizeof(double)));
  candidates = static_cast<BTree**>(malloc(kGradeStep * sizeof(void*)));
  if (grades == nullptr || candidates == nullptr) {
    // Start empty; the first candidate of a pass tries again.
    free(grades);
    free(candidates);
    grades = nullptr;
    candidates = nullptr;
    gradCapacity = 0;
  }
  pending = nullptr;
  stopper = nullptr;
  busy = 0;
}

CAFree::~CAFree() {
  std::vector<BTree*>().swap(WalkStack());  // CA_DEINIT gives back every block
  delete stopper;
  stopper = nullptr;
  CAFreeEntry* entry = pending;
  pending = nullptr;
  while (entry != nullptr) {
    CAFreeEntry* next = entry->next;
    delete entry->action;
    free(entry);
    entry = next;
  }
  free(grades);
  free(candidates);
  grades = nullptr;
  candidates = nullptr;
  // lock2, lock1 and clock are destroyed after this body, in that order.
}

// A record's deletion grade at `at` under `budget` (DeleteGrad's rule).
double EvictionGrade(const CARecord* record, time_t at, unsigned long budget) {
  if (record->flags & CAREC_PINNED) return 0;
  const long age = static_cast<long>(at - record->created);
  if (record->flags & CAREC_EXPIRES) {
    // Held or not, an expired record goes; before that it is never chosen.
    return record->lifetime <= age ? -1 : 0;
  }
  if (record->refCount != 0) return 0;
  // A record made in the pass's own second is never a candidate.
  if (age == 0) return 0;
  const double uses =
      static_cast<double>(static_cast<unsigned long>(record->hits) + 1);
  return (static_cast<double>(age + 1) / uses) * static_cast<double>(budget) +
         static_cast<double>(record->length);
}

double CAFree::DeleteGrad(BTree* node, unsigned long budget) {
  if (node == nullptr || node->payload == nullptr) return 0;
  return EvictionGrade(static_cast<const CARecord*>(node->payload), freeTime,
                       budget);
}

void CAFree::QuickSort(int lo, int hi) {
  // The two parts of a partition are disjoint, so sorting the smaller one
  // first (recursively) and the larger one in the loop gives the same
  // permutation as any other order while bounding the stack at log2(n).
  while (lo < hi) {
    const double pivot = grades[(lo + hi) / 2];
    int i = lo;
    int j = hi;
    do {
      while (grades[i] > pivot) ++i;
      while (grades[j] < pivot) --j;
      if (i < j) {
        std::swap(grades[i], grades[j]);
        std::swap(candidates[i], candidates[j]);
        ++i;
        --j;
      } else if (i == j) {
        ++i;
        --j;
      }
    } while (i <= j);
    assert(j < i);
    if (j - lo < hi - i) {
      if (j > lo) QuickSort(lo, j);
      lo = i;
    } else {
      if (i < hi) QuickSort(i, hi);
      hi = j;
    }
  }
}

namespace {

// The collection of a pass: walks the cache's tree in order and enters every
// record with a grade into the controller's arrays. Returns their number.
unsigned int CollectCandidates(CAFree* f, CACache* cache,
                               unsigned long budget) {
  unsigned int n = 0;
  auto enter = [&](BTree* graded) {
    const double grade = f->DeleteGrad(graded, budget);
    if (grade == 0) return;
    if (n == f->gradCapacity && !GrowGrades(f)) return;
    f->grades[n] = grade < 0 ? kForcedGrade : grade;
    f->candidates[n] = graded;
    ++n;
  };
  // Grading reads every record; each is fetched while the walk goes on,
  // and graded a few nodes later, still in the walk's order.
  BTree* ring[kGradeAhead];
  unsigned int walked = 0;
  WalkInOrder(cache->tree, WalkStack(), [&](BTree* node) {
    PrefetchRecord(node->payload);
    if (walked >= kGradeAhead) enter(ring[walked % kGradeAhead]);
    ring[walked++ % kGradeAhead] = node;
  });
  for (unsigned int k = walked > kGradeAhead ? walked - kGradeAhead : 0;
       k < walked; ++k) {
    enter(ring[k % kGradeAhead]);
  }
  return n;
}

// The erasing of a pass: the sorted candidates, best first, until
// `toDelete` bytes are gone, and then those graded at least kAlwaysGrade.
// 1 when the target was met, else 0.
int EraseCandidates(CAFree* f, CACacheAction* action, unsigned int n,
                    size_t toDelete) {
  long remaining = static_cast<long>(toDelete);
  unsigned int i = 0;
  for (; i < n; ++i) {
    if (remaining <= 0 && f->grades[i] < kAlwaysGrade) break;
    // The candidates' nodes and records lie anywhere: fetch them ahead.
    if (i + 2 * kGradeAhead < n)
      Prefetch(&f->candidates[i + 2 * kGradeAhead]->payload);
    if (i + kGradeAhead < n)
      PrefetchRecord(f->candidates[i + kGradeAhead]->payload);
    CARecord* record = static_cast<CARecord*>(f->candidates[i]->payload);
    if (record == nullptr) continue;
    const unsigned long length = record->length;
    remaining -= static_cast<long>(length);
    if (trace)
      trace->Write("CACACHE %zu. Delete %zu bytes", deleted + 1, length);
    action->EraseHandle(record);
    if (trace) trace->Write("CACACHE %zu. Deleted", deleted + 1);
    ++deleted;
  }
  // Stopping early means the target was met; running off the end leaves
  // the answer to what is still to delete (with no candidate: 0).
  return (i < n || remaining <= 0) ? 1 : 0;
}

}  // namespace

// A pass: collect, sort, erase.
int CAFree::Compress(CACacheAction* action) {
  // Nothing to reclaim without a cache.
  if (action == nullptr || action->cache == nullptr) return 1;
  CACache* cache = action->cache;
  RefreshTiming(cache);

  const unsigned int maxBytes = cache->params.maxBytes;
  const unsigned int mark = EvictionMark(maxBytes);
  const unsigned int allocated = cache->params.allocated;
  if (allocated <= mark) return 1;
  const size_t toDelete = allocated - mark;
  if (trace) trace->Write("CACACHE Cache has %zu bytes to delete", toDelete);

  // The erases below reach the free-node trigger; hold it off for the whole
  // pass so that no nested pass reuses the arrays or frees the nodes listed
  // in `candidates`.
  const int wasBusy = busy;
  busy = 1;

  deleted = 0;
  freeTime = time(nullptr);
  clock.Start();
#ifndef NDEBUG
  static unsigned long passes = 0;
  if (cache->params.nodes <= 1024 || ++passes % 1024 == 0)
    CheckWalkOrder(cache);
#endif
  const unsigned int n = StateOf(cache)->quietPass.Run(
      freeTime, maxBytes, cache->params.nodes,
      [&] { return CollectCandidates(this, cache, maxBytes); });
  if (trace) trace->Write("CACACHE Found %u record avaiable to delete", n);

  if (n >= 2) QuickSort(0, static_cast<int>(n) - 1);

  const int result = EraseCandidates(this, action, n, toDelete);

  if (trace) trace->Write("CACACHE %zu record deleted", deleted);
  RecordPass(cache, kEvictionSlot, clock.Stop());
  busy = wasBusy;
  if (!wasBusy) ApplyDeferredMode();  // may delete this controller
  return result;
}

void CAFree::RebuildTree(CACacheAction* action) {
  if (action == nullptr || action->cache == nullptr) return;
  CACache* cache = action->cache;
  RefreshTiming(cache);
  const unsigned int freeNodes = cache->params.nodes - cache->params.usedNodes;
  if (freeNodes <= kFreeNodeLimit) return;
  if (trace) {
    trace->Write("CACACHE Rebuild binary tree %u free tree node", freeNodes);
  }
  RefreshTiming(cache);

  clock.Start();
  BTree* batch[kRebuildBatch] = {};
  BTree* root = nullptr;
  unsigned int total = 0;
  int count = 0;
  // The index follows the new tree: it is refilled batch by batch, and no
  // key is looked up until the new tree is in place.
  CacheState* state = StateOf(cache);
  KeyIndex& index = state->index;
  index.Reset(cache->params.usedNodes);
  state->top.Reset();
  NodeArena fresh;  // the new tree's nodes
  BTree* made[kRebuildBatch];
  auto flush = [&] {
    InsertMedianFirst(&root, batch, 0, count - 1, &fresh);
    for (int i = 0; i < count; i++)
      made[i] = static_cast<CARecord*>(batch[i]->payload)->node;
    index.AddAll(made, count);
    total += count;
    count = 0;
  };
#ifndef NDEBUG
  CheckWalkOrder(cache);
#endif
  WalkInOrder(cache->tree, WalkStack(), [&](BTree* node) {
    if (node->payload == nullptr) return;
    // Each record learns its new node: fetch it while the walk goes on.
    Prefetch(&static_cast<CARecord*>(node->payload)->node, 1, true);
    batch[count++] = node;
    if (count == kRebuildBatch) flush();
  });
  if (count > 0) flush();

  cache->tree = root;
  if (root != nullptr) root->parentLink = &cache->tree;
  cache->params.nodes = total;
  cache->params.usedNodes = total;
  // The old nodes and their key copies go all at once with their arena;
  // the records now hang off the new nodes and are left alone.
  state->nodes.Swap(fresh);
  fresh.Release();

  RecordPass(cache, kRebuildSlot, clock.Stop());
}

void CAFree::InsRecurs(BTree** root, BTree** nodes, int lo, int hi) {
  InsertMedianFirst(root, nodes, lo, hi, nullptr);
}

void CAFree::TriggerFree(CACache* cache) {
  if (busy || cache == nullptr) return;
  busy = 1;
  // A handle of our own, so that the erases are timed and counted like any
  // other; it registers with the cache and unregisters when deleted.
  CACacheAction* action = new CACacheAction(cache);
  Compress(action);
  RebuildTree(action);
  delete action;
  busy = 0;
  ApplyDeferredMode();  // may delete this controller
}

void CAFree::Procedure() {
  if (pending == nullptr) return;
  // The erases of these passes must not start passes of their own.
  const int wasBusy = busy;
  busy = 1;
  for (CAFreeEntry* entry = pending; entry != nullptr && stopper == nullptr;
       entry = entry->next) {
    if (entry->action == nullptr || entry->action->cache == nullptr) {
      // Its cache is gone: nothing is left to reclaim.
      entry->done = 1;
      continue;
    }
    const int met = Compress(entry->action);
    RebuildTree(entry->action);
    entry->done = met != 0 ? 1 : 0;
  }
  busy = wasBusy;

  CAFreeEntry** link = &pending;
  while (*link != nullptr) {
    CAFreeEntry* entry = *link;
    if (entry->done) {
      *link = entry->next;
      delete entry->action;
      free(entry);
    } else {
      link = &entry->next;
    }
  }
  if (!wasBusy) ApplyDeferredMode();  // may delete this controller
}

void CAFree::DeleteFromList(CACache* cache) {
  if (cache == nullptr) return;
  CAFreeEntry** link = &pending;
  while (*link != nullptr) {
    CAFreeEntry* entry = *link;
    if (entry->action != nullptr && entry->action->cache == cache) {
      *link = entry->next;
      // Keep the handle's destructor away from the cache being destroyed.
      entry->action->cache = nullptr;
      delete entry->action;
      free(entry);
      return;
    }
    link = &entry->next;
  }
}
