#include "platform/text_escape.h"

#include <array>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qvx {

namespace {

#if defined(__SSE2__)
// Bit i set when byte i of the 16 at AData needs an escape.
inline unsigned JsonEscapeMask(const char* AData) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(AData));
  const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v);
  const __m128i special = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('"')), _mm_cmpeq_epi8(v, _mm_set1_epi8('\\')));
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(control, special)));
}
#endif

// Position of the first byte at or after AFrom that needs an escape, or ASize.
inline size_t NextJsonEscape(const char* AData, size_t AFrom, size_t ASize) {
  size_t i = AFrom;
#if defined(__SSE2__)
  for (; ASize - i >= 16; i += 16)
    if (const unsigned mask = JsonEscapeMask(AData + i)) return i + static_cast<size_t>(__builtin_ctz(mask));
  if (i < ASize) {
    // The last few bytes (most values are shorter than 16) go through the same test in a
    // copy padded with a byte that needs nothing.
    char tail[16];
    std::memset(tail, 'a', sizeof tail);
    std::memcpy(tail, AData + i, ASize - i);
    if (const unsigned mask = JsonEscapeMask(tail)) return i + static_cast<size_t>(__builtin_ctz(mask));
  }
  return ASize;
#else
  // Bytes that need an escape in a JSON string: control characters, '"' and '\\'.
  static constexpr auto kJsonEscape = [] {
    std::array<bool, 256> t{};
    for (int c = 0; c < 0x20; ++c) t[static_cast<size_t>(c)] = true;
    t['"'] = t['\\'] = true;
    return t;
  }();
  while (i < ASize && !kJsonEscape[static_cast<unsigned char>(AData[i])]) ++i;
  return i;
#endif
}

} // namespace

void AppendJsonString(std::string& AOut, std::string_view AText) {
  static const char kHex[] = "0123456789abcdef";
  const char* data = AText.data();
  const size_t size = AText.size();
  size_t at = NextJsonEscape(data, 0, size);
  if (at == size) {
    // The common case: nothing to escape, one append between the quotes.
    const size_t start = AOut.size();
    AOut.resize(start + size + 2);
    char* d = AOut.data() + start;
    d[0] = '"';
    if (size) std::memcpy(d + 1, data, size);
    d[size + 1] = '"';
    return;
  }
  AOut += '"';
  size_t run = 0;
  while (at < size) {
    const auto c = static_cast<unsigned char>(data[at]);
    AOut.append(data + run, at - run);
    switch (c) {
    case '"': AOut += "\\\""; break;
    case '\\': AOut += "\\\\"; break;
    case '\n': AOut += "\\n"; break;
    case '\r': AOut += "\\r"; break;
    case '\t': AOut += "\\t"; break;
    default:
      AOut += "\\u00";
      AOut += kHex[c >> 4];
      AOut += kHex[c & 15];
    }
    run = at + 1;
    at = NextJsonEscape(data, run, size);
  }
  AOut.append(data + run, size - run);
  AOut += '"';
}

void AppendCsvField(std::string& AOut, std::string_view AText) {
  // One pass over the bytes (find_first_of would call memchr on the set for every byte).
  bool quote = false;
  for (const char c : AText)
    if (c == ',' || c == '"' || c == '\r' || c == '\n') {
      quote = true;
      break;
    }
  if (!quote) {
    AOut.append(AText);
    return;
  }
  AOut += '"';
  for (size_t at = 0;;) {
    const size_t mark = AText.find('"', at);
    if (mark == std::string_view::npos) {
      AOut.append(AText.substr(at));
      break;
    }
    AOut.append(AText.substr(at, mark + 1 - at)).append(1, '"');
    at = mark + 1;
  }
  AOut += '"';
}

} // namespace qvx
