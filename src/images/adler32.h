// Adler-32 (RFC 1950), the checksum EWF images store after each chunk they keep
// uncompressed.
//
// libewf verifies that checksum on every chunk it reads, through zlib's adler32, which
// adds one byte at a time; on an image acquired without compression that is the largest
// cost of reading a file from it. The images library is linked with
// `--wrap=adler32`, so that the libyal code linked into the program calls Adler32 below
// instead: the same value, 32 bytes at a time where the processor has AVX2
// (zlib's adler32_z elsewhere).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx {

// Continues AAdler (1 to start) over ALength bytes; the value zlib's adler32 gives.
uint32_t Adler32(uint32_t AAdler, const uint8_t* AData, size_t ALength);

} // namespace qvx
