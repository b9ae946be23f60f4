#!/usr/bin/env bash
# Disk images as input: an installation copied onto an NTFS volume (mkntfs, then
# libntfs-3g), put in an MBR and a GPT disk (sfdisk), converted to E01 and split E01
# (ewfacquire) and to VHDX, VMDK and QCOW2 (qemu-img). The same events must come out of
# every container as out of the plain file; bad input gives one clear line; the image
# is never changed. A missing tool skips what needs it. Shadow copies: qvx_vss_fill
# gives a volume a shadow copy holding its state before System.evtx was overwritten.
set -u
QVX=$1
FILL=$2
GEN=$3
VSS=${4:-}
. "$(dirname "$0")/../support/check.sh"

have() { command -v "$1" >/dev/null 2>&1; }

if ! have mkntfs || ! have sfdisk; then
  echo "skip: mkntfs (ntfs-3g) and sfdisk (fdisk) are needed"
  exit 0
fi

# The installation: hives and message files from the generator, two logs.
"$GEN" "$tmp/inst" 300 3 >/dev/null || { echo "FAIL generator"; exit 1; }
logs="$tmp/inst/Windows/System32/winevt/Logs"
mkdir -p "$logs"
mv "$tmp/inst/bench.evtx" "$logs/Application.evtx"
"$QVX" demo --no-dump -o "$logs/System.evtx" -n 500 >/dev/null 2>&1
"$QVX" demo --no-dump -o "$tmp/deleted.evtx" -n 300 >/dev/null 2>&1
cp "$tmp/deleted.evtx" "$logs/Deleted.evtx"

truncate -s 24M "$tmp/vol.img"
mkntfs -F -q -Q -p 2048 "$tmp/vol.img" >/dev/null 2>&1 || { echo "FAIL mkntfs"; exit 1; }
"$FILL" "$tmp/vol.img" "$tmp/inst" --delete /Windows/System32/winevt/Logs/Deleted.evtx || { echo "FAIL fill"; exit 1; }
rm "$logs/Deleted.evtx"

truncate -s 26M "$tmp/mbr.raw"
dd if="$tmp/vol.img" of="$tmp/mbr.raw" bs=1M seek=1 conv=notrunc status=none
echo "2048,49152,7" | sfdisk -q "$tmp/mbr.raw" >/dev/null 2>&1
truncate -s 27M "$tmp/gpt.raw"
dd if="$tmp/vol.img" of="$tmp/gpt.raw" bs=1M seek=1 conv=notrunc status=none
printf 'label: gpt\n2048,49152,EBD0A0A2-B9E5-4433-87C0-68B6B72699C7\n' | sfdisk -q "$tmp/gpt.raw" >/dev/null 2>&1

images=("$tmp/mbr.raw" "$tmp/gpt.raw")
if have ewfacquire; then
  ewfacquire -u -t "$tmp/mbr" "$tmp/mbr.raw" >/dev/null 2>&1 && images+=("$tmp/mbr.E01")
  ewfacquire -u -S 4MiB -t "$tmp/split" "$tmp/mbr.raw" >/dev/null 2>&1 && images+=("$tmp/split.E01")
else
  echo "skip: ewfacquire (ewf-tools) not installed: no E01"
fi
if have qemu-img; then
  for f in vhdx vmdk qcow2; do
    qemu-img convert -O "$f" "$tmp/gpt.raw" "$tmp/gpt.$f" && images+=("$tmp/gpt.$f")
  done
else
  echo "skip: qemu-img (qemu-utils) not installed: no VHDX, VMDK, QCOW2"
fi
for img in "${images[@]}"; do md5sum "$img"; done >"$tmp/before.md5"

want_sys=$("$QVX" events -q -f csv --tz UTC "$logs/System.evtx")
want_app=$("$QVX" events -q -f csv --tz UTC "$logs/Application.evtx" --imaged "$tmp/inst")
for img in "${images[@]}"; do
  name=$(basename "$img")
  out=$("$QVX" imaged "$img")
  check "$name-imaged" grep -q "^  Windows folder   $img@1::/Windows" <<<"$out"
  check "$name-logs" grep -q "^  Logs (2)" <<<"$out"
  got=$("$QVX" events -q -f csv --tz UTC "$img::/Windows/System32/winevt/Logs/System.evtx")
  check "$name-events" test "$got" = "$want_sys"
  got=$("$QVX" events -q -f csv --tz UTC "$img::/windows/system32/WINEVT/logs/application.evtx" --imaged "$img")
  check "$name-described" test "$got" = "$want_app"
  n=$("$QVX" scan -q -f csv "$img" | wc -l)
  check "$name-scan" test "$n" -ge "$(($(wc -l <<<"$want_sys") + 300))"
done

# Named relative to the working folder, an image or installation folder describes as well.
got=$(cd "$tmp" && "$QVX" events -q -f csv --tz UTC "mbr.raw::/Windows/System32/winevt/Logs/Application.evtx" --imaged mbr.raw)
check relative-image-described test "$got" = "$want_app"
got=$(cd "$tmp" && "$QVX" events -q -f csv --tz UTC "$logs/Application.evtx" --imaged inst)
check relative-folder-described test "$got" = "$want_app"

# An image named without the log inside it, or an image that is not there, is said to be so.
err=$("$QVX" events "$tmp/mbr.raw@1" 2>&1 >/dev/null)
check image-without-log grep -q "mbr.raw@1: a volume of a disk image: name a log on it as .*mbr.raw@1::/Windows" <<<"$err"
err=$("$QVX" events "$tmp/mbr.raw::" 2>&1 >/dev/null)
check image-empty-path grep -q "name the log after '::'" <<<"$err"
err=$("$QVX" events "$tmp/none.raw::/x.evtx" 2>&1 >/dev/null)
check image-missing test "$err" = "quorvex: $tmp/none.raw: no such disk image file or device"
"$QVX" events --offset -5 "$tmp/mbr.raw::/x.evtx" >/dev/null 2>&1
check negative-offset test $? -eq 2

# open IMAGE loads every log of the installation, described from the image.
"$QVX" open "$tmp/mbr.raw" -s "$tmp/case.db" -q
check open-image-status test $? -eq 0
check open-image-count test "$("$QVX" view "$tmp/case.db" --count)" = "$(($(sed -n 's/.*: \([0-9]*\) events.*/\1/p' <<<"$("$QVX" events -f csv "$logs/System.evtx" 2>&1 >/dev/null)") + 300))"
# A folder inside the image stands for the logs in it and below it.
"$QVX" open "$tmp/mbr.raw::/windows/system32/winevt" -s "$tmp/folder.db" -q
check open-image-folder test "$("$QVX" view "$tmp/folder.db" --count)" = "$("$QVX" view "$tmp/case.db" --count)"
err=$("$QVX" open "$tmp/mbr.raw::/Windows/System32/config" -s "$tmp/none.db" -q 2>&1)
check open-image-folder-empty grep -q "config: no .evtx or .evt log in this folder or below it" <<<"$err"

# hunt IMAGE hunts in every log of the installation, as open loads them.
cat >"$tmp/every.yml" <<'EOF_RULE'
title: Every event
id: 5b0c8f3e-1d1f-4c1a-9f2e-000000000001
status: test
author: Quorvex tests
level: low
logsource:
  product: windows
detection:
  selection:
    EventID|exists: true
  condition: selection
EOF_RULE
hunted=$("$QVX" hunt -q -f jsonl --no-rule-cache -r "$tmp/every.yml" "$tmp/mbr.raw")
check hunt-image-count test "$(wc -l <<<"$hunted")" = "$("$QVX" view "$tmp/case.db" --count)"
check hunt-image-files grep -q "\"file\":\"$tmp/mbr.raw@1::/Windows/System32/winevt/Logs/System.evtx\"" <<<"$hunted"

# A deleted log survives in the unallocated clusters.
want_del=$("$QVX" events -q -f csv --tz UTC "$tmp/deleted.evtx" | tail -n +2 | sort)
got=$("$QVX" scan -q -f csv --tz UTC --unallocated "$tmp/mbr.raw" | tail -n +2 | sort)
check unallocated-recovers test "$(comm -23 <(echo "$want_del") <(echo "$got") | wc -l)" -eq 0
# The allocated System.evtx (500 records) is not scanned, only the deleted log's chunks.
n=$("$QVX" scan -f csv --unallocated "$tmp/mbr.raw" 2>&1 >/dev/null | sed -n 's/.*: \([0-9]*\) events.*/\1/p')
check unallocated-only-free test "$n" = 300
n=$("$QVX" scan -q -f csv --offset 1048576 "$tmp/mbr.raw" | wc -l)
check scan-offset test "$n" -gt 800
# A chunk carved from the free clusters is named where it lies in the volume and in the
# image: the deleted log's first chunk, its first record's trailing size copy changed.
cp "$tmp/mbr.raw" "$tmp/freed.raw"
at=$(python3 - "$tmp/freed.raw" "$tmp/deleted.evtx" <<'EOF_PY'
import struct, sys
disk = bytearray(open(sys.argv[1], 'rb').read())
chunk = open(sys.argv[2], 'rb').read()[4096:4096 + 65536]
at = disk.find(chunk)
size = struct.unpack_from('<I', disk, at + 0x200 + 4)[0]   # the first record's size
disk[at + 0x200 + size - 4] ^= 0xFF                        # its trailing copy
open(sys.argv[1], 'wb').write(disk)
print(at)
EOF_PY
)
err=$("$QVX" scan -f csv --all-issues --unallocated "$tmp/freed.raw" 2>&1 >/dev/null)
where=$(printf 'volume offset 0x%X, image offset 0x%X' $((at - 1048576)) "$at")
inner=$(printf 'volume offset 0x%X, image offset 0x%X' $((at - 1048576 + 0x200)) $((at + 0x200)))
check unallocated-where grep -qF "  Chunk at $where: record at chunk offset 0x200 ($inner): " <<<"$err"

# Bad input: one clear line each.
head -c 300000 "$tmp/mbr.E01" >"$tmp/cut.E01" 2>/dev/null || true
if [ -s "$tmp/cut.E01" ]; then
  err=$("$QVX" imaged "$tmp/cut.E01" 2>&1 >/dev/null)
  check truncated-e01 test "$(wc -l <<<"$err")" -eq 1 -a -n "$err"
  check truncated-e01-names grep -q "^quorvex: $tmp/cut.E01: " <<<"$err"
fi
# A set of segment files or pieces with one missing: what the others hold is read, and
# the missing one is named (in the summary, or with what cannot be found or read).
if [ -f "$tmp/split.E01" ]; then
  mkdir -p "$tmp/gap" "$tmp/end"
  cp "$tmp"/split.E0* "$tmp/gap/"
  rm "$tmp/gap/split.E03"
  gap="segment file split.E03 is missing (split.E02 says more follow)"
  err=$("$QVX" events "$tmp/gap/split.E01::/Windows/System32/winevt/Logs/System.evtx" 2>&1 >/dev/null)
  check ewf-gap grep -q "$gap" <<<"$err"
  err=$("$QVX" scan "$tmp/gap/split.E01" 2>&1 >/dev/null)
  check ewf-gap-scan-status test $? -eq 0
  check ewf-gap-scan grep -q "^  $tmp/gap/split.E01: $gap; reading what the others hold$" <<<"$err"
  check ewf-gap-scan-events test "$("$QVX" scan -q -f csv "$tmp/gap/split.E01" 2>/dev/null | wc -l)" -gt 0
  last=$(ls "$tmp"/split.E0* | tail -1)
  cp "$tmp"/split.E0* "$tmp/end/"
  rm "$tmp/end/$(basename "$last")"
  before=$(ls "$tmp"/split.E0* | tail -2 | head -1)
  err=$("$QVX" imaged "$tmp/end/split.E01" 2>&1 >/dev/null)
  check ewf-last-missing grep -q "$tmp/end/split.E01: segment file $(basename "$last") is missing ($(basename "$before") says more follow)" <<<"$err"
fi
# A QCOW2 whose second volume's first cluster is lost: the first volume still reads,
# imaged lists the second as unreadable, and only naming it fails.
if have qemu-img && have qemu-io; then
  truncate -s 40M "$tmp/two.raw"
  dd if="$tmp/vol.img" of="$tmp/two.raw" bs=1M seek=1 conv=notrunc status=none
  printf '2048,49152,7\n53248,24576,7\n' | sfdisk -q "$tmp/two.raw" >/dev/null 2>&1
  qemu-img convert -O qcow2 "$tmp/two.raw" "$tmp/lost.qcow2"
  size=$(stat -c %s "$tmp/lost.qcow2")
  qemu-io -f qcow2 -c "write -P 0x55 $((53248 * 512)) 65536" "$tmp/lost.qcow2" >/dev/null
  truncate -s "$size" "$tmp/lost.qcow2"
  check lost-volume-events test "$("$QVX" events -q -f csv --tz UTC "$tmp/lost.qcow2@1::/Windows/System32/winevt/Logs/System.evtx")" = "$want_sys"
  check lost-volume-default test "$("$QVX" events -q -f csv --tz UTC "$tmp/lost.qcow2::/Windows/System32/winevt/Logs/System.evtx")" = "$want_sys"
  out=$("$QVX" imaged "$tmp/lost.qcow2" 2>"$tmp/err")
  check lost-volume-imaged-status test $? -eq 0
  check lost-volume-listed grep -q "^  2 .* unreadable " <<<"$out"
  check lost-volume-windows grep -q "^  Windows folder   $tmp/lost.qcow2@1::/Windows" <<<"$out"
  check lost-volume-warning grep -q "^quorvex: warning: $tmp/lost.qcow2 volume 2: cannot read the media data at offset 0x1A00000" "$tmp/err"
  err=$("$QVX" events "$tmp/lost.qcow2@2::/x.evtx" 2>&1 >/dev/null)
  check lost-volume-named-status test $? -eq 1
  check lost-volume-named grep -q "^quorvex: $tmp/lost.qcow2 volume 2: cannot read the media data at offset 0x1A00000" <<<"$err"
fi

# A raw image cut inside its volume: what cannot be found or read is said to lie,
# maybe, past the end of the image.
head -c $((1048576 + 12 * 1048576)) "$tmp/mbr.raw" >"$tmp/cut.raw"
err=$("$QVX" events -q "$tmp/cut.raw::/Windows/System32/winevt/Logs/System.evtx" 2>&1 >/dev/null)
check cut-events-status test $? -eq 1
check cut-events grep -q "the volume runs past the end of the image (the image is truncated)" <<<"$err"
check cut-imaged grep -q "^$tmp/cut.raw: partition 1 runs past the end of the disk; cut there at offset 0x1BE$" <<<"$("$QVX" imaged "$tmp/cut.raw" 2>&1)"

# A folder of thousands of files: names in any case find the file they name.
mkdir -p "$tmp/many/Windows/System32/winevt/Logs"
(cd "$tmp/many/Windows/System32/winevt/Logs" && for i in $(seq 1000 3999); do : >"File$i.dll"; done)
cp "$logs/System.evtx" "$tmp/many/Windows/System32/winevt/Logs/Mixed.evtx"
cp "$tmp/deleted.evtx" "$tmp/many/Windows/System32/winevt/Logs/zLast.evtx"
truncate -s 24M "$tmp/many.img"
mkntfs -F -q -Q "$tmp/many.img" >/dev/null 2>&1 && "$FILL" "$tmp/many.img" "$tmp/many" >/dev/null
want_del_all=$("$QVX" events -q -f csv --tz UTC "$tmp/deleted.evtx")
for name in Mixed.evtx MIXED.EVTX mixed.evtx; do
  check "many-$name" test "$("$QVX" events -q -f csv --tz UTC "$tmp/many.img::/windows/SYSTEM32/winevt/logs/$name")" = "$want_sys"
done
for name in zLast.evtx ZLAST.evtx zlast.EVTX; do
  check "many-$name" test "$("$QVX" events -q -f csv --tz UTC "$tmp/many.img::/WINDOWS/system32/WINEVT/Logs/$name")" = "$want_del_all"
done
err=$("$QVX" events -q "$tmp/many.img::/windows/system32/winevt/logs/file4000.dll" 2>&1 >/dev/null)
check many-missing test "$err" = "quorvex: $tmp/many.img volume 1::/windows/system32/winevt/logs/file4000.dll: no such file on the volume"

# A chunk of an E01 that fails its checksum: read as stored, its media range named once.
if have ewfacquire; then
  ewfacquire -u -c none -t "$tmp/flip" "$tmp/mbr.raw" >/dev/null 2>&1
  python3 - "$tmp/flip.E01" <<'EOF_PY'
import os, sys
with open(sys.argv[1], 'r+b') as f:
    at = os.path.getsize(sys.argv[1]) * 4 // 5
    f.seek(at)
    data = f.read(16)
    f.seek(at)
    f.write(bytes(b ^ 0xFF for b in data))
EOF_PY
  bad="$tmp/flip.E01: media bytes 0x[0-9A-F]* to 0x[0-9A-F]* fail the checksum of their chunk; read as stored"
  err=$("$QVX" scan -f csv "$tmp/flip.E01" 2>&1 >/dev/null)
  check ewf-checksum-scan test "$(grep -c "^  $bad$" <<<"$err")" -eq 1
  check ewf-checksum-summary grep -q "problem.* met while reading" <<<"$err"
  err=$("$QVX" scan -q -f csv "$tmp/flip.E01" 2>&1 >/dev/null)
  check ewf-checksum-quiet test "$(grep -c "^quorvex: warning: $bad$" <<<"$err")" -eq 1
  check ewf-checksum-reads test "$("$QVX" events -q -f csv --tz UTC "$tmp/flip.E01::/Windows/System32/winevt/Logs/System.evtx")" = "$want_sys"
  # Loading into a store or hunting over the image says so too, whatever the reads met.
  err=$("$QVX" open "$tmp/flip.E01" --scan -s "$tmp/flip.db" 2>&1 >/dev/null)
  check ewf-checksum-open test "$(grep -c "^  issue: $bad$" <<<"$err")" -eq 1
  err=$("$QVX" hunt -r "$tmp/every.yml" --scan -q "$tmp/flip.E01" 2>&1 >/dev/null)
  check ewf-checksum-hunt test "$(grep -c "^quorvex: warning: $bad$" <<<"$err")" -eq 1
fi
mkdir -p "$tmp/pieces"
split -b 8M -d -a 3 --numeric-suffixes=1 "$tmp/mbr.raw" "$tmp/pieces/disk."
check pieces-whole test "$("$QVX" events -q -f csv --tz UTC "$tmp/pieces/disk.001::/Windows/System32/winevt/Logs/System.evtx")" = "$want_sys"
rm "$tmp/pieces/disk.002"
err=$("$QVX" events "$tmp/pieces/disk.001::/Windows/System32/winevt/Logs/System.evtx" 2>&1 >/dev/null)
check pieces-gap grep -q "piece disk.002 is missing (disk.003 follows it)" <<<"$err"
err=$("$QVX" scan -q -f csv "$tmp/pieces/disk.001" 2>&1 >/dev/null)
check pieces-gap-scan grep -q "^quorvex: warning: $tmp/pieces/disk.001: piece disk.002 is missing (disk.003 follows it); reading the 8388608 bytes before it$" <<<"$err"

truncate -s 4M "$tmp/blank.raw"
err=$("$QVX" imaged "$tmp/blank.raw" 2>&1 >/dev/null)
check no-partitions test "$err" = "quorvex: $tmp/blank.raw: no partition table and no file system at offset 0x0"
err=$("$QVX" events "$tmp/mbr.raw::/Windows/none.evtx" 2>&1 >/dev/null)
check missing-file test "$err" = "quorvex: $tmp/mbr.raw volume 1::/Windows/none.evtx: no such file on the volume"

# --offset is IMAGE@+BYTES.
got=$("$QVX" events -q -f csv --tz UTC --offset 1048576 "$tmp/mbr.raw::/Windows/System32/winevt/Logs/System.evtx")
check offset-events test "$got" = "$want_sys"
# An offset where a listed partition starts is that volume, scanned to its end only.
check offset-imaged grep -q "^  Windows folder   $tmp/mbr.raw@1::/Windows" <<<"$("$QVX" imaged --offset 1048576 "$tmp/mbr.raw")"
cp "$tmp/mbr.raw" "$tmp/after.raw"
dd if="$logs/System.evtx" of="$tmp/after.raw" bs=1 skip=4096 count=65536 seek=$((25 * 1048576 + 4096)) conv=notrunc status=none
err=$("$QVX" scan -f csv --offset 1048576 "$tmp/after.raw" 2>&1 >/dev/null)
check offset-scan-label grep -q "^$tmp/after.raw volume 1: [0-9]* events" <<<"$err"
check offset-scan-bounded test "$("$QVX" scan -q -f csv --offset 1048576 "$tmp/after.raw" | wc -l)" = "$("$QVX" scan -q -f csv "$tmp/after.raw@1" | wc -l)"
check offset-scan-whole test "$("$QVX" scan -q -f csv --offset 1048576 "$tmp/after.raw" | wc -l)" -lt "$("$QVX" scan -q -f csv "$tmp/after.raw" | wc -l)"
"$QVX" open --offset 1048576 "$tmp/mbr.raw" -s "$tmp/offset.db" -q
check offset-open test "$("$QVX" view "$tmp/offset.db" --count)" = "$("$QVX" view "$tmp/case.db" --count)"
err=$("$QVX" events --offset 1048576 "$tmp/mbr.raw@1::/Windows/System32/winevt/Logs/System.evtx" 2>&1 >/dev/null)
check offset-and-volume test "$err" = "quorvex: $tmp/mbr.raw@1::/Windows/System32/winevt/Logs/System.evtx: give the volume either as @1 or by --offset"

# Volume Shadow Copies: the copy holds System.evtx as it was before it was overwritten.
if [ -n "$VSS" ]; then
  sys=/Windows/System32/winevt/Logs/System.evtx
  # Another writer's log, larger than System.evtx: every old cluster is overwritten.
  "$GEN" "$tmp/newer" 1500 3 >/dev/null || { echo "FAIL generator"; fail=1; }
  mv "$tmp/newer/bench.evtx" "$tmp/newer.evtx"
  cp "$tmp/vol.img" "$tmp/shadow.raw"
  "$FILL" "$tmp/shadow.raw" --replace "$sys" "$tmp/newer.evtx" || { echo "FAIL replace"; fail=1; }
  cp "$tmp/shadow.raw" "$tmp/shadow-store.raw"
  cp "$tmp/shadow.raw" "$tmp/shadow-catalog.raw"
  "$VSS" "$tmp/vol.img" "$tmp/shadow.raw" >/dev/null || { echo "FAIL vss_fill"; fail=1; }
  "$VSS" "$tmp/vol.img" "$tmp/shadow-store.raw" --copies 2 --damage store >/dev/null || { echo "FAIL vss_fill"; fail=1; }
  "$VSS" "$tmp/vol.img" "$tmp/shadow-catalog.raw" --damage catalog >/dev/null || { echo "FAIL vss_fill"; fail=1; }
  for img in "$tmp"/shadow*.raw; do md5sum "$img"; done >"$tmp/shadow-before.md5"
  want_new=$("$QVX" events -q -f csv --tz UTC "$tmp/newer.evtx")
  out=$("$QVX" imaged "$tmp/shadow.raw")
  check vss-imaged-status test $? -eq 0
  check vss-imaged-count grep -q "^  Shadow copies (1)$" <<<"$out"
  check vss-imaged-copy grep -q "^    vss1   2024-03-01T10:20:30Z  $tmp/shadow.raw@1:vss1::/$" <<<"$out"
  check vss-imaged-none grep -q "^  Shadow copies    none$" <<<"$("$QVX" imaged "$tmp/mbr.raw")"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow.raw::$sys")
  check vss-current test "$got" = "$want_new"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow.raw@1:vss1::$sys")
  check vss-copy-recovers test "$got" = "$want_sys"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow.raw:vss1::/WINDOWS/system32/winevt/Logs/system.evtx")
  check vss-default-volume test "$got" = "$want_sys"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow.raw:vss1::/Windows/System32/winevt/Logs/Application.evtx" --imaged "$tmp/shadow.raw:vss1")
  check vss-described test "$got" = "$want_app"
  check vss-imaged-copy-logs grep -q "^          528384  System.evtx$" <<<"$("$QVX" imaged "$tmp/shadow.raw@1:vss1" 2>&1)"
  # Scanning the copy's data finds the old log's chunks.
  got=$("$QVX" scan -q -f csv --tz UTC "$tmp/shadow.raw@1:vss1" | tail -n +2 | sort)
  check vss-scan-copy test "$(comm -23 <(tail -n +2 <<<"$want_sys" | sort) <(echo "$got") | wc -l)" -eq 0
  err=$("$QVX" events "$tmp/shadow.raw@1:vss2::$sys" 2>&1 >/dev/null)
  check vss-no-copy test "$err" = "quorvex: $tmp/shadow.raw volume 1: no shadow copy 2 (the volume has 1)"
  # open --shadows: both states of System.evtx, each log named with its copy.
  "$QVX" open "$tmp/shadow.raw" -s "$tmp/shadows.db" --shadows -q
  check vss-open-status test $? -eq 0
  n_old=$(sed -n 's/.*: \([0-9]*\) events.*/\1/p' <<<"$("$QVX" events -f csv "$logs/System.evtx" 2>&1 >/dev/null)")
  n_sys=$("$QVX" view "$tmp/shadows.db" --count)
  "$QVX" open "$tmp/shadow.raw" -s "$tmp/noshadows.db" -q
  n_cur=$("$QVX" view "$tmp/noshadows.db" --count)
  check vss-open-count test "$n_sys" -eq "$((n_cur + n_old + 300))"
  if command -v sqlite3 >/dev/null 2>&1; then
    check vss-open-names grep -qxF "System|$tmp/shadow.raw@1:vss1::$sys" <<<"$(sqlite3 "$tmp/shadows.db" "SELECT LogName, FileName FROM QvxLogEntries")"
  fi
  # hunt and serve take --shadows as open does.
  n=$("$QVX" hunt -q -f jsonl --no-rule-cache -r "$tmp/every.yml" --shadows "$tmp/shadow.raw" | grep -c ":vss1::$sys")
  check vss-hunt-copy test "$n" -eq "$n_old"
  n=$("$QVX" hunt -q -f jsonl --no-rule-cache -r "$tmp/every.yml" --shadows "$tmp/shadow.raw" | wc -l)
  check vss-hunt-count test "$n" -eq "$n_sys"
  "$QVX" serve "$tmp/shadow.raw" --shadows -s "$tmp/served.db" --no-browser --no-progress >"$tmp/serve.out" 2>&1 &
  pid=$!
  for _ in $(seq 300); do grep -q "^Quorvex is serving" "$tmp/serve.out" && break; sleep 0.1; done
  kill -INT "$pid"; wait "$pid"
  check vss-serve-count test "$("$QVX" view "$tmp/served.db" --count)" -eq "$n_sys"
  # Copy 1 of 2 whose store is damaged, and a damaged catalog: one line naming it, the
  # volume (and copy 2) still load.
  for what in store catalog; do
    img="$tmp/shadow-$what.raw"
    err=$("$QVX" open "$img" -s "$tmp/damaged-$what.db" --shadows -q 2>&1)
    check "vss-damaged-$what-status" test $? -eq 1
    check "vss-damaged-$what-line" test "$(wc -l <<<"$err")" -eq 1
    err=$("$QVX" imaged "$img" 2>&1 >/dev/null)
    check "vss-damaged-$what-imaged" test "$(wc -l <<<"$err")" -eq 1
  done
  check vss-damaged-store-loads test "$("$QVX" view "$tmp/damaged-store.db" --count)" -eq "$((n_cur + n_old + 300))"
  check vss-damaged-catalog-loads test "$("$QVX" view "$tmp/damaged-catalog.db" --count)" -eq "$n_cur"
  out=$("$QVX" imaged "$tmp/shadow-store.raw" 2>/dev/null)
  check vss-damaged-store-listed grep -q "^    vss1   2024-03-01T10:20:30Z  $tmp/shadow-store.raw@1:vss1::/  (cannot be read)$" <<<"$out"
  check vss-damaged-store-other grep -q "^    vss2   2024-03-02T10:20:30Z  $tmp/shadow-store.raw@1:vss2::/$" <<<"$out"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow-store.raw@1:vss2::$sys")
  check vss-damaged-store-copy2 test "$got" = "$want_sys"
  # A log in the copy that is no log: that log is reported and skipped, the rest loads.
  cp "$tmp/vol.img" "$tmp/garbled-old.raw"
  head -c "$(stat -c %s "$logs/System.evtx")" /dev/zero | tr '\0' 'x' >"$tmp/garbage.bin"
  "$FILL" "$tmp/garbled-old.raw" --replace "$sys" "$tmp/garbage.bin" || { echo "FAIL replace"; fail=1; }
  cp "$tmp/garbled-old.raw" "$tmp/garbled.raw"
  "$FILL" "$tmp/garbled.raw" --replace "$sys" "$tmp/newer.evtx" || { echo "FAIL replace"; fail=1; }
  "$VSS" "$tmp/garbled-old.raw" "$tmp/garbled.raw" >/dev/null || { echo "FAIL vss_fill"; fail=1; }
  err=$("$QVX" open "$tmp/garbled.raw" -s "$tmp/garbled.db" --shadows -q 2>&1)
  check vss-garbled-log-status test $? -eq 1
  check vss-garbled-log-line test "$err" = "quorvex: $tmp/garbled.raw@1:vss1::$sys: not an .evtx file: no \"ElfFile\" signature at offset 0x0; skipped"
  check vss-garbled-log-one test "$(wc -l <<<"$err")" -eq 1
  check vss-garbled-log-loads test "$("$QVX" view "$tmp/garbled.db" --count)" -eq "$((n_cur + 300))"
  check vss-damaged-store-names grep -q "^quorvex: $tmp/shadow-store.raw volume 1 shadow copy 1: " <<<"$("$QVX" events "$tmp/shadow-store.raw@1:vss1::$sys" 2>&1 >/dev/null)"
  check vss-damaged-catalog-names test "$("$QVX" imaged "$tmp/shadow-catalog.raw" 2>&1 >/dev/null)" = \
    "quorvex: $tmp/shadow-catalog.raw volume 1: shadow copy header or catalog cannot be read at offset 0x1E00 (invalid catalog header identifier)"
  # The volume's MFT damaged after the copy was taken: the copy still gives its logs.
  cp "$tmp/vol.img" "$tmp/shadow-mft.raw"
  bps=$(od -An -tu2 -j11 -N2 "$tmp/vol.img" | tr -d ' ')
  spc=$(od -An -tu1 -j13 -N1 "$tmp/vol.img" | tr -d ' ')
  mft=$(od -An -tu8 -j48 -N8 "$tmp/vol.img" | tr -d ' ')
  head -c 4096 /dev/zero | tr '\0' '\356' | dd of="$tmp/shadow-mft.raw" bs=1 seek=$((mft * bps * spc)) conv=notrunc status=none
  "$VSS" "$tmp/vol.img" "$tmp/shadow-mft.raw" >/dev/null || { echo "FAIL vss_fill"; fail=1; }
  md5sum "$tmp/shadow-mft.raw" >>"$tmp/shadow-before.md5"
  out=$("$QVX" imaged "$tmp/shadow-mft.raw" 2>"$tmp/err")
  check vss-mft-imaged-status test $? -eq 1
  check vss-mft-imaged-error grep -qx "quorvex: $tmp/shadow-mft.raw volume 1: NTFS volume whose boot sector or MFT cannot be read (.*)" "$tmp/err"
  check vss-mft-imaged-copy grep -q "^    vss1   2024-03-01T10:20:30Z  $tmp/shadow-mft.raw@1:vss1::/$" <<<"$out"
  got=$("$QVX" events -q -f csv --tz UTC "$tmp/shadow-mft.raw@1:vss1::$sys")
  check vss-mft-copy-recovers test "$got" = "$want_sys"
  err=$("$QVX" open "$tmp/shadow-mft.raw" -s "$tmp/mft-shadows.db" --shadows -q 2>&1)
  check vss-mft-open-status test $? -eq 1
  check vss-mft-open-line test "$err" = "$(cat "$tmp/err")"
  check vss-mft-open-loads test "$("$QVX" view "$tmp/mft-shadows.db" --count)" -eq "$((n_old + 300))"
  for img in "$tmp"/shadow*.raw; do md5sum "$img"; done >"$tmp/shadow-after.md5"
  check vss-images-unchanged cmp -s <(sort "$tmp/shadow-before.md5") <(sort "$tmp/shadow-after.md5")
fi

# Bad volumes: one clear line naming the image and the problem, and a failing status.
cp "$tmp/vol.img" "$tmp/bitlocker.raw"
printf -- '-FVE-FS-' | dd of="$tmp/bitlocker.raw" bs=1 seek=3 conv=notrunc status=none
for cmd in "imaged $tmp/bitlocker.raw" "events $tmp/bitlocker.raw::/Windows/System32/winevt/Logs/System.evtx" \
           "open $tmp/bitlocker.raw -s $tmp/bitlocker.db"; do
  err=$($QVX $cmd 2>&1 >/dev/null)
  check "bitlocker-${cmd%% *}-status" test $? -eq 1
  check "bitlocker-${cmd%% *}" test "$err" = "quorvex: $tmp/bitlocker.raw volume 1: BitLocker-encrypted volume; reading it needs libbde, not supported yet"
done
# The MFT's first records overwritten (the boot sector gives its cluster).
cp "$tmp/vol.img" "$tmp/mft.raw"
bps=$(od -An -tu2 -j11 -N2 "$tmp/vol.img" | tr -d ' ')
spc=$(od -An -tu1 -j13 -N1 "$tmp/vol.img" | tr -d ' ')
mft=$(od -An -tu8 -j48 -N8 "$tmp/vol.img" | tr -d ' ')
head -c 4096 /dev/zero | tr '\0' '\356' | dd of="$tmp/mft.raw" bs=1 seek=$((mft * bps * spc)) conv=notrunc status=none
for cmd in "imaged $tmp/mft.raw" "events $tmp/mft.raw::/Windows/System32/winevt/Logs/System.evtx" \
           "open $tmp/mft.raw -s $tmp/mft.db"; do
  err=$($QVX $cmd 2>&1 >/dev/null)
  check "mft-${cmd%% *}-status" test $? -eq 1
  check "mft-${cmd%% *}" grep -qx "quorvex: $tmp/mft.raw volume 1: NTFS volume whose boot sector or MFT cannot be read (.*)" <<<"$err"
done
# A differencing VHD and VHDX whose parent is missing (qemu-img writes neither, so
# dynamic ones are turned into them: a VHD gets disk type 4 and a parent name, a VHDX
# the HasParent flag and a parent locator).
if have qemu-img && have python3; then
  qemu-img create -q -f vpc "$tmp/diff.vhd" 8M
  python3 - "$tmp/diff.vhd" missing-parent.vhd <<'EOF_PY'
import struct, sys
path, parent = sys.argv[1], sys.argv[2]
d = bytearray(open(path, 'rb').read())
def footer(at):                                  # footer copies at the start and the end
    struct.pack_into('>I', d, at + 60, 4)        # disk type: differencing
    struct.pack_into('>I', d, at + 64, 0)        # checksum: one's complement of the byte sum
    struct.pack_into('>I', d, at + 64, ~sum(d[at:at + 512]) & 0xFFFFFFFF)
dyn = struct.unpack_from('>Q', d, 16)[0]          # the dynamic disk header's offset
footer(0)
footer(len(d) - 512)
d[dyn + 64:dyn + 576] = parent.encode('utf-16-be').ljust(512, b'\0')  # parent name
struct.pack_into('>I', d, dyn + 36, 0)
struct.pack_into('>I', d, dyn + 36, ~sum(d[dyn:dyn + 1024]) & 0xFFFFFFFF)
open(path, 'wb').write(d)
EOF_PY
  qemu-img create -q -f vhdx "$tmp/diff.vhdx" 8M
  python3 - "$tmp/diff.vhdx" missing-parent.vhdx <<'EOF_PY'
import struct, sys, uuid
path, parent = sys.argv[1], sys.argv[2]
d = bytearray(open(path, 'rb').read())
META = uuid.UUID('8B7CA206-4790-4B9A-B8FE-575F050F886E').bytes_le
PARAMS = uuid.UUID('CAA16737-FA36-4D43-B3B6-33F0AA44E76B').bytes_le
LOCATOR = uuid.UUID('A8D35F2D-B30B-454D-ABF7-D3D84834AB0C').bytes_le
VHDX_LOCATOR_TYPE = uuid.UUID('B04AEFB7-D19E-4A81-B789-25B8E9445913').bytes_le
# Region table at 192 KiB: "regi", checksum, entry count, then 32-byte entries.
rt = 192 * 1024
assert d[rt:rt + 4] == b'regi'
count = struct.unpack_from('<I', d, rt + 8)[0]
meta = None
for i in range(count):
    e = rt + 16 + 32 * i
    if d[e:e + 16] == META:
        meta, meta_len = struct.unpack_from('<QI', d, e + 16)
assert meta is not None
# Metadata table: "metadata", reserved, entry count, then 32-byte entries.
assert d[meta:meta + 8] == b'metadata'
n = struct.unpack_from('<H', d, meta + 10)[0]
end = 64 * 1024
for i in range(n):
    e = meta + 32 + 32 * i
    guid = bytes(d[e:e + 16])
    off, length, flags = struct.unpack_from('<III', d, e + 16)
    end = max(end, off + length)
    if guid == PARAMS:
        struct.pack_into('<I', d, meta + off + 4, struct.unpack_from('<I', d, meta + off + 4)[0] | 2)  # HasParent
# The parent locator: type, reserved, key/value count, entries, then UTF-16LE keys and values.
pairs = [('parent_linkage', '{01234567-89ab-cdef-0123-456789abcdef}'),
         ('relative_path', '.\\' + parent),
         ('absolute_win32_path', 'C:\\images\\' + parent)]
loc = bytearray(VHDX_LOCATOR_TYPE + struct.pack('<HH', 0, len(pairs)))
strings = bytearray()
base = 20 + 12 * len(pairs)
for k, v in pairs:
    kb, vb = k.encode('utf-16-le'), v.encode('utf-16-le')
    ko = base + len(strings); strings += kb
    vo = base + len(strings); strings += vb
    loc += struct.pack('<IIHH', ko, vo, len(kb), len(vb))
loc += strings
end = (end + 4095) // 4096 * 4096
d[meta + end:meta + end + len(loc)] = loc
e = meta + 32 + 32 * n
d[e:e + 32] = LOCATOR + struct.pack('<IIII', end, len(loc), 4, 0)  # flags: IsRequired
struct.pack_into('<H', d, meta + 10, n + 1)
open(path, 'wb').write(d)
EOF_PY
  for ext in vhd vhdx; do
    for cmd in "imaged $tmp/diff.$ext" "open $tmp/diff.$ext -s $tmp/diff.db" "events $tmp/diff.$ext::/x.evtx"; do
      err=$($QVX $cmd 2>&1 >/dev/null)
      check "$ext-parent-${cmd%% *}-status" test $? -eq 1
      check "$ext-parent-${cmd%% *}" test "$err" = "quorvex: $tmp/diff.$ext: differencing disk whose parent missing-parent.$ext is missing (looked beside it)"
    done
  done
fi

for img in "${images[@]}"; do md5sum "$img"; done >"$tmp/after.md5"
check images-unchanged cmp -s "$tmp/before.md5" "$tmp/after.md5"
exit $fail
