// quorvex hunt: Sigma rules run over logs, folders of logs, deep scans and stores.
#pragma once

#include "app/event_output.h"
#include "hunt/rule_set.h"

#include <cstdio>
#include <string>
#include <vector>

namespace qvx {
class TEvtLiteAdaptor;
}

namespace qvx::app {

struct THuntOptions {
  std::vector<std::string> Rules;   // rule files or folders
  std::vector<std::string> Inputs;  // .evtx, .evt, folders of logs, stores, disk images; with Scan any data
  std::string MinLevel = "informational";
  std::vector<std::string> Statuses; // rule statuses to use (empty: all)
  TOutputFormat Format = TOutputFormat::ofTable;
  std::string TimeZone = "local";
  bool Scan = false;                 // deep-scan the inputs for event chunks
  bool Shadows = false;              // a disk image's shadow copies' logs too
  unsigned Threads = 1;
  unsigned Width = 0;
  bool Quiet = false;                // no summary on stderr
  bool RuleCache = true;             // parsed rule files kept in the user's cache folder
  // A whole .evtx file is tested chunk by chunk on every thread (each renders a chunk,
  // tests its events and makes their lines); off, event by event as other inputs are.
  // The output is the same either way.
  bool ByChunk = true;
};

// Loads the rules of AOptions (rule files and folders), reporting those that cannot be
// used on AErr once each. With ARuleCache, parsed rule files are kept in and taken from
// the rule cache of the user's cache folder (hunt/rule_cache.h). Raises std::runtime_error for a --min-level or --status value
// that is not a level or status, and ESigmaError for a rule path that does not exist.
std::unique_ptr<hunt::TRuleSet> LoadHuntRules(const std::vector<std::string>& APaths, const std::string& AMinLevel,
                                              const std::vector<std::string>& AStatuses, bool ARuleCache = true);

// Prints one line per (rule, event) that matched, then a summary by level and rule and
// the rules that could not be used. Returns the exit status.
int RunHunt(const THuntOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

// The rules that could not be used, each once, with the reason.
void PrintUnusableRules(const hunt::TRuleSet& ARules, std::FILE* AErr);

// Runs the rules of ARulePaths over the store's events after ALastOldId (its _ID) and
// keeps the detections in its detection table; says how many on AErr. ARuleCache as for
// LoadHuntRules.
void HuntStoreEvents(TEvtLiteAdaptor& AStore, const std::vector<std::string>& ARulePaths, int64_t ALastOldId,
                     bool AQuiet, std::FILE* AErr, bool ARuleCache = true);

// Lists the detections (of ALevel or above; "" for all) of the store's events that AWhere selects: time, level, rule with
// its author, computer, event ID, matched values. Returns the exit status.
int PrintStoreDetections(TEvtLiteAdaptor& AStore, const std::string& AWhere, const std::string& ALevel,
                         TOutputFormat AFormat, unsigned AWidth, int64_t ALimit, std::FILE* AOut);

} // namespace qvx::app
