// CRC32 (IEEE 802.3, the zlib polynomial), as used by the checksums of .evtx files.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx {

// Continues ACrc (0 to start) over ALength bytes.
uint32_t Crc32(const void* AData, size_t ALength, uint32_t ACrc = 0);

} // namespace qvx
