#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Reliability checks beyond the plain and ASan+UBSan test runs:
#  1. the lock and thread tests under ThreadSanitizer (the `tsan` workflow);
#  2. the whole test suite once under valgrind memcheck, failing on any
#     error and on definite or indirect leaks;
#  3. the random driver over a slice of seeds (release build);
#  4. a short libFuzzer run of the same driver (ASan + UBSan).
# Sized for a 2-core machine: about 10-15 minutes in all.
#
#   .ci/reliability.sh [tsan] [valgrind] [driver] [fuzz]   (default: all)
#
# Environment: DRIVER_SEEDS (default 1:300), DRIVER_STEPS (10000),
# FUZZ_SECONDS (120).
set -euo pipefail
cd "$(dirname "$0")/.."

steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(tsan valgrind driver fuzz)
want() { local s; for s in "${steps[@]}"; do [ "$s" = "$1" ] && return 0; done; return 1; }

apt_install() {
  # Installs the given Debian packages; CI machines start without them.
  if [ "$(id -u)" -eq 0 ]; then
    apt-get update -qq >/dev/null
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$@" >/dev/null
  else
    sudo apt-get update -qq >/dev/null
    sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$@" >/dev/null
  fi
}

section() { echo; echo "==== $1 ($(date +%T))"; }
started=$SECONDS

if want tsan; then
  section "ThreadSanitizer: lock and thread tests"
  # The tsan test preset runs the tests labelled "threads": every test file
  # whose name contains "lock" or "thread" (tests/CMakeLists.txt).
  labelled=$(ls tests/*_test.cpp | grep -cE 'lock|thread' || true)
  if [ "$labelled" -eq 0 ]; then
    echo "no lock or thread test files: the tsan run would test nothing" >&2
    exit 1
  fi
  cmake --workflow --preset tsan
fi

if want valgrind; then
  section "valgrind memcheck: the test suite"
  command -v valgrind >/dev/null || apt_install valgrind
  build=build/reliability-valgrind
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Debug -DQMCACHE_BUILD_EXAMPLES=OFF \
    >/dev/null
  cmake --build "$build" -j2
  failed=0
  count=0
  vg=(valgrind --quiet --error-exitcode=1 --leak-check=full
      --errors-for-leak-kinds=definite,indirect
      --show-leak-kinds=definite,indirect)
  for test in "$build"/tests/*_test; do
    [ -x "$test" ] || continue
    count=$((count + 1))
    name=$(basename "$test")
    if "${vg[@]}" "$test" >"$build/$name.valgrind.log" 2>&1; then
      echo "memcheck clean: $name"
    else
      echo "memcheck FAILED: $name (log follows)"
      tail -60 "$build/$name.valgrind.log"
      failed=$((failed + 1))
    fi
  done
  # The random driver too: a short run reaches eviction, rebuild, teardown
  # and callbacks that re-enter the library.
  count=$((count + 1))
  if "${vg[@]}" "$build"/tests/qmcache_random 1 2 2000 >"$build/qmcache_random.valgrind.log" 2>&1; then
    echo "memcheck clean: qmcache_random"
  else
    echo "memcheck FAILED: qmcache_random"
    tail -60 "$build/qmcache_random.valgrind.log"
    failed=$((failed + 1))
  fi
  echo "memcheck: $((count - failed)) passed, $failed failed"
  [ "$failed" -eq 0 ] || exit 1
fi

if want driver; then
  seeds=${DRIVER_SEEDS:-1:300}
  section "random driver: seeds $seeds x ${DRIVER_STEPS:-10000} steps"
  build=build/reliability-driver
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DQMCACHE_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build" -j2 --target qmcache_random
  log="$build/driver.log"
  if ! "$build"/tests/qmcache_random "${seeds%:*}" "${seeds#*:}" \
      "${DRIVER_STEPS:-10000}" >"$log"; then
    tail -3 "$log"
    exit 1
  fi
  echo "random driver: $(grep -c ' ok' "$log") seeds passed, 0 failed"
  awk '{c += $6; r += $8} END {print "  callbacks: " c ", of which re-entered the library: " r}' "$log"
fi

if want fuzz; then
  section "libFuzzer: ${FUZZ_SECONDS:-120} s"
  if ! command -v clang++ >/dev/null ||
      ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a \
        >/dev/null 2>&1; then
    apt_install clang libclang-rt-14-dev
  fi
  build=build/reliability-fuzz
  cmake --preset fuzz -B "$build" >/dev/null
  cmake --build "$build" -j2 --target qmcache_fuzz
  corpus="$build/corpus"
  mkdir -p "$corpus"
  # -seed fixed: the same run every time. Crashes land in the build dir.
  (cd "$build" && ./tests/fuzz/qmcache_fuzz -seed=1 \
      -max_total_time="${FUZZ_SECONDS:-120}" -print_final_stats=1 \
      corpus 2>fuzz.log) || { tail -60 "$build/fuzz.log"; exit 1; }
  grep -E '^stat::number_of_executed_units|^stat::peak_rss|cov:' \
    "$build/fuzz.log" | tail -3
  echo "fuzz: 1 passed, 0 failed"
fi

echo
echo "reliability checks done in $((SECONDS - started)) s"
