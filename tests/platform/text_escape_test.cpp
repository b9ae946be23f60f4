#include "platform/text_escape.h"

#include <gtest/gtest.h>

#include <string>

namespace qvx {
namespace {

// The escape of one byte, as JSON writes it.
std::string Escaped(char AByte) {
  switch (AByte) {
  case '"': return "\\\"";
  case '\\': return "\\\\";
  case '\n': return "\\n";
  case '\r': return "\\r";
  case '\t': return "\\t";
  default: {
    static const char kHex[] = "0123456789abcdef";
    const auto c = static_cast<unsigned char>(AByte);
    return std::string("\\u00") + kHex[c >> 4] + kHex[c & 15];
  }
  }
}

TEST(JsonString, PlainTextIsQuotedAsItIs) {
  std::string out = "x";
  AppendJsonString(out, "");
  AppendJsonString(out, "abc \xC3\xA9");
  EXPECT_EQ(out, "x\"\"\"abc \xC3\xA9\"");
}

// The escape test goes 16 bytes at a time and then over the rest in a padded copy: every
// special byte is found at every position of values of every length around those sizes.
TEST(JsonString, EscapesFoundAtEveryPositionAndLength) {
  for (const char special : {'"', '\\', '\n', '\r', '\t', '\x01', '\x1f', '\0'}) {
    for (size_t length = 1; length <= 40; ++length) {
      for (size_t at = 0; at < length; ++at) {
        std::string text(length, 'a');
        text[at] = special;
        std::string expected = "\"" + text.substr(0, at) + Escaped(special) + text.substr(at + 1) + "\"";
        std::string out = "[";
        AppendJsonString(out, text);
        ASSERT_EQ(out, "[" + expected) << "byte " << int(special) << " at " << at << " of " << length;
      }
    }
  }
}

TEST(JsonString, SeveralEscapesAndBytesAbove0x7F) {
  std::string out;
  AppendJsonString(out, std::string("\"\"\x7f\x80\xff\\a\x02", 8));
  EXPECT_EQ(out, "\"\\\"\\\"\x7f\x80\xff\\\\a\\u0002\"");
}

TEST(JsonString, ReadsNoByteOutsideTheView) {
  // A view into a longer text whose next byte needs an escape: it must not be seen.
  const std::string text = "abcdefghijklmnopqrstu\"";
  for (size_t length = 0; length + 1 < text.size(); ++length) {
    std::string out;
    AppendJsonString(out, std::string_view(text).substr(0, length));
    EXPECT_EQ(out, "\"" + text.substr(0, length) + "\"");
  }
}

} // namespace
} // namespace qvx
