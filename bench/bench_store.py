#!/usr/bin/env python3
"""Times the event store: loading a million events, then a sorted filtered page and a
regular-expression scan over all of them.

    load:   quorvex open SAMPLE SAMPLE ... -s STORE        (the largest .evtx sample, repeated
                                                          until the logs hold >= --events events)
    page:   quorvex view STORE --type audit-failure --sort Date --desc -n 50 -f csv
            (after one run has made the sort index)
    regexp: quorvex view STORE --regex 'Logon Type:\\s+10' --count

The load is also timed with a quarter of the repetitions: its peak memory must not grow
with the number of events. Reading alone is timed too (`quorvex events --format jsonl -q
SAMPLE`, once per repetition's worth): on a busy machine the load's time against it says
more than events/s. Reported: medians, events/s, peak RSS, that ratio and PASS/FAIL
against the targets. The store goes to the cache folder (about 1.6 KB per event). Uses the
timing helpers of bench_dump.py. See bench/README.md.
"""

from __future__ import annotations

import argparse
import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import REPO, default_cache, default_samples, largest_sample, measure, warm, report_targets  # noqa: E402

TARGET_LOAD = 250_000      # events/s, descriptions off
TARGET_PAGE = 0.300        # s for a filtered, sorted first page (index made)
TARGET_REGEXP = 3.0        # s for REGEXP over every description
TARGET_RSS_GROWTH = 1.25   # peak RSS of the full load at most 1.25x that of a quarter load


def count_events(quorvex: str, sample: Path) -> int:
    out = subprocess.run([quorvex, "events", str(sample), "-f", "jsonl", "-q", "--no-progress"],
                         capture_output=True, check=True)
    return out.stdout.count(b"\n")


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--samples", type=Path, default=default_samples())
    ap.add_argument("--cache", type=Path, default=default_cache())
    ap.add_argument("--events", type=int, default=1_000_000, help="events to load at least")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--json", help="write the report as JSON to this file ('-' = stdout)")
    args = ap.parse_args()
    load_before = os.getloadavg()

    sample = largest_sample(args.samples)
    if not sample:
        print(f"no .evtx sample under {args.samples}; nothing to time")
        return 0
    per_log = count_events(args.quorvex, sample)
    repeat = max(1, -(-args.events // per_log))
    warm(sample)
    args.cache.mkdir(parents=True, exist_ok=True)
    store = args.cache / "store-bench.db"
    quarter = args.cache / "store-bench-quarter.db"
    print(f"sample {sample} ({per_log:,} events) x {repeat} = {per_log * repeat:,} events")

    base = [args.quorvex, "open", "--no-progress", "-q"]
    small = measure(base + [str(sample)] * max(1, repeat // 4) + ["-s", str(quarter)], 1, 0)
    load = measure(base + [str(sample)] * repeat + ["-s", str(store)], args.runs, 120)
    quarter.unlink(missing_ok=True)
    reading = measure([args.quorvex, "events", str(sample), "--format", "jsonl", "-q", "--no-progress"],
                      max(3, args.runs), 60)
    events = per_log * repeat
    rate = events / load["median_s"]
    reading_s = reading["median_s"] * repeat
    print(f"  load        {load['runs']} runs  {load['median_s']:8.2f} s  {rate:12,.0f} events/s  "
          f"peak {load['peak_rss_mib']:.1f} MiB (quarter load: {small['peak_rss_mib']:.1f} MiB)")
    print(f"  reading     {reading['runs']} runs  {reading_s:8.2f} s  {events / reading_s:12,.0f} events/s  "
          f"(events --format jsonl -q, x {repeat}); load / reading {load['median_s'] / reading_s:.2f}")

    view = [args.quorvex, "view", str(store)]
    measure(view + ["--sort", "Date", "--desc", "-n", "1", "-f", "csv"], 1, 0)  # makes the index
    page = measure(view + ["--type", "audit-failure", "--sort", "Date", "--desc", "-n", "50", "-f", "csv"], 7, 30)
    regexp = measure(view + ["--regex", r"Logon Type:\s+10", "--count"], args.runs, 60)
    print(f"  page        {page['runs']} runs  {page['median_s'] * 1000:8.0f} ms")
    print(f"  regexp      {regexp['runs']} runs  {regexp['median_s']:8.2f} s")
    store.unlink(missing_ok=True)

    verdicts = [
        (f"load >= {TARGET_LOAD:,} events/s: {rate:,.0f}", rate >= TARGET_LOAD),
        (f"peak memory does not grow with the events: {load['peak_rss_mib']:.1f} MiB for {events:,}, "
         f"{small['peak_rss_mib']:.1f} MiB for a quarter", load["peak_rss_mib"] <= small["peak_rss_mib"] * TARGET_RSS_GROWTH),
        (f"sorted filtered first page < {TARGET_PAGE * 1000:.0f} ms: {page['median_s'] * 1000:.0f} ms",
         page["median_s"] < TARGET_PAGE),
        (f"REGEXP scan < {TARGET_REGEXP:.0f} s: {regexp['median_s']:.2f} s", regexp["median_s"] < TARGET_REGEXP),
    ]
    report = {"events": events, "load": load, "reading": reading, "reading_s": reading_s,
              "load_over_reading": load["median_s"] / reading_s, "page": page, "regexp": regexp}
    return 0 if report_targets(load_before, verdicts, report, args.json) else 1


if __name__ == "__main__":
    sys.exit(main())
