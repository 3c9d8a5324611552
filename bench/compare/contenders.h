/* SPDX-License-Identifier: MIT */
// The contenders of qmcache_compare. Each runs one workload of `Options` and
// fills `Result`; the ones built on a library that was not found at
// configure time are left out (QMCOMPARE_HAVE_*).
#ifndef QMCACHE_BENCH_CONTENDERS_H
#define QMCACHE_BENCH_CONTENDERS_H

#include "compare.h"

namespace qmcompare {

void RunQmcache(const Options& o, Result* r);
void RunStdMap(const Options& o, Result* r);
void RunHandLru(const Options& o, Result* r);
#if QMCOMPARE_HAVE_ROCKSDB
void RunRocksdbLru(const Options& o, Result* r);
void RunRocksdbHcc(const Options& o, Result* r);
#endif
#if QMCOMPARE_HAVE_LEVELDB
void RunLeveldb(const Options& o, Result* r);
#endif

}  // namespace qmcompare

#endif  // QMCACHE_BENCH_CONTENDERS_H
