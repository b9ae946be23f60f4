#include "filter/filter_json.h"

#include "filter/pcre2_pattern.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cctype>

namespace qvx {

namespace {

using nlohmann::json;

constexpr const char* kOperNames[] = {"",        "equals",  "notEqual", "contains", "notContains", "matches",
                                      "notMatches", "inList", "notInList", "greater", "less"};

// Lists and texts from a request stay small: a filter is typed or picked by a person.
constexpr size_t kMaxItems = 10000;
constexpr size_t kMaxText = 64 * 1024;

[[noreturn]] void Fail(const std::string& AMember, const std::string& AWhat) {
  throw EFilterJsonError("filter: \"" + AMember + "\" " + AWhat);
}

const json* Member(const json& AObject, const char* AName) {
  const auto it = AObject.find(AName);
  return it == AObject.end() || it->is_null() ? nullptr : &*it;
}

std::string Text(const json& AValue, const std::string& AName) {
  if (!AValue.is_string()) Fail(AName, "must be a string");
  std::string text = AValue.get<std::string>();
  if (text.size() > kMaxText) Fail(AName, "is longer than 64 KB");
  // SQL and C text end at a NUL: the rest of the text would be dropped unseen.
  if (text.find('\0') != std::string::npos) Fail(AName, "cannot hold a NUL character");
  return text;
}

bool Flag(const json& AObject, const char* AName, const std::string& APath) {
  const json* value = Member(AObject, AName);
  if (!value) return false;
  if (!value->is_boolean()) Fail(APath + "." + AName, "must be true or false");
  return value->get<bool>();
}

int32_t Count(const json& AObject, const char* AName, const std::string& APath) {
  const json* value = Member(AObject, AName);
  if (!value) return 0;
  if (!value->is_number_integer() || value->get<int64_t>() < 0 || value->get<int64_t>() > 100000)
    Fail(APath + "." + AName, "must be a whole number from 0 to 100000");
  return static_cast<int32_t>(value->get<int64_t>());
}

void NameList(const json& AObject, const char* AName, std::vector<std::string>& AValues, bool& AExclude) {
  const json* list = Member(AObject, AName);
  if (!list) return;
  if (!list->is_object()) Fail(AName, "must be an object with \"values\" and \"exclude\"");
  AExclude = Flag(*list, "exclude", AName);
  const json* values = Member(*list, "values");
  if (!values) return;
  if (!values->is_array()) Fail(std::string(AName) + ".values", "must be an array of strings");
  if (values->size() > kMaxItems) Fail(std::string(AName) + ".values", "has more than 10000 items");
  for (const json& item : *values)
    AValues.push_back(Text(item, std::string(AName) + ".values[]"));
}

int32_t Oper(const json& ACondition, const std::string& APath) {
  const json* name = Member(ACondition, "op");
  if (!name) Fail(APath + ".op", "is missing");
  const std::string text = Text(*name, APath + ".op");
  for (int32_t i = coEquals; i <= coLess; ++i)
    if (text == kOperNames[i]) return i;
  Fail(APath + ".op", "is not one of equals, notEqual, contains, notContains, matches, notMatches, inList, "
                      "notInList, greater, less");
}

const json& Conditions(const json& AObject, const char* AName, const json& AEmpty) {
  const json* list = Member(AObject, AName);
  if (!list) return AEmpty;
  if (!list->is_array()) Fail(AName, "must be an array of conditions");
  if (list->size() > 1000) Fail(AName, "has more than 1000 conditions");
  for (const json& item : *list)
    if (!item.is_object()) Fail(std::string(AName) + "[]", "must be an object");
  return *list;
}

double Time(const json& AObject, const char* AName) {
  const std::string text = Text(*Member(AObject, AName), AName);
  double days = 0;
  if (!ParseDateTimeText(text, days)) Fail(AName, "is not a date and time such as 2024-03-01 14:05:09");
  return days;
}

} // namespace

const char* ConditionOperName(int32_t AOper) {
  return AOper >= coEquals && AOper <= coLess ? kOperNames[AOper] : "";
}

TEventFilter FilterFromJson(const json& AJson) {
  TEventFilter filter;
  if (AJson.is_null()) return filter;
  if (!AJson.is_object()) throw EFilterJsonError("filter: must be a JSON object");
  static const char* const kKnown[] = {"types", "sources", "categories", "users",   "computers",
                                       "ids",   "idsExcept", "descr",    "caseSensitive", "from",
                                       "to",    "dateExclude", "last",   "params",  "columns",
                                       "minDetectionLevel"};
  for (const auto& item : AJson.items()) {
    const std::string& name = item.key();
    if (std::none_of(std::begin(kKnown), std::end(kKnown), [&](const char* AKnown) { return name == AKnown; }))
      Fail(name, "is not a member of a filter");
  }

  if (const json* types = Member(AJson, "types")) {
    if (!types->is_array()) Fail("types", "must be an array of type names");
    bool* const flags[] = {&filter.EVT_VERBOSE,  &filter.EVT_INFORMATION,   &filter.EVT_WARNING,      &filter.EVT_ERROR,
                           &filter.EVT_CRITICAL, &filter.EVT_AUDIT_SUCCESS, &filter.EVT_AUDIT_FAILURE};
    static const char* const kTypes[] = {"verbose",  "information",   "warning",      "error",
                                         "critical", "audit-success", "audit-failure"};
    for (bool* flag : flags) *flag = false;
    for (const json& item : *types) {
      const std::string name = Text(item, "types[]");
      const auto it = std::find_if(std::begin(kTypes), std::end(kTypes), [&](const char* AType) { return name == AType; });
      if (it == std::end(kTypes))
        Fail("types[]", "'" + name + "' is not one of verbose, information, warning, error, critical, audit-success, "
                                     "audit-failure");
      *flags[it - std::begin(kTypes)] = true;
    }
  }
  NameList(AJson, "sources", filter.Sources, filter.SourcesExclude);
  NameList(AJson, "categories", filter.Categories, filter.CategoriesExclude);
  NameList(AJson, "users", filter.Users, filter.UsersExclude);
  NameList(AJson, "computers", filter.Computers, filter.ComputersExclude);
  if (const json* ids = Member(AJson, "ids")) {
    filter.IDs = Text(*ids, "ids");
    if (const std::string error = EventIdExpressionError(filter.IDs); !error.empty()) Fail("ids", error);
  }
  filter.IDsExcept = Flag(AJson, "idsExcept", "");
  if (const json* descr = Member(AJson, "descr")) {
    if (!descr->is_object()) Fail("descr", "must be an object with \"text\", \"regex\" and \"exclude\"");
    if (const json* text = Member(*descr, "text")) filter.DescrText = Text(*text, "descr.text");
    filter.DescrTextRegExp = Flag(*descr, "regex", "descr");
    filter.DescrTextExclude = Flag(*descr, "exclude", "descr");
  }
  filter.CaseSensitive = Flag(AJson, "caseSensitive", "");
  if (filter.DescrTextRegExp && !filter.DescrText.empty()) {
    // Refused here, as a bad request, rather than as an SQL error of the query it is put in.
    const TPcre2Pattern pattern(filter.DescrText, PCRE2_UTF);
    if (!pattern.IsValid()) Fail("descr.text", "is not a regular expression that compiles: " + pattern.ErrorMessage());
  }
  const json* from = Member(AJson, "from");
  const json* to = Member(AJson, "to");
  if (from || to) {
    filter.ByDate = filter.ByTime = true;
    filter.Separately = false;
    ParseDateTimeText("1601-01-01", filter.FromTime);
    ParseDateTimeText("9999-12-31 23:59:59", filter.ToTime);
    if (from) filter.FromTime = Time(AJson, "from");
    if (to) {
      // A bare date as the end means the whole of that day, a minute the whole minute.
      filter.ToTime = LastSecondOf(to->get<std::string>(), Time(AJson, "to"));
    }
    filter.DateTimeExclude = Flag(AJson, "dateExclude", "");
  }
  if (const json* last = Member(AJson, "last")) {
    if (!last->is_object()) Fail("last", "must be an object with \"days\" and \"hours\"");
    filter.LastDays = Count(*last, "days", "last");
    filter.LastHours = Count(*last, "hours", "last");
    filter.LastHoursExclude = Flag(*last, "exclude", "last");
  }
  const json empty = json::array();
  for (const json& item : Conditions(AJson, "params", empty)) {
    TDescrParamCond condition;
    const json* name = Member(item, "name");
    if (!name) Fail("params[].name", "is missing");
    condition.Name = Text(*name, "params[].name");
    condition.Oper = Oper(item, "params[]");
    if (const json* value = Member(item, "value")) condition.Value = Text(*value, "params[].value");
    filter.DescrFilter.push_back(std::move(condition));
  }
  for (const json& item : Conditions(AJson, "columns", empty)) {
    TCustomColFilterCond condition;
    const json* number = Member(item, "number");
    if (!number || !number->is_number_integer() || number->get<int64_t>() < 1 || number->get<int64_t>() > 1000)
      Fail("columns[].number", "must be a custom column's number (1 and up)");
    condition.Number = static_cast<int32_t>(number->get<int64_t>());
    condition.Oper = Oper(item, "columns[]");
    if (const json* value = Member(item, "value")) condition.Value = Text(*value, "columns[].value");
    filter.CustomColFilter.push_back(std::move(condition));
  }
  if (const json* level = Member(AJson, "minDetectionLevel")) {
    // A level name, or its number 0..4 as the store keeps it.
    const bool named = level->is_string() && ParseDetectionLevel(level->get<std::string>(), filter.MinDetectionLevel);
    const bool numbered = level->is_number_integer() && level->get<int64_t>() >= dlInformational &&
                          level->get<int64_t>() <= dlCritical;
    if (numbered) filter.MinDetectionLevel = static_cast<int32_t>(level->get<int64_t>());
    if (!level->is_null() && !named && !numbered)
      Fail("minDetectionLevel", "must be informational, low, medium, high or critical (or 0 to 4)");
  }
  return filter;
}

json FilterToJson(const TEventFilter& AFilter) {
  json out = json::object();
  const std::pair<bool, const char*> types[] = {
      {AFilter.EVT_VERBOSE, "verbose"},   {AFilter.EVT_INFORMATION, "information"},
      {AFilter.EVT_WARNING, "warning"},   {AFilter.EVT_ERROR, "error"},
      {AFilter.EVT_CRITICAL, "critical"}, {AFilter.EVT_AUDIT_SUCCESS, "audit-success"},
      {AFilter.EVT_AUDIT_FAILURE, "audit-failure"}};
  if (std::any_of(std::begin(types), std::end(types), [](const auto& AType) { return !AType.first; })) {
    json& list = out["types"] = json::array();
    for (const auto& [on, name] : types)
      if (on) list.push_back(name);
  }
  auto names = [&](const char* AName, const std::vector<std::string>& AValues, bool AExclude) {
    if (!AValues.empty()) out[AName] = {{"values", AValues}, {"exclude", AExclude}};
  };
  names("sources", AFilter.Sources, AFilter.SourcesExclude);
  names("categories", AFilter.Categories, AFilter.CategoriesExclude);
  names("users", AFilter.Users, AFilter.UsersExclude);
  names("computers", AFilter.Computers, AFilter.ComputersExclude);
  if (!AFilter.IDs.empty()) {
    out["ids"] = AFilter.IDs;
    if (AFilter.IDsExcept) out["idsExcept"] = true;
  }
  if (!AFilter.DescrText.empty())
    out["descr"] = {{"text", AFilter.DescrText}, {"regex", AFilter.DescrTextRegExp}, {"exclude", AFilter.DescrTextExclude}};
  if (AFilter.CaseSensitive) out["caseSensitive"] = true;
  if (AFilter.ByDate || AFilter.ByTime) {
    out["from"] = DateTimeText(AFilter.FromTime);
    out["to"] = DateTimeText(AFilter.ToTime);
    if (AFilter.DateTimeExclude) out["dateExclude"] = true;
  }
  if (AFilter.LastDays || AFilter.LastHours)
    out["last"] = {{"days", AFilter.LastDays}, {"hours", AFilter.LastHours}, {"exclude", AFilter.LastHoursExclude}};
  for (const TDescrParamCond& c : AFilter.DescrFilter)
    out["params"].push_back({{"name", c.Name}, {"op", ConditionOperName(c.Oper)}, {"value", c.Value}});
  for (const TCustomColFilterCond& c : AFilter.CustomColFilter)
    out["columns"].push_back({{"number", c.Number}, {"op", ConditionOperName(c.Oper)}, {"value", c.Value}});
  if (AFilter.MinDetectionLevel >= dlInformational && AFilter.MinDetectionLevel <= dlCritical)
    out["minDetectionLevel"] = DetectionLevelName(AFilter.MinDetectionLevel);
  return out;
}

} // namespace qvx
