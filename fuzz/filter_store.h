// For the filter fuzz targets: an in-memory store with three custom columns, and the check
// that a filter's WHERE text compiles there as exactly one expression (whatever texts the
// filter holds, they stay data).
#pragma once

#include "view/evt_lite_adaptor.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

inline qvx::TEvtLiteAdaptor& FilterStore() {
  static qvx::TEvtLiteAdaptor* store = [] {
    auto* made = new qvx::TEvtLiteAdaptor(":memory:");
    made->SetCustomFields(std::vector<qvx::TDBCustomField>(3));
    made->InitThreadDataSet();
    made->EmptyTable();
    return made;
  }();
  return *store;
}

inline void CheckWhereCompiles(const std::string& AWhere) {
  if (AWhere.empty()) return;
  const std::string sql = "SELECT COUNT(*) FROM Events WHERE " + AWhere;
  sqlite3_stmt* statement = nullptr;
  const char* tail = nullptr;
  const int code =
      sqlite3_prepare_v2(FilterStore().Handle(), sql.c_str(), static_cast<int>(sql.size()), &statement, &tail);
  if (code != SQLITE_OK || tail != sql.c_str() + sql.size()) {
    std::fprintf(stderr, "filter WHERE text does not compile as one expression: %s\n%s\n",
                 sqlite3_errmsg(FilterStore().Handle()), sql.c_str());
    std::abort();
  }
  sqlite3_finalize(statement);
}
