#!/usr/bin/env python3
"""Times 'quorvex events' on a large classic .evt log against evtexport on the same file.

    quorvex:     quorvex events FILE --format csv --no-progress -q
    evtexport:   evtexport FILE        (Debian libevt-utils, run as a black box)

FILE is a generated 100 MB .evt (qvx_evt_fixture, bench/make_evt_fixture.cpp): about
276,000 records of 200-600 bytes from several sources, with strings, SIDs and binary
data; once as written straight through and once with the circular data area wrapped
(the oldest record in the middle of the file). Both programs read every record; their
outputs go to /dev/null. Reported: median wall time, MB/s, records/s, peak RSS and the
speed ratio quorvex/evtexport, checked against the target of at least 5.

The files are written once into the cache folder and reused. See bench/README.md.
"""
import argparse
import os
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import REPO, default_cache, measure, warm, report_targets  # noqa: E402

TARGET_VS_EVTEXPORT = 5.0


def fixture(generator: str, cache: Path, megabytes: int, wrap: bool, regenerate: bool) -> Path:
    path = cache / f"evt-{megabytes}{'-wrap' if wrap else ''}.evt"
    if regenerate or not path.exists():
        cache.mkdir(parents=True, exist_ok=True)
        print(f"generating {path} ...", flush=True)
        subprocess.run([generator, str(path), str(megabytes)] + (["--wrap"] if wrap else []), check=True,
                       stdout=subprocess.DEVNULL)
    return path


def count_records(quorvex: str, path: Path) -> int:
    out = subprocess.run([quorvex, "events", str(path), "--format", "jsonl", "--no-progress", "-q"],
                         stdout=subprocess.PIPE, check=True)
    return out.stdout.count(b"\n")


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--generator", default=str(REPO / "build" / "bench" / "qvx_evt_fixture"))
    ap.add_argument("--megabytes", type=int, default=100)
    ap.add_argument("--cache-dir", type=Path, default=default_cache())
    ap.add_argument("--regenerate", action="store_true")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--budget", type=float, default=180)
    ap.add_argument("--json", help="also write the figures as JSON to this file ('-' = stdout)")
    ap.add_argument("--check", action="store_true", help="exit 1 when the target is missed")
    args = ap.parse_args()
    for path, what in ((args.quorvex, "quorvex"), (args.generator, "qvx_evt_fixture")):
        if not os.access(path, os.X_OK):
            print(f"{what} not found at {path} (build it first)", file=sys.stderr)
            return 2
    peer = subprocess.run(["sh", "-c", "command -v evtexport"], stdout=subprocess.PIPE, text=True).stdout.strip()
    load_before = os.getloadavg()
    report, verdicts = {"files": []}, []
    for wrap in (False, True):
        log = fixture(args.generator, args.cache_dir, args.megabytes, wrap, args.regenerate)
        size = log.stat().st_size
        records = count_records(args.quorvex, log)
        warm(log)
        print(f"\n== {log.name}: {size / 1e6:.1f} MB, {records:,} records{' (wrapped area)' if wrap else ''}")
        print(f"  {'reader':<10} {'runs':>4} {'median s':>9} {'MB/s':>9} {'records/s':>12} {'RSS MiB':>9}")
        ours = measure([args.quorvex, "events", str(log), "--format", "csv", "--no-progress", "-q"], args.runs,
                       args.budget)
        rows = {"quorvex": ours}
        if peer:
            rows["evtexport"] = measure([peer, str(log)], args.runs, args.budget)
        for name, r in rows.items():
            if r["status"] != 0:
                print(f"  {name:<10} FAILED (exit {r['status']}): {r['stderr'][-200:]}")
                continue
            print(f"  {name:<10} {r['runs']:>4} {r['median_s']:>9.3f} {size / 1e6 / r['median_s']:>9.1f} "
                  f"{records / r['median_s']:>12,.0f} {r['peak_rss_mib']:>9.1f}")
        entry = {"file": str(log), "bytes": size, "records": records, **rows}
        if peer and ours["status"] == 0 and rows["evtexport"]["status"] == 0:
            ratio = rows["evtexport"]["median_s"] / ours["median_s"]
            entry["ratio"] = ratio
            print(f"  quorvex is {ratio:.1f}x evtexport")
            verdicts.append((f"{log.name}: {ratio:.1f}x evtexport (target >= {TARGET_VS_EVTEXPORT:.0f}x)",
                             ratio >= TARGET_VS_EVTEXPORT))
        elif not peer:
            verdicts.append(("evtexport not installed (Debian libevt-utils): no ratio", False))
        report["files"].append(entry)

    all_passed = report_targets(load_before, verdicts, report, args.json)
    return 1 if args.check and not all_passed else 0


if __name__ == "__main__":
    sys.exit(main())
