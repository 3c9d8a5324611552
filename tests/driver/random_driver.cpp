// qmcache_random: the random driver (driver.h) over a range of seeds.
//   qmcache_random FIRST LAST [STEPS [BULK]]
#include <stdio.h>
#include <stdlib.h>

#include "driver.h"

int main(int argc, char** argv) {
  if (argc < 3)
    return fprintf(stderr, "usage: %s FIRST LAST [STEPS [BULK]]\n", argv[0]), 2;
  const auto arg = [&](int i, unsigned long long byDefault) {
    return argc > i ? strtoull(argv[i], nullptr, 10) : byDefault;
  };
  const unsigned long long steps = arg(3, 20000);
  for (unsigned long long seed = arg(1, 0); seed <= arg(2, 0); ++seed) {
    qmdriver::Driver driver(seed, static_cast<uint32_t>(arg(4, 22000)));
    if (!driver.Run(steps))
      return fprintf(stderr, "seed %llu: %s\n", seed, driver.error.c_str()), 1;
    printf("seed %llu: %llu steps ok, %llu callbacks, %llu re-entered\n", seed,
           steps, (unsigned long long)driver.callbacks,
           (unsigned long long)driver.reentries);
  }
  return 0;
}
