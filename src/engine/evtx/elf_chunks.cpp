#include "engine/evtx/elf_chunks.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"

#include <cstddef>
#include <cstring>

namespace qvx {

using namespace evtx;

namespace {

// First "ElfChnk\0" that lies whole in [AData, AData + ALength), or null.
const uint8_t* FindSignature(const uint8_t* AData, size_t ALength) {
  const uint8_t* p = AData;
  const uint8_t* end = AData + ALength;
  while (end - p >= static_cast<ptrdiff_t>(sizeof kChunkSignature)) {
    p = static_cast<const uint8_t*>(std::memchr(p, 'E', static_cast<size_t>(end - p) - (sizeof kChunkSignature - 1)));
    if (!p) return nullptr;
    if (std::memcmp(p, kChunkSignature, sizeof kChunkSignature) == 0) return p;
    ++p;
  }
  return nullptr;
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

bool TElfChnunks::ReadBlock() {
  size_t got = 0;
  try {
    got = FHandle->ReadAt(FPosition, FBlock.Data(), FBlockSize);
  } catch (const std::exception&) {
    FReadBlockSize = FExploreSize = 0;
    FNextBlockAvailable = false;
    return false;
  }
  FReadBlockSize = static_cast<uint32_t>(got);
  FBlockStart = FPosition;
  FBytesRead += got;
  ++FCurrentBlock;
  FExploreSize = FReadBlockSize > kOverlap ? FReadBlockSize - kOverlap : 0;
  // A full buffer: step back 64 KB so a chunk crossing its end is read whole next time.
  FNextBlockAvailable = got == FBlockSize;
  FPosition += FNextBlockAvailable ? FBlockSize - kOverlap : got;
  return true;
}

TCarvedChunk TElfChnunks::GetNextChunk() {
  TCarvedChunk result;
  if (!FActive) return result;
  for (;;) {
    if (!FHaveBlock) {
      if (!FNextBlockAvailable) return result; // crEnd
      if (!ReadBlock()) return result;
      FLastBlock = !FNextBlockAvailable;
      FHaveBlock = true;
      FChunkOffset = 0;
    }
    // Chunk starts searched in this buffer: below FExploreSize while another buffer
    // follows (later starts are searched there), up to and including it in the last one
    // (a chunk ending exactly at the end of the data).
    uint64_t lastStart = FLastBlock ? uint64_t{FExploreSize} : uint64_t{FExploreSize} - 1;
    if (FExploreSize == 0 && (!FLastBlock || FReadBlockSize < kChunkSize)) {
      FHaveBlock = false; // an empty range: on to the next buffer, if any
      continue;
    }
    const uint8_t* base = FBlock.Data();
    uint64_t from = FChunkOffset;
    while (from <= lastStart) {
      size_t span = static_cast<size_t>(lastStart - from + sizeof kChunkSignature);
      const uint8_t* hit = FindSignature(base + from, span);
      if (!hit) break;
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
    FHaveBlock = false;
    result.Result = TCarveResult::crNoneInBlock;
    return result;
  }
}

} // namespace qvx
