// libFuzzer target: the input bytes choose the steps of the random driver
// (driver.h), which checks what the library states about itself as it goes,
// with a release callback that re-enters the library. A failed check aborts
// with its description; the sanitizers catch memory and undefined-behaviour
// errors, and the leak checker anything a run leaves behind (every run ends
// with CA_DEINIT and the release of its last holds).
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "../driver/driver.h"

// The library's clock is the driver's; exported so that it interposes libc's.
extern "C" __attribute__((visibility("default"))) time_t time(time_t* t) {
  if (t != nullptr) *t = qmdriver::g_now;
  return qmdriver::g_now;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qmdriver::g_now = 1700000000;
  qmdriver::BytesChooser chooser(data, size);
  qmdriver::Driver driver(chooser, 21000, 64);
  if (!driver.Run(3000)) {
    fprintf(stderr, "qmcache_fuzz: %s\n", driver.error().c_str());
    abort();
  }
  return 0;
}
