#include "platform/page_buffer.h"

#include <cstdint>
#include <new>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace qvx {

namespace {
#ifndef _WIN32
// The size of a large page: a region aligned to it and marked can be made in one fault.
constexpr size_t kLargePage = 2 * 1024 * 1024;
#endif
} // namespace

TPageBuffer::TPageBuffer(size_t ASize, TPageUse AUse) : FSize(ASize) {
#ifdef _WIN32
  (void)AUse; // committed pages are made on first touch
  FData = static_cast<uint8_t*>(VirtualAlloc(nullptr, ASize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  FMapped = FData != nullptr;
  FMapping = FData;
  FMappingSize = ASize;
#else
  int flags = MAP_PRIVATE | MAP_ANONYMOUS;
#ifdef MAP_POPULATE
  // One call maps every page; a thousand first-touch faults cost more.
  if (AUse == TPageUse::puMapAll) flags |= MAP_POPULATE;
#endif
#ifdef MAP_NORESERVE
  if (AUse != TPageUse::puMapAll) flags |= MAP_NORESERVE;
#endif
  // Large pages need an aligned start: a little more is reserved to find one.
  const bool large = AUse == TPageUse::puOnFirstUse && ASize >= kLargePage;
  const size_t reserve = large ? ASize + kLargePage : ASize;
  void* p = mmap(nullptr, reserve, PROT_READ | PROT_WRITE, flags, -1, 0);
  if (p != MAP_FAILED) {
    FMapping = static_cast<uint8_t*>(p);
    FMappingSize = reserve;
    FData = FMapping;
    FMapped = true;
    if (large) {
      const auto at = reinterpret_cast<uintptr_t>(p);
      FData = FMapping + ((kLargePage - at % kLargePage) % kLargePage);
#ifdef MADV_HUGEPAGE
      madvise(FData, ASize - ASize % kLargePage, MADV_HUGEPAGE); // a hint: without it, small pages
#endif
    }
  }
#endif
  if (!FData) FData = new uint8_t[ASize];
}

TPageBuffer::~TPageBuffer() {
  if (!FMapped) {
    delete[] FData;
    return;
  }
#ifdef _WIN32
  VirtualFree(FMapping, 0, MEM_RELEASE);
#else
  munmap(FMapping, FMappingSize);
#endif
}

} // namespace qvx
