// Fuzz target: a message catalog file (src/catalog/catalog_schema.h).
//
// The input is written to a file and added to a catalog set: the check of the whole file
// (identification, schema version, tables and columns, SQLite's quick check, value
// lengths) must refuse it with ECatalogError or accept it; an accepted catalog then
// answers lookups of every kind without crashing. Seeds: catalogs written by
// 'quorvex catalog build' (e.g. from qvx_bench_fixtures' installation), cut or not.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <unistd.h>

#include "catalog/message_catalog.h"
#include "catalog/sqlite_handle.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  using namespace qvx;
  char path[] = "/tmp/qvx-fuzz-catalog-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return 0;
  const bool written = write(fd, AData, ASize) == static_cast<ssize_t>(ASize);
  close(fd);
  if (written) {
    try {
      TCatalogSet catalogs;
      catalogs.Add(path);
      std::string text;
      for (const char* source : {"ClassicSrc", "Test-Provider-A", "BenchSrc00", ""}) {
        for (uint32_t id : {0u, 1u, 100u, 1000u, 0xB0000001u}) {
          (void)catalogs.GetEventMessage(source, id, 0, text);
          (void)catalogs.GetEventMessage(source, id, 1, text);
          (void)catalogs.GetParam(source, id, text);
          (void)catalogs.GetEventTask(source, id, text);
        }
        (void)catalogs.GetOpcodeName(source, 0, 10, text);
        (void)catalogs.GetKeywordNames(source, ~0ull, text);
      }
    } catch (const ECatalogError&) {
      // Refused, or a lookup met damage the check could not see: one clear error.
    }
  }
  std::remove(path);
  return 0;
}
