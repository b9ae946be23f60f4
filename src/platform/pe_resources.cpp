#include "platform/pe_resources.h"

#include "platform/byte_reader.h"
#include "platform/nt_exception.h"
#include "platform/raw_file.h"
#include "platform/utf16.h"

#include <cstdio>
#include <set>
#include <utility>

namespace qvx {

namespace {

// Offsets and sizes of the layout in pe_resources.h.
constexpr uint16_t kDosMagic = 0x5A4D;           // "MZ"
constexpr uint32_t kPeSignature = 0x00004550;    // "PE\0\0"
constexpr uint64_t kDosHeaderSize = 64;
constexpr uint64_t kLfanewOffset = 0x3C;
constexpr uint64_t kNtHeadersSize = 24;          // signature + COFF header
constexpr uint64_t kNumberOfSectionsOffset = 6;  // from the signature
constexpr uint64_t kSizeOfOptionalHeaderOffset = 20;
constexpr uint16_t kMagicPe32 = 0x10B;
constexpr uint16_t kMagicPe32Plus = 0x20B;
constexpr uint64_t kRvaCountOffset32 = 92, kRvaCountOffset64 = 108;
constexpr uint64_t kDataDirectories32 = 96, kDataDirectories64 = 112;
constexpr uint32_t kResourceDirectoryIndex = 2;
constexpr uint64_t kSectionHeaderSize = 40;
constexpr uint64_t kSectionVirtualAddress = 12, kSectionSizeOfRawData = 16, kSectionPointerToRawData = 20;
constexpr uint64_t kDirectoryHeaderSize = 16;
constexpr uint64_t kNamedEntriesOffset = 12, kIdEntriesOffset = 14;
constexpr uint64_t kDirectoryEntrySize = 8;
constexpr uint64_t kDataEntrySize = 16;
constexpr uint32_t kHighBit = 0x80000000u;

// Every defect message is built here (one breakpoint catches them all).
std::string Describe(const char* ADefect, uint64_t AFileOffset) {
  char where[48];
  std::snprintf(where, sizeof where, " at file offset 0x%llX", static_cast<unsigned long long>(AFileOffset));
  std::string out("PE: ");
  out += ADefect;
  out += where;
  return out;
}

char FoldAscii(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

} // namespace

std::string TResourceId::ToString() const {
  if (IsName) return Name;
  std::string out(1, '#');
  out += std::to_string(Id);
  return out;
}

bool operator==(const TResourceId& A, const TResourceId& B) {
  if (A.IsName != B.IsName) return false;
  if (!A.IsName) return A.Id == B.Id;
  if (A.Name.size() != B.Name.size()) return false;
  for (size_t i = 0; i < A.Name.size(); ++i)
    if (FoldAscii(A.Name[i]) != FoldAscii(B.Name[i])) return false;
  return true;
}

// One walk of the resource tree: the section's bytes, the directories seen and an entry budget.
struct TPeResources::TWalk {
  struct TEntry {
    uint32_t Name, Data, At; // At: the entry's offset in the resource section
  };

  TPeResources& Self;
  TByteReader Rsrc;
  uint64_t Base; // file offset of the resource section's first byte
  uint64_t Budget; // entries left: never more than the section could hold without overlap
  std::set<uint32_t> Visited;
  std::string Defect;

  bool Issue(const char* ADefect, uint64_t AOffset) {
    Defect = Describe(ADefect, Base + AOffset);
    Self.FIssues.push_back(Defect);
    return false;
  }

  // The entries of the directory at AOffset; false (an issue) when it was seen before or
  // does not fit.
  bool Entries(uint32_t AOffset, std::vector<TEntry>& AOut) {
    AOut.clear();
    if (!Visited.insert(AOffset).second) return Issue("resource directory loops back to itself", AOffset);
    if (!Rsrc.Fits(AOffset, kDirectoryHeaderSize))
      return Issue("resource directory outside the resource section", AOffset);
    uint64_t count = uint64_t(Rsrc.ReadU16(AOffset + kNamedEntriesOffset)) + Rsrc.ReadU16(AOffset + kIdEntriesOffset);
    uint64_t first = AOffset + kDirectoryHeaderSize;
    if (!Rsrc.Fits(first, count * kDirectoryEntrySize))
      return Issue("resource directory entries run past the resource section", AOffset);
    if (count > Budget) return Issue("resource directories hold more entries than the section", AOffset);
    Budget -= count;
    for (uint64_t i = 0; i < count; ++i) {
      uint64_t at = first + i * kDirectoryEntrySize;
      AOut.push_back({Rsrc.ReadU32(at), Rsrc.ReadU32(at + 4), static_cast<uint32_t>(at)});
    }
    return true;
  }

  bool Id(const TEntry& AEntry, TResourceId& AOut) {
    if (!(AEntry.Name & kHighBit)) {
      AOut = TResourceId(static_cast<uint16_t>(AEntry.Name));
      return true;
    }
    uint32_t at = AEntry.Name & ~kHighBit;
    uint16_t units = Rsrc.ReadU16(at);
    if (!Rsrc.Fits(at, 2 + uint64_t(units) * 2)) return Issue("resource name outside the resource section", AEntry.At);
    AOut = TResourceId(std::string_view());
    AppendUtf16(AOut.Name, Rsrc.Data() + at + 2, units);
    return true;
  }
};

bool TPeResources::Fail(const char* ADefect, uint64_t AOffset) {
  FError = Describe(ADefect, AOffset);
  return false;
}

bool TPeResources::Open(std::span<const uint8_t> AImage) {
  FImage = AImage;
  FSections.clear();
  FTypes.clear();
  FError.clear();
  FIssues.clear();
  FPe32Plus = false;

  TByteReader r(AImage);
  if (!r.Fits(0, kDosHeaderSize) || r.ReadU16(0) != kDosMagic) return Fail("no DOS header (\"MZ\")", 0);
  uint64_t pe = r.ReadU32(kLfanewOffset);
  if (!r.Fits(pe, kNtHeadersSize + 2)) return Fail("PE header outside the file", kLfanewOffset);
  if (r.ReadU32(pe) != kPeSignature) return Fail("no PE signature", pe);
  uint64_t opt = pe + kNtHeadersSize;
  uint16_t magic = r.ReadU16(opt);
  if (magic != kMagicPe32 && magic != kMagicPe32Plus) return Fail("unknown optional header magic", opt);
  FPe32Plus = magic == kMagicPe32Plus;

  uint16_t sectionCount = r.ReadU16(pe + kNumberOfSectionsOffset);
  uint16_t optSize = r.ReadU16(pe + kSizeOfOptionalHeaderOffset);
  uint64_t table = opt + optSize;
  if (!r.Fits(table, sectionCount * kSectionHeaderSize))
    return Fail("section table runs past the end of the file", table);
  for (uint64_t i = 0; i < sectionCount; ++i) {
    uint64_t at = table + i * kSectionHeaderSize;
    FSections.push_back({r.ReadU32(at + kSectionVirtualAddress), r.ReadU32(at + kSectionSizeOfRawData),
                         r.ReadU32(at + kSectionPointerToRawData)});
  }

  uint64_t dirs = FPe32Plus ? kDataDirectories64 : kDataDirectories32;
  uint64_t entry = dirs + kResourceDirectoryIndex * 8;
  uint32_t rvaCount = r.ReadU32(opt + (FPe32Plus ? kRvaCountOffset64 : kRvaCountOffset32));
  if (optSize < entry + 8 || rvaCount <= kResourceDirectoryIndex) return true; // no resource directory
  uint32_t rva = r.ReadU32(opt + entry);
  if (rva == 0 && r.ReadU32(opt + entry + 4) == 0) return true;
  ReadTree(rva, opt + entry);
  return FError.empty();
}

// The directory's Size field is not used: the section bounds every read, and some resource
// editors leave the size stale.
void TPeResources::ReadTree(uint32_t ARva, uint64_t ADirectoryEntry) {
  const TSection* section = nullptr;
  for (const TSection& s : FSections)
    if (ARva >= s.VirtualAddress && ARva - s.VirtualAddress < s.SizeOfRawData) {
      section = &s;
      break;
    }
  if (!section) {
    Fail("resource directory RVA outside every section", ADirectoryEntry);
    return;
  }
  uint64_t base = uint64_t(section->PointerToRawData) + (ARva - section->VirtualAddress);
  uint64_t length = section->SizeOfRawData - (ARva - section->VirtualAddress);
  TByteReader image(FImage);
  if (!image.Fits(base, kDirectoryHeaderSize)) {
    Fail("resource directory outside the file", ADirectoryEntry);
    return;
  }
  // Cut short by a truncated file: the walk reads what is there.
  TWalk walk{*this, image.Sub(base, length), base, length / kDirectoryEntrySize, {}, {}};

  std::vector<TWalk::TEntry> types, names, languages;
  if (!walk.Entries(0, types)) {
    FError = walk.Defect;
    FIssues.pop_back();
    return;
  }
  for (const TWalk::TEntry& t : types) {
    TType type;
    if (!walk.Id(t, type.Id)) continue;
    if (!(t.Data & kHighBit)) {
      walk.Issue("resource type entry points at data, not a directory", t.At);
      continue;
    }
    if (!walk.Entries(t.Data & ~kHighBit, names)) continue;
    for (const TWalk::TEntry& n : names) {
      TName name;
      if (!walk.Id(n, name.Id)) continue;
      if (!(n.Data & kHighBit)) {
        walk.Issue("resource name entry points at data, not a directory", n.At);
        continue;
      }
      if (!walk.Entries(n.Data & ~kHighBit, languages)) continue;
      for (const TWalk::TEntry& l : languages) {
        if (l.Name & kHighBit) {
          walk.Issue("resource language entry has a string name", l.At);
          continue;
        }
        if (l.Data & kHighBit) {
          walk.Issue("resource language entry points at a directory", l.At);
          continue;
        }
        if (!walk.Rsrc.Fits(l.Data, kDataEntrySize)) {
          walk.Issue("resource data entry outside the resource section", l.At);
          continue;
        }
        auto data = MapRva(walk.Rsrc.ReadU32(l.Data), walk.Rsrc.ReadU32(l.Data + 4));
        if (!data) {
          walk.Issue("resource data outside the sections in the file", l.Data);
          continue;
        }
        name.Languages.push_back({static_cast<uint16_t>(l.Name), *data});
      }
      type.Names.push_back(std::move(name));
    }
    FTypes.push_back(std::move(type));
  }
}

bool TPeResources::LoadFile(const std::string& APath, uint64_t AMaxSize) {
  FOwned.clear();
  FImage = {};
  FError.clear();
  try {
    const std::unique_ptr<TReadStream> stream = OpenReadStream(APath);
    const TReadStream& file = *stream;
    if (file.Size() > AMaxSize) {
      FError = APath;
      FError += ": file too large for a PE image (";
      FError += std::to_string(file.Size());
      FError += " bytes)";
      return false;
    }
    FOwned.resize(static_cast<size_t>(file.Size()));
    FOwned.resize(file.ReadAt(0, FOwned.data(), FOwned.size()));
  } catch (const std::exception& e) {
    FError = e.what();
    return false;
  }
  if (Open(FOwned)) return true;
  std::string error = APath;
  error += ": ";
  error += FError;
  FError = std::move(error);
  return false;
}

std::optional<std::span<const uint8_t>> TPeResources::MapRva(uint32_t ARva, uint32_t ASize) const {
  TByteReader image(FImage);
  for (const TSection& s : FSections) {
    if (ARva < s.VirtualAddress || ARva - s.VirtualAddress >= s.SizeOfRawData) continue;
    uint64_t within = ARva - s.VirtualAddress;
    uint64_t at = s.PointerToRawData + within;
    if (ASize > s.SizeOfRawData - within || !image.Fits(at, ASize)) return std::nullopt;
    return image.ReadBytes(at, ASize);
  }
  return std::nullopt;
}

const TPeResources::TType* TPeResources::FindType(const TResourceId& AType) const {
  for (const TType& t : FTypes)
    if (t.Id == AType) return &t;
  return nullptr;
}

const TPeResources::TName* TPeResources::FindName(const TResourceId& AType, const TResourceId& AName) const {
  if (const TType* type = FindType(AType))
    for (const TName& n : type->Names)
      if (n.Id == AName) return &n;
  return nullptr;
}

std::vector<TResourceId> TPeResources::Types() const {
  std::vector<TResourceId> out;
  for (const TType& t : FTypes) out.push_back(t.Id);
  return out;
}

std::vector<TResourceId> TPeResources::Names(const TResourceId& AType) const {
  std::vector<TResourceId> out;
  if (const TType* type = FindType(AType))
    for (const TName& n : type->Names) out.push_back(n.Id);
  return out;
}

std::vector<uint16_t> TPeResources::Languages(const TResourceId& AType, const TResourceId& AName) const {
  std::vector<uint16_t> out;
  if (const TName* name = FindName(AType, AName))
    for (const TLanguage& l : name->Languages) out.push_back(l.Id);
  return out;
}

std::optional<std::span<const uint8_t>> TPeResources::Find(const TResourceId& AType, const TResourceId& AName,
                                                           uint16_t ALanguage) const {
  if (const TName* name = FindName(AType, AName))
    for (const TLanguage& l : name->Languages)
      if (l.Id == ALanguage) return l.Data;
  return std::nullopt;
}

std::optional<std::span<const uint8_t>> TPeResources::FindBest(const TResourceId& AType, const TResourceId& AName,
                                                               const std::vector<uint16_t>& APreferred,
                                                               uint16_t* AChosen) const {
  const TName* name = FindName(AType, AName);
  if (!name || name->Languages.empty()) return std::nullopt;
  auto pick = [&](const TLanguage& ALanguage) {
    if (AChosen) *AChosen = ALanguage.Id;
    return std::optional<std::span<const uint8_t>>(ALanguage.Data);
  };
  std::vector<uint16_t> order = APreferred;
  order.push_back(kLangNeutral);
  order.push_back(kLangEnUs);
  for (uint16_t wanted : order)
    for (const TLanguage& l : name->Languages)
      if (l.Id == wanted) return pick(l);
  return pick(name->Languages.front());
}

} // namespace qvx
