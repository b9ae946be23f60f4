// Fuzz target: one EVTX chunk.
//
// The input, cut or zero-padded to 64 KiB, is decoded as a chunk; the whole chunk is
// rendered, then each valid record on its own. Rendering a damaged chunk must not
// crash or leak; a damaged record may raise EBinXMLLogReadingException.
//
// The same bytes are then read by the field reader (engine/record_fields), which must
// give exactly the events, fields and issues that cutting the chunk's XML into events
// and reading each one's XML gives; any difference stops the run. So must the hunt's
// reader (ReadChunkNamedFields): each event's system fields and (name, value) pairs must
// be those that reading its XML with ForEachNamedField gives (hunt/event_fields.h loads
// both alike from there on). The data values the events listing writes straight from
// the chunk (AppendRecordValuesJson, AppendRecordValuesJoined) must be the list's.
//
// Seeds: chunks cut from a file written by `quorvex demo` (see build.sh fuzz).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/event_xml.h"
#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "engine/named_fields.h"
#include "engine/record_fields.h"
#include "platform/text_escape.h"
#include "render_chunk.h"

namespace {

// One event's fields as one text, for comparing.
std::string Describe(const qvx::TEventXmlFields& AFields) {
  std::string s;
  for (const std::string* f : {&AFields.ProviderName, &AFields.EventID, &AFields.EventIDQual, &AFields.Version,
                               &AFields.Level, &AFields.Task, &AFields.OpCode, &AFields.Keywords, &AFields.TimeCreated,
                               &AFields.EventRecordID, &AFields.Channel, &AFields.Computer, &AFields.UserID})
    s.append(*f).push_back('\x1F');
  s.append(AFields.BinaryData.begin(), AFields.BinaryData.end()).push_back('\x1E');
  for (const std::string& v : AFields.Strings) s.append(v).push_back('\x1F');
  return s;
}

// The events of a chunk's XML, newest first, cut as the .evtx source cuts them.
std::vector<std::string> EventsOfXml(std::string AXml) {
  std::vector<std::string> events;
  for (;;) {
    const size_t close = AXml.rfind("</Event>");
    const size_t open = AXml.rfind("<Event xmlns");
    if (open == std::string::npos || close == std::string::npos || close < open) break;
    qvx::TEventXmlFields fields;
    const std::string_view event = std::string_view(AXml).substr(open, close + 8 - open);
    qvx::ReadSystemFields(event, fields);
    qvx::ReadEventDataValues(event, fields.Strings, &fields.BinaryData);
    events.push_back(Describe(fields));
    AXml.resize(open);
    if (AXml.rfind("</Event>") == std::string::npos) break;
  }
  return events;
}

void CheckFieldReader(const std::vector<uint8_t>& ABytes) {
  qvx::TChunkJob job;
  qvx::TChunkResult xml, direct;
  job.Bytes = ABytes;
  qvx::TChunkReader::RenderChunk(job, xml);
  job.Bytes = ABytes;
  job.ReadRecords = &qvx::ReadChunkFields;
  qvx::TChunkReader::RenderChunk(job, direct);

  bool same = xml.Records == direct.Records && xml.Issues.size() == direct.Issues.size();
  for (size_t i = 0; same && i < xml.Issues.size(); ++i)
    same = xml.Issues[i].Offset == direct.Issues[i].Offset && xml.Issues[i].Message == direct.Issues[i].Message;
  const std::vector<std::string> expected = EventsOfXml(xml.Xml);
  std::vector<std::string> got;
  if (direct.FieldsRead) {
    for (size_t i = direct.RecordFields.size(); i-- > 0;) {
      const qvx::TChunkResult::TRecordSpan& span = direct.RecordFields[i];
      qvx::TEventXmlFields fields;
      const std::string* f = direct.Fields.data() + span.First;
      std::string* to[] = {&fields.ProviderName, &fields.EventID, &fields.EventIDQual, &fields.Version,
                           &fields.Level, &fields.Task, &fields.OpCode, &fields.Keywords, &fields.TimeCreated,
                           &fields.EventRecordID, &fields.Channel, &fields.Computer, &fields.UserID};
      for (size_t k = 0; k < qvx::rfBinaryData; ++k) *to[k] = f[k];
      fields.BinaryData.assign(f[qvx::rfBinaryData].begin(), f[qvx::rfBinaryData].end());
      if (span.Plan != 0xFFFFFFFF) {
        qvx::TakeRecordFields(direct, span, fields);
        // The values written straight as JSON and as joined text are those of the list.
        std::string json, joined, expectJson, expectJoined;
        qvx::AppendRecordValuesJson(direct, span, json);
        qvx::AppendRecordValuesJoined(direct, span, joined);
        for (size_t k = 0; k < fields.Strings.size(); ++k) {
          if (k) expectJson += ',', expectJoined += '\n';
          qvx::AppendJsonString(expectJson, fields.Strings[k]);
          expectJoined += fields.Strings[k];
        }
        if (json != expectJson || joined != expectJoined) std::abort();
      } else {
        fields.Strings.assign(f + qvx::rfValues, f + span.Count);
      }
      got.push_back(Describe(fields));
    }
  } else {
    same = same && direct.Xml == xml.Xml;
    got = EventsOfXml(direct.Xml);
  }
  if (!same || got != expected) std::abort(); // the field reader differs from reading the XML
}

// The system fields and (name, value) pairs of one event's XML, as one text.
std::string DescribeNamedXml(std::string_view AEvent) {
  qvx::TEventXmlFields fields;
  qvx::ReadSystemFields(AEvent, fields);
  std::string s = Describe(fields);
  qvx::ForEachNamedField(AEvent, [&](qvx::TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr,
                                     std::string_view ARaw) {
    s.push_back(static_cast<char>('0' + AKind));
    s.append(AName).push_back('\x1F');
    s.append(AAttr).push_back('\x1F');
    qvx::AppendXmlUnescaped(s, ARaw);
    s.push_back('\x1E');
  });
  return s;
}

std::vector<std::string> NamedEventsOfXml(std::string AXml) {
  std::vector<std::string> events;
  for (;;) {
    const size_t close = AXml.rfind("</Event>");
    const size_t open = AXml.rfind("<Event xmlns");
    if (open == std::string::npos || close == std::string::npos || close < open) break;
    events.push_back(DescribeNamedXml(std::string_view(AXml).substr(open, close + 8 - open)));
    AXml.resize(open);
    if (AXml.rfind("</Event>") == std::string::npos) break;
  }
  return events;
}

void CheckNamedReader(const std::vector<uint8_t>& ABytes) {
  qvx::TChunkJob job;
  qvx::TChunkResult xml, direct;
  job.Bytes = ABytes;
  qvx::TChunkReader::RenderChunk(job, xml);
  job.Bytes = ABytes;
  job.ReadRecords = &qvx::ReadChunkNamedFields;
  qvx::TChunkReader::RenderChunk(job, direct);

  bool same = xml.Records == direct.Records && xml.Issues.size() == direct.Issues.size();
  for (size_t i = 0; same && i < xml.Issues.size(); ++i)
    same = xml.Issues[i].Offset == direct.Issues[i].Offset && xml.Issues[i].Message == direct.Issues[i].Message;
  const std::vector<std::string> expected = NamedEventsOfXml(xml.Xml);
  std::vector<std::string> got;
  if (direct.FieldsRead) {
    qvx::TNamedValues named;
    for (size_t i = direct.RecordFields.size(); i-- > 0;) {
      const qvx::TChunkResult::TRecordSpan& span = direct.RecordFields[i];
      const std::string* f = direct.Fields.data() + span.First;
      if (span.Plan == 0xFFFFFFFF) {
        // Read from its XML: the XML follows the binary data.
        if (span.Count != qvx::rfValues + 1) std::abort();
        got.push_back(DescribeNamedXml(f[qvx::rfValues]));
        continue;
      }
      qvx::TEventXmlFields fields;
      std::string* to[] = {&fields.ProviderName, &fields.EventID, &fields.EventIDQual, &fields.Version,
                           &fields.Level, &fields.Task, &fields.OpCode, &fields.Keywords, &fields.TimeCreated,
                           &fields.EventRecordID, &fields.Channel, &fields.Computer, &fields.UserID};
      for (size_t k = 0; k < qvx::rfBinaryData; ++k) *to[k] = f[k];
      std::string s = Describe(fields);
      qvx::TakeRecordNamedValues(direct, span, named);
      for (size_t k = 0; k < named.Count(); ++k) {
        const qvx::TNamedValues::TItem& item = named.Item(k);
        s.push_back(static_cast<char>('0' + item.Kind));
        s.append(named.Name(item)).push_back('\x1F');
        s.append(named.Attr(item)).push_back('\x1F');
        s.append(named.Value(item)).push_back('\x1E');
      }
      got.push_back(std::move(s));
    }
  } else {
    same = same && direct.Xml == xml.Xml;
    got = NamedEventsOfXml(direct.Xml);
  }
  if (!same || got != expected) std::abort(); // the hunt's reader differs from reading the XML
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  using qvx::evtx::kChunkSize;
  // TEvtxChunk copies exactly 64 KiB from here into its own buffer.
  std::vector<uint8_t> bytes(kChunkSize, 0);
  if (ASize > 0) std::memcpy(bytes.data(), AData, std::min<size_t>(ASize, kChunkSize));

  FuzzRenderChunk(bytes.data());
  CheckFieldReader(bytes);
  CheckNamedReader(bytes);
  return 0;
}
