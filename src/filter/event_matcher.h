// TEventMatcher: a filter applied to events as they are read, without an event store.
//
// It follows the WHERE text the filter gives the store: event types; sources,
// categories, users and computers compared without regard to case (as the store's list
// clauses do); the event ID expression; the description (substring, with or without
// case, or a regular expression run by PCRE2); the date and time range on the time as
// shown (continuous, or a daily time-of-day window); the last N days and hours. The
// conditions on description parameters and custom columns need the store's columns and
// functions: a filter that holds them is refused here.
#pragma once

#include "engine/event_model.h"
#include "filter/event_filter.h"
#include "filter/pcre2_pattern.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace qvx {

class TEventMatcher {
public:
  // Raises std::invalid_argument when the filter cannot be applied here: a regular
  // expression that does not compile (PCRE2's message and offset), or conditions that
  // need the store. ANowUtcDays is "now" for the last-N period.
  TEventMatcher(const TEventFilter& AFilter, double ANowUtcDays);

  // True when the event passes. AShownDays is its time as the viewer sees it.
  bool Matches(const TEventItemBase& AItem, double AShownDays);

private:
  bool InList(const std::vector<std::string>& AList, const std::string& AValue) const;
  bool IdMatches(uint32_t AId) const;
  bool DescriptionMatches(const std::string& AText) const;

  TEventFilter FFilter;
  double FNowUtc = 0;
  bool FTypes[14] = {};
  bool FAllTypes = true;
  std::vector<TEventIdSpan> FInclude, FExclude;
  std::string FDescr;       // folded when the comparison ignores case
  std::unique_ptr<TPcre2Pattern> FRegex;
  mutable TPcre2Match FMatch;
  mutable std::string FFolded;
};

} // namespace qvx
