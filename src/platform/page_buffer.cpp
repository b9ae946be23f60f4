#include "platform/page_buffer.h"

#include <new>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace qvx {

TPageBuffer::TPageBuffer(size_t ASize, TPageUse AUse) : FSize(ASize) {
#ifdef _WIN32
  (void)AUse; // committed pages are made on first touch
  FData = static_cast<uint8_t*>(VirtualAlloc(nullptr, ASize, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE));
  FMapped = FData != nullptr;
#else
  int flags = MAP_PRIVATE | MAP_ANONYMOUS;
#ifdef MAP_POPULATE
  // One call maps every page; a thousand first-touch faults cost more.
  if (AUse == TPageUse::puMapAll) flags |= MAP_POPULATE;
#endif
#ifdef MAP_NORESERVE
  if (AUse == TPageUse::puOnFirstUse) flags |= MAP_NORESERVE;
#endif
  void* p = mmap(nullptr, ASize, PROT_READ | PROT_WRITE, flags, -1, 0);
  if (p != MAP_FAILED) {
    FData = static_cast<uint8_t*>(p);
    FMapped = true;
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
  VirtualFree(FData, 0, MEM_RELEASE);
#else
  munmap(FData, FSize);
#endif
}

} // namespace qvx
