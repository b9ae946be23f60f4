// FormatMessageW's insert and escape sequences over UTF-8 text; see format_message.h
// for the sequences and for where our string arguments differ from Windows' values.
#include "descriptions/format_message.h"

#include <algorithm>
#include <cstring>

#include "platform/utf16.h"

namespace qvx {
namespace {

// One insert's "!format!", printf syntax: flags, width, precision, size, type.
struct TInsertFormat {
  bool FLeft = false, FPlus = false, FSpace = false, FAlternate = false, FZero = false;
  bool FWidthStar = false, FPrecisionStar = false;
  int64_t FWidth = 0;
  int64_t FPrecision = -1; // -1: none
  int FBits = 32;          // integer size the prefix selects: 8, 16, 32 or 64
  bool FNarrow = false;    // "h" or "C": a single-byte character
  char FType = 0;          // 0 when the format is not one we know
};

bool IsDigit(char C) { return C >= '0' && C <= '9'; }

// Parses digits from AText[APos]; caps the value so that huge numbers cannot overflow
// (anything above kFormatMessageMaxUnits fails later anyway).
int64_t ReadCount(std::string_view AText, size_t& APos) {
  int64_t value = 0;
  for (; APos < AText.size() && IsDigit(AText[APos]); ++APos)
    value = std::min<int64_t>(value * 10 + (AText[APos] - '0'), int64_t{1} << 40);
  return value;
}

TInsertFormat ParseInsertFormat(std::string_view AText) {
  TInsertFormat format;
  size_t pos = 0;
  for (; pos < AText.size() && std::strchr("-+ #0", AText[pos]) && AText[pos] != 0; ++pos) {
    switch (AText[pos]) {
    case '-': format.FLeft = true; break;
    case '+': format.FPlus = true; break;
    case ' ': format.FSpace = true; break;
    case '#': format.FAlternate = true; break;
    default: format.FZero = true; break;
    }
  }
  if (pos < AText.size() && AText[pos] == '*') {
    format.FWidthStar = true;
    ++pos;
  } else {
    format.FWidth = ReadCount(AText, pos);
  }
  if (pos < AText.size() && AText[pos] == '.') {
    ++pos;
    if (pos < AText.size() && AText[pos] == '*') {
      format.FPrecisionStar = true;
      ++pos;
    } else {
      format.FPrecision = ReadCount(AText, pos);
    }
  }
  std::string_view rest = AText.substr(pos);
  static constexpr struct {
    std::string_view FPrefix;
    int FBits;
  } kSizes[] = {{"I64", 64}, {"I32", 32}, {"ll", 64}, {"hh", 8}, {"I", 64},
                {"h", 16},   {"l", 32},   {"w", 32},  {"L", 64}};
  for (const auto& size : kSizes) {
    if (rest.substr(0, size.FPrefix.size()) == size.FPrefix) {
      format.FBits = size.FBits;
      format.FNarrow = size.FPrefix[0] == 'h';
      rest.remove_prefix(size.FPrefix.size());
      break;
    }
  }
  if (rest.size() == 1 && std::strchr("sSdiuxXocC", rest[0]) && rest[0] != 0) format.FType = rest[0];
  if (format.FType == 'C') format.FNarrow = true; // in wide printf, %C is a single-byte character
  return format;
}

// Reads a decimal ("-7", "+12") or "0x" hex ("0xFF", "-0x10") number; the result is
// the value's 64-bit two's complement. False when the text is not such a number.
bool ParseNumber(std::string_view AText, uint64_t& AValue) {
  bool negative = false;
  if (!AText.empty() && (AText[0] == '-' || AText[0] == '+')) {
    negative = AText[0] == '-';
    AText.remove_prefix(1);
  }
  unsigned base = 10;
  if (AText.size() > 2 && AText[0] == '0' && (AText[1] == 'x' || AText[1] == 'X')) {
    base = 16;
    AText.remove_prefix(2);
  }
  if (AText.empty()) return false;
  uint64_t value = 0;
  for (char c : AText) {
    unsigned digit;
    if (IsDigit(c)) digit = static_cast<unsigned>(c - '0');
    else if (base == 16 && c >= 'a' && c <= 'f') digit = static_cast<unsigned>(c - 'a' + 10);
    else if (base == 16 && c >= 'A' && c <= 'F') digit = static_cast<unsigned>(c - 'A' + 10);
    else return false;
    if (value > (UINT64_MAX - digit) / base) return false;
    value = value * base + digit;
  }
  AValue = negative ? 0 - value : value;
  return true;
}

// A "*" argument as printf reads it: an int.
int64_t StarValue(std::string_view AText) {
  uint64_t value = 0;
  return ParseNumber(AText, value) ? static_cast<int32_t>(static_cast<uint32_t>(value)) : 0;
}

void Pad(std::string& AOut, std::string_view AText, size_t AUnits, const TInsertFormat& AFormat,
         std::string_view APrefix = {}) {
  size_t fill = AFormat.FWidth > static_cast<int64_t>(AUnits) ? static_cast<size_t>(AFormat.FWidth) - AUnits : 0;
  if (AFormat.FLeft) {
    AOut.append(APrefix).append(AText).append(fill, ' ');
  } else if (AFormat.FZero) {
    AOut.append(APrefix).append(fill, '0').append(AText);
  } else {
    AOut.append(fill, ' ').append(APrefix).append(AText);
  }
}

void AppendString(std::string& AOut, std::string_view AText, const TInsertFormat& AFormat) {
  if (AFormat.FPrecision < 0 && AFormat.FWidth <= 0) {
    AOut.append(AText); // nothing to cut or pad: no need to count units
    return;
  }
  size_t units = Utf16Length(AText);
  if (AFormat.FPrecision >= 0 && units > static_cast<uint64_t>(AFormat.FPrecision)) {
    std::u16string wide = Utf8ToUtf16(AText);
    wide.resize(static_cast<size_t>(AFormat.FPrecision));
    std::string cut = Utf16ToUtf8(wide);
    Pad(AOut, cut, wide.size(), AFormat);
    return;
  }
  Pad(AOut, AText, units, AFormat);
}

void AppendInteger(std::string& AOut, uint64_t ARaw, const TInsertFormat& AFormat) {
  const uint64_t mask = AFormat.FBits == 64 ? UINT64_MAX : (uint64_t{1} << AFormat.FBits) - 1;
  const uint64_t bits = ARaw & mask;
  if (AFormat.FType == 'c' || AFormat.FType == 'C') {
    std::string text;
    if (AFormat.FNarrow) {
      const uint8_t byte = static_cast<uint8_t>(bits);
      AppendCp1252(text, &byte, 1);
    } else {
      text = Utf16ToUtf8(std::u16string(1, static_cast<char16_t>(bits)));
    }
    Pad(AOut, text, 1, AFormat);
    return;
  }
  const bool isSigned = AFormat.FType == 'd' || AFormat.FType == 'i';
  const uint64_t signBit = uint64_t{1} << (AFormat.FBits - 1);
  const bool negative = isSigned && (bits & signBit) != 0;
  const uint64_t magnitude = negative ? (0 - bits) & mask : bits;
  const unsigned base = AFormat.FType == 'o' ? 8 : (AFormat.FType == 'x' || AFormat.FType == 'X') ? 16 : 10;
  const char* digitChars = AFormat.FType == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";

  std::string digits;
  for (uint64_t rest = magnitude; rest != 0; rest /= base) digits.insert(digits.begin(), digitChars[rest % base]);
  if (magnitude == 0 && AFormat.FPrecision != 0) digits.assign(1, '0');
  if (AFormat.FPrecision > static_cast<int64_t>(digits.size()))
    digits.insert(0, static_cast<size_t>(AFormat.FPrecision) - digits.size(), '0');
  if (base == 8 && AFormat.FAlternate && (digits.empty() || digits[0] != '0')) digits.insert(0, 1, '0');

  std::string prefix;
  if (negative) prefix.assign(1, '-');
  else if (isSigned && AFormat.FPlus) prefix.assign(1, '+');
  else if (isSigned && AFormat.FSpace) prefix.assign(1, ' ');
  if (base == 16 && AFormat.FAlternate && magnitude != 0) prefix.append(AFormat.FType == 'X' ? "0X" : "0x");

  TInsertFormat padding = AFormat;
  padding.FZero = AFormat.FZero && AFormat.FPrecision < 0; // printf ignores "0" when a precision is given
  Pad(AOut, digits, digits.size() + prefix.size(), padding, prefix);
}

// Wraps each hard line (ended by CR LF) at spaces so that it holds at most AWidth
// UTF-16 units; a word longer than that keeps a line of its own.
std::string WrapLines(std::string_view AText, size_t AWidth) {
  std::string out;
  size_t lineStart = 0;
  while (lineStart <= AText.size()) {
    size_t lineEnd = AText.find("\r\n", lineStart);
    if (lineEnd == std::string_view::npos) lineEnd = AText.size();
    size_t column = 0;
    bool first = true;
    for (size_t wordStart = lineStart; wordStart <= lineEnd;) {
      size_t wordEnd = AText.find(' ', wordStart);
      if (wordEnd == std::string_view::npos || wordEnd > lineEnd) wordEnd = lineEnd;
      std::string_view word = AText.substr(wordStart, wordEnd - wordStart);
      size_t units = Utf16Length(word);
      if (!first && column + 1 + units > AWidth) {
        out.append("\r\n");
        column = 0;
      } else if (!first) {
        out.push_back(' ');
        ++column;
      }
      out.append(word);
      column += units;
      first = false;
      wordStart = wordEnd + 1;
    }
    if (lineEnd == AText.size()) break;
    out.append("\r\n");
    lineStart = lineEnd + 2;
  }
  return out;
}

} // namespace

bool FormatMessageText(std::string_view ATemplate, const std::vector<std::string>& AArguments, uint32_t AFlags,
                       std::string& AOut) {
  AOut.clear();
  const uint32_t maxWidth = AFlags & fmMaxWidthMask;
  const bool ignoreInserts = (AFlags & fmIgnoreInserts) != 0;
  size_t pos = 0;
  while (pos < ATemplate.size()) {
    const char c = ATemplate[pos];
    if (c == '\r' || c == '\n') {
      ++pos;
      if (c == '\r' && pos < ATemplate.size() && ATemplate[pos] == '\n') ++pos;
      if (maxWidth != 0) AOut.push_back(' ');
      else AOut.append("\r\n");
      continue;
    }
    if (c != '%') {
      // Plain text up to the next insert or line break, in one piece.
      size_t end = pos + 1;
      while (end < ATemplate.size() && ATemplate[end] != '%' && ATemplate[end] != '\r' && ATemplate[end] != '\n') ++end;
      AOut.append(ATemplate.data() + pos, end - pos);
      pos = end;
      continue;
    }
    if (pos + 1 >= ATemplate.size()) return false; // Windows: ERROR_INVALID_PARAMETER
    const char escape = ATemplate[pos + 1];
    if (escape == '0') break;
    if (escape >= '1' && escape <= '9') {
      const size_t start = pos;
      size_t index = static_cast<size_t>(escape - '0');
      pos += 2;
      if (pos < ATemplate.size() && IsDigit(ATemplate[pos])) index = index * 10 + static_cast<size_t>(ATemplate[pos++] - '0');
      if (ignoreInserts) {
        // The "!format!" that may follow is copied as plain text by the loop.
        AOut.append(ATemplate.substr(start, pos - start));
        continue;
      }
      std::string_view formatText = "s";
      if (pos < ATemplate.size() && ATemplate[pos] == '!') {
        const size_t close = ATemplate.find('!', pos + 1);
        if (close == std::string_view::npos) return false;
        formatText = ATemplate.substr(pos + 1, close - pos - 1);
        pos = close + 1;
      }
      TInsertFormat format = ParseInsertFormat(formatText);
      size_t argument = index - 1;
      auto Argument = [&](size_t AIndex) -> std::string_view {
        return AIndex < AArguments.size() ? std::string_view(AArguments[AIndex]) : std::string_view();
      };
      if (format.FWidthStar) {
        format.FWidth = StarValue(Argument(argument++));
        if (format.FWidth < 0) {
          format.FLeft = true;
          format.FWidth = -format.FWidth;
        }
      }
      if (format.FPrecisionStar) format.FPrecision = std::max<int64_t>(StarValue(Argument(argument++)), -1);
      if (format.FWidth > static_cast<int64_t>(kFormatMessageMaxUnits)) return false;
      const std::string_view value = Argument(argument);
      uint64_t number = 0;
      if (format.FType == 's' || format.FType == 'S') {
        AppendString(AOut, value, format);
      } else if (format.FType != 0 && ParseNumber(value, number)) {
        if (format.FPrecision > static_cast<int64_t>(kFormatMessageMaxUnits)) return false;
        AppendInteger(AOut, number, format);
      } else {
        AOut.append(value);
      }
      // A UTF-16 unit takes at least one byte: only a longer text needs counting.
      if (AOut.size() > kFormatMessageMaxUnits && Utf16Length(AOut) > kFormatMessageMaxUnits) return false;
      continue;
    }
    pos += 2;
    switch (escape) {
    case 'n': AOut.append("\r\n"); break;
    case 'r': AOut.push_back('\r'); break;
    case 't': AOut.push_back('\t'); break;
    default:
      // "%%", "% ", "%.", "%!" and any other character: that character alone.
      if (ignoreInserts) AOut.push_back('%');
      AOut.push_back(escape == 'b' && !ignoreInserts ? ' ' : escape);
      break;
    }
  }
  if (maxWidth != 0 && maxWidth != fmMaxWidthMask) AOut = WrapLines(AOut, maxWidth);
  return AOut.size() <= kFormatMessageMaxUnits || Utf16Length(AOut) <= kFormatMessageMaxUnits;
}

std::string StripTrailingLineBreak(std::string_view AText) {
  if (AText.size() > 1 && (AText[AText.size() - 2] == '\r' || AText[AText.size() - 2] == '\n'))
    AText.remove_suffix(2);
  return std::string(AText);
}

} // namespace qvx
