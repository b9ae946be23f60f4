#!/usr/bin/env bash
# quorvex hunt: Sigma rules over a log, a folder and a store; the table names each rule's
# author; JSON Lines has the documented fields; unusable rules are listed with the reason;
# open --rules keeps detections that view --detections and --detection-level read; the
# rule cache gives the same output as parsing every file; the detection level is a
# filter criterion that filter files keep.
set -u
QVX=$1
. "$(dirname "$0")/../support/check.sh"
export XDG_CACHE_HOME="$tmp/xdg" # the rule cache of these runs, not the user's

mkdir -p "$tmp/logs"
"$QVX" demo -o "$tmp/logs/demo.evtx" --no-dump >/dev/null 2>&1 || { echo "FAIL demo"; exit 1; }
mkdir -p "$tmp/rules/sub"
cat >"$tmp/rules/whoami.yml" <<'YML'
title: Whoami Privileges
id: 11111111-2222-3333-4444-555555555555
author: Jane Tester
status: test
level: high
tags: [attack.discovery]
logsource:
    category: process_creation
    product: windows
detection:
    selection:
        Image|endswith: '\whoami.exe'
        CommandLine|contains: '/priv'
    condition: selection
YML
cat >"$tmp/rules/sub/cleared.yml" <<'YML'
title: Log Cleared
id: 66666666-7777-8888-9999-000000000000
author: John Tester
level: medium
logsource:
    product: windows
    service: security
detection:
    selection:
        EventID: 1102
    condition: selection
YML
printf 'title: Broken\nlogsource: {product: windows, category: process_creation}\ndetection:\n  s:\n    Image|sideways: x\n  condition: s\n' >"$tmp/rules/sub/broken.yml"

table=$("$QVX" hunt -r "$tmp/rules" "$tmp/logs" --tz UTC --width 200 2>"$tmp/err.txt")
check hunt-status test $? -eq 0
check table-author grep -q "Whoami Privileges (Jane Tester)" <<<"$table"
check table-header grep -q "^Time .*Level .*Rule (author) .*Computer .*ID .*Matched" <<<"$table"
check summary-level grep -q "^  high " "$tmp/err.txt"
check summary-rule grep -q "Log Cleared (John Tester)" "$tmp/err.txt"
check unusable grep -q "broken.yml:5: unknown modifier 'sideways'" "$tmp/err.txt"

"$QVX" hunt -q -r "$tmp/rules/whoami.yml" "$tmp/logs/demo.evtx" -f jsonl --tz UTC >"$tmp/d.jsonl"
check jsonl-some test "$(wc -l <"$tmp/d.jsonl")" -gt 0
check jsonl-fields python3 -c '
import json, sys
for line in open(sys.argv[1]):
    d = json.loads(line)
    for k in ("rule_id", "rule_title", "rule_author", "level", "tags", "record", "event_id", "time", "computer",
              "channel", "file", "matched"):
        assert k in d, k
    assert d["rule_author"] == "Jane Tester" and d["level"] == "high" and d["tags"] == ["attack.discovery"]
    assert d["matched"]["Image"].lower().endswith("\\whoami.exe"), d["matched"]
    assert "/priv" in d["matched"]["CommandLine"]
' "$tmp/d.jsonl"
"$QVX" hunt -q -r "$tmp/rules" --min-level high "$tmp/logs/demo.evtx" -f csv >"$tmp/d.csv"
check min-level sh -c "! grep -q 'Log Cleared' '$tmp/d.csv' && grep -q 'Whoami Privileges' '$tmp/d.csv'"
check bad-level sh -c "'$QVX' hunt -r '$tmp/rules' --min-level loud '$tmp/logs' 2>&1 | grep -q 'not a level'"

summary=$("$QVX" open "$tmp/logs/demo.evtx" -s "$tmp/s.db" --rules "$tmp/rules" 2>&1)
check open-rules grep -q "hunt: [0-9]* detections in" <<<"$summary"
stored=$("$QVX" view "$tmp/s.db" --detections -f jsonl | wc -l)
check store-same test "$stored" -eq "$("$QVX" hunt -q -r "$tmp/rules" "$tmp/logs/demo.evtx" -f jsonl | wc -l)"
check store-limit test "$("$QVX" view "$tmp/s.db" --detections -f jsonl -n 2 | wc -l)" -eq 2
high=$("$QVX" view "$tmp/s.db" --detection-level high --count)
check level-count test "$high" -eq "$(wc -l <"$tmp/d.jsonl")"
check store-hunt test "$("$QVX" hunt -q -r "$tmp/rules" "$tmp/s.db" -f jsonl | wc -l)" -eq "$stored"
check store-author sh -c "'$QVX' view '$tmp/s.db' --detections --width 200 | grep -q 'Log Cleared (John Tester)'"

low=$("$QVX" view "$tmp/s.db" --min-detection-level low --count)
check min-level-count test "$low" -ge "$high"
"$QVX" view "$tmp/s.db" --min-detection-level high --save-filter "$tmp/high.xml" --count >/dev/null
check filter-file-level grep -q "<MinDetectionLevel>high</MinDetectionLevel>" "$tmp/high.xml"
check filter-file-count test "$("$QVX" view "$tmp/s.db" --filter "$tmp/high.xml" --count)" -eq "$high"
check bad-detection-level sh -c "'$QVX' view '$tmp/s.db' --min-detection-level 'high) OR (1=1' --count 2>&1 | grep -q 'not a level'"
"$QVX" open "$tmp/logs/demo.evtx" -s "$tmp/plain.db" >/dev/null 2>&1
check no-detections-table sh -c "'$QVX' view '$tmp/plain.db' --min-detection-level low --count 2>&1 | grep -q 'holds no detections'"

# --tz: a zone that does not exist is a wrong command line, said once before any input
# is read; a store's detections show the event's time in the --tz zone, with its offset
# in JSON Lines, as a log's do.
"$QVX" hunt -r "$tmp/rules" "$tmp/logs" "$tmp/s.db" --tz Mars/Base >"$tmp/tz.out" 2>"$tmp/tz.err"
check tz-bad-status test $? -eq 2
check tz-bad-once test "$(grep -c 'quorvex hunt: --tz: Mars/Base: unknown time zone' "$tmp/tz.err")" -eq 1
check tz-bad-nothing-read sh -c "! grep -q 'demo.evtx\|s.db' '$tmp/tz.err' && test ! -s '$tmp/tz.out'"
"$QVX" hunt -q -r "$tmp/rules/whoami.yml" "$tmp/logs/demo.evtx" -f jsonl --tz +90 | grep -o '"time":"[^"]*"' >"$tmp/tz-log.txt"
"$QVX" hunt -q -r "$tmp/rules/whoami.yml" "$tmp/s.db" -f jsonl --tz +90 | grep -o '"time":"[^"]*"' >"$tmp/tz-store.txt"
check tz-store-offset grep -q '"time":"....-..-..T..:..:..\.[0-9]*+01:30"' "$tmp/tz-store.txt"
check tz-store-as-log bash -c "sort '$tmp/tz-log.txt' | cmp -s - <(sort '$tmp/tz-store.txt')"
"$QVX" hunt -q -r "$tmp/rules/whoami.yml" "$tmp/s.db" -f jsonl --tz UTC | grep -o '"time":"[^"]*"' >"$tmp/tz-utc.txt"
check tz-store-applied sh -c "! cmp -s '$tmp/tz-utc.txt' '$tmp/tz-store.txt' && grep -q 'Z\"' '$tmp/tz-utc.txt'"

# The rule cache: a second run reads it and writes the same detections and the same
# unusable rules as a run that parses every file; --no-rule-cache neither reads nor writes it.
rm -rf "$tmp/xdg"
"$QVX" hunt -r "$tmp/rules" "$tmp/logs/demo.evtx" -f jsonl --tz UTC >"$tmp/c1.jsonl" 2>"$tmp/c1.err"
check cache-written sh -c "ls '$tmp/xdg/quorvex/'rules-*.bin >/dev/null"
"$QVX" hunt -r "$tmp/rules" "$tmp/logs/demo.evtx" -f jsonl --tz UTC >"$tmp/c2.jsonl" 2>"$tmp/c2.err"
XDG_CACHE_HOME="$tmp/none" "$QVX" hunt --no-rule-cache -r "$tmp/rules" "$tmp/logs/demo.evtx" -f jsonl --tz UTC \
  >"$tmp/c0.jsonl" 2>"$tmp/c0.err"
check cache-same-detections sh -c "cmp -s '$tmp/c0.jsonl' '$tmp/c1.jsonl' && cmp -s '$tmp/c0.jsonl' '$tmp/c2.jsonl'"
check cache-same-summary sh -c "cmp -s '$tmp/c0.err' '$tmp/c2.err'"
check cache-unusable grep -q "broken.yml:5: unknown modifier 'sideways'" "$tmp/c2.err"
check no-cache-no-file test ! -e "$tmp/none"
XDG_CACHE_HOME="$tmp/none" "$QVX" open "$tmp/logs/demo.evtx" -s "$tmp/nc.db" --rules "$tmp/rules" --no-rule-cache \
  >/dev/null 2>&1
check open-no-cache sh -c "test ! -e '$tmp/none' && test \"\$('$QVX' view '$tmp/nc.db' --detections -f jsonl | wc -l)\" -eq $stored"
printf 'garbage' >"$(ls "$tmp/xdg/quorvex/"rules-*.bin)"
"$QVX" hunt -r "$tmp/rules" "$tmp/logs/demo.evtx" -f jsonl --tz UTC >"$tmp/c3.jsonl" 2>"$tmp/c3.err"
check damaged-cache-same cmp -s "$tmp/c0.jsonl" "$tmp/c3.jsonl"
check damaged-cache-named grep -q "rule cache: .*not a rule cache of a sensible size, ignored" "$tmp/c3.err"

# Hunter threads write the same detections, in the same order, as testing while reading
# (two logs in a folder: the batches of one file end where the next begins).
mkdir -p "$tmp/many"
"$QVX" demo -o "$tmp/many/a.evtx" --no-dump --records 3000 >/dev/null 2>&1
cp "$tmp/logs/demo.evtx" "$tmp/many/b.evtx"
"$QVX" hunt -q -t 0 -r "$tmp/rules" "$tmp/many" -f jsonl --tz UTC >"$tmp/t0.jsonl"
"$QVX" hunt -q -t 3 -r "$tmp/rules" "$tmp/many" -f jsonl --tz UTC >"$tmp/t3.jsonl"
check threads-some test "$(wc -l <"$tmp/t0.jsonl")" -gt 10
check threads-same cmp -s "$tmp/t0.jsonl" "$tmp/t3.jsonl"

exit $fail
