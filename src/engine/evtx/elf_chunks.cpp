#include "engine/evtx/elf_chunks.h"

#include "engine/evtx/evtx_layout.h"
#include "platform/byte_reader.h"
#include "platform/cpu_features.h"
#include "platform/worker_thread.h"

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <thread>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#define QVX_SEARCH_AVX2 1
#endif

namespace qvx {

using namespace evtx;

namespace {

// First "ElfChnk\0" at or after AData whose 8 bytes lie whole below AEnd, or null: one
// byte at a time through memchr for 'E'.
const uint8_t* FindSignatureBytewise(const uint8_t* AData, const uint8_t* AEnd) {
  const uint8_t* p = AData;
  while (AEnd - p >= static_cast<ptrdiff_t>(sizeof kChunkSignature)) {
    p = static_cast<const uint8_t*>(std::memchr(p, 'E', static_cast<size_t>(AEnd - p) - (sizeof kChunkSignature - 1)));
    if (!p) return nullptr;
    if (std::memcmp(p, kChunkSignature, sizeof kChunkSignature) == 0) return p;
    ++p;
  }
  return nullptr;
}

#if defined(__GNUC__)
// 16 lanes of a vector register (SSE2 on x86-64, NEON on ARM); the compiler lowers the
// lane-wise compares and ANDs itself.
typedef signed char TLanes __attribute__((vector_size(16)));

inline TLanes LoadLanes(const uint8_t* AData) {
  TLanes v;
  std::memcpy(&v, AData, sizeof v);
  return v;
}

inline bool AnyLane(TLanes AMask) {
  uint64_t half[2];
  std::memcpy(half, &AMask, sizeof half);
  return (half[0] | half[1]) != 0;
}
#endif

#ifdef QVX_SEARCH_AVX2
// FindSignature's test over 64 start positions at a time with 32-byte registers, for
// processors that have them (chosen at run time: the program is built for any x86-64).
__attribute__((target("avx2"))) const uint8_t* FindSignatureAvx2(const uint8_t* AData, size_t ALength) {
  const uint8_t* p = AData;
  const uint8_t* end = AData + ALength;
  constexpr size_t kStep = 64;
  constexpr size_t kLast = 6;
  const __m256i first = _mm256_set1_epi8('E');
  const __m256i last = _mm256_set1_epi8('k');
  while (static_cast<size_t>(end - p) >= kStep + sizeof kChunkSignature) {
    const auto* v = reinterpret_cast<const __m256i*>(p);
    const auto* w = reinterpret_cast<const __m256i*>(p + kLast);
    const __m256i a = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(v), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(w), last));
    const __m256i b = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_loadu_si256(v + 1), first),
                                       _mm256_cmpeq_epi8(_mm256_loadu_si256(w + 1), last));
    const __m256i any = _mm256_or_si256(a, b);
    if (!_mm256_testz_si256(any, any)) {
      for (size_t i = 0; i < kStep; ++i)
        if (p[i] == 'E' && std::memcmp(p + i, kChunkSignature, sizeof kChunkSignature) == 0) return p + i;
    }
    p += kStep;
  }
  return FindSignatureBytewise(p, end);
}
#endif

// First "ElfChnk\0" that lies whole in [AData, AData + ALength), or null.
//
// Raw data holds an 'E' every 256 bytes on average, so stopping at each one (memchr) costs
// more than reading the data. Instead 32 start positions at a time are tested for 'E' at
// +0 and 'k' at +6 together, which random data passes once in 65536 positions; only those
// are compared in full. Any start position is tried: chunks of a log that was copied or
// cut lie at any byte offset of an image.
const uint8_t* FindSignature(const uint8_t* AData, size_t ALength) {
#ifdef QVX_SEARCH_AVX2
  static const bool avx2 = CpuHasAvx2();
  if (avx2) return FindSignatureAvx2(AData, ALength);
#endif
  const uint8_t* p = AData;
  const uint8_t* end = AData + ALength;
#if defined(__GNUC__)
  constexpr size_t kStep = 32;
  constexpr size_t kLast = 6; // offset of the second byte tested
  static_assert(kChunkSignature[0] == 'E' && kChunkSignature[kLast] == 'k');
  const TLanes first = {'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E', 'E'};
  const TLanes last = {'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k', 'k'};
  // Every start position of a step must leave room for the whole signature.
  while (static_cast<size_t>(end - p) >= kStep + sizeof kChunkSignature) {
    const TLanes a = (LoadLanes(p) == first) & (LoadLanes(p + kLast) == last);
    const TLanes b = (LoadLanes(p + 16) == first) & (LoadLanes(p + 16 + kLast) == last);
    if (AnyLane(a | b)) {
      for (size_t i = 0; i < kStep; ++i)
        if (p[i] == 'E' && std::memcmp(p + i, kChunkSignature, sizeof kChunkSignature) == 0) return p + i;
    }
    p += kStep;
  }
#endif
  return FindSignatureBytewise(p, end);
}

constexpr uint64_t kBlockStep = TElfChnunks::kBlockSize - TElfChnunks::kOverlap;
// A searching window: the bytes of two pieces and the starts left over before them.
constexpr uint32_t kWindowSize = TElfChnunks::kOverlap + 2 * TElfChnunks::kReadPiece;

} // namespace

// Copies of chunks found, in kBlockSize bytes (64 places of 64 KB, touched only as used)
// shared by the caller and the search threads: a buffer's places go back when the caller
// is done with its chunks. Chunks found when every place is taken are read again.
class TElfChnunks::TChunkStore {
public:
  TChunkStore() : FBytes(new uint8_t[kBlockSize]) {
    for (int32_t i = kPlaces - 1; i >= 0; --i) FFree.push_back(i);
  }
  uint8_t* Place(int32_t AIndex) const { return FBytes.get() + size_t(AIndex) * kChunkSize; }
  // A free place, or -1.
  int32_t Take() {
    std::lock_guard<std::mutex> guard(FLock);
    if (FFree.empty()) return -1;
    const int32_t i = FFree.back();
    FFree.pop_back();
    return i;
  }
  void Give(const std::vector<int32_t>& APlaces) {
    std::lock_guard<std::mutex> guard(FLock);
    for (int32_t i : APlaces)
      if (i >= 0) FFree.push_back(i);
  }

private:
  static constexpr int32_t kPlaces = TElfChnunks::kBlockSize / kChunkSize;
  std::unique_ptr<uint8_t[]> FBytes;
  std::mutex FLock;
  std::vector<int32_t> FFree;
};

namespace {

// Reads the buffer at AStart through AWindow (kWindowSize bytes) and finds its chunks, a
// piece at a time: the starts whose 64 KB lie whole in the bytes read so far are
// searched while those bytes are still in the processor's cache. Once the buffer is read
// (full, or cut short by the end of the data), the starts below its last 64 KB are
// searched when another buffer follows (later starts are searched there), up to and
// including that one in the last buffer (a chunk ending exactly at the end of the data).
// Starts are searched in order either way, and a chunk never holds another: the search
// goes on after it. The chunks found are copied into places of AStore while it has any.
//
// The window holds only the bytes not yet searched: before a piece would overflow it,
// the bytes from the next start to search (less than 64 KB) move to its front. Being
// small, it stays in the processor's cache, where a buffer of the whole 4 MB would be
// written back to memory, which the search of a page-cached file is bound by.
void ScanBlock(const TReadStream& AStream, uint64_t AStart, uint8_t* AWindow, TElfChnunks::TChunkStore& AStore,
               TElfChnunks::TBlock& ABlock) {
  constexpr uint32_t kBlockSize = TElfChnunks::kBlockSize;
  constexpr uint32_t kOverlap = TElfChnunks::kOverlap;
  ABlock.Start = AStart;
  ABlock.Filled = 0;
  ABlock.Full = ABlock.Failed = ABlock.Tick = false;
  ABlock.Offsets.clear();
  ABlock.ReadWhen.clear();
  ABlock.Places.clear();
  ABlock.Error = nullptr;
  uint32_t filled = 0;     // bytes of the buffer read
  uint64_t from = 0;       // the next start to search
  uint32_t windowAt = 0;   // buffer offset of AWindow[0]
  for (;;) {
    const size_t want = std::min<size_t>(TElfChnunks::kReadPiece, kBlockSize - filled);
    if (filled - windowAt + want > kWindowSize) {
      // from > filled - 64 KB here: the search before went past every start below it.
      const uint32_t keep = filled - static_cast<uint32_t>(from);
      std::memmove(AWindow, AWindow + (from - windowAt), keep);
      windowAt = static_cast<uint32_t>(from);
    }
    size_t got = 0;
    try {
      got = std::min(want, AStream.ReadAt(AStart + filled, AWindow + (filled - windowAt), want));
    } catch (const std::exception&) {
      // The search ends here, after the chunks found before.
      ABlock.Failed = true;
      ABlock.Filled = filled;
      return;
    }
    filled += static_cast<uint32_t>(got);
    const bool done = got != want || filled == kBlockSize;
    bool any = true;
    uint64_t lastStart = 0;
    if (!done) {
      any = filled > kOverlap;
      lastStart = any ? uint64_t{filled} - kOverlap - 1 : 0;
    } else {
      ABlock.Filled = filled;
      ABlock.Full = filled == kBlockSize;
      const uint32_t explore = filled > kOverlap ? filled - kOverlap : 0;
      if (explore == 0 && (ABlock.Full || filled < kChunkSize)) return; // an empty range, no tick
      ABlock.Tick = true;
      lastStart = ABlock.Full ? uint64_t{explore} - 1 : uint64_t{explore};
    }
    while (any && from <= lastStart) {
      const size_t span = static_cast<size_t>(lastStart - from + sizeof kChunkSignature);
      const uint8_t* hit = FindSignature(AWindow + (from - windowAt), span);
      if (!hit) {
        from = lastStart + 1;
        break;
      }
      const uint64_t at = windowAt + static_cast<uint64_t>(hit - AWindow);
      if (LoadU32(hit + kChunkOfsHeaderSize) != kChunkHeaderSize) {
        from = at + sizeof kChunkSignature;
        continue;
      }
      ABlock.Offsets.push_back(static_cast<uint32_t>(at));
      ABlock.ReadWhen.push_back(filled);
      const int32_t place = AStore.Take();
      if (place >= 0) std::memcpy(AStore.Place(place), hit, kChunkSize);
      ABlock.Places.push_back(place);
      from = at + kChunkSize;
    }
    if (done) return;
  }
}

} // namespace

// Threads that each take the next buffer not yet taken, read and search it into a slot
// of a ring, while the caller takes the slots in the order of the source. A thread takes
// a buffer only when its slot is free, so at most kSlots buffers are searched ahead.
// Buffers are taken before it is known whether the one before them was the last; those
// past the end are searched and dropped. After a buffer with chunks the caller scans the
// next buffer itself if no thread has taken it (see Taken).
class TElfChnunks::TSearchThreads {
public:
  TSearchThreads(const TReadStream& AStream, TChunkStore& AStore, unsigned AThreads) : FStream(AStream), FStore(AStore) {
    try {
      for (unsigned i = 0; i < AThreads; ++i) FThreads.emplace_back([this] { Work(); });
    } catch (...) {
      Stop();
      throw;
    }
  }

  ~TSearchThreads() { Stop(); }

  TSearchThreads(const TSearchThreads&) = delete;
  TSearchThreads& operator=(const TSearchThreads&) = delete;

  // Waits for buffer AIndex (taken in order from 0) and swaps it into ABlock, whose old
  // contents go back to the slot for reuse. Raises what stopped its thread, if anything.
  // False, at once, when the caller is to scan the buffer itself and then call Scanned.
  bool Take(uint64_t AIndex, TBlock& ABlock) {
    std::unique_lock<std::mutex> guard(FLock);
    if (FAhead == 0 && FNext == AIndex) {
      FNext = FTaken = AIndex + 1;
      return false;
    }
    TSlot& slot = FSlots[AIndex % kSlots];
    FChanged.wait(guard, [&] { return slot.Ready && slot.Index == AIndex; });
    std::swap(ABlock, slot.Block);
    slot.Ready = false;
    FTaken = AIndex + 1; // the slot is free only now
    Taken(ABlock);
    guard.unlock();
    FChanged.notify_all();
    if (ABlock.Error) std::rethrow_exception(ABlock.Error);
    return true;
  }

  // The caller has scanned buffer AIndex into ABlock itself.
  void Scanned(uint64_t AIndex, const TBlock& ABlock) {
    {
      std::lock_guard<std::mutex> guard(FLock);
      if (!ABlock.Full || ABlock.Failed) FEnd = std::min(FEnd, AIndex + 1);
      Taken(ABlock);
    }
    FChanged.notify_all();
  }

private:
  static constexpr uint64_t kSlots = 3;

  struct TSlot {
    TBlock Block;
    uint64_t Index = 0;
    bool Ready = false;
  };

  // Where chunks are found the caller is the slower by far (it decodes them), and
  // scans the next buffer itself, as one thread does. Where none are, the threads
  // search up to kSlots buffers ahead.
  void Taken(const TBlock& ABlock) { FAhead = ABlock.Offsets.empty() ? kSlots : 0; }

  void Stop() {
    {
      std::lock_guard<std::mutex> guard(FLock);
      FStop = true;
    }
    FChanged.notify_all();
    for (TWorkerThread& t : FThreads) t.Join();
  }

  void Work() {
    std::unique_ptr<TPageBuffer> window; // made at the first buffer: there may be none
    for (;;) {
      uint64_t index = 0;
      {
        std::unique_lock<std::mutex> guard(FLock);
        FChanged.wait(guard, [&] { return FStop || (FNext < FEnd && FNext < FTaken + FAhead); });
        if (FStop) return;
        index = FNext++;
      }
      // The slot is free: the caller has taken the buffer kSlots before this one, and
      // looks at the slot only once it is marked ready.
      TSlot& slot = FSlots[index % kSlots];
      TBlock& block = slot.Block;
      try {
        if (!window) window = std::make_unique<TPageBuffer>(kWindowSize);
        ScanBlock(FStream, index * kBlockStep, window->Data(), FStore, block);
      } catch (...) {
        block.Failed = true;
        block.Error = std::current_exception();
      }
      {
        std::lock_guard<std::mutex> guard(FLock);
        // Nothing follows a buffer that was not read whole.
        if (!block.Full || block.Failed) FEnd = std::min(FEnd, index + 1);
        slot.Index = index;
        slot.Ready = true;
      }
      FChanged.notify_all();
    }
  }

  const TReadStream& FStream;
  TChunkStore& FStore;
  std::vector<TWorkerThread> FThreads;
  std::mutex FLock;
  std::condition_variable FChanged;
  TSlot FSlots[kSlots];
  uint64_t FNext = 0;           // the next buffer to take
  uint64_t FEnd = UINT64_MAX;   // the first buffer known to lie past the end
  uint64_t FTaken = 0;          // buffers taken by the caller
  uint64_t FAhead = 0;          // buffers that may be searched ahead of the caller (Taken);
                                // none before the first is known to hold no chunk
  bool FStop = false;
};

TElfChnunks::TElfChnunks() : FSearchThreads(std::thread::hardware_concurrency() > 1 ? 2 : 0) {}

TElfChnunks::~TElfChnunks() { Close(); }

void TElfChnunks::Open(std::unique_ptr<TReadStream> AStream) {
  Close();
  FHandle = std::move(AStream);
  FActive = true;
  FHaveBlock = false;
  FNextBlockAvailable = true;
  FNextChunk = 0;
  FNextIndex = 0;
  FReadBefore = 0;
  FBytesRead = 0;
  FSourceSize = FHandle->Size();
  FNumOfBlocks = static_cast<uint32_t>(FSourceSize / (kBlockSize - kOverlap) + 1);
  FCurrentBlock = 0;
}

bool TElfChnunks::OpenFile(const std::string& AFileName) {
  FSourceType = TElfSourceType::stFile;
  FSourceName = AFileName;
  Open(OpenReadStream(AFileName));
  return FActive;
}

bool TElfChnunks::OpenStream(std::unique_ptr<TReadStream> AStream, TElfSourceType AType) {
  FSourceType = AType;
  FSourceName = AStream->Path();
  Open(std::move(AStream));
  return FActive;
}

bool TElfChnunks::OpenDisk(const std::string& ADiskName) {
  FSourceType = TElfSourceType::stVolume;
  FSourceName = ADiskName;
#ifdef _WIN32
  Open(OpenReadStream("\\\\.\\" + ADiskName));
#else
  Open(OpenReadStream(ADiskName.find('/') == std::string::npos ? "/dev/" + ADiskName : ADiskName));
#endif
  return FActive;
}

void TElfChnunks::Close() {
  FThreads.reset(); // before the stream they read and the store they fill
  FStore.reset();
  FBlock.Places.clear();
  FHandle.reset();
  FActive = false;
  FHaveBlock = false;
}

void TElfChnunks::ReleaseBlock() {
  FHaveBlock = false;
  FStore->Give(FBlock.Places);
  FBlock.Places.clear();
}

bool TElfChnunks::TakeNextBlock() {
  if (!FNextBlockAvailable) return false;
  FNextBlockAvailable = false;
  if (FNextIndex == 0) {
    if (!FStore) FStore = std::make_unique<TChunkStore>();
    // Threads only for more than one buffer (a source of unknown size is read here) and
    // only where they can read side by side (not through a container's lock, where
    // they were slower than one).
    if (FSearchThreads > 0 && FSourceSize > kBlockSize && FHandle->ParallelReads())
      FThreads = std::make_unique<TSearchThreads>(*FHandle, *FStore, FSearchThreads);
  }
  ++FCurrentBlock;
  if (!FThreads || !FThreads->Take(FNextIndex, FBlock)) {
    if (!FBuffer) FBuffer = std::make_unique<TPageBuffer>(kWindowSize);
    ScanBlock(*FHandle, FNextIndex * kBlockStep, FBuffer->Data(), *FStore, FBlock);
    if (FThreads) FThreads->Scanned(FNextIndex, FBlock);
  }
  ++FNextIndex;
  FHaveBlock = true;
  FNextChunk = 0;
  FNextBlockAvailable = FBlock.Full && !FBlock.Failed;
  return true;
}

TCarvedChunk TElfChnunks::GetNextChunk() {
  TCarvedChunk result;
  if (!FActive) return result;
  for (;;) {
    if (!FHaveBlock && !TakeNextBlock()) return result; // crEnd
    if (FNextChunk < FBlock.Offsets.size()) {
      const uint64_t position = FBlock.Start + FBlock.Offsets[FNextChunk];
      if (FBlock.Places[FNextChunk] >= 0) {
        result.Data = FStore->Place(FBlock.Places[FNextChunk]);
      } else {
        // Found when the store was full (by a search thread, ahead): read again. A source
        // that cannot give the bytes a second time ends the search, as a read error does.
        FChunk.resize(kChunkSize);
        size_t got = 0;
        try {
          got = FHandle->ReadAt(position, FChunk.data(), kChunkSize);
        } catch (const std::exception&) {
        }
        if (got != kChunkSize) {
          ReleaseBlock();
          FNextBlockAvailable = false;
          return result; // crEnd
        }
        result.Data = FChunk.data();
      }
      result.Result = TCarveResult::crChunk;
      result.Position = position;
      FBytesRead = FReadBefore + FBlock.ReadWhen[FNextChunk];
      ++FNextChunk;
      return result;
    }
    ReleaseBlock();
    FReadBefore += FBlock.Filled;
    FBytesRead = FReadBefore;
    if (FBlock.Tick) {
      result.Result = TCarveResult::crNoneInBlock;
      return result;
    }
  }
}

} // namespace qvx
