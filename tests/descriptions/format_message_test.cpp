#include "descriptions/format_message.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qvx {
namespace {

// The formatted text, or "<failed>" where FormatMessageText fails.
std::string Format(std::string_view ATemplate, const std::vector<std::string>& AArguments = {}, uint32_t AFlags = 0) {
  std::string out;
  return FormatMessageText(ATemplate, AArguments, AFlags, out) ? out : "<failed>";
}

std::vector<std::string> Numbered(int ACount) {
  std::vector<std::string> arguments;
  for (int i = 1; i <= ACount; ++i) arguments.push_back(std::string(1, 'a').append(std::to_string(i)));
  return arguments;
}

TEST(FormatMessageInserts, ReplacesNumberedArguments) {
  EXPECT_EQ(Format("%1 logged on from %2", {"alice", "10.0.0.1"}), "alice logged on from 10.0.0.1");
  EXPECT_EQ(Format("%2-%1-%2", {"x", "y"}), "y-x-y");
}

TEST(FormatMessageInserts, ReadsTwoDigitsAtMost) {
  EXPECT_EQ(Format("%12", Numbered(12)), "a12");
  EXPECT_EQ(Format("%12", Numbered(1)), ""); // %12, not %1 then "2"
  EXPECT_EQ(Format("%100", Numbered(10)), "a100");
  EXPECT_EQ(Format("%99|", Numbered(99)), "a99|");
}

TEST(FormatMessageInserts, MissingArgumentIsEmpty) {
  EXPECT_EQ(Format("[%5]", Numbered(3)), "[]");
  EXPECT_EQ(Format("[%1!5s!]"), "[     ]");
}

TEST(FormatMessageInserts, UnterminatedFormatFails) {
  EXPECT_EQ(Format("%1!s", {"a"}), "<failed>");
  EXPECT_EQ(Format("%1!", {"a"}), "<failed>");
}

TEST(FormatMessageStrings, WidthAndPrecision) {
  EXPECT_EQ(Format("%1!5s!|", {"a"}), "    a|");
  EXPECT_EQ(Format("%1!-5s!|", {"a"}), "a    |");
  EXPECT_EQ(Format("%1!.2s!", {"abcd"}), "ab");
  EXPECT_EQ(Format("%1!3.1s!", {"abcd"}), "  a");
  EXPECT_EQ(Format("%1!2s!", {"abcd"}), "abcd");
  EXPECT_EQ(Format("%1!S!%1!ls!%1!hs!", {"x"}), "xxx");
}

TEST(FormatMessageStrings, CountsUtf16Units) {
  EXPECT_EQ(Format("%1!3s!|", {"\xC3\xA9"}), "  \xC3\xA9|");             // é: one unit
  EXPECT_EQ(Format("%1!3s!|", {"\xF0\x9F\x98\x80"}), " \xF0\x9F\x98\x80|"); // U+1F600: two units
  EXPECT_EQ(Format("%1!.1s!", {"\xC3\xA9z"}), "\xC3\xA9");
  EXPECT_EQ(Format("%1!.1s!", {"\xF0\x9F\x98\x80"}), "\xEF\xBF\xBD"); // half a pair
}

TEST(FormatMessageStrings, StarsTakeTheNextArguments) {
  // Argument arrays: width from %1, precision from %2, text from %3.
  EXPECT_EQ(Format("%1!*.*s!|%4", {"5", "2", "abcd", "next"}), "   ab|next");
  EXPECT_EQ(Format("%1!*s!|", {"-4", "ab"}), "ab  |");
  EXPECT_EQ(Format("%1!*s!|", {"0x3", "ab"}), " ab|");
}

TEST(FormatMessageNumbers, FormatsNumericText) {
  EXPECT_EQ(Format("%1!08X!", {"255"}), "000000FF");
  EXPECT_EQ(Format("%1!d!", {"-7"}), "-7");
  EXPECT_EQ(Format("%1!u!", {"-7"}), "4294967289");
  EXPECT_EQ(Format("%1!x!", {"-1"}), "ffffffff");
  EXPECT_EQ(Format("%1!I64x!", {"-1"}), "ffffffffffffffff");
  EXPECT_EQ(Format("%1!I64u!", {"18446744073709551615"}), "18446744073709551615");
  EXPECT_EQ(Format("%1!ld!", {"0xFFFFFFFF"}), "-1");
  EXPECT_EQ(Format("%1!o!", {"8"}), "10");
  EXPECT_EQ(Format("%1!#x!|%1!#o!", {"255"}), "0xff|0377");
  EXPECT_EQ(Format("%1!+d!|%1!-5i!|%1!5.3d!", {"42"}), "+42|42   |  042");
  EXPECT_EQ(Format("%1!-08d!|%1!08.3d!", {"-42"}), "-42     |    -042");
  EXPECT_EQ(Format("%1!c!%2!c!", {"65", "0xE9"}), "A\xC3\xA9");
}

TEST(FormatMessageNumbers, NonNumericTextIsInsertedUnchanged) {
  EXPECT_EQ(Format("%1!08X!|%2!d!", {"abc", "12x"}), "abc|12x");
  EXPECT_EQ(Format("%1!f!", {"1.5"}), "1.5");
}

TEST(FormatMessageEscapes, SingleCharacters) {
  EXPECT_EQ(Format("100%% done"), "100% done");
  EXPECT_EQ(Format("a%nb"), "a\r\nb");
  EXPECT_EQ(Format("a%rb%tc%bd"), "a\rb\tc d");
  EXPECT_EQ(Format("%.x% y%!"), ".x y!");
  EXPECT_EQ(Format("%1%!", {"v"}), "v!");
}

TEST(FormatMessageEscapes, ZeroEndsTheOutput) {
  EXPECT_EQ(Format("a%0b"), "a");
  EXPECT_EQ(Format("prompt: %0\r\n"), "prompt: ");
}

TEST(FormatMessageEscapes, TrailingPercentFails) { EXPECT_EQ(Format("100%"), "<failed>"); }

TEST(FormatMessageIgnoreInserts, CopiesInsertsAsWritten) {
  EXPECT_EQ(Format("%1 and %1!s! and %12!*.*s!", {"x"}, fmIgnoreInserts), "%1 and %1!s! and %12!*.*s!");
  EXPECT_EQ(Format("%1!s", {}, fmIgnoreInserts), "%1!s");
}

TEST(FormatMessageIgnoreInserts, KeepsCharacterEscapesButBreaksLines) {
  EXPECT_EQ(Format("%%% %.%!%b", {}, fmIgnoreInserts), "%%% %.%!%b");
  EXPECT_EQ(Format("a%nb%rc%td%0e", {}, fmIgnoreInserts), "a\r\nb\rc\td");
}

TEST(FormatMessageLineBreaks, TemplateBreaksBecomeCrLf) {
  EXPECT_EQ(Format("a\r\nb\nc\rd"), "a\r\nb\r\nc\r\nd");
}

TEST(FormatMessageLineBreaks, MaxWidthMaskKeepsOnlyHardBreaks) {
  EXPECT_EQ(Format("one\r\ntwo\nthree%nfour", {}, fmMaxWidthMask), "one two three\r\nfour");
}

TEST(FormatMessageLineBreaks, WidthWrapsAtSpaces) {
  EXPECT_EQ(Format("aa bb cc dd%neeeeeeee f", {}, 5), "aa bb\r\ncc dd\r\neeeeeeee\r\nf");
}

TEST(FormatMessageLimits, HugeWidthFails) {
  EXPECT_EQ(Format("%1!*s!", {"2000000000", "x"}), "<failed>");
  EXPECT_EQ(Format("%1!.999999999d!", {"1"}), "<failed>");
}

TEST(FormatMessageStripTrailingLineBreak, CutsAtNextToLastBreak) {
  EXPECT_EQ(StripTrailingLineBreak("abc\r\n"), "abc");
  EXPECT_EQ(StripTrailingLineBreak("x\r\n"), "x");
  EXPECT_EQ(StripTrailingLineBreak("a\n\n"), "a");
  EXPECT_EQ(StripTrailingLineBreak("\r\n"), "");
  EXPECT_EQ(StripTrailingLineBreak("ab\n"), "ab\n"); // next-to-last is 'b'
  EXPECT_EQ(StripTrailingLineBreak("\n"), "\n");     // one character is kept
  EXPECT_EQ(StripTrailingLineBreak(""), "");
}

} // namespace
} // namespace qvx
