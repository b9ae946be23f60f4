// quorvex xpath: a filter as the XML query of Windows' event log interface, and a query
// read back into a filter.
#include "app/commands.h"

#include "filter/xml_query.h"

#include <cmath>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace qvx::app {

namespace {

std::string Join(const std::vector<std::string>& AItems) {
  std::string text;
  for (const std::string& item : AItems) {
    if (!text.empty()) text.append(", ");
    text.append(item);
  }
  return text;
}

// The query for a filter; what the query cannot say goes to AErr.
std::string BuildQuery(const TEventFilter& AFilter, const TXPathOptions& AOptions, std::FILE* AErr) {
  TXMLQueryBuilder builder;
  builder.LogNames = AOptions.Logs;
  builder.EventLogFiles = AOptions.Files;
  if (builder.LogNames.empty() && builder.EventLogFiles.empty()) builder.LogNames.push_back("Application");
  const int levels = AFilter.EVT_VERBOSE + AFilter.EVT_INFORMATION + AFilter.EVT_WARNING + AFilter.EVT_ERROR +
                     AFilter.EVT_CRITICAL;
  const int audits = AFilter.EVT_AUDIT_SUCCESS + AFilter.EVT_AUDIT_FAILURE;
  if (levels + audits != 7 && levels + audits != 0) {
    if (levels != 5) {
      builder.LevelVerbose = AFilter.EVT_VERBOSE;
      builder.LevelInformation = AFilter.EVT_INFORMATION;
      builder.LevelWarning = AFilter.EVT_WARNING;
      builder.LevelError = AFilter.EVT_ERROR;
      builder.LevelCritical = AFilter.EVT_CRITICAL;
    }
    if (audits != 2) {
      builder.KeywordsAuditSuccess = AFilter.EVT_AUDIT_SUCCESS;
      builder.KeywordsAuditFailure = AFilter.EVT_AUDIT_FAILURE;
    }
    if (levels > 0 && audits > 0 && (levels != 5 || audits != 2))
      std::fprintf(AErr, "xpath: the query requires both the levels and the audit keywords; the filter takes "
                         "either\n");
  }
  builder.Events = AFilter.IDsExcept ? "" : AFilter.IDs;
  if (AFilter.IDsExcept && !AFilter.IDs.empty())
    std::fprintf(AErr, "xpath: left out: the event IDs to leave out as a whole (%s)\n", AFilter.IDs.c_str());
  (AFilter.SourcesExclude ? builder.SourcesExcl : builder.Sources) = AFilter.Sources;
  const int64_t hours = static_cast<int64_t>(AFilter.LastDays) * 24 + AFilter.LastHours;
  if (hours > 0 && !AFilter.LastHoursExclude) builder.LastMiliseconds = hours * 3600 * 1000;
  std::vector<std::string> lost;
  if (!AFilter.Categories.empty()) lost.emplace_back("categories");
  if (!AFilter.Users.empty()) lost.emplace_back("users");
  if (!AFilter.Computers.empty()) lost.emplace_back("computers");
  if (!AFilter.DescrText.empty()) lost.emplace_back("description text");
  if (AFilter.ByDate || AFilter.ByTime) lost.emplace_back("date and time range");
  if (AFilter.LastHoursExclude && hours > 0) lost.emplace_back("period to leave out");
  if (!AFilter.DescrFilter.empty() || !AFilter.CustomColFilter.empty()) lost.emplace_back("conditions on columns");
  if (!lost.empty()) std::fprintf(AErr, "xpath: left out (a query cannot say them): %s\n", Join(lost).c_str());
  return builder.BuildXML();
}

TEventFilter FilterOf(const TXMLQueryParser& AParser) {
  TEventFilter filter;
  if (!AParser.EventLevels.empty() || !AParser.Keywords.empty()) {
    filter.EVT_VERBOSE = AParser.EventLevels.count(elVerbose) > 0;
    filter.EVT_INFORMATION = AParser.EventLevels.count(elInformation) > 0;
    filter.EVT_WARNING = AParser.EventLevels.count(elWarning) > 0;
    filter.EVT_ERROR = AParser.EventLevels.count(elError) > 0;
    filter.EVT_CRITICAL = AParser.EventLevels.count(elCritical) > 0;
    filter.EVT_AUDIT_SUCCESS = AParser.Keywords.count(kwdAuditSuccess) > 0;
    filter.EVT_AUDIT_FAILURE = AParser.Keywords.count(kwdAuditFailure) > 0;
  }
  filter.IDs = AParser.EventIds;
  if (!AParser.Providers.empty()) {
    filter.Sources = AParser.Providers;
  } else if (!AParser.ProvidersExcl.empty()) {
    filter.Sources = AParser.ProvidersExcl;
    filter.SourcesExclude = true;
  }
  if (AParser.LastMinutes > 0) {
    const int hours = (AParser.LastMinutes + 59) / 60;
    filter.LastDays = hours / 24;
    filter.LastHours = hours % 24;
  }
  return filter;
}

} // namespace

int RunXPath(const TXPathOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    if (AOptions.Parse.empty()) {
      TFilterOptions options = AOptions.Filter;
      const std::string save = options.SaveFilter;
      options.SaveFilter.clear();
      const TEventFilter filter = BuildFilter(options);
      if (!save.empty()) filter.SaveToFile(save);
      std::fprintf(AOut, "%s", BuildQuery(filter, AOptions, AErr).c_str());
      return 0;
    }
    std::string text;
    if (AOptions.Parse == "-") {
      text.assign(std::istreambuf_iterator<char>(std::cin), {});
    } else {
      std::ifstream in(AOptions.Parse, std::ios::binary);
      if (!in) throw std::runtime_error(AOptions.Parse + ": cannot be read");
      text.assign(std::istreambuf_iterator<char>(in), {});
    }
    TXMLQueryParser parser;
    const TQueryParseResult result = parser.Parse(text);
    if (result == qprFailed) {
      std::fprintf(AErr, "quorvex: %s: the query could not be read: %s\n", AOptions.Parse.c_str(),
                   parser.ParseErrorMessage.c_str());
      return 1;
    }
    if (result == qprInaccurate)
      std::fprintf(AErr, "xpath: read approximately: %s\n", parser.ParseErrorMessage.c_str());
    const TEventFilter filter = FilterOf(parser);
    std::fprintf(AOut, "result     %s\n", result == qprParsed ? "parsed" : "inaccurate");
    std::fprintf(AOut, "logs       %s\n", Join(parser.EventLogs).c_str());
    std::string types;
    const std::pair<bool, const char*> flags[] = {
        {filter.EVT_CRITICAL, "critical"}, {filter.EVT_ERROR, "error"},   {filter.EVT_WARNING, "warning"},
        {filter.EVT_INFORMATION, "information"}, {filter.EVT_VERBOSE, "verbose"},
        {filter.EVT_AUDIT_SUCCESS, "audit-success"}, {filter.EVT_AUDIT_FAILURE, "audit-failure"}};
    for (const auto& [on, name] : flags)
      if (on) types.append(types.empty() ? "" : ",").append(name);
    std::fprintf(AOut, "--type     %s\n", types.c_str());
    std::fprintf(AOut, "--id       %s\n", filter.IDs.c_str());
    std::fprintf(AOut, "--source   %s%s\n", filter.SourcesExclude ? "!" : "", Join(filter.Sources).c_str());
    std::fprintf(AOut, "--last     %dd%dh\n", filter.LastDays, filter.LastHours);
    if (!AOptions.Filter.SaveFilter.empty()) filter.SaveToFile(AOptions.Filter.SaveFilter);
    return result == qprParsed ? 0 : 3;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
