#include "catalog/catalog_builder.h"

#include "catalog/catalog_file.h"
#include "catalog/catalog_schema.h"
#include "catalog/sqlite_handle.h"
#include "descriptions/message_files.h"
#include "descriptions/pe_message_source.h"
#include "imaged/imaged_pc.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <unordered_map>

namespace qvx {

namespace {

using namespace catalog;

std::string LowerAscii(std::string_view AText) {
  std::string lower(AText);
  for (char& c : lower) c = detail::LowerAscii(c);
  return lower;
}

std::string NowText() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
#ifdef _WIN32
  gmtime_s(&utc, &now);
#else
  gmtime_r(&now, &utc);
#endif
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

struct TFileRecord {
  int64_t Id = 0;
  bool Loaded = false;
};

class TBuilder {
public:
  TBuilder(TImagedPC& AComputer, TSqliteDb& ADb, const TCatalogBuildOptions& AOptions, TCatalogBuildStats& AStats)
      : FComputer(AComputer), FDb(ADb), FOptions(AOptions), FStats(AStats),
        FInsertProvider(ADb, "INSERT INTO provider(origin_id,kind,name,name_key,guid,log) VALUES(?,?,?,?,?,?)"),
        FInsertFile(ADb, "INSERT INTO file(origin_id,path,name,version,loaded) VALUES(?,?,?,?,?)"),
        FInsertProviderFile(ADb, "INSERT OR IGNORE INTO provider_file(provider_id,role,position,file_id) VALUES(?,?,?,?)"),
        FInsertTable(ADb, "INSERT INTO message_table(digest,messages) VALUES(?,?)"),
        FInsertFileTable(ADb, "INSERT OR IGNORE INTO file_table(file_id,language,table_id) VALUES(?,?,?)"),
        FInsertMessage(ADb, "INSERT OR IGNORE INTO message(table_id,id,text) VALUES(?,?,?)"),
        FInsertEvent(ADb, "INSERT OR IGNORE INTO event(provider_id,id,version,channel,level,opcode,task,keywords,"
                          "message_id) VALUES(?,?,?,?,?,?,?,?,?)"),
        FInsertTask(ADb, "INSERT OR IGNORE INTO task(provider_id,value,message_id,name) VALUES(?,?,?,?)"),
        FInsertOpcode(ADb, "INSERT OR IGNORE INTO opcode(provider_id,task,value,message_id,name) VALUES(?,?,?,?,?)"),
        FInsertKeyword(ADb, "INSERT OR IGNORE INTO keyword(provider_id,mask,message_id,name) VALUES(?,?,?,?)") {}

  void Run() {
    FStats.Languages = FOptions.Languages;
    if (FStats.Languages.empty()) FStats.Languages = FComputer.UILanguages();
    if (FStats.Languages.empty()) FStats.Languages.emplace_back("en-US");
    for (const std::string& language : FStats.Languages) {
      auto files = std::make_unique<TMessageFiles>();
      files->SetUILanguages({language});
      files->SysWow64Retry = FComputer.Is64Bit();
      files->OnIssue = [this](const std::string& AText) {
        ++FIssues;
        if (FOptions.OnIssue) FOptions.OnIssue(AText);
      };
      FLoaders.push_back(std::move(files));
    }
    WriteOrigin();

    // A name registered as publisher and as classic source describes as the publisher.
    std::vector<std::pair<std::string, std::string>> publishers, classic;
    std::map<std::string, bool> seen;
    for (const auto& [guid, name] : FComputer.Publishers())
      if (!name.empty() && seen.emplace(LowerAscii(name), true).second) publishers.emplace_back(guid, name);
    for (const auto& [log, name] : FComputer.ClassicSources())
      if (seen.emplace(LowerAscii(name), true).second) classic.emplace_back(log, name);
    const size_t total = publishers.size() + classic.size();
    size_t done = 0;
    for (const auto& [guid, name] : publishers) {
      AddProvider(pkPublisher, name, guid, "");
      ++FStats.Publishers;
      if (FOptions.OnProgress) FOptions.OnProgress(++done, total);
    }
    for (const auto& [log, name] : classic) {
      AddProvider(pkClassic, name, "", log);
      ++FStats.ClassicSources;
      if (FOptions.OnProgress) FOptions.OnProgress(++done, total);
    }
  }

private:
  void WriteOrigin() {
    std::string product = FComputer.ProductName();
    const std::string& build = FComputer.CurrentBuild();
    if (!FComputer.DisplayVersion().empty() && !product.empty()) product += " " + FComputer.DisplayVersion();
    int64_t buildNumber = 0;
    for (char c : build) {
      if (c < '0' || c > '9' || buildNumber > 100000000) break;
      buildNumber = buildNumber * 10 + (c - '0');
    }
    if (FOptions.Build >= 0) buildNumber = FOptions.Build;
    std::string name = FOptions.Name;
    if (name.empty()) name = product.empty() ? "windows" : product + (build.empty() ? "" : " build " + build);
    std::string languages;
    for (const std::string& language : FStats.Languages) {
      if (!languages.empty()) languages.push_back(',');
      languages.append(language);
    }
    TSqliteStatement insert(FDb, "INSERT INTO origin(name,product,build,created,languages) VALUES(?,?,?,?,?)");
    insert.Bind(1, name).Bind(2, product).Bind(3, buildNumber).Bind(4, NowText()).Bind(5, languages).Run();
    FOrigin = FDb.LastInsertId();
  }

  // The file's path inside the installation: below the root folder, "\"-separated, lower case.
  std::string PortablePath(const std::string& APath) const {
    std::string path = APath;
    const std::string root = LowerAscii(FComputer.RootFolder());
    if (!root.empty() && LowerAscii(path).starts_with(root)) path.erase(0, root.size());
    std::replace(path.begin(), path.end(), '/', '\\');
    while (!path.empty() && path.front() == '\\') path.erase(0, 1);
    return LowerAscii(path);
  }

  const TFileRecord& File(const std::string& APath) {
    const auto known = FFiles.find(APath);
    if (known != FFiles.end()) return known->second;
    TFileRecord record;
    const size_t issues = FIssues;
    std::string version;
    std::vector<std::pair<std::string, int64_t>> tables; // language, table
    for (size_t i = 0; i < FLoaders.size(); ++i) {
      TPeMessageSource module;
      if (!FLoaders[i]->LoadModule(APath, module)) continue;
      record.Loaded = true;
      if (version.empty()) {
        TPeMessageSource own;
        if (FLoaders[i]->LoadModule(APath, own, false)) version = own.FileVersion();
      }
      if (module.HasMessageTable()) tables.emplace_back(FStats.Languages[i], Table(module));
    }
    const std::string portable = PortablePath(APath);
    const size_t slash = portable.find_last_of('\\');
    FInsertFile.Bind(1, FOrigin)
        .Bind(2, portable)
        .Bind(3, slash == std::string::npos ? portable : portable.substr(slash + 1))
        .Bind(4, version)
        .Bind(5, record.Loaded ? 1 : 0)
        .Run();
    record.Id = FDb.LastInsertId();
    for (const auto& [language, table] : tables) FInsertFileTable.Bind(1, record.Id).Bind(2, language).Bind(3, table).Run();
    ++FStats.Files;
    if (record.Loaded) ++FStats.FilesLoaded;
    // (A file that is there but does not load was reported as it was tried.)
    if (!record.Loaded && FIssues == issues) FStats.Missing.push_back(portable);
    return FFiles.emplace(APath, record).first->second;
  }

  // The stored table of AModule's messages, written when no identical table is stored.
  int64_t Table(const TPeMessageSource& AModule) {
    std::vector<std::pair<uint32_t, std::string>> messages;
    AModule.ForEachMessage([&](uint32_t AId, const std::string& AText) { messages.emplace_back(AId, AText); });
    // Where blocks overlap the first block answers, as a lookup in the module would.
    std::stable_sort(messages.begin(), messages.end(), [](const auto& A, const auto& B) { return A.first < B.first; });
    messages.erase(std::unique(messages.begin(), messages.end(),
                               [](const auto& A, const auto& B) { return A.first == B.first; }),
                   messages.end());
    const std::string digest = TableDigest(messages);
    const auto known = FTables.find(digest);
    if (known != FTables.end()) {
      ++FStats.TablesShared;
      return known->second;
    }
    FInsertTable.Bind(1, digest).Bind(2, static_cast<int64_t>(messages.size())).Run();
    const int64_t id = FDb.LastInsertId();
    for (const auto& [message, text] : messages)
      FInsertMessage.Bind(1, id).Bind(2, static_cast<int64_t>(message)).Bind(3, text).Run();
    ++FStats.Tables;
    FStats.Messages += messages.size();
    FTables.emplace(digest, id);
    return id;
  }

  void AddProvider(TProviderKind AKind, const std::string& AName, const std::string& AGuid, const std::string& ALog) {
    TSourceProperties properties;
    FComputer.GetEventSourceProperties(AName, properties);
    FInsertProvider.Bind(1, FOrigin)
        .Bind(2, static_cast<int64_t>(AKind))
        .Bind(3, AName)
        .Bind(4, LowerAscii(AName))
        .Bind(5, AGuid)
        .Bind(6, ALog)
        .Run();
    const int64_t provider = FDb.LastInsertId();
    static constexpr std::pair<const char*, TFileRole> kRoles[] = {
        {"EventMessageFile", frEvent}, {"CategoryMessageFile", frCategory}, {"ParameterMessageFile", frParameter}};
    int64_t position[3] = {0, 0, 0};
    for (const std::string& line : properties) {
      const size_t eq = line.find('=');
      if (eq == std::string::npos) continue;
      const std::string_view name = std::string_view(line).substr(0, eq);
      for (const auto& [roleName, role] : kRoles) {
        if (!detail::EqualsNoCase(name, roleName)) continue;
        const TFileRecord& file = File(line.substr(eq + 1));
        FInsertProviderFile.Bind(1, provider).Bind(2, static_cast<int64_t>(role)).Bind(3, position[role]++).Bind(4, file.Id).Run();
      }
    }
    if (AKind != pkPublisher) return;
    const TGuidProvider* metadata = FComputer.GetProvider(AName);
    if (!metadata) return;
    for (size_t i = 0; i < metadata->EventCount(); ++i) {
      const TEventInfo& event = metadata->GetEvent(i);
      FInsertEvent.Bind(1, provider)
          .Bind(2, event.Id)
          .Bind(3, event.Version)
          .Bind(4, event.Channel)
          .Bind(5, event.Level)
          .Bind(6, event.Opcode)
          .Bind(7, event.Task)
          .Bind(8, static_cast<int64_t>(event.Keywords))
          .Bind(9, static_cast<int64_t>(event.MessageId))
          .Run();
      ++FStats.Events;
    }
    for (size_t i = 0; i < metadata->TaskCount(); ++i) {
      const TTaskInfo& task = metadata->GetTask(i);
      // The names in the installation's own language, for tools that read the catalog.
      std::string name;
      if (!FComputer.GetEventTask(AName, task.Value, name)) name.clear();
      FInsertTask.Bind(1, provider).Bind(2, static_cast<int64_t>(task.Value)).Bind(3, static_cast<int64_t>(task.MessageId))
          .Bind(4, name).Run();
    }
    std::string name;
    for (const TOpcodeInfo& opcode : metadata->Opcodes()) {
      if (opcode.Value > 0xFF || !FComputer.GetOpcodeName(AName, opcode.Task, static_cast<uint8_t>(opcode.Value), name))
        name.clear();
      FInsertOpcode.Bind(1, provider).Bind(2, opcode.Task).Bind(3, opcode.Value).Bind(4, static_cast<int64_t>(opcode.MessageId))
          .Bind(5, name).Run();
    }
    for (const TKeywordInfo& keyword : metadata->Keywords()) {
      if (!FComputer.GetKeywordNames(AName, keyword.Mask, name)) name.clear();
      FInsertKeyword.Bind(1, provider).Bind(2, static_cast<int64_t>(keyword.Mask)).Bind(3, static_cast<int64_t>(keyword.MessageId))
          .Bind(4, name).Run();
    }
  }

  TImagedPC& FComputer;
  TSqliteDb& FDb;
  const TCatalogBuildOptions& FOptions;
  TCatalogBuildStats& FStats;
  TSqliteStatement FInsertProvider, FInsertFile, FInsertProviderFile, FInsertTable, FInsertFileTable, FInsertMessage,
      FInsertEvent, FInsertTask, FInsertOpcode, FInsertKeyword;
  std::vector<std::unique_ptr<TMessageFiles>> FLoaders; // one per language
  std::unordered_map<std::string, TFileRecord> FFiles;  // mapped path -> record
  std::unordered_map<std::string, int64_t> FTables;     // digest -> table
  int64_t FOrigin = 0;
  size_t FIssues = 0; // files reported to OnIssue so far
};

} // namespace

TCatalogBuildStats BuildCatalog(TImagedPC& AComputer, const std::string& AOutput, const TCatalogBuildOptions& AOptions) {
  namespace fs = std::filesystem;
  if (!AComputer.Active()) RaiseCatalogError(AOutput, "the installation is not open");
  const std::string partial = AOutput + ".partial";
  std::error_code error;
  fs::remove(partial, error);
  TCatalogBuildStats stats;
  try {
    {
      TSqliteDb db(partial, true);
      WriteCatalogHeader(db);
      db.Exec("BEGIN");
      TBuilder(AComputer, db, AOptions, stats).Run();
      db.Exec("COMMIT");
    }
    fs::rename(partial, AOutput, error);
    if (error) RaiseCatalogError(AOutput, "cannot be written: " + error.message());
  } catch (...) {
    fs::remove(partial, error);
    throw;
  }
  return stats;
}

} // namespace qvx
