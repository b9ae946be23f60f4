#include "filter/event_filter.h"

#include "descriptions/time_zones.h"

#include <pugixml.hpp>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace qvx {

namespace {

constexpr const char* kFileRoot = "QVEX_Filter";
constexpr const char* kFileVersion = "1";

bool IsBlank(char c) { return static_cast<unsigned char>(c) <= ' '; }

std::string Trim(const std::string& AText) {
  size_t begin = 0, end = AText.size();
  while (begin < end && IsBlank(AText[begin])) ++begin;
  while (end > begin && IsBlank(AText[end - 1])) --end;
  return AText.substr(begin, end - begin);
}

// A whole number in 32 bits, or ADefault.
int32_t ToInt32(const std::string& AText, int32_t ADefault) {
  int32_t value = 0;
  const char* begin = AText.data();
  const char* end = begin + AText.size();
  if (begin != end && *begin == '+') ++begin;
  const auto [ptr, ec] = std::from_chars(begin, end, value);
  return ec == std::errc() && ptr == end && begin != end ? value : ADefault;
}

std::string Int(int64_t AValue) { return std::to_string(AValue); }

std::string ListClause(const char* AColumn, const std::vector<std::string>& AItems, bool AExclude,
                       TFilterWhereKind AKind) {
  if (AItems.empty()) return {};
  std::string clause = AColumn;
  clause.append(AExclude ? " NOT IN (" : " IN (");
  for (size_t i = 0; i < AItems.size(); ++i) {
    if (i) clause.push_back(',');
    clause.append(SQLLiteral(AItems[i], AKind));
  }
  clause.push_back(')');
  if (AKind == tfwSQLite) clause.append(" COLLATE NOCASE");
  return clause;
}

std::string Digits(int AValue, int AWidth) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*d", AWidth, AValue);
  return text;
}

std::string NumberLiteral(const std::string& AText) {
  double value = 0;
  const std::string text = Trim(AText);
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr != text.data() + text.size() || !std::isfinite(value)) value = 0;
  char out[32];
  const auto result = std::to_chars(out, out + sizeof out, value);
  return std::string(out, result.ptr);
}

std::string DateLiteral(const std::string& AText, TFilterWhereKind AKind) {
  double days = 0;
  return SQLLiteral(ParseDateTimeText(Trim(AText), days) ? DateTimeText(days) : AText, AKind);
}

std::string CustomColumnClause(const TCustomColFilterCond& ACondition, bool ACaseSensitive,
                               const TFieldKindOf& AFieldKind, TFilterWhereKind AKind) {
  if (ACondition.Oper <= coNone || ACondition.Oper > coLess) return {};
  std::string field = "CustomField";
  field.append(Int(ACondition.Number));
  const TFieldKind kind = AFieldKind ? AFieldKind(field) : TFieldKind::fkText;
  if (ACondition.Number < 1 || kind == TFieldKind::fkMissing)
    throw ESQLNameError("custom column " + SQLNameForMessage(field) + " is not a column of the event store");
  std::string column = "[";
  column.append(CheckSQLName(field, "custom column"));
  column.push_back(']');
  const std::string text = SQLLiteral(ACondition.Value, AKind);
  const std::string cs = ACaseSensitive ? "1" : "0";
  auto call = [&](const char* AFunction, const std::string& AValue) {
    std::string out = AFunction;
    out.push_back('(');
    out.append(column);
    out.append(", ");
    out.append(AValue);
    out.append(", ");
    out.append(cs);
    out.push_back(')');
    return out;
  };
  auto binary = [&](const std::string& ALeft, const char* AOperator, const std::string& ARight) {
    std::string out = ALeft;
    out.append(AOperator);
    out.append(ARight);
    return out;
  };
  std::string dateColumn = "DateTime(";
  dateColumn.append(column);
  dateColumn.push_back(')');
  switch (ACondition.Oper) {
  case coContains: return call("MyInStr", text);
  case coNotContains: return "NOT " + call("MyInStr", text);
  case coMatches: return binary(column, " REGEXP ", text);
  case coNotMatches: return "NOT " + binary(column, " REGEXP ", text);
  default: break;
  }
  if (kind == TFieldKind::fkNumeric && ACondition.Oper != coInList && ACondition.Oper != coNotInList) {
    const std::string number = NumberLiteral(ACondition.Value);
    switch (ACondition.Oper) {
    case coEquals: return binary(column, " = ", number);
    case coNotEqual: return binary(column, " <> ", number);
    case coGreater: return binary(column, " > ", number);
    default: return binary(column, " < ", number);
    }
  }
  if (kind == TFieldKind::fkDateTime) {
    if (ACondition.Oper == coInList || ACondition.Oper == coNotInList) {
      std::string list;
      std::stringstream items(ACondition.Value);
      for (std::string item; std::getline(items, item, ',');) {
        if (!list.empty()) list.append(", ");
        list.append(DateLiteral(item, AKind));
      }
      std::string out = dateColumn;
      out.append(ACondition.Oper == coInList ? " in (" : " not in (");
      out.append(list);
      out.push_back(')');
      return out;
    }
    const std::string date = DateLiteral(ACondition.Value, AKind);
    switch (ACondition.Oper) {
    case coEquals: return binary(dateColumn, " = ", date);
    case coNotEqual: return binary(dateColumn, " <> ", date);
    case coGreater: return binary(dateColumn, " > ", date);
    default: return binary(dateColumn, " < ", date);
    }
  }
  switch (ACondition.Oper) {
  case coEquals: return call("MySameStr", text);
  case coNotEqual: return "NOT " + call("MySameStr", text);
  case coInList: return call("MyInList", text);
  case coNotInList: return "NOT " + call("MyInList", text);
  case coGreater: return call("MyCompareStr ", text) + " > 0";
  default: return call("MyCompareStr ", text) + " < 0";
  }
}

} // namespace

std::string DateText(double ADays) {
  const TSystemTime t = DaysToSystemTime(ADays);
  std::string out = Digits(t.wYear, 4);
  out.push_back('-');
  out.append(Digits(t.wMonth, 2));
  out.push_back('-');
  out.append(Digits(t.wDay, 2));
  return out;
}

std::string TimeText(double ADays) {
  const TSystemTime t = DaysToSystemTime(ADays);
  std::string out = Digits(t.wHour, 2);
  out.push_back(':');
  out.append(Digits(t.wMinute, 2));
  out.push_back(':');
  out.append(Digits(t.wSecond, 2));
  return out;
}

std::string DateTimeText(double ADays) {
  std::string out = DateText(ADays);
  out.push_back(' ');
  out.append(TimeText(ADays));
  return out;
}

double LastSecondOf(const std::string& AText, double ADays) {
  if (AText.size() <= 10) return ADays + 86399.0 / 86400.0;
  if (std::count(AText.begin(), AText.end(), ':') == 1) return ADays + 59.0 / 86400.0;
  return ADays;
}

bool ParseDateTimeText(const std::string& AText, double& ADays) {
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, milli = 0;
  char separator = 0;
  int used = 0;
  const char* text = AText.c_str();
  if (std::sscanf(text, "%4d-%2d-%2d%n", &year, &month, &day, &used) != 3) return false;
  text += used;
  if (*text) {
    if (std::sscanf(text, "%c%2d:%2d%n", &separator, &hour, &minute, &used) != 3 || (separator != ' ' && separator != 'T'))
      return false;
    text += used;
    if (*text == ':') {
      if (std::sscanf(text, ":%2d%n", &second, &used) != 1) return false;
      text += used;
      if (*text == '.') {
        char digits[4] = {'0', '0', '0', 0};
        int n = 0;
        ++text;
        while (*text >= '0' && *text <= '9') {
          if (n < 3) digits[n++] = *text;
          ++text;
        }
        if (n == 0) return false;
        milli = std::atoi(digits);
      }
    }
    if (*text) return false;
  }
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 59) return false;
  TSystemTime t;
  t.wYear = static_cast<uint16_t>(year);
  t.wMonth = static_cast<uint16_t>(month);
  t.wDay = static_cast<uint16_t>(day);
  t.wHour = static_cast<uint16_t>(hour);
  t.wMinute = static_cast<uint16_t>(minute);
  t.wSecond = static_cast<uint16_t>(second);
  t.wMilliseconds = static_cast<uint16_t>(milli);
  ADays = SystemTimeToDays(t);
  return true;
}

void SplitEventIdExpression(const std::string& AText, std::vector<TEventIdSpan>& AInclude,
                            std::vector<TEventIdSpan>& AExclude) {
  AInclude.clear();
  AExclude.clear();
  const size_t bang = AText.find('!');
  auto part = [](const std::string& APart, std::vector<TEventIdSpan>& AItems) {
    std::stringstream items(APart);
    for (std::string item; std::getline(items, item, ',');) {
      item = Trim(item);
      if (item.empty()) continue;
      TEventIdSpan id;
      const size_t hyphen = item.find('-');
      if (hyphen != std::string::npos) {
        id.Range = true;
        id.Low = static_cast<uint32_t>(ToInt32(Trim(item.substr(0, hyphen)), 0));
        id.High = static_cast<uint32_t>(ToInt32(Trim(item.substr(hyphen + 1)), 0));
      } else {
        id.Low = id.High = static_cast<uint32_t>(ToInt32(item, 0));
      }
      AItems.push_back(id);
    }
  };
  part(AText.substr(0, bang), AInclude);
  if (bang != std::string::npos) part(AText.substr(bang + 1), AExclude);
}

std::string EventIdExpressionError(const std::string& AText) {
  static const std::string kGrammar =
      "must be event IDs and ranges separated by commas, with '!' before the ones to leave out "
      "(4624,4625-4630!4627)";
  const size_t bang = AText.find('!');
  if (bang != std::string::npos && AText.find('!', bang + 1) != std::string::npos) return kGrammar;
  // One ID: up to ten digits, at most 4294967295 (qualifiers and all).
  auto number = [](const std::string& AItem, uint64_t& AValue) {
    const std::string digits = Trim(AItem);
    if (digits.empty() || digits.size() > 10 ||
        !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; }))
      return false;
    AValue = std::stoull(digits);
    return AValue <= 0xFFFFFFFFull;
  };
  bool bad = false;
  auto part = [&](const std::string& APart) {
    if (Trim(APart).empty()) return;
    std::stringstream items(APart + ",");
    for (std::string item; std::getline(items, item, ',');) {
      uint64_t low = 0, high = 0;
      const size_t hyphen = item.find('-');
      const bool good = hyphen == std::string::npos
                            ? number(item, low)
                            : number(item.substr(0, hyphen), low) && number(item.substr(hyphen + 1), high) && low <= high;
      bad = bad || !good;
    }
  };
  part(AText.substr(0, bang));
  if (bang != std::string::npos) part(AText.substr(bang + 1));
  return bad ? kGrammar : "";
}

std::string EventIdsToSQL(const std::string& AText) {
  std::vector<TEventIdSpan> include, exclude;
  SplitEventIdExpression(AText, include, exclude);
  auto number = [](uint32_t AValue) { return Int(static_cast<int32_t>(AValue)); };
  std::string in, out;
  for (const TEventIdSpan& item : include) {
    if (!in.empty()) in.append(" or ");
    if (item.Range)
      in.append("(EventID >= " + number(item.Low) + " and EventID <= " + number(item.High) + ")");
    else
      in.append("EventID = " + number(item.Low));
  }
  for (const TEventIdSpan& item : exclude) {
    if (!out.empty()) out.append(" and ");
    if (item.Range)
      out.append("(EventID < " + number(item.Low) + " or EventID > " + number(item.High) + ")");
    else
      out.append("(EventID <> " + number(item.Low) + ")");
  }
  if (exclude.empty()) return in;
  std::string result;
  if (in.find(" or ") != std::string::npos) {
    result = "(" + in + ")";
  } else {
    result = in;
  }
  if (!in.empty()) result.append(" and ");
  if (exclude.size() > 1)
    result.append("(" + out + ")");
  else
    result.append(out);
  return result;
}

// --- detection levels ---------------------------------------------------------------

namespace {
constexpr const char* kDetectionLevelNames[] = {"informational", "low", "medium", "high", "critical"};
}

const char* DetectionLevelName(int32_t ALevel) {
  return ALevel >= dlInformational && ALevel <= dlCritical ? kDetectionLevelNames[ALevel] : "";
}

bool ParseDetectionLevel(std::string_view AText, int32_t& ALevel) {
  if (AText.size() == 1 && AText[0] >= '0' && AText[0] <= '4') {
    ALevel = AText[0] - '0';
    return true;
  }
  for (int32_t level = dlInformational; level <= dlCritical; ++level) {
    const std::string_view name = kDetectionLevelNames[level];
    if (name.size() == AText.size() &&
        std::equal(name.begin(), name.end(), AText.begin(), [](char A, char B) {
          return A == ((B >= 'A' && B <= 'Z') ? static_cast<char>(B - 'A' + 'a') : B);
        })) {
      ALevel = level;
      return true;
    }
  }
  return false;
}

// --- TEventFilter -------------------------------------------------------------------

void TEventFilter::Clear() {
  EVT_VERBOSE = EVT_INFORMATION = EVT_WARNING = EVT_ERROR = EVT_AUDIT_SUCCESS = EVT_AUDIT_FAILURE = EVT_CRITICAL = true;
  Sources.clear();
  Categories.clear();
  Users.clear();
  Computers.clear();
  SourcesExclude = CategoriesExclude = UsersExclude = ComputersExclude = false;
  IDs.clear();
  DescrText.clear();
  IDsExcept = DescrTextRegExp = DescrTextExclude = false;
  ByDate = ByTime = Separately = false;
  FromTime = ToTime = 0;
  DateTimeExclude = false;
  LastDays = LastHours = 0;
  LastHoursExclude = false;
  CaseSensitive = false;
  MinDetectionLevel = dlNone;
  DescrFilter.clear();
  CustomColFilter.clear();
}

void TEventFilter::AssignTo(TEventFilter& ADest) const {
  if (&ADest == this) return;
  const uint8_t searchDir = ADest.SearchDir;
  ADest = *this;
  ADest.SearchDir = searchDir;
}

bool TEventFilter::IsEmpty() const {
  const int types = EVT_VERBOSE + EVT_INFORMATION + EVT_WARNING + EVT_ERROR + EVT_AUDIT_SUCCESS + EVT_AUDIT_FAILURE +
                    EVT_CRITICAL;
  return (types == 0 || types == 7) && Sources.empty() && Categories.empty() && Users.empty() && Computers.empty() &&
         IDs.empty() && DescrText.empty() && !ByDate && !ByTime && LastDays == 0 && LastHours == 0 &&
         CustomColFilter.empty() && DescrFilter.empty() && MinDetectionLevel == dlNone;
}

std::string TEventFilter::CreateSQLWhere(TFilterWhereKind AKind, int32_t ATimeShift,
                                         const TFieldKindOf& AFieldKind) const {
  std::vector<std::string> clauses;

  // 1. Types, in the store's codes.
  if (!(EVT_VERBOSE && EVT_INFORMATION && EVT_WARNING && EVT_ERROR && EVT_CRITICAL && EVT_AUDIT_SUCCESS &&
        EVT_AUDIT_FAILURE)) {
    std::string list;
    const std::pair<bool, const char*> types[] = {{EVT_VERBOSE, "1"},        {EVT_INFORMATION, "2"},
                                                  {EVT_WARNING, "3"},        {EVT_ERROR, "4"},
                                                  {EVT_CRITICAL, "5"},       {EVT_AUDIT_SUCCESS, "12"},
                                                  {EVT_AUDIT_FAILURE, "13"}};
    for (const auto& [on, code] : types)
      if (on) {
        list.append(code);
        list.push_back(',');
      }
    if (!list.empty()) {
      list.pop_back();
      clauses.push_back("[Type] IN (" + list + ")");
    }
  }

  // 2-5. Lists.
  clauses.push_back(ListClause("[Source]", Sources, SourcesExclude, AKind));
  clauses.push_back(ListClause("[CategoryName]", Categories, CategoriesExclude, AKind));
  clauses.push_back(ListClause("[UserName]", Users, UsersExclude, AKind));
  clauses.push_back(ListClause("[Computer]", Computers, ComputersExclude, AKind));

  // 6. Event IDs.
  std::string ids = EventIdsToSQL(IDs);
  if (!ids.empty() && IDsExcept) ids = "NOT (" + ids + ")";
  clauses.push_back(ids);

  // 7. Description text.
  const std::string text = Trim(DescrText);
  if (!text.empty()) {
    if (AKind == tfwSQLite && DescrTextRegExp) {
      clauses.push_back(std::string("[Descr]") + (DescrTextExclude ? " NOT REGEXP " : " REGEXP ") +
                        SQLLiteral(text, AKind));
    } else if (AKind == tfwSQLite) {
      // A substring search, not LIKE: "%", "_" and "[" in the text are plain characters.
      clauses.push_back("MyInStr([Descr], " + SQLLiteral(text, AKind) + ", " + (CaseSensitive ? "1" : "0") +
                        ")" + (DescrTextExclude ? "=0" : "<> 0"));
    } else {
      std::string pattern;
      if (DescrTextRegExp) {
        pattern = text; // the server has no regular expressions: the text is the LIKE pattern
      } else {
        // SQL Server's LIKE reads "[x]" as the plain character x: the text's own "%", "_"
        // and "[" are bracketed so that only the two added "%" are wildcards.
        pattern = "%";
        for (char c : text) {
          if (c == '%' || c == '[' || c == '_') {
            pattern.push_back('[');
            pattern.push_back(c);
            pattern.push_back(']');
          } else {
            pattern.push_back(c);
          }
        }
        pattern.push_back('%');
      }
      clauses.push_back(std::string("[Descr]") + (DescrTextExclude ? " NOT LIKE " : " LIKE ") +
                        SQLLiteral(pattern, AKind));
    }
  }

  // 8. Date and time.
  std::string when;
  if (ByDate && ByTime && Separately)
    when = "[Date] >= '" + DateText(FromTime) + "' AND [Date] <= '" + DateText(ToTime) + "' AND [Time] >= '" +
           TimeText(FromTime) + "' AND [Time] <= '" + TimeText(ToTime) + "' ";
  else if (ByDate && ByTime)
    // Stored times carry fractions of a second ("23:59:59.844"): the end takes in every
    // fraction of its second, as far as the store's text or SQL Server's DATETIME holds.
    when = "[TimeStamp] >= '" + DateTimeText(FromTime) + "' AND [TimeStamp] <= '" + DateTimeText(ToTime) +
           (AKind == tfwSQLite ? ".9999999' " : ".997' ");
  else if (ByDate)
    when = "[Date] >= '" + DateText(FromTime) + "' AND [Date] <= '" + DateText(ToTime) + "' ";
  else if (ByTime)
    when = "[Time] >= '" + TimeText(FromTime) + "' AND [Time] <= '" + TimeText(ToTime) + "' ";
  if (!when.empty() && DateTimeExclude) when = "NOT (" + when + ")";
  clauses.push_back(when);

  // 9. The last N days and hours.
  if (LastDays != 0 || LastHours != 0) {
    const int64_t hours = static_cast<int64_t>(LastDays) * 24 + LastHours;
    std::string last;
    if (AKind == tfwSQLite)
      last = "(JulianDay(DateTime('now', '" + Int(ATimeShift) + " minutes')) - JulianDay(TimeStamp))*24 <= " +
             Int(hours);
    else
      last = "DateDiff(mi, [TimeStampUTC], SYSUTCDATETIME()) <= " + Int(hours * 60);
    if (LastHoursExclude) last = "NOT " + last;
    clauses.push_back(last);
  }

  // 10. Description parameters, one clause.
  std::string params;
  for (const TDescrParamCond& condition : DescrFilter) {
    if (condition.Name.empty() || condition.Oper == coNone) continue;
    if (condition.Name.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos)
      throw ESQLNameError("description parameter " + SQLNameForMessage(condition.Name) +
                          " cannot be a name: it holds a line break or a NUL");
    if (!params.empty()) params.append(" AND ");
    // A name is an event data name (TargetUserName) or a description label (Account Name,
    // Subject\Account Name). Data names hold no blanks or separators: only for such a name
    // is the event's XML read at all, which costs reading every row's XML.
    const bool dataName = condition.Name.find_first_of(" \t\\/:") == std::string::npos;
    params.append(std::string("CompareDescrWithCond(") + (dataName ? "[EvtXML], " : "") + "[Descr], " +
                  SQLLiteral(condition.Name, AKind) + ", " + Int(condition.Oper) + ", " +
                  SQLLiteral(condition.Value, AKind) + ", " + (CaseSensitive ? "1" : "0") + ")");
  }
  clauses.push_back(params);

  // 11. Custom columns, one clause each.
  for (const TCustomColFilterCond& condition : CustomColFilter)
    clauses.push_back(CustomColumnClause(condition, CaseSensitive, AFieldKind, AKind));

  // 12. A detection of a level or above: the level is a number 0..4, nothing else of
  // the filter enters the text.
  if (MinDetectionLevel != dlNone)
    clauses.push_back(std::string("[_ID] IN (SELECT [_ID] FROM ") + kDetectionTable + " WHERE [Level] >= " +
                      Int(std::clamp<int32_t>(MinDetectionLevel, dlInformational, dlCritical)) + ")");

  std::string where;
  for (const std::string& clause : clauses) {
    if (clause.empty()) continue;
    if (!where.empty()) where.append(" AND ");
    where.push_back('(');
    where.append(clause);
    where.push_back(')');
  }
  return where;
}

// --- filter files -------------------------------------------------------------------

namespace {

std::string TimeForFile(double ADays) {
  const TSystemTime t = DaysToSystemTime(ADays);
  char text[64];
  std::snprintf(text, sizeof text, "%04u-%02u-%02uT%02u:%02u:%02u.%03u", t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute,
                t.wSecond, t.wMilliseconds);
  return text;
}

class TFilterReader {
public:
  TFilterReader(pugi::xml_node AFilter, std::string AWhere) : FFilter(AFilter), FWhere(std::move(AWhere)) {}

  [[noreturn]] void Fail(const std::string& APath, const std::string& AText, const char* AWhat) const {
    throw std::runtime_error(FWhere + ": element " + APath + ": \"" + AText + "\" is not " + AWhat);
  }
  std::string Path(const char* AName) const { return std::string(kFileRoot) + "/Filter/" + AName; }

  void Bool(const char* AName, bool& AValue) const {
    const pugi::xml_node node = FFilter.child(AName);
    if (!node) return;
    const std::string text = Trim(node.text().as_string());
    if (text == "0" || text == "false") AValue = false;
    else if (text == "1" || text == "true") AValue = true;
    else Fail(Path(AName), text, "0 or 1");
  }
  void Int(const char* AName, int32_t& AValue) const {
    const pugi::xml_node node = FFilter.child(AName);
    if (!node) return;
    const std::string text = Trim(node.text().as_string());
    int32_t value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || text.empty()) Fail(Path(AName), text, "an integer");
    AValue = value;
  }
  void DetectionLevel(const char* AName, int32_t& AValue) const {
    const pugi::xml_node node = FFilter.child(AName);
    if (!node) return;
    const std::string text = Trim(node.text().as_string());
    if (text.empty() || text == "none") AValue = dlNone;
    else if (!ParseDetectionLevel(text, AValue)) Fail(Path(AName), text, "a detection level (informational, low, medium, high, critical)");
  }
  void Text(const char* AName, std::string& AValue) const {
    if (const pugi::xml_node node = FFilter.child(AName)) AValue = node.text().as_string();
  }
  void Time(const char* AName, double& AValue) const {
    const pugi::xml_node node = FFilter.child(AName);
    if (!node) return;
    const std::string text = Trim(node.text().as_string());
    if (ParseDateTimeText(text, AValue)) return;
    double days = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), days);
    if (ec != std::errc() || ptr != text.data() + text.size() || text.empty() || !std::isfinite(days))
      Fail(Path(AName), text, "a date and time (YYYY-MM-DDTHH:MM:SS.mmm)");
    AValue = days;
  }
  void List(const char* AName, const char* AItem, std::vector<std::string>& AValue) const {
    const pugi::xml_node node = FFilter.child(AName);
    if (!node) return;
    AValue.clear();
    for (const pugi::xml_node item : node.children(AItem)) AValue.emplace_back(item.text().as_string());
  }
  int32_t ConditionInt(pugi::xml_node ACondition, const char* AList, const char* AName) const {
    const std::string text = Trim(ACondition.child(AName).text().as_string());
    int32_t value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || ptr != text.data() + text.size() || text.empty())
      Fail(Path(AList) + "/Condition/" + AName, text, "an integer");
    return value;
  }
  pugi::xml_node Node() const { return FFilter; }

private:
  pugi::xml_node FFilter;
  std::string FWhere;
};

} // namespace

std::string TEventFilter::SaveToString() const {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version") = "1.0";
  declaration.append_attribute("encoding") = "UTF-8";
  pugi::xml_node root = document.append_child(kFileRoot);
  root.append_attribute("version") = kFileVersion;
  pugi::xml_node filter = root.append_child("Filter");
  auto put = [&](const char* AName, const std::string& AText) { filter.append_child(AName).text().set(AText.c_str()); };
  auto flag = [&](const char* AName, bool AValue) { put(AName, AValue ? "1" : "0"); };
  auto list = [&](const char* AName, const char* AItem, const std::vector<std::string>& AItems) {
    pugi::xml_node node = filter.append_child(AName);
    for (const std::string& item : AItems) node.append_child(AItem).text().set(item.c_str());
  };
  flag("EVT_VERBOSE", EVT_VERBOSE);
  flag("EVT_INFORMATION", EVT_INFORMATION);
  flag("EVT_WARNING", EVT_WARNING);
  flag("EVT_ERROR", EVT_ERROR);
  flag("EVT_CRITICAL", EVT_CRITICAL);
  flag("EVT_AUDIT_SUCCESS", EVT_AUDIT_SUCCESS);
  flag("EVT_AUDIT_FAILURE", EVT_AUDIT_FAILURE);
  list("Sources", "Source", Sources);
  flag("SourcesExclude", SourcesExclude);
  list("Categories", "Category", Categories);
  flag("CategoriesExclude", CategoriesExclude);
  list("Users", "User", Users);
  flag("UsersExclude", UsersExclude);
  list("Computers", "Computer", Computers);
  flag("ComputersExclude", ComputersExclude);
  put("IDs", IDs);
  flag("IDsExclude", IDsExcept);
  put("DescrText", DescrText);
  flag("DescrRegExp", DescrTextRegExp);
  flag("DescrTextExclude", DescrTextExclude);
  flag("ByDate", ByDate);
  flag("ByTime", ByTime);
  flag("Separately", Separately);
  put("FromTime", TimeForFile(FromTime));
  put("ToTime", TimeForFile(ToTime));
  flag("DateTimeExclude", DateTimeExclude);
  put("LastDays", Int(LastDays));
  put("LastHours", Int(LastHours));
  flag("LastHoursExclude", LastHoursExclude);
  pugi::xml_node custom = filter.append_child("CustomCol");
  for (const TCustomColFilterCond& condition : CustomColFilter) {
    pugi::xml_node node = custom.append_child("Condition");
    node.append_child("Number").text().set(Int(condition.Number).c_str());
    node.append_child("Oper").text().set(Int(condition.Oper).c_str());
    node.append_child("Value").text().set(condition.Value.c_str());
  }
  pugi::xml_node params = filter.append_child("DescrParams");
  for (const TDescrParamCond& condition : DescrFilter) {
    pugi::xml_node node = params.append_child("Condition");
    node.append_child("Name").text().set(condition.Name.c_str());
    node.append_child("Operator").text().set(Int(condition.Oper).c_str());
    node.append_child("Value").text().set(condition.Value.c_str());
  }
  flag("CaseSensitive", CaseSensitive);
  if (MinDetectionLevel != dlNone) put("MinDetectionLevel", DetectionLevelName(MinDetectionLevel));
  std::ostringstream out;
  document.save(out, "  ", pugi::format_default, pugi::encoding_utf8);
  return out.str();
}

void TEventFilter::SaveToFile(const std::string& AFileName) const {
  const std::string text = SaveToString();
  std::FILE* file = std::fopen(AFileName.c_str(), "wb");
  if (!file) throw std::runtime_error(AFileName + ": cannot be written: " + std::strerror(errno));
  const bool ok = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  if (std::fclose(file) != 0 || !ok) throw std::runtime_error(AFileName + ": writing failed: " + std::strerror(errno));
}

void TEventFilter::LoadFromString(const std::string& AXml, const std::string& AWhere) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_buffer(AXml.data(), AXml.size(), pugi::parse_default,
                                                             pugi::encoding_utf8);
  if (!parsed)
    throw std::runtime_error(AWhere + ": not a filter file: " + parsed.description() + " at offset " +
                             Int(parsed.offset));
  const pugi::xml_node root = document.document_element();
  if (std::strcmp(root.name(), kFileRoot) != 0)
    throw std::runtime_error(AWhere + ": not a filter file: the root element is <" + root.name() + ">, expected <" +
                             kFileRoot + ">");
  const pugi::xml_node node = root.child("Filter");
  if (!node) throw std::runtime_error(AWhere + ": element " + kFileRoot + "/Filter is missing");

  // Everything is read into a fresh filter first: an error leaves this one as it was.
  TEventFilter loaded;
  const TFilterReader read(node, AWhere);
  read.Bool("EVT_VERBOSE", loaded.EVT_VERBOSE);
  read.Bool("EVT_INFORMATION", loaded.EVT_INFORMATION);
  read.Bool("EVT_WARNING", loaded.EVT_WARNING);
  read.Bool("EVT_ERROR", loaded.EVT_ERROR);
  read.Bool("EVT_CRITICAL", loaded.EVT_CRITICAL);
  read.Bool("EVT_AUDIT_SUCCESS", loaded.EVT_AUDIT_SUCCESS);
  read.Bool("EVT_AUDIT_FAILURE", loaded.EVT_AUDIT_FAILURE);
  read.List("Sources", "Source", loaded.Sources);
  read.Bool("SourcesExclude", loaded.SourcesExclude);
  read.List("Categories", "Category", loaded.Categories);
  read.Bool("CategoriesExclude", loaded.CategoriesExclude);
  read.List("Users", "User", loaded.Users);
  read.Bool("UsersExclude", loaded.UsersExclude);
  read.List("Computers", "Computer", loaded.Computers);
  read.Bool("ComputersExclude", loaded.ComputersExclude);
  read.Text("IDs", loaded.IDs);
  read.Bool("IDsExclude", loaded.IDsExcept);
  read.Text("DescrText", loaded.DescrText);
  read.Bool("DescrRegExp", loaded.DescrTextRegExp);
  read.Bool("DescrTextExclude", loaded.DescrTextExclude);
  read.Bool("ByDate", loaded.ByDate);
  read.Bool("ByTime", loaded.ByTime);
  read.Bool("Separately", loaded.Separately);
  read.Time("FromTime", loaded.FromTime);
  read.Time("ToTime", loaded.ToTime);
  read.Bool("DateTimeExclude", loaded.DateTimeExclude);
  read.Int("LastDays", loaded.LastDays);
  read.Int("LastHours", loaded.LastHours);
  read.Bool("LastHoursExclude", loaded.LastHoursExclude);
  for (const pugi::xml_node condition : node.child("CustomCol").children("Condition"))
    loaded.CustomColFilter.push_back({read.ConditionInt(condition, "CustomCol", "Number"),
                                      read.ConditionInt(condition, "CustomCol", "Oper"),
                                      condition.child("Value").text().as_string()});
  for (const pugi::xml_node condition : node.child("DescrParams").children("Condition"))
    loaded.DescrFilter.push_back({condition.child("Name").text().as_string(),
                                  read.ConditionInt(condition, "DescrParams", "Operator"),
                                  condition.child("Value").text().as_string()});
  read.Bool("CaseSensitive", loaded.CaseSensitive);
  read.DetectionLevel("MinDetectionLevel", loaded.MinDetectionLevel);
  loaded.AssignTo(*this);
}

void TEventFilter::LoadFromFile(const std::string& AFileName) {
  std::FILE* file = std::fopen(AFileName.c_str(), "rb");
  if (!file) throw std::runtime_error(AFileName + ": cannot be read: " + std::strerror(errno));
  std::string text;
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, file)) > 0;) {
    text.append(buffer, n);
    if (text.size() > (64u << 20)) break; // a filter file is small; do not read a disk image
  }
  std::fclose(file);
  LoadFromString(text, AFileName);
}

} // namespace qvx
