#include "platform/file_mapping.h"

#ifndef _WIN32
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <system_error>
#endif

namespace qvx {

#ifdef _WIN32

// Reads are as fast as a mapping on Windows for one pass; the caller reads.
TFileMapping::TFileMapping(const TRawFile& AFile) : FFile(AFile) {}
TFileMapping::~TFileMapping() = default;
bool TFileMapping::Prepare(uint64_t, size_t) const { return false; }
void TFileMapping::PrepareLater(uint64_t, size_t) {}
void TFileMapping::Release(uint64_t, size_t) {}

#else

namespace {
size_t PageSize() {
  static const size_t size = [] {
    const long v = ::sysconf(_SC_PAGESIZE);
    return v > 0 ? static_cast<size_t>(v) : size_t{4096};
  }();
  return size;
}
} // namespace

TFileMapping::TFileMapping(const TRawFile& AFile) : FFile(AFile) {
  // Devices are read, not mapped: a bad sector would kill the process instead of raising.
  if (AFile.IsDevice() || !AFile.IsOpen() || AFile.Size() == 0 || AFile.Size() > SIZE_MAX) return;
  void* p = ::mmap(nullptr, static_cast<size_t>(AFile.Size()), PROT_READ, MAP_PRIVATE, AFile.Descriptor(), 0);
  if (p == MAP_FAILED) return;
  FData = static_cast<uint8_t*>(p);
  FSize = AFile.Size();
  ::madvise(p, static_cast<size_t>(FSize), MADV_SEQUENTIAL);
}

TFileMapping::~TFileMapping() {
  if (FThread.joinable()) {
    {
      std::lock_guard<std::mutex> guard(FLock);
      FStop = true;
    }
    FWake.notify_one();
    FThread.join();
  }
  if (FData) ::munmap(FData, static_cast<size_t>(FSize));
}

// The range lies in the mapping and in the file as it is now.
bool TFileMapping::Present(uint64_t AOffset, size_t ALength) const {
  if (!FData || AOffset > FSize || ALength > FSize - AOffset) return false;
  struct stat st;
  return ::fstat(FFile.Descriptor(), &st) == 0 && static_cast<uint64_t>(st.st_size) >= AOffset + ALength;
}

void TFileMapping::Populate(uint64_t AOffset, size_t ALength) const {
#ifdef MADV_POPULATE_READ
  // One call maps the range's pages; a fault for every few pages costs more. Older
  // kernels refuse the advice, and the pages are then faulted in as they are read.
  const uint64_t start = AOffset / PageSize() * PageSize();
  ::madvise(FData + start, static_cast<size_t>(AOffset + ALength - start), MADV_POPULATE_READ);
#else
  (void)AOffset;
  (void)ALength;
#endif
}

bool TFileMapping::Prepare(uint64_t AOffset, size_t ALength) const {
  if (!Present(AOffset, ALength)) return false;
  // Made present by the helper already: nothing left to do.
  if (FReadyFrom.load(std::memory_order_acquire) <= AOffset && AOffset + ALength <= FReadyTo.load(std::memory_order_acquire))
    return true;
  Populate(AOffset, ALength);
  return true;
}

void TFileMapping::PrepareLater(uint64_t AOffset, size_t ALength) {
  if (!Present(AOffset, ALength) || ALength == 0) return;
  {
    std::lock_guard<std::mutex> guard(FLock);
    if (FPending || FInFlight) return;
    FPending = true;
    FAskFrom = AOffset;
    FAskTo = AOffset + ALength;
  }
  if (!FThread.joinable()) {
    try {
      FThread = std::thread(&TFileMapping::Helper, this);
    } catch (const std::system_error&) {
      std::lock_guard<std::mutex> guard(FLock);
      FPending = false; // no thread to be had: Prepare does the work
      return;
    }
  }
  FWake.notify_one();
}

void TFileMapping::Helper() {
  std::unique_lock<std::mutex> lock(FLock);
  for (;;) {
    FWake.wait(lock, [this] { return FStop || FPending; });
    if (FStop) return;
    FPending = false;
    // A request the reader has passed already is dropped.
    FAskFrom = std::max(FAskFrom, FReleasedTo);
    if (FAskFrom >= FAskTo) continue;
    const uint64_t from = FAskFrom, to = FAskTo;
    FInFlight = true;
    lock.unlock();
    Populate(from, static_cast<size_t>(to - from));
    // Published only once the pages are there; a reader that comes first populates too.
    FReadyTo.store(0, std::memory_order_release);
    FReadyFrom.store(from, std::memory_order_release);
    FReadyTo.store(to, std::memory_order_release);
    lock.lock();
    FInFlight = false;
    FIdle.notify_all();
  }
}

void TFileMapping::Release(uint64_t AOffset, size_t ALength) {
  if (!FData || AOffset > FSize) return;
  {
    // Pages the helper maps after they were given back would stay with the process.
    std::unique_lock<std::mutex> lock(FLock);
    FIdle.wait(lock, [&] { return !FInFlight || FAskTo <= AOffset || FAskFrom >= AOffset + ALength; });
    FReleasedTo = std::max<uint64_t>(FReleasedTo, AOffset + ALength);
  }
  // Only whole pages inside the range: a page shared with the next window stays.
  const uint64_t start = (AOffset + PageSize() - 1) / PageSize() * PageSize();
  const uint64_t end = std::min<uint64_t>(AOffset + ALength, FSize) / PageSize() * PageSize();
  if (end > start) ::madvise(FData + start, static_cast<size_t>(end - start), MADV_DONTNEED);
}

#endif

} // namespace qvx
