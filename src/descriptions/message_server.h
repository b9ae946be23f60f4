// TEventMessageServer: where the texts of an offline description come from — the message
// modules of an imaged installation, a message catalog, or several of them in turn.
//
// The description step (template lookup with the Kernel-General offset and the severity
// retry, "%%n" expansion, inserts) is the same whatever the server: it asks the server for
// a template, a task or category name and parameter messages, and formats them itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

class TEventMessageServer {
public:
  virtual ~TEventMessageServer() = default;
  // The message template of an event: a classic source's event id (qualifiers in the
  // upper 16 bits), a publisher's for this id and version. Escapes other than inserts
  // applied, trailing line break cut. False when the server has none.
  virtual bool GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) = 0;
  // The text of a task (publisher) or category (classic source); false when none.
  virtual bool GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) = 0;
  // The text of parameter message AId of the source ("%%n"); false when none.
  virtual bool GetParam(const std::string& ASource, uint32_t AId, std::string& AText) = 0;
  // The name of an opcode of a publisher (task-specific first); false when none.
  virtual bool GetOpcodeName(const std::string&, uint16_t, uint8_t, std::string&) { return false; }
  // The names of the keyword bits set in AKeywords, joined by ", "; false when none is named.
  virtual bool GetKeywordNames(const std::string&, uint64_t, std::string&) { return false; }
};

// Servers asked in order: the first that has a text answers. A parameter message is
// asked of the server that gave the source's last template first, so the "%%n" of a
// description come from the installation that gave its text. Does not own the servers.
class TEventMessageServerChain : public TEventMessageServer {
public:
  void Clear() { FServers.clear(); FLastMessage = nullptr; }
  void Add(TEventMessageServer* AServer) {
    if (AServer) FServers.push_back(AServer);
  }
  bool Empty() const { return FServers.empty(); }

  bool GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion, std::string& AText) override;
  bool GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) override;
  bool GetParam(const std::string& ASource, uint32_t AId, std::string& AText) override;
  bool GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode, std::string& AText) override;
  bool GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) override;

private:
  std::vector<TEventMessageServer*> FServers;
  TEventMessageServer* FLastMessage = nullptr;
  std::string FLastSource;
};

} // namespace qvx
