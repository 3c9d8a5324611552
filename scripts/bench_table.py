#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs qmcache_bench and qmcache_compare and writes docs/PERFORMANCE.md.

Two programs feed the report:
 - qmcache_compare (through scripts/bench_compare.py): libqmcache side by
   side with RocksDB's LRU cache and HyperClockCache, LevelDB's cache,
   std::map and a hand-written LRU cache, one process per contender and
   workload, with the goals measured against RocksDB's LRU cache;
 - qmcache_bench (Google Benchmark): libqmcache ("qm") against std::map
   ("map") and the hand-written LRU cache ("lru") per workload, key kind and
   size, and the cost of one eviction pass and one tree rebuild. Benchmark
   names are "<contender>/<workload>/<key kind>/<records>"; a benchmark
   whose iteration does many operations reports "ops_per_iter". The C++
   layer's benchmarks ("layer/...") run in a second pass, repeated and
   interleaved at random, the median of each kept: they compare figures of
   a few nanoseconds.

  scripts/bench_table.py [--quick] [--bench PATH] [--compare PATH]
                         [--json FILE] [--from-json FILE]
                         [--compare-json FILE] [--from-compare-json FILE]
                         [--layer-json FILE] [--from-layer-json FILE]
                         [--skip-compare] [--repeat R] [--note TEXT]
                         [--out FILE]
"""

import argparse
import datetime
import json
import os
import re
import subprocess
import sys

# bench_compare.py sits beside this script; leave no __pycache__ there.
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import bench_compare  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The `bench` preset's build, else a hand-configured one.
DEFAULT_BENCH = next(
    (p for p in (os.path.join(ROOT, "build", d, "bench", "qmcache_bench")
                 for d in ("bench", "perf-bench")) if os.path.exists(p)),
    os.path.join(ROOT, "build", "bench", "bench", "qmcache_bench"))
UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
BIG = 1000000
# CPU time of the benchmark thread: the machine may be shared, and time the
# thread spends descheduled would otherwise count against whoever ran then.
TIME_FIELD = "cpu_time"

WORKLOADS = [
    ("insert_new", "insert of a new key"),
    ("insert_replace", "insert replacing a key"),
    ("search_hit", "search hit (qm: CA_SEARCH + CA_FREE)"),
    ("search_miss", "search miss"),
    ("query", "CA_QUERY of a held record"),
    ("mixed", "90% search / 10% insert, Zipf 0.99, budget 10%"),
]


LAYER_FILTER = "^layer/"
LAYER_REPEAT = 15


def run_bench(bench, quick, json_path):
    env = dict(os.environ)
    cmd = [bench, "--benchmark_out=" + json_path,
           "--benchmark_out_format=json",
           "--benchmark_filter=-" + LAYER_FILTER]
    if quick:
        env["QMBENCH_SIZES"] = "1000,100000"
        cmd.append("--benchmark_min_time=0.1")
    print("running:", " ".join(cmd), file=sys.stderr)
    subprocess.run(cmd, env=env, check=True, stdout=sys.stderr)


def run_layer(bench, quick, json_path):
    """The layer's benchmarks, repeated and interleaved at random."""
    cmd = [bench, "--benchmark_out=" + json_path,
           "--benchmark_out_format=json",
           "--benchmark_filter=" + LAYER_FILTER,
           "--benchmark_repetitions=%d" % (5 if quick else LAYER_REPEAT),
           "--benchmark_enable_random_interleaving=true",
           "--benchmark_min_time=0.1"]
    print("running:", " ".join(cmd), file=sys.stderr)
    subprocess.run(cmd, check=True, stdout=sys.stderr)


def base_name(b):
    """The registered name without the suffixes the framework appends."""
    name = b.get("run_name", b["name"])
    parts = [p for p in name.split("/")
             if not re.match(r"^(iterations|min_time|repeats|threads|"
                             r"real_time|manual_time):", p)]
    return "/".join(parts)


def per_op_ns(b):
    # A benchmark that times itself (manual time) reports it as real time.
    field = "real_time" if "manual_time" in b["name"] else TIME_FIELD
    t = b[field] * UNIT_NS.get(b.get("time_unit", "ns"), 1.0)
    ops = b.get("ops_per_iter")
    return t / ops if ops else t


def load(json_path):
    """Results by name; of repeated runs, the one with the median time."""
    with open(json_path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        if b.get("run_type", "iteration") != "iteration":
            continue
        name = base_name(b)
        if b.get("error_occurred"):
            b = {"error": b.get("error_message", "error")}
        runs.setdefault(name, []).append(b)
    results = {}
    for name, bs in runs.items():
        errors = [b for b in bs if "error" in b]
        if errors:
            results[name] = errors[0]
            continue
        bs.sort(key=lambda b: b.get("items_per_second") or -per_op_ns(b))
        results[name] = dict(bs[len(bs) // 2], runs=len(bs))
    return data.get("context", {}), results


def machine():
    model, cpus = "unknown", "?"
    try:
        out = subprocess.run(["lscpu"], capture_output=True, text=True).stdout
        for line in out.splitlines():
            key, _, val = line.partition(":")
            if key.strip() == "Model name":
                model = val.strip()
            elif key.strip() == "CPU(s)":
                cpus = val.strip()
    except OSError:
        pass
    return model, cpus


def fmt_ns(v):
    if v is None:
        return "-"
    if v >= 1e6:
        return "%.2f ms" % (v / 1e6)
    if v >= 1e3:
        return "%.2f us" % (v / 1e3)
    return "%.1f ns" % v


def fmt_ratio(a, b):
    if a is None or b is None or b == 0:
        return "-"
    return "%.2fx" % (a / b)


def ns_of(results, name):
    b = results.get(name)
    if b is None or "error" in b:
        return None
    return per_op_ns(b)


def sizes_and_kinds(results):
    sizes, kinds = set(), []
    for name in results:
        p = name.split("/")
        if (len(p) == 4 and p[0] in ("qm", "map", "lru") and p[3].isdigit()
                and p[1] in [w for w, _ in WORKLOADS]):
            sizes.add(int(p[3]))
            if p[2] not in kinds:
                kinds.append(p[2])
    return sorted(sizes), kinds


def eviction_names(results):
    """Eviction-pass benchmarks at 10^6 records from the reclaim suite."""
    out = []
    for name in results:
        if re.search(r"(?i)evict|compress", name) and re.search(
                r"(^|\D)%d($|\D)" % BIG, name):
            out.append(name)
    return sorted(out)


def goal_line(what, value, limit, ok):
    mark = "n/a" if ok is None else ("met" if ok else "NOT met")
    return "| %s | %s | %s | %s |" % (what, value, limit, mark)


def goals(results, kinds):
    rows = []
    for kind in kinds:
        q = ns_of(results, "qm/search_hit/%s/%d" % (kind, BIG))
        m = ns_of(results, "map/search_hit/%s/%d" % (kind, BIG))
        r = q / m if q and m else None
        rows.append(goal_line(
            "CA_SEARCH hit at 10^6 / std::map::find (%s)" % kind,
            "%.2fx (%s vs %s)" % (r, fmt_ns(q), fmt_ns(m)) if r else "-",
            "<= 1.3x", None if r is None else r <= 1.3))
    for kind in kinds:
        q = ns_of(results, "qm/insert_new/%s/%d" % (kind, BIG))
        m = ns_of(results, "map/insert_new/%s/%d" % (kind, BIG))
        r = q / m if q and m else None
        rows.append(goal_line(
            "CA_INSERT new at 10^6 / std::map insertion (%s)" % kind,
            "%.2fx (%s vs %s)" % (r, fmt_ns(q), fmt_ns(m)) if r else "-",
            "<= 1.5x", None if r is None else r <= 1.5))
    f = ns_of(results, "qm/fixed_search_hit/rand16/1")
    bare = ns_of(results, "btree/bare_search_hit/rand16/1")
    rows.append(goal_line("fixed cost of a call (CA_SEARCH, one record)",
                          fmt_ns(f), "<= 40 ns",
                          None if f is None else f <= 40))
    r = f / bare if f and bare else None
    rows.append(goal_line(
        "fixed cost / bare BTree::Search",
        "%.2fx (%s vs %s)" % (r, fmt_ns(f), fmt_ns(bare)) if r else "-",
        "<= 3x", None if r is None else r <= 3))
    evictions = eviction_names(results)
    for name in evictions:
        e = ns_of(results, name)
        # The reclaim suite names no key kind: its keys are numbered (be4).
        kind = next((k for k in kinds if "/%s/" % k in "/%s/" % name), "be4")
        base = ns_of(results, "baseline/walk_sort/%s/%d" % (kind, BIG))
        r = e / base if e and base else None
        rows.append(goal_line(
            "eviction pass `%s` / (walk + std::sort of 10^6 doubles, %s)"
            % (name, kind),
            "%.2fx (%s vs %s)" % (r, fmt_ns(e), fmt_ns(base)) if r else "-",
            "<= 2x", None if r is None else r <= 2))
    if not evictions:
        rows.append(goal_line("eviction pass over 10^6 records",
                              "not measured in this run", "<= 2x", None))
    for kind in kinds:
        b = results.get("qm/insert_new/%s/%d" % (kind, BIG))
        v = b.get("overhead_per_record") if b and "error" not in b else None
        rows.append(goal_line(
            "memory beyond key and value at 10^6 (%s)" % kind,
            "-" if v is None else "%.0f B/record" % v, "<= 96 B",
            None if v is None else v <= 96))
    return rows


def reclaim_goal_rows(results):
    """What one eviction pass and one rebuild cost at 10^5 and 10^6."""
    rows = []
    for what, stem in (("one eviction pass", "reclaim/eviction_pass"),
                       ("one key-tree rebuild", "reclaim/rebuild")):
        for n, label in ((100000, "10^5"), (1000000, "10^6")):
            name = next((k for k in results
                         if k.startswith("%s/%d/" % (stem, n)) or
                         k == "%s/%d" % (stem, n)), None)
            v = ns_of(results, name) if name else None
            rows.append("| %s over %s records (`%s`) | %s | reported | - |" % (
                what, label, name or stem,
                fmt_ns(v) if v is not None else "not measured in this run"))
    return rows


def ops_table(results, sizes, kinds):
    lines = ["| workload | keys | records | libqmcache | std::map | LRU |"
             " qm/map | qm/lru |", "|---|---|---|---|---|---|---|---|"]
    for wl, title in WORKLOADS:
        for kind in kinds:
            for n in sizes:
                q = ns_of(results, "qm/%s/%s/%d" % (wl, kind, n))
                m = ns_of(results, "map/%s/%s/%d" % (wl, kind, n))
                l = ns_of(results, "lru/%s/%s/%d" % (wl, kind, n))
                if q is None and m is None and l is None:
                    continue
                extra = ""
                b = results.get("qm/%s/%s/%d" % (wl, kind, n))
                if wl == "mixed" and b and "hit_rate" in b:
                    lb = results.get("lru/%s/%s/%d" % (wl, kind, n)) or {}
                    extra = " (hit rate qm %.2f, lru %.2f)" % (
                        b["hit_rate"], lb.get("hit_rate", float("nan")))
                lines.append("| %s%s | %s | %d | %s | %s | %s | %s | %s |" % (
                    title, extra, kind, n, fmt_ns(q), fmt_ns(m), fmt_ns(l),
                    fmt_ratio(q, m), fmt_ratio(q, l)))
    return lines


def memory_table(results, sizes, kinds):
    lines = ["| keys | records | libqmcache | std::map | LRU |",
             "|---|---|---|---|---|"]
    for kind in kinds:
        for n in sizes:
            cells = []
            for c in ("qm", "map", "lru"):
                b = results.get("%s/insert_new/%s/%d" % (c, kind, n))
                if b is None or "error" in b or \
                        "overhead_per_record" not in b:
                    cells.append("-")
                else:
                    cells.append("%.0f (%.0f total)" % (
                        b["overhead_per_record"], b["bytes_per_record"]))
            lines.append("| %s | %d | %s |" % (kind, n, " | ".join(cells)))
    return lines


def other_table(results, known):
    lines = ["| benchmark | time per operation | counters |", "|---|---|---|"]
    skip = {"name", "run_name", "run_type", "repetitions", "repetition_index",
            "threads", "iterations", "real_time", "cpu_time", "time_unit",
            "family_index", "per_family_instance_index", "ops_per_iter",
            "runs"}
    for name in sorted(results):
        if name in known:
            continue
        b = results[name]
        if "error" in b:
            lines.append("| %s | error: %s | |" % (name, b["error"]))
            continue
        counters = ", ".join("%s=%.4g" % (k, v) for k, v in b.items()
                             if k not in skip and isinstance(v, (int, float)))
        lines.append("| %s | %s | %s |" % (name, fmt_ns(per_op_ns(b)),
                                           counters))
    return lines


LAYER_HOWS = [
    ("one_cache", "one SharedCache for both threads"),
    ("own_cache", "a SharedCache per thread"),
    ("c_one_mutex", "a cache per thread, C calls under one host mutex"),
]


def fmt_rate(v):
    return "-" if v is None else "%.2f M/s" % (v / 1e6)


def layer_section(results, context=None):
    """The C++ layer against the C calls, and SharedCache from 2 threads."""
    text = ["## The C++ layer (qmcache_bench)", ""]
    names = sorted(n for n in results if n.startswith("layer/"))
    if not names:
        return text + ["Not measured in this run.", ""]
    runs = max(results[n].get("runs", 1) for n in names)
    if context:
        text.append("Run: %s; load average when it started: %s." % (
            context.get("date", "?"), ", ".join(
                "%.2f" % x for x in context.get("load_avg", []))))
        text.append("")
    text.append(
        "A lookup is the round trip a host makes: find the record, copy its "
        "64 bytes out, give it back. In C that is `CA_SEARCH` + `CA_QUERY` + "
        "`CA_FREE`; through the layer, `find()` (which searches and "
        "queries) and the hold's destructor. Each cache holds 1000 records "
        "under 16-byte random keys. Every `layer/` benchmark ran %d time(s), "
        "interleaved at random with the others; the tables show the median "
        "run." % runs)
    text.append("")
    text.append("| one thread | C calls | qm::Cache | qm::SharedCache | "
                "Cache - C | SharedCache - C |")
    text.append("|---|---|---|---|---|---|")
    for work, title in (("lookup", "lookup hit"), ("miss", "lookup miss")):
        c = ns_of(results, "layer/%s/c/1000" % work)
        cells = [ns_of(results, "layer/%s/%s/1000" % (work, how))
                 for how in ("cache", "shared")]
        diffs = ["-" if c is None or v is None else "%+.1f ns (%s)" % (
            v - c, fmt_ratio(v, c)) for v in cells]
        text.append("| %s | %s | %s | %s | %s | %s |" % (
            title, fmt_ns(c), fmt_ns(cells[0]), fmt_ns(cells[1]), diffs[0],
            diffs[1]))
    text.append("")
    text.append(
        "Throughput from one and two threads: lookups (and, in the mixed "
        "rows, one insert replacing a record in ten operations) per second "
        "of elapsed time, summed over the threads. Through the layer, "
        "lookups on one cache share its lock and inserts on any cache share "
        "the process-wide lock; the last column is the simplest correct "
        "host of the C calls, one mutex around every call. Two threads "
        "can only scale when two CPUs are free: on a busy machine these "
        "rows measure the machine as much as the locks.")
    text.append("")
    text.append("| work | threads | %s |" % " | ".join(t for _, t in
                                                      LAYER_HOWS))
    text.append("|---|---|%s" % ("---|" * len(LAYER_HOWS)))
    for work, title in (("mt_lookup", "lookup hit"),
                        ("mt_mixed", "90% lookups, 10% inserts")):
        for threads in (1, 2):
            cells = []
            for how, _ in LAYER_HOWS:
                b = results.get(
                    "layer/%s/%s/%d/real_time" % (work, how, threads)) or {}
                v = b.get("items_per_second")
                one = (results.get("layer/%s/%s/1/real_time" % (work, how))
                       or {}).get("items_per_second")
                cell = fmt_rate(v)
                if threads > 1 and v and one:
                    cell += " (%.2fx of 1 thread)" % (v / one)
                cells.append(cell)
            text.append("| %s | %d | %s |" % (title, threads,
                                              " | ".join(cells)))
    text.append("")
    text.append("RocksDB from two threads: not measured; `qmcache_compare` "
                "drives every contender from one thread.")
    text.append("")
    return text


# What the profile shows about the goals that the record layout and the
# per-call timing put out of reach.
GOAL_NOTES = [
    "What holds the unmet goals back (profiled with callgrind and perf):",
    "",
    "- Fixed cost against a bare `BTree::Search`: every call is timed, so it "
    "reads the stopwatch twice (`stat/clock_start_stop`, about 22 ns, already "
    "the TSC, the cheapest clock here) and adds its value to three statistic "
    "slots (`stat/add`, about 3.4 ns each). A bare search of a one-node tree "
    "costs 5-7 ns, so 3x would leave under 15 ns for the timing alone.",
    "- Memory: the layouts are the interface: a tree node is 80 bytes "
    "(its key behind it, in a per-cache arena) and a record 104 bytes (its "
    "data of size + 1 bytes behind it, one heap block with its allocator "
    "header), and the key index adds a slot of 8 bytes at up to 70% load. "
    "The node and the record alone exceed 96 bytes.",
]

# What the profile shows about the goals against RocksDB's LRUCache that
# the tree and the eviction rules put out of reach.
HOST_GOAL_NOTES = [
    "What holds the unmet goals back (profiled with perf and callgrind):",
    "",
    "- Insert of a new key: the new node's place in the key tree is found by "
    "descending it (the tree's shape is part of the interface); at 10^6 "
    "records that is about 19 levels, most of them cache misses. The "
    "descent is about 60% of the insert loop's samples, 71% of those on "
    "loading the next child; each level's children and their keys are "
    "fetched ahead while the key is compared, but every level waits for "
    "the one above. RocksDB's insert is a hash-table insert.",
    "- Read-through: records made in the current second cannot be evicted, "
    "so the cache holds up to 2.3 times its budget (peak records below) "
    "and the first insert of each second runs a pass that grades all of "
    "them and erases the surplus at once (the longest operation). A lookup "
    "is three timed calls (`CA_SEARCH`, `CA_QUERY`, `CA_FREE`), each "
    "reading the stopwatch twice and adding to the statistics (about 32 ns "
    "a call, `fixed cost of a call` below).",
]


COMPARE_METHOD = [
    "Every contender stores the same 16-byte random keys with 64-byte "
    "values, on one thread, each workload in a process of its own "
    "(`qmcache_compare --contender X --workload Y`). A lookup is the round "
    "trip a host makes: find, copy the 64 value bytes out, release "
    "(libqmcache: `CA_SEARCH` + `CA_QUERY` + `CA_FREE`; RocksDB and "
    "LevelDB: `Lookup` + `Value` + `Release`); every hit's value is "
    "checked against its key, and a run fails unless the hit workload hits "
    "every key and the miss workload none.",
    "",
    "- Throughput, hit ratio, memory and peak records come from a plain run; "
    "ops/s (CPU) counts the thread's CPU time (time spent descheduled on a "
    "busy machine excluded), ops/s (wall) the elapsed time. Ratios use the "
    "CPU time per operation.",
    "- Latency percentiles come from a second process over fresh state that "
    "brackets every operation with `rdtsc` (fenced); the timer's own cost, "
    "about 20 ns, is included.",
    "- Budgets: libqmcache `maxBytes` = budget records x 64 (0xFFFFFFFF "
    "where nothing may be evicted); RocksDB and LevelDB capacity = budget "
    "records x 64 with a charge of 64 per entry and metadata not charged, "
    "values in a heap block freed by the deleter. In the fill workloads "
    "(hit, miss, insert) their capacity is 1.25 x N x 64: they split it "
    "over shards and keys do not spread evenly. The HyperClockCache sizes "
    "its table from its capacity when it is made, so that table is part of "
    "its memory figure.",
    "- libqmcache runs on the real clock: records made in the current second "
    "are never evicted, so it may hold more than its budget (peak records, "
    "sampled every 256 operations) and its hit ratio is then not that of "
    "its budget. Every insert made while it is over budget runs an "
    "eviction pass.",
    "- Memory: heap bytes in use (mallinfo2 `uordblks + hblkhd`) after the "
    "fill minus before the cache was made, per record, less the 80 bytes of "
    "key and value.",
    "- std::map looks up through a transparent comparator (no key string "
    "made); the hand-written LRU's index is keyed by std::string, so each "
    "of its lookups makes one.",
]


def compare_section(cmp):
    """The side-by-side part of the report, from bench_compare's results."""
    text = ["## Side by side with the caches hosts use", ""]
    if cmp is None:
        text += ["Not run this time (`--skip-compare`).", ""]
        return text
    text += COMPARE_METHOD + [""]
    text += bench_compare.markdown(cmp)
    return text


def write_report(out, context, results, quick, cmp=None, note=None,
                 layer_context=None):
    sizes, kinds = sizes_and_kinds(results)
    model, cpus = machine()
    known = set()
    for c in ("qm", "map", "lru"):
        for wl, _ in WORKLOADS:
            for kind in kinds:
                for n in sizes:
                    known.add("%s/%s/%s/%d" % (c, wl, kind, n))
    known.update(n for n in results if n.startswith("layer/"))
    try:
        rev = subprocess.run(["git", "-C", ROOT, "rev-parse", "--short",
                              "HEAD"], capture_output=True,
                             text=True).stdout.strip()
    except OSError:
        rev = "?"
    text = []
    text.append("# Performance of libqmcache")
    text.append("")
    text.append("Generated by `scripts/bench_table.py`%s from the comparison "
                "program `qmcache_compare` and the benchmark executable "
                "`qmcache_bench` (Release build, Google Benchmark)."
                % (" --quick" if quick else ""))
    text.append("")
    text.append("- Date of the run: %s" % context.get(
        "date", datetime.datetime.now().strftime("%Y-%m-%d %H:%M")))
    text.append("- Machine: %s, %s CPU(s)%s" % (
        model, cpus, ", %s MHz" % context.get("mhz_per_cpu")
        if context.get("mhz_per_cpu") else ""))
    text.append("- Commit: %s" % rev)
    text.append("- Load average during the run: %s" % ", ".join(
        "%.2f" % x for x in context.get("load_avg", [])))
    if note:
        text.append("- Note: %s" % note)
    text.append("")
    text.append("Reproduce: `cmake --preset bench && cmake --build --preset "
                "bench && scripts/bench_table.py` (`--quick` for 10^3 and "
                "10^5 records in qmcache_bench and N = 10^5 in the "
                "comparison).")
    text.append("")
    text.append("## Goals against the host caches")
    text.append("")
    text.append("Ratios are libqmcache's time per operation over RocksDB "
                "LRUCache's in the comparison below (above 1: libqmcache is "
                "slower); the eviction pass and rebuild figures come from "
                "qmcache_bench's reclaim suite.")
    text.append("")
    text.append("| goal | measured | limit | verdict |")
    text.append("|---|---|---|---|")
    if cmp is not None:
        text.extend(bench_compare.goal_rows(cmp))
    else:
        text.append(goal_line("comparison with RocksDB, LevelDB",
                              "not run this time", "-", None))
    text.extend(reclaim_goal_rows(results))
    text.append("")
    text.extend(HOST_GOAL_NOTES)
    text.append("")
    text.extend(compare_section(cmp))
    text.append("In qmcache_bench's tables below, keys: `rand16` are 16 "
                "random bytes, `be4` a 32-bit number stored most "
                "significant byte first; every contender gets "
                "the same keys in the same order and 64-byte values (charged "
                "as 64 bytes). Times are CPU time of the benchmark thread per "
                "operation (memory stalls included, time spent descheduled "
                "excluded). "
                "Ratios above 1 mean libqmcache is slower.")
    text.append("")
    text.append("## Goals against std::map (qmcache_bench)")
    text.append("")
    text.append("| goal | measured | limit | verdict |")
    text.append("|---|---|---|---|")
    text.extend(goals(results, kinds))
    text.append("")
    text.extend(GOAL_NOTES)
    text.append("")
    text.append("## Record operations (qmcache_bench)")
    text.append("")
    text.append("std::map has no eviction, so it has no mixed-workload "
                "figure; the mixed workload's clock moves one second every "
                "256 operations.")
    text.append("")
    text.extend(ops_table(results, sizes, kinds))
    text.append("")
    text.append("## Memory per record")
    text.append("")
    text.append("Heap bytes per record beyond the key and the value "
                "(allocator headers and rounding included), measured with "
                "mallinfo2 around the fill of the insert benchmark; total "
                "bytes per record in parentheses.")
    text.append("")
    text.extend(memory_table(results, sizes, kinds))
    text.append("")
    text.extend(layer_section(results, layer_context))
    text.append("## Eviction, rebuild and fixed costs")
    text.append("")
    text.extend(other_table(results, known))
    text.append("")
    with open(out, "w") as f:
        f.write("\n".join(text))


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--bench", default=DEFAULT_BENCH)
    ap.add_argument("--quick", action="store_true",
                    help="sizes 10^3 and 10^5 only, shorter runs")
    ap.add_argument("--json", default=None,
                    help="where to keep the raw results")
    ap.add_argument("--from-json", default=None,
                    help="build the report from an earlier run")
    ap.add_argument("--compare", default=bench_compare.DEFAULT_COMPARE,
                    help="the qmcache_compare executable")
    ap.add_argument("--compare-json", default=None,
                    help="where to keep the comparison's results")
    ap.add_argument("--from-compare-json", default=None,
                    help="take the comparison from an earlier run")
    ap.add_argument("--layer-json", default=None,
                    help="where to keep the layer benchmarks' results")
    ap.add_argument("--from-layer-json", default=None,
                    help="take the layer benchmarks from an earlier run")
    ap.add_argument("--skip-compare", action="store_true",
                    help="leave the comparison out")
    ap.add_argument("--repeat", type=int, default=None,
                    help="plain comparison runs per pair, the median kept "
                         "(default %d, with --quick 1)"
                         % bench_compare.FULL_REPEAT)
    ap.add_argument("--time-limit", type=float,
                    default=bench_compare.DEFAULT_TIME_LIMIT,
                    help="seconds one comparison loop may run")
    ap.add_argument("--note", default=None,
                    help="a line about the run for the report (a busy "
                         "machine, say)")
    ap.add_argument("--out", default=os.path.join(ROOT, "docs",
                                                  "PERFORMANCE.md"))
    args = ap.parse_args()
    cmp = None
    if args.from_compare_json:
        with open(args.from_compare_json) as f:
            cmp = json.load(f)
    elif not args.skip_compare:
        cmp = bench_compare.run_all(
            args.compare,
            bench_compare.QUICK_RECORDS if args.quick
            else bench_compare.FULL_RECORDS,
            repeat=args.repeat or (1 if args.quick
                                   else bench_compare.FULL_REPEAT),
            time_limit=args.time_limit, quick=args.quick)
        cmp_path = args.compare_json or os.path.join(
            os.path.dirname(args.compare), "compare_results.json")
        with open(cmp_path, "w") as f:
            json.dump(cmp, f, indent=1)
        print("wrote", cmp_path, file=sys.stderr)
    if args.from_json:
        json_path = args.from_json
    else:
        json_path = args.json or os.path.join(
            os.path.dirname(args.bench), "bench_results.json")
        run_bench(args.bench, args.quick, json_path)
    context, results = load(json_path)
    layer_json = args.from_layer_json
    layer_context = None
    if layer_json is None and not args.from_json:
        layer_json = args.layer_json or os.path.join(
            os.path.dirname(args.bench), "layer_results.json")
        run_layer(args.bench, args.quick, layer_json)
    if layer_json is not None:
        layer_context, layer_results = load(layer_json)
        results.update(layer_results)
    os.makedirs(os.path.dirname(os.path.abspath(args.out)), exist_ok=True)
    write_report(args.out, context, results, args.quick, cmp, args.note,
                 layer_context)
    print("wrote", args.out, file=sys.stderr)
    if cmp is not None and any(e["status"] in ("failed", "error")
                               for e in cmp["runs"]):
        print("some comparison runs failed their checks: see the report",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
