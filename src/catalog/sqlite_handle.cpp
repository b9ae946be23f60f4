#include "catalog/sqlite_handle.h"

#include <sqlite3.h>

#include <filesystem>
#include <system_error>

namespace qvx {

void RaiseCatalogError(const std::string& AFile, std::string_view AWhat) {
  std::string text = AFile;
  text.append(": ");
  text.append(AWhat);
  throw ECatalogError(text);
}

TSqliteDb::TSqliteDb(const std::string& AFile, bool AWrite, int ATextLimit) : FFile(AFile) {
  // (SQLite would say "disk I/O error" of a folder.)
  std::error_code error;
  if (std::filesystem::is_directory(AFile, error))
    RaiseCatalogError(AFile, "is a folder, not a message catalog file");
  const int flags = AWrite ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
  if (sqlite3_open_v2(AFile.c_str(), &FDb, flags | SQLITE_OPEN_NOMUTEX, nullptr) != SQLITE_OK) {
    const std::string message = FDb ? sqlite3_errmsg(FDb) : "out of memory";
    sqlite3_close(FDb);
    FDb = nullptr;
    RaiseCatalogError(AFile, "cannot be opened: " + message);
  }
  sqlite3_extended_result_codes(FDb, 1);
  if (!AWrite) {
    sqlite3_db_config(FDb, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(FDb, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(FDb, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(FDb, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_limit(FDb, SQLITE_LIMIT_LENGTH, ATextLimit);
  }
}

TSqliteDb::~TSqliteDb() { sqlite3_close(FDb); }

int64_t TSqliteDb::LastInsertId() const { return sqlite3_last_insert_rowid(FDb); }

void TSqliteDb::Exec(const char* ASql) {
  char* error = nullptr;
  if (sqlite3_exec(FDb, ASql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string message = error ? error : sqlite3_errmsg(FDb);
    sqlite3_free(error);
    RaiseCatalogError(FFile, message);
  }
}

void TSqliteDb::Fail(std::string_view AWhat) const {
  std::string text(AWhat);
  text.append(": ");
  text.append(sqlite3_errmsg(FDb));
  RaiseCatalogError(FFile, text);
}

TSqliteStatement::TSqliteStatement(TSqliteDb& ADb, const char* ASql) : FDb(ADb) {
  if (sqlite3_prepare_v2(ADb.Handle(), ASql, -1, &FStatement, nullptr) != SQLITE_OK) ADb.Fail("cannot prepare a query");
}

TSqliteStatement::~TSqliteStatement() { sqlite3_finalize(FStatement); }

TSqliteStatement& TSqliteStatement::Bind(int AIndex, int64_t AValue) {
  if (sqlite3_bind_int64(FStatement, AIndex, AValue) != SQLITE_OK) FDb.Fail("bind");
  return *this;
}

TSqliteStatement& TSqliteStatement::Bind(int AIndex, std::string_view AText) {
  if (sqlite3_bind_text64(FStatement, AIndex, AText.data(), AText.size(), SQLITE_TRANSIENT, SQLITE_UTF8) != SQLITE_OK)
    FDb.Fail("bind");
  return *this;
}

bool TSqliteStatement::Step() {
  const int rc = sqlite3_step(FStatement);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  const std::string what = (rc & 0xFF) == SQLITE_CORRUPT ? "damaged" : (rc & 0xFF) == SQLITE_TOOBIG ? "a value is too long" : "read failed";
  sqlite3_reset(FStatement);
  FDb.Fail(what);
}

void TSqliteStatement::Run() {
  while (Step()) {
  }
  Reset();
}

void TSqliteStatement::Reset() {
  sqlite3_reset(FStatement);
  sqlite3_clear_bindings(FStatement);
}

int64_t TSqliteStatement::Int(int AColumn) const { return sqlite3_column_int64(FStatement, AColumn); }

std::string_view TSqliteStatement::Text(int AColumn) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(FStatement, AColumn));
  if (!text) return {};
  return std::string_view(text, static_cast<size_t>(sqlite3_column_bytes(FStatement, AColumn)));
}

bool TSqliteStatement::IsNull(int AColumn) const { return sqlite3_column_type(FStatement, AColumn) == SQLITE_NULL; }

} // namespace qvx
