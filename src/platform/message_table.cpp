#include "platform/message_table.h"

#include "platform/byte_reader.h"
#include "platform/pe_resources.h"
#include "platform/utf16.h"

#include <algorithm>
#include <cstdio>

namespace qvx {

namespace {

// Offsets and sizes of the layout in message_table.h.
constexpr uint64_t kBlockSize = 12;
constexpr uint64_t kEntryHeaderSize = 4;
constexpr uint16_t kFlagsAnsi = 0, kFlagsUnicode = 1, kFlagsUtf8 = 2;

// Every defect message is built here (one breakpoint catches them all).
bool Defect(std::string* AError, const char* AWhat, uint32_t AId, uint64_t AOffset) {
  if (AError) {
    char text[160];
    std::snprintf(text, sizeof text, "message table: message 0x%X: %s at offset 0x%llX", AId, AWhat,
                  static_cast<unsigned long long>(AOffset));
    *AError = text;
  }
  return false;
}

// The entry at AOffset: its length, or 0 (with AError) when it is damaged.
uint16_t EntryLength(const TByteReader& AData, uint64_t AOffset, uint32_t AId, std::string* AError) {
  uint16_t length = AData.ReadU16(AOffset);
  if (!AData.Fits(AOffset, kEntryHeaderSize)) return Defect(AError, "entry runs past the resource", AId, AOffset), 0;
  if (length < kEntryHeaderSize) return Defect(AError, "entry shorter than its header", AId, AOffset), 0;
  if (!AData.Fits(AOffset, length)) return Defect(AError, "entry runs past the resource", AId, AOffset), 0;
  return length;
}

bool Decode(const TByteReader& AData, uint64_t AOffset, uint16_t ALength, uint32_t AId, std::string& AText,
            std::string* AError) {
  const uint8_t* text = AData.Data() + AOffset + kEntryHeaderSize;
  size_t size = ALength - kEntryHeaderSize;
  uint16_t flags = AData.ReadU16(AOffset + 2);
  AText.clear();
  if (flags == kFlagsUnicode) {
    size_t units = size / 2;
    while (units > 0 && text[units * 2 - 2] == 0 && text[units * 2 - 1] == 0) --units;
    AppendUtf16(AText, text, units);
    return true;
  }
  if (flags != kFlagsAnsi && flags != kFlagsUtf8) return Defect(AError, "entry has unknown flags", AId, AOffset);
  while (size > 0 && text[size - 1] == 0) --size;
  if (flags == kFlagsAnsi) AppendCp1252(AText, text, size);
  else AText.append(reinterpret_cast<const char*>(text), size);
  return true;
}

} // namespace

TMessageTable::TMessageTable(std::span<const uint8_t> AData) : FData(AData) {
  TByteReader data(AData);
  uint64_t count = data.ReadU32(0);
  uint64_t fits = AData.size() < 4 ? 0 : (AData.size() - 4) / kBlockSize;
  for (uint64_t i = 0; i < count && i < fits; ++i) {
    uint64_t at = 4 + i * kBlockSize;
    TMessageBlock block{data.ReadU32(at), data.ReadU32(at + 4), data.ReadU32(at + 8)};
    if (block.LowId <= block.HighId) FBlocks.push_back(block);
  }
  std::vector<TMessageBlock> byLow = FBlocks;
  std::sort(byLow.begin(), byLow.end(), [](const auto& A, const auto& B) { return A.LowId < B.LowId; });
  for (size_t i = 1; i < byLow.size() && !FOverlaps; ++i) {
    FOverlaps = byLow[i].LowId <= byLow[i - 1].HighId;
    byLow[i].HighId = std::max(byLow[i].HighId, byLow[i - 1].HighId);
  }
}

bool TMessageTable::Find(uint32_t AMessageId, std::string& AText, std::string* AError) const {
  TByteReader data(FData);
  for (const TMessageBlock& block : FBlocks) {
    if (AMessageId < block.LowId || AMessageId > block.HighId) continue;
    // Each step moves at least 4 bytes forward, so the walk ends at the resource's end.
    uint64_t at = block.OffsetToEntries;
    for (uint32_t id = block.LowId;; ++id) {
      uint16_t length = EntryLength(data, at, AMessageId, AError);
      if (length == 0) return false;
      if (id == AMessageId) return Decode(data, at, length, AMessageId, AText, AError);
      at += length;
    }
  }
  if (AError) {
    char text[80];
    std::snprintf(text, sizeof text, "message table: message 0x%X is in no block", AMessageId);
    *AError = text;
  }
  return false;
}

void TMessageTable::ForEach(const std::function<void(uint32_t, const std::string&)>& AVisit) const {
  TByteReader data(FData);
  uint64_t budget = FData.size() / kEntryHeaderSize;
  std::string text;
  for (const TMessageBlock& block : FBlocks) {
    uint64_t at = block.OffsetToEntries;
    for (uint64_t id = block.LowId; id <= block.HighId && budget > 0; ++id, --budget) {
      uint16_t length = EntryLength(data, at, static_cast<uint32_t>(id), nullptr);
      if (length == 0) break;
      if (Decode(data, at, length, static_cast<uint32_t>(id), text, nullptr)) AVisit(static_cast<uint32_t>(id), text);
      at += length;
    }
  }
}

bool FindMessage(std::span<const uint8_t> APe, uint32_t AId, const std::vector<uint16_t>& ALanguages,
                 std::string& AText, std::string* AError) {
  TPeResources pe;
  if (!pe.Open(APe)) {
    if (AError) *AError = pe.Error();
    return false;
  }
  std::vector<TResourceId> names = pe.Names(rtMessageTable);
  if (names.empty()) {
    if (AError) *AError = "message table: the image has no message table resource";
    return false;
  }
  for (const TResourceId& name : names)
    if (auto bytes = pe.FindBest(rtMessageTable, name, ALanguages))
      if (TMessageTable(*bytes).Find(AId, AText, AError)) return true;
  return false;
}

} // namespace qvx
