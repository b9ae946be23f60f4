// THiveTimeZoneRegistry: the time zone table of an offline computer, read from its SOFTWARE hive.
#pragma once

#include <string>
#include <vector>

#include "descriptions/time_zones.h"
#include "imaged/registry_direct.h"

namespace qvx {

// Answers TTimeZoneRegistry reads from a SOFTWARE hive open in AHive. Keys must lie under
// "\SOFTWARE" (any case), which names the hive's root; any other key is missing. Each read
// moves AHive's current key; the object does not own AHive, which must outlive it.
class THiveTimeZoneRegistry : public TTimeZoneRegistry {
public:
  explicit THiveTimeZoneRegistry(TRegistryDirect& AHive) : FHive(AHive) {}

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override;
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override;
  bool ReadBinary(const std::string& AKey, const std::string& AName,
                  std::vector<uint8_t>& AValue) const override;

private:
  // Makes AKey the hive's current key; false when it is not under \SOFTWARE or missing.
  bool Select(const std::string& AKey) const;

  TRegistryDirect& FHive;
};

} // namespace qvx
