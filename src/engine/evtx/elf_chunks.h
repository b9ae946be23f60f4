// TElfChnunks: finds .evtx chunks in raw data (a damaged file, a volume, a disk).
//
// The source is searched in buffers of 4 MB; consecutive buffers overlap by 64 KB so
// that a chunk that crosses a buffer boundary lies whole in the next buffer. A buffer is
// read in pieces of 512 KB, each searched as soon as it is read, through a window of
// about 1 MB that holds only the bytes not yet searched. Chunks are recognised by the 8
// bytes "ElfChnk\0" followed, at offset 40, by the header size 128, and copied out of the
// window (a buffer holds at most 64 of them).
//
// On a machine with more than one processor, sources of more than one buffer are read
// and searched by two threads, each taking the next buffer not yet taken with its own
// window; the chunks are handed out in the order of the source all the same, with the
// same buffer ticks and the same byte counts as one thread gives. After a buffer that
// held chunks the caller searches the next one itself (it is the slower then, decoding
// them). Copies of the chunks found are held in one store of 4 MB; a chunk found while
// it is full (by the threads, ahead) is read again when it is handed out.
#pragma once

#include "platform/page_buffer.h"
#include "platform/read_stream.h"

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

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

  // The next chunk, crNoneInBlock after each buffer's last, crEnd at the end of the data
  // or at the first read error (after the chunks found before it; a chunk found ahead that
  // cannot be read again counts as one). Raises only what the
  // search could not go on without (std::bad_alloc), from whichever thread met it.
  TCarvedChunk GetNextChunk();

  bool Active() const { return FActive; }
  uint32_t NumOfBlocks() const { return FNumOfBlocks; }
  uint32_t CurrentBlock() const { return FCurrentBlock; }
  uint64_t SourceSize() const { return FSourceSize; }
  uint64_t BytesRead() const { return FBytesRead; }
  TElfSourceType SourceType() const { return FSourceType; }
  const std::string& SourceName() const { return FSourceName; }

  // Threads that read and search ahead of GetNextChunk: 0 reads and searches in the
  // calling thread. Takes effect at the next open. The default: 2 when the machine has
  // more than one processor, else 0.
  void SetSearchThreads(unsigned AThreads) { FSearchThreads = AThreads; }
  unsigned SearchThreads() const { return FSearchThreads; }

  static constexpr uint32_t kBlockSize = 4194304;
  static constexpr uint32_t kOverlap = 65536;
  // A buffer is read and searched this much at a time, so the search finds the bytes
  // still in the processor's cache rather than in memory.
  static constexpr uint32_t kReadPiece = 524288;

  // One buffer of the source, read and searched: where its chunks start and, for each,
  // the bytes of the buffer read when it was found (so the byte count handed out does
  // not depend on which thread searched).
  struct TBlock {
    uint64_t Start = 0;      // source position of the buffer's first byte
    uint32_t Filled = 0;     // bytes read into it
    bool Full = false;       // read whole: another buffer follows
    bool Failed = false;     // a read failed: the search ends after this buffer's chunks
    bool Tick = false;       // GetNextChunk gives crNoneInBlock after its chunks
    std::vector<uint32_t> Offsets;  // chunk starts in the buffer, ascending
    std::vector<uint32_t> ReadWhen; // bytes of the buffer read when each was found
    std::vector<int32_t> Places;    // where the store holds each one's copy; -1: none
    std::exception_ptr Error;       // what stopped a searching thread other than a read
  };

  class TChunkStore;

private:
  class TSearchThreads;

  void Open(std::unique_ptr<TReadStream> AStream);
  // The buffer after the last one taken into FBlock; false when there is none.
  bool TakeNextBlock();
  // Done with FBlock's chunks: their places in the store go back.
  void ReleaseBlock();

  bool FActive = false;
  std::string FSourceName;
  std::unique_ptr<TReadStream> FHandle;
  unsigned FSearchThreads;
  std::unique_ptr<TPageBuffer> FBuffer;    // read buffer when searching in this thread
  std::unique_ptr<TSearchThreads> FThreads; // otherwise
  TBlock FBlock;            // the buffer whose chunks are being handed out
  std::vector<uint8_t> FChunk; // a chunk read again (found while the store was full)
  std::unique_ptr<TChunkStore> FStore; // copies of the chunks found
  bool FHaveBlock = false;
  bool FNextBlockAvailable = false;
  size_t FNextChunk = 0;    // index in FBlock of the next chunk to hand out
  uint64_t FNextIndex = 0;  // index of the next buffer to take
  uint32_t FNumOfBlocks = 0;
  uint32_t FCurrentBlock = 0;
  TElfSourceType FSourceType = TElfSourceType::stFile;
  uint64_t FSourceSize = 0;
  uint64_t FReadBefore = 0; // bytes read for the buffers before FBlock
  uint64_t FBytesRead = 0;
};

} // namespace qvx
