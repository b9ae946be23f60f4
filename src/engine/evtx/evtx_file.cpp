#include "engine/evtx/evtx_file.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/read_stream.h"

#include <algorithm>
#include <exception>
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

// Below this many chunk positions reading the headers on another thread costs more than
// it saves (starting the thread takes about as long as a hundred reads).
constexpr uint64_t kParallelListChunks = 256;

// Reads the headers of the chunks at positions AFirst .. AEnd-1 (numbered from the first
// chunk, 65536 bytes apart) into AList, stopping at the first that is not a chunk.
// Returns true when every one was.
bool ReadChunkHeaders(const TReadStream* AFile, uint64_t AFirst, uint64_t AEnd,
                      std::vector<std::unique_ptr<TEvtxChunk>>& AList) {
  for (uint64_t i = AFirst; i < AEnd; ++i) {
    const uint64_t start = kFileHeaderBlockSize + i * kChunkSize;
    if (start > UINT32_MAX) return false; // chunk positions are 32-bit
    auto chunk = std::make_unique<TEvtxChunk>(AFile, true);
    chunk->Start = static_cast<uint32_t>(start);
    if (!chunk->Valid()) return false;
    AList.push_back(std::move(chunk));
  }
  return true;
}

} // namespace

void TEvtxFile::BuildChunks() {
  FActive = true;
  if (!Valid()) return;
  // Every position where a chunk's header could lie (the walk stops at the first one
  // that holds none, at the latest past the end of the file).
  const uint64_t size = FFileHandle ? FFileHandle->Size() : 0;
  const uint64_t positions = size > kFileHeaderBlockSize ? (size - kFileHeaderBlockSize + kChunkSize - 1) / kChunkSize : 0;
  if (FListThreads > 1 && positions >= kParallelListChunks && FFileHandle->ParallelReads()) {
    // The second half is read on another thread and kept only when the walk of the first
    // half reaches it, so the list is the one the walk one by one makes.
    const uint64_t half = positions / 2;
    std::vector<std::unique_ptr<TEvtxChunk>> later;
    bool laterThere = true;
    std::exception_ptr laterError;
    std::thread other([&] {
      try {
        laterThere = ReadChunkHeaders(FFileHandle, half, positions, later);
      } catch (...) {
        laterError = std::current_exception();
      }
    });
    bool whole = false;
    try {
      whole = ReadChunkHeaders(FFileHandle, 0, half, FChunksList);
    } catch (...) {
      other.join();
      throw;
    }
    other.join();
    if (whole) {
      if (laterError) std::rethrow_exception(laterError);
      for (auto& chunk : later) FChunksList.push_back(std::move(chunk));
      // A file that grew since its size was taken: the walk goes on past it.
      if (laterThere) ReadChunkHeaders(FFileHandle, positions, UINT64_MAX, FChunksList);
    }
  } else {
    ReadChunkHeaders(FFileHandle, 0, UINT64_MAX, FChunksList);
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
