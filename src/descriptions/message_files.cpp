#include "descriptions/message_files.h"

#include "descriptions/format_message.h"
#include "descriptions/languages.h"
#include "platform/nt_exception.h"
#include "platform/utf16.h"

#include <algorithm>
#include <cctype>

namespace qvx {

namespace {

constexpr std::string_view kEventLogKey = "\\SYSTEM\\CurrentControlSet\\Services\\EventLog\\";
constexpr std::string_view kPublishersKey = "\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\WINEVT\\Publishers\\";
constexpr std::string_view kWindowsNtKey = "\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr std::string_view kWindowsKey = "\\SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
constexpr std::string_view kUILanguagesKey = "\\SYSTEM\\CurrentControlSet\\Control\\MUI\\UILanguages";
constexpr size_t kMaxTemplateUnits = 16384;
constexpr size_t kMaxParameterUnits = 2048;
constexpr std::string_view kFileNames[] = {"EventMessageFile", "CategoryMessageFile", "ParameterMessageFile"};

std::string Upper(std::string_view AText) {
  std::string upper(AText);
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return upper;
}

// Position of ANeedle in AText without regard to ASCII case, from AFrom.
size_t FindNoCase(std::string_view AText, std::string_view ANeedle, size_t AFrom = 0) {
  if (ANeedle.empty() || AText.size() < ANeedle.size()) return std::string::npos;
  for (size_t i = AFrom; i + ANeedle.size() <= AText.size(); ++i)
    if (detail::EqualsNoCase(AText.substr(i, ANeedle.size()), ANeedle)) return i;
  return std::string::npos;
}

void ReplaceAllNoCase(std::string& AText, std::string_view AName, std::string_view AValue) {
  for (size_t pos = FindNoCase(AText, AName); pos != std::string::npos;
       pos = FindNoCase(AText, AName, pos + AValue.size()))
    AText.replace(pos, AName.size(), AValue);
}

void SetProperty(TSourceProperties& AProperties, std::string_view AName, std::string_view AValue) {
  std::string line(AName);
  line.push_back('=');
  line.append(AValue);
  for (std::string& existing : AProperties) {
    const size_t eq = existing.find('=');
    if (eq != std::string::npos && detail::EqualsNoCase(std::string_view(existing).substr(0, eq), AName)) {
      existing = std::move(line);
      return;
    }
  }
  AProperties.push_back(std::move(line));
}

std::string ReadValueOrRaise(const TComputerRegistry& ARegistry, std::string_view AKey, const char* AName) {
  std::string value;
  std::vector<std::string> names;
  if (!ARegistry.GetKeyNames(std::string(AKey), names)) throw ENTException(2, std::string(AKey));
  ARegistry.ReadString(std::string(AKey), AName, value);
  return value;
}

// A file list made fit for loading on the computer being read.
std::string NormaliseFileList(const TComputerRegistry& ARegistry, std::string_view AList,
                              std::string_view AComputer) {
  std::string joined;
  for (std::string path : SplitFileList(AList)) {
    if (path.find('\\') == std::string::npos && path.find('/') == std::string::npos)
      path.insert(0, "%systemroot%\\System32\\");
    if (FindNoCase(path, "%systemroot%") != std::string::npos || FindNoCase(path, "%windir%") != std::string::npos) {
      const std::string root = ReadValueOrRaise(ARegistry, kWindowsNtKey, "SystemRoot");
      ReplaceAllNoCase(path, "%systemroot%", root);
      ReplaceAllNoCase(path, "%windir%", root);
    }
    if (FindNoCase(path, "%programfiles%") != std::string::npos)
      ReplaceAllNoCase(path, "%programfiles%", ReadValueOrRaise(ARegistry, kWindowsKey, "ProgramFilesDir"));
    if (!AComputer.empty() && path.size() >= 2 && path[1] == ':' && std::isalpha(static_cast<unsigned char>(path[0]))) {
      std::string share = "\\\\";
      share.append(AComputer);
      share.push_back('\\');
      share.push_back(path[0]);
      share.push_back('$');
      share.append(path, 2);
      path = std::move(share);
    }
    if (!joined.empty()) joined.push_back(';');
    joined.append(path);
  }
  return joined;
}

// The file name part of a path with either separator.
size_t FileNameStart(std::string_view APath) {
  const size_t slash = APath.find_last_of("\\/");
  return slash == std::string::npos ? 0 : slash + 1;
}

// APath with its first "System32" folder named "SysWOW64"; "" when it has none.
std::string SysWow64Path(std::string_view APath) {
  const std::string upper = Upper(APath);
  for (size_t pos = upper.find("SYSTEM32"); pos != std::string::npos; pos = upper.find("SYSTEM32", pos + 1)) {
    const bool starts = pos == 0 || upper[pos - 1] == '\\' || upper[pos - 1] == '/';
    const size_t end = pos + 8;
    const bool ends = end == upper.size() || upper[end] == '\\' || upper[end] == '/';
    if (starts && ends) {
      std::string path(APath);
      path.replace(pos, 8, "SysWOW64");
      return path;
    }
  }
  return {};
}

} // namespace

#ifndef _WIN32
std::unique_ptr<TComputerRegistry> OpenLiveRegistry(const std::string&) { return nullptr; }
#endif

std::string BuildMissingDescriptionText(std::string_view ASource, uint32_t AEventId,
                                        const std::vector<std::string>& AStrings) {
  std::string text = "The description for Event ID ( ";
  text.append(std::to_string(AEventId & 0xFFFF));
  text.append(" ) in Source ( ");
  text.append(ASource);
  text.append(" ) could not be found.\r\nEither the component that raises this event is not installed on the "
              "computer or the installation is corrupted.You can install or repair the component or try to change "
              "Description Server.\r\n\r\nThe following information was included with the event:");
  for (const std::string& value : AStrings) {
    text.append("\r\n");
    text.append(value);
  }
  return text;
}

std::vector<std::string> SplitFileList(std::string_view AList) {
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= AList.size()) {
    size_t end = AList.find_first_of(";,", start);
    if (end == std::string::npos) end = AList.size();
    std::string_view part = AList.substr(start, end - start);
    while (!part.empty() && (part.front() == ' ' || part.front() == '\t')) part.remove_prefix(1);
    while (!part.empty() && (part.back() == ' ' || part.back() == '\t')) part.remove_suffix(1);
    if (!part.empty()) parts.emplace_back(part);
    start = end + 1;
  }
  return parts;
}

const TSourceProperties* GetEventSourceProperties(const TComputerRegistry& ARegistry, std::string_view ALog,
                                                  std::string_view ASource, std::string_view AComputer,
                                                  TSourcePropertiesCache& ACache) {
  const TSourceProperties* cached = nullptr;
  if (ACache.GetProperties(ASource, cached)) return cached;

  std::string key(kEventLogKey);
  key.append(ALog);
  key.push_back('\\');
  key.append(ASource);
  std::vector<std::pair<std::string, std::string>> values;
  if (ASource.empty() || !ARegistry.ReadStringValues(key, values)) {
    ACache.AddProperties(ASource, std::nullopt);
    ACache.GetProperties(ASource, cached);
    return cached;
  }
  TSourceProperties properties;
  std::string guid;
  for (const auto& [name, value] : values) {
    std::string line = name;
    line.push_back('=');
    line.append(value);
    properties.push_back(std::move(line));
    if (detail::EqualsNoCase(name, "providerGuid")) guid = value;
  }
  if (!guid.empty()) {
    std::string publisher(kPublishersKey);
    publisher.append(guid);
    std::vector<std::pair<std::string, std::string>> publisherValues;
    if (ARegistry.ReadStringValues(publisher, publisherValues)) {
      for (const auto& [name, value] : publisherValues) {
        if (detail::EqualsNoCase(name, "MessageFileName")) SetProperty(properties, "EventMessageFile", value);
        else if (detail::EqualsNoCase(name, "ParameterFileName")) SetProperty(properties, "ParameterMessageFile", value);
        else if (detail::EqualsNoCase(name, "ResourceFileName")) SetProperty(properties, "CategoryMessageFile", value);
      }
    }
  }
  for (std::string& line : properties) {
    const size_t eq = line.find('=');
    const std::string_view name = std::string_view(line).substr(0, eq);
    if (std::none_of(std::begin(kFileNames), std::end(kFileNames),
                     [&](std::string_view AName) { return detail::EqualsNoCase(AName, name); }))
      continue;
    std::string normalised(name);
    normalised.push_back('=');
    normalised.append(NormaliseFileList(ARegistry, std::string_view(line).substr(eq + 1), AComputer));
    line = std::move(normalised);
  }
  ACache.AddProperties(ASource, std::move(properties));
  ACache.GetProperties(ASource, cached);
  return cached;
}

std::vector<std::string> ReadUILanguages(const TComputerRegistry& ARegistry) {
  std::vector<std::string> names;
  if (!ARegistry.GetKeyNames(std::string(kUILanguagesKey), names)) names.clear();
  return names;
}

// --- TMessageFiles -----------------------------------------------------------------

void TMessageFiles::SetUILanguages(std::vector<std::string> ANames) {
  FLanguageNames = std::move(ANames);
  FLanguageIds = LanguageIdsFor(FLanguageNames);
}

void TMessageFiles::Report(const std::string& APath, const std::string& AText) {
  if (OnIssue && FReported.insert(APath).second) OnIssue(AText);
}

bool TMessageFiles::TryLoad(const std::string& APath, TPeMessageSource& AModule) {
  const std::string file = FPaths.ResolveFile(APath);
  if (file.empty()) return false;
  ++FModulesLoaded;
  if (AModule.Load(file, FLanguageIds)) return true;
  std::string text = "Message file ";
  text.append(AModule.Error());
  Report(file, text);
  return false;
}

bool TMessageFiles::LoadModule(std::string_view APath, TPeMessageSource& AModule, bool ASatellite) {
  std::string path(APath);
  bool loaded = TryLoad(path, AModule);
  if (!loaded && SysWow64Retry) {
    path = SysWow64Path(APath);
    loaded = !path.empty() && TryLoad(path, AModule);
  }
  if (!loaded && ReportMissing && FPaths.ResolveFile(std::string(APath)).empty())
    Report(std::string(APath), "Message file " + NativeSeparators(APath) +
                                   " is not there: events that need it have no description");
  if (!loaded || AModule.HasMessageTable() || !ASatellite) return loaded;
  // The messages of a system module live in its language satellite:
  // <folder>\<language>\<file>.mui, in the computer's UI languages, then en-US.
  const size_t name = FileNameStart(path);
  std::vector<std::string> languages = FLanguageNames;
  if (std::find(languages.begin(), languages.end(), "en-US") == languages.end()) languages.emplace_back("en-US");
  for (const std::string& language : languages) {
    std::string satellite = path.substr(0, name);
    satellite.append(language);
    satellite.push_back('\\');
    satellite.append(path, name);
    satellite.append(".mui");
    TPeMessageSource mui;
    if (TryLoad(satellite, mui) && mui.HasMessageTable()) {
      AModule = std::move(mui);
      return true;
    }
  }
  return true;
}

bool TMessageFiles::LoadFirstMessageModule(std::string_view AFileList, TPeMessageSource& AModule) {
  for (const std::string& path : SplitFileList(AFileList))
    if (LoadModule(path, AModule)) return true;
  return false;
}

bool MessageTemplate(const TProviderMessageSource& ASource, uint32_t AMessageId, std::string& AText) {
  std::string raw;
  if (!ASource.FindMessage(AMessageId, raw)) return false;
  // As FormatMessage with inserts ignored: escapes such as %n apply, inserts stay.
  std::string formatted;
  if (!FormatMessageText(raw, {}, fmIgnoreInserts, formatted)) formatted = std::move(raw);
  AText = StripTrailingLineBreak(formatted);
  if (AText.size() > kMaxTemplateUnits && Utf16Length(AText) > kMaxTemplateUnits) {
    // Cut at a character boundary once the UTF-16 length fits.
    size_t units = 0, pos = 0;
    while (pos < AText.size()) {
      const unsigned char c = static_cast<unsigned char>(AText[pos]);
      const size_t length = c < 0x80 ? 1 : c < 0xE0 ? 2 : c < 0xF0 ? 3 : 4;
      const size_t need = length == 4 ? 2 : 1;
      if (units + need > kMaxTemplateUnits) break;
      units += need;
      pos += length;
    }
    AText.resize(std::min(pos, AText.size()));
  }
  return true;
}

bool TMessageFiles::FormatMessageFromFiles(std::string_view AFileList, uint32_t AMessageId, std::string& AText) {
  for (const std::string& path : SplitFileList(AFileList)) {
    if (!LoadModule(path, FModule)) continue;
    const bool found = MessageTemplate(FModule, AMessageId, AText);
    FModule = TPeMessageSource();
    if (found) return true;
  }
  return false;
}

std::string TMessageFiles::ExpandParameterInserts(std::string_view AText, std::string_view AParameterFiles,
                                                  std::vector<std::string>& AArguments,
                                                  const std::function<bool(uint32_t, std::string&)>& AFindParameter) {
  std::string text(AText);
  size_t at = text.find("%%");
  if (at == std::string::npos) return text;

  TPeMessageSource module;
  bool moduleTried = false, haveModule = false;
  auto findParameter = [&](uint32_t AId, std::string& AValue) {
    if (AFindParameter) return AFindParameter(AId, AValue);
    if (!moduleTried) {
      moduleTried = true;
      haveModule = LoadFirstMessageModule(AParameterFiles, module);
    }
    std::string raw;
    if (!haveModule || !module.FindMessage(AId, raw)) return false;
    if (!FormatMessageText(raw, {}, fmIgnoreInserts, AValue)) AValue = std::move(raw);
    return true;
  };

  // Every pass removes one "%%" (a reference becomes "%k" or loses a "%"), so the loop
  // ends; the bound guards against a text that grows.
  for (size_t guard = 0; at != std::string::npos && guard < 65536; ++guard) {
    size_t end = at + 2;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    int64_t number = -1;
    if (end > at + 2 && end - at - 2 <= 18) number = std::stoll(text.substr(at + 2, end - at - 2));
    std::string value;
    if (number >= 0 && findParameter(static_cast<uint32_t>(number), value)) {
      if (value.size() > kMaxParameterUnits && Utf16Length(value) > kMaxParameterUnits) value = Utf16ToUtf8(Utf8ToUtf16(value).substr(0, kMaxParameterUnits));
      AArguments.push_back(std::move(value));
      const std::string reference = text.substr(at, end - at);
      std::string replacement = "%";
      replacement.append(std::to_string(AArguments.size()));
      text.replace(text.find(reference), reference.size(), replacement);
    } else {
      text.erase(at, 1);
    }
    at = text.find("%%");
  }
  return text;
}

bool TMessageFiles::ApplyInserts(std::string_view ATemplate, std::string_view AParameterFiles,
                                 const std::vector<std::string>& AStrings, std::string& AText,
                                 const std::function<bool(uint32_t, std::string&)>& AFindParameter) {
  if (ATemplate.find('%') == std::string_view::npos) {
    AText.assign(ATemplate);
    return true;
  }
  // The record's strings are UTF-16 whatever the message file declares (a copy only for
  // the templates that say otherwise).
  std::string_view tmpl = ATemplate;
  if (size_t pos = ATemplate.find("!S!"); pos != std::string_view::npos) {
    FTemplate.assign(ATemplate);
    for (; pos != std::string::npos; pos = FTemplate.find("!S!", pos + 3)) FTemplate[pos + 1] = 's';
    tmpl = FTemplate;
  }
  if (!FormatMessageText(tmpl, AStrings, 0, AText)) return false;
  if (AText.find("%%") == std::string::npos) return true;
  FArguments = AStrings;
  const std::string expanded = ExpandParameterInserts(AText, AParameterFiles, FArguments, AFindParameter);
  return FormatMessageText(expanded, FArguments, 0, AText);
}

bool TMessageFiles::DescribeRecord(const TSourceProperties* AProperties, std::string_view ASource, uint32_t AEventId,
                                   const std::vector<std::string>& AStrings, TEventDescriptionCache& ACache,
                                   std::string& AText) {
  if (ASource.empty()) return false;
  std::string tmpl;
  std::string_view cached;
  if (ACache.GetDescription(ASource, AEventId, cached)) {
    if (cached == kDescriptionNotFound) return false;
    tmpl.assign(cached);
  } else {
    const std::string files = AProperties ? PropertyValue(*AProperties, "EventMessageFile") : std::string();
    bool found = false;
    if (!files.empty()) {
      const uint32_t id = detail::EqualsNoCase(ASource, kKernelGeneralSource) ? AEventId + kKernelGeneralIdOffset
                                                                              : AEventId;
      found = FormatMessageFromFiles(files, id, tmpl);
      if (!found && (AEventId >> 16) == 0) found = FormatMessageFromFiles(files, AEventId | kSeverityRetryBits, tmpl);
    }
    if (!found) {
      ACache.AddDescription(ASource, AEventId, kDescriptionNotFound);
      return false;
    }
    for (size_t pos = tmpl.find("\r\n\r\n"); pos != std::string::npos; pos = tmpl.find("\r\n\r\n", pos + 2))
      tmpl.erase(pos, 2);
    ACache.AddDescription(ASource, AEventId, tmpl);
  }
  const std::string parameters = AProperties ? PropertyValue(*AProperties, "ParameterMessageFile") : std::string();
  return ApplyInserts(tmpl, parameters, AStrings, AText);
}

} // namespace qvx
