#include "imaged/hive_time_zones.h"

#include <cctype>

namespace qvx {

namespace {

constexpr char SoftwareRoot[] = "\\SOFTWARE";
constexpr size_t SoftwareRootLength = sizeof(SoftwareRoot) - 1;

bool StartsWithSoftware(const std::string& AKey) {
  if (AKey.size() < SoftwareRootLength) return false;
  for (size_t i = 0; i < SoftwareRootLength; ++i)
    if (std::toupper(static_cast<unsigned char>(AKey[i])) != SoftwareRoot[i]) return false;
  return AKey.size() == SoftwareRootLength || AKey[SoftwareRootLength] == '\\';
}

} // namespace

bool THiveTimeZoneRegistry::Select(const std::string& AKey) const {
  FHive.CloseKey();
  if (!FHive.HiveOpen() || !StartsWithSoftware(AKey)) return false;
  std::string rest = AKey.substr(SoftwareRootLength);
  // "\SOFTWARE" itself is the root, which OpenKey does not open.
  if (rest.find_first_not_of('\\') == std::string::npos) return true;
  return FHive.OpenKey(rest);
}

bool THiveTimeZoneRegistry::GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const {
  ANames.clear();
  if (!Select(AKey)) return false;
  FHive.GetKeyNames(ANames);
  return true;
}

bool THiveTimeZoneRegistry::ReadString(const std::string& AKey, const std::string& AName,
                                       std::string& AValue) const {
  AValue.clear();
  return Select(AKey) && FHive.TryReadString(AName, AValue);
}

bool THiveTimeZoneRegistry::ReadBinary(const std::string& AKey, const std::string& AName,
                                       std::vector<uint8_t>& AValue) const {
  AValue.clear();
  return Select(AKey) && FHive.ReadBinary(AName, AValue);
}

} // namespace qvx
