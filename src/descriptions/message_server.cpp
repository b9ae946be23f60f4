#include "descriptions/message_server.h"

namespace qvx {

bool TEventMessageServerChain::GetEventMessage(const std::string& ASource, uint32_t AEventId, uint8_t AVersion,
                                               std::string& AText) {
  for (TEventMessageServer* server : FServers) {
    if (server->GetEventMessage(ASource, AEventId, AVersion, AText)) {
      FLastMessage = server;
      FLastSource = ASource;
      return true;
    }
  }
  return false;
}

bool TEventMessageServerChain::GetEventTask(const std::string& ASource, uint32_t ATask, std::string& AText) {
  for (TEventMessageServer* server : FServers)
    if (server->GetEventTask(ASource, ATask, AText)) return true;
  return false;
}

bool TEventMessageServerChain::GetParam(const std::string& ASource, uint32_t AId, std::string& AText) {
  if (FLastMessage && FLastSource == ASource && FLastMessage->GetParam(ASource, AId, AText)) return true;
  for (TEventMessageServer* server : FServers)
    if (server != FLastMessage && server->GetParam(ASource, AId, AText)) return true;
  return false;
}

bool TEventMessageServerChain::GetOpcodeName(const std::string& ASource, uint16_t ATask, uint8_t AOpcode,
                                             std::string& AText) {
  for (TEventMessageServer* server : FServers)
    if (server->GetOpcodeName(ASource, ATask, AOpcode, AText)) return true;
  return false;
}

bool TEventMessageServerChain::GetKeywordNames(const std::string& ASource, uint64_t AKeywords, std::string& AText) {
  for (TEventMessageServer* server : FServers)
    if (server->GetKeywordNames(ASource, AKeywords, AText)) return true;
  return false;
}

} // namespace qvx
