// The SQLite connection and statements of the catalog library: one RAII class each, and
// one function that turns SQLite's error into ECatalogError naming the catalog file.
// Nothing above this file sees the C API.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

struct sqlite3;
struct sqlite3_stmt;

namespace qvx {

// A catalog that cannot be read or written; the text names the file.
class ECatalogError : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

// Every catalog error is built here (one breakpoint catches them all): "<file>: <what>".
[[noreturn]] void RaiseCatalogError(const std::string& AFile, std::string_view AWhat);

class TSqliteDb {
public:
  // Opens AFile read-only (AWrite false) or creates it (AWrite true, the file must not
  // exist). Read-only connections refuse to run anything a schema could smuggle in
  // (defensive mode, untrusted schema) and bound every text and blob to ATextLimit bytes.
  // Raises ECatalogError naming AFile.
  TSqliteDb(const std::string& AFile, bool AWrite, int ATextLimit = 1 << 20);
  ~TSqliteDb();
  TSqliteDb(const TSqliteDb&) = delete;
  TSqliteDb& operator=(const TSqliteDb&) = delete;

  // Runs statements without results; raises ECatalogError with SQLite's message.
  void Exec(const char* ASql);
  // Raises ECatalogError "<file>: <AWhat>: <SQLite's message>".
  [[noreturn]] void Fail(std::string_view AWhat) const;
  int64_t LastInsertId() const;
  sqlite3* Handle() const { return FDb; }
  const std::string& File() const { return FFile; }

private:
  sqlite3* FDb = nullptr;
  std::string FFile;
};

// One prepared statement; parameters are bound, never spliced into the text.
class TSqliteStatement {
public:
  TSqliteStatement(TSqliteDb& ADb, const char* ASql);
  ~TSqliteStatement();
  TSqliteStatement(const TSqliteStatement&) = delete;
  TSqliteStatement& operator=(const TSqliteStatement&) = delete;

  TSqliteStatement& Bind(int AIndex, int64_t AValue);
  TSqliteStatement& Bind(int AIndex, std::string_view AText);
  // True while a row is there; false at the end. Raises ECatalogError on any error.
  bool Step();
  // Runs a statement without results and resets it.
  void Run();
  void Reset();

  int64_t Int(int AColumn) const;
  // The column's text (empty for NULL); valid until the next Step or Reset.
  std::string_view Text(int AColumn) const;
  bool IsNull(int AColumn) const;

private:
  TSqliteDb& FDb;
  sqlite3_stmt* FStatement = nullptr;
};

} // namespace qvx
