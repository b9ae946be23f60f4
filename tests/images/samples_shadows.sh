#!/usr/bin/env bash
# Real disk images in the shared samples folder (read in place, never copied): every
# image lists its volumes, and every shadow copy it lists opens as an NTFS volume whose
# listing names the copy. Skips (77) when the folder holds no image.
set -u
QVX=$1
SAMPLES=$2
. "$(dirname "$0")/../support/check.sh"

images=()
if [ -d "$SAMPLES/images" ]; then
  while IFS= read -r -d '' f; do images+=("$f"); done < <(find "$SAMPLES/images" -type f \
    \( -iname '*.e01' -o -iname '*.ex01' -o -iname '*.vhd' -o -iname '*.vhdx' -o -iname '*.vmdk' -o -iname '*.qcow2' \
       -o -iname '*.raw' -o -iname '*.dd' -o -iname '*.img' -o -iname '*.001' \) -print0 | sort -z)
fi
if [ ${#images[@]} -eq 0 ]; then
  echo "skip: no disk images in $SAMPLES/images"
  exit 77
fi

for img in "${images[@]}"; do
  name=$(basename "$img")
  out=$("$QVX" imaged "$img" 2>"$tmp/err")
  status=$?
  # A damaged image may fail, but with one line naming it, never a crash.
  check "$name-imaged" test $status -le 1
  if [ $status -ne 0 ]; then
    check "$name-imaged-names" grep -q "^quorvex: $img" "$tmp/err"
  fi
  while read -r copy; do
    [ -n "$copy" ] || continue
    ref=${copy%::/}
    ref=${ref%  (cannot be read)}
    listing=$("$QVX" imaged "$ref" 2>/dev/null)
    check "$name-${ref##*@}" grep -q "^Volume .*, shadow copy " <<<"$listing"
  done < <(sed -n 's/^    vss[0-9]* .*  \([^ ]*::\/\).*$/\1/p' <<<"$out")
done
exit $fail
