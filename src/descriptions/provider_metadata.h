// Provider metadata of modern (manifest-based) event providers: the event and task
// tables read from a provider's WEVT_TEMPLATE resource (resource 1 of that type in its
// resource module), and the list of providers an imaged computer has met.
//
// The resource, all integers little-endian, every offset counted from its first byte:
//
//   Resource header
//   offset  size        field
//   0       4           magic "CRIM"
//   4       4           total size of the resource data (bound for the provider table)
//   8       4           version numbers                        not read
//   12      4           provider count C
//   16      20 * C      provider entries:
//     +0    16          provider GUID, binary layout
//     +16   4           offset of the provider block
//
//   Provider block
//   0       4           magic "WEVT"
//   4       4           size of the provider block
//   8       4           message identifier of the provider     not read
//   12      4           element count E
//   16      8 * E       element descriptors:
//     +0    4           kind of the element                    not read
//     +4    4           offset of the element
//
//   Every element starts with a 4-byte signature; only "EVNT" and "TASK" are read.
//
//   Events element "EVNT"
//   0       4           signature
//   4       4           element size S
//   8       4           event definition count N               N * 48 + 16 <= S
//   12      4           not read
//   16      48 * N      event definitions:
//     +0    2           event identifier
//     +2    1           version
//     +3    1           channel
//     +4    1           level      } read together as the level-and-opcode word
//     +5    1           opcode     } and each once more on its own
//     +6    2           task
//     +8    8           keywords
//     +16   4           message identifier, 0xFFFFFFFF: none (the definition is skipped)
//     +20   24          template, opcode, level, task offsets and others   not read
//     +44   4           trailing word (flags)
//
//   Tasks element "TASK"
//   0       4           signature
//   4       4           element size S
//   8       4           task definition count N                N * 8 + 12 <= S (sic)
//   12      28 * N      task definitions:
//     +0    4           task value
//     +4    4           message identifier, 0xFFFFFFFF: none (the definition is skipped)
//     +8    16          task GUID                              not read
//     +24   4           offset of the task name                not read
//
//   Opcodes element "OPCO"
//   0       4           signature
//   4       4           element size S
//   8       4           opcode definition count N              N * 12 + 12 <= S
//   12      12 * N      opcode definitions:
//     +0    2           task the opcode belongs to (0: every task)
//     +2    2           opcode value
//     +4    4           message identifier, 0xFFFFFFFF: none (the definition is skipped)
//     +8    4           offset of the opcode name                not read
//
//   Keywords element "KEYW"
//   0       4           signature
//   4       4           element size S
//   8       4           keyword definition count N             N * 16 + 12 <= S
//   12      16 * N      keyword definitions:
//     +0    8           keyword mask
//     +8    4           message identifier, 0xFFFFFFFF: none (the definition is skipped)
//     +12   4           offset of the keyword name               not read
//
// Nothing here loads a module: the caller hands over the resource bytes (from the PE
// resource reader) and, for texts, a TProviderMessageSource over the provider's message
// file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

namespace wevt {
inline constexpr uint32_t kCrimMagic = 0x4D495243; // "CRIM"
inline constexpr uint32_t kWevtMagic = 0x54564557; // "WEVT"
inline constexpr uint32_t kEvntSignature = 0x544E5645; // "EVNT"
inline constexpr uint32_t kTaskSignature = 0x4B534154; // "TASK"
inline constexpr uint32_t kOpcodeSignature = 0x4F43504F; // "OPCO"
inline constexpr uint32_t kKeywordSignature = 0x5759454B; // "KEYW"
inline constexpr uint32_t kNamesHeaderSize = 12; // OPCO and KEYW
inline constexpr uint32_t kOpcodeDefinitionSize = 12;
inline constexpr uint32_t kOfsOpcodeTask = 0;
inline constexpr uint32_t kOfsOpcodeValue = 2;
inline constexpr uint32_t kOfsOpcodeMessageId = 4;
inline constexpr uint32_t kKeywordDefinitionSize = 16;
inline constexpr uint32_t kOfsKeywordMask = 0;
inline constexpr uint32_t kOfsKeywordMessageId = 8;

inline constexpr uint32_t kMinResourceSize = 36;
inline constexpr uint32_t kResourceHeaderSize = 16;
inline constexpr uint32_t kOfsTotalSize = 4;
inline constexpr uint32_t kOfsProviderCount = 12;
inline constexpr uint32_t kProviderEntrySize = 20;
inline constexpr uint32_t kOfsEntryBlockOffset = 16;

inline constexpr uint32_t kProviderBlockHeaderSize = 16;
inline constexpr uint32_t kOfsBlockSize = 4;
inline constexpr uint32_t kOfsBlockMessageId = 8;
inline constexpr uint32_t kOfsElementCount = 12;
inline constexpr uint32_t kElementDescriptorSize = 8;
inline constexpr uint32_t kOfsDescriptorOffset = 4;

inline constexpr uint32_t kOfsElementSize = 4;
inline constexpr uint32_t kOfsElementCount2 = 8; // the definition count of EVNT and TASK
inline constexpr uint32_t kEventsHeaderSize = 16;
inline constexpr uint32_t kEventDefinitionSize = 48;
inline constexpr uint32_t kOfsEventId = 0;
inline constexpr uint32_t kOfsEventVersion = 2;
inline constexpr uint32_t kOfsEventLevelOpcode = 4;
inline constexpr uint32_t kOfsEventOpcode = 5;
inline constexpr uint32_t kOfsEventChannel = 3;
inline constexpr uint32_t kOfsEventLevel = 4;
inline constexpr uint32_t kOfsEventTask = 6;
inline constexpr uint32_t kOfsEventKeywords = 8;
inline constexpr uint32_t kOfsEventMessageId = 16;
inline constexpr uint32_t kOfsEventTrailing = 44;
inline constexpr uint32_t kTasksHeaderSize = 12;
inline constexpr uint32_t kTaskDefinitionSize = 28;
inline constexpr uint32_t kTaskBoundSize = 8; // what the TASK bound counts per definition
inline constexpr uint32_t kOfsTaskValue = 0;
inline constexpr uint32_t kOfsTaskMessageId = 4;
} // namespace wevt

inline constexpr uint32_t kNoMessageId = 0xFFFFFFFF;

// A provider GUID as its 16 bytes in binary layout, compared as two 64-bit halves.
struct TProviderGuid {
  uint64_t Low = 0;  // bytes 0-7
  uint64_t High = 0; // bytes 8-15

  // The GUID whose binary layout is the first 16 bytes of ABytes (zero when shorter).
  static TProviderGuid FromBytes(std::span<const uint8_t> ABytes);
  friend bool operator==(const TProviderGuid&, const TProviderGuid&) = default;
};

// Parses "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", braces optional, hex digits in either
// case. False, with AGuid zero, on anything else.
bool ParseProviderGuid(std::string_view AText, TProviderGuid& AGuid);

// One event definition with a message. Not packed: references to packed members are
// misaligned (a fault under UBSan), and the two bytes of padding cost nothing here.
struct TEventInfo {
  uint16_t Id = 0;
  uint16_t LevelOpcode = 0; // level in the low byte, opcode in the high byte
  uint8_t Version = 0;
  uint8_t Opcode = 0;
  uint32_t Trailing = 0;
  uint32_t MessageId = 0;
  uint8_t Channel = 0;
  uint8_t Level = 0;
  uint16_t Task = 0;
  uint64_t Keywords = 0;
};

// One task definition with a message.
struct TTaskInfo {
  uint32_t Value = 0;
  uint32_t MessageId = 0;
};

// One opcode definition with a message (Task 0: the opcode of every task).
struct TOpcodeInfo {
  uint16_t Task = 0;
  uint16_t Value = 0;
  uint32_t MessageId = 0;
};

// One keyword definition with a message.
struct TKeywordInfo {
  uint64_t Mask = 0;
  uint32_t MessageId = 0;
};

// Identifier, then version, both unsigned; -1, 0 or 1.
struct TEventInfoComparer {
  static int Compare(const TEventInfo& A, const TEventInfo& B);
};

// Task value as unsigned 32-bit; -1, 0 or 1.
struct TTaskInfoComparer {
  static int Compare(const TTaskInfo& A, const TTaskInfo& B);
};

// The message texts of one provider's message file, as the caller can read them (the PE
// resource reader's message table, a fake in tests).
class TProviderMessageSource {
public:
  virtual ~TProviderMessageSource() = default;
  // The text of message AMessageId into AText; false when the file has none (which
  // includes kNoMessageId).
  virtual bool FindMessage(uint32_t AMessageId, std::string& AText) const = 0;
};

// One modern provider: who it is, and the event and task tables of its resource.
class TGuidProvider {
public:
  TGuidProvider() = default; // empty tables

  const TProviderGuid& Guid() const { return FGuid; }
  void SetGuid(const TProviderGuid& AGuid) { FGuid = AGuid; }
  const std::string& Name() const { return FName; }
  void SetName(std::string_view AName) { FName.assign(AName); }
  const std::string& ResourcePath() const { return FResourcePath; }
  void SetResourcePath(std::string_view APath) { FResourcePath.assign(APath); }

  // Reads this provider's tables from AResource, the bytes of its module's WEVT_TEMPLATE
  // resource (empty when the module or the resource could not be loaded). Clears the
  // event table first; the task table is not cleared, so tasks are appended again on a
  // second call (a provider is processed once). False, with the event table empty and
  // Issue() saying why, when the resource has no block for Guid(): too short, wrong
  // magic, a provider count beyond the total size, no entry, or a bad block offset or
  // magic. A damaged element is left out, noted in Issue(), and the others are still
  // read. Does not check the block and element sizes against the resource size; reads
  // stop at the end of AResource. Keeps no pointer into AResource.
  bool Process(std::span<const uint8_t> AResource);

  // The first defect Process met, with its offset in the resource; empty when none.
  const std::string& Issue() const { return FIssue; }
  // Where the provider block lay in the resource and its stated size; 0 when not found.
  uint32_t BlockOffset() const { return FBlockOffset; }
  uint32_t BlockSize() const { return FBlockSize; }

  // The event table, sorted by TEventInfoComparer; GetEvent raises std::out_of_range
  // for an index outside it.
  size_t EventCount() const { return FEvents.size(); }
  const TEventInfo& GetEvent(size_t AIndex) const { return FEvents.at(AIndex); }
  // The task table in resource order; GetTask raises std::out_of_range likewise.
  size_t TaskCount() const { return FTasks.size(); }
  const TTaskInfo& GetTask(size_t AIndex) const { return FTasks.at(AIndex); }

  // The opcode and keyword tables in resource order; the getters raise std::out_of_range
  // for an index outside them.
  size_t OpcodeCount() const { return FOpcodes.size(); }
  const TOpcodeInfo& GetOpcode(size_t AIndex) const { return FOpcodes.at(AIndex); }
  size_t KeywordCount() const { return FKeywords.size(); }
  const TKeywordInfo& GetKeyword(size_t AIndex) const { return FKeywords.at(AIndex); }
  const std::vector<TOpcodeInfo>& Opcodes() const { return FOpcodes; }
  const std::vector<TKeywordInfo>& Keywords() const { return FKeywords; }

  // The message identifier of event AId in version AVersion; when that version is not
  // in the table, the one of the event's lowest version; kNoMessageId when the event is
  // not in the table.
  uint32_t GetFullEventID(uint16_t AId, uint8_t AVersion) const;
  // The message identifier of the first task whose value is ATask; kNoMessageId when
  // there is none.
  uint32_t GetFullTaskID(uint32_t ATask) const;

  // The texts of those messages from ASource; false when the table or the source has
  // none.
  bool EventMessage(uint16_t AId, uint8_t AVersion, const TProviderMessageSource& ASource,
                    std::string& AText) const;
  bool TaskMessage(uint32_t ATask, const TProviderMessageSource& ASource, std::string& AText) const;

private:
  TProviderGuid FGuid;
  std::string FName;
  std::string FResourcePath;
  std::string FIssue;
  uint32_t FBlockOffset = 0;
  uint32_t FBlockSize = 0;
  std::vector<TEventInfo> FEvents;
  std::vector<TTaskInfo> FTasks;
  std::vector<TOpcodeInfo> FOpcodes;
  std::vector<TKeywordInfo> FKeywords;
};

// The message of opcode AOpcode of task ATask: the task's own definition, else the
// provider-wide one (task 0); kNoMessageId when neither is there.
uint32_t FindOpcodeMessage(const std::vector<TOpcodeInfo>& AOpcodes, uint16_t ATask, uint8_t AOpcode);

// The names of the provider's keywords whose bits are all set in AKeywords, in table order,
// joined by ", ", each from AName(message id). False (AText empty) when none is named.
bool JoinKeywordNames(const std::vector<TKeywordInfo>& AKeywordTable, uint64_t AKeywords, std::string& AText,
                      const std::function<bool(uint32_t, std::string&)>& AName);

// The providers met so far; owns them. Pointers stay valid for the list's life.
class TGuidProviders {
public:
  // Adds AProvider at the end and returns it.
  TGuidProvider& Add(std::unique_ptr<TGuidProvider> AProvider);
  size_t Count() const { return FItems.size(); }
  TGuidProvider& operator[](size_t AIndex) const { return *FItems.at(AIndex); }

  // The first provider whose name equals AName without regard to ASCII case; null when
  // none.
  TGuidProvider* FindProvider(std::string_view AName) const;
  // The first provider with this GUID; null when none.
  TGuidProvider* FindProvider(const TProviderGuid& AGuid) const;

private:
  std::vector<std::unique_ptr<TGuidProvider>> FItems;
};

} // namespace qvx
