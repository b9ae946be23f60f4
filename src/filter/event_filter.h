// TEventFilter: the criteria a log view narrows its events with, turned into the text of
// an SQL WHERE expression over the event store's columns (SQLite or SQL Server), and
// saved to and loaded from filter files.
//
// The filter never tests events itself: the store evaluates the expression, calling the
// functions it registers (MyInStr, MySameStr, MyInList, MyCompareStr,
// CompareDescrWithCond, REGEXP). Clause texts are kept as the store expects them,
// including their deliberate quirks: list clauses on SQLite ignore case whatever
// CaseSensitive says, and selecting no event type restricts nothing.
//
// Every text a filter carries reaches the store as data, whatever it holds: list items,
// the description text or pattern, description parameter names and values and custom
// column values are string literals (SQLLiteral); the description text is searched with
// MyInStr on SQLite, so "%", "_" and "[" in it are plain characters, and on SQL Server
// its LIKE pattern brackets them. The only names written into the text are the store's
// fixed columns and "CustomField" with a condition's number, checked against the store.
//
// The detection level criterion selects events that have a Sigma detection (table
// QvxDetections of the store, linked to the events by _ID) of a level or above; the level
// is one of five fixed words kept as its number 0..4, the only thing of it that enters
// the text.
//
// Filter files (UTF-8 XML):
//   <QVEX_Filter version="1"><Filter> one element per criterion </Filter></QVEX_Filter>
// Booleans are 0 or 1, integers decimal. FromTime and ToTime are written as local-free
// ISO 8601 text with milliseconds, "2024-03-01T14:05:09.123" (the stored day count
// rounded to the millisecond); reading also accepts a decimal day count.
#pragma once

#include "filter/sql_text.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

// Operator codes of description-parameter and custom-column conditions.
enum TConditionOper : int32_t {
  coNone = 0,
  coEquals = 1,
  coNotEqual = 2,
  coContains = 3,
  coNotContains = 4,
  coMatches = 5,
  coNotMatches = 6,
  coInList = 7,
  coNotInList = 8,
  coGreater = 9,
  coLess = 10,
};

struct TCustomColFilterCond {
  int32_t Number = 0; // the custom column's number
  int32_t Oper = coNone;
  std::string Value;
  friend bool operator==(const TCustomColFilterCond&, const TCustomColFilterCond&) = default;
};
using TCustomColFilter = std::vector<TCustomColFilterCond>;

struct TDescrParamCond {
  std::string Name; // the description parameter's name
  int32_t Oper = coNone;
  std::string Value;
  friend bool operator==(const TDescrParamCond&, const TDescrParamCond&) = default;
};

// Levels of Sigma detections as the store keeps them (QvxDetections.Level).
enum TDetectionLevel : int32_t { dlNone = -1, dlInformational, dlLow, dlMedium, dlHigh, dlCritical };
// "informational", "low", "medium", "high", "critical"; "" for dlNone or another number.
const char* DetectionLevelName(int32_t ALevel);
// A level name (any case) or its number "0".."4"; false for anything else.
bool ParseDetectionLevel(std::string_view AText, int32_t& ALevel);
// The store's table of detections.
inline constexpr const char* kDetectionTable = "QvxDetections";

// The store's field type of a custom column, for the flavour of its conditions;
// fkMissing when the store has no column of that name.
enum class TFieldKind { fkText, fkNumeric, fkDateTime, fkMissing };
using TFieldKindOf = std::function<TFieldKind(const std::string& AFieldName)>;

class TEventFilter {
public:
  TEventFilter() { Clear(); }

  // Every type shown, nothing else restricted. SearchDir is left as it is.
  void Clear();
  // Copies every criterion; SearchDir is deliberately not copied.
  void AssignTo(TEventFilter& ADest) const;
  // True when every event passes (the exclude flags, DescrTextRegExp and CaseSensitive
  // do not count; all seven types on or all off both mean "any type").
  bool IsEmpty() const;
  // The WHERE expression (without "WHERE"); "" restricts nothing. ATimeShift is the
  // minute offset of the SQLite last-N clause; AFieldKind tells the flavour of custom
  // columns (text when not given). Bad criteria never fail, with two exceptions that
  // raise ESQLNameError naming the name: a custom column condition whose column the
  // store lacks (a number below 1, or fkMissing), and a description parameter name
  // holding a line break or a NUL (no description line can carry it).
  std::string CreateSQLWhere(TFilterWhereKind AKind, int32_t ATimeShift, const TFieldKindOf& AFieldKind = {}) const;

  // Filter files. Loading checks everything before it changes the filter: on any
  // error (file unreadable, not XML, wrong root, text where a number belongs) it raises
  // std::runtime_error naming the file and element, and the filter stays as it was.
  void SaveToFile(const std::string& AFileName) const;
  void LoadFromFile(const std::string& AFileName);
  std::string SaveToString() const;
  void LoadFromString(const std::string& AXml, const std::string& AWhere = "filter");

  bool EVT_VERBOSE = true;
  bool EVT_INFORMATION = true;
  bool EVT_WARNING = true;
  bool EVT_ERROR = true;
  bool EVT_AUDIT_SUCCESS = true;
  bool EVT_AUDIT_FAILURE = true;
  bool EVT_CRITICAL = true;
  std::vector<std::string> Sources;
  bool SourcesExclude = false;
  std::vector<std::string> Categories;
  bool CategoriesExclude = false;
  std::vector<std::string> Users;
  bool UsersExclude = false;
  std::vector<std::string> Computers;
  bool ComputersExclude = false;
  std::string IDs;
  bool IDsExcept = false;
  std::string DescrText;
  bool DescrTextRegExp = false;
  bool DescrTextExclude = false;
  bool ByDate = false;
  bool ByTime = false;
  bool Separately = false;
  double FromTime = 0; // day counts
  double ToTime = 0;
  bool DateTimeExclude = false;
  int32_t LastDays = 0;
  int32_t LastHours = 0;
  bool LastHoursExclude = false;
  std::vector<TDescrParamCond> DescrFilter;
  TCustomColFilter CustomColFilter;
  bool CaseSensitive = false;
  // Only events with a detection of this level or above (TDetectionLevel); dlNone: any.
  int32_t MinDetectionLevel = dlNone;
  uint8_t SearchDir = 0;
};

// One item of an event ID expression ("4624", "4625-4630").
struct TEventIdSpan {
  uint32_t Low = 0, High = 0;
  bool Range = false;
};
// An event ID expression split at its first "!" into included and excluded items;
// items trimmed, empty ones skipped, text that is not a number read as 0.
void SplitEventIdExpression(const std::string& AText, std::vector<TEventIdSpan>& AInclude,
                            std::vector<TEventIdSpan>& AExclude);
// Why AText is not an event ID expression (IDs and ranges separated by commas, and after
// one "!" those to leave out: "4624,4625-4630!4627"); "" when it is one.
std::string EventIdExpressionError(const std::string& AText);
// The SQL text of an event ID expression ("" for none).
std::string EventIdsToSQL(const std::string& AText);

// Date texts of the filter.
std::string DateTimeText(double ADays);          // 2024-03-01 14:05:09
std::string DateText(double ADays);              // 2024-03-01
std::string TimeText(double ADays);              // 14:05:09
// "YYYY-MM-DD", "YYYY-MM-DD HH:MM[:SS[.mmm]]" or with "T"; false when the text is none of them.
bool ParseDateTimeText(const std::string& AText, double& ADays);
// The end of a range typed as AText (parsed into ADays): the last second of a bare date's
// day or of a minute, else the second given. A filter's ToTime takes in all of its second.
double LastSecondOf(const std::string& AText, double ADays);

} // namespace qvx
