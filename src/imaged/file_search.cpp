#include "imaged/file_search.h"

#include <algorithm>
#include <cstring>

namespace qvx {

namespace {

// Lower case of code page 1252: ASCII letters, the accented capitals 0xC0..0xDE (but the
// multiplication sign 0xD7), and Š Œ Ž Ÿ, which code page 1252 keeps below 0xA0.
std::array<uint8_t, 256> BuildFoldTable() {
  std::array<uint8_t, 256> table{};
  for (unsigned c = 0; c < 256; ++c)
    table[c] = static_cast<uint8_t>(c);
  for (unsigned c = 'A'; c <= 'Z'; ++c)
    table[c] = static_cast<uint8_t>(c + 0x20);
  for (unsigned c = 0xC0; c <= 0xDE; ++c)
    if (c != 0xD7)
      table[c] = static_cast<uint8_t>(c + 0x20);
  table[0x8A] = 0x9A;
  table[0x8C] = 0x9C;
  table[0x8E] = 0x9E;
  table[0x9F] = 0xFF;
  return table;
}

} // namespace

TTFileSearch::TTFileSearch(const std::string& AFileName, uint32_t ABufferSize)
    : FFile(OpenReadStream(AFileName)), FFold(BuildFoldTable()) {
  FBlockSize = ABufferSize < kMinBufferSize ? kDefaultBufferSize : ABufferSize;
  if (FFile->Size() < FBlockSize)
    FBlockSize = static_cast<uint32_t>(FFile->Size());
  // Two spare bytes: the shift reads the byte right of the window, one past the last valid one.
  FBuffer = std::make_unique<uint8_t[]>(size_t{FBlockSize} + 2);
}

size_t TTFileSearch::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  return FFile->ReadAt(AOffset, ABuffer, ALength);
}

void TTFileSearch::Fill(uint64_t AOffset) {
  FBufferOffset = AOffset;
  size_t got = AOffset < FFile->Size() ? FFile->ReadAt(AOffset, FBuffer.get(), FBlockSize) : 0;
  // Bytes left over from a longer block must not steer the shift past the data.
  std::memset(FBuffer.get() + got, 0, size_t{FBlockSize} + 2 - got);
  FLast = static_cast<int64_t>(got) - 1;
}

void TTFileSearch::Start(std::span<const uint8_t> APattern, uint64_t AStartPosition, bool AFold) {
  FFolding = AFold;
  FPattern.assign(APattern.begin(), APattern.end());
  if (AFold)
    for (uint8_t& byte : FPattern)
      byte = FFold[byte];
  FPatternLength = static_cast<uint32_t>(std::min<size_t>(FPattern.size(), UINT32_MAX));
  FShift.fill(FPatternLength + 1);
  for (uint32_t i = 1; i <= FPatternLength; ++i)
    FShift[FPattern[i - 1]] = FPatternLength + 1 - i;
  FMatchCount = 0;
  FFound = false;
  FLastMatch = 0;
  FMatchEnd = 0;
  FIndex = -1;
  Fill(AStartPosition);
}

void TTFileSearch::Init(std::span<const uint8_t> APattern, uint64_t AStartPosition) {
  Start(APattern, AStartPosition, false);
}

void TTFileSearch::IInit(std::span<const uint8_t> APattern, uint64_t AStartPosition) {
  Start(APattern, AStartPosition, true);
}

uint64_t TTFileSearch::Next() { return FFolding ? Search<true>() : Search<false>(); }

uint64_t TTFileSearch::INext() { return FFolding ? Search<true>() : Search<false>(); }

template <bool AFold> uint64_t TTFileSearch::Search() {
  FFound = false;
  const int64_t length = FPatternLength;
  // A block must hold the whole pattern, or the carried bytes would never move on.
  if (length == 0 || length > int64_t{FBlockSize})
    return 0;
  const uint8_t* pattern = FPattern.data();
  const uint8_t last = pattern[length - 1];
  auto at = [this](int64_t AIndex) -> uint8_t {
    uint8_t byte = FBuffer[static_cast<size_t>(AIndex)];
    if constexpr (AFold)
      return FFold[byte];
    else
      return byte;
  };
  for (;;) {
    FIndex += length;
    while (FIndex <= FLast) {
      if (at(FIndex) != last) {
        FIndex += FShift[at(FIndex + 1)];
        continue;
      }
      int64_t k = 1;
      while (k < length && at(FIndex - k) == pattern[length - 1 - k])
        ++k;
      if (k == length) {
        ++FMatchCount;
        FFound = true;
        FLastMatch = FBufferOffset + static_cast<uint64_t>(FIndex - length + 1);
        FMatchEnd = FLastMatch + static_cast<uint64_t>(length);
        return FLastMatch;
      }
      // The byte right of the differing one matched, so the shift it gives skips no occurrence.
      FIndex += FShift[at(FIndex - k + 1)];
    }
    uint64_t end = FBufferOffset + static_cast<uint64_t>(FLast + 1);
    if (FLast < 0 || end >= FFile->Size())
      return 0;
    // Carry L - 1 bytes over, but never back into the last match: occurrences do not overlap.
    uint64_t next = std::max(end - static_cast<uint64_t>(length - 1), FMatchEnd);
    Fill(next);
    FIndex = -1;
  }
}

} // namespace qvx
