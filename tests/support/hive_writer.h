// Registry hive fixtures: a key tree with typed values written as a hive file.
//
// Hives are written by hivex's write API into an empty hive built here byte by byte
// (EmptyHiveImage), so tests need no hive files of their own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace qvx::test {

// Registry value types as stored in the hive.
enum : uint32_t {
  HiveRegSz = 1,
  HiveRegExpandSz = 2,
  HiveRegBinary = 3,
  HiveRegDword = 4,
  HiveRegMultiSz = 7,
};

struct THiveValue {
  std::string Name; // UTF-8; "" is the default value
  uint32_t Type = HiveRegSz;
  std::vector<uint8_t> Data; // as stored

  static THiveValue Sz(const std::string& AName, const std::string& AText, uint32_t AType = HiveRegSz);
  static THiveValue ExpandSz(const std::string& AName, const std::string& AText);
  static THiveValue Dword(const std::string& AName, uint32_t AValue);
  static THiveValue Binary(const std::string& AName, std::vector<uint8_t> ABytes);
  static THiveValue MultiSz(const std::string& AName, const std::vector<std::string>& ATexts);
};

struct THiveKey {
  std::string Name; // UTF-8; ignored for the root
  std::vector<THiveValue> Values;
  std::vector<THiveKey> Keys;
};

// A valid hive with only a root key named "ROOT": base block and one 4 KiB bin.
std::vector<uint8_t> EmptyHiveImage();

// Writes ARoot (its values and subkeys, recursively) as a hive at APath. Fails the running
// test and returns false when hivex refuses.
bool WriteHive(const std::filesystem::path& APath, const THiveKey& ARoot);

// The file's bytes (empty when it cannot be read).
std::vector<uint8_t> ReadFileBytes(const std::filesystem::path& APath);
void WriteFileBytes(const std::filesystem::path& APath, const std::vector<uint8_t>& ABytes);

} // namespace qvx::test
