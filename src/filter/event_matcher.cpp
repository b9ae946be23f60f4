#include "filter/event_matcher.h"

#include "descriptions/description_caches.h"
#include "descriptions/time_zones.h"

#include <cmath>

namespace qvx {

namespace {

std::string Trim(const std::string& AText) {
  size_t begin = 0, end = AText.size();
  while (begin < end && static_cast<unsigned char>(AText[begin]) <= ' ') ++begin;
  while (end > begin && static_cast<unsigned char>(AText[end - 1]) <= ' ') --end;
  return AText.substr(begin, end - begin);
}

void FoldInto(std::string_view AText, std::string& AOut) {
  AOut.assign(AText);
  for (char& c : AOut) c = detail::LowerAscii(c);
}

// Seconds since midnight, and the day number, of a day count (to the second, as the
// store's [Date] and [Time] texts compare).
int64_t Seconds(double ADays) { return static_cast<int64_t>(std::floor(ADays * 86400.0 + 0.0005)); }

} // namespace

TEventMatcher::TEventMatcher(const TEventFilter& AFilter, double ANowUtcDays) : FNowUtc(ANowUtcDays) {
  AFilter.AssignTo(FFilter);
  if (!FFilter.DescrFilter.empty() || !FFilter.CustomColFilter.empty())
    throw std::invalid_argument(
        "conditions on description parameters or custom columns need an event store (quorvex open)");
  if (FFilter.MinDetectionLevel != dlNone)
    throw std::invalid_argument("a detection level needs an event store loaded with Sigma rules (quorvex open --rules)");
  const std::pair<bool, TEventType> types[] = {
      {FFilter.EVT_VERBOSE, EVT_VERBOSE},           {FFilter.EVT_INFORMATION, EVT_INFORMATION},
      {FFilter.EVT_WARNING, EVT_WARNING},           {FFilter.EVT_ERROR, EVT_ERROR},
      {FFilter.EVT_CRITICAL, EVT_CRITICAL},         {FFilter.EVT_AUDIT_SUCCESS, EVT_AUDIT_SUCCESS},
      {FFilter.EVT_AUDIT_FAILURE, EVT_AUDIT_FAILURE}};
  int selected = 0;
  for (const auto& [on, type] : types) {
    FTypes[type] = on;
    selected += on;
  }
  // All or none selected: any type, as in the store's clause.
  FAllTypes = selected == 0 || selected == 7;
  SplitEventIdExpression(FFilter.IDs, FInclude, FExclude);
  const std::string text = Trim(FFilter.DescrText);
  if (!text.empty() && FFilter.DescrTextRegExp) {
    FRegex = std::make_unique<TPcre2Pattern>(text, PCRE2_UTF | (FFilter.CaseSensitive ? 0 : PCRE2_CASELESS));
    if (!FRegex->IsValid())
      throw std::invalid_argument("regular expression \"" + text + "\": " + FRegex->ErrorMessage());
  } else if (FFilter.CaseSensitive) {
    FDescr = text;
  } else {
    FoldInto(text, FDescr);
  }
}

bool TEventMatcher::InList(const std::vector<std::string>& AList, const std::string& AValue) const {
  for (const std::string& item : AList)
    if (detail::EqualsNoCase(item, AValue)) return true;
  return false;
}

bool TEventMatcher::IdMatches(uint32_t AId) const {
  const int64_t id = static_cast<int32_t>(AId);
  auto inside = [id](const TEventIdSpan& ASpan) {
    return id >= static_cast<int32_t>(ASpan.Low) && id <= static_cast<int32_t>(ASpan.High);
  };
  bool included = FInclude.empty();
  for (const TEventIdSpan& span : FInclude) included = included || inside(span);
  for (const TEventIdSpan& span : FExclude)
    if (inside(span)) return false;
  return included;
}

bool TEventMatcher::DescriptionMatches(const std::string& AText) const {
  std::string_view text = AText;
  // A missing description shows the data values after the mark: those are searched.
  if (!text.empty() && text[0] == '\x01') text.remove_prefix(1);
  if (FRegex) return FRegex->Match(text, 0, FMatch) == prMatch;
  if (FFilter.CaseSensitive) return text.find(FDescr) != std::string_view::npos;
  FoldInto(text, FFolded);
  return FFolded.find(FDescr) != std::string::npos;
}

bool TEventMatcher::Matches(const TEventItemBase& AItem, double AShownDays) {
  const TEventFilter& f = FFilter;
  if (!FAllTypes && (AItem.FEventType > EVT_AUDIT_FAILURE || !FTypes[AItem.FEventType])) return false;
  if (!f.Sources.empty() && InList(f.Sources, AItem.FSourceName) == f.SourcesExclude) return false;
  if (!f.Categories.empty() &&
      InList(f.Categories, const_cast<TEventItemBase&>(AItem).GetCategoryName()) == f.CategoriesExclude)
    return false;
  if (!f.Users.empty() && InList(f.Users, const_cast<TEventItemBase&>(AItem).GetUserName()) == f.UsersExclude)
    return false;
  if (!f.Computers.empty() && InList(f.Computers, AItem.FComputername) == f.ComputersExclude) return false;
  if (!FInclude.empty() || !FExclude.empty()) {
    if (IdMatches(AItem.FEventID) == f.IDsExcept) return false;
  }
  if (!Trim(f.DescrText).empty() && DescriptionMatches(AItem.FEvtMessage) == f.DescrTextExclude) return false;
  if (f.ByDate || f.ByTime) {
    const int64_t when = Seconds(AShownDays), from = Seconds(f.FromTime), to = Seconds(f.ToTime);
    const int64_t day = when / 86400, time = when % 86400;
    bool inside;
    if (f.ByDate && f.ByTime && f.Separately)
      inside = day >= from / 86400 && day <= to / 86400 && time >= from % 86400 && time <= to % 86400;
    else if (f.ByDate && f.ByTime)
      inside = when >= from && when <= to;
    else if (f.ByDate)
      inside = day >= from / 86400 && day <= to / 86400;
    else
      inside = time >= from % 86400 && time <= to % 86400;
    if (inside == f.DateTimeExclude) return false;
  }
  if (f.LastDays != 0 || f.LastHours != 0) {
    const double hours = static_cast<double>(f.LastDays) * 24 + f.LastHours;
    const bool recent = (FNowUtc - AItem.FTimeGenerated) * 24 <= hours;
    if (recent == f.LastHoursExclude) return false;
  }
  return true;
}

} // namespace qvx
