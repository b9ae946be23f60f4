// Creating and checking catalog files (the layout is in catalog_schema.h).
#pragma once

#include "catalog/sqlite_handle.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

// The digest that identifies a message table by its content (messages sorted by id):
// two 64-bit FNV-1a sums over id, length and text, and the count.
std::string TableDigest(const std::vector<std::pair<uint32_t, std::string>>& AMessages);

// Writes the identification, the schema and catalog_info into a new, empty database.
void WriteCatalogHeader(TSqliteDb& ADb);

// Checks that ADb is a catalog this program reads, before anything of it is used: the
// application id, the schema version, every table with its columns, and SQLite's quick
// check of every page. Raises ECatalogError naming the file and the first fault:
// "not a Quorvex message catalog", "catalog schema version N is not supported",
// "damaged: …".
void CheckCatalog(TSqliteDb& ADb);

} // namespace qvx
