#!/usr/bin/env python3
"""Differential check of Quorvex's XML against evtxexport's, record by record.

For every .evtx file under SAMPLES/evtx (or the files named on the command line):

    quorvex dump --wrap -q FILE      one well-formed document
    evtxexport -f xml FILE           Debian's libevtx-utils, run as a black box

Both outputs are parsed with xml.etree, the records are paired by
System/EventRecordID, and each pair is compared as a tree: element names
(namespaces stripped), attributes, text and the text after each child (line ends
folded to LF, whitespace-only text dropped, leading/trailing whitespace stripped),
and the children in order.

Documented differences
======================
The two programs write some values differently. Each difference below was found by
running this check on the shared samples and looking at the bytes of the records
concerned; each is pure text format (one value, two spellings) and is normalised
before comparing. A value rule is tried only when the two texts differ, so a string
that merely looks like a date or a number is compared as it is. The summary counts
how often each one was met.

 N1  FILETIME digits. Quorvex writes seven digits of the fraction of the second, as
     Windows renders event XML; evtxexport writes nine, whose last two are always 0
     (the value has 100 ns resolution). The values must be equal to the digit.
         quorvex     2022-10-11T19:26:52.0456558Z
         evtxexport  2022-10-11T19:26:52.045655800Z

 N2  Hexadecimal letter case and prefix. Quorvex writes upper-case hex digits, and
     32-bit hex values (type 0x14) with an "0X" prefix; evtxexport writes lower-case
     digits and "0x". A value that is one hex number or one GUID as a whole is
     compared without regard to case.
         quorvex     0x000000000004424D   0X00000000
         evtxexport  0x000000000004424d   0x00000000

 N3  Empty optional values. An optional substitution (token 0x0E) that is empty
     leaves out the attribute it fills in both programs. For an element whose whole
     content is such a value, Quorvex writes the element empty and evtxexport leaves
     it out; seen in classic events' EventData:
         quorvex     <EventData><Data>Test log message</Data><Binary></Binary></EventData>
         evtxexport  <EventData><Data>Test log message</Data></EventData>
     An empty Quorvex element (no attributes, text or children) with no counterpart
     is therefore passed over, and so is an attribute that is empty on one side and
     missing on the other. An element that evtxexport has and Quorvex lacks is
     always reported.

 N4  Characters XML 1.0 cannot carry (U+0000-U+0008, U+000B, U+000C, U+000E-U+001F).
     Quorvex writes each as a space so its output stays well-formed; evtxexport
     writes them raw, which no XML parser accepts.
         quorvex     <Data Name="QNAME">b._dns-sd._udp.@¦5 .</Data>
         evtxexport  <Data Name="QNAME">b._dns-sd._udp.@¦5\\x01.</Data>
     They are replaced by a space in evtxexport's output before parsing.

 N5  Markup characters in values. Quorvex escapes & < > " ' in every value;
     evtxexport writes many string values raw, so a value holding markup either
     breaks its record or turns into elements when parsed.
         quorvex     <Data Name="Value">&lt;S:Envelope&gt;&lt;S:Header&gt;...</Data>
         evtxexport  <Data Name="Value"><S:Envelope><S:Header>...</Data>
     evtxexport puts a leaf element's text on the line of its start tag and each
     child element on a line of its own, so the text of every leaf element is
     escaped again before parsing ('<' always, '&' unless it already starts an
     entity or character reference).

evtxexport's own faults
=======================
Where the two disagree and the bytes of the record show that evtxexport is wrong,
the case is listed here. It is counted and shown, but does not fail the check
(--strict makes it fail).

 E1  Negative signed integers. evtxexport prints them as sign and magnitude of the
     raw bits, so an Int32 holding FF FF FF FF comes out as -2147483647 instead of
     -1, and the HRESULT 0x80048869 as -297065 instead of -2147186583.
         Win10_APTSimulatorVM/System.evtx, record 34,
         EventData/Data[@Name=MinimumPasswordLengthAudit]: quorvex -1, evtxexport -2147483647

 E2  Files evtxexport stops reading. On a binary XML token it does not know
     ("unsupported type: 0x49" in a CAPI2 log, 0x05 in an attribute of a forwarded
     MSExchange event) it prints "Unable to export file." and exits with 1. The
     records it never printed are listed as not compared; a record evtxexport printed
     that still does not parse after N4 and N5 is listed the same way.

Exit status: 0 when every record agrees after the normalisations above, 1 when
anything else differs (a mismatching record, a record only one side has, a quorvex
failure or output that is not well-formed), 77 when evtxexport or the samples are
missing (ctest's skip), 2 for usage errors.
"""

from __future__ import annotations

import argparse
import concurrent.futures
import os
import re
import shutil
import subprocess
import sys
import xml.etree.ElementTree as ET
from dataclasses import dataclass, field
from pathlib import Path

SKIP = 77
REPO = Path(__file__).resolve().parent.parent.parent

# ---------------------------------------------------------------------------
# Values (N1, N2, E1)

_FILETIME = re.compile(r"^(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)\.(\d+)Z$")
_HEX = re.compile(r"^0[xX]([0-9a-fA-F]+)$")
_GUID = re.compile(r"^\{[0-9a-fA-F]{8}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{4}-[0-9a-fA-F]{12}\}$")
_INT = re.compile(r"^-?\d+$")


def _filetime(text: str, side: str):
    m = _FILETIME.match(text)
    if not m:
        return None
    frac = m.group(2)
    if side == "q" and len(frac) == 7:
        return f"{m.group(1)}.{frac}"
    if side == "e" and len(frac) == 9 and frac.endswith("00"):
        return f"{m.group(1)}.{frac[:7]}"
    return None


def _hex(text: str, side: str):
    m = _HEX.match(text)
    if m:
        return "0x" + m.group(1).upper()
    if _GUID.match(text):
        return text.upper()
    return None


VALUE_RULES = (("N1 FILETIME digits", _filetime), ("N2 hex case", _hex))


def _e1_negative_int(q: str, e: str) -> bool:
    if not (_INT.match(q) and _INT.match(e)):
        return False
    qv, ev = int(q), int(e)
    return qv < 0 and any(ev == -(qv + (1 << (bits - 1))) for bits in (8, 16, 32, 64))


PEER_FAULTS = (("E1 evtxexport negative integer", _e1_negative_int),)


def count(hits: dict, name: str, n: int = 1) -> None:
    hits[name] = hits.get(name, 0) + n


def same_value(q: str, e: str, hits: dict) -> bool:
    if q == e:
        return True
    for name, canon in VALUE_RULES:
        cq = canon(q, "q")
        if cq is not None and cq == canon(e, "e"):
            count(hits, name)
            return True
    for name, test in PEER_FAULTS:
        if test(q, e):
            count(hits, name)
            return True
    return False


# ---------------------------------------------------------------------------
# Reading the two outputs

_XML_BAD = re.compile("[\x00-\x08\x0b\x0c\x0e-\x1f]")  # N4
_EVENT_BLOCK = re.compile(r"^<Event[ >].*?^</Event>[ \t]*$", re.M | re.S)
_RID_TEXT = re.compile(r"<EventRecordID>\s*(\d+)\s*</EventRecordID>")
_START_TAG = re.compile(r"^([ \t]*)<([A-Za-z_][\w.:-]*)((?:\s+[\w.:-]+=\"[^\"]*\")*)>(.*)$", re.S)
_ENTITY = re.compile(r"&(?:amp|lt|gt|quot|apos|#[0-9]+|#x[0-9a-fA-F]+);")


def local(tag: str) -> str:
    return tag.rsplit("}", 1)[-1] if tag.startswith("{") else tag


def record_id(ev: ET.Element):
    for part in ev:
        if local(part.tag) == "System":
            for c in part:
                if local(c.tag) == "EventRecordID":
                    return (c.text or "").strip()
    return None


def _escape_text(text: str) -> str:
    out = []
    i = 0
    while i < len(text):
        ch = text[i]
        if ch == "&":
            m = _ENTITY.match(text, i)
            if m:
                out.append(m.group(0))
                i = m.end()
                continue
            out.append("&amp;")
        elif ch == "<":
            out.append("&lt;")
        elif ch == ">" and text.endswith("]]", 0, i):
            out.append("&gt;")
        else:
            out.append(ch)
        i += 1
    return "".join(out)


def escape_leaf_text(block: str) -> str:
    """N5: escapes the text of every leaf element of one evtxexport record."""
    lines = block.split("\n")
    out = []
    i = 0
    while i < len(lines):
        m = _START_TAG.match(lines[i])
        if not m or not m.group(4):
            out.append(lines[i])
            i += 1
            continue
        indent, name = m.group(1), m.group(2)
        close = f"</{name}>"
        next_markup = re.compile(r"^[ \t]{0,%d}<" % len(indent))
        # The text runs to a line that ends with the end tag and is followed by markup
        # at this depth or above (or by nothing).
        j = i
        body = [m.group(4)]
        while True:
            following = lines[j + 1] if j + 1 < len(lines) else None
            if following is None or (body[-1].endswith(close) and next_markup.match(following)):
                break
            j += 1
            body.append(lines[j])
        text = "\n".join(body)
        if text.endswith(close):
            out.append(f"{indent}<{name}{m.group(3)}>{_escape_text(text[: -len(close)])}{close}")
        else:
            out.extend(lines[i : j + 1])
        i = j + 1
    return "\n".join(out)


def keep_cr(data: bytes) -> bytes:
    """Carriage returns as character references, so the parser keeps them (values compare with their own line breaks).

    Only inside the root element: no character reference may stand before or after it."""
    at, end = data.find(b"<Events"), data.rfind(b"</Events>")
    if at < 0 or end < at:
        return data
    return data[:at] + data[at:end].replace(b"\r", b"&#13;") + data[end:]


@dataclass
class Side:
    records: list = field(default_factory=list)  # (record id, element)
    unparsed: list = field(default_factory=list)  # (record id or None, message)
    control: int = 0  # records N4 changed
    escaped: int = 0  # records N5 changed
    status: int = 0
    stderr: str = ""
    error: str = ""


def read_quorvex(data: bytes, side: Side) -> None:
    data = keep_cr(data)
    try:
        for ev in ET.fromstring(data):
            side.records.append((record_id(ev), ev))
        return
    except ET.ParseError as ex:
        side.error = f"the document is not well-formed ({ex}); read record by record"
    text = data.decode("utf-8", "replace")
    for m in re.finditer(r"<Event[ >].*?</Event>", text, re.S):
        try:
            ev = ET.fromstring(m.group(0))
            side.records.append((record_id(ev), ev))
        except ET.ParseError as ex:
            rid = _RID_TEXT.search(m.group(0))
            side.unparsed.append((rid.group(1) if rid else None, str(ex)))


def read_evtxexport(data: bytes, side: Side) -> None:
    # The output is a version line, then records separated by blank lines.
    text = data.decode("utf-8", "replace")
    for m in _EVENT_BLOCK.finditer(text):
        block = m.group(0)
        if _XML_BAD.search(block):
            side.control += 1
            block = _XML_BAD.sub(" ", block)  # N4
        fixed = escape_leaf_text(block)  # N5
        side.escaped += fixed != block
        try:
            ev = ET.fromstring(fixed.replace("\r", "&#13;"))
        except ET.ParseError as ex:
            rid = _RID_TEXT.search(block)
            side.unparsed.append((rid.group(1) if rid else None, str(ex)))
            continue
        side.records.append((record_id(ev), ev))


# ---------------------------------------------------------------------------
# Comparing

def clean_text(t) -> str:
    """Text as XML reads it (line ends folded to LF), without surrounding whitespace."""
    return (t or "").replace("\r\n", "\n").replace("\r", "\n").strip()


def is_empty(el: ET.Element) -> bool:
    """No attributes, no children, no text, nothing after it (N3)."""
    return not el.attrib and len(el) == 0 and not clean_text(el.text) and not clean_text(el.tail)


def step_names(children: list) -> list:
    names = [local(c.tag) for c in children]
    seen: dict = {}
    out = []
    for c, name in zip(children, names):
        if c.attrib.get("Name") is not None:
            out.append(f"{name}[@Name={c.attrib['Name']}]")
        elif names.count(name) > 1:
            seen[name] = seen.get(name, 0) + 1
            out.append(f"{name}[{seen[name]}]")
        else:
            out.append(name)
    return out


def render(el: ET.Element) -> str:
    copy = ET.Element(el.tag, el.attrib)
    copy.text = el.text
    copy.extend(list(el))
    text = ET.tostring(copy, "unicode").replace("&#13;", "").replace("\r", "")
    return re.sub(r' xmlns:ns0="[^"]*"', "", text).replace("ns0:", "")


def compare(q: ET.Element, e: ET.Element, path: str, diffs: list, hits: dict) -> None:
    qn, en = local(q.tag), local(e.tag)
    if qn != en:
        diffs.append((path, "element name", qn, en))
        return
    qa = {local(k): v for k, v in q.attrib.items()}
    ea = {local(k): v for k, v in e.attrib.items()}
    for k in sorted(set(qa) | set(ea)):
        if k in qa and k in ea:
            if not same_value(qa[k], ea[k], hits):
                diffs.append((f"{path}/@{k}", "attribute", qa[k], ea[k]))
        elif (qa[k] if k in qa else ea[k]) == "":
            count(hits, "N3 empty optional value")
        else:
            diffs.append((f"{path}/@{k}", "attribute", qa.get(k), ea.get(k)))
    if not same_value(clean_text(q.text), clean_text(e.text), hits):
        diffs.append((path, "text", clean_text(q.text), clean_text(e.text)))
    align_children(list(q), list(e), path, diffs, hits)


def compare_pair(q: ET.Element, e: ET.Element, path: str, diffs: list, hits: dict) -> None:
    """Two paired children: the elements, then the text after each."""
    compare(q, e, path, diffs, hits)
    qt, et = clean_text(q.tail), clean_text(e.tail)
    if not same_value(qt, et, hits):
        diffs.append((f"{path}/following-text", "text", qt, et))


def align_children(qc: list, ec: list, path: str, diffs: list, hits: dict) -> None:
    qnames, enames = step_names(qc), step_names(ec)
    n, m = len(qc), len(ec)

    def only_q(i, into, h):
        if is_empty(qc[i]):
            count(h, "N3 empty optional value")
        else:
            into.append((f"{path}/{qnames[i]}", "only in quorvex", render(qc[i]), None))

    def only_e(j, into):
        into.append((f"{path}/{enames[j]}", "only in evtxexport", None, render(ec[j])))

    if n == m or n * m > 40000:
        for i in range(max(n, m)):
            if i >= n:
                only_e(i, diffs)
            elif i >= m:
                only_q(i, diffs, hits)
            else:
                compare_pair(qc[i], ec[i], f"{path}/{qnames[i]}", diffs, hits)
        return
    # The counts differ: align the lists (edit distance), letting an empty Quorvex element
    # stand for one evtxexport leaves out (N3). Whatever else is left over is reported.
    memo: dict = {}

    def pair(i, j):
        if (i, j) not in memo:
            d: list = []
            h: dict = {}
            compare_pair(qc[i], ec[j], f"{path}/{qnames[i]}", d, h)
            memo[(i, j)] = (d, h)
        return memo[(i, j)]

    inf = float("inf")
    cost = [[inf] * (m + 1) for _ in range(n + 1)]
    move = [[""] * (m + 1) for _ in range(n + 1)]
    cost[n][m] = 0
    for i in range(n, -1, -1):
        for j in range(m, -1, -1):
            if i == n and j == m:
                continue
            best, how = inf, ""
            if i < n and j < m and local(qc[i].tag) == local(ec[j].tag):
                best, how = (1 if pair(i, j)[0] else 0) + cost[i + 1][j + 1], "pair"
            if i < n and (0 if is_empty(qc[i]) else 2) + cost[i + 1][j] < best:
                best, how = (0 if is_empty(qc[i]) else 2) + cost[i + 1][j], "q"
            if j < m and 2 + cost[i][j + 1] < best:
                best, how = 2 + cost[i][j + 1], "e"
            cost[i][j], move[i][j] = best, how
    i = j = 0
    while i < n or j < m:
        how = move[i][j]
        if how == "pair":
            d, h = pair(i, j)
            diffs.extend(d)
            for k, v in h.items():
                count(hits, k, v)
            i, j = i + 1, j + 1
        elif how == "q":
            only_q(i, diffs, hits)
            i += 1
        else:
            only_e(j, diffs)
            j += 1


def pair_records(qrecs: list, erecs: list):
    """Pairs records by EventRecordID. When an ID occurs more than once (a chunk kept twice),
    identical records are paired first and the rest in order."""
    by_q: dict = {}
    by_e: dict = {}
    for rid, ev in qrecs:
        by_q.setdefault(rid, []).append(ev)
    for rid, ev in erecs:
        by_e.setdefault(rid, []).append(ev)
    pairs, only_q, only_e = [], [], []
    for rid, qs in by_q.items():
        es = list(by_e.get(rid, []))
        if len(qs) > 1 or len(es) > 1:
            rest = []
            for qev in qs:
                for k, eev in enumerate(es):
                    d: list = []
                    compare(qev, eev, "Event", d, {})
                    if not d:
                        pairs.append((rid, qev, es.pop(k)))
                        break
                else:
                    rest.append(qev)
            qs = rest
        pairs += [(rid, qev, eev) for qev, eev in zip(qs, es)]
        only_q += [rid] * max(0, len(qs) - len(es))
        only_e += [rid] * max(0, len(es) - len(qs))
    for rid, es in by_e.items():
        if rid not in by_q:
            only_e += [rid] * len(es)
    return pairs, only_q, only_e


@dataclass
class FileResult:
    path: str
    n_quorvex: int = 0
    n_evtxexport: int = 0
    matched: int = 0
    only_q: list = field(default_factory=list)
    only_e: list = field(default_factory=list)
    not_compared: list = field(default_factory=list)  # E2: ids evtxexport did not give
    mismatched: list = field(default_factory=list)  # (record id, [(path, kind, quorvex, evtxexport)])
    notes: list = field(default_factory=list)
    hits: dict = field(default_factory=dict)  # documented differences and evtxexport faults met
    quorvex_failed: bool = False

    def failed(self, strict: bool) -> bool:
        peer = bool(self.not_compared or any(k.startswith("E") for k in self.hits))
        return bool(self.mismatched or self.only_q or self.only_e or self.quorvex_failed or (strict and peer))


def run(cmd: list, timeout: float):
    try:
        p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout)
        return p.returncode, p.stdout, p.stderr.decode("utf-8", "replace")
    except subprocess.TimeoutExpired:
        return -1, b"", f"timed out after {timeout:g} s"
    except OSError as ex:
        return -1, b"", str(ex)


def check_file(path: str, quorvex: str, evtxexport: str, timeout: float) -> FileResult:
    res = FileResult(path)
    q, e = Side(), Side()
    q.status, qout, q.stderr = run([quorvex, "dump", "--wrap", "-q", path], timeout)
    e.status, eout, e.stderr = run([evtxexport, "-f", "xml", path], timeout)
    read_quorvex(qout, q)
    read_evtxexport(eout, e)
    res.n_quorvex, res.n_evtxexport = len(q.records), len(e.records)
    if q.status != 0:
        res.notes.append(f"quorvex exited with {q.status}: {q.stderr.strip()[:300]}")
        res.quorvex_failed = True
    if q.error:
        res.notes.append(f"quorvex: {q.error}")
        res.quorvex_failed = True
    if q.unparsed:
        rid, msg = q.unparsed[0]
        res.notes.append(f"quorvex: {len(q.unparsed)} record(s) not well-formed, e.g. record {rid}: {msg}")
        res.quorvex_failed = True
    if q.stderr.strip() and q.status == 0:
        lines = q.stderr.strip().splitlines()
        res.notes.append(f"quorvex said ({len(lines)} line(s)): {lines[0][:240]}")
    if e.status != 0:
        lines = [ln for ln in e.stderr.splitlines() if ln.strip()]
        res.notes.append(f"evtxexport exited with {e.status} after {len(e.records) + len(e.unparsed)} record(s) (E2): "
                         + " / ".join(lines[:2])[:300])
    if e.unparsed:
        rid, msg = e.unparsed[0]
        res.notes.append(f"evtxexport: {len(e.unparsed)} record(s) that do not parse, e.g. record {rid}: {msg} (E2)")
    if e.control:
        count(res.hits, "N4 control characters", e.control)
    if e.escaped:
        count(res.hits, "N5 markup in evtxexport values", e.escaped)

    pairs, only_q, res.only_e = pair_records(q.records, e.records)
    unparsed_e = [rid for rid, _ in e.unparsed]
    for rid in only_q:
        if rid in unparsed_e:
            unparsed_e.remove(rid)
            res.not_compared.append(rid)
        elif e.status != 0:
            res.not_compared.append(rid)  # evtxexport stopped before it
        else:
            res.only_q.append(rid)
    res.matched = len(pairs)
    for rid, qev, eev in pairs:
        d: list = []
        compare(qev, eev, "Event", d, res.hits)
        if d:
            res.mismatched.append((rid, d))
    return res


# ---------------------------------------------------------------------------

def default_samples() -> Path:
    env = os.environ.get("QVX_SAMPLES_DIR")
    return Path(env) if env else REPO.parent / "shared" / "samples"


def short(v, n: int = 200) -> str:
    if v is None:
        return "(absent)"
    s = repr(v)
    return s if len(s) <= n else s[: n - 3] + "..."


def ids(values: list) -> str:
    head = ", ".join(str(v) for v in values[:10])
    return head + (f" ... ({len(values)} in all)" if len(values) > 10 else "")


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description="Compare 'quorvex dump' with 'evtxexport -f xml', record by record. "
                                             "The documented differences are listed at the top of this script.")
    ap.add_argument("files", nargs="*", help=".evtx files (default: every .evtx under SAMPLES/evtx)")
    ap.add_argument("--quorvex", default=str(REPO / "build" / "src" / "app" / "quorvex"),
                    help="the quorvex program (default: %(default)s)")
    ap.add_argument("--evtxexport", default="evtxexport", help="the evtxexport program (default: from PATH)")
    ap.add_argument("--samples", type=Path, default=default_samples(),
                    help="samples folder (default: $QVX_SAMPLES_DIR, else <repo>/../shared/samples)")
    ap.add_argument("--max-diffs", type=int, default=3, metavar="N",
                    help="differences shown per mismatching record (default 3)")
    ap.add_argument("--max-records", type=int, default=3, metavar="N",
                    help="mismatching records shown per file (default 3)")
    ap.add_argument("--jobs", "-j", type=int, default=os.cpu_count() or 1, metavar="N",
                    help="files checked in parallel (default: one per core)")
    ap.add_argument("--timeout", type=float, default=300, help="seconds allowed to each program run (default 300)")
    ap.add_argument("--strict", action="store_true", help="evtxexport's own faults (E1, E2) fail the check too")
    ap.add_argument("-v", "--verbose", action="store_true", help="report every file, also those that agree")
    args = ap.parse_args(argv)

    evtxexport = shutil.which(args.evtxexport)
    if not evtxexport:
        print(f"SKIP: {args.evtxexport} not found (Debian package libevtx-utils)")
        return SKIP
    if not (os.path.isfile(args.quorvex) and os.access(args.quorvex, os.X_OK)):
        print(f"error: no quorvex program at {args.quorvex} (use --quorvex)", file=sys.stderr)
        return 2
    if args.files:
        files = [str(f) for f in args.files]
        missing = [f for f in files if not os.path.isfile(f)]
        if missing:
            print(f"error: no such file: {', '.join(missing)}", file=sys.stderr)
            return 2
    else:
        root = args.samples / "evtx"
        files = sorted(str(p) for p in root.rglob("*.evtx")) if root.is_dir() else []
        if not files:
            print(f"SKIP: no .evtx samples under {root}")
            return SKIP

    with concurrent.futures.ProcessPoolExecutor(max_workers=max(1, args.jobs)) as pool:
        results = list(pool.map(check_file, files, [args.quorvex] * len(files), [evtxexport] * len(files),
                                [args.timeout] * len(files)))

    base = str(args.samples) + os.sep
    tot = dict(q=0, e=0, matched=0, only_q=0, only_e=0, not_compared=0, mism=0, failed=0)
    hits: dict = {}
    for r in results:
        for k, v in r.hits.items():
            count(hits, k, v)
        failed = r.failed(args.strict)
        tot["q"] += r.n_quorvex
        tot["e"] += r.n_evtxexport
        tot["matched"] += r.matched
        tot["only_q"] += len(r.only_q)
        tot["only_e"] += len(r.only_e)
        tot["not_compared"] += len(r.not_compared)
        tot["mism"] += len(r.mismatched)
        tot["failed"] += failed
        peer = r.not_compared or any(k.startswith("E") for k in r.hits)
        if not (failed or peer or args.verbose):
            continue
        name = r.path[len(base):] if r.path.startswith(base) else r.path
        print(f"{'FAIL' if failed else 'ok  '} {name}: quorvex {r.n_quorvex}, evtxexport {r.n_evtxexport}, "
              f"matched {r.matched}, only-in-quorvex {len(r.only_q)}, only-in-evtxexport {len(r.only_e)}, "
              f"mismatching {len(r.mismatched)}" + (f", not compared {len(r.not_compared)}" if r.not_compared else ""))
        for note in r.notes:
            print(f"     {note}")
        faults = {k: v for k, v in r.hits.items() if k.startswith("E")}
        if faults:
            print("     evtxexport faults passed over: " + ", ".join(f"{k} x{v}" for k, v in sorted(faults.items())))
        if r.only_q:
            print(f"     only in quorvex: records {ids(r.only_q)}")
        if r.only_e:
            print(f"     only in evtxexport: records {ids(r.only_e)}")
        if r.not_compared:
            print(f"     not compared (E2): records {ids(r.not_compared)}")
        for rid, diffs in r.mismatched[: args.max_records]:
            print(f"     record {rid}: {len(diffs)} difference(s)")
            for path, kind, qv, ev in diffs[: args.max_diffs]:
                print(f"       {path} ({kind})")
                print(f"         quorvex:    {short(qv)}")
                print(f"         evtxexport: {short(ev)}")
        if len(r.mismatched) > args.max_records:
            print(f"     ... and {len(r.mismatched) - args.max_records} more mismatching record(s)")

    print()
    print(f"records: quorvex {tot['q']}, evtxexport {tot['e']}, matched {tot['matched']}, "
          f"only-in-quorvex {tot['only_q']}, only-in-evtxexport {tot['only_e']}, mismatching {tot['mism']}, "
          f"not compared {tot['not_compared']}")
    if hits:
        print("documented differences and evtxexport faults met: "
              + ", ".join(f"{k} x{v}" for k, v in sorted(hits.items())))
    print(f"files: {len(results)} checked, {len(results) - tot['failed']} agree, {tot['failed']} differ"
          + (" (strict)" if args.strict else ""))
    return 1 if tot["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
