#include "images/adler32.h"

#include "platform/cpu_features.h"

#include <zlib.h>

#include <algorithm>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#define QVX_ADLER_AVX2 1
#endif

namespace qvx {

namespace {

constexpr uint32_t kBase = 65521; // the largest prime below 2^16
// The most bytes after which the 32-bit sums cannot overflow before they are reduced
// (zlib's NMAX): 255 n (n + 1) / 2 + (n + 1) (kBase - 1) < 2^32.
constexpr size_t kNMax = 5552;

#ifdef QVX_ADLER_AVX2
uint32_t Bytewise(uint32_t AS1, uint32_t AS2, const uint8_t* AData, size_t ALength) {
  while (ALength > 0) {
    size_t n = std::min(ALength, kNMax);
    ALength -= n;
    while (n--) {
      AS1 += *AData++;
      AS2 += AS1;
    }
    AS1 %= kBase;
    AS2 %= kBase;
  }
  return AS2 << 16 | AS1;
}

__attribute__((target("avx2"))) uint64_t Sum32(__m256i AValue) {
  __m128i s = _mm_add_epi32(_mm256_castsi256_si128(AValue), _mm256_extracti128_si256(AValue, 1));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0x4E));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, 0xB1));
  return static_cast<uint32_t>(_mm_cvtsi128_si32(s));
}

// 32 bytes at a time. For a block of k vectors that starts with sums s1, s2:
//   s1' = s1 + (sum of all bytes)
//   s2' = s2 + 32 k s1 + 32 (sum over vectors j of the bytes of vectors 0..j-1)
//         + (sum over every byte of its weight 32 - its place in its vector)
// The third term is gathered by adding the running byte sum before each vector; the
// last by a multiply-add with the weights 32..1. Every lane stays far below 2^31 in a
// block of kNMax bytes, and the sums are reduced after each block.
__attribute__((target("avx2"))) uint32_t Avx2(uint32_t AS1, uint32_t AS2, const uint8_t* AData, size_t ALength) {
  const __m256i weights = _mm256_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17, 16, 15,
                                           14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
  const __m256i ones = _mm256_set1_epi16(1);
  const __m256i zero = _mm256_setzero_si256();
  constexpr size_t kBlock = kNMax / 32;
  while (ALength >= 32) {
    const size_t vectors = std::min(ALength / 32, kBlock);
    ALength -= vectors * 32;
    __m256i sum = zero;    // bytes so far, in four 64-bit lanes
    __m256i before = zero; // running sums before each vector
    __m256i weighted = zero;
    for (size_t i = 0; i < vectors; ++i) {
      const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(AData));
      AData += 32;
      before = _mm256_add_epi32(before, sum);
      sum = _mm256_add_epi32(sum, _mm256_sad_epu8(bytes, zero));
      weighted = _mm256_add_epi32(weighted, _mm256_madd_epi16(_mm256_maddubs_epi16(bytes, weights), ones));
    }
    const uint64_t s2 = AS2 + 32 * static_cast<uint64_t>(vectors) * AS1 + 32 * Sum32(before) + Sum32(weighted);
    AS1 = static_cast<uint32_t>((AS1 + Sum32(sum)) % kBase);
    AS2 = static_cast<uint32_t>(s2 % kBase);
  }
  return Bytewise(AS1, AS2, AData, ALength);
}
#endif

} // namespace

uint32_t Adler32(uint32_t AAdler, const uint8_t* AData, size_t ALength) {
#ifdef QVX_ADLER_AVX2
  static const bool avx2 = CpuHasAvx2();
  if (avx2) return Avx2(AAdler & 0xFFFF, (AAdler >> 16) & 0xFFFF, AData, ALength);
#endif
  // zlib's own (adler32_z is not the wrapped name).
  return static_cast<uint32_t>(adler32_z(AAdler, AData, ALength));
}

} // namespace qvx
