#include "images/partition_table.h"

#include "images/partition_layout.h"
#include "platform/byte_reader.h"
#include "platform/crc32.h"
#include "platform/utf16.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>

namespace qvx {

using namespace partition;

namespace {

std::string Hex(uint64_t AValue) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(AValue));
  return text;
}

std::string GuidText(TByteReader AGuid) {
  char text[40];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", AGuid.ReadU32(0), AGuid.ReadU16(4),
                AGuid.ReadU16(6), AGuid.ReadU8(8), AGuid.ReadU8(9), AGuid.ReadU8(10), AGuid.ReadU8(11), AGuid.ReadU8(12),
                AGuid.ReadU8(13), AGuid.ReadU8(14), AGuid.ReadU8(15));
  return text;
}

// Reads exactly ALength bytes at AOffset; false when the media is shorter.
bool ReadExact(const TReadStream& AMedia, uint64_t AOffset, void* ABuffer, size_t ALength) {
  return AMedia.ReadAt(AOffset, ABuffer, ALength) == ALength;
}

} // namespace

std::string DetectFileSystem(const TReadStream& AMedia, uint64_t AOffset) {
  uint8_t boot[512] = {};
  if (!ReadExact(AMedia, AOffset, boot, sizeof boot)) return {};
  if (std::memcmp(boot + 3, "NTFS    ", 8) == 0) return "NTFS";
  if (std::memcmp(boot + 3, "-FVE-FS-", 8) == 0) return "BitLocker";
  if (std::memcmp(boot + 3, "EXFAT   ", 8) == 0) return "exFAT";
  if (std::memcmp(boot + 3, "ReFS", 4) == 0) return "ReFS";
  if (std::memcmp(boot + 0x36, "FAT", 3) == 0 || std::memcmp(boot + 0x52, "FAT32", 5) == 0) return "FAT";
  return {};
}

const char* TPartitionTable::SchemeName(TPartitionScheme AScheme) {
  switch (AScheme) {
  case TPartitionScheme::psMbr: return "MBR";
  case TPartitionScheme::psGpt: return "GPT";
  case TPartitionScheme::psNone: break;
  }
  return "none";
}

std::string TPartitionTable::TypeName(const TPartition& APartition) {
  if (!APartition.GptType.empty()) {
    static const std::pair<const char*, const char*> kTypes[] = {
        {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data"},
        {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI system"},
        {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserved"},
        {"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows recovery"},
        {"5808C8AA-7E8F-42E0-85D2-E1E90434CFB3", "LDM metadata"},
        {"AF9B60A0-1431-4F62-BC68-3311714A69AD", "LDM data"},
        {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux file system"},
    };
    for (const auto& [guid, name] : kTypes)
      if (APartition.GptType == guid) return name;
    return APartition.GptType;
  }
  switch (APartition.MbrType) {
  case 0x07: return "NTFS/exFAT (0x07)";
  case 0x0B:
  case 0x0C: return "FAT32 (" + Hex(APartition.MbrType) + ")";
  case 0x06:
  case 0x0E: return "FAT16 (" + Hex(APartition.MbrType) + ")";
  case 0x27: return "Windows recovery (0x27)";
  case 0x83: return "Linux (0x83)";
  default: return "type " + Hex(APartition.MbrType);
  }
}

void TPartitionTable::Issue(uint64_t AOffset, const std::string& AText) { Note(AText + " at offset " + Hex(AOffset)); }

void TPartitionTable::Note(const std::string& AText) {
  if (FIssues.size() < 100) FIssues.push_back(AText);
}

void TPartitionTable::Add(TPartition APartition, uint64_t AEntryOffset) {
  if (APartition.Length == 0) return;
  if (FMediaSize && APartition.Offset >= FMediaSize) {
    Issue(AEntryOffset, "partition " + std::to_string(APartition.Number) + " starts past the end of the disk");
    return;
  }
  if (FMediaSize && APartition.Length > FMediaSize - APartition.Offset) {
    Issue(AEntryOffset, "partition " + std::to_string(APartition.Number) + " runs past the end of the disk; cut there");
    APartition.Length = FMediaSize - APartition.Offset;
    APartition.CutShort = true;
  }
  FPartitions.push_back(std::move(APartition));
}

void TPartitionTable::Read(const TReadStream& AMedia) {
  FScheme = TPartitionScheme::psNone;
  FSectorSize = 512;
  FPartitions.clear();
  FIssues.clear();
  FMediaSize = AMedia.Size();
  uint8_t sector[512] = {};
  if (!ReadExact(AMedia, 0, sector, sizeof sector)) return;
  // A volume boot sector also ends in 55 AA: a disk that starts with a file system has
  // no table.
  if (!DetectFileSystem(AMedia, 0).empty()) return;
  if (sector[kMbrSignature] != 0x55 || sector[kMbrSignature + 1] != 0xAA) return;
  bool protective = false;
  for (uint32_t i = 0; i < 4; ++i)
    if (sector[kMbrEntries + i * kMbrEntrySize + kEntryType] == kTypeGptProtective) protective = true;
  if (protective) {
    if (ReadGpt(AMedia, 512) || ReadGpt(AMedia, 4096)) return;
    Issue(512, "protective MBR without a readable GPT; reading the MBR");
  }
  ReadMbr(AMedia, sector);
}

void TPartitionTable::ReadMbr(const TReadStream& AMedia, const uint8_t* ASector) {
  FScheme = TPartitionScheme::psMbr;
  const TByteReader mbr(ASector, 512);
  for (uint32_t i = 0; i < 4; ++i) {
    const uint32_t at = kMbrEntries + i * kMbrEntrySize;
    const uint8_t type = mbr.ReadU8(at + kEntryType);
    const uint64_t first = mbr.ReadU32(at + kEntryFirst);
    const uint64_t sectors = mbr.ReadU32(at + kEntrySectors);
    if (type == 0 || sectors == 0) continue;
    if (IsExtendedType(type)) {
      ReadExtended(AMedia, first, sectors);
      continue;
    }
    if (type == kTypeGptProtective) continue;
    TPartition p;
    p.Number = i + 1;
    p.Offset = first * 512;
    p.Length = sectors * 512;
    p.MbrType = type;
    Add(std::move(p), at);
  }
}

void TPartitionTable::ReadExtended(const TReadStream& AMedia, uint64_t AStartLba, uint64_t ASectors) {
  uint64_t ebr = AStartLba;
  uint32_t number = 5;
  std::set<uint64_t> seen;
  while (number < 5 + kMaxLogicalPartitions) {
    if (!seen.insert(ebr).second) {
      Issue(ebr * 512, "extended boot records form a loop; stopped");
      return;
    }
    if (ebr < AStartLba || ebr - AStartLba >= ASectors) {
      Issue(ebr * 512, "extended boot record outside its extended partition; stopped");
      return;
    }
    uint8_t sector[512] = {};
    if (!ReadExact(AMedia, ebr * 512, sector, sizeof sector)) {
      Issue(ebr * 512, "extended boot record past the end of the disk");
      return;
    }
    const TByteReader r(sector, sizeof sector);
    if (r.ReadU8(kMbrSignature) != 0x55 || r.ReadU8(kMbrSignature + 1) != 0xAA) {
      Issue(ebr * 512, "extended boot record without its 55 AA signature; stopped");
      return;
    }
    const uint32_t entry1 = kMbrEntries, entry2 = kMbrEntries + kMbrEntrySize;
    if (r.ReadU8(entry1 + kEntryType) != 0 && r.ReadU32(entry1 + kEntrySectors) != 0) {
      TPartition p;
      p.Number = number++;
      p.Offset = (ebr + r.ReadU32(entry1 + kEntryFirst)) * 512;
      p.Length = uint64_t{r.ReadU32(entry1 + kEntrySectors)} * 512;
      p.MbrType = r.ReadU8(entry1 + kEntryType);
      Add(std::move(p), ebr * 512 + entry1);
    }
    if (!IsExtendedType(r.ReadU8(entry2 + kEntryType)) || r.ReadU32(entry2 + kEntrySectors) == 0) return;
    ebr = AStartLba + r.ReadU32(entry2 + kEntryFirst);
  }
  Issue(ebr * 512, "more than " + std::to_string(kMaxLogicalPartitions) + " logical partitions; stopped");
}

bool TPartitionTable::ReadGptHeader(const TReadStream& AMedia, uint64_t AAt, uint32_t ASectorSize, TGptHeader& AHeader,
                                    bool AQuiet) {
  auto fault = [&](uint64_t AOffset, const std::string& AText) {
    if (!AQuiet) Issue(AOffset, AText);
    AHeader.Fault = AText;
    return false;
  };
  std::vector<uint8_t> header(ASectorSize);
  if (!ReadExact(AMedia, AAt, header.data(), header.size())) return false;
  const TByteReader h(header.data(), header.size());
  if (std::memcmp(header.data(), kGptSignature, sizeof kGptSignature) != 0) {
    AHeader.Fault = "no GPT signature";
    return false;
  }
  const uint32_t headerSize = h.ReadU32(kGptHeaderSize);
  if (headerSize < kGptMinHeaderSize || headerSize > ASectorSize)
    return fault(AAt + kGptHeaderSize, "GPT header size " + std::to_string(headerSize) + " out of range");
  std::vector<uint8_t> copy(header.begin(), header.begin() + headerSize);
  std::memset(copy.data() + kGptHeaderCrc, 0, 4);
  if (Crc32(copy.data(), copy.size()) != h.ReadU32(kGptHeaderCrc)) return fault(AAt + kGptHeaderCrc, "GPT header checksum does not match");
  AHeader.Count = h.ReadU32(kGptEntryCount);
  AHeader.Size = h.ReadU32(kGptEntrySize);
  if (AHeader.Size < kGptMinEntrySize || AHeader.Size > kMaxGptEntrySize || AHeader.Size % 8 != 0)
    return fault(AAt + kGptEntrySize, "GPT entry size " + std::to_string(AHeader.Size) + " out of range");
  if (AHeader.Count > kMaxGptEntries)
    return fault(AAt + kGptEntryCount, "GPT entry count " + std::to_string(AHeader.Count) + " out of range");
  const uint64_t entriesLba = h.ReadU64(kGptEntriesLba);
  if (entriesLba == 0 || entriesLba > (~uint64_t{0}) / ASectorSize) return fault(AAt + kGptEntriesLba, "GPT entries LBA out of range");
  AHeader.EntriesAt = entriesLba * ASectorSize;
  AHeader.Entries.assign(size_t{AHeader.Count} * AHeader.Size, 0);
  if (!ReadExact(AMedia, AHeader.EntriesAt, AHeader.Entries.data(), AHeader.Entries.size()))
    return fault(AHeader.EntriesAt, "GPT entries past the end of the disk");
  AHeader.EntriesMatch = Crc32(AHeader.Entries.data(), AHeader.Entries.size()) == h.ReadU32(kGptEntriesCrc);
  return true;
}

bool TPartitionTable::ReadGpt(const TReadStream& AMedia, uint32_t ASectorSize) {
  TGptHeader primary;
  const bool primaryRead = ReadGptHeader(AMedia, ASectorSize, ASectorSize, primary, true);
  if (!primaryRead && primary.Fault.empty()) return false; // no sector there
  // The backup header lies in the disk's last sector, its entries before it; Windows
  // and the firmware keep both, and tools that wipe the start of a disk leave the backup.
  if (!primaryRead || !primary.EntriesMatch) {
    TGptHeader backup;
    const uint64_t sectors = FMediaSize / ASectorSize;
    if (sectors > 2 && ReadGptHeader(AMedia, (sectors - 1) * ASectorSize, ASectorSize, backup, true) && backup.EntriesMatch) {
      if (!primaryRead)
        Note("primary GPT header at offset " + Hex(ASectorSize) + " damaged (" + primary.Fault + "); read the backup at offset " +
             Hex((sectors - 1) * ASectorSize));
      else
        Note("primary GPT entries at offset " + Hex(primary.EntriesAt) + " damaged (checksum does not match); read the backup's at offset " +
             Hex(backup.EntriesAt));
      ReadGptEntries(backup, ASectorSize);
      return true;
    }
  }
  if (!primaryRead) {
    if (primary.Fault == "no GPT signature") return false;
    TGptHeader again;
    ReadGptHeader(AMedia, ASectorSize, ASectorSize, again, false); // the fault among the issues
    return false;
  }
  if (!primary.EntriesMatch) Issue(primary.EntriesAt, "GPT entries checksum does not match; reading them anyway");
  ReadGptEntries(primary, ASectorSize);
  return true;
}

void TPartitionTable::ReadGptEntries(const TGptHeader& AHeader, uint32_t ASectorSize) {
  FScheme = TPartitionScheme::psGpt;
  FSectorSize = ASectorSize;
  const TByteReader all(AHeader.Entries.data(), AHeader.Entries.size());
  for (uint32_t i = 0; i < AHeader.Count; ++i) {
    const TByteReader e = all.Sub(uint64_t{i} * AHeader.Size, AHeader.Size);
    const uint64_t where = AHeader.EntriesAt + uint64_t{i} * AHeader.Size;
    const std::span<const uint8_t> type = e.ReadBytes(kGptEntryType, 16);
    if (type.size() != 16 || std::all_of(type.begin(), type.end(), [](uint8_t b) { return b == 0; })) continue;
    const uint64_t first = e.ReadU64(kGptEntryFirst), last = e.ReadU64(kGptEntryLast);
    if (last < first || last >= (~uint64_t{0}) / ASectorSize) {
      Issue(where, "GPT entry " + std::to_string(i + 1) + " has its last sector before its first");
      continue;
    }
    TPartition p;
    p.Number = i + 1;
    p.Offset = first * ASectorSize;
    p.Length = (last - first + 1) * ASectorSize;
    p.GptType = GuidText(e.Sub(kGptEntryType, 16));
    const std::span<const uint8_t> name = e.ReadBytes(kGptEntryName, kGptEntryNameSize);
    size_t units = 0;
    while (units * 2 + 1 < name.size() && (name[units * 2] || name[units * 2 + 1])) ++units;
    p.Name = Utf16ToUtf8(name.data(), units);
    Add(std::move(p), where);
  }
}

} // namespace qvx
