#include "platform/read_stream.h"

#include "platform/raw_file.h"

#include <algorithm>

namespace qvx {

TSubStream::TSubStream(std::shared_ptr<const TReadStream> ABase, uint64_t AOffset, uint64_t ALength, std::string AName)
    : FBase(std::move(ABase)), FOffset(AOffset), FLength(ALength), FName(std::move(AName)) {}

size_t TSubStream::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  if (AOffset >= FLength) return 0;
  const size_t length = static_cast<size_t>(std::min<uint64_t>(ALength, FLength - AOffset));
  return FBase->ReadAt(FOffset + AOffset, ABuffer, length);
}

TExtentStream::TExtentStream(std::shared_ptr<const TReadStream> ABase, std::vector<TExtent> AExtents,
                             std::string AName)
    : FBase(std::move(ABase)), FExtents(std::move(AExtents)), FName(std::move(AName)) {
  FStarts.reserve(FExtents.size());
  for (const TExtent& extent : FExtents) {
    FStarts.push_back(FSize);
    FSize += extent.Length;
  }
}

uint64_t TExtentStream::BaseOffset(uint64_t AOffset) const {
  if (AOffset >= FSize) return AOffset;
  const size_t i = static_cast<size_t>(std::upper_bound(FStarts.begin(), FStarts.end(), AOffset) - FStarts.begin()) - 1;
  return FExtents[i].BaseOffset + (AOffset - FStarts[i]);
}

size_t TExtentStream::ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const {
  size_t total = 0;
  if (AOffset >= FSize) return 0;
  size_t i = static_cast<size_t>(std::upper_bound(FStarts.begin(), FStarts.end(), AOffset) - FStarts.begin()) - 1;
  while (total < ALength && i < FExtents.size()) {
    const uint64_t within = AOffset + total - FStarts[i];
    const size_t want = static_cast<size_t>(std::min<uint64_t>(ALength - total, FExtents[i].Length - within));
    const size_t got = FBase->ReadAt(FExtents[i].BaseOffset + within, static_cast<char*>(ABuffer) + total, want);
    total += got;
    if (got < want) break;
    ++i;
  }
  return total;
}

namespace {
TStreamOpener& Opener() {
  static TStreamOpener opener;
  return opener;
}
} // namespace

void SetStreamOpener(TStreamOpener AOpener) { Opener() = std::move(AOpener); }

std::unique_ptr<TReadStream> OpenReadStream(const std::string& APath) {
  if (const TStreamOpener& opener = Opener())
    if (std::unique_ptr<TReadStream> stream = opener(APath)) return stream;
  return std::make_unique<TRawFile>(TRawFile::Open(APath));
}

} // namespace qvx
