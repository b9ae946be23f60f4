#include "descriptions/pe_message_source.h"

namespace qvx {

bool TPeMessageSource::Load(const std::string& APath, const std::vector<uint16_t>& ALanguages) {
  FHasTable = false;
  FTable = TMessageTable();
  if (!FResources.LoadFile(APath)) {
    FError = FResources.Error();
    return false;
  }
  FError.clear();
  PickTable(ALanguages);
  return true;
}

bool TPeMessageSource::Open(std::span<const uint8_t> AImage, const std::vector<uint16_t>& ALanguages) {
  FHasTable = false;
  FTable = TMessageTable();
  if (!FResources.Open(AImage)) {
    FError = FResources.Error();
    return false;
  }
  FError.clear();
  PickTable(ALanguages);
  return true;
}

void TPeMessageSource::PickTable(const std::vector<uint16_t>& ALanguages) {
  // Message compilers write one table, named 1; take the first name that has one.
  for (const TResourceId& name : FResources.Names(rtMessageTable)) {
    if (const auto data = FResources.FindBest(rtMessageTable, name, ALanguages)) {
      FTable = TMessageTable(*data);
      FHasTable = true;
      return;
    }
  }
}

bool TPeMessageSource::FindMessage(uint32_t AMessageId, std::string& AText) const {
  if (!FHasTable || AMessageId == kNoMessageId) return false;
  return FTable.Find(AMessageId, AText);
}

std::optional<std::span<const uint8_t>> TPeMessageSource::WevtTemplate() const {
  return FResources.FindBest("WEVT_TEMPLATE", 1, {});
}

} // namespace qvx
