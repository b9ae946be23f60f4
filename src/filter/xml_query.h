// XML queries of the modern event log interface: building them from the viewer's filter
// criteria and reading those criteria back out of a query someone else wrote.
//
// A query looks like this:
//   <QueryList>
//     <Query Id="0">
//       <Select Path="Security">*[System[(Level = 1 or Level = 2) and
//       band(Keywords,13510798882111488)]]</Select>
//     </Query>
//   </QueryList>
// A Select's Path is a log name or "file://" followed by the path of a log file; its text
// is an XPath filter over the System part of the event. Only the conditions the builder
// writes are understood when reading; anything else makes the reading inaccurate rather
// than failing it.
#pragma once

#include "filter/event_filter.h"

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

// The standard keywords that the filter offers; the rest of the 64 bits belong to providers.
enum TEventKeyword {
  kwdAuditFailure,
  kwdAuditSuccess,
  kwdCorrelationHint,
  kwdEventLogClassic,
  kwdResponseTime,
  kwdSqm,
  kwdWdiContext,
  kwdWdiDiagnostic
};
using TEventKeywordSet = std::set<TEventKeyword>;

// The bit of a keyword in the event's Keywords mask (Audit Failure: bit 52 = 4503599627370496).
uint64_t EventKeywordValue(TEventKeyword AKeyword);

enum TEventLevel { elCritical, elError, elWarning, elInformation, elVerbose };
using TEventLevelSet = std::set<TEventLevel>;

enum TQueryParseResult {
  qprParsed,     // every condition was understood
  qprFailed,     // not a query; ParseErrorMessage says why and the criteria are empty
  qprInaccurate, // a query, but some of it has no counterpart in the criteria
};

// An event ID expression: "4624,4625-4630!4627" includes 4624 and 4625 to 4630 and
// excludes 4627. The text before the first '!' lists inclusions, the text after it
// exclusions; items are separated by commas, trimmed, and empty items are skipped. An
// item with a hyphen is a range split at the hyphen (kept as written, so "5-3" stays
// 5 to 3); anything that is not a decimal number in 0..4294967295 reads as 0.
struct TEventIdItem {
  uint32_t First = 0;
  uint32_t Last = 0;
  bool IsRange = false;
  bool operator==(const TEventIdItem&) const = default;
};

struct TEventIdExpression {
  std::vector<TEventIdItem> Included;
  std::vector<TEventIdItem> Excluded;
  bool IsEmpty() const { return Included.empty() && Excluded.empty(); }
  bool operator==(const TEventIdExpression&) const = default;
};

TEventIdExpression ParseEventIdExpression(std::string_view AText);
// The inverse: inclusions comma-separated, then '!' and the exclusions if there are any.
std::string FormatEventIdExpression(const TEventIdExpression& AExpression);

// Writes a query from filter criteria. Fill the fields, then call BuildXML().
class TXMLQueryBuilder {
public:
  std::vector<std::string> EventLogFiles; // paths of saved log files, read as "file://" + path
  std::vector<std::string> LogNames;      // names of live logs ("Application", "Security"...)
  bool LevelVerbose = false;
  bool LevelInformation = false;
  bool LevelWarning = false;
  bool LevelError = false;
  bool LevelCritical = false;
  bool KeywordsAuditFailure = false;
  bool KeywordsAuditSuccess = false;
  bool KeywordsCorrelationHint2 = false;
  bool KeywordsEventLogClassic = false;
  bool KeywordsResponseTime = false;
  bool KeywordsSqm = false;
  bool KeywordsWdiContext = false;
  bool KeywordsWdiDiagnostic = false;
  int64_t LastMiliseconds = 0;          // 0 or less: no period
  std::string Events;                   // an event ID expression, see TEventIdExpression
  std::vector<std::string> Sources;     // providers to include
  std::vector<std::string> SourcesExcl; // providers to exclude

  // The query text, indented with two blanks and without an XML declaration. There is
  // one Query per log, numbered from 0: LogNames first, then EventLogFiles; every Select
  // carries the same filter. The filter is "*" when no condition is set, else
  // "*[System[" + conditions joined with " and " + "]]", the conditions in this order:
  // levels, included event IDs, excluded event IDs, included providers, excluded
  // providers, keywords, period. A condition that joins several tests with " or " at its
  // own level is put in parentheses ("(Level = 4 or Level = 0)"); one whose "or" already
  // sits inside brackets or parentheses is not. Levels are written Critical, Error,
  // Warning, Information, Verbose. Provider names are not checked: a name holding an
  // apostrophe yields a filter that the parser does not understand.
  std::string BuildXML() const;

  // Sets the levels, keywords, event IDs, providers and period of a view filter. Gives
  // what the query cannot say ("left out: ..."), one note each; the logs stay as they are.
  std::vector<std::string> AssignFilter(const TEventFilter& AFilter);
};

// Reads filter criteria out of a query. Parse() fills the public fields.
class TXMLQueryParser {
public:
  std::vector<std::string> EventLogs; // log names and log file paths, in document order, no duplicates
  std::vector<bool> EventLogIsFile;   // beside EventLogs: true for a path that came from "file://"
  TEventLevelSet EventLevels;
  TEventKeywordSet Keywords;
  std::vector<std::string> Providers;
  std::vector<std::string> ProvidersExcl;
  std::string EventIds; // an event ID expression, see TEventIdExpression
  // The builder writes no computer conditions, so these stay empty: a Computer test in a
  // filter is one of the conditions that make the reading inaccurate.
  std::vector<std::string> Computers;
  std::vector<std::string> ComputersExcl;
  int32_t LastMinutes = 0; // 0: no period
  // Why the reading failed, or for qprInaccurate what was not understood (the first thing).
  std::string ParseErrorMessage;

  // Clears the fields and reads AXMLQuery. Failures, with their exact messages:
  //   "Empty XML"; "Invalid XML: <pugixml's description> at offset <byte offset>";
  //   "Expected QueryList. Found <name>" for another root element;
  //   "Expected Query. Found <name>" for another element inside QueryList;
  //   "Node Query not found", "Node Select not found" when either is missing;
  //   "Invalid Path" for a Select whose Path (or the Path of its Query when the Select
  //   has none) is missing, blank, or "file://" with nothing after it;
  //   "Invalid XPath filter" for filter text that is neither "*" nor "*[System[...]]".
  // Every Select's Path is collected into EventLogs; the criteria come from the first
  // Select. The result is qprInaccurate, with the criteria filled from what was
  // understood, when: a filter holds a condition the builder does not write, or the
  // understood conditions are combined in a way the criteria cannot say (two level groups
  // joined with "and", levels joined with "or" to event IDs...); a level is not 0-5; the
  // keyword mask has bits outside the standard keywords or is 0; a number is out of range
  // (event IDs above 4294967295, a period that is not a positive whole number of minutes
  // up to 2147483647, which is rounded up and clamped); a later Select has other criteria
  // than the first; a Query holds Suppress or other elements besides Select.
  // Never throws on bad input.
  TQueryParseResult Parse(const std::string& AXMLQuery);

  // The builder input that writes the parsed criteria back as a query.
  TXMLQueryBuilder ToBuilder() const;

  // Checks an import: builds a query from the parsed criteria (ToBuilder().BuildXML()),
  // parses that query with a fresh parser and returns true when it reads back cleanly
  // (qprParsed) to exactly these logs and criteria. A false answer means the criteria
  // cannot be written as the builder writes them, so a filter saved from them would not
  // select what the imported query did. ARebuiltXML, when given, receives the rebuilt
  // query. Does not look at ParseErrorMessage or the result of the original Parse().
  bool VerifyImported(std::string* ARebuiltXML = nullptr) const;

  // True when both hold the same logs and criteria (ParseErrorMessage aside).
  bool SameCriteria(const TXMLQueryParser& AOther) const;
};

} // namespace qvx
