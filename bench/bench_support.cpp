// SPDX-License-Identifier: MIT
#include "bench_support.h"

#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace {

std::atomic<bool> fakeOn{false};
std::atomic<long> fakeNow{0};

using TimeFn = time_t (*)(time_t*);

TimeFn RealTime() {
  static TimeFn fn = reinterpret_cast<TimeFn>(dlsym(RTLD_NEXT, "time"));
  return fn;
}

}  // namespace

// Interposes the C library's time() for the whole process, libqmcache
// included. Exported explicitly: the build hides symbols by default.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) {
  time_t now;
  if (fakeOn.load(std::memory_order_relaxed)) {
    now = static_cast<time_t>(fakeNow.load(std::memory_order_relaxed));
  } else {
    TimeFn fn = RealTime();
    if (fn != nullptr) {
      now = fn(nullptr);
    } else {
      struct timespec ts;
      clock_gettime(CLOCK_REALTIME, &ts);
      now = ts.tv_sec;
    }
  }
  if (out != nullptr) *out = now;
  return now;
}

namespace qmbench {

const char* KeyKindName(int kind) {
  return kind == kRandom16 ? "rand16" : "be4";
}

const char* ValueBytes() {
  static const struct Block {
    char bytes[kValueSize];
    Block() {
      for (int i = 0; i < kValueSize; i++) bytes[i] = static_cast<char>(i * 7);
    }
  } block;
  return block.bytes;
}

namespace {

std::vector<std::string> NumberedKeys(size_t n, uint32_t parity) {
  std::vector<uint32_t> order = Permutation(n, 0x5eed0004u + parity);
  std::vector<std::string> keys(n);
  for (size_t i = 0; i < n; i++) {
    uint32_t v = order[i] * 2 + parity;
    char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16),
                 static_cast<char>(v >> 8), static_cast<char>(v)};
    keys[i].assign(b, 4);
  }
  return keys;
}

std::vector<std::string> RandomKeys(size_t n, uint64_t seed) {
  Rng rng(seed);
  std::vector<std::string> keys(n);
  for (size_t i = 0; i < n; i++) {
    uint64_t w[2] = {rng.Next(), rng.Next()};
    keys[i].assign(reinterpret_cast<const char*>(w), 16);
  }
  return keys;
}

}  // namespace

std::vector<std::string> MakeKeys(int kind, size_t n) {
  return kind == kRandom16 ? RandomKeys(n, 0x5eed0016u) : NumberedKeys(n, 0);
}

std::vector<std::string> MissKeys(int kind, size_t n) {
  return kind == kRandom16 ? RandomKeys(n, 0xdeadbeefu) : NumberedKeys(n, 1);
}

void FakeClockStart(time_t now) {
  fakeNow.store(static_cast<long>(now));
  fakeOn.store(true);
}

void FakeClockAdvance(long seconds) { fakeNow.fetch_add(seconds); }

void FakeClockStop() { fakeOn.store(false); }

size_t HeapInUse() {
  struct mallinfo2 mi = mallinfo2();
  return mi.uordblks + mi.hblkhd;
}

const std::vector<size_t>& Sizes() {
  static const std::vector<size_t> sizes = [] {
    std::vector<size_t> out;
    const char* env = getenv("QMBENCH_SIZES");
    if (env != nullptr) {
      const char* p = env;
      while (*p != '\0') {
        char* end;
        unsigned long v = strtoul(p, &end, 10);
        if (end == p) break;
        if (v > 0) out.push_back(v);
        p = *end == ',' ? end + 1 : end;
      }
    }
    if (out.empty()) out = {1000, 100000, 1000000};
    return out;
  }();
  return sizes;
}

}  // namespace qmbench
