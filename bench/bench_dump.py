#!/usr/bin/env python3
"""Times 'quorvex dump' against evtxexport and evtx_dump.py on three files.

Files: the largest .evtx sample under the samples folder, a log of about --real-mb MB
made of the samples' own chunks (bench/real_log.py), and a generated log of about
--size-mb MB written by 'quorvex demo' (both made once, kept in a cache folder).

Commands, each run --runs times with its output going to /dev/null (quorvex's own at
least --quick-runs times while they take under --quick-budget seconds per file, one
thread and two threads in turn):
    quorvex dump -q FILE                 one thread
    quorvex dump -q --threads 2 FILE
    evtxexport -f xml FILE               Debian libevtx-utils
    evtx_dump.py FILE                    Debian python3-evtx

Reported per command: median wall time, MB/s (input bytes / wall time, MB = 10^6
bytes), peak resident memory (what /usr/bin/time calls %M, from one more run under it),
and the ratios of interest with the project's targets.  See bench/README.md.
"""

from __future__ import annotations

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

REPO = Path(__file__).resolve().parent.parent

TARGET_VS_EVTXEXPORT = 50.0  # quorvex, 1 thread, at least this many times as fast as evtxexport
TARGET_TWO_THREADS = 1.85  # 2 threads at least this many times as fast as 1
JUDGED_KINDS = ("real", "generated")  # the files the targets are judged on
TARGET_RSS_MIB = 64.0  # peak RSS on the generated file below this


def default_samples() -> Path:
    env = os.environ.get("QVX_SAMPLES_DIR")
    return Path(env) if env else REPO.parent / "shared" / "samples"


def default_cache() -> Path:
    base = os.environ.get("XDG_CACHE_HOME") or os.path.join(os.path.expanduser("~"), ".cache")
    return Path(base) / "quorvex-bench"


TIME = "/usr/bin/time" if os.access("/usr/bin/time", os.X_OK) else None


# A run shorter than this is timed without /usr/bin/time around it: its own start and end
# (about a millisecond) would be part of the figure, and would pull every ratio between two
# quick commands towards 1. Such a command's peak memory comes from one more run, under
# /usr/bin/time, made before the timed runs (it also warms the caches).
WRAPPER_FREE_BELOW_S = 1.0


def _spawn_and_wait(argv: list[str], err) -> tuple[float, int, object]:
    """Starts argv (stdin and stdout on /dev/null, stderr to err) the cheapest way Python
    can, by posix_spawn, and waits for it: wall seconds, wait status, rusage."""
    actions = [(os.POSIX_SPAWN_OPEN, 0, os.devnull, os.O_RDONLY, 0),
               (os.POSIX_SPAWN_OPEN, 1, os.devnull, os.O_WRONLY, 0),
               (os.POSIX_SPAWN_DUP2, err.fileno(), 2)]
    start = time.perf_counter()
    pid = os.posix_spawnp(argv[0], argv, os.environ, file_actions=actions)
    _, status, usage = os.wait4(pid, 0)
    return time.perf_counter() - start, status, usage


def run_once(cmd: list[str], rss: bool = True) -> dict:
    """Runs cmd with stdout to /dev/null; wall seconds, peak RSS (KiB, or None when rss is
    false), exit status, stderr tail.

    With rss, the command runs under /usr/bin/time, whose %M is its peak RSS. Without
    /usr/bin/time the child's own ru_maxrss is taken, which on Linux also counts this
    Python process's pages at the start (about 20 MiB)."""
    with tempfile.TemporaryFile() as err, tempfile.NamedTemporaryFile("r") as rssfile:
        argv = [TIME, "-q", "-f", "%M", "-o", rssfile.name, *cmd] if rss and TIME else cmd
        try:
            wall, status, usage = _spawn_and_wait(argv, err)
        except OSError as e:
            return {"wall": 0.0, "rss_kib": None, "status": 127, "stderr": f"{cmd[0]}: {e}"}
        code = os.waitstatus_to_exitcode(status)
        peak = usage.ru_maxrss if rss else None
        if rss and TIME:
            lines = [ln for ln in rssfile.read().splitlines() if ln.strip()]
            if lines and lines[-1].strip().isdigit():
                peak = int(lines[-1])
        err.seek(0)
        tail = err.read()[-400:].decode("utf-8", "replace").strip()
    return {"wall": wall, "rss_kib": peak, "status": code, "stderr": tail}


def _first_run(cmd: list[str], results: list[dict]) -> dict:
    """The run that gives cmd's peak memory. It counts as a timed run when the command is
    slow enough for /usr/bin/time's own share to vanish; else it is a warm-up."""
    r = run_once(cmd, rss=True)
    if r["status"] != 0 or r["wall"] >= WRAPPER_FREE_BELOW_S:
        results.append(r)
    return r


def _summary(cmd: list[str], first: dict, out: list[dict]) -> dict:
    failed = next((r for r in [first, *out] if r["status"] != 0), None)
    timed = out or [first]  # a command that failed at once has only its first run
    return {
        "command": " ".join(cmd),
        "runs": len(timed),
        "walls": [r["wall"] for r in timed],
        "median_s": statistics.median(r["wall"] for r in timed),
        "spread_pct": spread_pct([r["wall"] for r in timed]),
        "peak_rss_mib": first["rss_kib"] / 1024.0,
        "status": failed["status"] if failed else 0,
        "stderr": failed["stderr"] if failed else "",
    }


def spread_pct(walls: list[float]) -> float | None:
    """How far a command's run times lie apart: their interquartile range as a percentage of
    their median. The same command on the same file varies by a percent or two on a steady
    machine; much more means its speed changed during the bench (other work, or the host of a
    virtual machine running it slower for a while) and the ratios are noisy."""
    if len(walls) < 4:
        return None
    q = statistics.quantiles(walls, n=4)
    mid = statistics.median(walls)
    return 100.0 * (q[2] - q[0]) / mid if mid > 0 else None


UNSTEADY_PCT = 8.0  # a spread above this marks a file's figures as noisy


def warm(path: Path) -> None:
    """Reads the file once so every timed run finds it in the page cache."""
    with open(path, "rb") as f:
        while f.read(1 << 22):
            pass


QUICK_RUNS = 21  # quorvex's own commands: at least this many runs ...
QUICK_BUDGET = 8.0  # ... while their runs on a file took less than this many seconds


def measure(cmd: list[str], runs: int, budget: float, min_runs: int = 0, quick_budget: float = 0.0) -> dict:
    """Runs cmd `runs` times, and on up to `min_runs` times while the runs so far took less
    than `quick_budget` s (a command of a few hundredths of a second gets a steadier median);
    stops repeating once the runs so far took more than `budget` s."""
    return measure_alternating([cmd], runs, budget, min_runs, quick_budget)[0]


def measure_alternating(cmds: list[list[str]], runs: int, budget: float, min_runs: int = 0,
                        quick_budget: float = 0.0) -> list[dict]:
    """As measure, for commands compared with each other: one run of each in turn, round after
    round, so that a change in the machine's speed during the bench (other work, the host's
    clock) falls on all of them alike instead of on the one timed at that moment."""
    results: list[list[dict]] = [[] for _ in cmds]
    firsts = [_first_run(cmd, out) for cmd, out in zip(cmds, results)]
    failed = any(r["status"] != 0 for r in firsts)
    # A command slow enough for its first run to count may already have used the budget.
    over = all(results) and sum(x["wall"] for out in results for x in out) > budget
    while not failed and not over:
        for cmd, out in zip(cmds, results):
            out.append(run_once(cmd, rss=False))
        failed = any(out[-1]["status"] != 0 for out in results)
        total = sum(x["wall"] for out in results for x in out)
        done = len(results[0])
        if failed or total > budget:
            break
        if done >= runs and (done >= min_runs or total >= quick_budget):
            break
    return [_summary(cmd, first, out) for cmd, first, out in zip(cmds, firsts, results)]


def largest_sample(samples: Path) -> Path | None:
    files = [p for p in samples.rglob("*.evtx") if p.is_file()] if samples.is_dir() else []
    return max(files, key=lambda p: (p.stat().st_size, str(p))) if files else None


def generated_file(quorvex: str, size_mb: float, cache: Path, regenerate: bool) -> Path:
    """A demo log of about size_mb MB, made once: a small probe gives the bytes per record."""
    cache.mkdir(parents=True, exist_ok=True)
    probe = cache / "probe.evtx"
    probe_records = 20000
    subprocess.run([quorvex, "demo", "--no-dump", "--records", str(probe_records), "--output", str(probe)],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    per_record = probe.stat().st_size / probe_records
    probe.unlink()
    records = max(1000, int(round(size_mb * 1e6 / per_record / 1000.0)) * 1000)
    target = cache / f"demo-{records}.evtx"
    if regenerate or not target.exists() or target.stat().st_size == 0:
        tmp = target.with_suffix(".tmp")
        print(f"generating {target} ({records} records, about {records * per_record / 1e6:.0f} MB) ...", flush=True)
        subprocess.run([quorvex, "demo", "--no-dump", "--records", str(records), "--output", str(tmp)],
                       check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        tmp.replace(target)
    return target


def real_file(samples: Path, size_mb: float, cache: Path) -> Path | None:
    """A log of about size_mb MB made of the samples' chunks (bench/real_log.py), made once;
    None when there are no samples to make it from."""
    if size_mb <= 0 or not (samples / "evtx").is_dir():
        return None
    from real_log import make  # noqa: E402  (same folder)
    try:
        return make(samples, size_mb, cache / f"real-{int(size_mb)}mb.evtx")
    except SystemExit as e:
        print(f"note: no log made of real chunks: {e}")
        return None


def tools(quorvex: str, skip_peers: bool) -> list[dict]:
    out = [
        {"key": "quorvex-1t", "label": "quorvex dump -q (1 thread)", "argv": [quorvex, "dump", "-q"]},
        {"key": "quorvex-2t", "label": "quorvex dump -q --threads 2", "argv": [quorvex, "dump", "-q", "--threads", "2"]},
    ]
    if skip_peers:
        return out
    for key, label, prog, args, package in (
        ("evtxexport", "evtxexport -f xml", "evtxexport", ["-f", "xml"], "libevtx-utils"),
        ("evtx_dump.py", "evtx_dump.py", "evtx_dump.py", [], "python3-evtx"),
    ):
        path = shutil.which(prog)
        out.append({"key": key, "label": label, "argv": [path, *args] if path else None, "package": package,
                    "peer": True})
    return out


def report_targets(load_before, verdicts: list, report: dict, json_arg: str | None) -> bool:
    """Prints the load average and each target's PASS/FAIL, writes the JSON report when
    asked ('-' = stdout); True when every target passed."""
    load_after = os.getloadavg()
    print(f"\nload average before {load_before[0]:.2f}, after {load_after[0]:.2f}"
          + ("  (busy machine: figures are noisy)" if max(load_before[0], load_after[0]) > 1.5 else ""))
    print("targets:")
    for text, ok in verdicts:
        print(f"  {'PASS' if ok else 'FAIL'}  {text}")
    report["targets"] = [{"target": t, "pass": ok} for t, ok in verdicts]
    if json_arg:
        text = json.dumps(report, indent=2)
        if json_arg == "-":
            print(text)
        else:
            Path(json_arg).write_text(text)
    return all(ok for _, ok in verdicts)


def fmt_ratio(x) -> str:
    # Two decimals below 10: a ratio judged against 1.85 must not print as 1.8 or 1.9.
    return "n/a" if x is None else (f"{x:.2f}x" if x < 10 else f"{x:.1f}x")


def verdict(ok) -> str:
    return "n/a" if ok is None else ("PASS" if ok else "FAIL")


def bench_file(label: str, path: Path, tool_list: list[dict], args, rates: dict) -> dict:
    size = path.stat().st_size
    warm(path)
    entry = {"file": str(path), "kind": label, "bytes": size, "results": {}}
    print(f"\n{label}: {path} ({size / 1e6:.1f} MB)", flush=True)
    # Quorvex's own commands (1 and 2 threads, compared with each other) are timed in turn.
    ours = [t for t in tool_list if not t.get("peer") and t["argv"] is not None]
    timed = dict(zip((t["key"] for t in ours),
                     measure_alternating([t["argv"] + [str(path)] for t in ours], args.runs, args.budget,
                                         min_runs=args.quick_runs, quick_budget=args.quick_budget))) if ours else {}
    for t in tool_list:
        key = t["key"]
        if t["argv"] is None:
            entry["results"][key] = {"skipped": f"not installed (Debian package {t['package']})"}
            continue
        if t.get("peer") and key in rates:
            estimate = size / rates[key]
            if estimate > args.peer_limit:
                entry["results"][key] = {"skipped": f"estimated {estimate:.0f} s", "estimated_s": estimate}
                continue
        r = timed[key] if key in timed else measure(t["argv"] + [str(path)], args.runs, args.budget)
        r["mb_per_s"] = size / 1e6 / r["median_s"] if r["median_s"] > 0 else None
        entry["results"][key] = r
        if r["status"] == 0:
            rates[key] = size / r["median_s"]
        print(f"  {t['label']:<30} {r['median_s']:9.3f} s", flush=True)

    res = entry["results"]

    def median(key):
        r = res.get(key, {})
        return r.get("median_s") if r.get("status") == 0 else None

    q1, q2, ee, pe = median("quorvex-1t"), median("quorvex-2t"), median("evtxexport"), median("evtx_dump.py")
    entry["ratios"] = {
        "quorvex-1t_vs_evtxexport": ee / q1 if ee and q1 else None,
        "quorvex-2t_vs_quorvex-1t": q1 / q2 if q1 and q2 else None,
        "quorvex-1t_vs_evtx_dump.py": pe / q1 if pe and q1 else None,
    }
    rss = [res[k]["peak_rss_mib"] for k in ("quorvex-1t", "quorvex-2t") if "peak_rss_mib" in res.get(k, {})]
    entry["quorvex_peak_rss_mib"] = max(rss) if rss else None
    return entry


def print_table(entries: list[dict], tool_list: list[dict]) -> None:
    labels = {t["key"]: t["label"] for t in tool_list}
    judged_kinds = {e["kind"] for e in (judged_entries(entries))}
    for e in entries:
        judged = e["kind"] in judged_kinds
        print(f"\n== {e['kind']}: {os.path.basename(e['file'])}, {e['bytes'] / 1e6:.1f} MB")
        print(f"  {'command':<30} {'runs':>4} {'median s':>10} {'spread':>7} {'MB/s':>9} {'peak RSS MiB':>13}")
        for key, r in e["results"].items():
            if "skipped" in r:
                print(f"  {labels[key]:<30} skipped ({r['skipped']})")
            elif r["status"] != 0:
                print(f"  {labels[key]:<30} {r['runs']:>4}  FAILED (exit {r['status']}): {r['stderr'][-160:]}")
            else:
                sp = r.get("spread_pct")
                print(f"  {labels[key]:<30} {r['runs']:>4} {r['median_s']:>10.3f} "
                      f"{'' if sp is None else f'{sp:.1f}%':>7} {r['mb_per_s']:>9.1f} {r['peak_rss_mib']:>13.1f}")
        spreads = [r["spread_pct"] for r in e["results"].values() if r.get("spread_pct") is not None]
        if spreads and max(spreads) > UNSTEADY_PCT:
            print(f"  (the run times of one command lie {max(spreads):.0f}% apart (interquartile range over median): "
                  "the machine's speed changed during the bench, so these figures are noisy)")
        ra = e["ratios"]
        # The targets are judged on the larger files; the sample's ratios are shown only.
        x = ra["quorvex-1t_vs_evtxexport"]
        tail = (f"   target >= {TARGET_VS_EVTXEXPORT:g}x: {verdict(None if x is None else x >= TARGET_VS_EVTXEXPORT)}"
                if judged else "")
        print(f"  quorvex 1 thread vs evtxexport:   {fmt_ratio(x):>8}{tail}")
        x = ra["quorvex-2t_vs_quorvex-1t"]
        if judged:
            tail = f"   target >= {TARGET_TWO_THREADS:g}x: {verdict(None if x is None else x >= TARGET_TWO_THREADS)}"
        else:
            tail = "   (a file under 16 MB is read by one thread)" if e["bytes"] < 16 * 1024 * 1024 else ""
        print(f"  quorvex 2 threads vs 1 thread:    {fmt_ratio(x):>8}{tail}")
        x = ra["quorvex-1t_vs_evtx_dump.py"]
        est = e["results"].get("evtx_dump.py", {}).get("estimated_s")
        q1 = e["results"].get("quorvex-1t", {}).get("median_s")
        if x is None and est and q1:
            print(f"  quorvex 1 thread vs evtx_dump.py: {'~' + fmt_ratio(est / q1):>8}   (from evtx_dump.py's estimated time)")
        else:
            print(f"  quorvex 1 thread vs evtx_dump.py: {fmt_ratio(x):>8}")
        if e["kind"] == "generated":
            x = e["quorvex_peak_rss_mib"]
            print(f"  quorvex peak RSS:             {'n/a' if x is None else f'{x:.1f} MiB':>12}   target < "
                  f"{TARGET_RSS_MIB:g} MiB: {verdict(None if x is None else x < TARGET_RSS_MIB)}")


def judged_entries(entries: list[dict]) -> list[dict]:
    """The entries the targets are judged on: the real-chunks and the generated file (the
    sample when there is neither)."""
    return [e for e in entries if e["kind"] in JUDGED_KINDS] or entries[-1:]


def targets(entries: list[dict]) -> dict:
    """PASS/FAIL of each target, judged on the real-chunks and the generated file (the
    sample when there is neither)."""
    judged = judged_entries(entries)
    out = {}
    for e in judged:
        ra = e["ratios"]
        x = ra["quorvex-1t_vs_evtxexport"]
        out[f"{e['kind']}: quorvex 1 thread >= {TARGET_VS_EVTXEXPORT:g}x evtxexport"] = \
            None if x is None else x >= TARGET_VS_EVTXEXPORT
        x = ra["quorvex-2t_vs_quorvex-1t"]
        out[f"{e['kind']}: 2 threads >= {TARGET_TWO_THREADS:g}x 1 thread"] = None if x is None else x >= TARGET_TWO_THREADS
        if e["kind"] == "generated":
            x = e["quorvex_peak_rss_mib"]
            out[f"generated: peak RSS < {TARGET_RSS_MIB:g} MiB"] = None if x is None else x < TARGET_RSS_MIB
    return out


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description="Time 'quorvex dump' against evtxexport and evtx_dump.py.")
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"),
                    help="the quorvex program (default: %(default)s)")
    ap.add_argument("--samples", type=Path, default=default_samples(),
                    help="samples folder; its largest .evtx is timed (default: $QVX_SAMPLES_DIR, "
                         "else <repo>/../shared/samples)")
    ap.add_argument("--size-mb", type=float, default=200.0, help="size of the generated log in MB (default 200; 0: none)")
    ap.add_argument("--real-mb", type=float, default=64.0,
                    help="size of the log made of the samples' chunks in MB (default 64; 0: none)")
    ap.add_argument("--cache-dir", type=Path, default=default_cache(),
                    help="where the generated log is kept (default: %(default)s)")
    ap.add_argument("--regenerate", action="store_true", help="write the generated log again")
    ap.add_argument("--runs", type=int, default=3, help="runs of each command (default 3); the median is reported")
    ap.add_argument("--quick-runs", type=int, default=QUICK_RUNS,
                    help=f"quorvex's commands run at least this many times while their runs on a file took "
                         f"less than --quick-budget seconds (default {QUICK_RUNS})")
    ap.add_argument("--quick-budget", type=float, default=QUICK_BUDGET,
                    help=f"see --quick-runs (default {QUICK_BUDGET:g})")
    ap.add_argument("--budget", type=float, default=120.0,
                    help="stop repeating a command once its runs on a file took this many seconds (default 120)")
    ap.add_argument("--peer-limit", type=float, default=180.0,
                    help="skip a peer tool on a file when its rate on an earlier file predicts more seconds "
                         "than this (default 180)")
    ap.add_argument("--skip-peers", action="store_true", help="time only quorvex")
    ap.add_argument("--json", metavar="FILE", help="also write the figures as JSON to FILE ('-': standard output)")
    ap.add_argument("--check", action="store_true", help="exit with 1 when a target is missed")
    args = ap.parse_args(argv)

    if not (os.path.isfile(args.quorvex) and os.access(args.quorvex, os.X_OK)):
        print(f"error: no quorvex program at {args.quorvex} (build it, or use --quorvex)", file=sys.stderr)
        return 2
    if args.runs < 1:
        print("error: --runs must be at least 1", file=sys.stderr)
        return 2

    tool_list = tools(args.quorvex, args.skip_peers)
    for t in tool_list:
        if t["argv"] is None:
            print(f"note: {t['label'].split()[0]} is not installed (Debian package {t['package']}); skipped")

    load_before = os.getloadavg()
    files = []
    sample = largest_sample(args.samples)
    if sample:
        files.append(("sample", sample))
    else:
        print(f"note: no .evtx sample under {args.samples}; only the generated log is timed")
    real = real_file(args.samples, args.real_mb, args.cache_dir)
    if real:
        files.append(("real", real))
    if args.size_mb > 0:
        files.append(("generated", generated_file(args.quorvex, args.size_mb, args.cache_dir, args.regenerate)))
    if not files:
        print("error: nothing to time", file=sys.stderr)
        return 2

    rates: dict = {}  # bytes per second of each tool, from the files timed so far
    entries = [bench_file(kind, path, tool_list, args, rates) for kind, path in files]
    load_after = os.getloadavg()

    print_table(entries, tool_list)
    verdicts = targets(entries)
    cores = os.cpu_count() or 1
    print(f"\nload average before/after: {load_before[0]:.2f} / {load_after[0]:.2f} on {cores} core(s)"
          + ("  -- the machine was busy; figures are noisy" if max(load_before[0], load_after[0]) > 0.75 * cores else ""))
    if verdicts:
        print("targets: " + "; ".join(f"{k}: {verdict(v)}" for k, v in verdicts.items()))

    if args.json:
        doc = {"quorvex": args.quorvex, "runs": args.runs, "cores": cores,
               "load_average": {"before": load_before, "after": load_after},
               "files": entries, "targets": {k: verdict(v) for k, v in verdicts.items()}}
        text = json.dumps(doc, indent=2)
        if args.json == "-":
            print(text)
        else:
            Path(args.json).write_text(text + "\n")
    if any(r.get("status", 0) != 0 for e in entries for r in e["results"].values()):
        return 1
    return 1 if args.check and any(v is False for v in verdicts.values()) else 0


if __name__ == "__main__":
    sys.exit(main())
