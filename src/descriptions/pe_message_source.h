// TPeMessageSource: the message texts and WEVT_TEMPLATE resource of one message module
// (a provider's DLL or EXE, or its .mui satellite), read from the file's bytes.
#pragma once

#include "descriptions/provider_metadata.h"
#include "platform/message_table.h"
#include "platform/pe_resources.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace qvx {

class TPeMessageSource : public TProviderMessageSource {
public:
  // Reads the module at APath; its message table is taken in the first of ALanguages that
  // it has, else neutral, en-US or the first present. False with Error() set when the file
  // cannot be read or is not a PE image; a module without a message table loads (it may
  // still hold a WEVT_TEMPLATE) and finds no message.
  bool Load(const std::string& APath, const std::vector<uint16_t>& ALanguages);
  // The same over bytes the caller keeps alive.
  bool Open(std::span<const uint8_t> AImage, const std::vector<uint16_t>& ALanguages);

  bool FindMessage(uint32_t AMessageId, std::string& AText) const override;
  // Every readable message of the table taken (none without one), as TMessageTable::ForEach.
  void ForEachMessage(const std::function<void(uint32_t, const std::string&)>& AVisit) const {
    if (FHasTable) FTable.ForEach(AVisit);
  }
  // The file version of the module's version resource ("10.0.22621.1"); "" when it has none.
  std::string FileVersion() const;

  // The module's provider metadata: resource 1 of type "WEVT_TEMPLATE" (any language).
  std::optional<std::span<const uint8_t>> WevtTemplate() const;

  const std::string& Error() const { return FError; }
  bool HasMessageTable() const { return FHasTable; }

private:
  void PickTable(const std::vector<uint16_t>& ALanguages);

  TPeResources FResources;
  TMessageTable FTable;
  bool FHasTable = false;
  std::string FError;
};

} // namespace qvx
