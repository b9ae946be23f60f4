#!/usr/bin/env bash
# Disk images as input: an installation copied onto an NTFS volume (mkntfs, then
# libntfs-3g), put in an MBR and a GPT disk (sfdisk), converted to E01 and split E01
# (ewfacquire) and to VHDX, VMDK and QCOW2 (qemu-img). The same events must come out of
# every container as out of the plain file; bad input gives one clear line; the image
# is never changed. A missing tool skips what needs it.
set -u
QVX=$1
FILL=$2
GEN=$3
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

# open IMAGE loads every log of the installation, described from the image.
"$QVX" open "$tmp/mbr.raw" -s "$tmp/case.db" -q
check open-image-status test $? -eq 0
check open-image-count test "$("$QVX" view "$tmp/case.db" --count)" = "$(($(sed -n 's/.*: \([0-9]*\) events.*/\1/p' <<<"$("$QVX" events -f csv "$logs/System.evtx" 2>&1 >/dev/null)") + 300))"

# A deleted log survives in the unallocated clusters.
want_del=$("$QVX" events -q -f csv --tz UTC "$tmp/deleted.evtx" | tail -n +2 | sort)
got=$("$QVX" scan -q -f csv --tz UTC --unallocated "$tmp/mbr.raw" | tail -n +2 | sort)
check unallocated-recovers test "$(comm -23 <(echo "$want_del") <(echo "$got") | wc -l)" -eq 0
# The allocated System.evtx (500 records) is not scanned, only the deleted log's chunks.
n=$("$QVX" scan -f csv --unallocated "$tmp/mbr.raw" 2>&1 >/dev/null | sed -n 's/.*: \([0-9]*\) events.*/\1/p')
check unallocated-only-free test "$n" = 300
n=$("$QVX" scan -q -f csv --offset 1048576 "$tmp/mbr.raw" | wc -l)
check scan-offset test "$n" -gt 800

# Bad input: one clear line each.
head -c 300000 "$tmp/mbr.E01" >"$tmp/cut.E01" 2>/dev/null || true
if [ -s "$tmp/cut.E01" ]; then
  err=$("$QVX" imaged "$tmp/cut.E01" 2>&1 >/dev/null)
  check truncated-e01 test "$(wc -l <<<"$err")" -eq 1 -a -n "$err"
  check truncated-e01-names grep -q "^quorvex: $tmp/cut.E01: " <<<"$err"
fi
truncate -s 4M "$tmp/blank.raw"
err=$("$QVX" imaged "$tmp/blank.raw" 2>&1 >/dev/null)
check no-partitions test "$err" = "quorvex: $tmp/blank.raw: no partition table and no file system at offset 0x0"
err=$("$QVX" events "$tmp/mbr.raw::/Windows/none.evtx" 2>&1 >/dev/null)
check missing-file test "$err" = "quorvex: $tmp/mbr.raw volume 1::/Windows/none.evtx: no such file on the volume"

for img in "${images[@]}"; do md5sum "$img"; done >"$tmp/after.md5"
check images-unchanged cmp -s "$tmp/before.md5" "$tmp/after.md5"
exit $fail
