// TElfChnunks: finds .evtx chunks in raw data (a damaged file, a volume, a disk).
//
// The source is read into a 4 MB buffer, in pieces of 512 KB each searched as soon as it
// is read; consecutive buffers overlap by 64 KB so that a chunk that crosses a buffer
// boundary lies whole in the next buffer. Chunks are
// recognised by the 8 bytes "ElfChnk\0" followed, at offset 40, by the header size
// 128, and handed out as pointers into the buffer, not copied.
#pragma once

#include "platform/page_buffer.h"
#include "platform/read_stream.h"

#include <cstdint>
#include <memory>
#include <string>

namespace qvx {

enum class TElfSourceType { stFile, stVolume };

enum class TCarveResult {
  crChunk,       // a chunk was found
  crNoneInBlock, // the current buffer holds no further chunk; call again
  crEnd          // the source is exhausted
};

struct TCarvedChunk {
  TCarveResult Result = TCarveResult::crEnd;
  const uint8_t* Data = nullptr; // 65536 bytes, good until the next call
  uint64_t Position = 0;         // where the chunk starts in the source
};

class TElfChnunks {
public:
  TElfChnunks();
  ~TElfChnunks();
  TElfChnunks(const TElfChnunks&) = delete;
  TElfChnunks& operator=(const TElfChnunks&) = delete;

  // Opens a file (or a device path) for reading. Raises ENTException when it cannot.
  bool OpenFile(const std::string& AFileName);
  // Opens a volume or disk by device name: "\\.\<name>" on Windows; on Linux a bare
  // name is looked up under /dev ("sdb" opens /dev/sdb), a path is used as given.
  bool OpenDisk(const std::string& ADiskName);
  // Scans an open stream (a partition, the unallocated clusters of a volume).
  bool OpenStream(std::unique_ptr<TReadStream> AStream, TElfSourceType AType);
  void Close();

  TCarvedChunk GetNextChunk();

  bool Active() const { return FActive; }
  uint32_t NumOfBlocks() const { return FNumOfBlocks; }
  uint32_t CurrentBlock() const { return FCurrentBlock; }
  uint64_t SourceSize() const { return FSourceSize; }
  uint64_t BytesRead() const { return FBytesRead; }
  TElfSourceType SourceType() const { return FSourceType; }
  const std::string& SourceName() const { return FSourceName; }

  static constexpr uint32_t kBlockSize = 4194304;
  static constexpr uint32_t kOverlap = 65536;
  // A buffer is read and searched this much at a time, so the search finds the bytes
  // still in the processor's cache rather than in memory.
  static constexpr uint32_t kReadPiece = 524288;

private:
  void Open(std::unique_ptr<TReadStream> AStream);
  void StartBlock();
  bool FillBlock();

  bool FActive = false;
  std::string FSourceName;
  std::unique_ptr<TReadStream> FHandle;
  uint32_t FBlockSize = kBlockSize;
  uint32_t FReadBlockSize = 0;
  uint32_t FExploreSize = 0;
  TPageBuffer FBlock{kBlockSize};
  bool FHaveBlock = false;
  bool FBlockDone = false;  // the whole buffer has been read
  uint32_t FFilled = 0;     // bytes of the buffer read so far
  bool FNextBlockAvailable = false;
  bool FLastBlock = false;
  uint32_t FChunkOffset = 0;
  uint32_t FNumOfBlocks = 0;
  uint32_t FCurrentBlock = 0;
  TElfSourceType FSourceType = TElfSourceType::stFile;
  uint64_t FSourceSize = 0;
  uint64_t FPosition = 0;  // source position of the next read
  uint64_t FBlockStart = 0; // source position of FBlock[0]
  uint64_t FBytesRead = 0;
};

} // namespace qvx
