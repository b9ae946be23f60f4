#!/usr/bin/env bash
# Developer check (not run by CI): builds a small program against the EVTX writer, writes
# sample files and has Debian's evtxexport (libevtx-utils) and evtx_dump.py / evtx_info.py
# (python3-evtx) read them back as black boxes.
#
#   bash scripts/check_writer_with_peer.sh [--keep]
#
# Checks: exit status and an empty error stream of every run, every CRC "pass", the exact
# evtxexport XML of a file holding every value type and most tokens, record counts,
# identifiers and times of the demo log and of a multi-chunk file.
#
# Known differences of the peers (not errors of the files):
# - evtxexport prints negative signed integers as sign and magnitude (-5 as -123), prints
#   the element holding a CDATA section as the section alone, and drops an element whose
#   content is a null optional substitution; it needs the end of stream token after the
#   record's template instance (the writer always writes it).
# - evtx_dump.py does not know arrays of fixed-size types (0x86 and the like: KeyError),
#   cannot read records without a template instance, misreads CDATA sections, prints a
#   null optional attribute as Name="" and escapes processing instructions as text; it cannot
#   read an embedded fragment (0x21) holding elements without a template.
# - evtxexport wants dependency ids on elements at the top of a record (real records always
#   start with a template instance; inside 0x21 values it reads elements without them).
set -euo pipefail

keep=0
[[ "${1:-}" == "--keep" ]] && keep=1
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
work="$(mktemp -d /tmp/qvx_writer_check.XXXXXX)"
if [[ $keep == 0 ]]; then trap 'rm -rf "$work"' EXIT; else echo "files kept in $work"; fi

for tool in evtxexport evtx_dump.py evtx_info.py; do
  command -v "$tool" >/dev/null || { echo "missing $tool (apt-get install libevtx-utils python3-evtx)"; exit 2; }
done

cat > "$work/samples.cpp" <<'EOF'
#include "app/demo_log.h"
#include "engine/evtx/evtx_writer.h"

#include <string>

using namespace qvx;

static void Types(const std::string& APath) {
  TEvtxFileWriter file;
  TEvtxEventDraft e;
  e.FProviderName = "Quorvex-Check";
  e.FProviderGuid = "{01234567-89AB-CDEF-0123-456789ABCDEF}";
  e.FEventId = 42;
  e.FQualifiers = 16384;
  e.FVersion = 1;
  e.FLevel = 3;
  e.FTask = 7;
  e.FOpcode = 2;
  e.FKeywords = 0x8000000000000001ull;
  e.FTimeCreated = EvtxFileTime(2024, 2, 29, 23, 59, 58, 1234567);
  e.FActivityId = "{11111111-2222-3333-4444-555555555555}";
  e.FProcessId = 4242;
  e.FThreadId = 77;
  e.FChannel = "Application";
  e.FComputer = "HOST-01";
  e.FUserId = "S-1-5-21-1004336348-1177238915-682003330-512";
  const uint16_t shorts[3] = {1, 2, 65535};
  e.FData = {
      {"Str", TEvtxValue::String("h\u00E9llo <&> \"q\" \u20AC")},
      {"Ansi", TEvtxValue::AnsiString("ansi")},
      {"I8", TEvtxValue::Int8(5)},
      {"U8", TEvtxValue::UInt8(250)},
      {"I16", TEvtxValue::Int16(300)},
      {"U16", TEvtxValue::UInt16(65000)},
      {"I32", TEvtxValue::Int32(70000)},
      {"U32", TEvtxValue::UInt32(4000000000u)},
      {"I64", TEvtxValue::Int64(5000000000ll)},
      {"U64", TEvtxValue::UInt64(18000000000000000000ull)},
      {"F32", TEvtxValue::Real32(1.5f)},
      {"F64", TEvtxValue::Real64(-2.25)},
      {"Bool", TEvtxValue::Bool(true)},
      {"Bin", TEvtxValue::Binary(std::vector<uint8_t>{0xDE, 0xAD, 0xBE, 0xEF})},
      {"Guid", TEvtxValue::Guid("{FEDCBA98-7654-3210-FEDC-BA9876543210}")},
      {"Size", TEvtxValue::SizeT(4660)},
      {"FileTime", TEvtxValue::FileTime(EvtxFileTime(2023, 12, 31, 23, 59, 58, 9999999))},
      {"SystemTime", TEvtxValue::SystemTime(2023, 12, 0, 31, 23, 59, 58, 123)},
      {"Sid", TEvtxValue::Sid("S-1-5-18")},
      {"Hex32", TEvtxValue::Hex32(0xBEEF)},
      {"Hex64", TEvtxValue::Hex64(0xDEADBEEFull)},
      {"Strings", TEvtxValue::StringArray({"one", "two"})},
      {"Shorts", TEvtxValue::UInt16Array(shorts)},
      {"Empty", TEvtxValue::String("")},
      {"", TEvtxValue::String("unnamed")},
  };
  e.FBinary = std::vector<uint8_t>{0x77, 0x00, 0x00, 0x00};
  file.AddEvent(e);

  // A record of plain tokens: attributes, entity reference, processing instruction. (At the
  // top of a record evtxexport wants the elements' dependency ids, hence 0xFFFF.)
  file.AddRecord(EvtxFileTime(2024, 3, 1), [](TBinXmlWriter& w) {
    w.FragmentHeader();
    w.OpenElement("Event", 0xFFFF);
    w.CloseStartElement();
    w.OpenElement("A", 0xFFFF);
    w.Attribute("x");
    w.Text("1");
    w.Attribute("y");
    w.Text("2");
    w.CloseStartElement();
    w.Text("fish");
    w.EntityReference("amp");
    w.Text("chips");
    w.EndElement();
    w.PITarget("xml-stylesheet");
    w.PIData("href=\"a.xsl\"");
    w.OpenElement("A", 0xFFFF);
    w.CloseEmptyElement();
    w.EndElement();
    w.EndOfStream();
  });

  // UserData holding an embedded fragment, twice (the second refers to the definitions).
  auto inner = std::make_shared<TEvtxTemplate>("check.inner", [](TBinXmlWriter& w) {
    w.OpenElement("Inner");
    w.Attribute("xmlns");
    w.Text("urn:check");
    w.CloseStartElement();
    w.SubstitutionElement("V", 0, EvtxType::UInt32);
    w.EndElement();
  });
  for (uint32_t i = 0; i < 3; ++i) {
    TEvtxEventDraft u;
    u.FProviderName = "Quorvex-Check";
    u.FEventId = 43;
    u.FTimeCreated = EvtxFileTime(2024, 3, 2) + i;
    u.FChannel = "Application";
    u.FComputer = "HOST-01";
    if (i < 2) {
      // with the fragment header, then without it (both are found in logs)
      u.FUserData = TEvtxValue::BinXml(inner, {TEvtxValue::UInt32(7 + i)}, true, i == 0);
    } else {
      // elements without a template (and so without dependency ids), as some UserData is
      u.FUserData = TEvtxValue::BinXmlContent([](TBinXmlWriter& w) {
        w.OpenElement("Plain");
        w.Attribute("n");
        w.Text("9");
        w.CloseStartElement();
        w.Text("txt");
        w.EndElement();
        w.EndOfStream();
      });
    }
    file.AddEvent(u);
  }
  file.WriteFile(APath);
}

static void Many(const std::string& APath, uint64_t ACount) {
  TEvtxFileWriter file(APath);
  for (uint64_t i = 0; i < ACount; ++i) {
    TEvtxEventDraft e;
    e.FProviderName = "Quorvex-Check";
    e.FEventId = static_cast<uint16_t>(1 + i % 5);
    e.FTimeCreated = EvtxFileTime(2024, 1, 1) + i * 10000000ull;
    e.FChannel = "Application";
    e.FComputer = "HOST-" + std::to_string(i % 3);
    e.FData = {{"N", TEvtxValue::UInt64(i)}, {"Text", TEvtxValue::String(std::string(i % 200, 'x'))}};
    if (i % 7 == 0) e.FData.push_back({"Extra", TEvtxValue::Guid("{00000000-0000-0000-0000-000000000007}")});
    file.AddEvent(e);
  }
  file.Close();
}

int main(int argc, char** argv) {
  (void)argc;
  std::string dir = argv[1];
  Types(dir + "/types.evtx");
  Many(dir + "/many.evtx", 5000);
  WriteDemoLog(dir + "/demo.evtx");
  return 0;
}
EOF

echo "building the sample writer"
"${CXX:-g++}" -std=c++20 -O1 -I"$root/src" "$work/samples.cpp" "$root/src/engine/evtx/evtx_writer.cpp" \
  "$root/src/app/demo_log.cpp" "$root/src/platform/utf16.cpp" -o "$work/samples"
"$work/samples" "$work"

failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

export_xml() { # file -> file.xml; errors are failures
  if ! evtxexport -f xml "$1" > "$1.xml" 2> "$1.err"; then fail "evtxexport $1: $(head -3 "$1.err")"; fi
  if grep -v -e '^evtxexport ' -e '^$' "$1.err" | grep -q .; then fail "evtxexport $1 wrote errors"; fi
  sed -i -e '1{/^evtxexport /d}' "$1.xml"
}

check_crcs() {
  if ! evtx_info.py "$1" > "$1.info" 2>&1; then fail "evtx_info.py $1"; return; fi
  grep -q 'Check sum *: pass' "$1.info" || fail "$1: file header CRC"
  if grep -E '^\s*[>* ]\s+[0-9]+ ' "$1.info" | grep -q fail; then fail "$1: chunk CRC"; fi
}

for f in types many demo; do check_crcs "$work/$f.evtx"; export_xml "$work/$f.evtx"; done

# ---- types.evtx: exact evtxexport output ------------------------------------------------
cat > "$work/types.expected" <<'EOF'

<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
  <System>
    <Provider Name="Quorvex-Check" Guid="{01234567-89AB-CDEF-0123-456789ABCDEF}"/>
    <EventID Qualifiers="16384">42</EventID>
    <Version>1</Version>
    <Level>3</Level>
    <Task>7</Task>
    <Opcode>2</Opcode>
    <Keywords>0x8000000000000001</Keywords>
    <TimeCreated SystemTime="2024-02-29T23:59:58.123456700Z"/>
    <EventRecordID>1</EventRecordID>
    <Correlation ActivityID="{11111111-2222-3333-4444-555555555555}"/>
    <Execution ProcessID="4242" ThreadID="77"/>
    <Channel>Application</Channel>
    <Computer>HOST-01</Computer>
    <Security UserID="S-1-5-21-1004336348-1177238915-682003330-512"/>
  </System>
  <EventData>
    <Data Name="Str">héllo &lt;&amp;&gt; "q" €</Data>
    <Data Name="Ansi">ansi</Data>
    <Data Name="I8">5</Data>
    <Data Name="U8">250</Data>
    <Data Name="I16">300</Data>
    <Data Name="U16">65000</Data>
    <Data Name="I32">70000</Data>
    <Data Name="U32">4000000000</Data>
    <Data Name="I64">5000000000</Data>
    <Data Name="U64">18000000000000000000</Data>
    <Data Name="F32">1.500000e+000</Data>
    <Data Name="F64">-2.250000e+000</Data>
    <Data Name="Bool">true</Data>
    <Data Name="Bin">DEADBEEF</Data>
    <Data Name="Guid">{FEDCBA98-7654-3210-FEDC-BA9876543210}</Data>
    <Data Name="Size">4660</Data>
    <Data Name="FileTime">2023-12-31T23:59:58.999999900Z</Data>
    <Data Name="SystemTime">2023-12-31T23:59:58.123Z</Data>
    <Data Name="Sid">S-1-5-18</Data>
    <Data Name="Hex32">0x0000beef</Data>
    <Data Name="Hex64">0x00000000deadbeef</Data>
    <Data Name="Strings">one</Data>
    <Data Name="Strings">two</Data>
    <Data Name="Shorts">1</Data>
    <Data Name="Shorts">2</Data>
    <Data Name="Shorts">65535</Data>
    <Data Name="Empty"/>
    <Data>unnamed</Data>
    <Binary>77000000</Binary>
  </EventData>
</Event>

<Event>
  <A x="1" y="2">fish&amp;chips</A>
  <?xml-stylesheet href="a.xsl"?>
  <A/>
</Event>

<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
  <System>
    <Provider Name="Quorvex-Check"/>
    <EventID>43</EventID>
    <Version>0</Version>
    <Level>4</Level>
    <Task>0</Task>
    <Opcode>0</Opcode>
    <Keywords>0x8000000000000000</Keywords>
    <TimeCreated SystemTime="2024-03-02T00:00:00.000000000Z"/>
    <EventRecordID>3</EventRecordID>
    <Correlation/>
    <Execution ProcessID="0" ThreadID="0"/>
    <Channel>Application</Channel>
    <Computer>HOST-01</Computer>
    <Security/>
  </System>
  <UserData>
    <Inner xmlns="urn:check">
      <V>7</V>
    </Inner>
  </UserData>
</Event>

<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
  <System>
    <Provider Name="Quorvex-Check"/>
    <EventID>43</EventID>
    <Version>0</Version>
    <Level>4</Level>
    <Task>0</Task>
    <Opcode>0</Opcode>
    <Keywords>0x8000000000000000</Keywords>
    <TimeCreated SystemTime="2024-03-02T00:00:00.000000100Z"/>
    <EventRecordID>4</EventRecordID>
    <Correlation/>
    <Execution ProcessID="0" ThreadID="0"/>
    <Channel>Application</Channel>
    <Computer>HOST-01</Computer>
    <Security/>
  </System>
  <UserData>
    <Inner xmlns="urn:check">
      <V>8</V>
    </Inner>
  </UserData>
</Event>

<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
  <System>
    <Provider Name="Quorvex-Check"/>
    <EventID>43</EventID>
    <Version>0</Version>
    <Level>4</Level>
    <Task>0</Task>
    <Opcode>0</Opcode>
    <Keywords>0x8000000000000000</Keywords>
    <TimeCreated SystemTime="2024-03-02T00:00:00.000000200Z"/>
    <EventRecordID>5</EventRecordID>
    <Correlation/>
    <Execution ProcessID="0" ThreadID="0"/>
    <Channel>Application</Channel>
    <Computer>HOST-01</Computer>
    <Security/>
  </System>
  <UserData>
    <Plain n="9">txt</Plain>
  </UserData>
</Event>

EOF
if ! diff -u "$work/types.expected" "$work/types.evtx.xml" > "$work/types.diff"; then
  fail "types.evtx: evtxexport output differs:"
  cat "$work/types.diff"
fi

# ---- many.evtx and demo.evtx: counts, identifiers, times ---------------------------------
check_sequence() { # file.xml expected-count
  python3 - "$1" "$2" <<'EOF' || fail "$1"
import re, sys
text = open(sys.argv[1], encoding="utf-8").read()
want = int(sys.argv[2])
ids = [int(v) for v in re.findall(r"<EventRecordID>(\d+)<", text)]
times = re.findall(r'<TimeCreated SystemTime="([^"]+)"', text)
ok = ids == list(range(1, want + 1)) and len(times) == want and all(a < b for a, b in zip(times, times[1:]))
print(f"{sys.argv[1].rsplit('/', 1)[-1]}: {len(ids)} records, identifiers and times in order: {ok}")
sys.exit(0 if ok else 1)
EOF
}
check_sequence "$work/many.evtx.xml" 5000
check_sequence "$work/demo.evtx.xml" 300

# ---- evtx_dump.py on the files it can read ----------------------------------------------
if evtx_dump.py "$work/many.evtx" > "$work/many.py.xml" 2> "$work/many.py.err"; then
  n=$(grep -c '^<Event ' "$work/many.py.xml" || true)
  [[ "$n" == 5000 ]] || fail "evtx_dump.py many.evtx: $n events"
  grep -q '<Data Name="N">4999</Data>' "$work/many.py.xml" || fail "evtx_dump.py many.evtx: last value"
else
  fail "evtx_dump.py many.evtx: $(tail -1 "$work/many.py.err")"
fi

if [[ $failures == 0 ]]; then echo "writer check: OK"; else echo "writer check: $failures failure(s)"; fi
exit $((failures == 0 ? 0 : 1))
