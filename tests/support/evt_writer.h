// Classic event log (.evt) fixtures: records and whole files built in memory, byte by byte,
// plus damage helpers that work on a built file through its layout.
//
// Layout written (little-endian)
//   file header, 48 bytes at offset 0
//     +0  HeaderSize 0x30          +4  Signature "LfLe"        +8  MajorVersion 1
//     +12 MinorVersion 1           +16 StartOffset (oldest record)
//     +20 EndOffset (end-of-file record)                       +24 CurrentRecordNumber (next)
//     +28 OldestRecordNumber       +32 MaxSize (file size)     +36 Flags
//     +40 Retention                +44 EndHeaderSize 0x30
//   event record (EVENTLOGRECORD), Length bytes, a multiple of 4
//     +0  Length                   +4  "LfLe"                  +8  RecordNumber
//     +12 TimeGenerated            +16 TimeWritten (unix seconds)
//     +20 EventID (qualifiers in the high word)                +24 EventType u16
//     +26 NumStrings u16           +28 EventCategory u16       +30 ReservedFlags u16
//     +32 ClosingRecordNumber      +36 StringOffset            +40 UserSidLength
//     +44 UserSidOffset            +48 DataLength              +52 DataOffset
//     +56 SourceName, Computername (UTF-16LE, NUL-terminated), padding to 4, SID,
//         insertion strings (UTF-16LE, each NUL-terminated), data, padding to 4,
//         Length - 4: Length again
//   end-of-file record, 40 bytes
//     0x28, 0x11111111, 0x22222222, 0x33333333, 0x44444444, BeginRecord, EndRecord,
//     CurrentRecordNumber, OldestRecordNumber, 0x28
//
// Offsets 48 up to the end of the file are circular: a record (or the end-of-file record)
// that runs past the end of the file goes on at offset 48, split exactly at the file end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace qvx::test {

inline constexpr uint32_t kEvtSignature = 0x654c664c; // "LfLe"
inline constexpr uint32_t kEvtHeaderSize = 0x30;
inline constexpr uint32_t kEvtRecordFixedSize = 56;
inline constexpr uint32_t kEvtEofRecordSize = 0x28;

// Header flags.
enum : uint32_t {
  EvtFlagDirty = 0x1,
  EvtFlagWrapped = 0x2,
  EvtFlagLogFull = 0x4,
  EvtFlagArchive = 0x8,
};

// Event types.
enum : uint16_t {
  EvtTypeError = 1,
  EvtTypeWarning = 2,
  EvtTypeInformation = 4,
  EvtTypeAuditSuccess = 8,
  EvtTypeAuditFailure = 16,
};

struct TEvtRecordDraft {
  uint32_t RecordNumber = 1;
  uint32_t TimeGenerated = 0, TimeWritten = 0; // unix seconds
  uint32_t EventID = 0;                        // qualifier bits included
  uint16_t EventType = EvtTypeInformation, EventCategory = 0;
  std::string SourceName = "TestSource", Computername = "TESTPC";
  std::vector<std::string> Strings; // UTF-8, written as UTF-16LE
  std::vector<uint8_t> Sid;         // binary SID or empty
  std::vector<uint8_t> Data;
};

// A binary SID: revision 1, the identifier authority (48 bits, big-endian) and the
// subauthorities (little-endian), e.g. EvtSid(5, {21, 1111, 2222, 3333, 1001}).
std::vector<uint8_t> EvtSid(uint64_t AAuthority, const std::vector<uint32_t>& ASubAuthorities);

// The record's bytes, Length and its trailing copy included. Offsets in the fixed part
// point where the parts are written; an empty SID still gets its (aligned) offset.
std::vector<uint8_t> BuildEvtRecord(const TEvtRecordDraft& ARecord);

// Sample record AIndex: record number AIndex + 1, generated at 2024-03-11 09:00:00 UTC +
// AIndex seconds, source cycling over four names, one to three strings, a SID every other
// record (even AIndex), data every third record (AIndex % 3 == 0).
TEvtRecordDraft SampleEvtRecord(uint32_t AIndex);

struct TEvtFileOptions {
  uint32_t FileSize = 0;     // 0: exactly StartOffset + records + EOF record (no wrap); else the circular area is FileSize - 48 bytes
  uint32_t StartOffset = 48; // where the oldest record is written (put it near the end to force wrapping)
  uint32_t Flags = 0;        // header flags, written as given
  bool EofRecord = true;     // false: no end-of-file record (its bytes stay filler)
  std::vector<uint8_t> Filler; // byte pattern for unused space, repeated from offset 48 (default zeros)
};

struct TEvtLayout {
  std::vector<uint32_t> RecordOffsets; // file offsets, oldest first
  std::vector<uint32_t> RecordSizes;   // their Length
  uint32_t EofOffset = 0;              // where the end-of-file record is (or would be)
  bool Wrapped = false;                // some record or the end-of-file record went on at 48
};

// A file holding ARecords in order, oldest at AOptions.StartOffset. The header's
// CurrentRecordNumber is the last record's number + 1 and OldestRecordNumber the first's
// (1 and 0 with no records). Raises std::length_error when the records and the end-of-file
// record do not fit into FileSize, std::invalid_argument when StartOffset lies outside the
// circular area.
std::vector<uint8_t> BuildEvtFile(const std::vector<TEvtRecordDraft>& ARecords, const TEvtFileOptions& AOptions = {},
                                  TEvtLayout* ALayout = nullptr);

// ---- Circular access and damage (in place) ---------------------------------------------

// The file offset AOffset + ADistance in the circular area of a file of AFileSize bytes.
uint32_t EvtCircularOffset(uint32_t AOffset, uint64_t ADistance, uint32_t AFileSize);

// Writes ABytes at AOffset, going on at 48 past the end of the file.
void WriteEvtCircular(std::vector<uint8_t>& AFile, uint32_t AOffset, std::span<const uint8_t> ABytes);
void WriteEvtCircularU32(std::vector<uint8_t>& AFile, uint32_t AOffset, uint32_t AValue);
uint32_t ReadEvtCircularU32(const std::vector<uint8_t>& AFile, uint32_t AOffset);

// Record ARecord's u32 at AField bytes into it (e.g. 8 for RecordNumber), wrap-aware.
void SetRecordU32(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t AField,
                  uint32_t AValue);

// The Length at the start of record ARecord.
void SetLeadingLength(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t ALength);

// The copy of the Length at the record's end (where the built record put it).
void SetTrailingLength(std::vector<uint8_t>& AFile, const TEvtLayout& ALayout, size_t ARecord, uint32_t ALength);

// A header field (a u32 at AField, e.g. 16 for StartOffset).
void SetHeaderU32(std::vector<uint8_t>& AFile, uint32_t AField, uint32_t AValue);

} // namespace qvx::test
