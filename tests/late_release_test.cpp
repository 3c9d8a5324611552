// Records that leave their cache while the host holds them (replaced, erased
// by another holder, evicted) and are released only after the cache itself
// was destroyed. The release must not touch the destroyed cache: under
// AddressSanitizer a write to it is a use-after-free; in a plain build the
// allocator usually hands the cache's memory to the next cache of the same
// size, whose byte count the stray write would then change.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#include "qmcache/qmcache.h"

namespace {

time_t now = 1700000000;

int released = 0;
void Count(int, unsigned long, void*) { released++; }

unsigned int Allocated(void* handle) {
  CAParams p;
  memset(&p, 0, sizeof p);
  EXPECT_EQ(CA_GETCACHESTAT(handle, &p), 1);
  return p.allocated;
}

void* Open(const char* name, unsigned int budget) {
  CAParams p;
  memset(&p, 0, sizeof p);
  p.maxBytes = budget;
  return CA_CREATE(name, &p);
}

class LateRelease : public ::testing::Test {
 protected:
  void SetUp() override {
    CA_DEINIT();
    CA_INIT(1);
    released = 0;
    CA_SETFREE(&Count);
  }
  void TearDown() override {
    CA_SETFREE(nullptr);
    CA_DEINIT();
  }
};

}  // namespace

extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = now;
  return now;
}

// Every pthread_mutex_lock of the process passes through here, so a test can
// count the locks that the library takes on its thread.
namespace {
thread_local bool countingLocks = false;
thread_local int locksTaken = 0;
}  // namespace

extern "C" __attribute__((visibility("default"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) {
  using Lock = int (*)(pthread_mutex_t*);
  static Lock real = reinterpret_cast<Lock>(dlsym(RTLD_NEXT, __func__));
  if (countingLocks) locksTaken++;
  return real(mutex);
}

TEST_F(LateRelease, ReplacedHeldRecordOutlivesItsCache) {
  void* h = Open("cache", 0);
  ASSERT_EQ(CA_INSERT(h, 1, CAREC_CALLBACK, 0, 1, "k", 3, 500, "abc"), 1);
  void* held = CA_SEARCH(h, 0, 1, "k");
  ASSERT_NE(held, nullptr);
  // Replaced: the old record leaves the tree but stays alive for its holder.
  ASSERT_EQ(CA_INSERT(h, 2, 0, 0, 1, "k", 3, 7, "xyz"), 0);
  EXPECT_EQ(Allocated(h), 507u);
  CA_CLOSE(h);  // the cache goes; the held record must forget it
  EXPECT_EQ(released, 0);

  // A cache of the same size, very likely at the same address.
  void* other = Open("other", 0);
  EXPECT_EQ(Allocated(other), 0u);
  CAQuery q;
  ASSERT_EQ(CA_QUERY(other, held, &q), 1);
  EXPECT_EQ(q.keyLength, 0);
  EXPECT_EQ(q.key, nullptr);
  EXPECT_EQ(q.length, 500);
  CA_FREE(other, held);  // destroys the record
  EXPECT_EQ(released, 1);
  EXPECT_EQ(Allocated(other), 0u);
  CA_CLOSE(other);
}

TEST_F(LateRelease, ErasedAndEvictedHeldRecordsOutliveTeardown) {
  void* h = Open("cache", 1000);
  ASSERT_EQ(CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "a", 1, 10, "a"), 1);
  void* first = CA_SEARCH(h, 0, 1, "a");
  void* second = CA_SEARCH(h, 0, 1, "a");
  ASSERT_EQ(first, second);
  CA_ERASE(h, first);  // one hold left: detached, alive

  // An expiring record is evicted even while held.
  ASSERT_EQ(
      CA_INSERT(h, 0, CAREC_CALLBACK | CAREC_EXPIRES, 0, 1, "b", 1, 20, "b"),
      1);
  void* expiring = CA_SEARCH(h, 0, 1, "b");
  ASSERT_NE(expiring, nullptr);
  now += 1;
  ASSERT_EQ(CA_INSERT(h, 0, 0, 0, 1, "c", 1, 2000, "c"), 1);  // over budget
  CAQuery q;
  ASSERT_EQ(CA_QUERY(h, expiring, &q), 1);
  EXPECT_EQ(q.key, nullptr) << "the expired record should have been evicted";
  EXPECT_EQ(released, 0);

  CA_DEINIT();  // every cache goes; both held records stay
  void* other = Open("other", 0);
  EXPECT_EQ(Allocated(other), 0u);
  CA_FREE(other, second);
  CA_FREE(other, expiring);
  EXPECT_EQ(released, 2);
  EXPECT_EQ(Allocated(other), 0u);
  CA_CLOSE(other);
}

// No record operation takes a lock, not even on the rare path that tracks
// held records across their cache's teardown: the host serialises the calls
// on a cache, and records of different caches share nothing.
TEST_F(LateRelease, HeldRecordsAreTrackedWithoutTakingALock) {
  CA_INIT(0);  // real locking: a lock taken now would be a real one
  void* h = Open("cache", 100);
  void* other = Open("other", 0);
  countingLocks = true;
  CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "a", 1, 10, "a");
  void* replaced = CA_SEARCH(h, 0, 1, "a");
  CA_INSERT(h, 0, CAREC_CALLBACK, 0, 1, "a", 1, 10, "b");
  void* erased = CA_SEARCH(h, 0, 1, "a");
  void* kept = CA_SEARCH(h, 0, 1, "a");
  CA_ERASE(h, erased);
  CA_INSERT(h, 0, 0, 0, 1, "z", 1, 500, "z");  // a pass, nothing to evict
  CA_CLOSE(h);
  CA_FREE(other, replaced);
  CA_FREE(other, kept);
  countingLocks = false;
  EXPECT_EQ(locksTaken, 0);
  EXPECT_EQ(released, 2);
  CA_CLOSE(other);
}
