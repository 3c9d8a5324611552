// qmcache_random: runs the random driver (driver.h) over a range of seeds.
//
//   qmcache_random [--seeds FIRST:LAST] [--steps N] [--bulk N] [--check N]
//
// Prints one line per seed; exits 1 with the failed check on stderr.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "driver.h"

// The library's clock is the driver's. Exported explicitly: the build hides
// symbols by default, and a hidden definition would not interpose libc's.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = qmdriver::g_now;
  return qmdriver::g_now;
}

int main(int argc, char** argv) {
  unsigned long long first = 1, last = 1, steps = 20000, bulk = 25000,
                     check = 200;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (strcmp(argv[i], "--seeds") == 0 &&
        sscanf(argv[i + 1], "%llu:%llu", &first, &last) == 2) {
      continue;
    }
    unsigned long long* value = strcmp(argv[i], "--steps") == 0   ? &steps
                                : strcmp(argv[i], "--bulk") == 0  ? &bulk
                                : strcmp(argv[i], "--check") == 0 ? &check
                                                                  : nullptr;
    if (value == nullptr) {
      fprintf(stderr,
              "usage: qmcache_random [--seeds A:B] [--steps N] "
              "[--bulk N] [--check N]\n");
      return 2;
    }
    *value = strtoull(argv[i + 1], nullptr, 10);
  }
  for (unsigned long long seed = first; seed <= last; ++seed) {
    qmdriver::RandomChooser chooser(seed);
    qmdriver::Driver driver(chooser, static_cast<uint32_t>(bulk),
                            static_cast<uint32_t>(check));
    if (!driver.Run(steps)) {
      fprintf(stderr, "qmcache_random: seed %llu: %s\n", seed,
              driver.error().c_str());
      return 1;
    }
    const qmdriver::Totals& t = driver.totals();
    printf(
        "qmcache_random: seed %llu: %llu steps ok: inserts %llu, hits "
        "%llu, erases %llu, bulk %llu, callbacks %llu (re-entered %llu), "
        "checks %llu\n",
        seed, (unsigned long long)t.steps, (unsigned long long)t.inserts,
        (unsigned long long)t.hits, (unsigned long long)t.erases,
        (unsigned long long)t.bulk, (unsigned long long)t.callbacks,
        (unsigned long long)t.reentries, (unsigned long long)t.checks);
    fflush(stdout);
  }
  return 0;
}
