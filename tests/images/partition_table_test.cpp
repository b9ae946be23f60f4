#include "images/partition_table.h"

#include "support/partition_writer.h"

#include <gtest/gtest.h>

#include <cstring>

#include "platform/crc32.h"

namespace qvx {
namespace {

using test::BuildGptDisk;
using test::BuildMbrDisk;
using test::TMemoryStream;

TPartitionTable Read(std::vector<uint8_t> ADisk) {
  TMemoryStream stream(std::move(ADisk));
  TPartitionTable table;
  table.Read(stream);
  return table;
}

TEST(PartitionTableMbr, ListsPrimaryPartitions) {
  const TPartitionTable t = Read(BuildMbrDisk(4096, {{0x07, 2048, 1024}, {0x0C, 3072, 512}}));
  ASSERT_EQ(t.Scheme(), TPartitionScheme::psMbr);
  ASSERT_EQ(t.Partitions().size(), 2u);
  EXPECT_EQ(t.Partitions()[0].Offset, 2048u * 512);
  EXPECT_EQ(t.Partitions()[0].Length, 1024u * 512);
  EXPECT_EQ(TPartitionTable::TypeName(t.Partitions()[0]), "NTFS/exFAT (0x07)");
  EXPECT_EQ(t.Partitions()[1].Number, 2u);
  EXPECT_TRUE(t.Issues().empty());
}

TEST(PartitionTableMbr, CutsAPartitionAtTheEndOfTheDisk) {
  const TPartitionTable t = Read(BuildMbrDisk(4096, {{0x07, 2048, 100000}}));
  ASSERT_EQ(t.Partitions().size(), 1u);
  EXPECT_EQ(t.Partitions()[0].Length, (4096u - 2048) * 512);
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "partition 1 runs past the end of the disk; cut there at offset 0x1BE");
}

TEST(PartitionTableMbr, DropsAPartitionPastTheEnd) {
  const TPartitionTable t = Read(BuildMbrDisk(4096, {{0x07, 9000, 10}}));
  EXPECT_TRUE(t.Partitions().empty());
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "partition 1 starts past the end of the disk at offset 0x1BE");
}

TEST(PartitionTableMbr, StopsAtALoopOfExtendedBootRecords) {
  std::vector<uint8_t> disk = BuildMbrDisk(4096, {{0x05, 1000, 2000}});
  // The EBR at LBA 1000: one logical partition, and a "next" EBR pointing back to itself.
  const size_t ebr = 1000 * 512;
  disk[ebr + 0x1BE + 4] = 0x07;
  const uint32_t first = 63, sectors = 100, next = 0, span = 2000;
  std::memcpy(&disk[ebr + 0x1BE + 8], &first, 4);
  std::memcpy(&disk[ebr + 0x1BE + 12], &sectors, 4);
  disk[ebr + 0x1CE + 4] = 0x05;
  std::memcpy(&disk[ebr + 0x1CE + 8], &next, 4);
  std::memcpy(&disk[ebr + 0x1CE + 12], &span, 4);
  disk[ebr + 0x1FE] = 0x55;
  disk[ebr + 0x1FF] = 0xAA;
  const TPartitionTable t = Read(disk);
  ASSERT_EQ(t.Partitions().size(), 1u);
  EXPECT_EQ(t.Partitions()[0].Number, 5u);
  EXPECT_EQ(t.Partitions()[0].Offset, (1000u + 63) * 512);
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "extended boot records form a loop; stopped at offset 0x7D000");
}

TEST(PartitionTableNone, ABootSectorAtZeroIsNoTable) {
  std::vector<uint8_t> disk = BuildMbrDisk(64, {{0x07, 1, 10}});
  std::memcpy(&disk[3], "NTFS    ", 8);
  const TPartitionTable t = Read(disk);
  EXPECT_EQ(t.Scheme(), TPartitionScheme::psNone);
  EXPECT_TRUE(t.Partitions().empty());
}

TEST(PartitionTableNone, ZerosAreNoTable) {
  const TPartitionTable t = Read(std::vector<uint8_t>(8192));
  EXPECT_EQ(t.Scheme(), TPartitionScheme::psNone);
}

TEST(PartitionTableGpt, ListsEntriesWithTypeAndName) {
  const TPartitionTable t = Read(BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, "Data"},
                                                     {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", 40, 2047, "EFI"}}));
  ASSERT_EQ(t.Scheme(), TPartitionScheme::psGpt);
  ASSERT_EQ(t.Partitions().size(), 2u);
  EXPECT_EQ(t.Partitions()[0].Offset, 2048u * 512);
  EXPECT_EQ(t.Partitions()[0].Length, 2048u * 512);
  EXPECT_EQ(t.Partitions()[0].Name, "Data");
  EXPECT_EQ(TPartitionTable::TypeName(t.Partitions()[0]), "Microsoft basic data");
  EXPECT_EQ(TPartitionTable::TypeName(t.Partitions()[1]), "EFI system");
  EXPECT_TRUE(t.Issues().empty());
}

TEST(PartitionTableGpt, ABadHeaderChecksumFallsBackToTheMbr) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, ""}});
  disk[512 + 0x10] ^= 1;
  const TPartitionTable t = Read(disk);
  EXPECT_EQ(t.Scheme(), TPartitionScheme::psMbr);
  EXPECT_TRUE(t.Partitions().empty());
  ASSERT_EQ(t.Issues().size(), 2u);
  EXPECT_EQ(t.Issues()[0], "GPT header checksum does not match at offset 0x210");
  EXPECT_EQ(t.Issues()[1], "protective MBR without a readable GPT; reading the MBR at offset 0x200");
}

TEST(PartitionTableGpt, AZeroedPrimaryHeaderIsReadFromTheBackup) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, "Data"}}, true);
  std::memset(&disk[512], 0, 512);
  const TPartitionTable t = Read(disk);
  ASSERT_EQ(t.Scheme(), TPartitionScheme::psGpt);
  ASSERT_EQ(t.Partitions().size(), 1u);
  EXPECT_EQ(t.Partitions()[0].Offset, 2048u * 512);
  EXPECT_EQ(t.Partitions()[0].Name, "Data");
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "primary GPT header at offset 0x200 damaged (no GPT signature); read the backup at offset 0x3FFE00");
}

TEST(PartitionTableGpt, ABadPrimaryChecksumIsReadFromTheBackup) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, ""}}, true);
  disk[512 + 0x10] ^= 1;
  const TPartitionTable t = Read(disk);
  ASSERT_EQ(t.Scheme(), TPartitionScheme::psGpt);
  ASSERT_EQ(t.Partitions().size(), 1u);
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0],
            "primary GPT header at offset 0x200 damaged (GPT header checksum does not match); read the backup at offset 0x3FFE00");
}

TEST(PartitionTableGpt, ZeroedPrimaryEntriesAreReadFromTheBackup) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, "Data"}}, true);
  std::memset(&disk[1024], 0, 512);
  const TPartitionTable t = Read(disk);
  ASSERT_EQ(t.Partitions().size(), 1u);
  EXPECT_EQ(t.Partitions()[0].Name, "Data");
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0],
            "primary GPT entries at offset 0x400 damaged (checksum does not match); read the backup's at offset 0x3FBE00");
}

TEST(PartitionTableGpt, DamagedEntriesWithoutABackupAreReadAnyway) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 2048, 4095, "Data"}});
  disk[1024 + 0x38] = 'X';
  const TPartitionTable t = Read(disk);
  ASSERT_EQ(t.Partitions().size(), 1u);
  EXPECT_EQ(t.Partitions()[0].Name, "Xata");
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "GPT entries checksum does not match; reading them anyway at offset 0x400");
}

TEST(PartitionTableGpt, AnEntryCountOutOfRangeIsRefused) {
  std::vector<uint8_t> disk = BuildGptDisk(8192, {});
  const uint32_t count = 100000;
  std::memcpy(&disk[512 + 0x50], &count, 4);
  std::memset(&disk[512 + 0x10], 0, 4);
  const uint32_t crc = Crc32(disk.data() + 512, 92);
  std::memcpy(&disk[512 + 0x10], &crc, 4);
  const TPartitionTable t = Read(disk);
  ASSERT_FALSE(t.Issues().empty());
  EXPECT_EQ(t.Issues()[0], "GPT entry count 100000 out of range at offset 0x250");
}

TEST(PartitionTableGpt, AnEntryWithItsEndBeforeItsStartIsSkipped) {
  const TPartitionTable t = Read(BuildGptDisk(8192, {{"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", 4000, 3000, ""}}));
  EXPECT_TRUE(t.Partitions().empty());
  ASSERT_EQ(t.Issues().size(), 1u);
  EXPECT_EQ(t.Issues()[0], "GPT entry 1 has its last sector before its first at offset 0x400");
}

} // namespace
} // namespace qvx
