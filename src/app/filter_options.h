// The filter options of quorvex events, scan and xpath, and the filter they build.
#pragma once

#include "filter/event_filter.h"
#include "filter/loading_filter.h"

#include <string>

namespace CLI {
class App;
}

namespace qvx::app {

struct TFilterOptions {
  std::string Types, Sources, Users, Computers, Ids, Descr, Regex, From, To, Last;
  bool CaseSensitive = false;
  std::string MinDetectionLevel; // view: events with a Sigma detection of this level or above
  std::string FilterFile; // loaded first; the other options then add to it
  std::string SaveFilter; // where to save the filter built
  bool Any() const;
};

// Adds the options to ACommand.
void AddFilterOptions(CLI::App& ACommand, TFilterOptions& AOptions);
// Adds --min-detection-level (and its older name --detection-level): for commands over a
// store, whose detections the filter can select by.
void AddDetectionLevelOption(CLI::App& ACommand, TFilterOptions& AOptions);

// The filter the options describe. Raises std::invalid_argument (naming the option) for
// a value that cannot be read, std::runtime_error for a filter file that cannot be
// loaded; saves the filter when SaveFilter is set.
TEventFilter BuildFilter(const TFilterOptions& AOptions);

// The loading filter options of quorvex open and refresh.
struct TLoadOptions {
  std::string Types, Ids, Sources, Users, Computers, Descr, Last;
  int32_t Newest = 0;
};
void AddLoadOptions(CLI::App& ACommand, TLoadOptions& AOptions);
// Raises std::invalid_argument naming the option for a value that cannot be read.
TLogLoadingFilter BuildLoadingFilter(const TLoadOptions& AOptions);

// "now" as a UTC day count.
double NowUtcDays();

} // namespace qvx::app
