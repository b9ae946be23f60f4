// Typed values of binary XML: size rules and text forms.
//
// A value lies either in the token stream (mode 0: strings and binary carry their
// own length) or in a template's substitution array (mode 1: the array gives the
// size). Each type code has one value class, TVariantType<code>; the family works on
// raw bytes and writes text straight into the caller's buffer, so rendering a value
// allocates nothing.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qvx {

inline constexpr uint32_t kVarModeStream = 0;
inline constexpr uint32_t kVarModeSubstitution = 1;

// Size of a value of ACode at AData with ASize bytes available, as its class parses it.
// Raises EBinXMLLogReadingException with the class's message when the bytes do not
// make a value of that type, and "BinXML read error" for a code without a class.
uint32_t MeasureVariant(uint8_t ACode, const uint8_t* AData, uint32_t ASize, uint32_t AMode);

// Appends the XML text of a value that MeasureVariant accepted (AUsed = its result):
// the five XML entities escaped and NULs removed. Type 0x21 (an embedded fragment) is
// rendered by the binary XML decoder, not here; this appends nothing for it.
void AppendVariantXml(std::string& AOut, uint8_t ACode, const uint8_t* AData, uint32_t AUsed, uint32_t AMode);

// Appends the text of a fixed-size scalar (VariantScalarSize(ACode) bytes at AData, not
// checked), as AppendVariantXml does for it; nothing for any other code.
void AppendScalarXml(std::string& AOut, uint8_t ACode, const uint8_t* AData);

// Appends the items of an array value (0x81, 0x83 and up) that MeasureVariant accepted,
// each as its own XML text, with ASeparator between two items; returns the item count.
// Used where an array is the whole content of an element, which then repeats per item.
uint32_t AppendVariantArrayItems(std::string& AOut, uint8_t ACode, const uint8_t* AData, uint32_t AUsed,
                                 std::string_view ASeparator);

// True when a class exists for ACode.
bool IsVariantCode(uint8_t ACode);
// The characters the text of every value of type ACode (as AppendVariantXml makes it in
// a substitution) is made of, for nulls and the types whose text is a number, a time, a
// GUID, a SID, hexadecimal or a boolean; null for the others (strings, floating point,
// arrays, embedded XML).
constexpr const char* NarrowTextChars(uint8_t ACode) {
  switch (ACode) {
  case 0x00: return "";
  case 0x03: case 0x04: case 0x05: case 0x06: case 0x07: case 0x08: case 0x09: case 0x0A: case 0x10:
    return "0123456789-";
  case 0x0D: return "truefals";
  case 0x0E: return "0123456789ABCDEF";
  case 0x0F: return "0123456789ABCDEF{}-";
  case 0x11: case 0x12: return "0123456789-:.TZ";
  case 0x13: return "S0123456789-";
  case 0x14: case 0x15: return "0123456789ABCDEFXx";
  default: return nullptr;
  }
}

// Bytes taken by a value of one of the fixed-size scalar codes (0x03 to 0x15 but 0x0E,
// 0x10, 0x13); 0 for any other code. MeasureVariant accepts such a value of exactly this
// size without looking at its bytes.
constexpr uint32_t VariantScalarSize(uint8_t ACode) {
  switch (ACode) {
  case 0x03: case 0x04: return 1;
  case 0x05: case 0x06: return 2;
  case 0x07: case 0x08: case 0x0B: case 0x0D: case 0x14: return 4;
  case 0x09: case 0x0A: case 0x0C: case 0x11: case 0x15: return 8;
  case 0x0F: case 0x12: return 16;
  default: return 0;
  }
}

// The value classes. TVariantTypeCommon keeps what every value has; TVariantType<code>
// binds a code to the family's parse and text rules.
class TVariantTypeCommon {
public:
  // Records where the value lies. Raises when ASize exceeds 0xFDFF or AOffset 0xFFFF.
  TVariantTypeCommon(uint8_t ACode, const uint8_t* AChunkData, uint32_t AOffset, uint32_t ASize, uint32_t AMode);

  uint8_t Code() const { return FCode; }
  // Parses on first use; after it, Size() is the number of bytes the value used.
  bool Valid();
  uint32_t Size() const { return FSize; }
  // The value's XML text (escaped); empty when not valid.
  std::string asXML();

private:
  const uint8_t* FChunkData;
  uint32_t FOffset;
  uint32_t FSize;
  uint32_t FMode;
  uint8_t FCode;
  bool FLoaded = false;
  bool FValid = false;
};

template <uint8_t ACode> class TVariantType : public TVariantTypeCommon {
public:
  static_assert(ACode <= 0x15 || ACode == 0x21 || ACode == 0x81 || (ACode >= 0x83 && ACode <= 0x8C) ||
                    ACode == 0x8F || ACode == 0x91 || ACode == 0x92 || ACode == 0x94 || ACode == 0x95,
                "no value class for this type code");
  TVariantType(const uint8_t* AChunkData, uint32_t AOffset, uint32_t ASize, uint32_t AMode)
      : TVariantTypeCommon(ACode, AChunkData, AOffset, ASize, AMode) {}
};

using TVariantType00 = TVariantType<0x00>;
using TVariantType01 = TVariantType<0x01>;
using TVariantType02 = TVariantType<0x02>;
using TVariantType03 = TVariantType<0x03>;
using TVariantType04 = TVariantType<0x04>;
using TVariantType05 = TVariantType<0x05>;
using TVariantType06 = TVariantType<0x06>;
using TVariantType07 = TVariantType<0x07>;
using TVariantType08 = TVariantType<0x08>;
using TVariantType09 = TVariantType<0x09>;
using TVariantType0A = TVariantType<0x0A>;
using TVariantType0B = TVariantType<0x0B>;
using TVariantType0C = TVariantType<0x0C>;
using TVariantType0D = TVariantType<0x0D>;
using TVariantType0E = TVariantType<0x0E>;
using TVariantType0F = TVariantType<0x0F>;
using TVariantType10 = TVariantType<0x10>;
using TVariantType11 = TVariantType<0x11>;
using TVariantType12 = TVariantType<0x12>;
using TVariantType13 = TVariantType<0x13>;
using TVariantType14 = TVariantType<0x14>;
using TVariantType15 = TVariantType<0x15>;
using TVariantType21 = TVariantType<0x21>;
using TVariantType81 = TVariantType<0x81>;
using TVariantType83 = TVariantType<0x83>;
using TVariantType84 = TVariantType<0x84>;
using TVariantType85 = TVariantType<0x85>;
using TVariantType86 = TVariantType<0x86>;
using TVariantType87 = TVariantType<0x87>;
using TVariantType88 = TVariantType<0x88>;
using TVariantType89 = TVariantType<0x89>;
using TVariantType8A = TVariantType<0x8A>;
using TVariantType8B = TVariantType<0x8B>;
using TVariantType8C = TVariantType<0x8C>;
using TVariantType8F = TVariantType<0x8F>;
using TVariantType91 = TVariantType<0x91>;
using TVariantType92 = TVariantType<0x92>;
using TVariantType94 = TVariantType<0x94>;
using TVariantType95 = TVariantType<0x95>;

} // namespace qvx
