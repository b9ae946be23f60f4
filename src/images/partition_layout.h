// On-disk layout of the partition tables read by TPartitionTable.
//
// MBR (sector 0) and each extended boot record (EBR):
//   offset  size  field
//   0x1BE   16    partition entry 1 (then 2, 3, 4 at 0x1CE, 0x1DE, 0x1EE)
//   0x1FE   2     signature 0x55 0xAA
// Partition entry:
//   0x0     1     status (0x80 bootable)
//   0x4     1     type (0x05, 0x0F, 0x85 extended; 0xEE GPT protective; 0x07 NTFS/exFAT)
//   0x8     4     first sector (LBA); in an EBR relative to the EBR (entry 1) or to the
//                 extended partition's start (entry 2, the next EBR)
//   0xC     4     sectors
//
// GPT header (LBA 1, and its backup in the last LBA, whose entries lie before it):
//   0x00    8     "EFI PART"
//   0x08    4     revision
//   0x0C    4     header size (92 or more, at most a sector)
//   0x10    4     CRC32 of the header with this field zero
//   0x18    8     this header's LBA
//   0x20    8     the other header's LBA
//   0x28    8     first usable LBA
//   0x30    8     last usable LBA
//   0x48    8     LBA of the partition entries
//   0x50    4     number of entries
//   0x54    4     size of one entry (128 or a multiple of 8 above it)
//   0x58    4     CRC32 of the entries
// GPT entry:
//   0x00    16    type GUID (all zero: unused)
//   0x10    16    partition GUID
//   0x20    8     first LBA
//   0x28    8     last LBA (inclusive)
//   0x30    8     attributes
//   0x38    72    name, UTF-16LE
#pragma once

#include <cstdint>

namespace qvx::partition {

inline constexpr uint32_t kMbrEntries = 0x1BE;
inline constexpr uint32_t kMbrEntrySize = 16;
inline constexpr uint32_t kMbrSignature = 0x1FE;
inline constexpr uint32_t kEntryType = 0x4;
inline constexpr uint32_t kEntryFirst = 0x8;
inline constexpr uint32_t kEntrySectors = 0xC;

inline constexpr uint8_t kTypeGptProtective = 0xEE;
inline constexpr bool IsExtendedType(uint8_t AType) { return AType == 0x05 || AType == 0x0F || AType == 0x85; }

inline constexpr char kGptSignature[8] = {'E', 'F', 'I', ' ', 'P', 'A', 'R', 'T'};
inline constexpr uint32_t kGptHeaderSize = 0x0C;
inline constexpr uint32_t kGptHeaderCrc = 0x10;
inline constexpr uint32_t kGptFirstUsable = 0x28;
inline constexpr uint32_t kGptLastUsable = 0x30;
inline constexpr uint32_t kGptEntriesLba = 0x48;
inline constexpr uint32_t kGptEntryCount = 0x50;
inline constexpr uint32_t kGptEntrySize = 0x54;
inline constexpr uint32_t kGptEntriesCrc = 0x58;
inline constexpr uint32_t kGptMinHeaderSize = 92;

inline constexpr uint32_t kGptEntryType = 0x00;
inline constexpr uint32_t kGptEntryFirst = 0x20;
inline constexpr uint32_t kGptEntryLast = 0x28;
inline constexpr uint32_t kGptEntryName = 0x38;
inline constexpr uint32_t kGptEntryNameSize = 72;
inline constexpr uint32_t kGptMinEntrySize = 128;

// Bounds on what a table may make us read.
inline constexpr uint32_t kMaxGptEntries = 1024;
inline constexpr uint32_t kMaxGptEntrySize = 4096;
inline constexpr uint32_t kMaxLogicalPartitions = 128;

} // namespace qvx::partition
