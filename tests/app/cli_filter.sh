#!/usr/bin/env bash
# Filter options of quorvex events, filter files, and quorvex xpath both ways.
set -u
QVX=$1
. "$(dirname "$0")/../support/check.sh"

"$QVX" demo -o "$tmp/demo.evtx" --no-dump >/dev/null 2>&1 || { echo "FAIL demo"; exit 1; }
all=$("$QVX" events "$tmp/demo.evtx" -f jsonl -q | wc -l)

failures=$("$QVX" events "$tmp/demo.evtx" --type audit-failure -f jsonl -q)
check type-only-failures test -z "$(grep -v '"type":"Audit Failure"' <<<"$failures")"
check type-some test "$(wc -l <<<"$failures")" -gt 0
ids=$("$QVX" events "$tmp/demo.evtx" --id '4624,4625-4630!4627' -f jsonl -q | sed -E 's/.*"event_id":([0-9]+),.*/\1/' | sort -u | tr '\n' ' ')
check id-expression test "$ids" = "4624 4625 "

"$QVX" events "$tmp/demo.evtx" --type error,audit-failure --source '!Nothing' --save-filter "$tmp/f.xml" -f jsonl -q >"$tmp/a.jsonl"
"$QVX" events "$tmp/demo.evtx" --filter "$tmp/f.xml" -f jsonl -q >"$tmp/b.jsonl"
check saved-filter-same cmp -s "$tmp/a.jsonl" "$tmp/b.jsonl"
check filter-file-root grep -q '<QVEX_Filter version="1">' "$tmp/f.xml"

err=$("$QVX" events "$tmp/demo.evtx" --regex '(' 2>&1 >/dev/null)
check regex-status test $? -eq 1
check regex-message test "$err" = 'quorvex: regular expression "(": missing closing parenthesis at offset 1'
printf 'not a filter' >"$tmp/bad.xml"
err=$("$QVX" events "$tmp/demo.evtx" --filter "$tmp/bad.xml" 2>&1 >/dev/null)
check bad-filter test "$err" = "quorvex: $tmp/bad.xml: not a filter file: No document element found at offset 12"
check summary-counts grep -q "filter: [0-9]* of $all events read match" <("$QVX" events "$tmp/demo.evtx" --type error -f csv 2>&1 >/dev/null)

"$QVX" xpath --type error,warning --id '4624,4625-4630!4627' --source A,B --last 1d --log Security >"$tmp/q.xml"
check xpath-select grep -qF "*[System[(Level = 2 or Level = 3) and" "$tmp/q.xml"
back=$("$QVX" xpath --parse "$tmp/q.xml" --save-filter "$tmp/fq.xml")
check xpath-parsed test $? -eq 0
check xpath-ids grep -qF -- "--id       4624,4625-4630!4627" <<<"$back"
check xpath-filter-file grep -q "<IDs>4624,4625-4630!4627</IDs>" "$tmp/fq.xml"
err=$(echo '<Foo/>' | "$QVX" xpath --parse - 2>&1 >/dev/null)
check xpath-failed test "$err" = "quorvex: -: the query could not be read: Expected QueryList. Found Foo"

exit $fail
