#include "images/evidence_image.h"

#include "images/image_error.h"
#include "platform/file_names.h"

#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

namespace qvx {

namespace {

std::string Hex(uint64_t AValue) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llX", static_cast<unsigned long long>(AValue));
  return text;
}

bool IsFileOrDevice(const std::string& APath) {
  struct stat st;
  return ::stat(APath.c_str(), &st) == 0 && (S_ISREG(st.st_mode) || S_ISBLK(st.st_mode));
}

// An image path as it exists: the imaged computer lower-cases the message file names it
// maps, image path included, and a case-sensitive file system then needs the real case.
bool FindImageFile(std::string& APath) {
  if (IsFileOrDevice(APath)) return true;
  static std::mutex lock;
  static TPathResolver paths;
  std::lock_guard<std::mutex> guard(lock);
  const std::string found = paths.ResolveFile(APath);
  if (found.empty() || !IsFileOrDevice(found)) return false;
  APath = found;
  return true;
}

// Every image opened, shared or not, for TakeWarnings.
std::mutex& OpenedLock() {
  static std::mutex lock;
  return lock;
}
std::vector<std::weak_ptr<TEvidenceImage>>& Opened() {
  static auto& opened = *new std::vector<std::weak_ptr<TEvidenceImage>>();
  return opened;
}

} // namespace

std::vector<std::string> TEvidenceImage::TakeWarnings() {
  std::vector<std::shared_ptr<TEvidenceImage>> images;
  {
    std::lock_guard<std::mutex> guard(OpenedLock());
    std::erase_if(Opened(), [](const std::weak_ptr<TEvidenceImage>& AImage) { return AImage.expired(); });
    for (const std::weak_ptr<TEvidenceImage>& opened : Opened())
      if (std::shared_ptr<TEvidenceImage> image = opened.lock()) images.push_back(std::move(image));
  }
  std::vector<std::string> warnings;
  for (const std::shared_ptr<TEvidenceImage>& image : images)
    for (std::string& warning : image->FContainer->TakeWarnings()) warnings.push_back(std::move(warning));
  return warnings;
}

bool TEvidenceImage::IsContainerFile(const std::string& APath) {
  try {
    return IsFileOrDevice(APath) && DetectContainer(APath) != TContainerFormat::cfRaw;
  } catch (const std::exception&) {
    return false;
  }
}

bool TEvidenceImage::SplitName(const std::string& AName, std::string& AImage, std::string& AVolume, std::string& APath) {
  const size_t sep = AName.find("::");
  if (sep == std::string::npos || sep == 0) return false;
  APath = AName.substr(sep + 2);
  if (APath.starts_with("$")) return false; // an NTFS stream name, not a path inside an image
  AImage = AName.substr(0, sep);
  AVolume.clear();
  if (!FindImageFile(AImage)) {
    std::string shadow; // ":vssN"
    if (const size_t colon = AImage.rfind(":vss");
        colon != std::string::npos &&
        AImage.find_first_not_of("0123456789", colon + 4) == std::string::npos) {
      shadow = AImage.substr(colon);
      AImage.resize(colon);
    }
    if (!FindImageFile(AImage)) {
      const size_t at = AImage.rfind('@');
      if (at == std::string::npos) return false;
      AVolume = AImage.substr(at + 1);
      AImage.resize(at);
      if (!FindImageFile(AImage)) return false;
    }
    AVolume += shadow;
  }
  if (APath.empty()) APath.assign(1, '/');
  return true;
}

std::shared_ptr<TEvidenceImage> TEvidenceImage::Open(const std::string& APath, bool AShared) {
  static std::mutex cacheLock;
  // Never destroyed: the images opened last until the process ends, and freeing them at
  // exit cost libewf about 2 ms for each 1 GB of media (the table of every chunk), spent
  // once by every 'events IMAGE::PATH'. The memory stays reachable from here, so leak
  // checkers do not count it.
  static auto& cache = *new std::map<std::string, std::shared_ptr<TEvidenceImage>>();
  std::unique_lock<std::mutex> guard(cacheLock, std::defer_lock);
  if (AShared) {
    guard.lock();
    if (auto it = cache.find(APath); it != cache.end()) return it->second;
  }

  std::shared_ptr<TEvidenceImage> image(new TEvidenceImage());
  image->FPath = APath;
  image->FContainer = TContainer::Open(APath, DetectContainer(APath));
  const TReadStream& media = *image->FContainer;
  image->FTable.Read(media);
  uint32_t number = 0;
  if (image->FTable.Scheme() == TPartitionScheme::psNone) {
    const std::string fs = DetectFileSystem(media, 0);
    if (!fs.empty()) image->FVolumes.push_back({++number, 0, media.Size(), "whole disk", "", fs, "", false});
  } else {
    for (const TPartition& p : image->FTable.Partitions()) {
      TImageVolume v;
      v.Number = ++number;
      v.Offset = p.Offset;
      v.Length = p.Length;
      v.Partition = std::string(TPartitionTable::SchemeName(image->FTable.Scheme())) + " " + std::to_string(p.Number);
      v.Type = TPartitionTable::TypeName(p);
      v.CutShort = p.CutShort;
      try {
        v.FileSystem = DetectFileSystem(media, p.Offset);
      } catch (const std::exception& e) {
        // Clusters of one partition lost from a container leave the others readable.
        v.Unreadable = e.what();
        if (v.Unreadable.starts_with(APath + ": ")) v.Unreadable.erase(0, APath.size() + 2);
      }
      image->FVolumes.push_back(std::move(v));
    }
  }
  if (AShared) cache.emplace(APath, image);
  {
    std::lock_guard<std::mutex> opened(OpenedLock());
    Opened().push_back(image);
  }
  return image;
}

const TImageVolume& TEvidenceImage::Volume(const std::string& AName) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  if (AName.starts_with("+")) {
    char* end = nullptr;
    const unsigned long long offset = std::strtoull(AName.c_str() + 1, &end, 10);
    if (!end || *end || AName.size() < 2) RaiseImageError(FPath, kNoOffset, "volume offset " + AName.substr(1) + " is not a number");
    if (offset >= FContainer->Size()) RaiseImageError(FPath, offset, "volume offset past the end of the media");
    // The start of a listed partition is that volume, which ends where the partition does.
    for (const TImageVolume& v : FVolumes)
      if (v.Offset == offset) return v;
    for (const TImageVolume& v : FExtraVolumes)
      if (v.Offset == offset) return v;
    TImageVolume v;
    v.Number = 0;
    v.Offset = offset;
    v.Length = FContainer->Size() - offset;
    v.Partition = "offset";
    v.FileSystem = DetectFileSystem(*FContainer, offset);
    FExtraVolumes.push_back(v);
    return FExtraVolumes.back();
  }
  if (!AName.empty()) {
    char* end = nullptr;
    const unsigned long n = std::strtoul(AName.c_str(), &end, 10);
    if (!end || *end || n == 0 || n > FVolumes.size())
      RaiseImageError(FPath, kNoOffset, "no volume " + AName + " (the image has " + std::to_string(FVolumes.size()) + ")");
    return FVolumes[n - 1];
  }
  if (FVolumes.empty()) {
    if (FTable.Scheme() == TPartitionScheme::psNone)
      RaiseImageError(FPath, 0, "no partition table and no file system");
    RaiseImageError(FPath, kNoOffset, std::string("the ") + TPartitionTable::SchemeName(FTable.Scheme()) + " partition table lists no partition");
  }
  const std::vector<uint32_t> installs = Installations();
  if (installs.size() == 1) return FVolumes[installs[0] - 1];
  std::vector<uint32_t> ntfs;
  for (const TImageVolume& v : FVolumes)
    if (v.FileSystem == "NTFS") ntfs.push_back(v.Number);
  if (installs.empty() && ntfs.size() == 1) return FVolumes[ntfs[0] - 1];
  if (installs.size() > 1)
    RaiseImageError(FPath, kNoOffset, std::to_string(installs.size()) + " Windows installations; choose one with " + FPath + "@VOLUME");
  if (ntfs.empty()) {
    // A BitLocker volume is most likely the one meant; say what it needs.
    for (const TImageVolume& v : FVolumes)
      if (v.FileSystem == "BitLocker")
        RaiseImageError(VolumeName(v), kNoOffset,
                        "BitLocker-encrypted volume; reading it needs libbde, not supported yet");
    RaiseImageError(FPath, kNoOffset, "no NTFS volume");
  }
  RaiseImageError(FPath, kNoOffset, std::to_string(ntfs.size()) + " NTFS volumes; choose one with " + FPath + "@VOLUME");
}

std::string TEvidenceImage::VolumeName(const TImageVolume& AVolume, uint32_t ACopy) const {
  std::string name = AVolume.Number == 0 ? FPath + " volume at " + Hex(AVolume.Offset)
                                         : FPath + " volume " + std::to_string(AVolume.Number);
  if (ACopy) name += " shadow copy " + std::to_string(ACopy);
  return name;
}

std::string TEvidenceImage::VolumeRef(const TImageVolume& AVolume, uint32_t ACopy) {
  // Built by appending: GCC 12 warns falsely on "+" + std::to_string(...).
  std::string ref;
  if (AVolume.Number == 0) ref.push_back('+');
  ref.append(std::to_string(AVolume.Number ? AVolume.Number : AVolume.Offset));
  if (ACopy) ref.append(":vss").append(std::to_string(ACopy));
  return ref;
}

uint32_t TEvidenceImage::TakeShadow(std::string& AVolume, const std::string& AImage) {
  const size_t colon = AVolume.rfind(":vss");
  if (colon == std::string::npos) return 0;
  const std::string digits = AVolume.substr(colon + 4);
  char* end = nullptr;
  const unsigned long n = std::strtoul(digits.c_str(), &end, 10);
  if (digits.empty() || !end || *end || n == 0 || n > 100000)
    RaiseImageError(AImage, kNoOffset,
                    "shadow copy " + AVolume.substr(colon + 1) + " is not vss1, vss2, ...");
  AVolume.resize(colon);
  return static_cast<uint32_t>(n);
}

std::shared_ptr<TShadowCopies> TEvidenceImage::Shadows(const TImageVolume& AVolume) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  if (auto it = FShadows.find(AVolume.Offset); it != FShadows.end()) return it->second;
  // Only NTFS keeps shadow copies; any other volume is given as empty data, which has none.
  std::shared_ptr<const TReadStream> data =
      AVolume.FileSystem == "NTFS"
          ? VolumeStream(AVolume)
          : std::make_shared<TSubStream>(FContainer, AVolume.Offset, 0, VolumeName(AVolume));
  std::shared_ptr<TShadowCopies> copies = TShadowCopies::Open(std::move(data), VolumeName(AVolume));
  FShadows.emplace(AVolume.Offset, copies);
  return copies;
}

std::shared_ptr<const TReadStream> TEvidenceImage::ShadowStream(const TImageVolume& AVolume, uint32_t ACopy) {
  return Shadows(AVolume)->Store(ACopy, VolumeName(AVolume, ACopy));
}

std::shared_ptr<TNtfsVolume> TEvidenceImage::ShadowNtfs(const TImageVolume& AVolume, uint32_t ACopy) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  const auto key = std::make_pair(AVolume.Offset, ACopy);
  if (auto it = FShadowNtfs.find(key); it != FShadowNtfs.end()) return it->second;
  std::shared_ptr<TNtfsVolume> volume =
      TNtfsVolume::Open(ShadowStream(AVolume, ACopy), VolumeName(AVolume, ACopy));
  FShadowNtfs.emplace(key, volume);
  return volume;
}

std::shared_ptr<const TReadStream> TEvidenceImage::VolumeStream(const TImageVolume& AVolume) {
  if (AVolume.Offset == 0 && AVolume.Length == FContainer->Size()) return FContainer;
  return std::make_shared<TSubStream>(FContainer, AVolume.Offset, AVolume.Length, VolumeName(AVolume));
}

std::shared_ptr<TNtfsVolume> TEvidenceImage::Ntfs(const TImageVolume& AVolume) {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  if (auto it = FNtfs.find(AVolume.Offset); it != FNtfs.end()) return it->second;
  if (!AVolume.Unreadable.empty()) throw EImageError(VolumeName(AVolume) + ": " + AVolume.Unreadable);
  if (AVolume.FileSystem == "BitLocker")
    RaiseImageError(VolumeName(AVolume), kNoOffset, "BitLocker-encrypted volume; reading it needs libbde, not supported yet");
  if (AVolume.FileSystem != "NTFS")
    RaiseImageError(VolumeName(AVolume), AVolume.Offset,
                    AVolume.FileSystem.empty() ? "no NTFS file system" : AVolume.FileSystem + " volume, not NTFS");
  // What a truncated image lacks is named with each file that cannot be found or read.
  const std::string& lost = FContainer->MissingPart();
  const std::string missing = !lost.empty()   ? lost
                              : AVolume.CutShort ? "the volume runs past the end of the image (the image is truncated)"
                                                 : "";
  std::shared_ptr<TNtfsVolume> volume;
  try {
    volume = TNtfsVolume::Open(VolumeStream(AVolume), VolumeName(AVolume));
  } catch (const EImageError& e) {
    if (missing.empty()) throw;
    throw EImageError(e.what() + ("; " + missing));
  }
  volume->SetMissingPart(missing);
  FNtfs.emplace(AVolume.Offset, volume);
  return volume;
}

std::vector<uint32_t> TEvidenceImage::Installations() {
  std::lock_guard<std::recursive_mutex> lock(FLock);
  if (FInstallations) return *FInstallations;
  std::vector<uint32_t> found;
  for (const TImageVolume& v : FVolumes) {
    if (v.FileSystem != "NTFS") continue;
    try {
      TNtfsEntry entry;
      if (Ntfs(v)->Find("/Windows/System32/config/SOFTWARE", entry) && !entry.Folder) found.push_back(v.Number);
    } catch (const EImageError&) {
      // a damaged volume holds no installation we can read; listing says why
    }
  }
  FInstallations = found;
  return found;
}

} // namespace qvx
