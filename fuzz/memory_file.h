// Fuzz inputs that a reader takes as a file: the bytes in an anonymous in-memory file,
// handed over as /proc/self/fd/N.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvx::fuzz {

// Calls ARead with the path of a file holding the bytes; nothing when the file cannot be made.
template <typename F> void WithMemoryFile(const char* AName, const uint8_t* AData, size_t ASize, F&& ARead) {
  const int fd = memfd_create(AName, MFD_CLOEXEC);
  if (fd < 0) return;
  size_t written = 0;
  while (written < ASize) {
    const ssize_t n = write(fd, AData + written, ASize - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  if (written == ASize) ARead("/proc/self/fd/" + std::to_string(fd));
  close(fd);
}

} // namespace qvx::fuzz
