// quorvex view: the rows of an event store, filtered, sorted, bookmarked, counted and
// painted by color codes.
#include "app/commands.h"
#include "app/event_output.h"
#include "app/hunt_command.h"
#include "app/progress.h"
#include "app/text_table.h"

#include "engine/event_log_binxml.h"
#include "view/detection_store.h"
#include "view/evt_lite_adaptor.h"
#include "view/store_rows.h"
#include "view/store_statistics.h"

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

void PrintStats(TEvtLiteAdaptor& AStore, const std::string& AWhere, std::FILE* AOut) {
  const TStoreStatistics stats = StoreStatistics(AStore, AWhere);
  std::fprintf(AOut, "Events: %lld\n\nBy type:\n", static_cast<long long>(stats.Total));
  for (const auto& [type, count] : stats.ByType) {
    const char* name = StoreTypeText(type);
    std::fprintf(AOut, "  %-15s %10lld\n", *name && std::strcmp(name, "0") != 0 ? name : "(none)",
                 static_cast<long long>(count));
  }
  std::fputs("\nTop sources:\n", AOut);
  // As wide as the longest name (a longer one than 60 columns is cut), so the counts align.
  size_t width = 15;
  for (const auto& entry : stats.TopSources) width = std::max(width, std::min<size_t>(60, DisplayColumns(entry.first)));
  std::string line;
  for (const auto& [source, count] : stats.TopSources) {
    line.assign("  ");
    AppendCell(line, source, width, false);
    std::fprintf(AOut, "%s %10lld\n", line.c_str(), static_cast<long long>(count));
  }
  std::fputs(stats.Hourly ? "\nEvents per hour:\n" : "\nEvents per day:\n", AOut);
  int64_t largest = 1;
  for (const auto& bucket : stats.OverTime) largest = std::max(largest, bucket.second);
  for (const auto& [bucket, count] : stats.OverTime)
    std::fprintf(AOut, "  %s %10lld %s\n", bucket.c_str(), static_cast<long long>(count),
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
    TEventFilter filter = BuildFilter(AOptions.Filter);
    // Listing detections lists those of events that have one.
    if (AOptions.Detections && filter.MinDetectionLevel == dlNone) filter.MinDetectionLevel = dlInformational;
    if (filter.MinDetectionLevel != dlNone && !TDetectionStore::Exists(store.Handle()))
      throw std::runtime_error(store.FileName() + ": the store holds no detections (load it with --rules)");
    int shift = 0;
    {
      TEventLogBinXML zone;
      const std::string name = Setting(store.Handle(), "TimeZone");
      ApplyTimeZone(zone, name.empty() ? "local" : name);
      shift = zone.ShiftMinutesAt(NowUtcDays());
    }
    std::string where = filter.CreateSQLWhere(tfwSQLite, shift, store.FieldKindOf());
    if (AOptions.Bookmarked) where = where.empty() ? "_Bmrk = 1" : "(" + where + ") AND _Bmrk = 1";
    if (AOptions.Detections)
      return PrintStoreDetections(store, where, DetectionLevelName(filter.MinDetectionLevel), AOptions.Format,
                                  AOptions.Width, AOptions.Limit, AOut);

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
    if (AOptions.Format == TOutputFormat::ofCsv) out.append(StoreRowsHeader(TStoreRowFormat::srfCsv));
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
      case TOutputFormat::ofCsv: AppendStoreRow(out, row, TStoreRowFormat::srfCsv); break;
      case TOutputFormat::ofJsonl: AppendStoreRow(out, row, TStoreRowFormat::srfJsonl); break;
      case TOutputFormat::ofXml: AppendStoreRow(out, row, TStoreRowFormat::srfXml); break;
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
