// The JSON Lines writer keeps the text of fields that repeat from event to event: each
// line must still show its own event's values, empty ones included.
#include "app/event_output.h"

#include "descriptions/time_zones.h"
#include "engine/event_log_binxml.h"

#include <gtest/gtest.h>

#include <limits>

#include <string>

namespace qvx::app {
namespace {

std::string JsonlOf(const std::vector<TEventRow>& ARows) {
  const std::unique_ptr<TEventWriter> writer = MakeEventWriter(TOutputFormat::ofJsonl, nullptr, 0);
  for (const TEventRow& row : ARows) writer->WriteRow(row);
  std::string text;
  writer->TakeText(text);
  return text;
}

TEST(EventOutput, JsonlRepeatedFieldsShowEachEventsValues) {
  const TStringList values = {"v"};
  TEventRow empty;
  empty.List = &values;
  TEventRow full = empty;
  full.Source = "S\"1";
  full.Channel = "Security";
  full.Computer = "host";
  full.TaskName = "Logon";
  full.UserName = "N/A";
  full.UserSid = "S-1-5-18";
  full.Keywords = "0x8020000000000000";
  const std::string text = JsonlOf({empty, full, full, empty});
  const std::string blank = "\"task\":\"\",\"task_id\":0,\"opcode\":0,\"keywords\":\"\",\"source\":\"\",\"channel\":\"\","
                            "\"computer\":\"\",\"user\":\"\",\"user_sid\":null,";
  const std::string filled = "\"task\":\"Logon\",\"task_id\":0,\"opcode\":0,\"keywords\":\"0x8020000000000000\","
                             "\"source\":\"S\\\"1\",\"channel\":\"Security\",\"computer\":\"host\",\"user\":\"N/A\","
                             "\"user_sid\":\"S-1-5-18\",";
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t end = text.find('\n', at);
    ASSERT_NE(end, std::string::npos);
    lines.push_back(text.substr(at, end - at));
    at = end + 1;
  }
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_NE(lines[0].find(blank), std::string::npos) << lines[0];
  EXPECT_NE(lines[1].find(filled), std::string::npos) << lines[1];
  EXPECT_NE(lines[2].find(filled), std::string::npos) << lines[2];
  EXPECT_NE(lines[3].find(blank), std::string::npos) << lines[3];
  EXPECT_NE(lines[3].find("\"data\":[\"v\"]}"), std::string::npos) << lines[3];
}

// Times are written digit by digit: zero padding of each field, the last millisecond of
// a day, and the clamps at both ends (a five-digit year).
TEST(EventOutput, DayCountTextPadsAndClamps) {
  auto text = [](uint16_t AYear, uint16_t AMonth, uint16_t ADay, uint16_t AHour, uint16_t AMinute, uint16_t ASecond,
                 uint16_t AMs) {
    TSystemTime t{};
    t.wYear = AYear, t.wMonth = AMonth, t.wDay = ADay, t.wHour = AHour, t.wMinute = AMinute, t.wSecond = ASecond;
    t.wMilliseconds = AMs;
    std::string out = "x";
    AppendDayCountText(out, SystemTimeToDays(t), 'T');
    return out;
  };
  EXPECT_EQ(text(2024, 3, 5, 7, 8, 9, 7), "x2024-03-05T07:08:09.007");
  EXPECT_EQ(text(1999, 12, 31, 23, 59, 59, 999), "x1999-12-31T23:59:59.999");
  EXPECT_EQ(text(2000, 1, 1, 0, 0, 0, 0), "x2000-01-01T00:00:00.000");
  EXPECT_EQ(text(1601, 1, 1, 0, 0, 0, 10), "x1601-01-01T00:00:00.010");
  EXPECT_EQ(text(9999, 12, 31, 12, 30, 45, 100), "x9999-12-31T12:30:45.100");
  EXPECT_EQ(text(10000, 1, 1, 0, 0, 0, 0), "x10000-01-01T00:00:00.000");
  std::string low, high;
  AppendDayCountText(low, -1e9);
  AppendDayCountText(high, 1e9);
  EXPECT_EQ(low, "1601-01-01 00:00:00.000");
  EXPECT_EQ(high, "30827-12-31 23:59:59.999");
}

// A row's numbers are written between their names: one digit, many, and the largest.
TEST(EventOutput, JsonlRowNumbers) {
  const TStringList values;
  TEventRow row;
  row.List = &values;
  row.RecordId = 18446744073709551615ull;
  row.Level = 0;
  row.EventId = 4294967295u;
  row.Qualifiers = 16384;
  row.Version = 9;
  row.TaskNumber = 65535;
  row.OpCode = 10;
  const std::string text = JsonlOf({row});
  EXPECT_EQ(text.rfind("{\"record\":18446744073709551615,\"time\":\"", 0), 0u) << text;
  EXPECT_NE(text.find(",\"level\":0,\"event_id\":4294967295,\"qualifiers\":16384,\"version\":9,\"task\":\"\","
                      "\"task_id\":65535,\"opcode\":10,\"keywords\":\"\","),
            std::string::npos)
      << text;
}

// Rows of the same millisecond share the text of their time, each with its own 100 ns
// digits; a time after another is written afresh, and so is a return to an earlier one,
// in UTC and shifted.
TEST(EventOutput, JsonlTimesOfNeighbouringRows) {
  TSystemTime t{};
  t.wYear = 2024, t.wMonth = 2, t.wDay = 29, t.wHour = 23, t.wMinute = 59, t.wSecond = 59, t.wMilliseconds = 999;
  const double a = SystemTimeToDays(t);
  t.wYear = 2024, t.wMonth = 3, t.wDay = 1, t.wHour = 0, t.wMinute = 0, t.wSecond = 0, t.wMilliseconds = 0;
  const double b = SystemTimeToDays(t);
  const TStringList values;
  std::vector<TEventRow> rows;
  const std::vector<std::pair<double, std::string_view>> times = {{a, "2024-02-29T23:59:59.9991234Z"},
                                                                   {a, "2024-02-29T23:59:59.9995678Z"},
                                                                   {b, "2024-03-01T00:00:00.0000001Z"},
                                                                   {a, "2024-02-29T23:59:59.999Z"}};
  for (const auto& [days, text] : times) {
    TEventRow row;
    row.List = &values;
    row.TimeGenerated = days;
    row.SystemTime = text;
    rows.push_back(row);
  }
  auto expect = [](const std::string& AText, const std::vector<std::string>& AExpected) {
    size_t at = 0;
    for (const std::string& line : AExpected) {
      const size_t end = AText.find('\n', at);
      ASSERT_NE(end, std::string::npos);
      const std::string got = AText.substr(at, end - at);
      EXPECT_NE(got.find(line), std::string::npos) << got << "\n wants " << line;
      at = end + 1;
    }
    EXPECT_EQ(at, AText.size());
  };
  expect(JsonlOf(rows), {"\"time\":\"2024-02-29T23:59:59.9991234Z\",\"time_utc\":\"2024-02-29T23:59:59.9991234Z\"",
                         "\"time\":\"2024-02-29T23:59:59.9995678Z\",\"time_utc\":\"2024-02-29T23:59:59.9995678Z\"",
                         "\"time\":\"2024-03-01T00:00:00.0000001Z\",\"time_utc\":\"2024-03-01T00:00:00.0000001Z\"",
                         "\"time\":\"2024-02-29T23:59:59.9990000Z\",\"time_utc\":\"2024-02-29T23:59:59.9990000Z\""});
  TEventLogBinXML shifted;
  shifted.SetTimeShift(0, -90, {});
  for (TEventRow& row : rows) row.Owner = &shifted;
  expect(JsonlOf(rows),
         {"\"time\":\"2024-02-29T22:29:59.9991234-01:30\",\"time_utc\":\"2024-02-29T23:59:59.9991234Z\"",
          "\"time\":\"2024-02-29T22:29:59.9995678-01:30\",\"time_utc\":\"2024-02-29T23:59:59.9995678Z\"",
          "\"time\":\"2024-02-29T22:30:00.0000001-01:30\",\"time_utc\":\"2024-03-01T00:00:00.0000001Z\"",
          "\"time\":\"2024-02-29T22:29:59.9990000-01:30\",\"time_utc\":\"2024-02-29T23:59:59.9990000Z\""});
}

} // namespace
} // namespace qvx::app
