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

// What AppendUtf16Escaped gives for text without surrogates, one unit at a time.
std::string EscapedByUnit(const std::u16string& AText) {
  std::string out;
  for (char16_t c : AText) {
    switch (c) {
    case 0: break;
    case '&': out += "&amp;"; break;
    case '\'': out += "&apos;"; break;
    case '"': out += "&quot;"; break;
    case '<': out += "&lt;"; break;
    case '>': out += "&gt;"; break;
    default:
      if (c < 0x80) out.push_back(static_cast<char>(c));
      else if (c < 0x800) out += {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
      else
        out += {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                static_cast<char>(0x80 | (c & 0x3F))};
    }
  }
  return out;
}

TEST(Utf16Decode, EveryLengthAndPlaceOfAnOddUnitMatchesTheUnitByUnitText) {
  // Plain text of 1 to 24 units with one unit to escape, drop or encode at each place:
  // the blocks of 8, the overlapping last block and the unit-by-unit path must agree.
  for (char16_t odd : {u'<', u'&', u'\0', u'\u00E9', u'\u20AC', u'"'}) {
    for (size_t count = 1; count <= 24; ++count) {
      for (size_t at = 0; at <= count; ++at) { // at == count: no odd unit
        std::u16string text;
        for (size_t i = 0; i < count; ++i) text.push_back(i == at ? odd : static_cast<char16_t>('a' + i));
        std::vector<uint8_t> bytes;
        for (char16_t c : text) bytes.insert(bytes.end(), {static_cast<uint8_t>(c), static_cast<uint8_t>(c >> 8)});
        std::string out = "x";
        AppendUtf16Escaped(out, bytes.data(), count);
        EXPECT_EQ(out, "x" + EscapedByUnit(text)) << "count " << count << " at " << at;
      }
    }
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
