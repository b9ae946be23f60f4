#include "engine/evtx/evtx_common.h"

#include "platform/read_stream.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace qvx {

TEvtxCommon::TEvtxCommon(const TReadStream* AFileHandle) : FFileHandle(AFileHandle) {
  if (AFileHandle) FFileSize = AFileHandle->Size();
}

bool TEvtxCommon::Valid() {
  if (!FLoaded) Load();
  return FValid;
}

void TEvtxCommon::Load() {
  FLoaded = true;
  size_t magicLength = std::strlen(FMagic);
  if (Length == 0 || magicLength == 0 || !FFileHandle) return;
  uint64_t pos = std::min<uint64_t>(Start, FFileSize);
  uint64_t want = std::min<uint64_t>(Length, FFileSize - pos);
  FBuffer.resize(static_cast<size_t>(want));
  size_t got = 0;
  try {
    got = FFileHandle->ReadAt(pos, FBuffer.data(), FBuffer.size());
  } catch (const std::exception&) {
    got = 0; // an unreadable block is a short read
  }
  FBuffer.resize(got);
  if (got != Length) return;
  FValid = got >= magicLength && std::memcmp(FBuffer.data(), FMagic, magicLength) == 0;
  if (FValid) FValid = Parse();
}

} // namespace qvx
