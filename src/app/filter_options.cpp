#include "app/filter_options.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <sstream>
#include <stdexcept>

namespace qvx::app {

namespace {

std::string Lower(std::string AText) {
  for (char& c : AText) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return AText;
}

std::vector<std::string> Items(const std::string& AText) {
  std::vector<std::string> items;
  std::stringstream parts(AText);
  for (std::string item; std::getline(parts, item, ',');) {
    while (!item.empty() && item.front() == ' ') item.erase(0, 1);
    while (!item.empty() && item.back() == ' ') item.pop_back();
    if (!item.empty()) items.push_back(item);
  }
  return items;
}

// "A,B" or "!A,B" (the names are to be left out).
void NameList(const std::string& AText, std::vector<std::string>& AList, bool& AExclude) {
  std::string text = AText;
  AExclude = !text.empty() && text[0] == '!';
  if (AExclude) text.erase(0, 1);
  for (const std::string& item : Items(text)) AList.push_back(item);
}

// An option's event ID expression: anything but the documented grammar is a wrong command
// line, refused before anything is read.
CLI::Validator EventIds() {
  return CLI::Validator([](std::string& AText) { return EventIdExpressionError(AText); }, "IDS");
}

double TimeOption(const char* AOption, const std::string& AText) {
  double days = 0;
  if (!ParseDateTimeText(AText, days))
    throw std::invalid_argument(std::string(AOption) + " " + AText +
                                ": expected a date and time such as 2024-03-01, \"2024-03-01 14:05\" or "
                                "2024-03-01T14:05:09");
  return days;
}

// "2d", "12h", "1d6h" or a bare number of days.
void ParsePeriod(const char* AOption, const std::string& AText, int32_t& ADays, int32_t& AHours) {
  int days = 0, hours = 0;
  const std::string text = Lower(AText);
  size_t pos = 0;
  bool ok = !text.empty();
  while (ok && pos < text.size()) {
    size_t end = pos;
    while (end < text.size() && std::isdigit(static_cast<unsigned char>(text[end]))) ++end;
    if (end == pos || end - pos > 6) {
      ok = false;
      break;
    }
    const int value = std::stoi(text.substr(pos, end - pos));
    const char unit = end < text.size() ? text[end] : 'd';
    if (unit == 'd') days += value;
    else if (unit == 'h') hours += value;
    else ok = false;
    pos = end + 1;
  }
  if (!ok) throw std::invalid_argument(std::string(AOption) + " " + AText + ": expected days and hours such as 2d, 12h or 1d6h");
  ADays = days;
  AHours = hours;
}

} // namespace

bool TFilterOptions::Any() const {
  return !Types.empty() || !Sources.empty() || !Users.empty() || !Computers.empty() || !Ids.empty() ||
         !Descr.empty() || !Regex.empty() || !From.empty() || !To.empty() || !Last.empty() || !FilterFile.empty() ||
         !MinDetectionLevel.empty();
}

void AddFilterOptions(CLI::App& ACommand, TFilterOptions& AOptions) {
  const char* group = "Filter";
  ACommand.add_option("--type", AOptions.Types,
                      "Only these types: verbose, information, warning, error, critical, audit-success,\n"
                      "audit-failure (comma-separated)")
      ->group(group);
  ACommand.add_option("--source", AOptions.Sources, "Only these sources (comma-separated; a leading ! leaves them out)")
      ->group(group);
  ACommand.add_option("--user", AOptions.Users, "Only these users (DOMAIN\\name; a leading ! leaves them out)")->group(group);
  ACommand.add_option("--computer", AOptions.Computers, "Only these computers (a leading ! leaves them out)")
      ->group(group);
  ACommand.add_option("--id", AOptions.Ids, "Event IDs, e.g. 4624,4625-4630!4627 (after ! the ones to leave out)")
      ->check(EventIds())
      ->group(group);
  ACommand.add_option("--descr", AOptions.Descr, "Only events whose description contains this text")->group(group);
  ACommand.add_option("--regex", AOptions.Regex, "Only events whose description matches this regular expression (PCRE2)")
      ->group(group);
  ACommand.add_flag("--case", AOptions.CaseSensitive, "Compare --descr and --regex with case")->group(group);
  ACommand.add_option("--from", AOptions.From, "Events at or after this time as shown (2024-03-01, \"2024-03-01 14:05\")")
      ->group(group);
  ACommand.add_option("--to", AOptions.To,
                      "Events at or before this time as shown (a day, minute or second: all of it)")
      ->group(group);
  ACommand.add_option("--last", AOptions.Last, "Only the last days and hours: 2d, 12h, 1d6h (a bare number is days)")
      ->group(group);
  ACommand.add_option("--filter", AOptions.FilterFile, "Load a filter file first (the options above add to it)")
      ->group(group);
  ACommand.add_option("--save-filter", AOptions.SaveFilter, "Save the filter built from these options to a file")
      ->group(group);
}

void AddDetectionLevelOption(CLI::App& ACommand, TFilterOptions& AOptions) {
  ACommand
      .add_option("--min-detection-level,--detection-level", AOptions.MinDetectionLevel,
                  "Only events with a Sigma detection of this level or above: informational, low, medium,\n"
                  "high, critical (kept in saved filters)")
      ->group("Filter");
}

TEventFilter BuildFilter(const TFilterOptions& AOptions) {
  TEventFilter filter;
  if (!AOptions.FilterFile.empty()) filter.LoadFromFile(AOptions.FilterFile);
  if (!AOptions.Types.empty()) {
    bool* const flags[] = {&filter.EVT_VERBOSE,  &filter.EVT_INFORMATION,   &filter.EVT_WARNING,      &filter.EVT_ERROR,
                           &filter.EVT_CRITICAL, &filter.EVT_AUDIT_SUCCESS, &filter.EVT_AUDIT_FAILURE};
    for (bool* flag : flags) *flag = false;
    for (const std::string& item : Items(AOptions.Types)) {
      const std::string name = Lower(item);
      if (name == "verbose") filter.EVT_VERBOSE = true;
      else if (name == "information" || name == "info") filter.EVT_INFORMATION = true;
      else if (name == "warning" || name == "warn") filter.EVT_WARNING = true;
      else if (name == "error") filter.EVT_ERROR = true;
      else if (name == "critical") filter.EVT_CRITICAL = true;
      else if (name == "audit-success" || name == "success") filter.EVT_AUDIT_SUCCESS = true;
      else if (name == "audit-failure" || name == "failure") filter.EVT_AUDIT_FAILURE = true;
      else
        throw std::invalid_argument("--type " + item +
                                    ": use verbose, information, warning, error, critical, audit-success or "
                                    "audit-failure");
    }
  }
  if (!AOptions.Sources.empty()) NameList(AOptions.Sources, filter.Sources, filter.SourcesExclude);
  if (!AOptions.Users.empty()) NameList(AOptions.Users, filter.Users, filter.UsersExclude);
  if (!AOptions.Computers.empty()) NameList(AOptions.Computers, filter.Computers, filter.ComputersExclude);
  if (!AOptions.Ids.empty()) filter.IDs = AOptions.Ids;
  if (!AOptions.Descr.empty() && !AOptions.Regex.empty())
    throw std::invalid_argument("--descr and --regex: give one of them");
  if (!AOptions.Descr.empty()) {
    filter.DescrText = AOptions.Descr;
    filter.DescrTextRegExp = false;
  }
  if (!AOptions.Regex.empty()) {
    filter.DescrText = AOptions.Regex;
    filter.DescrTextRegExp = true;
  }
  if (AOptions.CaseSensitive) filter.CaseSensitive = true;
  if (!AOptions.From.empty() || !AOptions.To.empty()) {
    filter.ByDate = filter.ByTime = true;
    filter.Separately = false;
    double earliest = 0, latest = 0;
    ParseDateTimeText("1601-01-01", earliest);
    ParseDateTimeText("9999-12-31 23:59:59", latest);
    filter.FromTime = AOptions.From.empty() ? earliest : TimeOption("--from", AOptions.From);
    // A bare date as the end means the whole of that day, a minute the whole minute.
    filter.ToTime =
        AOptions.To.empty() ? latest : LastSecondOf(AOptions.To, TimeOption("--to", AOptions.To));
  }
  if (!AOptions.Last.empty()) ParsePeriod("--last", AOptions.Last, filter.LastDays, filter.LastHours);
  if (!AOptions.MinDetectionLevel.empty() && !ParseDetectionLevel(AOptions.MinDetectionLevel, filter.MinDetectionLevel))
    throw std::invalid_argument("--min-detection-level " + AOptions.MinDetectionLevel +
                                ": not a level (informational, low, medium, high, critical)");
  if (!AOptions.SaveFilter.empty()) filter.SaveToFile(AOptions.SaveFilter);
  return filter;
}

void AddLoadOptions(CLI::App& ACommand, TLoadOptions& AOptions) {
  const char* group = "Loading filter (what is read into the store at all)";
  ACommand.add_option("--load-type", AOptions.Types, "Load only these types (names as for --type)")->group(group);
  ACommand.add_option("--load-id", AOptions.Ids, "Load only these event IDs, e.g. 4624,4625-4630!4627")
      ->check(EventIds())
      ->group(group);
  ACommand.add_option("--load-source", AOptions.Sources, "Load only these sources (a leading ! leaves them out)")
      ->group(group);
  ACommand.add_option("--load-user", AOptions.Users, "Load only these users (a leading ! leaves them out)")->group(group);
  ACommand.add_option("--load-computer", AOptions.Computers, "Load only these computers (a leading ! leaves them out)")
      ->group(group);
  ACommand.add_option("--load-descr", AOptions.Descr,
                      "Load only events whose description contains this text (a leading ! leaves them out)")
      ->group(group);
  ACommand.add_option("--load-newest", AOptions.Newest, "Load only the newest N events of each log")->group(group);
  ACommand.add_option("--load-last", AOptions.Last, "Load only the events of the last days and hours (2d, 12h, 1d6h)")
      ->group(group);
}

TLogLoadingFilter BuildLoadingFilter(const TLoadOptions& AOptions) {
  TLogLoadingFilter filter;
  if (!AOptions.Types.empty()) {
    TFilterOptions typeOptions;
    typeOptions.Types = AOptions.Types;
    const TEventFilter types = BuildFilter(typeOptions);
    int32_t mask = 0;
    const std::pair<bool, TEventType> bits[] = {
        {types.EVT_VERBOSE, EVT_VERBOSE},   {types.EVT_INFORMATION, EVT_INFORMATION},
        {types.EVT_WARNING, EVT_WARNING},   {types.EVT_ERROR, EVT_ERROR},
        {types.EVT_CRITICAL, EVT_CRITICAL}, {types.EVT_AUDIT_SUCCESS, EVT_AUDIT_SUCCESS},
        {types.EVT_AUDIT_FAILURE, EVT_AUDIT_FAILURE}};
    for (const auto& [on, type] : bits)
      if (on) mask |= 1 << type;
    filter.LoadEventTypes = mask;
  }
  filter.LoadEventIDStr = AOptions.Ids;
  filter.LoadSource = AOptions.Sources;
  filter.LoadUser = AOptions.Users;
  filter.LoadComputer = AOptions.Computers;
  filter.LoadDescr = AOptions.Descr;
  if (!filter.LoadDescr.empty() && filter.LoadDescr[0] == '!') {
    filter.LoadDescr.erase(0, 1);
    filter.LoadDescrExcl = true;
  }
  if (AOptions.Newest > 0) {
    filter.LoadEvents = lemLastEvents;
    filter.NumEvents = AOptions.Newest;
  } else if (!AOptions.Last.empty()) {
    filter.LoadEvents = lemLastPeriod;
    ParsePeriod("--load-last", AOptions.Last, filter.LastDays, filter.LastHours);
  }
  filter.TranslateStrings();
  return filter;
}

double NowUtcDays() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return 25569.0 + std::chrono::duration<double>(now).count() / 86400.0;
}

} // namespace qvx::app
