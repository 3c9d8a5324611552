// SPDX-License-Identifier: MIT
// qmcache_bench --contender NAME --workload NAME [options]: one workload of
// one cache, one JSON line out. See Usage() and harness.h.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "harness.h"

namespace qmbench {
namespace {

// Exit codes the report script tells apart.
constexpr int kExitUsage = 1;
constexpr int kExitCheckFailed = 2;
constexpr int kExitUnavailable = 3;

void Usage(FILE* f) {
  fprintf(
      f,
      "usage: qmcache_bench --contender NAME --workload NAME [--records N]\n"
      "         [--ops N] [--threads T] [--latency]\n"
      "       qmcache_bench --workload pass|rebuild|fixed [--records N]\n"
      "       qmcache_bench --list\n"
      "\n"
      "workloads (16-byte random keys, 64-byte values):\n"
      "  hit          fill N records, look them up in random order\n"
      "  miss         fill N records, look up absent keys\n"
      "  mixed        as hit, every tenth operation replaces the record\n"
      "  insert       insert N new keys; the budget is never reached\n"
      "  readthrough  Zipf 0.99 over N keys, budget N/10 records, 2N ops:\n"
      "               look up, insert on a miss\n"
      "  churn        as readthrough over N/10 keys, budget N/100\n"
      "  pass, rebuild, fixed   libqmcache's own costs (own.cpp)\n"
      "--records N    N above (default 1000000; 1e6 is accepted)\n"
      "--ops N        operations per thread (default N, cycling the keys;\n"
      "               readthrough and churn 2N; insert always N)\n"
      "--threads T    hit, miss and mixed from T threads on one cache\n"
      "--latency      time every operation (rdtsc) and report\n"
      "               percentiles; throughput is then not meaningful\n"
      "exit status: 0 ok, 1 usage, 2 a check failed, 3 contender not\n"
      "built or workload not applicable\n");
}

bool ParseCount(const char* s, size_t* out) {
  char* end;
  const double v = strtod(s, &end);
  if (end == s || *end != '\0' || v < 1) return false;
  *out = static_cast<size_t>(v);
  return true;
}

void PrintJson(const Result& r) {
  std::string s = "{";
  auto field = [&](const char* name, const std::string& value) {
    if (s.size() > 1) s += ",";
    s += std::string("\"") + name + "\":" + value;
  };
  auto text = [&](const char* name, const std::string& v) {
    field(name, "\"" + v + "\"");
  };
  auto num = [&](const char* name, double v) {
    char b[32];
    snprintf(b, sizeof(b), "%.9g", v);
    field(name, b);
  };
  text("contender", r.contender);
  text("workload", r.workload);
  if (r.keys != 0) {  // a workload of the contenders (not pass, rebuild...)
    for (auto [name, v] : {std::pair{"records", r.records},
                           {"keys", r.keys},
                           {"budget_records", r.budget},
                           {"ops", r.ops},
                           {"ops_done", r.opsDone},
                           {"lookups", r.lookups},
                           {"hits", r.hits},
                           {"inserts", r.inserts},
                           {"peak_records", r.peakRecords},
                           {"final_records", r.finalRecords}})
      num(name, static_cast<double>(v));
    num("threads", r.threads);
    num("wall_s", r.wallSeconds);
    num("cpu_s", r.cpuSeconds);
  } else {
    num("records", static_cast<double>(r.records));
  }
  if (r.lookups != 0) num("hit_ratio", static_cast<double>(r.hits) / r.lookups);
  if (r.latency) {
    num("p50_ns", r.p50);
    num("p99_ns", r.p99);
    num("p999_ns", r.p999);
    num("max_ns", r.max);
    num("timer_ns", r.timerNs);
  }
  if (r.haveMemory) {
    const double perRecord =
        (static_cast<double>(r.heapAfter) - static_cast<double>(r.heapBefore)) /
        static_cast<double>(r.keys);
    num("empty_cache_bytes", static_cast<double>(r.heapEmpty - r.heapBefore));
    num("overhead_per_record", perRecord - static_cast<double>(kPayload));
  }
  for (const auto& [name, v] : r.figures) num(name.c_str(), v);
  if (!r.capacity.empty()) text("capacity", r.capacity);
  field("ok", r.failure.empty() ? "true" : "false");
  if (!r.failure.empty()) text("failure", r.failure);
  printf("%s}\n", s.c_str());
}

int Main(int argc, char** argv) {
  Options o;
  std::string contender = "qmcache", workload;
  for (int i = 1; i < argc; i++) {
    const char* a = argv[i];
    const char* v = i + 1 < argc ? argv[i + 1] : nullptr;
    if (strcmp(a, "--list") == 0) {
      for (const Contender& c : Contenders())
        printf("%-12s %s\n", c.name, c.run != nullptr ? "built" : c.missing);
      return 0;
    }
    if (strcmp(a, "--latency") == 0) {
      o.latency = true;
      continue;
    }
    size_t count = 0;
    const bool ok = v != nullptr;
    if (ok && strcmp(a, "--contender") == 0) {
      contender = v;
    } else if (ok && strcmp(a, "--workload") == 0) {
      workload = v;
    } else if (ok && strcmp(a, "--records") == 0 && ParseCount(v, &count)) {
      o.records = count;
    } else if (ok && strcmp(a, "--ops") == 0 && ParseCount(v, &count)) {
      o.ops = count;
    } else if (ok && strcmp(a, "--threads") == 0 && ParseCount(v, &count)) {
      o.threads = static_cast<int>(std::min<size_t>(count, 64));
    } else {
      Usage(strcmp(a, "--help") == 0 ? stdout : stderr);
      return strcmp(a, "--help") == 0 ? 0 : kExitUsage;
    }
    i++;
  }

  Result r;
  r.contender = contender;
  r.workload = workload;
  r.records = o.records;
  r.threads = o.threads;
  r.latency = o.latency;
  void (*run)(const Options&, Result*) = nullptr;
  for (auto [name, own] : {std::pair{"pass", &RunPass},
                           {"rebuild", &RunRebuild},
                           {"fixed", &RunFixed}})
    if (workload == name && contender == "qmcache") run = own;
  if (run == nullptr) {
    if (!ParseWorkload(workload, &o.workload)) {
      Usage(stderr);
      return kExitUsage;
    }
    const Contender* c = nullptr;
    for (const Contender& k : Contenders())
      if (contender == k.name) c = &k;
    if (c == nullptr || c->run == nullptr) {
      fprintf(stderr, "qmcache_bench: %s: %s\n", contender.c_str(),
              c == nullptr ? "no such contender (see --list)" : c->missing);
      return c == nullptr ? kExitUsage : kExitUnavailable;
    }
    const bool threadable = o.workload == Workload::kHit ||
                            o.workload == Workload::kMiss ||
                            o.workload == Workload::kMixed;
    if ((!c->evicts && Evicting(o.workload)) ||
        (o.threads > 1 && (!c->threadSafe || !threadable || o.latency))) {
      fprintf(stderr, "qmcache_bench: %s does not apply to %s\n",
              workload.c_str(), c->name);
      return kExitUnavailable;
    }
    run = c->run;
  }
  run(o, &r);
  PrintJson(r);
  return r.failure.empty() ? 0 : kExitCheckFailed;
}

}  // namespace
}  // namespace qmbench

int main(int argc, char** argv) { return qmbench::Main(argc, argv); }
