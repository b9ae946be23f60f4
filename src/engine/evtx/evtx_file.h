// TEvtxFile: the file header of an .evtx file and its chunks, newest first.
#pragma once

#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_common.h"

#include <memory>
#include <vector>

namespace qvx {

class TEvtxFile : public TEvtxClass {
public:
  explicit TEvtxFile(const TReadStream* AFileHandle);

  // Number of chunks when the file is valid, else -1. Builds the chunk list on first
  // use: header-only chunks from offset 4096 on, one every 65536 bytes, for as long as
  // each begins with "ElfChnk"; the file is valid only when that number equals the
  // header's chunk count.
  int Count();
  // The chunk at AIndex (0 is the newest: largest first record identifier), or null.
  TEvtxChunk* GetChunk(int AIndex);
  // Lets the chunk list be built with AThreads threads (set before first use): one more
  // thread reads the headers of the second half of the chunks the header names while this
  // one reads the first, when the stream allows parallel reads. The list is the same.
  void SetHeaderThreads(unsigned AThreads) { FHeaderThreads = AThreads; }

  // The header alone passed its checks (magic, version 3.1 or later, sizes 128/4096).
  bool HeaderValid();
  // Chunks found by the walk, whether or not their number matches the header's.
  int ChunksFound();
  // The file ends before the last chunk its header names, and every chunk it holds up to
  // its end is there (a copy cut short, or a log copied while it grew): those are read, the
  // last one as far as it goes, and the file counts as valid.
  bool CutShort() { Count(); return FCutShort; }
  // The chunk at AIndex among those found, valid file or not (for diagnostics).
  TEvtxChunk* GetFoundChunk(int AIndex);

  std::string asXML() override;
  // Exports chunk 0 and frees it until none is left, then resets the object so the
  // next use reads the file again.
  void Export(std::vector<std::string>& AList) override;

  uint64_t OldestChunk() { Valid(); return FOldestChunk; }
  uint64_t CurrentChunk() { Valid(); return FCurrentChunk; }
  uint64_t NextRecord() { Valid(); return FNextRecord; }
  uint32_t HeaderPart1Len() { Valid(); return FHeaderPart1Len; }
  uint16_t VersionMinor() { Valid(); return FVersionMinor; }
  uint16_t VersionMajor() { Valid(); return FVersionMajor; }
  uint16_t HeaderLen() { Valid(); return FHeaderLen; }
  uint16_t ChunkCount() { Valid(); return FChunkCount; }
  uint32_t Flags() { Valid(); return FFlags; }
  uint32_t Checksum() { Valid(); return FChecksum; }
  // The first 128 bytes of the header as read (empty when the read came up short).
  const std::vector<uint8_t>& HeaderBytes() { Valid(); return FBuffer; }

protected:
  bool Parse() override;

private:
  void BuildChunks();

  std::vector<std::unique_ptr<TEvtxChunk>> FChunksList;
  unsigned FHeaderThreads = 1;
  bool FActive = false;
  bool FHeaderValid = false;
  bool FCutShort = false;
  uint64_t FOldestChunk = 0;
  uint64_t FCurrentChunk = 0;
  uint64_t FNextRecord = 0;
  uint32_t FHeaderPart1Len = 0;
  uint16_t FVersionMinor = 0;
  uint16_t FVersionMajor = 0;
  uint16_t FHeaderLen = 0;
  uint16_t FChunkCount = 0;
  uint32_t FFlags = 0;
  uint32_t FChecksum = 0;
};

} // namespace qvx
