#include "imaged/hive_registry.h"

#include "imaged/imaged_pc.h"
#include "platform/file_names.h"

#include <filesystem>

namespace qvx {

namespace {

std::unique_ptr<TRegistryDirect> OpenHiveOf(const std::string& AWinDir, const char* AName) {
  std::string path = AWinDir;
  for (const char* part : {"System32", "config", AName}) {
    path.push_back('/');
    path.append(part);
  }
  path = NativeSeparators(path);
  TPathResolver paths;
  const std::string file = paths.ResolveFile(path);
  std::string message;
  if (file.empty()) {
    message = "registry file %s does not exist";
  } else {
    uint64_t size = 0;
    if (FileSizeOf(file, size) && size > 0x7FFFFFFF) message = "registry files %s is too large";
  }
  std::unique_ptr<TRegistryDirect> hive;
  if (message.empty()) {
    try {
      hive = std::make_unique<TRegistryDirect>();
    } catch (const std::runtime_error&) {
      throw EImagedPCException("unable initialize direct registy access");
    }
    if (!hive->OpenHive(file)) message = "unable to open registry file %s";
  }
  if (!message.empty()) throw EImagedPCException(message.replace(message.find("%s"), 2, path));
  return hive;
}

bool StartsNoCase(std::string_view AText, std::string_view APrefix) {
  return AText.size() >= APrefix.size() && detail::EqualsNoCase(AText.substr(0, APrefix.size()), APrefix);
}

} // namespace

THiveRegistry::THiveRegistry(const std::string& AWinDir) {
  std::lock_guard<std::mutex> lock(HiveLock());
  FSoftware = OpenHiveOf(AWinDir, "software");
  FSystem = OpenHiveOf(AWinDir, "system");
  FView = std::make_unique<THiveView>(*FSoftware, *FSystem);
}

THiveRegistry::~THiveRegistry() = default;

bool THiveRegistry::GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const {
  std::lock_guard<std::mutex> lock(HiveLock());
  return FView->GetKeyNames(AKey, ANames);
}

bool THiveRegistry::ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const {
  std::lock_guard<std::mutex> lock(HiveLock());
  return FView->ReadString(AKey, AName, AValue);
}

bool THiveRegistry::ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const {
  std::lock_guard<std::mutex> lock(HiveLock());
  return FView->ReadBinary(AKey, AName, AValue);
}

bool THiveRegistry::ReadStringValues(const std::string& AKey,
                                     std::vector<std::pair<std::string, std::string>>& AValues) const {
  std::lock_guard<std::mutex> lock(HiveLock());
  return FView->ReadStringValues(AKey, AValues);
}

TRegistryDirect* THiveView::Select(const std::string& AKey) const {
  if (FLastHive && AKey == FLastKey) return FLastHive;
  FLastHive = nullptr;
  std::string_view key = AKey;
  while (key.starts_with('\\')) key.remove_prefix(1);
  TRegistryDirect* hive = nullptr;
  std::string path = "\\";
  if (StartsNoCase(key, "SOFTWARE") && (key.size() == 8 || key[8] == '\\')) {
    hive = &FSoftware;
    path.append(key.substr(8));
  } else if (StartsNoCase(key, "SYSTEM") && (key.size() == 6 || key[6] == '\\')) {
    hive = &FSystem;
    std::string_view rest = key.substr(6);
    if (StartsNoCase(rest, "\\CurrentControlSet") && (rest.size() == 18 || rest[18] == '\\')) {
      path.append("ControlSet001");
      rest.remove_prefix(18);
    }
    path.append(rest);
  }
  if (!hive || !hive->HiveOpen()) return nullptr;
  if (path == "\\")
    hive->CloseKey();
  else if (!hive->OpenKey(path))
    return nullptr;
  FLastKey = AKey;
  FLastHive = hive;
  return hive;
}

bool THiveView::GetKeyNames(const std::string& AKey, std::vector<std::string>& ANames) const {
  ANames.clear();
  TRegistryDirect* hive = Select(AKey);
  if (!hive) return false;
  hive->GetKeyNames(ANames);
  return true;
}

bool THiveView::ReadString(const std::string& AKey, const std::string& AName, std::string& AValue) const {
  AValue.clear();
  TRegistryDirect* hive = Select(AKey);
  return hive && hive->TryReadString(AName, AValue);
}

bool THiveView::ReadBinary(const std::string& AKey, const std::string& AName, std::vector<uint8_t>& AValue) const {
  AValue.clear();
  TRegistryDirect* hive = Select(AKey);
  return hive && hive->ReadBinary(AName, AValue);
}

bool THiveView::ReadStringValues(const std::string& AKey,
                                 std::vector<std::pair<std::string, std::string>>& AValues) const {
  AValues.clear();
  TRegistryDirect* hive = Select(AKey);
  if (!hive) return false;
  std::vector<std::string> names;
  hive->GetValueNames(names);
  for (const std::string& name : names) {
    std::string value;
    if (hive->TryReadString(name, value)) AValues.emplace_back(name, std::move(value));
  }
  return true;
}

} // namespace qvx
