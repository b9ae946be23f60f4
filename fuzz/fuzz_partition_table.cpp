// Fuzz target: the partition table reader over a disk's first bytes.
//
// The input is the start of a disk (MBR, EBR chain, GPT header and entries); the reader
// lists what it can and must never read outside the data, loop, or raise for bad bytes.
// Seeds: MBR and GPT disks from the tests' writer (tests/support/partition_writer.cpp,
// through qvx_fuzz_seeds).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "images/partition_table.h"

namespace {

class TBytes : public qvx::TReadStream {
public:
  TBytes(const uint8_t* AData, size_t ASize) : FData(AData), FSize(ASize) {}
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FSize) return 0;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(ALength, FSize - AOffset));
    std::memcpy(ABuffer, FData + AOffset, n);
    return n;
  }
  uint64_t Size() const override { return FSize; }
  const std::string& Path() const override { return FName; }

private:
  const uint8_t* FData;
  size_t FSize;
  std::string FName = "fuzz";
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const TBytes disk(AData, ASize);
  qvx::TPartitionTable table;
  table.Read(disk);
  for (const qvx::TPartition& p : table.Partitions()) {
    if (p.Offset >= ASize || p.Length > ASize - p.Offset) __builtin_trap(); // cut at the end, always
    qvx::DetectFileSystem(disk, p.Offset);
    qvx::TPartitionTable::TypeName(p);
  }
  return 0;
}
