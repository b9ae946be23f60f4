#include "engine/evtx/evtx_file.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/read_stream.h"

#include <algorithm>
#include <atomic>
#include <thread>

namespace qvx {

using namespace evtx;

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

namespace {

// Below this many chunks a second thread costs more than the reads it takes over.
constexpr uint64_t kParallelListChunks = 256;
// Chunks a thread takes at a time: a thread that starts late, or is held up, leaves the
// rest to the other rather than half of the file.
constexpr uint64_t kListBlock = 32;

} // namespace

void TEvtxFile::SetListThreads(unsigned AThreads) { FListThreads = AThreads; }

void TEvtxFile::BuildChunks() {
  FActive = true;
  if (!Valid()) return;
  // Chunk positions are 32-bit, and a chunk's header must lie whole in the file.
  const uint64_t size = FFileHandle->Size();
  const uint64_t end = std::min<uint64_t>(size >= kChunkHeaderSize ? size - kChunkHeaderSize + 1 : 0,
                                          uint64_t{UINT32_MAX} + 1);
  const uint64_t candidates = end > kFileHeaderBlockSize ? (end - kFileHeaderBlockSize + kChunkSize - 1) / kChunkSize : 0;
  uint64_t start = kFileHeaderBlockSize;
  if (FListThreads > 1 && candidates >= kParallelListChunks && FFileHandle->ParallelReads()) {
    // Two threads read the headers, blocks of them in file order; a block that begins
    // past a chunk found not valid is not read. The list is then the chunks from the
    // first on up to the first one missing, as a walk from the start would find; the
    // walk below reads that one again (it is not valid, or lies past the file's end, or
    // a thread could not read it for want of memory) and goes on from there.
    std::vector<std::unique_ptr<TEvtxChunk>> found(static_cast<size_t>(candidates));
    std::atomic<uint64_t> nextBlock{0};
    std::atomic<uint64_t> firstInvalid{candidates};
    auto work = [&] {
      for (;;) {
        const uint64_t first = nextBlock.fetch_add(1) * kListBlock;
        if (first >= candidates || first >= firstInvalid.load()) return;
        for (uint64_t i = first; i < std::min(candidates, first + kListBlock); ++i) {
          auto chunk = std::make_unique<TEvtxChunk>(FFileHandle, true);
          chunk->Start = static_cast<uint32_t>(kFileHeaderBlockSize + i * kChunkSize);
          if (!chunk->Valid()) {
            uint64_t known = firstInvalid.load();
            while (i < known && !firstInvalid.compare_exchange_weak(known, i)) {
            }
            break;
          }
          found[static_cast<size_t>(i)] = std::move(chunk);
        }
      }
    };
    std::thread helper([&] {
      try {
        work();
      } catch (...) {
        // Only memory can run out here (a read that fails makes the chunk not valid): the
        // chunks it left out are read by the walk below.
      }
    });
    try {
      work();
    } catch (...) {
      helper.join();
      throw;
    }
    helper.join();
    size_t i = 0;
    FChunksList.reserve(found.size());
    for (; i < found.size() && found[i]; ++i) FChunksList.push_back(std::move(found[i]));
    start = kFileHeaderBlockSize + uint64_t{i} * kChunkSize;
  }
  for (; start <= UINT32_MAX; start += kChunkSize) {
    auto chunk = std::make_unique<TEvtxChunk>(FFileHandle, true);
    chunk->Start = static_cast<uint32_t>(start);
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
