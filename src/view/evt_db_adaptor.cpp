#include "view/evt_db_adaptor.h"

#include "descriptions/time_zones.h"
#include "engine/event_log_x.h"
#include "engine/event_model.h"
#include "view/rendering_info.h"

#include <cstdio>
#include <string_view>

namespace qvx {

// --- TEventBits ----------------------------------------------------------------------

void TEventBits::AddEvent(size_t AIndex) {
  if (AIndex >= FBits.size()) FBits.resize(AIndex + kGrowBy, false);
  if (!FBits[AIndex]) {
    ++FCount;
    FBits[AIndex] = true;
  }
}

void TEventBits::RemoveEvent(size_t AIndex) {
  if (AIndex >= FBits.size()) FBits.resize(AIndex + kGrowBy, false);
  if (FBits[AIndex]) {
    --FCount;
    FBits[AIndex] = false;
  }
}

void TEventBits::ClearAll() {
  FBits.assign(FBits.size(), false);
  FCount = 0;
}

// --- row texts -------------------------------------------------------------------------

namespace {

// AValue modulo 10^ADigits, zero-padded to ADigits digits, at AOut.
char* PutDigits(char* AOut, unsigned AValue, int ADigits) {
  for (int i = ADigits - 1; i >= 0; --i) {
    AOut[i] = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  }
  return AOut + ADigits;
}

// "YYYY-MM-DD HH:MM:SS.mmm" of ADays (23 characters and a NUL), each field cut to its
// width as "%04u" of the year modulo 10000 and the like would give: a row's time is
// written once per event, and printf's parsing was a tenth of the row's cost.
void TimeStampChars(double ADays, char (&AText)[24]) {
  const TSystemTime t = DaysToSystemTime(ADays);
  char* p = PutDigits(AText, t.wYear, 4);
  *p++ = '-';
  p = PutDigits(p, t.wMonth, 2);
  *p++ = '-';
  p = PutDigits(p, t.wDay, 2);
  *p++ = ' ';
  p = PutDigits(p, t.wHour, 2);
  *p++ = ':';
  p = PutDigits(p, t.wMinute, 2);
  *p++ = ':';
  p = PutDigits(p, t.wSecond, 2);
  *p++ = '.';
  p = PutDigits(p, t.wMilliseconds, 3);
  *p = '\0';
}

} // namespace

std::string StoreDateText(double ADays) {
  char text[24];
  TimeStampChars(ADays, text);
  return std::string(text, 10);
}

std::string StoreTimeText(double ADays) {
  char text[24];
  TimeStampChars(ADays, text);
  return std::string(text + 11, 8);
}

std::string StoreTimeStampText(double ADays) {
  char text[24];
  TimeStampChars(ADays, text);
  return std::string(text, 23);
}

void TLiteRecord::FromEvent(TEventItemBase& AItem, int32_t ALogIndex) {
  char text[24];
  TimeStampChars(AItem.GetTimeGenerated(), text);
  TimeStamp.assign(text, 23);
  Date.assign(text, 10);
  Time.assign(text + 11, 8);
  Type = static_cast<int32_t>(AItem.FEventType);
  EventID = AItem.FEventID;
  Source = AItem.FSourceName;
  CategoryName = AItem.GetCategoryName();
  UserName = AItem.GetUserName();
  Computer = AItem.FComputername;
  // The modern record number is 64 bits wide; the classic one is unsigned 32.
  if (const auto* x = dynamic_cast<const TEventItemX*>(&AItem))
    RecordNumber = static_cast<int64_t>(x->FEventRecordID);
  else
    RecordNumber = static_cast<uint32_t>(AItem.FRecordNumber);
  EventLog = ALogIndex;
  EvtXML = AItem.FEvtXML;
  // Opcode and keyword names from a catalog or an imaged computer have no column: they
  // travel in the XML, where Windows puts them for forwarded events.
  TRenderingNames names;
  if (RenderingNamesOf(AItem, names)) AddRenderingInfo(EvtXML, names);
  Descr = AItem.FEvtMessage;
}

std::string FormatSQL(std::string ATemplate, const std::vector<std::string>& AArgs) {
  size_t from = 0;
  for (const std::string& arg : AArgs) {
    const size_t at = ATemplate.find("%s", from);
    if (at == std::string::npos) break;
    ATemplate.replace(at, 2, arg);
    from = at + arg.size();
  }
  return ATemplate;
}

// --- TEvtSQLAdaptor ----------------------------------------------------------------------

std::string TEvtSQLAdaptor::CustomColumnList() const {
  std::string list;
  for (size_t i = 1; i <= FCustomFields.size(); ++i)
    list.append("CustomField").append(std::to_string(i)).append(" , ");
  return list;
}

std::string TEvtSQLAdaptor::BuildQuery() const {
  std::string sql = FormatSQL(SelectTemplate(), {CustomColumnList(), FTableName});
  if (!FWhere.empty()) sql.append(" WHERE ").append(FWhere);
  if (!FOrderBy.empty()) sql.append(FNoIndexes ? " ORDER BY +" : " ORDER BY ").append(FOrderBy);
  if (FLimit > 0) sql.append(" LIMIT ").append(std::to_string(FLimit));
  return sql;
}

void TEvtSQLAdaptor::MakeSQL() {
  FQueryText = BuildQuery();
  ReopenQuery();
}

namespace {

// Equal without regard to ASCII case, over the whole text (a NUL inside ends nothing).
bool SameName(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i) {
    char a = A[i], b = B[i];
    if (a >= 'a' && a <= 'z') a = static_cast<char>(a - 32);
    if (b >= 'a' && b <= 'z') b = static_cast<char>(b - 32);
    if (a != b) return false;
  }
  return true;
}

} // namespace

std::string TEvtSQLAdaptor::StoreColumn(const std::string& AName) const {
  static const char* const kColumns[] = {"_ID",      "Type",         "TypeStr",  "TimeStamp",    "Date",
                                         "Time",     "EventID",      "Source",   "CategoryName", "UserName",
                                         "Computer", "RecordNumber", "EventLog", "EvtXML",       "Descr",
                                         "_Flt",     "_Bmrk"};
  for (const char* column : kColumns)
    if (SameName(column, AName)) return column;
  for (size_t i = 1; i <= FCustomFields.size(); ++i) {
    std::string custom = "CustomField" + std::to_string(i);
    if (SameName(custom, AName)) return custom;
  }
  return {};
}

TFieldKindOf TEvtSQLAdaptor::FieldKindOf() const {
  return [this](const std::string& AField) {
    const std::string column = StoreColumn(AField);
    if (column.rfind("CustomField", 0) != 0) return TFieldKind::fkMissing;
    const TDBCustomField& field = FCustomFields[std::stoul(column.substr(11)) - 1];
    return field.Format == 1 || field.Format == 2 ? TFieldKind::fkNumeric : TFieldKind::fkText;
  };
}

std::string TEvtSQLAdaptor::SortOrderText(const std::string& AField, bool ADescending,
                                          std::string& AIndexColumn) const {
  const std::string field = StoreColumn(AField);
  if (field.empty())
    throw ESQLNameError("sort column " + SQLNameForMessage(AField) + " is not a column of the event store");
  const char* direction = ADescending ? "DESC" : "ASC";
  std::string order;
  if (field == "Type" || field == "TypeStr") {
    AIndexColumn = "Type";
    order = "[Type] ";
  } else if (field == "Date") {
    AIndexColumn = "TimeStamp";
    order = "[TimeStamp] ";
  } else {
    AIndexColumn = field == "_ID" ? std::string() : field;
    order.append("[").append(field).append("] ");
  }
  return order.append(direction);
}

void TEvtSQLAdaptor::CreateSortIndex(const std::string& AColumn) {
  ExecSQL(
      FormatSQL("CREATE INDEX IF NOT EXISTS %s_%s ON %s (%s)", {FTableName, AColumn, FTableName, AColumn}));
}

void TEvtSQLAdaptor::SortTable(const std::string& AField, bool ADescending) {
  std::string column;
  const std::string order = SortOrderText(AField, ADescending, column);
  if (!FNoIndexes && !column.empty()) CreateSortIndex(column);
  FOrderBy = order;
  FResortNeeded = false;
}

void TEvtSQLAdaptor::FltFilterInAll() {
  ExecSQL(FormatSQL("UPDATE %s SET _Flt = 1", {FTableName}));
}
void TEvtSQLAdaptor::FltFilterOutAll() {
  ExecSQL(FormatSQL("UPDATE %s SET _Flt = 0", {FTableName}));
}
void TEvtSQLAdaptor::FltFilterIn(int64_t AId) {
  ExecSQL(FormatSQL("UPDATE %s SET _Flt = 1 WHERE _Id = %s", {FTableName, std::to_string(AId)}));
}
void TEvtSQLAdaptor::FltFilterOut(int64_t AId) {
  ExecSQL(FormatSQL("UPDATE %s SET _Flt = 0 WHERE _Id = %s", {FTableName, std::to_string(AId)}));
}

void TEvtSQLAdaptor::BookmarkEvent() {
  ExecSQL(FormatSQL("UPDATE %s SET _Bmrk = 1 WHERE _ID = %s", {FTableName, std::to_string(GetBookmark())}));
}

void TEvtSQLAdaptor::UnbookmarkEvent() {
  ExecSQL(FormatSQL("UPDATE %s SET _Bmrk = 0 WHERE _ID = %s", {FTableName, std::to_string(GetBookmark())}));
}

void TEvtSQLAdaptor::BookmarksEventClear() {
  ExecSQL(FormatSQL("UPDATE %s SET _Bmrk = 0", {FTableName}));
}

int64_t TEvtSQLAdaptor::BookmarksByCriteria(const std::string& AWhere) {
  // The criteria run once before any bookmark changes: a condition that fails (a bad
  // pattern, say) leaves the bookmarks as they were.
  QueryIntValue(FormatSQL("SELECT COUNT(*) FROM %s WHERE %s", {FTableName, AWhere}));
  ExecSQL(FormatSQL("UPDATE %s SET _Bmrk = 0", {FTableName}));
  ExecSQL(FormatSQL("UPDATE %s SET _Bmrk = 1 WHERE %s", {FTableName, AWhere}));
  return QueryIntValue("SELECT Changes()");
}

int64_t TEvtSQLAdaptor::GetBookmarkCount() {
  return QueryIntValue(FormatSQL("SELECT COUNT(*) FROM %s WHERE _Bmrk = 1", {FTableName}));
}

bool TEvtSQLAdaptor::BookmarksNextPrior(bool ANext) {
  // Walks the query from the current row; the bookmark flag may have changed since the
  // query was opened, so it is read from the table.
  const int64_t start = GetBookmark();
  auto marked = [&] {
    return QueryIntValue(FormatSQL("SELECT _Bmrk FROM %s WHERE _ID = %s",
                                   {FTableName, std::to_string(GetBookmark())})) != 0;
  };
  if (ANext) {
    for (Next(); !Eof(); Next())
      if (marked()) return true;
  } else {
    for (Prior(); !Bof(); Prior())
      if (marked()) return true;
  }
  GotoBookmark(start);
  return false;
}

void TEvtSQLAdaptor::InitFilter(const std::string& AWhere) {
  FWhere = AWhere;
  MakeSQL();
}

void TEvtSQLAdaptor::DoneFilter() {
  MakeSQL();
}

void TEvtSQLAdaptor::UnfilterAll() {
  FltFilterInAll();
  FWhere.clear();
  MakeSQL();
}

void TEvtSQLAdaptor::UnfilterAllQuick() {
  FWhere.clear();
  MakeSQL();
}

int64_t TEvtSQLAdaptor::GetRecordCount() {
  std::string sql = FormatSQL("SELECT COUNT(*) FROM %s", {FTableName});
  if (!FWhere.empty()) sql.append(" WHERE ").append(FWhere);
  const int64_t count = QueryIntValue(sql);
  return FLimit > 0 && count > FLimit ? FLimit : count;
}

} // namespace qvx
