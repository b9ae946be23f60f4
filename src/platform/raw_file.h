// Read-only access to files, volumes and disks by positioned reads.
//
// Linux: any path, including block devices such as /dev/sdb (size from BLKGETSIZE64).
// Windows: CreateFileW with GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING; "\\.\" names
// open volumes and physical disks (size from IOCTL_DISK_GET_LENGTH_INFO, or for
// "\\.\PhysicalDisk…" from GetDiskFreeSpaceExW).
#pragma once

#include "platform/read_stream.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace qvx {

class TRawFile : public TReadStream {
public:
  TRawFile() = default;
  ~TRawFile() override;
  TRawFile(TRawFile&& AOther) noexcept;
  TRawFile& operator=(TRawFile&& AOther) noexcept;
  TRawFile(const TRawFile&) = delete;
  TRawFile& operator=(const TRawFile&) = delete;

  // Opens APath for reading. Raises ENTException ("<path>: <code>: <text>") when it
  // cannot be opened or is a directory.
  static TRawFile Open(const std::string& APath);

  bool IsOpen() const;
  void Close();
  const std::string& Path() const override { return FPath; }
  bool IsDevice() const { return FIsDevice; }

  // Size in bytes, measured once at open: the file size, or the device length.
  // 0 when the system cannot tell.
  uint64_t Size() const override { return FSize; }

  // Reads up to ALength bytes at AOffset; returns the bytes read (short only at the end
  // of the data). Raises ENTException on a read error.
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override;
  // Opens the same file once more (on Linux through the open handle, so it is the same
  // file even if its name now leads elsewhere); null elsewhere or when that fails.
  std::unique_ptr<TReadStream> OpenAgain() const override;

private:
#ifdef _WIN32
  void* FHandle = nullptr;
#else
  int FFd = -1;
#endif
  std::string FPath;
  uint64_t FSize = 0;
  bool FIsDevice = false;
};

} // namespace qvx
