// The event store of a log view: every event loaded for display is one row of a table,
// and the view's grid, sorting, filtering, bookmarks and custom columns are SQL over it.
//
// TEvtDBAdaptor is the dataset-like interface the log view engine talks to;
// TEvtSQLAdaptor holds what every SQL store shares (the query text, the sort order, the
// flag filter and bookmark statements); TEvtLiteAdaptor (evt_lite_adaptor.h) keeps the
// rows in a private SQLite database and TEvtMSSQLAdaptor (evt_mssql_adaptor.h) reads an
// existing SQL Server table.
//
// Row layout (one row per event):
//   _ID           INTEGER PRIMARY KEY  insertion order
//   Type          INTEGER              TEventType value: 0 none, 1 Verbose ... 13 Audit Failure
//   TimeStamp     DATETIME             "YYYY-MM-DD HH:MM:SS.mmm", as shown in the view
//   Date, Time    DATETIME             "YYYY-MM-DD" and "HH:MM:SS" of TimeStamp
//   EventID       INT
//   Source, CategoryName, UserName, Computer   text, compared without regard to case
//   RecordNumber  BIGINT               the log's own record number
//   EventLog      INTEGER              index of the log in the view
//   EvtXML, Descr TEXT                 the event's XML and its description
//   CustomField1...                    the view's custom columns
//   _Flt, _Bmrk   INTEGER              flag filter mark and bookmark
#pragma once

#include "filter/event_filter.h"

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace qvx {

class TEventItemBase;

// A store operation that failed: the database's own message and, where there is one,
// the statement. The store file (never the source log) is what it names.
class EEventStoreError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// A growable bit set over event indexes with a count of the bits set.
class TEventBits {
public:
  static constexpr size_t kGrowBy = 524288;
  void AddEvent(size_t AIndex);
  void RemoveEvent(size_t AIndex);
  void ClearAll();
  bool IsEvent(size_t AIndex) const { return AIndex < FBits.size() && FBits[AIndex]; }
  size_t Count() const { return FCount; }
  size_t Size() const { return FBits.size(); }

private:
  std::vector<bool> FBits;
  size_t FCount = 0;
};

// One custom column of the store: its title and how CalculateCustomField computes it.
struct TDBCustomField {
  std::string Title;
  bool Defined = true;   // false: the column is kept NULL
  int32_t ValueKind = 0; // what Expression names (see store_functions.h)
  std::string Expression;
  std::string EventIDs; // event ID expression the column applies to ("" = all)
  int32_t Format = 0;   // 0 text, 1 integer, 2 real
  bool IsInteger() const { return Format == 1; }
};

// One pending row: the 13 inserted columns and the custom-column values.
struct TLiteRecord {
  int32_t Type = 0;
  std::string TimeStamp, Date, Time;
  int64_t EventID = 0;
  std::string Source, CategoryName, UserName, Computer;
  int64_t RecordNumber = 0;
  int32_t EventLog = 0;
  std::string EvtXML, Descr;
  std::vector<std::string> CustomFields;

  // Fills the row from an event read by a source: its time as the source shows it,
  // its user and category names resolved; opcode and keyword names known from offline
  // descriptions are added to its XML as a RenderingInfo element (view/rendering_info.h).
  void FromEvent(TEventItemBase& AItem, int32_t ALogIndex);
};

// The data of the current row, as the view reads it.
struct TEventData {
  int64_t ID = 0;
  int32_t Type = 0;
  std::string TypeStr, TimeStamp;
  int64_t EventID = 0;
  std::string Source, CategoryName, UserName, Computer;
  int64_t RecordNumber = 0;
  int32_t EventLog = 0;
  std::string EvtXML, Descr;
  bool Bookmarked = false;
  std::vector<std::string> CustomFields;
  std::vector<bool> CustomNull;
  const std::string& GetCustomFieldStr(size_t AIndex) const { return CustomFields.at(AIndex); }
  bool HasCustomField(size_t AIndex) const { return AIndex < CustomNull.size() && !CustomNull[AIndex]; }
};

// Day count to the store's time texts.
std::string StoreTimeStampText(double ADays); // 2024-03-01 14:05:09.123
std::string StoreDateText(double ADays);      // 2024-03-01
std::string StoreTimeText(double ADays);      // 14:05:09

// The dataset-like interface of an event store. Navigation and fields work on the
// current query; every operation raises EEventStoreError when the database fails.
class TEvtDBAdaptor {
public:
  virtual ~TEvtDBAdaptor() = default;

  // Fields of the current row. FindField gives -1 for a name the query lacks.
  virtual int FindField(const std::string& AName) const = 0;
  virtual std::string FieldText(const std::string& AName) const = 0;
  virtual int64_t FieldInt(const std::string& AName) const = 0;
  virtual bool FieldIsNull(const std::string& AName) const = 0;

  virtual void Open() = 0;
  virtual void Close() = 0;
  virtual void Requery() = 0;
  virtual void First() = 0;
  virtual void Next() = 0;
  virtual void Prior() = 0;
  virtual void Last() = 0;
  virtual bool Eof() const = 0;
  virtual bool Bof() const = 0;

  virtual void InitThreadDataSet() = 0;
  virtual void DoneThreadDataSet() = 0;
  virtual void AppendEvent(const TLiteRecord& ARecord) = 0;
  virtual void CreateTable() = 0;
  virtual void EmptyTable() = 0;
  virtual void DropAllIndexes() = 0;
  virtual void Cleanup() = 0;
  virtual void PrepareMerge() = 0;
  virtual void BeginBufferedOperation() = 0;
  virtual void EndBufferedOpearion() = 0;
  virtual void FlushBufferedOpearion() = 0;

  // A bookmark is the row's _ID.
  virtual int64_t GetBookmark() const = 0;
  virtual bool BookmarkValid(int64_t ABookmark) const = 0;
  virtual bool GotoBookmark(int64_t ABookmark) = 0;
  virtual void RefreshFilteredData() = 0;
  // Moves to the first row whose field AField has the text AValue (ignoring case when
  // not ACaseSensitive); false (and the position unchanged) when there is none.
  virtual bool Locate(const std::string& AField, const std::string& AValue, bool ACaseSensitive) = 0;
  virtual void InitFilter(const std::string& AWhere) = 0;
  virtual void DoneFilter() = 0;
  virtual void UnfilterAll() = 0;
  virtual void UnfilterAllQuick() = 0;
  virtual void SortTable(const std::string& AField, bool ADescending) = 0;
  virtual void Loaded() = 0;
  virtual bool ResortNeeded() const = 0;
  virtual void GetEventData(TEventData& AData) const = 0;
  virtual void BookmarkEvent() = 0;
  virtual void UnbookmarkEvent() = 0;
  virtual void BookmarksEventClear() = 0;
  virtual bool BookmarksEventNext() = 0;
  virtual bool BookmarksEventPrev() = 0;
  virtual bool BookmarkedEvent() const = 0;
  // Moves to row ARecNo (1-based) of the query; false past its end.
  virtual bool GoToRecNo(int64_t ARecNo) = 0;
};

// What the SQL stores share: the view query text and the statements of sorting, flag
// filtering and bookmarks.
//
// Names reach the statements only after a check: the table name must be a plain SQL
// name (CheckSQLName), and a sort column must be one of the store's columns. A refused
// name raises ESQLNameError and changes nothing. The filter and order texts given to
// SetFilterSQL and SetOrderBy are SQL as they stand: they must come from the program
// (TEventFilter::CreateSQLWhere, SortTable, constants), never from user text.
class TEvtSQLAdaptor : public TEvtDBAdaptor {
public:
  const std::string& TableName() const { return FTableName; }
  // Raises ESQLNameError for a name that is not a plain SQL name.
  void SetTableName(const std::string& AName) { FTableName = CheckSQLName(AName, "table"); }
  const std::vector<TDBCustomField>& CustomFields() const { return FCustomFields; }
  // The custom columns of the table to be created (or of the one being read).
  void SetCustomFields(const std::vector<TDBCustomField>& AFields) { FCustomFields = AFields; }
  size_t CustomCount() const { return FCustomFields.size(); }

  const std::string& FilterSQL() const { return FWhere; }
  void SetFilterSQL(const std::string& AWhere) { FWhere = AWhere; }
  const std::string& OrderBy() const { return FOrderBy; }
  void SetOrderBy(const std::string& AOrderBy) { FOrderBy = AOrderBy; }
  bool NoIndexes() const { return FNoIndexes; }
  // Sort without indexes: ORDER BY gets a unary plus and no index is created.
  void SetNoIndexes(bool AValue) { FNoIndexes = AValue; }
  int64_t RowLimit() const { return FLimit; }
  void SetRowLimit(int64_t ALimit) { FLimit = ALimit; }

  // The query of the view: the select template with the custom columns, then the
  // filter, the order and the row limit.
  virtual std::string BuildQuery() const;
  // Builds the query and reopens the dataset on it.
  void MakeSQL();
  void UpdateSQL() { MakeSQL(); }

  // Orders the query by column AField (any case). A name that is not a column of the
  // store raises ESQLNameError before anything changes.
  void SortTable(const std::string& AField, bool ADescending) override;
  // The ORDER BY text and the index column of a sort ("" when none is needed); raises
  // ESQLNameError as SortTable does.
  std::string SortOrderText(const std::string& AField, bool ADescending, std::string& AIndexColumn) const;
  // The column of the store's query named AName, as the store spells it; "" when there
  // is none (the fixed columns, TypeStr, and CustomField1 to the custom column count).
  std::string StoreColumn(const std::string& AName) const;
  // The field kinds of the custom columns, for TEventFilter::CreateSQLWhere: numeric
  // for integer and real columns, text for the others, missing past the last one.
  TFieldKindOf FieldKindOf() const;

  // Flag filtering.
  void FltFilterInAll();
  void FltFilterOutAll();
  void FltFilterIn(int64_t AId);
  void FltFilterOut(int64_t AId);
  void FltSetWhere() { FWhere = "_Flt = 1"; }
  bool Get_Flt() const { return FieldInt("_Flt") != 0; }

  // Bookmarks.
  void BookmarkEvent() override;
  void UnbookmarkEvent() override;
  void BookmarksEventClear() override;
  bool BookmarkedEvent() const override { return FieldInt("_Bmrk") != 0; }
  bool BookmarksEventNext() override { return BookmarksNextPrior(true); }
  bool BookmarksEventPrev() override { return BookmarksNextPrior(false); }
  bool BookmarksNextPrior(bool ANext);
  // Bookmarks exactly the rows AWhere selects; gives their number.
  int64_t BookmarksByCriteria(const std::string& AWhere);
  int64_t GetBookmarkCount();

  void InitFilter(const std::string& AWhere) override;
  void DoneFilter() override;
  void UnfilterAll() override;
  void UnfilterAllQuick() override;
  void RefreshFilteredData() override { MakeSQL(); }
  bool ResortNeeded() const override { return FResortNeeded; }

  // Runs a statement; runs a one-value query and gives it as an integer (0 for none).
  virtual void ExecSQL(const std::string& ASql) = 0;
  virtual int64_t QueryIntValue(const std::string& ASql) = 0;
  // Rows of the table that pass the filter (the row limit applied).
  virtual int64_t GetRecordCount();
  // Interrupts a statement running on another thread.
  virtual void BreakSQLExec() = 0;

protected:
  // The select template: "%s" for the custom-column list, then "%s" for the table.
  virtual std::string SelectTemplate() const = 0;
  // The custom-column list of the select ("CustomField1 , CustomField2 , ").
  std::string CustomColumnList() const;
  virtual void CreateSortIndex(const std::string& AColumn);
  // Reopens the dataset on FQueryText.
  virtual void ReopenQuery() = 0;

  std::string FTableName = "Events";
  std::vector<TDBCustomField> FCustomFields;
  std::string FWhere;
  std::string FOrderBy;
  bool FNoIndexes = false;
  int64_t FLimit = 0;
  std::string FQueryText;
  bool FResortNeeded = false;
};

// Replaces the first "%s" of ATemplate with each argument in turn.
std::string FormatSQL(std::string ATemplate, const std::vector<std::string>& AArgs);

} // namespace qvx
