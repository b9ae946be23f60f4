// A registry held in memory: keys and values put by a test, or copied from another
// registry (an installation's hives), so an imaged computer can be activated as the live
// system is, from a registry that is not a hive file.
#pragma once

#include "descriptions/message_files.h"

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace qvx::test {

class TMemoryRegistry : public TComputerRegistry {
public:
  // Creates AKey (full path below HKEY_LOCAL_MACHINE, "\"-separated) and its parents.
  void PutKey(const std::string& AKey);
  // Sets a text value of AKey (created); "" names the default value.
  void PutString(const std::string& AKey, const std::string& AName, const std::string& AValue);
  void PutBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t> AValue);
  // Copies AFrom's key AKey with every subkey, text value and "TZI" binary below it to
  // AAs (default: the same path), at most ADepth levels deep.
  void CopyFrom(const TComputerRegistry& AFrom, const std::string& AKey, std::string AAs = {}, int ADepth = 12);

  bool GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const override;
  bool ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const override;
  bool ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const override;
  bool ReadStringValues(const std::string& AKey,
                        std::vector<std::pair<std::string, std::string>>& AValues) const override;

private:
  struct TKey {
    std::vector<std::string> Subkeys; // in creation order, names as given
    std::vector<std::pair<std::string, std::string>> Strings;
    std::vector<std::pair<std::string, std::vector<uint8_t>>> Binaries;
  };
  const TKey* Find(const std::string& AKey) const;
  std::map<std::string, TKey> FKeys; // lower-case path without leading "\" -> key
};

} // namespace qvx::test
