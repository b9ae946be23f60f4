// The RenderingInfo element the store adds to an event's XML, and the names read back.
#include "view/rendering_info.h"

#include "engine/event_log_x.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

constexpr const char* kEvent =
    "<Event xmlns='http://schemas.microsoft.com/win/2004/08/events/event'><System><Provider Name='P'/>"
    "<Opcode>10</Opcode><Keywords>0x8000000000000005</Keywords></System>"
    "<EventData><Data Name='a'>x</Data></EventData></Event>";

TRenderingNames Names() {
  TRenderingNames names;
  names.Level = "Information";
  names.Task = "Task Five";
  names.Opcode = "Connect & go";
  names.Channel = "Application";
  names.Provider = "Test-Provider-A";
  names.Keywords = "Network, Disk <2>";
  return names;
}

TEST(RenderingInfo, IsTheLastChildOfTheEventWithEscapedNames) {
  std::string xml = kEvent;
  ASSERT_TRUE(AddRenderingInfo(xml, Names()));
  EXPECT_EQ(xml, std::string(kEvent).substr(0, std::string(kEvent).size() - 8) +
                     "<RenderingInfo><Level>Information</Level><Task>Task Five</Task><Opcode>Connect &amp; go</Opcode>"
                     "<Channel>Application</Channel><Provider>Test-Provider-A</Provider><Keywords><Keyword>Network"
                     "</Keyword><Keyword>Disk &lt;2&gt;</Keyword></Keywords></RenderingInfo></Event>");
  std::string opcode, keywords;
  ReadRenderingNames(xml, opcode, keywords);
  EXPECT_EQ(opcode, "Connect & go"); // not the System element's number
  EXPECT_EQ(keywords, "Network, Disk <2>");
}

TEST(RenderingInfo, OnlyTheKnownNamesAndNeverTwice) {
  std::string xml = kEvent;
  TRenderingNames names;
  names.Keywords = "Network";
  ASSERT_TRUE(AddRenderingInfo(xml, names));
  EXPECT_NE(xml.find("<RenderingInfo><Keywords><Keyword>Network</Keyword></Keywords></RenderingInfo></Event>"),
            std::string::npos);
  const std::string once = xml;
  EXPECT_FALSE(AddRenderingInfo(xml, Names())) << "an event that has one (a forwarded event) keeps it";
  EXPECT_EQ(xml, once);
  std::string opcode, keywords;
  ReadRenderingNames(xml, opcode, keywords);
  EXPECT_EQ(opcode, "");
  EXPECT_EQ(keywords, "Network");

  std::string noEnd = "<Event><System/>";
  EXPECT_FALSE(AddRenderingInfo(noEnd, Names()));
  EXPECT_EQ(noEnd, "<Event><System/>");
  std::string unchanged = kEvent;
  EXPECT_FALSE(AddRenderingInfo(unchanged, TRenderingNames()));
  EXPECT_EQ(unchanged, kEvent);
}

TEST(RenderingInfo, ForwardedEventsAndDamagedTextAreReadAsFarAsTheyGo) {
  std::string opcode = "old", keywords = "old";
  ReadRenderingNames(kEvent, opcode, keywords);
  EXPECT_EQ(opcode, "");
  EXPECT_EQ(keywords, "");
  // As Windows writes it for a forwarded event: attributes, a message, names.
  ReadRenderingNames("<Event><System/><RenderingInfo Culture='en-US'><Message>m</Message><Opcode>Info</Opcode>"
                     "<Keywords><Keyword>Audit Success</Keyword><Keyword></Keyword><Keyword>B</Keyword></Keywords>"
                     "</RenderingInfo></Event>",
                     opcode, keywords);
  EXPECT_EQ(opcode, "Info");
  EXPECT_EQ(keywords, "Audit Success, B");
  // Cut short: the unterminated element is not read, nothing past the text either.
  ReadRenderingNames("<Event><RenderingInfo><Opcode>Sta", opcode, keywords);
  EXPECT_EQ(opcode, "");
  ReadRenderingNames("<Event><RenderingInfo><Keywords><Keyword>A</Keyword><Keyword>B", opcode, keywords);
  EXPECT_EQ(keywords, "");
  ReadRenderingNames("<RenderingInfo></RenderingInfo><Opcode>outside</Opcode>", opcode, keywords);
  EXPECT_EQ(opcode, "") << "an element after RenderingInfo's end is not its name";
}

TEST(RenderingInfo, NamesOfAnEventComeOnlyWithOfflineOpcodeOrKeywordNames) {
  TEventItemX item(nullptr);
  item.FLevel = 4;
  item.FTask = 5;
  item.FCategoryName = "Task Five";
  item.FChannel = "Application";
  item.FSourceName = "Test-Provider-A";
  TRenderingNames names;
  EXPECT_FALSE(RenderingNamesOf(item, names)) << "no names from a catalog: the XML stays as read";
  item.FKeywordNames = "Network";
  ASSERT_TRUE(RenderingNamesOf(item, names));
  EXPECT_EQ(names.Level, "Information");
  EXPECT_EQ(names.Task, "Task Five");
  EXPECT_EQ(names.Opcode, "");
  EXPECT_EQ(names.Keywords, "Network");
  item.FCategoryName = "(5)"; // a task without a name
  item.FLevel = 0;
  ASSERT_TRUE(RenderingNamesOf(item, names));
  EXPECT_EQ(names.Task, "");
  EXPECT_EQ(names.Level, "");
}

} // namespace
} // namespace qvx
