#!/usr/bin/env python3
"""Turns Google Benchmark JSON runs into the performance report.

Usage: bench_report.py PAIRS OUTDIR ARCH=RUNDIR [ARCH=RUNDIR ...]

RUNDIR holds one JSON file per benchmark program, each run with repetitions.
For every row of PAIRS whose two benchmarks are in the run, the ratio ours /
baseline is taken per repetition (the two ran in the same process, minutes
apart at most), and the table gives its median and its spread (lowest to
highest). Absolute times are shown for orientation only: the machines are
noisy, the ratios are what is compared. Writes OUTDIR/report.md (one table
per architecture, also printed) and OUTDIR/ratios.dat for the chart.
"""
import json
import os
import statistics
import sys

UNIT_NS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def read_pairs(path):
    rows = []
    with open(path) as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            area, case, ours, base, target = line.rstrip("\n").split("\t")
            rows.append((area, case, ours, base, None if target == "-" else float(target)))
    return rows


def read_runs(rundir):
    """Real time per iteration in ns, per benchmark, in repetition order."""
    times = {}
    for name in sorted(os.listdir(rundir)):
        if not name.endswith(".json"):
            continue
        with open(os.path.join(rundir, name)) as f:
            data = json.load(f)
        for b in data["benchmarks"]:
            if b.get("run_type") != "iteration" or b.get("error_occurred"):
                continue
            ns = b["real_time"] * UNIT_NS[b.get("time_unit", "ns")]
            times.setdefault(b["run_name"], []).append(ns)
    return times


def fmt_time(ns):
    for unit, scale in (("s", 1e9), ("ms", 1e6), ("us", 1e3)):
        if ns >= scale:
            return "%.3g %s" % (ns / scale, unit)
    return "%.3g ns" % ns


def rows_for(pairs, times):
    out = []
    for area, case, ours, base, target in pairs:
        if ours not in times or base not in times:
            continue
        n = min(len(times[ours]), len(times[base]))
        ratios = [times[ours][i] / times[base][i] for i in range(n)]
        med = statistics.median(ratios)
        met = "-" if target is None else ("yes" if med <= target else "no")
        out.append(dict(area=area, case=case, ours=statistics.median(times[ours]),
                        base=statistics.median(times[base]), ratio=med, lo=min(ratios),
                        hi=max(ratios), n=n, target=target, met=met))
    return out


def table(arch, rows):
    lines = ["### %s" % arch, "",
             "| area | case | ours | baseline | ratio (median) | spread | target | met |",
             "|---|---|---|---|---|---|---|---|"]
    for r in rows:
        target = "-" if r["target"] is None else "<= %.2fx" % r["target"]
        lines.append("| %s | %s | %s | %s | %.2fx | %.2f-%.2f (%d runs) | %s | %s |" % (
            r["area"], r["case"], fmt_time(r["ours"]), fmt_time(r["base"]), r["ratio"],
            r["lo"], r["hi"], r["n"], target, r["met"]))
    met = sum(1 for r in rows if r["met"] == "yes")
    judged = sum(1 for r in rows if r["met"] != "-")
    lines += ["", "%d of %d targets met." % (met, judged), ""]
    return "\n".join(lines)


def chart_data(results):
    """One line per case: label, ratio per architecture (or '-'), target."""
    archs = [a for a, _ in results]
    cases = []
    for _, rows in results:
        for r in rows:
            if r["case"] not in [c for c, _, _ in cases]:
                cases.append((r["case"], r["area"], r["target"]))
    lines = ["# case " + " ".join(archs) + " target"]
    for case, area, target in cases:
        vals = []
        for _, rows in results:
            hit = [r for r in rows if r["case"] == case]
            vals.append("%.3f" % hit[0]["ratio"] if hit else "-")
        label = "%s: %s" % (area, case)
        lines.append('"%s" %s %s' % (label, " ".join(vals), "-" if target is None else target))
    return "\n".join(lines) + "\n"


def main(argv):
    if len(argv) < 4:
        sys.exit(__doc__)
    pairs = read_pairs(argv[1])
    outdir = argv[2]
    results = []
    for arg in argv[3:]:
        arch, rundir = arg.split("=", 1)
        results.append((arch, rows_for(pairs, read_runs(rundir))))
    report = "\n".join(table(arch, rows) for arch, rows in results)
    with open(os.path.join(outdir, "report.md"), "w") as f:
        f.write(report)
    with open(os.path.join(outdir, "ratios.dat"), "w") as f:
        f.write(chart_data(results))
    print(report)


if __name__ == "__main__":
    main(sys.argv)
