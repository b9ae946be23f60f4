#!/usr/bin/env bash
# quorvex imaged and --imaged over a generated offline installation: the listing, the
# descriptions in the output, and one clear line when the installation cannot be read.
set -u
QVX=$1
GEN=$2
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0

check() { # check NAME CONDITION-COMMAND...
  local name=$1
  shift
  if "$@"; then echo "ok   $name"; else echo "FAIL $name"; fail=1; fi
}

"$GEN" "$tmp/img" 300 3 >/dev/null || { echo "FAIL generator"; exit 1; }

out=$("$QVX" imaged "$tmp/img")
check imaged-status test $? -eq 0
check imaged-drive grep -q "^System drive     C: (mapped to $tmp/img)" <<<"$out"
check imaged-sources grep -q "^Classic sources (3)" <<<"$out"
check imaged-files grep -q "BenchSrc01 .*$tmp/img/Windows/System32/BenchMsg01.dll" <<<"$out"
check imaged-users grep -q "S-1-5-21-1111-2222-3333-1001 .* alice" <<<"$out"

out=$("$QVX" imaged "$tmp/img/Windows" --only users)
check only-users test "$(head -2 <<<"$out" | tail -1)" = "Users (3)"
check only-users-no-sources test -z "$(grep 'Classic sources' <<<"$out")"

err=$("$QVX" imaged "$tmp/nowhere" 2>&1 >/dev/null)
check imaged-missing-status test $? -eq 1
check imaged-missing-text test "$err" = "quorvex: $tmp/nowhere: registry file $tmp/nowhere/System32/config/software does not exist (give the installation's Windows folder or the drive it lies on)"

csv=$("$QVX" events "$tmp/img/bench.evtx" --imaged "$tmp/img" -f csv -q)
check described test "$(grep -c 'Bench source 0[0-2] event 10' <<<"$csv")" -eq 300
check users-named test "$(grep -c ',alice,' <<<"$csv")" -ge 90
csv=$("$QVX" events "$tmp/img/bench.evtx" -f csv -q)
check undescribed test "$(grep -c 'Bench source' <<<"$csv")" -eq 0

err=$("$QVX" events "$tmp/img/bench.evtx" --imaged "$tmp/nowhere" 2>&1 >/dev/null)
check events-missing test "$err" = "quorvex: --imaged $tmp/nowhere: registry file $tmp/nowhere/System32/config/software does not exist (give the installation's Windows folder or the drive it lies on)"

exit $fail
