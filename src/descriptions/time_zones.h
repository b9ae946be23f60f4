// Time zones: the table of zones Windows knows, and UTC-to-local conversion by their rules.
//
// Each zone comes with a rule in the registry's REG_TZI_FORMAT (value "TZI"):
//   offset  size  field
//        0     4  Bias          int32, minutes, UTC = local + Bias
//        4     4  StandardBias  int32, added to Bias in standard time
//        8     4  DaylightBias  int32, added to Bias in daylight time
//       12    16  StandardDate  SYSTEMTIME (8 x u16), when standard time starts
//       28    16  DaylightDate  SYSTEMTIME, when daylight time starts
// A transition date with wYear == 0 recurs every year: wMonth, wDayOfWeek (0 = Sunday),
// wDay = occurrence 1..5 of that weekday in the month (5 = the last), wHour:wMinute:wSecond.
// With wYear != 0 it is an absolute date of that year only. wMonth == 0 means no daylight time.
//
// The table comes from the registry on Windows and is derived from ICU elsewhere; a
// TTimeZoneRegistry lets the same reading run over an offline SOFTWARE hive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

struct TSystemTime {
  uint16_t wYear = 0, wMonth = 0, wDayOfWeek = 0, wDay = 0, wHour = 0, wMinute = 0, wSecond = 0,
           wMilliseconds = 0;
};

struct TRegTzi {
  int32_t Bias = 0, StandardBias = 0, DaylightBias = 0;
  TSystemTime StandardDate, DaylightDate;
};

constexpr size_t RegTziSize = 44;

// Reads a "TZI" value. False, with ATzi all zeros, unless ASize is exactly RegTziSize.
bool ParseRegTzi(const uint8_t* AData, size_t ASize, TRegTzi& ATzi);

// Windows' TIME_ZONE_INFORMATION with UTF-8 names.
struct TTimeZoneInformation {
  int32_t Bias = 0;
  std::string StandardName;
  TSystemTime StandardDate;
  int32_t StandardBias = 0;
  std::string DaylightName;
  TSystemTime DaylightDate;
  int32_t DaylightBias = 0;
};

struct TTimeZone {
  std::string KeyName, DisplayName, StandardName, DaylightName;
  TRegTzi Tzi;
};

// Where a zone table is read from: the live registry, an offline SOFTWARE hive or a test
// double. Keys are full paths as in the registry, e.g.
// "\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Time Zones". Each read answers false when
// the key or value is missing or of another type.
class TTimeZoneRegistry {
public:
  virtual ~TTimeZoneRegistry() = default;
  virtual bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const = 0;
  virtual bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const = 0;
  virtual bool ReadBinary(const std::string& AKey, const std::string& AName,
                          std::vector<uint8_t>& AValue) const = 0;
};

extern const char* const TimeZonesKey; // "\SOFTWARE\Microsoft\Windows NT\CurrentVersion\Time Zones"

class TTimeZones {
public:
  // The platform's table: the registry on Windows, ICU elsewhere. Read once per process and
  // copied afterwards; a table that could not be read stays empty for the process.
  void EnumTimeZones();
  // The table under TimeZonesKey of ARegistry; empty when the key cannot be listed. A zone
  // whose "TZI" is not exactly 44 bytes is kept with a zero rule (UTC, no daylight time).
  void EnumTimeZones(const TTimeZoneRegistry& ARegistry);

  int Count() const { return static_cast<int>(FItems.size()); }
  const TTimeZone& Item(int AIndex) const { return FItems.at(static_cast<size_t>(AIndex)); }
  const std::vector<TTimeZone>& Items() const { return FItems; }

  // First zone whose key (display) name equals the argument without regard to ASCII case; -1 when none.
  int FindTimeZoneIndex(const std::string& AKeyName) const;
  bool FindTimeZone(const std::string& AKeyName, TTimeZone& AZone) const;
  int FindTimeZoneByDisplayNameIndex(const std::string& ADisplayName) const;
  bool FindTimeZoneByDisplayName(const std::string& ADisplayName, TTimeZone& AZone) const;

private:
  std::vector<TTimeZone> FItems;
};

// Display name of a zone of the platform's table; "" when the key is unknown.
std::string TimeZoneDisplayName(const std::string& AKeyName);

// Key name of the computer's zone ("W. Europe Standard Time"). Windows: "" when the registry
// value cannot be read. Elsewhere: ICU's default zone (TZ, /etc/localtime) mapped to its
// Windows name; "UTC" when it has none.
std::string CurrentTimeZoneKeyName();

// The Windows key name of an IANA zone name as CLDR maps them ("Europe/Berlin" and
// "europe/berlin" give "W. Europe Standard Time"); "" when the name is not a zone the
// system knows, or the system cannot map names (Windows before 10 version 1903).
std::string WindowsZoneFromIana(const std::string& AIanaName);

// Local time minus UTC in minutes, now. A null zone means the computer's zone (0 when that
// cannot be determined); a zone with an invalid rule gives -Bias.
int TimeZoneOffset(const TTimeZone* AZone);

// Names are cut to 32 UTF-16 code units (never inside a surrogate pair).
TTimeZoneInformation ZoneToTimeZoneInformation(const TTimeZone& AZone);

// The computer's zone. False when the system cannot tell.
bool LocalTimeZoneInformation(TTimeZoneInformation& ATzi);

// Windows' SystemTimeToTzSpecificLocalTime: null ATzi means the computer's zone (read on every
// call; use TTziConverter per event). False when AUtc is not a valid date from 1601 to 30827
// or a transition date of ATzi is malformed; ALocal is then unchanged. Without daylight rules
// only Bias applies.
bool SystemTimeToTzSpecificLocalTime(const TTimeZoneInformation* ATzi, const TSystemTime& AUtc,
                                     TSystemTime& ALocal);

// Day counts: days since 1899-12-30, fraction = time of day. The count is linear, so -0.25 is
// 1899-12-29 18:00 (not the OLE reading). DaysToSystemTime rounds to the millisecond, sets
// wDayOfWeek and clamps to 1601-01-01 .. 30827-12-31 (NaN gives 1899-12-30); SystemTimeToDays
// does not check its argument.
double SystemTimeToDays(const TSystemTime& ATime);
TSystemTime DaysToSystemTime(double ADays);

// Per-event conversion for one zone, with the same results as SystemTimeToTzSpecificLocalTime.
// Keeps the transition instants of the last year it saw. A malformed rule is applied as Bias only.
class TTziConverter {
public:
  explicit TTziConverter(const TRegTzi& ARule);
  explicit TTziConverter(const TTimeZoneInformation& ATzi);
  double ToLocal(double AUtcDays) { return AUtcDays + OffsetMinutes(AUtcDays) / 1440.0; }
  int OffsetMinutes(double AUtcDays); // local minus UTC at that instant

private:
  void LoadYear(int64_t AUtcMs);

  TRegTzi FRule;
  bool FHasDaylight = false;
  // UTC milliseconds since 1899-12-30: the span of the cached year (in local standard time)
  // and its daylight start and end (INT64_MIN/INT64_MAX for a transition that year lacks, both
  // 0 when it has neither).
  int64_t FYearBegin = 0, FYearEnd = 0, FDaylightStart = 0, FDaylightEnd = 0;
};

namespace detail {
// Larger Bias first, equal Bias by display name without regard to ASCII case.
void SortTimeZones(std::vector<TTimeZone>& AZones);
// Provided by time_zones_win.cpp or time_zones_icu.cpp.
std::vector<TTimeZone> PlatformTimeZones(); // unsorted
int LocalOffsetNow();                       // minutes, 0 when unknown
} // namespace detail

} // namespace qvx
