#include "filter/xml_query.h"

#include <gtest/gtest.h>

#include <string>

namespace qvx {
namespace {

std::string QueryWith(const std::string& AFilter, const std::string& APath = "Application") {
  std::string Xml("<QueryList><Query Id=\"0\"><Select Path=\"");
  return Xml.append(APath).append("\">").append(AFilter).append("</Select></Query></QueryList>");
}

std::string FilterOf(const std::string& AXml) {
  const size_t Start = AXml.find('>', AXml.find("<Select")) + 1;
  return AXml.substr(Start, AXml.find("</Select>") - Start);
}

TXMLQueryBuilder FullExample() {
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"Security"};
  Builder.LevelCritical = true;
  Builder.LevelError = true;
  Builder.LevelInformation = true;
  Builder.Events = "4624,4625-4630!4627";
  Builder.Sources = {"Microsoft-Windows-Security-Auditing", "EventLog"};
  Builder.SourcesExcl = {"Service Control Manager"};
  Builder.KeywordsAuditSuccess = true;
  Builder.KeywordsAuditFailure = true;
  Builder.LastMiliseconds = 86400000;
  return Builder;
}

// ---- Event ID expressions ----

TEST(XmlQueryEventIds, IncludesRangesAndExclusions) {
  const TEventIdExpression Ids = ParseEventIdExpression(" 4624 , 4625-4630,,!4627");
  ASSERT_EQ(Ids.Included.size(), 2u);
  EXPECT_EQ(Ids.Included[0], (TEventIdItem{4624, 4624, false}));
  EXPECT_EQ(Ids.Included[1], (TEventIdItem{4625, 4630, true}));
  ASSERT_EQ(Ids.Excluded.size(), 1u);
  EXPECT_EQ(Ids.Excluded[0], (TEventIdItem{4627, 4627, false}));
  EXPECT_EQ(FormatEventIdExpression(Ids), "4624,4625-4630!4627");
}

TEST(XmlQueryEventIds, EdgeForms) {
  EXPECT_TRUE(ParseEventIdExpression("!100").Included.empty());
  EXPECT_EQ(ParseEventIdExpression("!100").Excluded.size(), 1u);
  EXPECT_EQ(FormatEventIdExpression(ParseEventIdExpression("100!")), "100");
  EXPECT_EQ(FormatEventIdExpression(ParseEventIdExpression("5-3")), "5-3");
  EXPECT_EQ(FormatEventIdExpression(ParseEventIdExpression("abc,99999999999999")), "0,0");
  EXPECT_EQ(FormatEventIdExpression(ParseEventIdExpression("1!2!3")), "1!0");
  EXPECT_TRUE(ParseEventIdExpression("  , ,").IsEmpty());
}

// ---- Building ----

TEST(XmlQueryBuild, NoConditionsWritesStar) {
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"Application"};
  const std::string Xml = Builder.BuildXML();
  EXPECT_EQ(Xml, "<QueryList>\n  <Query Id=\"0\">\n    <Select Path=\"Application\">*</Select>\n  </Query>\n"
                 "</QueryList>\n");
}

TEST(XmlQueryBuild, SourceNamesStayLiterals) {
  // A name cannot close its literal and add conditions of its own.
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"Application"};
  Builder.Sources = {"x' or '1'='1"};
  Builder.SourcesExcl = {"O'Brien"};
  const std::string Xml = Builder.BuildXML();
  EXPECT_NE(Xml.find("@Name=\"x' or '1'='1\""), std::string::npos) << Xml;
  EXPECT_NE(Xml.find("@Name!=\"O'Brien\""), std::string::npos) << Xml;
  Builder.Sources = {"both ' and \""};
  EXPECT_THROW(Builder.BuildXML(), std::invalid_argument);
}

TEST(XmlQueryBuild, InformationWritesLevelFourOrZero) {
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"System"};
  Builder.LevelInformation = true;
  EXPECT_EQ(FilterOf(Builder.BuildXML()), "*[System[(Level = 4 or Level = 0)]]");
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(Builder.BuildXML()), qprParsed) << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventLevels, TEventLevelSet{elInformation});
}

TEST(XmlQueryBuild, AuditKeywordsSum) {
  EXPECT_EQ(EventKeywordValue(kwdAuditFailure), 4503599627370496u);
  EXPECT_EQ(EventKeywordValue(kwdAuditSuccess), 9007199254740992u);
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"Security"};
  Builder.KeywordsAuditSuccess = true;
  Builder.KeywordsAuditFailure = true;
  EXPECT_EQ(FilterOf(Builder.BuildXML()), "*[System[band(Keywords,13510798882111488)]]");
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(Builder.BuildXML()), qprParsed) << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.Keywords, (TEventKeywordSet{kwdAuditFailure, kwdAuditSuccess}));
}

TEST(XmlQueryBuild, FullExampleText) {
  EXPECT_EQ(FilterOf(FullExample().BuildXML()),
            "*[System[(Level = 1 or Level = 2 or Level = 4 or Level = 0) and "
            "(EventID = 4624 or (EventID &gt;= 4625 and EventID &lt;= 4630)) and EventID != 4627 and "
            "Provider[@Name='Microsoft-Windows-Security-Auditing' or @Name='EventLog'] and "
            "Provider[@Name!='Service Control Manager'] and band(Keywords,13510798882111488) and "
            "TimeCreated[timediff(@SystemTime) &lt;= 86400000]]]");
}

TEST(XmlQueryBuild, ExcludedRangesAndFiles) {
  TXMLQueryBuilder Builder;
  Builder.LogNames = {"Application"};
  Builder.EventLogFiles = {"/tmp/saved logs/a.evtx"};
  Builder.Events = "!1,3-5";
  const std::string Xml = Builder.BuildXML();
  EXPECT_NE(Xml.find("<Query Id=\"1\">"), std::string::npos);
  EXPECT_NE(Xml.find("Path=\"file:///tmp/saved logs/a.evtx\""), std::string::npos);
  EXPECT_EQ(FilterOf(Xml), "*[System[EventID != 1 and (EventID &lt; 3 or EventID &gt; 5)]]");
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(Xml), qprParsed) << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventIds, "!1,3-5");
  ASSERT_EQ(Parser.EventLogs, (std::vector<std::string>{"Application", "/tmp/saved logs/a.evtx"}));
  EXPECT_EQ(Parser.EventLogIsFile, (std::vector<bool>{false, true}));
}

// ---- Round trips ----

TEST(XmlQueryRoundTrip, FullExample) {
  const std::string Xml = FullExample().BuildXML();
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(Xml), qprParsed) << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"Security"});
  EXPECT_EQ(Parser.EventLevels, (TEventLevelSet{elCritical, elError, elInformation}));
  EXPECT_EQ(Parser.EventIds, "4624,4625-4630!4627");
  EXPECT_EQ(Parser.Providers, (std::vector<std::string>{"Microsoft-Windows-Security-Auditing", "EventLog"}));
  EXPECT_EQ(Parser.ProvidersExcl, std::vector<std::string>{"Service Control Manager"});
  EXPECT_EQ(Parser.Keywords, (TEventKeywordSet{kwdAuditFailure, kwdAuditSuccess}));
  EXPECT_EQ(Parser.LastMinutes, 1440);
  EXPECT_EQ(Parser.ToBuilder().BuildXML(), Xml);
  std::string Rebuilt;
  EXPECT_TRUE(Parser.VerifyImported(&Rebuilt));
  EXPECT_EQ(Rebuilt, Xml);
}

TEST(XmlQueryRoundTrip, EveryKeywordAndLevel) {
  TXMLQueryBuilder Builder;
  Builder.EventLogFiles = {"C:\\logs\\x.evtx"};
  Builder.LevelVerbose = Builder.LevelInformation = Builder.LevelWarning = true;
  Builder.LevelError = Builder.LevelCritical = true;
  Builder.KeywordsAuditFailure = Builder.KeywordsAuditSuccess = Builder.KeywordsCorrelationHint2 = true;
  Builder.KeywordsEventLogClassic = Builder.KeywordsResponseTime = Builder.KeywordsSqm = true;
  Builder.KeywordsWdiContext = Builder.KeywordsWdiDiagnostic = true;
  Builder.Events = "5-3";
  const std::string Xml = Builder.BuildXML();
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(Xml), qprParsed) << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventLevels.size(), 5u);
  EXPECT_EQ(Parser.Keywords.size(), 8u);
  EXPECT_EQ(Parser.EventIds, "5-3");
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"C:\\logs\\x.evtx"});
  EXPECT_EQ(Parser.ToBuilder().BuildXML(), Xml);
}

TEST(XmlQueryRoundTrip, VerifyImportedCatchesUnwritableCriteria) {
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(QueryWith("*[System[Level=2]]")), qprParsed);
  EXPECT_TRUE(Parser.VerifyImported());
  Parser.Providers = {"It's"}; // an apostrophe cannot be written inside '...'
  EXPECT_FALSE(Parser.VerifyImported());
}

// ---- Paths ----

TEST(XmlQueryPaths, FileUrlAndQueryPath) {
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(QueryWith("*", "file://C:\\Logs\\Saved.evtx")), qprParsed);
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"C:\\Logs\\Saved.evtx"});
  EXPECT_EQ(Parser.EventLogIsFile, std::vector<bool>{true});
  // A Select without Path takes the Path of its Query.
  ASSERT_EQ(Parser.Parse("<QueryList><Query Id='0' Path='System'><Select>*</Select></Query></QueryList>"),
            qprParsed);
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"System"});
}

TEST(XmlQueryPaths, EveryPathCollectedOnce) {
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse("<QueryList><Query Id='0'><Select Path='Application'>*[System[Level=2]]</Select>"
                         "<Select Path='System'>*[System[Level = 2]]</Select></Query>"
                         "<Query Id='1'><Select Path='Application'>*[System[Level=2]]</Select></Query>"
                         "</QueryList>"),
            qprParsed)
      << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventLogs, (std::vector<std::string>{"Application", "System"}));
}

// ---- Failures ----

void ExpectFailure(const std::string& AXml, const std::string& AMessage) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse(AXml), qprFailed) << AXml;
  EXPECT_EQ(Parser.ParseErrorMessage, AMessage) << AXml;
  EXPECT_TRUE(Parser.EventLogs.empty());
  EXPECT_TRUE(Parser.EventLevels.empty());
}

TEST(XmlQueryFailures, ExactMessages) {
  ExpectFailure("", "Empty XML");
  ExpectFailure("  \n ", "Empty XML");
  ExpectFailure("<Foo/>", "Expected QueryList. Found Foo");
  ExpectFailure("<QueryList><Bar/></QueryList>", "Expected Query. Found Bar");
  ExpectFailure("<QueryList></QueryList>", "Node Query not found");
  ExpectFailure("<QueryList><Query Id='0'></Query></QueryList>", "Node Select not found");
  ExpectFailure("<QueryList><Query Id='0'><Suppress Path='A'>*</Suppress></Query></QueryList>",
                "Node Select not found");
  ExpectFailure(QueryWith("*", ""), "Invalid Path");
  ExpectFailure(QueryWith("*", "  "), "Invalid Path");
  ExpectFailure(QueryWith("*", "file://"), "Invalid Path");
  ExpectFailure("<QueryList><Query Id='0'><Select>*</Select></Query></QueryList>", "Invalid Path");
  ExpectFailure(QueryWith("Level=2"), "Invalid XPath filter");
  ExpectFailure(QueryWith(""), "Invalid XPath filter");
  ExpectFailure(QueryWith("*[System[]]"), "Invalid XPath filter");
  ExpectFailure(QueryWith("*[EventData[Data='x']]"), "Invalid XPath filter");
  // A later failure discards what earlier Selects gave.
  ExpectFailure("<QueryList><Query Id='0'><Select Path='A'>*</Select></Query><Query Id='1'>"
                "<Select Path='B'>nonsense</Select></Query></QueryList>",
                "Invalid XPath filter");
}

TEST(XmlQueryFailures, InvalidXmlNamesTheOffset) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse("<QueryList><Query>"), qprFailed);
  EXPECT_EQ(Parser.ParseErrorMessage.rfind("Invalid XML: ", 0), 0u);
  EXPECT_NE(Parser.ParseErrorMessage.find(" at offset "), std::string::npos);
  EXPECT_EQ(Parser.Parse("not xml"), qprFailed);
  EXPECT_EQ(Parser.ParseErrorMessage.rfind("Invalid XML: ", 0), 0u) << Parser.ParseErrorMessage;
}

// ---- Inaccurate readings ----

TEST(XmlQueryInaccurate, UnknownConditionKeepsUnderstoodCriteria) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[(Level=1 or Level=2) and Security[@UserID='S-1-5-18'] and "
                                   "EventID=4624]]")),
            qprInaccurate);
  EXPECT_EQ(Parser.EventLevels, (TEventLevelSet{elCritical, elError}));
  EXPECT_EQ(Parser.EventIds, "4624");
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"Application"});
  EXPECT_NE(Parser.ParseErrorMessage.find("Security"), std::string::npos) << Parser.ParseErrorMessage;
}

TEST(XmlQueryInaccurate, EventDataBesideSystem) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[Level=3]] and *[EventData[Data[@Name='x']='y']]")),
            qprInaccurate);
  EXPECT_EQ(Parser.EventLevels, TEventLevelSet{elWarning});
}

TEST(XmlQueryInaccurate, CombinationsTheCriteriaCannotSay) {
  TXMLQueryParser Parser;
  for (const char* Filter : {
           "*[System[Level=1 and Level=2]]",                            // two level groups
           "*[System[Level=1 or EventID=5]]",                           // levels or-ed with IDs
           "*[System[EventID=3 and EventID=4]]",                        // two ID groups
           "*[System[Level=1 and EventID &lt; 3 or EventID &gt; 5]]",   // excluded range without parentheses
           "*[System[(Level=1]]",                                       // unbalanced
           "*[System[Level=9]]",                                        // no such level
           "*[System[band(Keywords,1)]]",                               // provider keyword bit
           "*[System[band(Keywords,0)]]",                               // selects nothing
           "*[System[TimeCreated[timediff(@SystemTime) &lt;= 90000]]]", // not whole minutes
           "*[System[Computer='HOST']]",                                // no computer criteria in the builder
           "*[System[EventID &lt;= 5]]",
       }) {
    EXPECT_EQ(Parser.Parse(QueryWith(Filter)), qprInaccurate) << Filter;
    EXPECT_FALSE(Parser.ParseErrorMessage.empty()) << Filter;
  }
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[TimeCreated[timediff(@SystemTime) &lt;= 90000]]]")),
            qprInaccurate);
  EXPECT_EQ(Parser.LastMinutes, 2); // rounded up
}

TEST(XmlQueryInaccurate, SelectsWithDifferentFilters) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse("<QueryList><Query Id='0'><Select Path='A'>*[System[Level=2]]</Select></Query>"
                         "<Query Id='1'><Select Path='B'>*[System[Level=3]]</Select></Query></QueryList>"),
            qprInaccurate);
  EXPECT_EQ(Parser.EventLevels, TEventLevelSet{elError});
  EXPECT_EQ(Parser.EventLogs, (std::vector<std::string>{"A", "B"}));
}

TEST(XmlQueryInaccurate, SuppressBesideSelect) {
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse("<QueryList><Query Id='0'><Select Path='A'>*</Select>"
                         "<Suppress Path='A'>*[System[Level=4]]</Suppress></Query></QueryList>"),
            qprInaccurate);
  EXPECT_EQ(Parser.EventLogs, std::vector<std::string>{"A"});
}

// ---- Spacing ----

TEST(XmlQuerySpacing, BlanksAndCompactFormsAccepted) {
  TXMLQueryParser Parser;
  ASSERT_EQ(
      Parser.Parse(QueryWith("  * [ System [ ( Level=1  or\nLevel =  5 ) and\t( EventID=7 or ( EventID&gt;10 "
                             "and EventID&lt;20 ) ) and ( EventID&lt;30 or EventID&gt;40 ) and "
                             "Provider [ @Name = 'A'  or @Name='B' ] and Provider[@Name!='C'and@Name != 'D'] "
                             "and band ( Keywords , 4503599627370496 ) and TimeCreated [ timediff ( "
                             "@SystemTime ) &lt; 3600000 ] ] ]  ")),
      qprParsed)
      << Parser.ParseErrorMessage;
  EXPECT_EQ(Parser.EventLevels, (TEventLevelSet{elCritical, elVerbose}));
  EXPECT_EQ(Parser.EventIds, "7,11-19!30-40");
  EXPECT_EQ(Parser.Providers, (std::vector<std::string>{"A", "B"}));
  EXPECT_EQ(Parser.ProvidersExcl, (std::vector<std::string>{"C", "D"}));
  EXPECT_EQ(Parser.Keywords, TEventKeywordSet{kwdAuditFailure});
  EXPECT_EQ(Parser.LastMinutes, 60);
}

TEST(XmlQuerySpacing, ProviderNameThatLooksLikeACondition) {
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(QueryWith("*[System[Provider[@Name='EventID = 5 or Level = 1']]]")), qprParsed);
  EXPECT_EQ(Parser.Providers, std::vector<std::string>{"EventID = 5 or Level = 1"});
  EXPECT_TRUE(Parser.EventIds.empty());
  EXPECT_TRUE(Parser.EventLevels.empty());
}

TEST(XmlQuerySpacing, LevelZeroAloneIsInformation) {
  TXMLQueryParser Parser;
  ASSERT_EQ(Parser.Parse(QueryWith("*[System[Level=0]]")), qprParsed);
  EXPECT_EQ(Parser.EventLevels, TEventLevelSet{elInformation});
}

// ---- Hostile input ----

TEST(XmlQueryHostile, VeryLongNumbers) {
  const std::string Digits(5000, '9');
  TXMLQueryParser Parser;
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[EventID=" + Digits + "]]")), qprInaccurate);
  EXPECT_TRUE(Parser.EventIds.empty());
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[Level=" + Digits + "]]")), qprInaccurate);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[band(Keywords," + Digits + ")]]")), qprInaccurate);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[TimeCreated[timediff(@SystemTime) &lt;= " + Digits + "]]]")),
            qprInaccurate);
  EXPECT_EQ(Parser.LastMinutes, 2147483647);
  EXPECT_EQ(
      Parser.Parse(QueryWith("*[System[TimeCreated[timediff(@SystemTime) &lt;= 9223372036854775807]]]")),
      qprInaccurate);
  EXPECT_EQ(Parser.LastMinutes, 2147483647);
  EXPECT_EQ(Parser.Parse(
                QueryWith("*[System[EventID=4294967295 or (EventID &gt; 4294967295 and EventID &lt; 0)]]")),
            qprInaccurate);
  EXPECT_EQ(Parser.EventIds, "4294967295");
  // Bounds of the number reader: the largest value of each field still reads.
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[Level=5 or Level=6]]")), qprInaccurate);
  EXPECT_EQ(Parser.EventLevels, TEventLevelSet{elVerbose});
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[EventID=4294967296]]")), qprInaccurate);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[band(Keywords,18446744073709551615)]]")), qprInaccurate);
  EXPECT_EQ(Parser.Keywords.size(), 8u);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[band(Keywords,18446744073709551616)]]")), qprInaccurate);
  EXPECT_TRUE(Parser.Keywords.empty());
}

TEST(XmlQueryHostile, HugeSelectTexts) {
  TXMLQueryParser Parser;
  std::string Ors;
  for (int I = 0; Ors.size() < 100'000; ++I)
    Ors.append(I ? " or " : "").append("Level = 1");
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[" + Ors + "]]")), qprParsed);

  std::string Names("@Name='a'");
  while (Names.size() < 100'000)
    Names.append(" or @Name='a'");
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[Provider[" + Names + "]]]")), qprParsed);
  EXPECT_GT(Parser.Providers.size(), 1000u);

  EXPECT_EQ(Parser.Parse(QueryWith("*[System[" + std::string(100'000, '(') + "Level=1" +
                                   std::string(100'000, ')') + "]]")),
            qprInaccurate);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[" + std::string(100'000, 'x') + "]]")), qprInaccurate);
  EXPECT_EQ(Parser.Parse(QueryWith(std::string(100'000, '*'))), qprFailed);
  EXPECT_EQ(Parser.Parse(QueryWith("*[System[" + std::string(100'000, ' ') + "EventID=1]]")), qprParsed);
  std::string Brackets;
  for (int I = 0; I < 20'000; ++I)
    Brackets.append("[System");
  EXPECT_NE(Parser.Parse(QueryWith("*[System[" + Brackets + "]]")), qprParsed);
}

TEST(XmlQueryHostile, ControlCharactersAndMarksInText) {
  TXMLQueryParser Parser;
  const std::string Weird = std::string("*[System[") + '\x01' + "Level=1" + '\x02' + "]]";
  EXPECT_NE(Parser.Parse(QueryWith(Weird)), qprParsed);
}

} // namespace
} // namespace qvx
