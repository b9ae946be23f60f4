#!/usr/bin/env bash
# quorvex events / scan / zones: output formats, order, time shift, the deep scan of an
# image, the fallback for a wrong chunk count, and bad input.
set -u
QVX=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0

check() { # check NAME CONDITION-TEXT: prints ok/FAIL from the status of the last command
  if [ "$2" = 0 ]; then echo "ok   $1"; else
    echo "FAIL $1"
    fail=1
  fi
}

"$QVX" demo --no-dump -o "$tmp/demo.evtx" -n 300 2>/dev/null

# Table: a header and one row per event, newest first.
"$QVX" events --width 120 "$tmp/demo.evtx" >"$tmp/table.txt" 2>"$tmp/table.err"
[ "$(wc -l <"$tmp/table.txt")" = 301 ] && head -1 "$tmp/table.txt" | grep -q '^Time  *Type  *Event ID  *Source' &&
  sed -n 2p "$tmp/table.txt" | grep -Eq ' 300  Security$'
check table-rows-newest-first $?
python3 -c "
import sys
assert max(len(l.rstrip('\\n')) for l in open(sys.argv[1], encoding='utf-8')) <= 120
" "$tmp/table.txt"
check table-fits-width $?
grep -q "^$tmp/demo.evtx: 300 events, no problems found$" "$tmp/table.err"
check table-summary $?

# JSON Lines: one valid object per event, record numbers descending.
"$QVX" events --format jsonl --tz UTC -q "$tmp/demo.evtx" >"$tmp/events.jsonl"
python3 - "$tmp/events.jsonl" <<'EOF'
import json, sys
rows = [json.loads(line) for line in open(sys.argv[1], encoding="utf-8")]
assert len(rows) == 300, len(rows)
assert [r["record"] for r in rows] == list(range(300, 0, -1))
assert all(r["time"].endswith("Z") and r["time"] == r["time_utc"] for r in rows)
assert rows[0]["channel"] == "Security" and isinstance(rows[0]["data"], list)
EOF
check jsonl-valid $?

# A fixed shift of +60 minutes moves every time by one hour.
"$QVX" events --format jsonl --tz +60 -q -n 1 "$tmp/demo.evtx" >"$tmp/shift.jsonl"
python3 - "$tmp/events.jsonl" "$tmp/shift.jsonl" <<'EOF'
import json, sys, datetime
utc = json.loads(open(sys.argv[1]).readline())
shifted = json.loads(open(sys.argv[2]).readline())
a = datetime.datetime.fromisoformat(utc["time"].replace("Z", "+00:00"))
b = datetime.datetime.fromisoformat(shifted["time"])
assert a == b and shifted["time"].endswith("+01:00"), (utc["time"], shifted["time"])
EOF
check tz-fixed-shift $?

# An IANA name stands for the Windows zone that covers it, whatever its letter case.
"$QVX" events --format jsonl --tz "W. Europe Standard Time" -q -n 5 "$tmp/demo.evtx" >"$tmp/windows-zone.jsonl"
"$QVX" events --format jsonl --tz europe/berlin -q -n 5 "$tmp/demo.evtx" >"$tmp/iana-zone.jsonl" &&
  cmp -s "$tmp/windows-zone.jsonl" "$tmp/iana-zone.jsonl" && [ -s "$tmp/iana-zone.jsonl" ]
check tz-iana-name $?

# CSV and XML parse with standard readers.
"$QVX" events --format csv -q "$tmp/demo.evtx" >"$tmp/events.csv"
python3 -c "
import csv, sys
rows = list(csv.DictReader(open(sys.argv[1], newline='', encoding='utf-8')))
assert len(rows) == 300 and rows[0]['RecordNumber'] == '300', len(rows)
" "$tmp/events.csv"
check csv-valid $?
"$QVX" events --format xml -q "$tmp/demo.evtx" >"$tmp/events.xml"
python3 -c "
import sys, xml.etree.ElementTree as ET
root = ET.parse(sys.argv[1]).getroot()
assert len(root) == 300
" "$tmp/events.xml"
check xml-valid $?

"$QVX" events -n 5 -q "$tmp/demo.evtx" >"$tmp/limit.txt"
[ "$(wc -l <"$tmp/limit.txt")" = 6 ]
check limit $?

# JSON Lines and CSV of a whole log are made chunk by chunk on every thread; a limit
# above the event count takes the event-by-event path. Both give the same bytes, issues
# and summary, whatever the threads, also for a log with a damaged record.
"$QVX" demo --no-dump -o "$tmp/many.evtx" -n 4000 2>/dev/null
python3 - "$tmp/many.evtx" "$tmp/damaged.evtx" <<'EOF'
import sys
data = bytearray(open(sys.argv[1], "rb").read())
# The magic of a record in the middle of the second chunk: the walk stops there.
start = 4096 + 65536
at = data.index(b"\x2a\x2a\x00\x00", start + 512 + 20000)
data[at:at + 4] = b"XXXX"
open(sys.argv[2], "wb").write(data)
EOF
same=0
for log in many damaged; do
  for format in jsonl csv; do
    "$QVX" events --format "$format" -t 0 -n 1000000 "$tmp/$log.evtx" >"$tmp/by-event.$format" 2>"$tmp/by-event.err"
    for threads in 0 1 3; do
      "$QVX" events --format "$format" -t "$threads" "$tmp/$log.evtx" >"$tmp/by-chunk.$format" 2>"$tmp/by-chunk.err"
      cmp -s "$tmp/by-event.$format" "$tmp/by-chunk.$format" && cmp -s "$tmp/by-event.err" "$tmp/by-chunk.err" || same=1
    done
  done
done
grep -q "problem" "$tmp/by-chunk.err" && [ "$(wc -l <"$tmp/by-chunk.csv")" -gt 3000 ]
check by-chunk-damaged-has-issues $?
check by-chunk-same-as-by-event $same

# A header naming fewer chunks than follow it: one notice, then the events by scanning.
python3 - "$tmp/demo.evtx" "$tmp/badcount.evtx" <<'EOF'
import struct, sys, zlib
data = bytearray(open(sys.argv[1], "rb").read())
struct.pack_into("<H", data, 42, struct.unpack_from("<H", data, 42)[0] - 1)
struct.pack_into("<I", data, 124, zlib.crc32(bytes(data[:120])) & 0xFFFFFFFF)
open(sys.argv[2], "wb").write(data)
EOF
"$QVX" events --format jsonl "$tmp/badcount.evtx" >"$tmp/badcount.jsonl" 2>"$tmp/badcount.err"
[ "$(wc -l <"$tmp/badcount.jsonl")" = 300 ] && grep -q 'chunks but .* follow it; reading the chunks found by scanning the file' "$tmp/badcount.err"
check wrong-chunk-count-falls-back-to-scan $?

# Deep scan of an image with the log at an odd offset after noise.
python3 - "$tmp/demo.evtx" "$tmp/image.bin" <<'EOF'
import random, sys
rnd = random.Random(5)
log = open(sys.argv[1], "rb").read()
with open(sys.argv[2], "wb") as f:
    f.write(bytes(rnd.getrandbits(8) for _ in range(5 * 1024 * 1024 - 12345)))
    f.write(log)
    f.write(bytes(777))
EOF
"$QVX" scan --format jsonl "$tmp/image.bin" >"$tmp/scan.jsonl" 2>"$tmp/scan.err"
[ "$(wc -l <"$tmp/scan.jsonl")" = 300 ] && grep -q "^$tmp/image.bin: 300 events" "$tmp/scan.err"
check scan-image $?
"$QVX" scan --progress --format csv "$tmp/image.bin" >/dev/null 2>"$tmp/progress.err"
grep -q 'MB/s' "$tmp/progress.err"
check scan-progress $?

"$QVX" zones | grep -q ' Pacific Standard Time  *-0[78]:00 '
check zones $?

# Bad input: one line naming the path and the reason, a non-zero status.
expect() { # expect NAME STATUS STDERR -- command...
  local name=$1 status=$2 want=$3
  shift 4
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  if [ "$rc" != "$status" ] || [ "$err" != "$want" ]; then
    printf 'FAIL %s\n  status: %s (want %s)\n  stderr: %s\n  want:   %s\n' "$name" "$rc" "$status" "$err" "$want"
    fail=1
  else
    echo "ok   $name"
  fi
}
expect events-missing 1 "quorvex: $tmp/none.evtx: 2: No such file or directory" -- "$QVX" events "$tmp/none.evtx"
expect events-directory 1 "quorvex: $tmp: 21: Is a directory (the logs of a folder are read together by 'quorvex open FOLDER -s STORE' or 'quorvex hunt')" -- "$QVX" events "$tmp"
expect scan-missing 1 "quorvex: $tmp/none.img: 2: No such file or directory" -- "$QVX" scan "$tmp/none.img"
expect scan-directory 1 "quorvex: $tmp: 21: Is a directory" -- "$QVX" scan "$tmp"
printf 'not a log\n%.0s' {1..50} >"$tmp/text.evtx"
expect events-not-evtx 1 "quorvex: $tmp/text.evtx: not an .evtx file: no \"ElfFile\" signature at offset 0x0 (use 'quorvex scan' to search it for chunks)" -- \
  "$QVX" events "$tmp/text.evtx"
expect tz-unknown 1 "quorvex: --tz Mars: unknown time zone (use UTC, local, minutes such as +60, a name listed by 'quorvex zones' or an IANA name such as Europe/Berlin)" -- \
  "$QVX" events --tz Mars "$tmp/demo.evtx"
if [ "$(id -u)" != 0 ]; then
  cp "$tmp/demo.evtx" "$tmp/locked.evtx"
  chmod 000 "$tmp/locked.evtx"
  expect events-no-permission 1 "quorvex: $tmp/locked.evtx: 13: Permission denied" -- "$QVX" events "$tmp/locked.evtx"
  expect scan-no-permission 1 "quorvex: $tmp/locked.evtx: 13: Permission denied" -- "$QVX" scan "$tmp/locked.evtx"
fi
exit $fail
