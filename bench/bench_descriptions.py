#!/usr/bin/env python3
"""Times 'quorvex events' with and without event descriptions from an imaged installation.

    off:  quorvex events FILE --format csv --no-progress -q
    on:   quorvex events FILE --format csv --no-progress -q --imaged DIR/Windows
    cat:  quorvex events FILE --format csv --no-progress -q --catalog DIR/bench.qcat
          (the catalog written once by 'quorvex catalog build --imaged DIR/Windows')

FILE and DIR come from qvx_bench_fixtures (bench/make_descr_fixture.cpp): an offline
Windows tree whose SYSTEM hive registers --providers classic sources, each with its own
message module, and DIR/bench.evtx holding --events events cycling over those sources.
With --imaged every event's description is looked up (registry, module, message table)
and formatted, so 'on' costs more than 'off'; the target bounds how much.

The fixture is written once into the cache folder and reused. Reported: median wall
time, events/s of each mode, the ratio on/off (events/s) and PASS/FAIL against the
target. Uses the timing helpers of bench_dump.py. See bench/README.md.
"""

from __future__ import annotations

import argparse
import os
import shutil
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import REPO, default_cache, measure, warm, report_targets  # noqa: E402

TARGET_ON_VS_OFF = 0.60  # events/s with descriptions at least 60% of events/s without
TARGET_CATALOG_VS_OFF = 0.80  # events/s described from a catalog at least 80% of events/s without


def fixture(generator: str, cache: Path, events: int, providers: int, regenerate: bool) -> Path:
    """The fixture folder for these counts, written by qvx_bench_fixtures once."""
    target = cache / f"descr-{events}-{providers}"
    done = target / "complete"
    if regenerate or not done.exists():
        if target.exists():
            shutil.rmtree(target)
        target.mkdir(parents=True)
        print(f"generating {target} ({events:,} events, {providers} sources) ...", flush=True)
        subprocess.run([generator, str(target), str(events), str(providers)], check=True,
                       stdout=subprocess.DEVNULL)
        done.write_text("")
    return target


def row(label: str, r: dict, size: int, events: int) -> None:
    if r["status"] != 0:
        print(f"  {label:<12} FAILED (exit {r['status']}): {r['stderr'][-200:]}")
        return
    print(f"  {label:<12} {r['runs']:>4} {r['median_s']:>9.3f} {size / 1e6 / r['median_s']:>9.1f} "
          f"{events / r['median_s']:>12,.0f} {r['peak_rss_mib']:>9.1f}")


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--generator", default=str(REPO / "build" / "bench" / "qvx_bench_fixtures"),
                    help="the qvx_bench_fixtures program")
    ap.add_argument("--events", type=int, default=100000)
    ap.add_argument("--providers", type=int, default=50)
    ap.add_argument("--cache-dir", type=Path, default=default_cache())
    ap.add_argument("--regenerate", action="store_true")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--budget", type=float, default=120)
    ap.add_argument("--json", help="also write the figures as JSON to this file ('-' = stdout)")
    ap.add_argument("--check", action="store_true", help="exit 1 when the target is missed")
    args = ap.parse_args()
    q = args.quorvex
    for path, what in ((q, "quorvex"), (args.generator, "qvx_bench_fixtures")):
        if not os.access(path, os.X_OK):
            print(f"{what} not found at {path} (build it first, or pass --{'quorvex' if what == 'quorvex' else 'generator'})",
                  file=sys.stderr)
            return 2
    load_before = os.getloadavg()

    root = fixture(args.generator, args.cache_dir, args.events, args.providers, args.regenerate)
    log = root / "bench.evtx"
    windows = root / "Windows"
    size = log.stat().st_size
    warm(log)
    base = [q, "events", str(log), "--format", "csv", "--no-progress", "-q"]
    print(f"\n== descriptions: {log}, {size / 1e6:.1f} MB, {args.events:,} events, {args.providers} sources")
    print(f"  {'mode':<12} {'runs':>4} {'median s':>9} {'MB/s':>9} {'events/s':>12} {'RSS MiB':>9}")
    off = measure(base, args.runs, args.budget)
    row("off", off, size, args.events)
    on = measure(base + ["--imaged", str(windows)], args.runs, args.budget)
    row("on", on, size, args.events)
    catalog = root / "bench.qcat"
    if not catalog.exists() or catalog.stat().st_mtime < log.stat().st_mtime:
        subprocess.run([q, "catalog", "build", "--imaged", str(windows), "-o", str(catalog), "-q"], check=True,
                       stdout=subprocess.DEVNULL)
    cat = measure(base + ["--catalog", str(catalog)], args.runs, args.budget)
    row("catalog", cat, size, args.events)

    report = {"file": str(log), "imaged": str(windows), "bytes": size, "events": args.events,
              "providers": args.providers, "off": off, "on": on, "catalog": cat}
    verdicts: list[tuple[str, bool]] = []
    if off["status"] == 0 and on["status"] == 0:
        ratio = off["median_s"] / on["median_s"]
        report["on_vs_off"] = ratio
        print(f"  events/s: off {args.events / off['median_s']:,.0f}, on {args.events / on['median_s']:,.0f}; "
              f"ratio on/off = {ratio:.2f}")
        verdicts.append((f"events/s with descriptions = {ratio:.2f}x without (target >= {TARGET_ON_VS_OFF:.2f})",
                         ratio >= TARGET_ON_VS_OFF))
        if cat["status"] == 0:
            cat_ratio = off["median_s"] / cat["median_s"]
            report["catalog_vs_off"] = cat_ratio
            print(f"  events/s: catalog {args.events / cat['median_s']:,.0f}; ratio catalog/off = {cat_ratio:.2f}")
            verdicts.append((f"events/s described from a catalog = {cat_ratio:.2f}x without "
                             f"(target >= {TARGET_CATALOG_VS_OFF:.2f})", cat_ratio >= TARGET_CATALOG_VS_OFF))
    else:
        verdicts.append(("a timed command failed: no ratio", False))
        help_text = subprocess.run([q, "events", "--help"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                   text=True).stdout
        if "--imaged" not in help_text:
            print("  note: this quorvex has no --imaged option yet (see 'quorvex events --help')")

    all_passed = report_targets(load_before, verdicts, report, args.json)
    failed = any(r["status"] != 0 for r in (off, on, cat))
    return 1 if failed or (args.check and not all_passed) else 0


if __name__ == "__main__":
    sys.exit(main())
