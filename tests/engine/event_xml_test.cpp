// Reading event fields out of event XML: system fields, data values, times, types.
#include "engine/event_xml.h"

#include <cstdio>

#include <gtest/gtest.h>

namespace qvx {
namespace {

const char* const kEvent =
    "<Event xmlns=\"http://schemas.microsoft.com/win/2004/08/events/event\">\r\n<System>\r\n"
    "<Provider Name=\"Microsoft-Windows-Security-Auditing\" Guid=\"{54849625-5478-4994-a5ba-3e3b0328c30d}\" />\r\n"
    "<EventID Qualifiers=\"16384\">4625</EventID>\r\n<Version>1</Version>\r\n<Level>0</Level>\r\n"
    "<Task>12544</Task>\r\n<Opcode>3</Opcode>\r\n<Keywords>0x8010000000000000</Keywords>\r\n"
    "<TimeCreated SystemTime=\"2024-03-11T09:00:01.1234567Z\" />\r\n<EventRecordID>42</EventRecordID>\r\n"
    "<Correlation />\r\n<Execution ProcessID=\"812\" ThreadID=\"1000\" />\r\n<Channel>Security</Channel>\r\n"
    "<Computer>WS&amp;1</Computer>\r\n<Security UserID=\"S-1-5-18\" />\r\n</System>\r\n<EventData>\r\n"
    "<Data Name=\"SubjectUserName\">a &lt;b&gt; &#x41;&#66;</Data>\r\n<Data Name=\"Empty\"></Data>\r\n"
    "<Data Name=\"Null\" />\r\n<Data>plain</Data>\r\n<Binary>0A0bFF</Binary>\r\n</EventData>\r\n</Event>";

TEST(EventXmlSystemFields, ReadsEveryFieldAsText) {
  TEventXmlFields f;
  ReadSystemFields(kEvent, f);
  EXPECT_EQ(f.ProviderName, "Microsoft-Windows-Security-Auditing");
  EXPECT_EQ(f.EventID, "4625");
  EXPECT_EQ(f.EventIDQual, "16384");
  EXPECT_EQ(f.Version, "1");
  EXPECT_EQ(f.Level, "0");
  EXPECT_EQ(f.Task, "12544");
  EXPECT_EQ(f.TaskNumber, 12544u);
  EXPECT_EQ(f.Keywords, "0x8010000000000000");
  EXPECT_EQ(f.TimeCreated, "2024-03-11T09:00:01.1234567Z");
  EXPECT_EQ(f.EventRecordID, "42");
  EXPECT_EQ(f.Channel, "Security");
  EXPECT_EQ(f.Computer, "WS&1");
  EXPECT_EQ(f.UserID, "S-1-5-18");
  EXPECT_EQ(f.OpCode, "3"); // <Opcode>, as events write it
}

TEST(EventXmlSystemFields, MissingSectionOrFieldsLeaveThemEmpty) {
  TEventXmlFields f;
  f.ProviderName = "stale";
  ReadSystemFields("<Event><EventData/></Event>", f);
  EXPECT_EQ(f.ProviderName, "");
  ReadSystemFields("<Event><System><EventID>7</EventID><Channel/></System></Event>", f);
  EXPECT_EQ(f.EventID, "7");
  EXPECT_EQ(f.Channel, "");
  EXPECT_EQ(f.EventIDQual, "");
  // A truncated text never reads past its end.
  ReadSystemFields("<Event><System><EventID>7</Even", f);
  ReadSystemFields("<Event><System><Provider Name=\"x", f);
  EXPECT_EQ(f.ProviderName, "");
}

TEST(EventXmlData, EventDataValuesAndBinary) {
  TStringList values;
  std::vector<uint8_t> binary;
  ReadEventDataValues(kEvent, values, &binary);
  EXPECT_EQ(values, (TStringList{"a <b> AB", "", "", "plain"}));
  EXPECT_EQ(binary, (std::vector<uint8_t>{0x0A, 0x0B, 0xFF}));
}

TEST(EventXmlData, UserDataGivesAttributeValuesAndTextsInOrder) {
  const char* xml = "<Event><System><EventID>1</EventID></System><UserData>\r\n"
                    "<Op xmlns=\"urn:x\"><File name=\"a.cer\" size=\"10\" />\r\n<Result>0</Result>\r\n"
                    "<Note>x &amp; y</Note></Op></UserData></Event>";
  TStringList values;
  ReadEventDataValues(xml, values);
  EXPECT_EQ(values, (TStringList{"a.cer", "10", "0", "x & y"}));
}

TEST(EventXmlData, NoDataSectionGivesNoValues) {
  TStringList values{"stale"};
  ReadEventDataValues("<Event><System></System></Event>", values);
  EXPECT_TRUE(values.empty());
  // A self-closed section has empty content: nothing in it is searched (found by fuzzing).
  std::vector<uint8_t> binary{1};
  ReadEventDataValues("<Event><System></System><EventData/></Event>", values, &binary);
  EXPECT_TRUE(values.empty());
  EXPECT_TRUE(binary.empty());
}

// The list's strings are filled again in place (their capacity kept): values of an
// earlier, longer event must not show through, in EventData or UserData.
TEST(EventXmlData, StaleValuesOfAnEarlierEventAreReplacedWhole) {
  TStringList values{std::string(100, 'x'), std::string(40, 'y'), "3", "4", "5"};
  ReadEventDataValues("<Event><System></System><EventData><Data>ab</Data><Data></Data></EventData></Event>", values);
  EXPECT_EQ(values, (TStringList{"ab", ""}));
  values.assign(6, std::string(64, 'z'));
  ReadEventDataValues("<Event><System></System><UserData><A v=\"1\">t</A></UserData></Event>", values);
  EXPECT_EQ(values, (TStringList{"1", "t"}));
}

TEST(EventXmlUnescape, BadEntitiesStayAsWritten) {
  std::string out;
  AppendXmlUnescaped(out, "&bogus; & &#xZZ; &#55296; &#x1F600;");
  EXPECT_EQ(out, "&bogus; & &#xZZ; \xEF\xBF\xBD \xF0\x9F\x98\x80");
}

TEST(EventXmlTime, FractionIsDecimalAndTruncatedToMilliseconds) {
  const TSystemTime t = DaysToSystemTime(SystemTimeTextToDays("2024-03-11T09:00:01.123456789Z"));
  EXPECT_EQ(t.wYear, 2024);
  EXPECT_EQ(t.wMonth, 3);
  EXPECT_EQ(t.wDay, 11);
  EXPECT_EQ(t.wHour, 9);
  EXPECT_EQ(t.wSecond, 1);
  EXPECT_EQ(t.wMilliseconds, 123);
  auto ms = [](const char* AText) { return DaysToSystemTime(SystemTimeTextToDays(AText)).wMilliseconds; };
  EXPECT_EQ(ms("2024-03-11T09:00:01.0456789Z"), 45); // not 456: the fraction is decimal
  EXPECT_EQ(ms("2024-03-11T09:00:01.0001234Z"), 0);
  EXPECT_EQ(ms("2024-03-11T09:00:01.5Z"), 500);
  EXPECT_EQ(ms("2024-03-11T09:00:01:006Z"), 6); // older SYSTEMTIME text
  EXPECT_EQ(ms("2024-03-11T09:00:01Z"), 0);
  // 0.9999999 s stays in its second.
  const TSystemTime late = DaysToSystemTime(SystemTimeTextToDays("2024-03-11T09:00:01.9999999Z"));
  EXPECT_EQ(late.wSecond, 1);
  EXPECT_EQ(late.wMilliseconds, 999);
  EXPECT_EQ(SystemTimeTextToDays("garbage"), 0);
  EXPECT_EQ(SystemTimeTextToDays("2024-13-11T09:00:01.000Z"), 0);
  // The 100 ns units below the millisecond.
  EXPECT_EQ(FractionDigits("2024-03-11T09:00:01.0456789Z", 3, 4), 6789);
  EXPECT_EQ(FractionDigits("2024-03-11T09:00:01.9999999Z", 0, 7), 9999999);
  EXPECT_EQ(FractionDigits("2024-03-11T09:00:01.5Z", 3, 4), 0);
  EXPECT_EQ(FractionDigits("2024-03-11T09:00:01Z", 0, 7), 0);
  EXPECT_EQ(FractionDigits("", 0, 7), 0);
}

TEST(EventXmlTime, EventsMillisecondsApartKeepTheirOrder) {
  // 20 events 50 ms apart inside one second, from FILETIME text as the decoder writes it.
  double previous = 0;
  for (int i = 0; i < 20; ++i) {
    char text[40];
    std::snprintf(text, sizeof text, "2024-03-11T09:00:01.%07dZ", i * 500000 + 1234);
    const double days = SystemTimeTextToDays(text);
    EXPECT_EQ(DaysToSystemTime(days).wMilliseconds, i * 50) << text;
    if (i) {
      EXPECT_GT(days, previous) << text;
    }
    previous = days;
  }
}

TEST(EventXmlType, LevelKeywordsAndChannel) {
  EXPECT_EQ(EventTypeFromXml("Security", "0x8030000000000000", "0"), EVT_AUDIT_FAILURE); // both bits
  EXPECT_EQ(EventTypeFromXml("security", "0x8020000000000000", "0"), EVT_AUDIT_SUCCESS);
  EXPECT_EQ(EventTypeFromXml("Security", "0x8010000000000000", "4"), EVT_AUDIT_FAILURE);
  EXPECT_EQ(EventTypeFromXml("System", "0x8010000000000000", "2"), EVT_ERROR); // audit bits ignored
  EXPECT_EQ(EventTypeFromXml("System", "", "1"), EVT_CRITICAL);
  EXPECT_EQ(EventTypeFromXml("System", "", "3"), EVT_WARNING);
  EXPECT_EQ(EventTypeFromXml("System", "", "0"), EVT_INFORMATION);
  EXPECT_EQ(EventTypeFromXml("System", "", "4"), EVT_INFORMATION);
  EXPECT_EQ(EventTypeFromXml("System", "", "5"), EVT_VERBOSE);
  EXPECT_EQ(EventTypeFromXml("System", "", "16"), EVT_SUCCESS);
  EXPECT_EQ(EventTypeFromXml("System", "", "x"), EVT_INFORMATION); // not a number reads as 0
}

TEST(EventXmlNumbers, NotANumberIsZero) {
  EXPECT_EQ(TextToInt("4624"), 4624);
  EXPECT_EQ(TextToInt("-5"), -5);
  EXPECT_EQ(TextToInt("12a"), 0);
  EXPECT_EQ(TextToInt(""), 0);
  EXPECT_EQ(TextToInt("99999999999999999999999"), 0);
}

} // namespace
} // namespace qvx
