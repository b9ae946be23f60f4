#include "platform/text_escape.h"

#include <array>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qvx {

void AppendJsonString(std::string& AOut, std::string_view AText) {
  static const char kHex[] = "0123456789abcdef";
  // Bytes that need an escape: control characters, '"' and '\\'.
  static constexpr auto kEscape = [] {
    std::array<bool, 256> t{};
    for (int i = 0; i < 0x20; ++i) t[static_cast<size_t>(i)] = true;
    t['"'] = t['\\'] = true;
    return t;
  }();
  AOut += '"';
  size_t run = 0;
  size_t i = 0;
  while (i < AText.size()) {
#if defined(__SSE2__)
    // 16 bytes at a time while none of them needs an escape.
    if (AText.size() - i >= 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(AText.data() + i));
      const __m128i control = _mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v);
      const __m128i special =
          _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('"')), _mm_cmpeq_epi8(v, _mm_set1_epi8('\\')));
      const int mask = _mm_movemask_epi8(_mm_or_si128(control, special));
      if (mask == 0) {
        i += 16;
        continue;
      }
      i += static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
    }
#endif
    const auto c = static_cast<unsigned char>(AText[i++]);
    if (!kEscape[c]) [[likely]]
      continue;
    AOut.append(AText.data() + run, i - 1 - run);
    run = i;
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
  }
  AOut.append(AText.data() + run, AText.size() - run);
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
