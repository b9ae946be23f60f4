// TMessageTable: the messages of an RT_MESSAGETABLE resource, read from untrusted bytes.
//
//   offset                 size  field
//   0                      4     NumberOfBlocks
//   4 + 12*i               12    block i: LowId 4, HighId 4, OffsetToEntries 4 (from the
//                                start of the resource)
//   OffsetToEntries        var   HighId - LowId + 1 entries, back to back:
//     +0                   2     Length: of the whole entry, header included
//     +2                   2     Flags: 0 ANSI (code page 1252 here), 1 UTF-16LE, 2 UTF-8
//     +4                   Length-4  text, NUL-terminated and NUL-padded to a multiple of 4
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace qvx {

struct TMessageBlock {
  uint32_t LowId, HighId, OffsetToEntries;
};

class TMessageTable {
public:
  TMessageTable() = default;
  // Keeps a view of AData, which must outlive the table. Blocks that do not fit in AData and
  // blocks whose LowId exceeds HighId are dropped.
  explicit TMessageTable(std::span<const uint8_t> AData);

  const std::vector<TMessageBlock>& Blocks() const { return FBlocks; }
  // True when two blocks claim one ID (only damaged or hand-made tables do).
  bool HasOverlaps() const { return FOverlaps; }

  // The text of message AMessageId as UTF-8, trailing NULs removed, CR/LF kept as stored.
  // The first block that holds the ID answers, even when its entries are damaged. Returns
  // false when the ID is in no block, or when the walk to its entry meets an entry shorter
  // than its header, one running past the resource, or unknown flags; AError says which.
  bool Find(uint32_t AMessageId, std::string& AText, std::string* AError = nullptr) const;

  // Calls AVisit(id, text) for every readable message, block by block; a block stops at its
  // first damaged entry. Visits at most size / 4 entries in all, so overlapping blocks cannot
  // make it slow. Where blocks overlap, an ID is visited once per block that claims it (Find
  // answers from the first); without overlaps, every visited message is what Find returns.
  void ForEach(const std::function<void(uint32_t, const std::string&)>& AVisit) const;

private:
  std::span<const uint8_t> FData;
  std::vector<TMessageBlock> FBlocks;
  bool FOverlaps = false;
};

// Opens APe, picks the message table language as TPeResources::FindBest does (each name under
// RT_MESSAGETABLE in turn) and looks up AId. Returns false with AError set when the image
// does not open, has no message table, or the message is missing or damaged.
bool FindMessage(std::span<const uint8_t> APe, uint32_t AId, const std::vector<uint16_t>& ALanguages,
                 std::string& AText, std::string* AError = nullptr);

} // namespace qvx
