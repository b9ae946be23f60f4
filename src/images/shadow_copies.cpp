#include "images/shadow_copies.h"

#include "images/bfio_stream.h"
#include "images/image_error.h"

#include <libvshadow.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace qvx {

namespace {

// Where the shadow copy header lies in an NTFS volume (inside $Boot) and the GUID it
// starts with, as stored (3808876b-c176-4e48-b7ae-04046e6cc752).
constexpr uint64_t kHeaderOffset = 0x1E00;
constexpr uint8_t kVssIdentifier[16] = {0x6B, 0x87, 0x08, 0x38, 0x76, 0xC1, 0x48, 0x4E,
                                        0xB7, 0xAE, 0x04, 0x04, 0x6E, 0x6C, 0xC7, 0x52};
// Bound on the stores listed: Windows keeps at most 64 copies of a volume (512 on newer
// servers); a damaged catalog may claim more.
constexpr int kMaxStores = 512;

libvshadow_volume_t* Vol(void* AVolume) {
  return static_cast<libvshadow_volume_t*>(AVolume);
}

[[noreturn]] void Fail(libvshadow_error_t*& AError, const std::string& AWhere, uint64_t AOffset,
                       const std::string& AProblem) {
  RaiseLibyal(AError, libvshadow_error_backtrace_sprint, libvshadow_error_free, AWhere, AOffset, AProblem);
}

// The reader takes the volume's size and cluster size from an NTFS boot sector when one
// is there, and divides by them: one whose sector or cluster size is not a real one is
// refused here instead (a boot sector without the NTFS name is not read by it).
void CheckBootSector(const TReadStream& AStream, const std::string& AName) {
  uint8_t boot[512] = {};
  if (AStream.ReadAt(0, boot, sizeof boot) != sizeof boot || std::memcmp(boot + 3, "NTFS    ", 8) != 0) return;
  const unsigned bytesPerSector = boot[11] | boot[12] << 8;
  const unsigned sectorsPerCluster = boot[13];
  const bool sectorOk = bytesPerSector >= 256 && bytesPerSector <= 4096 && (bytesPerSector & (bytesPerSector - 1)) == 0;
  if (!sectorOk || sectorsPerCluster == 0)
    RaiseImageError(AName, 0, "shadow copies cannot be read: NTFS boot sector is not valid",
                    std::to_string(bytesPerSector) + " bytes per sector, " + std::to_string(sectorsPerCluster) +
                        " sectors per cluster");
}

std::string GuidText(const uint8_t* AGuid) {
  char text[40];
  std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x",
                AGuid[3], AGuid[2], AGuid[1], AGuid[0], AGuid[5], AGuid[4], AGuid[7], AGuid[6], AGuid[8],
                AGuid[9], AGuid[10], AGuid[11], AGuid[12], AGuid[13], AGuid[14], AGuid[15]);
  return text;
}

void FreeStore(libvshadow_store_t*& AStore) {
  libvshadow_error_t* error = nullptr;
  if (AStore) libvshadow_store_free(&AStore, &error);
  libvshadow_error_free(&error);
}

} // namespace

// One store read as the volume it preserves, through the volume's lock.
class TShadowCopies::TStoreStream : public TReadStream {
public:
  TStoreStream(std::shared_ptr<TShadowCopies> AOwner, libvshadow_store_t* AStore, uint64_t ASize,
               std::string AName)
      : FOwner(std::move(AOwner)), FStore(AStore), FSize(ASize), FName(std::move(AName)) {}
  ~TStoreStream() override {
    std::lock_guard<std::recursive_mutex> lock(FOwner->FLock);
    FreeStore(FStore);
  }
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset >= FSize) return 0;
    ALength = static_cast<size_t>(std::min<uint64_t>(ALength, FSize - AOffset));
    std::lock_guard<std::recursive_mutex> lock(FOwner->FLock);
    libvshadow_error_t* error = nullptr;
    const ssize_t got = libvshadow_store_read_buffer_at_offset(FStore, ABuffer, ALength,
                                                               static_cast<off64_t>(AOffset), &error);
    if (got < 0) Fail(error, FName, AOffset, "cannot read the shadow copy's data");
    return static_cast<size_t>(got);
  }
  uint64_t Size() const override { return FSize; }
  bool ParallelReads() const override { return false; } // the volume's lock
  const std::string& Path() const override { return FName; }

private:
  std::shared_ptr<TShadowCopies> FOwner;
  mutable libvshadow_store_t* FStore;
  uint64_t FSize;
  std::string FName;
};

bool TShadowCopies::HasHeader(const TReadStream& AStream) {
  uint8_t id[sizeof kVssIdentifier] = {};
  try {
    if (AStream.Size() < kHeaderOffset + sizeof id ||
        AStream.ReadAt(kHeaderOffset, id, sizeof id) != sizeof id)
      return false;
  } catch (const std::exception&) {
    return false;
  }
  return std::memcmp(id, kVssIdentifier, sizeof id) == 0;
}

std::shared_ptr<TShadowCopies> TShadowCopies::Open(std::shared_ptr<const TReadStream> AStream,
                                                   const std::string& AName) {
  std::shared_ptr<TShadowCopies> copies(new TShadowCopies());
  copies->FName = AName;
  copies->FStream = AStream;
  if (!HasHeader(*AStream)) return copies;
  CheckBootSector(*AStream, AName);
  copies->FBfio = std::make_unique<TBfioHandle>(AStream);
  libvshadow_error_t* error = nullptr;
  libvshadow_volume_t* handle = nullptr;
  if (libvshadow_volume_initialize(&handle, &error) != 1)
    Fail(error, AName, kNoOffset, "cannot set up the shadow copy reader");
  copies->FVolume = handle;
  if (libvshadow_volume_open_file_io_handle(handle, copies->FBfio->Get(), LIBVSHADOW_OPEN_READ, &error) != 1)
    Fail(error, AName, kHeaderOffset, "shadow copy header or catalog cannot be read");
  int count = 0;
  if (libvshadow_volume_get_number_of_stores(handle, &count, &error) != 1)
    Fail(error, AName, kHeaderOffset, "shadow copy catalog cannot be read");
  count = std::clamp(count, 0, kMaxStores);
  for (int i = 0; i < count; ++i) {
    TShadowCopyInfo info;
    info.Number = static_cast<uint32_t>(i + 1);
    libvshadow_store_t* store = nullptr;
    // A store that cannot be opened is still listed; opening it later says why.
    if (libvshadow_volume_get_store(handle, i, &store, &error) == 1) {
      uint64_t filetime = 0;
      if (libvshadow_store_get_creation_time(store, &filetime, &error) == 1) info.CreationTime = filetime;
      libvshadow_error_free(&error);
      uint8_t guid[16] = {};
      if (libvshadow_store_get_copy_identifier(store, guid, sizeof guid, &error) == 1)
        info.Identifier = GuidText(guid);
      libvshadow_error_free(&error);
      size64_t size = 0;
      if (libvshadow_store_get_volume_size(store, &size, &error) == 1) info.VolumeSize = size;
      libvshadow_error_free(&error);
      FreeStore(store);
    }
    libvshadow_error_free(&error);
    copies->FInfos.push_back(std::move(info));
  }
  return copies;
}

TShadowCopies::~TShadowCopies() {
  libvshadow_error_t* error = nullptr;
  if (FVolume) {
    libvshadow_volume_t* handle = Vol(FVolume);
    libvshadow_volume_close(handle, &error);
    libvshadow_error_free(&error);
    libvshadow_volume_free(&handle, &error);
  }
  libvshadow_error_free(&error);
}

std::shared_ptr<const TReadStream> TShadowCopies::Store(uint32_t ANumber, const std::string& ADisplayName) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  if (ANumber == 0 || ANumber > FInfos.size())
    RaiseImageError(FName, kNoOffset,
                    "no shadow copy " + std::to_string(ANumber) + " (the volume has " +
                        std::to_string(FInfos.size()) + ")");
  libvshadow_error_t* error = nullptr;
  libvshadow_store_t* store = nullptr;
  if (libvshadow_volume_get_store(Vol(FVolume), static_cast<int>(ANumber - 1), &store, &error) != 1)
    Fail(error, ADisplayName, kNoOffset, "the shadow copy's store cannot be read");
  // A store kept on another volume (a shadow storage association) cannot be read from this one.
  if (libvshadow_store_has_in_volume_data(store, &error) == 0) {
    FreeStore(store);
    RaiseImageError(ADisplayName, kNoOffset, "the shadow copy's store lies on another volume");
  }
  libvshadow_error_free(&error);
  size64_t size = 0;
  if (libvshadow_store_get_volume_size(store, &size, &error) != 1 || size == 0) {
    libvshadow_error_free(&error);
    size = FStream->Size();
  }
  // A catalog may name a size past the volume (a known corruption); the volume bounds it.
  const uint64_t bounded = std::min<uint64_t>(size, FStream->Size());
  return std::make_shared<TStoreStream>(shared_from_this(), store, bounded, ADisplayName);
}

} // namespace qvx
