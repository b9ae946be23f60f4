#!/usr/bin/env python3
"""Times 'quorvex events' and 'quorvex scan' against evtxexport and evtx_dump.py.

Events (a saved log read event by event, fields and data values out):
    quorvex events --format jsonl -q FILE
    evtxexport FILE                      Debian libevtx-utils, its text listing of each
                                         event's fields and strings
    evtx_dump.py FILE                    Debian python3-evtx (XML; skipped when too slow)
on the largest .evtx sample, a log of about --real-mb MB made of the samples' chunks
(bench/real_log.py) and a generated log of about --size-mb MB. Every command
handles the same events; events/s = the event count (from quorvex's output) / wall time.

Deep scan:
    quorvex scan -q --format jsonl IMAGE   on an image of --image-mb MB of noise without a
                                           single chunk, against cat IMAGE (page cache warm),
                                           and on the generated log hidden at an odd offset
                                           in noise (events/s, peak RSS).

Reported per command: median wall time, MB/s, events/s, peak RSS (MiB) and ratios, with
the targets. Uses the timing helpers of bench_dump.py. See bench/README.md.
"""

from __future__ import annotations

import argparse
import os
import random
import shutil
import subprocess
import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))
from bench_dump import (JUDGED_KINDS, QUICK_BUDGET, QUICK_RUNS, REPO, default_cache,  # noqa: E402
                        default_samples, generated_file, largest_sample, measure, real_file, report_targets, warm)

TARGET_EVENTS_VS_EVTXEXPORT = 40.0  # events/s at least 40x evtxexport's on the real-chunks and generated logs
TARGET_SCAN_VS_CAT = 0.9  # scanning an image without chunks at >= 90% of cat's speed
TARGET_SCAN_GROWTH_MIB = 8.0  # scan memory stays flat: a 1 GB image takes at most this more than 4 KB


def count_events(quorvex: str, path: Path, command: str) -> int:
    out = subprocess.run([quorvex, command, "--format", "jsonl", "-q", str(path)], check=True,
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL).stdout
    return out.count(b"\n")


def noise_image(cache: Path, size_mb: int, payload: Path | None, name: str) -> Path:
    """size_mb MB of noise (no chunk signature can occur: no byte 'E' follows no other),
    with the payload file placed at an odd offset when one is given. Made once."""
    target = cache / name
    want = size_mb * 1024 * 1024 + (payload.stat().st_size if payload else 0)
    if target.exists() and target.stat().st_size == want:
        return target
    print(f"generating {target} ({want / 1e6:.0f} MB) ...", flush=True)
    rnd = random.Random(size_mb)
    block = bytearray(rnd.randbytes(1 << 22))
    for i, b in enumerate(block):  # keep 'E' out: "ElfChnk" can never start in the noise
        if b == 0x45:
            block[i] = 0x46
    tmp = target.with_suffix(".tmp")
    with open(tmp, "wb") as f:
        written = 0
        middle = (size_mb * 1024 * 1024) // 2 + 12345
        while written < size_mb * 1024 * 1024:
            n = min(len(block), size_mb * 1024 * 1024 - written)
            if payload and written <= middle < written + n:
                f.write(block[: middle - written])
                with open(payload, "rb") as p:
                    shutil.copyfileobj(p, f, 1 << 22)
                f.write(block[middle - written: n])
            else:
                f.write(block[:n])
            written += n
    tmp.replace(target)
    return target


def row(label: str, r: dict, size: int, events: int | None) -> None:
    if r["status"] != 0:
        print(f"  {label:<44} FAILED (exit {r['status']}): {r['stderr'][-160:]}")
        return
    ev = f"{events / r['median_s']:>12,.0f}" if events else f"{'':>12}"
    sp = r.get("spread_pct")
    print(f"  {label:<44} {r['runs']:>4} {r['median_s']:>9.3f} {'' if sp is None else f'{sp:.1f}%':>7} "
          f"{size / 1e6 / r['median_s']:>9.1f} {ev} {r['peak_rss_mib']:>9.1f}")


def header(title: str) -> None:
    print(f"\n== {title}")
    print(f"  {'command':<44} {'runs':>4} {'median s':>9} {'spread':>7} {'MB/s':>9} {'events/s':>12} {'RSS MiB':>9}")


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"))
    ap.add_argument("--samples", type=Path, default=default_samples())
    ap.add_argument("--size-mb", type=float, default=200)
    ap.add_argument("--real-mb", type=float, default=64, help="log made of the samples' chunks, MB (0: none)")
    ap.add_argument("--image-mb", type=int, default=1024)
    ap.add_argument("--cache-dir", type=Path, default=default_cache())
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--budget", type=float, default=120)
    ap.add_argument("--quick-runs", type=int, default=QUICK_RUNS,
                    help="quorvex's commands (and cat) run at least this many times while their runs on a "
                         "file took less than --quick-budget seconds")
    ap.add_argument("--quick-budget", type=float, default=QUICK_BUDGET)
    ap.add_argument("--skip-peers", action="store_true")
    ap.add_argument("--json", help="also write the figures as JSON to this file ('-' = stdout)")
    ap.add_argument("--check", action="store_true", help="exit 1 when a target is missed")
    args = ap.parse_args()
    q = args.quorvex
    if not os.access(q, os.X_OK):
        print(f"quorvex not found at {q} (build it first, or pass --quorvex)", file=sys.stderr)
        return 2
    load_before = os.getloadavg()
    report: dict = {"events": [], "scan": {}}
    verdicts: list[tuple[str, bool]] = []

    # --- events ---------------------------------------------------------------------
    files = []
    sample = largest_sample(args.samples)
    if sample:
        files.append(("sample", sample))
    real = real_file(args.samples, args.real_mb, args.cache_dir)
    if real:
        files.append(("real", real))
    generated = generated_file(q, args.size_mb, args.cache_dir, False) if args.size_mb > 0 else None
    if generated:
        files.append(("generated", generated))
    for kind, path in files:
        size = path.stat().st_size
        warm(path)
        events = count_events(q, path, "events")
        header(f"events, {kind}: {path.name}, {size / 1e6:.1f} MB, {events:,} events")
        entry = {"kind": kind, "file": str(path), "bytes": size, "events": events, "results": {}}
        cmds = [("quorvex", "quorvex events --format jsonl -q", [q, "events", "--format", "jsonl", "-q"])]
        if not args.skip_peers:
            for key, label, prog, extra in (("evtxexport", "evtxexport (text listing)", "evtxexport", []),
                                            ("evtx_dump.py", "evtx_dump.py", "evtx_dump.py", [])):
                exe = shutil.which(prog)
                if not exe:
                    print(f"  {label:<44} skipped (not installed)")
                    continue
                if key == "evtx_dump.py" and size > 20e6:
                    print(f"  {label:<44} skipped (about 0.15 MB/s: {size / 0.15e6:.0f} s)")
                    continue
                cmds.append((key, label, [exe, *extra]))
        for key, label, argv in cmds:
            quick = {"min_runs": args.quick_runs, "quick_budget": args.quick_budget} if key == "quorvex" else {}
            r = measure(argv + [str(path)], args.runs, args.budget, **quick)
            entry["results"][key] = r
            row(label, r, size, events)
        res = entry["results"]
        if "evtxexport" in res and res["evtxexport"]["status"] == 0 and res["quorvex"]["status"] == 0:
            ratio = res["evtxexport"]["median_s"] / res["quorvex"]["median_s"]
            entry["events_per_s_vs_evtxexport"] = ratio
            ok = ratio >= TARGET_EVENTS_VS_EVTXEXPORT
            # The largest sample is a few MB: start-up is much of its run, so it is shown, not judged.
            if kind in JUDGED_KINDS:
                verdicts.append((f"events/s vs evtxexport on {kind}: {ratio:.1f}x "
                                 f"(target {TARGET_EVENTS_VS_EVTXEXPORT:.0f}x)", ok))
            print(f"  ratio: quorvex events/s = {ratio:.1f}x evtxexport's")
        if "evtx_dump.py" in res and res["evtx_dump.py"]["status"] == 0:
            print(f"  ratio: quorvex events/s = {res['evtx_dump.py']['median_s'] / res['quorvex']['median_s']:.1f}x "
                  f"evtx_dump.py's")
        report["events"].append(entry)

    # --- deep scan ------------------------------------------------------------------
    if args.image_mb > 0:
        args.cache_dir.mkdir(parents=True, exist_ok=True)
        empty = noise_image(args.cache_dir, args.image_mb, None, f"noise-{args.image_mb}mb.img")
        size = empty.stat().st_size
        warm(empty)
        header(f"deep scan, image without chunks: {size / 1e6:.0f} MB")
        cat = measure(["cat", str(empty)], args.runs, args.budget,
                      min_runs=args.quick_runs, quick_budget=args.quick_budget)
        row("cat IMAGE", cat, size, None)
        scan = measure([q, "scan", "-q", "--format", "jsonl", str(empty)], args.runs, args.budget,
                      min_runs=args.quick_runs, quick_budget=args.quick_budget)
        row("quorvex scan -q --format jsonl IMAGE", scan, size, None)
        report["scan"]["empty"] = {"bytes": size, "cat": cat, "quorvex": scan}
        if cat["status"] == 0 and scan["status"] == 0:
            speed = cat["median_s"] / scan["median_s"]
            best = min(cat["walls"]) / min(scan["walls"])
            report["scan"]["speed_vs_cat"] = speed
            report["scan"]["speed_vs_cat_best"] = best
            print(f"  ratio: scan speed = {speed:.2f} x cat's (medians), {best:.2f} x (best runs: "
                  f"cat {min(cat['walls']):.3f} s, scan {min(scan['walls']):.3f} s)")
            verdicts.append((f"scan of an image without chunks at {speed:.2f}x cat's speed (target {TARGET_SCAN_VS_CAT})",
                             speed >= TARGET_SCAN_VS_CAT))
            # The process alone (its libraries' pages) is about 15 MiB: what counts is growth.
            tiny = args.cache_dir / "noise-4kb.img"
            with open(empty, "rb") as f:
                tiny.write_bytes(f.read(4096))
            floor = measure([q, "scan", "-q", "--format", "jsonl", str(tiny)], 1, args.budget)
            growth = scan["peak_rss_mib"] - floor["peak_rss_mib"]
            report["scan"]["rss_growth_mib"] = growth
            print(f"  peak RSS {scan['peak_rss_mib']:.1f} MiB, {growth:.1f} MiB above a scan of 4 KB")
            verdicts.append((f"scan peak RSS {scan['peak_rss_mib']:.1f} MiB, {growth:.1f} MiB above a scan of 4 KB "
                             f"(target < {TARGET_SCAN_GROWTH_MIB:.0f})", growth < TARGET_SCAN_GROWTH_MIB))
        if generated:
            image = noise_image(args.cache_dir, 256, generated, f"noise-256mb-with-{generated.stem}.img")
            size = image.stat().st_size
            warm(image)
            events = count_events(q, image, "scan")
            header(f"deep scan, generated log hidden in 256 MB of noise: {size / 1e6:.0f} MB, {events:,} events")
            scan = measure([q, "scan", "-q", "--format", "jsonl", str(image)], args.runs, args.budget,
                      min_runs=args.quick_runs, quick_budget=args.quick_budget)
            row("quorvex scan -q --format jsonl IMAGE", scan, size, events)
            report["scan"]["with_log"] = {"bytes": size, "events": events, "quorvex": scan}

    all_passed = report_targets(load_before, verdicts, report, args.json)
    return 1 if args.check and not all_passed else 0


if __name__ == "__main__":
    sys.exit(main())
