// quorvex hunt: Sigma rules run over logs, folders of logs, deep scans and stores.
#pragma once

#include "app/event_output.h"
#include "hunt/rule_set.h"

#include <cstdio>
#include <string>
#include <vector>

namespace qvx::app {

struct THuntOptions {
  std::vector<std::string> Rules;   // rule files or folders
  std::vector<std::string> Inputs;  // .evtx, .evt, folders of logs, stores; with Scan any data
  std::string MinLevel = "informational";
  std::vector<std::string> Statuses; // rule statuses to use (empty: all)
  TOutputFormat Format = TOutputFormat::ofTable;
  std::string TimeZone = "local";
  bool Scan = false;                 // deep-scan the inputs for event chunks
  unsigned Threads = 1;
  unsigned Width = 0;
  bool Quiet = false;                // no summary on stderr
};

// Loads the rules of AOptions (rule files and folders), reporting those that cannot be
// used on AErr once each. Raises std::runtime_error for a --min-level or --status value
// that is not a level or status, and ESigmaError for a rule path that does not exist.
std::unique_ptr<hunt::TRuleSet> LoadHuntRules(const std::vector<std::string>& APaths, const std::string& AMinLevel,
                                              const std::vector<std::string>& AStatuses);

// Prints one line per (rule, event) that matched, then a summary by level and rule and
// the rules that could not be used. Returns the exit status.
int RunHunt(const THuntOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

// The rules that could not be used, each once, with the reason.
void PrintUnusableRules(const hunt::TRuleSet& ARules, std::FILE* AErr);

} // namespace qvx::app
