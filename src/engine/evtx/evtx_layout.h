// On-disk layout of .evtx files: offsets, sizes and signatures, all little-endian.
//
// File header (first 128 bytes of a 4096-byte block):
//   0   8  "ElfFile\0"                 32  4  header size (128)
//   8   8  first chunk number          36  2  minor version (>= 1)
//   16  8  last chunk number           38  2  major version (3)
//   24  8  next record identifier      40  2  header block size (4096)
//   42  2  number of chunks            120 4  file flags (1 dirty, 2 full)
//   124 4  CRC32 of bytes 0..119
//
// Chunk (65536 bytes):
//   0   8  "ElfChnk\0"                 40  4  header size (128)
//   8   8  first event record number   44  4  last event record offset
//   16  8  last event record number    48  4  free space offset
//   24  8  first event record id       52  4  CRC32 of the event records
//   32  8  last event record id        120 4  chunk flags
//   124 4  CRC32 of the chunk header   128 384 name and template offset tables
//   512    first event record
//
// Event record:
//   0   4  magic 2A 2A 00 00           16  8  written time (FILETIME)
//   4   4  size of the whole record    24     binary XML (size - 28 bytes)
//   8   8  event record identifier     size-4 4  copy of the size
#pragma once

#include <cstdint>

namespace qvx::evtx {

inline constexpr char kFileMagic[] = "ElfFile"; // 7 bytes compared; the NUL after it is not
inline constexpr char kChunkMagic[] = "ElfChnk";
inline constexpr uint32_t kMagicCompareLength = 7;
inline constexpr uint8_t kChunkSignature[8] = {'E', 'l', 'f', 'C', 'h', 'n', 'k', 0};

inline constexpr uint32_t kFileHeaderReadSize = 128;
inline constexpr uint32_t kFileHeaderBlockSize = 4096;
inline constexpr uint32_t kFileOfsOldestChunk = 8;
inline constexpr uint32_t kFileOfsCurrentChunk = 16;
inline constexpr uint32_t kFileOfsNextRecord = 24;
inline constexpr uint32_t kFileOfsHeaderSize = 32;
inline constexpr uint32_t kFileOfsMinorVersion = 36;
inline constexpr uint32_t kFileOfsMajorVersion = 38;
inline constexpr uint32_t kFileOfsHeaderBlockSize = 40;
inline constexpr uint32_t kFileOfsChunkCount = 42;
inline constexpr uint32_t kFileOfsFlags = 120;
inline constexpr uint32_t kFileOfsChecksum = 124;
inline constexpr uint32_t kFileFlagDirty = 1;
inline constexpr uint32_t kFileFlagFull = 2;

inline constexpr uint32_t kChunkSize = 65536;
inline constexpr uint32_t kChunkHeaderSize = 128;
inline constexpr uint32_t kChunkOfsNumFirst = 8;
inline constexpr uint32_t kChunkOfsNumLast = 16;
inline constexpr uint32_t kChunkOfsNumFirstFile = 24;
inline constexpr uint32_t kChunkOfsNumLastFile = 32;
inline constexpr uint32_t kChunkOfsHeaderSize = 40;
inline constexpr uint32_t kChunkOfsLastRecord = 44;
inline constexpr uint32_t kChunkOfsNextRecord = 48;
inline constexpr uint32_t kChunkOfsDataCrc = 52;
inline constexpr uint32_t kChunkOfsFlags = 120;
inline constexpr uint32_t kChunkOfsHeaderCrc = 124;
inline constexpr uint32_t kChunkFirstRecord = 512;

inline constexpr uint32_t kRecordMagic = 0x00002A2A; // bytes 2A 2A 00 00
inline constexpr uint32_t kRecordOfsSize = 4;
inline constexpr uint32_t kRecordOfsId = 8;
inline constexpr uint32_t kRecordOfsTime = 16;
inline constexpr uint32_t kRecordHeaderSize = 24;
inline constexpr uint32_t kRecordMinSize = kRecordHeaderSize + 4;

// Binary XML tokens (low 4 bits; the high bits are flags, 0x40 = more data follows).
inline constexpr uint8_t kTokEndOfStream = 0x00;
inline constexpr uint8_t kTokOpenStartElement = 0x01;
inline constexpr uint8_t kTokCloseStartElement = 0x02;
inline constexpr uint8_t kTokCloseEmptyElement = 0x03;
inline constexpr uint8_t kTokEndElement = 0x04;
inline constexpr uint8_t kTokValue = 0x05;
inline constexpr uint8_t kTokAttribute = 0x06;
inline constexpr uint8_t kTokCData = 0x07;
inline constexpr uint8_t kTokCharRef = 0x08;
inline constexpr uint8_t kTokEntityRef = 0x09;
inline constexpr uint8_t kTokPITarget = 0x0A;
inline constexpr uint8_t kTokPIData = 0x0B;
inline constexpr uint8_t kTokTemplateInstance = 0x0C;
inline constexpr uint8_t kTokNormalSubstitution = 0x0D;
inline constexpr uint8_t kTokOptionalSubstitution = 0x0E;
inline constexpr uint8_t kTokFragmentHeader = 0x0F;
inline constexpr uint8_t kTokFlagMoreData = 0x40;

// FILETIME (100 ns since 1601) to Unix time, in units of 100 microseconds.
inline constexpr int64_t kEpochDelta100us = 116444736000000LL;

} // namespace qvx::evtx
