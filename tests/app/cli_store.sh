#!/usr/bin/env bash
# quorvex open / view / refresh: an event store loaded, filtered, sorted, bookmarked,
# counted and refreshed; alerts start their program; bad stores are refused untouched.
set -u
QVX=$1
. "$(dirname "$0")/../support/check.sh"

"$QVX" demo -o "$tmp/demo.evtx" --no-dump >/dev/null 2>&1 || { echo "FAIL demo"; exit 1; }
all=$("$QVX" events "$tmp/demo.evtx" -f jsonl -q | wc -l)
cp "$tmp/demo.evtx" "$tmp/before.evtx"

cat >"$tmp/alert.sh" <<'SH'
#!/bin/sh
printf '%s|%s\n' "$1" "$2" >>"$(dirname "$0")/alerted.txt"
SH
cat >"$tmp/alerts.xml" <<XML
<?xml version="1.0" encoding="UTF-8"?>
<AlertPatterns><Alert Source="Application Error" Id="4294967295" EventType="0" RunProgram="1"
 ProgramName="/bin/sh $tmp/alert.sh [EventID] &quot;[Source]; touch $tmp/INJECTED&quot;"/></AlertPatterns>
XML

summary=$("$QVX" open "$tmp/demo.evtx" -s "$tmp/s.db" --alerts "$tmp/alerts.xml" 2>&1)
check open-status test $? -eq 0
check open-summary grep -q "$all events loaded from 1 log" <<<"$summary"
check log-untouched cmp -s "$tmp/demo.evtx" "$tmp/before.evtx"
check count-all test "$("$QVX" view "$tmp/s.db" --count)" -eq "$all"
errors=$("$QVX" events "$tmp/demo.evtx" --type error -f jsonl -q | wc -l)
check count-filter test "$("$QVX" view "$tmp/s.db" --type error --count)" -eq "$errors"
# Events without a description show Windows' text for that, with their values, never the
# store's own mark.
rows=$("$QVX" view "$tmp/s.db" -f jsonl -n 5)
check no-description-text grep -q '"description":"The description for Event ID ( [0-9]* ) in Source ( .* ) could not be found' <<<"$rows"
check no-description-mark test "$(grep -c 'u0001' <<<"$rows")" -eq 0
first=$("$QVX" view "$tmp/s.db" --sort Date -n 1 -f jsonl | sed -E 's/.*"time":"([^"]*)".*/\1/')
last=$("$QVX" view "$tmp/s.db" --sort Date --desc -n 1 -f jsonl | sed -E 's/.*"time":"([^"]*)".*/\1/')
check sort-order test "$first" \< "$last"
check bookmark sh -c "'$QVX' view '$tmp/s.db' --id 1000 --bookmark 2>&1 | grep -q '$errors events bookmarked'"
check bookmarked test "$("$QVX" view "$tmp/s.db" --bookmarked --count)" -eq "$errors"
check stats sh -c "'$QVX' view '$tmp/s.db' --stats | grep -q 'Top sources'"
# The counts of the top sources stay in one column whatever the names' lengths.
cp "$tmp/s.db" "$tmp/long.db"
python3 - "$tmp/long.db" <<'PY'
import sqlite3, sys
db = sqlite3.connect(sys.argv[1])
cols = [r[1] for r in db.execute("PRAGMA table_info(Events)") if r[1] != "_ID"]
for source in ("Microsoft-Windows-TerminalServices-RemoteConnectionManager", "X" * 90):
    db.execute(f"INSERT INTO Events ({','.join(cols)}) SELECT {','.join('?' if c == 'Source' else c for c in cols)} "
               "FROM Events LIMIT 1", (source,))
db.commit()
PY
check stats-aligned python3 - <<PY
import subprocess
out = subprocess.run(["$QVX", "view", "$tmp/long.db", "--stats"], capture_output=True, text=True).stdout
lines = out.split("Top sources:\n")[1].split("\n\n")[0].splitlines()
assert len(lines) >= 3 and len({len(l) for l in lines}) == 1, lines
assert any(l.strip().startswith("XXXX") and "…" in l for l in lines), lines
PY
for i in $(seq 50); do [ "$(wc -l <"$tmp/alerted.txt" 2>/dev/null || echo 0)" -ge "$errors" ] && break; sleep 0.1; done
check alerts-started test "$(wc -l <"$tmp/alerted.txt")" -eq "$errors"
check alerts-args grep -q "^1000|Application Error; touch $tmp/INJECTED$" "$tmp/alerted.txt"
check alerts-no-shell test ! -e "$tmp/INJECTED"

# A folder stands for every log in it and below it, whatever the letter case of the name
# ending; a folder without a log is refused before the store is touched.
mkdir -p "$tmp/logs/sub" "$tmp/nologs"
cp "$tmp/demo.evtx" "$tmp/logs/a.evtx"
cp "$tmp/demo.evtx" "$tmp/logs/sub/B.EVTX"
echo text >"$tmp/logs/notes.txt"
summary=$("$QVX" open "$tmp/logs" -s "$tmp/folder.db" 2>&1)
check open-folder grep -q "$((2 * all)) events loaded from 2 logs" <<<"$summary"
err=$("$QVX" open "$tmp/nologs" -s "$tmp/s.db" 2>&1)
check open-empty-folder test "$?/$err" = "1/quorvex: $tmp/nologs: no .evtx or .evt log in this folder or below it"
check open-empty-folder-store-kept test "$("$QVX" view "$tmp/s.db" --count)" -eq "$all"

# Filter texts are data: SQL in them matches nothing, wildcards are plain characters (the
# in-memory filter of "quorvex events" is the yardstick), and the store stays whole.
check source-injection test "$("$QVX" view "$tmp/s.db" --source "x') OR ('1'='1" --count)" -eq 0
check source-injection-excluded test "$("$QVX" view "$tmp/s.db" --source "!x') OR ('1'='1" --count)" -eq "$all"
check user-drop test "$("$QVX" view "$tmp/s.db" --user "'); DROP TABLE Events; --" --count)" -eq 0
check computer-quote test "$("$QVX" view "$tmp/s.db" --computer "a'b,x;y" --count)" -eq 0
for text in "%" "_" "[" "'" "--" ";" "')"; do
  expected=$("$QVX" events "$tmp/demo.evtx" --descr "$text" -f jsonl -q | wc -l)
  check "descr-literal $text" test "$("$QVX" view "$tmp/s.db" --descr "$text" --count)" -eq "$expected"
done
scm=$("$QVX" view "$tmp/s.db" --source "Service Control Manager" --count)
cat >"$tmp/hostile.xml" <<'XML'
<?xml version="1.0" encoding="UTF-8"?>
<QVEX_Filter version="1"><Filter><Sources><Source>x') OR ('1'='1</Source>
<Source>Service Control Manager</Source></Sources></Filter></QVEX_Filter>
XML
check filter-file-literal test "$("$QVX" view "$tmp/s.db" --filter "$tmp/hostile.xml" --count)" -eq "$scm"
for name in "Date; DROP TABLE Events" "]" "Source]--" "Nope" "$(printf 'Type\nDROP')"; do
  err=$("$QVX" view "$tmp/s.db" --sort "$name" 2>&1 >/dev/null)
  status=$?
  label=${name//$'\n'/\\n}
  check "sort-refused $label" test "$status" -ne 0 -a "$(wc -l <<<"$err")" -eq 1
  check "sort-named $label" grep -q '^quorvex: --sort: sort column ".*" is not a column of the event store' <<<"$err"
done
check store-whole test "$("$QVX" view "$tmp/s.db" --count)" -eq "$all"

refresh=$("$QVX" refresh "$tmp/s.db" 2>&1)
check refresh-nothing-new grep -q "0 events added" <<<"$refresh"
check refresh-notice grep -q "Only the recent events since" <<<"$refresh"
check refresh-count test "$("$QVX" view "$tmp/s.db" --count)" -eq "$all"

printf 'not a database at all, but somebody'"'"'s file%.0s' $(seq 200) >"$tmp/other.db"
cp "$tmp/other.db" "$tmp/other.bak"
err=$("$QVX" open "$tmp/demo.evtx" -s "$tmp/other.db" 2>&1)
check not-a-store-status test $? -eq 1
check not-a-store-message grep -q "not an event store" <<<"$err"
check not-a-store-untouched cmp -s "$tmp/other.db" "$tmp/other.bak"
err=$("$QVX" view "$tmp/missing.db" 2>&1)
check missing-store grep -q "no such store" <<<"$err"

exit $fail
