#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs qmcache_compare for every contender and workload, each in a process
of its own, and keeps what they measured.

Every pair is run twice in fresh processes: once plainly, for throughput,
hit ratio and memory, and once with every operation timed (--latency), for
the latency percentiles. With --repeat R the plain run is made R times and
the one with the median time per operation is kept (3 runs by default, 1
with --quick).

  scripts/bench_compare.py [--compare PATH] [--quick] [--records N]
                           [--contenders a,b] [--workloads x,y]
                           [--repeat R] [--time-limit S] [--json FILE]

scripts/bench_table.py runs this and writes the tables into
docs/PERFORMANCE.md; run alone, it prints them.
"""

import argparse
import datetime
import json
import os
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEFAULT_COMPARE = next(
    (p for p in (os.path.join(ROOT, "build", d, "bench", "compare",
                              "qmcache_compare")
                 for d in ("bench", "perf-bench")) if os.path.exists(p)),
    os.path.join(ROOT, "build", "bench", "bench", "compare",
                 "qmcache_compare"))

CONTENDERS = ["qmcache", "rocksdb_lru", "rocksdb_hcc", "leveldb", "std_map",
              "lru"]
CONTENDER_TITLES = {
    "qmcache": "libqmcache",
    "rocksdb_lru": "RocksDB LRUCache",
    "rocksdb_hcc": "RocksDB HyperClockCache",
    "leveldb": "LevelDB cache",
    "std_map": "std::map",
    "lru": "hand-written LRU",
}
WORKLOADS = ["hit", "miss", "insert", "readthrough", "churn"]
WORKLOAD_TITLES = {
    "hit": "lookup hit: fill N, look up every key once in random order",
    "miss": "lookup miss: fill N, look up N absent keys",
    "insert": "insert of N new keys, budget never reached",
    "readthrough": "read-through: Zipf 0.99 over N keys, budget N/10, "
                   "2N operations (look up; insert on a miss)",
    "churn": "churn: Zipf 0.99 over N/10 keys, budget N/100, 2N operations",
}
# Workloads that only containers with eviction can run.
EVICTING = {"readthrough", "churn"}
FULL_RECORDS = 1000000
QUICK_RECORDS = 100000
# Plain runs per pair in a full comparison; the median is kept.
FULL_REPEAT = 3
# A process whose measured loop runs longer than this stops and reports
# what it did (marked truncated).
DEFAULT_TIME_LIMIT = 180.0

EXIT_CHECK_FAILED = 2
EXIT_UNAVAILABLE = 3


def log(*args):
    print(*args, file=sys.stderr, flush=True)


def run_one(compare, contender, workload, records, latency, time_limit):
    """One process. Returns (status, result dict or None, message)."""
    cmd = [compare, "--contender", contender, "--workload", workload,
           "--records", str(records), "--json",
           "--time-limit", str(time_limit)]
    if latency:
        cmd.append("--latency")
    p = subprocess.run(cmd, capture_output=True, text=True)
    result = None
    for line in p.stdout.splitlines():
        line = line.strip()
        if line.startswith("{"):
            result = json.loads(line)
    if p.returncode == EXIT_UNAVAILABLE:
        return "unavailable", None, p.stderr.strip()
    if p.returncode == EXIT_CHECK_FAILED and result is not None:
        return "failed", result, result.get("failure", "check failed")
    if p.returncode != 0 or result is None:
        return "error", result, "exit %d: %s" % (p.returncode,
                                                  p.stderr.strip()[-500:])
    return "ok", result, ""


def per_op_ns(r):
    """Thread CPU time per operation of a plain run."""
    if not r or not r.get("ops_done"):
        return None
    return r["cpu_s"] * 1e9 / r["ops_done"]


def run_pair(compare, contender, workload, records, repeat, time_limit):
    entry = {"contender": contender, "workload": workload}
    plain = []
    for _ in range(max(1, repeat)):
        status, result, message = run_one(compare, contender, workload,
                                          records, False, time_limit)
        if status != "ok":
            entry.update(status=status, message=message, throughput=result)
            return entry
        plain.append(result)
    plain.sort(key=per_op_ns)
    entry["throughput"] = plain[len(plain) // 2]
    entry["repeats_ns_per_op"] = [per_op_ns(r) for r in plain]
    status, result, message = run_one(compare, contender, workload, records,
                                      True, time_limit)
    entry["latency"] = result
    entry["status"] = status
    entry["message"] = message
    return entry


def git_rev():
    try:
        return subprocess.run(["git", "-C", ROOT, "rev-parse", "--short",
                               "HEAD"], capture_output=True,
                              text=True).stdout.strip() or "?"
    except OSError:
        return "?"


def run_all(compare=DEFAULT_COMPARE, records=FULL_RECORDS, contenders=None,
            workloads=None, repeat=1, time_limit=DEFAULT_TIME_LIMIT,
            quick=False):
    if not os.path.exists(compare):
        raise SystemExit("no %s: build the `bench` preset first "
                         "(cmake --preset bench && cmake --build --preset "
                         "bench)" % compare)
    contenders = contenders or CONTENDERS
    workloads = workloads or WORKLOADS
    started = time.time()
    load_before = os.getloadavg()
    runs = []
    for w in workloads:
        for c in contenders:
            if c == "std_map" and w in EVICTING:
                continue
            t0 = time.time()
            entry = run_pair(compare, c, w, records, repeat, time_limit)
            entry["elapsed_s"] = time.time() - t0
            ns = per_op_ns(entry.get("throughput"))
            log("%-12s %-12s %-11s %s(%.1f s)" % (
                w, c, entry["status"],
                "%.1f ns/op " % ns if ns else "", entry["elapsed_s"]))
            if entry["status"] != "ok":
                log("    " + entry["message"])
            runs.append(entry)
    return {
        "meta": {
            "records": records,
            "quick": quick,
            "repeat": repeat,
            "time_limit_s": time_limit,
            "date": datetime.datetime.now().astimezone().isoformat(
                timespec="seconds"),
            "commit": git_rev(),
            "load_avg_before": list(load_before),
            "load_avg_after": list(os.getloadavg()),
            "elapsed_s": time.time() - started,
        },
        "runs": runs,
    }


# ---- tables ----

def find(data, contender, workload):
    for e in data["runs"]:
        if e["contender"] == contender and e["workload"] == workload:
            return e
    return None


def fmt_ns(v):
    if v is None:
        return "-"
    if v >= 1e9:
        return "%.2f s" % (v / 1e9)
    if v >= 1e6:
        return "%.2f ms" % (v / 1e6)
    if v >= 1e3:
        return "%.2f us" % (v / 1e3)
    return "%.0f ns" % v


def fmt_rate(ops, seconds):
    if not seconds:
        return "-"
    v = ops / seconds
    if v >= 1e6:
        return "%.2f M" % (v / 1e6)
    return "%.0f k" % (v / 1e3)


def fmt_count(n):
    if n is None:
        return "-"
    return "{:,}".format(n)


def ratio(data, workload, other):
    q = find(data, "qmcache", workload)
    o = find(data, other, workload)
    if not q or not o or q["status"] != "ok" or o["status"] != "ok":
        return None
    a, b = per_op_ns(q["throughput"]), per_op_ns(o["throughput"])
    return a / b if a and b else None


def side_by_side(data):
    """Markdown: one table per workload, one row per contender."""
    lines = []
    for w in WORKLOADS:
        entries = [e for e in data["runs"] if e["workload"] == w]
        if not entries:
            continue
        lines.append("### %s" % WORKLOAD_TITLES[w])
        lines.append("")
        lines.append("| contender | ops/s (CPU) | time/op | ops/s (wall) | "
                     "p50 | p99 | p99.9 | max | hit ratio | "
                     "B/record beyond key+value | peak records | sized as |")
        lines.append("|---|---|---|---|---|---|---|---|---|---|---|---|")
        for e in sorted(entries, key=lambda e: CONTENDERS.index(
                e["contender"])):
            name = CONTENDER_TITLES.get(e["contender"], e["contender"])
            t = e.get("throughput") or {}
            if e["status"] in ("unavailable", "error") or not t:
                lines.append("| %s | %s: %s |" % (
                    name, e["status"], e["message"].replace("|", "/")))
                continue
            lat = e.get("latency") or {}
            hit = ("%.4f" % t["hit_ratio"]) if "hit_ratio" in t else "-"
            if lat.get("hit_ratio") is not None and "hit_ratio" in t and \
                    abs(lat["hit_ratio"] - t["hit_ratio"]) > 0.005:
                hit += " (timed run %.4f)" % lat["hit_ratio"]
            mem = ("%.1f" % t["overhead_per_record"]
                   if "overhead_per_record" in t else "-")
            note = t.get("capacity", "")
            if t.get("truncated"):
                note += "; stopped after %s of %s ops (time limit)" % (
                    fmt_count(t["ops_done"]), fmt_count(t["ops"]))
            if e["status"] == "failed":
                note += "; CHECK FAILED: " + e["message"]
            lines.append("| %s | %s | %s | %s | %s | %s | %s | %s | %s | %s "
                         "| %s | %s |" % (
                             name, fmt_rate(t["ops_done"], t["cpu_s"]),
                             fmt_ns(per_op_ns(t)),
                             fmt_rate(t["ops_done"], t["wall_s"]),
                             fmt_ns(lat.get("p50_ns")),
                             fmt_ns(lat.get("p99_ns")),
                             fmt_ns(lat.get("p999_ns")),
                             fmt_ns(lat.get("max_ns")), hit, mem,
                             fmt_count(t.get("peak_records")), note))
        lines.append("")
    return lines


RATIO_OTHERS = [("rocksdb_lru", "RocksDB LRU"),
                ("rocksdb_hcc", "HyperClockCache"),
                ("leveldb", "LevelDB")]


def ratio_table(data):
    lines = ["| workload | " + " | ".join(
        "libqmcache / %s" % t for _, t in RATIO_OTHERS) + " |",
        "|---|" + "---|" * len(RATIO_OTHERS)]
    for w in WORKLOADS:
        cells = []
        for c, _ in RATIO_OTHERS:
            r = ratio(data, w, c)
            cells.append("-" if r is None else "%.2fx" % r)
        if any(x != "-" for x in cells):
            lines.append("| %s | %s |" % (w, " | ".join(cells)))
    return lines


def qm_reclaim_table(data):
    lines = ["| workload | eviction passes | longest pass | total in passes "
             "| tree rebuilds | longest rebuild | longest operation (timed "
             "run) | peak records / budget |",
             "|---|---|---|---|---|---|---|---|"]
    for w in WORKLOADS:
        e = find(data, "qmcache", w)
        if not e or not e.get("throughput") or w not in EVICTING:
            continue
        t = e["throughput"]
        ev = t.get("qm_eviction", {})
        rb = t.get("qm_rebuild", {})
        lat = e.get("latency") or {}
        lines.append("| %s | %s | %s | %s | %s | %s | %s | %s / %s |" % (
            w, fmt_count(ev.get("count")),
            fmt_ns(ev["max_s"] * 1e9) if "max_s" in ev else "-",
            fmt_ns(ev["total_s"] * 1e9) if "total_s" in ev else "-",
            fmt_count(rb.get("count")),
            fmt_ns(rb["max_s"] * 1e9) if "max_s" in rb else "-",
            fmt_ns(lat.get("max_ns")), fmt_count(t.get("peak_records")),
            fmt_count(t.get("budget_records"))))
    return lines


# (workload, what, limit) of the goals measured against RocksDB's LRU cache.
RATIO_GOALS = [
    ("hit", "lookup hit", 1.0),
    ("miss", "lookup miss", 1.0),
    ("insert", "insert of a new key", 2.0),
    ("readthrough", "read-through time", 2.0),
    ("churn", "churn time", 3.0),
]
MEMORY_GOAL = 240.0


def verdict(ok):
    return "n/a" if ok is None else ("met" if ok else "NOT met")


def goal_rows(data):
    """Rows of | goal | measured | limit | verdict | for the ratios."""
    n = data["meta"]["records"]
    size = "10^%d" % (len(str(n)) - 1) if str(n).strip("0") == "1" else str(n)
    quick = " (quick run)" if data["meta"].get("quick") else ""
    rows = []
    for w, what, limit in RATIO_GOALS:
        r = ratio(data, w, "rocksdb_lru")
        q = find(data, "qmcache", w)
        o = find(data, "rocksdb_lru", w)
        measured = "-"
        if r is not None:
            measured = "%.2fx (%s vs %s)" % (
                r, fmt_ns(per_op_ns(q["throughput"])),
                fmt_ns(per_op_ns(o["throughput"])))
            if q["throughput"].get("truncated"):
                measured += ", libqmcache stopped at the time limit"
        rows.append("| %s at N=%s%s, libqmcache / RocksDB LRU | %s | <= %.1fx "
                    "| %s |" % (what, size, quick, measured, limit,
                                verdict(None if r is None else r <= limit)))
    q = find(data, "qmcache", "insert")
    t = (q or {}).get("throughput") or {}
    v = t.get("overhead_per_record")
    measured = "-"
    if v is not None:
        # Judged to a tenth of a byte: the empty cache's few kilobytes,
        # spread over the records, are not a cost per record.
        v = round(v, 1)
        measured = "%.1f B" % v
        if "heap_empty" in t:
            measured += " (the empty cache's %s B included)" % fmt_count(
                t["heap_empty"] - t["heap_before"])
    rows.append("| memory per record beyond key and value at N=%s%s | %s | "
                "<= %.0f B | %s |" % (
                    size, quick, measured, MEMORY_GOAL,
                    verdict(None if v is None else v <= MEMORY_GOAL)))
    q = find(data, "qmcache", "readthrough")
    lat = (q or {}).get("latency") or {}
    ev = ((q or {}).get("throughput") or {}).get("qm_eviction", {})
    longest = fmt_ns(lat.get("max_ns"))
    if ev:
        longest += " (longest eviction pass %s)" % fmt_ns(ev["max_s"] * 1e9)
    rows.append("| longest single operation of read-through%s | %s | "
                "reported | - |" % (quick, longest))
    return rows


def markdown(data):
    m = data["meta"]
    lines = [
        "Run: %s, commit %s, N = %s records%s; %d plain run(s) per pair "
        "(median kept); load average %s before, %s after; the comparison "
        "took %.0f s." % (
            m["date"], m["commit"], fmt_count(m["records"]),
            " (quick)" if m.get("quick") else "", m.get("repeat", 1),
            ", ".join("%.2f" % x for x in m["load_avg_before"]),
            ", ".join("%.2f" % x for x in m["load_avg_after"]),
            m["elapsed_s"]),
        "",
    ]
    lines += ["#### libqmcache / other caches (time per operation; above 1 "
              "means libqmcache is slower)", ""]
    lines += ratio_table(data)
    lines += ["", "#### libqmcache's own reclamation figures "
              "(CA_GETSTAT slots 6 and 7)", ""]
    lines += qm_reclaim_table(data)
    lines += [""]
    lines += side_by_side(data)
    return lines


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--compare", default=DEFAULT_COMPARE,
                    help="the qmcache_compare executable")
    ap.add_argument("--quick", action="store_true",
                    help="N = %d instead of %d" % (QUICK_RECORDS,
                                                   FULL_RECORDS))
    ap.add_argument("--records", type=int, default=None)
    ap.add_argument("--contenders", default=None,
                    help="comma-separated, of: " + ",".join(CONTENDERS))
    ap.add_argument("--workloads", default=None,
                    help="comma-separated, of: " + ",".join(WORKLOADS))
    ap.add_argument("--repeat", type=int, default=None,
                    help="plain runs per pair, the median kept (default %d, "
                         "with --quick 1)" % FULL_REPEAT)
    ap.add_argument("--time-limit", type=float, default=DEFAULT_TIME_LIMIT,
                    help="seconds a measured loop may run")
    ap.add_argument("--json", default=None, help="where to keep the results")
    args = ap.parse_args()
    records = args.records or (QUICK_RECORDS if args.quick else FULL_RECORDS)
    repeat = args.repeat or (1 if args.quick else FULL_REPEAT)
    data = run_all(args.compare, records,
                   args.contenders.split(",") if args.contenders else None,
                   args.workloads.split(",") if args.workloads else None,
                   repeat, args.time_limit, args.quick)
    if args.json:
        with open(args.json, "w") as f:
            json.dump(data, f, indent=1)
        log("wrote", args.json)
    print("\n".join(["| goal | measured | limit | verdict |",
                     "|---|---|---|---|"] + goal_rows(data) + [""] +
                    markdown(data)))
    bad = [e for e in data["runs"] if e["status"] in ("failed", "error")]
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
