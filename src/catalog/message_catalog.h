// Message catalogs as a description server: the texts of events from one or more
// catalog files, looked up as the imaged computer looks them up in its modules.
//
// Each catalog holds one or more origins (installations). For a source, every origin
// that registers it is a candidate, newest first (higher build, then later creation,
// then the catalog given first). A publisher's event takes the newest origin whose
// metadata defines the event's own version; else the newest that defines the event at
// all (its lowest version's message, as on the installation itself). A classic source's
// event, a task or a category takes the newest origin whose files hold it. A message file
// answers in the first language of its origin's list that it has a table for.
//
// Catalogs are untrusted files: each is checked whole before any of it is used
// (CheckCatalog), texts are bounded by the connection's length limit, and a text read is
// formatted by the description step's own rules, which never read past the values.
#pragma once

#include "descriptions/message_server.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace qvx {

class TMessageCatalog;

struct TCatalogOriginInfo {
  std::string Name, Product, Created, Languages;
  int64_t Build = 0;
  int64_t Publishers = 0, ClassicSources = 0, Files = 0, Events = 0;
};

struct TCatalogInfo {
  std::string File;
  int64_t Tables = 0, Messages = 0;
  std::vector<TCatalogOriginInfo> Origins;
};

class TCatalogSet : public TEventMessageServer {
public:
  TCatalogSet();
  ~TCatalogSet() override;

  // Opens and checks the catalog file APath and adds it after the others. Raises
  // ECatalogError naming the file when it is not a usable catalog; the set is then
  // unchanged.
  void Add(const std::string& APath);
  size_t Count() const { return FCatalogs.size(); }

  bool GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) override;
  bool GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) override;
  bool GetParam(const std::string& ASource, uint32_t AId, std::string& AText) override;
  bool GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode, std::string& AText) override;
  bool GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) override;

  struct TCandidate;

private:
  // The candidates of ASource, newest first (cached per source name).
  const std::vector<TCandidate>& Candidates(const std::string& ASource);

  std::vector<std::unique_ptr<TMessageCatalog>> FCatalogs;
  std::map<std::string, std::vector<TCandidate>> FCandidates; // by lower-case name
  const TCandidate* FLastMessage = nullptr;
  std::string FLastSource;
};

// The summary of catalog APath (checked first). Raises ECatalogError.
TCatalogInfo ReadCatalogInfo(const std::string& APath);

// Writes AOutput with every origin of AInputs (each checked first); message tables that
// are identical are stored once. Raises ECatalogError naming the file at fault; AOutput
// appears only when complete.
void MergeCatalogs(const std::vector<std::string>& AInputs, const std::string& AOutput);

} // namespace qvx
