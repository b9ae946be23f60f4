#include "catalog/message_catalog.h"

#include "catalog/catalog_file.h"
#include "catalog/catalog_schema.h"
#include "catalog/sqlite_handle.h"
#include "descriptions/description_caches.h"
#include "descriptions/format_message.h"
#include "descriptions/message_files.h"
#include "descriptions/provider_metadata.h"

#include <algorithm>
#include <filesystem>
#include <optional>

namespace qvx {

using namespace catalog;

namespace {

std::string LowerAscii(std::string_view AText) {
  std::string lower(AText);
  for (char& c : lower) c = detail::LowerAscii(c);
  return lower;
}

std::vector<std::string> SplitComma(std::string_view AText) {
  std::vector<std::string> parts;
  while (!AText.empty()) {
    const size_t comma = AText.find(',');
    if (comma != 0) parts.emplace_back(AText.substr(0, comma));
    if (comma == std::string_view::npos) break;
    AText.remove_prefix(comma + 1);
  }
  return parts;
}

} // namespace

// One open, checked catalog file and the statements that read it.
class TMessageCatalog {
public:
  explicit TMessageCatalog(const std::string& APath)
      : FDb(APath, false), FProviders(FDb, "SELECT p.id, p.kind, o.id, o.build, o.created, o.languages FROM provider p "
                                           "JOIN origin o ON o.id = p.origin_id WHERE p.name_key = ?"),
        FFiles(FDb, "SELECT pf.role, f.id, f.loaded FROM provider_file pf JOIN file f ON f.id = pf.file_id "
                    "WHERE pf.provider_id = ? ORDER BY pf.role, pf.position"),
        FFileTables(FDb, "SELECT language, table_id FROM file_table WHERE file_id = ?"),
        FEvents(FDb, "SELECT id, version, message_id FROM event WHERE provider_id = ? ORDER BY id, version"),
        FTasks(FDb, "SELECT value, message_id FROM task WHERE provider_id = ? ORDER BY value"),
        FOpcodes(FDb, "SELECT task, value, message_id FROM opcode WHERE provider_id = ?"),
        FKeywords(FDb, "SELECT mask, message_id FROM keyword WHERE provider_id = ?"),
        FMessage(FDb, "SELECT text FROM message WHERE table_id = ? AND id = ?") {}

  // Statements are prepared against the checked schema only.
  static std::unique_ptr<TMessageCatalog> Open(const std::string& APath) {
    {
      TSqliteDb probe(APath, false);
      CheckCatalog(probe);
    }
    return std::make_unique<TMessageCatalog>(APath);
  }

  bool FindMessage(int64_t ATable, uint32_t AId, std::string& AText) {
    FMessage.Bind(1, ATable).Bind(2, static_cast<int64_t>(AId));
    const bool found = FMessage.Step();
    if (found) AText.assign(FMessage.Text(0));
    FMessage.Reset();
    return found;
  }

  TSqliteDb FDb;
  TSqliteStatement FProviders, FFiles, FFileTables, FEvents, FTasks, FOpcodes, FKeywords, FMessage;
};

namespace {

// A message table of a catalog as a message module.
class TCatalogTable : public TProviderMessageSource {
public:
  TCatalogTable(TMessageCatalog& ACatalog, int64_t ATable) : FCatalog(ACatalog), FTable(ATable) {}
  bool FindMessage(uint32_t AMessageId, std::string& AText) const override {
    return AMessageId != kNoMessageId && FCatalog.FindMessage(FTable, AMessageId, AText);
  }

private:
  TMessageCatalog& FCatalog;
  int64_t FTable;
};

} // namespace

struct TCatalogSet::TCandidate {
  struct TFile {
    bool Loaded = false;
    int64_t Table = 0; // 0: none in the origin's languages
  };
  TMessageCatalog* Catalog = nullptr;
  size_t Order = 0; // the catalog's place in the set
  int64_t Origin = 0;
  int Kind = pkPublisher;
  int64_t Build = 0;
  std::string Created;
  std::vector<TFile> Files[3];
  std::vector<TEventInfo> Events; // sorted by id, then version
  std::vector<TTaskInfo> Tasks;
  std::vector<TOpcodeInfo> Opcodes;
  std::vector<TKeywordInfo> Keywords;

  // The message of event AId in version AVersion; with AExact false, else the event's
  // lowest version. kNoMessageId when not defined.
  uint32_t EventMessageId(uint16_t AId, uint8_t AVersion, bool AExact) const {
    auto it = std::lower_bound(Events.begin(), Events.end(), AId,
                               [](const TEventInfo& A, uint16_t AKey) { return A.Id < AKey; });
    if (it == Events.end() || it->Id != AId) return kNoMessageId;
    const uint32_t lowest = it->MessageId;
    for (; it != Events.end() && it->Id == AId; ++it)
      if (it->Version == AVersion) return it->MessageId;
    return AExact ? kNoMessageId : lowest;
  }

  bool Template(const std::vector<TFile>& AFiles, uint32_t AMessageId, std::string& AText) const {
    for (const TFile& file : AFiles)
      if (file.Table && MessageTemplate(TCatalogTable(*Catalog, file.Table), AMessageId, AText)) return true;
    return false;
  }
};

TCatalogSet::TCatalogSet() = default;
TCatalogSet::~TCatalogSet() = default;

void TCatalogSet::Add(const std::string& APath) {
  FCatalogs.push_back(TMessageCatalog::Open(APath));
  FCandidates.clear();
  FLastMessage = nullptr;
}

const std::vector<TCatalogSet::TCandidate>& TCatalogSet::Candidates(const std::string& ASource) {
  std::string key = LowerAscii(ASource);
  const auto known = FCandidates.find(key);
  if (known != FCandidates.end()) return known->second;
  std::vector<TCandidate> candidates;
  std::map<int64_t, std::vector<std::string>> languagesOf; // by provider id
  for (size_t order = 0; order < FCatalogs.size(); ++order) {
    TMessageCatalog& catalog = *FCatalogs[order];
    std::vector<std::pair<int64_t, TCandidate>> found; // provider id, candidate
    catalog.FProviders.Bind(1, key);
    while (catalog.FProviders.Step()) {
      TCandidate candidate;
      candidate.Catalog = &catalog;
      candidate.Order = order;
      candidate.Kind = catalog.FProviders.Int(1) == pkClassic ? pkClassic : pkPublisher;
      candidate.Origin = catalog.FProviders.Int(2);
      candidate.Build = catalog.FProviders.Int(3);
      candidate.Created.assign(catalog.FProviders.Text(4).substr(0, 64));
      languagesOf[catalog.FProviders.Int(0)] = SplitComma(catalog.FProviders.Text(5).substr(0, 1024));
      found.emplace_back(catalog.FProviders.Int(0), std::move(candidate));
    }
    catalog.FProviders.Reset();
    // One candidate per origin: the publisher when the name is both, as on the installation.
    std::stable_sort(found.begin(), found.end(), [](const auto& A, const auto& B) {
      return A.second.Origin != B.second.Origin ? A.second.Origin < B.second.Origin : A.second.Kind < B.second.Kind;
    });
    for (size_t i = 0; i < found.size(); ++i) {
      if (i > 0 && found[i].second.Origin == found[i - 1].second.Origin) continue;
      auto& [provider, candidate] = found[i];
      const std::vector<std::string>& languages = languagesOf[provider];
      catalog.FFiles.Bind(1, provider);
      while (catalog.FFiles.Step()) {
        const int64_t role = catalog.FFiles.Int(0);
        if (role < 0 || role > 2) continue;
        TCandidate::TFile file;
        file.Loaded = catalog.FFiles.Int(2) != 0;
        const int64_t fileId = catalog.FFiles.Int(1);
        catalog.FFileTables.Bind(1, fileId);
        size_t best = languages.size();
        while (catalog.FFileTables.Step()) {
          const auto at = std::find(languages.begin(), languages.end(), catalog.FFileTables.Text(0));
          const size_t rank = static_cast<size_t>(at - languages.begin());
          if (rank < best || (file.Table == 0 && best == languages.size())) {
            best = rank;
            file.Table = catalog.FFileTables.Int(1);
          }
        }
        catalog.FFileTables.Reset();
        candidate.Files[role].push_back(file);
      }
      catalog.FFiles.Reset();
      catalog.FEvents.Bind(1, provider);
      while (catalog.FEvents.Step()) {
        TEventInfo event;
        event.Id = static_cast<uint16_t>(catalog.FEvents.Int(0));
        event.Version = static_cast<uint8_t>(catalog.FEvents.Int(1));
        event.MessageId = static_cast<uint32_t>(catalog.FEvents.Int(2));
        candidate.Events.push_back(event);
      }
      catalog.FEvents.Reset();
      // The rows come sorted; values outside 16 and 8 bits would not, so sort again.
      std::stable_sort(candidate.Events.begin(), candidate.Events.end(),
                       [](const TEventInfo& A, const TEventInfo& B) { return TEventInfoComparer::Compare(A, B) < 0; });
      catalog.FTasks.Bind(1, provider);
      while (catalog.FTasks.Step())
        candidate.Tasks.push_back({static_cast<uint32_t>(catalog.FTasks.Int(0)), static_cast<uint32_t>(catalog.FTasks.Int(1))});
      catalog.FTasks.Reset();
      catalog.FOpcodes.Bind(1, provider);
      while (catalog.FOpcodes.Step())
        candidate.Opcodes.push_back({static_cast<uint16_t>(catalog.FOpcodes.Int(0)), static_cast<uint16_t>(catalog.FOpcodes.Int(1)),
                                     static_cast<uint32_t>(catalog.FOpcodes.Int(2))});
      catalog.FOpcodes.Reset();
      catalog.FKeywords.Bind(1, provider);
      while (catalog.FKeywords.Step())
        candidate.Keywords.push_back({static_cast<uint64_t>(catalog.FKeywords.Int(0)), static_cast<uint32_t>(catalog.FKeywords.Int(1))});
      catalog.FKeywords.Reset();
      candidates.push_back(std::move(candidate));
    }
  }
  std::stable_sort(candidates.begin(), candidates.end(), [](const TCandidate& A, const TCandidate& B) {
    if (A.Build != B.Build) return A.Build > B.Build;
    if (A.Created != B.Created) return A.Created > B.Created;
    return A.Order < B.Order;
  });
  return FCandidates.emplace(std::move(key), std::move(candidates)).first->second;
}

bool TCatalogSet::GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) {
  const std::vector<TCandidate>& candidates = Candidates(ASource);
  const auto id = static_cast<uint16_t>(AEventId);
  auto answer = [&](const TCandidate& ACandidate) {
    FLastMessage = &ACandidate;
    FLastSource = ASource;
    return true;
  };
  // The definition of the event's own version decides first.
  for (const TCandidate& candidate : candidates) {
    if (candidate.Kind != pkPublisher) continue;
    const uint32_t message = candidate.EventMessageId(id, AVersion, true);
    if (message != kNoMessageId && candidate.Template(candidate.Files[frEvent], message, AText)) return answer(candidate);
  }
  for (const TCandidate& candidate : candidates) {
    if (candidate.Kind == pkClassic) {
      if (candidate.Template(candidate.Files[frEvent], AEventId, AText)) return answer(candidate);
      continue;
    }
    const uint32_t message = candidate.EventMessageId(id, AVersion, false);
    if (message != kNoMessageId && candidate.Template(candidate.Files[frEvent], message, AText)) return answer(candidate);
  }
  return false;
}

bool TCatalogSet::GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) {
  for (const TCandidate& candidate : Candidates(ASource)) {
    if (candidate.Kind == pkClassic) {
      if (candidate.Template(candidate.Files[frCategory], ATask, AText)) return true;
      continue;
    }
    const auto task = std::find_if(candidate.Tasks.begin(), candidate.Tasks.end(),
                                   [&](const TTaskInfo& AInfo) { return AInfo.Value == ATask; });
    if (task == candidate.Tasks.end() || task->MessageId == kNoMessageId) continue;
    const auto& files = candidate.Files[frCategory].empty() ? candidate.Files[frEvent] : candidate.Files[frCategory];
    if (candidate.Template(files, task->MessageId, AText)) return true;
  }
  return false;
}

bool TCatalogSet::GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode, std::string& AText) {
  for (const TCandidate& candidate : Candidates(ASource)) {
    const uint32_t message = FindOpcodeMessage(candidate.Opcodes, ATask, AOpcode);
    if (message != kNoMessageId && candidate.Template(candidate.Files[frEvent], message, AText)) return true;
  }
  return false;
}

bool TCatalogSet::GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) {
  for (const TCandidate& candidate : Candidates(ASource)) {
    if (candidate.Keywords.empty()) continue;
    return JoinKeywordNames(candidate.Keywords, AKeywords, AText, [&](uint32_t AId, std::string& AName) {
      return candidate.Template(candidate.Files[frEvent], AId, AName);
    });
  }
  return false;
}

bool TCatalogSet::GetParam(const std::string& ASource, uint32_t AId, std::string& AText) {
  const std::vector<TCandidate>& candidates = Candidates(ASource);
  auto ask = [&](const TCandidate& ACandidate) {
    // The first parameter file that loaded is the one asked, as on the installation.
    for (const TCandidate::TFile& file : ACandidate.Files[frParameter]) {
      if (!file.Loaded) continue;
      std::string raw;
      if (!file.Table || !TCatalogTable(*ACandidate.Catalog, file.Table).FindMessage(AId, raw)) return false;
      if (!FormatMessageText(raw, {}, fmIgnoreInserts, AText)) AText = std::move(raw);
      return true;
    }
    return false;
  };
  const TCandidate* last = FLastMessage && detail::EqualsNoCase(FLastSource, ASource) ? FLastMessage : nullptr;
  if (last && ask(*last)) return true;
  for (const TCandidate& candidate : candidates)
    if (&candidate != last && ask(candidate)) return true;
  return false;
}

} // namespace qvx
