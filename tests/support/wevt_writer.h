// Builds WEVT_TEMPLATE resource bytes in memory (layout in descriptions/provider_metadata.h).
//
// Placement: the resource header and provider entries, then for each provider its block
// (header, element descriptors, then its elements back to back). Every size, count and
// offset is computed from the drafts unless the draft overrides it, so tests can make
// any of them lie.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "descriptions/provider_metadata.h"

namespace qvx::test {

// One 48-byte event definition; the fields not read by the parser still get written.
struct TWevtEventDraft {
  uint16_t Id = 0;
  uint8_t Version = 0;
  uint8_t Channel = 0;
  uint8_t Level = 4;
  uint8_t Opcode = 0;
  uint16_t Task = 0;
  uint64_t Keywords = 0;
  uint32_t MessageId = kNoMessageId;
  uint32_t TemplateOffset = 0;
  uint32_t OpcodeOffset = 0;
  uint32_t LevelOffset = 0;
  uint32_t TaskOffset = 0;
  uint32_t Flags = 0; // the trailing word
};

// One 28-byte task definition.
struct TWevtTaskDraft {
  uint32_t Value = 0;
  uint32_t MessageId = kNoMessageId;
  uint8_t Guid[16] = {};
  uint32_t NameOffset = 0;
};

// One element: "EVNT" writes Events, "TASK" writes Tasks, any other signature writes
// an 8-byte header (signature, size) followed by Body.
struct TWevtElementDraft {
  std::string Signature = "EVNT"; // 4 characters
  uint32_t Kind = 0;              // the descriptor's first word
  std::vector<TWevtEventDraft> Events;
  std::vector<TWevtTaskDraft> Tasks;
  std::vector<uint8_t> Body;
  std::optional<uint32_t> Size;  // the element size; default: the bytes written
  std::optional<uint32_t> Count; // the definition count; default: the definitions written
  std::optional<uint32_t> Offset; // the descriptor's offset; default: where it is written
};

struct TWevtProviderDraft {
  TProviderGuid Guid;
  uint32_t MessageId = kNoMessageId;
  std::vector<TWevtElementDraft> Elements;
  std::optional<uint32_t> ElementCount; // default: Elements.size()
  std::optional<uint32_t> BlockOffset;  // the entry's block offset; default: where it is written
  std::optional<uint32_t> BlockSize;    // default: the bytes of the block and its elements
  std::string Magic = "WEVT";
};

struct TWevtResourceDraft {
  std::vector<TWevtProviderDraft> Providers;
  std::optional<uint32_t> TotalSize;     // default: the resource's length
  std::optional<uint32_t> ProviderCount; // default: Providers.size()
  std::string Magic = "CRIM";
};

// The resource bytes of ADraft.
std::vector<uint8_t> BuildWevtResource(const TWevtResourceDraft& ADraft);

// A GUID whose 16 bytes are ASeed, ASeed + 1, … (distinct seeds give distinct GUIDs).
TProviderGuid MakeTestGuid(uint8_t ASeed);

} // namespace qvx::test
