// Message templates formatted as Windows' FormatMessageW does with
// FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY and an array of string
// arguments (an event's insertion strings), on every platform.
//
// Text is UTF-8 in memory; where Windows counts characters (widths, precisions, line
// widths) we count UTF-16 code units, as FormatMessageW does.
//
// Sequences in a template:
//   %1 .. %99      argument N (two digits at most: "%100" is %10, then "0"); may be
//                  followed by !printf format!, "!s!" when absent
//   %0             ends the output (no trailing line break)
//   %n             hard line break "\r\n"          %r  bare CR        %t  tab
//   %b             a space
//   %X, any other  the character X itself, so "%%" gives "%", "% " a space,
//                  "%." a period and "%!" an exclamation mark
//   "%" at the end of the template: Windows fails (ERROR_INVALID_PARAMETER)
//   CR LF, lone LF or lone CR in the template: written as CR LF (flags' low byte 0),
//                  or as one space when the low byte is non-zero
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

enum TFormatFlags : uint32_t {
  // Arguments are not inserted: %1..%99 and what follows them are copied as written;
  // %% %space %. %! %b are copied as written too. %0 %n %r %t and line breaks still apply.
  fmIgnoreInserts = 0x200,
  // Low byte: 0 = line breaks as in the template; 0xFF = template line breaks become
  // spaces and only %n breaks a line; other values = as 0xFF, then lines wrap at
  // spaces to at most that many UTF-16 units (a longer word keeps its own line).
  fmMaxWidthMask = 0xFF,
};

// Longest output, in UTF-16 code units (128 KiB, the limit FormatMessage allocates).
inline constexpr size_t kFormatMessageMaxUnits = 64 * 1024;

// Formats ATemplate with AArguments (AArguments[0] is %1) into AOut.
//
// Returns false (AOut then holds partial output) where Windows fails: a "%" ending the template, an
// insert whose "!format" has no closing "!", or output longer than
// kFormatMessageMaxUnits. Our rules where Windows would read the arguments as
// pointers or numbers:
//  - an insert naming a missing argument gives an empty text (Windows would read past
//    the end of the array);
//  - an integer conversion (d i u x X o c, with h l ll I I32 I64 w prefixes) reads
//    the argument's text as a decimal or "0x" hex number and formats that (truncated
//    to 32 bits unless ll/I/I64); text that is not a number is inserted unchanged;
//  - a "*" width or precision reads its argument the same way (0 when not a number).
//    As with Windows' argument arrays, "%4!*.*s!" takes its width from %4, its
//    precision from %5 and its text from %6;
//  - any conversion we do not know (floating point, "p", "n") inserts the text
//    unchanged.
// Strings (s S hs ls ws) honour "-", "0" (zero padding, as Windows' printf does),
// width and precision, in UTF-16 units; a precision that cuts a surrogate pair leaves
// U+FFFD.
bool FormatMessageText(std::string_view ATemplate, const std::vector<std::string>& AArguments, uint32_t AFlags,
                       std::string& AOut);

// Templates from message files end with the line break that precedes the closing
// ".": when the text has more than one character and its next-to-last character is CR
// or LF, returns the text cut before that character; otherwise the text unchanged.
std::string StripTrailingLineBreak(std::string_view AText);

} // namespace qvx
