#!/usr/bin/env bash
# quorvex dump and info on the demo log, whole and damaged: expected text and figures.
set -u
QVX=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0
check() { # check NAME CONDITION-RESULT DETAIL
  if [ "$2" = 0 ]; then echo "ok   $1"; else echo "FAIL $1: $3"; fail=1; fi
}

log="$tmp/demo.evtx"
"$QVX" demo --no-dump -o "$log" -n 300 2>/dev/null
"$QVX" dump "$log" > "$tmp/one.xml" 2> "$tmp/one.err"
check dump-status $? "dump failed: $(cat "$tmp/one.err")"
check dump-quiet "$([ ! -s "$tmp/one.err" ]; echo $?)" "stderr not empty: $(head -3 "$tmp/one.err")"
n=$(grep -ac '<Event xmlns=' "$tmp/one.xml")
check dump-count "$([ "$n" = 300 ]; echo $?)" "$n events, want 300"

# Threads start only for files of 16 MB and more: a 20000-record log is about 19 MB.
"$QVX" demo --no-dump -o "$tmp/big.evtx" -n 20000 2>/dev/null
"$QVX" dump "$tmp/big.evtx" > "$tmp/big1.xml" 2>/dev/null
"$QVX" dump --threads 2 "$tmp/big.evtx" > "$tmp/big2.xml" 2>/dev/null
check threads-same-output "$(cmp -s "$tmp/big1.xml" "$tmp/big2.xml"; echo $?)" "--threads 2 output differs"

"$QVX" dump --wrap "$log" > "$tmp/wrapped.xml" 2>/dev/null
python3 - "$tmp/wrapped.xml" <<'PY'
import sys, xml.etree.ElementTree as ET
root = ET.parse(sys.argv[1]).getroot()
assert root.tag == "Events" and len(root) == 300, (root.tag, len(root))
ids = sorted(int(e.find("{*}System/{*}EventRecordID").text) for e in root)
assert ids == list(range(1, 301)), ids[:5]
PY
check wrap-well-formed $? "wrapped output is not one well-formed document of 300 events"

# Newest chunk first by default; --order file follows the file.
first_default=$(grep -ao '<EventRecordID>[0-9]*' "$tmp/one.xml" | head -1)
first_file=$("$QVX" dump --order file "$log" 2>/dev/null | grep -ao '<EventRecordID>[0-9]*' | head -1)
check order-file "$([ "$first_file" = '<EventRecordID>1' ]; echo $?)" "file order starts with $first_file"
check order-newest "$([ "$first_default" != '<EventRecordID>1' ]; echo $?)" "newest-first order starts with $first_default"

"$QVX" info "$log" > "$tmp/info.txt"
grep -q '^File header:        valid$' "$tmp/info.txt"
check info-valid $? "$(head -5 "$tmp/info.txt")"
grep -q 'no damage found' "$tmp/info.txt"
check info-no-damage $? "$(tail -3 "$tmp/info.txt")"

# A header that names one chunk too few: info says so, dump falls back to the carver.
cp "$log" "$tmp/count.evtx"
python3 - "$tmp/count.evtx" <<'PY'
import struct, sys, zlib
p = sys.argv[1]; d = bytearray(open(p, "rb").read())
n = struct.unpack_from("<H", d, 42)[0]
struct.pack_into("<H", d, 42, n - 1)
struct.pack_into("<I", d, 124, zlib.crc32(bytes(d[:120])))
open(p, "wb").write(d)
PY
"$QVX" dump "$tmp/count.evtx" > "$tmp/count.xml" 2> "$tmp/count.err"
check count-status $? "dump failed"
grep -q "chunks but .* follow it; reading the chunks found by scanning the file" "$tmp/count.err"
check count-notice $? "$(cat "$tmp/count.err")"
n=$(grep -ac '<Event xmlns=' "$tmp/count.xml")
check count-all-events "$([ "$n" = 300 ]; echo $?)" "$n events, want 300"
"$QVX" info "$tmp/count.evtx" | grep -q "^Note: .*the header names"
check count-info $? "info does not say what is wrong"

# A damaged record: reported with chunk and offset; the other records still print.
cp "$log" "$tmp/bad.evtx"
python3 - "$tmp/bad.evtx" <<'PY'
import struct, sys
p = sys.argv[1]; d = bytearray(open(p, "rb").read())
size = struct.unpack_from("<I", d, 4096 + 512 + 4)[0]
second = 4096 + 512 + size
struct.pack_into("<I", d, second + struct.unpack_from("<I", d, second + 4)[0] - 4, 1)  # trailing size copy
open(p, "wb").write(d)
PY
"$QVX" dump --order file "$tmp/bad.evtx" > "$tmp/bad.xml" 2> "$tmp/bad.err"
grep -q "chunk at offset 0x1000: record at chunk offset 0x.* (file offset 0x.*): record walk stopped: trailing size copy differs" "$tmp/bad.err"
check damage-reported $? "$(cat "$tmp/bad.err")"
grep -aq '<EventRecordID>1</EventRecordID>' "$tmp/bad.xml"
check damage-keeps-earlier $? "record 1 missing"
"$QVX" info "$tmp/bad.evtx" | grep -q "1 chunks with damage"
check damage-info $? "info summary does not count the damage"

# Cut inside the last chunk: what is there still prints.
size=$(stat -c %s "$log")
head -c $((size - 30000)) "$log" > "$tmp/cut.evtx"
"$QVX" dump "$tmp/cut.evtx" > "$tmp/cut.xml" 2> "$tmp/cut.err"
grep -q "is cut short by the end of the file" "$tmp/cut.err"
check cut-reported $? "$(cat "$tmp/cut.err")"
n=$(grep -ac '<Event xmlns=' "$tmp/cut.xml")
check cut-keeps-records "$([ "$n" -gt 250 ]; echo $?)" "only $n events"

# A copy made while the log grew: its header names chunks the file does not hold.
python3 - "$tmp/cut.evtx" <<'PY'
import struct, sys, zlib
p = sys.argv[1]; d = bytearray(open(p, "rb").read())
struct.pack_into("<H", d, 42, struct.unpack_from("<H", d, 42)[0] + 5)
struct.pack_into("<I", d, 124, zlib.crc32(bytes(d[:120])))
open(p, "wb").write(d)
PY
"$QVX" dump "$tmp/cut.evtx" > "$tmp/grew.xml" 2> "$tmp/grew.err"
grep -q "the file ends after .* of the .* chunks its header names" "$tmp/grew.err"
check grew-reported $? "$(cat "$tmp/grew.err")"
check grew-keeps-records "$([ "$(grep -ac '<Event xmlns=' "$tmp/grew.xml")" = "$n" ]; echo $?)" "not the $n events of the cut log"

exit $fail
