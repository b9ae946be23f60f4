#include "platform/utf16.h"

#include "platform/byte_reader.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qvx {
namespace {

inline void PutCodePoint(std::string& AOut, uint32_t c) {
  if (c < 0x80) {
    AOut.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    char b[2] = {static_cast<char>(0xC0 | (c >> 6)), static_cast<char>(0x80 | (c & 0x3F))};
    AOut.append(b, 2);
  } else if (c < 0x10000) {
    char b[3] = {static_cast<char>(0xE0 | (c >> 12)), static_cast<char>(0x80 | ((c >> 6) & 0x3F)),
                 static_cast<char>(0x80 | (c & 0x3F))};
    AOut.append(b, 3);
  } else {
    char b[4] = {static_cast<char>(0xF0 | (c >> 18)), static_cast<char>(0x80 | ((c >> 12) & 0x3F)),
                 static_cast<char>(0x80 | ((c >> 6) & 0x3F)), static_cast<char>(0x80 | (c & 0x3F))};
    AOut.append(b, 4);
  }
}

// Decodes one code point starting at unit i; advances i past what it used.
inline uint32_t NextCodePoint(const uint8_t* p, size_t count, size_t& i) {
  uint32_t u = LoadU16(p + 2 * i++);
  if (u < 0xD800 || u > 0xDFFF) return u;
  if (u <= 0xDBFF && i < count) {
    uint32_t lo = LoadU16(p + 2 * i);
    if (lo >= 0xDC00 && lo <= 0xDFFF) {
      ++i;
      return 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
    }
  }
  return 0xFFFD;
}

// Bytes a code unit may take at most once written: an entity ("&quot;") or a 3-byte
// sequence (a surrogate pair takes 4 bytes for 2 units).
constexpr size_t kMaxBytesPerUnit = 6;

inline char* PutCodePointRaw(char* d, uint32_t c) {
  if (c < 0x800) {
    d[0] = static_cast<char>(0xC0 | (c >> 6));
    d[1] = static_cast<char>(0x80 | (c & 0x3F));
    return d + 2;
  }
  if (c < 0x10000) {
    d[0] = static_cast<char>(0xE0 | (c >> 12));
    d[1] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    d[2] = static_cast<char>(0x80 | (c & 0x3F));
    return d + 3;
  }
  d[0] = static_cast<char>(0xF0 | (c >> 18));
  d[1] = static_cast<char>(0x80 | ((c >> 12) & 0x3F));
  d[2] = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
  d[3] = static_cast<char>(0x80 | (c & 0x3F));
  return d + 4;
}

inline char* PutEntity(char* d, const char* AText, size_t ALength) {
  std::memcpy(d, AText, ALength);
  return d + ALength;
}

#if defined(__SSE2__)
// True when the 8 units at p are ASCII that is written as it is (with Escape: none of
// NUL & ' " < >); their low bytes are then stored at d.
template <bool Escape> inline bool PutPlainBlock(const uint8_t* p, char* d) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i zero = _mm_setzero_si128();
  // Units of 0x80 and above have a bit of 0xFF80 set.
  __m128i bad = _mm_andnot_si128(_mm_cmpeq_epi16(_mm_and_si128(v, _mm_set1_epi16(static_cast<short>(0xFF80))), zero),
                                 _mm_set1_epi16(-1));
  if constexpr (Escape) {
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, zero));
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('&')));
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('\'')));
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('"')));
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('<')));
    bad = _mm_or_si128(bad, _mm_cmpeq_epi16(v, _mm_set1_epi16('>')));
  }
  if (_mm_movemask_epi8(bad) != 0) return false;
  _mm_storel_epi64(reinterpret_cast<__m128i*>(d), _mm_packus_epi16(v, v));
  return true;
}
#endif

// Writes the text of the count units at p to d (room for kMaxBytesPerUnit * count bytes);
// returns the end of what it wrote.
template <bool Escape> char* ConvertTo(char* d, const uint8_t* p, size_t count) {
  size_t i = 0;
  // Units handled one at a time up to here before blocks of 8 are tried again.
  size_t single = 0;
#if defined(__SSE2__)
  char* const start = d;
#endif
  while (i < count) {
#if defined(__SSE2__)
    if (i >= single) {
      if (count - i >= 8 && PutPlainBlock<Escape>(p + 2 * i, d)) {
        i += 8;
        d += 8;
        continue;
      }
      // The last few units of text of 8 or more, all written a byte per unit so far: the
      // block of the last 8 units, overlapping what is written, writes the same bytes again.
      if (count - i < 8 && count >= 8 && static_cast<size_t>(d - start) == i &&
          PutPlainBlock<Escape>(p + 2 * (count - 8), d - (8 - (count - i)))) {
        return d + (count - i);
      }
      single = i + 8; // text that is not plain ASCII tends to go on for a while
    }
#endif
    uint16_t u = LoadU16(p + 2 * i);
    if (u < 0x80) {
      ++i;
      if constexpr (Escape) {
        switch (u) {
        case 0: continue;
        case '&': d = PutEntity(d, "&amp;", 5); continue;
        case '\'': d = PutEntity(d, "&apos;", 6); continue;
        case '"': d = PutEntity(d, "&quot;", 6); continue;
        case '<': d = PutEntity(d, "&lt;", 4); continue;
        case '>': d = PutEntity(d, "&gt;", 4); continue;
        default: break;
        }
      }
      *d++ = static_cast<char>(u);
      continue;
    }
    d = PutCodePointRaw(d, NextCodePoint(p, count, i));
  }
  return d;
}

// Units converted on the stack and appended as they came out; longer text is written
// straight into the string's storage, grown once for the worst case (which fills it with
// zeros first) and cut back to what was written.
constexpr size_t kStackUnits = 64;

template <bool Escape> void Convert(std::string& AOut, const uint8_t* p, size_t count) {
  if (count <= kStackUnits) {
    char buf[kStackUnits * kMaxBytesPerUnit];
    AOut.append(buf, static_cast<size_t>(ConvertTo<Escape>(buf, p, count) - buf));
    return;
  }
  const size_t start = AOut.size();
  AOut.resize(start + kMaxBytesPerUnit * count);
  char* const base = AOut.data();
  AOut.resize(static_cast<size_t>(ConvertTo<Escape>(base + start, p, count) - base));
}

constexpr uint16_t kCp1252High[32] = {
    0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0x008D, 0x017D, 0x008F, 0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

} // namespace

void AppendUtf16(std::string& AOut, const uint8_t* ABytes, size_t ACount) { Convert<false>(AOut, ABytes, ACount); }

void AppendUtf16Escaped(std::string& AOut, const uint8_t* ABytes, size_t ACount) {
  Convert<true>(AOut, ABytes, ACount);
}

void AppendEscaped(std::string& AOut, std::string_view AText) {
  for (char c : AText) {
    switch (c) {
    case '\0': break;
    case '&': AOut.append("&amp;"); break;
    case '\'': AOut.append("&apos;"); break;
    case '"': AOut.append("&quot;"); break;
    case '<': AOut.append("&lt;"); break;
    case '>': AOut.append("&gt;"); break;
    default: AOut.push_back(c);
    }
  }
}

void AppendCp1252(std::string& AOut, const uint8_t* ABytes, size_t ACount) {
  for (size_t i = 0; i < ACount; ++i) {
    uint8_t b = ABytes[i];
    if (b < 0x80) AOut.push_back(static_cast<char>(b));
    else if (b < 0xA0) PutCodePoint(AOut, kCp1252High[b - 0x80]);
    else PutCodePoint(AOut, b);
  }
}

std::string Utf16ToUtf8(const uint8_t* ABytes, size_t ACount) {
  std::string out;
  AppendUtf16(out, ABytes, ACount);
  return out;
}

std::string Utf16ToUtf8(std::u16string_view AText) {
  std::string out;
  out.reserve(AText.size());
  for (size_t i = 0; i < AText.size();) {
    uint32_t u = AText[i++];
    if (u >= 0xD800 && u <= 0xDFFF) {
      if (u <= 0xDBFF && i < AText.size() && AText[i] >= 0xDC00 && AText[i] <= 0xDFFF) {
        u = 0x10000 + ((u - 0xD800) << 10) + (AText[i++] - 0xDC00);
      } else {
        u = 0xFFFD;
      }
    }
    PutCodePoint(out, u);
  }
  return out;
}

std::u16string Utf8ToUtf16(std::string_view AText) {
  std::u16string out;
  out.reserve(AText.size());
  size_t i = 0;
  auto cont = [&](size_t k) { return i + k < AText.size() && (static_cast<uint8_t>(AText[i + k]) & 0xC0) == 0x80; };
  while (i < AText.size()) {
    uint8_t b = static_cast<uint8_t>(AText[i]);
    uint32_t c;
    if (b < 0x80) { c = b; i += 1; }
    else if ((b & 0xE0) == 0xC0 && cont(1)) { c = ((b & 0x1F) << 6) | (AText[i + 1] & 0x3F); i += 2; }
    else if ((b & 0xF0) == 0xE0 && cont(1) && cont(2)) {
      c = ((b & 0x0F) << 12) | ((AText[i + 1] & 0x3F) << 6) | (AText[i + 2] & 0x3F);
      i += 3;
    } else if ((b & 0xF8) == 0xF0 && cont(1) && cont(2) && cont(3)) {
      c = ((b & 0x07) << 18) | ((AText[i + 1] & 0x3F) << 12) | ((AText[i + 2] & 0x3F) << 6) | (AText[i + 3] & 0x3F);
      i += 4;
    } else { c = 0xFFFD; i += 1; }
    if (c >= 0x10000 && c <= 0x10FFFF) {
      c -= 0x10000;
      out.push_back(static_cast<char16_t>(0xD800 + (c >> 10)));
      out.push_back(static_cast<char16_t>(0xDC00 + (c & 0x3FF)));
    } else {
      out.push_back(static_cast<char16_t>(c > 0x10FFFF ? 0xFFFD : c));
    }
  }
  return out;
}

size_t Utf16Length(std::string_view AText) {
  // The same walk as Utf8ToUtf16, counting instead of storing.
  size_t units = 0, i = 0;
  auto cont = [&](size_t k) { return i + k < AText.size() && (static_cast<uint8_t>(AText[i + k]) & 0xC0) == 0x80; };
  while (i < AText.size()) {
    const uint8_t b = static_cast<uint8_t>(AText[i]);
    ++units;
    if (b < 0x80) i += 1;
    else if ((b & 0xE0) == 0xC0 && cont(1)) i += 2;
    else if ((b & 0xF0) == 0xE0 && cont(1) && cont(2)) i += 3;
    else if ((b & 0xF8) == 0xF0 && cont(1) && cont(2) && cont(3)) {
      const uint32_t c = ((b & 0x07u) << 18) | ((AText[i + 1] & 0x3Fu) << 12);
      if (c >= 0x10000 && c <= 0x10FFFF) ++units;
      i += 4;
    } else i += 1;
  }
  return units;
}

int32_t DecodeUtf8At(std::string_view AText, size_t AAt, size_t& ALength) {
  ALength = 1;
  const unsigned char lead = static_cast<unsigned char>(AText[AAt]);
  if (lead < 0x80) return lead;
  const size_t extra = lead >= 0xF0 && lead < 0xF5 ? 3 : lead >= 0xE0 && lead < 0xF0 ? 2 : lead >= 0xC2 && lead < 0xE0 ? 1 : 0;
  if (extra == 0 || AAt + extra >= AText.size()) return -1;
  int32_t cp = lead & (0x3F >> extra);
  for (size_t k = 1; k <= extra; ++k) {
    const unsigned char next = static_cast<unsigned char>(AText[AAt + k]);
    if ((next & 0xC0) != 0x80) return -1;
    cp = (cp << 6) | (next & 0x3F);
  }
  static constexpr int32_t kShortest[] = {0, 0x80, 0x800, 0x10000};
  if (cp < kShortest[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) return -1;
  ALength = extra + 1;
  return cp;
}

void AppendUtf8(std::string& AOut, uint32_t ACp) {
  if (ACp < 0x80) {
    AOut.push_back(static_cast<char>(ACp));
  } else if (ACp < 0x800) {
    AOut.push_back(static_cast<char>(0xC0 | (ACp >> 6)));
    AOut.push_back(static_cast<char>(0x80 | (ACp & 0x3F)));
  } else if (ACp < 0x10000) {
    AOut.push_back(static_cast<char>(0xE0 | (ACp >> 12)));
    AOut.push_back(static_cast<char>(0x80 | ((ACp >> 6) & 0x3F)));
    AOut.push_back(static_cast<char>(0x80 | (ACp & 0x3F)));
  } else {
    AOut.push_back(static_cast<char>(0xF0 | (ACp >> 18)));
    AOut.push_back(static_cast<char>(0x80 | ((ACp >> 12) & 0x3F)));
    AOut.push_back(static_cast<char>(0x80 | ((ACp >> 6) & 0x3F)));
    AOut.push_back(static_cast<char>(0x80 | (ACp & 0x3F)));
  }
}

} // namespace qvx
