// Opening an .evtx file for the commands: the file's own chunk list when the file is
// valid, otherwise the chunks the carver finds in it.
#pragma once

#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/elf_chunks.h"
#include "engine/evtx/evtx_file.h"
#include "platform/read_stream.h"

#include <memory>
#include <string>
#include <vector>

namespace qvx::app {

enum class TChunkOrder { coNewestFirst, coFile };

class TEvtxSource {
public:
  // Opens APath. Raises std::runtime_error with a message naming the file when it cannot
  // be opened or is not an .evtx file and ACarve is false. Notices about falling back to
  // the carver are collected in Notices().
  TEvtxSource(const std::string& APath, bool ACarve, TChunkOrder AOrder);

  // A producer for TChunkReader::Run.
  TChunkReader::TProducer Producer();

  bool Carving() const { return FCarving; }
  const std::vector<std::string>& Notices() const { return FNotices; }
  TEvtxFile& File() { return *FFile; }
  const TReadStream& Raw() const { return *FRaw; }
  const TElfChnunks& Carver() const { return FCarver; }
  uint64_t ChunkTotal() const { return FStarts.size(); }

private:
  std::string FPath;
  std::unique_ptr<TReadStream> FRaw;
  std::unique_ptr<TEvtxFile> FFile;
  TElfChnunks FCarver;
  bool FCarving = false;
  std::vector<uint64_t> FStarts; // chunk positions in reading order (file mode)
  size_t FNext = 0;
  std::vector<std::string> FNotices;
};

// "0x1A2B" style offsets for messages.
std::string Hex(uint64_t AValue);

} // namespace qvx::app
