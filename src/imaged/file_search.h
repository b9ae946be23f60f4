// TTFileSearch: every occurrence of a byte pattern in a file of any size, found without
// loading the file whole.
//
// The file is read in blocks into one buffer; the search is the quick-search (Sunday)
// variant of Boyer–Moore–Horspool, which shifts by the byte just right of the window. At a
// block boundary the next block is read from L - 1 bytes before the end of the previous one
// (L the pattern's length), so an occurrence straddling the boundary is found in the next
// block. Occurrences do not overlap: after a match the search goes on behind it.
//
// The .evt reader scans for record signatures with it and reads the records it finds
// through ReadAt, on the same open file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/read_stream.h"

namespace qvx {

class TTFileSearch {
public:
  // Block size used when the caller asks for less than kMinBufferSize. The value is the
  // original's own (35533 bytes); keep it, the block boundaries of the .evt scan follow it.
  static constexpr uint32_t kDefaultBufferSize = 0x8ACD;
  static constexpr uint32_t kMinBufferSize = 0xFFFD;

  // Opens AFileName (OpenReadStream raises ENTException when it cannot). ABufferSize below
  // kMinBufferSize becomes kDefaultBufferSize; the block size is then cut to the file's
  // size when the file is smaller. Nothing is read until Init or IInit.
  TTFileSearch(const std::string& AFileName, uint32_t ABufferSize);

  TTFileSearch(const TTFileSearch&) = delete;
  TTFileSearch& operator=(const TTFileSearch&) = delete;

  // Starts a search for APattern (copied) from file offset AStartPosition: builds the shift
  // table, reads the first block there, clears the match count and the found flag. An
  // empty pattern, a pattern longer than the block size, or a start at or past the end of
  // the file gives a search that finds nothing. Raises ENTException on a read error.
  void Init(std::span<const uint8_t> APattern, uint64_t AStartPosition);

  // The file offset of the next occurrence, with Found() true; 0 with Found() false once
  // the file is exhausted (an occurrence at offset 0 is told from none only by the flag).
  // Raises ENTException on a read error.
  uint64_t Next();

  // As Init and Next, comparing without case: pattern and file bytes are folded to lower
  // case first (ASCII letters and the letters of code page 1252).
  void IInit(std::span<const uint8_t> APattern, uint64_t AStartPosition);
  uint64_t INext();

  bool Found() const { return FFound; }
  uint64_t MatchCount() const { return FMatchCount; }
  uint32_t BlockSize() const { return FBlockSize; }
  uint64_t FileSize() const { return FFile->Size(); }
  // File offset of the last occurrence returned (0 before the first).
  uint64_t LastMatch() const { return FLastMatch; }

  // Reads up to ALength bytes at AOffset from the searched file, past the search's buffer
  // (the search position is not moved). Returns the bytes read, short only at the end of
  // the file; raises ENTException on a read error.
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const;

private:
  void Start(std::span<const uint8_t> APattern, uint64_t AStartPosition, bool AFold);
  // Reads the block at AOffset; FLast becomes the index of its last byte (-1 when none).
  void Fill(uint64_t AOffset);
  template <bool AFold> uint64_t Search();

  std::unique_ptr<TReadStream> FFile;
  std::unique_ptr<uint8_t[]> FBuffer; // FBlockSize + 2 bytes; the tail stays zero
  uint32_t FBlockSize = 0;
  int64_t FLast = -1;          // index of the last valid byte in FBuffer
  uint64_t FBufferOffset = 0;  // file offset of FBuffer[0]
  std::array<uint32_t, 256> FShift{};
  std::array<uint8_t, 256> FFold{};
  std::vector<uint8_t> FPattern; // folded for IInit
  uint32_t FPatternLength = 0;
  uint64_t FMatchCount = 0;
  int64_t FIndex = -1; // buffer index aligned with the pattern's last byte
  bool FFound = false;
  uint64_t FLastMatch = 0;
  bool FFolding = false; // set by IInit: Next and INext both compare folded bytes
  uint64_t FMatchEnd = 0; // file offset just past the last match, so a refill cannot overlap it
};

} // namespace qvx
