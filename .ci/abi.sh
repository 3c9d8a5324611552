#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
# The binary interface of libqmcache against the committed baseline
# .ci/libqmcache.abi (libabigail's abidw format). Fails on any difference
# that abidiff reports: a removed, added or changed symbol, a changed size,
# layout or vtable. Only the interface is exported, so an added symbol is a
# leak as much as a removed one is a break.
#
#   .ci/abi.sh [LIBRARY]            compare (default: the release build)
#   .ci/abi.sh --update [LIBRARY]   write the baseline anew, after a change
#                                   of the interface that is meant
set -euo pipefail
cd "$(dirname "$0")/.."

update=0
if [ "${1:-}" = "--update" ]; then update=1; shift; fi
library=${1:-build/release/libqmcache.so}
baseline=.ci/libqmcache.abi

if ! command -v abidiff >/dev/null || ! command -v abidw >/dev/null; then
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo=sudo
  $sudo apt-get update -qq >/dev/null
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq abigail-tools \
    >/dev/null
fi
[ -f "$library" ] || { echo "no library at $library: build it first" >&2; exit 1; }

if [ "$update" = 1 ]; then
  abidw --headers-dir include/qmcache --drop-private-types --no-show-locs \
    --no-corpus-path --out-file "$baseline" "$library"
  echo "wrote $baseline from $library"
  exit 0
fi

status=0
abidiff --headers-dir2 include/qmcache "$baseline" "$library" || status=$?
if [ "$status" -ne 0 ]; then
  echo "ABI check FAILED (abidiff status $status): the binary interface" \
    "differs from $baseline" >&2
  exit 1
fi
echo "ABI check: $library matches $baseline"
