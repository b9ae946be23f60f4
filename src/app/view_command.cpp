// quorvex view: the rows of an event store, filtered, sorted, bookmarked, counted and
// painted by color codes.
#include "app/commands.h"
#include "app/event_output.h"
#include "app/hunt_command.h"
#include "app/progress.h"
#include "app/text_table.h"

#include "engine/event_log_binxml.h"
#include "view/evt_lite_adaptor.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>

namespace qvx::app {

namespace {

// The columns --sort is shown with when it names none (the store checks the name).
constexpr const char* kSortColumns =
    "Date, TimeStamp, Type, TypeStr, EventID, Source, CategoryName, UserName, "
    "Computer, RecordNumber, EventLog, _ID, Descr, CustomField1...";

std::string Setting(sqlite3* ADb, const char* AName) {
  sqlite3_stmt* query = nullptr;
  std::string value;
  if (sqlite3_prepare_v2(ADb, "SELECT Value FROM QvxSettings WHERE Name = ?1", -1, &query, nullptr) ==
      SQLITE_OK) {
    sqlite3_bind_text(query, 1, AName, -1, SQLITE_STATIC);
    if (sqlite3_step(query) == SQLITE_ROW && sqlite3_column_text(query, 0))
      value = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    sqlite3_finalize(query);
  }
  return value;
}

// Runs AQuery and calls ARow with the text of each row's columns.
void ForEachRow(sqlite3* ADb, const std::string& AQuery, const std::function<void(sqlite3_stmt*)>& ARow) {
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(ADb, AQuery.c_str(), -1, &query, nullptr) != SQLITE_OK)
    throw EEventStoreError(std::string("cannot count: ") + sqlite3_errmsg(ADb));
  int code;
  while ((code = sqlite3_step(query)) == SQLITE_ROW)
    ARow(query);
  const std::string message = code == SQLITE_DONE ? std::string() : sqlite3_errmsg(ADb);
  sqlite3_finalize(query);
  if (!message.empty()) throw EEventStoreError("counting failed: " + message);
}

std::string ColumnText(sqlite3_stmt* AQuery, int AColumn) {
  const unsigned char* text = sqlite3_column_text(AQuery, AColumn);
  return text ? reinterpret_cast<const char*>(text) : "";
}

void PrintStats(TEvtLiteAdaptor& AStore, const std::string& AWhere, std::FILE* AOut) {
  const std::string where = AWhere.empty() ? std::string() : " WHERE " + AWhere;
  const std::string table = AStore.TableName();
  const int64_t total = AStore.QueryIntValue("SELECT COUNT(*) FROM " + table + where);
  std::fprintf(AOut, "Events: %lld\n\nBy type:\n", static_cast<long long>(total));
  ForEachRow(AStore.Handle(), "SELECT Type, COUNT(*) FROM " + table + where + " GROUP BY Type ORDER BY Type",
             [&](sqlite3_stmt* AQuery) {
               const char* name = StoreTypeText(sqlite3_column_int64(AQuery, 0));
               std::fprintf(AOut, "  %-15s %10lld\n", *name && std::strcmp(name, "0") != 0 ? name : "(none)",
                            static_cast<long long>(sqlite3_column_int64(AQuery, 1)));
             });
  std::fputs("\nTop sources:\n", AOut);
  ForEachRow(AStore.Handle(),
             "SELECT Source, COUNT(*) AS n FROM " + table + where +
                 " GROUP BY Source ORDER BY n DESC, Source LIMIT 10",
             [&](sqlite3_stmt* AQuery) {
               std::fprintf(AOut, "  %-40s %10lld\n", ColumnText(AQuery, 0).c_str(),
                            static_cast<long long>(sqlite3_column_int64(AQuery, 1)));
             });
  std::fputs("\nEvents per day:\n", AOut);
  int64_t largest = 1;
  std::vector<std::pair<std::string, int64_t>> days;
  ForEachRow(AStore.Handle(), "SELECT Date, COUNT(*) FROM " + table + where + " GROUP BY Date ORDER BY Date",
             [&](sqlite3_stmt* AQuery) {
               days.emplace_back(ColumnText(AQuery, 0), sqlite3_column_int64(AQuery, 1));
               largest = std::max(largest, days.back().second);
             });
  for (const auto& [day, count] : days)
    std::fprintf(AOut, "  %s %10lld %s\n", day.c_str(), static_cast<long long>(count),
                 std::string(static_cast<size_t>(count * 40 / largest), '#').c_str());
}

// The first line of a description that holds text (the values of an event without a
// description follow the no-description mark and a line break).
std::string_view FirstLine(std::string_view AText) {
  while (!AText.empty() && static_cast<unsigned char>(AText.front()) < 0x20)
    AText.remove_prefix(1);
  return AText.substr(0, std::min(AText.find_first_of("\r\n"), AText.size()));
}

} // namespace

int RunView(const TViewOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    if (!std::filesystem::exists(AOptions.Store))
      throw std::runtime_error(AOptions.Store + ": no such store");
    TEvtLiteAdaptor store(AOptions.Store);
    store.InitThreadDataSet();
    store.OpenExistingTable();

    // The filter: the store's times are shown times, so "the last N hours" is counted in
    // the zone the store was loaded with.
    const TEventFilter filter = BuildFilter(AOptions.Filter);
    int shift = 0;
    {
      TEventLogBinXML zone;
      const std::string name = Setting(store.Handle(), "TimeZone");
      ApplyTimeZone(zone, name.empty() ? "local" : name);
      shift = zone.ShiftMinutesAt(NowUtcDays());
    }
    std::string where = filter.CreateSQLWhere(tfwSQLite, shift, store.FieldKindOf());
    if (AOptions.Bookmarked) where = where.empty() ? "_Bmrk = 1" : "(" + where + ") AND _Bmrk = 1";
    if (!AOptions.DetectionLevel.empty() || AOptions.Detections) {
      const std::string detected = DetectionLevelSQL(store, AOptions.DetectionLevel);
      where = where.empty() ? detected : "(" + where + ") AND " + detected;
    }
    if (AOptions.Detections) return PrintStoreDetections(store, where, AOptions.DetectionLevel, AOptions.Format, AOptions.Width, AOut);

    if (AOptions.ClearBookmarks) {
      store.BookmarksEventClear();
      std::fputs("bookmarks cleared\n", AErr);
    }
    if (AOptions.Bookmark) {
      const int64_t marked = store.BookmarksByCriteria(where.empty() ? "1" : where);
      std::fprintf(AErr, "%lld event%s bookmarked\n", static_cast<long long>(marked), marked == 1 ? "" : "s");
      return 0;
    }
    if (AOptions.Stats) {
      PrintStats(store, where, AOut);
      return 0;
    }
    store.SetFilterSQL(where);
    if (AOptions.Count) {
      std::fprintf(AOut, "%lld\n", static_cast<long long>(store.GetRecordCount()));
      return 0;
    }
    store.SetNoIndexes(AOptions.NoIndex);
    if (!AOptions.Sort.empty()) {
      try {
        store.SortTable(AOptions.Sort, AOptions.Descending);
      } catch (const ESQLNameError& e) {
        throw std::invalid_argument(std::string("--sort: ") + e.what() + " (" + kSortColumns + ")");
      }
    }
    store.SetRowLimit(AOptions.Limit);
    store.MakeSQL();

    TColorCodes codes;
    TEventsOptions colorOptions;
    colorOptions.Colors = AOptions.Colors;
    colorOptions.ColorMode = AOptions.ColorMode;
    const TRowColors colors = RowColorsFor(colorOptions, AOut, codes);
    const unsigned width = AOptions.Width ? AOptions.Width : TerminalWidth(AOut);

    std::string out;
    TEventData row;
    uint64_t rows = 0;
    if (AOptions.Format == TOutputFormat::ofCsv)
      out.append(
          "Id,Time,Type,EventID,Source,Category,User,Computer,RecordNumber,Log,Bookmarked,Description\r\n");
    TTextTable table(out,
                     {{"Time"}, {"Type"}, {"ID", true}, {"Source", false, 3}, {"User", false, 2, 1},
                      {"Description", false, 5}},
                     width);
    std::string id, prefix;
    for (store.First(); !store.Eof(); store.Next()) {
      store.GetEventData(row);
      ++rows;
      switch (AOptions.Format) {
      case TOutputFormat::ofTable: {
        const TColorCode* code =
            colors.Codes ? colors.Codes->FindColorCode(row.Type, row.Source, row.EventID, row.Descr)
                         : nullptr;
        prefix.clear();
        if (code) AppendColorStart(prefix, *code, colors.TrueColor);
        id = std::to_string(row.EventID);
        table.AddRow({row.TimeStamp, row.TypeStr, id, row.Source, row.UserName, FirstLine(row.Descr)}, prefix,
                     code ? "\x1b[0m" : "");
        break;
      }
      case TOutputFormat::ofCsv:
        out.append(std::to_string(row.ID)).push_back(',');
        AppendCsvField(out, row.TimeStamp);
        out.push_back(',');
        AppendCsvField(out, row.TypeStr);
        out.append(",").append(std::to_string(row.EventID)).push_back(',');
        for (const std::string* field : {&row.Source, &row.CategoryName, &row.UserName, &row.Computer}) {
          AppendCsvField(out, *field);
          out.push_back(',');
        }
        out.append(std::to_string(row.RecordNumber)).append(",").append(std::to_string(row.EventLog));
        out.append(row.Bookmarked ? ",1," : ",0,");
        AppendCsvField(out, row.Descr);
        out.append("\r\n");
        break;
      case TOutputFormat::ofJsonl:
        out.append("{\"id\":").append(std::to_string(row.ID)).append(",\"time\":");
        AppendJsonString(out, row.TimeStamp);
        out.append(",\"type\":");
        AppendJsonString(out, row.TypeStr);
        out.append(",\"event_id\":").append(std::to_string(row.EventID));
        out.append(",\"source\":");
        AppendJsonString(out, row.Source);
        out.append(",\"category\":");
        AppendJsonString(out, row.CategoryName);
        out.append(",\"user\":");
        AppendJsonString(out, row.UserName);
        out.append(",\"computer\":");
        AppendJsonString(out, row.Computer);
        out.append(",\"record_number\":").append(std::to_string(row.RecordNumber));
        out.append(",\"log\":").append(std::to_string(row.EventLog));
        out.append(row.Bookmarked ? ",\"bookmarked\":true" : ",\"bookmarked\":false");
        out.append(",\"description\":");
        AppendJsonString(out, row.Descr);
        out.append("}\n");
        break;
      case TOutputFormat::ofXml:
        out.append(row.EvtXML).append("\r\n");
        break;
      }
      if (out.size() > 256 * 1024) {
        if (std::fwrite(out.data(), 1, out.size(), AOut) != out.size())
          throw std::runtime_error("cannot write the output");
        out.clear();
      }
    }
    if (AOptions.Format == TOutputFormat::ofTable) table.Finish();
    if (std::fwrite(out.data(), 1, out.size(), AOut) != out.size() || std::fflush(AOut) != 0)
      throw std::runtime_error("cannot write the output");
    if (AOptions.Format == TOutputFormat::ofTable && IsTerminal(AErr))
      std::fprintf(AErr, "%llu event%s\n", static_cast<unsigned long long>(rows), rows == 1 ? "" : "s");
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
