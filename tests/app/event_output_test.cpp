// The JSON Lines writer keeps the text of fields that repeat from event to event: each
// line must still show its own event's values, empty ones included.
#include "app/event_output.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace qvx::app
