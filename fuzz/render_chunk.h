// Shared by the fuzz targets: renders a 64 KiB chunk whole, then each valid record on
// its own. A damaged record may raise EBinXMLLogReadingException; nothing may crash.
#pragma once

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_chunk.h"

#include <cstdint>
#include <string>

inline void FuzzRenderChunk(const uint8_t* AChunk) {
  qvx::TEvtxChunk chunk(AChunk);
  std::string xml = chunk.asXML();
  const int count = chunk.Count();
  for (int i = 0; i < count; ++i) {
    qvx::TEvtxEvent* event = chunk.GetEvent(i);
    if (event == nullptr || !event->Valid()) continue;
    try {
      xml = event->asXML();
    } catch (const qvx::EBinXMLLogReadingException&) {
      // expected for damaged binary XML
    }
  }
}
