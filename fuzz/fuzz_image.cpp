// Fuzz target: a raw disk image through the whole image stack: container detection, the
// partition table, each volume's file system check, the NTFS volume (libfsntfs under our
// path lookup and file streams), its unallocated ranges, and the shadow copy catalog
// (libvshadow) with each copy's data.
//
// A disk is mostly zeros, so the input is a sparse image: "QVXI", the media size (u32
// little-endian, at most 8 MiB), then runs of (offset u32, length u16, bytes) written over
// zeros. Seeds: a 2 MB NTFS volume (mkntfs) holding a log, bare and in an MBR disk,
// written by scripts/fuzz_image_seeds.sh.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>

#include "images/evidence_image.h"

namespace {

constexpr uint32_t kMaxMedia = 8u << 20;

uint32_t U32(const uint8_t* AData) {
  return AData[0] | AData[1] << 8 | AData[2] << 16 | static_cast<uint32_t>(AData[3]) << 24;
}

void ReadSome(qvx::TNtfsVolume& AVolume, const std::string& AFolder) {
  for (const qvx::TNtfsEntry& e : AVolume.List(AFolder)) {
    if (e.Folder || e.Size == 0) continue;
    const std::unique_ptr<qvx::TReadStream> file = AVolume.OpenFile(AFolder + "/" + e.Name);
    uint8_t buffer[4096];
    file->ReadAt(0, buffer, sizeof buffer);
    if (file->Size() > sizeof buffer) file->ReadAt(file->Size() - sizeof buffer, buffer, sizeof buffer);
  }
}

void Walk(const std::string& APath) {
  const std::shared_ptr<qvx::TEvidenceImage> image = qvx::TEvidenceImage::Open(APath, false);
  for (const qvx::TImageVolume& volume : image->Volumes()) {
    try {
      const std::shared_ptr<qvx::TNtfsVolume> ntfs = image->Ntfs(volume);
      ntfs->Label();
      ReadSome(*ntfs, "/");
      ReadSome(*ntfs, "/Windows/System32/winevt/Logs");
      ntfs->UnallocatedRanges();
    } catch (const std::exception&) {
    }
    try {
      for (const qvx::TShadowCopyInfo& copy : image->Shadows(volume)->Copies()) {
        uint8_t sector[512];
        image->ShadowStream(volume, copy.Number)->ReadAt(0, sector, sizeof sector);
      }
    } catch (const std::exception&) {
    }
  }
  image->Installations();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize < 8 || std::memcmp(AData, "QVXI", 4) != 0) return 0;
  const uint32_t media = U32(AData + 4);
  if (media == 0 || media > kMaxMedia) return 0;
  const int fd = memfd_create("fuzz-image", MFD_CLOEXEC);
  if (fd < 0) return 0;
  bool ok = ftruncate(fd, media) == 0;
  for (size_t at = 8; ok && ASize - at >= 6;) {
    const uint32_t offset = U32(AData + at);
    const size_t length = std::min<size_t>(AData[at + 4] | AData[at + 5] << 8, ASize - at - 6);
    at += 6;
    if (offset < media && length <= media - offset)
      ok = pwrite(fd, AData + at, length, offset) == static_cast<ssize_t>(length);
    at += length;
  }
  if (ok) {
    try {
      Walk("/proc/self/fd/" + std::to_string(fd));
    } catch (const std::exception&) {
    }
  }
  close(fd);
  return 0;
}
