#!/usr/bin/env python3
"""Times 'quorvex hunt' with a whole Sigma rule set against 'quorvex events'.

On the largest .evtx sample and on a generated log of about --size-mb MB, in one run:
    quorvex events --format jsonl -q FILE              reading alone
    quorvex hunt -q --format jsonl -r RULES FILE       every rule tested on every event
events/s = the log's event count / median wall time. Also: the time to load and compile
the rule set (hunt over a one-event log, less events over it) and hunt's peak RSS.

Hunting is timed with the rule cache warm (the target) and, for comparison, without it
(--no-rule-cache). Events and the two hunts run in turn, round after round, so that a
slower spell of the machine falls on all of them. Targets: hunting at no less than half
the speed of events --format jsonl; rule set loaded and compiled in under 1 s; memory
flat (hunt's peak RSS on the generated log under 64 MiB more than events'). Uses the
timing helpers of bench_dump.py. The rules default to ../shared/sigma/rules/windows.
See bench/README.md.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import (REPO, default_cache, default_samples, generated_file, largest_sample,  # noqa: E402
                        measure, measure_alternating, report_targets, warm)

TARGET_SPEED_VS_EVENTS = 0.5  # hunt's events/s at least half of events --format jsonl's
TARGET_LOAD_S = 1.0  # rule set loaded and compiled
TARGET_EXTRA_RSS_MIB = 64.0  # hunt's peak RSS above events' on the generated log


def count_events(quorvex: str, path: Path) -> int:
    out = subprocess.run([quorvex, "events", "--format", "jsonl", "-q", str(path)], check=True,
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return out.count(b"\n")


def count_lines(cmd: list[str]) -> int:
    return subprocess.run(cmd, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout.count(b"\n")


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--rules", type=Path, default=REPO.parent / "shared" / "sigma" / "rules" / "windows")
    ap.add_argument("--samples", type=Path, default=default_samples())
    ap.add_argument("--cache-dir", type=Path, default=default_cache())
    ap.add_argument("--size-mb", type=float, default=200)
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--budget", type=float, default=120)
    ap.add_argument("--json", help="also write the figures as JSON to this file ('-' = stdout)")
    ap.add_argument("--check", action="store_true", help="exit 1 when a target is missed")
    args = ap.parse_args()
    q = args.quorvex
    if not os.access(q, os.X_OK):
        print(f"quorvex not found at {q} (build it first, or pass --quorvex)", file=sys.stderr)
        return 2
    if not args.rules.exists():
        print(f"no rules at {args.rules} (pass --rules)", file=sys.stderr)
        return 2
    load_before = os.getloadavg()
    report: dict = {"rules": str(args.rules), "files": []}
    verdicts: list[tuple[str, bool]] = []

    # --- loading the rule set ---------------------------------------------------------------
    args.cache_dir.mkdir(parents=True, exist_ok=True)
    tiny = args.cache_dir / "one-event.evtx"
    subprocess.run([q, "demo", "--no-dump", "--records", "1", "--output", str(tiny)], check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    base, load = measure_alternating([[q, "events", "-q", str(tiny)], [q, "hunt", "-q", "-r", str(args.rules), str(tiny)]],
                                     5, 2 * args.budget)
    load_s = max(0.0, load["median_s"] - base["median_s"])
    report["load_s"] = load_s
    print(f"\n== rule set: {args.rules}")
    print(f"  load and compile: {load_s:.3f} s (hunt over one event {load['median_s']:.3f} s, "
          f"events {base['median_s']:.3f} s), peak RSS {load['peak_rss_mib']:.1f} MiB")
    verdicts.append((f"rule set loaded and compiled in {load_s:.2f} s (target < {TARGET_LOAD_S:.0f} s)",
                     load["status"] == 0 and load_s < TARGET_LOAD_S))

    # --- hunting ------------------------------------------------------------------------------
    files = []
    sample = largest_sample(args.samples)
    if sample:
        files.append(("sample", sample))
    if args.size_mb > 0:
        files.append(("generated", generated_file(q, args.size_mb, args.cache_dir, False)))
    for kind, path in files:
        size = path.stat().st_size
        warm(path)
        events = count_events(q, path)
        hunt_cmd = [q, "hunt", "-q", "--format", "jsonl", "-r", str(args.rules), str(path)]
        detections = count_lines(hunt_cmd)
        print(f"\n== {kind}: {path.name}, {size / 1e6:.1f} MB, {events:,} events, {detections:,} detections")
        # Events and hunting timed in turn (the rule cache warm: made by count_lines above).
        ev, hu, cold = measure_alternating([[q, "events", "--format", "jsonl", "-q", str(path)], hunt_cmd,
                                            hunt_cmd[:2] + ["--no-rule-cache"] + hunt_cmd[2:]],
                                           args.runs, 3 * args.budget)
        entry = {"kind": kind, "file": str(path), "bytes": size, "events": events, "detections": detections,
                 "events_cmd": ev, "hunt_cmd": hu, "hunt_no_rule_cache": cold}
        for label, r in (("quorvex events --format jsonl -q", ev), ("quorvex hunt -q --format jsonl -r RULES", hu),
                         ("  the same with --no-rule-cache", cold)):
            if r["status"] != 0:
                print(f"  {label:<42} FAILED (exit {r['status']}): {r['stderr'][-160:]}")
                continue
            print(f"  {label:<42} {r['median_s']:8.3f} s  {events / r['median_s']:>12,.0f} events/s  "
                  f"{size / 1e6 / r['median_s']:7.1f} MB/s  RSS {r['peak_rss_mib']:6.1f} MiB")
        if ev["status"] == 0 and hu["status"] == 0:
            speed = ev["median_s"] / hu["median_s"]
            entry["speed_vs_events"] = speed
            print(f"  ratio: hunt runs at {speed:.2f}x the speed of events --format jsonl")
            matching = hu["median_s"] - load["median_s"]
            if matching > 0:
                entry["speed_vs_events_without_load"] = ev["median_s"] / matching
                print(f"         ({ev['median_s'] / matching:.2f}x with the rule set's load taken out: "
                      f"{events / matching:,.0f} events/s)")
            verdicts.append((f"hunt on {kind} at {speed:.2f}x events' speed (target >= {TARGET_SPEED_VS_EVENTS})",
                             speed >= TARGET_SPEED_VS_EVENTS))
            if kind == "generated":
                extra = hu["peak_rss_mib"] - ev["peak_rss_mib"]
                verdicts.append((f"hunt peak RSS {hu['peak_rss_mib']:.1f} MiB, {extra:.1f} MiB above events' "
                                 f"(target < {TARGET_EXTRA_RSS_MIB:.0f})", extra < TARGET_EXTRA_RSS_MIB))
        report["files"].append(entry)

    all_passed = report_targets(load_before, verdicts, report, args.json)
    return 1 if args.check and not all_passed else 0


if __name__ == "__main__":
    sys.exit(main())
