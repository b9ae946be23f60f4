#include "support/hive_writer.h"

#include <gtest/gtest.h>
#include <hivex.h>

#include <cstring>
#include <fstream>
#include <iterator>

#include "platform/utf16.h"

namespace qvx::test {

namespace {

void Put16(std::vector<uint8_t>& AOut, size_t AOffset, uint16_t AValue) {
  AOut[AOffset] = static_cast<uint8_t>(AValue);
  AOut[AOffset + 1] = static_cast<uint8_t>(AValue >> 8);
}

void Put32(std::vector<uint8_t>& AOut, size_t AOffset, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    AOut[AOffset + i] = static_cast<uint8_t>(AValue >> (8 * i));
}

void PutText(std::vector<uint8_t>& AOut, size_t AOffset, const char* AText) {
  std::memcpy(AOut.data() + AOffset, AText, std::strlen(AText));
}

std::vector<uint8_t> Utf16Z(const std::string& AText) {
  std::u16string units = Utf8ToUtf16(AText);
  std::vector<uint8_t> out;
  for (char16_t unit : units) {
    out.push_back(static_cast<uint8_t>(unit));
    out.push_back(static_cast<uint8_t>(unit >> 8));
  }
  out.push_back(0);
  out.push_back(0);
  return out;
}

bool AddTree(hive_h* AHive, hive_node_h ANode, const THiveKey& AKey) {
  std::vector<hive_set_value> values;
  for (const THiveValue& value : AKey.Values)
    values.push_back({const_cast<char*>(value.Name.c_str()), static_cast<hive_type>(value.Type),
                      value.Data.size(), reinterpret_cast<char*>(const_cast<uint8_t*>(value.Data.data()))});
  if (!values.empty() && hivex_node_set_values(AHive, ANode, values.size(), values.data(), 0) != 0) {
    ADD_FAILURE() << "hivex_node_set_values failed: " << std::strerror(errno);
    return false;
  }
  for (const THiveKey& child : AKey.Keys) {
    hive_node_h node = hivex_node_add_child(AHive, ANode, child.Name.c_str());
    if (node == 0) {
      ADD_FAILURE() << "hivex_node_add_child(" << child.Name << ") failed: " << std::strerror(errno);
      return false;
    }
    if (!AddTree(AHive, node, child)) return false;
  }
  return true;
}

} // namespace

THiveValue THiveValue::Sz(const std::string& AName, const std::string& AText, uint32_t AType) {
  return {AName, AType, Utf16Z(AText)};
}

THiveValue THiveValue::ExpandSz(const std::string& AName, const std::string& AText) {
  return Sz(AName, AText, HiveRegExpandSz);
}

THiveValue THiveValue::Dword(const std::string& AName, uint32_t AValue) {
  std::vector<uint8_t> data(4);
  Put32(data, 0, AValue);
  return {AName, HiveRegDword, data};
}

THiveValue THiveValue::Binary(const std::string& AName, std::vector<uint8_t> ABytes) {
  return {AName, HiveRegBinary, std::move(ABytes)};
}

THiveValue THiveValue::MultiSz(const std::string& AName, const std::vector<std::string>& ATexts) {
  std::vector<uint8_t> data;
  for (const std::string& text : ATexts) {
    std::vector<uint8_t> part = Utf16Z(text);
    data.insert(data.end(), part.begin(), part.end());
  }
  data.push_back(0); // the empty string ending the list
  data.push_back(0);
  return {AName, HiveRegMultiSz, data};
}

std::vector<uint8_t> EmptyHiveImage() {
  constexpr size_t BinStart = 0x1000, RootCell = 0x20, RootSize = 88, SkCell = RootCell + RootSize,
                   SkSize = 48, FreeCell = SkCell + SkSize, BinSize = 0x1000;
  std::vector<uint8_t> hive(BinStart + BinSize, 0);
  // Base block.
  PutText(hive, 0, "regf");
  Put32(hive, 4, 1);         // primary sequence number
  Put32(hive, 8, 1);         // secondary sequence number (equal: the hive is clean)
  Put32(hive, 20, 1);        // major version
  Put32(hive, 24, 3);        // minor version
  Put32(hive, 28, 0);        // file type: primary
  Put32(hive, 32, 1);        // file format: direct memory load
  Put32(hive, 36, RootCell); // root cell offset (from the first bin)
  Put32(hive, 40, BinSize);  // hive bins data size
  Put32(hive, 44, 1);        // clustering factor
  uint32_t checksum = 0;     // XOR of the first 508 bytes
  for (size_t i = 0; i < 508; i += 4)
    checksum ^= static_cast<uint32_t>(hive[i]) | static_cast<uint32_t>(hive[i + 1]) << 8 |
                static_cast<uint32_t>(hive[i + 2]) << 16 | static_cast<uint32_t>(hive[i + 3]) << 24;
  Put32(hive, 508, checksum);
  // Bin header.
  PutText(hive, BinStart, "hbin");
  Put32(hive, BinStart + 4, 0);       // offset of this bin
  Put32(hive, BinStart + 8, BinSize); // size of this bin
  // Root key cell.
  size_t nk = BinStart + RootCell;
  Put32(hive, nk, static_cast<uint32_t>(-static_cast<int32_t>(RootSize))); // allocated: negative size
  PutText(hive, nk + 4, "nk");
  Put16(hive, nk + 6, 0x2C);        // flags: hive entry, no delete, ASCII name
  Put32(hive, nk + 20, 0);          // parent
  Put32(hive, nk + 24, 0);          // subkey count
  Put32(hive, nk + 32, 0xFFFFFFFF); // subkey list: none
  Put32(hive, nk + 36, 0xFFFFFFFF); // volatile subkey list: none
  Put32(hive, nk + 40, 0);          // value count
  Put32(hive, nk + 44, 0xFFFFFFFF); // value list: none
  Put32(hive, nk + 48, SkCell);     // security cell
  Put32(hive, nk + 52, 0xFFFFFFFF); // class name: none
  Put16(hive, nk + 76, 4);          // name length
  Put16(hive, nk + 78, 0);          // class name length
  PutText(hive, nk + 80, "ROOT");
  // Security cell, shared by every key: a self-relative descriptor with no owner or DACL.
  size_t sk = BinStart + SkCell;
  Put32(hive, sk, static_cast<uint32_t>(-static_cast<int32_t>(SkSize)));
  PutText(hive, sk + 4, "sk");
  Put32(hive, sk + 8, SkCell);  // next security cell: itself
  Put32(hive, sk + 12, SkCell); // previous security cell: itself
  Put32(hive, sk + 16, 1);      // reference count
  Put32(hive, sk + 20, 20);     // descriptor size
  hive[sk + 24] = 1;            // descriptor revision
  Put16(hive, sk + 26, 0x8000); // control: self-relative
  // The rest of the bin is one free cell (positive size).
  Put32(hive, BinStart + FreeCell, static_cast<uint32_t>(BinSize - FreeCell));
  return hive;
}

bool WriteHive(const std::filesystem::path& APath, const THiveKey& ARoot) {
  std::filesystem::path empty = APath;
  empty += ".empty";
  WriteFileBytes(empty, EmptyHiveImage());
  hive_h* hive = hivex_open(empty.c_str(), HIVEX_OPEN_WRITE);
  if (!hive) {
    ADD_FAILURE() << "hivex_open of the empty hive failed: " << std::strerror(errno);
    return false;
  }
  bool ok = AddTree(hive, hivex_root(hive), ARoot);
  if (ok && hivex_commit(hive, APath.c_str(), 0) != 0) {
    ADD_FAILURE() << "hivex_commit failed: " << std::strerror(errno);
    ok = false;
  }
  hivex_close(hive);
  std::filesystem::remove(empty);
  return ok;
}

std::vector<uint8_t> ReadFileBytes(const std::filesystem::path& APath) {
  std::ifstream in(APath, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFileBytes(const std::filesystem::path& APath, const std::vector<uint8_t>& ABytes) {
  std::ofstream out(APath, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(ABytes.data()), static_cast<std::streamsize>(ABytes.size()));
}

} // namespace qvx::test
