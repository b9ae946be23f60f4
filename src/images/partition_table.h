// TPartitionTable: the partitions of a disk, from its MBR (with extended partitions) or
// its GPT, read with bounds checks from untrusted media data.
//
// A disk whose first sector is a file system's boot sector has no table: the whole
// disk is one volume. Faults in a table (a bad checksum, an entry outside the disk, a
// loop of extended boot records) are listed in Issues() with their offset and never
// raise; the entries that could be read are kept. A GPT whose primary header or entries
// are damaged is read from its backup at the end of the disk, which Issues() says.
#pragma once

#include "platform/read_stream.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qvx {

enum class TPartitionScheme { psNone, psMbr, psGpt };

struct TPartition {
  uint32_t Number = 0;  // 1-based, in table order (MBR: primary 1-4, logical from 5)
  uint64_t Offset = 0;  // bytes from the start of the disk
  uint64_t Length = 0;  // bytes
  uint8_t MbrType = 0;  // MBR partition type; 0 for GPT
  std::string GptType;  // GPT type GUID in text form; "" for MBR
  std::string Name;     // GPT name; "" for MBR
  bool CutShort = false; // the table gives it more than the disk holds (Length is cut)
};

class TPartitionTable {
public:
  // Reads the table of AMedia (sector size 512, or 4096 for a GPT that is only found
  // there). Read errors of the media raise as the stream raises.
  void Read(const TReadStream& AMedia);

  TPartitionScheme Scheme() const { return FScheme; }
  uint32_t SectorSize() const { return FSectorSize; }
  const std::vector<TPartition>& Partitions() const { return FPartitions; }
  const std::vector<std::string>& Issues() const { return FIssues; }

  // "MBR", "GPT" or "none".
  static const char* SchemeName(TPartitionScheme AScheme);
  // What a GPT type GUID or MBR type means ("Microsoft basic data", "NTFS/exFAT"), or "".
  static std::string TypeName(const TPartition& APartition);

private:
  // A GPT header read and checked, with its entries.
  struct TGptHeader {
    uint32_t Count = 0;          // entries
    uint32_t Size = 0;           // bytes per entry
    uint64_t EntriesAt = 0;      // byte offset of the entries
    std::vector<uint8_t> Entries;
    bool EntriesMatch = false;   // their checksum matches the header's
    std::string Fault;           // why it is no usable header ("" when there is no sector there)
  };
  // The primary GPT (LBA 1), or the backup (the last LBA) when the primary header or its
  // entries are damaged; false when neither is there.
  bool ReadGpt(const TReadStream& AMedia, uint32_t ASectorSize);
  // Reads the header at AAt and its entries; false with AHeader.Fault set (and, unless
  // AQuiet, the fault among the issues) when it cannot be used.
  bool ReadGptHeader(const TReadStream& AMedia, uint64_t AAt, uint32_t ASectorSize, TGptHeader& AHeader, bool AQuiet);
  void ReadGptEntries(const TGptHeader& AHeader, uint32_t ASectorSize);
  void Note(const std::string& AText);
  void ReadMbr(const TReadStream& AMedia, const uint8_t* ASector);
  void ReadExtended(const TReadStream& AMedia, uint64_t AStartLba, uint64_t ASectors);
  void Add(TPartition APartition, uint64_t AEntryOffset);
  void Issue(uint64_t AOffset, const std::string& AText);

  TPartitionScheme FScheme = TPartitionScheme::psNone;
  uint32_t FSectorSize = 512;
  uint64_t FMediaSize = 0;
  std::vector<TPartition> FPartitions;
  std::vector<std::string> FIssues;
};

// The file system that starts at AOffset of AMedia by its boot sector: "NTFS",
// "BitLocker", "exFAT", "FAT", "ReFS" or "" when none is recognised.
std::string DetectFileSystem(const TReadStream& AMedia, uint64_t AOffset);

} // namespace qvx
