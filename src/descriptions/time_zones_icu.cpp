// The zone table where there is no Windows registry: each Windows zone name that ICU's
// Windows-to-IANA mapping knows, with a rule made from the annual rules ICU expects for its
// representative ("001") IANA zone around today.
#include "descriptions/time_zones.h"

#include <unicode/basictz.h>
#include <unicode/calendar.h>
#include <unicode/dtrule.h>
#include <unicode/locid.h>
#include <unicode/strenum.h>
#include <unicode/timezone.h>
#include <unicode/tznames.h>
#include <unicode/tzrule.h>
#include <unicode/uchar.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>

namespace qvx {
namespace {

constexpr int32_t MsPerMinute = 60000;
constexpr int32_t MsPerDay = 86400000;

std::string ToUtf8(const icu::UnicodeString& AText) {
  std::string out;
  AText.toUTF8String(out);
  return out;
}

std::string WindowsId(const icu::UnicodeString& AIanaId) {
  UErrorCode status = U_ZERO_ERROR;
  icu::UnicodeString id;
  icu::TimeZone::getWindowsID(AIanaId, id, status);
  return U_SUCCESS(status) ? ToUtf8(id) : std::string();
}

// An ICU date rule as a transition date of the annual form. ICU gives the time as wall time
// before the transition in practice, which is what Windows expects (local standard time for
// the start of daylight time, local daylight time for its end); UTC and standard times are
// moved there with the offsets in effect before the transition (milliseconds). False for a
// fixed day of the month, which the annual form cannot express.
bool ToTransitionDate(const icu::DateTimeRule& ARule, int32_t ARawOffset, int32_t ASavingsBefore,
                      TSystemTime& ADate) {
  int32_t ms = ARule.getRuleMillisInDay();
  if (ARule.getTimeRuleType() == icu::DateTimeRule::UTC_TIME)
    ms += ARawOffset + ASavingsBefore;
  else if (ARule.getTimeRuleType() == icu::DateTimeRule::STANDARD_TIME)
    ms += ASavingsBefore;
  int dayOfWeek = ARule.getRuleDayOfWeek() - UCAL_SUNDAY;
  const int dayOfMonth = ARule.getRuleDayOfMonth();
  int occurrence = 0;
  switch (ARule.getDateRuleType()) {
  case icu::DateTimeRule::DOW: {
    const int week = ARule.getRuleWeekInMonth();
    occurrence = week < 1 || week > 4 ? 5 : week; // negative counts from the end
    break;
  }
  case icu::DateTimeRule::DOW_GEQ_DOM: // "Sun>=8" is the second Sunday
    occurrence = std::min(5, (dayOfMonth - 1) / 7 + 1);
    break;
  case icu::DateTimeRule::DOW_LEQ_DOM: // "Sun<=14" is the second Sunday, "Sun<=31" the last
    occurrence = dayOfMonth >= 29 ? 5 : std::max(1, dayOfMonth / 7);
    break;
  default:
    return false;
  }
  // A time outside the day moves the weekday (Greenland: Sunday 01:00 UTC is Saturday 22:00).
  if (ms < 0) {
    ms += MsPerDay;
    dayOfWeek = (dayOfWeek + 6) % 7;
  } else if (ms >= MsPerDay) {
    ms -= MsPerDay;
    dayOfWeek = (dayOfWeek + 1) % 7;
  }
  ADate = TSystemTime();
  ADate.wMonth = static_cast<uint16_t>(ARule.getRuleMonth() + 1);
  ADate.wDayOfWeek = static_cast<uint16_t>(dayOfWeek);
  ADate.wDay = static_cast<uint16_t>(occurrence);
  ADate.wHour = static_cast<uint16_t>(ms / 3600000);
  ADate.wMinute = static_cast<uint16_t>(ms / MsPerMinute % 60);
  ADate.wSecond = static_cast<uint16_t>(ms / 1000 % 60);
  ADate.wMilliseconds = static_cast<uint16_t>(ms % 1000);
  return true;
}

// The zone's rule around ANow. Without annual rules it keeps the offset in effect then.
TRegTzi RuleFromIcu(const icu::TimeZone& AZone, UDate ANow) {
  TRegTzi tzi;
  UErrorCode status = U_ZERO_ERROR;
  int32_t raw = 0, savings = 0;
  AZone.getOffset(ANow, false, raw, savings, status);
  tzi.Bias = U_SUCCESS(status) ? -(raw + savings) / MsPerMinute : 0;
  const auto* basic = dynamic_cast<const icu::BasicTimeZone*>(&AZone);
  if (basic == nullptr) return tzi;
  icu::InitialTimeZoneRule* initial = nullptr;
  icu::AnnualTimeZoneRule *standard = nullptr, *daylight = nullptr;
  status = U_ZERO_ERROR;
  basic->getSimpleRulesNear(ANow, initial, standard, daylight, status);
  std::unique_ptr<icu::TimeZoneRule> owned[] = {std::unique_ptr<icu::TimeZoneRule>(initial),
                                                std::unique_ptr<icu::TimeZoneRule>(standard),
                                                std::unique_ptr<icu::TimeZoneRule>(daylight)};
  if (U_FAILURE(status) || standard == nullptr || daylight == nullptr) return tzi;
  TRegTzi annual;
  const int32_t standardRaw = standard->getRawOffset(), dstSavings = daylight->getDSTSavings();
  annual.Bias = -standardRaw / MsPerMinute;
  annual.DaylightBias = -dstSavings / MsPerMinute;
  if (ToTransitionDate(*daylight->getRule(), standardRaw, 0, annual.DaylightDate) &&
      ToTransitionDate(*standard->getRule(), standardRaw, dstSavings, annual.StandardDate))
    return annual;
  return tzi;
}

std::string DaylightName(const icu::TimeZone& AZone) {
  icu::UnicodeString name;
  AZone.getDisplayName(true, icu::TimeZone::LONG, icu::Locale::getEnglish(), name);
  return ToUtf8(name);
}

// "(UTC-08:00) Pacific Time (Los Angeles)"; the UTC zones read as Windows writes them.
std::string DisplayName(const std::string& AKeyName, const icu::UnicodeString& AIanaId, int32_t ABias,
                        const icu::TimeZoneNames& ANames, UDate ANow) {
  if (AKeyName == "UTC") return "(UTC) Coordinated Universal Time";
  const int32_t offset = ABias < 0 ? -ABias : ABias;
  char prefix[32];
  std::snprintf(prefix, sizeof prefix, "(UTC%c%02d:%02d) ", ABias > 0 ? '-' : '+', offset / 60, offset % 60);
  if (AKeyName.rfind("UTC", 0) == 0) return prefix + ("Coordinated Universal Time" + AKeyName.substr(3));
  icu::UnicodeString metaZone, generic, city;
  ANames.getMetaZoneID(AIanaId, ANow, metaZone);
  if (!metaZone.isEmpty()) ANames.getMetaZoneDisplayName(metaZone, UTZNM_LONG_GENERIC, generic);
  if (!metaZone.isEmpty() && generic.isEmpty())
    ANames.getMetaZoneDisplayName(metaZone, UTZNM_LONG_STANDARD, generic);
  ANames.getExemplarLocationName(AIanaId, city);
  if (city.isEmpty()) return prefix + (generic.isEmpty() ? AKeyName : ToUtf8(generic));
  return prefix + (generic.isEmpty() ? ToUtf8(city) : ToUtf8(generic) + " (" + ToUtf8(city) + ")");
}

} // namespace

std::vector<TTimeZone> detail::PlatformTimeZones() {
  std::vector<TTimeZone> zones;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::StringEnumeration> ids(
      icu::TimeZone::createTimeZoneIDEnumeration(UCAL_ZONE_TYPE_ANY, nullptr, nullptr, status));
  std::unique_ptr<icu::TimeZoneNames> names(
      icu::TimeZoneNames::createInstance(icu::Locale::getEnglish(), status));
  if (U_FAILURE(status)) return zones;
  std::set<std::string> keyNames;
  while (const icu::UnicodeString* id = ids->snext(status)) {
    if (U_FAILURE(status)) break;
    if (std::string key = WindowsId(*id); !key.empty()) keyNames.insert(key);
  }
  const UDate now = icu::Calendar::getNow();
  for (const std::string& key : keyNames) {
    status = U_ZERO_ERROR;
    icu::UnicodeString ianaId;
    icu::TimeZone::getIDForWindowsID(icu::UnicodeString::fromUTF8(key), "001", ianaId, status);
    if (U_FAILURE(status) || ianaId.isEmpty()) continue;
    std::unique_ptr<icu::TimeZone> icuZone(icu::TimeZone::createTimeZone(ianaId));
    TTimeZone zone;
    zone.KeyName = key;
    zone.Tzi = RuleFromIcu(*icuZone, now);
    zone.DisplayName = DisplayName(key, ianaId, zone.Tzi.Bias, *names, now);
    zone.StandardName = key; // Windows names standard time after the zone
    zone.DaylightName = zone.Tzi.DaylightDate.wMonth != 0 ? DaylightName(*icuZone) : key;
    zones.push_back(std::move(zone));
  }
  return zones;
}

std::string CurrentTimeZoneKeyName() {
  std::unique_ptr<icu::TimeZone> local(icu::TimeZone::createDefault());
  icu::UnicodeString id;
  std::string key = WindowsId(local->getID(id));
  return key.empty() ? "UTC" : key;
}

std::string WindowsZoneFromIana(const std::string& AIanaName) {
  if (AIanaName.empty() || AIanaName.size() > 64) return {};
  const icu::UnicodeString name = icu::UnicodeString::fromUTF8(AIanaName);
  if (std::string key = WindowsId(name); !key.empty()) return key;
  // ICU's names are case-sensitive; people type "europe/berlin" too.
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::StringEnumeration> ids(
      icu::TimeZone::createTimeZoneIDEnumeration(UCAL_ZONE_TYPE_ANY, nullptr, nullptr, status));
  if (U_FAILURE(status)) return {};
  while (const icu::UnicodeString* id = ids->snext(status)) {
    if (U_FAILURE(status)) break;
    if (id->caseCompare(name, U_FOLD_CASE_DEFAULT) == 0) return WindowsId(*id);
  }
  return {};
}

bool LocalTimeZoneInformation(TTimeZoneInformation& ATzi) {
  std::unique_ptr<icu::TimeZone> local(icu::TimeZone::createDefault());
  TTimeZone zone;
  zone.Tzi = RuleFromIcu(*local, icu::Calendar::getNow());
  zone.StandardName = CurrentTimeZoneKeyName();
  zone.DaylightName = zone.Tzi.DaylightDate.wMonth != 0 ? DaylightName(*local) : zone.StandardName;
  ATzi = ZoneToTimeZoneInformation(zone);
  return true;
}

int detail::LocalOffsetNow() {
  std::unique_ptr<icu::TimeZone> local(icu::TimeZone::createDefault());
  UErrorCode status = U_ZERO_ERROR;
  int32_t raw = 0, savings = 0;
  local->getOffset(icu::Calendar::getNow(), false, raw, savings, status);
  return U_SUCCESS(status) ? (raw + savings) / MsPerMinute : 0;
}

} // namespace qvx
