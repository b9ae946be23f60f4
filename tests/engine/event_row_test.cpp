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

TEST(EventRow, SampleLogGivesTheItemsRows) {
  ExpectRowsAsItems(WriteTempFile("row-sample.evtx", MakeEvtxFile(3, 20)), 60);
}

} // namespace
} // namespace qvx
