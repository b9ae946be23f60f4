// qvx_vss_fill: gives an NTFS volume one Volume Shadow Copy that holds an older state
// of the same volume, for the shadow copy tests (no Debian tool makes shadow copies).
//
//   qvx_vss_fill OLD_VOLUME NEW_VOLUME [--damage store|catalog]
//
// OLD_VOLUME and NEW_VOLUME are the same volume before and after some change (the same
// size, a multiple of 16 KiB). NEW_VOLUME gets a shadow copy whose data is OLD_VOLUME's
// in every 16 KiB block that differs (tests/support/vss_writer.h has the layout).
// --damage store breaks the store's block list header, so that the catalog still lists
// the copy but its store cannot be read; --damage catalog breaks the catalog's header.
#include "support/vss_writer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Die(const std::string& AText) {
  std::fprintf(stderr, "qvx_vss_fill: %s\n", AText.c_str());
  std::exit(1);
}

std::vector<uint8_t> ReadAll(const char* APath) {
  std::ifstream in(APath, std::ios::binary);
  if (!in) Die(std::string("cannot read ") + APath);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 3 && !(argc == 5 && std::string(argv[3]) == "--damage"))
    Die("usage: qvx_vss_fill OLD_VOLUME NEW_VOLUME [--damage store|catalog]");
  const std::string damage = argc == 5 ? argv[4] : "";
  const std::vector<uint8_t> oldData = ReadAll(argv[1]);
  std::vector<uint8_t> newData = ReadAll(argv[2]);
  qvx::test::TVssLayout layout;
  try {
    layout = qvx::test::AddShadowCopy(oldData, newData);
  } catch (const std::exception& e) {
    Die(e.what());
  }
  if (damage == "store") std::memset(&newData[layout.BlockLists[0]], 0xEE, 32);
  if (damage == "catalog") std::memset(&newData[layout.Catalog], 0xEE, 32);
  std::fstream out(argv[2], std::ios::binary | std::ios::in | std::ios::out);
  out.write(reinterpret_cast<const char*>(newData.data()), static_cast<std::streamsize>(newData.size()));
  if (!out) Die(std::string("cannot write ") + argv[2]);
  std::printf("%zu blocks preserved\n", layout.Preserved.size());
  return 0;
}
