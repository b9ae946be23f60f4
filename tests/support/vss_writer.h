// A Volume Shadow Copy written into a volume in memory, for the shadow copy tests and
// qvx_vss_fill (no Debian tool makes shadow copies). Written from the libyal VSS
// format documentation.
//
// Layout written (offsets from the volume's start; each record but the volume header is
// one 16 KiB block that starts with a 128-byte block header):
//   volume header  0x1E00: VSS GUID, version 1, type 1, current and next offset 0x1E00,
//                  catalog offset, maximum size 0, volume and storage volume GUIDs
//   catalog        type 2 header, then entry type 2 (volume size, store GUID, sequence,
//                  flags 0x40, creation time) and entry type 3 (block list, store GUID,
//                  store header, block range list, bitmap, file reference, allocated
//                  size, previous bitmap 0)
//   store header   type 4 header with the size of the store information after it
//   block list     type 3 header, then 32-byte descriptors: original offset, offset in
//                  the store, offset in the volume, flags, allocation bitmap
//   block ranges   type 5 header, one 24-byte range: the store's blocks
//   bitmap         type 6 header, all bits clear: every block not in the list is read
//                  from the current volume
//   data blocks    the old blocks
#pragma once

#include <cstdint>
#include <vector>

namespace qvx::test {

inline constexpr uint64_t kVssBlock = 0x4000;
inline constexpr uint64_t kVssHeaderOffset = 0x1E00;
// 2024-03-01T10:20:30Z
inline constexpr uint64_t kVssCreationTime = 133537620300000000ull;

// Where AddShadowCopy put each record (byte offsets in the volume).
struct TVssLayout {
  uint64_t Catalog = 0;
  uint64_t StoreHeader = 0;
  std::vector<uint64_t> BlockLists;
  uint64_t Ranges = 0;
  uint64_t Bitmap = 0;
  std::vector<uint64_t> Data;      // the old blocks, one per changed block
  std::vector<uint64_t> Preserved; // offsets of the blocks that changed
};

// Gives ANew (the volume now) ACopies shadow copies that each hold AOld (the same
// volume before) in every 16 KiB block that differs, one store each with its own copy
// of the old blocks: the stores go into blocks that are zero in both, from the end of
// the volume (the last block, with the backup boot sector, is left alone). Copy N is
// created ACreationTime plus N - 1 days. Raises std::runtime_error when the sizes differ
// or are no multiple of 16 KiB, when nothing differs, or when there is no room.
std::vector<TVssLayout> AddShadowCopies(const std::vector<uint8_t>& AOld, std::vector<uint8_t>& ANew,
                                        unsigned ACopies, uint64_t ACreationTime = kVssCreationTime);
inline TVssLayout AddShadowCopy(const std::vector<uint8_t>& AOld, std::vector<uint8_t>& ANew,
                                uint64_t ACreationTime = kVssCreationTime) {
  return AddShadowCopies(AOld, ANew, 1, ACreationTime)[0];
}

} // namespace qvx::test
