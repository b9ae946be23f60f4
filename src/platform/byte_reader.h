// Bounds-checked little-endian reads over a span of untrusted bytes.
//
// Every read of file data goes through TByteReader. A read that does not fit
// answers with the caller's default (the free functions) or with false (Fits),
// never by touching memory outside the span. Offsets are 64-bit and the sum
// offset + length is checked for overflow in one place, Fits().
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace qvx {

// Whether the ASize bytes at A and B are the same, compared inline: the values compared
// on hot paths (system values, field names) are a few bytes, where a call to memcmp costs
// more than the compare. Reads nothing when ASize is 0, so null addresses are fine then.
inline bool SameBytes(const void* A, const void* B, size_t ASize) {
  const auto* a = static_cast<const unsigned char*>(A);
  const auto* b = static_cast<const unsigned char*>(B);
  size_t i = 0;
  for (; ASize - i >= 8; i += 8) {
    uint64_t x, y;
    std::memcpy(&x, a + i, 8);
    std::memcpy(&y, b + i, 8);
    if (x != y) return false;
  }
  for (; i < ASize; ++i)
    if (a[i] != b[i]) return false;
  return true;
}

class TByteReader {
public:
  TByteReader() = default;
  explicit TByteReader(std::span<const uint8_t> AData) : FData(AData) {}
  TByteReader(const uint8_t* AData, size_t ASize) : FData(AData, ASize) {}

  size_t Size() const { return FData.size(); }
  const uint8_t* Data() const { return FData.data(); }

  // True when [AOffset, AOffset + ALength) lies inside the span.
  bool Fits(uint64_t AOffset, uint64_t ALength) const {
    return AOffset <= FData.size() && ALength <= FData.size() - AOffset;
  }

  // Reads that do not fit give 0.
  uint8_t ReadU8(uint64_t AOffset) const { return Fits(AOffset, 1) ? FData[AOffset] : 0; }
  uint16_t ReadU16(uint64_t AOffset) const { return Load<uint16_t>(AOffset); }
  uint32_t ReadU32(uint64_t AOffset) const { return Load<uint32_t>(AOffset); }
  uint64_t ReadU64(uint64_t AOffset) const { return Load<uint64_t>(AOffset); }

  // The bytes at [AOffset, AOffset + ALength), or an empty span when they do not fit.
  std::span<const uint8_t> ReadBytes(uint64_t AOffset, uint64_t ALength) const {
    if (!Fits(AOffset, ALength)) return {};
    return FData.subspan(static_cast<size_t>(AOffset), static_cast<size_t>(ALength));
  }

  // A reader over [AOffset, AOffset + ALength), cut to what the span holds.
  TByteReader Sub(uint64_t AOffset, uint64_t ALength) const {
    if (AOffset >= FData.size()) return {};
    uint64_t avail = FData.size() - AOffset;
    return TByteReader(FData.subspan(static_cast<size_t>(AOffset),
                                     static_cast<size_t>(ALength < avail ? ALength : avail)));
  }

private:
  template <typename T> T Load(uint64_t AOffset) const {
    if (!Fits(AOffset, sizeof(T))) return 0;
    T value;
    std::memcpy(&value, FData.data() + AOffset, sizeof(T));
    return value; // all supported hosts are little-endian (checked in byte_reader.cpp)
  }

  std::span<const uint8_t> FData;
};

// Unchecked little-endian loads for hot paths whose caller has already checked Fits().
inline uint16_t LoadU16(const uint8_t* p) { uint16_t v; std::memcpy(&v, p, 2); return v; }
inline uint32_t LoadU32(const uint8_t* p) { uint32_t v; std::memcpy(&v, p, 4); return v; }
inline uint64_t LoadU64(const uint8_t* p) { uint64_t v; std::memcpy(&v, p, 8); return v; }

} // namespace qvx
