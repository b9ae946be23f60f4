// The filter's SQLite WHERE text run for real against a table of the event store's schema,
// with the functions the store registers: a clause that is not valid SQL fails here, and
// simple rows show that each clause selects what it says. Texts that look like SQL or like
// LIKE wildcards are run through the real store and must be found literally.
#include "app/filter_options.h"
#include "filter/event_filter.h"
#include "filter/filter_json.h"
#include "view/evt_lite_adaptor.h"
#include "view/store_functions.h"

#include "support/test_paths.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sqlite3.h>

#include <fstream>
#include <string>

namespace qvx {
namespace {

std::string Text(sqlite3_value* AValue) {
  const unsigned char* text = sqlite3_value_text(AValue);
  return text ? reinterpret_cast<const char*>(text) : "";
}

class EventFilterSQLite : public ::testing::Test {
protected:
  void SetUp() override {
    ASSERT_EQ(sqlite3_open(":memory:", &FDb), SQLITE_OK);
    Exec("CREATE TABLE Events ( [_ID] INTEGER PRIMARY KEY,[Type] INTEGER, [TimeStamp] DATETIME, [Date] DATETIME, "
         "[Time] DATETIME, [EventID] INT, [Source] VARCHAR(80) COLLATE NOCASE, [CategoryName] VARCHAR(60) COLLATE "
         "NOCASE, [UserName] VARCHAR(80) COLLATE NOCASE, [Computer] VARCHAR(80) COLLATE NOCASE, [RecordNumber] "
         "BIGINT, [EventLog] INTEGER, [EvtXML] TEXT, [Descr] TEXT COLLATE NOCASE, [CustomField1] COLLATE NOCASE , "
         "[CustomField2] COLLATE NOCASE , [CustomField3] COLLATE NOCASE , [_Flt] INTEGER, [_Bmrk] INTEGER DEFAULT 0 )");
    ASSERT_EQ(RegisterStoreFunctions(FDb), SQLITE_OK);
    // Type, time, id, source, user, description, custom fields.
    Exec("INSERT INTO Events ([Type],[TimeStamp],[Date],[Time],[EventID],[Source],[CategoryName],[UserName],"
         "[Computer],[Descr],[CustomField1],[CustomField2],[CustomField3]) VALUES "
         "(4,'2024-03-01 08:00:00','2024-03-01','08:00:00',4624,'Security','Logon','CORP\\alice','PC1',"
         "'An account was logged on.\r\n\r\nLogon Information:\r\n\tLogon Type:\t\t3',"
         "5,'2024-03-01 08:00:00','alpha'),"
         "(12,'2024-03-02 20:00:00','2024-03-02','20:00:00',4625,'Security','Logon','CORP\\bob','PC2',"
         "'An account failed to log on.\r\n\r\nLogon Information:\r\n\tLogon Type:\t\t10',"
         "15,'2024-03-02 20:00:00','beta'),"
         "(2,'2024-03-03 09:30:00','2024-03-03','09:30:00',7036,'Service Control Manager','None','N/A','PC1',"
         "'The service entered the running state.',25,'2024-03-03 09:30:00','gamma')");
  }
  void TearDown() override { sqlite3_close(FDb); }

  void Exec(const std::string& ASql) {
    char* error = nullptr;
    ASSERT_EQ(sqlite3_exec(FDb, ASql.c_str(), nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "") << ASql;
  }

  // The record ids the filter keeps, as "4624,4625".
  std::string Run(const TEventFilter& AFilter, const TFieldKindOf& AKinds = {}) {
    const std::string where = AFilter.CreateSQLWhere(tfwSQLite, 0, AKinds);
    std::string sql = "SELECT group_concat([EventID]) FROM (SELECT [EventID] FROM Events";
    if (!where.empty()) sql.append(" WHERE ").append(where);
    sql.append(" ORDER BY [_ID])");
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(FDb, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << sqlite3_errmsg(FDb) << "\n" << sql;
      return "<error>";
    }
    std::string ids;
    if (sqlite3_step(statement) == SQLITE_ROW) ids = Text(sqlite3_column_value(statement, 0));
    sqlite3_finalize(statement);
    return ids;
  }

  sqlite3* FDb = nullptr;
};

TEST_F(EventFilterSQLite, EveryClauseIsValidSqlAndSelectsWhatItSays) {
  TEventFilter filter;
  EXPECT_EQ(Run(filter), "4624,4625,7036");
  filter.EVT_INFORMATION = filter.EVT_WARNING = false; // rows of type 4 (error) and 12 stay
  EXPECT_EQ(Run(filter), "4624,4625");
  filter.EVT_ERROR = false;
  EXPECT_EQ(Run(filter), "4625");
  filter.Clear();
  filter.Sources = {"security"};
  EXPECT_EQ(Run(filter), "4624,4625");
  filter.SourcesExclude = true;
  filter.Users = {"corp\\ALICE", "N/A"};
  EXPECT_EQ(Run(filter), "7036");
  filter.Clear();
  filter.IDs = "4600-4700!4625";
  EXPECT_EQ(Run(filter), "4624");
  filter.IDsExcept = true;
  EXPECT_EQ(Run(filter), "4625,7036");
  filter.Clear();
  filter.DescrText = "ACCOUNT";
  EXPECT_EQ(Run(filter), "4624,4625");
  filter.CaseSensitive = true;
  EXPECT_EQ(Run(filter), "");
  filter.DescrTextRegExp = true;
  filter.DescrText = "fail(ed)? to";
  filter.DescrTextExclude = true;
  EXPECT_EQ(Run(filter), "4624,7036");
  filter.Clear();
  filter.ByDate = filter.ByTime = filter.Separately = true;
  double from = 0, to = 0;
  ParseDateTimeText("2024-03-01 07:00:00", from);
  ParseDateTimeText("2024-03-03 10:00:00", to);
  filter.FromTime = from;
  filter.ToTime = to;
  EXPECT_EQ(Run(filter), "4624,7036"); // 20:00 is outside the daily window
  filter.Separately = false;
  EXPECT_EQ(Run(filter), "4624,4625,7036");
  filter.Clear();
  filter.LastDays = 1;
  EXPECT_EQ(Run(filter), ""); // all rows are older than a day
  filter.LastHoursExclude = true;
  EXPECT_EQ(Run(filter), "4624,4625,7036");
  filter.Clear();
  filter.DescrFilter = {{"Logon Type", coEquals, "3"}};
  EXPECT_EQ(Run(filter), "4624");
  filter.DescrFilter = {{"Logon Information\\Logon Type", coGreater, "5"}};
  EXPECT_EQ(Run(filter), "4625"); // numerically; the event without the parameter is out
  filter.DescrFilter = {{"Logon Type", coNotEqual, "3"}, {"logon type", coInList, "2,10"}};
  EXPECT_EQ(Run(filter), "4625");
  filter.DescrFilter = {{"Logon Type", coMatches, "^1"}};
  EXPECT_EQ(Run(filter), "4625");
}

TEST_F(EventFilterSQLite, DetectionLevelsSelectEventsByTheirDetections) {
  // The store's table of detections, linked to the events by _ID: 4624 has a low and a
  // high detection, 7036 a medium one, 4625 none.
  Exec("CREATE TABLE QvxDetections (_ID INTEGER NOT NULL, RuleId TEXT, Title TEXT, Author TEXT, Level INTEGER, "
       "Matched TEXT)");
  Exec("INSERT INTO QvxDetections (_ID, Level) SELECT _ID, 1 FROM Events WHERE EventID = 4624");
  Exec("INSERT INTO QvxDetections (_ID, Level) SELECT _ID, 3 FROM Events WHERE EventID = 4624");
  Exec("INSERT INTO QvxDetections (_ID, Level) SELECT _ID, 2 FROM Events WHERE EventID = 7036");
  TEventFilter filter;
  const std::pair<int32_t, const char*> cases[] = {{dlNone, "4624,4625,7036"}, {dlInformational, "4624,7036"},
                                                   {dlLow, "4624,7036"},          {dlMedium, "4624,7036"},
                                                   {dlHigh, "4624"},              {dlCritical, ""}};
  for (const auto& [level, ids] : cases) {
    filter.MinDetectionLevel = level;
    EXPECT_EQ(Run(filter), ids) << level;
  }
  filter.MinDetectionLevel = dlMedium;
  filter.Computers = {"PC1"};
  filter.IDs = "7036";
  EXPECT_EQ(Run(filter), "7036");
}

TEST_F(EventFilterSQLite, CustomColumnConditionsOfEveryFlavourRun) {
  const TFieldKindOf kinds = [](const std::string& AField) {
    return AField == "CustomField1" ? TFieldKind::fkNumeric
           : AField == "CustomField2" ? TFieldKind::fkDateTime
                                      : TFieldKind::fkText;
  };
  TEventFilter filter;
  const std::pair<TCustomColFilterCond, const char*> cases[] = {
      {{1, coGreater, "10"}, "4625,7036"},
      {{1, coEquals, "5"}, "4624"},
      {{1, coInList, "5,25"}, "4624,7036"},
      {{2, coLess, "2024-03-02"}, "4624"},
      {{2, coNotInList, "2024-03-01 08:00:00"}, "4625,7036"},
      {{3, coEquals, "BETA"}, "4625"},
      {{3, coNotEqual, "beta"}, "4624,7036"},
      {{3, coContains, "amm"}, "7036"},
      {{3, coNotContains, "a"}, ""},
      {{3, coMatches, "^(alpha|gamma)$"}, "4624,7036"},
      {{3, coNotMatches, "^al"}, "4625,7036"},
      {{3, coInList, "alpha,gamma"}, "4624,7036"},
      {{3, coGreater, "b"}, "4625,7036"},
      {{3, coLess, "b"}, "4624"},
  };
  for (const auto& [condition, expected] : cases) {
    filter.CustomColFilter = {condition};
    EXPECT_EQ(Run(filter, kinds), expected) << condition.Number << " " << condition.Oper << " " << condition.Value;
  }
}

// --- hostile texts through the real store -------------------------------------------

// Values that break a statement built by pasting text, or that a LIKE pattern would read
// as wildcards.
const std::string kHostile[] = {"O'Brien", "x') OR ('1'='1", "a--b",      "semi;colon",
                                "50%",     "under_score",    "[bracket]", "x'); DROP TABLE Events; --"};
// What the hostile values would also match if they were read as SQL or as patterns.
const std::string kNearMiss[] = {"OBrien", "50x", "underXscore", "b", "1", "a"};

struct TRowText {
  std::string Source, CategoryName, UserName, Computer, Descr, Custom;
};
std::string TRowText::*const kRowColumns[] = {&TRowText::Source,   &TRowText::CategoryName,
                                              &TRowText::UserName, &TRowText::Computer,
                                              &TRowText::Descr,    &TRowText::Custom};
// The filter lists in the order of the first four row columns.
std::vector<std::string> TEventFilter::*const kLists[] = {&TEventFilter::Sources, &TEventFilter::Categories,
                                                          &TEventFilter::Users, &TEventFilter::Computers};
bool TEventFilter::*const kListExcludes[] = {&TEventFilter::SourcesExclude, &TEventFilter::CategoriesExclude,
                                             &TEventFilter::UsersExclude, &TEventFilter::ComputersExclude};

// A store with one text custom column: for every hostile value one row per column that
// holds it there (the description as "Owner's Name: value", a description parameter),
// one row per near miss holding it everywhere, and two plain rows.
class EventFilterStore : public ::testing::Test {
protected:
  static constexpr int64_t kRows = 8 * 6 + 6 + 2;

  void SetUp() override {
    FStore.SetCustomFields({TDBCustomField{}});
    FStore.InitThreadDataSet();
    FStore.EmptyTable();
    FStore.StartBatchInsert();
    const TRowText plain{"Plain", "None", "SYSTEM", "PC1", "plain text", "plain"};
    for (const std::string& hostile : kHostile)
      for (std::string TRowText::*column : kRowColumns) {
        TRowText row = plain;
        row.*column = column == &TRowText::Descr ? "Owner's Name: " + hostile : hostile;
        Add(row);
      }
    for (const std::string& miss : kNearMiss)
      Add({miss, miss, miss, miss, "Owner's Name: " + miss, miss});
    Add(plain);
    Add(plain);
    FStore.FinishBatchInsert();
    ASSERT_EQ(Total(), kRows);
  }

  void Add(const TRowText& ARow) {
    TLiteRecord record;
    record.Type = 2;
    record.EventID = ++FNextId;
    record.Source = ARow.Source;
    record.CategoryName = ARow.CategoryName;
    record.UserName = ARow.UserName;
    record.Computer = ARow.Computer;
    record.Descr = ARow.Descr;
    record.CustomFields = {ARow.Custom};
    FStore.AppendLiteEvent(record);
  }

  // The rows the filter keeps, counted by the store itself.
  int64_t Count(const TEventFilter& AFilter) {
    FStore.SetFilterSQL(AFilter.CreateSQLWhere(tfwSQLite, 0, FStore.FieldKindOf()));
    return FStore.GetRecordCount();
  }
  int64_t Total() { return FStore.QueryIntValue("SELECT COUNT(*) FROM Events"); }

  TEvtLiteAdaptor FStore{":memory:"};
  int64_t FNextId = 0;
};

TEST_F(EventFilterStore, ListItemsAreFoundLiterallyInEveryList) {
  const char* const plain[] = {"Plain", "None", "SYSTEM", "PC1"};
  for (size_t list = 0; list < 4; ++list)
    for (const std::string& hostile : kHostile) {
      TEventFilter filter;
      (filter.*kLists[list]) = {hostile};
      EXPECT_EQ(Count(filter), 1) << list << " " << hostile;
      filter.*kListExcludes[list] = true;
      EXPECT_EQ(Count(filter), kRows - 1) << list << " " << hostile;
      // Beside an ordinary item, the hostile one changes nothing of it.
      filter.*kListExcludes[list] = false;
      (filter.*kLists[list]).push_back(plain[list]);
      EXPECT_EQ(Count(filter), 1 + 2 + 5 * 8) << list << " " << hostile;
    }
  EXPECT_EQ(Total(), kRows);
}

TEST_F(EventFilterStore, DescriptionTextAndPatternsAreFoundLiterally) {
  TEventFilter filter;
  for (const std::string& hostile : kHostile) {
    filter.DescrText = hostile;
    EXPECT_EQ(Count(filter), 1) << hostile;
  }
  // Wildcards of LIKE and pieces of SQL are plain characters of a substring search.
  const std::pair<const char*, int64_t> parts[] = {{"%", 1}, {"_", 1},  {"[", 1},  {"[b]", 0}, {"--", 2},
                                                   {";", 2}, {"')", 2}, {"'", 14}, {"50_", 0}};
  for (const auto& [part, expected] : parts) {
    filter.DescrText = part;
    filter.DescrTextExclude = false;
    EXPECT_EQ(Count(filter), expected) << part;
    filter.DescrTextExclude = true;
    EXPECT_EQ(Count(filter), kRows - expected) << part;
  }
  filter.Clear();
  filter.DescrTextRegExp = true;
  const std::pair<const char*, int64_t> patterns[] = {
      {"x'\\) OR \\('1'='1", 1}, {"^Owner's Name: 50%$", 1}, {"DROP TABLE Events; --$", 1}, {"'", 14}};
  for (const auto& [pattern, expected] : patterns) {
    filter.DescrText = pattern;
    EXPECT_EQ(Count(filter), expected) << pattern;
  }
  EXPECT_EQ(Total(), kRows);
}

TEST_F(EventFilterStore, ConditionValuesAndNamesAreData) {
  TEventFilter filter;
  for (const std::string& hostile : kHostile) {
    filter.DescrFilter = {{"Owner's Name", coEquals, hostile}};
    EXPECT_EQ(Count(filter), 1) << hostile;
    filter.DescrFilter.clear();
    filter.CustomColFilter = {{1, coEquals, hostile}};
    EXPECT_EQ(Count(filter), 1) << hostile;
    filter.CustomColFilter = {{1, coContains, hostile}};
    EXPECT_EQ(Count(filter), 1) << hostile;
    filter.CustomColFilter = {{1, coNotEqual, hostile}};
    EXPECT_EQ(Count(filter), kRows - 1) << hostile;
    filter.CustomColFilter.clear();
  }
  filter.DescrFilter = {{"Owner's Name", coContains, "'"}};
  EXPECT_EQ(Count(filter), 3);
  filter.DescrFilter = {{"x') OR ('1'='1", coNotEqual, "1"}}; // a name no description has
  EXPECT_EQ(Count(filter), 0);
  filter.DescrFilter.clear();
  filter.CustomColFilter = {{1, coInList, "semi;colon, 50%,a--b"}};
  EXPECT_EQ(Count(filter), 3);
  EXPECT_EQ(Total(), kRows);
}

TEST_F(EventFilterStore, NamesTheStoreLacksAreRefused) {
  TEventFilter filter;
  for (const int32_t number : {0, -1, 2, 1000}) {
    filter.CustomColFilter = {{number, coEquals, "x"}};
    try {
      Count(filter);
      ADD_FAILURE() << "custom column " << number << " was taken";
    } catch (const ESQLNameError& e) {
      EXPECT_EQ(std::string(e.what()), "custom column \"CustomField" + std::to_string(number) +
                                           "\" is not a column of the event store");
    }
  }
  filter.CustomColFilter.clear();
  filter.DescrFilter = {{"Name\r\n", coEquals, "x"}};
  EXPECT_THROW(Count(filter), ESQLNameError);
  filter.DescrFilter = {{std::string("Na\0me", 6), coEquals, "x"}};
  EXPECT_THROW(Count(filter), ESQLNameError);
}

TEST_F(EventFilterStore, FilterFilesKeepHostileItemsLiteral) {
  const auto dir = test::ScratchDir();
  for (size_t list = 0; list < 4; ++list) {
    TEventFilter filter;
    filter.*kLists[list] = std::vector<std::string>(std::begin(kHostile), std::end(kHostile));
    const std::string path = (dir / ("list" + std::to_string(list) + ".xml")).string();
    filter.SaveToFile(path);
    TEventFilter loaded;
    loaded.LoadFromFile(path);
    EXPECT_EQ(loaded.*kLists[list], filter.*kLists[list]);
    EXPECT_EQ(Count(loaded), 8) << list;
  }
  // A file written by hand, as another program or a person would.
  const std::string path = (dir / "hand.xml").string();
  std::ofstream(path) << "<?xml version='1.0' encoding='UTF-8'?>\n<QVEX_Filter version=\"1\"><Filter>"
                         "<Computers><Computer>x') OR ('1'='1</Computer><Computer>50%</Computer></Computers>"
                         "<DescrText>Name: 50%</DescrText></Filter></QVEX_Filter>";
  TEventFilter loaded;
  loaded.LoadFromFile(path);
  EXPECT_EQ(Count(loaded), 0); // the 50% computer's row has a plain description
  loaded.DescrText.clear();
  EXPECT_EQ(Count(loaded), 2);
  EXPECT_EQ(Total(), kRows);
}

// Stored times carry milliseconds: the end of a range given as a day, a minute or a
// second takes in every event of it, up to the last fraction of its last second.
TEST_F(EventFilterSQLite, TheEndOfARangeTakesInItsLastSecond) {
  Exec("DELETE FROM Events");
  Exec("INSERT INTO Events ([Type],[TimeStamp],[Date],[Time],[EventID]) VALUES "
       "(4,'2024-04-25 23:59:59.844','2024-04-25','23:59:59',1),"
       "(4,'2024-04-25 14:05:09.165','2024-04-25','14:05:09',2),"
       "(4,'2024-04-25 14:05:10.000','2024-04-25','14:05:10',3),"
       "(4,'2024-04-26 00:00:00.000','2024-04-26','00:00:00',4)");
  auto byJson = [&](const char* AFrom, const char* ATo) {
    return Run(FilterFromJson({{"from", AFrom}, {"to", ATo}}));
  };
  EXPECT_EQ(byJson("2024-04-25", "2024-04-25"), "1,2,3");
  EXPECT_EQ(byJson("2024-04-25 23:59:59", "2024-04-25 23:59:59"), "1");
  EXPECT_EQ(byJson("2024-04-25 14:05:09", "2024-04-25 14:05:09"), "2");
  EXPECT_EQ(byJson("2024-04-25 14:05", "2024-04-25 14:05"), "2,3");
  EXPECT_EQ(byJson("2024-04-25 14:00:00", "2024-04-25 14:59:59"), "2,3"); // a histogram hour
  app::TFilterOptions options;
  options.From = options.To = "2024-04-25";
  EXPECT_EQ(Run(app::BuildFilter(options)), "1,2,3");
  options.From = options.To = "2024-04-25 23:59:59";
  EXPECT_EQ(Run(app::BuildFilter(options)), "1");
  options.From = options.To = "2024-04-25 14:05";
  EXPECT_EQ(Run(app::BuildFilter(options)), "2,3");
  options.From = "2024-04-26";
  options.To = "";
  EXPECT_EQ(Run(app::BuildFilter(options)), "4");
}

} // namespace
} // namespace qvx
