#include "platform/utf16.h"

#include <gtest/gtest.h>

#include <vector>

namespace qvx {
namespace {

std::vector<uint8_t> Units(std::initializer_list<uint16_t> AUnits) {
  std::vector<uint8_t> bytes;
  for (uint16_t u : AUnits) {
    bytes.push_back(static_cast<uint8_t>(u));
    bytes.push_back(static_cast<uint8_t>(u >> 8));
  }
  return bytes;
}

TEST(Utf16Decode, SurrogatePairsBecomeOneCodePoint) {
  auto b = Units({0xD83D, 0xDE00}); // U+1F600
  EXPECT_EQ(Utf16ToUtf8(b.data(), 2), "\xF0\x9F\x98\x80");
}

TEST(Utf16Decode, UnpairedSurrogatesBecomeReplacementCharacter) {
  auto lone = Units({'a', 0xD800, 'b', 0xDC00});
  EXPECT_EQ(Utf16ToUtf8(lone.data(), 4), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
  auto atEnd = Units({0xDBFF});
  EXPECT_EQ(Utf16ToUtf8(atEnd.data(), 1), "\xEF\xBF\xBD");
}

TEST(Utf16Decode, EscapingWritesEntitiesAndDropsNul) {
  auto b = Units({'<', 'a', '&', '\'', '"', 0, '>', 0xE9});
  std::string out;
  AppendUtf16Escaped(out, b.data(), 8);
  EXPECT_EQ(out, "&lt;a&amp;&apos;&quot;&gt;\xC3\xA9");
}

TEST(Utf16Decode, EscapedTextAtTheWorstCaseOfEveryLengthIsWhole) {
  // '"' takes the most bytes a unit may take (6): short text is converted on the stack,
  // long text in the string; both end after what is already there.
  for (size_t count : {size_t{1}, size_t{63}, size_t{64}, size_t{65}, size_t{200}}) {
    std::vector<uint8_t> quotes, wide;
    std::string expectQuotes = "x", expectWide = "x";
    for (size_t i = 0; i < count; ++i) {
      quotes.insert(quotes.end(), {'"', 0});
      wide.insert(wide.end(), {0xAC, 0x20}); // U+20AC, 3 bytes
      expectQuotes += "&quot;";
      expectWide += "\xE2\x82\xAC";
    }
    std::string out = "x";
    AppendUtf16Escaped(out, quotes.data(), count);
    EXPECT_EQ(out, expectQuotes) << count;
    out = "x";
    AppendUtf16Escaped(out, wide.data(), count);
    EXPECT_EQ(out, expectWide) << count;
    out = "x";
    AppendUtf16(out, wide.data(), count);
    EXPECT_EQ(out, expectWide) << count;
  }
}

TEST(Utf16Decode, RoundTripThroughUtf8) {
  std::string text = "Gr\xC3\xBC\xC3\x9F" "e \xF0\x9F\x98\x80 \xE2\x82\xAC";
  std::u16string wide = Utf8ToUtf16(text);
  EXPECT_EQ(Utf16ToUtf8(wide), text);
  EXPECT_EQ(Utf16Length(text), 10u); // the emoji counts as two code units
  // Broken UTF-8 counts as the decoder reads it.
  for (std::string_view broken : {"\xC3", "a\xE2\x82", "\xF4\x90\x80\x80z", "\xF0\x9F\x98", "\xFF\xFE", "\x80x"})
    EXPECT_EQ(Utf16Length(broken), Utf8ToUtf16(broken).size()) << broken.size();
}

TEST(Utf16Decode, Cp1252HighRangeMapsToUnicode) {
  const uint8_t bytes[] = {0x80, 0x9F, 0xE9, 'x'};
  std::string out;
  AppendCp1252(out, bytes, 4);
  EXPECT_EQ(out, "\xE2\x82\xAC\xC5\xB8\xC3\xA9x");
}

} // namespace
} // namespace qvx
