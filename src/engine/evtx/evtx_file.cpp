#include "engine/evtx/evtx_file.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/read_stream.h"

#include <algorithm>
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

// Appends to AList the header-only chunks at AStart, AStart + 65536, ... below AEnd, for
// as long as each is valid; true when all were.
bool ListChunks(const TReadStream* AFile, uint64_t AStart, uint64_t AEnd,
                std::vector<std::unique_ptr<TEvtxChunk>>& AList) {
  for (uint64_t start = AStart; start < AEnd; start += kChunkSize) {
    auto chunk = std::make_unique<TEvtxChunk>(AFile, true);
    chunk->Start = static_cast<uint32_t>(start);
    if (!chunk->Valid()) return false;
    AList.push_back(std::move(chunk));
  }
  return true;
}

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
    // The second half of the headers is read on another thread; its chunks count only
    // when every chunk of the first half was valid, as a walk from the start would find.
    const uint64_t middle = kFileHeaderBlockSize + candidates / 2 * kChunkSize;
    std::vector<std::unique_ptr<TEvtxChunk>> second;
    bool secondWhole = false;
    std::thread helper([&] {
      try {
        secondWhole = ListChunks(FFileHandle, middle, end, second);
      } catch (...) {
        // Only memory can run out here (a read that fails makes the chunk not valid); the
        // walk below meets the same chunks again.
        second.clear();
      }
    });
    bool firstWhole = false;
    try {
      FChunksList.reserve(static_cast<size_t>(candidates));
      firstWhole = ListChunks(FFileHandle, start, middle, FChunksList);
    } catch (...) {
      helper.join();
      throw;
    }
    helper.join();
    if (!firstWhole) {
      start = UINT64_MAX; // the walk stopped in the first half
    } else {
      // When the helper stopped at a chunk that is not valid, the walk below reads it
      // again and stops there too.
      start = middle + second.size() * kChunkSize;
      for (auto& chunk : second) FChunksList.push_back(std::move(chunk));
    }
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
