#include "catalog/catalog_file.h"

#include "catalog/catalog_schema.h"

#include <cstdio>
#include <string>

namespace qvx {

using namespace catalog;

// A digest of a table's messages: two 64-bit FNV-1a sums over (id, length, text) with
// different starting values, and the count.
std::string TableDigest(const std::vector<std::pair<uint32_t, std::string>>& AMessages) {
  uint64_t a = 14695981039346656037ull, b = 0x9E3779B97F4A7C15ull;
  auto mix = [&](const void* AData, size_t ALength) {
    const auto* p = static_cast<const unsigned char*>(AData);
    for (size_t i = 0; i < ALength; ++i) {
      a = (a ^ p[i]) * 1099511628211ull;
      b = (b ^ p[i]) * 0x100000001B3ull + 0x2545F4914F6CDD1Dull;
    }
  };
  for (const auto& [id, text] : AMessages) {
    const uint64_t length = text.size();
    mix(&id, sizeof id);
    mix(&length, sizeof length);
    mix(text.data(), text.size());
  }
  char out[64];
  std::snprintf(out, sizeof out, "%016llx%016llx-%zu", static_cast<unsigned long long>(a),
                static_cast<unsigned long long>(b), AMessages.size());
  return out;
}

void WriteCatalogHeader(TSqliteDb& ADb) {
  ADb.Exec("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA page_size=4096;");
  const std::string id = "PRAGMA application_id=" + std::to_string(kApplicationId) + ";";
  ADb.Exec(id.c_str());
  ADb.Exec(kCatalogSchema);
  TSqliteStatement info(ADb, "INSERT INTO catalog_info(key,value) VALUES(?,?)");
  info.Bind(1, std::string_view("format")).Bind(2, std::string_view(kCatalogFormat)).Run();
  info.Bind(1, std::string_view("schema_version")).Bind(2, std::to_string(kCatalogSchemaVersion)).Run();
}

void CheckCatalog(TSqliteDb& ADb) {
  const std::string& file = ADb.File();
  int64_t applicationId = 0;
  try {
    TSqliteStatement id(ADb, "PRAGMA application_id");
    if (id.Step()) applicationId = id.Int(0);
  } catch (const ECatalogError&) {
    // SQLite could not read the header: not a database at all.
    RaiseCatalogError(file, "not a Quorvex message catalog (not an SQLite database)");
  }
  if (applicationId != kApplicationId) RaiseCatalogError(file, "not a Quorvex message catalog");

  std::string version;
  try {
    TSqliteStatement info(ADb, "SELECT value FROM catalog_info WHERE key='schema_version'");
    if (info.Step()) version.assign(info.Text(0));
  } catch (const ECatalogError&) {
    RaiseCatalogError(file, "damaged: the table catalog_info cannot be read");
  }
  if (version != std::to_string(kCatalogSchemaVersion))
    RaiseCatalogError(file, "catalog schema version " + (version.empty() ? std::string("(none)") : version.substr(0, 20)) +
                                " is not supported (this program reads version " +
                                std::to_string(kCatalogSchemaVersion) + ")");

  // Every table this program reads must be a table (not a view) with its columns.
  for (const auto& [table, columns] : kRequiredColumns) {
    TSqliteStatement kind(ADb, "SELECT type FROM sqlite_schema WHERE name=?");
    kind.Bind(1, std::string_view(table));
    if (!kind.Step() || kind.Text(0) != "table") RaiseCatalogError(file, std::string("damaged: no table ") + table);
    TSqliteStatement info(ADb, "SELECT name FROM pragma_table_info(?)");
    info.Bind(1, std::string_view(table));
    std::string present = ",";
    while (info.Step()) {
      present.append(info.Text(0));
      present.push_back(',');
    }
    std::string_view wanted(columns);
    while (!wanted.empty()) {
      const size_t comma = wanted.find(',');
      const std::string_view column = wanted.substr(0, comma);
      std::string needle = ",";
      needle.append(column);
      needle.push_back(',');
      if (present.find(needle) == std::string::npos)
        RaiseCatalogError(file, std::string("damaged: table ") + table + " has no column " + std::string(column));
      wanted = comma == std::string_view::npos ? std::string_view() : wanted.substr(comma + 1);
    }
  }

  TSqliteStatement check(ADb, "PRAGMA quick_check(1)");
  std::string result = "no result";
  try {
    if (check.Step()) result.assign(check.Text(0).substr(0, 200));
  } catch (const ECatalogError&) {
    RaiseCatalogError(file, "damaged: its pages cannot be read");
  }
  if (result != "ok") {
    // The check's report is a heading line ("*** in database main ***") and the fault:
    // one line naming the file, with the fault.
    std::string fault;
    for (size_t at = 0; at < result.size();) {
      size_t end = result.find('\n', at);
      if (end == std::string::npos) end = result.size();
      const std::string_view line = std::string_view(result).substr(at, end - at);
      if (!line.empty() && !line.starts_with("*** ")) fault.append(fault.empty() ? "" : "; ").append(line);
      at = end + 1;
    }
    RaiseCatalogError(file,
                      "damaged (" + (fault.empty() ? std::string("its pages do not hold together") : fault) + ")");
  }

  // Texts beyond the connection's bound would fail one lookup later; refuse them now.
  static constexpr const char* kTexts[][2] = {
      {"message", "SELECT max(length(CAST(text AS BLOB))) FROM message"},
      {"provider", "SELECT max(length(CAST(name AS BLOB)) + length(CAST(name_key AS BLOB)) + length(CAST(guid AS BLOB)) + length(CAST(log AS BLOB))) "
                   "FROM provider"},
      {"origin", "SELECT max(length(CAST(name AS BLOB)) + length(CAST(languages AS BLOB)) + length(CAST(created AS BLOB))) FROM origin"},
      {"file_table", "SELECT max(length(CAST(language AS BLOB))) FROM file_table"},
  };
  for (const auto& [table, sql] : kTexts) {
    bool fits = false;
    try {
      TSqliteStatement lengths(ADb, sql);
      fits = lengths.Step() && lengths.Int(0) <= kMaxCatalogValue;
    } catch (const ECatalogError&) {
    }
    if (!fits) {
      RaiseCatalogError(file, std::string("damaged: a value longer than ") + std::to_string(kMaxCatalogValue) +
                                  " bytes in table " + table);
    }
  }
}

} // namespace qvx
