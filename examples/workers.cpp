// SPDX-License-Identifier: MIT
// workers: the library's building blocks in a multi-threaded C++ host.
//
// Four worker threads (CAThread) count the words of a text into one key tree
// (BTree) and leave a summary each in a cache. The tree and the cache do no
// locking of their own, so the host serialises every use of them with one
// CAMutex; CA_INIT(0) makes the lock classes really lock. A fifth thread
// ticks until it is asked to stop. Every thread writes to the trace log.
//
// Usage: workers [trace-log-path]   (default: workers.trace)
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "qmcache/qmcache.hpp"

namespace {

const char* const kText[] = {
    "the cache keeps named caches of keyed records inside the process",
    "a record is a copy of the host's data stored under a byte string key",
    "the host holds a handle for each cache and serialises its calls",
    "when the bytes of a cache pass its budget the worst records go",
    "old records that are seldom read go first and long ones before short",
    "a pinned record stays and an expiring record goes when its time is up",
    "the key tree keeps every key and rotates once where that helps",
    "the trace log writes one line for each call and flushes it at once",
};
const int kLines = sizeof kText / sizeof kText[0];
const int kWorkers = 4;

// What the workers share. `lock` guards `words` and every call on `cache`.
struct Shared {
  CAMutex lock;
  BTree* words = nullptr;  // root holder: word -> heap count (payload)
  void* cache = nullptr;   // handle on the cache "summaries"
  int lockTimeouts = 0;    // entries that did not succeed within 1000 ms
};

// Adds one to the count of `word` in the tree. Caller holds shared.lock.
void CountWord(Shared* shared, const char* word, unsigned long length) {
  unsigned char* key = (unsigned char*)word;
  BTree* node;
  if (shared->words == nullptr) {
    // A new tree: the root's parent link is the root holder itself.
    node = new BTree(key, length, nullptr, &shared->words);
    shared->words = node;
  } else {
    int existed = 0;
    // Insert may rotate the root; the holder is updated through the links.
    node = shared->words->Insert(key, length, &existed);
  }
  if (node->payload == nullptr) node->payload = calloc(1, sizeof(long));
  ++*static_cast<long*>(node->payload);
}

// Counts the words of every kWorkers-th line, starting at line `first`.
class WordCounter : public CAThread {
 public:
  WordCounter(Shared* shared, int id) : shared_(shared), id_(id) {}
  // Procedure uses this object's members: stop the thread before they go.
  ~WordCounter() override { Stop(); }

  void Procedure() override {
    int counted = 0;
    for (int line = id_; line < kLines; line += kWorkers) {
      const char* p = kText[line];
      while (*p != '\0') {
        unsigned long n = strcspn(p, " ");
        if (n > 0) {
          if (shared_->lock.Enter(1000) == 1) {
            CountWord(shared_, p, n);
            shared_->lock.Exit();
            ++counted;
          } else {
            __atomic_add_fetch(&shared_->lockTimeouts, 1, __ATOMIC_SEQ_CST);
          }
        }
        p += n;
        p += strspn(p, " ");
      }
    }
    // Leave a summary in the cache; cache calls are serialised like the tree.
    char key[16], summary[64];
    int keyLength = snprintf(key, sizeof key, "worker/%d", id_);
    int size = snprintf(summary, sizeof summary, "worker %d counted %d words",
                        id_, counted) +
               1;
    if (shared_->lock.Enter(1000) == 1) {
      CA_INSERT(shared_->cache, id_, 0, 0, keyLength, key, size, size, summary);
      shared_->lock.Exit();
    }
    // The trace log serialises its own writers.
    if (trace != nullptr) trace->Write("WORKERS %s", summary);
    done.Set();
  }

  CAEvent done;

 private:
  Shared* shared_;
  int id_;
};

// Ticks every 10 ms until Stop asks it to end.
class Ticker : public CAThread {
 public:
  ~Ticker() override { Stop(); }
  void Procedure() override {
    while (__atomic_load_n(&stopRequest, __ATOMIC_SEQ_CST) == 0) {
      CASleep(10);
      __atomic_add_fetch(&ticks, 1, __ATOMIC_SEQ_CST);
    }
    if (trace != nullptr) trace->Write("WORKERS ticker stopped");
  }
  int ticks = 0;
};

}  // namespace

int main(int argc, char** argv) {
  const char* tracePath = argc > 1 ? argv[1] : "workers.trace";
  int failures = 0;

  // The host installs the log; from here on the library owns it.
  trace = new Trace(tracePath);
  printf("trace log: %s\n", tracePath);
  CA_INIT(0);  // real locking: the threads below share a CAMutex
  printf("CA_INIT(0): SingleThreaded is %d\n", SingleThreaded);

  Shared shared;
  CAParams params;
  memset(&params, 0, sizeof params);
  shared.cache = CA_CREATE("summaries", &params);

  Ticker ticker;
  ticker.Start(0, nullptr);

  std::vector<WordCounter*> workers;
  for (int i = 0; i < kWorkers; ++i) {
    workers.push_back(new WordCounter(&shared, i));
    workers.back()->Start(0, nullptr);
  }
  for (WordCounter* w : workers) {
    if (w->done.Wait(5000) != 1) {
      printf("a worker did not finish within 5 s\n");
      ++failures;
    }
  }
  for (WordCounter* w : workers) delete w;  // Stop sees the thread finished

  // All workers are gone: the tree and the cache need no lock from here on.
  int distinct = shared.words != nullptr ? shared.words->CheckTreeRoot() : 0;
  long total = 0;
  const char* top = "";
  int topLength = 0;
  long topCount = 0;
  printf("\n%d distinct words, in the key tree's order:\n ", distinct);
  BTreeNumerator walk(shared.words, 0);
  int column = 1;
  for (BTree* node = walk.Next(); node != nullptr; node = walk.Next()) {
    long count = *static_cast<long*>(node->payload);
    total += count;
    if (count > topCount) {
      topCount = count;
      top = (const char*)node->key;
      topLength = (int)node->keyLength;
    }
    column += printf(" %.*s", (int)node->keyLength, (const char*)node->key);
    if (column > 70) {
      printf("\n ");
      column = 1;
    }
  }
  printf("\n%ld words in all; the most frequent is '%.*s' (%ld times)\n", total,
         topLength, top, topCount);
  printf("the mutex was entered %d times, %d entries timed out\n",
         shared.lock.entries, shared.lockTimeouts);

  long expected = 0;
  for (int line = 0; line < kLines; ++line) {
    for (const char* p = kText[line]; *p != '\0'; ++p) {
      if (*p != ' ' && (p == kText[line] || p[-1] == ' ')) ++expected;
    }
  }
  if (total != expected || shared.lockTimeouts != 0) {
    printf("error: expected %ld words\n", expected);
    ++failures;
  }

  printf("\nsummaries left in the cache:\n");
  for (int i = 0; i < kWorkers; ++i) {
    char key[16];
    int keyLength = snprintf(key, sizeof key, "worker/%d", i);
    void* record = CA_SEARCH(shared.cache, 0, keyLength, key);
    CAQuery q;
    if (record == nullptr || CA_QUERY(shared.cache, record, &q) != 1) {
      printf("  %s: missing\n", key);
      ++failures;
      continue;
    }
    printf("  %s: %s\n", key, static_cast<const char*>(q.data));
    CA_FREE(shared.cache, record);
  }

  // The tree does not own its payloads: free them, then the tree.
  BTreeNumerator counts(shared.words, 0);
  for (BTree* node = counts.Next(); node != nullptr; node = counts.Next()) {
    free(node->payload);
    node->payload = nullptr;
  }
  delete shared.words;

  ticker.Stop();
  printf("\nthe ticker ticked %d times before it was asked to stop\n",
         __atomic_load_n(&ticker.ticks, __ATOMIC_SEQ_CST));

  CA_CLOSE(shared.cache);
  CA_DEINIT();  // writes "CACACHE Closed" and closes the trace log

  FILE* f = fopen(tracePath, "r");
  if (f != nullptr) {
    char line[256];
    printf("\nthe trace log %s:\n", tracePath);
    while (fgets(line, sizeof line, f) != nullptr) printf("  | %s", line);
    fclose(f);
  }
  return failures == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
