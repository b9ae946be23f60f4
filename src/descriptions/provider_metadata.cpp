// Provider metadata: reading the event and task tables of a WEVT_TEMPLATE resource.
// The layout is in provider_metadata.h.
#include "descriptions/provider_metadata.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "platform/byte_reader.h"

namespace qvx {

namespace {

// Every defect Process notes is built here (one breakpoint catches them all). Keeps the
// first; later ones are usually its consequences.
void NoteDefect(std::string& AIssue, const char* AWhat, uint64_t AOffset) {
  if (!AIssue.empty()) return;
  char text[160];
  std::snprintf(text, sizeof text, "WEVT_TEMPLATE: %s at offset 0x%llX", AWhat,
                static_cast<unsigned long long>(AOffset));
  AIssue.assign(text);
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

char FoldAscii(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool SameNoCase(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i)
    if (FoldAscii(A[i]) != FoldAscii(B[i])) return false;
  return true;
}

template <typename T> int Order(T A, T B) { return A < B ? -1 : (A > B ? 1 : 0); }

} // namespace

// ---- GUIDs --------------------------------------------------------------------------

TProviderGuid TProviderGuid::FromBytes(std::span<const uint8_t> ABytes) {
  TByteReader reader(ABytes);
  if (!reader.Fits(0, 16)) return {};
  return TProviderGuid{reader.ReadU64(0), reader.ReadU64(8)};
}

bool ParseProviderGuid(std::string_view AText, TProviderGuid& AGuid) {
  AGuid = {};
  if (AText.size() == 38 && AText.front() == '{' && AText.back() == '}')
    AText = AText.substr(1, 36);
  if (AText.size() != 36) return false;
  // Text groups 1-3 are little-endian numbers in the binary layout; groups 4-5 are bytes.
  static constexpr int kByteAt[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  uint8_t bytes[16] = {};
  size_t pos = 0;
  for (int i = 0; i < 16; ++i) {
    if (pos == 8 || pos == 13 || pos == 18 || pos == 23) {
      if (AText[pos] != '-') return false;
      ++pos;
    }
    int hi = HexDigit(AText[pos]);
    int lo = HexDigit(AText[pos + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes[kByteAt[i]] = static_cast<uint8_t>(hi * 16 + lo);
    pos += 2;
  }
  AGuid = TProviderGuid::FromBytes(bytes);
  return true;
}

// ---- Comparers ----------------------------------------------------------------------

int TEventInfoComparer::Compare(const TEventInfo& A, const TEventInfo& B) {
  if (int r = Order<uint16_t>(A.Id, B.Id)) return r;
  return Order<uint8_t>(A.Version, B.Version);
}

int TTaskInfoComparer::Compare(const TTaskInfo& A, const TTaskInfo& B) {
  return Order<uint32_t>(A.Value, B.Value);
}

// ---- TGuidProvider ------------------------------------------------------------------

bool TGuidProvider::Process(std::span<const uint8_t> AResource) {
  using namespace wevt;
  FEvents.clear();
  FOpcodes.clear();
  FKeywords.clear();
  FIssue.clear();
  FBlockOffset = 0;
  FBlockSize = 0;
  const TByteReader res(AResource);

  // Find the provider block.
  if (res.Size() < kMinResourceSize) {
    NoteDefect(FIssue, "resource shorter than 36 bytes", 0);
    return false;
  }
  if (res.ReadU32(0) != kCrimMagic) {
    NoteDefect(FIssue, "no CRIM magic", 0);
    return false;
  }
  const uint64_t totalSize = res.ReadU32(kOfsTotalSize);
  const uint64_t providerCount = res.ReadU32(kOfsProviderCount);
  if (providerCount * kProviderEntrySize + kResourceHeaderSize > totalSize) {
    NoteDefect(FIssue, "provider count beyond the total size", kOfsProviderCount);
    return false;
  }
  uint64_t blockOffset = 0;
  bool found = false;
  for (uint64_t i = 0; i < providerCount; ++i) {
    const uint64_t entry = kResourceHeaderSize + i * kProviderEntrySize;
    // An entry past the bytes held reads as zeros, whose block offset 0 fails anyway.
    if (!res.Fits(entry, kProviderEntrySize)) break;
    if (TProviderGuid::FromBytes(res.ReadBytes(entry, 16)) == FGuid) {
      blockOffset = res.ReadU32(entry + kOfsEntryBlockOffset);
      found = true;
      if (blockOffset == 0 || blockOffset > totalSize) {
        NoteDefect(FIssue, "provider block offset outside the resource", entry + kOfsEntryBlockOffset);
        return false;
      }
      break;
    }
  }
  if (!found) {
    NoteDefect(FIssue, "no entry for the provider GUID", kResourceHeaderSize);
    return false;
  }
  if (res.ReadU32(blockOffset) != kWevtMagic) {
    NoteDefect(FIssue, "no WEVT magic", blockOffset);
    return false;
  }
  FBlockOffset = static_cast<uint32_t>(blockOffset);
  FBlockSize = res.ReadU32(blockOffset + kOfsBlockSize);

  // Read the elements. Definitions of the same kind never share bytes in a sound
  // resource, so more of them than the resource can hold means elements overlap or
  // repeat (damaged or hostile data); reading stops there rather than multiply.
  const uint64_t maxEvents = res.Size() / kEventDefinitionSize;
  const uint64_t maxTasks = res.Size() / kTaskDefinitionSize;
  uint64_t eventsRead = 0;
  uint64_t tasksRead = 0;
  uint64_t namesRead = 0; // opcodes and keywords, at least 12 bytes each
  const uint64_t maxNames = res.Size() / kOpcodeDefinitionSize;
  const uint64_t elementCount = res.ReadU32(blockOffset + kOfsElementCount);
  for (uint64_t e = 0; e < elementCount; ++e) {
    const uint64_t descriptor = blockOffset + kProviderBlockHeaderSize + e * kElementDescriptorSize;
    if (!res.Fits(descriptor, kElementDescriptorSize)) {
      NoteDefect(FIssue, "element count beyond the resource", blockOffset + kOfsElementCount);
      break;
    }
    // Resources of Windows binaries (services.exe among them) keep the element's kind in
    // the descriptor's first word and its offset in the second.
    const uint64_t element = res.ReadU32(descriptor + kOfsDescriptorOffset);
    const uint32_t signature = res.ReadU32(element);
    const uint64_t size = res.ReadU32(element + kOfsElementSize);
    const uint64_t count = res.ReadU32(element + kOfsElementCount2);
    // Empty elements are written with size 0 (services.exe has an empty TASK element):
    // the size bound fails on them, but there is nothing to read and nothing is wrong.
    if (count == 0) continue;
    if (signature == kEvntSignature) {
      if (count * kEventDefinitionSize + kEventsHeaderSize > size) {
        NoteDefect(FIssue, "EVNT count beyond the element size", element + kOfsElementCount2);
        continue;
      }
      for (uint64_t k = 0; k < count; ++k) {
        const uint64_t def = element + kEventsHeaderSize + k * kEventDefinitionSize;
        if (!res.Fits(def, kEventDefinitionSize)) {
          NoteDefect(FIssue, "event definition past the end of the resource", def);
          break;
        }
        if (++eventsRead > maxEvents) {
          NoteDefect(FIssue, "EVNT elements overlap", element);
          break;
        }
        TEventInfo info;
        info.MessageId = res.ReadU32(def + kOfsEventMessageId);
        if (info.MessageId == kNoMessageId) continue;
        info.Id = res.ReadU16(def + kOfsEventId);
        info.Version = res.ReadU8(def + kOfsEventVersion);
        info.LevelOpcode = res.ReadU16(def + kOfsEventLevelOpcode);
        info.Opcode = res.ReadU8(def + kOfsEventOpcode);
        info.Trailing = res.ReadU32(def + kOfsEventTrailing);
        info.Channel = res.ReadU8(def + kOfsEventChannel);
        info.Level = res.ReadU8(def + kOfsEventLevel);
        info.Task = res.ReadU16(def + kOfsEventTask);
        info.Keywords = res.ReadU64(def + kOfsEventKeywords);
        FEvents.push_back(info);
      }
    } else if (signature == kTaskSignature) {
      // The bound counts 8 bytes a definition though definitions lie 28 bytes apart: a
      // deliberately lenient check, so a TASK element with a short stated size is still
      // read in full (reads stay inside the resource all the same).
      if (count * kTaskBoundSize + kTasksHeaderSize > size) {
        NoteDefect(FIssue, "TASK count beyond the element size", element + kOfsElementCount2);
        continue;
      }
      for (uint64_t k = 0; k < count; ++k) {
        const uint64_t def = element + kTasksHeaderSize + k * kTaskDefinitionSize;
        if (!res.Fits(def, kTaskDefinitionSize)) {
          NoteDefect(FIssue, "task definition past the end of the resource", def);
          break;
        }
        if (++tasksRead > maxTasks) {
          NoteDefect(FIssue, "TASK elements overlap", element);
          break;
        }
        TTaskInfo info;
        info.MessageId = res.ReadU32(def + kOfsTaskMessageId);
        if (info.MessageId == kNoMessageId) continue;
        info.Value = res.ReadU32(def + kOfsTaskValue);
        FTasks.push_back(info);
      }
    } else if (signature == kOpcodeSignature || signature == kKeywordSignature) {
      const bool opcodes = signature == kOpcodeSignature;
      const uint64_t step = opcodes ? kOpcodeDefinitionSize : kKeywordDefinitionSize;
      if (count * step + kNamesHeaderSize > size) {
        NoteDefect(FIssue, opcodes ? "OPCO count beyond the element size" : "KEYW count beyond the element size",
                   element + kOfsElementCount2);
        continue;
      }
      for (uint64_t k = 0; k < count; ++k) {
        const uint64_t def = element + kNamesHeaderSize + k * step;
        if (!res.Fits(def, step)) {
          NoteDefect(FIssue, opcodes ? "opcode definition past the end of the resource"
                                     : "keyword definition past the end of the resource", def);
          break;
        }
        if (++namesRead > maxNames) {
          NoteDefect(FIssue, opcodes ? "OPCO elements overlap" : "KEYW elements overlap", element);
          break;
        }
        if (opcodes) {
          TOpcodeInfo info;
          info.MessageId = res.ReadU32(def + kOfsOpcodeMessageId);
          if (info.MessageId == kNoMessageId) continue;
          info.Task = res.ReadU16(def + kOfsOpcodeTask);
          info.Value = res.ReadU16(def + kOfsOpcodeValue);
          FOpcodes.push_back(info);
        } else {
          TKeywordInfo info;
          info.MessageId = res.ReadU32(def + kOfsKeywordMessageId);
          if (info.MessageId == kNoMessageId) continue;
          info.Mask = res.ReadU64(def + kOfsKeywordMask);
          FKeywords.push_back(info);
        }
      }
    }
  }
  std::stable_sort(FEvents.begin(), FEvents.end(), [](const TEventInfo& A, const TEventInfo& B) {
    return TEventInfoComparer::Compare(A, B) < 0;
  });
  return true;
}

uint32_t TGuidProvider::GetFullEventID(uint16_t AId, uint8_t AVersion) const {
  auto it = std::lower_bound(FEvents.begin(), FEvents.end(), AId,
                             [](const TEventInfo& A, uint16_t AKey) { return A.Id < AKey; });
  if (it == FEvents.end() || it->Id != AId) return kNoMessageId;
  const uint32_t lowest = it->MessageId;
  for (; it != FEvents.end() && it->Id == AId; ++it)
    if (it->Version == AVersion) return it->MessageId;
  return lowest;
}

uint32_t TGuidProvider::GetFullTaskID(uint32_t ATask) const {
  for (const TTaskInfo& task : FTasks)
    if (task.Value == ATask) return task.MessageId;
  return kNoMessageId;
}

bool TGuidProvider::EventMessage(uint16_t AId, uint8_t AVersion, const TProviderMessageSource& ASource,
                                 std::string& AText) const {
  AText.clear();
  return ASource.FindMessage(GetFullEventID(AId, AVersion), AText);
}

bool TGuidProvider::TaskMessage(uint32_t ATask, const TProviderMessageSource& ASource,
                                std::string& AText) const {
  AText.clear();
  return ASource.FindMessage(GetFullTaskID(ATask), AText);
}

uint32_t FindOpcodeMessage(const std::vector<TOpcodeInfo>& AOpcodes, uint16_t ATask, uint8_t AOpcode) {
  uint32_t shared = kNoMessageId;
  for (const TOpcodeInfo& opcode : AOpcodes) {
    if (opcode.Value != AOpcode) continue;
    if (opcode.Task == ATask && ATask != 0) return opcode.MessageId;
    if (opcode.Task == 0 && shared == kNoMessageId) shared = opcode.MessageId;
  }
  return shared;
}

bool JoinKeywordNames(const std::vector<TKeywordInfo>& AKeywordTable, uint64_t AKeywords, std::string& AText,
                      const std::function<bool(uint32_t, std::string&)>& AName) {
  AText.clear();
  std::string name;
  for (const TKeywordInfo& keyword : AKeywordTable) {
    if (keyword.Mask == 0 || (AKeywords & keyword.Mask) != keyword.Mask || !AName(keyword.MessageId, name)) continue;
    if (!AText.empty()) AText.append(", ");
    AText.append(name);
  }
  return !AText.empty();
}

// ---- TGuidProviders -----------------------------------------------------------------

TGuidProvider& TGuidProviders::Add(std::unique_ptr<TGuidProvider> AProvider) {
  FItems.push_back(std::move(AProvider));
  return *FItems.back();
}

TGuidProvider* TGuidProviders::FindProvider(std::string_view AName) const {
  for (const auto& item : FItems)
    if (SameNoCase(item->Name(), AName)) return item.get();
  return nullptr;
}

TGuidProvider* TGuidProviders::FindProvider(const TProviderGuid& AGuid) const {
  for (const auto& item : FItems)
    if (item->Guid() == AGuid) return item.get();
  return nullptr;
}

} // namespace qvx
