#include "images/adler32.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <random>
#include <vector>

extern "C" unsigned long __wrap_adler32(unsigned long AAdler, const unsigned char* AData, unsigned int ALength);

namespace qvx {
namespace {

// zlib's adler32_z is the reference: the program's calls to adler32 are wrapped.
uint32_t Reference(uint32_t AAdler, const std::vector<uint8_t>& AData, size_t AFrom, size_t ALength) {
  return static_cast<uint32_t>(adler32_z(AAdler, AData.data() + AFrom, ALength));
}

TEST(Adler32, KnownValues) {
  EXPECT_EQ(Adler32(1, nullptr, 0), 1u);
  const std::string text = "Wikipedia";
  EXPECT_EQ(Adler32(1, reinterpret_cast<const uint8_t*>(text.data()), text.size()), 0x11E60398u);
}

TEST(Adler32, MatchesZlibAtEveryLengthAndAlignment) {
  std::mt19937 random(15);
  std::vector<uint8_t> data(70000);
  for (uint8_t& b : data) b = static_cast<uint8_t>(random());
  for (size_t length = 0; length <= 300; ++length)
    for (size_t from = 0; from < 4; ++from)
      ASSERT_EQ(Adler32(1, data.data() + from, length), Reference(1, data, from, length)) << length << " at " << from;
  // Lengths around the blocks after which the sums are reduced, and an EWF chunk.
  for (const size_t length : {5535u, 5536u, 5552u, 5553u, 11072u, 32768u, 65536u, 69999u})
    EXPECT_EQ(Adler32(1, data.data() + 1, length), Reference(1, data, 1, length)) << length;
}

TEST(Adler32, WorstCaseBytesDoNotOverflow) {
  const std::vector<uint8_t> full(100000, 0xFF);
  for (const size_t length : {31u, 32u, 5536u, 5552u, 32768u, 100000u})
    EXPECT_EQ(Adler32(1, full.data(), length), Reference(1, full, 0, length)) << length;
  // A running value near the modulus, continued.
  const uint32_t start = (65520u << 16) | 65520u;
  EXPECT_EQ(Adler32(start, full.data(), full.size()), Reference(start, full, 0, full.size()));
}

TEST(Adler32, WrappedAdler32GivesZlibsValue) {
  std::vector<uint8_t> data(32768);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + 3);
  EXPECT_EQ(adler32(1, data.data(), static_cast<uInt>(data.size())), Reference(1, data, 0, data.size()));
  EXPECT_EQ(adler32(0, nullptr, 0), 1u);
#ifdef __linux__
  // --wrap=adler32 sends every call of the program's own objects and static libraries
  // (libewf's included) to __wrap_adler32: without it the two addresses differ.
  EXPECT_EQ(reinterpret_cast<void*>(&adler32), reinterpret_cast<void*>(&__wrap_adler32));
#endif
}

} // namespace
} // namespace qvx
