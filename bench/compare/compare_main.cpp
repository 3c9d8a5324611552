// SPDX-License-Identifier: MIT
// qmcache_compare --contender NAME --workload NAME [options]
//
// Runs one workload against one cache library in this process and prints
// what it measured (one JSON object with --json). scripts/bench_compare.py
// runs every contender and workload, each in a process of its own.
//
// This executable keeps the C library's time(): libqmcache's record ages
// and eviction grades follow the real wall clock here.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "compare.h"
#include "contenders.h"

namespace qmcompare {
namespace {

struct Contender {
  const char* name;
  void (*run)(const Options&, Result*);  // null: not built
  bool evicts;
  const char* missing;  // why it was not built
};

const Contender kContenders[] = {
    {"qmcache", RunQmcache, true, nullptr},
#if QMCOMPARE_HAVE_ROCKSDB
    {"rocksdb_lru", RunRocksdbLru, true, nullptr},
    {"rocksdb_hcc", RunRocksdbHcc, true, nullptr},
#else
    {"rocksdb_lru", nullptr, true, "RocksDB was not found at configure time"},
    {"rocksdb_hcc", nullptr, true, "RocksDB was not found at configure time"},
#endif
#if QMCOMPARE_HAVE_LEVELDB
    {"leveldb", RunLeveldb, true, nullptr},
#else
    {"leveldb", nullptr, true, "LevelDB was not found at configure time"},
#endif
    {"std_map", RunStdMap, false, nullptr},
    {"lru", RunHandLru, true, nullptr},
};

// Exit codes the driver tells apart.
constexpr int kExitUsage = 1;
constexpr int kExitCheckFailed = 2;
constexpr int kExitUnavailable = 3;

void Usage(FILE* f) {
  fprintf(f,
          "usage: qmcache_compare --contender NAME --workload NAME\n"
          "         [--records N] [--keys N] [--budget N] [--ops N]\n"
          "         [--zipf S] [--latency] [--time-limit SECONDS] [--json]\n"
          "       qmcache_compare --list\n"
          "\n"
          "workloads (16-byte random keys, 64-byte values, one thread):\n"
          "  hit          fill N records, look each up once in random order\n"
          "  miss         fill N records, look up N absent keys\n"
          "  insert       insert N new keys; the budget is never reached\n"
          "  readthrough  Zipf over N keys, budget N/10 records, 2N ops:\n"
          "               look up, insert on a miss\n"
          "  churn        as readthrough over N/10 keys, budget N/100\n"
          "--records N    N above (default 1000000)\n"
          "--keys/--budget/--ops override the derived key universe, budget\n"
          "               (records) and operations\n"
          "--latency      time every operation (rdtsc) and report\n"
          "               percentiles; throughput is then not meaningful\n"
          "--time-limit   stop the measured loop after this many seconds\n"
          "               (reported as truncated)\n"
          "exit status: 0 ok, 1 usage, 2 a check failed, 3 contender not\n"
          "built or workload not applicable\n");
}

bool ParseSize(const char* s, size_t* out) {
  char* end;
  const double v = strtod(s, &end);  // accepts 1e6
  if (end == s || *end != '\0' || v < 0) return false;
  *out = static_cast<size_t>(v);
  return true;
}

void PrintSlot(FILE* f, const char* name, const SlotFigures& s) {
  fprintf(f, ",\"%s\":{\"count\":%lu,\"total_s\":%.9g,\"max_s\":%.9g}", name,
          s.count, s.total, s.max);
}

void PrintJson(const Result& r) {
  FILE* f = stdout;
  fprintf(f,
          "{\"contender\":\"%s\",\"workload\":\"%s\",\"records\":%zu,"
          "\"keys\":%zu,\"budget_records\":%zu,\"ops\":%zu,\"ops_done\":%zu,"
          "\"truncated\":%s,\"lookups\":%zu,\"hits\":%zu,\"inserts\":%zu,"
          "\"wall_s\":%.9g,\"cpu_s\":%.9g,\"latency_run\":%s",
          r.contender.c_str(), WorkloadName(r.workload), r.records, r.keys,
          r.budget, r.ops, r.opsDone, r.truncated ? "true" : "false", r.lookups,
          r.hits, r.inserts, r.wallSeconds, r.cpuSeconds,
          r.latency ? "true" : "false");
  if (r.lookups != 0)
    fprintf(f, ",\"hit_ratio\":%.6f",
            static_cast<double>(r.hits) / static_cast<double>(r.lookups));
  if (r.latency)
    fprintf(f,
            ",\"p50_ns\":%.1f,\"p99_ns\":%.1f,\"p999_ns\":%.1f,"
            "\"max_ns\":%.1f,\"timer_ns\":%.1f",
            r.p50, r.p99, r.p999, r.max, r.timerNs);
  fprintf(f, ",\"tsc_ghz\":%.4f", r.tscGhz);
  if (r.haveMemory) {
    const double perRecord =
        (static_cast<double>(r.heapAfter) - static_cast<double>(r.heapBefore)) /
        static_cast<double>(r.keys);
    fprintf(f,
            ",\"heap_before\":%zu,\"heap_empty\":%zu,\"heap_after\":%zu,"
            "\"bytes_per_record\":%.3f,\"overhead_per_record\":%.3f",
            r.heapBefore, r.heapEmpty, r.heapAfter, perRecord,
            perRecord - static_cast<double>(kPayload));
  }
  fprintf(f, ",\"peak_records\":%zu,\"final_records\":%zu", r.peakRecords,
          r.finalRecords);
  fprintf(f, ",\"capacity\":\"%s\"", r.capacity.c_str());
  if (r.eviction.present) PrintSlot(f, "qm_eviction", r.eviction);
  if (r.rebuild.present) PrintSlot(f, "qm_rebuild", r.rebuild);
  fprintf(f, ",\"ok\":%s", r.failure.empty() ? "true" : "false");
  if (!r.failure.empty()) fprintf(f, ",\"failure\":\"%s\"", r.failure.c_str());
  fprintf(f, "}\n");
}

void PrintText(const Result& r) {
  const double done = static_cast<double>(r.opsDone);
  printf("%s %s: keys %zu", r.contender.c_str(), WorkloadName(r.workload),
         r.keys);
  if (r.budget != 0) printf(", budget %zu records", r.budget);
  printf(", %zu ops%s (%s)\n", r.opsDone,
         r.truncated ? " (stopped at the time limit)" : "", r.capacity.c_str());
  printf(
      "  %.0f ops/s by thread CPU time (%.3f s), %.0f ops/s by wall time "
      "(%.3f s)%s\n",
      done / r.cpuSeconds, r.cpuSeconds, done / r.wallSeconds, r.wallSeconds,
      r.latency ? ", with per-operation timing" : "");
  if (r.lookups != 0)
    printf("  hits %zu of %zu lookups (%.4f), inserts %zu\n", r.hits, r.lookups,
           static_cast<double>(r.hits) / static_cast<double>(r.lookups),
           r.inserts);
  if (r.latency)
    printf(
        "  latency p50 %.0f ns, p99 %.0f ns, p99.9 %.0f ns, max %.0f ns "
        "(timer itself %.0f ns, TSC %.3f GHz)\n",
        r.p50, r.p99, r.p999, r.max, r.timerNs, r.tscGhz);
  if (r.haveMemory) {
    const double perRecord =
        (static_cast<double>(r.heapAfter) - static_cast<double>(r.heapBefore)) /
        static_cast<double>(r.keys);
    printf(
        "  heap %.2f bytes/record, %.2f beyond key and value (the empty "
        "cache: %zu bytes)\n",
        perRecord, perRecord - static_cast<double>(kPayload),
        r.heapEmpty - r.heapBefore);
  }
  printf("  records: peak %zu, at the end %zu\n", r.peakRecords,
         r.finalRecords);
  if (r.eviction.present)
    printf("  eviction passes %lu, longest %.6f s, total %.6f s\n",
           r.eviction.count, r.eviction.max, r.eviction.total);
  if (r.rebuild.present)
    printf("  tree rebuilds %lu, longest %.6f s, total %.6f s\n",
           r.rebuild.count, r.rebuild.max, r.rebuild.total);
  if (!r.failure.empty()) printf("  CHECK FAILED: %s\n", r.failure.c_str());
}

int Main(int argc, char** argv) {
  Options o;
  const char* contenderName = nullptr;
  const char* workloadName = nullptr;
  bool json = false;
  for (int i = 1; i < argc; i++) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    auto size = [&](size_t* out) {
      if (v == nullptr || !ParseSize(v, out)) return false;
      i++;
      return true;
    };
    if (strcmp(a, "--list") == 0) {
      for (const Contender& c : kContenders)
        printf("%-12s %s\n", c.name, c.run != nullptr ? "built" : c.missing);
      return 0;
    } else if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
      Usage(stdout);
      return 0;
    } else if (strcmp(a, "--contender") == 0 && v != nullptr) {
      contenderName = v;
      i++;
    } else if (strcmp(a, "--workload") == 0 && v != nullptr) {
      workloadName = v;
      i++;
    } else if (strcmp(a, "--records") == 0 && size(&o.records)) {
    } else if (strcmp(a, "--keys") == 0 && size(&o.keys)) {
    } else if (strcmp(a, "--budget") == 0 && size(&o.budget)) {
    } else if (strcmp(a, "--ops") == 0 && size(&o.ops)) {
    } else if (strcmp(a, "--zipf") == 0 && v != nullptr) {
      o.zipf = atof(v);
      i++;
    } else if (strcmp(a, "--time-limit") == 0 && v != nullptr) {
      o.timeLimit = atof(v);
      i++;
    } else if (strcmp(a, "--latency") == 0) {
      o.latency = true;
    } else if (strcmp(a, "--json") == 0) {
      json = true;
    } else {
      fprintf(stderr, "qmcache_compare: bad argument %s\n", a);
      Usage(stderr);
      return kExitUsage;
    }
  }
  if (contenderName == nullptr || workloadName == nullptr ||
      !ParseWorkload(workloadName, &o.workload) || o.records == 0) {
    Usage(stderr);
    return kExitUsage;
  }
  const Contender* c = nullptr;
  for (const Contender& k : kContenders)
    if (strcmp(k.name, contenderName) == 0) c = &k;
  if (c == nullptr) {
    fprintf(stderr, "qmcache_compare: no contender %s (see --list)\n",
            contenderName);
    return kExitUsage;
  }
  if (c->run == nullptr) {
    fprintf(stderr, "qmcache_compare: %s is not built: %s\n", c->name,
            c->missing);
    return kExitUnavailable;
  }
  if (!c->evicts && !IsFill(o.workload)) {
    fprintf(stderr, "qmcache_compare: %s has no eviction; %s does not apply\n",
            c->name, workloadName);
    return kExitUnavailable;
  }
  Result r;
  c->run(o, &r);
  if (json) {
    PrintJson(r);
  } else {
    PrintText(r);
  }
  return r.failure.empty() ? 0 : kExitCheckFailed;
}

}  // namespace
}  // namespace qmcompare

int main(int argc, char** argv) { return qmcompare::Main(argc, argv); }
