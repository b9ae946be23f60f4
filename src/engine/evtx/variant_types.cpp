#include "engine/evtx/variant_types.h"

#include "engine/evtx/binxml_exception.h"
#include "engine/evtx/evtx_layout.h"
#include "engine/evtx/evtx_time.h"
#include "platform/byte_reader.h"
#include "platform/utf16.h"

#include <charconv>
#include <cstring>

namespace qvx {
namespace {

constexpr uint32_t ScalarSize(uint8_t ACode) { return VariantScalarSize(ACode); }

// "VarXX: <what>" with the code in two upper-case hexadecimal digits.
[[noreturn]] void RaiseVar(uint8_t ACode, const char* AWhat, bool ADash = false) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string m = ADash ? "Var-" : "Var";
  m.push_back(kHex[ACode >> 4]);
  m.push_back(kHex[ACode & 15]);
  m += ": ";
  m += AWhat;
  RaiseBinXml(m);
}

const char kHexUpper[] = "0123456789ABCDEF";

// Grows AOut by ALength bytes and returns where they start. Fixed-size text is written
// there in place: built on the stack byte by byte and appended, it is read back in wide
// loads that must wait for those byte stores (a stall for every GUID, time and hex value).
inline char* GrowBy(std::string& AOut, size_t ALength) {
  const size_t at = AOut.size();
  AOut.resize(at + ALength);
  return AOut.data() + at;
}

// APrefix, then the low ADigits hexadecimal digits of AValue in upper case (every System
// element's Keywords is one of these).
inline void PutHexFixed(std::string& AOut, const char* APrefix, uint64_t AValue, int ADigits) {
  char* s = GrowBy(AOut, static_cast<size_t>(2 + ADigits));
  s[0] = APrefix[0];
  s[1] = APrefix[1];
  for (int i = 0; i < ADigits; ++i) s[2 + i] = kHexUpper[(AValue >> (4 * (ADigits - 1 - i))) & 15];
}

template <typename T> inline void PutInt(std::string& AOut, T v) {
  char buf[32];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  AOut.append(buf, static_cast<size_t>(end - buf)); // (pointer, count): the iterator pair form goes through replace()
}

template <typename T> inline T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

void PutGuid(std::string& AOut, const uint8_t* p) {
  uint32_t d1 = LoadU32(p);
  uint16_t d2 = LoadU16(p + 4), d3 = LoadU16(p + 6);
  char* s = GrowBy(AOut, 38);
  s[0] = '{';
  for (int i = 0; i < 8; ++i) s[1 + i] = kHexUpper[(d1 >> (28 - 4 * i)) & 15];
  s[9] = '-';
  for (int i = 0; i < 4; ++i) s[10 + i] = kHexUpper[(d2 >> (12 - 4 * i)) & 15];
  s[14] = '-';
  for (int i = 0; i < 4; ++i) s[15 + i] = kHexUpper[(d3 >> (12 - 4 * i)) & 15];
  s[19] = '-';
  int k = 20;
  for (int i = 8; i < 16; ++i) {
    if (i == 10) s[k++] = '-';
    s[k++] = kHexUpper[p[i] >> 4];
    s[k++] = kHexUpper[p[i] & 15];
  }
  s[37] = '}';
}

void PutSid(std::string& AOut, const uint8_t* p) {
  uint8_t count = p[1];
  // The authority is the sum of its bytes 2..5 shifted by 16, xor the sum of bytes 6..7:
  // equal to the big-endian value for every authority in use (only the last byte set).
  uint64_t authority = (static_cast<uint64_t>(p[2] + p[3] + p[4] + p[5]) << 16) ^ static_cast<uint64_t>(p[6] + p[7]);
  AOut += "S-";
  PutInt(AOut, p[0]);
  AOut.push_back('-');
  PutInt(AOut, authority);
  for (uint32_t i = 0; i < count; ++i) {
    AOut.push_back('-');
    PutInt(AOut, LoadU32(p + 8 + 4 * i));
  }
}

// True for the bytes PutAnsiEscaped copies as they are: ASCII but NUL and the five
// characters XML escapes.
constexpr bool IsPlainAnsi(uint8_t b) {
  return b != 0 && b < 0x80 && b != '&' && b != '\'' && b != '"' && b != '<' && b != '>';
}

void PutAnsiEscaped(std::string& AOut, const uint8_t* p, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) {
    // Runs of plain bytes go in one append.
    uint32_t run = i;
    while (run < n && IsPlainAnsi(p[run])) ++run;
    if (run != i) {
      AOut.append(reinterpret_cast<const char*>(p + i), run - i);
      i = run;
      if (i == n) break;
    }
    uint8_t b = p[i];
    switch (b) {
    case 0: break;
    case '&': AOut += "&amp;"; break;
    case '\'': AOut += "&apos;"; break;
    case '"': AOut += "&quot;"; break;
    case '<': AOut += "&lt;"; break;
    case '>': AOut += "&gt;"; break;
    default:
      if (b < 0x80) AOut.push_back(static_cast<char>(b));
      else AppendCp1252(AOut, p + i, 1);
    }
  }
}

} // namespace

void AppendScalarXml(std::string& AOut, uint8_t ACode, const uint8_t* p) {
  switch (ACode) {
  case 0x03: PutInt(AOut, static_cast<int>(static_cast<int8_t>(p[0]))); break;
  case 0x04: PutInt(AOut, static_cast<unsigned>(p[0])); break;
  case 0x05: PutInt(AOut, Load<int16_t>(p)); break;
  case 0x06: PutInt(AOut, Load<uint16_t>(p)); break;
  case 0x07: PutInt(AOut, Load<int32_t>(p)); break;
  case 0x08: PutInt(AOut, Load<uint32_t>(p)); break;
  case 0x09: PutInt(AOut, Load<int64_t>(p)); break;
  case 0x0A: PutInt(AOut, Load<uint64_t>(p)); break;
  case 0x0B: PutInt(AOut, Load<float>(p)); break;
  case 0x0C: PutInt(AOut, Load<double>(p)); break;
  case 0x0D: AOut += LoadU32(p) != 0 ? "true" : "false"; break;
  case 0x0F: PutGuid(AOut, p); break;
  case 0x11: AppendFiletimeText(AOut, LoadU64(p)); break;
  case 0x12:
    // wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds
    AppendSystemtimeText(AOut, LoadU16(p), LoadU16(p + 2), LoadU16(p + 6), LoadU16(p + 8), LoadU16(p + 10),
                         LoadU16(p + 12), LoadU16(p + 14));
    break;
  case 0x14:
    // "0x" + digits, then the whole text upper-cased: the prefix comes out as "0X".
    PutHexFixed(AOut, "0X", LoadU32(p), 8);
    break;
  case 0x15:
    // Digits upper-cased first, then "0x" put in front: the prefix stays "0x".
    PutHexFixed(AOut, "0x", LoadU64(p), 16);
    break;
  default: break;
  }
}


void RaiseBinXml(const std::string& AMessage) { throw EBinXMLLogReadingException(AMessage); }
void RaiseBinXmlText(const char* AMessage) { throw EBinXMLLogReadingException(AMessage); }

bool IsVariantCode(uint8_t ACode) {
  return ACode <= 0x15 || ACode == 0x21 || ACode == 0x81 || (ACode >= 0x83 && ACode <= 0x8C) || ACode == 0x8F ||
         ACode == 0x91 || ACode == 0x92 || ACode == 0x94 || ACode == 0x95;
}

uint32_t MeasureVariant(uint8_t ACode, const uint8_t* AData, uint32_t ASize, uint32_t AMode) {
  const bool subst = AMode == kVarModeSubstitution;
  switch (ACode) {
  case 0x00:
    // A null substitution takes its declared size (Windows writes 2-byte nulls);
    // in the token stream a null has no bytes.
    if (subst) return ASize;
    if (ASize != 0) RaiseVar(ACode, "Null object too large!");
    return 0;
  case 0x01:
  case 0x02: {
    if (subst) return ASize;
    if (ASize < 2) RaiseVar(ACode, "bad size");
    uint32_t n = LoadU16(AData);
    uint32_t need = 2 + (ACode == 0x01 ? 2 * n : n);
    if (ASize < need) RaiseVar(ACode, "read behind end of data");
    return need;
  }
  case 0x0E: {
    if (subst) return ASize;
    if (ASize < 4) RaiseVar(ACode, "bad size");
    uint64_t need = 4 + static_cast<uint64_t>(LoadU32(AData));
    if (ASize < need) RaiseVar(ACode, "bad size", true);
    return static_cast<uint32_t>(need);
  }
  case 0x10:
    if (ASize != 4 && ASize != 8) RaiseVar(ACode, "bad size");
    return ASize;
  case 0x13: {
    if (ASize < 8) RaiseVar(ACode, "bad size");
    if (AData[0] != 1) RaiseVar(ACode, "unknown version?");
    uint32_t need = 8 + 4u * AData[1];
    if (ASize < need) RaiseVar(ACode, "bad size", true);
    return need;
  }
  case 0x21:
    return ASize;
  case 0x81:
    // An empty array (size 0) is a valid value with no items.
    if (!subst) RaiseVar(ACode, "Unknown value");
    if (ASize % 2) RaiseVar(ACode, "bad size", true);
    return ASize;
  default:
    break;
  }
  if (uint32_t n = ScalarSize(ACode)) {
    if (ASize < n) RaiseVar(ACode, "bad size");
    return n;
  }
  if (ACode >= 0x83 && IsVariantCode(ACode)) {
    uint32_t n = ScalarSize(static_cast<uint8_t>(ACode - 0x80));
    if (!subst) RaiseVar(ACode, "Unknown value");
    if (n > 1 && ASize % n) RaiseVar(ACode, "Odd length");
    return ASize;
  }
  RaiseBinXml(std::string());
}

namespace {

// Calls AVisit(item, size) for each item of an array value. String arrays (0x81) hold
// NUL-terminated UTF-16 strings; a last string without its NUL still counts, an empty
// tail after the last NUL does not. Scalar arrays hold whole items back to back.
template <typename TVisit> void ForEachArrayItem(uint8_t ACode, const uint8_t* AData, uint32_t AUsed, TVisit AVisit) {
  if (ACode == 0x81) {
    const uint32_t units = AUsed / 2;
    uint32_t start = 0;
    for (uint32_t i = 0; i <= units; ++i) {
      if (i < units && LoadU16(AData + 2 * i) != 0) continue;
      if (i == units && start == units) break; // nothing after the last separator
      AVisit(AData + 2 * start, 2 * (i - start));
      start = i + 1;
    }
    return;
  }
  const uint32_t n = ScalarSize(static_cast<uint8_t>(ACode - 0x80));
  for (uint32_t i = 0; n && (i + 1) * n <= AUsed; ++i) AVisit(AData + static_cast<size_t>(i) * n, n);
}

// "[0] a CR LF [1] b": an array where it cannot be repeated as elements (an attribute's
// value, or content mixed with other text).
void AppendArrayNumbered(std::string& AOut, uint8_t ACode, const uint8_t* AData, uint32_t AUsed) {
  uint32_t index = 0;
  ForEachArrayItem(ACode, AData, AUsed, [&](const uint8_t* AItem, uint32_t ASize) {
    if (index) AOut += "\r\n";
    AOut.push_back('[');
    PutInt(AOut, index++);
    AOut += "] ";
    if (ACode == 0x81) AppendUtf16Escaped(AOut, AItem, ASize / 2);
    else AppendScalarXml(AOut, static_cast<uint8_t>(ACode - 0x80), AItem);
  });
}

} // namespace

void AppendVariantXml(std::string& AOut, uint8_t ACode, const uint8_t* AData, uint32_t AUsed, uint32_t AMode) {
  const bool subst = AMode == kVarModeSubstitution;
  switch (ACode) {
  case 0x00:
  case 0x21:
    return;
  case 0x01:
    if (subst) {
      AppendUtf16Escaped(AOut, AData, AUsed / 2);
    } else {
      // In the token stream the text ends at its first NUL.
      uint32_t n = LoadU16(AData), len = 0;
      while (len < n && LoadU16(AData + 2 + 2 * len) != 0) ++len;
      AppendUtf16Escaped(AOut, AData + 2, len);
    }
    return;
  case 0x02:
    if (subst) PutAnsiEscaped(AOut, AData, AUsed);
    else PutAnsiEscaped(AOut, AData + 2, AUsed - 2);
    return;
  case 0x0E: {
    const uint8_t* p = subst ? AData : AData + 4;
    uint32_t n = subst ? AUsed : AUsed - 4;
    size_t at = AOut.size();
    AOut.resize(at + 2 * static_cast<size_t>(n));
    char* d = AOut.data() + at;
    for (uint32_t i = 0; i < n; ++i) {
      d[2 * i] = kHexUpper[p[i] >> 4];
      d[2 * i + 1] = kHexUpper[p[i] & 15];
    }
    return;
  }
  case 0x10:
    PutInt(AOut, AUsed == 4 ? static_cast<int64_t>(LoadU32(AData)) : static_cast<int64_t>(LoadU64(AData)));
    return;
  case 0x13:
    PutSid(AOut, AData);
    return;
  default:
    break;
  }
  if (ScalarSize(ACode)) {
    AppendScalarXml(AOut, ACode, AData);
    return;
  }
  if (ACode == 0x81 || ACode >= 0x83) AppendArrayNumbered(AOut, ACode, AData, AUsed);
}

uint32_t AppendVariantArrayItems(std::string& AOut, uint8_t ACode, const uint8_t* AData, uint32_t AUsed,
                                 std::string_view ASeparator) {
  uint32_t count = 0;
  ForEachArrayItem(ACode, AData, AUsed, [&](const uint8_t* AItem, uint32_t ASize) {
    if (count++) AOut.append(ASeparator);
    if (ACode == 0x81) AppendUtf16Escaped(AOut, AItem, ASize / 2);
    else AppendScalarXml(AOut, static_cast<uint8_t>(ACode - 0x80), AItem);
  });
  return count;
}

TVariantTypeCommon::TVariantTypeCommon(uint8_t ACode, const uint8_t* AChunkData, uint32_t AOffset, uint32_t ASize,
                                       uint32_t AMode)
    : FChunkData(AChunkData), FOffset(AOffset), FSize(ASize), FMode(AMode), FCode(ACode) {
  if (ASize > 0xFDFF || AOffset > 0xFFFF) RaiseBinXml(std::string());
  if (!IsVariantCode(ACode)) RaiseBinXml(std::string());
}

bool TVariantTypeCommon::Valid() {
  if (!FLoaded) {
    FLoaded = true;
    FValid = FChunkData != nullptr;
    if (FValid) {
      // Only the chunk's bytes are there to take.
      uint32_t avail = evtx::kChunkSize - FOffset;
      FSize = MeasureVariant(FCode, FChunkData + FOffset, FSize < avail ? FSize : avail, FMode);
    }
  }
  return FValid;
}

std::string TVariantTypeCommon::asXML() {
  std::string text;
  if (Valid()) AppendVariantXml(text, FCode, FChunkData + FOffset, FSize, FMode);
  return text;
}

} // namespace qvx
