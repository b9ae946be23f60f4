#include "engine/evtx/evtx_file.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/read_stream.h"
#include "platform/worker_thread.h"

#include <algorithm>

namespace qvx {

using namespace evtx;

namespace {
// Fewer headers than this are read before a second thread would have started.
constexpr uint64_t kParallelHeaderChunks = 128;
} // namespace

TEvtxFile::TEvtxFile(const TReadStream* AFileHandle) : TEvtxClass(AFileHandle) {
  FMagic = kFileMagic;
  Length = kFileHeaderReadSize;
}

bool TEvtxFile::Parse() {
  TByteReader r(FBuffer);
  FOldestChunk = r.ReadU64(kFileOfsOldestChunk);
  FCurrentChunk = r.ReadU64(kFileOfsCurrentChunk);
  FNextRecord = r.ReadU64(kFileOfsNextRecord);
  FHeaderPart1Len = r.ReadU32(kFileOfsHeaderSize);
  FVersionMinor = r.ReadU16(kFileOfsMinorVersion);
  FVersionMajor = r.ReadU16(kFileOfsMajorVersion);
  FHeaderLen = r.ReadU16(kFileOfsHeaderBlockSize);
  FChunkCount = r.ReadU16(kFileOfsChunkCount);
  FFlags = r.ReadU32(kFileOfsFlags);
  FChecksum = r.ReadU32(kFileOfsChecksum);
  FHeaderValid = FVersionMajor == 3 && FVersionMinor >= 1 && FHeaderPart1Len == kFileHeaderReadSize &&
                 FHeaderLen == kFileHeaderBlockSize;
  if (FHeaderValid) Length = kFileHeaderBlockSize; // the first chunk starts here
  return FHeaderValid;
}

bool TEvtxFile::HeaderValid() {
  Valid();
  return FHeaderValid;
}

void TEvtxFile::BuildChunks() {
  FActive = true;
  if (!Valid()) return;
  auto makeChunk = [this](uint64_t AIndex) {
    auto chunk = std::make_unique<TEvtxChunk>(FFileHandle, true);
    chunk->Start = static_cast<uint32_t>(kFileHeaderBlockSize + AIndex * kChunkSize);
    return chunk;
  };
  // Chunks from index `ahead` to the header's count, when read in advance on another
  // thread; the walk below takes them in order as it reaches them and drops those after
  // the first that is not valid, so the list is what one thread would build.
  std::vector<std::unique_ptr<TEvtxChunk>> early;
  uint64_t ahead = 0;
  bool stopped = false; // at a chunk that is not valid
  {
    const uint64_t inFile =
        FFileSize > kFileHeaderBlockSize ? (FFileSize - kFileHeaderBlockSize) / kChunkSize : 0;
    const uint64_t named = std::min<uint64_t>(
        {FChunkCount, inFile, (uint64_t{UINT32_MAX} - kFileHeaderBlockSize) / kChunkSize + 1});
    if (FHeaderThreads > 1 && named >= kParallelHeaderChunks && FFileHandle->ParallelReads()) {
      ahead = named / 2;
      early.resize(named - ahead);
      for (uint64_t i = ahead; i < named; ++i) early[i - ahead] = makeChunk(i);
      TWorkerThread reader([&early] {
        // A chunk whose read raised is left to the walk below, which raises it again
        // on this thread, as one thread would.
        for (size_t k = 0; k < early.size(); ++k) {
          try {
            early[k]->Valid();
          } catch (...) {
            for (; k < early.size(); ++k) early[k].reset();
          }
        }
      });
      try {
        for (uint64_t i = 0; i < ahead && !stopped; ++i) {
          auto chunk = makeChunk(i);
          if (chunk->Valid()) FChunksList.push_back(std::move(chunk));
          else stopped = true;
        }
      } catch (...) {
        reader.Join();
        throw;
      }
      reader.Join();
    }
  }
  for (uint64_t i = FChunksList.size(); !stopped; ++i) {
    const uint64_t start = kFileHeaderBlockSize + i * kChunkSize;
    if (start > UINT32_MAX) break; // chunk positions are 32-bit
    std::unique_ptr<TEvtxChunk> chunk;
    if (i >= ahead && i - ahead < early.size() && early[i - ahead]) chunk = std::move(early[i - ahead]);
    else chunk = makeChunk(i);
    if (!chunk->Valid()) break;
    FChunksList.push_back(std::move(chunk));
  }
  std::stable_sort(FChunksList.begin(), FChunksList.end(),
                   [](const auto& a, const auto& b) { return a->NumFirstFile() > b->NumFirstFile(); });
  // A header that names a different number of chunks than follow it makes the file not valid.
  FValid = FChunksList.size() == FChunkCount;
}

int TEvtxFile::ChunksFound() {
  if (!FActive) BuildChunks();
  return static_cast<int>(FChunksList.size());
}

int TEvtxFile::Count() {
  if (!FActive) BuildChunks();
  return FValid ? static_cast<int>(FChunksList.size()) : -1;
}

TEvtxChunk* TEvtxFile::GetChunk(int AIndex) {
  if (AIndex < 0 || AIndex >= Count()) return nullptr;
  return FChunksList[static_cast<size_t>(AIndex)].get();
}

TEvtxChunk* TEvtxFile::GetFoundChunk(int AIndex) {
  if (AIndex < 0 || AIndex >= ChunksFound()) return nullptr;
  return FChunksList[static_cast<size_t>(AIndex)].get();
}

std::string TEvtxFile::asXML() {
  std::string out;
  int count = Count();
  for (int i = 0; i < count; ++i) out += FChunksList[static_cast<size_t>(i)]->asXML();
  return out;
}

void TEvtxFile::Export(std::vector<std::string>& AList) {
  Count();
  while (!FChunksList.empty()) {
    FChunksList.front()->Export(AList);
    FChunksList.erase(FChunksList.begin());
  }
  FActive = false;
  FLoaded = false;
  FValid = false;
  FHeaderValid = false;
  Length = kFileHeaderReadSize;
}

} // namespace qvx
