#include "view/store_statistics.h"

#include <sqlite3.h>

#include <cstdio>

namespace qvx {

namespace {

// Runs AQuery and calls ARow for each row.
template <typename TRow> void ForEachRow(TEvtLiteAdaptor& AStore, const std::string& AQuery, TRow&& ARow) {
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(AStore.Handle(), AQuery.c_str(), -1, &query, nullptr) != SQLITE_OK)
    throw EEventStoreError(AStore.FileName() + ": cannot count: " + sqlite3_errmsg(AStore.Handle()));
  int code;
  while ((code = sqlite3_step(query)) == SQLITE_ROW)
    ARow(query);
  const std::string message = code == SQLITE_DONE ? std::string() : sqlite3_errmsg(AStore.Handle());
  sqlite3_finalize(query);
  if (!message.empty()) throw EEventStoreError(AStore.FileName() + ": counting failed: " + message);
}

std::string ColumnText(sqlite3_stmt* AQuery, int AColumn) {
  const unsigned char* text = sqlite3_column_text(AQuery, AColumn);
  return text ? reinterpret_cast<const char*>(text) : "";
}

} // namespace

TStoreStatistics StoreStatistics(TEvtLiteAdaptor& AStore, const std::string& AWhere, size_t ATopSources) {
  TStoreStatistics stats;
  const std::string from = " FROM " + AStore.TableName() + (AWhere.empty() ? std::string() : " WHERE " + AWhere);
  ForEachRow(AStore, "SELECT Type, COUNT(*)" + from + " GROUP BY Type ORDER BY Type", [&](sqlite3_stmt* AQuery) {
    stats.ByType.emplace_back(sqlite3_column_int(AQuery, 0), sqlite3_column_int64(AQuery, 1));
    stats.Total += stats.ByType.back().second;
  });
  ForEachRow(AStore,
             "SELECT Source, COUNT(*) AS n" + from + " GROUP BY Source ORDER BY n DESC, Source LIMIT " +
                 std::to_string(ATopSources),
             [&](sqlite3_stmt* AQuery) { stats.TopSources.emplace_back(ColumnText(AQuery, 0), sqlite3_column_int64(AQuery, 1)); });
  std::string first, last;
  ForEachRow(AStore, "SELECT MIN(Date), MAX(Date)" + from, [&](sqlite3_stmt* AQuery) {
    first = ColumnText(AQuery, 0);
    last = ColumnText(AQuery, 1);
  });
  // Hours when the rows span a few days at most, days otherwise.
  double firstDay = 0, lastDay = 0;
  stats.Hourly = first.size() >= 10 && last.size() >= 10 &&
                 std::sscanf(first.c_str(), "%*4d-%*2d-%lf", &firstDay) == 1 &&
                 std::sscanf(last.c_str(), "%*4d-%*2d-%lf", &lastDay) == 1 && first.compare(0, 7, last, 0, 7) == 0 &&
                 lastDay - firstDay <= 2;
  ForEachRow(AStore,
             std::string(stats.Hourly ? "SELECT substr(TimeStamp, 1, 13) AS b, COUNT(*)" : "SELECT Date AS b, COUNT(*)") +
                 from + " GROUP BY b ORDER BY b",
             [&](sqlite3_stmt* AQuery) { stats.OverTime.emplace_back(ColumnText(AQuery, 0), sqlite3_column_int64(AQuery, 1)); });
  return stats;
}

} // namespace qvx
