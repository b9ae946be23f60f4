#include "imaged/imaged_pc.h"

#include "descriptions/format_message.h"
#include "imaged/hive_registry.h"
#include "platform/file_names.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

namespace qvx {

namespace {

#ifdef _WIN32
constexpr char kSeparator = '\\';
#else
constexpr char kSeparator = '/';
#endif

constexpr uint64_t kMaxHiveSize = 0x7FFFFFFF;
constexpr const char* kPublishersKey = "\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers";
constexpr const char* kPublishers32Key = "\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers";
constexpr const char* kChannelsKey = "\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels";
constexpr const char* kChannels32Key = "\\Wow6432Node\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Channels";
constexpr const char* kProfileListKey = "\\Microsoft\\Windows NT\\CurrentVersion\\ProfileList";
constexpr const char* kWindowsNtKey = "\\Microsoft\\Windows NT\\CurrentVersion";
constexpr const char* kWindowsKey = "\\Microsoft\\Windows\\CurrentVersion";
// The hives' own keys lie below these; a hive view reads "CurrentControlSet" as ControlSet001.
constexpr const char* kSoftware = "\\SOFTWARE";
constexpr const char* kEventLogKey = "\\SYSTEM\\CurrentControlSet\\Services\\EventLog";

std::string Lower(std::string_view AText) {
  std::string lower(AText);
  for (char& c : lower) c = detail::LowerAscii(c);
  return lower;
}

bool IsSeparator(char c) { return c == '\\' || c == '/'; }

// A value's files: semicolons read as commas, split at commas.
std::vector<std::string> SplitValueFiles(const std::string& AData) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= AData.size()) {
    size_t end = AData.find_first_of(";,", start);
    if (end == std::string::npos) end = AData.size();
    if (end > start) parts.push_back(AData.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

void AddFileLines(TSourceProperties& AProperties, const std::string& AName, const std::string& AData) {
  for (const std::string& part : SplitValueFiles(AData)) {
    std::string line = AName;
    line.push_back('=');
    line.append(part);
    AProperties.push_back(std::move(line));
  }
}

std::string Message(const char* AFormat, const std::string& APath) {
  std::string text(AFormat);
  const size_t at = text.find("%s");
  if (at != std::string::npos) text.replace(at, 2, APath);
  return text;
}

} // namespace

std::mutex& HiveLock() {
  static std::mutex lock;
  return lock;
}

TImagedPC::TImagedPC() : FProviders(std::make_unique<TGuidProviders>()) {
  try {
    FSoftware = std::make_unique<TRegistryDirect>();
    FSystem = std::make_unique<TRegistryDirect>();
  } catch (const std::runtime_error&) {
    FSoftware.reset();
    FSystem.reset();
  }
}

TImagedPC::~TImagedPC() = default;

void TImagedPC::SetMapping(const std::string& AWinDir) {
  std::string dir = AWinDir;
  while (dir.size() > 1 && IsSeparator(dir.back())) dir.pop_back();
  FMapWinDir = dir;
  const size_t slash = dir.find_last_of("\\/");
  FRootFolder = slash == std::string::npos ? std::string() : dir.substr(0, slash);
  FSystem32 = dir;
  FSystem32.push_back(kSeparator);
  FSystem32.append("System32");
}

std::string TImagedPC::LogsLocation() const {
  std::string path = FSystem32;
  path.push_back(kSeparator);
  path.append("winevt");
  path.push_back(kSeparator);
  path.append("Logs");
  return path;
}

bool TImagedPC::IsFileName(const std::string& AValueName) {
  const std::string name = Lower(AValueName);
  return name == "eventmessagefile" || name == "categorymessagefile" || name == "parametermessagefile";
}

void TImagedPC::SetActive(bool AValue) {
  if (AValue == FActive) return;
  if (AValue)
    Activate();
  else
    Deactivate();
}

void TImagedPC::OpenHiveFile(TRegistryDirect& AReader, const char* AName) {
  std::string path = FSystem32;
  path.push_back(kSeparator);
  path.append("config");
  path.push_back(kSeparator);
  path.append(AName);
  const std::string file = FMessageFiles.Paths().ResolveFile(path);
  if (file.empty()) throw EImagedPCException(Message("registry file %s does not exist", path));
  uint64_t size = 0;
  const bool sized = FileSizeOf(file, size);
  if (sized && size > kMaxHiveSize) throw EImagedPCException(Message("registry files %s is too large", path));
  if (!sized || !AReader.OpenHive(file)) throw EImagedPCException(Message("unable to open registry file %s", path));
}

void TImagedPC::Activate() {
  if (FMapWinDir.empty()) return;
  if (!FSoftware || !FSystem) throw EImagedPCException("unable initialize direct registy access");
  std::lock_guard<std::mutex> lock(HiveLock());
  FMessageFiles.Paths().Clear();

  struct TCloser {
    TRegistryDirect& Hive;
    ~TCloser() { Hive.CloseHive(); }
  };
  OpenHiveFile(*FSoftware, "software");
  TCloser softwareCloser{*FSoftware};
  OpenHiveFile(*FSystem, "system");
  TCloser systemCloser{*FSystem};
  ReadFrom(THiveView(*FSoftware, *FSystem), {});
}

void TImagedPC::ActivateFrom(const TComputerRegistry& ARegistry, const TNameValueList& AVariables) {
  if (FActive) Deactivate();
  if (FMapWinDir.empty()) return;
  FMessageFiles.Paths().Clear();
  ReadFrom(ARegistry, AVariables);
}

void TImagedPC::ReadFrom(const TComputerRegistry& ARegistry, const TNameValueList& AVariables) {
  const std::string ntKey = std::string(kSoftware) + kWindowsNtKey;
  FInstallationDrive.clear();
  std::string root;
  if (ARegistry.ReadString(ntKey, "SystemRoot", root) && root.size() >= 2 && root[1] == ':')
    FInstallationDrive = root.substr(0, 2);
  ARegistry.ReadString(ntKey, "ProductName", FProductName);
  ARegistry.ReadString(ntKey, "CurrentBuildNumber", FCurrentBuild);
  ARegistry.ReadString(ntKey, "DisplayVersion", FDisplayVersion);
  ReadFoldersMapping(ARegistry);
  for (const auto& [name, folder] : AVariables)
    if (!name.empty() && !folder.empty()) FFoldersMapping.emplace_back(Lower(name), folder);
  ReadPublishers(ARegistry, std::string(kSoftware) + kPublishersKey);
  ReadPublishers(ARegistry, std::string(kSoftware) + kPublishers32Key);
  ReadChannels(ARegistry, std::string(kSoftware) + kChannelsKey);
  ReadChannels(ARegistry, std::string(kSoftware) + kChannels32Key);
  ReadUsers(ARegistry);
  FTimeZones.EnumTimeZones(ARegistry);
  ReadClassicSources(ARegistry);
  FMessageFiles.SetUILanguages(ReadUILanguages(ARegistry));

  F64Bit = false;
  for (const auto& [name, folder] : FFoldersMapping)
    if (name == "%programfiles(x86)%" && !folder.empty()) F64Bit = true;
  FMessageFiles.SysWow64Retry = F64Bit;
  FActive = true;
}

void TImagedPC::ReadFoldersMapping(const TComputerRegistry& ARegistry) {
  FFoldersMapping.clear();
  FFoldersMapping.emplace_back("%systemdrive%", FRootFolder);
  FFoldersMapping.emplace_back("%systemroot%", FMapWinDir);
  FFoldersMapping.emplace_back("%windir%", FMapWinDir);
  if (!FInstallationDrive.empty()) FFoldersMapping.emplace_back(FInstallationDrive, FRootFolder);
  const std::string key = std::string(kSoftware) + kWindowsKey;
  auto add = [&](const char* AVariable, const char* AValue, const char* AFallback) {
    std::string value;
    ARegistry.ReadString(key, AValue, value);
    if (value.empty() && AFallback) ARegistry.ReadString(key, AFallback, value);
    if (value.empty()) return;
    if (!FInstallationDrive.empty()) {
      const std::string lower = Lower(value);
      const size_t at = lower.find(Lower(FInstallationDrive));
      if (at != std::string::npos) value.replace(at, FInstallationDrive.size(), FRootFolder);
    }
    FFoldersMapping.emplace_back(AVariable, std::move(value));
  };
  add("%programfiles%", "ProgramFiles", "ProgramFilesDir");
  add("%programfiles(x86)%", "ProgramFiles (x86)", "ProgramFilesDir (x86)");
  add("%programw6432%", "ProgramW6432Dir", nullptr);
  add("%commonprogramfiles%", "CommonFilesDir", nullptr);
  add("%commonprogramfiles(x86)%", "CommonFilesDir (x86)", nullptr);
  add("%commonprogramw6432%", "CommonW6432Dir", nullptr);
}

void TImagedPC::ReadPublishers(const TComputerRegistry& ARegistry, const std::string& AKey) {
  std::vector<std::string> guids;
  if (!ARegistry.GetKeyNames(AKey, guids)) return;
  TNameValueList values;
  for (const std::string& guid : guids) {
    std::string key = AKey;
    key.push_back('\\');
    key.append(guid);
    if (!ARegistry.ReadStringValues(key, values)) continue;
    std::string name;
    ARegistry.ReadString(key, "", name);
    FPublishers.emplace_back(guid, name);
    TSourceProperties properties;
    std::string line = "GUID=";
    line.append(guid);
    properties.push_back(std::move(line));
    for (const auto& [value, data] : values) {
      if (value.empty() || data.empty()) continue;
      std::string renamed = value;
      if (value == "MessageFileName") renamed = "EventMessageFile";
      else if (value == "ResourceFileName") renamed = "CategoryMessageFile";
      else if (value == "ParameterFileName") renamed = "ParameterMessageFile";
      AddFileLines(properties, renamed, data);
    }
    // The 32-bit view repeats publishers of the native one: the first list stays.
    FPublisherProperties.AddProperties(name, std::move(properties));
  }
}

void TImagedPC::ReadChannels(const TComputerRegistry& ARegistry, const std::string& AKey) {
  std::vector<std::string> channels;
  if (!ARegistry.GetKeyNames(AKey, channels)) return;
  for (const std::string& channel : channels) {
    std::string key = AKey;
    key.push_back('\\');
    key.append(channel);
    std::string owner;
    ARegistry.ReadString(key, "OwningPublisher", owner);
    FChannels.emplace_back(channel, owner);
  }
  std::stable_sort(FChannels.begin(), FChannels.end(),
                   [](const auto& A, const auto& B) { return Lower(A.first) < Lower(B.first); });
}

void TImagedPC::ReadUsers(const TComputerRegistry& ARegistry) {
  const std::string listKey = std::string(kSoftware) + kProfileListKey;
  std::vector<std::string> sids;
  if (!ARegistry.GetKeyNames(listKey, sids)) return;
  for (const std::string& sid : sids) {
    // Short well-known identifiers (S-1-5-18 and the like) are not users.
    if (std::count(sid.begin(), sid.end(), '-') < 4) continue;
    std::string key = listKey;
    key.push_back('\\');
    key.append(sid);
    std::vector<std::string> subkeys;
    if (!ARegistry.GetKeyNames(key, subkeys)) continue;
    std::string path;
    ARegistry.ReadString(key, "ProfileImagePath", path);
    const size_t slash = path.find_last_of("\\/");
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    FUserSIDS.AddUserName(sid, name);
    FUsers.emplace_back(sid, name);
  }
}

void TImagedPC::ReadClassicSources(const TComputerRegistry& ARegistry) {
  std::vector<std::string> logs;
  if (!ARegistry.GetKeyNames(kEventLogKey, logs)) return;
  TNameValueList values;
  for (const std::string& log : logs) {
    std::string logKey = kEventLogKey;
    logKey.push_back('\\');
    logKey.append(log);
    std::vector<std::string> sources;
    if (!ARegistry.GetKeyNames(logKey, sources)) continue;
    for (const std::string& source : sources) {
      std::string key = logKey;
      key.push_back('\\');
      key.append(source);
      if (!ARegistry.ReadStringValues(key, values)) continue;
      TSourceProperties properties;
      for (const auto& [value, data] : values) {
        if (value.empty() || data.empty()) continue;
        AddFileLines(properties, value, data);
      }
      if (FSourceProperties.AddProperties(source, std::move(properties))) FClassicSources.emplace_back(log, source);
    }
  }
}

void TImagedPC::Deactivate() {
  FPublisherProperties.Clear();
  FSourceProperties.Clear();
  FChannels.clear();
  FUserSIDS.Clear();
  FUsers.clear();
  FPublishers.clear();
  FClassicSources.clear();
  FProviders = std::make_unique<TGuidProviders>();
  FFoldersMapping.clear();
  FProductName.clear();
  FCurrentBuild.clear();
  FDisplayVersion.clear();
  FTimeZones = TTimeZones();
  FMessageFiles.Paths().Clear();
  FActive = false;
}

std::string TImagedPC::MapFile(const std::string& AValue) const {
  // The name is compared in small letters (caches see one spelling of a file); the folder
  // it is mapped to keeps its case, which the file system that holds it may need (an image
  // "Case1/Disk.E01" or a copied folder on a case-sensitive system).
  std::string value = Lower(AValue);
  for (const auto& [name, folder] : FFoldersMapping) {
    const std::string prefix = Lower(name);
    if (!prefix.empty() && value.starts_with(prefix)) {
      value.replace(0, prefix.size(), folder);
      return value; // a folder of the installation: never relative to System32
    }
  }
  const bool absolute = (value.size() > 1 && value[1] == ':') || value.starts_with('/') || value.starts_with('\\');
  if (value.size() > 2 && value[0] != '%' && !absolute) {
    std::string path = FSystem32;
    path.push_back(kSeparator);
    path.append(value);
    value = std::move(path);
  }
  return value;
}

bool TImagedPC::GetEventSourceProperties(const std::string& ASource, TSourceProperties& AProperties) {
  AProperties.clear();
  const TSourceProperties* stored = nullptr;
  if (!FPublisherProperties.GetProperties(ASource, stored) || !stored) FSourceProperties.GetProperties(ASource, stored);
  if (!stored) return false;
  AProperties = *stored;
  for (std::string& line : AProperties) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos || !IsFileName(line.substr(0, eq))) continue;
    std::string mapped = line.substr(0, eq + 1);
    mapped.append(MapFile(line.substr(eq + 1)));
    line = std::move(mapped);
  }
  return !AProperties.empty();
}

bool TImagedPC::FormatFromFile(const std::string& APath, uint32_t AMessageId, std::string& AText) {
  return FMessageFiles.FormatMessageFromFiles(APath, AMessageId, AText);
}

TGuidProvider* TImagedPC::ProviderFor(const std::string& AGuid, const std::vector<std::string>& AFiles) {
  TProviderGuid guid;
  if (!ParseProviderGuid(AGuid, guid)) return nullptr;
  if (TGuidProvider* known = FProviders->FindProvider(guid)) return known;
  auto provider = std::make_unique<TGuidProvider>();
  provider->SetGuid(guid);
  TPeMessageSource module;
  for (const std::string& file : AFiles) {
    if (!FMessageFiles.LoadModule(file, module, false)) continue;
    const auto resource = module.WevtTemplate();
    if (!resource) continue;
    provider->SetResourcePath(file);
    if (provider->Process(*resource)) break;
  }
  return &FProviders->Add(std::move(provider));
}

namespace {

std::vector<std::string> ValuesOf(const TSourceProperties& AProperties, std::string_view AName) {
  std::vector<std::string> values;
  for (const std::string& line : AProperties) {
    const size_t eq = line.find('=');
    if (eq != std::string::npos && detail::EqualsNoCase(std::string_view(line).substr(0, eq), AName))
      values.push_back(line.substr(eq + 1));
  }
  return values;
}

} // namespace

bool TImagedPC::GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) {
  TSourceProperties properties;
  if (!GetEventSourceProperties(ASource, properties)) return false;
  const std::string guid = PropertyValue(properties, "GUID");
  const std::vector<std::string> files = ValuesOf(properties, "EventMessageFile");
  if (guid.empty()) {
    for (const std::string& file : files)
      if (FormatFromFile(file, AEventId, AText)) return true;
    return false;
  }
  if (files.empty()) return false;
  // The metadata normally lies in the message file; a publisher that keeps it in its
  // resource file alone is read from there.
  std::vector<std::string> modules{files.front()};
  for (const std::string& file : ValuesOf(properties, "CategoryMessageFile"))
    if (file != files.front()) modules.push_back(file);
  const TGuidProvider* provider = ProviderFor(guid, modules);
  if (!provider) return false;
  const uint32_t id = provider->GetFullEventID(static_cast<uint16_t>(AEventId), AVersion);
  if (id == kNoMessageId) return false;
  for (const std::string& file : files)
    if (FormatFromFile(file, id, AText)) return true;
  return false;
}

const TGuidProvider* TImagedPC::GetProvider(const std::string& ASource) {
  TSourceProperties properties;
  if (!GetEventSourceProperties(ASource, properties)) return nullptr;
  const std::string guid = PropertyValue(properties, "GUID");
  const std::vector<std::string> files = ValuesOf(properties, "EventMessageFile");
  if (guid.empty() || files.empty()) return nullptr;
  std::vector<std::string> modules{files.front()};
  for (const std::string& file : ValuesOf(properties, "CategoryMessageFile"))
    if (file != files.front()) modules.push_back(file);
  const TGuidProvider* provider = ProviderFor(guid, modules);
  return provider && provider->BlockOffset() != 0 ? provider : nullptr;
}

bool TImagedPC::GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode, std::string& AText) {
  const TGuidProvider* provider = GetProvider(ASource);
  if (!provider) return false;
  const uint32_t id = FindOpcodeMessage(provider->Opcodes(), ATask, AOpcode);
  if (id == kNoMessageId) return false;
  TSourceProperties properties;
  GetEventSourceProperties(ASource, properties);
  for (const std::string& file : ValuesOf(properties, "EventMessageFile"))
    if (FormatFromFile(file, id, AText)) return true;
  return false;
}

bool TImagedPC::GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) {
  const TGuidProvider* provider = GetProvider(ASource);
  if (!provider) return false;
  TSourceProperties properties;
  GetEventSourceProperties(ASource, properties);
  const std::vector<std::string> files = ValuesOf(properties, "EventMessageFile");
  return JoinKeywordNames(provider->Keywords(), AKeywords, AText, [&](uint32_t AId, std::string& AName) {
    for (const std::string& file : files)
      if (FormatFromFile(file, AId, AName)) return true;
    return false;
  });
}

bool TImagedPC::GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) {
  TSourceProperties properties;
  if (!GetEventSourceProperties(ASource, properties)) return false;
  const std::string guid = PropertyValue(properties, "GUID");
  std::vector<std::string> files = ValuesOf(properties, "CategoryMessageFile");
  if (guid.empty()) {
    for (const std::string& file : files)
      if (FormatFromFile(file, ATask, AText)) return true;
    return false;
  }
  const std::vector<std::string> messages = ValuesOf(properties, "EventMessageFile");
  std::vector<std::string> modules = messages;
  modules.insert(modules.end(), files.begin(), files.end());
  const TGuidProvider* provider = ProviderFor(guid, modules);
  if (!provider) return false;
  const uint32_t id = provider->GetFullTaskID(ATask);
  if (id == kNoMessageId) return false;
  if (files.empty()) files = messages;
  for (const std::string& file : files)
    if (FormatFromFile(file, id, AText)) return true;
  return false;
}

bool TImagedPC::GetParam(const std::string& ASource, uint32_t AId, std::string& AText) {
  TSourceProperties properties;
  if (!GetEventSourceProperties(ASource, properties)) return false;
  for (const std::string& file : ValuesOf(properties, "ParameterMessageFile")) {
    TPeMessageSource module;
    if (!FMessageFiles.LoadModule(file, module)) continue;
    // The first parameter file that loads is the one asked.
    std::string raw;
    if (!module.FindMessage(AId, raw)) return false;
    if (!FormatMessageText(raw, {}, fmIgnoreInserts, AText)) AText = std::move(raw);
    return true;
  }
  return false;
}

std::unique_ptr<TImagedPC> OpenLiveComputer() {
  const std::unique_ptr<TComputerRegistry> registry = OpenLiveRegistry("");
  if (!registry) return nullptr;
  std::string winDir;
  registry->ReadString(std::string(kSoftware) + kWindowsNtKey, "SystemRoot", winDir);
  if (winDir.empty())
    throw EImagedPCException("the registry of this computer names no Windows folder (SystemRoot)");
  // Folder variables that registrations use besides those the registry itself lists.
  static constexpr const char* kVariables[] = {
      "ProgramData",  "ALLUSERSPROFILE",   "CommonProgramFiles", "CommonProgramFiles(x86)", "CommonProgramW6432",
      "ProgramFiles", "ProgramFiles(x86)", "ProgramW6432",       "SystemDrive",             "SystemRoot",
      "windir"};
  TNameValueList variables;
  for (const char* name : kVariables)
    if (std::string value = EnvironmentVariable(name); !value.empty())
      variables.emplace_back("%" + Lower(name) + "%", std::move(value));
  auto computer = std::make_unique<TImagedPC>();
  computer->SetMapping(winDir);
  computer->ActivateFrom(*registry, variables);
  return computer;
}

} // namespace qvx
