#!/usr/bin/env python3
"""Compares `quorvex events` output (stdout, stderr, exit code) of two builds.

For JSON Lines and CSV with -t 0, 1 and 2 on every .evtx under the given folders and
the given files, plus a few runs with non-UTC --tz values. Prints the count of
identical comparisons and every difference.

  bench/compare_events_output.py --old OLD_QUORVEX --new NEW_QUORVEX [--tz-files N] PATH...
"""
import argparse
import concurrent.futures
import os
import subprocess
import sys


def run(binary, args):
    p = subprocess.run([binary] + args, capture_output=True)
    return p.returncode, p.stdout, p.stderr


def compare(old, new, args):
    a = run(old, args)
    b = run(new, args)
    if a == b:
        return None
    what = [n for n, x, y in zip(("exit", "stdout", "stderr"), a, b) if x != y]
    return f"DIFF ({', '.join(what)}): {' '.join(args)}"


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--old", required=True)
    ap.add_argument("--new", required=True)
    ap.add_argument("--tz-files", type=int, default=6, help="files also run with non-UTC --tz values")
    ap.add_argument("-j", type=int, default=2)
    ap.add_argument("paths", nargs="+")
    o = ap.parse_args()
    files = []
    for path in o.paths:
        if os.path.isdir(path):
            for root, _, names in os.walk(path):
                files += [os.path.join(root, n) for n in names if n.lower().endswith(".evtx")]
        else:
            files.append(path)
    files.sort()
    jobs = []
    for f in files:
        for fmt in ("jsonl", "csv"):
            for t in ("0", "1", "2"):
                jobs.append(["events", "--format", fmt, "-t", t, f])
    # Largest logs first among the zone runs: they hold the most distinct times.
    zoned = sorted(files, key=lambda f: -os.path.getsize(f))[: o.tz_files]
    for f in zoned:
        for tz in ("Pacific Standard Time", "+330", "-300", "W. Europe Standard Time"):
            for fmt in ("jsonl", "csv"):
                jobs.append(["events", "--format", fmt, "-t", "1", "--tz", tz, f])
    same = 0
    diffs = []
    with concurrent.futures.ThreadPoolExecutor(o.j) as pool:
        for result in pool.map(lambda a: compare(o.old, o.new, a), jobs):
            if result is None:
                same += 1
            else:
                diffs.append(result)
                print(result, flush=True)
    print(f"{same} identical of {len(jobs)} comparisons ({len(files)} files)")
    return 1 if diffs else 0


if __name__ == "__main__":
    sys.exit(main())
