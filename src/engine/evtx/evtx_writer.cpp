#include "engine/evtx/evtx_writer.h"

#include "platform/utf16.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <stdexcept>

namespace qvx {
namespace {

// CRC32 tables for eight bytes at a time: kCrc[0] is the usual byte table, kCrc[k] the CRC of
// a byte followed by k zero bytes.
using TCrcTables = std::array<std::array<uint32_t, 256>, 8>;

constexpr TCrcTables MakeCrcTables() {
  TCrcTables t{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t c = i;
    for (int k = 0; k < 8; ++k)
      c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    t[0][i] = c;
  }
  for (uint32_t i = 0; i < 256; ++i)
    for (size_t k = 1; k < 8; ++k)
      t[k][i] = t[0][t[k - 1][i] & 0xFF] ^ (t[k - 1][i] >> 8);
  return t;
}

constexpr TCrcTables kCrc = MakeCrcTables();

constexpr std::string_view kEventNamespace = "http://schemas.microsoft.com/win/2004/08/events/event";
constexpr size_t kNone = static_cast<size_t>(-1);

void Append16(std::vector<uint8_t>& AOut, uint16_t AValue) {
  AOut.push_back(static_cast<uint8_t>(AValue));
  AOut.push_back(static_cast<uint8_t>(AValue >> 8));
}

void Append32(std::vector<uint8_t>& AOut, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    AOut.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
}

void Append64(std::vector<uint8_t>& AOut, uint64_t AValue) {
  for (int i = 0; i < 8; ++i)
    AOut.push_back(static_cast<uint8_t>(AValue >> (8 * i)));
}

void AppendUtf16(std::vector<uint8_t>& AOut, std::u16string_view AText) {
  size_t at = AOut.size();
  AOut.resize(at + 2 * AText.size());
  uint8_t* p = AOut.data() + at;
  for (char16_t c : AText) {
    *p++ = static_cast<uint8_t>(c);
    *p++ = static_cast<uint8_t>(c >> 8);
  }
}

TEvtxValue Scalar(uint8_t AType, uint64_t AValue, size_t ASize) {
  std::vector<uint8_t> bytes(ASize);
  for (size_t i = 0; i < ASize; ++i)
    bytes[i] = static_cast<uint8_t>(AValue >> (8 * i));
  return TEvtxValue(AType, std::move(bytes));
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Days from 1970-01-01 to a proleptic Gregorian date.
int64_t DaysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

// Two independent 64-bit FNV-1a style hashes of a key, as template GUID bytes.
TEvtxGuid GuidFromKey(std::string_view AKey) {
  uint64_t a = 0xcbf29ce484222325ull;
  uint64_t b = 0x84222325cbf29ce4ull;
  for (char c : AKey) {
    a = (a ^ static_cast<uint8_t>(c)) * 0x100000001b3ull;
    b = (b ^ static_cast<uint8_t>(c)) * 0x00000100000001B3ull + 0x9E3779B97F4A7C15ull;
  }
  TEvtxGuid guid{};
  EvtxPut64(guid.data(), a);
  EvtxPut64(guid.data() + 8, b);
  guid[7] = static_cast<uint8_t>((guid[7] & 0x0F) | 0x40); // shaped like a version 4 GUID
  guid[8] = static_cast<uint8_t>((guid[8] & 0x3F) | 0x80);
  return guid;
}

} // namespace

// ---------------------------------------------------------------------------------------
// Helpers

uint32_t EvtxCrc32(std::span<const uint8_t> AData, uint32_t ASeed) {
  uint32_t c = ~ASeed;
  const uint8_t* p = AData.data();
  size_t n = AData.size();
  for (; n >= 8; p += 8, n -= 8) {
    uint32_t lo = c ^ EvtxGet32(p);
    uint32_t hi = EvtxGet32(p + 4);
    c = kCrc[7][lo & 0xFF] ^ kCrc[6][(lo >> 8) & 0xFF] ^ kCrc[5][(lo >> 16) & 0xFF] ^ kCrc[4][lo >> 24] ^
        kCrc[3][hi & 0xFF] ^ kCrc[2][(hi >> 8) & 0xFF] ^ kCrc[1][(hi >> 16) & 0xFF] ^ kCrc[0][hi >> 24];
  }
  for (; n > 0; ++p, --n)
    c = kCrc[0][(c ^ *p) & 0xFF] ^ (c >> 8);
  return ~c;
}

uint16_t EvtxNameHash(std::u16string_view AName) {
  uint32_t h = 0;
  for (char16_t c : AName)
    h = h * 65599u + c;
  return static_cast<uint16_t>(h);
}

uint32_t EvtxTemplateBucket(const TEvtxGuid& AGuid) {
  uint32_t h = 0;
  for (size_t i = 0; i < AGuid.size(); i += 2)
    h = h * 65599u + EvtxGet16(AGuid.data() + i);
  return (h & 0xFFFF) % 32;
}

TEvtxGuid EvtxParseGuid(std::string_view AText) {
  if (AText.size() == 38 && AText.front() == '{' && AText.back() == '}') AText = AText.substr(1, 36);
  if (AText.size() != 36 || AText[8] != '-' || AText[13] != '-' || AText[18] != '-' || AText[23] != '-')
    throw std::invalid_argument("not a GUID: " + std::string(AText));
  uint8_t raw[16];
  size_t n = 0;
  for (size_t i = 0; i < AText.size();) {
    if (AText[i] == '-') {
      ++i;
      continue;
    }
    int hi = HexDigit(AText[i]);
    int lo = i + 1 < AText.size() ? HexDigit(AText[i + 1]) : -1;
    if (hi < 0 || lo < 0) throw std::invalid_argument("not a GUID: " + std::string(AText));
    raw[n++] = static_cast<uint8_t>(hi * 16 + lo);
    i += 2;
  }
  // raw holds the groups as written; the first three are stored little-endian.
  TEvtxGuid guid{};
  guid[0] = raw[3];
  guid[1] = raw[2];
  guid[2] = raw[1];
  guid[3] = raw[0];
  guid[4] = raw[5];
  guid[5] = raw[4];
  guid[6] = raw[7];
  guid[7] = raw[6];
  std::memcpy(guid.data() + 8, raw + 8, 8);
  return guid;
}

uint64_t EvtxFileTime(int AYear, unsigned AMonth, unsigned ADay, unsigned AHour, unsigned AMinute,
                      unsigned ASecond, uint32_t AHundredNs) {
  int64_t days = DaysFromCivil(AYear, AMonth, ADay) + 134774; // 1601-01-01 .. 1970-01-01
  int64_t seconds = days * 86400 + AHour * 3600 + AMinute * 60 + ASecond;
  return static_cast<uint64_t>(seconds) * 10000000ull + AHundredNs;
}

void EvtxPut16(uint8_t* ADest, uint16_t AValue) {
  ADest[0] = static_cast<uint8_t>(AValue);
  ADest[1] = static_cast<uint8_t>(AValue >> 8);
}

void EvtxPut32(uint8_t* ADest, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    ADest[i] = static_cast<uint8_t>(AValue >> (8 * i));
}

void EvtxPut64(uint8_t* ADest, uint64_t AValue) {
  for (int i = 0; i < 8; ++i)
    ADest[i] = static_cast<uint8_t>(AValue >> (8 * i));
}

uint16_t EvtxGet16(const uint8_t* ASource) {
  return static_cast<uint16_t>(ASource[0] | (ASource[1] << 8));
}

uint32_t EvtxGet32(const uint8_t* ASource) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i)
    v = (v << 8) | ASource[i];
  return v;
}

uint64_t EvtxGet64(const uint8_t* ASource) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i)
    v = (v << 8) | ASource[i];
  return v;
}

void EvtxRefreshChunkCrcs(std::span<uint8_t> AChunk) {
  if (AChunk.size() < kEvtxChunkHeaderSize) throw std::invalid_argument("chunk shorter than its header");
  size_t free = std::clamp<size_t>(EvtxGet32(AChunk.data() + 48), kEvtxChunkHeaderSize, AChunk.size());
  EvtxPut32(AChunk.data() + 52, EvtxCrc32(AChunk.subspan(kEvtxChunkHeaderSize, free - kEvtxChunkHeaderSize)));
  EvtxRefreshChunkHeaderCrc(AChunk);
}

void EvtxRefreshChunkHeaderCrc(std::span<uint8_t> AChunk) {
  if (AChunk.size() < kEvtxChunkHeaderSize) throw std::invalid_argument("chunk shorter than its header");
  uint32_t crc = EvtxCrc32(AChunk.subspan(0, 120));
  crc = EvtxCrc32(AChunk.subspan(128, kEvtxChunkHeaderSize - 128), crc);
  EvtxPut32(AChunk.data() + 124, crc);
}

void EvtxRefreshFileHeaderCrc(std::span<uint8_t> AHeader) {
  if (AHeader.size() < 128) throw std::invalid_argument("file header shorter than 128 bytes");
  EvtxPut32(AHeader.data() + 124, EvtxCrc32(AHeader.subspan(0, 120)));
}

void EvtxWriteBytes(const std::string& APath, std::span<const uint8_t> ABytes) {
  std::ofstream out(APath, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error(APath + ": cannot create");
  out.write(reinterpret_cast<const char*>(ABytes.data()), static_cast<std::streamsize>(ABytes.size()));
  out.close();
  if (!out) throw std::runtime_error(APath + ": cannot write");
}

// ---------------------------------------------------------------------------------------
// TEvtxValue

TEvtxValue TEvtxValue::String(std::string_view AUtf8) {
  std::vector<uint8_t> bytes;
  AppendUtf16(bytes, Utf8ToUtf16(AUtf8));
  return TEvtxValue(EvtxType::String, std::move(bytes));
}

TEvtxValue TEvtxValue::AnsiString(std::string_view ABytes) {
  return TEvtxValue(EvtxType::AnsiString, std::vector<uint8_t>(ABytes.begin(), ABytes.end()));
}

TEvtxValue TEvtxValue::Int8(int8_t AValue) {
  return Scalar(EvtxType::Int8, static_cast<uint8_t>(AValue), 1);
}
TEvtxValue TEvtxValue::UInt8(uint8_t AValue) {
  return Scalar(EvtxType::UInt8, AValue, 1);
}
TEvtxValue TEvtxValue::Int16(int16_t AValue) {
  return Scalar(EvtxType::Int16, static_cast<uint16_t>(AValue), 2);
}
TEvtxValue TEvtxValue::UInt16(uint16_t AValue) {
  return Scalar(EvtxType::UInt16, AValue, 2);
}
TEvtxValue TEvtxValue::Int32(int32_t AValue) {
  return Scalar(EvtxType::Int32, static_cast<uint32_t>(AValue), 4);
}
TEvtxValue TEvtxValue::UInt32(uint32_t AValue) {
  return Scalar(EvtxType::UInt32, AValue, 4);
}
TEvtxValue TEvtxValue::Int64(int64_t AValue) {
  return Scalar(EvtxType::Int64, static_cast<uint64_t>(AValue), 8);
}
TEvtxValue TEvtxValue::UInt64(uint64_t AValue) {
  return Scalar(EvtxType::UInt64, AValue, 8);
}

TEvtxValue TEvtxValue::Real32(float AValue) {
  return Scalar(EvtxType::Real32, std::bit_cast<uint32_t>(AValue), 4);
}

TEvtxValue TEvtxValue::Real64(double AValue) {
  return Scalar(EvtxType::Real64, std::bit_cast<uint64_t>(AValue), 8);
}

TEvtxValue TEvtxValue::Bool(bool AValue) {
  return Scalar(EvtxType::Bool, AValue ? 1 : 0, 4);
}

TEvtxValue TEvtxValue::Binary(std::span<const uint8_t> ABytes) {
  return TEvtxValue(EvtxType::Binary, std::vector<uint8_t>(ABytes.begin(), ABytes.end()));
}

TEvtxValue TEvtxValue::Guid(std::string_view AText) {
  return Guid(EvtxParseGuid(AText));
}

TEvtxValue TEvtxValue::Guid(const TEvtxGuid& AGuid) {
  return TEvtxValue(EvtxType::Guid, std::vector<uint8_t>(AGuid.begin(), AGuid.end()));
}

TEvtxValue TEvtxValue::SizeT(uint64_t AValue, bool A64Bit) {
  return Scalar(EvtxType::SizeT, AValue, A64Bit ? 8 : 4);
}

TEvtxValue TEvtxValue::FileTime(uint64_t AFileTime) {
  return Scalar(EvtxType::FileTime, AFileTime, 8);
}

TEvtxValue TEvtxValue::SystemTime(uint16_t AYear, uint16_t AMonth, uint16_t ADayOfWeek, uint16_t ADay,
                                  uint16_t AHour, uint16_t AMinute, uint16_t ASecond,
                                  uint16_t AMilliseconds) {
  std::vector<uint8_t> bytes;
  for (uint16_t v : {AYear, AMonth, ADayOfWeek, ADay, AHour, AMinute, ASecond, AMilliseconds})
    Append16(bytes, v);
  return TEvtxValue(EvtxType::SystemTime, std::move(bytes));
}

TEvtxValue TEvtxValue::Sid(std::string_view AText) {
  auto bad = [&]() { return std::invalid_argument("not a SID: " + std::string(AText)); };
  if (AText.size() < 4 || (AText[0] != 'S' && AText[0] != 's') || AText[1] != '-') throw bad();
  std::vector<uint64_t> parts;
  size_t i = 2;
  while (i <= AText.size()) {
    size_t end = AText.find('-', i);
    if (end == std::string_view::npos) end = AText.size();
    if (end == i) throw bad();
    uint64_t v = 0;
    for (size_t k = i; k < end; ++k) {
      if (AText[k] < '0' || AText[k] > '9' || v > (~0ull - 9) / 10) throw bad();
      v = v * 10 + static_cast<uint64_t>(AText[k] - '0');
    }
    parts.push_back(v);
    i = end + 1;
  }
  // revision, authority, up to 15 sub-authorities
  if (parts.size() < 2 || parts.size() > 17 || parts[0] > 255 || parts[1] >= (1ull << 48)) throw bad();
  std::vector<uint8_t> bytes;
  bytes.push_back(static_cast<uint8_t>(parts[0]));
  bytes.push_back(static_cast<uint8_t>(parts.size() - 2));
  for (int k = 5; k >= 0; --k)
    bytes.push_back(static_cast<uint8_t>(parts[1] >> (8 * k))); // big-endian
  for (size_t k = 2; k < parts.size(); ++k) {
    if (parts[k] > 0xFFFFFFFFull) throw bad();
    Append32(bytes, static_cast<uint32_t>(parts[k]));
  }
  return TEvtxValue(EvtxType::Sid, std::move(bytes));
}

TEvtxValue TEvtxValue::Hex32(uint32_t AValue) {
  return Scalar(EvtxType::Hex32, AValue, 4);
}
TEvtxValue TEvtxValue::Hex64(uint64_t AValue) {
  return Scalar(EvtxType::Hex64, AValue, 8);
}

TEvtxValue TEvtxValue::StringArray(const std::vector<std::string>& AItems) {
  std::vector<uint8_t> bytes;
  for (const std::string& item : AItems) {
    AppendUtf16(bytes, Utf8ToUtf16(item));
    Append16(bytes, 0);
  }
  return TEvtxValue(EvtxType::String | EvtxType::ArrayFlag, std::move(bytes));
}

TEvtxValue TEvtxValue::UInt16Array(std::span<const uint16_t> AItems) {
  std::vector<uint8_t> bytes;
  for (uint16_t v : AItems)
    Append16(bytes, v);
  return TEvtxValue(EvtxType::UInt16 | EvtxType::ArrayFlag, std::move(bytes));
}

TEvtxValue TEvtxValue::UInt32Array(std::span<const uint32_t> AItems) {
  std::vector<uint8_t> bytes;
  for (uint32_t v : AItems)
    Append32(bytes, v);
  return TEvtxValue(EvtxType::UInt32 | EvtxType::ArrayFlag, std::move(bytes));
}

TEvtxValue TEvtxValue::UInt64Array(std::span<const uint64_t> AItems) {
  std::vector<uint8_t> bytes;
  for (uint64_t v : AItems)
    Append64(bytes, v);
  return TEvtxValue(EvtxType::UInt64 | EvtxType::ArrayFlag, std::move(bytes));
}

TEvtxValue TEvtxValue::Array(uint8_t AItemType, std::span<const TEvtxValue> AItems) {
  std::vector<uint8_t> bytes;
  for (const TEvtxValue& item : AItems) {
    bytes.insert(bytes.end(), item.Bytes().begin(), item.Bytes().end());
    if (AItemType == EvtxType::String) Append16(bytes, 0);
  }
  return TEvtxValue(static_cast<uint8_t>(AItemType | EvtxType::ArrayFlag), std::move(bytes));
}

TEvtxValue TEvtxValue::BinXml(std::shared_ptr<const TEvtxTemplate> ATemplate, std::vector<TEvtxValue> AValues,
                              bool AEndOfStream, bool AFragmentHeader) {
  TEvtxValue v;
  v.FType = EvtxType::BinXml;
  v.FFragment = std::move(ATemplate);
  v.FFragmentValues = std::move(AValues);
  v.FFragmentEnd = AEndOfStream;
  v.FFragmentHeader = AFragmentHeader;
  return v;
}

TEvtxValue TEvtxValue::BinXmlContent(TBinXmlBody ABody) {
  TEvtxValue v;
  v.FType = EvtxType::BinXml;
  v.FContent = std::move(ABody);
  return v;
}

// ---------------------------------------------------------------------------------------
// TEvtxChunkTables

TEvtxChunkTables::TEvtxChunkTables() {
  FNames.reserve(256);
}

uint32_t TEvtxChunkTables::FindName(const std::string& AName) const {
  auto it = FNames.find(AName);
  return it == FNames.end() ? 0 : it->second;
}

uint32_t TEvtxChunkTables::AddName(const std::string& AName, uint16_t AHash, uint32_t AOffset) {
  uint32_t bucket = AHash % 64;
  uint32_t previous = FNameBuckets[bucket];
  FNames.emplace(AName, AOffset);
  FNameBuckets[bucket] = AOffset;
  FUndo.push_back({true, AName, {}, bucket, previous});
  return previous;
}

uint32_t TEvtxChunkTables::FindTemplate(const TEvtxGuid& AGuid) const {
  auto it = FTemplates.find(AGuid);
  return it == FTemplates.end() ? 0 : it->second;
}

uint32_t TEvtxChunkTables::AddTemplate(const TEvtxGuid& AGuid, uint32_t AOffset) {
  uint32_t bucket = EvtxTemplateBucket(AGuid);
  uint32_t previous = FTemplateBuckets[bucket];
  FTemplates.emplace(AGuid, AOffset);
  FTemplateBuckets[bucket] = AOffset;
  FUndo.push_back({false, {}, AGuid, bucket, previous});
  return previous;
}

void TEvtxChunkTables::RollBack(size_t AMark) {
  while (FUndo.size() > AMark) {
    TUndo& undo = FUndo.back();
    if (undo.FIsName) {
      FNames.erase(undo.FName);
      FNameBuckets[undo.FBucket] = undo.FPreviousHead;
    } else {
      FTemplates.erase(undo.FGuid);
      FTemplateBuckets[undo.FBucket] = undo.FPreviousHead;
    }
    FUndo.pop_back();
  }
}

void TEvtxChunkTables::Clear() {
  FNames.clear();
  FTemplates.clear();
  FNameBuckets.fill(0);
  FTemplateBuckets.fill(0);
  FUndo.clear();
}

// ---------------------------------------------------------------------------------------
// TEvtxTemplate

TEvtxTemplate::TEvtxTemplate(std::string_view AKey, TBinXmlBody ABody)
    : FGuid(GuidFromKey(AKey)), FBody(std::move(ABody)) {}

uint32_t TEvtxTemplate::Id() const {
  return EvtxGet32(FGuid.data());
}

// ---------------------------------------------------------------------------------------
// TBinXmlWriter

TBinXmlWriter::TBinXmlWriter(std::vector<uint8_t>& AOut, TEvtxChunkTables& ATables, uint32_t ABaseOffset)
    : FOut(AOut), FTables(ATables), FOrigin(AOut.size()), FBase(ABaseOffset) {}

void TBinXmlWriter::Put16(uint16_t AValue) {
  Append16(FOut, AValue);
}
void TBinXmlWriter::Put32(uint32_t AValue) {
  Append32(FOut, AValue);
}
void TBinXmlWriter::Patch32(size_t AIndex, uint32_t AValue) {
  EvtxPut32(FOut.data() + AIndex, AValue);
}
void TBinXmlWriter::PutUtf16(std::u16string_view AText) {
  AppendUtf16(FOut, AText);
}

void TBinXmlWriter::PutCountedText(std::string_view AUtf8) {
  std::u16string text = Utf8ToUtf16(AUtf8);
  if (text.size() > 0xFFFF) throw std::length_error("binary XML text longer than 65535 characters");
  Put16(static_cast<uint16_t>(text.size()));
  PutUtf16(text);
}

void TBinXmlWriter::PutName(std::string_view AName) {
  std::string key(AName);
  if (uint32_t offset = FTables.FindName(key)) {
    Put32(offset);
    return;
  }
  std::u16string name = Utf8ToUtf16(AName);
  if (name.size() > 0xFFFF) throw std::length_error("name longer than 65535 characters");
  uint32_t offset = Position() + 4;
  uint16_t hash = EvtxNameHash(name);
  Put32(offset);
  Put32(FTables.AddName(key, hash, offset));
  Put16(hash);
  Put16(static_cast<uint16_t>(name.size()));
  PutUtf16(name);
  Put16(0);
}

void TBinXmlWriter::FragmentHeader() {
  for (uint8_t b : {0x0F, 0x01, 0x01, 0x00})
    Put8(b);
}

void TBinXmlWriter::EndOfStream() {
  Put8(0x00);
}

void TBinXmlWriter::OpenElement(std::string_view AName, int32_t ADependency) {
  if (!FStack.empty() && !FStack.back().FStarted)
    throw std::logic_error("element opened inside an unclosed start element");
  if (ADependency > 0xFFFF || ADependency < kEvtxNoDependency)
    throw std::invalid_argument("bad dependency id");
  TOpen open{FOut.size(), 0, kNone, kNone, false};
  Put8(0x01);
  if (ADependency >= 0)
    Put16(static_cast<uint16_t>(ADependency));
  else if (ADependency == kEvtxDependencyAuto && FTemplateDepth > 0)
    Put16(0xFFFF);
  open.FSizePos = FOut.size();
  Put32(0);
  PutName(AName);
  FStack.push_back(open);
}

void TBinXmlWriter::Attribute(std::string_view AName) {
  if (FStack.empty() || FStack.back().FStarted) throw std::logic_error("attribute outside a start element");
  TOpen& open = FStack.back();
  if (open.FAttrSizePos == kNone) {
    FOut[open.FTokenPos] = 0x41;
    open.FAttrSizePos = FOut.size();
    Put32(0);
  } else {
    FOut[open.FLastAttrPos] = 0x46;
  }
  open.FLastAttrPos = FOut.size();
  Put8(0x06);
  PutName(AName);
}

void TBinXmlWriter::EndAttributes(TOpen& AOpen) {
  if (AOpen.FAttrSizePos != kNone)
    Patch32(AOpen.FAttrSizePos, static_cast<uint32_t>(FOut.size() - AOpen.FAttrSizePos - 4));
}

void TBinXmlWriter::CloseStartElement() {
  if (FStack.empty() || FStack.back().FStarted) throw std::logic_error("no start element to close");
  EndAttributes(FStack.back());
  Put8(0x02);
  FStack.back().FStarted = true;
}

void TBinXmlWriter::CloseEmptyElement() {
  if (FStack.empty() || FStack.back().FStarted) throw std::logic_error("no start element to close");
  EndAttributes(FStack.back());
  Put8(0x03);
  Patch32(FStack.back().FSizePos, static_cast<uint32_t>(FOut.size() - FStack.back().FSizePos - 4));
  FStack.pop_back();
}

void TBinXmlWriter::EndElement() {
  if (FStack.empty() || !FStack.back().FStarted) throw std::logic_error("no element to end");
  Put8(0x04);
  Patch32(FStack.back().FSizePos, static_cast<uint32_t>(FOut.size() - FStack.back().FSizePos - 4));
  FStack.pop_back();
}

void TBinXmlWriter::Text(std::string_view AUtf8) {
  Put8(0x05);
  Put8(EvtxType::String);
  PutCountedText(AUtf8);
}

void TBinXmlWriter::Substitution(uint16_t AIndex, uint8_t AType, bool AOptional) {
  Put8(AOptional ? 0x0E : 0x0D);
  Put16(AIndex);
  Put8(AType);
}

void TBinXmlWriter::CData(std::string_view AUtf8) {
  Put8(0x07);
  PutCountedText(AUtf8);
}

void TBinXmlWriter::EntityReference(std::string_view AName) {
  Put8(0x09);
  PutName(AName);
}

void TBinXmlWriter::PITarget(std::string_view AName) {
  Put8(0x0A);
  PutName(AName);
}

void TBinXmlWriter::PIData(std::string_view AUtf8) {
  Put8(0x0B);
  PutCountedText(AUtf8);
}

void TBinXmlWriter::TemplateInstance(const TEvtxTemplate& ATemplate, std::span<const TEvtxValue> AValues) {
  Put8(0x0C);
  Put8(0x01);
  Put32(ATemplate.Id());
  if (uint32_t offset = FTables.FindTemplate(ATemplate.Guid())) {
    Put32(offset);
  } else {
    uint32_t definition = Position() + 4;
    Put32(definition);
    Put32(FTables.AddTemplate(ATemplate.Guid(), definition));
    FOut.insert(FOut.end(), ATemplate.Guid().begin(), ATemplate.Guid().end());
    size_t sizePos = FOut.size();
    Put32(0);
    // The body is a fragment of its own: elements open outside it do not reach in.
    std::vector<TOpen> outer;
    outer.swap(FStack);
    ++FTemplateDepth;
    FragmentHeader();
    if (ATemplate.Body()) ATemplate.Body()(*this);
    --FTemplateDepth;
    bool balanced = FStack.empty();
    FStack.swap(outer);
    if (!balanced) throw std::logic_error("template body leaves elements open");
    EndOfStream();
    Patch32(sizePos, static_cast<uint32_t>(FOut.size() - sizePos - 4));
  }
  SubstitutionArray(AValues);
}

void TBinXmlWriter::SubstitutionArray(std::span<const TEvtxValue> AValues) {
  Put32(static_cast<uint32_t>(AValues.size()));
  size_t descriptors = FOut.size();
  FOut.resize(FOut.size() + 4 * AValues.size());
  for (size_t i = 0; i < AValues.size(); ++i) {
    size_t start = FOut.size();
    PutValue(AValues[i]);
    size_t size = FOut.size() - start;
    if (size > 0xFFFF) throw std::length_error("substitution value larger than 65535 bytes");
    uint8_t* d = FOut.data() + descriptors + 4 * i;
    EvtxPut16(d, static_cast<uint16_t>(size));
    d[2] = AValues[i].Type();
    d[3] = 0;
  }
}

void TBinXmlWriter::PutValue(const TEvtxValue& AValue) {
  if (AValue.Type() == EvtxType::BinXml && (AValue.Fragment() || AValue.Content())) {
    // Values are written outside any template body and outside the elements around.
    std::vector<TOpen> outer;
    outer.swap(FStack);
    int depth = FTemplateDepth;
    FTemplateDepth = 0;
    if (AValue.Fragment()) {
      if (AValue.FragmentHasHeader()) FragmentHeader();
      TemplateInstance(*AValue.Fragment(), AValue.FragmentValues());
      if (AValue.FragmentEndsStream()) EndOfStream();
    } else {
      AValue.Content()(*this);
    }
    FTemplateDepth = depth;
    bool balanced = FStack.empty();
    FStack.swap(outer);
    if (!balanced) throw std::logic_error("embedded content leaves elements open");
    return;
  }
  FOut.insert(FOut.end(), AValue.Bytes().begin(), AValue.Bytes().end());
}

void TBinXmlWriter::TextElement(std::string_view AName, std::string_view AUtf8) {
  OpenElement(AName);
  CloseStartElement();
  Text(AUtf8);
  EndElement();
}

void TBinXmlWriter::SubstitutionElement(std::string_view AName, uint16_t AIndex, uint8_t AType,
                                        bool AOptional) {
  OpenElement(AName);
  CloseStartElement();
  Substitution(AIndex, AType, AOptional);
  EndElement();
}

void TBinXmlWriter::Raw(std::span<const uint8_t> ABytes) {
  FOut.insert(FOut.end(), ABytes.begin(), ABytes.end());
}
void TBinXmlWriter::RawU8(uint8_t AValue) {
  Put8(AValue);
}
void TBinXmlWriter::RawU16(uint16_t AValue) {
  Put16(AValue);
}
void TBinXmlWriter::RawU32(uint32_t AValue) {
  Put32(AValue);
}

// ---------------------------------------------------------------------------------------
// Standard event template

std::shared_ptr<const TEvtxTemplate> TEvtxEventTemplates::For(const TEvtxEventDraft& AEvent) {
  std::string key = "qvx.event";
  for (const TEvtxData& data : AEvent.FData) {
    key += '\x1F';
    key += data.FName;
    key += '\x1E';
    key += static_cast<char>(data.FValue.Type());
  }
  if (AEvent.FBinary) key += "\x1F#binary";
  if (AEvent.FUserData) key += "\x1F#userdata";
  auto it = FCache.find(key);
  if (it != FCache.end()) return it->second;

  std::vector<std::pair<std::string, uint8_t>> shape;
  for (const TEvtxData& data : AEvent.FData)
    shape.emplace_back(data.FName, data.FValue.Type());
  bool binary = AEvent.FBinary.has_value();
  bool userData = AEvent.FUserData.has_value();

  auto body = [shape, binary, userData](TBinXmlWriter& w) {
    using namespace EvtxEventIndex;
    w.OpenElement("Event");
    w.Attribute("xmlns");
    w.Text(kEventNamespace);
    w.CloseStartElement();
    w.OpenElement("System");
    w.CloseStartElement();

    w.OpenElement("Provider");
    w.Attribute("Name");
    w.Substitution(ProviderName, EvtxType::String, true);
    w.Attribute("Guid");
    w.Substitution(ProviderGuid, EvtxType::Guid, true);
    w.Attribute("EventSourceName");
    w.Substitution(EventSourceName, EvtxType::String, true);
    w.CloseEmptyElement();

    w.OpenElement("EventID");
    w.Attribute("Qualifiers");
    w.Substitution(Qualifiers, EvtxType::UInt16, true);
    w.CloseStartElement();
    w.Substitution(EventId, EvtxType::UInt16);
    w.EndElement();

    w.SubstitutionElement("Version", Version, EvtxType::UInt8, true);
    w.SubstitutionElement("Level", Level, EvtxType::UInt8, true);
    w.SubstitutionElement("Task", Task, EvtxType::UInt16, true);
    w.SubstitutionElement("Opcode", Opcode, EvtxType::UInt8, true);
    w.SubstitutionElement("Keywords", Keywords, EvtxType::Hex64, true);

    w.OpenElement("TimeCreated");
    w.Attribute("SystemTime");
    w.Substitution(TimeCreated, EvtxType::FileTime, true);
    w.CloseEmptyElement();

    w.SubstitutionElement("EventRecordID", EventRecordId, EvtxType::UInt64, true);

    w.OpenElement("Correlation");
    w.Attribute("ActivityID");
    w.Substitution(ActivityId, EvtxType::Guid, true);
    w.Attribute("RelatedActivityID");
    w.Substitution(RelatedActivityId, EvtxType::Guid, true);
    w.CloseEmptyElement();

    w.OpenElement("Execution");
    w.Attribute("ProcessID");
    w.Substitution(ProcessId, EvtxType::UInt32, true);
    w.Attribute("ThreadID");
    w.Substitution(ThreadId, EvtxType::UInt32, true);
    w.CloseEmptyElement();

    w.SubstitutionElement("Channel", Channel, EvtxType::String, true);
    w.SubstitutionElement("Computer", Computer, EvtxType::String, true);

    w.OpenElement("Security");
    w.Attribute("UserID");
    w.Substitution(UserId, EvtxType::Sid, true);
    w.CloseEmptyElement();

    w.EndElement(); // System

    uint16_t index = FirstData;
    if (!shape.empty() || binary) {
      w.OpenElement("EventData");
      w.CloseStartElement();
      for (const auto& [name, type] : shape) {
        w.OpenElement("Data");
        if (!name.empty()) {
          w.Attribute("Name");
          w.Text(name);
        }
        w.CloseStartElement();
        w.Substitution(index++, type, true);
        w.EndElement();
      }
      if (binary) w.SubstitutionElement("Binary", index++, EvtxType::Binary, true);
      w.EndElement(); // EventData
    }
    if (userData) w.SubstitutionElement("UserData", index, EvtxType::BinXml, true);
    w.EndElement(); // Event
  };
  auto made = std::make_shared<const TEvtxTemplate>(std::string_view(key), body);
  FCache.emplace(std::move(key), made);
  return made;
}

std::vector<TEvtxValue> TEvtxEventTemplates::Values(const TEvtxEventDraft& AEvent, uint64_t ARecordId) {
  auto text = [](const std::string& s) { return s.empty() ? TEvtxValue::Null() : TEvtxValue::String(s); };
  auto guid = [](const std::string& s) { return s.empty() ? TEvtxValue::Null() : TEvtxValue::Guid(s); };
  std::vector<TEvtxValue> values;
  values.reserve(EvtxEventIndex::FirstData + AEvent.FData.size() + 2);
  values.push_back(TEvtxValue::String(AEvent.FProviderName));
  values.push_back(guid(AEvent.FProviderGuid));
  values.push_back(text(AEvent.FEventSourceName));
  values.push_back(TEvtxValue::UInt16(AEvent.FEventId));
  values.push_back(AEvent.FQualifiers ? TEvtxValue::UInt16(*AEvent.FQualifiers) : TEvtxValue::Null());
  values.push_back(TEvtxValue::UInt8(AEvent.FVersion));
  values.push_back(TEvtxValue::UInt8(AEvent.FLevel));
  values.push_back(TEvtxValue::UInt16(AEvent.FTask));
  values.push_back(TEvtxValue::UInt8(AEvent.FOpcode));
  values.push_back(TEvtxValue::Hex64(AEvent.FKeywords));
  values.push_back(TEvtxValue::FileTime(AEvent.FTimeCreated));
  values.push_back(TEvtxValue::UInt64(ARecordId));
  values.push_back(guid(AEvent.FActivityId));
  values.push_back(guid(AEvent.FRelatedActivityId));
  values.push_back(TEvtxValue::UInt32(AEvent.FProcessId));
  values.push_back(TEvtxValue::UInt32(AEvent.FThreadId));
  values.push_back(TEvtxValue::String(AEvent.FChannel));
  values.push_back(TEvtxValue::String(AEvent.FComputer));
  values.push_back(AEvent.FUserId.empty() ? TEvtxValue::Null() : TEvtxValue::Sid(AEvent.FUserId));
  for (const TEvtxData& data : AEvent.FData)
    values.push_back(data.FValue);
  if (AEvent.FBinary) values.push_back(TEvtxValue::Binary(*AEvent.FBinary));
  if (AEvent.FUserData) values.push_back(*AEvent.FUserData);
  return values;
}

// ---------------------------------------------------------------------------------------
// TEvtxChunkWriter

TEvtxChunkWriter::TEvtxChunkWriter() {
  FBuffer.reserve(kEvtxChunkSize + 4096);
  FBuffer.assign(kEvtxChunkHeaderSize, 0);
}

void TEvtxChunkWriter::Reset() {
  FBuffer.assign(kEvtxChunkHeaderSize, 0);
  FTables.Clear();
  FRecordOffsets.clear();
  FFirstId = FLastId = 0;
}

void TEvtxChunkWriter::NoteRecord(uint32_t AOffset, uint64_t AId) {
  if (FRecordOffsets.empty()) FFirstId = AId;
  FLastId = AId;
  FRecordOffsets.push_back(AOffset);
}

bool TEvtxChunkWriter::Commit(size_t AStart, size_t AMark, uint64_t AId, bool APad) {
  while (APad && (FBuffer.size() - AStart + 4) % FAlignment != 0)
    FBuffer.push_back(0);
  uint32_t size = static_cast<uint32_t>(FBuffer.size() - AStart + 4);
  Append32(FBuffer, size);
  if (FBuffer.size() > Limit()) {
    FBuffer.resize(AStart);
    FTables.RollBack(AMark);
    return false;
  }
  EvtxPut32(FBuffer.data() + AStart + 4, size);
  NoteRecord(static_cast<uint32_t>(AStart), AId);
  return true;
}

bool TEvtxChunkWriter::AddRecord(uint64_t AId, uint64_t AWrittenTime, const TBinXmlBody& ABody) {
  return Add(AId, AWrittenTime, ABody, false);
}

bool TEvtxChunkWriter::Add(uint64_t AId, uint64_t AWrittenTime, const TBinXmlBody& ABody, bool APad) {
  size_t start = FBuffer.size();
  size_t mark = FTables.Mark();
  try {
    Append32(FBuffer, kEvtxRecordMagic);
    Append32(FBuffer, 0);
    Append64(FBuffer, AId);
    Append64(FBuffer, AWrittenTime);
    TBinXmlWriter writer(FBuffer, FTables, static_cast<uint32_t>(FBuffer.size()));
    ABody(writer);
    if (writer.OpenElements() != 0) throw std::logic_error("record leaves elements open");
  } catch (...) {
    FBuffer.resize(start);
    FTables.RollBack(mark);
    throw;
  }
  return Commit(start, mark, AId, APad);
}

bool TEvtxChunkWriter::AddRecord(uint64_t AId, uint64_t AWrittenTime, const TEvtxTemplate& ATemplate,
                                 std::span<const TEvtxValue> AValues) {
  return Add(
      AId, AWrittenTime,
      [&](TBinXmlWriter& w) {
        w.FragmentHeader();
        w.TemplateInstance(ATemplate, AValues);
        w.EndOfStream();
      },
      true);
}

bool TEvtxChunkWriter::AddEvent(uint64_t AId, const TEvtxEventDraft& AEvent,
                                TEvtxEventTemplates& ATemplates) {
  std::shared_ptr<const TEvtxTemplate> made = ATemplates.For(AEvent);
  std::vector<TEvtxValue> values = TEvtxEventTemplates::Values(AEvent, AId);
  return AddRecord(AId, AEvent.FTimeCreated, *made, values);
}

bool TEvtxChunkWriter::AddRawRecord(std::span<const uint8_t> ABytes, std::optional<uint64_t> AId) {
  if (FBuffer.size() + ABytes.size() > Limit()) return false;
  size_t start = FBuffer.size();
  FBuffer.insert(FBuffer.end(), ABytes.begin(), ABytes.end());
  uint64_t id = AId ? *AId : (ABytes.size() >= 16 ? EvtxGet64(ABytes.data() + 8) : 0);
  NoteRecord(static_cast<uint32_t>(start), id);
  return true;
}

std::vector<uint8_t> TEvtxChunkWriter::Finish() const {
  std::vector<uint8_t> out;
  out.reserve(kEvtxChunkSize);
  FinishInto(out);
  return out;
}

void TEvtxChunkWriter::FinishInto(std::vector<uint8_t>& AOut) const {
  size_t base = AOut.size();
  AOut.insert(AOut.end(), FBuffer.begin(), FBuffer.end());
  AOut.resize(base + kEvtxChunkSize, 0);
  uint8_t* c = AOut.data() + base;
  std::memcpy(c, "ElfChnk\0", 8);
  if (FRecordOffsets.empty()) {
    // as in a new log: next record number 1, nothing else yet
    EvtxPut64(c + 8, 1);
    EvtxPut64(c + 16, ~0ull);
    EvtxPut64(c + 24, ~0ull);
    EvtxPut64(c + 32, ~0ull);
  } else {
    EvtxPut64(c + 8, FFirstId);
    EvtxPut64(c + 16, FLastId);
    EvtxPut64(c + 24, FFirstId);
    EvtxPut64(c + 32, FLastId);
  }
  EvtxPut32(c + 40, 128);
  EvtxPut32(c + 44, FRecordOffsets.empty() ? 0 : FRecordOffsets.back());
  EvtxPut32(c + 48, FreeSpaceOffset());
  EvtxPut32(c + 120, FFlags);
  for (size_t i = 0; i < 64; ++i)
    EvtxPut32(c + 128 + 4 * i, FTables.NameBuckets()[i]);
  for (size_t i = 0; i < 32; ++i)
    EvtxPut32(c + 384 + 4 * i, FTables.TemplateBuckets()[i]);
  EvtxRefreshChunkCrcs(std::span<uint8_t>(c, kEvtxChunkSize));
}

// ---------------------------------------------------------------------------------------
// TEvtxFileWriter

TEvtxFileWriter::TEvtxFileWriter(TEvtxFileOptions AOptions)
    : FOptions(AOptions), FNextId(AOptions.FFirstRecordId) {}

TEvtxFileWriter::TEvtxFileWriter(const std::string& APath, TEvtxFileOptions AOptions)
    : FOptions(AOptions), FPath(APath), FNextId(AOptions.FFirstRecordId) {
  FStream = std::make_unique<std::ofstream>(APath, std::ios::binary | std::ios::trunc);
  if (!*FStream) throw std::runtime_error(APath + ": cannot create");
  std::vector<uint8_t> placeholder(kEvtxFileHeaderBlockSize, 0);
  FStream->write(reinterpret_cast<const char*>(placeholder.data()), kEvtxFileHeaderBlockSize);
}

TEvtxFileWriter::~TEvtxFileWriter() {
  if (FStream && !FClosed) {
    try {
      Close();
    } catch (...) { // a destructor cannot report it; Close() can
    }
  }
}

template <typename F> uint64_t TEvtxFileWriter::AddWith(F&& AAdd) {
  if (FClosed) throw std::logic_error("record added to a closed file");
  uint64_t id = FNextId;
  if (!AAdd(FChunk, id)) {
    if (FChunk.Empty()) throw std::length_error("record larger than a chunk");
    EndChunk();
    if (!AAdd(FChunk, id)) throw std::length_error("record larger than a chunk");
  }
  ++FNextId;
  return id;
}

uint64_t TEvtxFileWriter::AddEvent(const TEvtxEventDraft& AEvent) {
  std::shared_ptr<const TEvtxTemplate> made = FTemplates.For(AEvent);
  std::vector<TEvtxValue> values = TEvtxEventTemplates::Values(AEvent, FNextId);
  return AddWith([&](TEvtxChunkWriter& AChunk, uint64_t AId) {
    return AChunk.AddRecord(AId, AEvent.FTimeCreated, *made, values);
  });
}

uint64_t TEvtxFileWriter::AddRecord(uint64_t AWrittenTime, const TEvtxTemplate& ATemplate,
                                    std::span<const TEvtxValue> AValues) {
  return AddWith([&](TEvtxChunkWriter& AChunk, uint64_t AId) {
    return AChunk.AddRecord(AId, AWrittenTime, ATemplate, AValues);
  });
}

uint64_t TEvtxFileWriter::AddRecord(uint64_t AWrittenTime, const TBinXmlBody& ABody) {
  return AddWith(
      [&](TEvtxChunkWriter& AChunk, uint64_t AId) { return AChunk.AddRecord(AId, AWrittenTime, ABody); });
}

void TEvtxFileWriter::EndChunk() {
  if (FChunk.Empty()) return;
  FScratch.clear();
  FChunk.FinishInto(FScratch);
  FChunk.Reset();
  Emit(FScratch);
}

void TEvtxFileWriter::AddChunk(std::span<const uint8_t> AChunk) {
  if (AChunk.size() != kEvtxChunkSize) throw std::invalid_argument("a chunk is 65536 bytes");
  EndChunk();
  Emit(AChunk);
}

void TEvtxFileWriter::Emit(std::span<const uint8_t> AChunk) {
  if (FClosed) throw std::logic_error("chunk added to a closed file");
  if (FChunkCount >= 0xFFFF) throw std::length_error("more than 65535 chunks");
  ++FChunkCount;
  uint64_t last = EvtxGet64(AChunk.data() + 32);
  if (last != ~0ull) FMaxLastId = std::max(FMaxLastId, last); // all ones: a chunk without records
  if (FStream) {
    FStream->write(reinterpret_cast<const char*>(AChunk.data()), static_cast<std::streamsize>(AChunk.size()));
    if (!*FStream) throw std::runtime_error(FPath + ": cannot write");
  } else {
    FChunks.insert(FChunks.end(), AChunk.begin(), AChunk.end());
  }
}

std::vector<uint8_t> TEvtxFileWriter::Header() const {
  std::vector<uint8_t> header(kEvtxFileHeaderBlockSize, 0);
  uint8_t* h = header.data();
  std::memcpy(h, "ElfFile\0", 8);
  EvtxPut64(h + 8, 0);
  EvtxPut64(h + 16, FChunkCount ? FChunkCount - 1 : 0);
  EvtxPut64(h + 24, FMaxLastId ? std::max(FNextId, FMaxLastId + 1) : FNextId);
  EvtxPut32(h + 32, 128);
  EvtxPut16(h + 36, FOptions.FMinorVersion);
  EvtxPut16(h + 38, FOptions.FMajorVersion);
  EvtxPut16(h + 40, static_cast<uint16_t>(kEvtxFileHeaderBlockSize));
  EvtxPut16(h + 42, static_cast<uint16_t>(FChunkCount));
  EvtxPut32(h + 120, FOptions.FFlags);
  EvtxRefreshFileHeaderCrc(header);
  return header;
}

void TEvtxFileWriter::Finish() {
  EndChunk();
  // A log without records still has one (empty) chunk, as a new log made by the system has.
  if (FChunkCount == 0) Emit(TEvtxChunkWriter().Finish());
}

std::vector<uint8_t> TEvtxFileWriter::Bytes() {
  if (FStream) throw std::logic_error("Bytes() on a file writer that streams to a file");
  Finish();
  std::vector<uint8_t> out = Header();
  out.insert(out.end(), FChunks.begin(), FChunks.end());
  return out;
}

void TEvtxFileWriter::WriteFile(const std::string& APath) {
  EvtxWriteBytes(APath, Bytes());
}

void TEvtxFileWriter::Close() {
  if (!FStream) throw std::logic_error("Close() on an in-memory file writer");
  if (FClosed) return;
  Finish();
  FClosed = true;
  std::vector<uint8_t> header = Header();
  FStream->seekp(0);
  FStream->write(reinterpret_cast<const char*>(header.data()), static_cast<std::streamsize>(header.size()));
  FStream->close();
  if (!*FStream) throw std::runtime_error(FPath + ": cannot write");
}

} // namespace qvx
