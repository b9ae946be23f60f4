// TPeResources: the resource tree of a PE32 or PE32+ image (.exe, .dll, .mui), read from
// untrusted bytes.
//
// Headers read (all little-endian):
//   offset            size  field
//   0                 2     DOS e_magic "MZ"
//   0x3C              4     e_lfanew: file offset of the PE signature
//   lfanew            4     "PE\0\0"
//   lfanew+4          20    COFF header: Machine 2, NumberOfSections 2, TimeDateStamp 4,
//                           PointerToSymbolTable 4, NumberOfSymbols 4,
//                           SizeOfOptionalHeader 2, Characteristics 2
//   lfanew+24         var   optional header: Magic 2 (0x10B PE32, 0x20B PE32+);
//                           NumberOfRvaAndSizes 4 at +92 (PE32) / +108 (PE32+);
//                           data directories of 8 bytes {VirtualAddress 4, Size 4} from
//                           +96 / +112; directory #2 is the resource directory
//   lfanew+24+SizeOfOptionalHeader
//                     40*n  section headers: Name 8, VirtualSize 4, VirtualAddress 4,
//                           SizeOfRawData 4, PointerToRawData 4, 12 more, Characteristics 4
//
// Resource tree (offsets relative to the start of the resource directory):
//   directory   16      Characteristics 4, TimeDateStamp 4, MajorVersion 2, MinorVersion 2,
//                       NumberOfNamedEntries 2, NumberOfIdEntries 2
//   +16         8*n     entries: Name 4 (high bit: offset of a name string, else the ID in
//                       the low 16 bits), OffsetToData 4 (high bit: offset of a subdirectory,
//                       else offset of a data entry)
//   name string 2+2*n   Length 2 (UTF-16 units), then the UTF-16LE units, no terminator
//   data entry  16      OffsetToData 4 (an RVA, not a resource offset), Size 4, CodePage 4,
//                       Reserved 4
// Level 1 names the type, level 2 the resource name, level 3 the language (LANGID).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

// Predefined resource types (the names winuser.h gives them are macros there, hence ours).
enum TResourceType : uint16_t {
  rtString = 6,
  rtMessageTable = 11,
  rtVersion = 16,
};

inline constexpr uint16_t kLangNeutral = 0x0000;
inline constexpr uint16_t kLangEnUs = 0x0409;
inline constexpr uint64_t kMaxPeFileSize = 256ull * 1024 * 1024;

// A resource type or name: an integer ID or a string. Names compare case-insensitively with
// ASCII folding, as Windows compares resource names (it upper-cases them when linking).
struct TResourceId {
  bool IsName = false;
  uint16_t Id = 0;
  std::string Name; // UTF-8

  TResourceId() = default;
  TResourceId(uint16_t AId) : Id(AId) {}                    // NOLINT: implicit on purpose
  TResourceId(std::string_view AName) : IsName(true), Name(AName) {} // NOLINT
  TResourceId(const char* AName) : TResourceId(std::string_view(AName)) {} // NOLINT

  // "#11" for an ID, the name otherwise.
  std::string ToString() const;
  friend bool operator==(const TResourceId& A, const TResourceId& B);
};

class TPeResources {
public:
  TPeResources() = default;
  // Not copyable: after LoadFile the spans point into this object's own buffer (a move keeps
  // that buffer, so moves are safe).
  TPeResources(const TPeResources&) = delete;
  TPeResources& operator=(const TPeResources&) = delete;
  TPeResources(TPeResources&&) = default;
  TPeResources& operator=(TPeResources&&) = default;

  // Parses the headers and the whole resource tree of AImage, which must outlive this object
  // (the spans handed out point into it). Returns false with Error() set when the image is
  // not a PE or its headers or resource root are unreadable. Damaged subtrees and data entries
  // outside the image are skipped and listed in Issues(); Open still returns true. An image
  // without a resource directory opens with no types.
  bool Open(std::span<const uint8_t> AImage);

  // Reads the whole file (at most AMaxSize bytes, else an error) into a buffer this object
  // owns, then Open()s it. Returns false with Error() set when it cannot be read or opened.
  bool LoadFile(const std::string& APath, uint64_t AMaxSize = kMaxPeFileSize);

  // The defect and its file offset that made Open() fail, e.g.
  // "PE: bad DOS signature at file offset 0x0".
  const std::string& Error() const { return FError; }
  // Defects in the resource tree that Open() skipped, same form as Error().
  const std::vector<std::string>& Issues() const { return FIssues; }
  bool IsPe32Plus() const { return FPe32Plus; }

  // The tree in file order; duplicates are listed as stored and the first one wins in lookups.
  std::vector<TResourceId> Types() const;
  std::vector<TResourceId> Names(const TResourceId& AType) const;
  std::vector<uint16_t> Languages(const TResourceId& AType, const TResourceId& AName) const;

  // The bytes of one resource, or nullopt when it is absent.
  std::optional<std::span<const uint8_t>> Find(const TResourceId& AType, const TResourceId& AName,
                                               uint16_t ALanguage) const;
  // The language Windows' loader would pick: each of APreferred in order (exact LANGID), then
  // neutral (0), then en-US (0x409), then the first present. AChosen receives the language.
  std::optional<std::span<const uint8_t>> FindBest(const TResourceId& AType, const TResourceId& AName,
                                                   const std::vector<uint16_t>& APreferred,
                                                   uint16_t* AChosen = nullptr) const;

  // The ASize bytes at ARva when they lie wholly inside one section's raw data in the image.
  std::optional<std::span<const uint8_t>> MapRva(uint32_t ARva, uint32_t ASize) const;

private:
  struct TSection {
    uint32_t VirtualAddress, SizeOfRawData, PointerToRawData;
  };
  struct TLanguage {
    uint16_t Id;
    std::span<const uint8_t> Data;
  };
  struct TName {
    TResourceId Id;
    std::vector<TLanguage> Languages;
  };
  struct TType {
    TResourceId Id;
    std::vector<TName> Names;
  };
  struct TWalk;

  const TType* FindType(const TResourceId& AType) const;
  const TName* FindName(const TResourceId& AType, const TResourceId& AName) const;
  bool Fail(const char* ADefect, uint64_t AOffset);
  void ReadTree(uint32_t ARva, uint64_t ADirectoryEntry);

  std::vector<uint8_t> FOwned; // LoadFile's buffer
  std::span<const uint8_t> FImage;
  std::vector<TSection> FSections;
  std::vector<TType> FTypes;
  std::string FError;
  std::vector<std::string> FIssues;
  bool FPe32Plus = false;
};

} // namespace qvx
