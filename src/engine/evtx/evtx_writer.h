// EVTX writer: builds valid .evtx files, chunks and records from code.
//
// Used by the tests (fixtures, damaged files, raw disk images), the bundled demo log and
// the benchmark. Depends only on the standard library and platform/utf16.h. All fields
// are written byte by byte, little-endian; nothing is overlaid on a buffer.
//
// File header (first 4096-byte block; the first chunk starts at 4096)
//   offset size  field
//   0      8     "ElfFile\0"
//   8      8     first chunk number
//   16     8     last chunk number
//   24     8     next record identifier
//   32     4     header size (128)
//   36     2     minor version (1 or 2)
//   38     2     major version (3)
//   40     2     header block size (4096)
//   42     2     number of chunks
//   44     76    zero
//   120    4     flags (1 dirty, 2 full)
//   124    4     CRC32 of bytes 0..119
//   128    3968  zero
//
// Chunk (65536 bytes; the first record starts at 512)
//   offset size  field
//   0      8     "ElfChnk\0"
//   8      8     first event record number
//   16     8     last event record number
//   24     8     first event record identifier
//   32     8     last event record identifier
//   40     4     header size (128)
//   44     4     offset of the last record
//   48     4     free space offset (end of the last record)
//   52     4     CRC32 of the record bytes 512..free space offset
//   56     64    zero
//   120    4     flags (1 in every chunk the system writes)
//   124    4     CRC32 of header bytes 0..119 and 128..511
//   128    256   64 name string offsets (bucket = name hash % 64; newest string of the bucket)
//   384    128   32 template definition offsets (bucket = GUID hash % 32, the GUID hash being
//                the name hash over the 16 GUID bytes read as 8 u16 units, as in version 3.1
//                logs; newest of the bucket)
//   512    ...   records, back to back; zero after the free space offset here (logs often
//                hold older bytes there)
// A chunk without records (as in a new log): first record number 1, last record number and
// both identifiers all ones, last record offset 0, free space offset 512.
//
// Record (the system pads records to a multiple of 8 bytes; so does the writer by default)
//   offset size  field
//   0      4     magic 0x00002A2A ("**\0\0")
//   4      4     size of the whole record
//   8      8     event record identifier
//   16     8     written time (FILETIME)
//   24     n     binary XML: fragment header, template instance, substitution values, end of
//                stream (0x00), then padding
//   24+n   4     copy of the size
//
// Binary XML tokens (name and template offsets are chunk-relative)
//   0x00  end of stream
//   0x01  open start element (0x41 with attributes): [u16 dependency id], u32 data size (bytes
//         after this field up to and including the closing 0x03/0x04), u32 name offset, [name
//         string on first use], [0x41: u32 attribute list size], attributes. The dependency id
//         (0xFFFF, or the index of the substitution the element depends on) is there inside
//         template definitions only; elements elsewhere (embedded fragments without a
//         template, hand-made records) have none.
//   0x02  close start element (content follows, ended by 0x04)
//   0x03  close empty element
//   0x04  end element
//   0x05  value text: u8 value type (0x01), u16 character count, UTF-16
//   0x06  attribute (0x46 when more attributes follow): u32 name offset, [name string], one value
//   0x07  CDATA section: u16 character count, UTF-16
//   0x09  entity reference: u32 name offset, [name string]
//   0x0A  processing instruction target: u32 name offset, [name string]
//   0x0B  processing instruction data: u16 character count, UTF-16
//   0x0C  template instance: u8 1, u32 template id, u32 definition offset, [definition],
//         substitution array
//   0x0D  normal substitution: u16 index, u8 value type
//   0x0E  optional substitution: u16 index, u8 value type
//   0x0F  fragment header: 0x0F 0x01 0x01 0x00
//
// Name string (inline on the first use in a chunk; later uses refer to this copy)
//   0  4  offset of the next string of the same bucket (0 at the end of the chain)
//   4  2  hash: h = h * 65599 + unit over the UTF-16 units, low 16 bits
//   6  2  character count
//   8  2n UTF-16 characters, then u16 NUL
//
// Template definition (inline on the first use in a chunk; later instances refer to it)
//   0   4   offset of the next definition of the same bucket (0 at the end of the chain)
//   4   16  GUID (its first 4 bytes are the template id)
//   20  4   data size (the body that follows)
//   24  n   body: fragment header, elements, end of stream
//
// Substitution array (after the instance, or after the inline definition)
//   0   4   count
//   4   4n  per value: u16 size, u8 value type, u8 0
//   ..      the values back to back
// An embedded fragment value (0x21) holds either [fragment header] template instance and
// values, end of stream; or elements without a template (no fragment header), end of stream.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx {

// Sizes and signatures.
inline constexpr uint32_t kEvtxFileHeaderBlockSize = 4096;
inline constexpr uint32_t kEvtxChunkSize = 65536;
inline constexpr uint32_t kEvtxChunkHeaderSize = 512; // header, name and template tables
inline constexpr uint32_t kEvtxRecordMagic = 0x00002A2A;

// Value types of substitutions (arrays: scalar type | kEvtxArrayFlag).
namespace EvtxType {
inline constexpr uint8_t Null = 0x00;
inline constexpr uint8_t String = 0x01;
inline constexpr uint8_t AnsiString = 0x02;
inline constexpr uint8_t Int8 = 0x03;
inline constexpr uint8_t UInt8 = 0x04;
inline constexpr uint8_t Int16 = 0x05;
inline constexpr uint8_t UInt16 = 0x06;
inline constexpr uint8_t Int32 = 0x07;
inline constexpr uint8_t UInt32 = 0x08;
inline constexpr uint8_t Int64 = 0x09;
inline constexpr uint8_t UInt64 = 0x0A;
inline constexpr uint8_t Real32 = 0x0B;
inline constexpr uint8_t Real64 = 0x0C;
inline constexpr uint8_t Bool = 0x0D;
inline constexpr uint8_t Binary = 0x0E;
inline constexpr uint8_t Guid = 0x0F;
inline constexpr uint8_t SizeT = 0x10;
inline constexpr uint8_t FileTime = 0x11;
inline constexpr uint8_t SystemTime = 0x12;
inline constexpr uint8_t Sid = 0x13;
inline constexpr uint8_t Hex32 = 0x14;
inline constexpr uint8_t Hex64 = 0x15;
inline constexpr uint8_t BinXml = 0x21;
inline constexpr uint8_t ArrayFlag = 0x80;
} // namespace EvtxType

using TEvtxGuid = std::array<uint8_t, 16>;

// CRC32 (zlib / IEEE 802.3). ASeed continues an earlier CRC: Crc(a+b) = EvtxCrc32(b, EvtxCrc32(a)).
uint32_t EvtxCrc32(std::span<const uint8_t> AData, uint32_t ASeed = 0);

// Hash of a name string over its UTF-16 units (low 16 bits of h * 65599 + unit).
uint16_t EvtxNameHash(std::u16string_view AName);

// Bucket of a template definition in the chunk's table: the name hash over the GUID's 16
// bytes read as eight little-endian u16 units, % 32.
uint32_t EvtxTemplateBucket(const TEvtxGuid& AGuid);

// "{54849625-5478-4994-A5BA-3E3B0328C30D}" (braces optional) as the 16 stored bytes: the
// first three groups little-endian, the last two as written. Raises std::invalid_argument.
TEvtxGuid EvtxParseGuid(std::string_view AText);

// FILETIME (100 ns units since 1601-01-01 UTC) of a UTC date and time.
uint64_t EvtxFileTime(int AYear, unsigned AMonth, unsigned ADay, unsigned AHour = 0, unsigned AMinute = 0,
                      unsigned ASecond = 0, uint32_t AHundredNs = 0);

// Little-endian stores into a byte buffer (callers check the bounds).
void EvtxPut16(uint8_t* ADest, uint16_t AValue);
void EvtxPut32(uint8_t* ADest, uint32_t AValue);
void EvtxPut64(uint8_t* ADest, uint64_t AValue);
uint16_t EvtxGet16(const uint8_t* ASource);
uint32_t EvtxGet32(const uint8_t* ASource);
uint64_t EvtxGet64(const uint8_t* ASource);

// Recomputes the CRCs of a finished chunk (AChunk holds at least 512 bytes) from its
// current free space offset: the record CRC @52, then the header CRC @124. A free space
// offset beyond the bytes given is cut to them.
void EvtxRefreshChunkCrcs(std::span<uint8_t> AChunk);

// Recomputes only the chunk header CRC @124 (bytes 0..119 and 128..511; note that they
// include the record CRC @52).
void EvtxRefreshChunkHeaderCrc(std::span<uint8_t> AChunk);

// Recomputes the file header CRC @124 (AHeader holds at least 128 bytes).
void EvtxRefreshFileHeaderCrc(std::span<uint8_t> AHeader);

class TEvtxTemplate;
class TBinXmlWriter;

inline constexpr int32_t kEvtxDependencyAuto = -1;
inline constexpr int32_t kEvtxNoDependency = -2;

// Writes binary XML tokens; used for template bodies, hand-made records and embedded content.
using TBinXmlBody = std::function<void(TBinXmlWriter&)>;

// One typed substitution value: the value type and its stored bytes, or for BinXml an
// embedded fragment (a template and its values) that is laid out where it lands.
class TEvtxValue {
public:
  TEvtxValue() = default;
  // Raw: any type byte with any bytes, as given (also for damaged fixtures).
  TEvtxValue(uint8_t AType, std::vector<uint8_t> ABytes) : FType(AType), FBytes(std::move(ABytes)) {}

  static TEvtxValue Null() { return {}; }
  static TEvtxValue String(std::string_view AUtf8);      // UTF-16, no NUL
  static TEvtxValue AnsiString(std::string_view ABytes); // bytes as given, no NUL
  static TEvtxValue Int8(int8_t AValue);
  static TEvtxValue UInt8(uint8_t AValue);
  static TEvtxValue Int16(int16_t AValue);
  static TEvtxValue UInt16(uint16_t AValue);
  static TEvtxValue Int32(int32_t AValue);
  static TEvtxValue UInt32(uint32_t AValue);
  static TEvtxValue Int64(int64_t AValue);
  static TEvtxValue UInt64(uint64_t AValue);
  static TEvtxValue Real32(float AValue);
  static TEvtxValue Real64(double AValue);
  static TEvtxValue Bool(bool AValue); // u32 0 or 1
  static TEvtxValue Binary(std::span<const uint8_t> ABytes);
  static TEvtxValue Guid(std::string_view AText); // see EvtxParseGuid
  static TEvtxValue Guid(const TEvtxGuid& AGuid);
  static TEvtxValue SizeT(uint64_t AValue, bool A64Bit = true);
  static TEvtxValue FileTime(uint64_t AFileTime);
  // SYSTEMTIME: year, month, day of week, day, hour, minute, second, milliseconds (u16 each).
  static TEvtxValue SystemTime(uint16_t AYear, uint16_t AMonth, uint16_t ADayOfWeek, uint16_t ADay,
                               uint16_t AHour, uint16_t AMinute, uint16_t ASecond, uint16_t AMilliseconds);
  // "S-1-5-21-1004336348-1177238915-682003330-512". Raises std::invalid_argument.
  static TEvtxValue Sid(std::string_view AText);
  static TEvtxValue Hex32(uint32_t AValue);
  static TEvtxValue Hex64(uint64_t AValue);
  // Array of UTF-16 strings (0x81): each string followed by a NUL.
  static TEvtxValue StringArray(const std::vector<std::string>& AItems);
  // Arrays of fixed-size scalars: 0x80 | type, the items back to back.
  static TEvtxValue UInt16Array(std::span<const uint16_t> AItems);
  static TEvtxValue UInt32Array(std::span<const uint32_t> AItems);
  static TEvtxValue UInt64Array(std::span<const uint64_t> AItems);
  // Any array of same-typed scalar values (their bytes back to back; strings NUL-terminated).
  static TEvtxValue Array(uint8_t AItemType, std::span<const TEvtxValue> AItems);
  // Embedded binary XML fragment (0x21): fragment header, template instance, its values and
  // an end of stream token. The system also writes it without the fragment header; some
  // readers also take it without the end of stream.
  static TEvtxValue BinXml(std::shared_ptr<const TEvtxTemplate> ATemplate, std::vector<TEvtxValue> AValues,
                           bool AEndOfStream = true, bool AFragmentHeader = true);
  // Embedded binary XML (0x21) emitted by ABody as it is, e.g. elements without a template
  // followed by EndOfStream() (as the system writes some UserData). Elements written there
  // carry no dependency id.
  static TEvtxValue BinXmlContent(TBinXmlBody ABody);

  uint8_t Type() const { return FType; }
  const std::vector<uint8_t>& Bytes() const { return FBytes; }
  const std::shared_ptr<const TEvtxTemplate>& Fragment() const { return FFragment; }
  const std::vector<TEvtxValue>& FragmentValues() const { return FFragmentValues; }
  bool FragmentEndsStream() const { return FFragmentEnd; }
  bool FragmentHasHeader() const { return FFragmentHeader; }
  const TBinXmlBody& Content() const { return FContent; }

private:
  uint8_t FType = EvtxType::Null;
  std::vector<uint8_t> FBytes;
  std::shared_ptr<const TEvtxTemplate> FFragment;
  std::vector<TEvtxValue> FFragmentValues;
  bool FFragmentEnd = true;
  bool FFragmentHeader = true;
  TBinXmlBody FContent;
};

// Names and template definitions already written in one chunk, with the chunk's two
// bucket tables. Changes since a mark can be undone (a record that did not fit).
class TEvtxChunkTables {
public:
  TEvtxChunkTables();

  // Chunk offset of the name's string, or 0 when the chunk has none yet.
  uint32_t FindName(const std::string& AName) const;
  // Records a string written at AOffset; returns the offset of the previous head of its
  // bucket (the new string's next-string offset).
  uint32_t AddName(const std::string& AName, uint16_t AHash, uint32_t AOffset);

  uint32_t FindTemplate(const TEvtxGuid& AGuid) const;
  uint32_t AddTemplate(const TEvtxGuid& AGuid, uint32_t AOffset);

  const std::array<uint32_t, 64>& NameBuckets() const { return FNameBuckets; }
  const std::array<uint32_t, 32>& TemplateBuckets() const { return FTemplateBuckets; }
  size_t NameCount() const { return FNames.size(); }
  size_t TemplateCount() const { return FTemplates.size(); }

  size_t Mark() const { return FUndo.size(); }
  void RollBack(size_t AMark);
  void Clear();

private:
  struct TUndo {
    bool FIsName;
    std::string FName;
    TEvtxGuid FGuid;
    uint32_t FBucket;
    uint32_t FPreviousHead;
  };
  std::unordered_map<std::string, uint32_t> FNames;
  std::map<TEvtxGuid, uint32_t> FTemplates;
  std::array<uint32_t, 64> FNameBuckets{};
  std::array<uint32_t, 32> FTemplateBuckets{};
  std::vector<TUndo> FUndo;
};

// A template: its GUID (the first 4 bytes are its id) and a body that emits the elements
// (the writer adds the fragment header before and the end of stream after).
class TEvtxTemplate {
public:
  TEvtxTemplate(const TEvtxGuid& AGuid, TBinXmlBody ABody) : FGuid(AGuid), FBody(std::move(ABody)) {}
  // GUID derived from a key text (same key, same GUID).
  TEvtxTemplate(std::string_view AKey, TBinXmlBody ABody);

  const TEvtxGuid& Guid() const { return FGuid; }
  uint32_t Id() const;
  const TBinXmlBody& Body() const { return FBody; }

private:
  TEvtxGuid FGuid;
  TBinXmlBody FBody;
};

// Emits binary XML into AOut, whose byte i lands at chunk offset ABaseOffset + i. Names and
// templates are written inline on their first use in the chunk (ATables), referred to after.
// Elements are tracked: data sizes, attribute list sizes and the 0x41/0x46 flags are filled
// in as elements and attributes close. Raises std::length_error for a text or value that
// its 16-bit size cannot hold, std::logic_error for unbalanced calls.
class TBinXmlWriter {
public:
  TBinXmlWriter(std::vector<uint8_t>& AOut, TEvtxChunkTables& ATables, uint32_t ABaseOffset = 0);

  // Chunk offset of the next byte.
  uint32_t Position() const { return static_cast<uint32_t>(FBase + (FOut.size() - FOrigin)); }

  void FragmentHeader(); // 0x0F 01 01 00
  void EndOfStream();    // 0x00
  // 0x01 (becomes 0x41 when an attribute follows). ADependency: kEvtxDependencyAuto writes
  // 0xFFFF inside template definitions and no dependency id elsewhere; kEvtxNoDependency
  // never writes one; 0..0xFFFF always writes that value.
  void OpenElement(std::string_view AName, int32_t ADependency = kEvtxDependencyAuto);
  void Attribute(std::string_view AName); // 0x06 (the previous one becomes 0x46); a value follows
  void CloseStartElement();               // 0x02
  void CloseEmptyElement();               // 0x03, ends the element
  void EndElement();                      // 0x04, ends the element
  void Text(std::string_view AUtf8);      // 0x05 0x01 count UTF-16
  void Substitution(uint16_t AIndex, uint8_t AType, bool AOptional = false); // 0x0D / 0x0E
  void CData(std::string_view AUtf8);                                        // 0x07 count UTF-16
  void EntityReference(std::string_view AName);                              // 0x09 name
  void PITarget(std::string_view AName);                                     // 0x0A name
  void PIData(std::string_view AUtf8);                                       // 0x0B count UTF-16
  // 0x0C: instance, the definition on its first use in the chunk, then the substitution array.
  void TemplateInstance(const TEvtxTemplate& ATemplate, std::span<const TEvtxValue> AValues);
  // The substitution array alone (count, descriptors, values).
  void SubstitutionArray(std::span<const TEvtxValue> AValues);
  // Shorthands: <AName>text</AName>, <AName>%n</AName>.
  void TextElement(std::string_view AName, std::string_view AUtf8);
  void SubstitutionElement(std::string_view AName, uint16_t AIndex, uint8_t AType, bool AOptional = false);
  // Bytes as given (hand-made or damaged streams).
  void Raw(std::span<const uint8_t> ABytes);
  void RawU8(uint8_t AValue);
  void RawU16(uint16_t AValue);
  void RawU32(uint32_t AValue);

  // Number of elements opened and not yet ended.
  size_t OpenElements() const { return FStack.size(); }
  // True while a template definition's body is being written.
  bool InTemplateDefinition() const { return FTemplateDepth > 0; }

private:
  struct TOpen {
    size_t FTokenPos;    // index in FOut of the 0x01/0x41 token
    size_t FSizePos;     // index of the data size field
    size_t FAttrSizePos; // index of the attribute list size field, or npos
    size_t FLastAttrPos; // index of the last attribute token, or npos
    bool FStarted;       // 0x02 written
  };

  void Put8(uint8_t AValue) { FOut.push_back(AValue); }
  void Put16(uint16_t AValue);
  void Put32(uint32_t AValue);
  void Patch32(size_t AIndex, uint32_t AValue);
  void PutUtf16(std::u16string_view AText);
  void PutCountedText(std::string_view AUtf8);
  void PutName(std::string_view AName);
  void PutValue(const TEvtxValue& AValue);
  void EndAttributes(TOpen& AOpen);

  std::vector<uint8_t>& FOut;
  TEvtxChunkTables& FTables;
  size_t FOrigin;
  uint32_t FBase;
  std::vector<TOpen> FStack;
  int FTemplateDepth = 0;
};

// One EventData/Data item of a standard event; an empty name writes <Data> without Name.
class TEvtxData {
public:
  std::string FName;
  TEvtxValue FValue;
};

// A Windows event in the usual shape:
//   <Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
//     <System> Provider Name Guid EventSourceName, EventID Qualifiers, Version, Level, Task,
//       Opcode, Keywords, TimeCreated SystemTime, EventRecordID, Correlation ActivityID
//       RelatedActivityID, Execution ProcessID ThreadID, Channel, Computer, Security UserID
//     </System>
//     <EventData> <Data Name="…">…</Data>… [<Binary>…</Binary>] </EventData>
//     [<UserData> value (usually an embedded fragment) </UserData>]
//   </Event>
// Optional fields (empty text / no value) are null optional substitutions.
class TEvtxEventDraft {
public:
  std::string FProviderName;
  std::string FProviderGuid;    // "{…}", or empty
  std::string FEventSourceName; // or empty
  uint16_t FEventId = 0;
  std::optional<uint16_t> FQualifiers;
  uint8_t FVersion = 0;
  uint8_t FLevel = 4;
  uint16_t FTask = 0;
  uint8_t FOpcode = 0;
  uint64_t FKeywords = 0x8000000000000000ull;
  uint64_t FTimeCreated = 0;      // FILETIME
  std::string FActivityId;        // "{…}", or empty
  std::string FRelatedActivityId; // "{…}", or empty
  uint32_t FProcessId = 0;
  uint32_t FThreadId = 0;
  std::string FChannel;
  std::string FComputer;
  std::string FUserId;                         // "S-1-…", or empty
  std::vector<TEvtxData> FData;                // EventData/Data; none (and no binary) omits EventData
  std::optional<std::vector<uint8_t>> FBinary; // EventData/Binary
  std::optional<TEvtxValue> FUserData;         // UserData content, e.g. TEvtxValue::BinXml
};

// Substitution indices of the standard event template; data items follow, then Binary,
// then UserData (each when the event has it).
namespace EvtxEventIndex {
inline constexpr uint16_t ProviderName = 0, ProviderGuid = 1, EventSourceName = 2, EventId = 3,
                          Qualifiers = 4, Version = 5, Level = 6, Task = 7, Opcode = 8, Keywords = 9,
                          TimeCreated = 10, EventRecordId = 11, ActivityId = 12, RelatedActivityId = 13,
                          ProcessId = 14, ThreadId = 15, Channel = 16, Computer = 17, UserId = 18,
                          FirstData = 19;
} // namespace EvtxEventIndex

// Standard event templates, one per shape (data names and value types, binary and user
// data or not).
class TEvtxEventTemplates {
public:
  std::shared_ptr<const TEvtxTemplate> For(const TEvtxEventDraft& AEvent);
  // The substitution values of an event in template order.
  static std::vector<TEvtxValue> Values(const TEvtxEventDraft& AEvent, uint64_t ARecordId);

private:
  std::unordered_map<std::string, std::shared_ptr<const TEvtxTemplate>> FCache;
};

// One 64 KiB chunk being filled with records. A record that does not fit leaves the chunk
// as it was and answers false. Template records (AddRecord with a template, AddEvent) are
// padded with zeros to a multiple of 8 bytes, as the system writes them (SetRecordAlignment(1):
// no padding); hand-made ones (AddRecord with a body, AddRawRecord) hold exactly their bytes.
// By default the last 4 bytes of a chunk stay free: some readers skip a last record that
// ends less than 4 bytes before the end of the chunk (SetTailReserve(0) fills chunks to the
// last byte).
class TEvtxChunkWriter {
public:
  TEvtxChunkWriter();

  // A record holding: fragment header, template instance and substitution array, end of
  // stream, padding.
  bool AddRecord(uint64_t AId, uint64_t AWrittenTime, const TEvtxTemplate& ATemplate,
                 std::span<const TEvtxValue> AValues);
  // A record whose binary XML is emitted by ABody (it writes the fragment header itself and
  // everything else: no end of stream and no padding are added).
  bool AddRecord(uint64_t AId, uint64_t AWrittenTime, const TBinXmlBody& ABody);
  // A standard event (written time = TimeCreated) with the given record identifier.
  bool AddEvent(uint64_t AId, const TEvtxEventDraft& AEvent, TEvtxEventTemplates& ATemplates);
  // Hand-made record bytes, placed as given at the free space offset. The identifier for
  // the header's ranges is AId, else the u64 at +8 when the bytes hold one.
  bool AddRawRecord(std::span<const uint8_t> ABytes, std::optional<uint64_t> AId = std::nullopt);

  bool Empty() const { return FRecordOffsets.empty(); }
  size_t RecordCount() const { return FRecordOffsets.size(); }
  uint32_t FreeSpaceOffset() const { return static_cast<uint32_t>(FBuffer.size()); }
  // Bytes a record can still take (the tail reserve excluded).
  uint32_t FreeSpace() const { return Limit() > FreeSpaceOffset() ? Limit() - FreeSpaceOffset() : 0; }
  // Chunk offsets of the records, in order.
  const std::vector<uint32_t>& RecordOffsets() const { return FRecordOffsets; }
  uint64_t FirstRecordId() const { return FFirstId; }
  uint64_t LastRecordId() const { return FLastId; }
  const TEvtxChunkTables& Tables() const { return FTables; }

  // Chunk flags @120 (default 1, as in every chunk the system writes).
  void SetFlags(uint32_t AFlags) { FFlags = AFlags; }
  // Records are padded to a multiple of ABytes (default 8; 0 or 1: no padding).
  void SetRecordAlignment(uint32_t ABytes) { FAlignment = ABytes ? ABytes : 1; }
  // Bytes at the end of the chunk that records never take (default 4).
  void SetTailReserve(uint32_t ABytes) { FTailReserve = ABytes < kEvtxChunkSize ? ABytes : 0; }

  // The finished 65536 bytes (header, tables, CRCs); the writer can go on taking records.
  std::vector<uint8_t> Finish() const;
  // As Finish, appended to AOut.
  void FinishInto(std::vector<uint8_t>& AOut) const;
  // Empties the chunk.
  void Reset();

private:
  uint32_t Limit() const { return kEvtxChunkSize - FTailReserve; }
  bool Add(uint64_t AId, uint64_t AWrittenTime, const TBinXmlBody& ABody, bool APad);
  bool Commit(size_t AStart, size_t AMark, uint64_t AId, bool APad);
  void NoteRecord(uint32_t AOffset, uint64_t AId);

  std::vector<uint8_t> FBuffer; // the chunk from offset 0 up to the free space offset
  TEvtxChunkTables FTables;
  std::vector<uint32_t> FRecordOffsets;
  uint64_t FFirstId = 0;
  uint64_t FLastId = 0;
  uint32_t FFlags = 1;
  uint32_t FTailReserve = 4;
  uint32_t FAlignment = 8;
};

class TEvtxFileOptions {
public:
  uint64_t FFirstRecordId = 1; // identifier of the first record added by AddEvent/AddRecord
  uint16_t FMinorVersion = 1;
  uint16_t FMajorVersion = 3;
  uint32_t FFlags = 0; // file header flags
};

// A whole file: header block and chunks. Chunks are kept in memory, or streamed to a file
// when one is given (the header is written last, by Close).
class TEvtxFileWriter {
public:
  explicit TEvtxFileWriter(TEvtxFileOptions AOptions = {});
  // Streams to APath (created or truncated). Raises std::runtime_error when it cannot.
  explicit TEvtxFileWriter(const std::string& APath, TEvtxFileOptions AOptions = {});
  ~TEvtxFileWriter();
  TEvtxFileWriter(const TEvtxFileWriter&) = delete;
  TEvtxFileWriter& operator=(const TEvtxFileWriter&) = delete;

  // Records get the next identifier; a full chunk is closed and a new one begun. Answer
  // the identifier. Raises std::length_error for a record that no chunk can hold.
  uint64_t AddEvent(const TEvtxEventDraft& AEvent);
  uint64_t AddRecord(uint64_t AWrittenTime, const TEvtxTemplate& ATemplate,
                     std::span<const TEvtxValue> AValues);
  uint64_t AddRecord(uint64_t AWrittenTime, const TBinXmlBody& ABody);

  // Closes the current chunk (when it holds records) so the next record starts a new one.
  void EndChunk();
  // Appends a finished chunk's bytes (exactly 65536) after the chunks so far (closing the
  // current one first).
  void AddChunk(std::span<const uint8_t> AChunk);

  uint64_t NextRecordId() const { return FNextId; }
  size_t ChunkCount() const { return FChunkCount + (FChunk.Empty() ? 0 : 1); }
  TEvtxChunkWriter& CurrentChunk() { return FChunk; }
  TEvtxEventTemplates& EventTemplates() { return FTemplates; }

  // The 4096-byte header block for the chunks so far.
  std::vector<uint8_t> Header() const;
  // In-memory mode: closes the current chunk and answers the whole file. A file without
  // chunks gets one empty chunk (free space offset 512), here and in Close().
  std::vector<uint8_t> Bytes();
  // In-memory mode: writes Bytes() to APath. Raises std::runtime_error.
  void WriteFile(const std::string& APath);
  // Streaming mode: closes the current chunk and writes the header. Raises std::runtime_error.
  void Close();

private:
  void Finish();
  void Emit(std::span<const uint8_t> AChunk);
  template <typename F> uint64_t AddWith(F&& AAdd);

  TEvtxFileOptions FOptions;
  TEvtxChunkWriter FChunk;
  TEvtxEventTemplates FTemplates;
  std::vector<uint8_t> FChunks; // in-memory mode
  std::unique_ptr<std::ofstream> FStream;
  std::string FPath;
  std::vector<uint8_t> FScratch;
  size_t FChunkCount = 0;
  uint64_t FNextId;
  uint64_t FMaxLastId = 0;
  bool FClosed = false;
};

// Writes bytes to a file. Raises std::runtime_error.
void EvtxWriteBytes(const std::string& APath, std::span<const uint8_t> ABytes);

} // namespace qvx
