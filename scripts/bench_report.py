#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs qmcache_bench and writes docs/PERFORMANCE.md.

Every measurement is a process of its own, and qmcache_bench prints what it
measured as one JSON line. Repeated measurements are interleaved (every
pair once, then every pair again) and the median is kept. The performance
goals are GOALS below and nowhere else.

  scripts/bench_report.py [--quick] [--bench PATH] [--out FILE]
                          [--json FILE] [--from-json FILE] [--note TEXT]

--quick: N = 10^5 (10^4 and 10^5 for the pass and the rebuild), one run of
each, under a minute; a full run (N = 10^6, three runs of each) takes
several minutes.
"""

import argparse
import datetime
import json
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BENCH = os.path.join(ROOT, "build", "bench", "bench", "qmcache_bench")

TITLES = {"qmcache": "libqmcache", "qm_cache": "qm::Cache",
          "qm_shared": "qm::SharedCache", "rocksdb_lru": "RocksDB LRUCache",
          "rocksdb_hcc": "RocksDB HyperClockCache", "leveldb": "LevelDB cache",
          "std_map": "std::map", "lru": "hand-written LRU"}
PEERS = ["qmcache", "rocksdb_lru", "rocksdb_hcc", "leveldb", "std_map", "lru"]
WORKLOADS = {
    "hit": "lookup hit: fill N, look every key up once in random order",
    "miss": "lookup miss: fill N, look up N absent keys",
    "insert": "insert of N new keys, budget never reached",
    "readthrough": "read-through: Zipf 0.99 over N keys, budget N/10, 2N "
                   "operations (look up; insert on a miss)",
    "churn": "churn: Zipf 0.99 over N/10 keys, budget N/100, 2N operations",
}
EVICTING = ("readthrough", "churn")
LAYER_N = 1000
# The speed shortcuts measured one by one: (name, where it lives). The
# bench preset builds libqmcache without each (bench/CMakeLists.txt).
SHORTCUTS = [
    ("large_pages", "2 MiB pages for the node arena's chunks and the key "
     "index's table: qmcache/largepages.h, `AdviseLargePages`"),
    ("record_slab", "record blocks from a slab of the cache's own instead "
     "of malloc: qmcache/recordslab.h, `RecordSlab` (`NewRecord`, "
     "`DeleteRecord`)"),
    ("tree_top", "a copy of the key tree's top 12 levels for the insert's "
     "descent, with the key's index slot fetched first: qmcache/treetop.h, "
     "`TreeTop::Insert` (`NodeForKey`)"),
]
SHORTCUT_WORKLOADS = ("hit", "insert", "readthrough", "churn")


def key(c, w, n, threads=1, latency=False):
    return "%s/%s/%d/%d%s" % (c, w, n, threads, "/latency" if latency else "")


def plan(quick):
    """(key, arguments, runs) of every measurement."""
    n = 10**5 if quick else 10**6
    repeat = 1 if quick else 3
    ops = 2 * 10**6 if quick else 10**7
    out = []
    for w in WORKLOADS:
        for c in PEERS:
            if c == "std_map" and w in EVICTING:
                continue
            args = ["--contender", c, "--workload", w, "--records", str(n)]
            out.append((key(c, w, n), args, repeat))
            out.append((key(c, w, n, latency=True), args + ["--latency"], 1))
    for w in ("hit", "miss"):  # the C++ layer's cost: a few nanoseconds
        for c in ("qmcache", "qm_cache", "qm_shared"):
            out.append((key(c, w, LAYER_N), [
                "--contender", c, "--workload", w, "--records", str(LAYER_N),
                "--ops", str(ops)], 3 if quick else 7))
    for w in ("hit", "mixed"):
        for c in ("qm_shared", "rocksdb_lru"):
            for t in (1, 2):
                if any(k == key(c, w, LAYER_N, t) for k, _, _ in out):
                    continue  # the layer's own run above
                out.append((key(c, w, LAYER_N, t), [
                    "--contender", c, "--workload", w, "--records",
                    str(LAYER_N), "--ops", str(ops // t), "--threads", str(t)],
                    repeat))
    for name, _ in SHORTCUTS:
        for w in SHORTCUT_WORKLOADS:
            out.append((key("without_" + name, w, n), [
                "--contender", "qmcache", "--workload", w, "--records",
                str(n)], repeat))
    for size in (10**4, 10**5) if quick else (10**5, 10**6):
        for w in ("pass", "rebuild"):
            out.append((key("qmcache", w, size),
                        ["--workload", w, "--records", str(size)], 1))
    out.append((key("qmcache", "fixed", 1), ["--workload", "fixed"], 1))
    return n, out


def per_op_ns(r):
    """CPU time per operation (all threads), or the own workloads' time."""
    if r and r.get("ops_done"):
        return r["cpu_s"] * 1e9 / r["ops_done"]
    return None


def run_all(bench, quick):
    if not os.path.exists(bench):
        sys.exit("no %s: cmake --preset bench && cmake --build --preset bench"
                 % bench)
    n, runs = plan(quick)
    started, load_before = time.time(), os.getloadavg()
    done = {k: [] for k, _, _ in runs}
    status, loads = {}, []
    for rep in range(max(r for _, _, r in runs)):
        for k, args, repeat in runs:
            if rep >= repeat or status.get(k, "ok") != "ok":
                continue
            env = dict(os.environ)
            if k.startswith("without_"):  # libqmcache without a shortcut
                env["LD_LIBRARY_PATH"] = os.path.join(
                    os.path.dirname(bench), k.split("/")[0].replace("_", "-",
                                                                    1))
            try:
                p = subprocess.run([bench] + args, capture_output=True,
                                   text=True, timeout=600, env=env)
            except subprocess.TimeoutExpired:
                p = subprocess.CompletedProcess(args, -1, "", "timed out")
            lines = [x for x in p.stdout.splitlines() if x.startswith("{")]
            r = json.loads(lines[-1]) if lines else None
            status[k] = ("unavailable" if p.returncode == 3 else "error"
                         if r is None or p.returncode not in (0, 2) else
                         "failed" if p.returncode == 2 else "ok")
            if r:
                done[k].append(r)
            loads.append(os.getloadavg()[0])
            ns = per_op_ns(r)
            print("%-34s %-11s %s" % (k, status[k], "%.1f ns/op" % ns if ns
                                      else p.stderr.strip()[-200:]),
                  file=sys.stderr, flush=True)

    def order(r):  # threads: by elapsed time; else by CPU time per op
        if r.get("threads", 1) > 1:
            return -r["ops_done"] / r["wall_s"]
        return per_op_ns(r) or 0

    results = {}
    for k, rs in done.items():
        rs.sort(key=order)
        results[k] = dict(rs[len(rs) // 2] if rs else {}, runs=len(rs),
                          status=status.get(k, "error"))
    rev = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"],
                         capture_output=True, text=True).stdout.strip()
    model = next((line.split(":", 1)[1].strip() for line in
                  open("/proc/cpuinfo") if line.startswith("model name")), "?")
    return {"meta": {
        "records": n, "quick": quick, "commit": rev or "?",
        "machine": "%s, %d CPU(s)" % (model, os.cpu_count()),
        "date": datetime.datetime.now().astimezone().isoformat(
            timespec="seconds"),
        "load_before": load_before, "load_after": os.getloadavg(),
        "load_1min": [min(loads), max(loads)],
        "elapsed_s": time.time() - started}, "results": results}


# ---- formatting ----

def fmt_ns(v):
    if v is None:
        return "-"
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if v >= scale:
            return "%.2f %s" % (v / scale, unit)
    return "%.1f ns" % v


def fmt_rate(v):
    if not v:
        return "-"
    return "%.2f M" % (v / 1e6) if v >= 1e6 else "%.0f k" % (v / 1e3)


def fmt_count(v):
    return "-" if v is None else "{:,}".format(int(v))


def power(n):
    return "10^%d" % (len(str(n)) - 1) if str(n).strip("0") == "1" else str(n)


class Report:
    def __init__(self, data):
        self.meta, self.results = data["meta"], data["results"]
        self.n = self.meta["records"]
        self.sizes = sorted({int(k.split("/")[2]) for k in self.results
                             if k.split("/")[1] == "pass"})

    def get(self, c, w, n=None, threads=1, latency=False):
        r = self.results.get(key(c, w, self.n if n is None else n, threads,
                                 latency))
        return r if r and r.get("status") == "ok" else None

    def ns(self, c, w, n=None):
        return per_op_ns(self.get(c, w, n))

    def own(self, w, figure, n=1):
        return (self.get("qmcache", w, n) or {}).get(figure)

    # Goals: each returns (value, text); value None when not measured.
    def ratio(self, w, other):
        a, b = self.ns("qmcache", w), self.ns(other, w)
        if not a or not b:
            return None, "-"  # judged as shown, to two decimals
        return round(a / b, 2), "%.2fx (%s vs %s)" % (a / b, fmt_ns(a),
                                                      fmt_ns(b))

    def memory(self):
        r = self.get("qmcache", "insert")
        if not r:
            return None, "-"
        v = round(r["overhead_per_record"], 1)
        return v, "%.1f B (the empty cache's %s B included)" % (
            v, fmt_count(r["empty_cache_bytes"]))

    def fixed(self):
        v = self.own("fixed", "search_hit_ns")
        return v, fmt_ns(v)

    def fixed_ratio(self):
        a, b = self.fixed()[0], self.own("fixed", "bare_search_hit_ns")
        if not a or not b:
            return None, "-"
        return a / b, "%.2fx (%s vs %s)" % (a / b, fmt_ns(a), fmt_ns(b))

    def pass_ratio(self):
        n = max(self.sizes, default=0)
        a, b = self.own("pass", "pass_s", n), self.own("pass", "walk_sort_s", n)
        if not a or not b:
            return None, "-"
        return a / b, "%.2fx at N=%s (%s vs %s)" % (
            a / b, power(n), fmt_ns(a * 1e9), fmt_ns(b * 1e9))

    def longest(self):
        lat = self.get("qmcache", "readthrough", latency=True) or {}
        plain = self.get("qmcache", "readthrough") or {}
        if "max_ns" not in lat:
            return None, "-"
        return lat["max_ns"], "%s (longest eviction pass %s)" % (
            fmt_ns(lat["max_ns"]), fmt_ns(plain.get("eviction_max_s", 0) * 1e9))


# The performance goals: (goal, limit (None: reported) and its unit,
# measure, what holds it back when it is not met (from profiles with perf
# and callgrind)).
GOALS = [
    ("lookup hit, libqmcache / RocksDB LRU", (1.0, "x"),
     lambda m: m.ratio("hit", "rocksdb_lru"), None),
    ("lookup miss, libqmcache / RocksDB LRU (no worse than the last "
     "report's 0.76x)", (0.76, "x"),
     lambda m: m.ratio("miss", "rocksdb_lru"), None),
    ("insert of a new key, libqmcache / RocksDB LRU", (2.8, "x"),
     lambda m: m.ratio("insert", "rocksdb_lru"),
     "the new node's place in the key tree is found by descending it (the "
     "tree's shape is part of the interface). At 10^6 records that is about "
     "20 levels: the top 12 come from the compact copy, the other 8 are "
     "nodes read from memory, each waiting for the one above (a deeper "
     "copy costs more node reads to keep exact through rotations than it "
     "saves). A profile (perf) puts about half of an insert in that "
     "descent and an eighth in the kernel zeroing the fresh pages of "
     "the ~300 bytes a record, its node and its key take. RocksDB's insert "
     "is a hash-table insert into about a third of that memory."),
    ("read-through, libqmcache / RocksDB LRU", (1.8, "x"),
     lambda m: m.ratio("readthrough", "rocksdb_lru"),
     "records made in the current second cannot be evicted, so the cache "
     "holds more than its budget (peak records below) and the first insert "
     "of each second runs a pass that grades all of them and erases the "
     "surplus at once (the longest operation). A lookup is three timed "
     "calls (`CA_SEARCH`, `CA_QUERY`, `CA_FREE`), each paying the fixed "
     "cost below (stopwatch and statistics: about a sixth of the run), "
     "and a miss's insert descends the tree below the copy of its top."),
    ("churn, libqmcache / RocksDB LRU (no worse than the last report's "
     "2.64x)", (2.64, "x"),
     lambda m: m.ratio("churn", "rocksdb_lru"),
     "as for read-through, and more so: the cache holds several times its "
     "budget (peak records below), so a lookup (nine in ten operations "
     "hit) reads an index slot, a node and a record from a working set "
     "about ten times RocksDB's, which fits its cache of 10,000 entries in "
     "the processor's L2; and every insert made over the budget runs an "
     "eviction pass. The speed shortcuts below leave its lookups as they "
     "were; their table shows churn without each of them, in this run."),
    ("lookup hit, libqmcache / std::map", (1.3, "x"),
     lambda m: m.ratio("hit", "std_map"), None),
    ("insert of a new key, libqmcache / std::map", (1.5, "x"),
     lambda m: m.ratio("insert", "std_map"), None),
    ("memory per record beyond key and value", (225, " B"),
     lambda m: m.memory(), None),
    ("fixed cost of a call (`CA_SEARCH` hit, one record)", (40, " ns"),
     lambda m: m.fixed(), None),
    ("fixed cost / bare `BTree::Search`", (3.0, "x"), lambda m: m.fixed_ratio(),
     "every call is timed: it reads the stopwatch twice and adds its time to "
     "three statistic slots (the stopwatch and statistic rows below), more "
     "than a bare search of a one-node tree costs."),
    ("eviction pass / walk and sort of the same keys' grades", (2.0, "x"),
     lambda m: m.pass_ratio(), None),
    ("longest single operation of read-through", None,
     lambda m: m.longest(), None),
]


def goals(m):
    lines = ["| goal | measured | limit | verdict |", "|---|---|---|---|"]
    notes = []
    for what, limit, measure, note in GOALS:
        v, text = measure(m)
        ok = None if v is None or limit is None else v <= limit[0]
        lines.append("| %s | %s | %s | %s |" % (
            what, text, "reported" if limit is None else
            "<= %s%s" % ("%.2f" % limit[0] if limit[1] == "x" else limit[0],
                         limit[1]),
            {None: "-", True: "met", False: "NOT met"}[ok]))
        if ok is False and note:
            notes.append("- %s: %s" % (what, note))
    if notes:
        lines += ["", "What holds the unmet goals back:", ""] + notes
    return lines


METHOD = """\
Every contender stores the same 16-byte random keys with 64-byte values, \
each workload in a process of its own. A lookup is the round trip a host \
makes: find, copy the 64 value bytes out, give the entry back (libqmcache: \
`CA_SEARCH` + `CA_QUERY` + `CA_FREE`; RocksDB and LevelDB: `Lookup` + \
`Value` + `Release`); every hit's value is checked against its key, and a \
run fails unless the hit workload hits every key and the miss workload none.

- Throughput, hit ratio, memory and peak records come from plain runs (the \
median of the runs by time per operation); ops/s (CPU) counts the process's \
CPU time (time spent descheduled on a busy machine excluded), ops/s (wall) \
the elapsed time. Ratios use the CPU time per operation.
- Latency percentiles come from another process that brackets every \
operation with `rdtsc` (fenced); the timer's own cost, about 20 ns, is \
included.
- Budgets: libqmcache `maxBytes` = budget records x 64 (0xFFFFFFFF where \
nothing may be evicted); RocksDB and LevelDB capacity = budget records x 64 \
with a charge of 64 per entry and metadata not charged, values in a heap \
block freed by the deleter. Where nothing may be evicted (hit, miss, \
insert) their capacity is 1.25 x N x 64: they split it over shards and keys \
do not spread evenly. The HyperClockCache sizes its table from its capacity \
when it is made, so that table is part of its memory figure.
- libqmcache runs on the real clock: records made in the current second \
are never evicted, so it may hold more than its budget (peak records, \
sampled every 256 operations) and its hit ratio is then not that of its \
budget.
- Memory: heap bytes in use (mallinfo2 `uordblks + hblkhd`) after the fill \
minus before the cache was made, per record, less the 80 bytes of key and \
value.
- std::map looks up through a transparent comparator (no key string made); \
the hand-written LRU's index is keyed by std::string, so each of its \
lookups makes one."""


def shortcuts(m):
    lines = ["| shortcut, and where it lives | " + " | ".join(
        "%s: without, with, saved" % w for w in SHORTCUT_WORKLOADS) +
        " | B/record: without, with |", "|---|" + "---|" * (
            len(SHORTCUT_WORKLOADS) + 1)]
    for name, where in SHORTCUTS:
        cells = []
        for w in SHORTCUT_WORKLOADS:
            a, b = m.ns("without_" + name, w), m.ns("qmcache", w)
            cells.append("-" if not a or not b else "%s, %s, %+.0f%%" % (
                fmt_ns(a), fmt_ns(b), 100 * (a - b) / a))
        a = (m.get("without_" + name, "insert") or {}).get(
            "overhead_per_record")
        b = (m.get("qmcache", "insert") or {}).get("overhead_per_record")
        cells.append("-" if a is None or b is None else "%.1f, %.1f" % (a, b))
        lines.append("| %s | %s |" % (where, " | ".join(cells)))
    return lines


def side_by_side(m):
    others = ("rocksdb_lru", "rocksdb_hcc", "leveldb", "std_map", "lru")
    lines = ["| workload | " + " | ".join(
        "libqmcache / %s" % TITLES[c] for c in others) + " |",
        "|---|" + "---|" * len(others)]
    for w in WORKLOADS:
        lines.append("| %s | %s |" % (w, " | ".join(
            m.ratio(w, c)[1].split(" ")[0] for c in others)))
    for w, title in WORKLOADS.items():
        lines += ["", "### " + title, "",
                  "| contender | ops/s (CPU) | time/op | ops/s (wall) | p50 | "
                  "p99 | p99.9 | max | hit ratio | B/record beyond key+value "
                  "| peak records | sized as |", "|---" * 12 + "|"]
        for c in PEERS:
            r = m.results.get(key(c, w, m.n))
            if r is None:
                continue
            if r["status"] != "ok":
                lines.append("| %s | %s: %s |" % (TITLES[c], r["status"],
                                                   r.get("failure", "")))
                continue
            lat = m.get(c, w, latency=True) or {}
            mem = r.get("overhead_per_record")
            lines.append("| %s |" % " | ".join([
                TITLES[c], fmt_rate(r["ops_done"] / r["cpu_s"]),
                fmt_ns(per_op_ns(r)), fmt_rate(r["ops_done"] / r["wall_s"])] +
                [fmt_ns(lat.get(p)) for p in
                 ("p50_ns", "p99_ns", "p999_ns", "max_ns")] +
                ["%.4f" % r["hit_ratio"] if "hit_ratio" in r else "-",
                 "-" if mem is None else "%.1f" % mem,
                 fmt_count(r["peak_records"]), r.get("capacity", "")]))
    lines += ["", "libqmcache's own figures of its reclamation in these runs "
              "(`CA_GETSTAT` slots 6 and 7):", "",
              "| workload | eviction passes | longest pass | total in passes "
              "| tree rebuilds | longest rebuild | peak records / budget |",
              "|---|---|---|---|---|---|---|"]
    for w in EVICTING:
        r = m.get("qmcache", w)
        if r:
            lines.append("| %s | %s | %s | %s | %s | %s | %s / %s |" % (
                w, fmt_count(r.get("eviction_count")),
                fmt_ns(r.get("eviction_max_s", 0) * 1e9),
                fmt_ns(r.get("eviction_total_s", 0) * 1e9),
                fmt_count(r.get("rebuild_count")),
                fmt_ns(r.get("rebuild_max_s", 0) * 1e9),
                fmt_count(r["peak_records"]), fmt_count(r["budget_records"])))
    return lines


def own_costs(m):
    lines = ["| N records | " + " | ".join(power(n) for n in m.sizes) + " |",
             "|---|" + "---|" * len(m.sizes)]
    for w, figure, title in (
            ("pass", "pass_s", "one eviction pass"),
            ("pass", "walk_sort_s", "walk of a std::map of the same keys, "
             "grading each, and std::sort of the grades"),
            ("rebuild", "rebuild_s", "one key-tree rebuild")):
        lines.append("| %s | %s |" % (title, " | ".join(
            fmt_ns((m.own(w, figure, n) or 0) * 1e9 or None)
            for n in m.sizes)))
    lines += ["", "| one call, on a cache of one record | CPU time |",
              "|---|---|"]
    for figure, title in (
            ("search_hit_ns", "`CA_SEARCH`, hit"),
            ("search_miss_ns", "`CA_SEARCH`, miss"),
            ("bare_search_hit_ns", "bare `BTree::Search`, hit"),
            ("bare_search_miss_ns", "bare `BTree::Search`, miss"),
            ("clock_start_stop_ns", "the stopwatch started and stopped"),
            ("stat_add_ns", "one value added to a statistic slot")):
        lines.append("| %s | %s |" % (title, fmt_ns(m.own("fixed", figure))))
    return lines


def layer(m):
    lines = ["| one thread | C calls | qm::Cache | qm::SharedCache | "
             "Cache - C | SharedCache - C |", "|---|---|---|---|---|---|"]
    for w in ("hit", "miss"):
        c = m.ns("qmcache", w, LAYER_N)
        cells = [m.ns(x, w, LAYER_N) for x in ("qm_cache", "qm_shared")]
        lines.append("| lookup %s | %s |" % (w, " | ".join(
            [fmt_ns(c)] + [fmt_ns(v) for v in cells] +
            ["-" if not v or not c else "%+.1f ns (%.2fx)" % (v - c, v / c)
             for v in cells])))
    lines += ["", "| work | threads | qm::SharedCache | RocksDB LRUCache | "
              "SharedCache / RocksDB |", "|---|---|---|---|---|"]
    for w, title in (("hit", "lookup hit"),
                     ("mixed", "90% lookups, 10% inserts replacing")):
        for t in (1, 2):
            rates, cells = [], []
            for c in ("qm_shared", "rocksdb_lru"):
                r, one = m.get(c, w, LAYER_N, t), m.get(c, w, LAYER_N, 1)
                rates.append(r and r["ops_done"] / r["wall_s"])
                cells.append("%s/s, %s CPU/op" % (fmt_rate(rates[-1]),
                                                  fmt_ns(per_op_ns(r))))
                if t > 1 and rates[-1] and one:
                    cells[-1] += " (%.2fx the ops/s of 1 thread)" % (
                        rates[-1] / (one["ops_done"] / one["wall_s"]))
            lines.append("| %s | %d | %s | %s | %s |" % (
                title, t, cells[0], cells[1], "%.2fx" % (rates[1] / rates[0])
                if rates[0] and rates[1] else "-"))
    return lines


def markdown(data, note):
    m = Report(data)
    meta = m.meta
    q = " --quick" if meta["quick"] else ""
    loads = ["%.2f, %.2f, %.2f" % tuple(meta[k]) for k in
             ("load_before", "load_after")]
    return "\n".join([
        "# Performance of libqmcache", "",
        "Generated by `scripts/bench_report.py%s` from `qmcache_bench` "
        "(Release build, preset `bench`)." % q, "",
        "- Run: %s, commit %s, N = %s records%s; it took %.0f s" % (
            meta["date"], meta["commit"], fmt_count(m.n),
            " (quick run)" if meta["quick"] else "", meta["elapsed_s"]),
        "- Machine: %s" % meta["machine"],
        "- Load average: %s before the run, %s after; the 1-minute load "
        "average was %.2f to %.2f while it ran" % (
            tuple(loads) + tuple(meta.get("load_1min", (0, 0))))] +
        (["- Note: " + note] if note else []) + [
        "", "Reproduce: `cmake --preset bench && cmake --build --preset bench "
        "&& scripts/bench_report.py` (`--quick`: N = 10^5, one run of each, "
        "under a minute). One measurement is, for example, "
        "`qmcache_bench --contender rocksdb_lru --workload hit --records 1e6`"
        ".", "",
        "## Goals", "",
        "Ratios are libqmcache's time per operation over the other's, in the "
        "same run (above 1: libqmcache is slower).", ""] + goals(m) + [
        "", "## The speed shortcuts, each left out", "",
        "Each row runs libqmcache built without one shortcut (the bench "
        "preset builds `without-<shortcut>/libqmcache.so.1` beside "
        "`qmcache_bench`, with `QMCACHE_WITHOUT_<SHORTCUT>` defined) against "
        "the library with all of them, in the same run: CPU time per "
        "operation, the median of the runs, and memory per record beyond key "
        "and value (insert workload). Every shortcut changes no result; the "
        "release test suite passes with each left out "
        "(docs/RELIABILITY.md).", ""] + shortcuts(m) + [
        "", "## Side by side with the caches hosts use", "", METHOD, "",
        "Time per operation, libqmcache / the other:", ""] +
        side_by_side(m) + [
        "", "## libqmcache's own costs", "",
        "CPU time. The pass grades and sorts every record of a cache one "
        "record over its mark and erases one or two; the rebuild rebuilds a "
        "key tree with 20,001 empty nodes; both are the median of several "
        "(`qmcache_bench --workload pass|rebuild --records N`). Every call "
        "is timed, so its fixed cost includes a stopwatch and three "
        "statistic additions (`--workload fixed`, the median of batches of "
        "4096 calls).", ""] + own_costs(m) + [
        "", "## The C++ layer", "",
        "A lookup through the layer is `find()` (search and query) and the "
        "hold given back; through the C calls `CA_SEARCH` + `CA_QUERY` + "
        "`CA_FREE`. Each cache holds %d records; CPU time per lookup, the "
        "median of the runs." % LAYER_N, ""] + layer(m) + [
        "", "From one and two threads on one cache: operations per second of "
        "elapsed time, summed over the threads, and CPU time per "
        "operation; the last column is the ratio of the times per operation "
        "by elapsed time. SharedCache takes the "
        "cache's lock for a lookup and the process-wide lock as well for an "
        "insert; RocksDB's LRUCache of this size has one shard, so one "
        "mutex. Two threads can only scale when two CPUs are free.", ""])


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--quick", action="store_true")
    ap.add_argument("--bench", default=BENCH)
    ap.add_argument("--out", default=os.path.join(ROOT, "docs",
                                                  "PERFORMANCE.md"))
    ap.add_argument("--json", help="keep the results here")
    ap.add_argument("--from-json", help="report the results kept here")
    ap.add_argument("--note", help="a line about the run (a busy machine)")
    args = ap.parse_args()
    if args.from_json:
        with open(args.from_json) as f:
            data = json.load(f)
    else:
        data = run_all(args.bench, args.quick)
        with open(args.json or os.path.join(os.path.dirname(args.bench),
                                            "bench_results.json"), "w") as f:
            json.dump(data, f, indent=1)
    with open(args.out, "w") as f:
        f.write(markdown(data, args.note))
    print("wrote", args.out, file=sys.stderr)
    bad = [k for k, r in data["results"].items()
           if r["status"] in ("failed", "error")]
    for k in bad:
        print("check failed: %s: %s" % (k, data["results"][k].get(
            "failure", "no result")), file=sys.stderr)
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
