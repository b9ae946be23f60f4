#include "platform/raw_file.h"

#include "platform/nt_exception.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#ifdef _WIN32
#include <windows.h>
#include <winioctl.h>
#else
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace qvx {

TRawFile::~TRawFile() { Close(); }

TRawFile::TRawFile(TRawFile&& AOther) noexcept { *this = std::move(AOther); }

TRawFile& TRawFile::operator=(TRawFile&& AOther) noexcept {
  if (this != &AOther) {
    Close();
#ifdef _WIN32
    FHandle = std::exchange(AOther.FHandle, nullptr);
#else
    FFd = std::exchange(AOther.FFd, -1);
#endif
    FPath = std::move(AOther.FPath);
    FSize = AOther.FSize;
    FIsDevice = AOther.FIsDevice;
  }
  return *this;
}

#ifdef _WIN32

namespace {
std::wstring Widen(const std::string& s) {
  int n = MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0);
  std::wstring w(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), w.data(), n);
  return w;
}
bool StartsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }
} // namespace

TRawFile TRawFile::Open(const std::string& APath) {
  TRawFile f;
  f.FPath = APath;
  HANDLE h = CreateFileW(Widen(APath).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  if (h == INVALID_HANDLE_VALUE) RaiseLastOSError(APath);
  f.FHandle = h;
  if (!StartsWith(APath, "\\\\.\\")) {
    LARGE_INTEGER size;
    f.FSize = GetFileSizeEx(h, &size) ? static_cast<uint64_t>(size.QuadPart) : 0;
  } else if (StartsWith(APath.substr(4), "PhysicalDisk")) {
    f.FIsDevice = true;
    ULARGE_INTEGER total;
    f.FSize = GetDiskFreeSpaceExW(Widen(APath + "\\").c_str(), nullptr, &total, nullptr) ? total.QuadPart : 0;
  } else {
    f.FIsDevice = true;
    GET_LENGTH_INFORMATION info;
    DWORD returned = 0;
    f.FSize = DeviceIoControl(h, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &info, sizeof info, &returned, nullptr)
                  ? static_cast<uint64_t>(info.Length.QuadPart)
                  : 0;
  }
  return f;
}

bool TRawFile::IsOpen() const { return FHandle != nullptr; }

std::unique_ptr<TReadStream> TRawFile::OpenAgain() const { return nullptr; } // reads share the handle

void TRawFile::Close() {
  if (FHandle) CloseHandle(FHandle);
  FHandle = nullptr;
}

size_t TRawFile::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  size_t total = 0;
  while (total < ALength) {
    OVERLAPPED ov = {};
    uint64_t pos = AOffset + total;
    ov.Offset = static_cast<DWORD>(pos);
    ov.OffsetHigh = static_cast<DWORD>(pos >> 32);
    DWORD chunk = static_cast<DWORD>(std::min<size_t>(ALength - total, 1u << 30));
    DWORD got = 0;
    if (!ReadFile(FHandle, static_cast<char*>(ABuffer) + total, chunk, &got, &ov)) {
      if (GetLastError() == ERROR_HANDLE_EOF) break;
      RaiseLastOSError(FPath);
    }
    if (got == 0) break;
    total += got;
  }
  return total;
}

#else // POSIX

TRawFile TRawFile::Open(const std::string& APath) {
  TRawFile f;
  f.FPath = APath;
  f.FFd = ::open(APath.c_str(), O_RDONLY | O_CLOEXEC);
  if (f.FFd < 0) RaiseLastOSError(APath);
  struct stat st;
  if (::fstat(f.FFd, &st) != 0) RaiseLastOSError(APath);
  if (S_ISDIR(st.st_mode)) throw ENTException(EISDIR, APath);
  if (S_ISBLK(st.st_mode)) {
    f.FIsDevice = true;
    uint64_t bytes = 0;
    f.FSize = ::ioctl(f.FFd, BLKGETSIZE64, &bytes) == 0 ? bytes : 0;
  } else if (S_ISREG(st.st_mode)) {
    f.FSize = static_cast<uint64_t>(st.st_size);
  } else {
    f.FIsDevice = true; // character devices, pipes: size unknown
  }
  // The readers walk files front to back; tell the kernel so it reads ahead generously.
  ::posix_fadvise(f.FFd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return f;
}

std::unique_ptr<TReadStream> TRawFile::OpenAgain() const {
#if defined(__linux__)
  if (FFd < 0) return nullptr;
  const std::string self = "/proc/self/fd/" + std::to_string(FFd);
  const int fd = ::open(self.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  auto again = std::make_unique<TRawFile>();
  again->FFd = fd;
  again->FPath = FPath;
  again->FSize = FSize;
  again->FIsDevice = FIsDevice;
  ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return again;
#else
  return nullptr;
#endif
}

bool TRawFile::IsOpen() const { return FFd >= 0; }

void TRawFile::Close() {
  if (FFd >= 0) ::close(FFd);
  FFd = -1;
}

size_t TRawFile::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  size_t total = 0;
  while (total < ALength) {
    ssize_t got = ::pread(FFd, static_cast<char*>(ABuffer) + total, ALength - total,
                          static_cast<off_t>(AOffset + total));
    if (got < 0) {
      if (errno == EINTR) continue;
      RaiseLastOSError(FPath);
    }
    if (got == 0) break;
    total += static_cast<size_t>(got);
  }
  return total;
}

#endif

} // namespace qvx
