// Counts over the rows of an event store that a filter selects: by type, the top
// sources, and events over time.
#pragma once

#include "view/evt_lite_adaptor.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qvx {

struct TStoreStatistics {
  int64_t Total = 0;
  std::vector<std::pair<int32_t, int64_t>> ByType;         // type code, count; by code
  std::vector<std::pair<std::string, int64_t>> TopSources; // most events first
  // Events per bucket of the time line: the bucket's start ("2024-03-01" for days,
  // "2024-03-01 14" for hours), its count; oldest first.
  std::vector<std::pair<std::string, int64_t>> OverTime;
  bool Hourly = false; // buckets are hours (the rows span at most three days)
};

// AWhere is the filter's WHERE text ("" for every row), as TEventFilter makes it.
// Raises EEventStoreError when a query fails.
TStoreStatistics StoreStatistics(TEvtLiteAdaptor& AStore, const std::string& AWhere, size_t ATopSources = 10);

} // namespace qvx
