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
  for (const std::string& note : builder.AssignFilter(AFilter)) std::fprintf(AErr, "xpath: %s\n", note.c_str());
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
