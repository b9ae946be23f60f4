#include "support/partition_writer.h"

#include "platform/crc32.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qvx::test {

namespace {

void Put16(std::vector<uint8_t>& AOut, size_t AAt, uint16_t AValue) { std::memcpy(AOut.data() + AAt, &AValue, 2); }
void Put32(std::vector<uint8_t>& AOut, size_t AAt, uint32_t AValue) { std::memcpy(AOut.data() + AAt, &AValue, 4); }
void Put64(std::vector<uint8_t>& AOut, size_t AAt, uint64_t AValue) { std::memcpy(AOut.data() + AAt, &AValue, 8); }

// A GUID's text in its on-disk form (first three groups little-endian).
void PutGuid(std::vector<uint8_t>& AOut, size_t AAt, const std::string& AText) {
  unsigned a = 0, b = 0, c = 0, d[8] = {};
  std::sscanf(AText.c_str(), "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &a, &b, &c, &d[0], &d[1], &d[2], &d[3], &d[4],
              &d[5], &d[6], &d[7]);
  Put32(AOut, AAt, a);
  Put16(AOut, AAt + 4, static_cast<uint16_t>(b));
  Put16(AOut, AAt + 6, static_cast<uint16_t>(c));
  for (int i = 0; i < 8; ++i) AOut[AAt + 8 + i] = static_cast<uint8_t>(d[i]);
}

} // namespace

std::vector<uint8_t> BuildMbrDisk(uint32_t ASectors, const std::vector<TMbrEntry>& AEntries) {
  std::vector<uint8_t> disk(size_t{ASectors} * 512);
  for (size_t i = 0; i < AEntries.size() && i < 4; ++i) {
    const size_t at = 0x1BE + i * 16;
    disk[at + 4] = AEntries[i].Type;          // type
    Put32(disk, at + 8, AEntries[i].First);   // first LBA
    Put32(disk, at + 12, AEntries[i].Sectors); // sectors
  }
  disk[0x1FE] = 0x55; // signature
  disk[0x1FF] = 0xAA;
  return disk;
}

std::vector<uint8_t> BuildGptDisk(uint32_t ASectors, const std::vector<TGptEntry>& AEntries, bool ABackup) {
  std::vector<uint8_t> disk = BuildMbrDisk(ASectors, {{0xEE, 1, ASectors - 1}}); // protective MBR
  const size_t entries = 2 * 512;
  for (size_t i = 0; i < AEntries.size() && i < 128; ++i) {
    const size_t at = entries + i * 128;
    PutGuid(disk, at, AEntries[i].TypeGuid);                      // type GUID
    PutGuid(disk, at + 16, "11111111-2222-3333-4444-555555555555"); // partition GUID
    Put64(disk, at + 0x20, AEntries[i].First);                    // first LBA
    Put64(disk, at + 0x28, AEntries[i].Last);                     // last LBA
    for (size_t c = 0; c < AEntries[i].Name.size() && c < 36; ++c) disk[at + 0x38 + c * 2] = static_cast<uint8_t>(AEntries[i].Name[c]);
  }
  const size_t h = 512;
  std::memcpy(disk.data() + h, "EFI PART", 8); // signature
  Put32(disk, h + 0x08, 0x00010000);           // revision 1.0
  Put32(disk, h + 0x0C, 92);                   // header size
  Put64(disk, h + 0x18, 1);                    // this header's LBA
  Put64(disk, h + 0x28, 34);                   // first usable LBA
  Put64(disk, h + 0x30, ASectors - 34);        // last usable LBA
  Put64(disk, h + 0x48, 2);                    // entries LBA
  Put32(disk, h + 0x50, 128);                  // entry count
  Put32(disk, h + 0x54, 128);                  // entry size
  Put32(disk, h + 0x58, Crc32(disk.data() + entries, 128 * 128)); // entries CRC
  Put64(disk, h + 0x20, ASectors - 1);         // the backup header's LBA
  Put32(disk, h + 0x10, Crc32(disk.data() + h, 92));              // header CRC (field zero while summed)
  if (ABackup) {
    // The same entries before the last LBA, and a header there that points at them.
    const size_t backupEntries = size_t{ASectors - 33} * 512;
    std::memcpy(disk.data() + backupEntries, disk.data() + entries, 128 * 128);
    const size_t b = size_t{ASectors - 1} * 512;
    std::memcpy(disk.data() + b, disk.data() + h, 92);
    Put32(disk, b + 0x10, 0);                  // header CRC, summed below
    Put64(disk, b + 0x18, ASectors - 1);       // this header's LBA
    Put64(disk, b + 0x20, 1);                  // the primary header's LBA
    Put64(disk, b + 0x48, ASectors - 33);      // entries LBA
    Put32(disk, b + 0x10, Crc32(disk.data() + b, 92));
  }
  return disk;
}

size_t TMemoryStream::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  if (AOffset >= FData.size()) return 0;
  const size_t n = static_cast<size_t>(std::min<uint64_t>(ALength, FData.size() - AOffset));
  std::memcpy(ABuffer, FData.data() + AOffset, n);
  return n;
}

} // namespace qvx::test
