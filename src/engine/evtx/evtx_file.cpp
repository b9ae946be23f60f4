#include "engine/evtx/evtx_file.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/read_stream.h"
#include "platform/worker_thread.h"

#include <algorithm>
#include <atomic>

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
  // Chunk headers read in advance by two threads (in file order below), when the file is
  // large enough: the walk below takes them as it reaches them and drops those after the
  // first that is not valid, so the list is what one thread would build.
  std::vector<std::unique_ptr<TEvtxChunk>> early;
  {
    const uint64_t inFile =
        FFileSize > kFileHeaderBlockSize ? (FFileSize - kFileHeaderBlockSize) / kChunkSize : 0;
    const uint64_t named = std::min<uint64_t>(
        {FChunkCount, inFile, (uint64_t{UINT32_MAX} - kFileHeaderBlockSize) / kChunkSize + 1});
    if (FHeaderThreads > 1 && named >= kParallelHeaderChunks && FFileHandle->ParallelReads()) {
      early.resize(named);
      // Both threads take runs of headers from one counter, so neither waits for the
      // other when one starts late (a new thread takes a tenth of a millisecond to run).
      // Nothing past a header that is not valid is needed: `end` is lowered to it. A
      // header whose read raised is left to the walk below, which raises it again on this
      // thread, as one thread would.
      constexpr uint64_t kRun = 16;
      std::atomic<uint64_t> next{0};
      std::atomic<uint64_t> end{named};
      auto lowerEnd = [&end](uint64_t AIndex) {
        uint64_t now = end.load(std::memory_order_relaxed);
        while (AIndex < now && !end.compare_exchange_weak(now, AIndex, std::memory_order_relaxed)) {
        }
      };
      auto walk = [&] {
        for (;;) {
          const uint64_t from = next.fetch_add(kRun, std::memory_order_relaxed);
          if (from >= end.load(std::memory_order_relaxed)) return;
          for (uint64_t i = from; i < from + kRun && i < end.load(std::memory_order_relaxed); ++i) {
            bool valid = false;
            try {
              auto chunk = makeChunk(i);
              valid = chunk->Valid();
              early[i] = std::move(chunk);
            } catch (...) {
              lowerEnd(i);
              return;
            }
            if (!valid) {
              lowerEnd(i + 1);
              break;
            }
          }
        }
      };
      TWorkerThread reader(walk);
      walk();
      reader.Join();
    }
  }
  for (uint64_t i = FChunksList.size();; ++i) {
    const uint64_t start = kFileHeaderBlockSize + i * kChunkSize;
    if (start > UINT32_MAX) break; // chunk positions are 32-bit
    std::unique_ptr<TEvtxChunk> chunk;
    if (i < early.size() && early[i]) chunk = std::move(early[i]);
    else chunk = makeChunk(i);
    if (!chunk->Valid()) break;
    FChunksList.push_back(std::move(chunk));
  }
  std::stable_sort(FChunksList.begin(), FChunksList.end(),
                   [](const auto& a, const auto& b) { return a->NumFirstFile() > b->NumFirstFile(); });
  // A header that names a different number of chunks than follow it makes the file not
  // valid, unless the file ends first and each whole chunk place before its end holds one
  // (the place the end cuts may hold the start of one, read as far as it goes).
  const uint64_t body = FFileSize > kFileHeaderBlockSize ? FFileSize - kFileHeaderBlockSize : 0;
  const uint64_t whole = body / kChunkSize, found = FChunksList.size();
  FCutShort = found < FChunkCount && found > 0 && (found == whole || (found == whole + 1 && body % kChunkSize));
  FValid = FChunksList.size() == FChunkCount || FCutShort;
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
  FCutShort = false;
  FHeaderValid = false;
  Length = kFileHeaderReadSize;
}

} // namespace qvx
