// qmcache_model: runs random sequences of the exported calls against the
// reference model in model.h and stops at the first divergence.
//
//   qmcache_model [--seed N] [--seeds FIRST:LAST] [--steps N]
//                 [--check-every N] [--max-bulk N] [--verbose]
//                 [--spare-detached]
//
// Prints one summary line per seed; exits 1 with the divergence on stderr.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "model.h"

// The library's clock is the driver's. Exported explicitly: the build hides
// symbols by default, and a hidden definition would not interpose libc's.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = qmmodel::g_now;
  return qmmodel::g_now;
}

namespace {

bool ParseU64(const char* text, unsigned long long* out) {
  char* end = nullptr;
  *out = strtoull(text, &end, 10);
  return end != text && *end == '\0';
}

int Usage() {
  fprintf(stderr,
          "usage: qmcache_model [--seed N] [--seeds FIRST:LAST] [--steps N] "
          "[--check-every N] [--max-bulk N] [--verbose] [--spare-detached]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  unsigned long long first = 1, last = 1, steps = 20000;
  qmmodel::Options options;
  for (int i = 1; i < argc; i++) {
    const char* arg = argv[i];
    if (strcmp(arg, "--verbose") == 0) {
      options.verbose = true;
      continue;
    }
    if (strcmp(arg, "--spare-detached") == 0) {
      options.spareDetached = true;
      continue;
    }
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    unsigned long long v = 0;
    if (value == nullptr) return Usage();
    if (strcmp(arg, "--seed") == 0 && ParseU64(value, &v)) {
      first = last = v;
    } else if (strcmp(arg, "--seeds") == 0) {
      if (sscanf(value, "%llu:%llu", &first, &last) != 2 || last < first)
        return Usage();
    } else if (strcmp(arg, "--steps") == 0 && ParseU64(value, &v)) {
      steps = v;
    } else if (strcmp(arg, "--check-every") == 0 && ParseU64(value, &v)) {
      options.fullCheckEvery = static_cast<uint32_t>(v);
    } else if (strcmp(arg, "--max-bulk") == 0 && ParseU64(value, &v)) {
      options.maxBulk = static_cast<uint32_t>(v);
    } else {
      return Usage();
    }
    i++;
  }
  for (unsigned long long seed = first; seed <= last; seed++) {
    qmmodel::RandomChooser chooser(seed);
    qmmodel::Driver driver(chooser, options);
    bool ok = driver.Run(steps);
    const qmmodel::Totals& t = driver.totals();
    if (!ok) {
      fprintf(stderr, "qmcache_model: seed %llu: divergence at %s\n", seed,
              driver.error().c_str());
      return 1;
    }
    printf(
        "qmcache_model: seed %llu: %llu steps ok: inserts %llu (replaced "
        "%llu, dropped %llu), hits %llu, misses %llu, frees %llu, erases "
        "%llu, lists %llu, passes %llu, evicted %llu, rebuilds %llu, "
        "callbacks %llu, full checks %llu, faulty verdicts %llu, max nodes "
        "%llu\n",
        seed, (unsigned long long)t.steps, (unsigned long long)t.inserts,
        (unsigned long long)t.replaced, (unsigned long long)t.dropped,
        (unsigned long long)t.hits, (unsigned long long)t.misses,
        (unsigned long long)t.frees, (unsigned long long)t.erases,
        (unsigned long long)t.lists, (unsigned long long)t.passes,
        (unsigned long long)t.evicted, (unsigned long long)t.rebuilds,
        (unsigned long long)t.callbacks, (unsigned long long)t.fullChecks,
        (unsigned long long)t.faultVerdicts, (unsigned long long)t.maxNodes);
    fflush(stdout);
  }
  return 0;
}
