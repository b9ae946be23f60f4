// In-memory PE32 / PE32+ images with a resource section, and RT_MESSAGETABLE resources,
// for the PE resource and message table tests (and their damaged variants).
//
// Image layout written by TPeWriter::Build
//   file offset  RVA      contents
//   0x000                 DOS header: "MZ", e_lfanew = 0x80 at 0x3C
//   0x080                 "PE\0\0", COFF header, optional header (16 data directories),
//                         section table
//   0x400        0x1000   .text: 0x200 bytes of 0xCC (moves .rsrc off the identity mapping)
//   0x600        0x2000   .rsrc: directories (root, type directories, name directories),
//                         data entries, name strings, then the resource bytes (8-aligned)
//   after .rsrc  next     .rdata: the resource bytes instead, with DataInOwnSection()
// Entries in each directory: string names first (upper-cased order), then IDs ascending.
#pragma once

#include "platform/pe_resources.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::test {

// Where Build() put things, so a test can damage one field.
struct TPeLayout {
  size_t ResourceDirectoryEntry = 0; // file offset of data directory #2 {RVA, Size}
  size_t SectionTable = 0;           // file offset of the first section header
  size_t RsrcFileOffset = 0;         // file offset of the resource section
  uint32_t RsrcRva = 0;
  std::vector<size_t> Directories;   // file offsets: root, type directories, name directories
  std::vector<size_t> DataEntries;   // file offsets, in type/name/language order
  std::vector<size_t> Data;          // file offsets of the resource bytes, same order
};

class TPeWriter {
public:
  explicit TPeWriter(bool APe32Plus = false) : FPe32Plus(APe32Plus) {}

  TPeWriter& Add(const TResourceId& AType, const TResourceId& AName, uint16_t ALanguage,
                 std::vector<uint8_t> AData);
  // Puts the resource bytes in a section of their own after .rsrc.
  TPeWriter& DataInOwnSection() {
    FOwnDataSection = true;
    return *this;
  }

  std::vector<uint8_t> Build(TPeLayout* ALayout = nullptr) const;

private:
  struct TItem {
    TResourceId Type, Name;
    uint16_t Language;
    std::vector<uint8_t> Data;
  };
  std::vector<TItem> FItems;
  bool FPe32Plus;
  bool FOwnDataSection = false;
};

// One message table entry; Length overrides the computed one to make damaged entries.
struct TMessageEntryFixture {
  uint16_t Flags = 0;
  std::vector<uint8_t> Text; // as stored, padding included
  std::optional<uint16_t> Length;
};

// Text in code page 1252 bytes, NUL-terminated and padded to a multiple of 4.
TMessageEntryFixture AnsiEntry(std::string_view ABytes);
// UTF-16LE text, NUL-terminated and padded to a multiple of 4.
TMessageEntryFixture UnicodeEntry(std::u16string_view AText);

// One block; OffsetToEntries overrides where its entries are said to be (overlapping blocks).
struct TMessageBlockFixture {
  uint32_t LowId = 0, HighId = 0;
  std::vector<TMessageEntryFixture> Entries;
  std::optional<uint32_t> OffsetToEntries;
};

// NumberOfBlocks, the block headers, then each block's entries in order.
std::vector<uint8_t> BuildMessageTable(const std::vector<TMessageBlockFixture>& ABlocks);

void PutU16(std::vector<uint8_t>& ABytes, size_t AOffset, uint16_t AValue);
void PutU32(std::vector<uint8_t>& ABytes, size_t AOffset, uint32_t AValue);

} // namespace qvx::test
