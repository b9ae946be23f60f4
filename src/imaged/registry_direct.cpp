#include "imaged/registry_direct.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "platform/utf16.h"

#if QVX_HAVE_HIVEX
#include <hivex.h>

#include "platform/file_names.h"
#include "platform/read_stream.h"

#include <filesystem>
#include <fstream>
#include <unistd.h>
#endif

namespace qvx {

#if QVX_HAVE_HIVEX

namespace {

constexpr size_t MaxStringUnits = 1024;   // the original reader's buffer, in UTF-16 units
constexpr size_t MaxKeyNameChars = 257;   // its key name buffer
constexpr size_t MaxValueNameChars = 512; // its value name buffer

// Decodes one UTF-8 sequence at AText[APos]; advances APos. An invalid byte gives -1.
int32_t NextCodePoint(const std::string& AText, size_t& APos) {
  size_t length = 1;
  const int32_t cp = DecodeUtf8At(AText, APos, length);
  APos += length;
  return cp;
}

// True when Windows-1252 holds the character (the five undefined bytes map to themselves).
bool InCp1252(int32_t ACp) {
  if (ACp < 0) return false;
  if (ACp < 0x80 || (ACp >= 0xA0 && ACp <= 0xFF)) return true;
  if (ACp == 0x81 || ACp == 0x8D || ACp == 0x8F || ACp == 0x90 || ACp == 0x9D) return true;
  static constexpr int32_t High[] = {0x20AC, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030,
                                     0x0160, 0x2039, 0x0152, 0x017D, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
                                     0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x017E, 0x0178};
  for (int32_t cp : High)
    if (cp == ACp) return true;
  return false;
}

// Upper case of the letters Windows-1252 holds; others unchanged.
int32_t FoldCase(int32_t ACp) {
  if (ACp >= 'a' && ACp <= 'z') return ACp - 0x20;
  if (ACp >= 0xE0 && ACp <= 0xFE && ACp != 0xF7) return ACp - 0x20;
  switch (ACp) {
  case 0xFF:
    return 0x178;
  case 0x161:
    return 0x160;
  case 0x153:
    return 0x152;
  case 0x17E:
    return 0x17D;
  default:
    return ACp;
  }
}

// The folded characters of a name the caller gave; false when the name cannot pass as ANSI.
bool FoldRequestedName(const std::string& AName, std::u32string& AFolded) {
  AFolded.clear();
  for (size_t pos = 0; pos < AName.size();) {
    int32_t cp = NextCodePoint(AName, pos);
    if (!InCp1252(cp) || cp == 0) return false;
    AFolded.push_back(static_cast<char32_t>(FoldCase(cp)));
  }
  return true;
}

// True when a name read from the hive equals the folded requested name.
bool NameMatches(const char* AHiveName, const std::u32string& AFolded) {
  std::string name(AHiveName);
  size_t index = 0;
  for (size_t pos = 0; pos < name.size(); ++index) {
    int32_t cp = NextCodePoint(name, pos);
    if (index >= AFolded.size() || cp < 0 || static_cast<char32_t>(FoldCase(cp)) != AFolded[index])
      return false;
  }
  return index == AFolded.size();
}

// A name read from the hive as the original reader hands it over: characters outside
// Windows-1252 become '?', at most AMaxChars characters.
std::string ListedName(const char* AHiveName, size_t AMaxChars) {
  std::string name(AHiveName), out;
  size_t chars = 0;
  for (size_t pos = 0; pos < name.size() && chars < AMaxChars; ++chars) {
    size_t start = pos;
    int32_t cp = NextCodePoint(name, pos);
    if (InCp1252(cp))
      out.append(name, start, pos - start);
    else
      out.append(1, '?');
  }
  return out;
}

} // namespace

namespace {

// Value types as the hive stores them.
constexpr uint32_t RegSz = hive_t_REG_SZ, RegExpandSz = hive_t_REG_EXPAND_SZ, RegBinary = hive_t_REG_BINARY,
                   RegDword = hive_t_REG_DWORD;

struct TFreeDeleter {
  void operator()(void* APtr) const { std::free(APtr); }
};
template <typename T> using TMallocPtr = std::unique_ptr<T, TFreeDeleter>;

// The node (or value) handles of a hivex list, at most MaxListCount of them.
template <typename T> std::vector<T> TakeList(T* AList) {
  std::vector<T> out;
  TMallocPtr<T> owner(AList);
  if (!AList) return out;
  for (size_t i = 0; AList[i] != 0 && i < TRegistryDirect::MaxListCount; ++i)
    out.push_back(AList[i]);
  return out;
}

hive_node_h ResolveNode(hive_h* AHive, uint64_t AKey) {
  return AKey != 0 ? static_cast<hive_node_h>(AKey) : hivex_root(AHive);
}

hive_node_h FindChild(hive_h* AHive, hive_node_h ANode, const std::string& AName) {
  std::u32string folded;
  if (!FoldRequestedName(AName, folded)) return 0;
  for (hive_node_h child : TakeList(hivex_node_children(AHive, ANode))) {
    TMallocPtr<char> name(hivex_node_name(AHive, child));
    if (name && NameMatches(name.get(), folded)) return child;
  }
  return 0;
}

hive_value_h FindValue(hive_h* AHive, uint64_t AKey, const std::string& AName) {
  if (!AHive) return 0;
  hive_node_h node = ResolveNode(AHive, AKey);
  std::u32string folded;
  if (node == 0 || !FoldRequestedName(AName, folded)) return 0;
  for (hive_value_h value : TakeList(hivex_node_values(AHive, node))) {
    TMallocPtr<char> name(hivex_value_key(AHive, value));
    if (name && NameMatches(name.get(), folded)) return value;
  }
  return 0;
}

// The raw bytes and type of a value; false when hivex cannot read it.
bool ValueBytes(hive_h* AHive, hive_value_h AValue, uint32_t& AType, std::vector<uint8_t>& ABytes) {
  size_t length = 0;
  hive_type type{};
  TMallocPtr<char> data(hivex_value_value(AHive, AValue, &type, &length));
  if (!data) return false;
  // The file's type field goes into the enum unchecked (any 32-bit number); copying its bytes
  // avoids loading an enum value outside the enumeration.
  static_assert(sizeof(type) == sizeof(AType));
  std::memcpy(&AType, &type, sizeof(AType));
  ABytes.assign(reinterpret_cast<const uint8_t*>(data.get()),
                reinterpret_cast<const uint8_t*>(data.get()) + length);
  return true;
}

} // namespace

TRegistryDirect::TRegistryDirect() = default;

TRegistryDirect::~TRegistryDirect() {
  CloseHive();
}

namespace {

// hivex opens files only. A hive inside a disk image is copied into a folder of its own
// (mode 0700 under the temporary folder), opened, and deleted at once: hivex has read
// the whole hive into memory by then, and no file of it is left or named anywhere. Our
// own hive reader would avoid the copy, but hivex is the parser the rest of the imaged
// computer is tested against, and a hive is read once per activation.
hive_h* OpenCopyOf(const std::string& AName) {
  std::string folder = (std::filesystem::temp_directory_path() / "quorvex-hive-XXXXXX").string();
  if (!::mkdtemp(folder.data())) return nullptr;
  const std::string file = folder + "/hive";
  hive_h* hive = nullptr;
  try {
    const std::unique_ptr<TReadStream> in = OpenReadStream(AName);
    {
      std::ofstream out(file, std::ios::binary);
      std::vector<char> buffer(1 << 20);
      for (uint64_t at = 0; at < in->Size();) {
        const size_t got = in->ReadAt(at, buffer.data(), buffer.size());
        if (got == 0) break;
        out.write(buffer.data(), static_cast<std::streamsize>(got));
        at += got;
      }
    }
    hive = hivex_open(file.c_str(), 0);
  } catch (const std::exception&) {
    hive = nullptr;
  }
  std::error_code error;
  std::filesystem::remove_all(folder, error);
  return hive;
}

} // namespace

bool TRegistryDirect::OpenHive(const std::string& AFileName) {
  CloseHive();
  std::string prefix, inner;
  // No HIVEX_OPEN_WRITE: the file is mapped read-only. No HIVEX_OPEN_UNSAFE: damaged
  // structures are refused rather than guessed at.
  FHive = FileSystemOf(AFileName, prefix, inner) ? OpenCopyOf(AFileName) : hivex_open(AFileName.c_str(), 0);
  if (FHive && hivex_root(FHive) == 0) CloseHive();
  return FHive != nullptr;
}

void TRegistryDirect::CloseHive() {
  if (FHive) hivex_close(FHive);
  FHive = nullptr;
  CloseKey();
}

bool TRegistryDirect::OpenKey(const std::string& AKey) {
  bool absolute = !AKey.empty() && AKey[0] == '\\';
  if (absolute) CloseKey();
  if (!FHive) return false;
  hive_node_h root = hivex_root(FHive);
  hive_node_h node = ResolveNode(FHive, FCurrentKey);
  bool walked = false;
  for (size_t pos = 0; pos <= AKey.size() && node != 0;) {
    size_t end = AKey.find('\\', pos);
    if (end == std::string::npos) end = AKey.size();
    if (end > pos) {
      node = FindChild(FHive, node, AKey.substr(pos, end - pos));
      walked = true;
    }
    pos = end + 1;
  }
  // The original reader answers 0 both for "missing" and for the root itself.
  if (!walked || node == 0 || node == root) return false;
  FCurrentKey = node;
  if (absolute) {
    FCurrentPath = AKey;
  } else {
    FCurrentPath.append(1, '\\');
    FCurrentPath.append(AKey);
  }
  return true;
}

void TRegistryDirect::CloseKey() {
  FCurrentKey = 0;
  FCurrentPath.clear();
}

bool TRegistryDirect::TryReadString(const std::string& AName, std::string& AValue) {
  AValue.clear();
  hive_value_h value = FindValue(FHive, FCurrentKey, AName);
  uint32_t type = 0;
  std::vector<uint8_t> bytes;
  if (value == 0 || !ValueBytes(FHive, value, type, bytes)) return false;
  if (type != RegSz && type != RegExpandSz) return false;
  size_t units = 0;
  while (units < bytes.size() / 2 && units < MaxStringUnits &&
         (bytes[2 * units] != 0 || bytes[2 * units + 1] != 0))
    ++units;
  AppendUtf16(AValue, bytes.data(), units);
  return true;
}

std::string TRegistryDirect::ReadString(const std::string& AName) {
  std::string value;
  TryReadString(AName, value);
  return value;
}

int32_t TRegistryDirect::ReadInteger(const std::string& AName) {
  hive_value_h value = FindValue(FHive, FCurrentKey, AName);
  uint32_t type = 0;
  std::vector<uint8_t> bytes;
  if (value == 0 || !ValueBytes(FHive, value, type, bytes) || type != RegDword || bytes.size() != 4)
    throw std::runtime_error("Invalid registry type");
  uint32_t raw = static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
                 static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
  return static_cast<int32_t>(raw);
}

bool TRegistryDirect::ReadBinary(const std::string& AName, std::vector<uint8_t>& AValue) {
  AValue.clear();
  hive_value_h value = FindValue(FHive, FCurrentKey, AName);
  uint32_t type = 0;
  if (value == 0 || !ValueBytes(FHive, value, type, AValue) || type != RegBinary) {
    AValue.clear();
    return false;
  }
  return true;
}

void TRegistryDirect::GetKeyNames(std::vector<std::string>& AList) {
  AList.clear();
  if (!FHive) return;
  hive_node_h node = ResolveNode(FHive, FCurrentKey);
  if (node == 0) return;
  for (hive_node_h child : TakeList(hivex_node_children(FHive, node))) {
    TMallocPtr<char> name(hivex_node_name(FHive, child));
    // An unreadable name ends the list, as an error ends the original reader's enumeration.
    if (!name) break;
    AList.push_back(ListedName(name.get(), MaxKeyNameChars));
  }
}

void TRegistryDirect::GetValueNames(std::vector<std::string>& AList) {
  AList.clear();
  if (!FHive) return;
  hive_node_h node = ResolveNode(FHive, FCurrentKey);
  if (node == 0) return;
  for (hive_value_h value : TakeList(hivex_node_values(FHive, node))) {
    TMallocPtr<char> name(hivex_value_key(FHive, value));
    if (!name) break;
    AList.push_back(ListedName(name.get(), MaxValueNameChars));
  }
}

#else // no hive reader in this build: the object cannot be created

TRegistryDirect::TRegistryDirect() {
  throw std::runtime_error("NTReg not loaded!");
}
TRegistryDirect::~TRegistryDirect() = default;
bool TRegistryDirect::OpenHive(const std::string&) {
  return false;
}
void TRegistryDirect::CloseHive() {}
bool TRegistryDirect::OpenKey(const std::string&) {
  return false;
}
void TRegistryDirect::CloseKey() {}
bool TRegistryDirect::TryReadString(const std::string&, std::string& AValue) {
  AValue.clear();
  return false;
}
std::string TRegistryDirect::ReadString(const std::string&) {
  return {};
}
int32_t TRegistryDirect::ReadInteger(const std::string&) {
  throw std::runtime_error("Invalid registry type");
}
bool TRegistryDirect::ReadBinary(const std::string&, std::vector<uint8_t>& AValue) {
  AValue.clear();
  return false;
}
void TRegistryDirect::GetKeyNames(std::vector<std::string>& AList) {
  AList.clear();
}
void TRegistryDirect::GetValueNames(std::vector<std::string>& AList) {
  AList.clear();
}

#endif

} // namespace qvx
