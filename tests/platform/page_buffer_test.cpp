#include "platform/page_buffer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

namespace qvx {
namespace {

// Every size, of either kind, can be written from its first byte to its last; a reserved
// buffer of at least 2 MB starts on a 2 MB boundary (where its large pages can lie).
TEST(PageBuffer, EveryByteIsUsableAndLargeReservationsAreAligned) {
  constexpr size_t kLarge = 2 * 1024 * 1024;
  for (TPageUse use : {TPageUse::puMapAll, TPageUse::puOnFirstUse}) {
    for (size_t size : {size_t{4096}, size_t{512 * 1024}, kLarge, 8 * kLarge + 12288}) {
      TPageBuffer buffer(size, use);
      ASSERT_NE(buffer.Data(), nullptr);
      EXPECT_EQ(buffer.Size(), size);
      uint8_t* d = buffer.Data();
      std::memset(d, 0x5A, 4096);
      std::memset(d + size - 4096, 0xA5, 4096);
      for (size_t at = 0; at < size; at += 64 * 1024) d[at] = static_cast<uint8_t>(at >> 16);
      EXPECT_EQ(d[size - 1], 0xA5) << size;
      if (size > 64 * 1024) {
        EXPECT_EQ(d[64 * 1024], 1) << size;
      }
#if defined(__linux__)
      if (use == TPageUse::puOnFirstUse && size >= kLarge) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(d) % kLarge, 0u) << size;
      }
#endif
    }
  }
}

} // namespace
} // namespace qvx
