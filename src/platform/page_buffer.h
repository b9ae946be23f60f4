// TPageBuffer: a large read buffer taken straight from the system, its pages mapped in
// one call rather than faulted in one by one on first use.
#pragma once

#include <cstddef>
#include <cstdint>

namespace qvx {

class TPageBuffer {
public:
  // Allocates ASize bytes (contents unspecified). Raises std::bad_alloc when it cannot.
  explicit TPageBuffer(size_t ASize);
  ~TPageBuffer();
  TPageBuffer(const TPageBuffer&) = delete;
  TPageBuffer& operator=(const TPageBuffer&) = delete;

  uint8_t* Data() const { return FData; }
  size_t Size() const { return FSize; }

private:
  uint8_t* FData = nullptr;
  size_t FSize = 0;
  bool FMapped = false;
};

} // namespace qvx
