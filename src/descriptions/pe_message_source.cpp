#include "descriptions/pe_message_source.h"

#include "platform/byte_reader.h"

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

namespace qvx {

// The version resource (RT_VERSION, name 1) starts with VS_VERSIONINFO: three 16-bit
// lengths and types, the key "VS_VERSION_INFO" in UTF-16 and padding, then
// VS_FIXEDFILEINFO:
//   +0  4  signature 0xFEEF04BD
//   +4  4  structure version
//   +8  4  file version, high word major, low word minor
//   +12 4  file version, high word build, low word revision
std::string TPeMessageSource::FileVersion() const {
  constexpr uint32_t kFixedSignature = 0xFEEF04BD;
  const auto data = FResources.FindBest(TResourceId(static_cast<uint16_t>(rtVersion)), TResourceId(static_cast<uint16_t>(1)), {});
  if (!data) return {};
  const TByteReader reader(*data);
  // The fixed part lies right after the key; a few words of slack for odd padding.
  for (uint64_t at = 0; at <= 96 && reader.Fits(at, 16); at += 4) {
    if (reader.ReadU32(at) != kFixedSignature) continue;
    const uint32_t high = reader.ReadU32(at + 8), low = reader.ReadU32(at + 12);
    return std::to_string(high >> 16) + "." + std::to_string(high & 0xFFFF) + "." + std::to_string(low >> 16) + "." +
           std::to_string(low & 0xFFFF);
  }
  return {};
}

} // namespace qvx
