#include "engine/evtx/elf_chunks.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#define QVX_SEARCH_AVX2 1
#endif

namespace qvx {

using namespace evtx;

namespace {

// First "ElfChnk\0" at or after AData whose 8 bytes lie whole below AEnd, or null: one
// byte at a time through memchr for 'E'.
const uint8_t* FindSignatureBytewise(const uint8_t* AData, const uint8_t* AEnd) {
  const uint8_t* p = AData;
  while (AEnd - p >= static_cast<ptrdiff_t>(sizeof kChunkSignature)) {
    p = static_cast<const uint8_t*>(std::memchr(p, 'E', static_cast<size_t>(AEnd - p) - (sizeof kChunkSignature - 1)));
    if (!p) return nullptr;
    if (std::memcmp(p, kChunkSignature, sizeof kChunkSignature) == 0) return p;
    ++p;
  }
  return nullptr;
}

#if defined(__GNUC__)
// 16 lanes of a vector register (SSE2 on x86-64, NEON on ARM); the compiler lowers the
// lane-wise compares and ANDs itself.
typedef signed char TLanes __attribute__((vector_size(16)));

inline TLanes LoadLanes(const uint8_t* AData) {
  TLanes v;
  std::memcpy(&v, AData, sizeof v);
  return v;
}

inline bool AnyLane(TLanes AMask) {
  uint64_t half[2];
  std::memcpy(half, &AMask, sizeof half);
  return (half[0] | half[1]) != 0;
}
#endif

#ifdef QVX_SEARCH_AVX2
// FindSignature's test over 64 start positions at a time with 32-byte registers, for
// processors that have them (chosen at run time: the program is built for any x86-64).
__attribute__((target("avx2"))) const uint8_t* FindSignatureAvx2(const uint8_t* AData, size_t ALength) {
  const uint8_t* p = AData;
  const uint8_t* end = AData + ALength;
  constexpr size_t kStep = 64;
  constexpr size_t kLast = 6;
  const __m256i first = _mm256_set1_epi8('E');
  const __m256i last = _mm256_set1_epi8('k');
  while (static_cast<size_t>(end - p) >= kStep + sizeof kChunkSignature) {
    const auto* v = reinterpret_cast<const __m256i*>(p);
    const auto* w = reinterpret_cast<const __m256i*>(p + kLast);
    const __m256i a = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(v), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(w), last));
    const __m256i b = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(v + 1), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(w + 1), last));
    const __m256i any = _mm256_or_si256(a, b);
    if (!_mm256_testz_si256(any, any)) {
      for (size_t i = 0; i < kStep; ++i)
        if (p[i] == 'E' && std::memcmp(p + i, kChunkSignature, sizeof kChunkSignature) == 0) return p + i;
    }
    p += kStep;
  }
  return FindSignatureBytewise(p, end);
}
#endif

// First "ElfChnk\0" that lies whole in [AData, AData + ALength), or null.
//
// Raw data holds an 'E' every 256 bytes on average, so stopping at each one (memchr) costs
// more than reading the data. Instead 32 start positions at a time are tested for 'E' at
// +0 and 'k' at +6 together, which random data passes once in 65536 positions; only those
// are compared in full. Any start position is tried: chunks of a log that was copied or
// cut lie at any byte offset of an image.
const uint8_t* FindSignature(const uint8_t* AData, size_t ALength) {
#ifdef QVX_SEARCH_AVX2
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (avx2) return FindSignatureAvx2(AData, ALength);
#endif
  const uint8_t* p = AData;
  const uint8_t* end = AData + ALength;
#if defined(__GNUC__)
  constexpr size_t kStep = 32;
  constexpr size_t kLast = 6; // offset of the second byte tested
  static_assert(kChunkSignature[0] == 'E' && kChunkSignature[kLast] == 'k');
  const TLanes first = {'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E'};
  const TLanes last = {'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k'};
  // Every start position of a step must leave room for the whole signature.
  while (static_cast<size_t>(end - p) >= kStep + sizeof kChunkSignature) {
    const TLanes a = (LoadLanes(p) == first) & (LoadLanes(p + kLast) == last);
    const TLanes b = (LoadLanes(p + 16) == first) & (LoadLanes(p + 16 + kLast) == last);
    if (AnyLane(a | b)) {
      for (size_t i = 0; i < kStep; ++i)
        if (p[i] == 'E' && std::memcmp(p + i, kChunkSignature, sizeof kChunkSignature) == 0) return p + i;
    }
    p += kStep;
  }
#endif
  return FindSignatureBytewise(p, end);
}

} // namespace

TElfChnunks::TElfChnunks() = default;

TElfChnunks::~TElfChnunks() { Close(); }

void TElfChnunks::Open(std::unique_ptr<TReadStream> AStream) {
  Close();
  FHandle = std::move(AStream);
  FActive = true;
  FHaveBlock = false;
  FNextBlockAvailable = true;
  FLastBlock = false;
  FChunkOffset = 0;
  FPosition = 0;
  FBlockStart = 0;
  FBytesRead = 0;
  FSourceSize = FHandle->Size();
  FNumOfBlocks = static_cast<uint32_t>(FSourceSize / (FBlockSize - kOverlap) + 1);
  FCurrentBlock = 0;
}

bool TElfChnunks::OpenFile(const std::string& AFileName) {
  FSourceType = TElfSourceType::stFile;
  FSourceName = AFileName;
  Open(OpenReadStream(AFileName));
  return FActive;
}

bool TElfChnunks::OpenStream(std::unique_ptr<TReadStream> AStream, TElfSourceType AType) {
  FSourceType = AType;
  FSourceName = AStream->Path();
  Open(std::move(AStream));
  return FActive;
}

bool TElfChnunks::OpenDisk(const std::string& ADiskName) {
  FSourceType = TElfSourceType::stVolume;
  FSourceName = ADiskName;
#ifdef _WIN32
  Open(OpenReadStream("\\\\.\\" + ADiskName));
#else
  Open(OpenReadStream(ADiskName.find('/') == std::string::npos ? "/dev/" + ADiskName : ADiskName));
#endif
  return FActive;
}

void TElfChnunks::Close() {
  FHandle.reset();
  FActive = false;
}

void TElfChnunks::StartBlock() {
  FBlockStart = FPosition;
  FFilled = 0;
  FBlockDone = false;
  FHaveBlock = true;
  FChunkOffset = 0;
  ++FCurrentBlock;
}

bool TElfChnunks::FillBlock() {
  const size_t want = std::min<size_t>(kReadPiece, FBlockSize - FFilled);
  size_t got = 0;
  try {
    got = FHandle->ReadAt(FBlockStart + FFilled, FBlock.Data() + FFilled, want);
  } catch (const std::exception&) {
    FReadBlockSize = FExploreSize = 0;
    FNextBlockAvailable = false;
    FHaveBlock = false;
    return false;
  }
  FFilled += static_cast<uint32_t>(got);
  FBytesRead += got;
  if (got == want && FFilled < FBlockSize) return true;
  // The buffer is complete: full, or cut short by the end of the data.
  FBlockDone = true;
  FReadBlockSize = FFilled;
  FExploreSize = FReadBlockSize > kOverlap ? FReadBlockSize - kOverlap : 0;
  // A full buffer: step back 64 KB so a chunk crossing its end is read whole next time.
  FNextBlockAvailable = FFilled == FBlockSize;
  FLastBlock = !FNextBlockAvailable;
  FPosition = FBlockStart + (FNextBlockAvailable ? FBlockSize - kOverlap : FFilled);
  return true;
}

TCarvedChunk TElfChnunks::GetNextChunk() {
  TCarvedChunk result;
  if (!FActive) return result;
  for (;;) {
    if (!FHaveBlock) {
      if (!FNextBlockAvailable) return result; // crEnd
      StartBlock();
      if (!FillBlock()) return result;
    }
    // Chunk starts searched in this buffer. While it is still being read: those whose
    // 64 KB lie whole in the bytes read so far, searched while the bytes are still in the
    // processor's cache. Once it is read: below FExploreSize while another buffer follows
    // (later starts are searched there), up to and including it in the last one (a chunk
    // ending exactly at the end of the data). Starts are searched in order either way, so
    // the chunks found do not depend on how the buffer was read.
    bool any = true;
    uint64_t lastStart = 0;
    if (!FBlockDone) {
      any = FFilled > kOverlap;
      lastStart = any ? uint64_t{FFilled} - kOverlap - 1 : 0;
    } else if (FExploreSize == 0 && (!FLastBlock || FReadBlockSize < kChunkSize)) {
      FHaveBlock = false; // an empty range: on to the next buffer, if any
      continue;
    } else {
      lastStart = FLastBlock ? uint64_t{FExploreSize} : uint64_t{FExploreSize} - 1;
    }
    const uint8_t* base = FBlock.Data();
    uint64_t from = FChunkOffset;
    while (any && from <= lastStart) {
      size_t span = static_cast<size_t>(lastStart - from + sizeof kChunkSignature);
      const uint8_t* hit = FindSignature(base + from, span);
      if (!hit) {
        from = lastStart + 1;
        break;
      }
      uint64_t at = static_cast<uint64_t>(hit - base);
      if (LoadU32(base + at + kChunkOfsHeaderSize) != kChunkHeaderSize) {
        from = at + sizeof kChunkSignature;
        continue;
      }
      // A chunk never holds another: the next search starts after it.
      FChunkOffset = static_cast<uint32_t>(at + kChunkSize);
      result.Result = TCarveResult::crChunk;
      result.Data = base + at;
      result.Position = FBlockStart + at;
      return result;
    }
    if (!FBlockDone) {
      FChunkOffset = static_cast<uint32_t>(from);
      if (!FillBlock()) return result;
      continue;
    }
    FHaveBlock = false;
    result.Result = TCarveResult::crNoneInBlock;
    return result;
  }
}

} // namespace qvx
