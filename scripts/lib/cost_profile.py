#!/usr/bin/env python3
"""Where a case's instructions go: per function, per operation.

Usage: cost_profile.py QEMU DRIVER CASE [N]

Traces the counting driver as cost_count.py does, for N and 2N operations
(default 100), and prints the difference per executed address over N,
summed per function of DRIVER (names from nm, demangled). Code outside the
driver (the C library and other shared libraries) is summed in one line.
The driver is position-independent; qemu-user loads it at a fixed guest
address, found here from the executed addresses of its functions.
"""
import bisect
import collections
import os
import subprocess
import sys


def trace(qemu, driver, case, n):
    cmd = ["env", "-i", qemu, "-singlestep", "-d", "exec,nochain", "-D", "/dev/stdout",
           os.path.abspath(driver), case, str(n)]
    hist = collections.Counter()
    with subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL) as proc:
        for line in proc.stdout:
            # Trace 0: HOST [CS_BASE/PC/FLAGS/CFLAGS]
            hist[int(line.split(b"[", 1)[1].split(b"/", 2)[1], 16)] += 1
    return hist


def symbols(driver):
    out = subprocess.run(["nm", "-C", "--defined-only", driver], check=True, capture_output=True,
                         text=True).stdout
    syms = []
    for line in out.splitlines():
        parts = line.split(" ", 2)
        if len(parts) == 3 and parts[1] in "tTwW":
            syms.append((int(parts[0], 16), parts[2]))
    syms.sort()
    return syms


def instruction_addresses(driver):
    out = subprocess.run(["objdump", "-d", "--no-show-raw-insn", driver], check=True,
                         capture_output=True, text=True).stdout
    found = set()
    for line in out.splitlines():
        head = line.split(":", 1)[0].strip()
        if line.startswith(" ") and head and all(c in "0123456789abcdef" for c in head):
            found.add(int(head, 16))
    return found


def main(argv):
    if len(argv) not in (4, 5):
        sys.exit(__doc__)
    qemu, driver, case = argv[1:4]
    n = int(argv[4]) if len(argv) == 5 else 100
    syms = symbols(driver)
    starts = [a for a, _ in syms]
    entry = dict((name, a) for a, name in syms)["_start"]
    one, two = trace(qemu, driver, case, n), trace(qemu, driver, case, 2 * n)
    # The load base: of those that put _start on an executed address, the one
    # under which every executed address in the driver's range is one of its
    # instructions.
    insns = instruction_addresses(driver)
    end = max(insns) + 1

    def fit(b):
        inside = [pc for pc in one if 0 <= pc - b < end]
        return sum(1 for pc in inside if pc - b in insns) / max(len(inside), 1)

    base = max({pc - entry for pc in one if (pc - entry) % 4096 == 0 and pc >= entry}, key=fit)
    per_fn = collections.Counter()
    for pc in set(one) | set(two):
        d = two[pc] - one[pc]
        if not d:
            continue
        off = pc - base
        if 0 <= off < end:
            i = bisect.bisect_right(starts, off) - 1
            name = syms[i][1] if i >= 0 else "?"
            per_fn["(PLT stubs)" if name == "_init" else name] += d
        else:
            per_fn["(shared libraries: C library, ...)"] += d
    total = sum(per_fn.values())
    print("%-70s %8s" % ("function (%s, %s)" % (case, os.path.basename(qemu)), "per op"))
    for name, d in per_fn.most_common():
        print("%-70s %8.1f" % (name[:70], d / n))
    print("%-70s %8.1f" % ("total", total / n))


if __name__ == "__main__":
    main(sys.argv)
