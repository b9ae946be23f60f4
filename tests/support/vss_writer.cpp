#include "support/vss_writer.h"

#include <cstring>
#include <stdexcept>
#include <string>

namespace qvx::test {

namespace {

constexpr uint64_t kDescriptorsPerBlock = (kVssBlock - 128) / 32;
// 3808876b-c176-4e48-b7ae-04046e6cc752 as stored.
constexpr uint8_t kVssGuid[16] = {0x6B, 0x87, 0x08, 0x38, 0x76, 0xC1, 0x48, 0x4E,
                                  0xB7, 0xAE, 0x04, 0x04, 0x6E, 0x6C, 0xC7, 0x52};

void Put32(std::vector<uint8_t>& AData, uint64_t AAt, uint32_t AValue) {
  for (int i = 0; i < 4; ++i)
    AData[AAt + i] = static_cast<uint8_t>(AValue >> (8 * i));
}
void Put64(std::vector<uint8_t>& AData, uint64_t AAt, uint64_t AValue) {
  for (int i = 0; i < 8; ++i)
    AData[AAt + i] = static_cast<uint8_t>(AValue >> (8 * i));
}
void PutGuid(std::vector<uint8_t>& AData, uint64_t AAt, uint8_t ASeed) {
  for (int i = 0; i < 16; ++i)
    AData[AAt + i] = static_cast<uint8_t>(ASeed + 17 * i);
}

// A 128-byte store or catalog block header.
void PutBlockHeader(std::vector<uint8_t>& AData, uint64_t AAt, uint32_t AType, uint64_t ARelative,
                    uint64_t AInfoSize) {
  std::memcpy(&AData[AAt], kVssGuid, 16); // VSS identifier
  Put32(AData, AAt + 16, 1);              // version
  Put32(AData, AAt + 20, AType);          // record type
  Put64(AData, AAt + 24, ARelative);      // offset from the store's (or catalog's) start
  Put64(AData, AAt + 32, AAt);            // this block's offset in the volume
  Put64(AData, AAt + 40, 0);              // next block: none
  Put64(AData, AAt + 48, AInfoSize);      // store information size (store header only)
}

bool Zero(const std::vector<uint8_t>& AData, uint64_t ABlock) {
  for (uint64_t i = 0; i < kVssBlock; ++i)
    if (AData[ABlock * kVssBlock + i]) return false;
  return true;
}

} // namespace

std::vector<TVssLayout> AddShadowCopies(const std::vector<uint8_t>& AOld, std::vector<uint8_t>& ANew,
                                        unsigned ACopies, uint64_t ACreationTime) {
  if (AOld.size() != ANew.size() || AOld.size() % kVssBlock || AOld.size() < 16 * kVssBlock)
    throw std::runtime_error("the volumes must have one size, a multiple of 16 KiB");
  if (ACopies == 0 || ACopies > 63) throw std::runtime_error("one catalog block holds 1 to 63 copies");
  const uint64_t blocks = AOld.size() / kVssBlock;
  std::vector<uint64_t> preserved;
  for (uint64_t b = 0; b < blocks; ++b)
    if (std::memcmp(&AOld[b * kVssBlock], &ANew[b * kVssBlock], kVssBlock) != 0)
      preserved.push_back(b * kVssBlock);
  if (preserved.empty()) throw std::runtime_error("the volumes do not differ");
  const uint64_t changed = preserved.size();
  const uint64_t listBlocks = (changed + kDescriptorsPerBlock - 1) / kDescriptorsPerBlock;
  const uint64_t perStore = 1 + listBlocks + 1 + 1 + changed;
  const uint64_t needed = 1 + ACopies * perStore;

  std::vector<uint64_t> free;
  for (uint64_t b = blocks - 2; b > 0 && free.size() < needed; --b)
    if (Zero(AOld, b) && Zero(ANew, b)) free.push_back(b);
  if (free.size() < needed) throw std::runtime_error("not enough free space for the stores");
  size_t next = free.size();
  auto take = [&] { return free[--next] * kVssBlock; };
  const uint64_t catalog = take();

  std::vector<uint8_t>& v = ANew;
  const uint64_t h = kVssHeaderOffset;
  std::memset(&v[h], 0, 512);
  std::memcpy(&v[h], kVssGuid, 16); // VSS identifier
  Put32(v, h + 16, 1);              // version
  Put32(v, h + 20, 1);              // record type: volume header
  Put64(v, h + 24, h);              // current offset
  Put64(v, h + 32, h);              // next offset
  Put64(v, h + 48, catalog);        // catalog offset
  Put64(v, h + 56, 0);              // maximum size: unbounded
  PutGuid(v, h + 64, 0x10);         // volume identifier
  PutGuid(v, h + 80, 0x10);         // shadow copy storage volume identifier
  PutBlockHeader(v, catalog, 2, 0, 0);

  std::vector<TVssLayout> layouts;
  for (unsigned copy = 0; copy < ACopies; ++copy) {
    TVssLayout layout;
    layout.Catalog = catalog;
    layout.Preserved = preserved;
    const uint64_t storeStart = free[next - 1] * kVssBlock;
    layout.StoreHeader = take();
    for (uint64_t i = 0; i < listBlocks; ++i)
      layout.BlockLists.push_back(take());
    layout.Ranges = take();
    layout.Bitmap = take();
    for (uint64_t i = 0; i < changed; ++i)
      layout.Data.push_back(take());
    const uint64_t storeEnd = free[next] * kVssBlock + kVssBlock;
    auto relative = [&](uint64_t AOffset) { return AOffset - storeStart; };
    const auto seed = static_cast<uint8_t>(0x40 + copy);

    uint64_t e = catalog + 128 + 256 * copy;
    Put64(v, e, 2);                                           // entry type 2
    Put64(v, e + 8, AOld.size());                             // volume size
    PutGuid(v, e + 16, seed);                                 // store identifier
    Put64(v, e + 32, copy + 1);                               // sequence number
    Put64(v, e + 40, 0x40);                                   // flags, as Windows 7 writes them
    Put64(v, e + 48, ACreationTime + copy * 864000000000ull); // creation time, a day apart
    e += 128;
    Put64(v, e, 3);                          // entry type 3
    Put64(v, e + 8, layout.BlockLists[0]);   // store block list offset
    PutGuid(v, e + 16, seed);                // store identifier
    Put64(v, e + 32, layout.StoreHeader);    // store header offset
    Put64(v, e + 40, layout.Ranges);         // store block range list offset
    Put64(v, e + 48, layout.Bitmap);         // store bitmap offset
    Put64(v, e + 56, 0);                     // NTFS file reference of the store file
    Put64(v, e + 64, storeEnd - storeStart); // allocated size
    Put64(v, e + 72, 0);                     // previous bitmap: none

    const std::u16string machine = u"QVX-TEST";
    const uint64_t info = layout.StoreHeader + 128;
    PutGuid(v, info, 0x70);                                   // unknown identifier
    PutGuid(v, info + 16, static_cast<uint8_t>(0x80 + copy)); // shadow copy identifier
    PutGuid(v, info + 32, static_cast<uint8_t>(0x90 + copy)); // shadow copy set identifier
    Put32(v, info + 48, 0x0d);                                // type: client accessible writers
    Put32(v, info + 52, 1);                                   // provider
    Put32(
        v, info + 56,
        0x0042000d); // attributes: persistent, client accessible, no auto release, differential, auto recover
    uint64_t at = info + 64;
    for (int twice = 0; twice < 2; ++twice) { // operating machine, then service machine: size, UTF-16LE
      v[at] = static_cast<uint8_t>(machine.size() * 2);
      v[at + 1] = 0;
      at += 2;
      for (const char16_t c : machine) {
        v[at++] = static_cast<uint8_t>(c);
        v[at++] = static_cast<uint8_t>(c >> 8);
      }
    }
    PutBlockHeader(v, layout.StoreHeader, 4, relative(layout.StoreHeader), at - info);

    for (uint64_t l = 0; l < listBlocks; ++l) {
      const uint64_t list = layout.BlockLists[l];
      PutBlockHeader(v, list, 3, relative(list), 0);
      if (l + 1 < listBlocks) Put64(v, list + 40, layout.BlockLists[l + 1]); // next block
      for (uint64_t i = 0; i < kDescriptorsPerBlock; ++i) {
        const uint64_t index = l * kDescriptorsPerBlock + i;
        if (index >= changed) break;
        const uint64_t d = list + 128 + i * 32;
        Put64(v, d, preserved[index]);                 // original offset
        Put64(v, d + 8, relative(layout.Data[index])); // offset in the store
        Put64(v, d + 16, layout.Data[index]);          // offset in the volume
        Put32(v, d + 24, 0);                           // flags: a plain copy
        Put32(v, d + 28, 0);                           // allocation bitmap: none
        std::memcpy(&v[layout.Data[index]], &AOld[preserved[index]], kVssBlock);
      }
    }
    PutBlockHeader(v, layout.Ranges, 5, relative(layout.Ranges), 0);
    Put64(v, layout.Ranges + 128, storeStart);            // range start in the volume
    Put64(v, layout.Ranges + 136, 0);                     // range start in the store
    Put64(v, layout.Ranges + 144, storeEnd - storeStart); // range size
    PutBlockHeader(v, layout.Bitmap, 6, relative(layout.Bitmap), 0);
    layouts.push_back(std::move(layout));
  }
  return layouts;
}

} // namespace qvx::test
