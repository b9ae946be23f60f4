// Test fixtures built on the EVTX writer: valid files, damaged files and raw disk images,
// all in memory, plus a helper that puts bytes in a file under the test's temp directory.
//
// Layout used by the helpers
//   file offset 0       4096-byte file header block
//   file offset 4096    chunk 0, then chunk i at 4096 + i * 65536
//   chunk offset 512    first record; records back to back up to the free space offset
//   record +0 magic, +4 size, +8 identifier, +16 written time, size - 4 copy of the size
//
// Sample records: SampleEvent(i) is a Security 4624 event whose fields are a function of i
// alone (every sample event has the same shape, hence one template per chunk). Record
// identifiers start at 1 unless a helper takes a first identifier.
#pragma once

#include "engine/evtx/evtx_writer.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::test {

inline constexpr size_t kMiB = 1024 * 1024;
inline constexpr size_t kImageBufferSize = 4 * kMiB; // the reader's buffer size the images straddle

// File offset of chunk AIndex in a file.
inline size_t ChunkFileOffset(size_t AIndex) {
  return kEvtxFileHeaderBlockSize + AIndex * kEvtxChunkSize;
}

// ---- Records and chunks ----------------------------------------------------------------

// The sample event number AIndex (its TimeCreated is 2024-03-11 09:00:00 UTC + AIndex seconds).
TEvtxEventDraft SampleEvent(uint64_t AIndex);

// A chunk writer holding ARecords sample records with identifiers AFirstId, AFirstId + 1, …
// (sample event AFirstId + k for record k). Raises std::length_error when they do not fit.
TEvtxChunkWriter MakeChunkWriter(uint64_t AFirstId, size_t ARecords);

// The finished 65536 bytes of MakeChunkWriter(AFirstId, ARecords).
std::vector<uint8_t> MakeChunk(uint64_t AFirstId, size_t ARecords);

// A chunk with no records: signature, header, free space offset 512, valid CRCs, and the
// record ranges of a new log's chunk (first number 1, the rest all ones), or the ones given.
std::vector<uint8_t> MakeEmptyChunk();
std::vector<uint8_t> MakeEmptyChunk(uint64_t AFirstId, uint64_t ALastId);

// A chunk whose header was not brought up to date: ARecords valid records are written, but
// the header (free space offset, last record offset and identifiers, CRCs) covers only the
// first ARecords - AHidden of them. The hidden records lie after the free space offset.
std::vector<uint8_t> MakeDirtyChunk(uint64_t AFirstId, size_t ARecords, size_t AHidden);

// Chunk offsets of the records of a finished chunk, found by walking the record sizes from
// 512 up to the free space offset (stops at the first size that does not fit).
std::vector<size_t> ChunkRecordOffsets(std::span<const uint8_t> AChunk);

// ---- Files -----------------------------------------------------------------------------

// A valid file: AChunks chunks of ARecordsPerChunk sample records, identifiers from 1.
std::vector<uint8_t> MakeEvtxFile(size_t AChunks, size_t ARecordsPerChunk);

// A file holding the given finished chunks in the given order; the header counts them and
// its next record identifier follows the highest last identifier of the chunks. No chunks
// give a file with one empty chunk (use TruncateAt(file, 4096) for a header alone).
std::vector<uint8_t> MakeFileFromChunks(const std::vector<std::vector<uint8_t>>& AChunks,
                                        TEvtxFileOptions AOptions = {});

// AChunks chunks of ARecordsPerChunk records, written newest first (the chunk holding the
// highest identifiers at 4096, the one holding identifier 1 last).
std::vector<uint8_t> MakeOutOfOrderFile(size_t AChunks, size_t ARecordsPerChunk);

// As MakeEvtxFile, with the chunks laid out in AOrder (AOrder[i] is the chronological index
// of the chunk written at position i), e.g. {2, 3, 0, 1} for a log that wrapped around.
std::vector<uint8_t> MakeFileInChunkOrder(const std::vector<size_t>& AOrder, size_t ARecordsPerChunk);

// ---- Damage (in place) -----------------------------------------------------------------
// AFixCrc recomputes the CRC that covers the changed bytes, so only the damage named is
// there; without it the CRC no longer matches as well.

void SetHeaderChunkCount(std::vector<uint8_t>& AFile, uint16_t ACount, bool AFixCrc = true);
void SetHeaderVersion(std::vector<uint8_t>& AFile, uint16_t AMajor, uint16_t AMinor, bool AFixCrc = true);
void SetHeaderFlags(std::vector<uint8_t>& AFile, uint32_t AFlags, bool AFixCrc = true);
// Flips a bit of the header CRC.
void BreakHeaderCrc(std::vector<uint8_t>& AFile);

// Cuts the file to ASize bytes (no-op when it is already shorter).
void TruncateAt(std::vector<uint8_t>& AFile, size_t ASize);

// File offset of record ARecord (0-based) of chunk AChunk, found by walking the record sizes
// (a record whose own size is damaged is still found). Raises std::out_of_range.
size_t RecordFileOffset(const std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord);

// Overwrites the record's magic with "XXXX" (0x58585858).
void CorruptRecordMagic(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, bool AFixCrc = false);
// Adds 8 to the record's trailing copy of its size.
void CorruptRecordSizeCopy(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, bool AFixCrc = false);
// Sets the record's size field (the one at +4), leaving the trailing copy.
void SetRecordSize(std::vector<uint8_t>& AFile, size_t AChunk, size_t ARecord, uint32_t ASize,
                   bool AFixCrc = false);
// Flips a bit of a chunk's record-data CRC (@52; the header CRC is recomputed so that only
// the record CRC fails) or of its header CRC (@124).
void BreakChunkDataCrc(std::vector<uint8_t>& AFile, size_t AChunk);
void BreakChunkHeaderCrc(std::vector<uint8_t>& AFile, size_t AChunk);
// Recomputes both CRCs of a chunk of a file.
void RefreshChunkCrcs(std::vector<uint8_t>& AFile, size_t AChunk);

// ---- Raw disk images -------------------------------------------------------------------

// A buffer of zeros or deterministic noise into which byte blocks (chunks, whole files)
// are placed at any offset.
class TDiskImage {
public:
  // ANoiseSeed 0: zeros; otherwise noise from that seed (never containing "ElfChnk").
  explicit TDiskImage(size_t ASize, uint64_t ANoiseSeed = 0);

  // Copies ABytes to AOffset. Raises std::out_of_range when they do not fit.
  void Place(size_t AOffset, std::span<const uint8_t> ABytes);
  // Fills [AOffset, AOffset + ALength) with zeros.
  void Zero(size_t AOffset, size_t ALength);
  // "ElfChnk\0" at AOffset followed by header fields that look plausible, except that the
  // header size @40 is AHeaderSize (not 128); the rest of 512 bytes is noise.
  void PlaceFakeChunkSignature(size_t AOffset, uint32_t AHeaderSize = 0x80 + 4);

  size_t Size() const { return FBytes.size(); }
  const std::vector<uint8_t>& Bytes() const { return FBytes; }
  std::vector<uint8_t> Take() { return std::move(FBytes); }

private:
  std::vector<uint8_t> FBytes;
};

// A ready-made image (20 MiB, noise in the first 4 MiB, zeros after) with four valid
// chunks and one fake signature:
//   chunk 0 at 12345 (odd)                     records 1..20
//   chunk 1 at 4 MiB - (64 KiB - 3) (odd)      records 21..40, crosses the 4 MiB boundary by 3 bytes
//   chunk 2 at 8 MiB - 64 KiB                  records 41..60, ends exactly at 8 MiB
//   fake "ElfChnk\0" at 10 MiB + 777           header size @40 = 132
//   chunk 3 at 12 MiB + 1001 (odd)             records 61..80
//   a whole 2-chunk file at 16 MiB + 4097      records 101..120 and 121..140
class TSampleDiskImage {
public:
  std::vector<uint8_t> FBytes;
  std::vector<size_t> FChunkOffsets;    // every valid chunk, in image order (file's chunks included)
  std::vector<uint64_t> FChunkFirstIds; // their first record identifiers
  size_t FRecordsPerChunk = 20;
  size_t FFakeSignatureOffset = 0;
  size_t FFileOffset = 0; // where the embedded file's header is
};
TSampleDiskImage MakeSampleDiskImage();

// ---- Files on disk ---------------------------------------------------------------------

// Writes ABytes to a file named after the running test and AName under the test temp
// directory; answers its path.
std::string WriteTempFile(std::string_view AName, std::span<const uint8_t> ABytes);

} // namespace qvx::test
