// The event filter's WHERE text clause by clause, its quirks, and filter files.
#include "filter/event_filter.h"

#include "support/hive_writer.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <fstream>

namespace qvx {
namespace {

double Day(const char* AText) {
  double days = 0;
  EXPECT_TRUE(ParseDateTimeText(AText, days)) << AText;
  return days;
}

TEST(EventFilterIds, TheGrammarWithItsOddCases) {
  EXPECT_EQ(EventIdsToSQL("4624,4625-4630!4627"),
            "(EventID = 4624 or (EventID >= 4625 and EventID <= 4630)) and (EventID <> 4627)");
  EXPECT_EQ(EventIdsToSQL("!100"), "(EventID <> 100)");
  EXPECT_EQ(EventIdsToSQL("100!"), "EventID = 100");
  EXPECT_EQ(EventIdsToSQL("5-3"), "(EventID >= 5 and EventID <= 3)"); // bounds are not swapped
  EXPECT_EQ(EventIdsToSQL(" 7 , ,abc"), "EventID = 7 or EventID = 0");
  EXPECT_EQ(EventIdsToSQL("1!2,3-4"), "EventID = 1 and ((EventID <> 2) and (EventID < 3 or EventID > 4))");
  EXPECT_EQ(EventIdsToSQL(""), "");
  EXPECT_EQ(EventIdsToSQL(" , "), "");
}

TEST(EventFilterWhere, EachClauseKindWithItsExactText) {
  TEventFilter filter;
  EXPECT_TRUE(filter.IsEmpty());
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "");

  filter.EVT_VERBOSE = filter.EVT_CRITICAL = filter.EVT_AUDIT_SUCCESS = false;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "([Type] IN (2,3,4,13))");
  filter.EVT_INFORMATION = filter.EVT_WARNING = filter.EVT_ERROR = filter.EVT_AUDIT_FAILURE = false;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), ""); // none selected restricts nothing
  EXPECT_TRUE(filter.IsEmpty());
  filter.Clear();

  filter.Sources = {"Disk", "O'Brien"};
  filter.UsersExclude = true;
  filter.Users = {"SYSTEM"};
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0),
            "([Source] IN ('Disk','O''Brien') COLLATE NOCASE) AND ([UserName] NOT IN ('SYSTEM') COLLATE NOCASE)");
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "([Source] IN ('Disk','O''Brien')) AND ([UserName] NOT IN ('SYSTEM'))");
  filter.Clear();

  filter.IDs = "4624";
  filter.IDsExcept = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "(NOT (EventID = 4624))");
  filter.Clear();

  filter.DescrText = "  it's 50%_ ";
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "(MyInStr([Descr], 'it''s 50%_', 0)<> 0)");
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "([Descr] LIKE '%it''s 50[%][_]%')");
  filter.DescrTextExclude = filter.CaseSensitive = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "(MyInStr([Descr], 'it''s 50%_', 1)=0)");
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "([Descr] NOT LIKE '%it''s 50[%][_]%')");
  filter.DescrTextRegExp = true;
  filter.DescrText = "^a'b";
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "([Descr] NOT REGEXP '^a''b')");
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "([Descr] NOT LIKE '^a''b')");
  filter.Clear();

  filter.LastDays = 1;
  filter.LastHours = 6; // 30 hours
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, -60),
            "((JulianDay(DateTime('now', '-60 minutes')) - JulianDay(TimeStamp))*24 <= 30)");
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "(DateDiff(mi, [TimeStampUTC], SYSUTCDATETIME()) <= 1800)");
  filter.LastHoursExclude = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwMSSQL, 0), "(NOT DateDiff(mi, [TimeStampUTC], SYSUTCDATETIME()) <= 1800)");
  filter.Clear();

  filter.DescrFilter = {{"Logon Type", coEquals, "3"}, {"", coEquals, "x"}, {"Ignored", coNone, "y"},
                        {"Name", coContains, "O'K"}};
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0),
            "(CompareDescrWithCond([Descr], 'Logon Type', 1, '3', 0) AND "
            "CompareDescrWithCond([EvtXML], [Descr], 'Name', 3, 'O''K', 0))");
}

TEST(EventFilterWhere, DateAndTimeRangesContinuousOrDaily) {
  TEventFilter filter;
  filter.FromTime = Day("2024-03-01 08:00:00");
  filter.ToTime = Day("2024-03-05 17:30:15");
  filter.ByDate = filter.ByTime = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0),
            "([TimeStamp] >= '2024-03-01 08:00:00' AND [TimeStamp] <= '2024-03-05 17:30:15.9999999' )");
  filter.Separately = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0),
            "([Date] >= '2024-03-01' AND [Date] <= '2024-03-05' AND [Time] >= '08:00:00' AND [Time] <= '17:30:15' )");
  filter.ByTime = false;
  filter.DateTimeExclude = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "(NOT ([Date] >= '2024-03-01' AND [Date] <= '2024-03-05' ))");
  filter.ByDate = false;
  filter.ByTime = true;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "(NOT ([Time] >= '08:00:00' AND [Time] <= '17:30:15' ))");
}

TEST(EventFilterWhere, CustomColumnsFollowTheStoresFieldType) {
  TEventFilter filter;
  filter.CustomColFilter = {{1, coEquals, "12.5"}, {2, coGreater, "2024-03-01 10:00"}, {3, coInList, "a,b"},
                            {4, coNotMatches, "^x"}, {5, coNone, "skip"}, {3, coLess, "m"}, {1, coNotInList, "1,2"}};
  const TFieldKindOf kinds = [](const std::string& AField) {
    return AField == "CustomField1" ? TFieldKind::fkNumeric
           : AField == "CustomField2" ? TFieldKind::fkDateTime
                                      : TFieldKind::fkText;
  };
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0, kinds),
            "([CustomField1] = 12.5) AND (DateTime([CustomField2]) > '2024-03-01 10:00:00') AND "
            "(MyInList([CustomField3], 'a,b', 0)) AND (NOT [CustomField4] REGEXP '^x') AND "
            "(MyCompareStr ([CustomField3], 'm', 0) < 0) AND (NOT MyInList([CustomField1], '1,2', 0))");
  filter.CustomColFilter = {{2, coInList, "2024-03-01, 2024-03-02 12:00:00"}};
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0, kinds),
            "(DateTime([CustomField2]) in ('2024-03-01 00:00:00', '2024-03-02 12:00:00'))");
}

TEST(EventFilter, ClearAssignAndIsEmptyKeepSearchDir) {
  TEventFilter filter;
  filter.SearchDir = 2;
  filter.Sources = {"x"};
  filter.IDs = "100";
  EXPECT_FALSE(filter.IsEmpty());
  TEventFilter copy;
  copy.SearchDir = 7;
  filter.AssignTo(copy);
  EXPECT_EQ(copy.Sources, filter.Sources);
  EXPECT_EQ(copy.SearchDir, 7);
  filter.Clear();
  EXPECT_TRUE(filter.IsEmpty());
  EXPECT_EQ(filter.SearchDir, 2);
  // The exclude flags and the regular-expression flag alone do not make a filter.
  filter.SourcesExclude = filter.DescrTextRegExp = filter.CaseSensitive = true;
  EXPECT_TRUE(filter.IsEmpty());
}

TEST(EventFilterFile, RoundTripsEveryCriterion) {
  TEventFilter filter;
  filter.EVT_WARNING = false;
  filter.Sources = {"A & B", "<c>"};
  filter.SourcesExclude = true;
  filter.Categories = {"Logon"};
  filter.Users = {"ü\\user"};
  filter.Computers = {"PC'1"};
  filter.IDs = "4624,4625-4630!4627";
  filter.IDsExcept = true;
  filter.DescrText = "fail\"ed";
  filter.DescrTextRegExp = true;
  filter.ByDate = filter.ByTime = filter.Separately = true;
  filter.FromTime = Day("2024-03-01 08:00:00.250");
  filter.ToTime = Day("2024-12-31 23:59:59.999");
  filter.LastDays = 3;
  filter.LastHours = -2;
  filter.CustomColFilter = {{1, coGreater, "5"}};
  filter.DescrFilter = {{"Logon Type", coEquals, "3"}};
  filter.CaseSensitive = true;
  filter.MinDetectionLevel = dlLow;
  const auto path = (test::ScratchDir() / "f.xml").string();
  filter.SaveToFile(path);
  TEventFilter loaded;
  loaded.LoadFromFile(path);
  EXPECT_EQ(loaded.CreateSQLWhere(tfwSQLite, 0), filter.CreateSQLWhere(tfwSQLite, 0));
  EXPECT_EQ(loaded.SaveToString(), filter.SaveToString());
  EXPECT_EQ(TimeText(loaded.ToTime), "23:59:59");
  const std::string text = filter.SaveToString();
  EXPECT_NE(text.find("<QVEX_Filter version=\"1\">"), std::string::npos);
  EXPECT_NE(text.find("<IDsExclude>1</IDsExclude>"), std::string::npos);
  EXPECT_NE(text.find("<FromTime>2024-03-01T08:00:00.250</FromTime>"), std::string::npos);
}

TEST(EventFilterDetections, TheLevelIsANumberInTheText) {
  TEventFilter filter;
  EXPECT_EQ(filter.MinDetectionLevel, dlNone);
  filter.MinDetectionLevel = dlHigh;
  EXPECT_FALSE(filter.IsEmpty());
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "([_ID] IN (SELECT [_ID] FROM QvxDetections WHERE [Level] >= 3))");
  filter.IDs = "4625";
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0),
            "(EventID = 4625) AND ([_ID] IN (SELECT [_ID] FROM QvxDetections WHERE [Level] >= 3))");
  // A number set by code outside the levels is held to them.
  filter.IDs.clear();
  filter.MinDetectionLevel = 99;
  EXPECT_EQ(filter.CreateSQLWhere(tfwSQLite, 0), "([_ID] IN (SELECT [_ID] FROM QvxDetections WHERE [Level] >= 4))");
  filter.Clear();
  EXPECT_EQ(filter.MinDetectionLevel, dlNone);
  EXPECT_TRUE(filter.IsEmpty());

  int32_t level = dlNone;
  EXPECT_TRUE(ParseDetectionLevel("Medium", level));
  EXPECT_EQ(level, dlMedium);
  EXPECT_TRUE(ParseDetectionLevel("0", level));
  EXPECT_EQ(level, dlInformational);
  for (const char* bad : {"", "5", "-1", "med", "high ", "critical'--", "10"}) EXPECT_FALSE(ParseDetectionLevel(bad, level)) << bad;
  EXPECT_STREQ(DetectionLevelName(dlCritical), "critical");
  EXPECT_STREQ(DetectionLevelName(dlNone), "");
}

TEST(EventFilterDetections, FilterFilesKeepTheLevel) {
  TEventFilter filter;
  filter.MinDetectionLevel = dlMedium;
  const std::string text = filter.SaveToString();
  EXPECT_NE(text.find("<MinDetectionLevel>medium</MinDetectionLevel>"), std::string::npos) << text;
  TEventFilter loaded;
  loaded.LoadFromString(text);
  EXPECT_EQ(loaded.MinDetectionLevel, dlMedium);
  EXPECT_EQ(loaded.SaveToString(), text);
  // Files without the element (older ones) select by no level; a file can say it by number.
  TEventFilter plain;
  EXPECT_EQ(plain.SaveToString().find("MinDetectionLevel"), std::string::npos);
  loaded.LoadFromString(plain.SaveToString());
  EXPECT_EQ(loaded.MinDetectionLevel, dlNone);
  loaded.LoadFromString("<QVEX_Filter><Filter><MinDetectionLevel> 4 </MinDetectionLevel></Filter></QVEX_Filter>");
  EXPECT_EQ(loaded.MinDetectionLevel, dlCritical);
  try {
    loaded.LoadFromString("<QVEX_Filter><Filter><MinDetectionLevel>2) OR (1=1</MinDetectionLevel></Filter></QVEX_Filter>",
                          "f.xml");
    ADD_FAILURE() << "a level that is not one was loaded";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "f.xml: element QVEX_Filter/Filter/MinDetectionLevel: \"2) OR (1=1\" is not a detection "
                           "level (informational, low, medium, high, critical)");
  }
  EXPECT_EQ(loaded.MinDetectionLevel, dlCritical);
}

TEST(EventFilterFile, BadFilesNameFileAndElementAndChangeNothing) {
  TEventFilter filter;
  filter.IDs = "100";
  const auto dir = test::ScratchDir();
  auto expectError = [&](const std::string& AContent, const std::string& AMessage) {
    const auto path = (dir / "bad.xml").string();
    std::ofstream(path) << AContent;
    try {
      filter.LoadFromFile(path);
      ADD_FAILURE() << "loaded: " << AContent;
    } catch (const std::runtime_error& e) {
      std::string expected = path;
      expected.append(": ").append(AMessage);
      EXPECT_EQ(std::string(e.what()), expected);
    }
    EXPECT_EQ(filter.IDs, "100");
  };
  expectError("not xml at all", "not a filter file: No document element found at offset 14");
  expectError("<Other/>", "not a filter file: the root element is <Other>, expected <QVEX_Filter>");
  expectError("<QVEX_Filter version='1'/>", "element QVEX_Filter/Filter is missing");
  expectError("<QVEX_Filter><Filter><IDs>9</IDs><LastDays>abc</LastDays></Filter></QVEX_Filter>",
              "element QVEX_Filter/Filter/LastDays: \"abc\" is not an integer");
  expectError("<QVEX_Filter><Filter><ByDate>yes</ByDate></Filter></QVEX_Filter>",
              "element QVEX_Filter/Filter/ByDate: \"yes\" is not 0 or 1");
  expectError("<QVEX_Filter><Filter><CustomCol><Condition><Number>x</Number></Condition></CustomCol></Filter></QVEX_Filter>",
              "element QVEX_Filter/Filter/CustomCol/Condition/Number: \"x\" is not an integer");
  EXPECT_THROW(filter.LoadFromFile((dir / "none.xml").string()), std::runtime_error);
}

} // namespace
} // namespace qvx
