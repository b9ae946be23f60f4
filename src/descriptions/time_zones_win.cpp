// The zone table and the computer's zone from the Windows registry and GetTimeZoneInformation.
#include "descriptions/time_zones.h"

#include "platform/utf16.h"

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

namespace qvx {
namespace {

constexpr REGSAM KeyReadAccess = 0x20019; // KEY_READ

std::wstring Wide(const std::string& AText) {
  const std::u16string wide = Utf8ToUtf16(AText);
  return std::wstring(wide.begin(), wide.end());
}

std::string Narrow(const wchar_t* AText, size_t ACount) {
  return Utf16ToUtf8(reinterpret_cast<const uint8_t*>(AText), ACount);
}

// A name field of TIME_ZONE_INFORMATION; NUL-terminated unless it fills all 32 units.
std::string Narrow(const WCHAR (&AText)[32]) {
  size_t count = 0;
  while (count < 32 && AText[count] != 0)
    ++count;
  return Narrow(AText, count);
}

class THklmKey {
public:
  explicit THklmKey(const std::string& APath) {
    const size_t skip = !APath.empty() && APath[0] == '\\' ? 1 : 0;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, Wide(APath.substr(skip)).c_str(), 0, KeyReadAccess, &FKey) !=
        ERROR_SUCCESS)
      FKey = nullptr;
  }
  ~THklmKey() {
    if (FKey != nullptr) RegCloseKey(FKey);
  }
  THklmKey(const THklmKey&) = delete;
  THklmKey& operator=(const THklmKey&) = delete;

  HKEY Handle() const { return FKey; }

  // The value's bytes when its type is one of the two given.
  bool Query(const std::string& AName, DWORD AType1, DWORD AType2, std::vector<uint8_t>& AData) const {
    if (FKey == nullptr) return false;
    const std::wstring name = Wide(AName);
    DWORD type = 0, size = 0;
    LSTATUS status = RegQueryValueExW(FKey, name.c_str(), nullptr, &type, nullptr, &size);
    while (status == ERROR_SUCCESS || status == ERROR_MORE_DATA) {
      AData.resize(size);
      status = RegQueryValueExW(FKey, name.c_str(), nullptr, &type, AData.data(), &size);
      if (status == ERROR_SUCCESS) {
        AData.resize(size);
        return type == AType1 || type == AType2;
      }
    }
    return false;
  }

private:
  HKEY FKey = nullptr;
};

class TLiveRegistry final : public TTimeZoneRegistry {
public:
  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override {
    THklmKey key(AKey);
    if (key.Handle() == nullptr) return false;
    wchar_t name[256]; // key names are at most 255 characters
    for (DWORD index = 0;; ++index) {
      DWORD length = 256;
      const LSTATUS status =
          RegEnumKeyExW(key.Handle(), index, name, &length, nullptr, nullptr, nullptr, nullptr);
      if (status == ERROR_SUCCESS)
        ANames.push_back(Narrow(name, length));
      else if (status != ERROR_MORE_DATA)
        return status == ERROR_NO_MORE_ITEMS;
    }
  }

  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override {
    std::vector<uint8_t> data;
    if (!THklmKey(AKey).Query(AName, REG_SZ, REG_EXPAND_SZ, data)) return false;
    size_t count = data.size() / 2;
    // The terminating NUL is stored by most writers but not all.
    while (count > 0 && data[2 * count - 2] == 0 && data[2 * count - 1] == 0)
      --count;
    AValue = Utf16ToUtf8(data.data(), count);
    return true;
  }

  bool ReadBinary(const std::string& AKey, const std::string& AName,
                  std::vector<uint8_t>& AValue) const override {
    return THklmKey(AKey).Query(AName, REG_BINARY, REG_BINARY, AValue);
  }
};

TSystemTime FromSystemTime(const SYSTEMTIME& ATime) {
  TSystemTime t;
  t.wYear = ATime.wYear;
  t.wMonth = ATime.wMonth;
  t.wDayOfWeek = ATime.wDayOfWeek;
  t.wDay = ATime.wDay;
  t.wHour = ATime.wHour;
  t.wMinute = ATime.wMinute;
  t.wSecond = ATime.wSecond;
  t.wMilliseconds = ATime.wMilliseconds;
  return t;
}

} // namespace

std::vector<TTimeZone> detail::PlatformTimeZones() {
  TTimeZones zones;
  zones.EnumTimeZones(TLiveRegistry());
  return zones.Items();
}

std::string CurrentTimeZoneKeyName() {
  std::string name;
  TLiveRegistry().ReadString("\\SYSTEM\\CurrentControlSet\\Control\\TimeZoneInformation", "TimeZoneKeyName",
                             name);
  return name;
}

// The system's ICU (icu.dll, Windows 10 version 1903 on) maps IANA names; its functions
// carry no version suffix there.
std::string WindowsZoneFromIana(const std::string& AIanaName) {
  if (AIanaName.empty() || AIanaName.size() > 64) return {};
  using TGetWindowsId = int32_t (*)(const wchar_t*, int32_t, wchar_t*, int32_t, int*);
  using TOpenZones = void* (*)(int*);
  using TNext = const wchar_t* (*)(void*, int32_t*, int*);
  using TClose = void (*)(void*);
  static const HMODULE icu = LoadLibraryExW(L"icu.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (!icu) return {};
  // Through void (*)(), which converts to any function pointer type without a warning.
  auto entry = [](const char* AName) { return reinterpret_cast<void (*)()>(GetProcAddress(icu, AName)); };
  const auto getWindowsId = reinterpret_cast<TGetWindowsId>(entry("ucal_getWindowsTimeZoneID"));
  const auto openZones = reinterpret_cast<TOpenZones>(entry("ucal_openTimeZones"));
  const auto next = reinterpret_cast<TNext>(entry("uenum_unext"));
  const auto close = reinterpret_cast<TClose>(entry("uenum_close"));
  if (!getWindowsId) return {};
  auto windowsId = [&](const wchar_t* AId, int32_t ALength) -> std::string {
    wchar_t key[128];
    int status = 0; // U_ZERO_ERROR; failures are positive
    const int32_t n = getWindowsId(AId, ALength, key, 128, &status);
    return status <= 0 && n > 0 && n < 128 ? Narrow(key, static_cast<size_t>(n)) : std::string();
  };
  const std::wstring name = Wide(AIanaName);
  if (std::string key = windowsId(name.c_str(), static_cast<int32_t>(name.size())); !key.empty()) return key;
  if (!openZones || !next || !close) return {};
  // The names are case-sensitive; people type "europe/berlin" too.
  int status = 0;
  void* zones = openZones(&status);
  if (!zones || status > 0) return {};
  std::string key;
  int32_t length = 0;
  while (const wchar_t* id = next(zones, &length, &status)) {
    if (status > 0) break;
    if (CompareStringOrdinal(id, length, name.c_str(), static_cast<int>(name.size()), TRUE) == CSTR_EQUAL) {
      key = windowsId(id, length);
      break;
    }
  }
  close(zones);
  return key;
}

bool LocalTimeZoneInformation(TTimeZoneInformation& ATzi) {
  TIME_ZONE_INFORMATION tzi{};
  if (GetTimeZoneInformation(&tzi) == TIME_ZONE_ID_INVALID) return false;
  ATzi.Bias = tzi.Bias;
  ATzi.StandardName = Narrow(tzi.StandardName);
  ATzi.StandardDate = FromSystemTime(tzi.StandardDate);
  ATzi.StandardBias = tzi.StandardBias;
  ATzi.DaylightName = Narrow(tzi.DaylightName);
  ATzi.DaylightDate = FromSystemTime(tzi.DaylightDate);
  ATzi.DaylightBias = tzi.DaylightBias;
  return true;
}

int detail::LocalOffsetNow() {
  TIME_ZONE_INFORMATION tzi{};
  switch (GetTimeZoneInformation(&tzi)) {
  case TIME_ZONE_ID_STANDARD:
    return -(tzi.Bias + tzi.StandardBias);
  case TIME_ZONE_ID_DAYLIGHT:
    return -(tzi.Bias + tzi.DaylightBias);
  case TIME_ZONE_ID_UNKNOWN:
    return -tzi.Bias;
  default:
    return 0;
  }
}

} // namespace qvx
