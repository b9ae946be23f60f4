// Small written events run through the hunter: each event is written into an .evtx by
// the writer, read back by the direct source, and tested as quorvex hunt tests it.
#pragma once

#include "engine/evtx/evtx_writer.h"
#include "hunt/rule_set.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace qvx::test {

using TDataList = std::vector<std::pair<std::string, std::string>>;

inline constexpr const char* kSysmonChannel = "Microsoft-Windows-Sysmon/Operational";

// An event of AChannel with AEventId and string data values, in that order.
TEvtxEventDraft HuntEvent(const std::string& AChannel, uint16_t AEventId, const TDataList& AData,
                          const std::string& AProvider = "Microsoft-Windows-Sysmon");
// A Sysmon process creation (event 1) with Image, CommandLine and the extra data.
TEvtxEventDraft ProcessEvent(const std::string& AImage, const std::string& ACommandLine, const TDataList& AExtra = {});

// A rule with the given detection block (indented as under "detection:") and log source
// lines (indented as under "logsource:").
std::string RuleText(const std::string& ADetection, const std::string& ALogSource = "    category: process_creation\n"
                                                                                     "    product: windows\n");

struct THuntOutcome {
  std::vector<uint64_t> Records; // record numbers that matched, in reading order (newest first)
  std::vector<hunt::TUnusableRule> Unusable;
  std::vector<std::vector<std::pair<std::string, std::string>>> Matched; // per detection
  uint64_t RegexLimitHits = 0;
};

// Loads ARules (one file's text each) and hunts over AEvents (record numbers 1, 2, ...).
THuntOutcome Hunt(const std::vector<std::string>& ARules, const std::vector<TEvtxEventDraft>& AEvents);
// True when ARule matches the one event AEvent (and the rule loaded).
bool Matches(const std::string& ARule, const TEvtxEventDraft& AEvent);

// Hunts over the events of an .evtx file with a loaded rule set: the rule IDs that matched,
// one per detection.
std::vector<std::string> HuntFile(const hunt::TRuleSet& ARules, const std::filesystem::path& AFile);

// The shared Sigma folder (rules and regression data), or empty when it is absent.
std::filesystem::path SigmaDir();

} // namespace qvx::test
