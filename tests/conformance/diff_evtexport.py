#!/usr/bin/env python3
"""Differential check of Quorvex's classic .evt reading against evtexport's, record by record.

For every classic log under SAMPLES/evt (files that start with the 48-byte header and
"LfLe"), or the files named on the command line:

    quorvex events --format jsonl --tz UTC -q FILE
    evtexport FILE                  Debian's libevt-utils, run as a black box

evtexport's text blocks ("Event number", "Creation time", ...) are parsed, the records
are paired by record number, and each pair is compared field by field: creation time
(to the second), type, computer, source, category, the 32-bit event identifier
(Quorvex gives the low 16 bits and the qualifiers apart) and the insertion strings.
The record counts must agree.

Documented differences
======================
 C1  evtexport writes a string's line breaks as LF; line ends are compared as LF,
     and leading and trailing blanks of each string are not compared.
 C2  An event type of 0 reads as Information in Quorvex (the system's own rule) and
     as "Success" in evtexport; both stand for the classic value 0 or 4.

Exit status: 0 all agree, 1 a difference, 77 nothing to compare (no samples or no
evtexport).
"""
import argparse
import datetime
import json
import os
import re
import shutil
import subprocess
import sys

TYPES = {"Error": {1}, "Warning": {2}, "Information": {0, 4}, "Audit Success": {8}, "Audit Failure": {16}}


def is_classic(path):
    try:
        with open(path, "rb") as f:
            head = f.read(8)
    except OSError:
        return False
    return len(head) == 8 and head[:4] == b"\x30\x00\x00\x00" and head[4:] == b"LfLe"


FIELD = re.compile(r"^([A-Za-z][A-Za-z: 0-9]*?)\t+: ?(.*)$")


def parse_evtexport(text):
    """Records by number. A string's value runs on over the lines that follow it until
    the next field, or the blank line that ends the record."""
    records = {}
    current = None
    lines = text.split("\n")
    i = 0
    while i < len(lines):
        m = FIELD.match(lines[i])
        i += 1
        if not m:
            continue
        key, value = m.group(1).strip(), m.group(2)
        if key == "Event number":
            current = {"strings": []}
            records[int(value)] = current
            continue
        if current is None:
            continue
        if key.startswith("String:"):
            parts = [value]
            while i < len(lines) and not FIELD.match(lines[i]):
                ends_record = lines[i] == "" and (i + 1 >= len(lines) or lines[i + 1].startswith("Event number")
                                                  or lines[i + 1] == "")
                if ends_record:
                    break
                parts.append(lines[i])
                i += 1
            current["strings"].append("\n".join(parts))
        else:
            current[key] = value
    return records


def norm(text):
    return text.replace("\r\n", "\n").replace("\r", "\n").strip()


def compare_file(quorvex, path):
    ours = subprocess.run([quorvex, "events", "--format", "jsonl", "--tz", "UTC", "-q", path],
                          capture_output=True, text=True, errors="replace")
    theirs = subprocess.run(["evtexport", path], capture_output=True, text=True, errors="replace")
    if theirs.returncode != 0:
        return None, f"evtexport cannot read it ({theirs.stderr.strip().splitlines()[-1:]})"
    peer = parse_evtexport(theirs.stdout)
    mine = {}
    for line in ours.stdout.splitlines():
        if line.strip():
            rec = json.loads(line)
            mine[rec["record"]] = rec
    problems = []
    if len(mine) != len(peer):
        problems.append(f"record count: quorvex {len(mine)}, evtexport {len(peer)}")
    for number in sorted(set(mine) & set(peer)):
        a, b = mine[number], peer[number]
        when = datetime.datetime.strptime(b["Creation time"], "%b %d, %Y %H:%M:%S UTC")
        if a["time_utc"][:19] != when.strftime("%Y-%m-%dT%H:%M:%S"):
            problems.append(f"#{number} time {a['time_utc']} / {b['Creation time']}")
        kind = int(re.search(r"\((\d+)\)", b["Event type"]).group(1))
        if kind not in TYPES.get(a["type"], set()):
            problems.append(f"#{number} type {a['type']} / {b['Event type']}")
        for field, key in (("computer", "Computer name"), ("source", "Source name")):
            if a[field] != b.get(key, ""):
                problems.append(f"#{number} {field} {a[field]!r} / {b.get(key)!r}")
        if a["task_id"] != int(b.get("Event category", "0")):
            problems.append(f"#{number} category {a['task_id']} / {b.get('Event category')}")
        full = (a["qualifiers"] << 16) | a["event_id"]
        if full != int(re.search(r"\((\d+)\)", b["Event identifier"]).group(1)):
            problems.append(f"#{number} event id {full:#x} / {b['Event identifier']}")
        if [norm(s) for s in a["data"]] != [norm(s) for s in b["strings"]]:
            problems.append(f"#{number} strings {a['data']!r} / {b['strings']!r}")
    return len(mine), problems


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--quorvex", required=True)
    ap.add_argument("--samples", default="")
    ap.add_argument("files", nargs="*")
    args = ap.parse_args()
    if not shutil.which("evtexport"):
        print("evtexport not installed (Debian libevt-utils): skipped")
        return 77
    files = list(args.files)
    if not files and args.samples and os.path.isdir(os.path.join(args.samples, "evt")):
        for root, _, names in os.walk(os.path.join(args.samples, "evt")):
            files += [os.path.join(root, n) for n in sorted(names) if is_classic(os.path.join(root, n))]
    if not files:
        print("no classic logs to compare: skipped")
        return 77
    failed = 0
    for path in sorted(files):
        count, problems = compare_file(args.quorvex, path)
        if count is None:
            print(f"skip {path}: {problems}")
            continue
        if problems:
            failed += 1
            print(f"FAIL {path}: {len(problems)} difference(s)")
            for p in problems[:20]:
                print(f"    {p}")
        else:
            print(f"ok   {path}: {count} records agree")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
