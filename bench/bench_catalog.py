#!/usr/bin/env python3
"""Times 'quorvex catalog build' over a synthetic installation with many message modules.

    quorvex catalog build --imaged DIR/Windows -o OUT.qcat -q

DIR comes from qvx_bench_fixtures (bench/make_descr_fixture.cpp) with --modules classic
sources, each registered with its own message module (default 1,000). The installation is
written once into the cache folder and reused; the catalog is written into a temporary
folder on every run. Reported: median wall time, modules/s, the catalog's size and
PASS/FAIL against the target (under 60 s). See bench/README.md.
"""

from __future__ import annotations

import argparse
import os
import sys
import tempfile
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import REPO, default_cache, measure, report_targets  # noqa: E402
from bench_descriptions import fixture  # noqa: E402

TARGET_SECONDS = 60.0


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--generator", default=str(REPO / "build" / "bench" / "qvx_bench_fixtures"))
    ap.add_argument("--modules", type=int, default=1000, help="message modules (classic sources) of the installation")
    ap.add_argument("--events", type=int, default=1000, help="events of the fixture's log (not read here)")
    ap.add_argument("--cache-dir", type=Path, default=default_cache())
    ap.add_argument("--regenerate", action="store_true")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--budget", type=float, default=300)
    ap.add_argument("--json", help="also write the figures as JSON to this file ('-' = stdout)")
    ap.add_argument("--check", action="store_true", help="exit 1 when the target is missed")
    args = ap.parse_args()
    for path in (args.quorvex, args.generator):
        if not os.access(path, os.X_OK):
            print(f"{path} not found (build it first)", file=sys.stderr)
            return 2
    load_before = os.getloadavg()
    root = fixture(args.generator, args.cache_dir, args.events, args.modules, args.regenerate)
    with tempfile.TemporaryDirectory() as tmp:
        out = Path(tmp) / "bench.qcat"
        cmd = [args.quorvex, "catalog", "build", "--imaged", str(root / "Windows"), "-o", str(out), "-q"]
        print(f"\n== catalog build: {root / 'Windows'}, {args.modules:,} message modules")
        r = measure(cmd, args.runs, args.budget)
        size = out.stat().st_size if out.exists() else 0
    report = {"installation": str(root), "modules": args.modules, "build": r, "catalog_bytes": size}
    if r["status"] != 0:
        print(f"  FAILED (exit {r['status']}): {r['stderr'][-300:]}")
        report_targets(load_before, [("catalog build failed", False)], report, args.json)
        return 1
    print(f"  runs {r['runs']}, median {r['median_s']:.2f} s, {args.modules / r['median_s']:,.0f} modules/s, "
          f"catalog {size / 1e6:.2f} MB, peak RSS {r['peak_rss_mib']:.1f} MiB")
    verdicts = [(f"catalog of {args.modules:,} modules built in {r['median_s']:.2f} s (target < {TARGET_SECONDS:.0f} s)",
                 r["median_s"] < TARGET_SECONDS)]
    all_passed = report_targets(load_before, verdicts, report, args.json)
    return 1 if args.check and not all_passed else 0


if __name__ == "__main__":
    sys.exit(main())
