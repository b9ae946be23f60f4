// TRegistryDirect: read-only access to one offline registry hive file (hivex underneath).
//
// One object holds one hive and a current key. Names (key paths, value names) are UTF-8.
// Windows hands such names to the hive reader as 8-bit ANSI text (code page 1252), so:
//   - a key or value name holding a character outside Windows-1252 is never found;
//   - names listed by GetKeyNames/GetValueNames show such characters as '?'.
// Lookup ignores case as Windows does for these names (ASCII and the Latin letters of 1252).
// The file is opened read-only and never written. A damaged or hostile hive is treated as
// "not found" wherever a read fails; no call raises for file content except ReadInteger.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct hive_h;

namespace qvx {

class TRegistryDirect {
public:
  // Raises std::runtime_error("NTReg not loaded!") when this build has no hive reader
  // (the Windows build); otherwise no hive is open, the path is "" and the key is the root.
  TRegistryDirect();
  ~TRegistryDirect();
  TRegistryDirect(const TRegistryDirect&) = delete;
  TRegistryDirect& operator=(const TRegistryDirect&) = delete;

  // True when the file opened as a hive. Does not close a hive already open (callers close
  // first; the old one is closed here anyway so it does not leak). Resets the current key.
  bool OpenHive(const std::string& AFileName);
  void CloseHive();
  bool HiveOpen() const { return FHive != nullptr; }

  // A path beginning with '\' is absolute, any other is relative to the current key; parts are
  // separated by '\' and empty parts are skipped. On success the current path becomes the path
  // (absolute) or current path + '\' + path (relative). A path naming the root itself ("\"
  // or "") counts as missing, as with the original reader. Failure: an absolute attempt leaves
  // the root current, a relative one changes nothing.
  bool OpenKey(const std::string& AKey);
  // Back to the root: path "", key 0.
  void CloseKey();

  // The text of a REG_SZ or REG_EXPAND_SZ value ("" = the default value), up to its first NUL
  // and at most 1024 UTF-16 units, as UTF-8. "" when missing, of another type or unreadable.
  std::string ReadString(const std::string& AName);
  // As ReadString, but false when the value is missing or not a string.
  bool TryReadString(const std::string& AName, std::string& AValue);
  // A REG_DWORD of exactly 4 bytes. Anything else (missing value, other type or size) raises
  // std::runtime_error("Invalid registry type").
  int32_t ReadInteger(const std::string& AName);
  // The bytes of a REG_BINARY value; false (AValue empty) when missing or of another type.
  bool ReadBinary(const std::string& AName, std::vector<uint8_t>& AValue);

  // Names of the current key's subkeys / values in the hive's own order, cut to 257 / 512
  // characters; the default value is listed as "". Empty when no hive is open or the lists
  // cannot be read.
  void GetKeyNames(std::vector<std::string>& AList);
  void GetValueNames(std::vector<std::string>& AList);

  const std::string& CurrentPath() const { return FCurrentPath; }
  // The current key's cell offset as the hive reader names it; 0 is the root.
  uint64_t CurrentKey() const { return FCurrentKey; }

  // Upper bound on the subkeys or values looked at per key; larger lists are cut.
  static constexpr size_t MaxListCount = 1u << 20;

private:
  hive_h* FHive = nullptr;
  std::string FCurrentPath;
  uint64_t FCurrentKey = 0;
};

} // namespace qvx
