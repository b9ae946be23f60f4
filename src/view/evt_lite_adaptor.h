// The event store over SQLite: a private database file that trades durability for
// speed (no journal, no synchronous writes, an exclusive lock) and inserts rows several
// dozen at a time in one statement. Inside a buffered operation full batches are inserted
// by a writer thread of the store while the loader fills the next ones.
//
// The dataset over the current query is read lazily: rows are stepped as the caller
// moves forward and only their _ID is kept, so the first page of a sorted million-row
// query costs one page of rows; moving back reads a row again by its _ID.
#pragma once

#include "view/evt_db_adaptor.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace qvx {

class TEvtLiteAdaptor : public TEvtSQLAdaptor {
public:
  // AFileName is the store file (created when missing); ":memory:" keeps it in memory.
  explicit TEvtLiteAdaptor(std::string AFileName);
  ~TEvtLiteAdaptor() override;
  TEvtLiteAdaptor(const TEvtLiteAdaptor&) = delete;
  TEvtLiteAdaptor& operator=(const TEvtLiteAdaptor&) = delete;

  const std::string& FileName() const { return FFileName; }
  sqlite3* Handle() const { return FDb; }

  // Opens the connection (pragmas, functions, batch size). A file that is not an SQLite
  // database, a read-only or locked one raise EEventStoreError naming the file.
  void InitThreadDataSet() override;
  void DoneThreadDataSet() override;
  // True when the database holds the event table; reads its custom columns then.
  bool TableExists();
  // Opens an existing store: raises EEventStoreError when the file has no event table
  // or its columns are not the store's.
  void OpenExistingTable();
  // Reads every page of the store (SQLite's quick_check): raises EEventStoreError
  // "FILE: not a readable store (...)" when it is damaged. Before anything is written to it.
  void CheckReadable();

  void CreateTable() override;
  void EmptyTable() override;
  // Drop the table's indexes (all, or those of custom columns). An index whose name is
  // not a plain SQL name raises ESQLNameError and none is dropped.
  void DropAllIndexes() override;
  void DropCFIndexes();
  void Cleanup() override;
  void PrepareMerge() override;

  // Batched insertion. Rows reach the table when a batch is full and at FinishBatchInsert.
  // Inside a buffered operation a full batch goes to the writer thread (when Pipelined()):
  // an insert that fails there is raised by a later CommitLiteEvent, by the end of the
  // operation or by the next statement prepared, and the batches handed over after it are
  // dropped. Any other use of the store waits until the writer has inserted what it holds.
  size_t BatchSize() const { return FBatchSize; }
  bool Pipelined() const { return FPipelined; }
  void SetPipelined(bool AValue);
  static size_t BatchSizeFor(size_t ACustomCount);
  void StartBatchInsert();
  void AppendLiteEvent(const TLiteRecord& ARecord);
  // The next pending row to fill in place (no copy); CommitLiteEvent adds it.
  TLiteRecord& NewLiteEvent();
  void CommitLiteEvent();
  void FinishBatchInsert();
  void AppendEvent(const TLiteRecord& ARecord) override { AppendLiteEvent(ARecord); }
  // One transaction around a load; Flush commits what is pending and goes on.
  void BeginBufferedOperation() override;
  void EndBufferedOpearion() override;
  void FlushBufferedOpearion() override;
  void Loaded() override;

  // The CREATE TABLE and INSERT texts.
  std::string CreateTableSQL() const;
  std::string InsertSQLHead() const;

  // Custom columns computed in place.
  std::string UpdateCustomFieldsSQL() const;
  void UpdateCustomFields();

  // Runs one statement (see Prepare).
  void ExecSQL(const std::string& ASql) override;
  int64_t QueryIntValue(const std::string& ASql) override;
  void BreakSQLExec() override;

  // The dataset.
  int FindField(const std::string& AName) const override;
  std::string FieldText(const std::string& AName) const override;
  int64_t FieldInt(const std::string& AName) const override;
  bool FieldIsNull(const std::string& AName) const override;
  std::string FieldTextAt(int AColumn) const;
  size_t FieldCount() const { return FColumns.size(); }
  const std::string& FieldName(size_t AColumn) const { return FColumns.at(AColumn); }
  void Open() override;
  void Close() override;
  void Requery() override { MakeSQL(); }
  void First() override;
  void Next() override;
  void Prior() override;
  void Last() override;
  bool Eof() const override { return FEof; }
  bool Bof() const override { return FBof; }
  bool IsEmpty() const { return FPos < 0; }
  // The _ID of every row of the query the filter, order and limit describe, read with one
  // narrow query (an index covers it when the store has one), in the query's order.
  std::vector<int64_t> QueryIds();
  // Opens the dataset over rows given by their _IDs, in that order: a move to any row is
  // one lookup by _ID, so a viewer's jump to the end of a million rows steps over none.
  // The first row is current.
  void OpenIds(std::vector<int64_t> AIds);
  // Rows of the open query stepped over (or given) so far.
  int64_t RowsKnown() const { return static_cast<int64_t>(FIds.size()); }
  // 1-based number of the current row (0 when there is none).
  int64_t RecNo() const { return FPos + 1; }
  bool GoToRecNo(int64_t ARecNo) override;
  int64_t GetBookmark() const override;
  bool BookmarkValid(int64_t ABookmark) const override;
  bool GotoBookmark(int64_t ABookmark) override;
  bool Locate(const std::string& AField, const std::string& AValue, bool ACaseSensitive) override;
  void GetEventData(TEventData& AData) const override;
  // The same without the event's XML (left empty), for lists that do not show it.
  void GetEventFields(TEventData& AData) const;

  static const char* kSelectTemplate;
  static const char* const kPragmas[6];

protected:
  std::string SelectTemplate() const override { return kSelectTemplate; }
  void ReopenQuery() override;

private:
  [[noreturn]] void Fail(const std::string& AWhat, int ACode) const;
  // Compiles exactly one statement: text that holds a second one raises EEventStoreError.
  sqlite3_stmt* Prepare(const std::string& ASql) const;
  void DropIndexes(bool ACustomOnly);
  sqlite3_stmt* InsertStatement(size_t ARows);
  void InsertPending();
  // Binds ACount rows of ARows to AStatement and runs it; raises EEventStoreError.
  void InsertRows(sqlite3_stmt* AStatement, const std::vector<TLiteRecord>& ARows, size_t ACount) const;
  // Hands the full pending batch to the writer thread (started when there is none).
  void HandOverPending();
  // Waits until the writer thread has inserted what it was given and ends it; raises the
  // error of a batch that failed. Safe to call on a const store (Prepare does).
  void FinishWriter() const;
  // Steps the query until row AIndex (0-based) is read; false when the query ends first.
  bool StepTo(int64_t AIndex);
  // Makes row AIndex current (stepping or reading it by its _ID).
  bool MoveTo(int64_t AIndex);
  void FreeQuery();
  sqlite3_stmt* RowStatement() const { return FRowStmt; }

  std::string FFileName;
  sqlite3* FDb = nullptr;
  size_t FBatchSize = 40;
  std::vector<TLiteRecord> FPending;
  size_t FPendingCount = 0;
  sqlite3_stmt* FInsertFull = nullptr; // the statement of a full batch
  bool FInTransaction = false;
  bool FPipelined = true;
  class TBatchWriter;
  mutable std::unique_ptr<TBatchWriter> FWriter; // inserts full batches during a buffered operation

  sqlite3_stmt* FQuery = nullptr;
  sqlite3_stmt* FLookup = nullptr;
  sqlite3_stmt* FRowStmt = nullptr; // the statement positioned on the current row
  std::vector<std::string> FColumns;
  std::vector<int64_t> FIds; // _ID of every row stepped so far
  bool FQueryDone = false;
  int64_t FPos = -1;
  bool FEof = true, FBof = true;
};

} // namespace qvx
