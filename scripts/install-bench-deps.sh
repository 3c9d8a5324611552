#!/bin/sh
# SPDX-License-Identifier: MIT
# Installs the libraries that the benchmark harness (bench/) measures
# libqmcache against: RocksDB's and LevelDB's block caches, from Debian's
# packages. Run as root, or as a user who may sudo. Safe to run
# again: packages already present are left as they are.
#
#   scripts/install-bench-deps.sh [--check]
#
# --check only reports what is missing (exit 1 when something is).
set -eu

PACKAGES="librocksdb-dev libleveldb-dev"

missing=""
for p in $PACKAGES; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed"; then
    missing="$missing $p"
  fi
done

if [ -z "$missing" ]; then
  echo "install-bench-deps: all present ($PACKAGES)"
  exit 0
fi

if [ "${1:-}" = "--check" ]; then
  echo "install-bench-deps: missing:$missing"
  exit 1
fi

if [ "$(id -u)" -eq 0 ]; then
  SUDO=""
elif command -v sudo >/dev/null 2>&1 && sudo -n true 2>/dev/null; then
  SUDO="sudo -n"
else
  echo "install-bench-deps: need root (or password-less sudo) to install:$missing" >&2
  exit 2
fi

echo "install-bench-deps: installing:$missing"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# shellcheck disable=SC2086
$SUDO apt-get install -y -qq --no-install-recommends $missing
