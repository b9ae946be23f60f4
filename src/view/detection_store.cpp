#include "view/detection_store.h"

#include "view/evt_db_adaptor.h"

#include <stdexcept>

namespace qvx {

TDetectionStore::TDetectionStore(sqlite3* ADb, std::string AFileName) : FDb(ADb), FFileName(std::move(AFileName)) {
  const char* create = "CREATE TABLE IF NOT EXISTS QvxDetections (_ID INTEGER NOT NULL, RuleId TEXT, Title TEXT, "
                       "Author TEXT, Level INTEGER, Matched TEXT);"
                       "CREATE INDEX IF NOT EXISTS QvxDetectionsByEvent ON QvxDetections (_ID, Level)";
  if (sqlite3_exec(FDb, create, nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_prepare_v2(FDb, "INSERT INTO QvxDetections VALUES (?1, ?2, ?3, ?4, ?5, ?6)", -1, &FInsert, nullptr) !=
          SQLITE_OK)
    throw EEventStoreError(FFileName + ": cannot keep detections: " + sqlite3_errmsg(FDb));
}

TDetectionStore::~TDetectionStore() {
  sqlite3_finalize(FInsert);
}

void TDetectionStore::Add(int64_t AEventId, std::string_view ARuleId, std::string_view ATitle,
                          std::string_view AAuthor, int ALevel, std::string_view AMatched) {
  sqlite3_bind_int64(FInsert, 1, AEventId);
  sqlite3_bind_text(FInsert, 2, ARuleId.data(), static_cast<int>(ARuleId.size()), SQLITE_TRANSIENT);
  sqlite3_bind_text(FInsert, 3, ATitle.data(), static_cast<int>(ATitle.size()), SQLITE_TRANSIENT);
  sqlite3_bind_text(FInsert, 4, AAuthor.data(), static_cast<int>(AAuthor.size()), SQLITE_TRANSIENT);
  sqlite3_bind_int(FInsert, 5, ALevel);
  sqlite3_bind_text(FInsert, 6, AMatched.data(), static_cast<int>(AMatched.size()), SQLITE_TRANSIENT);
  const int code = sqlite3_step(FInsert);
  sqlite3_reset(FInsert);
  if (code != SQLITE_DONE) throw EEventStoreError(FFileName + ": cannot keep a detection: " + sqlite3_errmsg(FDb));
}

void TDetectionStore::Drop(sqlite3* ADb) {
  sqlite3_exec(ADb, "DROP TABLE IF EXISTS QvxDetections", nullptr, nullptr, nullptr);
}

bool TDetectionStore::Exists(sqlite3* ADb) {
  sqlite3_stmt* query = nullptr;
  bool found = false;
  if (sqlite3_prepare_v2(ADb, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'QvxDetections'", -1,
                         &query, nullptr) == SQLITE_OK)
    found = sqlite3_step(query) == SQLITE_ROW;
  sqlite3_finalize(query);
  return found;
}

std::string TDetectionStore::LevelAtLeastSQL(int ALevel) {
  if (ALevel < 0 || ALevel > kMaxLevel) throw std::invalid_argument("a detection level is 0 to 4");
  // The level is a checked small integer; nothing else enters the text.
  return "_ID IN (SELECT _ID FROM QvxDetections WHERE Level >= " + std::to_string(ALevel) + ")";
}

} // namespace qvx
