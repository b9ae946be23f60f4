// qvx_vss_fill: gives an NTFS volume Volume Shadow Copies that hold an older state of
// the same volume, for the shadow copy tests (no Debian tool makes shadow copies).
//
//   qvx_vss_fill OLD_VOLUME NEW_VOLUME [--copies N] [--damage store|catalog]
//
// OLD_VOLUME and NEW_VOLUME are the same volume before and after some change (the same
// size, a multiple of 16 KiB). NEW_VOLUME gets N shadow copies (default 1) whose data is
// OLD_VOLUME's in every 16 KiB block that differs (tests/support/vss_writer.h has the
// layout). --damage store breaks copy 1's block list header, so that the catalog still
// lists it but its store cannot be read; --damage catalog breaks the catalog's header.
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
  if (argc < 3) Die("usage: qvx_vss_fill OLD_VOLUME NEW_VOLUME [--copies N] [--damage store|catalog]");
  unsigned copies = 1;
  std::string damage;
  for (int i = 3; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--copies")
      copies = static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
    else if (option == "--damage")
      damage = argv[i + 1];
    else
      Die("unknown option " + option);
  }
  const std::vector<uint8_t> oldData = ReadAll(argv[1]);
  std::vector<uint8_t> newData = ReadAll(argv[2]);
  std::vector<qvx::test::TVssLayout> layouts;
  try {
    layouts = qvx::test::AddShadowCopies(oldData, newData, copies);
  } catch (const std::exception& e) {
    Die(e.what());
  }
  if (damage == "store") std::memset(&newData[layouts[0].BlockLists[0]], 0xEE, 32);
  if (damage == "catalog") std::memset(&newData[layouts[0].Catalog], 0xEE, 32);
  std::fstream out(argv[2], std::ios::binary | std::ios::in | std::ios::out);
  out.write(reinterpret_cast<const char*>(newData.data()), static_cast<std::streamsize>(newData.size()));
  if (!out) Die(std::string("cannot write ") + argv[2]);
  std::printf("%zu blocks preserved in %u copies\n", layouts[0].Preserved.size(), copies);
  return 0;
}
