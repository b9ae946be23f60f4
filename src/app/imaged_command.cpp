// quorvex imaged: what an offline Windows installation holds for its events.
#include "app/commands.h"
#include "app/text_table.h"

#include "imaged/imaged_pc.h"
#include "platform/file_names.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace qvx::app {

namespace fs = std::filesystem;

std::string FindWindowsFolder(const std::string& APath) {
  std::string path = APath;
  while (path.size() > 1 && (path.back() == '/' || path.back() == '\\')) path.pop_back();
  TPathResolver paths;
  std::error_code error;
  if (!paths.Resolve(path + "/System32/config").empty()) return path;
  const std::string windows = paths.Resolve(path + "/Windows");
  if (!windows.empty() && !paths.Resolve(windows + "/System32/config").empty()) return windows;
  return path;
}

namespace {

void Heading(std::FILE* AOut, const char* ATitle, size_t ACount) {
  std::fprintf(AOut, "\n%s (%zu)\n", ATitle, ACount);
}

std::string Join(const std::vector<std::string>& AItems, const char* ASeparator) {
  std::string text;
  for (const std::string& item : AItems) {
    if (!text.empty()) text += ASeparator;
    text += item;
  }
  return text;
}

std::string FilesOf(TImagedPC& AComputer, const std::string& AName) {
  TSourceProperties properties;
  AComputer.GetEventSourceProperties(AName, properties);
  std::vector<std::string> files;
  for (const std::string& line : properties) {
    const size_t eq = line.find('=');
    if (eq == std::string::npos || !detail::EqualsNoCase(std::string_view(line).substr(0, eq), "EventMessageFile"))
      continue;
    // The file as it lies in the image, or the mapped name marked missing.
    const std::string mapped = line.substr(eq + 1);
    const std::string found = AComputer.MessageFiles().Paths().ResolveFile(mapped);
    files.push_back(found.empty() ? NativeSeparators(mapped) + " (missing)" : found);
  }
  return files.empty() ? "(no message file)" : Join(files, "; ");
}

void ListLogs(TImagedPC& AComputer, std::FILE* AOut) {
  // The logs of Windows Vista and later, and the classic logs of earlier versions, which
  // lie among the registry hives.
  TPathResolver paths;
  const std::string modern = paths.Resolve(AComputer.LogsLocation());
  const std::string classic = paths.Resolve(AComputer.System32Folder() + "/config");
  std::vector<std::pair<std::string, std::vector<std::pair<std::string, uintmax_t>>>> folders;
  size_t count = 0;
  for (const std::string& folder : {modern, classic}) {
    if (folder.empty()) continue;
    std::vector<std::pair<std::string, uintmax_t>> logs;
    for (const TFileSystem::TEntry& entry : ListFolder(folder)) {
      std::string lower = entry.Name;
      std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
      if (entry.Folder || (!lower.ends_with(".evtx") && !lower.ends_with(".evt"))) continue;
      logs.emplace_back(entry.Name, entry.Size);
    }
    std::sort(logs.begin(), logs.end());
    count += logs.size();
    // The modern folder is named even when empty; the classic one only with logs in it.
    if (folder == modern || !logs.empty()) folders.emplace_back(folder, std::move(logs));
  }
  Heading(AOut, "Logs", count);
  if (modern.empty()) std::fprintf(AOut, "  in %s\n", NativeSeparators(AComputer.LogsLocation()).c_str());
  for (const auto& [folder, logs] : folders) {
    std::fprintf(AOut, "  in %s\n", folder.c_str());
    for (const auto& [name, size] : logs) std::fprintf(AOut, "  %12ju  %s\n", size, name.c_str());
  }
}

} // namespace

int RunImaged(const TImagedOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  static const char* const kSections[] = {"logs", "channels", "publishers", "sources", "users"};
  if (!AOptions.Only.empty() && std::none_of(std::begin(kSections), std::end(kSections),
                                             [&](const char* ASection) { return AOptions.Only == ASection; })) {
    std::fprintf(AErr, "quorvex: --only %s: use logs, channels, publishers, sources or users\n", AOptions.Only.c_str());
    return 2;
  }
  std::unique_ptr<TImagedPC> computer;
  int imageStatus = 0;
  if (IsImageInput(AOptions.Path) && AOptions.Only.empty()) {
    // The image's structure, then the installation on it as for a folder. Damage met
    // in the listing (a volume, a shadow copy) was reported; the installation is still
    // listed when it can be read, and the exit status tells of the damage.
    imageStatus = RunImagedImage(AOptions, AOut, AErr);
    try {
      computer = OpenImaged(AOptions.Path);
    } catch (const std::exception&) {
      return imageStatus; // no installation to describe: the listing above says what the image holds
    }
    std::fprintf(AOut, "\nInstallation\n");
  }
  try {
    if (!computer) computer = OpenImaged(AOptions.Path);
  } catch (const std::exception& e) {
    std::string message = e.what();
    if (message.starts_with("--imaged ")) message.erase(0, 9);
    std::fprintf(AErr, "quorvex: %s\n", message.c_str());
    return 1;
  }
  TImagedPC& pc = *computer;
  auto wanted = [&](const char* ASection) { return AOptions.Only.empty() || AOptions.Only == ASection; };

  if (AOptions.Only.empty()) {
    std::fprintf(AOut, "Windows folder   %s\n", NativeSeparators(pc.MapWinDir()).c_str());
    std::fprintf(AOut, "System drive     %s (mapped to %s)\n",
                 pc.InstallationDrive().empty() ? "unknown" : pc.InstallationDrive().c_str(),
                 pc.RootFolder().empty() ? "/" : pc.RootFolder().c_str());
    std::fprintf(AOut, "Architecture     %s\n", pc.Is64Bit() ? "64-bit" : "32-bit");
    std::fprintf(AOut, "UI languages     %s\n",
                 pc.UILanguages().empty() ? "(none listed)" : Join(pc.UILanguages(), ", ").c_str());
    std::fprintf(AOut, "Time zones       %d\n", pc.TimeZones().Count());
    std::fprintf(AOut, "Folder mapping\n");
    std::vector<std::vector<std::string>> rows;
    for (const auto& [name, folder] : pc.FoldersMapping()) rows.push_back({name, NativeSeparators(folder)});
    std::fputs(AlignedRows(rows).c_str(), AOut);
  }
  if (wanted("logs")) ListLogs(pc, AOut);

  std::map<std::string, std::string> publisherNames; // GUID (upper case) -> name
  for (const auto& [guid, name] : pc.Publishers()) {
    std::string key = guid;
    std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::toupper(c); });
    publisherNames.emplace(key, name);
  }
  if (wanted("channels")) {
    Heading(AOut, "Channels", pc.Channels().size());
    std::vector<std::vector<std::string>> rows;
    for (const auto& [channel, owner] : pc.Channels()) {
      std::string key = owner;
      std::transform(key.begin(), key.end(), key.begin(), [](unsigned char c) { return std::toupper(c); });
      const auto name = publisherNames.find(key);
      rows.push_back({channel, name != publisherNames.end() ? name->second : owner.empty() ? "-" : owner});
    }
    std::fputs(AlignedRows(rows).c_str(), AOut);
  }
  if (wanted("publishers")) {
    Heading(AOut, "Publishers", pc.Publishers().size());
    std::vector<std::vector<std::string>> rows;
    for (const auto& [guid, name] : pc.Publishers())
      rows.push_back({name.empty() ? "(unnamed)" : name, guid, FilesOf(pc, name)});
    std::fputs(AlignedRows(rows).c_str(), AOut);
  }
  if (wanted("sources")) {
    Heading(AOut, "Classic sources", pc.ClassicSources().size());
    std::vector<std::vector<std::string>> rows;
    for (const auto& [log, source] : pc.ClassicSources()) rows.push_back({log, source, FilesOf(pc, source)});
    std::fputs(AlignedRows(rows).c_str(), AOut);
  }
  if (wanted("users")) {
    Heading(AOut, "Users", pc.Users().size());
    std::vector<std::vector<std::string>> rows;
    for (const auto& [sid, name] : pc.Users()) rows.push_back({sid, name});
    std::fputs(AlignedRows(rows).c_str(), AOut);
  }
  return imageStatus;
}

} // namespace qvx::app
