// qmcache_random: the random driver (driver.h) over a range of seeds.
//   qmcache_random FIRST LAST [STEPS [BULK]]
#include <stdio.h>
#include <stdlib.h>

#include "driver.h"

int main(int argc, char** argv) {
  if (argc < 3)
    return fprintf(stderr, "usage: %s FIRST LAST [STEPS [BULK]]\n", argv[0]), 2;
  const unsigned long long last = strtoull(argv[2], nullptr, 10),
                           steps = argc > 3 ? strtoull(argv[3], nullptr, 10)
                                            : 20000,
                           bulk = argc > 4 ? strtoull(argv[4], nullptr, 10)
                                           : 22000;
  for (unsigned long long seed = strtoull(argv[1], nullptr, 10); seed <= last;
       ++seed) {
    qmdriver::Driver driver(seed, static_cast<uint32_t>(bulk));
    if (!driver.Run(steps))
      return fprintf(stderr, "seed %llu: %s\n", seed, driver.error.c_str()), 1;
    printf("seed %llu: %llu steps ok, %llu callbacks, %llu re-entered\n", seed,
           steps, (unsigned long long)driver.callbacks,
           (unsigned long long)driver.reentries);
  }
  return 0;
}
