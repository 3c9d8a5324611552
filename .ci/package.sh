#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# Packaging check: install the release build into a scratch prefix, check
# the installed tree, then build the example host in examples/consumer
# against it twice (CMake package, pkg-config) and run both programs as a
# host would: without LD_LIBRARY_PATH, so that they start only if the
# installed library finds its companions on its own.
# Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

work=$(mktemp -d "${TMPDIR:-/tmp}/qmcache-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

step() { printf '\n== %s\n' "$*"; }
fail() {
  printf 'package check FAILED: %s\n' "$*" >&2
  exit 1
}

if ! command -v pkg-config >/dev/null 2>&1; then
  step "installing pkg-config"
  if [ "$(id -u)" = 0 ]; then
    apt-get update -qq && apt-get install -y -qq pkg-config >/dev/null
  else
    sudo apt-get update -qq && sudo apt-get install -y -qq pkg-config >/dev/null
  fi
  command -v pkg-config >/dev/null 2>&1 || fail "pkg-config could not be installed"
fi

step "configure and build (release)"
cmake --preset release >/dev/null
cmake --build --preset release --target qmcache qmstat ybtrace

step "install into $prefix"
cmake --install build/release --prefix "$prefix" >/dev/null

step "check the installed tree"
pc=$(find "$prefix" -path '*/pkgconfig/qmcache.pc' | head -n 1)
[ -n "$pc" ] || fail "qmcache.pc is not installed"
libdir=$(dirname "$(dirname "$pc")")
checks=0
need() {
  [ -e "$1" ] || fail "missing: ${1#"$prefix"/}"
  checks=$((checks + 1))
}
for header in qmcache.h qmcache.hpp cache.hpp castatistic.h ybtrace.h export.h; do
  need "$prefix/include/qmcache/$header"
done
version=$(sed -n 's/^project(qmcache VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
need "$libdir/libqmcache.so.$version"
for lib in qmcache qmstat ybtrace; do
  need "$libdir/lib$lib.so"
  need "$libdir/lib$lib.so.1"
done
soname=$(objdump -p "$libdir/libqmcache.so.$version" | awk '/SONAME/ {print $2}')
[ "$soname" = libqmcache.so.1 ] || fail "libqmcache's SONAME is '$soname'"
runpath=$(objdump -p "$libdir/libqmcache.so.1" | awk '/RUNPATH/ {print $2}')
[ "$runpath" = '$ORIGIN' ] || fail "libqmcache's RUNPATH is '$runpath'"
need "$prefix/share/doc/qmcache/LICENSE"
for f in qmcacheConfig.cmake qmcacheConfigVersion.cmake qmcacheTargets.cmake; do
  need "$libdir/cmake/qmcache/$f"
done
need "$pc"
# Only the library's own entry points are exported: every CA_ call, and
# nothing of the C++ standard library's inline code.
# Each carries the version node QMCACHE_1.0.
exported=$(nm -D --defined-only "$libdir/libqmcache.so" | awk '{print $3}')
unversioned=$(grep -v '@@QMCACHE_1\.0$' <<<"$exported" | grep -vx 'QMCACHE_1\.0' || true)
[ -z "$unversioned" ] || fail "symbols outside QMCACHE_1.0: $unversioned"
exported=$(sed 's/@@QMCACHE_1\.0$//' <<<"$exported")
for call in CA_INIT CA_DEINIT CA_GETSTAT CA_CREATE CA_GETCACHESTAT CA_CLOSE \
  CA_INSERT CA_SEARCH CA_QUERY CA_FREE CA_ERASE CA_SETFREE CA_LIST \
  CA_LIST_FREE CA_SETCHECK CA_CHECKCACHE; do
  grep -qx "$call" <<<"$exported" || fail "$call is not exported"
  checks=$((checks + 1))
done
echo "installed tree: $checks checks passed (libdir ${libdir#"$prefix"/})"

step "build examples/consumer with find_package(qmcache)"
cmake -S examples/consumer -B "$work/cmake-build" \
  -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$work/cmake-build"

step "build examples/consumer with pkg-config"
mkdir -p "$work/pc-build"
PKG_CONFIG_PATH="$libdir/pkgconfig" make -s -C examples/consumer \
  O="$work/pc-build"

for build in cmake-build pc-build; do
  step "run the $build program"
  (cd "$work" && env -u LD_LIBRARY_PATH "$work/$build/page_cache" \
    "$work/$build.trace" >"$work/$build.out") ||
    { cat "$work/$build.out"; fail "the $build program failed"; }
  grep -q "CACACHE Closed" "$work/$build.trace" ||
    fail "the $build program's trace log has no closing line"
  tail -n 2 "$work/$build.out"
done

cd "$root"
echo
echo "package check passed: install tree, CMake package and pkg-config builds"
