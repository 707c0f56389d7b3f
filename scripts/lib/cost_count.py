#!/usr/bin/env python3
"""Instructions per operation of the benchmark cases, exact and repeatable.

Usage:
  cost_count.py measure ARCH QEMU DRIVER PAIRS OUT.tsv [all|ours]
  cost_count.py check   ARCH QEMU DRIVER EXPECTED
  cost_count.py update  ARCH QEMU DRIVER PAIRS EXPECTED

The counting driver (bench/cost/cost_driver.cpp) runs one case's set-up and N
of its operations. QEMU (qemu-x86_64 or qemu-i386) runs it single-stepped with
one log line per executed guest instruction, read from a pipe; the difference
of the counts for 2N and N operations over N is the instructions per
operation, start-up and set-up cancelled out. User-space instructions only:
the kernel's side of a system call is not counted. Runs start from an empty
environment and the same argument list, so the count is the same every time.

measure: writes case, instructions per op for every case named in PAIRS
  (both columns, or only ours), that the driver has.
check:   the cost gate. Counts every case EXPECTED lists for ARCH and fails
  when one costs more than 3% above its expected count; prints the table.
update:  rewrites ARCH's lines of EXPECTED from a fresh count of ours of
  every row of PAIRS, leaving out the cases whose count depends on thread
  timing or the clock (UNGATED).
"""
import os
import subprocess
import sys

N = 100
TOLERANCE = 0.03
# Their instruction counts depend on how threads meet (waits, spins, wake-ups)
# or on the clock (the log record's time stamp is formatted once a second):
# counted and reported, never gated.
UNGATED = ("Handoff_", "PingPong_", "Log_", "Report_")


def count(qemu, driver, case, n):
    """Guest instructions executed by one run of CASE with n operations."""
    cmd = ["env", "-i", qemu, "-singlestep", "-d", "exec,nochain", "-D", "/dev/stdout",
           os.path.abspath(driver), case, str(n)]
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    lines = 0
    for chunk in iter(lambda: proc.stdout.read(1 << 20), b""):
        lines += chunk.count(b"\n")
    if proc.wait() != 0:
        sys.exit("cost: %s %s %d failed (status %d)" % (driver, case, n, proc.returncode))
    return lines


def per_op(qemu, driver, case):
    return (count(qemu, driver, case, 2 * N) - count(qemu, driver, case, N)) / N


def driver_cases(driver, qemu):
    out = subprocess.run([qemu, driver, "--list"], check=True, capture_output=True, text=True).stdout
    return out.split()


def pair_cases(pairs, which):
    names = []
    with open(pairs) as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            cols = line.rstrip("\n").split("\t")
            for name in (cols[2:4] if which == "all" else cols[2:3]):
                if name not in names:
                    names.append(name)
    return names


def measure(arch, qemu, driver, pairs, out, which="all"):
    have = driver_cases(driver, qemu)
    with open(out, "w") as f:
        f.write("# case\tinstructions per op (%s)\n" % arch)
        for case in pair_cases(pairs, which):
            if case in have:
                print("cost: %s %s" % (arch, case), file=sys.stderr)
                f.write("%s\t%.1f\n" % (case, per_op(qemu, driver, case)))


def read_expected(path):
    rows = []
    with open(path) as f:
        for line in f:
            if not line.startswith("#") and line.strip():
                arch, case, value = line.rstrip("\n").split("\t")
                rows.append((arch, case, float(value)))
    return rows


def check(arch, qemu, driver, expected):
    rows = [(c, v) for a, c, v in read_expected(expected) if a == arch]
    if not rows:
        sys.exit("cost: no expected counts for %s in %s" % (arch, expected))
    failed = 0
    print("| case (%s) | expected | counted | change |" % arch)
    print("|---|---|---|---|")
    for case, want in rows:
        got = per_op(qemu, driver, case)
        change = got / want - 1 if want else 0.0
        mark = ""
        if change > TOLERANCE:
            mark = " **over %.0f%%**" % (TOLERANCE * 100)
            failed += 1
        print("| %s | %.1f | %.1f | %+.1f%%%s |" % (case, want, got, change * 100, mark))
    if failed:
        print("cost: %d case(s) cost more than %.0f%% above bench/cost-expected.tsv; after an "
              "intended change run scripts/update-cost" % (failed, TOLERANCE * 100))
        return 1
    return 0


def update(arch, qemu, driver, pairs, expected):
    have = driver_cases(driver, qemu)
    fresh = [(arch, c, per_op(qemu, driver, c)) for c in pair_cases(pairs, "ours")
             if c in have and not c.startswith(UNGATED)]
    kept = [r for r in read_expected(expected) if r[0] != arch] if os.path.exists(expected) else []
    with open(expected, "w") as f:
        f.write("# Instructions per operation of our benchmark cases, per architecture, as\n"
                "# counted by scripts/lib/cost_count.py; the cost gate (CTest label 'cost')\n"
                "# fails when a count rises more than 3% above its line here. Rewritten by\n"
                "# scripts/update-cost after an intended change. Columns: arch, case, count.\n")
        for a, c, v in sorted(kept + fresh, key=lambda r: (r[0], r[1])):
            f.write("%s\t%s\t%.1f\n" % (a, c, v))


def main(argv):
    if len(argv) < 6:
        sys.exit(__doc__)
    mode, arch, qemu, driver = argv[1:5]
    if mode == "measure" and len(argv) in (7, 8):
        measure(arch, qemu, driver, argv[5], argv[6], argv[7] if len(argv) == 8 else "all")
    elif mode == "check" and len(argv) == 6:
        sys.exit(check(arch, qemu, driver, argv[5]))
    elif mode == "update" and len(argv) == 7:
        update(arch, qemu, driver, argv[5], argv[6])
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv)
