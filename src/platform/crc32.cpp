#include "platform/crc32.h"

#include <array>

namespace qvx {
namespace {

constexpr std::array<uint32_t, 256> MakeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = c & 1 ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    table[i] = c;
  }
  return table;
}

constexpr auto kTable = MakeTable();

} // namespace

uint32_t Crc32(const void* AData, size_t ALength, uint32_t ACrc) {
  const auto* p = static_cast<const uint8_t*>(AData);
  uint32_t c = ~ACrc;
  for (size_t i = 0; i < ALength; ++i) c = kTable[(c ^ p[i]) & 0xFF] ^ (c >> 8);
  return ~c;
}

} // namespace qvx
