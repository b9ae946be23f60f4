#include "images/image_opener.h"

#include "images/evidence_image.h"

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
  const std::string& Path() const override { return FName; }

private:
  std::shared_ptr<const TReadStream> FStream;
  std::string FName;
};

} // namespace

std::unique_ptr<TReadStream> OpenImageStream(const std::string& AName) {
  std::string image, volume, path;
  if (TEvidenceImage::SplitName(AName, image, volume, path)) {
    const std::shared_ptr<TEvidenceImage> evidence = TEvidenceImage::Open(image);
    const TImageVolume& v = evidence->Volume(volume);
    // "IMAGE@2::" alone is the volume's data (for scanning one partition).
    if (path == "/" && AName.ends_with("::")) return std::make_unique<TSharedStream>(evidence->VolumeStream(v), AName);
    return evidence->Ntfs(v)->OpenFile(path);
  }
  if (TEvidenceImage::IsContainerFile(AName)) return std::make_unique<TSharedStream>(TEvidenceImage::Open(AName)->Media(), AName);
  return nullptr;
}

void InstallImageOpener() { SetStreamOpener(OpenImageStream); }

} // namespace qvx
