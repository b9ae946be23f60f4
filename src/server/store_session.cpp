#include "server/store_session.h"

#include "engine/event_model.h"
#include "filter/filter_json.h"
#include "view/detection_store.h"
#include "view/rendering_info.h"
#include "view/store_statistics.h"

#include <pugixml.hpp>
#include <sqlite3.h>

#include <algorithm>
#include <limits>
#include <map>
#include <sstream>

namespace qvx::server {

namespace {

using nlohmann::json;

constexpr size_t kCachedQueries = 4;
// A page this far past the rows stepped so far reads the query's _IDs instead.
constexpr int64_t kStepAhead = 2000;

// The columns of the grid: the store's name, the title shown, numeric or not.
struct TColumn {
  const char* Name;
  const char* Title;
  bool Numeric;
};
constexpr TColumn kColumns[] = {
    {"TimeStamp", "Date and Time", false}, {"TypeStr", "Type", false},      {"EventID", "Event ID", true},
    {"Source", "Source", false},           {"CategoryName", "Category", false}, {"UserName", "User", false},
    {"Computer", "Computer", false},       {"RecordNumber", "Record", true}, {"EventLog", "Log", true},
    {"Descr", "Description", false},
};

// The first line of a description that holds text.
std::string_view FirstLine(std::string_view AText) {
  while (!AText.empty() && static_cast<unsigned char>(AText.front()) < 0x20) AText.remove_prefix(1);
  return AText.substr(0, std::min(AText.find_first_of("\r\n"), AText.size()));
}

// Texts from the store are UTF-8 as written, but a damaged log can leave stray bytes: the
// JSON writer replaces them rather than failing the page.
json Text(std::string_view AText) {
  return std::string(AText);
}

class TStatement {
public:
  TStatement(TEvtLiteAdaptor& AStore, const std::string& ASql) : FStore(AStore) {
    if (sqlite3_prepare_v2(AStore.Handle(), ASql.c_str(), -1, &FStmt, nullptr) != SQLITE_OK)
      throw EEventStoreError(AStore.FileName() + ": " + sqlite3_errmsg(AStore.Handle()));
  }
  ~TStatement() { sqlite3_finalize(FStmt); }
  TStatement(const TStatement&) = delete;
  TStatement& operator=(const TStatement&) = delete;
  sqlite3_stmt* operator*() const { return FStmt; }
  bool Step() {
    const int code = sqlite3_step(FStmt);
    if (code == SQLITE_ROW) return true;
    if (code != SQLITE_DONE) throw EEventStoreError(FStore.FileName() + ": " + sqlite3_errmsg(FStore.Handle()));
    return false;
  }
  std::string TextAt(int AColumn) const {
    const unsigned char* text = sqlite3_column_text(FStmt, AColumn);
    return text ? reinterpret_cast<const char*>(text) : "";
  }

private:
  TEvtLiteAdaptor& FStore;
  sqlite3_stmt* FStmt = nullptr;
};

// Name and value of each data item of an event's XML: EventData's Data elements, or the
// leaves of UserData.
json DataItems(const std::string& AXml) {
  json items = json::array();
  pugi::xml_document doc;
  if (!doc.load_buffer(AXml.data(), AXml.size())) return items;
  const pugi::xml_node event = doc.first_child();
  if (const pugi::xml_node data = event.child("EventData")) {
    size_t index = 0;
    for (const pugi::xml_node item : data.children()) {
      ++index;
      const char* name = item.attribute("Name").value();
      items.push_back({{"name", *name ? std::string(name) : std::string(item.name()) + " " + std::to_string(index)},
                       {"value", item.text().get()}});
    }
  } else if (pugi::xml_node user = event.child("UserData")) {
    struct TWalker : pugi::xml_tree_walker {
      json* Items;
      bool for_each(pugi::xml_node& ANode) override {
        if (ANode.type() == pugi::node_element && !ANode.first_child().type() /* empty */)
          Items->push_back({{"name", ANode.name()}, {"value", ""}});
        else if (ANode.type() == pugi::node_element && ANode.first_child().type() == pugi::node_pcdata)
          Items->push_back({{"name", ANode.name()}, {"value", ANode.text().get()}});
        return Items->size() < 10000;
      }
    } walker;
    walker.Items = &items;
    user.traverse(walker);
  }
  return items;
}

std::string PrettyXml(const std::string& AXml) {
  pugi::xml_document doc;
  if (!doc.load_buffer(AXml.data(), AXml.size(), pugi::parse_default | pugi::parse_ws_pcdata_single)) return AXml;
  std::ostringstream out;
  doc.save(out, "  ", pugi::format_indent | pugi::format_no_declaration);
  return out.str();
}

std::string ColorText(int32_t AValue) {
  // Windows colour values are 0x00BBGGRR.
  char text[8];
  std::snprintf(text, sizeof text, "#%02x%02x%02x", AValue & 0xFF, (AValue >> 8) & 0xFF, (AValue >> 16) & 0xFF);
  return text;
}

} // namespace

TViewQuery TViewQuery::FromJson(const json& AJson) {
  TViewQuery query;
  if (AJson.is_null()) return query;
  if (!AJson.is_object()) throw ERequestError("the request must be a JSON object");
  try {
    if (const auto it = AJson.find("filter"); it != AJson.end()) query.Filter = FilterFromJson(*it);
  } catch (const EFilterJsonError& e) {
    throw ERequestError(e.what());
  }
  auto member = [&](const char* AName) -> const json* {
    const auto it = AJson.find(AName);
    return it == AJson.end() || it->is_null() ? nullptr : &*it;
  };
  if (const json* value = member("bookmarked")) {
    if (!value->is_boolean()) throw ERequestError("\"bookmarked\" must be true or false");
    query.Bookmarked = value->get<bool>();
  }
  if (const json* value = member("detectionLevel")) {
    if (!value->is_number_integer() || value->get<int64_t>() < 0 || value->get<int64_t>() > TDetectionStore::kMaxLevel)
      throw ERequestError("\"detectionLevel\" must be a level from 0 (informational) to 4 (critical)");
    // The older member, kept for scripts: the same criterion as the filter's
    // minDetectionLevel (the higher of the two holds).
    query.Filter.MinDetectionLevel = std::max(query.Filter.MinDetectionLevel, static_cast<int32_t>(value->get<int64_t>()));
  }
  if (const json* value = member("sort")) {
    if (!value->is_string()) throw ERequestError("\"sort\" must be a column name");
    query.Sort = value->get<std::string>();
  }
  if (const json* value = member("descending")) {
    if (!value->is_boolean()) throw ERequestError("\"descending\" must be true or false");
    query.Descending = value->get<bool>();
  }
  return query;
}

TStoreSession::TStoreSession(const std::string& AStoreFile, int AShiftMinutes)
    : FStore(AStoreFile), FShiftMinutes(AShiftMinutes) {
  FStore.InitThreadDataSet();
  FStore.OpenExistingTable();
  FHasDetections = TDetectionStore::Exists(FStore.Handle());
  // A viewer scans and sorts the whole table now and then (a filter, a first sort by a
  // column): reading it mapped and sorting on two threads makes both markedly faster.
  FStore.ExecSQL("PRAGMA mmap_size = 17179869184");
  FStore.ExecSQL("PRAGMA threads = 2");
  // Counting and listing the rows of a million-row table reads every page of it unless an
  // index covers the _IDs: a store without any gets the narrowest useful one (the type's,
  // which sorting by type uses too). Once per store.
  // Bookmarks are few: a partial index counts and lists them without a table scan. A
  // store given its indexes here is read whole first: a damaged one is refused, never
  // written to.
  const std::string bookmarked = FStore.TableName() + "_Bookmarked";
  bool any = false, withBookmarks = false;
  {
    TStatement indexes(FStore,
                       "SELECT COUNT(*), SUM(name = ?2) FROM sqlite_master WHERE type = 'index' AND tbl_name = ?1");
    sqlite3_bind_text(*indexes, 1, FStore.TableName().c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(*indexes, 2, bookmarked.c_str(), -1, SQLITE_TRANSIENT);
    any = indexes.Step() && sqlite3_column_int64(*indexes, 0) > 0;
    withBookmarks = any && sqlite3_column_int64(*indexes, 1) > 0;
  }
  if (!any || !withBookmarks) FStore.CheckReadable();
  if (!any) FStore.SortTable("Type", false);
  FStore.SetOrderBy("");
  if (!withBookmarks)
    FStore.ExecSQL("CREATE INDEX IF NOT EXISTS " + bookmarked + " ON " + FStore.TableName() + " (_Bmrk) WHERE _Bmrk = 1");
}

void TStoreSession::SetZones(std::function<TShiftAt(const std::string&)> AShiftOf, json AZones) {
  std::lock_guard lock(FLock);
  FShiftOf = std::move(AShiftOf);
  FZones = std::move(AZones);
  FStoreShift = FShiftOf(FZoneName.empty() ? "local" : FZoneName);
}

json TStoreSession::Zones() {
  CheckIdle();
  std::lock_guard lock(FLock);
  return {{"store", FZoneName}, {"display", FDisplayName.empty() ? FZoneName : FDisplayName}, {"zones", FZones}};
}

void TStoreSession::SetDisplayZone(const std::string& AName) {
  CheckIdle();
  std::lock_guard lock(FLock);
  if (!FShiftOf) throw ERequestError("this server shows times as stored");
  if (AName.empty() || AName == FZoneName) {
    FDisplayShift = nullptr;
    FDisplayName.clear();
    return;
  }
  try {
    FDisplayShift = FShiftOf(AName);
  } catch (const std::invalid_argument& e) {
    throw ERequestError(e.what());
  }
  FDisplayName = AName;
  FQueryKey.clear(); // date conditions of the filter now mean other stored times
}

std::string TStoreSession::ShownTime(const std::string& AStored) const {
  double days = 0;
  if (!FDisplayShift || !FStoreShift || !ParseDateTimeText(AStored, days)) return AStored;
  // The stored time is the store zone's; its UTC time is found from the offset there
  // (twice, so that a time next to a change of offset settles on the right side).
  double utc = days - FStoreShift(days) / 1440.0;
  utc = days - FStoreShift(utc) / 1440.0;
  return StoreTimeStampText(utc + FDisplayShift(utc) / 1440.0);
}

double TStoreSession::StoreDays(double AShownDays) const {
  if (!FDisplayShift || !FStoreShift) return AShownDays;
  double utc = AShownDays - FDisplayShift(AShownDays) / 1440.0;
  utc = AShownDays - FDisplayShift(utc) / 1440.0;
  return utc + FStoreShift(utc) / 1440.0;
}

json TStoreSession::Info() {
  CheckIdle();
  std::lock_guard lock(FLock);
  json columns = json::array();
  for (const TColumn& column : kColumns)
    columns.push_back({{"name", column.Name}, {"title", column.Title}, {"numeric", column.Numeric}});
  if (FHasDetections) columns.push_back({{"name", "DetectionLevel"}, {"title", "Level"}, {"numeric", false}, {"sortable", false}});
  for (size_t i = 0; i < FStore.CustomCount(); ++i)
    columns.push_back({{"name", "CustomField" + std::to_string(i + 1)},
                       {"title", FStore.CustomFields()[i].Title.empty() ? "Custom " + std::to_string(i + 1)
                                                                          : FStore.CustomFields()[i].Title},
                       {"numeric", FStore.CustomFields()[i].IsInteger()}});
  json logs = json::array();
  if (sqlite3_table_column_metadata(FStore.Handle(), nullptr, "QvxLogEntries", "LogName", nullptr, nullptr, nullptr,
                                    nullptr, nullptr) == SQLITE_OK) {
    TStatement query(FStore, "SELECT LogName, FileName FROM QvxLogEntries ORDER BY Idx");
    while (query.Step()) logs.push_back({{"name", query.TextAt(0)}, {"file", query.TextAt(1)}});
  }
  return {{"store", FStore.FileName()},
          {"timeZone", FDisplayName.empty() ? FZoneName : FDisplayName},
          {"total", FStore.QueryIntValue("SELECT COUNT(*) FROM " + FStore.TableName())},
          {"bookmarks", FStore.GetBookmarkCount()},
          {"columns", std::move(columns)},
          {"logs", std::move(logs)},
          {"detections", FHasDetections}};
}

std::string TStoreSession::WhereOf(const TViewQuery& AQuery) {
  TEventFilter filter = AQuery.Filter;
  // Dates typed or dragged in the page are the display zone's.
  if (filter.ByDate || filter.ByTime) {
    filter.FromTime = StoreDays(filter.FromTime);
    filter.ToTime = StoreDays(filter.ToTime);
  }
  if (filter.MinDetectionLevel != dlNone && !FHasDetections)
    throw ERequestError("the store holds no detections (load it with --rules)");
  std::string where = filter.CreateSQLWhere(tfwSQLite, FShiftMinutes, FStore.FieldKindOf());
  auto add = [&](const std::string& AClause) { where = where.empty() ? AClause : "(" + where + ") AND " + AClause; };
  if (AQuery.Bookmarked) add("_Bmrk = 1");
  return where;
}

int64_t TStoreSession::Select(const TViewQuery& AQuery) {
  const std::string where = WhereOf(AQuery);
  std::string order, indexColumn;
  if (!AQuery.Sort.empty()) {
    try {
      order = FStore.SortOrderText(AQuery.Sort, AQuery.Descending, indexColumn);
    } catch (const ESQLNameError& e) {
      throw ERequestError(std::string("sort: ") + e.what());
    }
  }
  const std::string key = where + '\n' + order;
  if (key == FQueryKey && FStore.FieldCount()) return FQueryCount;
  FStore.SetFilterSQL(where);
  if (AQuery.Sort.empty()) FStore.SetOrderBy("");
  else FStore.SortTable(AQuery.Sort, AQuery.Descending); // builds the column's index once
  FQueryKey = key;
  auto cached = std::find_if(FIdCache.begin(), FIdCache.end(), [&](const auto& AEntry) { return AEntry.first == key; });
  if (cached != FIdCache.end()) {
    FIdCache.splice(FIdCache.begin(), FIdCache, cached);
    FQueryCount = static_cast<int64_t>(FIdCache.front().second.size());
    FStore.OpenIds(FIdCache.front().second);
    FLazy = false;
    return FQueryCount;
  }
  // The first page comes from stepping the query; the count from an index when the
  // store has one that covers the filter. A view without an order is in _ID order, said
  // outright: an index the planner picks for the filter would give its own order.
  if (AQuery.Sort.empty()) FStore.SetOrderBy("[_ID] ASC");
  FStore.MakeSQL();
  FQueryCount = FStore.GetRecordCount();
  FLazy = true;
  return FQueryCount;
}

void TStoreSession::Reach(int64_t AIndex) {
  if (!FLazy || AIndex < FStore.RowsKnown() + kStepAhead) return;
  // Without an order of the view's own, the _IDs are read through whatever index covers
  // them and put in order afterwards, rather than walking the table in _ID order.
  const bool ownOrder = FStore.OrderBy() != "[_ID] ASC";
  if (!ownOrder) FStore.SetOrderBy("");
  FIdCache.emplace_front(FQueryKey, FStore.QueryIds());
  if (FIdCache.size() > kCachedQueries) FIdCache.pop_back();
  FQueryCount = static_cast<int64_t>(FIdCache.front().second.size());
  FStore.OpenIds(FIdCache.front().second);
  FLazy = false;
}

void TStoreSession::AppendRow(json& ARows, const TEventData& ARow) const {
  json row = {{"id", ARow.ID},
              {"time", ShownTime(ARow.TimeStamp)},
              {"type", ARow.TypeStr},
              {"typeCode", ARow.Type},
              {"eventId", ARow.EventID},
              {"source", Text(ARow.Source)},
              {"category", Text(ARow.CategoryName)},
              {"user", Text(ARow.UserName)},
              {"computer", Text(ARow.Computer)},
              {"record", ARow.RecordNumber},
              {"log", ARow.EventLog},
              {"descr", Text(FirstLine(ARow.Descr))},
              {"bookmarked", ARow.Bookmarked}};
  if (!ARow.CustomFields.empty()) {
    json& custom = row["custom"] = json::array();
    for (size_t i = 0; i < ARow.CustomFields.size(); ++i)
      custom.push_back(ARow.HasCustomField(i) ? json(Text(ARow.CustomFields[i])) : json());
  }
  if (FCodes.Count())
    if (const TColorCode* code = FCodes.FindColorCode(ARow.Type, ARow.Source, ARow.EventID, ARow.Descr)) {
      row["color"] = ColorText(code->Value);
      if (code->FontStyles & fsBold) row["bold"] = true;
      if (code->FontStyles & fsItalic) row["italic"] = true;
    }
  ARows.push_back(std::move(row));
}

json TStoreSession::Rows(const TViewQuery& AQuery, int64_t AOffset, int64_t ACount) {
  CheckIdle();
  std::lock_guard lock(FLock);
  const int64_t count = Select(AQuery);
  json rows = json::array();
  AOffset = std::max<int64_t>(0, AOffset);
  ACount = std::clamp<int64_t>(ACount, 0, 1000);
  Reach(AOffset + ACount);
  if (AOffset < count && FStore.GoToRecNo(AOffset + 1)) {
    for (int64_t i = 0; i < ACount && !FStore.Eof(); ++i, FStore.Next()) {
      FStore.GetEventFields(FRow);
      AppendRow(rows, FRow);
    }
  }
  if (FHasDetections && !rows.empty()) {
    // The highest detection level of each row of the page.
    std::string ids;
    for (const json& row : rows) ids.append(ids.empty() ? "" : ",").append(std::to_string(row["id"].get<int64_t>()));
    TStatement levels(FStore, std::string("SELECT _ID, MAX(Level) FROM ") + TDetectionStore::kTable + " WHERE _ID IN (" +
                                  ids + ") GROUP BY _ID");
    std::map<int64_t, int> found;
    while (levels.Step()) found[sqlite3_column_int64(*levels, 0)] = sqlite3_column_int(*levels, 1);
    for (json& row : rows)
      if (const auto it = found.find(row["id"].get<int64_t>()); it != found.end()) row["level"] = it->second;
  }
  return {{"count", count}, {"offset", AOffset}, {"rows", std::move(rows)}};
}

int64_t TStoreSession::IndexOf(const TViewQuery& AQuery, int64_t AId) {
  CheckIdle();
  std::lock_guard lock(FLock);
  Select(AQuery);
  Reach(std::numeric_limits<int64_t>::max());
  const std::vector<int64_t>& ids = FIdCache.front().second;
  const auto it = std::find(ids.begin(), ids.end(), AId);
  return it == ids.end() ? -1 : static_cast<int64_t>(it - ids.begin());
}

json TStoreSession::Event(int64_t AId) {
  CheckIdle();
  std::lock_guard lock(FLock);
  TStatement query(FStore, "SELECT TimeStamp, Type, EventID, Source, CategoryName, UserName, Computer, RecordNumber, "
                           "EventLog, EvtXML, Descr, _Bmrk FROM " + FStore.TableName() + " WHERE _ID = ?1");
  sqlite3_bind_int64(*query, 1, AId);
  if (!query.Step()) throw ERequestError("no event has the id " + std::to_string(AId));
  const std::string xml = query.TextAt(9);
  json out = {{"id", AId},
              {"fields",
               {{"time", ShownTime(query.TextAt(0))},
                {"type", StoreTypeText(sqlite3_column_int64(*query, 1))},
                {"eventId", sqlite3_column_int64(*query, 2)},
                {"source", query.TextAt(3)},
                {"category", query.TextAt(4)},
                {"user", query.TextAt(5)},
                {"computer", query.TextAt(6)},
                {"record", sqlite3_column_int64(*query, 7)},
                {"log", sqlite3_column_int64(*query, 8)},
                {"bookmarked", sqlite3_column_int(*query, 11) != 0}}},
              {"description", query.TextAt(10)},
              {"data", DataItems(xml)},
              {"xml", PrettyXml(xml)}};
  // Names from a catalog or an imaged computer, kept in the XML's RenderingInfo.
  std::string opcode, keywords;
  ReadRenderingNames(xml, opcode, keywords);
  if (!opcode.empty()) out["fields"]["opcodeName"] = opcode;
  if (!keywords.empty()) out["fields"]["keywordNames"] = keywords;
  json detections = json::array();
  if (FHasDetections) {
    TStatement found(FStore, std::string("SELECT Level, Title, Author, RuleId, Matched FROM ") + TDetectionStore::kTable +
                                 " WHERE _ID = ?1 ORDER BY Level DESC, Title");
    sqlite3_bind_int64(*found, 1, AId);
    while (found.Step())
      detections.push_back({{"level", sqlite3_column_int(*found, 0)},
                            {"title", found.TextAt(1)},
                            {"author", found.TextAt(2)},
                            {"ruleId", found.TextAt(3)},
                            {"matched", found.TextAt(4)}});
  }
  out["detections"] = std::move(detections);
  return out;
}

json TStoreSession::Distinct(const std::string& AColumn, size_t ALimit) {
  static const char* const kDistinct[] = {"Source", "CategoryName", "UserName", "Computer"};
  const auto it = std::find(std::begin(kDistinct), std::end(kDistinct), AColumn);
  if (it == std::end(kDistinct))
    throw ERequestError("distinct values are listed for Source, CategoryName, UserName and Computer");
  CheckIdle();
  std::lock_guard lock(FLock);
  const std::string key = std::string(*it) + "/" + std::to_string(ALimit);
  if (const auto known = FDistinct.find(key); known != FDistinct.end()) return known->second;
  TStatement query(FStore, std::string("SELECT ") + *it + ", COUNT(*) AS n FROM " + FStore.TableName() + " GROUP BY " +
                               *it + " ORDER BY n DESC, " + *it + " LIMIT ?1");
  sqlite3_bind_int64(*query, 1, static_cast<int64_t>(ALimit));
  json values = json::array();
  while (query.Step()) values.push_back({{"value", Text(query.TextAt(0))}, {"count", sqlite3_column_int64(*query, 1)}});
  FDistinct[key] = values;
  return values;
}

json TStoreSession::Statistics(const TViewQuery& AQuery) {
  CheckIdle();
  std::lock_guard lock(FLock);
  const TStoreStatistics stats = StoreStatistics(FStore, WhereOf(AQuery));
  json byType = json::array(), sources = json::array(), overTime = json::array();
  for (const auto& [type, count] : stats.ByType) byType.push_back({{"type", StoreTypeText(type)}, {"count", count}});
  for (const auto& [source, count] : stats.TopSources) sources.push_back({{"source", Text(source)}, {"count", count}});
  for (const auto& [bucket, count] : stats.OverTime)
    overTime.push_back({{"start", stats.Hourly && FDisplayShift ? ShownTime(bucket + ":00:00").substr(0, 13) : bucket},
                        {"count", count}});
  return {{"total", stats.Total},
          {"byType", std::move(byType)},
          {"topSources", std::move(sources)},
          {"overTime", std::move(overTime)},
          {"hourly", stats.Hourly}};
}

int64_t TStoreSession::Bookmark(int64_t AId, bool AOn) {
  CheckIdle();
  std::lock_guard lock(FLock);
  TStatement update(FStore, "UPDATE " + FStore.TableName() + " SET _Bmrk = ?1 WHERE _ID = ?2");
  sqlite3_bind_int(*update, 1, AOn ? 1 : 0);
  sqlite3_bind_int64(*update, 2, AId);
  update.Step();
  if (sqlite3_changes(FStore.Handle()) == 0) throw ERequestError("no event has the id " + std::to_string(AId));
  // A view of bookmarked rows changes with every bookmark.
  if (FQueryKey.find("_Bmrk") != std::string::npos) FQueryKey.clear();
  FIdCache.remove_if([](const auto& AEntry) { return AEntry.first.find("_Bmrk") != std::string::npos; });
  return FStore.GetBookmarkCount();
}

void TStoreSession::RunLoad(const std::function<void(TEvtLiteAdaptor&)>& ALoad) {
  std::lock_guard lock(FLock);
  FLoading = true;
  // No statement of the view stays open across the load: a cancelled load interrupts the
  // connection, and the interruption lasts while any statement is active.
  FStore.Close();
  struct TDone {
    TStoreSession& Session;
    ~TDone() {
      Session.FQueryKey.clear();
      Session.FIdCache.clear();
      Session.FDistinct.clear();
      Session.FStore.Close();
      Session.FHasDetections = TDetectionStore::Exists(Session.FStore.Handle());
      Session.FLoading = false;
    }
  } done{*this};
  ALoad(FStore);
}

void TStoreSession::Export(const TViewQuery& AQuery, TStoreRowFormat AFormat,
                           const std::function<bool(std::string_view)>& AWrite) {
  CheckIdle();
  std::lock_guard lock(FLock);
  Select(AQuery);
  std::string out(StoreRowsHeader(AFormat));
  TEventData row;
  for (FStore.First(); !FStore.Eof(); FStore.Next()) {
    FStore.GetEventData(row);
    AppendStoreRow(out, row, AFormat);
    if (out.size() > 256 * 1024) {
      if (!AWrite(out)) return;
      out.clear();
    }
  }
  if (!out.empty()) AWrite(out);
}

} // namespace qvx::server
