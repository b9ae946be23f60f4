#include "descriptions/time_zones.h"

#include "platform/byte_reader.h"
#include "platform/utf16.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

namespace qvx {

const char* const TimeZonesKey = "\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Time Zones";

namespace {

constexpr int64_t MsPerMinute = 60000;
constexpr int64_t MsPerDay = 86400000;
constexpr int64_t UnixEpochDay = 25569; // 1970-01-01 as a day count from 1899-12-30
constexpr double DayCountLimit = 3e6;   // ~8000 years either side; beyond that a count is garbage

// Proleptic Gregorian calendar over day numbers (H. Hinnant's civil-date algorithms).
int64_t DayNumber(int64_t AYear, unsigned AMonth, unsigned ADay) {
  AYear -= AMonth <= 2;
  const int64_t era = (AYear >= 0 ? AYear : AYear - 399) / 400;
  const auto yoe = static_cast<unsigned>(AYear - era * 400);
  const unsigned doy = (153 * (AMonth > 2 ? AMonth - 3 : AMonth + 9) + 2) / 5 + ADay - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468 + UnixEpochDay;
}

void CivilDate(int64_t ADayNumber, int64_t& AYear, unsigned& AMonth, unsigned& ADay) {
  const int64_t z = ADayNumber - UnixEpochDay + 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const auto doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  ADay = doy - (153 * mp + 2) / 5 + 1;
  AMonth = mp < 10 ? mp + 3 : mp - 9;
  AYear = static_cast<int64_t>(yoe) + era * 400 + (AMonth <= 2);
}

int64_t FloorDiv(int64_t A, int64_t B) {
  return A / B - (A % B != 0 && (A < 0) != (B < 0));
}
unsigned WeekDay(int64_t ADayNumber) {
  return static_cast<unsigned>((ADayNumber % 7 + 7 + 6) % 7);
} // 0 = Sunday

bool IsLeapYear(int64_t AYear) {
  return AYear % 4 == 0 && (AYear % 100 != 0 || AYear % 400 == 0);
}
unsigned DaysInMonth(int64_t AYear, unsigned AMonth) {
  static const uint8_t Days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return AMonth == 2 && IsLeapYear(AYear) ? 29 : Days[AMonth - 1];
}

int64_t TimeOfDayMs(const TSystemTime& ATime) {
  return ((ATime.wHour * 60 + ATime.wMinute) * 60 + ATime.wSecond) * int64_t{1000} + ATime.wMilliseconds;
}
bool ValidTimeOfDay(const TSystemTime& ATime) {
  return ATime.wHour < 24 && ATime.wMinute < 60 && ATime.wSecond < 60 && ATime.wMilliseconds < 1000;
}
bool ValidSystemTime(const TSystemTime& ATime) {
  return ATime.wYear >= 1601 && ATime.wYear <= 30827 && ATime.wMonth >= 1 && ATime.wMonth <= 12 &&
         ATime.wDay >= 1 && ATime.wDay <= DaysInMonth(ATime.wYear, ATime.wMonth) && ValidTimeOfDay(ATime);
}
bool ValidTransition(const TSystemTime& ADate) {
  if (ADate.wMonth < 1 || ADate.wMonth > 12 || !ValidTimeOfDay(ADate)) return false;
  if (ADate.wYear == 0) return ADate.wDay >= 1 && ADate.wDay <= 5 && ADate.wDayOfWeek <= 6;
  return ADate.wDay >= 1 && ADate.wDay <= DaysInMonth(ADate.wYear, ADate.wMonth);
}
// Either month 0 means the zone keeps standard time all year.
bool HasDaylight(const TRegTzi& ARule) {
  return ARule.StandardDate.wMonth != 0 && ARule.DaylightDate.wMonth != 0;
}
bool ValidRule(const TRegTzi& ARule) {
  return !HasDaylight(ARule) || (ValidTransition(ARule.StandardDate) && ValidTransition(ARule.DaylightDate));
}

// Local milliseconds of the transition in AYear; false when it does not happen that year.
bool TransitionMs(const TSystemTime& ADate, int64_t AYear, int64_t& AMs) {
  unsigned day = ADate.wDay;
  if (ADate.wYear != 0) {
    if (ADate.wYear != AYear) return false;
  } else {
    const unsigned first = WeekDay(DayNumber(AYear, ADate.wMonth, 1));
    day = 1 + (ADate.wDayOfWeek + 7 - first) % 7 + (ADate.wDay - 1) * 7u;
    if (day > DaysInMonth(AYear, ADate.wMonth)) day -= 7; // occurrence 5 is the last one
  }
  AMs = DayNumber(AYear, ADate.wMonth, day) * MsPerDay + TimeOfDayMs(ADate);
  return true;
}

TRegTzi RuleOf(const TTimeZoneInformation& ATzi) {
  TRegTzi rule;
  rule.Bias = ATzi.Bias;
  rule.StandardBias = ATzi.StandardBias;
  rule.DaylightBias = ATzi.DaylightBias;
  rule.StandardDate = ATzi.StandardDate;
  rule.DaylightDate = ATzi.DaylightDate;
  return rule;
}

TSystemTime ReadSystemTime(const TByteReader& AReader, uint64_t AOffset) {
  TSystemTime t;
  uint16_t* fields[] = {&t.wYear, &t.wMonth,  &t.wDayOfWeek, &t.wDay,
                        &t.wHour, &t.wMinute, &t.wSecond,    &t.wMilliseconds};
  for (uint16_t* field : fields) {
    *field = AReader.ReadU16(AOffset);
    AOffset += 2;
  }
  return t;
}

char UpperAscii(char C) {
  return C >= 'a' && C <= 'z' ? static_cast<char>(C - 'a' + 'A') : C;
}

// Ordinal comparison after folding ASCII letters to upper case, as the system's own list does.
int CompareTextAscii(const std::string& A, const std::string& B) {
  const size_t n = std::min(A.size(), B.size());
  for (size_t i = 0; i < n; ++i) {
    const auto a = static_cast<unsigned char>(UpperAscii(A[i])),
               b = static_cast<unsigned char>(UpperAscii(B[i]));
    if (a != b) return a < b ? -1 : 1;
  }
  return A.size() < B.size() ? -1 : A.size() > B.size() ? 1 : 0;
}

std::string CutToUtf16Units(const std::string& AText, size_t AUnits) {
  std::u16string wide = Utf8ToUtf16(AText);
  if (wide.size() <= AUnits) return AText;
  wide.resize(AUnits);
  if (wide.back() >= 0xD800 && wide.back() <= 0xDBFF) wide.pop_back();
  return Utf16ToUtf8(wide);
}

double NowDays() {
  const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                      std::chrono::system_clock::now().time_since_epoch())
                      .count();
  return static_cast<double>(ms + UnixEpochDay * MsPerDay) / MsPerDay;
}

} // namespace

bool ParseRegTzi(const uint8_t* AData, size_t ASize, TRegTzi& ATzi) {
  ATzi = TRegTzi();
  if (AData == nullptr || ASize != RegTziSize) return false;
  const TByteReader reader(AData, ASize);
  ATzi.Bias = static_cast<int32_t>(reader.ReadU32(0));
  ATzi.StandardBias = static_cast<int32_t>(reader.ReadU32(4));
  ATzi.DaylightBias = static_cast<int32_t>(reader.ReadU32(8));
  ATzi.StandardDate = ReadSystemTime(reader, 12);
  ATzi.DaylightDate = ReadSystemTime(reader, 28);
  return true;
}

// --- The table ---

void detail::SortTimeZones(std::vector<TTimeZone>& AZones) {
  std::stable_sort(AZones.begin(), AZones.end(), [](const TTimeZone& A, const TTimeZone& B) {
    if (A.Tzi.Bias != B.Tzi.Bias) return A.Tzi.Bias > B.Tzi.Bias;
    return CompareTextAscii(A.DisplayName, B.DisplayName) < 0;
  });
}

void TTimeZones::EnumTimeZones() {
  static const std::vector<TTimeZone> Table = [] {
    std::vector<TTimeZone> zones = detail::PlatformTimeZones();
    detail::SortTimeZones(zones);
    return zones;
  }();
  FItems = Table;
}

void TTimeZones::EnumTimeZones(const TTimeZoneRegistry& ARegistry) {
  FItems.clear();
  std::vector<std::string> names;
  if (!ARegistry.GetKeyNames(TimeZonesKey, names)) return;
  for (const std::string& name : names) {
    const std::string key = std::string(TimeZonesKey) + "\\" + name;
    TTimeZone zone;
    zone.KeyName = name;
    ARegistry.ReadString(key, "Display", zone.DisplayName);
    ARegistry.ReadString(key, "Std", zone.StandardName);
    ARegistry.ReadString(key, "Dlt", zone.DaylightName);
    std::vector<uint8_t> tzi;
    if (ARegistry.ReadBinary(key, "TZI", tzi)) ParseRegTzi(tzi.data(), tzi.size(), zone.Tzi);
    FItems.push_back(std::move(zone));
  }
  detail::SortTimeZones(FItems);
}

int TTimeZones::FindTimeZoneIndex(const std::string& AKeyName) const {
  for (size_t i = 0; i < FItems.size(); ++i)
    if (CompareTextAscii(FItems[i].KeyName, AKeyName) == 0) return static_cast<int>(i);
  return -1;
}

bool TTimeZones::FindTimeZone(const std::string& AKeyName, TTimeZone& AZone) const {
  const int index = FindTimeZoneIndex(AKeyName);
  if (index >= 0) AZone = Item(index);
  return index >= 0;
}

int TTimeZones::FindTimeZoneByDisplayNameIndex(const std::string& ADisplayName) const {
  for (size_t i = 0; i < FItems.size(); ++i)
    if (CompareTextAscii(FItems[i].DisplayName, ADisplayName) == 0) return static_cast<int>(i);
  return -1;
}

bool TTimeZones::FindTimeZoneByDisplayName(const std::string& ADisplayName, TTimeZone& AZone) const {
  const int index = FindTimeZoneByDisplayNameIndex(ADisplayName);
  if (index >= 0) AZone = Item(index);
  return index >= 0;
}

std::string TimeZoneDisplayName(const std::string& AKeyName) {
  TTimeZones zones;
  zones.EnumTimeZones();
  TTimeZone zone;
  return zones.FindTimeZone(AKeyName, zone) ? zone.DisplayName : std::string();
}

int TimeZoneOffset(const TTimeZone* AZone) {
  if (AZone == nullptr) return detail::LocalOffsetNow();
  return TTziConverter(AZone->Tzi).OffsetMinutes(NowDays());
}

TTimeZoneInformation ZoneToTimeZoneInformation(const TTimeZone& AZone) {
  TTimeZoneInformation tzi;
  tzi.Bias = AZone.Tzi.Bias;
  tzi.StandardName = CutToUtf16Units(AZone.StandardName, 32);
  tzi.StandardDate = AZone.Tzi.StandardDate;
  tzi.StandardBias = AZone.Tzi.StandardBias;
  tzi.DaylightName = CutToUtf16Units(AZone.DaylightName, 32);
  tzi.DaylightDate = AZone.Tzi.DaylightDate;
  tzi.DaylightBias = AZone.Tzi.DaylightBias;
  return tzi;
}

// --- Conversion ---

double SystemTimeToDays(const TSystemTime& ATime) {
  const int64_t ms = DayNumber(ATime.wYear, ATime.wMonth, ATime.wDay) * MsPerDay + TimeOfDayMs(ATime);
  return static_cast<double>(ms) / MsPerDay;
}

TSystemTime DaysToSystemTime(double ADays) {
  // Clamped to what a SYSTEMTIME holds: 1601-01-01 to 30827-12-31.
  static const double Lowest = static_cast<double>(DayNumber(1601, 1, 1));
  static const double Highest = static_cast<double>(DayNumber(30828, 1, 1)) - 1.0 / MsPerDay;
  const double days = std::isnan(ADays) ? 0.0 : std::clamp(ADays, Lowest, Highest);
  const int64_t ms = std::llround(days * MsPerDay);
  const int64_t day = FloorDiv(ms, MsPerDay);
  int64_t rest = ms - day * MsPerDay, year = 0;
  unsigned month = 0, dayOfMonth = 0;
  CivilDate(day, year, month, dayOfMonth);
  TSystemTime t;
  t.wYear = static_cast<uint16_t>(year);
  t.wMonth = static_cast<uint16_t>(month);
  t.wDay = static_cast<uint16_t>(dayOfMonth);
  t.wDayOfWeek = static_cast<uint16_t>(WeekDay(day));
  t.wMilliseconds = static_cast<uint16_t>(rest % 1000);
  rest /= 1000;
  t.wSecond = static_cast<uint16_t>(rest % 60);
  rest /= 60;
  t.wMinute = static_cast<uint16_t>(rest % 60);
  t.wHour = static_cast<uint16_t>(rest / 60);
  return t;
}

bool SystemTimeToTzSpecificLocalTime(const TTimeZoneInformation* ATzi, const TSystemTime& AUtc,
                                     TSystemTime& ALocal) {
  TTimeZoneInformation local;
  if (ATzi == nullptr) {
    if (!LocalTimeZoneInformation(local)) return false;
    ATzi = &local;
  }
  const TRegTzi rule = RuleOf(*ATzi);
  if (!ValidSystemTime(AUtc) || !ValidRule(rule)) return false;
  ALocal = DaysToSystemTime(TTziConverter(rule).ToLocal(SystemTimeToDays(AUtc)));
  return true;
}

TTziConverter::TTziConverter(const TRegTzi& ARule)
    : FRule(ARule), FHasDaylight(HasDaylight(ARule) && ValidRule(ARule)) {}

TTziConverter::TTziConverter(const TTimeZoneInformation& ATzi) : TTziConverter(RuleOf(ATzi)) {}

int TTziConverter::OffsetMinutes(double AUtcDays) {
  if (!FHasDaylight || !(AUtcDays > -DayCountLimit && AUtcDays < DayCountLimit)) return -FRule.Bias;
  const int64_t ms = std::llround(AUtcDays * MsPerDay);
  if (ms < FYearBegin || ms >= FYearEnd) LoadYear(ms);
  const bool daylight = FDaylightStart < FDaylightEnd
                            ? ms >= FDaylightStart && ms < FDaylightEnd
                            : FDaylightStart > FDaylightEnd && (ms >= FDaylightStart || ms < FDaylightEnd);
  return -(FRule.Bias + (daylight ? FRule.DaylightBias : FRule.StandardBias));
}

// The rules take the year of local standard time; daylight starts at a local standard time
// and ends at a local daylight time. Start after end is a southern-hemisphere zone.
void TTziConverter::LoadYear(int64_t AUtcMs) {
  const int64_t standardBias = (int64_t{FRule.Bias} + FRule.StandardBias) * MsPerMinute;
  const int64_t daylightBias = (int64_t{FRule.Bias} + FRule.DaylightBias) * MsPerMinute;
  int64_t year = 0;
  unsigned month = 0, day = 0;
  CivilDate(FloorDiv(AUtcMs - standardBias, MsPerDay), year, month, day);
  FYearBegin = DayNumber(year, 1, 1) * MsPerDay + standardBias;
  FYearEnd = DayNumber(year + 1, 1, 1) * MsPerDay + standardBias;
  int64_t start = 0, end = 0;
  const bool hasStart = TransitionMs(FRule.DaylightDate, year, start);
  const bool hasEnd = TransitionMs(FRule.StandardDate, year, end);
  // An absolute date of another year does not happen in this one; neither happening means standard time.
  FDaylightStart = hasStart ? start + standardBias : hasEnd ? std::numeric_limits<int64_t>::min() : 0;
  FDaylightEnd = hasEnd ? end + daylightBias : hasStart ? std::numeric_limits<int64_t>::max() : 0;
}

} // namespace qvx
