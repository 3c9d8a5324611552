// SPDX-License-Identifier: MIT
// Caches, the registry and access handles; the record operations of a
// handle; listing; the reclamation triggers; the structure check.
#include <assert.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <unordered_set>
#include <vector>

#include "caconst.h"
#include "cainternal.h"
#include "prefetch.h"
#include "qmcache/qmcache.hpp"
#include "qmcache/ybtrace.h"

// ==== Caches, handles and record operations ==================================
//
// The registry (CACache::caches) maps cache names, zero byte included, to
// caches. A cache lives while a handle is registered in its `actions` table;
// the last handle to go destroys it. Every handle operation is timed with the
// handle's clock and recorded in the cache's `timing` slot 0, in its `stats`
// slot of the operation and in the same slot of MainStat, when it exists.

BTree* CACache::caches = nullptr;
CAUniq CACache::uniq;

namespace {

unsigned long KeyLengthOf(const char* name) { return strlen(name) + 1; }

unsigned char* KeyOf(const char* name) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(name));
}

// Adds one handle operation's time to the cache's and the library's slots.
void RecordTime(CACache* cache, int slot, double value) {
  cache->timing.Add(0, value);
  cache->stats.Add(slot, value);
  if (MainStat != nullptr) MainStat->Add(slot, value);
}

// Runs a reclamation pass of `cache` with the operation's clock suspended,
// so that the operation's own time leaves the pass out.
void TriggerWithClock(CACache* cache, CACacheAction* action) {
  if (action != nullptr) action->clock.Suspend();
  if (cafree != nullptr) cafree->TriggerFree(cache);
  if (action != nullptr) action->clock.Resume();
}

// The handles of the handle operations in progress on this thread, checked
// by a debug build: a release callback must not close one of them.
class InUse {
 public:
#ifdef NDEBUG
  explicit InUse(const CACacheAction*) {}
#else
  explicit InUse(const CACacheAction* action) { Handles().push_back(action); }
  ~InUse() { Handles().pop_back(); }
  static bool Has(const CACacheAction* action) {
    for (const CACacheAction* h : Handles())
      if (h == action) return true;
    return false;
  }

 private:
  static std::vector<const CACacheAction*>& Handles() {
    thread_local std::vector<const CACacheAction*> handles;
    return handles;
  }
#endif
};

// True when destroying `record` calls the host back, and the host may then
// use the library again, on this very cache too.
bool CallsBack(const CARecord* record) {
  return (record->flags & CAREC_CALLBACK) != 0 && free_handle != nullptr;
}

}  // namespace

// ---- The key index ---------------------------------------------------------

BTree* FindNode(CACache* cache, const unsigned char* key,
                unsigned long keyLength) {
  const KeyIndex& index = StateOf(cache)->index;
  BTree* descent = nullptr;
#ifdef NDEBUG
  if (index.usable()) return index.Find(key, keyLength);
#endif
  if (cache->tree != nullptr)
    descent = cache->tree->Search(const_cast<unsigned char*>(key), keyLength);
  assert(!index.usable() || index.Find(key, keyLength) == descent);
  return descent;
}

// ---- Caches and the registry ------------------------------------------------

CACacheAction* CACache::Create(char* name, CAParams* params) {
  unsigned long keyLength = KeyLengthOf(name);
  BTree* node;
  if (caches == nullptr) {
    node = new BTree(KeyOf(name), keyLength, nullptr, &caches);
    caches = node;
  } else {
    node = caches->Search(KeyOf(name), keyLength);
    if (node == nullptr) {
      int existed = 0;
      node = caches->Insert(KeyOf(name), keyLength, &existed);
    }
  }
  CACache* cache = static_cast<CACache*>(node->payload);
  if (cache != nullptr) {
    // Re-opening: fresh statistics and the caller's budget as given (a 0
    // here is a budget of 0, not the default).
    cache->stats.Cleanup();
    cache->timing.Cleanup();
    cache->params.maxBytes = params->maxBytes;
    NoteCandidate(cache, nullptr);
  } else {
    cache = new CACache(name, params);
    node->payload = cache;
  }
  cache->timing.Get(0, &cache->params.timing, kStatGetMode);
  memcpy(params, &cache->params, sizeof(CAParams));
  return new CACacheAction(cache);
}

int CACache::GetCacheStat(void* handle, CAParams* params) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action == nullptr || action->cache == nullptr) return 0;
  CACache* cache = action->cache;
  cache->timing.Get(0, &cache->params.timing, kStatGetMode);
  memcpy(params, &cache->params, sizeof(CAParams));
  return 1;
}

void CACache::Close(void* handle) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action != nullptr) action->Close();
}

void CACache::Delete(char* name) {
  if (caches == nullptr) return;
  BTree* node = caches->Search(KeyOf(name), KeyLengthOf(name));
  if (node == nullptr || node->payload == nullptr) return;
  CACache* cache = static_cast<CACache*>(node->payload);
  for (int i = 0; i < cache->actionSlots; i++)
    if (cache->actions[i] != nullptr) return;  // the last handle destroys it
  node->payload = nullptr;
  delete cache;
}

// Every handle is made invalid before the first record goes, and freed only
// once every cache is gone: a release callback that passes one, of any
// cache, gets the result of an invalid handle, never freed memory.
void CACache::CleanUp() {
  if (caches == nullptr) return;
  std::vector<CACacheAction*> handles;
  BTreeNumerator walk(caches, 0);
  for (BTree* node = walk.Next(); node != nullptr; node = walk.Next()) {
    CACache* cache = static_cast<CACache*>(node->payload);
    if (cache == nullptr) continue;
    cache->closing = 1;
    for (int i = 0; i < cache->actionSlots; i++) {
      CACacheAction* action = cache->actions[i];
      if (action == nullptr) continue;
      cache->actions[i] = nullptr;
      action->magic = 0;
      action->cache = nullptr;  // its deletion calls no cache back
      handles.push_back(action);
    }
  }
  BTreeNumerator again(caches, 0);
  for (BTree* node = again.Next(); node != nullptr; node = again.Next()) {
    delete static_cast<CACache*>(node->payload);
    node->payload = nullptr;
  }
  delete caches;
  caches = nullptr;
  for (CACacheAction* action : handles) delete action;
}

CACache::CACache(char* name, CAParams* params)
    : stats(kStatSlots), closing(0), timing(kTimingSlots) {
  memcpy(magic, kCacheMagic, sizeof(magic));
  tree = nullptr;
  this->name = strdup(name);
  actionSlots = kActionGrowth;
  actions = NewActionTable(kActionGrowth);
  memcpy(&this->params, params, sizeof(CAParams));
  if (this->params.maxBytes == 0) this->params.maxBytes = kDefaultBudget;
  this->params.allocated = 0;
  this->params.nodes = 0;
  this->params.usedNodes = 0;
  memset(&this->params.timing, 0, sizeof(_CAStat));
  timing.Get(0, &this->params.timing, kStatGetMode);
  memcpy(params, &this->params, sizeof(CAParams));
}

CACache::~CACache() {
  // With nodes 0 and usedNodes 1 before each unlink, FreeNode sees no free
  // node and starts no reclamation while the tree goes.
  params.nodes = 0;
  BTreeNumerator walk(tree, 0);
  for (BTree* node = walk.Next(); node != nullptr; node = walk.Next()) {
    params.usedNodes = 1;
    CARecord* record = static_cast<CARecord*>(node->payload);
    if (record == nullptr) continue;
    record->Unlink(nullptr);  // a held record survives, detached
  }
  // The nodes go all at once with their arena.
  tree = nullptr;
  StateOf(this)->nodes.Release();
  StateOf(this)->index.Reset(0);
  StateOf(this)->top.Reset();
  // Held records outlive the cache: they forget it, so that their last
  // release does not update this cache's byte count.
  OrphanDetachedRecords(this);
  for (int i = 0; i < actionSlots; i++) {
    CACacheAction* action = actions[i];
    if (action == nullptr) continue;
    if (action->cache == this) action->cache = nullptr;  // no call back
    delete action;
  }
  FreeActionTable(actions);
  actions = nullptr;
  if (cafree != nullptr) cafree->DeleteFromList(this);
  free(name);
  name = nullptr;
  // gate, timing and stats are destroyed in this order as members.
}

void CACache::InsertAction(CACacheAction* action) {
  for (int i = 0; i < actionSlots; i++) {
    if (actions[i] == nullptr) {
      actions[i] = action;
      return;
    }
  }
  int old = actionSlots;
  actions = GrowActionTable(actions, old, kActionGrowth);
  actions[old] = action;
  actionSlots = old + kActionGrowth;
}

int CACache::DeleteAction(CACacheAction* action) {
  int slot = -1;
  for (int i = 0; i < actionSlots; i++) {
    if (actions[i] == action) {
      slot = i;
      break;
    }
  }
  if (slot < 0) return 0;
  actions[slot] = nullptr;
  if (closing) return 1;
  for (int i = 0; i < actionSlots; i++)
    if (actions[i] != nullptr) return 1;
  // Last handle gone: empty the registry node, then destroy the cache.
  if (caches != nullptr) {
    BTree* node = caches->Search(KeyOf(name), KeyLengthOf(name));
    if (node != nullptr) node->payload = nullptr;
  }
  delete this;
  return 1;
}

// ---- Walking a cache's record tree ------------------------------------------

BTree* CACache::First(BTreeNumerator** iterator) {
  BTreeNumerator* walk = new BTreeNumerator(tree, 0);
  *iterator = walk;
  BTree* node = walk->Next();
  if (node == nullptr) {
    delete walk;
    *iterator = nullptr;
  }
  return node;
}

BTree* CACache::Next(BTreeNumerator** iterator) {
  // A walk that has already ended has no numerator left: nothing follows.
  if (iterator == nullptr || *iterator == nullptr) return nullptr;
  BTree* node = (*iterator)->Next();
  if (node == nullptr) {
    delete *iterator;
    *iterator = nullptr;
  }
  return node;
}

// ---- Reclamation triggers ---------------------------------------------------

void CACache::Allocated(unsigned long bytes, CACacheAction* action) {
  params.allocated += (unsigned int)bytes;
  if (cafree == nullptr || params.allocated <= params.maxBytes) return;
  TriggerWithClock(this, action);
}

bool CountFreeNode(CACache* cache) {
  cache->params.usedNodes -= 1;
  return cafree != nullptr &&
         cache->params.nodes - cache->params.usedNodes > kFreeNodeLimit;
}

void FireFreeNodeTrigger(CACache* cache, CACacheAction* action) {
  if (action == nullptr) {
    cafree->TriggerFree(cache);
    return;
  }
  TriggerWithClock(cache, action);
}

void CACache::FreeNode(CACacheAction* action) {
  if (CountFreeNode(this)) FireFreeNodeTrigger(this, action);
}

// ---- Handles ----------------------------------------------------------------

CACacheAction* CACacheAction::GetAction(void* handle) {
  if (handle == nullptr) return nullptr;
  unsigned long magic;
  memcpy(&magic, handle, sizeof(magic));
  return magic == kHandleMagic ? static_cast<CACacheAction*>(handle) : nullptr;
}

CACacheAction::CACacheAction(CACache* cache) {
  assert(cache != nullptr);
  this->cache = cache;
  magic = kHandleMagic;
  cache->InsertAction(this);
}

CACacheAction::~CACacheAction() {
  // Freed memory must not pass for a handle while it stays unused.
  magic = 0;
  if (cache != nullptr) cache->DeleteAction(this);
}

void CACacheAction::Close() {
  if (magic != kHandleMagic) return;
  assert(!InUse::Has(this) &&
         "a release callback closed the handle of a call in progress");
  magic = 0;
  if (cache != nullptr) {
    cache->params.maxBytes = 0;
    if (cache->tree != nullptr) cache->tree->ClearAttr();
    NoteCandidate(cache, nullptr);  // pinned records may go now
  }
  delete this;
}

// ---- Record operations ------------------------------------------------------

namespace {

// The key's node in the cache's tree, added (empty) when the key is new;
// `existed` tells which. Only a new key descends the tree, to link its node
// in (the root may change: nothing keeps it). The key's slot in the index
// is fetched first, and looked at once the tree's top has been read.
BTree* NodeForKey(CACache* c, unsigned char* key, unsigned long keyLength,
                  int* existed) {
  CacheState* state = StateOf(c);
  state->index.PrefetchSlot(key, keyLength);
  auto find = [&] { return FindNode(c, key, keyLength); };
  BTree* node;
  if (c->tree == nullptr) {
    *existed = 0;
    node = state->nodes.Make(key, keyLength, nullptr, &c->tree);
    c->tree = node;
  } else {
    node = state->top.Insert(c->tree, key, keyLength, existed, &state->nodes,
                             c->params.nodes, find);
    if (*existed != 0) return node;
  }
  state->index.Add(node);
  return node;
}

}  // namespace

// Replacing a record unlinks the old one, and the free-node trigger that the
// unlink would fire may rebuild the tree, discarding the very node the insert
// is about to fill. The replacement therefore unlinks the old record itself
// and defers that trigger: it fires once the new record is attached and
// charged (or dropped), unless the charge ran a pass of its own.
//
// Destroying the old record may call the host's release callback, which may
// use the library again, on this cache too: store a record under this very
// key, erase others, start a pass or a rebuild that discards the emptied
// node. After such a callback the key's node is looked up again (and made
// anew if a rebuild discarded it), and a record the callback stored there is
// replaced in turn, so the record this insert stores is the one that stays.
int CACacheAction::Insert(int tag, int flags, long lifetime,
                          unsigned long keyLength, void* key,
                          unsigned long size, unsigned long length,
                          void* data) {
  if (cache == nullptr) return -1;
  InUse use(this);
  clock.Start();
  CACache* c = cache;
  unsigned char* bytes = static_cast<unsigned char*>(key);
  int existed = 0;
  BTree* node = NodeForKey(c, bytes, keyLength, &existed);
  const int result = existed ? 0 : 1;

  bool due = false;  // the free-node trigger that the replacement deferred
  if (existed) {
    while (node->payload != nullptr) {
      CARecord* old = static_cast<CARecord*>(node->payload);
      const bool callsBack = old->refCount == 0 && CallsBack(old);
      UnlinkDeferringTrigger(old, &due);
      if (!callsBack) break;
      int again = 0;
      node = NodeForKey(c, bytes, keyLength, &again);
      if (!again) c->params.nodes += 1;  // a rebuild discarded the node
    }
    // A replaced node keeps its count; an empty one counts again.
    c->params.usedNodes += 1;
  } else {
    c->params.usedNodes += 1;
    c->params.nodes += 1;
  }
  CARecord* record =
      NewRecord(size, length, data, node, c, tag, flags, lifetime);
  if (!record->valid) {
    // Dropped: the node stays empty, its count stays raised and nothing is
    // recorded. The callback (if asked for) sees the dropped record.
    DeleteRecord(record);
    if (due) TriggerWithClock(c, this);
    return result;
  }
  node->payload = record;
  NoteCandidate(c, record);
  // Charged before the deferred trigger fires, so that no pass meets an
  // uncharged record. A charge that crosses the budget runs a whole pass
  // (eviction, then rebuild), which also serves the deferred trigger: it is
  // not run a second time.
  const bool budgetPass =
      cafree != nullptr &&
      c->params.allocated + (unsigned int)length > c->params.maxBytes;
  c->Allocated(length, this);
  if (due && !budgetPass) TriggerWithClock(c, this);
  RecordTime(c, CASTAT_INSERT, clock.Stop());
  return result;
}

CARecord* CACacheAction::Search(long maxAge, unsigned long keyLength,
                                void* key) {
  if (cache == nullptr) return nullptr;
  clock.Start();
  CARecord* record = nullptr;
  BTree* node = FindNode(cache, static_cast<unsigned char*>(key), keyLength);
  if (node != nullptr) record = static_cast<CARecord*>(node->payload);
  if (record != nullptr) {
    // A hit is usually followed by a query and a read of the data, which
    // lies behind the record: its first lines are fetched all at once.
    Prefetch(record, 3);
  }
  if (record != nullptr && maxAge != 0) {
    // The age is signed: a record made after the clock stepped back is
    // younger than 0 seconds, and a limit above that age still finds it.
    const long age = (long)(time(nullptr) - record->created);
    if (age >= maxAge) record = nullptr;
  }
  double value;
  if (record == nullptr) {
    value = clock.Stop();
    RecordTime(cache, CASTAT_SEARCH, value);
    return nullptr;
  }
  record->hits += 1;
  record->refCount += 1;
  value = clock.Stop();
  RecordTime(cache, CASTAT_SEARCH, value);
  cache->stats.Add(CASTAT_SEARCH_HIT, value);
  if (MainStat != nullptr) MainStat->Add(CASTAT_SEARCH_HIT, value);
  return record;
}

int CACacheAction::Query(void* record, CAQuery* query) {
  if (cache == nullptr || record == nullptr) return 0;
  CARecord* r = static_cast<CARecord*>(record);
  time_t now = time(nullptr);
  clock.Start();
  query->hits = (int)r->hits;
  query->tag = r->tag;
  query->flags = r->flags;
  query->age = (int)((unsigned int)now - (unsigned int)r->created);
  if (r->node != nullptr) {
    query->keyLength = (int)r->node->keyLength;
    query->key = r->node->key;
  } else {
    query->keyLength = 0;
    query->key = nullptr;
  }
  query->dataLength = (int)r->size;
  query->length = (int)r->length;
  query->data = r->data;
  RecordTime(cache, CASTAT_QUERY, clock.Stop());
  return 1;
}

void CACacheAction::FreeHandle(void* record) {
  if (cache == nullptr || record == nullptr) return;
  InUse use(this);
  CACache* c = cache;
  clock.Start();
  static_cast<CARecord*>(record)->Free();
  RecordTime(c, CASTAT_RELEASE, clock.Stop());
}

void CACacheAction::EraseHandle(void* record) {
  if (cache == nullptr || record == nullptr) return;
  InUse use(this);
  CACache* c = cache;
  clock.Start();
  static_cast<CARecord*>(record)->Erase(this);
  RecordTime(c, CASTAT_ERASE, clock.Stop());
}

void CACacheAction::EraseHandle(CARecord* record) {
  if (cache == nullptr || record == nullptr) return;
  InUse use(this);
  CACache* c = cache;
  clock.Start();
  // The extra hold makes the erase take none of the host's holds away.
  record->refCount += 1;
  record->Erase(this);
  RecordTime(c, CASTAT_ERASE, clock.Stop());
}

// ---- Listing ----------------------------------------------------------------

void** CACacheAction::GetCacheAsList(int* count) {
  int local = 0;
  if (count == nullptr) count = &local;
  *count = 0;
  if (cache == nullptr || cache->params.nodes == 0) return nullptr;
  void** list = static_cast<void**>(calloc(cache->params.nodes, sizeof(void*)));
  if (list == nullptr) return nullptr;
  if (cache->tree == nullptr) return list;
  *count = TreeToArray(cache->tree, list, count);
  return list;
}

// Pre-order over `node`'s subtree (WalkPreorder). A node without a record
// is skipped but the records below it are listed: a host expects the list
// to hold every record.
int CACacheAction::TreeToArray(BTree* node, void** list, int* count) {
  WalkPreorder(node, [list, count](BTree* n) {
    if (n->payload != nullptr) list[(*count)++] = n->payload;
  });
  return *count;
}

void CACacheAction::FreeList(void* list) { free(list); }

// ==== Structure check
// =========================================================
//
// CheckCache walks the registry and tests every cache, its handle table,
// its record tree and every record, stopping at the first fault. Unless the
// trace identifier is 0 (a silent check: nothing is formatted or written),
// the fault is reported to the trace service as text entries and labelled
// dumps. Pointer values from 1 to 1000 are never valid addresses.
//
// Report lines are formatted into cache_buf with snprintf, so a line that
// quotes a long name is cut at 511 characters; the length handed to the
// trace service is what was actually written. Dump lengths above 65535 (the
// service's limit) are cut to 65535.
//
// The record tree is walked without recursion, because a damaged tree can
// be deeper than its height fields admit: a heap stack of pending nodes
// reproduces the recursive order (node fields, left subtree, left link,
// right subtree, right link, record) and so the same first fault.

char CACache::cache_buf[512];

namespace {

// A pointer that must be present: faulty when null or a small integer.
bool CheckMissing(const void* p) {
  return reinterpret_cast<uintptr_t>(p) <= kLowestAddress;
}

// A pointer that may be absent: faulty when a small integer.
bool CheckImplausible(const void* p) { return p != nullptr && CheckMissing(p); }

unsigned short CheckLength(size_t length) {
  return static_cast<unsigned short>(length > 0xFFFF ? 0xFFFF : length);
}

// A text entry formatted into CACache::cache_buf.
__attribute__((format(printf, 2, 3))) void CheckText(unsigned int traceId,
                                                     const char* format, ...) {
  if (traceId == 0) return;
  va_list args;
  va_start(args, format);
  // The analyser misses va_start above (a known false report).
  // NOLINTBEGIN(clang-analyzer-valist.Uninitialized)
  const int n =
      vsnprintf(CACache::cache_buf, sizeof CACache::cache_buf, format, args);
  // NOLINTEND(clang-analyzer-valist.Uninitialized)
  va_end(args);
  size_t written = n < 0 ? 0 : static_cast<size_t>(n);
  if (written > sizeof(CACache::cache_buf) - 1) {
    written = sizeof(CACache::cache_buf) - 1;
  }
  YBTRACE_Text(traceId, CACache::cache_buf, CheckLength(written));
}

// A text entry without conversions, passed as it is.
void CheckPlainText(unsigned int traceId, const char* text) {
  if (traceId == 0) return;
  YBTRACE_Text(traceId, text, CheckLength(strlen(text)));
}

void CheckDump(unsigned int traceId, const char* label, const void* address,
               size_t length) {
  if (traceId == 0) return;
  YBTRACE_Trace2(traceId, label, address, CheckLength(length));
}

void CheckBanner(unsigned int traceId, CACache* cache) {
  CheckText(traceId, "CACache - name: '%s', address: %p", cache->name,
            static_cast<void*>(cache));
  CheckDump(traceId, "CACache structure", cache, sizeof(CACache));
}

void CheckNodeDump(unsigned int traceId, const char* label,
                   const char* keyLabel, BTree* node) {
  CheckDump(traceId, label, node, sizeof(BTree));
  CheckDump(traceId, keyLabel, node->key, node->keyLength);
}

// The tests of a node's own fields; 1 after reporting a fault.
int CheckNodeFields(unsigned int traceId, BTree* n, CACache* cache) {
  if (memcmp(n->magic, kNodeMagic, sizeof(n->magic)) != 0 ||
      n->leftHeight > kMaxHeight || n->rightHeight > kMaxHeight ||
      n->keyLength == 0 || n->keyLength > kMaxKeyLength ||
      CheckMissing(n->key)) {
    if (traceId != 0) {
      CheckBanner(traceId, cache);
      CheckText(traceId, "invalid BTree structure - address: %p",
                static_cast<void*>(n));
      CheckDump(traceId, "BTree structure", n, sizeof(BTree));
      if (n->keyLength >= 1 && n->keyLength <= kMaxKeyLength - 1 &&
          !CheckMissing(n->key)) {
        CheckDump(traceId, "BTree key", n->key, n->keyLength);
      }
    }
    return 1;
  }
  if ((n->left != nullptr && (CheckMissing(n->left) || n->leftHeight == 0)) ||
      (n->right != nullptr &&
       (n->rightHeight == 0 || CheckMissing(n->right))) ||
      CheckImplausible(n->payload)) {
    if (traceId != 0) {
      CheckBanner(traceId, cache);
      CheckText(traceId, "invalid BTree structure - address: %p",
                static_cast<void*>(n));
      CheckNodeDump(traceId, "BTree structure", "BTree key", n);
    }
    return 1;
  }
  return 0;
}

// The link from `n` to its child `child` (either side).
void CheckReportLink(unsigned int traceId, BTree* n, BTree* child,
                     CACache* cache) {
  if (traceId == 0) return;
  CheckBanner(traceId, cache);
  CheckText(traceId, "invalid BTree structures - address1: %p, address2: %p",
            static_cast<void*>(n), static_cast<void*>(child));
  CheckNodeDump(traceId, "BTree structure1", "BTree key1", n);
  CheckNodeDump(traceId, "BTree structure2", "BTree key2", child);
}

// The node's record, if any; 1 after reporting a fault.
int CheckRecord(unsigned int traceId, BTree* n, CACache* cache) {
  CARecord* r = static_cast<CARecord*>(n->payload);
  if (r == nullptr) return 0;
  if (r->checkmem(r->length) == 0 && r->cache == cache && r->node == n) {
    return 0;
  }
  if (traceId != 0) {
    CheckBanner(traceId, cache);
    CheckText(traceId, "BTree address: %p", static_cast<void*>(n));
    CheckNodeDump(traceId, "BTree structure", "BTree key", n);
    CheckText(traceId, "invalid CARecord structure - address: %p",
              static_cast<void*>(r));
    CheckDump(traceId, "CARecord structure", r, sizeof(CARecord));
  }
  return 1;
}

// The tests of one cache before its tree; 1 after reporting a fault.
int CheckCacheFields(unsigned int traceId, CACache* c) {
  if (memcmp(c->magic, kCacheMagic, sizeof(c->magic)) != 0) {
    if (traceId != 0) {
      if (!CheckMissing(c->name)) {
        CheckText(traceId,
                  "invalid CACache structure - name: '%s', address: %p",
                  c->name, static_cast<void*>(c));
      } else {
        CheckText(traceId, "invalid CACache structure - address: %p",
                  static_cast<void*>(c));
      }
      CheckDump(traceId, "CACache structure", c, sizeof(CACache));
    }
    return 1;
  }
  if (CheckMissing(c->name)) {
    CheckText(traceId, "invalid CACache structure - address: %p",
              static_cast<void*>(c));
    CheckDump(traceId, "CACache structure", c, sizeof(CACache));
    return 1;
  }
  if (CheckMissing(c->actions) || CheckImplausible(c->tree)) {
    CheckText(traceId, "invalid CACache structure - name: '%s', address: %p",
              c->name, static_cast<void*>(c));
    CheckDump(traceId, "CACache structure", c, sizeof(CACache));
    return 1;
  }
  size_t nameLength = strlen(c->name);
  if (nameLength > kMaxCacheName) {
    CheckText(traceId, "CACache address: %p", static_cast<void*>(c));
    CheckDump(traceId, "CACache structure", c, sizeof(CACache));
    CheckPlainText(traceId, "invalid CACache name");
    CheckDump(traceId, "CACache name", c->name, nameLength);
    return 1;
  }
  for (int i = 0; i < c->actionSlots; ++i) {
    CACacheAction* h = c->actions[i];
    if (h == nullptr) continue;
    if (!CheckMissing(h) && h->magic == kHandleMagic && h->cache == c) {
      continue;
    }
    if (traceId != 0) {
      CheckBanner(traceId, c);
      CheckDump(traceId, "Actions table", c->actions,
                static_cast<size_t>(c->actionSlots) * sizeof(void*));
      CheckText(traceId,
                "invalid CACacheAction address or structure - address: %p",
                static_cast<void*>(h));
      // A small-integer handle pointer cannot be read, so it is not dumped.
      if (!CheckMissing(h)) {
        CheckDump(traceId, "CACacheAction structure", h, sizeof(CACacheAction));
      }
    }
    return 1;
  }
  return 0;
}

}  // namespace

int CACache::CheckCache(unsigned int traceId) {
  if (caches == nullptr) return 0;
  BTreeNumerator walk(caches, 0);
  while (BTree* node = walk.Next()) {
    if (node->payload == nullptr) continue;
    CACache* c = static_cast<CACache*>(node->payload);
    // Registry nodes are not tested, but a small-integer cache pointer
    // cannot even be read: it is reported by its address alone.
    if (CheckMissing(c)) {
      CheckText(traceId, "invalid CACache structure - address: %p",
                static_cast<void*>(c));
      return 1;
    }
    if (CheckCacheFields(traceId, c) != 0) return 1;
    if (c->tree == nullptr) continue;
    if (BTreeCheck(traceId, c->tree, c) != 0) return 1;
    if (c->tree->parentLink != &c->tree) {
      if (traceId != 0) {
        CheckPlainText(traceId, "invalid CACache or BTree structure");
        CheckBanner(traceId, c);
        CheckText(traceId, "BTree address: %p", static_cast<void*>(c->tree));
        CheckDump(traceId, "BTree structure", c->tree, sizeof(BTree));
      }
      return 1;
    }
  }
  return 0;
}

// WalkDepthFirst gives the recursive order: a node's fields on reaching it,
// its left subtree, its left link, its right subtree, its right link, its
// record. A child that is already on the path (a cycle, possible only with
// damaged links) is reported as a bad link at once, since its subtree would
// never end.
int CACache::BTreeCheck(unsigned int traceId, BTree* node, CACache* cache) {
  std::unordered_set<BTree*> onPath;
  // The link from `n` through `link` (&n->left or &n->right), reported when
  // the child does not point back.
  auto badLink = [&](BTree* n, BTree** link) {
    BTree* child = *link;
    if (child == nullptr || (child->parent == n && child->parentLink == link))
      return false;
    CheckReportLink(traceId, n, child, cache);
    return true;
  };
  const bool sound = WalkDepthFirst(
      node,
      [&](BTree* n, BTree* parent) {
        if (parent != nullptr && onPath.count(n) != 0) {
          CheckReportLink(traceId, parent, n, cache);
          return false;
        }
        if (CheckNodeFields(traceId, n, cache) != 0) return false;
        onPath.insert(n);
        return true;
      },
      [&](BTree* n) { return !badLink(n, &n->left); },
      [&](BTree* n) {
        if (badLink(n, &n->right) || CheckRecord(traceId, n, cache) != 0)
          return false;
        onPath.erase(n);
        return true;
      });
  return sound ? 0 : 1;
}
