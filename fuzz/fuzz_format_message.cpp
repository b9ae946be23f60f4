// Fuzz target: message templates formatted with insertion strings.
//
// Input layout:
//   offset  size  field
//   0       1     flags: bit 7 = fmIgnoreInserts; bits 0-6 = the line width (low byte
//                 of the flags), 0x7F standing for fmMaxWidthMask (0xFF)
//   1       n     the template, then up to 12 arguments, each ended by a NUL byte
//                 (the last one by the end of the input)
// Seeds: a flag byte followed by templates such as "%1!*.*s!\0" "5\0" "2\0" "abcd".
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "descriptions/format_message.h"
#include "platform/utf16.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  if (ASize == 0) return 0;
  uint32_t flags = AData[0] & 0x7F;
  if (flags == 0x7F) flags = qvx::fmMaxWidthMask;
  if (AData[0] & 0x80) flags |= qvx::fmIgnoreInserts;

  std::string_view rest(reinterpret_cast<const char*>(AData + 1), ASize - 1);
  std::vector<std::string> parts;
  while (parts.size() < 13) {
    const size_t end = rest.find('\0');
    parts.emplace_back(rest.substr(0, end));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 1);
  }
  const std::string pattern = parts.front();
  parts.erase(parts.begin());

  std::string out;
  if (qvx::FormatMessageText(pattern, parts, flags, out) && qvx::Utf16Length(out) > qvx::kFormatMessageMaxUnits)
    std::abort(); // success promises output within the limit
  (void)qvx::StripTrailingLineBreak(pattern);
  return 0;
}
