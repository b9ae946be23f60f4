// The filter's SQLite WHERE text run for real against a table of the event store's schema,
// with the functions the store registers: a clause that is not valid SQL fails here, and
// simple rows show that each clause selects what it says.
#include "filter/event_filter.h"
#include "view/store_functions.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

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

} // namespace
} // namespace qvx
