// Caches, the registry and access handles; the record operations of a
// handle; listing; the reclamation triggers; the structure check.
#include <assert.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qmcache/qmcache.hpp"

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

// "CAAC" followed by four zero bytes, read as a little-endian 64-bit word.
constexpr unsigned long kHandleMagic = 0x43414143UL;
constexpr unsigned int kDefaultBudget = 1048576;
// More free (record-less) nodes than this start a reclamation pass.
constexpr unsigned int kFreeNodeLimit = 20000;
constexpr int kActionGrowth = 16;

// Replacing a record unlinks the old one, and the free-node trigger that the
// unlink can fire may rebuild the tree, discarding the very node the insert
// is about to fill. While an insert replaces a record in `replacingIn`,
// FreeNode therefore only notes that a trigger is due; the insert fires it
// once the new record is attached (and charged) or dropped.
CACache* replacingIn = nullptr;
bool triggerDue = false;

// Opens the deferral window for one replacement; the destructor closes it,
// also when constructing the new record throws.
class ReplaceWindow {
 public:
  explicit ReplaceWindow(CACache* cache) {
    assert(replacingIn == nullptr);
    replacingIn = cache;
    triggerDue = false;
  }
  ~ReplaceWindow() { Close(); }
  // Ends the window; true when FreeNode asked for a trigger inside it.
  bool Close() {
    bool due = triggerDue;
    replacingIn = nullptr;
    triggerDue = false;
    return due;
  }

  ReplaceWindow(const ReplaceWindow&) = delete;
  ReplaceWindow& operator=(const ReplaceWindow&) = delete;
};

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

}  // namespace

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
  } else {
    cache = new CACache(name, params);
    node->payload = cache;
  }
  cache->timing.Get(0, &cache->params.timing, 1);
  memcpy(params, &cache->params, sizeof(CAParams));
  return new CACacheAction(cache);
}

int CACache::GetCacheStat(void* handle, CAParams* params) {
  CACacheAction* action = CACacheAction::GetAction(handle);
  if (action == nullptr || action->cache == nullptr) return 0;
  CACache* cache = action->cache;
  cache->timing.Get(0, &cache->params.timing, 1);
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

void CACache::CleanUp() {
  if (caches == nullptr) return;
  BTreeNumerator walk(caches, 0);
  for (BTree* node = walk.Next(); node != nullptr; node = walk.Next()) {
    CACache* cache = static_cast<CACache*>(node->payload);
    if (cache == nullptr) continue;
    cache->closing = 1;  // handles leave without destroying the cache
    for (int i = 0; i < cache->actionSlots; i++) {
      if (cache->actions[i] != nullptr) {
        delete cache->actions[i];
        cache->actions[i] = nullptr;
      }
    }
    delete cache;
    node->payload = nullptr;
  }
  delete caches;
  caches = nullptr;
}

CACache::CACache(char* name, CAParams* params)
    : stats(8), closing(0), timing(1) {
  memcpy(magic, "%%CC", 4);
  tree = nullptr;
  this->name = strdup(name);
  actionSlots = kActionGrowth;
  actions = static_cast<CACacheAction**>(
      calloc(kActionGrowth, sizeof(CACacheAction*)));
  memcpy(&this->params, params, sizeof(CAParams));
  if (this->params.maxBytes == 0) this->params.maxBytes = kDefaultBudget;
  this->params.allocated = 0;
  this->params.nodes = 0;
  this->params.usedNodes = 0;
  memset(&this->params.timing, 0, sizeof(_CAStat));
  timing.Get(0, &this->params.timing, 1);
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
    // A held record outlives the cache: forget the cache so that its last
    // release does not update this cache's byte count.
    bool held = record->refCount > 0;
    record->Unlink(nullptr);
    if (held) record->cache = nullptr;
  }
  delete tree;
  tree = nullptr;
  for (int i = 0; i < actionSlots; i++) {
    CACacheAction* action = actions[i];
    if (action == nullptr) continue;
    if (action->cache == this) action->cache = nullptr;  // no call back
    delete action;
  }
  free(actions);
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
  actions = static_cast<CACacheAction**>(
      realloc(actions, (old + kActionGrowth) * sizeof(CACacheAction*)));
  memset(actions + old, 0, kActionGrowth * sizeof(CACacheAction*));
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

void CACache::FreeNode(CACacheAction* action) {
  params.usedNodes -= 1;
  if (cafree == nullptr || params.nodes - params.usedNodes <= kFreeNodeLimit)
    return;
  if (replacingIn == this) {
    triggerDue = true;  // the replacing insert fires it (see ReplaceWindow)
    return;
  }
  if (action == nullptr) {
    cafree->TriggerFree(this);
    return;
  }
  TriggerWithClock(this, action);
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
  magic = 0;
  if (cache != nullptr) {
    cache->params.maxBytes = 0;
    if (cache->tree != nullptr) cache->tree->ClearAttr();
  }
  delete this;
}

// ---- Record operations ------------------------------------------------------

int CACacheAction::Insert(int tag, int flags, long lifetime,
                          unsigned long keyLength, void* key,
                          unsigned long size, unsigned long length,
                          void* data) {
  if (cache == nullptr) return -1;
  clock.Start();
  CACache* c = cache;
  unsigned char* bytes = static_cast<unsigned char*>(key);
  int existed = 0;
  BTree* node;
  if (c->tree == nullptr) {
    node = new BTree(bytes, keyLength, nullptr, &c->tree);
    c->tree = node;
  } else {
    node = c->tree->Insert(bytes, keyLength, &existed);
  }
  int result = existed ? 0 : 1;

  ReplaceWindow window(c);
  if (existed) {
    if (node->payload != nullptr)
      static_cast<CARecord*>(node->payload)->Unlink(this);
    // A replaced node keeps its count; an empty one counts again.
    c->params.usedNodes += 1;
  } else {
    c->params.usedNodes += 1;
    c->params.nodes += 1;
  }
  CARecord* record =
      new CARecord(size, length, data, node, c, tag, flags, lifetime);
  if (record->valid) node->payload = record;
  // The window closes before the budget check: the erases of a pass started
  // there must not be taken for the replacement's own free node.
  bool due = window.Close();
  if (!record->valid) {
    // Dropped: the node stays empty, its count stays raised and nothing is
    // recorded. The callback (if asked for) sees the dropped record.
    delete record;
    if (due) TriggerWithClock(c, this);
    return result;
  }
  // Charged before the deferred trigger fires, so that no pass meets an
  // uncharged record.
  c->Allocated(length, this);
  if (due) TriggerWithClock(c, this);
  RecordTime(c, CASTAT_INSERT, clock.Stop());
  return result;
}

CARecord* CACacheAction::Search(long maxAge, unsigned long keyLength,
                                void* key) {
  if (cache == nullptr) return nullptr;
  clock.Start();
  CARecord* record = nullptr;
  if (cache->tree != nullptr) {
    BTree* node =
        cache->tree->Search(static_cast<unsigned char*>(key), keyLength);
    if (node != nullptr) record = static_cast<CARecord*>(node->payload);
  }
  if (record != nullptr && maxAge != 0) {
    time_t now = time(nullptr);
    // A negative limit never hits, whatever the clock did.
    if (maxAge < 0 || (long)(now - record->created) >= maxAge) record = nullptr;
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
  CACache* c = cache;
  clock.Start();
  static_cast<CARecord*>(record)->Free();
  RecordTime(c, CASTAT_RELEASE, clock.Stop());
}

void CACacheAction::EraseHandle(void* record) {
  if (cache == nullptr || record == nullptr) return;
  CACache* c = cache;
  clock.Start();
  static_cast<CARecord*>(record)->Erase(this);
  RecordTime(c, CASTAT_ERASE, clock.Stop());
}

void CACacheAction::EraseHandle(CARecord* record) {
  if (cache == nullptr || record == nullptr) return;
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

// Pre-order over `node`'s subtree, iterative along parent links so that a
// chain-shaped tree needs no stack. A node without a record is skipped but
// the records below it are listed: a host expects the list to hold every
// record of the cache.
int CACacheAction::TreeToArray(BTree* node, void** list, int* count) {
  BTree* current = node;
  while (current != nullptr) {
    if (current->payload != nullptr) list[(*count)++] = current->payload;
    if (current->left != nullptr) {
      current = current->left;
      continue;
    }
    if (current->right != nullptr) {
      current = current->right;
      continue;
    }
    // A leaf: climb to the nearest ancestor whose right subtree is unseen.
    for (;;) {
      if (current == node) return *count;
      BTree* parent = current->parent;
      if (current == parent->left && parent->right != nullptr) {
        current = parent->right;
        break;
      }
      current = parent;
    }
  }
  return *count;
}

void CACacheAction::FreeList(void* list) { free(list); }

// ==== Structure check =========================================================
