// Disks with MBR and GPT partition tables, built in memory for the partition reader's
// tests and fuzz seeds.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qvx::test {

struct TMbrEntry {
  uint8_t Type = 0x07;
  uint32_t First = 0;   // LBA
  uint32_t Sectors = 0;
};

// A disk of ASectors sectors of 512 bytes with an MBR holding up to four entries.
std::vector<uint8_t> BuildMbrDisk(uint32_t ASectors, const std::vector<TMbrEntry>& AEntries);

struct TGptEntry {
  std::string TypeGuid = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"; // Microsoft basic data
  uint64_t First = 0;
  uint64_t Last = 0;
  std::string Name;
};

// A disk of ASectors sectors with a protective MBR, a GPT header at LBA 1 and 128
// entries at LBA 2, both checksums right; with ABackup also the backup header in the
// last LBA and its entries in the 32 LBAs before it.
std::vector<uint8_t> BuildGptDisk(uint32_t ASectors, const std::vector<TGptEntry>& AEntries, bool ABackup = false);

// Bytes in memory as a stream.
class TMemoryStream : public TReadStream {
public:
  explicit TMemoryStream(std::vector<uint8_t> AData, std::string AName = "memory")
      : FData(std::move(AData)), FName(std::move(AName)) {}
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override;
  uint64_t Size() const override { return FData.size(); }
  const std::string& Path() const override { return FName; }

private:
  std::vector<uint8_t> FData;
  std::string FName;
};

} // namespace qvx::test
