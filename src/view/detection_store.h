// The detections of Sigma rules kept in an event store, beside its events.
//
// Table QvxDetections, one row per (rule, event):
//   _ID      the event's _ID in the event table
//   RuleId   the rule's id
//   Title    the rule's title
//   Author   the rule's author (its licence asks that every view of a match shows it)
//   Level    0 informational, 1 low, 2 medium, 3 high, 4 critical
//   Matched  the fields and values that matched, "Field=value; ..."
// Every value is bound, never written into SQL text.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace qvx {

class TDetectionStore {
public:
  static constexpr const char* kTable = "QvxDetections";
  static constexpr int kMaxLevel = 4;

  // Opens the table of ADb for adding rows, creating it when it is not there. Raises
  // EEventStoreError naming AFileName when the database fails.
  TDetectionStore(sqlite3* ADb, std::string AFileName);
  ~TDetectionStore();
  TDetectionStore(const TDetectionStore&) = delete;
  TDetectionStore& operator=(const TDetectionStore&) = delete;

  void Add(int64_t AEventId, std::string_view ARuleId, std::string_view ATitle, std::string_view AAuthor, int ALevel,
           std::string_view AMatched);

  // Removes the table (a store being replaced).
  static void Drop(sqlite3* ADb);
  // Whether the store has the table.
  static bool Exists(sqlite3* ADb);
  // The condition "the event has a detection of level ALevel or above" for a WHERE clause
  // over the event table. Raises std::invalid_argument for a level outside 0..4.
  static std::string LevelAtLeastSQL(int ALevel);

private:
  sqlite3* FDb;
  std::string FFileName;
  sqlite3_stmt* FInsert = nullptr;
};

} // namespace qvx
