#include "support/pe_writer.h"

#include "platform/utf16.h"

#include <algorithm>
#include <map>
#include <utility>

namespace qvx::test {

namespace {

constexpr uint32_t kHighBit = 0x80000000u;
constexpr size_t kLfanew = 0x80;
constexpr size_t kFileAlignment = 0x200, kSectionAlignment = 0x1000;
constexpr size_t kSizeOfHeaders = 0x400;

size_t AlignUp(size_t AValue, size_t AAlignment) { return (AValue + AAlignment - 1) / AAlignment * AAlignment; }

std::string Upper(std::string AText) {
  for (char& c : AText)
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  return AText;
}

// Windows' order inside a directory: string names (upper-cased) first, then IDs ascending.
bool Before(const TResourceId& A, const TResourceId& B) {
  if (A.IsName != B.IsName) return A.IsName;
  return A.IsName ? Upper(A.Name) < Upper(B.Name) : A.Id < B.Id;
}

void PutBytes(std::vector<uint8_t>& ABytes, size_t AOffset, const void* AData, size_t ASize) {
  if (ABytes.size() < AOffset + ASize) ABytes.resize(AOffset + ASize);
  std::copy_n(static_cast<const uint8_t*>(AData), ASize, ABytes.begin() + static_cast<std::ptrdiff_t>(AOffset));
}

} // namespace

void PutU16(std::vector<uint8_t>& ABytes, size_t AOffset, uint16_t AValue) {
  uint8_t b[2] = {static_cast<uint8_t>(AValue), static_cast<uint8_t>(AValue >> 8)};
  PutBytes(ABytes, AOffset, b, 2);
}

void PutU32(std::vector<uint8_t>& ABytes, size_t AOffset, uint32_t AValue) {
  PutU16(ABytes, AOffset, static_cast<uint16_t>(AValue));
  PutU16(ABytes, AOffset + 2, static_cast<uint16_t>(AValue >> 16));
}

TPeWriter& TPeWriter::Add(const TResourceId& AType, const TResourceId& AName, uint16_t ALanguage,
                          std::vector<uint8_t> AData) {
  FItems.push_back({AType, AName, ALanguage, std::move(AData)});
  return *this;
}

std::vector<uint8_t> TPeWriter::Build(TPeLayout* ALayout) const {
  TPeLayout layout;
  // The tree: type -> name -> language -> item index, in Windows' order.
  std::vector<std::pair<TResourceId, std::vector<std::pair<TResourceId, std::vector<std::pair<uint16_t, size_t>>>>>> tree;
  std::vector<size_t> order(FItems.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    const TItem &x = FItems[a], &y = FItems[b];
    if (Before(x.Type, y.Type) || Before(y.Type, x.Type)) return Before(x.Type, y.Type);
    if (Before(x.Name, y.Name) || Before(y.Name, x.Name)) return Before(x.Name, y.Name);
    return x.Language < y.Language;
  });
  for (size_t i : order) {
    const TItem& item = FItems[i];
    if (tree.empty() || !(tree.back().first == item.Type)) tree.push_back({item.Type, {}});
    auto& names = tree.back().second;
    if (names.empty() || !(names.back().first == item.Name)) names.push_back({item.Name, {}});
    names.back().second.push_back({item.Language, i});
  }

  // Offsets inside .rsrc: directories, data entries, strings, data.
  size_t at = 16 + 8 * tree.size();
  std::vector<size_t> typeDirs, nameDirs;
  for (auto& type : tree) typeDirs.push_back(std::exchange(at, at + 16 + 8 * type.second.size()));
  for (auto& type : tree)
    for (auto& name : type.second) nameDirs.push_back(std::exchange(at, at + 16 + 8 * name.second.size()));
  size_t dataEntries = at;
  at += 16 * FItems.size();
  std::map<std::string, size_t> strings;
  std::vector<uint8_t> rsrc;
  auto stringAt = [&](const TResourceId& AId) -> uint32_t {
    if (!AId.IsName) return AId.Id;
    auto found = strings.find(AId.Name);
    if (found == strings.end()) {
      std::u16string units = Utf8ToUtf16(AId.Name);
      PutU16(rsrc, at, static_cast<uint16_t>(units.size()));          // Length in UTF-16 units
      for (size_t i = 0; i < units.size(); ++i) PutU16(rsrc, at + 2 + 2 * i, units[i]);
      found = strings.emplace(AId.Name, at).first;
      at += 2 + 2 * units.size();
    }
    return kHighBit | static_cast<uint32_t>(found->second);
  };
  auto directory = [&](size_t AOffset, size_t ANamed, size_t AIds) {
    PutU32(rsrc, AOffset, 0);                                  // Characteristics
    PutU32(rsrc, AOffset + 4, 0x5F5E1000);                     // TimeDateStamp
    PutU32(rsrc, AOffset + 8, 0);                              // MajorVersion, MinorVersion
    PutU16(rsrc, AOffset + 12, static_cast<uint16_t>(ANamed)); // NumberOfNamedEntries
    PutU16(rsrc, AOffset + 14, static_cast<uint16_t>(AIds));   // NumberOfIdEntries
  };
  auto countNamed = [](const auto& AList) {
    return static_cast<size_t>(std::count_if(AList.begin(), AList.end(), [](const auto& e) { return e.first.IsName; }));
  };

  const uint32_t rsrcRva = 0x2000;
  directory(0, countNamed(tree), tree.size() - countNamed(tree));
  size_t nameDir = 0, entry = 0;
  std::vector<std::pair<size_t, size_t>> dataEntryItems; // (data entry offset, item)
  for (size_t t = 0; t < tree.size(); ++t) {
    auto& names = tree[t].second;
    PutU32(rsrc, 16 + 8 * t, stringAt(tree[t].first));               // Name
    PutU32(rsrc, 16 + 8 * t + 4, kHighBit | static_cast<uint32_t>(typeDirs[t])); // OffsetToData: subdirectory
    directory(typeDirs[t], countNamed(names), names.size() - countNamed(names));
    for (size_t n = 0; n < names.size(); ++n, ++nameDir) {
      auto& languages = names[n].second;
      PutU32(rsrc, typeDirs[t] + 16 + 8 * n, stringAt(names[n].first));
      PutU32(rsrc, typeDirs[t] + 16 + 8 * n + 4, kHighBit | static_cast<uint32_t>(nameDirs[nameDir]));
      directory(nameDirs[nameDir], 0, languages.size());
      for (size_t l = 0; l < languages.size(); ++l, ++entry) {
        size_t dataEntry = dataEntries + 16 * entry;
        PutU32(rsrc, nameDirs[nameDir] + 16 + 8 * l, languages[l].first); // Name: the LANGID
        PutU32(rsrc, nameDirs[nameDir] + 16 + 8 * l + 4, static_cast<uint32_t>(dataEntry)); // data entry
        dataEntryItems.push_back({dataEntry, languages[l].second});
      }
    }
  }

  // The resource bytes, in .rsrc or in a section of their own.
  std::vector<uint8_t> data;
  size_t dataBase = FOwnDataSection ? 0 : AlignUp(at, 8);
  std::vector<uint8_t>& dataHolder = FOwnDataSection ? data : rsrc;
  size_t rsrcRaw = AlignUp(std::max(at, size_t(1)), 8);
  uint32_t dataRva = FOwnDataSection ? rsrcRva + static_cast<uint32_t>(AlignUp(rsrcRaw, kSectionAlignment)) : rsrcRva;
  size_t dataAt = dataBase;
  std::vector<size_t> dataOffsets; // within the holder
  for (auto [dataEntry, item] : dataEntryItems) {
    const auto& bytes = FItems[item].Data;
    PutU32(rsrc, dataEntry, dataRva + static_cast<uint32_t>(dataAt));     // OffsetToData (RVA)
    PutU32(rsrc, dataEntry + 4, static_cast<uint32_t>(bytes.size()));   // Size
    PutU32(rsrc, dataEntry + 8, 1252);                                  // CodePage
    PutU32(rsrc, dataEntry + 12, 0);                                    // Reserved
    if (!bytes.empty()) PutBytes(dataHolder, dataAt, bytes.data(), bytes.size());
    dataOffsets.push_back(dataAt);
    dataAt = AlignUp(dataAt + bytes.size(), 8);
  }
  rsrc.resize(AlignUp(std::max(rsrc.size(), size_t(1)), kFileAlignment));
  data.resize(AlignUp(data.size(), kFileAlignment));

  // Sections: .text, .rsrc, optionally .rdata.
  struct TSection {
    const char* Name;
    uint32_t Rva;
    size_t RawSize, RawPointer;
    uint32_t Characteristics;
  };
  std::vector<TSection> sections = {{".text", 0x1000, kFileAlignment, kSizeOfHeaders, 0x60000020},
                                    {".rsrc", rsrcRva, rsrc.size(), kSizeOfHeaders + kFileAlignment, 0x40000040}};
  if (FOwnDataSection)
    sections.push_back({".rdata", dataRva, data.size(), sections[1].RawPointer + rsrc.size(), 0x40000040});
  uint32_t imageSize = static_cast<uint32_t>(AlignUp(sections.back().Rva + sections.back().RawSize, kSectionAlignment));

  std::vector<uint8_t> out(kSizeOfHeaders, 0);
  PutU16(out, 0, 0x5A4D);                         // e_magic "MZ"
  PutU32(out, 0x3C, kLfanew);                     // e_lfanew
  PutU32(out, kLfanew, 0x00004550);               // "PE\0\0"
  size_t coff = kLfanew + 4;
  PutU16(out, coff, FPe32Plus ? 0x8664 : 0x014C); // Machine: AMD64 / i386
  PutU16(out, coff + 2, static_cast<uint16_t>(sections.size())); // NumberOfSections
  PutU32(out, coff + 4, 0x5F5E1000);              // TimeDateStamp
  size_t optSize = FPe32Plus ? 240 : 224;
  PutU16(out, coff + 16, static_cast<uint16_t>(optSize)); // SizeOfOptionalHeader
  PutU16(out, coff + 18, FPe32Plus ? 0x2022 : 0x2102);   // Characteristics: DLL, executable
  size_t opt = coff + 20;
  PutU16(out, opt, FPe32Plus ? 0x20B : 0x10B);   // Magic
  out[opt + 2] = 14;                              // MajorLinkerVersion
  PutU32(out, opt + 4, kFileAlignment);           // SizeOfCode
  PutU32(out, opt + 20, 0x1000);                  // BaseOfCode
  if (FPe32Plus) {
    PutU32(out, opt + 24, 0x80000000);            // ImageBase (low), high half 1
    PutU32(out, opt + 28, 1);
  } else {
    PutU32(out, opt + 24, rsrcRva);               // BaseOfData
    PutU32(out, opt + 28, 0x10000000);            // ImageBase
  }
  PutU32(out, opt + 32, kSectionAlignment);       // SectionAlignment
  PutU32(out, opt + 36, kFileAlignment);          // FileAlignment
  PutU16(out, opt + 40, 6);                       // MajorOperatingSystemVersion
  PutU16(out, opt + 48, 6);                       // MajorSubsystemVersion
  PutU32(out, opt + 56, imageSize);               // SizeOfImage
  PutU32(out, opt + 60, kSizeOfHeaders);          // SizeOfHeaders
  PutU16(out, opt + 68, 2);                       // Subsystem: Windows GUI
  PutU16(out, opt + 70, 0x0140);                  // DllCharacteristics: dynamic base, NX
  size_t dirs = opt + (FPe32Plus ? 112 : 96);
  PutU32(out, dirs - 4, 16);                      // NumberOfRvaAndSizes
  layout.ResourceDirectoryEntry = dirs + 16;
  PutU32(out, dirs + 16, rsrcRva);                // data directory #2: resource RVA
  PutU32(out, dirs + 20, static_cast<uint32_t>(FOwnDataSection ? at : dataAt)); // and size
  layout.SectionTable = opt + optSize;
  for (size_t i = 0; i < sections.size(); ++i) {
    size_t s = layout.SectionTable + 40 * i;
    PutBytes(out, s, sections[i].Name, std::char_traits<char>::length(sections[i].Name)); // Name
    PutU32(out, s + 8, static_cast<uint32_t>(sections[i].RawSize));   // VirtualSize
    PutU32(out, s + 12, sections[i].Rva);                             // VirtualAddress
    PutU32(out, s + 16, static_cast<uint32_t>(sections[i].RawSize));  // SizeOfRawData
    PutU32(out, s + 20, static_cast<uint32_t>(sections[i].RawPointer)); // PointerToRawData
    PutU32(out, s + 36, sections[i].Characteristics);                 // Characteristics
  }
  out.resize(kSizeOfHeaders + kFileAlignment, 0xCC); // .text
  out.insert(out.end(), rsrc.begin(), rsrc.end());
  out.insert(out.end(), data.begin(), data.end());

  layout.RsrcFileOffset = sections[1].RawPointer;
  layout.RsrcRva = rsrcRva;
  layout.Directories.push_back(layout.RsrcFileOffset);
  for (size_t d : typeDirs) layout.Directories.push_back(layout.RsrcFileOffset + d);
  for (size_t d : nameDirs) layout.Directories.push_back(layout.RsrcFileOffset + d);
  size_t holderBase = FOwnDataSection ? sections[2].RawPointer : layout.RsrcFileOffset;
  for (size_t i = 0; i < dataEntryItems.size(); ++i) {
    layout.DataEntries.push_back(layout.RsrcFileOffset + dataEntryItems[i].first);
    layout.Data.push_back(holderBase + dataOffsets[i]);
  }
  if (ALayout) *ALayout = std::move(layout);
  return out;
}

TMessageEntryFixture AnsiEntry(std::string_view ABytes) {
  TMessageEntryFixture entry;
  entry.Text.assign(ABytes.begin(), ABytes.end());
  entry.Text.resize(AlignUp(ABytes.size() + 1, 4), 0); // NUL terminator and padding
  return entry;
}

TMessageEntryFixture UnicodeEntry(std::u16string_view AText) {
  TMessageEntryFixture entry;
  entry.Flags = 1;
  for (char16_t c : AText) {
    entry.Text.push_back(static_cast<uint8_t>(c));
    entry.Text.push_back(static_cast<uint8_t>(c >> 8));
  }
  entry.Text.resize(AlignUp(entry.Text.size() + 2, 4), 0);
  return entry;
}

std::vector<uint8_t> BuildMessageTable(const std::vector<TMessageBlockFixture>& ABlocks) {
  std::vector<uint8_t> out;
  PutU32(out, 0, static_cast<uint32_t>(ABlocks.size()));        // NumberOfBlocks
  size_t at = 4 + 12 * ABlocks.size();
  for (size_t b = 0; b < ABlocks.size(); ++b) {
    const TMessageBlockFixture& block = ABlocks[b];
    PutU32(out, 4 + 12 * b, block.LowId);                         // LowId
    PutU32(out, 4 + 12 * b + 4, block.HighId);                    // HighId
    PutU32(out, 4 + 12 * b + 8, block.OffsetToEntries.value_or(static_cast<uint32_t>(at))); // OffsetToEntries
    for (const TMessageEntryFixture& entry : block.Entries) {
      PutU16(out, at, entry.Length.value_or(static_cast<uint16_t>(4 + entry.Text.size()))); // Length
      PutU16(out, at + 2, entry.Flags);                           // Flags
      if (!entry.Text.empty()) PutBytes(out, at + 4, entry.Text.data(), entry.Text.size());
      at += 4 + entry.Text.size();
    }
  }
  out.resize(std::max(out.size(), at));
  return out;
}

} // namespace qvx::test
