// libFuzzer target: the input bytes choose the operations of the model
// driver (model.h), which compares the library with its reference model
// after every step. A divergence aborts with its description; the
// sanitizers catch memory and undefined-behaviour errors, and the leak
// checker anything a run leaves behind (every run ends with CA_DEINIT).
//
// QMCACHE_FUZZ_SPARE_DETACHED=1 gives back holds on records that left their
// cache before the cache goes (see Options::spareDetached);
// QMCACHE_FUZZ_VERBOSE=1 prints every step.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "../model/model.h"

// The library's clock is the driver's; exported so that it interposes libc's.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = qmmodel::g_now;
  return qmmodel::g_now;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool spare = getenv("QMCACHE_FUZZ_SPARE_DETACHED") != nullptr &&
                            getenv("QMCACHE_FUZZ_SPARE_DETACHED")[0] == '1';
  qmmodel::g_now = 1700000000;
  qmmodel::Options options;
  options.fullCheckEvery = 64;
  options.maxBulk = 3000;
  options.spareDetached = spare;
  options.verbose = getenv("QMCACHE_FUZZ_VERBOSE") != nullptr;
  qmmodel::BytesChooser chooser(data, size);
  qmmodel::Driver driver(chooser, options);
  if (!driver.Run(4000)) {
    fprintf(stderr, "qmcache_fuzz: divergence at %s\n", driver.error().c_str());
    abort();
  }
  return 0;
}
