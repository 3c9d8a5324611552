// SPDX-License-Identifier: MIT
// libFuzzer target: the input bytes choose the steps of the random driver
// (driver.h). A failed check aborts with its description; the sanitizers
// catch memory and undefined-behaviour errors, the leak checker anything a
// run leaves behind.
#include <stdio.h>
#include <stdlib.h>

#include "../driver/driver.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  qmdriver::g_now = 1700000000;
  qmdriver::Driver driver(data, size, 21000);
  if (!driver.Run(3000)) {
    fprintf(stderr, "%s\n", driver.error.c_str());
    abort();
  }
  return 0;
}
