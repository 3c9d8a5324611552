#!/usr/bin/env bash
# Reliability checks beyond the plain and ASan+UBSan test runs:
#  1. the lock and thread tests under ThreadSanitizer (the `tsan` workflow);
#  2. the whole test suite once under valgrind memcheck, failing on any
#     error and on definite or indirect leaks;
#  3. the model-checked random driver over a slice of seeds (release build);
#  4. a short libFuzzer run of the same driver (ASan + UBSan).
# Sized for a 2-core machine: about 10-15 minutes in all.
#
#   .ci/reliability.sh [tsan] [valgrind] [model] [fuzz]   (default: all)
#
# Environment: MODEL_SEEDS (default 1:150), MODEL_STEPS (10000),
# FUZZ_SECONDS (120).
set -euo pipefail
cd "$(dirname "$0")/.."

steps=("$@")
[ ${#steps[@]} -eq 0 ] && steps=(tsan valgrind model fuzz)
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
  # The model driver too: a short run reaches eviction, rebuild and teardown.
  count=$((count + 1))
  if "${vg[@]}" "$build"/tests/qmcache_model --seeds 1:2 --steps 3000 \
      >"$build/qmcache_model.valgrind.log" 2>&1; then
    echo "memcheck clean: qmcache_model"
  else
    echo "memcheck FAILED: qmcache_model"
    tail -60 "$build/qmcache_model.valgrind.log"
    failed=$((failed + 1))
  fi
  echo "memcheck: $((count - failed)) passed, $failed failed"
  [ "$failed" -eq 0 ] || exit 1
fi

if want model; then
  section "model driver: seeds ${MODEL_SEEDS:-1:150} x ${MODEL_STEPS:-10000} steps"
  build=build/reliability-model
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release \
    -DQMCACHE_BUILD_EXAMPLES=OFF >/dev/null
  cmake --build "$build" -j2 --target qmcache_model
  log="$build/model.log"
  if ! "$build"/tests/qmcache_model --seeds "${MODEL_SEEDS:-1:150}" \
      --steps "${MODEL_STEPS:-10000}" >"$log"; then
    tail -3 "$log"
    exit 1
  fi
  echo "model driver: $(grep -c ' ok:' "$log") seeds passed, 0 failed"
  awk '{for (i = 1; i <= NF; i++) if ($i == "rebuilds") r += $(i + 1);
        for (i = 1; i <= NF; i++) if ($i == "evicted") e += $(i + 1)}
       END {print "  records evicted: " e ", tree rebuilds: " r}' \
    FS='[ ,]+' "$log"
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
