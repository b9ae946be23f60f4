#!/usr/bin/env python3
"""Times quorvex on disk images against the plain folder and against the images' own tools.

    logs:   quorvex events on every log of an installation, from the folder and from the
            same files inside an E01 image (IMAGE::PATH); target: image <= 1.5 x folder.
            Also from the raw image, to split the extra time into the file system's part
            (raw - folder) and decompression's (E01 - raw).
    raw:    quorvex scan RAW   against   cat RAW            target: >= 90% of cat's speed
    E01:    quorvex scan E01   against   ewfexport -u -f raw -t - E01     target: >= 70%
            Both on an image of the same size whose volume holds no log (the search through
            the media data), and also on the image with the logs (events/s: there the time
            goes to decoding and writing the events, which neither peer does).
    shadow: (--shadows) quorvex events on every log as a Volume Shadow Copy inside the E01
            holds it (IMAGE@1:vss1::PATH), against the same logs from a folder; target:
            shadow copy <= 2 x folder

With --shadows every log on the volume is overwritten by a log of another writer
(qvx_bench_fixtures) after the copy was taken, and qvx_vss_fill keeps the old blocks in
one store, so every block of the old logs is read through the store.

The image: an NTFS volume of --size MB (mkntfs, filled with libntfs-3g by qvx_ntfs_fill)
holding logs written by 'quorvex demo' and a file of random bytes over half the volume (so
that the E01's compression has real work), in an MBR disk (sfdisk), acquired with
ewfacquire. Every command runs once to warm the page cache, then --runs times; medians
are compared. Peak RSS of quorvex (/usr/bin/time) is printed to show that memory stays flat.
"""
import argparse
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent


def run(cmd, out=subprocess.DEVNULL):
    subprocess.run(cmd, stdout=out, stderr=subprocess.DEVNULL, check=True)


def timed(cmd, runs, shell=False):
    times = []
    for i in range(runs + 1):
        start = time.perf_counter()
        subprocess.run(cmd, shell=shell, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=True)
        if i:  # the first run warms the cache
            times.append(time.perf_counter() - start)
    return statistics.median(times)


def peak_rss_mb(cmd):
    """The command's own peak RSS (RUSAGE_CHILDREN would give the largest of every child
    so far, ewfacquire's included)."""
    if os.path.exists("/usr/bin/time"):
        res = subprocess.run(["/usr/bin/time", "-f", "%M"] + cmd, stdout=subprocess.DEVNULL,
                             stderr=subprocess.PIPE, check=True)
        return int(res.stderr.decode().strip().splitlines()[-1]) / 1024
    return float("nan")


def count_lines(cmd):
    return subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout.count(b"\n")


def new_volume(vol: Path, fill: Path, tree: Path, size_mb: int):
    """An NTFS volume of size_mb MB (mkntfs) holding the files of tree (libntfs-3g)."""
    with open(vol, "wb") as f:
        f.truncate(size_mb * 1024 * 1024)
    run(["mkntfs", "-F", "-q", "-Q", "-p", "2048", str(vol)])
    run([str(fill), str(vol), str(tree)])


def acquire_disk(vol: Path, stem: Path, size_mb: int):
    """The volume in an MBR disk (stem.raw, 1 MB in) and that disk acquired as stem.E01;
    the volume file is removed."""
    raw = stem.with_suffix(".raw")
    with open(raw, "wb") as f:
        f.truncate((size_mb + 2) * 1024 * 1024)
    run(["dd", f"if={vol}", f"of={raw}", "bs=1M", "seek=1", "conv=notrunc", "status=none"])
    subprocess.run(["sfdisk", "-q", str(raw)], input=f"2048,{size_mb * 2048},7\n".encode(), check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    vol.unlink()
    run(["ewfacquire", "-u", "-t", str(stem), str(raw)])
    return raw, stem.with_suffix(".E01")


def empty_images(work: Path, fill: Path, size_mb: int, filler: Path):
    """A disk of the same size and layout whose volume holds only the random filler: no log."""
    (work / "empty/inst").mkdir(parents=True)
    shutil.copyfile(filler, work / "empty/inst/filler.bin")
    vol = work / "empty/vol.img"
    new_volume(vol, fill, work / "empty/inst", size_mb)
    (work / "empty/inst/filler.bin").unlink()
    return acquire_disk(vol, work / "empty/disk", size_mb)


def build(work: Path, build_dir: Path, size_mb: int, logs: int, records: int, shadows: bool):
    quorvex = build_dir / "src/app/quorvex"
    fill = build_dir / "tests/qvx_ntfs_fill"
    tree = work / "inst/Windows/System32/winevt/Logs"
    tree.mkdir(parents=True)
    for i in range(logs):
        run([str(quorvex), "demo", "--no-dump", "-o", str(tree / f"Log{i:02d}.evtx"), "-n", str(records)])
    with open(work / "inst/filler.bin", "wb") as f:
        f.write(os.urandom(size_mb * 1024 * 1024 // 2))
    vol = work / "vol.img"
    new_volume(vol, fill, work / "inst", size_mb)
    old_tree = None
    if shadows:
        # The copy holds the demo logs; the volume and the folder then hold another writer's.
        old_tree = work / "old-logs"
        shutil.copytree(tree, old_tree)
        old_vol = work / "old.img"
        shutil.copyfile(vol, old_vol)
        run([str(build_dir / "bench/qvx_bench_fixtures"), str(work / "newer"), str(records), "3"])
        newer = work / "newer/bench.evtx"
        for log in sorted(tree.iterdir()):
            run([str(fill), str(vol), "--replace", f"/Windows/System32/winevt/Logs/{log.name}", str(newer)])
            shutil.copyfile(newer, log)
        run([str(build_dir / "tests/qvx_vss_fill"), str(old_vol), str(vol)])
        old_vol.unlink()
    raw, e01 = acquire_disk(vol, work / "disk", size_mb)
    return quorvex, raw, e01, tree, old_tree


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default=str(REPO / "build"), help="the build folder (default: build/)")
    ap.add_argument("--size", type=int, default=1024, help="NTFS volume size in MB (default 1024)")
    ap.add_argument("--logs", type=int, default=8, help="logs in the installation (default 8)")
    ap.add_argument("--records", type=int, default=20000, help="records per log (default 20000)")
    ap.add_argument("--runs", type=int, default=3)
    ap.add_argument("--shadows", action="store_true", help="also time the logs read through a shadow copy")
    args = ap.parse_args()
    for tool in ("mkntfs", "sfdisk", "ewfacquire", "ewfexport"):
        if not shutil.which(tool):
            sys.exit(f"bench_images: {tool} is needed (see scripts/setup.sh)")
    with tempfile.TemporaryDirectory(prefix="quorvex-bench-images-") as tmp:
        work = Path(tmp)
        print(f"building a {args.size} MB image with {args.logs} logs of {args.records} records ...", flush=True)
        quorvex, raw, e01, tree, old_tree = build(work, Path(args.build), args.size, args.logs, args.records,
                                                  args.shadows)
        names = sorted(p.name for p in tree.iterdir())
        folder_cmd = " ; ".join(f"{quorvex} events -q -f csv '{tree / n}' > /dev/null" for n in names)
        image_cmd = " ; ".join(
            f"{quorvex} events -q -f csv '{e01}::/Windows/System32/winevt/Logs/{n}' > /dev/null" for n in names)
        raw_cmd = " ; ".join(
            f"{quorvex} events -q -f csv '{raw}::/Windows/System32/winevt/Logs/{n}' > /dev/null" for n in names)
        t_folder = timed(folder_cmd, args.runs, shell=True)
        t_image = timed(image_cmd, args.runs, shell=True)
        t_raw_logs = timed(raw_cmd, args.runs, shell=True)
        scan = [str(quorvex), "scan", "-q", "-f", "csv", "--no-progress"]
        empty_raw, empty_e01 = empty_images(work, Path(args.build) / "tests/qvx_ntfs_fill", args.size,
                                            work / "inst/filler.bin")
        t_cat = timed(f"cat '{empty_raw}' > /dev/null", args.runs, shell=True)
        t_scan_raw = timed(scan + [str(empty_raw)], args.runs)
        t_ewf = timed(f"ewfexport -q -u -f raw -t - '{empty_e01}' > /dev/null", args.runs, shell=True)
        t_scan_e01 = timed(scan + [str(empty_e01)], args.runs)
        t_logs_raw = timed(scan + [str(raw)], args.runs)
        t_logs_e01 = timed(scan + [str(e01)], args.runs)
        events = count_lines([str(quorvex), "scan", "-q", "-f", "jsonl", "--no-progress", str(raw)])
        rss_e01 = peak_rss_mb(scan + [str(e01)])
        rss_empty = peak_rss_mb(scan + [str(empty_e01)])
        mb = raw.stat().st_size / 1e6
        rows = [
            ("logs: folder", t_folder, None), ("logs: inside raw", t_raw_logs, None),
            ("logs: inside E01", t_image, None),
            ("cat raw", t_cat, mb), ("scan raw", t_scan_raw, mb),
            ("ewfexport E01", t_ewf, mb), ("scan E01", t_scan_e01, mb),
            ("scan raw, logs", t_logs_raw, mb), ("scan E01, logs", t_logs_e01, mb),
        ]
        for name, t, size in rows:
            print(f"  {name:18s} {t:8.3f} s" + (f"  {size / t:8.1f} MB/s" if size else "")
                  + (f"  {events / t:10,.0f} events/s" if name.endswith("logs") else ""))
        r1, r2, r3 = t_image / t_folder, t_cat / t_scan_raw, t_ewf / t_scan_e01
        print(f"logs from E01 / from folder = {r1:.2f}x (target <= 1.5)  {'ok' if r1 <= 1.5 else 'MISSED'}"
              f"  (file system: {(t_raw_logs - t_folder) / t_folder * 100:+.0f}%,"
              f" decompression: {(t_image - t_raw_logs) / t_folder * 100:+.0f}% of the folder's time)")
        print(f"scan raw speed / cat        = {r2 * 100:.0f}% (target >= 90%)  {'ok' if r2 >= 0.9 else 'MISSED'}")
        print(f"scan E01 speed / ewfexport  = {r3 * 100:.0f}% (target >= 70%)  {'ok' if r3 >= 0.7 else 'MISSED'}")
        print(f"scan E01 peak RSS           = {rss_e01:.0f} MB with the logs, {rss_empty:.0f} MB without")
        if old_tree:
            old_cmd = " ; ".join(f"{quorvex} events -q -f csv '{old_tree / n}' > /dev/null" for n in names)
            copy_cmd = " ; ".join(
                f"{quorvex} events -q -f csv '{e01}@1:vss1::/Windows/System32/winevt/Logs/{n}' > /dev/null"
                for n in names)
            t_old = timed(old_cmd, args.runs, shell=True)
            t_copy = timed(copy_cmd, args.runs, shell=True)
            print(f"  {'old logs: folder':18s} {t_old:8.3f} s")
            print(f"  {'old logs: E01 vss1':18s} {t_copy:8.3f} s")
            r4 = t_copy / t_old
            print(f"logs from shadow copy / folder = {r4:.2f}x (target <= 2)  {'ok' if r4 <= 2 else 'MISSED'}")


if __name__ == "__main__":
    main()
