#include "support/memory_registry.h"

#include <algorithm>

namespace qvx::test {

namespace {

std::string Normal(std::string_view AKey) {
  while (AKey.starts_with('\\')) AKey.remove_prefix(1);
  while (AKey.ends_with('\\')) AKey.remove_suffix(1);
  std::string key(AKey);
  for (char& c : key)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return key;
}

bool SameName(const std::string& A, const std::string& B) { return Normal(A) == Normal(B); }

} // namespace

void TMemoryRegistry::PutKey(const std::string& AKey) {
  std::string_view rest = AKey;
  while (rest.starts_with('\\')) rest.remove_prefix(1);
  std::string path;
  while (!rest.empty()) {
    const size_t slash = rest.find('\\');
    const std::string name(rest.substr(0, slash));
    TKey& parent = FKeys[Normal(path)];
    const std::string child = path.empty() ? name : path + "\\" + name;
    if (FKeys.find(Normal(child)) == FKeys.end()) {
      parent.Subkeys.push_back(name);
      FKeys[Normal(child)];
    }
    path = child;
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  }
}

void TMemoryRegistry::PutString(const std::string& AKey, const std::string& AName, const std::string& AValue) {
  PutKey(AKey);
  auto& strings = FKeys[Normal(AKey)].Strings;
  const auto known = std::find_if(strings.begin(), strings.end(), [&](const auto& A) { return SameName(A.first, AName); });
  if (known != strings.end())
    known->second = AValue;
  else
    strings.emplace_back(AName, AValue);
}

void TMemoryRegistry::PutBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t> AValue) {
  PutKey(AKey);
  FKeys[Normal(AKey)].Binaries.emplace_back(AName, std::move(AValue));
}

void TMemoryRegistry::CopyFrom(const TComputerRegistry& AFrom, const std::string& AKey, std::string AAs, int ADepth) {
  if (AAs.empty()) AAs = AKey;
  std::vector<std::pair<std::string, std::string>> values;
  if (!AFrom.ReadStringValues(AKey, values)) return;
  PutKey(AAs);
  for (const auto& [name, value] : values) PutString(AAs, name, value);
  std::vector<uint8_t> tzi;
  if (AFrom.ReadBinary(AKey, "TZI", tzi)) PutBinary(AAs, "TZI", std::move(tzi));
  std::vector<std::string> subkeys;
  if (ADepth <= 0 || !AFrom.GetKeyNames(AKey, subkeys)) return;
  for (const std::string& name : subkeys) CopyFrom(AFrom, AKey + "\\" + name, AAs + "\\" + name, ADepth - 1);
}

const TMemoryRegistry::TKey* TMemoryRegistry::Find(const std::string& AKey) const {
  const auto known = FKeys.find(Normal(AKey));
  return known == FKeys.end() ? nullptr : &known->second;
}

bool TMemoryRegistry::GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const {
  ANames.clear();
  const TKey* key = Find(AKey);
  if (key) ANames = key->Subkeys;
  return key != nullptr;
}

bool TMemoryRegistry::ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const {
  AValue.clear();
  const TKey* key = Find(AKey);
  if (!key) return false;
  for (const auto& [name, value] : key->Strings)
    if (SameName(name, AName)) {
      AValue = value;
      return true;
    }
  return false;
}

bool TMemoryRegistry::ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const {
  AValue.clear();
  const TKey* key = Find(AKey);
  if (!key) return false;
  for (const auto& [name, value] : key->Binaries)
    if (SameName(name, AName)) {
      AValue = value;
      return true;
    }
  return false;
}

bool TMemoryRegistry::ReadStringValues(const std::string& AKey,
                                       std::vector<std::pair<std::string, std::string>>& AValues) const {
  AValues.clear();
  const TKey* key = Find(AKey);
  if (key) AValues = key->Strings;
  return key != nullptr;
}

} // namespace qvx::test
