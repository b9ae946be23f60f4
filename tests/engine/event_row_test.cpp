// Rows (event_row.h): an event taken by chunk as a row, its data values written straight
// from the chunk's values, must say exactly what its item says, for the JSON Lines and
// CSV writers alike.
#include "engine/event_row.h"

#include "engine/event_log_binxml.h"
#include "engine/evtx/evtx_writer.h"
#include "platform/text_escape.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qvx {
namespace {

using namespace qvx::test;

// Everything the writers take from a row, as one text.
std::string DescribeRow(const TEventRow& ARow) {
  std::string s;
  auto add = [&](std::string_view AName, std::string_view AValue) {
    s.append(AName).append("=").append(AValue).append("|");
  };
  add("rec", std::to_string(ARow.RecordId));
  add("time", std::to_string(ARow.TimeGenerated));
  add("type", std::to_string(ARow.Type));
  add("id", std::to_string(ARow.EventId));
  add("qual", std::to_string(ARow.Qualifiers));
  add("ver", std::to_string(ARow.Version));
  add("lvl", std::to_string(ARow.Level));
  add("op", std::to_string(ARow.OpCode));
  add("task", std::to_string(ARow.TaskNumber));
  add("systime", ARow.SystemTime);
  add("keywords", ARow.Keywords);
  add("src", ARow.Source);
  add("channel", ARow.Channel);
  add("computer", ARow.Computer);
  add("sid", ARow.UserSid);
  add("cat", ARow.TaskName);
  add("user", ARow.UserName);
  add("opname", ARow.OpcodeName);
  add("kwnames", ARow.KeywordNames);
  add("found", ARow.DescriptionFound ? "1" : "0");
  add("descr", ARow.Description);
  std::string values;
  AppendRowValuesJson(ARow, values);
  add("json", values);
  values.clear();
  AppendRowValuesJoined(ARow, values);
  add("joined", values);
  return s;
}

// Reads APath chunk by chunk as the events listing does, each event as a row
// (TakeChunkRows) or as an item viewed as a row (TakeChunk).
std::vector<std::string> ReadByChunk(const std::string& APath, bool ARows) {
  TEventLogBinXML reader;
  reader.SetBackupFileName(APath);
  reader.SetWithoutXml(true);
  reader.SetActive(true);
  EXPECT_TRUE(reader.Active()) << APath;
  TEventLogBinXML taker;
  taker.SetWithoutXml(true);
  taker.SetValuesForMissingDescription(false);
  std::vector<std::string> events;
  TChunkReader::Run(
      reader.ChunkProducer(), [](TChunkResult&) {}, 1,
      [&](TChunkResult& AResult, unsigned) {
        if (ARows) {
          taker.TakeChunkRows(AResult, AResult.Sequence,
                              [&](const TEventRow& ARow) { events.push_back(DescribeRow(ARow)); });
        } else {
          taker.TakeChunk(AResult, AResult.Sequence, [&](TEventItemX& AItem) {
            TEventRow row;
            RowOfItem(AItem, row);
            events.push_back(DescribeRow(row));
          });
        }
        for (const std::string& note : AResult.Notes) events.push_back("note: " + note);
      });
  return events;
}

void ExpectRowsAsItems(const std::string& APath, size_t AEvents) {
  const std::vector<std::string> items = ReadByChunk(APath, false);
  const std::vector<std::string> rows = ReadByChunk(APath, true);
  EXPECT_EQ(items.size(), AEvents) << APath;
  ASSERT_EQ(rows.size(), items.size()) << APath;
  for (size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(rows[i], items[i]) << APath << ": event " << i;
}

// UTF-16 units as the bytes of a string value.
TEvtxValue Units(const std::vector<uint16_t>& AUnits) {
  std::vector<uint8_t> bytes;
  for (const uint16_t u : AUnits) {
    bytes.push_back(static_cast<uint8_t>(u & 0xFF));
    bytes.push_back(static_cast<uint8_t>(u >> 8));
  }
  return TEvtxValue(0x01, bytes);
}

std::vector<uint16_t> Ascii(std::string_view AText) { return {AText.begin(), AText.end()}; }

// The string encoder takes 8 plain units at a time and the last few as a padded block:
// escapes, NULs and characters past ASCII are placed on each side of those bounds.
TEST(EventRow, StringValuesEscapeAsTheItemsText) {
  std::vector<TEvtxEventDraft> events;
  std::vector<std::vector<uint16_t>> texts = {
      {},
      Ascii("a"),
      Ascii("1234567"),
      Ascii("12345678"),
      Ascii("123456789"),
      Ascii("1234567\""),
      Ascii("12345678\\"),
      Ascii("\"2345678"),
      Ascii("abcdefghijklmno\\"),
      Ascii("abcdefg\tijklmnop\r\n"),
      {'a', 'b', 0},
      {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0, 0},
      {'a', 0, 'b'},
      {0},
      {'x', 0x01, 'y', 0x1F, 0x7F, 'z'},
      {'c', 'a', 'f', 0xE9, 'e', 'e', 'e', 'e', 'e'},
      {0x20AC, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'},
      {'a', 'b', 'c', 'd', 'e', 'f', 'g', 0xD83D, 0xDE00, 'z'},
      {'a', 0xD83D},
      {0xDE00, 'a', 0xD800, 'b', 0xDBFF, 0xDC00},
      {'a', 'b', 'c', 'd', 'e', 'f', 'g', 0xFFFF},
  };
  std::vector<uint16_t> longText;
  for (int i = 0; i < 300; ++i) longText.push_back(static_cast<uint16_t>(i % 7 == 3 ? '"' : 'a' + i % 26));
  longText.push_back(0x4E2D);
  texts.push_back(longText);
  uint64_t id = 1;
  for (size_t i = 0; i < texts.size(); i += 4) {
    TEvtxEventDraft e = SampleEvent(id++);
    e.FData.clear();
    for (size_t k = i; k < texts.size() && k < i + 4; ++k)
      e.FData.push_back({"V" + std::to_string(k), Units(texts[k])});
    events.push_back(e);
  }
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t record = 1;
  for (const auto& e : events) ASSERT_TRUE(chunk.AddEvent(record++, e, templates));
  ExpectRowsAsItems(WriteTempFile("row-strings.evtx", MakeFileFromChunks({chunk.Finish()})), events.size());
}

// String arrays repeated as <Data>, written to JSON straight from their units: empty
// items first, in the middle and last, a last item without its NUL, an empty tail after
// the last NUL, escapes, control characters, surrogates, and no item at all.
TEST(EventRow, StringArrayItemsAsTheItemsText) {
  auto array = [](const std::vector<std::vector<uint16_t>>& AItems, bool ALastNul) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < AItems.size(); ++i) {
      for (const uint16_t u : AItems[i]) bytes.push_back(static_cast<uint8_t>(u & 0xFF)), bytes.push_back(static_cast<uint8_t>(u >> 8));
      if (ALastNul || i + 1 < AItems.size()) bytes.push_back(0), bytes.push_back(0);
    }
    return TEvtxValue(0x81, bytes);
  };
  std::vector<uint16_t> longItem;
  for (int i = 0; i < 270; ++i) longItem.push_back(static_cast<uint16_t>(i % 9 == 4 ? '\\' : 'A' + i % 26));
  const std::vector<TEvtxValue> values = {
      array({}, true),
      array({{}}, true),
      array({{}, {}}, true),
      array({{}, Ascii("a"), {}}, true),
      array({Ascii("one"), Ascii("two")}, false),
      array({Ascii("one"), {}}, false),
      array({Ascii("q\"uote"), Ascii("back\\slash"), Ascii("<&amp;>")}, true),
      array({{'t', '\t', 'x', 0x01, 0x1F, '\r', '\n'}, {0xE9, 0x20AC, 0xD83D, 0xDE00}}, true),
      array({{0xD800, 'a'}, {'b', 0xDC00}, {0xDBFF}}, true),
      array({Ascii("12345678"), Ascii("1234567"), Ascii("123456789abcdef\"")}, true),
      array({longItem, Ascii("after")}, true),
      TEvtxValue(0x81, {0x41}), // an odd byte: no whole unit
  };
  std::vector<TEvtxEventDraft> events;
  uint64_t id = 1;
  for (const TEvtxValue& v : values) {
    TEvtxEventDraft e = SampleEvent(id++);
    e.FData = {{"Before", TEvtxValue::String("b")}, {"Items", v}, {"After", TEvtxValue::UInt32(7)}};
    events.push_back(e);
  }
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t record = 1;
  for (const auto& e : events) ASSERT_TRUE(chunk.AddEvent(record++, e, templates));
  ExpectRowsAsItems(WriteTempFile("row-arrays.evtx", MakeFileFromChunks({chunk.Finish()})), events.size());
}

// UserData text that is blank once made (a tab, a control character, NULs) is no value.
TEST(EventRow, BlankUserDataTextIsNoValue) {
  auto inner = std::make_shared<TEvtxTemplate>("user-data", [](TBinXmlWriter& w) {
    w.OpenElement("Info");
    w.CloseStartElement();
    w.SubstitutionElement("A", 0, EvtxType::String);
    w.SubstitutionElement("B", 1, EvtxType::String);
    w.EndElement();
  });
  const std::vector<std::vector<TEvtxValue>> values = {
      {Units({'\t'}), Units(Ascii("x"))},
      {Units({' ', 0x02, '\r', '\n', 0}), Units({0})},
      {Units(Ascii("  \\t ")), Units(Ascii("\"  "))},
  };
  std::vector<TEvtxEventDraft> events;
  uint64_t id = 1;
  for (const auto& v : values) {
    TEvtxEventDraft e = SampleEvent(id++);
    e.FData.clear();
    e.FUserData = TEvtxValue::BinXml(inner, v);
    events.push_back(e);
  }
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t record = 1;
  for (const auto& e : events) ASSERT_TRUE(chunk.AddEvent(record++, e, templates));
  ExpectRowsAsItems(WriteTempFile("row-userdata.evtx", MakeFileFromChunks({chunk.Finish()})), events.size());
}

// Values of every kind: numbers, times, identifiers and hexadecimal are written without
// the escaping pass, arrays and ANSI text through it.
TEST(EventRow, ValuesOfEveryKindAsTheItemsText) {
  TEvtxEventDraft e = SampleEvent(1);
  e.FData = {{"Int8", TEvtxValue(0x03, {0xFE})},
             {"UInt8", TEvtxValue(0x04, {0xFE})},
             {"Int16", TEvtxValue(0x05, {0x00, 0x80})},
             {"UInt16", TEvtxValue(0x06, {0xFF, 0xFF})},
             {"Int", TEvtxValue::Int32(-5)},
             {"UInt", TEvtxValue::UInt32(4000000000u)},
             {"Int64", TEvtxValue(0x09, {0, 0, 0, 0, 0, 0, 0, 0x80})},
             {"UInt64", TEvtxValue(0x0A, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF})},
             {"Float", TEvtxValue(0x0B, {0x00, 0x00, 0xC0, 0x7F})},
             {"Double", TEvtxValue(0x0C, {0, 0, 0, 0, 0, 0, 0xF0, 0xFF})},
             {"Bool", TEvtxValue::Bool(false)},
             {"Guid", TEvtxValue::Guid("{01234567-89AB-CDEF-0123-456789ABCDEF}")},
             {"Time", TEvtxValue::FileTime(133000000000000000ull)},
             {"SysTime", TEvtxValue(0x12, {0xE8, 0x07, 3, 0, 1, 0, 11, 0, 10, 0, 20, 0, 30, 0, 0x7B, 0})},
             {"Sid", TEvtxValue::Sid("S-1-5-21-1-2-3-500")},
             {"Hex32", TEvtxValue(0x14, {0xEF, 0xBE, 0xAD, 0xDE})},
             {"Hex", TEvtxValue::Hex64(0xABCDEF)},
             {"Ansi", TEvtxValue::AnsiString("caf\xE9 \"<x>\"")},
             {"Bin", TEvtxValue::Binary(std::vector<uint8_t>{1, 2, 0xFE})},
             {"Strings", TEvtxValue::StringArray({"one", "t\"w\"o", "", "three"})},
             {"Numbers", TEvtxValue::UInt32Array(std::vector<uint32_t>{7, 8, 9})},
             {"Null", TEvtxValue::Null()}};
  auto inner = std::make_shared<TEvtxTemplate>("user-data", [](TBinXmlWriter& w) {
    w.OpenElement("Info");
    w.CloseStartElement();
    w.SubstitutionElement("N", 0, EvtxType::UInt32);
    w.SubstitutionElement("E", 1, EvtxType::String);
    w.SubstitutionElement("T", 2, EvtxType::UInt32);
    w.EndElement();
  });
  TEvtxEventDraft u = SampleEvent(2);
  u.FData.clear();
  u.FUserData = TEvtxValue::BinXml(inner, {TEvtxValue::UInt32(7), TEvtxValue::Null(), TEvtxValue::Null()});
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  ASSERT_TRUE(chunk.AddEvent(1, e, templates));
  ASSERT_TRUE(chunk.AddEvent(2, u, templates));
  ExpectRowsAsItems(WriteTempFile("row-kinds.evtx", MakeFileFromChunks({chunk.Finish()})), 2);
}

// A row's day count is kept for the next row whose time text reads the same to the
// millisecond: rows of one millisecond, the next one, and back to the first, must each
// carry exactly the item's day count.
TEST(EventRow, TimesOfNeighbouringRowsAsTheItems) {
  const uint64_t t = 133000000000000000ull + 9990000; // .999 of a second
  const std::vector<uint64_t> times = {t, t + 1, t + 9999, t + 10000, t + 10001, t + 5, t - 10000, 0, 0};
  std::vector<TEvtxEventDraft> events;
  uint64_t id = 1;
  for (const uint64_t time : times) {
    TEvtxEventDraft e = SampleEvent(id++);
    e.FTimeCreated = time;
    events.push_back(e);
  }
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t record = 1;
  for (const auto& e : events) ASSERT_TRUE(chunk.AddEvent(record++, e, templates));
  const std::string path = WriteTempFile("row-times.evtx", MakeFileFromChunks({chunk.Finish()}));
  auto read = [&](bool ARows) {
    TEventLogBinXML reader;
    reader.SetBackupFileName(path);
    reader.SetWithoutXml(true);
    reader.SetActive(true);
    EXPECT_TRUE(reader.Active());
    TEventLogBinXML taker;
    taker.SetWithoutXml(true);
    taker.SetValuesForMissingDescription(false);
    std::vector<std::pair<double, std::string>> seen;
    TChunkReader::Run(
        reader.ChunkProducer(), [](TChunkResult&) {}, 1, [&](TChunkResult& AResult, unsigned) {
          if (ARows)
            taker.TakeChunkRows(AResult, AResult.Sequence, [&](const TEventRow& ARow) {
              seen.emplace_back(ARow.TimeGenerated, std::string(ARow.SystemTime));
            });
          else
            taker.TakeChunk(AResult, AResult.Sequence, [&](TEventItemX& AItem) {
              seen.emplace_back(AItem.FTimeGenerated, AItem.FSystemTime);
            });
        });
    return seen;
  };
  const auto rows = read(true);
  const auto items = read(false);
  ASSERT_EQ(rows.size(), times.size());
  ASSERT_EQ(items.size(), rows.size());
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].second, items[i].second) << i;
    EXPECT_EQ(rows[i].first, items[i].first) << i << " " << rows[i].second; // exactly
  }
  EXPECT_NE(rows[0].first, rows[2].first); // the times do differ
}

TEST(EventRow, SampleLogGivesTheItemsRows) {
  ExpectRowsAsItems(WriteTempFile("row-sample.evtx", MakeEvtxFile(3, 20)), 60);
}

} // namespace
} // namespace qvx
