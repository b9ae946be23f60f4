#include "descriptions/time_zones.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <random>
#include <utility>

namespace qvx {
namespace {

// --- Fixtures ---

TSystemTime Date(uint16_t AYear, uint16_t AMonth, uint16_t ADay, uint16_t AHour = 0, uint16_t AMinute = 0) {
  TSystemTime t;
  t.wYear = AYear;
  t.wMonth = AMonth;
  t.wDay = ADay;
  t.wHour = AHour;
  t.wMinute = AMinute;
  return t;
}

// An annual transition: occurrence AWeek (5 = last) of weekday ADayOfWeek (0 = Sunday) in AMonth.
TSystemTime Annual(uint16_t AMonth, uint16_t ADayOfWeek, uint16_t AWeek, uint16_t AHour) {
  TSystemTime t;
  t.wMonth = AMonth;
  t.wDayOfWeek = ADayOfWeek;
  t.wDay = AWeek;
  t.wHour = AHour;
  return t;
}

TTimeZoneInformation Tzi(int32_t ABias, int32_t ADaylightBias, TSystemTime AStandardDate,
                         TSystemTime ADaylightDate) {
  TTimeZoneInformation tzi;
  tzi.Bias = ABias;
  tzi.DaylightBias = ADaylightBias;
  tzi.StandardDate = AStandardDate;
  tzi.DaylightDate = ADaylightDate;
  return tzi;
}

const TTimeZoneInformation Pacific = Tzi(480, -60, Annual(11, 0, 1, 2), Annual(3, 0, 2, 2));
const TTimeZoneInformation WEurope = Tzi(-60, -60, Annual(10, 0, 5, 3), Annual(3, 0, 5, 2));
const TTimeZoneInformation AusEastern = Tzi(-600, -60, Annual(4, 0, 1, 3), Annual(10, 0, 1, 2));

// REG_TZI_FORMAT as the registry stores it.
std::vector<uint8_t> TziBytes(int32_t ABias, int32_t AStandardBias, int32_t ADaylightBias,
                              const TSystemTime& AStandardDate, const TSystemTime& ADaylightDate) {
  std::vector<uint8_t> out;
  auto put = [&](uint32_t AValue, int ABytes) {
    for (int i = 0; i < ABytes; ++i)
      out.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
  };
  auto putDate = [&](const TSystemTime& AT) {
    for (uint16_t field :
         {AT.wYear, AT.wMonth, AT.wDayOfWeek, AT.wDay, AT.wHour, AT.wMinute, AT.wSecond, AT.wMilliseconds})
      put(field, 2);
  };
  put(static_cast<uint32_t>(ABias), 4);         // 0: Bias
  put(static_cast<uint32_t>(AStandardBias), 4); // 4: StandardBias
  put(static_cast<uint32_t>(ADaylightBias), 4); // 8: DaylightBias
  putDate(AStandardDate);                       // 12: StandardDate
  putDate(ADaylightDate);                       // 28: DaylightDate
  return out;
}

class TFakeRegistry : public TTimeZoneRegistry {
public:
  void AddZone(const std::string& AKeyName, const std::string& ADisplay, std::vector<uint8_t> ATzi) {
    const std::string key = std::string(TimeZonesKey) + "\\" + AKeyName;
    FKeys[TimeZonesKey].push_back(AKeyName);
    FStrings[{key, "Display"}] = ADisplay;
    FStrings[{key, "Std"}] = AKeyName;
    FStrings[{key, "Dlt"}] = AKeyName + " (daylight)";
    FBinary[{key, "TZI"}] = std::move(ATzi);
  }

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override {
    auto it = FKeys.find(AKey);
    if (it == FKeys.end()) return false;
    ANames = it->second;
    return true;
  }
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override {
    auto it = FStrings.find({AKey, AName});
    if (it == FStrings.end()) return false;
    AValue = it->second;
    return true;
  }
  bool ReadBinary(const std::string& AKey, const std::string& AName,
                  std::vector<uint8_t>& AValue) const override {
    auto it = FBinary.find({AKey, AName});
    if (it == FBinary.end()) return false;
    AValue = it->second;
    return true;
  }

private:
  std::map<std::string, std::vector<std::string>> FKeys;
  std::map<std::pair<std::string, std::string>, std::string> FStrings;
  std::map<std::pair<std::string, std::string>, std::vector<uint8_t>> FBinary;
};

// "YYYY-MM-DD hh:mm" of the zone's local time for a UTC time.
std::string Local(const TTimeZoneInformation& ATzi, const TSystemTime& AUtc) {
  TSystemTime local;
  if (!SystemTimeToTzSpecificLocalTime(&ATzi, AUtc, local)) return "failed";
  char text[32];
  std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u", unsigned{local.wYear}, unsigned{local.wMonth},
                unsigned{local.wDay}, unsigned{local.wHour}, unsigned{local.wMinute});
  return text;
}

// --- The table read from a registry ---

TEST(TimeZoneTable, TziOfFortyBytesGivesZoneAtOffsetZero) {
  TFakeRegistry registry;
  TTimeZones none;
  none.EnumTimeZones(registry); // no Time Zones key
  EXPECT_EQ(none.Count(), 0);
  std::vector<uint8_t> tzi = TziBytes(-60, 0, -60, Annual(10, 0, 5, 3), Annual(3, 0, 5, 2));
  tzi.resize(40);
  registry.AddZone("Short", "(UTC+01:00) Short", tzi);
  TTimeZones zones;
  zones.EnumTimeZones(registry);
  ASSERT_EQ(zones.Count(), 1);
  EXPECT_EQ(zones.Item(0).Tzi.Bias, 0);
  EXPECT_EQ(zones.Item(0).Tzi.DaylightDate.wMonth, 0);
  EXPECT_EQ(TimeZoneOffset(&zones.Item(0)), 0);
}

TEST(TimeZoneTable, ReadsEveryFieldOfTheTzi) {
  TFakeRegistry registry;
  registry.AddZone("Pacific Standard Time", "(UTC-08:00) Pacific Time",
                   TziBytes(480, 0, -60, Annual(11, 0, 1, 2), Annual(3, 0, 2, 2)));
  TTimeZones zones;
  zones.EnumTimeZones(registry);
  TTimeZone zone;
  ASSERT_TRUE(zones.FindTimeZone("Pacific Standard Time", zone));
  EXPECT_EQ(zone.DisplayName, "(UTC-08:00) Pacific Time");
  EXPECT_EQ(zone.DaylightName, "Pacific Standard Time (daylight)");
  EXPECT_EQ(zone.Tzi.Bias, 480);
  EXPECT_EQ(zone.Tzi.DaylightBias, -60);
  EXPECT_EQ(zone.Tzi.StandardDate.wMonth, 11);
  EXPECT_EQ(zone.Tzi.DaylightDate.wDay, 2);
  EXPECT_EQ(zone.Tzi.DaylightDate.wHour, 2);
}

TEST(TimeZoneTable, SortsByBiasDescendingThenDisplayNameIgnoringCase) {
  TFakeRegistry registry;
  registry.AddZone("B", "(UTC+01:00) brussels", TziBytes(-60, 0, 0, {}, {}));
  registry.AddZone("T", "(UTC+09:00) Tokyo", TziBytes(-540, 0, 0, {}, {}));
  registry.AddZone("A", "(UTC+01:00) Amsterdam", TziBytes(-60, 0, 0, {}, {}));
  registry.AddZone("P", "(UTC-08:00) Pacific", TziBytes(480, 0, 0, {}, {}));
  registry.AddZone("C", "(UTC+01:00) Central", TziBytes(-60, 0, 0, {}, {}));
  TTimeZones zones;
  zones.EnumTimeZones(registry);
  std::vector<std::string> order;
  for (const TTimeZone& zone : zones.Items())
    order.push_back(zone.KeyName);
  EXPECT_EQ(order, (std::vector<std::string>{"P", "A", "B", "C", "T"}));
}

TEST(TimeZoneTable, FindsKeyAndDisplayNamesInOtherLetterCase) {
  TFakeRegistry registry;
  registry.AddZone("W. Europe Standard Time", "(UTC+01:00) Amsterdam, Berlin", TziBytes(-60, 0, -60, {}, {}));
  registry.AddZone("UTC", "(UTC) Coordinated Universal Time", TziBytes(0, 0, 0, {}, {}));
  TTimeZones zones;
  zones.EnumTimeZones(registry);
  EXPECT_EQ(zones.FindTimeZoneIndex("w. EUROPE standard time"), 1);
  EXPECT_EQ(zones.FindTimeZoneIndex("W. Europe"), -1);
  TTimeZone zone;
  EXPECT_TRUE(zones.FindTimeZoneByDisplayName("(utc) coordinated universal time", zone));
  EXPECT_EQ(zone.KeyName, "UTC");
  EXPECT_FALSE(zones.FindTimeZone("Mars Standard Time", zone));
}

TEST(TimeZoneTable, NamesForTheSystemStructureAreCutAt32Utf16Units) {
  TTimeZone zone;
  zone.StandardName = std::string(31, 'x') + "\xF0\x9F\x98\x80"; // the pair would be units 32 and 33
  zone.DaylightName = std::string(40, 'y');
  const TTimeZoneInformation tzi = ZoneToTimeZoneInformation(zone);
  EXPECT_EQ(tzi.StandardName, std::string(31, 'x'));
  EXPECT_EQ(tzi.DaylightName, std::string(32, 'y'));
}

// --- Conversion by the zone's rules ---

TEST(TziConversion, DaylightOffsetIncludesDaylightBias) {
  TTziConverter converter(WEurope);
  EXPECT_EQ(converter.OffsetMinutes(SystemTimeToDays(Date(2024, 7, 1, 12))), 120);
  EXPECT_EQ(converter.OffsetMinutes(SystemTimeToDays(Date(2024, 1, 15, 12))), 60);
}

// Rules that keep daylight time over the new year: from the first Wednesday of January
// (2025-01-01) to the last Tuesday of December (2024-12-31) 23:59:59.999.
TTimeZoneInformation OverTheNewYear() {
  TSystemTime end = Annual(12, 2, 5, 23);
  end.wMinute = end.wSecond = 59;
  end.wMilliseconds = 999;
  return Tzi(-60, -60, end, Annual(1, 3, 1, 0));
}

TEST(TziConversion, TransitionsAtTheExactMinute) {
  const TTimeZoneInformation absolute = Tzi(-60, -60, Date(2010, 10, 31, 3), Date(2010, 3, 28, 2));
  const TTimeZoneInformation newYear = OverTheNewYear();
  const struct {
    const char* What;
    const TTimeZoneInformation& Zone;
    TSystemTime Utc;
    const char* Expected;
  } cases[] = {
      {"US spring", Pacific, Date(2024, 3, 10, 9, 59), "2024-03-10 01:59"},
      {"US spring", Pacific, Date(2024, 3, 10, 10, 0), "2024-03-10 03:00"},
      {"US autumn", Pacific, Date(2024, 11, 3, 8, 59), "2024-11-03 01:59"},
      {"US autumn", Pacific, Date(2024, 11, 3, 9, 0), "2024-11-03 01:00"},
      {"EU spring", WEurope, Date(2024, 3, 31, 0, 59), "2024-03-31 01:59"},
      {"EU spring", WEurope, Date(2024, 3, 31, 1, 0), "2024-03-31 03:00"},
      {"EU autumn", WEurope, Date(2024, 10, 27, 0, 59), "2024-10-27 02:59"},
      {"EU autumn", WEurope, Date(2024, 10, 27, 1, 0), "2024-10-27 02:00"},
      // March 2023 has four Sundays (last the 26th), March 2024 five (last the 31st).
      {"last week of four", WEurope, Date(2023, 3, 26, 0, 59), "2023-03-26 01:59"},
      {"last week of four", WEurope, Date(2023, 3, 26, 1, 0), "2023-03-26 03:00"},
      {"fourth of five", WEurope, Date(2024, 3, 24, 1, 0), "2024-03-24 02:00"},
      {"southern summer", AusEastern, Date(2024, 1, 15, 0), "2024-01-15 11:00"},
      {"southern winter", AusEastern, Date(2024, 7, 15, 0), "2024-07-15 10:00"},
      {"southern autumn", AusEastern, Date(2024, 4, 6, 15, 59), "2024-04-07 02:59"},
      {"southern autumn", AusEastern, Date(2024, 4, 6, 16, 0), "2024-04-07 02:00"},
      {"southern spring", AusEastern, Date(2024, 10, 5, 15, 59), "2024-10-06 01:59"},
      {"southern spring", AusEastern, Date(2024, 10, 5, 16, 0), "2024-10-06 03:00"},
      {"southern new year", AusEastern, Date(2024, 12, 31, 13, 30), "2025-01-01 00:30"},
      // Absolute dates apply to their year only.
      {"absolute", absolute, Date(2010, 3, 28, 0, 59), "2010-03-28 01:59"},
      {"absolute", absolute, Date(2010, 3, 28, 1, 0), "2010-03-28 03:00"},
      {"absolute", absolute, Date(2010, 10, 31, 1, 0), "2010-10-31 02:00"},
      {"absolute, other year", absolute, Date(2011, 7, 1, 12), "2011-07-01 13:00"},
      // 23:30 UTC is 00:30 of 2025 in local standard time, so the 2025 rules apply.
      {"year of local standard time", newYear, Date(2024, 12, 31, 23, 30), "2025-01-01 01:30"},
      {"year of local standard time", newYear, Date(2024, 12, 31, 22, 30), "2024-12-31 23:30"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Local(c.Zone, c.Utc), c.Expected) << c.What;
}

TEST(TziConversion, CrossesMidnightMonthAndLeapDay) {
  const TTimeZoneInformation east = Tzi(-60, 0, {}, {});
  TSystemTime local;
  ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&east, Date(2024, 2, 28, 23, 30), local));
  EXPECT_EQ(Local(east, Date(2024, 2, 28, 23, 30)), "2024-02-29 00:30");
  EXPECT_EQ(local.wDayOfWeek, 4); // Thursday
  EXPECT_EQ(Local(Pacific, Date(2024, 3, 1, 3)), "2024-02-29 19:00");
  EXPECT_EQ(Local(AusEastern, Date(2023, 12, 31, 14)), "2024-01-01 01:00");
}

TEST(TziConversion, RejectsInvalidTimesAndMalformedRules) {
  TSystemTime local;
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&WEurope, Date(2023, 2, 29), local));
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&WEurope, Date(1600, 12, 31), local));
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&WEurope, Date(2024, 1, 1, 24), local));
  TTimeZoneInformation sixthSunday = WEurope;
  sixthSunday.DaylightDate.wDay = 6;
  EXPECT_FALSE(SystemTimeToTzSpecificLocalTime(&sixthSunday, Date(2024, 1, 1), local));
}

TEST(TziConversion, DayCountsRoundTripToTheMillisecond) {
  EXPECT_EQ(SystemTimeToDays(Date(1899, 12, 30)), 0.0);
  EXPECT_EQ(SystemTimeToDays(Date(1899, 12, 29, 18)), -0.25);
  TSystemTime t = Date(2024, 12, 31, 23, 59);
  t.wSecond = 59;
  t.wMilliseconds = 999;
  const TSystemTime back = DaysToSystemTime(SystemTimeToDays(t));
  EXPECT_EQ(back.wYear, 2024);
  EXPECT_EQ(back.wDay, 31);
  EXPECT_EQ(back.wMilliseconds, 999);
  EXPECT_EQ(back.wDayOfWeek, 2); // Tuesday
}

// --- The per-event converter ---

// Daylight time [start, end) of 2019-2026 in UTC, from the laws of each country.
struct TKnownYears {
  TTimeZoneInformation Tzi;
  std::vector<std::pair<TSystemTime, TSystemTime>> Daylight; // southern zones: end before start
  bool Southern;
};

int KnownOffset(const TKnownYears& AZone, double ADays) {
  const int standard = -AZone.Tzi.Bias, daylight = -(AZone.Tzi.Bias + AZone.Tzi.DaylightBias);
  for (const auto& [from, to] : AZone.Daylight) {
    const double a = SystemTimeToDays(from), b = SystemTimeToDays(to);
    if (!AZone.Southern && ADays >= a && ADays < b) return daylight;
    if (AZone.Southern && ADays >= b && ADays < a) return standard;
  }
  return AZone.Southern ? daylight : standard;
}

TEST(TziConverter, MatchesKnownTransitionsAndTheSystemRoutineOverYears) {
  const std::vector<TKnownYears> zones = {
      {Pacific,
       {{Date(2019, 3, 10, 10), Date(2019, 11, 3, 9)},
        {Date(2020, 3, 8, 10), Date(2020, 11, 1, 9)},
        {Date(2021, 3, 14, 10), Date(2021, 11, 7, 9)},
        {Date(2022, 3, 13, 10), Date(2022, 11, 6, 9)},
        {Date(2023, 3, 12, 10), Date(2023, 11, 5, 9)},
        {Date(2024, 3, 10, 10), Date(2024, 11, 3, 9)},
        {Date(2025, 3, 9, 10), Date(2025, 11, 2, 9)},
        {Date(2026, 3, 8, 10), Date(2026, 11, 1, 9)}},
       false},
      {WEurope,
       {{Date(2019, 3, 31, 1), Date(2019, 10, 27, 1)},
        {Date(2020, 3, 29, 1), Date(2020, 10, 25, 1)},
        {Date(2021, 3, 28, 1), Date(2021, 10, 31, 1)},
        {Date(2022, 3, 27, 1), Date(2022, 10, 30, 1)},
        {Date(2023, 3, 26, 1), Date(2023, 10, 29, 1)},
        {Date(2024, 3, 31, 1), Date(2024, 10, 27, 1)},
        {Date(2025, 3, 30, 1), Date(2025, 10, 26, 1)},
        {Date(2026, 3, 29, 1), Date(2026, 10, 25, 1)}},
       false},
      {AusEastern,
       {{Date(2019, 10, 5, 16), Date(2019, 4, 6, 16)},
        {Date(2020, 10, 3, 16), Date(2020, 4, 4, 16)},
        {Date(2021, 10, 2, 16), Date(2021, 4, 3, 16)},
        {Date(2022, 10, 1, 16), Date(2022, 4, 2, 16)},
        {Date(2023, 9, 30, 16), Date(2023, 4, 1, 16)},
        {Date(2024, 10, 5, 16), Date(2024, 4, 6, 16)},
        {Date(2025, 10, 4, 16), Date(2025, 4, 5, 16)},
        {Date(2026, 10, 3, 16), Date(2026, 4, 4, 16)}},
       true},
  };
  // Every 17 minutes from 2019-01-02 to 2026-12-30, in random order so the cached year keeps changing,
  // plus each transition and the minute before it.
  std::vector<double> instants;
  const double first = SystemTimeToDays(Date(2019, 1, 2)), last = SystemTimeToDays(Date(2026, 12, 30));
  for (int minutes = 0; first + minutes / 1440.0 < last; minutes += 17)
    instants.push_back(first + minutes / 1440.0);
  for (const TKnownYears& zone : zones)
    for (const auto& [from, to] : zone.Daylight)
      for (double d : {SystemTimeToDays(from), SystemTimeToDays(to)}) {
        instants.push_back(d);
        instants.push_back(d - 1.0 / 1440);
      }
  std::shuffle(instants.begin(), instants.end(), std::mt19937(42));
  for (const TKnownYears& zone : zones) {
    TTziConverter converter(zone.Tzi);
    int mismatches = 0;
    for (double utc : instants) {
      const int offset = converter.OffsetMinutes(utc);
      TSystemTime expected;
      ASSERT_TRUE(SystemTimeToTzSpecificLocalTime(&zone.Tzi, DaysToSystemTime(utc), expected));
      const TSystemTime local = DaysToSystemTime(converter.ToLocal(utc));
      if (offset != KnownOffset(zone, utc) || SystemTimeToDays(local) != SystemTimeToDays(expected))
        ++mismatches;
    }
    EXPECT_EQ(mismatches, 0) << "bias " << zone.Tzi.Bias;
  }
}

// --- The platform's table ---

TEST(PlatformTimeZones, HasCommonZonesWithWindowsRules) {
  TTimeZones zones;
  zones.EnumTimeZones();
  TTimeZone utc, pacific, europe, sydney;
  ASSERT_TRUE(zones.FindTimeZone("UTC", utc));
  ASSERT_TRUE(zones.FindTimeZone("Pacific Standard Time", pacific));
  ASSERT_TRUE(zones.FindTimeZone("W. Europe Standard Time", europe));
  ASSERT_TRUE(zones.FindTimeZone("AUS Eastern Standard Time", sydney));

  EXPECT_EQ(utc.Tzi.Bias, 0);
  EXPECT_EQ(utc.Tzi.StandardDate.wMonth, 0);
  EXPECT_EQ(utc.DisplayName, "(UTC) Coordinated Universal Time");

  auto expectRule = [](const TTimeZone& AZone, int32_t ABias, const TSystemTime& AStandard,
                       const TSystemTime& ADaylight) {
    SCOPED_TRACE(AZone.KeyName);
    EXPECT_EQ(AZone.Tzi.Bias, ABias);
    EXPECT_EQ(AZone.Tzi.StandardBias, 0);
    EXPECT_EQ(AZone.Tzi.DaylightBias, -60);
    for (auto [got, want] :
         {std::pair(AZone.Tzi.StandardDate, AStandard), std::pair(AZone.Tzi.DaylightDate, ADaylight)}) {
      EXPECT_EQ(got.wYear, 0);
      EXPECT_EQ(got.wMonth, want.wMonth);
      EXPECT_EQ(got.wDayOfWeek, want.wDayOfWeek);
      EXPECT_EQ(got.wDay, want.wDay);
      EXPECT_EQ(got.wHour, want.wHour);
      EXPECT_EQ(got.wMinute, 0);
    }
  };
  expectRule(pacific, 480, Pacific.StandardDate, Pacific.DaylightDate);
  expectRule(europe, -60, WEurope.StandardDate, WEurope.DaylightDate);
  expectRule(sydney, -600, AusEastern.StandardDate, AusEastern.DaylightDate);
  EXPECT_EQ(pacific.DisplayName.rfind("(UTC-08:00) ", 0), 0u) << pacific.DisplayName;
  EXPECT_EQ(sydney.DisplayName.rfind("(UTC+10:00) ", 0), 0u) << sydney.DisplayName;
  EXPECT_EQ(pacific.StandardName, "Pacific Standard Time");
  EXPECT_EQ(pacific.DaylightName, "Pacific Daylight Time");
}

TEST(PlatformTimeZones, RunsFromUtcMinus12ToUtcPlus14) {
  TTimeZones zones;
  zones.EnumTimeZones();
  ASSERT_GT(zones.Count(), 100);
  EXPECT_EQ(zones.Item(0).Tzi.Bias, 720);
  EXPECT_EQ(zones.Item(zones.Count() - 1).Tzi.Bias, -840);
  for (int i = 1; i < zones.Count(); ++i)
    EXPECT_GE(zones.Item(i - 1).Tzi.Bias, zones.Item(i).Tzi.Bias);
}

TEST(PlatformTimeZones, ComputersZoneIsInTheTable) {
  TTimeZones zones;
  zones.EnumTimeZones();
  EXPECT_GE(zones.FindTimeZoneIndex(CurrentTimeZoneKeyName()), 0) << CurrentTimeZoneKeyName();
  EXPECT_EQ(TimeZoneDisplayName("utc"), "(UTC) Coordinated Universal Time");
  EXPECT_EQ(TimeZoneDisplayName("Nowhere Standard Time"), "");
  TTimeZoneInformation local;
  EXPECT_TRUE(LocalTimeZoneInformation(local));
}

TEST(PlatformTimeZones, IanaNamesMapToTheWindowsZoneThatCoversThem) {
  EXPECT_EQ(WindowsZoneFromIana("Europe/Berlin"), "W. Europe Standard Time");
  EXPECT_EQ(WindowsZoneFromIana("europe/BERLIN"), "W. Europe Standard Time");
  EXPECT_EQ(WindowsZoneFromIana("America/Los_Angeles"), "Pacific Standard Time");
  EXPECT_EQ(WindowsZoneFromIana("US/Pacific"), "Pacific Standard Time"); // an alias
  EXPECT_EQ(WindowsZoneFromIana("Australia/Sydney"), "AUS Eastern Standard Time");
  EXPECT_EQ(WindowsZoneFromIana("Mars/Olympus_Mons"), "");
  EXPECT_EQ(WindowsZoneFromIana(""), "");
  EXPECT_EQ(WindowsZoneFromIana(std::string(100, 'a')), "");
}

} // namespace
} // namespace qvx
