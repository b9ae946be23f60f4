#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_time.h"
#include "engine/evtx/variant_types.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace qvx {
namespace {

// Renders a value held in ABytes the way the decoder does: measure, then text.
std::string Render(uint8_t ACode, const std::vector<uint8_t>& ABytes, uint32_t AMode = kVarModeSubstitution) {
  uint32_t used = MeasureVariant(ACode, ABytes.data(), static_cast<uint32_t>(ABytes.size()), AMode);
  std::string out;
  AppendVariantXml(out, ACode, ABytes.data(), used, AMode);
  return out;
}

std::string ErrorOf(uint8_t ACode, const std::vector<uint8_t>& ABytes, uint32_t AMode = kVarModeSubstitution) {
  try {
    MeasureVariant(ACode, ABytes.data(), static_cast<uint32_t>(ABytes.size()), AMode);
  } catch (const EBinXMLLogReadingException& e) {
    return e.what();
  }
  return "no error";
}

std::vector<uint8_t> Utf16(std::u16string_view s) {
  std::vector<uint8_t> b;
  for (char16_t c : s) {
    b.push_back(static_cast<uint8_t>(c));
    b.push_back(static_cast<uint8_t>(c >> 8));
  }
  return b;
}

TEST(VariantText, IntegersSignedAndUnsigned) {
  EXPECT_EQ(Render(0x03, {0xFF}), "-1");
  EXPECT_EQ(Render(0x04, {0xFF}), "255");
  EXPECT_EQ(Render(0x05, {0x00, 0x80}), "-32768");
  EXPECT_EQ(Render(0x06, {0x00, 0x80}), "32768");
  EXPECT_EQ(Render(0x07, {0xFF, 0xFF, 0xFF, 0xFF}), "-1");
  EXPECT_EQ(Render(0x08, {0xFF, 0xFF, 0xFF, 0xFF}), "4294967295");
  EXPECT_EQ(Render(0x09, std::vector<uint8_t>(8, 0xFF)), "-1");
  EXPECT_EQ(Render(0x0A, std::vector<uint8_t>(8, 0xFF)), "18446744073709551615");
}

TEST(VariantText, BooleanIsTrueForAnyNonZero) {
  EXPECT_EQ(Render(0x0D, {2, 0, 0, 0}), "true");
  EXPECT_EQ(Render(0x0D, {0, 0, 0, 0}), "false");
}

TEST(VariantText, SizeValueZeroExtendsFourBytesAndSignsEight) {
  EXPECT_EQ(Render(0x10, {0xFF, 0xFF, 0xFF, 0xFF}), "4294967295");
  EXPECT_EQ(Render(0x10, std::vector<uint8_t>(8, 0xFF)), "-1");
  EXPECT_EQ(ErrorOf(0x10, {1, 2}), "Var10: bad size");
}

TEST(VariantText, HexIntegersKeepTheirPrefixAsymmetry) {
  EXPECT_EQ(Render(0x14, {0xF4, 0x01, 0, 0}), "0X000001F4");
  EXPECT_EQ(Render(0x15, {0xF4, 0x01, 0, 0, 0, 0, 0, 0}), "0x00000000000001F4");
}

TEST(VariantText, SidAuthorityAndSubAuthorities) {
  EXPECT_EQ(Render(0x13, {0x01, 0x02, 0, 0, 0, 0, 0, 5, 0x15, 0, 0, 0, 0x20, 0, 0, 0}), "S-1-5-21-32");
  EXPECT_EQ(Render(0x13, {0x01, 0x01, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}), "S-1-5-18");
  EXPECT_EQ(ErrorOf(0x13, {0x02, 0, 0, 0, 0, 0, 0, 5}), "Var13: unknown version?");
  EXPECT_EQ(ErrorOf(0x13, {0x01, 0x02, 0, 0, 0, 0, 0, 5, 1, 0, 0, 0}), "Var-13: bad size");
  EXPECT_EQ(ErrorOf(0x13, {0x01, 0x02}), "Var13: bad size");
}

TEST(VariantText, GuidIsBracedUpperCase) {
  std::vector<uint8_t> g = {0x25, 0x96, 0x84, 0x54, 0x78, 0x54, 0x94, 0x49,
                            0xA5, 0xBA, 0x3E, 0x3B, 0x03, 0x28, 0xC3, 0x0D};
  EXPECT_EQ(Render(0x0F, g), "{54849625-5478-4994-A5BA-3E3B0328C30D}");
}

TEST(VariantText, BinaryIsUpperHexWithoutSeparators) {
  EXPECT_EQ(Render(0x0E, {0x00, 0xAB, 0x7F}), "00AB7F");
  // In the token stream a 32-bit length comes first.
  EXPECT_EQ(Render(0x0E, {2, 0, 0, 0, 0xDE, 0xAD, 0x99}, kVarModeStream), "DEAD");
  EXPECT_EQ(ErrorOf(0x0E, {5, 0, 0, 0, 1}, kVarModeStream), "Var-0E: bad size");
  EXPECT_EQ(ErrorOf(0x0E, {5, 0}, kVarModeStream), "Var0E: bad size");
}

TEST(VariantText, StringsInTheStreamStopAtTheFirstNul) {
  std::vector<uint8_t> v = {3, 0};
  auto text = Utf16(u"ab");
  v.insert(v.end(), text.begin(), text.end());
  v.push_back(0);
  v.push_back(0);
  EXPECT_EQ(Render(0x01, v, kVarModeStream), "ab");
  EXPECT_EQ(ErrorOf(0x01, {4, 0, 'a', 0}, kVarModeStream), "Var01: read behind end of data");
  EXPECT_EQ(ErrorOf(0x01, {4}, kVarModeStream), "Var01: bad size");
}

TEST(VariantText, SubstitutionStringsAreEscapedAndLoseNuls) {
  EXPECT_EQ(Render(0x01, Utf16(u"a<b&\"c'>\0")), "a&lt;b&amp;&quot;c&apos;&gt;");
  EXPECT_EQ(Render(0x02, {'x', '<', 0x80}), "x&lt;\xE2\x82\xAC");
}

TEST(VariantText, AnsiTextKeepsPlainRunsAndEscapesBetweenThem) {
  // Plain runs at the start, the middle and the end, broken by every byte that is not copied.
  const std::string in = std::string("ab") + '\0' + "cd&ef'\"<>gh" + '\x80' + '\xE9' + "ij" + '\x9F';
  std::vector<uint8_t> bytes(in.begin(), in.end());
  EXPECT_EQ(Render(0x02, bytes), "abcd&amp;ef&apos;&quot;&lt;&gt;gh\xE2\x82\xAC\xC3\xA9ij\xC5\xB8");
  EXPECT_EQ(Render(0x02, {'>'}), "&gt;");
  EXPECT_EQ(Render(0x02, {0}), "");
  EXPECT_EQ(Render(0x02, {}), "");
}

TEST(VariantText, HexIntegersShowEveryDigit) {
  EXPECT_EQ(Render(0x14, {0xEF, 0xCD, 0xAB, 0x89}), "0X89ABCDEF");
  EXPECT_EQ(Render(0x15, {0x10, 0x32, 0x54, 0x76, 0x98, 0xBA, 0xDC, 0xFE}), "0xFEDCBA9876543210");
  EXPECT_EQ(Render(0x15, {0, 0, 0, 0, 0, 0, 0, 0x80}), "0x8000000000000000");
}

TEST(VariantText, FloatingPointIsShortestRoundTrip) {
  float f = 1.5f;
  std::vector<uint8_t> fb(4);
  std::memcpy(fb.data(), &f, 4);
  EXPECT_EQ(Render(0x0B, fb), "1.5");
  double d = 0.1;
  std::vector<uint8_t> db(8);
  std::memcpy(db.data(), &d, 8);
  EXPECT_EQ(Render(0x0C, db), "0.1");
}

TEST(VariantText, FiletimeHasSevenZeroPaddedDigits) {
  // 2019-03-04T05:06:07 UTC; fractions of 0, 1 unit, 0.0001234 s and 0.9999999 s.
  const uint64_t base = 131961495670000000ULL;
  EXPECT_EQ(FiletimeToText(base), "2019-03-04T05:06:07.0000000Z");
  EXPECT_EQ(FiletimeToText(base + 1), "2019-03-04T05:06:07.0000001Z");
  EXPECT_EQ(FiletimeToText(base + 1234), "2019-03-04T05:06:07.0001234Z");
  EXPECT_EQ(FiletimeToText(base + 456789), "2019-03-04T05:06:07.0456789Z");
  EXPECT_EQ(FiletimeToText(0), "1601-01-01T00:00:00.0000000Z");
  std::vector<uint8_t> b(8);
  uint64_t t = base + 9'999'999;
  std::memcpy(b.data(), &t, 8);
  EXPECT_EQ(Render(0x11, b), "2019-03-04T05:06:07.9999999Z");
  // Above 2^63 the value is taken as signed: before 1601, still a full text.
  EXPECT_EQ(FiletimeToText(~0ULL), "1600-12-31T23:59:59.9999999Z");
  // Four-digit years are made in place; the years around them as before.
  EXPECT_EQ(FiletimeToText(2650467743999999999ULL), "9999-12-31T23:59:59.9999999Z");
  EXPECT_EQ(FiletimeToText(2650467744000000000ULL), "10000-01-01T00:00:00.0000000Z");
  EXPECT_EQ(FiletimeToText(0x7FFFFFFFFFFFFFFFULL), "30828-09-14T02:48:05.4775807Z");
}

TEST(VariantText, SystemtimeIsIso8601WithMilliseconds) {
  // 2020-01-02 (Thursday) 03:04:05.006
  EXPECT_EQ(Render(0x12, {0xE4, 0x07, 1, 0, 4, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0}), "2020-01-02T03:04:05.006Z");
}

TEST(VariantArrays, ElementsAreNumberedOnePerLine) {
  // The numbered form stands where an array cannot repeat its element (attributes).
  EXPECT_EQ(Render(0x86, {1, 0, 2, 0}), "[0] 1\r\n[1] 2");
  EXPECT_EQ(Render(0x81, Utf16(std::u16string(u"one\0two\0", 8))), "[0] one\r\n[1] two");
  EXPECT_EQ(Render(0x94, {0xF4, 0x01, 0, 0}), "[0] 0X000001F4");
}

TEST(VariantArrays, SizeRulesAndMessages) {
  EXPECT_EQ(ErrorOf(0x86, {1, 0, 2}), "Var86: Odd length");
  EXPECT_EQ(ErrorOf(0x86, {}), "no error"); // an empty array has no items
  EXPECT_EQ(ErrorOf(0x84, {1, 2}, kVarModeStream), "Var84: Unknown value");
  EXPECT_EQ(ErrorOf(0x83, {}), "no error");
  EXPECT_EQ(ErrorOf(0x81, {}), "no error");
  EXPECT_EQ(ErrorOf(0x81, {1, 0, 2}), "Var-81: bad size");
  EXPECT_EQ(ErrorOf(0x89, {1, 2, 3}), "Var89: Odd length");
  EXPECT_EQ(ErrorOf(0x89, {}), "no error");
}

TEST(VariantSizes, ScalarsNeedTheirWidth) {
  EXPECT_EQ(ErrorOf(0x08, {1, 2}), "Var08: bad size");
  EXPECT_EQ(ErrorOf(0x0F, std::vector<uint8_t>(15)), "Var0F: bad size");
  EXPECT_EQ(ErrorOf(0x12, std::vector<uint8_t>(15)), "Var12: bad size");
  // A null substitution takes its declared size; in the stream it must have none.
  EXPECT_EQ(MeasureVariant(0x00, nullptr, 2, kVarModeSubstitution), 2u);
  EXPECT_EQ(ErrorOf(0x00, {0}, kVarModeStream), "Var00: Null object too large!");
}

TEST(VariantSizes, CodesWithoutAClassRaiseTheDefaultMessage) {
  for (uint8_t code : {0x16, 0x20, 0x82, 0x8D, 0x8E, 0x90, 0x93}) {
    EXPECT_FALSE(IsVariantCode(code)) << int(code);
    EXPECT_EQ(ErrorOf(code, {1, 2, 3, 4}), "BinXML read error") << int(code);
  }
}

TEST(VariantClass, CreateChecksSizeAndOffsetAndParsesLazily) {
  std::vector<uint8_t> chunk(65536, 0);
  chunk[100] = 0xF4;
  chunk[101] = 0x01;
  TVariantType14 v(chunk.data(), 100, 4, kVarModeSubstitution);
  EXPECT_TRUE(v.Valid());
  EXPECT_EQ(v.asXML(), "0X000001F4");
  EXPECT_THROW(TVariantType08(chunk.data(), 0, 0xFE00, kVarModeSubstitution), EBinXMLLogReadingException);
  EXPECT_THROW(TVariantType08(chunk.data(), 0x10000, 4, kVarModeSubstitution), EBinXMLLogReadingException);
}

} // namespace
} // namespace qvx
