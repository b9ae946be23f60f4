#!/usr/bin/env bash
# The quorvex command on bad input: one clear line naming the path and the reason,
# a non-zero exit status, and no crash.
set -u
QVX=$1
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
fail=0

expect() { # expect NAME EXPECTED_STATUS EXPECTED_STDERR -- command...
  local name=$1 status=$2 want=$3
  shift 4
  local err rc
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  if [ "$rc" != "$status" ] || [ "$err" != "$want" ]; then
    echo "FAIL $name"
    echo "  status: $rc (want $status)"
    echo "  stderr: $err"
    echo "  want:   $want"
    fail=1
  else
    echo "ok   $name"
  fi
}

# A word that names no command is said to be one, with the nearest name; no word at all
# gives the help.
expect unknown-command 1 "quorvex: 'evnts' is not a command (did you mean 'events'?)
Run 'quorvex --help' for the commands." -- "$QVX" evnts "$tmp/none.evtx"
expect unknown-command-far 1 "quorvex: 'frobnicate' is not a command
Run 'quorvex --help' for the commands." -- "$QVX" frobnicate
expect wrong-option-value 2 "quorvex events: --format: xls not in {table,csv,jsonl,xml}
Run 'quorvex events --help' for the options." -- "$QVX" events --format xls "$tmp/none.evtx"
# Event IDs in any other form than the documented one are a wrong command line, not a
# filter that matches nothing.
for ids in abc '4624;4625' '4624,,4625'; do
  expect "wrong-ids-$ids" 2 "quorvex view: --id: must be event IDs and ranges separated by commas, with '!' before the ones to leave out (4624,4625-4630!4627)
Run 'quorvex view --help' for the options." -- "$QVX" view "$tmp/none.db" --id "$ids"
done
"$QVX" >"$tmp/help.txt" 2>&1
[ $? = 1 ] && grep -q '^Subcommands:' "$tmp/help.txt" && grep -q '^  events ' "$tmp/help.txt" &&
  echo "ok   no-command-help" || { echo "FAIL no-command-help"; fail=1; }
"$QVX" help events >"$tmp/help-events.txt" 2>&1 && grep -q -- '--tz' "$tmp/help-events.txt" &&
  "$QVX" help >"$tmp/help.txt" 2>&1 && grep -q '^Subcommands:' "$tmp/help.txt" &&
  echo "ok   help-command" || { echo "FAIL help-command"; fail=1; }

expect missing-file 1 "quorvex: $tmp/none.evtx: 2: No such file or directory" -- \
  "$QVX" dump "$tmp/none.evtx"
expect directory 1 "quorvex: $tmp: 21: Is a directory" -- "$QVX" dump "$tmp"
printf 'this is not an event log at all, just text\n%.0s' {1..200} > "$tmp/text.evtx"
expect not-evtx 1 "quorvex: $tmp/text.evtx: not an .evtx file: no \"ElfFile\" signature at offset 0x0 (use --carve to search it for chunks)" -- \
  "$QVX" dump "$tmp/text.evtx"
printf 'ElfFile' > "$tmp/short.evtx"
expect short-header 1 "quorvex: $tmp/short.evtx: not an .evtx file: the file is 7 bytes, shorter than the 128-byte file header (use --carve to search it for chunks)" -- \
  "$QVX" dump "$tmp/short.evtx"
expect info-missing 1 "quorvex: $tmp/none.evtx: 2: No such file or directory" -- "$QVX" info "$tmp/none.evtx"
# Carving a file without chunks is not an error: there is simply nothing in it.
expect carve-text 0 "$tmp/text.evtx: 0 records from 0 chunks found by scanning; 0 records could not be read" -- \
  "$QVX" dump --carve "$tmp/text.evtx"

if [ "$(id -u)" != 0 ]; then
  "$QVX" demo --no-dump -o "$tmp/locked.evtx" -n 5 2>/dev/null
  chmod 000 "$tmp/locked.evtx"
  expect no-permission 1 "quorvex: $tmp/locked.evtx: 13: Permission denied" -- "$QVX" dump "$tmp/locked.evtx"
fi
# serve runs in quorvex-serve beside the program; without it, one line says so.
if [ -x "$(dirname "$QVX")/quorvex-serve" ]; then
  mkdir "$tmp/alone"
  cp "$QVX" "$tmp/alone/quorvex"
  expect serve-program-missing 1 "quorvex: cannot start $tmp/alone/quorvex-serve, the program of the browser view (No such file or directory); it is built beside quorvex" -- \
    "$tmp/alone/quorvex" serve --no-browser "$tmp/none.evtx"
fi
exit $fail
