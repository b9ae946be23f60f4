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
  // AThreads above 1 lets a file of at least kParallelBytes have its chunk headers read
  // by that many threads (the list is the same).
  TEvtxSource(const std::string& APath, bool ACarve, TChunkOrder AOrder, unsigned AThreads = 1);
  // Files smaller than this are read by one thread: starting others costs more than they save.
  static constexpr uint64_t kParallelBytes = 16 * 1024 * 1024;

  // The checks of the constructor (ACarve false) without making the carver: raises as it
  // does; true when the file's chunks must be found by scanning it. A load that checks
  // every log before it starts, and again as it opens each one, uses this: the carver's
  // 4 MiB buffer is mapped and filled with zeros when it is made.
  // ANotices, when given, receives what the checks noticed without stopping.
  static bool NeedsCarving(const std::string& APath, std::vector<std::string>* ANotices = nullptr);
  // The same checks on AFile, the structure of APath that a reader already opened: its
  // chunk list, built here, is then the one the reader walks, so the chunk headers are
  // read once (inside a disk image each costs a whole container chunk). A file whose
  // header is not valid is checked by name, as above, so that the messages are the same.
  static bool NeedsCarving(const std::string& APath, TEvtxFile& AFile, std::vector<std::string>* ANotices);

  // A producer for TChunkReader::Run.
  TChunkReader::TProducer Producer();

  bool Carving() const { return FCarving; }
  const std::vector<std::string>& Notices() const { return FNotices; }
  TEvtxFile& File() { return *FFile; }
  const TReadStream& Raw() const { return *FRaw; }
  const TElfChnunks& Carver() const { return *FCarver; } // only when Carving()
  uint64_t ChunkTotal() const { return FStarts.size(); }

private:
  std::string FPath;
  std::unique_ptr<TReadStream> FRaw;
  std::unique_ptr<TEvtxFile> FFile;
  std::unique_ptr<TElfChnunks> FCarver; // made only when carving
  bool FCarving = false;
  std::vector<uint64_t> FStarts; // chunk positions in reading order (file mode)
  size_t FNext = 0;
  std::vector<std::string> FNotices;
};

// "0x1A2B" style offsets for messages.
std::string Hex(uint64_t AValue);

} // namespace qvx::app
