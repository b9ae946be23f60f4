// The event store over SQLite and the loading loop of the log view engine.
#include "view/evt_lite_adaptor.h"
#include "view/evt_mssql_adaptor.h"
#include "view/log_view_engine.h"

#include "descriptions/time_zones.h"
#include "engine/event_log_binxml.h"
#include "engine/event_log_x.h"
#include "engine/evtx/evtx_writer.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <unistd.h>

using namespace std::string_literals;

namespace qvx {
namespace {

TLiteRecord Row(int32_t AType, const char* ATime, int64_t AId, const char* ASource, const char* ADescr) {
  TLiteRecord r;
  r.Type = AType;
  r.TimeStamp = ATime;
  r.Date = std::string(ATime, 10);
  r.Time = std::string(ATime + 11, 8);
  r.EventID = AId;
  r.Source = ASource;
  r.Descr = ADescr;
  return r;
}

class EvtLiteAdaptor : public ::testing::Test {
protected:
  void SetUp() override {
    FStore.InitThreadDataSet();
    FStore.EmptyTable();
    FStore.StartBatchInsert();
    FStore.AppendLiteEvent(Row(4, "2024-03-02 10:00:00.000", 4625, "Security", "Logon failed"));
    FStore.AppendLiteEvent(Row(0, "2024-03-01 10:00:00.000", 7036, "SCM", "running"));
    FStore.AppendLiteEvent(Row(99, "2024-03-03 10:00:00.000", 1, "Odd", "unknown type"));
    FStore.FinishBatchInsert();
  }
  std::string Column(const char* AField) {
    std::string out;
    for (FStore.First(); !FStore.Eof(); FStore.Next())
      out.append(FStore.FieldText(AField)).push_back(';');
    return out;
  }
  TEvtLiteAdaptor FStore{":memory:"};
};

TEST_F(EvtLiteAdaptor, BatchSizesFollowTheCustomColumnCount) {
  EXPECT_EQ(TEvtLiteAdaptor::BatchSizeFor(10), 40u);
  EXPECT_EQ(TEvtLiteAdaptor::BatchSizeFor(11), 30u);
  EXPECT_EQ(TEvtLiteAdaptor::BatchSizeFor(15), 30u);
  EXPECT_EQ(TEvtLiteAdaptor::BatchSizeFor(16), 15u);
}

TEST_F(EvtLiteAdaptor, SchemaTextAndTypeTexts) {
  TEvtLiteAdaptor store(":memory:");
  store.SetCustomFields({TDBCustomField{}, TDBCustomField{}});
  const std::string sql = store.CreateTableSQL();
  EXPECT_NE(sql.find("CREATE TABLE Events \r\n( \r\n[_ID] INTEGER PRIMARY KEY,\r\n"), std::string::npos);
  EXPECT_NE(
      sql.find("[Descr] TEXT COLLATE NOCASE, \r\n[CustomField1] COLLATE NOCASE , \r\n[CustomField2] COLLATE "
               "NOCASE , \r\n[_Flt] INTEGER, \r\n[_Bmrk] INTEGER DEFAULT 0 \r\n)"),
      std::string::npos);
  FStore.MakeSQL();
  EXPECT_EQ(Column("TypeStr"), "Error;0;;");
}

TEST_F(EvtLiteAdaptor, SortingAndIndexes) {
  std::string column;
  EXPECT_EQ(FStore.SortOrderText("Date", true, column), "[TimeStamp] DESC");
  EXPECT_EQ(column, "TimeStamp");
  EXPECT_EQ(FStore.SortOrderText("typestr", false, column), "[Type] ASC");
  EXPECT_EQ(FStore.SortOrderText("_ID", false, column), "[_ID] ASC");
  EXPECT_EQ(column, "");
  FStore.SortTable("Date", false);
  FStore.MakeSQL();
  EXPECT_EQ(Column("EventID"), "7036;4625;1;");
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE name = 'Events_TimeStamp'"), 1);
  FStore.SortTable("_ID", true);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index'"), 1);
  FStore.SetNoIndexes(true);
  FStore.SortTable("Source", false);
  EXPECT_NE(FStore.BuildQuery().find(" ORDER BY +[Source] ASC"), std::string::npos);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index'"), 1);
  FStore.DropAllIndexes();
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index'"), 0);
}

TEST_F(EvtLiteAdaptor, HostileSortNamesAreRefusedAndTouchNothing) {
  FStore.SortTable("Source", false);
  const std::string order = FStore.OrderBy();
  const char* const indexes = "SELECT COUNT(*) FROM sqlite_master WHERE type = 'index'";
  ASSERT_EQ(FStore.QueryIntValue(indexes), 1);
  const std::string names[] = {"Date; DROP TABLE x",
                               "]",
                               "Source]--",
                               "Source] ASC; DROP TABLE Events; --",
                               "[Source]",
                               "Source ",
                               "",
                               "Nope",
                               "CustomField1", // the store has no custom columns
                               "sqlite_master",
                               "Type\nDROP",
                               "Date\0; DROP TABLE Events"s,
                               "(SELECT 1)",
                               std::string(300, 'D')};
  for (const std::string& name : names) {
    try {
      FStore.SortTable(name, true);
      ADD_FAILURE() << "sorted by " << name;
    } catch (const ESQLNameError& e) {
      const std::string message = e.what();
      EXPECT_EQ(message, "sort column " + SQLNameForMessage(name) + " is not a column of the event store");
      EXPECT_EQ(message.find_first_of("\r\n"s + '\0'), std::string::npos) << message;
    }
    EXPECT_EQ(FStore.OrderBy(), order) << name;
  }
  EXPECT_EQ(FStore.QueryIntValue(indexes), 1);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM Events"), 3);
  EXPECT_THROW(FStore.SetTableName("Events; DROP TABLE Events"), ESQLNameError);
  EXPECT_EQ(FStore.TableName(), "Events");
}

TEST_F(EvtLiteAdaptor, TextHoldingASecondStatementIsRefused) {
  for (const char* where :
       {"1; DROP TABLE Events", "1; DROP TABLE Events; --", "1; -- x\n DELETE FROM Events"}) {
    FStore.SetFilterSQL(where);
    EXPECT_THROW(FStore.MakeSQL(), EEventStoreError) << where;
    EXPECT_THROW(FStore.GetRecordCount(), EEventStoreError) << where;
    EXPECT_THROW(FStore.BookmarksByCriteria(where), EEventStoreError) << where;
    EXPECT_THROW(FStore.ExecSQL(std::string("UPDATE Events SET _Bmrk = 1 WHERE ") + where), EEventStoreError);
  }
  FStore.SetFilterSQL("1 -- a comment is no statement\n ;  /* nor is this */ ");
  EXPECT_EQ(FStore.GetRecordCount(), 3);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM Events WHERE _Bmrk = 1"), 0);
}

TEST_F(EvtLiteAdaptor, ForeignIndexNamesAreCheckedBeforeAnyIsDropped) {
  FStore.SortTable("EventID", false);
  ASSERT_EQ(sqlite3_exec(FStore.Handle(), "CREATE INDEX \"x; DROP TABLE Events\" ON Events (Source)", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  EXPECT_THROW(FStore.DropAllIndexes(), ESQLNameError);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index'"), 2);
  EXPECT_EQ(FStore.QueryIntValue("SELECT COUNT(*) FROM Events"), 3);
}

TEST(EvtLiteAdaptorCustom, DefinitionsAreDataAndKindsFollowTheColumns) {
  TEvtLiteAdaptor store(":memory:");
  TDBCustomField text, integer, real;
  text.Expression = "x'); DROP TABLE Events; --";
  text.EventIDs = "1'";
  integer.Format = 1;
  real.Format = 2;
  store.SetCustomFields({text, integer, real});
  store.InitThreadDataSet();
  store.EmptyTable();
  TLiteRecord row = Row(2, "2024-03-01 10:00:00.000", 1, "S", "d");
  store.AppendLiteEvent(row);
  store.FinishBatchInsert();
  store.UpdateCustomFields();
  EXPECT_EQ(store.QueryIntValue("SELECT COUNT(*) FROM Events WHERE CustomField1 IS NULL"), 1);
  const TFieldKindOf kinds = store.FieldKindOf();
  EXPECT_EQ(kinds("CustomField1"), TFieldKind::fkText);
  EXPECT_EQ(kinds("customfield2"), TFieldKind::fkNumeric);
  EXPECT_EQ(kinds("CustomField3"), TFieldKind::fkNumeric);
  EXPECT_EQ(kinds("CustomField4"), TFieldKind::fkMissing);
  EXPECT_EQ(kinds("CustomField1]"), TFieldKind::fkMissing);
  store.SortTable("CUSTOMFIELD3", false);
  EXPECT_EQ(store.OrderBy(), "[CustomField3] ASC");
  EXPECT_THROW(store.SortTable("CustomField4", false), ESQLNameError);
}

TEST_F(EvtLiteAdaptor, NavigationMovesBackByRereadingRows) {
  FStore.SetOrderBy("[_ID] ASC");
  FStore.MakeSQL();
  EXPECT_EQ(FStore.FieldInt("EventID"), 4625);
  FStore.Last();
  EXPECT_EQ(FStore.FieldInt("EventID"), 1);
  FStore.Prior();
  EXPECT_EQ(FStore.FieldText("Source"), "SCM");
  ASSERT_TRUE(FStore.GoToRecNo(1));
  EXPECT_EQ(FStore.FieldText("Descr"), "Logon failed");
  EXPECT_FALSE(FStore.GoToRecNo(4));
  EXPECT_TRUE(FStore.Locate("source", "odd", false));
  EXPECT_EQ(FStore.RecNo(), 3);
  EXPECT_EQ(FStore.GetRecordCount(), 3);
}

TEST_F(EvtLiteAdaptor, BookmarksAndFlagFilter) {
  EXPECT_EQ(FStore.BookmarksByCriteria("[EventID] > 1000"), 2);
  EXPECT_EQ(FStore.GetBookmarkCount(), 2);
  // Criteria that fail leave the bookmarks as they were.
  EXPECT_THROW(FStore.BookmarksByCriteria("[Descr] REGEXP '('"), EEventStoreError);
  EXPECT_EQ(FStore.GetBookmarkCount(), 2);
  EXPECT_EQ(FStore.BookmarksByCriteria("[EventID] = 12345"), 0);
  EXPECT_EQ(FStore.GetBookmarkCount(), 0);
  FStore.MakeSQL();
  FStore.BookmarkEvent();
  EXPECT_EQ(FStore.GetBookmarkCount(), 1);
  FStore.FltFilterOutAll();
  FStore.FltFilterIn(2);
  FStore.FltSetWhere();
  FStore.MakeSQL();
  EXPECT_EQ(Column("EventID"), "7036;");
}

TEST_F(EvtLiteAdaptor, FilterTextRunsForReal) {
  FStore.SetFilterSQL("[Descr] REGEXP '^Logon' AND MyInStr([Source], 'secu', 0) <> 0");
  FStore.MakeSQL();
  EXPECT_EQ(Column("EventID"), "4625;");
}

// Rows of a buffered operation, enough to fill the writer's queue several times over.
void AppendNumbered(TEvtLiteAdaptor& AStore, int ACount) {
  for (int i = 0; i < ACount; ++i) {
    TLiteRecord row = Row(i % 14, "2024-03-01 10:00:00.000", i, "Src", "d");
    row.EvtXML = "<Event>" + std::to_string(i) + "</Event>";
    row.Descr = std::string(static_cast<size_t>(i % 97), 'x');
    row.RecordNumber = 5000 - i;
    AStore.AppendLiteEvent(row);
  }
}

std::string TableText(TEvtLiteAdaptor& AStore) {
  sqlite3_stmt* query = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(AStore.Handle(), "SELECT * FROM Events ORDER BY _ID", -1, &query, nullptr),
            SQLITE_OK);
  std::string text;
  while (sqlite3_step(query) == SQLITE_ROW) {
    for (int c = 0; c < sqlite3_column_count(query); ++c) {
      const unsigned char* value = sqlite3_column_text(query, c);
      text.append(value ? reinterpret_cast<const char*>(value) : "NULL").push_back('|');
    }
    text.push_back('\n');
  }
  sqlite3_finalize(query);
  return text;
}

TEST(EvtLiteAdaptorWriter, BufferedRowsGoInInOrderAsWithoutTheWriter) {
  TEvtLiteAdaptor piped(":memory:"), direct(":memory:");
  direct.SetPipelined(false);
  for (TEvtLiteAdaptor* store : {&piped, &direct}) {
    store->InitThreadDataSet();
    store->EmptyTable();
    store->BeginBufferedOperation();
    AppendNumbered(*store, 2003); // 50 full batches and a part of one
    store->EndBufferedOpearion();
  }
  EXPECT_TRUE(piped.Pipelined());
  EXPECT_EQ(piped.QueryIntValue("SELECT COUNT(*) FROM Events"), 2003);
  EXPECT_EQ(piped.QueryIntValue("SELECT EventID FROM Events WHERE _ID = 2003"), 2002);
  EXPECT_EQ(TableText(piped), TableText(direct));
}

TEST(EvtLiteAdaptorWriter, RowsHandedOverAreSeenByTheNextStatement) {
  TEvtLiteAdaptor store(":memory:");
  store.InitThreadDataSet();
  store.EmptyTable();
  store.BeginBufferedOperation();
  AppendNumbered(store, 400); // ten full batches: all handed over, none pending
  EXPECT_EQ(store.QueryIntValue("SELECT COUNT(*) FROM Events"), 400);
  AppendNumbered(store, 5);
  store.EndBufferedOpearion();
  EXPECT_EQ(store.QueryIntValue("SELECT COUNT(*) FROM Events"), 405);
}

TEST(EvtLiteAdaptorWriter, AnInsertThatFailsIsRaisedWithTheStoreName) {
  for (const bool pipelined : {true, false}) {
    const auto dir = test::ScratchDir();
    const std::string path = (dir / "refusing.db").string();
    TEvtLiteAdaptor store(path);
    store.SetPipelined(pipelined);
    store.InitThreadDataSet();
    store.EmptyTable();
    store.ExecSQL("CREATE TRIGGER refuse BEFORE INSERT ON Events WHEN NEW.EventID = 666 "
                  "BEGIN SELECT RAISE(ABORT, 'row refused'); END");
    store.BeginBufferedOperation();
    std::string message;
    try {
      AppendNumbered(store, 1000); // EventID 666 is in the 17th batch
      store.EndBufferedOpearion();
    } catch (const EEventStoreError& e) {
      message = e.what();
    }
    EXPECT_NE(message.find(path + ": cannot add events: row refused"), std::string::npos)
        << "pipelined " << pipelined << ": " << message;
    // The store goes on: later rows go in and the operation ends.
    store.ExecSQL("DROP TRIGGER refuse");
    AppendNumbered(store, 80);
    store.EndBufferedOpearion();
    EXPECT_GE(store.QueryIntValue("SELECT COUNT(*) FROM Events WHERE EventID < 80"), 80);
    store.DoneThreadDataSet();
  }
}

TEST(EvtLiteAdaptorFiles, NewStoreHas16KiBPagesAndAn8MiBCache) {
  const auto dir = test::ScratchDir();
  TEvtLiteAdaptor store((dir / "pages.db").string());
  store.InitThreadDataSet();
  store.EmptyTable();
  EXPECT_EQ(store.QueryIntValue("PRAGMA page_size"), 16384);
  // 20 MB of rows in one transaction: the cache stays near 8 MiB (it held 32 when the
  // size in KiB was turned into pages before the page size was set).
  store.BeginBufferedOperation();
  TLiteRecord row = Row(4, "2024-03-01 10:00:00.000", 1, "S", "d");
  row.EvtXML.assign(10000, 'x');
  for (int i = 0; i < 2000; ++i) store.AppendLiteEvent(row);
  store.EndBufferedOpearion();
  int used = 0, highest = 0;
  ASSERT_EQ(sqlite3_db_status(store.Handle(), SQLITE_DBSTATUS_CACHE_USED, &used, &highest, 0), SQLITE_OK);
  EXPECT_GT(used, 4 << 20);
  EXPECT_LT(used, 10 << 20);
}

TEST(StoreTimeTexts, FieldsAreCutToTheirWidthsAsPrintfWould) {
  // Day counts from 1899-12-30: the epoch, a leap day, the last millisecond of a year,
  // and years of five digits that keep their last four.
  for (const double days : {0.0, 1.5, 45351.999999, 45657.9999999, 2958465.5, 3000000.25, 40000000.0}) {
    const TSystemTime t = DaysToSystemTime(days);
    char expected[40];
    std::snprintf(expected, sizeof expected, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.wYear % 10000u,
                  t.wMonth % 100u, t.wDay % 100u, t.wHour % 100u, t.wMinute % 100u, t.wSecond % 100u,
                  t.wMilliseconds % 1000u);
    EXPECT_EQ(StoreTimeStampText(days), expected) << days;
    EXPECT_EQ(StoreDateText(days), std::string(expected, 10)) << days;
    EXPECT_EQ(StoreTimeText(days), std::string(expected + 11, 8)) << days;
  }
  EXPECT_EQ(StoreTimeStampText(45352.5), "2024-03-01 12:00:00.000");
}

TEST(EvtLiteAdaptorFiles, RefusesWhatIsNotAStore) {
  const auto dir = test::ScratchDir();
  const std::string path = (dir / "not-a-store.db").string();
  std::ofstream(path) << std::string(4096, 'x');
  TEvtLiteAdaptor store(path);
  try {
    store.InitThreadDataSet();
    FAIL() << "opened";
  } catch (const EEventStoreError& e) {
    EXPECT_NE(std::string(e.what()).find("not an event store"), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find(path), std::string::npos);
  }
}

TEST(EvtMSSQLAdaptor, TimeColumnsAndRowCount) {
  TEvtMSSQLAdaptor server;
  server.SetTableName("ev");
  server.SetTimeZone("W. Europe Standard Time", 60);
  server.SetServerMajorVersion(12);
  EXPECT_NE(server.TimeColumns().find("DATEADD(minute, 60, [time_stamp]) AS [TimeStamp]"), std::string::npos);
  server.SetServerMajorVersion(15);
  EXPECT_NE(server.TimeColumns().find("AT TIME ZONE 'W. Europe Standard Time') as [TimeStamp]"),
            std::string::npos);
  server.SetRowLimit(50);
  EXPECT_EQ(server.BuildQuery().rfind("Select TOP 50 [_ID]", 0), 0u);
  EXPECT_NE(server.RowCountSQL().find("sta.name = 'ev' "), std::string::npos);
  server.SetTimeZone("O'Zone') as x; --", 0);
  EXPECT_NE(server.TimeColumns().find("AT TIME ZONE 'O''Zone'') as x; --') as [TimeStamp]"),
            std::string::npos);
}

// A source that yields scripted records, newest first.
class TScriptedLog : public TEventLogX {
public:
  struct TStep {
    uint32_t Number;
    double Time;
    TEventType Type;
  };
  std::vector<TStep> Steps;
  size_t Next = 0;
  std::function<void()> OnRead;
  TEventItemBase* EventNext() override {
    if (Next >= Steps.size()) return nullptr;
    if (OnRead) OnRead();
    const TStep& s = Steps[Next++];
    FItem.FRecordNumber = static_cast<int32_t>(s.Number);
    FItem.FEventRecordID = s.Number;
    FItem.FTimeGenerated = s.Time;
    FItem.FEventType = s.Type;
    FItem.FEventID = 100;
    FItem.FSourceName = "Src";
    return &FItem;
  }
  TEventItemX FItem{this};
};

struct TEngineRun {
  TEvtLiteAdaptor Store{":memory:"};
  TLogView View;
  std::vector<TScriptedLog::TStep> Steps;
  std::function<void(TScriptedLog&)> Setup;
  TEngineRun() {
    Store.InitThreadDataSet();
    Store.EmptyTable();
    View.Store = &Store;
    View.Entries.AddEventLogFileEntry("Log", "log.evtx", true);
  }
  void Load(TWorkThread* AWorker = nullptr) {
    View.OpenSource = [this](TLogEntry&) {
      auto log = std::make_unique<TScriptedLog>();
      log->Steps = Steps;
      if (Setup) Setup(*log);
      return std::unique_ptr<TEventLogBase>(std::move(log));
    };
    View.Entries.LastLoadedEntryIndex = 0;
    if (AWorker) {
      AWorker->Post(1);
      AWorker->WaitIdle();
    } else {
      TWorkThread worker(&View);
      worker.Post(1);
      worker.WaitIdle();
    }
  }
  int64_t Rows() { return Store.QueryIntValue("SELECT COUNT(*) FROM Events"); }
};

TEST(LogViewEngine, DeletedEventCheckAndStatistics) {
  TEngineRun run;
  run.View.CheckDeletedEvents = true;
  run.Steps = {{10, 45000.3, EVT_ERROR}, {9, 45000.2, EVT_WARNING}, {7, 45000.1, EVT_AUDIT_SUCCESS}};
  run.Load();
  EXPECT_EQ(run.Rows(), 3);
  ASSERT_EQ(run.View.Issues.size(), 1u);
  EXPECT_NE(run.View.Issues[0].find(
                "Potentially deleted event. Expected record number: 8. Actual record number: 7."),
            std::string::npos);
  EXPECT_EQ(run.View.Statistics.TypeError, 1);
  EXPECT_EQ(run.View.Statistics.TypeAuditSuccess, 1);
}

TEST(LogViewEngine, RefreshWithNothingNewLoadsNothing) {
  TEngineRun run;
  run.Steps = {{10, 45000.3, EVT_ERROR}, {9, 45000.2, EVT_ERROR}};
  run.Load();
  EXPECT_EQ(run.Rows(), 2);
  run.View.NewerOnly = true;
  run.View.NoticeText.clear();
  run.Load();
  EXPECT_EQ(run.Rows(), 2);
  EXPECT_NE(run.View.NoticeText.find("Log: Only the recent events since"), std::string::npos)
      << run.View.NoticeText;
  run.Steps.insert(run.Steps.begin(), {11, 45000.4, EVT_ERROR});
  run.Load();
  EXPECT_EQ(run.Rows(), 3);
}

TEST(LogViewEngine, LoadingFilterAndLimits) {
  TEngineRun run;
  run.Steps = {
      {5, 5, EVT_ERROR}, {4, 4, EVT_WARNING}, {3, 3, EVT_ERROR}, {2, 2, EVT_ERROR}, {1, 1, EVT_INFORMATION}};
  run.View.LoadingFilter.LoadEventTypes = 0; // every type passes
  run.Load();
  EXPECT_EQ(run.Rows(), 5);
  run.Store.EmptyTable();
  run.View.LoadingFilter.LoadEventTypes = 1 << EVT_ERROR;
  run.View.LoadingFilter.LoadEvents = lemLastEvents;
  run.View.LoadingFilter.NumEvents = 2;
  run.View.NoticeText.clear();
  run.Load();
  EXPECT_EQ(run.Rows(), 2);
  EXPECT_NE(run.View.NoticeText.find("Only events of these types were loaded: Error."), std::string::npos);
  EXPECT_NE(run.View.NoticeText.find("Log: Only the recent 2 events were loaded."), std::string::npos);
}

TEST(LogViewEngine, OneTransactionOverTheLogsAndAFailedLogSkipped) {
  TEngineRun run;
  run.View.Entries.AddEventLogFileEntry("Second", "second.evtx", true);
  run.View.Entries.AddEventLogFileEntry("Third", "third.evtx", true);
  run.View.Entries.Normalized = true;
  for (uint32_t i = 1000; i > 0; --i)
    run.Steps.push_back({i, 45000.0 + i / 1e5, EVT_ERROR});
  // The second log cannot be opened; the first and third load, in order, and the rows
  // of all are written when the load ends (no transaction left open).
  TWorkThread worker(&run.View);
  run.View.OpenSource = [&](TLogEntry& AEntry) -> std::unique_ptr<TEventLogBase> {
    if (AEntry.LogName == "Second") throw std::runtime_error("cannot be opened");
    auto log = std::make_unique<TScriptedLog>();
    log->Steps = run.Steps;
    return log;
  };
  worker.Post(1);
  worker.WaitIdle();
  EXPECT_EQ(run.Rows(), 2000);
  EXPECT_EQ(run.Store.QueryIntValue("SELECT COUNT(DISTINCT EventLog) FROM Events"), 2);
  EXPECT_EQ(run.Store.QueryIntValue("SELECT EventLog FROM Events WHERE _ID = 1001"), 2);
  EXPECT_EQ(run.Store.QueryIntValue("SELECT RecordNumber FROM Events WHERE _ID = 1001"), 1000);
  ASSERT_EQ(run.View.Errors.size(), 1u);
  EXPECT_EQ(run.View.Errors[0], "Second: cannot be opened");
  EXPECT_EQ(sqlite3_get_autocommit(run.Store.Handle()), 1);
}

TEST(LogViewEngine, StopMidLogKeepsLoadedEvents) {
  TEngineRun run;
  for (uint32_t i = 1000; i > 0; --i)
    run.Steps.push_back({i, 45000.0 + i / 1e5, EVT_ERROR});
  TWorkThread worker(&run.View);
  run.Setup = [&](TScriptedLog& ALog) {
    ALog.OnRead = [&ALog, &worker] {
      if (ALog.Next == 300) worker.BreakThread();
    };
  };
  run.Load(&worker);
  EXPECT_EQ(run.Rows(), 301); // the break is seen before the next read
  EXPECT_EQ(run.View.NoticeText, "User break.");
  EXPECT_EQ(run.View.NoticeLevel, 1);
}

} // namespace
} // namespace qvx

namespace qvx {
namespace {

// Events 50 ms apart within one second, read from a real .evtx (7-digit FILETIME text),
// keep their order when the store sorts by time; record order is the reverse of time.
TEST(LogViewEngine, SortingByTimeKeepsTheOrderWithinASecond) {
  const uint64_t second = EvtxFileTime(2024, 3, 11, 9, 0, 1);
  TEvtxFileWriter writer;
  for (int i = 19; i >= 0; --i) {
    TEvtxEventDraft e = test::SampleEvent(static_cast<uint64_t>(i));
    e.FTimeCreated = second + static_cast<uint64_t>(i) * 500'000 + 1234; // .0001234 + i * 0.05 s
    writer.AddEvent(e);
  }
  const std::string path = test::WriteTempFile("within-a-second.evtx", writer.Bytes());
  TEngineRun run;
  run.View.OpenSource = [&](TLogEntry&) {
    auto log = std::make_unique<TEventLogBinXML>();
    log->SetBackupFileName(path);
    log->SetTimeShift(2, 0, "UTC");
    log->SetActive(true);
    return std::unique_ptr<TEventLogBase>(std::move(log));
  };
  TWorkThread worker(&run.View);
  worker.Post(1);
  worker.WaitIdle();
  ASSERT_EQ(run.Rows(), 20);
  for (bool descending : {false, true}) {
    run.Store.SortTable("Date", descending);
    run.Store.MakeSQL();
    std::vector<std::string> times;
    TEventData row;
    for (run.Store.First(); !run.Store.Eof(); run.Store.Next()) {
      run.Store.GetEventData(row);
      times.push_back(row.TimeStamp);
    }
    ASSERT_EQ(times.size(), 20u);
    for (int i = 0; i < 20; ++i) {
      char expected[32];
      std::snprintf(expected, sizeof expected, "2024-03-11 09:00:01.%03d", i * 50);
      EXPECT_EQ(times[static_cast<size_t>(descending ? 19 - i : i)], expected);
    }
  }
}

TEST(EventBits, GrowsByHalfAMillionAndCountsSetBits) {
  TEventBits bits;
  EXPECT_FALSE(bits.IsEvent(5));
  bits.AddEvent(5);
  EXPECT_EQ(bits.Size(), 5u + TEventBits::kGrowBy);
  bits.AddEvent(5);
  EXPECT_EQ(bits.Count(), 1u);
  bits.AddEvent(600000);
  EXPECT_EQ(bits.Size(), 600000u + TEventBits::kGrowBy);
  EXPECT_TRUE(bits.IsEvent(600000));
  bits.RemoveEvent(5);
  bits.RemoveEvent(7);
  EXPECT_EQ(bits.Count(), 1u);
  bits.ClearAll();
  EXPECT_EQ(bits.Count(), 0u);
  EXPECT_FALSE(bits.IsEvent(600000));
}

TEST(EvtLiteAdaptorFiles, StoreInUseIsRefused) {
  const auto dir = test::ScratchDir();
  const std::string path = (dir / "busy.db").string();
  TEvtLiteAdaptor first(path);
  first.InitThreadDataSet();
  first.EmptyTable();
  TEvtLiteAdaptor second(path);
  try {
    second.InitThreadDataSet();
    FAIL() << "opened twice";
  } catch (const EEventStoreError& e) {
    EXPECT_NE(std::string(e.what()).find("another program has the store open"), std::string::npos)
        << e.what();
  }
}

TEST(EvtLiteAdaptorFiles, ReadOnlyStoreIsRefusedWithItsName) {
  if (geteuid() == 0) GTEST_SKIP() << "root writes read-only files";
  const auto dir = test::ScratchDir();
  const std::string path = (dir / "ro.db").string();
  {
    TEvtLiteAdaptor store(path);
    store.InitThreadDataSet();
    store.EmptyTable();
  }
  std::filesystem::permissions(path, std::filesystem::perms::owner_read);
  TEvtLiteAdaptor store(path);
  EXPECT_THROW(
      {
        store.InitThreadDataSet();
        store.EmptyTable();
      },
      EEventStoreError);
}

} // namespace
} // namespace qvx
