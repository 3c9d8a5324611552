// SPDX-License-Identifier: MIT
// qmcache_random: the random driver (driver.h) over a range of seeds.
//   qmcache_random [FIRST [LAST [STEPS [BULK]]]]
#include <stdio.h>
#include <stdlib.h>

#include "driver.h"

int main(int argc, char** argv) {
  unsigned long long arg[] = {1, 6, 4000, 22000};  // the defaults
  for (int i = 1; i < argc && i < 5; ++i)
    arg[i - 1] = strtoull(argv[i], nullptr, 10);
  for (unsigned long long seed = arg[0]; seed <= arg[1]; ++seed) {
    qmdriver::Driver driver(seed, (uint32_t)arg[3]);
    if (!driver.Run(arg[2])) {
      fprintf(stderr, "seed %llu: %s\n", seed, driver.error.c_str());
      return 1;
    }
    printf("seed %llu: %llu steps ok, %lu callbacks re-entered\n", seed, arg[2],
           driver.reentries);
  }
}
