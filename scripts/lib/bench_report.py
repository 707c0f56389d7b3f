#!/usr/bin/env python3
"""Turns Google Benchmark JSON runs and instruction counts into the
performance report.

Usage: bench_report.py PAIRS OUTDIR ARCH=RUNDIR [ARCH=RUNDIR ...]

RUNDIR holds one JSON file per benchmark program, each run with repetitions.
For every row of PAIRS whose two benchmarks are in the run, the ratio ours /
baseline is taken per repetition (the two ran in the same process, minutes
apart at most), and the table gives its median and its spread (lowest to
highest). Absolute times are shown for orientation only: the machines are
noisy, the ratios are what is compared. RUNDIR/exec says whether the
programs ran natively or under emulation; emulated times measure the
emulator, so their rows are shown but not judged against the targets.
RUNDIR/counts.tsv (scripts/lib/cost_count.py), where present, gives the
instructions per operation of each case: a second table, exact, judged
against the same targets. Writes OUTDIR/report.md (the tables of every
architecture, also printed) and OUTDIR/ratios.dat for the chart.
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


def read_counts(rundir):
    counts = {}
    path = os.path.join(rundir, "counts.tsv")
    if os.path.exists(path):
        with open(path) as f:
            for line in f:
                if not line.startswith("#") and line.strip():
                    case, value = line.rstrip("\n").split("\t")
                    counts[case] = float(value)
    return counts


def read_exec(rundir):
    path = os.path.join(rundir, "exec")
    return open(path).read().strip() if os.path.exists(path) else "native"


def count_rows(pairs, counts):
    out = []
    for area, case, ours, base, target in pairs:
        if ours not in counts or base not in counts or counts[base] <= 0:
            continue
        ratio = counts[ours] / counts[base]
        met = "-" if target is None else ("yes" if ratio <= target else "no")
        out.append(dict(area=area, case=case, ours=counts[ours], base=counts[base], ratio=ratio,
                        target=target, met=met))
    return out


def count_table(arch, rows):
    lines = ["### %s, instructions per operation (exact)" % arch, "",
             "| area | case | ours | baseline | ratio | target | met |",
             "|---|---|---|---|---|---|---|"]
    for r in rows:
        target = "-" if r["target"] is None else "<= %.2fx" % r["target"]
        lines.append("| %s | %s | %.1f | %.1f | %.2fx | %s | %s |" % (
            r["area"], r["case"], r["ours"], r["base"], r["ratio"], target, r["met"]))
    met = sum(1 for r in rows if r["met"] == "yes")
    judged = sum(1 for r in rows if r["met"] != "-")
    lines += ["", "%d of %d targets met." % (met, judged), ""]
    return "\n".join(lines)


def rows_for(pairs, times, emulated=False):
    out = []
    for area, case, ours, base, target in pairs:
        if ours not in times or base not in times:
            continue
        n = min(len(times[ours]), len(times[base]))
        ratios = [times[ours][i] / times[base][i] for i in range(n)]
        med = statistics.median(ratios)
        met = "-" if target is None else ("yes" if med <= target else "no")
        if emulated and target is not None:
            met = "emulated"
        out.append(dict(area=area, case=case, ours=statistics.median(times[ours]),
                        base=statistics.median(times[base]), ratio=med, lo=min(ratios),
                        hi=max(ratios), n=n, target=target, met=met))
    return out


def table(arch, rows, how):
    lines = ["### %s, time (%s)" % (arch, how), "",
             "| area | case | ours | baseline | ratio (median) | spread | target | met |",
             "|---|---|---|---|---|---|---|---|"]
    for r in rows:
        target = "-" if r["target"] is None else "<= %.2fx" % r["target"]
        lines.append("| %s | %s | %s | %s | %.2fx | %.2f-%.2f (%d runs) | %s | %s |" % (
            r["area"], r["case"], fmt_time(r["ours"]), fmt_time(r["base"]), r["ratio"],
            r["lo"], r["hi"], r["n"], target, r["met"]))
    met = sum(1 for r in rows if r["met"] == "yes")
    judged = sum(1 for r in rows if r["met"] in ("yes", "no"))
    if how == "native":
        lines += ["", "%d of %d targets met." % (met, judged), ""]
    else:
        lines += ["", "Run under %s: these times measure the emulator; the targets are judged "
                  "on the instruction table." % how, ""]
    return "\n".join(lines)


def chart_data(results):
    """One line per case: label, time ratio per architecture, instruction
    ratio per architecture (each a number or '-'), target."""
    archs = [a for a, _, _ in results]
    cases = []
    for _, trows, crows in results:
        for r in trows + crows:
            if r["case"] not in [c for c, _, _ in cases]:
                cases.append((r["case"], r["area"], r["target"]))
    lines = ["# case " + " ".join("%s-time" % a for a in archs) + " " +
             " ".join("%s-instructions" % a for a in archs) + " target"]
    for case, area, target in cases:
        vals = []
        for kind in (1, 2):
            for res in results:
                hit = [r for r in res[kind] if r["case"] == case]
                vals.append("%.3f" % hit[0]["ratio"] if hit else "-")
        label = "%s: %s" % (area, case)
        lines.append('"%s" %s %s' % (label, " ".join(vals), "-" if target is None else target))
    return "\n".join(lines) + "\n"


def main(argv):
    if len(argv) < 4:
        sys.exit(__doc__)
    pairs = read_pairs(argv[1])
    outdir = argv[2]
    results, parts = [], []
    for arg in argv[3:]:
        arch, rundir = arg.split("=", 1)
        how = read_exec(rundir)
        trows = rows_for(pairs, read_runs(rundir), emulated=how != "native")
        crows = count_rows(pairs, read_counts(rundir))
        results.append((arch, trows, crows))
        parts.append(table(arch, trows, how))
        if crows:
            parts.append(count_table(arch, crows))
    report = "\n".join(parts)
    with open(os.path.join(outdir, "report.md"), "w") as f:
        f.write(report)
    with open(os.path.join(outdir, "ratios.dat"), "w") as f:
        f.write(chart_data(results))
    print(report)


if __name__ == "__main__":
    main(sys.argv)
