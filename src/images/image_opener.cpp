#include "images/image_opener.h"

#include "images/evidence_image.h"
#include "platform/file_names.h"

namespace qvx {

namespace {

// A shared stream handed out as one the caller owns.
class TSharedStream : public TReadStream {
public:
  TSharedStream(std::shared_ptr<const TReadStream> AStream, std::string AName)
      : FStream(std::move(AStream)), FName(std::move(AName)) {}
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    return FStream->ReadAt(AOffset, ABuffer, ALength);
  }
  uint64_t Size() const override { return FStream->Size(); }
  bool ParallelReads() const override { return FStream->ParallelReads(); }
  const std::string& Path() const override { return FName; }

private:
  std::shared_ptr<const TReadStream> FStream;
  std::string FName;
};

// The NTFS volume of an image as a file system for path lookups.
class TNtfsFileSystem : public TFileSystem {
public:
  explicit TNtfsFileSystem(std::shared_ptr<TNtfsVolume> AVolume) : FVolume(std::move(AVolume)) {}
  bool Stat(const std::string& APath, TEntry& AEntry) override {
    TNtfsEntry entry;
    if (!FVolume->Find(APath, entry)) return false;
    AEntry = {entry.Name, entry.Folder, entry.Size};
    return true;
  }
  std::vector<TEntry> List(const std::string& APath) override {
    std::vector<TEntry> entries;
    for (TNtfsEntry& e : FVolume->List(APath)) entries.push_back({std::move(e.Name), e.Folder, e.Size});
    return entries;
  }

private:
  std::shared_ptr<TNtfsVolume> FVolume;
};

std::shared_ptr<TFileSystem> ImageFileSystem(const std::string& AName, std::string& APrefix, std::string& APath) {
  std::string image, volume;
  if (!TEvidenceImage::SplitName(AName, image, volume, APath)) return nullptr;
  try {
    const std::shared_ptr<TEvidenceImage> evidence = TEvidenceImage::Open(image);
    const uint32_t copy = TEvidenceImage::TakeShadow(volume, image);
    const TImageVolume& v = evidence->Volume(volume);
    // One spelling per volume, so that folder listings are cached once.
    APrefix = image + "@" + TEvidenceImage::VolumeRef(v, copy) + "::";
    return std::make_shared<TNtfsFileSystem>(copy ? evidence->ShadowNtfs(v, copy) : evidence->Ntfs(v));
  } catch (const std::exception&) {
    return nullptr; // the name then names nothing; opening it says why
  }
}

} // namespace

std::string ImageRootOf(const std::string& AImage) {
  std::string image = AImage, volume;
  if ((image.rfind('@') != std::string::npos || image.rfind(":vss") != std::string::npos) &&
      !TEvidenceImage::IsContainerFile(image)) {
    std::string dummy, path;
    if (TEvidenceImage::SplitName(image + "::/", dummy, volume, path)) image = dummy;
  }
  const std::shared_ptr<TEvidenceImage> evidence = TEvidenceImage::Open(image);
  const uint32_t copy = TEvidenceImage::TakeShadow(volume, image);
  const TImageVolume& v = evidence->Volume(volume);
  copy ? evidence->ShadowNtfs(v, copy) : evidence->Ntfs(v); // raises when the volume cannot be read
  return image + "@" + TEvidenceImage::VolumeRef(v, copy) + "::/";
}

std::unique_ptr<TReadStream> OpenImageStream(const std::string& AName) {
  std::string image, volume, path;
  if (TEvidenceImage::SplitName(AName, image, volume, path)) {
    const std::shared_ptr<TEvidenceImage> evidence = TEvidenceImage::Open(image);
    const uint32_t copy = TEvidenceImage::TakeShadow(volume, image);
    const TImageVolume& v = evidence->Volume(volume);
    // "IMAGE@2::" alone is the volume's data (for scanning one partition), and
    // "IMAGE@2:vss1::" the data of its shadow copy.
    if (path == "/" && AName.ends_with("::"))
      return std::make_unique<TSharedStream>(
          copy ? evidence->ShadowStream(v, copy) : evidence->VolumeStream(v), AName);
    return (copy ? evidence->ShadowNtfs(v, copy) : evidence->Ntfs(v))->OpenFile(path);
  }
  if (TEvidenceImage::IsContainerFile(AName)) return std::make_unique<TSharedStream>(TEvidenceImage::Open(AName)->Media(), AName);
  return nullptr;
}

void InstallImageOpener() {
  SetStreamOpener(OpenImageStream);
  SetFileSystemProvider(ImageFileSystem);
}

} // namespace qvx
