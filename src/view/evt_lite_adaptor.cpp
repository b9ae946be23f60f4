#include "view/evt_lite_adaptor.h"

#include "view/store_functions.h"

#include <sqlite3.h>

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <strings.h>
#include <thread>
#include <utility>

namespace qvx {

const char* TEvtLiteAdaptor::kSelectTemplate =
    "Select [_ID], [Type], Case  WHEN [Type] = 0 THEN '0'              WHEN [Type] = 1 THEN 'Verbose'        "
    "WHEN [Type] = 2 THEN 'Information'    WHEN [Type] = 3 THEN 'Warning'        WHEN [Type] = 4 THEN "
    "'Error'          "
    "WHEN [Type] = 5 THEN 'Critical'       WHEN [Type] = 12 THEN 'Audit Success'  WHEN [Type] = 13 THEN "
    "'Audit "
    "Failure'  ELSE ''   END as [TypeStr], [TimeStamp], [Date], [Time], [EventID], [Source], [CategoryName], "
    "[UserName], [Computer], [RecordNumber], [EventLog], [EvtXML], [Descr],  %s [_Bmrk], [_Flt]  FROM %s ";

// The page size counts only for a new file: rows of 1.5-2 KB fill 16 KiB pages with little
// left over, where 4 KiB ones kept a third of each page empty. A cache size given in KiB
// is turned into pages at the page size of the moment, so it comes after the page size:
// 8 MiB either way.
const char* const TEvtLiteAdaptor::kPragmas[6] = {
    "PRAGMA journal_mode = OFF", "PRAGMA synchronous  = OFF", "PRAGMA locking_mode  = EXCLUSIVE",
    "PRAGMA page_size  = 16384",  "PRAGMA cache_size = -8192",  "PRAGMA temp_store = FILE",
};

namespace {

// The 13 fixed columns of a row as they are inserted.
constexpr int kFixedColumns = 13;

struct TStatement {
  sqlite3_stmt* Handle = nullptr;
  ~TStatement() { sqlite3_finalize(Handle); }
};

} // namespace

// Inserts full batches on a thread of its own, in the order they are handed over, through
// a short queue; the batches' buffers go round between the two sides, so a row's strings
// keep their capacity from one batch to the next.
class TEvtLiteAdaptor::TBatchWriter {
public:
  using TInsert = std::function<void(const std::vector<TLiteRecord>&)>;

  explicit TBatchWriter(TInsert AInsert) : FInsert(std::move(AInsert)) {
    FThread = std::thread([this] { Run(); });
  }

  ~TBatchWriter() {
    {
      std::lock_guard<std::mutex> guard(FLock);
      FStop = true;
    }
    FChanged.notify_all();
    FThread.join();
  }

  TBatchWriter(const TBatchWriter&) = delete;
  TBatchWriter& operator=(const TBatchWriter&) = delete;

  // Queues ABatch (full) and gives in its place an earlier batch, already inserted, to
  // fill again (or an empty one). Raises the error of a batch that failed, once.
  void Push(std::vector<TLiteRecord>& ABatch) {
    std::unique_lock<std::mutex> guard(FLock);
    if (FQueue.size() >= kDepth) {
      FPusherWaits = true;
      FChanged.wait(guard, [&] { return FQueue.size() + kWakeAt <= kDepth; });
      FPusherWaits = false;
    }
    if (FError) std::rethrow_exception(std::exchange(FError, nullptr));
    std::vector<TLiteRecord> spare;
    if (!FSpare.empty()) {
      spare = std::move(FSpare.back());
      FSpare.pop_back();
    }
    FQueue.push_back(std::move(ABatch));
    ABatch = std::move(spare);
    if (FQueue.size() == kWakeAt) FChanged.notify_all();
  }

  // Waits until every batch handed over is inserted (or dropped after an error); raises
  // that error, once.
  void Drain() {
    std::unique_lock<std::mutex> guard(FLock);
    FFlush = true;
    FChanged.notify_all();
    FChanged.wait(guard, [&] { return FQueue.empty() && !FBusy; });
    FFlush = false;
    if (FError) std::rethrow_exception(std::exchange(FError, nullptr));
  }

private:
  // Enough to ride over a slow write without holding much: 16 batches of at most 40 rows.
  // The writer is woken when 4 are waiting (or at the end), the loader when 4 places are
  // free: a wake-up per batch cost more than the locking.
  static constexpr size_t kDepth = 16;
  static constexpr size_t kWakeAt = 4;

  void Run() {
    std::unique_lock<std::mutex> guard(FLock);
    while (true) {
      FChanged.wait(guard, [&] { return FQueue.size() >= kWakeAt || (FFlush && !FQueue.empty()) || FStop; });
      if (FQueue.empty()) return; // stopping
      while (!FQueue.empty()) {
        std::vector<TLiteRecord> batch = std::move(FQueue.front());
        FQueue.pop_front();
        FBusy = true;
        const bool failed = FError != nullptr;
        guard.unlock();
        std::exception_ptr error;
        if (!failed) { // after a failure the batches are dropped until the loader hears of it
          try {
            FInsert(batch);
          } catch (...) {
            error = std::current_exception();
          }
        }
        guard.lock();
        if (error && !FError) FError = error;
        FSpare.push_back(std::move(batch));
        FBusy = false;
        if (FPusherWaits && FQueue.size() + kWakeAt <= kDepth) FChanged.notify_all();
      }
      FChanged.notify_all(); // a Drain waits for the queue to empty
    }
  }

  TInsert FInsert;
  std::mutex FLock;
  std::condition_variable FChanged;
  std::deque<std::vector<TLiteRecord>> FQueue;
  std::vector<std::vector<TLiteRecord>> FSpare;
  bool FBusy = false;
  bool FStop = false;
  bool FFlush = false;       // a Drain waits: insert what is queued, however little
  bool FPusherWaits = false; // the loader waits for room in the queue
  std::exception_ptr FError;
  std::thread FThread;
};

TEvtLiteAdaptor::TEvtLiteAdaptor(std::string AFileName) : FFileName(std::move(AFileName)) {}

TEvtLiteAdaptor::~TEvtLiteAdaptor() {
  try {
    DoneThreadDataSet();
  } catch (...) {
    // A failing final insert has nowhere to go from a destructor.
  }
}

void TEvtLiteAdaptor::Fail(const std::string& AWhat, int ACode) const {
  // A damaged file says so in one line, without the statement that met the damage.
  if ((ACode & 0xFF) == SQLITE_CORRUPT)
    throw EEventStoreError(FFileName + ": not a readable store (" + sqlite3_errstr(SQLITE_CORRUPT) + ")");
  std::string message = FFileName;
  message.append(": ").append(AWhat).append(": ");
  message.append(FDb ? sqlite3_errmsg(FDb) : sqlite3_errstr(ACode));
  if (ACode == SQLITE_NOTADB) message.append(" (not an event store)");
  if ((ACode & 0xFF) == SQLITE_BUSY || (ACode & 0xFF) == SQLITE_LOCKED)
    message.append(" (another program has the store open)");
  if ((ACode & 0xFF) == SQLITE_READONLY) message.append(" (the store cannot be written)");
  throw EEventStoreError(message);
}

void TEvtLiteAdaptor::CheckReadable() {
  TStatement check{Prepare("PRAGMA quick_check(1)")};
  const int code = sqlite3_step(check.Handle);
  if (code != SQLITE_ROW) Fail("cannot check the store", code);
  const unsigned char* result = sqlite3_column_text(check.Handle, 0);
  if (!result || std::string(reinterpret_cast<const char*>(result)) != "ok") Fail("quick_check", SQLITE_CORRUPT);
}

void TEvtLiteAdaptor::InitThreadDataSet() {
  if (FDb) return;
  const int code =
      sqlite3_open_v2(FFileName.c_str(), &FDb, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
  if (code != SQLITE_OK) {
    std::string message = FFileName + ": cannot open the event store: ";
    message.append(FDb ? sqlite3_errmsg(FDb) : sqlite3_errstr(code));
    sqlite3_close(FDb);
    FDb = nullptr;
    throw EEventStoreError(message);
  }
  sqlite3_extended_result_codes(FDb, 1);
  try {
    for (const char* pragma : kPragmas)
      ExecSQL(pragma);
    // An exclusive lock is taken by the first read; take it now, so a store in use by
    // another program is refused at once rather than in the middle of a load.
    QueryIntValue("SELECT COUNT(*) FROM sqlite_master");
    const int registered = RegisterStoreFunctions(FDb);
    if (registered != SQLITE_OK) Fail("cannot register the store's functions", registered);
  } catch (...) {
    sqlite3_close(FDb);
    FDb = nullptr;
    throw;
  }
  FBatchSize = BatchSizeFor(FCustomFields.size());
}

void TEvtLiteAdaptor::DoneThreadDataSet() {
  if (!FDb) return;
  FreeQuery();
  try {
    FinishWriter();
  } catch (...) {
    // The rows the writer could not insert are lost, as a failed insert's are; the
    // pending ones still go in, and the store is closed either way.
  }
  if (FPendingCount) InsertPending();
  if (FInTransaction) {
    FInTransaction = false;
    sqlite3_exec(FDb, "COMMIT", nullptr, nullptr, nullptr);
  }
  sqlite3_finalize(FInsertFull);
  FInsertFull = nullptr;
  sqlite3_close_v2(FDb);
  FDb = nullptr;
}

size_t TEvtLiteAdaptor::BatchSizeFor(size_t ACustomCount) {
  if (ACustomCount <= 10) return 40;
  if (ACustomCount <= 15) return 30;
  return 15;
}

sqlite3_stmt* TEvtLiteAdaptor::Prepare(const std::string& ASql) const {
  if (!FDb) throw EEventStoreError(FFileName + ": the event store is not open");
  FinishWriter(); // every statement sees the rows handed over before it
  sqlite3_stmt* statement = nullptr;
  const char* tail = nullptr;
  const int code = sqlite3_prepare_v2(FDb, ASql.c_str(), static_cast<int>(ASql.size()), &statement, &tail);
  if (code != SQLITE_OK) Fail("cannot prepare \"" + ASql.substr(0, 200) + "\"", code);
  // Exactly one statement: text after it that is more than blanks and comments (or a NUL,
  // which would hide the rest from SQLite) would be a second statement smuggled in.
  const size_t used = tail ? static_cast<size_t>(tail - ASql.c_str()) : ASql.size();
  if (used < ASql.size()) {
    sqlite3_stmt* next = nullptr;
    const std::string rest = ASql.substr(used);
    const bool more = rest.find('\0') != std::string::npos ||
                      sqlite3_prepare_v2(FDb, rest.c_str(), -1, &next, nullptr) != SQLITE_OK || next;
    sqlite3_finalize(next);
    if (more) {
      sqlite3_finalize(statement);
      throw EEventStoreError(FFileName + ": refused: more than one statement in \"" + ASql.substr(0, 200) +
                             "\"");
    }
  }
  if (!statement)
    throw EEventStoreError(FFileName + ": refused: no statement in \"" + ASql.substr(0, 200) + "\"");
  return statement;
}

void TEvtLiteAdaptor::ExecSQL(const std::string& ASql) {
  TStatement statement{Prepare(ASql)};
  int code;
  while ((code = sqlite3_step(statement.Handle)) == SQLITE_ROW) {
  }
  if (code != SQLITE_DONE) Fail("\"" + ASql.substr(0, 200) + "\" failed", code);
}

int64_t TEvtLiteAdaptor::QueryIntValue(const std::string& ASql) {
  TStatement statement{Prepare(ASql)};
  const int code = sqlite3_step(statement.Handle);
  if (code == SQLITE_ROW) return sqlite3_column_int64(statement.Handle, 0);
  if (code != SQLITE_DONE) Fail("\"" + ASql.substr(0, 200) + "\" failed", code);
  return 0;
}

void TEvtLiteAdaptor::BreakSQLExec() {
  if (FDb) sqlite3_interrupt(FDb);
}

// --- the table ---------------------------------------------------------------------------

std::string TEvtLiteAdaptor::CreateTableSQL() const {
  std::string custom;
  for (size_t i = 1; i <= FCustomFields.size(); ++i) {
    if (i > 1) custom.append("\r\n");
    custom.append("[CustomField").append(std::to_string(i)).append("] COLLATE NOCASE , ");
  }
  return FormatSQL(
      "CREATE TABLE %s \r\n( \r\n[_ID] INTEGER PRIMARY KEY,\r\n[Type] INTEGER, \r\n"
      "[TimeStamp] DATETIME, \r\n[Date] DATETIME, \r\n[Time] DATETIME, \r\n[EventID] INT, \r\n"
      "[Source] VARCHAR(80) COLLATE NOCASE, \r\n[CategoryName] VARCHAR(60) COLLATE NOCASE, \r\n"
      "[UserName] VARCHAR(80) COLLATE NOCASE, \r\n[Computer] VARCHAR(80) COLLATE NOCASE, \r\n"
      "[RecordNumber] BIGINT, \r\n[EventLog] INTEGER, \r\n[EvtXML] TEXT, \r\n"
      "[Descr] TEXT COLLATE NOCASE, \r\n%s\r\n[_Flt] INTEGER, \r\n[_Bmrk] INTEGER DEFAULT 0 \r\n)",
      {FTableName, custom});
}

void TEvtLiteAdaptor::CreateTable() {
  ExecSQL(CreateTableSQL());
}

void TEvtLiteAdaptor::EmptyTable() {
  FreeQuery();
  FinishWriter();
  sqlite3_finalize(FInsertFull);
  FInsertFull = nullptr;
  ExecSQL(FormatSQL("DROP TABLE IF EXISTS %s", {FTableName}));
  CreateTable();
}

bool TEvtLiteAdaptor::TableExists() {
  TStatement statement{Prepare("SELECT name FROM pragma_table_info(?1)")};
  sqlite3_bind_text(statement.Handle, 1, FTableName.c_str(), -1, SQLITE_TRANSIENT);
  std::vector<std::string> names;
  int code;
  while ((code = sqlite3_step(statement.Handle)) == SQLITE_ROW)
    names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(statement.Handle, 0)));
  if (code != SQLITE_DONE) Fail("cannot read the tables", code);
  if (names.empty()) return false;
  static const char* const kRequired[] = {
      "_ID",      "Type",     "TimeStamp",    "Date",     "Time",   "EventID", "Source", "CategoryName",
      "UserName", "Computer", "RecordNumber", "EventLog", "EvtXML", "Descr",   "_Flt",   "_Bmrk"};
  for (const char* required : kRequired)
    if (std::none_of(names.begin(), names.end(),
                     [&](const std::string& n) { return strcasecmp(n.c_str(), required) == 0; }))
      throw EEventStoreError(FFileName + ": not an event store: table " + FTableName + " has no column " +
                             required);
  size_t custom = 0;
  while (std::any_of(names.begin(), names.end(), [&](const std::string& n) {
    return strcasecmp(n.c_str(), ("CustomField" + std::to_string(custom + 1)).c_str()) == 0;
  }))
    ++custom;
  if (custom != FCustomFields.size()) FCustomFields.resize(custom);
  FBatchSize = BatchSizeFor(custom);
  return true;
}

void TEvtLiteAdaptor::OpenExistingTable() {
  if (!TableExists())
    throw EEventStoreError(FFileName + ": not an event store: it has no table " + FTableName);
}

void TEvtLiteAdaptor::DropIndexes(bool ACustomOnly) {
  FreeQuery(); // an open query keeps the table from changing its schema
  std::vector<std::string> names;
  {
    TStatement statement{Prepare("SELECT name FROM sqlite_master WHERE type = 'index' AND tbl_name = ?1 ")};
    sqlite3_bind_text(statement.Handle, 1, FTableName.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite3_step(statement.Handle) == SQLITE_ROW) {
      const unsigned char* text = sqlite3_column_text(statement.Handle, 0);
      std::string name(text ? reinterpret_cast<const char*>(text) : "",
                       static_cast<size_t>(sqlite3_column_bytes(statement.Handle, 0)));
      if (!ACustomOnly || name.find("CustomField") != std::string::npos) names.push_back(std::move(name));
    }
  }
  // The names come from the file, which may not be ours: all are checked before any is dropped.
  for (const std::string& name : names)
    CheckSQLName(name, "index");
  for (const std::string& name : names)
    ExecSQL(FormatSQL("DROP INDEX IF EXISTS %s", {name}));
}

void TEvtLiteAdaptor::DropAllIndexes() {
  DropIndexes(false);
}

void TEvtLiteAdaptor::DropCFIndexes() {
  DropIndexes(true);
}

void TEvtLiteAdaptor::Cleanup() {
  FreeQuery();
  FinishWriter();
  FPendingCount = 0;
}

void TEvtLiteAdaptor::PrepareMerge() {
  // Rows of a further log go to the same table; the order must be rebuilt afterwards.
  FreeQuery();
  FResortNeeded = !FOrderBy.empty();
}

// --- batched insertion ---------------------------------------------------------------------

std::string TEvtLiteAdaptor::InsertSQLHead() const {
  // The custom-column list ends with _Flt (a new row passes the flag filter), which also
  // keeps the text valid for a table without custom columns.
  std::string custom;
  for (size_t i = 1; i <= FCustomFields.size(); ++i)
    custom.append("[CustomField").append(std::to_string(i)).append("], ");
  custom.append("[_Flt]");
  return FormatSQL(
      "INSERT INTO %s ([Type], [TimeStamp], [Date], [Time], [EventID],  [Source], [CategoryName], "
      "[UserName], [Computer], [RecordNumber], [EventLog], [EvtXML], [Descr], %s ) VALUES ",
      {FTableName, custom});
}

sqlite3_stmt* TEvtLiteAdaptor::InsertStatement(size_t ARows) {
  std::string group = "(";
  for (size_t i = 0; i < kFixedColumns + FCustomFields.size(); ++i)
    group.append("?,");
  group.append("1)");
  std::string sql = InsertSQLHead();
  for (size_t i = 0; i < ARows; ++i) {
    if (i) sql.append(", ");
    sql.append(group);
  }
  return Prepare(sql);
}

void TEvtLiteAdaptor::StartBatchInsert() {
  FPendingCount = 0;
  if (FPending.size() < FBatchSize) FPending.resize(FBatchSize);
}

TLiteRecord& TEvtLiteAdaptor::NewLiteEvent() {
  if (FPending.size() < FBatchSize) FPending.resize(FBatchSize);
  TLiteRecord& record = FPending[FPendingCount];
  if (record.CustomFields.size() != FCustomFields.size()) record.CustomFields.resize(FCustomFields.size());
  return record;
}

void TEvtLiteAdaptor::CommitLiteEvent() {
  if (++FPendingCount < FBatchSize) return;
  if (FInTransaction && FPipelined)
    HandOverPending();
  else
    InsertPending();
}

void TEvtLiteAdaptor::AppendLiteEvent(const TLiteRecord& ARecord) {
  TLiteRecord& record = NewLiteEvent();
  record = ARecord;
  record.CustomFields.resize(FCustomFields.size());
  CommitLiteEvent();
}

void TEvtLiteAdaptor::SetPipelined(bool AValue) {
  FinishWriter();
  FPipelined = AValue;
}

void TEvtLiteAdaptor::InsertRows(sqlite3_stmt* AStatement, const std::vector<TLiteRecord>& ARows,
                                 size_t ACount) const {
  int n = 0;
  auto text = [&](const std::string& AValue) {
    sqlite3_bind_text(AStatement, ++n, AValue.data(), static_cast<int>(AValue.size()), SQLITE_STATIC);
  };
  for (size_t r = 0; r < ACount; ++r) {
    const TLiteRecord& record = ARows[r];
    sqlite3_bind_int(AStatement, ++n, record.Type);
    text(record.TimeStamp);
    text(record.Date);
    text(record.Time);
    sqlite3_bind_int64(AStatement, ++n, record.EventID);
    text(record.Source);
    text(record.CategoryName);
    text(record.UserName);
    text(record.Computer);
    sqlite3_bind_int64(AStatement, ++n, record.RecordNumber);
    sqlite3_bind_int(AStatement, ++n, record.EventLog);
    text(record.EvtXML);
    text(record.Descr);
    for (size_t c = 0; c < FCustomFields.size(); ++c) {
      if (c < record.CustomFields.size() && !record.CustomFields[c].empty())
        text(record.CustomFields[c]);
      else
        sqlite3_bind_null(AStatement, ++n);
    }
  }
  const int code = sqlite3_step(AStatement);
  sqlite3_reset(AStatement);
  sqlite3_clear_bindings(AStatement);
  if (code != SQLITE_DONE) Fail("cannot add events", code);
}

void TEvtLiteAdaptor::InsertPending() {
  if (!FPendingCount) return;
  FinishWriter(); // rows keep their order
  const bool full = FPendingCount == FBatchSize;
  sqlite3_stmt* statement = nullptr;
  if (full) {
    if (!FInsertFull) FInsertFull = InsertStatement(FBatchSize);
    statement = FInsertFull;
  } else {
    statement = InsertStatement(FPendingCount);
  }
  const size_t count = FPendingCount;
  FPendingCount = 0;
  try {
    InsertRows(statement, FPending, count);
  } catch (...) {
    if (!full) sqlite3_finalize(statement);
    throw;
  }
  if (!full) sqlite3_finalize(statement);
}

void TEvtLiteAdaptor::HandOverPending() {
  if (!FInsertFull) FInsertFull = InsertStatement(FBatchSize);
  if (!FWriter) {
    sqlite3_stmt* statement = FInsertFull;
    const size_t count = FBatchSize;
    FWriter = std::make_unique<TBatchWriter>(
        [this, statement, count](const std::vector<TLiteRecord>& ARows) { InsertRows(statement, ARows, count); });
  }
  FPendingCount = 0;
  FWriter->Push(FPending);
  if (FPending.size() < FBatchSize) FPending.resize(FBatchSize);
}

void TEvtLiteAdaptor::FinishWriter() const {
  if (!FWriter) return;
  // The writer ends whether or not its last batches went in; the error is raised after.
  std::unique_ptr<TBatchWriter> writer = std::move(FWriter);
  writer->Drain();
}

void TEvtLiteAdaptor::FinishBatchInsert() {
  InsertPending();
}

void TEvtLiteAdaptor::BeginBufferedOperation() {
  if (FInTransaction) return;
  ExecSQL("BEGIN");
  FInTransaction = true;
}

void TEvtLiteAdaptor::EndBufferedOpearion() {
  FinishWriter();
  InsertPending();
  if (!FInTransaction) return;
  FInTransaction = false;
  ExecSQL("COMMIT");
}

void TEvtLiteAdaptor::FlushBufferedOpearion() {
  const bool was = FInTransaction;
  EndBufferedOpearion();
  if (was) BeginBufferedOperation();
}

void TEvtLiteAdaptor::Loaded() {
  EndBufferedOpearion();
}

// --- custom columns ------------------------------------------------------------------------

std::string TEvtLiteAdaptor::UpdateCustomFieldsSQL() const {
  std::string sql = "UPDATE ";
  sql.append(FTableName).append(" SET ");
  for (size_t i = 0; i < FCustomFields.size(); ++i) {
    const TDBCustomField& field = FCustomFields[i];
    if (i) sql.append(", ");
    const std::string number = std::to_string(i + 1);
    if (!field.Defined) {
      sql.append("CustomField").append(number).append(" = NULL");
      continue;
    }
    const std::vector<std::string> args = {number,
                                           "[EventID]",
                                           std::to_string(field.ValueKind),
                                           SQLLiteral(field.Expression),
                                           SQLLiteral(field.EventIDs),
                                           std::to_string(field.Format)};
    sql.append(FormatSQL(
        field.IsInteger()
            ? "CustomField%s = CAST(CalculateCustomField(%s, [EvtXML], %s, [Descr], %s, %s, %s) as INT8) "
            : "CustomField%s = CalculateCustomField(%s, [EvtXML], %s, [Descr], %s, %s, %s) ",
        args));
  }
  return sql;
}

void TEvtLiteAdaptor::UpdateCustomFields() {
  if (FCustomFields.empty()) return;
  DropCFIndexes();
  ExecSQL(UpdateCustomFieldsSQL());
}

// --- the dataset ---------------------------------------------------------------------------

void TEvtLiteAdaptor::FreeQuery() {
  sqlite3_finalize(FQuery);
  sqlite3_finalize(FLookup);
  FQuery = FLookup = FRowStmt = nullptr;
  FIds.clear();
  FQueryDone = false;
  FPos = -1;
  FEof = FBof = true;
}

void TEvtLiteAdaptor::ReopenQuery() {
  FreeQuery();
  FQuery = Prepare(FQueryText);
  FColumns.clear();
  for (int i = 0; i < sqlite3_column_count(FQuery); ++i)
    FColumns.emplace_back(sqlite3_column_name(FQuery, i));
  FLookup = Prepare(FormatSQL(kSelectTemplate, {CustomColumnList(), FTableName}) + " WHERE [_ID] = ?1");
  First();
}

void TEvtLiteAdaptor::Open() {
  if (FQueryText.empty()) FQueryText = BuildQuery();
  ReopenQuery();
}

void TEvtLiteAdaptor::Close() {
  FreeQuery();
}

bool TEvtLiteAdaptor::StepTo(int64_t AIndex) {
  while (static_cast<int64_t>(FIds.size()) <= AIndex) {
    if (FQueryDone || !FQuery) return false;
    const int code = sqlite3_step(FQuery);
    if (code == SQLITE_ROW) {
      FIds.push_back(sqlite3_column_int64(FQuery, 0));
      FRowStmt = FQuery;
    } else {
      FQueryDone = true;
      FRowStmt = nullptr;
      if (code != SQLITE_DONE) {
        const int reset = sqlite3_reset(FQuery);
        Fail("the query failed", reset != SQLITE_OK ? reset : code);
      }
      return false;
    }
  }
  return true;
}

bool TEvtLiteAdaptor::MoveTo(int64_t AIndex) {
  if (AIndex < 0) return false;
  const bool fresh = static_cast<int64_t>(FIds.size()) == AIndex;
  if (!StepTo(AIndex)) return false;
  FPos = AIndex;
  // The query statement holds the row when it was just stepped to; otherwise read the
  // row again by its _ID.
  if (fresh && FRowStmt == FQuery) return true;
  sqlite3_reset(FLookup);
  sqlite3_bind_int64(FLookup, 1, FIds[static_cast<size_t>(AIndex)]);
  const int code = sqlite3_step(FLookup);
  if (code != SQLITE_ROW) {
    if (code != SQLITE_DONE) Fail("cannot read a row", code);
    // The row was deleted since the query ran: show it as empty.
  }
  FRowStmt = code == SQLITE_ROW ? FLookup : nullptr;
  return true;
}

std::vector<int64_t> TEvtLiteAdaptor::QueryIds() {
  std::string sql = FormatSQL("SELECT [_ID] FROM %s", {FTableName});
  if (!FilterSQL().empty()) sql.append(" WHERE ").append(FilterSQL());
  if (!OrderBy().empty()) sql.append(NoIndexes() ? " ORDER BY +" : " ORDER BY ").append(OrderBy());
  // Without an order the rows come in _ID order, as the table holds them; the planner may
  // read a narrow index instead of the table, so the _IDs are put in order here.
  const bool sortHere = OrderBy().empty() && RowLimit() <= 0;
  if (OrderBy().empty() && RowLimit() > 0) sql.append(" ORDER BY [_ID]");
  if (RowLimit() > 0) sql.append(" LIMIT ").append(std::to_string(RowLimit()));
  sqlite3_stmt* query = Prepare(sql);
  std::vector<int64_t> ids;
  int code;
  while ((code = sqlite3_step(query)) == SQLITE_ROW)
    ids.push_back(sqlite3_column_int64(query, 0));
  sqlite3_finalize(query);
  if (code != SQLITE_DONE) Fail("the query failed", code);
  if (sortHere) std::sort(ids.begin(), ids.end());
  return ids;
}

void TEvtLiteAdaptor::OpenIds(std::vector<int64_t> AIds) {
  FreeQuery();
  FLookup = Prepare(FormatSQL(kSelectTemplate, {CustomColumnList(), FTableName}) + " WHERE [_ID] = ?1");
  FColumns.clear();
  for (int i = 0; i < sqlite3_column_count(FLookup); ++i)
    FColumns.emplace_back(sqlite3_column_name(FLookup, i));
  FIds = std::move(AIds);
  FQueryDone = true;
  First();
}

void TEvtLiteAdaptor::First() {
  FBof = true;
  FEof = !MoveTo(0);
  if (FEof) FPos = -1;
}

void TEvtLiteAdaptor::Next() {
  if (FPos < 0) {
    FEof = true;
    return;
  }
  if (MoveTo(FPos + 1)) {
    FBof = false;
    FEof = false;
  } else {
    FEof = true;
  }
}

void TEvtLiteAdaptor::Prior() {
  if (FPos <= 0) {
    FBof = true;
    return;
  }
  MoveTo(FPos - 1);
  FBof = false;
  FEof = false;
}

void TEvtLiteAdaptor::Last() {
  while (StepTo(static_cast<int64_t>(FIds.size()))) {
  }
  if (FIds.empty()) {
    FPos = -1;
    FEof = FBof = true;
    return;
  }
  MoveTo(static_cast<int64_t>(FIds.size()) - 1);
  FEof = true;
  FBof = FIds.size() == 1;
}

bool TEvtLiteAdaptor::GoToRecNo(int64_t ARecNo) {
  if (ARecNo < 1 || !MoveTo(ARecNo - 1)) return false;
  FEof = FBof = false;
  return true;
}

int64_t TEvtLiteAdaptor::GetBookmark() const {
  return FPos >= 0 && FPos < static_cast<int64_t>(FIds.size()) ? FIds[static_cast<size_t>(FPos)] : 0;
}

bool TEvtLiteAdaptor::BookmarkValid(int64_t ABookmark) const {
  return std::find(FIds.begin(), FIds.end(), ABookmark) != FIds.end() || (!FQueryDone && ABookmark > 0);
}

bool TEvtLiteAdaptor::GotoBookmark(int64_t ABookmark) {
  for (int64_t i = 0;; ++i) {
    if (!StepTo(i)) return false;
    if (FIds[static_cast<size_t>(i)] == ABookmark) {
      MoveTo(i);
      FEof = FBof = false;
      return true;
    }
  }
}

bool TEvtLiteAdaptor::Locate(const std::string& AField, const std::string& AValue, bool ACaseSensitive) {
  const int column = FindField(AField);
  if (column < 0) return false;
  const int64_t start = FPos;
  for (int64_t i = 0; MoveTo(i); ++i) {
    const std::string value = FieldTextAt(column);
    if (ACaseSensitive ? value == AValue : strcasecmp(value.c_str(), AValue.c_str()) == 0) {
      FEof = FBof = false;
      return true;
    }
  }
  if (start >= 0) MoveTo(start);
  return false;
}

int TEvtLiteAdaptor::FindField(const std::string& AName) const {
  for (size_t i = 0; i < FColumns.size(); ++i)
    if (strcasecmp(FColumns[i].c_str(), AName.c_str()) == 0) return static_cast<int>(i);
  return -1;
}

std::string TEvtLiteAdaptor::FieldTextAt(int AColumn) const {
  if (!FRowStmt || AColumn < 0) return {};
  const unsigned char* text = sqlite3_column_text(FRowStmt, AColumn);
  return text ? std::string(reinterpret_cast<const char*>(text),
                            static_cast<size_t>(sqlite3_column_bytes(FRowStmt, AColumn)))
              : std::string();
}

std::string TEvtLiteAdaptor::FieldText(const std::string& AName) const {
  return FieldTextAt(FindField(AName));
}

int64_t TEvtLiteAdaptor::FieldInt(const std::string& AName) const {
  const int column = FindField(AName);
  return FRowStmt && column >= 0 ? sqlite3_column_int64(FRowStmt, column) : 0;
}

bool TEvtLiteAdaptor::FieldIsNull(const std::string& AName) const {
  const int column = FindField(AName);
  return !FRowStmt || column < 0 || sqlite3_column_type(FRowStmt, column) == SQLITE_NULL;
}

void TEvtLiteAdaptor::GetEventData(TEventData& AData) const {
  GetEventFields(AData);
  AData.EvtXML = FieldTextAt(13);
}

void TEvtLiteAdaptor::GetEventFields(TEventData& AData) const {
  // The select's fixed columns come in the template's order.
  AData.ID = FRowStmt ? sqlite3_column_int64(FRowStmt, 0) : 0;
  AData.Type = FRowStmt ? sqlite3_column_int(FRowStmt, 1) : 0;
  AData.TypeStr = FieldTextAt(2);
  AData.TimeStamp = FieldTextAt(3);
  AData.EventID = FRowStmt ? sqlite3_column_int64(FRowStmt, 6) : 0;
  AData.Source = FieldTextAt(7);
  AData.CategoryName = FieldTextAt(8);
  AData.UserName = FieldTextAt(9);
  AData.Computer = FieldTextAt(10);
  AData.RecordNumber = FRowStmt ? sqlite3_column_int64(FRowStmt, 11) : 0;
  AData.EventLog = FRowStmt ? sqlite3_column_int(FRowStmt, 12) : 0;
  AData.EvtXML.clear();
  AData.Descr = FieldTextAt(14);
  const size_t custom = FCustomFields.size();
  AData.CustomFields.resize(custom);
  AData.CustomNull.resize(custom);
  for (size_t i = 0; i < custom; ++i) {
    const int column = 15 + static_cast<int>(i);
    AData.CustomFields[i] = FieldTextAt(column);
    AData.CustomNull[i] = !FRowStmt || sqlite3_column_type(FRowStmt, column) == SQLITE_NULL;
  }
  AData.Bookmarked = FRowStmt && sqlite3_column_int(FRowStmt, 15 + static_cast<int>(custom)) != 0;
}

} // namespace qvx
