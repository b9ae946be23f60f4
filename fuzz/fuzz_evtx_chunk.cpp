// Fuzz target: one EVTX chunk.
//
// The input, cut or zero-padded to 64 KiB, is decoded as a chunk; the whole chunk is
// rendered, then each valid record on its own. Rendering a damaged chunk must not
// crash or leak; a damaged record may raise EBinXMLLogReadingException.
//
// Seeds: chunks cut from a file written by `quorvex demo` (see build.sh fuzz).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "render_chunk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  using qvx::evtx::kChunkSize;
  // TEvtxChunk copies exactly 64 KiB from here into its own buffer.
  std::vector<uint8_t> bytes(kChunkSize, 0);
  if (ASize > 0) std::memcpy(bytes.data(), AData, std::min<size_t>(ASize, kChunkSize));

  FuzzRenderChunk(bytes.data());
  return 0;
}
