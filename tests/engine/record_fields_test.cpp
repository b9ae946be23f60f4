// The field reader (record_fields): events read without their XML must carry exactly the
// fields that reading their rendered XML gives, over fixture logs with values of every
// kind, damaged logs, and the shared samples when they are there.
#include "engine/record_fields.h"

#include "engine/event_log_binxml.h"
#include "engine/named_fields.h"
#include "engine/evtx/evtx_writer.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

namespace qvx {
namespace {

using namespace qvx::test;

// Everything a listing takes from an event, as one text.
std::string Describe(const TEventItemX& AItem) {
  std::string s;
  auto add = [&](std::string_view AName, const std::string& AValue) {
    s.append(AName).append("=").append(AValue).append("|");
  };
  add("rec", std::to_string(AItem.FEventRecordID));
  add("num", std::to_string(AItem.FRecordNumber));
  add("type", std::to_string(AItem.FEventType));
  add("time", std::to_string(AItem.FTimeGenerated));
  add("src", AItem.FSourceName);
  add("id", std::to_string(AItem.FEventID));
  add("qual", std::to_string(AItem.FEventIDQual));
  add("ver", std::to_string(AItem.FVersion));
  add("lvl", std::to_string(AItem.FLevel));
  add("op", std::to_string(AItem.FOpCode));
  add("task", std::to_string(AItem.FTask));
  add("cat", AItem.FCategoryName);
  add("user", AItem.FUserName);
  add("sid", AItem.FUserSid);
  add("computer", AItem.FComputername);
  add("channel", AItem.FChannel);
  add("systime", AItem.FSystemTime);
  add("keywords", AItem.FKeywords);
  add("message", AItem.FEvtMessage);
  for (const std::string& value : AItem.FStrings) add("v", value);
  add("data", std::string(AItem.FData.begin(), AItem.FData.begin() + AItem.FDataLength));
  return s;
}

struct TReading {
  std::vector<std::string> Events;
  std::vector<std::string> Issues;
  uint64_t FromXml = 0;
  size_t XmlSeen = 0; // events that came with their XML
};

// Reads every event of ALog (set up, not opened) from APath; AEach describes one event
// and counts it in XmlSeen when it came with its XML.
template <typename F> TReading ReadEach(TEventLogBinXML& ALog, const std::string& APath, F&& AEach) {
  TReading reading;
  ALog.SetBackupFileName(APath);
  ALog.SetActive(true);
  if (!ALog.Active()) return reading;
  while (TEventItemBase* item = ALog.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) {
      reading.Events.push_back("+");
      continue;
    }
    reading.Events.push_back(AEach(static_cast<TEventItemX&>(*item), reading.XmlSeen));
  }
  reading.Issues = ALog.IssueList().Lines();
  reading.FromXml = ALog.EventsReadFromXml();
  return reading;
}

TReading ReadAll(const std::string& APath, bool AWithoutXml, unsigned AThreads = 0) {
  TEventLogBinXML log;
  log.SetReadAhead(AThreads);
  log.SetWithoutXml(AWithoutXml);
  return ReadEach(log, APath, [](TEventItemX& AItem, size_t& AXmlSeen) {
    if (!AItem.FEvtXML.empty()) ++AXmlSeen;
    return Describe(AItem);
  });
}

// The (name, value) pairs of one event as the hunt reads them, as one text.
std::string DescribeNamed(const TNamedValues& AValues) {
  std::string s;
  for (size_t i = 0; i < AValues.Count(); ++i) {
    const TNamedValues::TItem& item = AValues.Item(i);
    s.append(std::to_string(item.Kind)).append(":").append(AValues.Name(item)).append("/");
    s.append(AValues.Attr(item)).append("=");
    if (item.Deferred) {
      // Made now: as the value itself would read, within its bound also while made.
      std::string made;
      made.reserve(item.ValueSize);
      const char* const room = made.data();
      AValues.Make(item, made);
      EXPECT_EQ(made.data(), room) << AValues.Name(item) << " outgrew its bound of " << item.ValueSize;
      s.append(made).append("|");
      continue;
    }
    s.append(AValues.Value(item)).append("|");
  }
  return s;
}

// The same pairs read out of the event's XML (entities decoded, as the hunt decodes them).
std::string NamedOfXml(std::string_view AXml) {
  TNamedValues values;
  ForEachNamedField(AXml, [&](TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr,
                              std::string_view ARaw) {
    values.Begin(AKind, AName, AAttr);
    AppendXmlUnescaped(values.Text(), ARaw);
    values.End();
  });
  return DescribeNamed(values);
}

// The hunt's reading of APath: system fields and (name, value) pairs of every event,
// from its XML (ANamed false) or straight from the binary XML where it can be.
TReading ReadNamed(const std::string& APath, bool ANamed, unsigned AThreads = 0) {
  TEventLogBinXML log;
  log.SetReadAhead(AThreads);
  log.SetSystemFieldsOnly(true);
  log.SetNamedValues(ANamed);
  return ReadEach(log, APath, [&log](TEventItemX& AItem, size_t& AXmlSeen) {
    const TNamedValues* named = log.NamedValues();
    EXPECT_NE(named == nullptr, AItem.FEvtXML.empty());
    if (!named) ++AXmlSeen;
    return Describe(AItem) + "\n" + (named ? DescribeNamed(*named) : NamedOfXml(AItem.FEvtXML));
  });
}

// Expects the two readings of APath (through the XML and direct) to give the same events
// and issues; AWhat names what differs.
void ExpectSameReadings(const std::string& APath, const TReading& AXml, const TReading& ADirect, const char* AWhat) {
  EXPECT_EQ(ADirect.Events.size(), AXml.Events.size()) << APath;
  for (size_t i = 0; i < std::min(ADirect.Events.size(), AXml.Events.size()); ++i)
    if (ADirect.Events[i] != AXml.Events[i]) {
      ADD_FAILURE() << APath << ": event " << i << " differs" << AWhat << "\n xml:    " << AXml.Events[i]
                    << "\n direct: " << ADirect.Events[i];
      break;
    }
  EXPECT_EQ(ADirect.Issues, AXml.Issues) << APath;
}

// The hunt's reading both ways; gives the direct reading.
TReading ExpectSameNamedBothWays(const std::string& APath) {
  const TReading direct = ReadNamed(APath, true);
  ExpectSameReadings(APath, ReadNamed(APath, false), direct, " in its names");
  return direct;
}

// Reads APath both ways and expects the same, for listings and for the hunt; gives the
// direct reading.
TReading ExpectSameBothWays(const std::string& APath, size_t* ANamedFromXml = nullptr) {
  const TReading named = ExpectSameNamedBothWays(APath);
  if (ANamedFromXml) *ANamedFromXml += named.XmlSeen;
  const TReading direct = ReadAll(APath, true);
  ExpectSameReadings(APath, ReadAll(APath, false), direct, "");
  EXPECT_EQ(direct.XmlSeen, 0u);
  return direct;
}

std::string WriteChunks(const std::string& AName, const std::vector<TEvtxEventDraft>& AEvents) {
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t id = 1;
  for (const auto& e : AEvents) EXPECT_TRUE(chunk.AddEvent(id++, e, templates));
  return WriteTempFile(AName, MakeFileFromChunks({chunk.Finish()}));
}

TEST(RecordFields, SampleLogReadsTheSameWithoutXml) {
  const std::string path = WriteTempFile("sample.evtx", MakeEvtxFile(3, 20));
  const TReading direct = ExpectSameBothWays(path);
  EXPECT_EQ(direct.Events.size(), 60u);
  EXPECT_EQ(direct.FromXml, 0u); // plain template instances: no record needs its XML
}

TEST(RecordFields, ValuesOfEveryKindReadTheSame) {
  std::vector<TEvtxEventDraft> events;
  TEvtxEventDraft e = SampleEvent(1);
  // Text that XML escapes, control characters, NULs and text that looks like markup.
  e.FData = {{"Escaped", TEvtxValue::String("a<b>&c\"d'e &amp; &#65;")},
             {"Controls", TEvtxValue::String(std::string("x\x01y\x1Fz\tw\r\nv"))},
             // A control character alone in the second 8 bytes, in the tail after them, and
             // after characters past ASCII (the control scan takes 8 bytes at a time).
             {"Control2", TEvtxValue::String(std::string("abcdefghijk\x1Fmnop"))},
             {"ControlTail", TEvtxValue::String(std::string("abcdefghij\x02"))},
             {"ControlWide", TEvtxValue::String(std::string("\xC3\xA9\xC3\xA9\xC3\xA9\x1F\xC3\xA9ok"))},
             {"NoControl", TEvtxValue::String(std::string("\xC3\xA9\xE2\x82\xAC !~ 0123456789"))},
             {"Nul", TEvtxValue(0x01, {'a', 0, 0, 0, 'b', 0})},
             {"Ansi", TEvtxValue::AnsiString("caf\xE9 <x>")},
             {"Empty", TEvtxValue::String("")},
             {"Blank", TEvtxValue::String("   ")},
             {"Int", TEvtxValue::Int32(-5)},
             {"Hex", TEvtxValue::Hex64(0xABCDEF)},
             {"Guid", TEvtxValue::Guid("{01234567-89AB-CDEF-0123-456789ABCDEF}")},
             {"Sid", TEvtxValue::Sid("S-1-5-21-1-2-3-500")},
             {"Time", TEvtxValue::FileTime(133000000000000000ull)},
             {"Bool", TEvtxValue::Bool(true)},
             {"Bin", TEvtxValue::Binary(std::vector<uint8_t>{1, 2, 0xFE})},
             {"Strings", TEvtxValue::StringArray({"one", "t<w>o", "", "three"})},
             {"NoStrings", TEvtxValue::StringArray({})},
             {"Numbers", TEvtxValue::UInt32Array(std::vector<uint32_t>{7, 8, 9})},
             {"Null", TEvtxValue::Null()}};
  e.FBinary = std::vector<uint8_t>{0xDE, 0xAD, 0x00, 0x01};
  events.push_back(e);
  TEvtxEventDraft q = SampleEvent(2);
  q.FQualifiers = 16384;
  q.FUserId.clear();
  q.FProviderName = "Prov & <Co>";
  q.FComputer = "host\x02name";
  q.FData.clear();
  events.push_back(q);
  for (int i = 3; i < 8; ++i) events.push_back(SampleEvent(static_cast<uint64_t>(i)));
  const TReading direct = ExpectSameBothWays(WriteChunks("values.evtx", events));
  EXPECT_EQ(direct.Events.size(), events.size());
}

// System fields that repeat from event to event are copied from the last event of the
// chunk made of the same value: values equal in size but not in bytes, other sizes, an
// empty one, and chunks of the same layout whose values differ (a value kept from the
// chunk before must not stand for the one at the same place in the next).
TEST(RecordFields, RepeatedSystemFieldsReadTheSame) {
  std::vector<std::vector<uint8_t>> chunks;
  uint64_t id = 1;
  for (int c = 0; c < 3; ++c) {
    TEvtxChunkWriter chunk;
    TEvtxEventTemplates templates;
    for (int i = 0; i < 6; ++i) {
      TEvtxEventDraft e = SampleEvent(static_cast<uint64_t>(i + 1));
      e.FComputer = "host-" + std::to_string(c) + (i % 3 == 2 ? "b" : "a");
      e.FLevel = static_cast<uint8_t>(i < 3 ? 4 : 2 + c);
      e.FKeywords = i % 2 ? 0x8010000000000000ull : 0x8020000000000000ull;
      e.FUserId = i == 4 ? std::string() : (i == 5 ? "S-1-5-21-1-2-3-1001" : "S-1-5-18");
      e.FProviderName = i == 1 ? "Other-Provider" : "Some-Provider";
      EXPECT_TRUE(chunk.AddEvent(id++, e, templates));
    }
    chunks.push_back(chunk.Finish());
  }
  const TReading direct = ExpectSameBothWays(WriteTempFile("repeated.evtx", MakeFileFromChunks(chunks)));
  EXPECT_EQ(direct.Events.size(), 18u);
  EXPECT_EQ(direct.FromXml, 0u);
  ASSERT_EQ(direct.Events.size(), 18u);
  // Newest first: the last chunk's last event, whose computer is host-2b.
  EXPECT_NE(direct.Events[0].find("computer=host-2b|"), std::string::npos) << direct.Events[0];
  EXPECT_NE(direct.Events[17].find("computer=host-0a|"), std::string::npos) << direct.Events[17];
}

// ANSI strings, decoded in one pass: NULs, control characters, the bytes XML escapes and
// every byte of the upper half.
TEST(RecordFields, AnsiStringsReadTheSame) {
  std::string upper;
  for (int b = 0x80; b <= 0xFF; ++b) upper.push_back(static_cast<char>(b));
  std::vector<TEvtxEventDraft> events;
  const std::vector<std::vector<uint8_t>> texts = {
      {},
      {0},
      {'a', 0, 'b', 0},
      {'x', 0x01, 'y', 0x1F, 0x7F, '\t', '\r', '\n', 'z'},
      {'&', 'a', 'm', 'p', ';', '<', '>', '"', '\'', '&', '#', '6', '5', ';'},
      {' ', ' '},
      std::vector<uint8_t>(upper.begin(), upper.end()),
  };
  uint64_t id = 1;
  for (const auto& text : texts) {
    TEvtxEventDraft e = SampleEvent(id++);
    e.FData = {{"A", TEvtxValue(0x02, text)}, {"B", TEvtxValue::AnsiString("tail")}};
    events.push_back(e);
  }
  const TReading direct = ExpectSameBothWays(WriteChunks("ansi.evtx", events));
  EXPECT_EQ(direct.Events.size(), events.size());
}

// UserData made of an embedded template: attribute values (optional ones left out when
// empty), texts (blank ones are no value), nested elements, and a fragment without a
// template (read from its XML).
TEST(RecordFields, UserDataReadsTheSame) {
  auto inner = std::make_shared<TEvtxTemplate>("user-data", [](TBinXmlWriter& w) {
    w.OpenElement("LogFileCleared");
    w.Attribute("xmlns");
    w.Text("http://manifests.example/user");
    w.Attribute("Kind");
    w.Substitution(0, EvtxType::String, true);
    w.Attribute("Fixed");
    w.Text("a&b");
    // Optional attributes of values that are not strings: a number, and bytes (empty: left out).
    w.Attribute("Num");
    w.Substitution(5, EvtxType::UInt32, true);
    w.Attribute("Bytes");
    w.Substitution(6, EvtxType::Binary, true);
    w.CloseStartElement();
    w.SubstitutionElement("SubjectUserName", 1, EvtxType::String);
    w.SubstitutionElement("Count", 2, EvtxType::UInt32, true);
    w.OpenElement("Inner");
    w.Attribute("Id");
    w.Substitution(3, EvtxType::String);
    w.CloseStartElement();
    w.Substitution(4, EvtxType::String, true);
    w.TextElement("Note", "  ");
    w.EndElement();
    w.EndElement();
  });
  std::vector<TEvtxEventDraft> events;
  const std::vector<std::vector<TEvtxValue>> values = {
      {TEvtxValue::String("k"), TEvtxValue::String("alice"), TEvtxValue::UInt32(3), TEvtxValue::String("i1"),
       TEvtxValue::String("tail"), TEvtxValue::UInt32(77), TEvtxValue::Binary(std::vector<uint8_t>{0xAB, 0x01})},
      {TEvtxValue::String(""), TEvtxValue::String("  "), TEvtxValue::Null(), TEvtxValue::String(""),
       TEvtxValue::String(""), TEvtxValue::Null(), TEvtxValue::Binary(std::vector<uint8_t>{})},
      {TEvtxValue::Null(), TEvtxValue::String("x<y"), TEvtxValue::UInt32(0), TEvtxValue::String("\t"),
       TEvtxValue::String(" "), TEvtxValue::UInt32(0), TEvtxValue::Null()},
      // An optional string of NULs only, and one of controls and entities.
      {TEvtxValue(0x01, {0, 0, 0, 0}), TEvtxValue::String("b"), TEvtxValue::UInt32(1), TEvtxValue::String("i"),
       TEvtxValue::String("t"), TEvtxValue::UInt32(2), TEvtxValue::Binary(std::vector<uint8_t>{0})},
      {TEvtxValue::String(std::string("\x01<&>\"'")), TEvtxValue::String("c"), TEvtxValue::UInt32(1),
       TEvtxValue::String("i"), TEvtxValue::String("t"), TEvtxValue::UInt32(2), TEvtxValue::Null()},
  };
  uint64_t i = 1;
  for (const auto& v : values) {
    TEvtxEventDraft e = SampleEvent(i++);
    e.FData.clear();
    e.FUserData = TEvtxValue::BinXml(inner, v);
    events.push_back(e);
  }
  TEvtxEventDraft raw = SampleEvent(i++);
  raw.FData.clear();
  raw.FUserData = TEvtxValue::BinXmlContent([](TBinXmlWriter& w) {
    w.OpenElement("Plain");
    w.Attribute("A");
    w.Text("1");
    w.CloseStartElement();
    w.Text("text");
    w.EndElement();
    w.EndOfStream();
  });
  events.push_back(raw);
  const TReading direct = ExpectSameBothWays(WriteChunks("userdata.evtx", events));
  EXPECT_EQ(direct.Events.size(), events.size());
  EXPECT_EQ(direct.FromXml, 1u); // the fragment without a template
}

TEST(RecordFields, DamagedLogsReadTheSame) {
  std::vector<uint8_t> file = MakeEvtxFile(3, 12);
  CorruptRecordMagic(file, 0, 4);
  CorruptRecordSizeCopy(file, 1, 7);
  // A byte inside a record's binary XML of the last chunk.
  const std::vector<size_t> records =
      ChunkRecordOffsets(std::span<const uint8_t>(file).subspan(ChunkFileOffset(2), kEvtxChunkSize));
  ASSERT_GT(records.size(), 3u);
  file[ChunkFileOffset(2) + records[3] + 24 + 30] ^= 0x5A;
  file[ChunkFileOffset(2) + records[5] + 24 + 2] = 0x77;
  ExpectSameBothWays(WriteTempFile("damaged.evtx", file));
}

TEST(RecordFields, ReadAheadGivesTheSame) {
  const std::string path = WriteTempFile("ahead.evtx", MakeEvtxFile(6, 30));
  const TReading one = ReadAll(path, true, 0);
  const TReading two = ReadAll(path, true, 2);
  EXPECT_EQ(one.Events, two.Events);
  EXPECT_EQ(one.Issues, two.Issues);
  const TReading namedOne = ReadNamed(path, true, 0);
  const TReading namedTwo = ReadNamed(path, true, 2);
  EXPECT_EQ(namedOne.Events, namedTwo.Events);
  EXPECT_EQ(namedOne.XmlSeen, 0u);
}

// The hunt's reading of APath chunk by chunk, each event as TakeChunk hands it out (an
// item, with its pairs or its XML) or as TakeChunkNamed does (a row, with its pairs
// viewing the chunk's System fields, or its XML), as one text per event and note.
std::vector<std::string> ReadNamedByChunk(const std::string& APath, bool ARows) {
  TEventLogBinXML reader;
  reader.SetBackupFileName(APath);
  reader.SetSystemFieldsOnly(true);
  reader.SetNamedValues(true);
  reader.SetActive(true);
  EXPECT_TRUE(reader.Active()) << APath;
  TEventLogBinXML taker;
  taker.SetSystemFieldsOnly(true);
  taker.SetNamedValues(true);
  taker.SetTaskAndUserNames(false);
  std::vector<std::string> events;
  auto describe = [](uint64_t ARecord, uint32_t AId, std::string_view ASystemTime, double ATime,
                     std::string_view AChannel, std::string_view AComputer, const TNamedValues* ANamed,
                     std::string_view AXml) {
    std::string s = std::to_string(ARecord) + "|" + std::to_string(AId) + "|" + std::string(ASystemTime) + "|" +
                    std::to_string(ATime) + "|" + std::string(AChannel) + "|" + std::string(AComputer) + "\n";
    return s + (ANamed ? "pairs " + DescribeNamed(*ANamed) : "xml " + NamedOfXml(AXml));
  };
  TChunkReader::Run(
      reader.ChunkProducer(), [](TChunkResult&) {}, 1,
      [&](TChunkResult& AResult, unsigned) {
        if (ARows) {
          taker.TakeChunkNamed(AResult, AResult.Sequence,
                               [&](const TEventRow& ARow, const TNamedValues* ANamed, std::string_view AXml) {
                                 EXPECT_EQ(ARow.Owner, &taker);
                                 events.push_back(describe(ARow.RecordId, ARow.EventId, ARow.SystemTime,
                                                           ARow.TimeGenerated, ARow.Channel, ARow.Computer, ANamed,
                                                           AXml));
                               });
        } else {
          taker.TakeChunk(AResult, AResult.Sequence, [&](TEventItemX& AItem) {
            events.push_back(describe(AItem.FEventRecordID, AItem.FEventID, AItem.FSystemTime,
                                      AItem.FTimeGenerated, AItem.FChannel, AItem.FComputername,
                                      taker.NamedValues(), AItem.FEvtXML));
          });
        }
        for (const std::string& note : AResult.Notes) events.push_back("note: " + note);
      });
  return events;
}

void ExpectNamedRowsAsItems(const std::string& APath) {
  const std::vector<std::string> items = ReadNamedByChunk(APath, false);
  const std::vector<std::string> rows = ReadNamedByChunk(APath, true);
  ASSERT_EQ(rows.size(), items.size()) << APath;
  for (size_t i = 0; i < rows.size(); ++i)
    if (rows[i] != items[i]) {
      ADD_FAILURE() << APath << ": event " << i << "\n item: " << items[i] << "\n row:  " << rows[i];
      break;
    }
}

// TakeChunkNamed says what TakeChunk says for the hunt: over a log of many chunks, a
// damaged log (records read from their XML, issues) and the sample logs.
TEST(RecordFields, HuntRowsSayWhatItemsSay) {
  ExpectNamedRowsAsItems(WriteTempFile("hunt-rows.evtx", MakeEvtxFile(4, 30)));
  std::vector<uint8_t> file = MakeEvtxFile(3, 12);
  CorruptRecordMagic(file, 0, 4);
  CorruptRecordSizeCopy(file, 1, 7);
  const std::vector<size_t> records =
      ChunkRecordOffsets(std::span<const uint8_t>(file).subspan(ChunkFileOffset(2), kEvtxChunkSize));
  ASSERT_GT(records.size(), 5u);
  file[ChunkFileOffset(2) + records[3] + 24 + 30] ^= 0x5A;
  file[ChunkFileOffset(2) + records[5] + 24 + 2] = 0x77;
  ExpectNamedRowsAsItems(WriteTempFile("hunt-rows-damaged.evtx", file));
  size_t done = 0;
  for (const auto& sample : SampleFiles("", ".evtx")) {
    if (done++ % 4) continue; // a quarter of them: the reading is the same code for all
    ExpectNamedRowsAsItems(sample.string());
    if (HasFailure()) break;
  }
}

// Pairs whose values lie elsewhere (AddView): read, counted, dropped and swapped as
// copied ones.
TEST(RecordFields, NamedValuesViewedKeepTheirPlace) {
  const std::string outside = "viewed value";
  TNamedValues values;
  values.Begin(nfText, "Copied", "");
  values.Text().append("abc");
  values.End();
  values.AddView(nfSystemAttr, "Provider", "Name", TNamedValues::kNoNameId, outside);
  values.AddView(nfText, "Gone", "", TNamedValues::kNoNameId, "xy");
  EXPECT_EQ(values.Bytes(), values.Text().size() + outside.size() + 2);
  values.Drop();
  EXPECT_EQ(values.Bytes(), values.Text().size() + outside.size());
  ASSERT_EQ(values.Count(), 2u);
  EXPECT_EQ(values.Value(values.Item(0)), "abc");
  EXPECT_EQ(values.Value(values.Item(1)).data(), outside.data());
  EXPECT_EQ(values.Name(values.Item(1)), "Provider");
  EXPECT_EQ(values.Attr(values.Item(1)), "Name");
  TNamedValues other;
  other.Swap(values);
  EXPECT_EQ(values.Count(), 0u);
  EXPECT_EQ(values.Bytes(), 0u);
  EXPECT_EQ(DescribeNamed(other), "0:Copied/=abc|1:Provider/Name=viewed value|");
  other.Clear();
  EXPECT_EQ(other.Bytes(), 0u);
}

// Every sample log: the same both ways, and few events need their XML.
TEST(RecordFields, SamplesReadTheSameWithoutXml) {
  std::vector<std::filesystem::path> files = SampleFiles("", ".evtx");
  if (files.empty()) GTEST_SKIP() << "no samples";
  uint64_t events = 0, fromXml = 0;
  size_t namedFromXml = 0;
  for (const auto& file : files) {
    const TReading direct = ExpectSameBothWays(file.string(), &namedFromXml);
    events += direct.Events.size();
    fromXml += direct.FromXml;
    if (HasFailure()) break;
  }
  RecordProperty("events", std::to_string(events));
  RecordProperty("from_xml", std::to_string(fromXml));
  RecordProperty("hunt_from_xml", std::to_string(namedFromXml));
  std::printf("samples: %llu events, %llu read from their XML (%zu for the hunt)\n",
              static_cast<unsigned long long>(events), static_cast<unsigned long long>(fromXml), namedFromXml);
  EXPECT_LT(fromXml * 100, events * 2 + 100); // under 2 %
  EXPECT_LT(namedFromXml * 100, events * 2 + 100);
}

} // namespace
} // namespace qvx
