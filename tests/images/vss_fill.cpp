// qvx_vss_fill: gives an NTFS volume one Volume Shadow Copy that holds an older state
// of the same volume, for the shadow copy tests (no Debian tool makes shadow copies).
//
//   qvx_vss_fill OLD_VOLUME NEW_VOLUME [--damage store|catalog]
//
// OLD_VOLUME and NEW_VOLUME are the same volume before and after some change (the same
// size, a multiple of 16 KiB). Every 16 KiB block that differs is copied from
// OLD_VOLUME into a store in NEW_VOLUME's free space, with a block descriptor mapping it
// back; NEW_VOLUME then gets the shadow copy header (at 0x1E00, inside $Boot), a catalog
// naming the one store, and the store's header, block list, block range list and
// bitmap. Reading the copy through libvshadow then gives OLD_VOLUME's data in every
// block that changed. --damage store breaks the store's block list header, so that the
// catalog still lists the copy but its store cannot be read; --damage catalog breaks
// the catalog block's header.
//
// Layout written (offsets from the volume's start; each record is one 16 KiB block that
// starts with a 128-byte block header, as the libyal VSS format documentation gives):
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
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr uint64_t kBlock = 0x4000;
constexpr uint64_t kHeaderOffset = 0x1E00;
constexpr uint64_t kDescriptorsPerBlock = (kBlock - 128) / 32;
// 3808876b-c176-4e48-b7ae-04046e6cc752 as stored.
constexpr uint8_t kVssGuid[16] = {0x6B, 0x87, 0x08, 0x38, 0x76, 0xC1, 0x48, 0x4E,
                                  0xB7, 0xAE, 0x04, 0x04, 0x6E, 0x6C, 0xC7, 0x52};
// 2024-03-01T10:20:30Z
constexpr uint64_t kCreationTime = 133537620300000000ull;

[[noreturn]] void Die(const std::string& AText) {
  std::fprintf(stderr, "qvx_vss_fill: %s\n", AText.c_str());
  std::exit(1);
}

std::vector<uint8_t> ReadAll(const char* APath) {
  std::ifstream in(APath, std::ios::binary);
  if (!in) Die(std::string("cannot read ") + APath);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void Put32(std::vector<uint8_t>& AData, uint64_t AAt, uint32_t AValue) {
  for (int i = 0; i < 4; ++i) AData[AAt + i] = static_cast<uint8_t>(AValue >> (8 * i));
}
void Put64(std::vector<uint8_t>& AData, uint64_t AAt, uint64_t AValue) {
  for (int i = 0; i < 8; ++i) AData[AAt + i] = static_cast<uint8_t>(AValue >> (8 * i));
}
void PutGuid(std::vector<uint8_t>& AData, uint64_t AAt, uint8_t ASeed) {
  for (int i = 0; i < 16; ++i) AData[AAt + i] = static_cast<uint8_t>(ASeed + 17 * i);
}

// A 128-byte store or catalog block header.
void PutBlockHeader(std::vector<uint8_t>& AData, uint64_t AAt, uint32_t AType, uint64_t ARelative, uint64_t AInfoSize) {
  std::memcpy(&AData[AAt], kVssGuid, 16); // VSS identifier
  Put32(AData, AAt + 16, 1);              // version
  Put32(AData, AAt + 20, AType);          // record type
  Put64(AData, AAt + 24, ARelative);      // offset from the store's (or catalog's) start
  Put64(AData, AAt + 32, AAt);            // this block's offset in the volume
  Put64(AData, AAt + 40, 0);              // next block: none
  Put64(AData, AAt + 48, AInfoSize);      // store information size (store header only)
}

bool Zero(const std::vector<uint8_t>& AData, uint64_t ABlock) {
  for (uint64_t i = 0; i < kBlock; ++i)
    if (AData[ABlock * kBlock + i]) return false;
  return true;
}

} // namespace

int main(int argc, char** argv) {
  if (argc != 3 && !(argc == 5 && std::string(argv[3]) == "--damage"))
    Die("usage: qvx_vss_fill OLD_VOLUME NEW_VOLUME [--damage store|catalog]");
  const std::string damage = argc == 5 ? argv[4] : "";
  std::vector<uint8_t> oldData = ReadAll(argv[1]);
  std::vector<uint8_t> newData = ReadAll(argv[2]);
  if (oldData.size() != newData.size() || oldData.size() % kBlock || oldData.size() < 64 * kBlock)
    Die("the volumes must have one size, a multiple of 16 KiB");
  const uint64_t blocks = oldData.size() / kBlock;

  std::vector<uint64_t> changed;
  for (uint64_t b = 0; b < blocks; ++b)
    if (std::memcmp(&oldData[b * kBlock], &newData[b * kBlock], kBlock) != 0) changed.push_back(b);
  if (changed.empty()) Die("the volumes do not differ");
  const uint64_t listBlocks = (changed.size() + kDescriptorsPerBlock - 1) / kDescriptorsPerBlock;
  const uint64_t needed = 1 + 1 + listBlocks + 1 + 1 + changed.size();

  // The store goes into blocks free in both states, from the end (the last block holds
  // the backup boot sector).
  std::vector<uint64_t> free;
  for (uint64_t b = blocks - 2; b > 0 && free.size() < needed; --b)
    if (Zero(oldData, b) && Zero(newData, b)) free.push_back(b);
  if (free.size() < needed) Die("not enough free space for the store");
  size_t next = free.size();
  auto take = [&] { return free[--next] * kBlock; };
  const uint64_t catalog = take();
  const uint64_t store = take();
  std::vector<uint64_t> lists;
  for (uint64_t i = 0; i < listBlocks; ++i) lists.push_back(take());
  const uint64_t ranges = take();
  const uint64_t bitmap = take();
  std::vector<uint64_t> data;
  for (size_t i = 0; i < changed.size(); ++i) data.push_back(take());
  const uint64_t storeStart = free.back() * kBlock;
  const uint64_t storeEnd = free.front() * kBlock + kBlock;
  auto relative = [&](uint64_t AOffset) { return AOffset - storeStart; };

  std::vector<uint8_t>& v = newData;
  // Volume header.
  std::memcpy(&v[kHeaderOffset], kVssGuid, 16);
  Put32(v, kHeaderOffset + 16, 1);            // version
  Put32(v, kHeaderOffset + 20, 1);            // record type: volume header
  Put64(v, kHeaderOffset + 24, kHeaderOffset); // current offset
  Put64(v, kHeaderOffset + 32, kHeaderOffset); // next offset
  Put64(v, kHeaderOffset + 48, catalog);      // catalog offset
  Put64(v, kHeaderOffset + 56, 0);            // maximum size: unbounded
  PutGuid(v, kHeaderOffset + 64, 0x10);       // volume identifier
  PutGuid(v, kHeaderOffset + 80, 0x10);       // shadow copy storage volume identifier

  // Catalog: one block, the entries of the one store.
  PutBlockHeader(v, catalog, 2, 0, 0);
  uint64_t e = catalog + 128;
  Put64(v, e, 2);                     // entry type 2
  Put64(v, e + 8, oldData.size());    // volume size
  PutGuid(v, e + 16, 0x40);           // store identifier
  Put64(v, e + 32, 1);                // sequence number
  Put64(v, e + 40, 0x40);             // flags, as Windows 7 writes them
  Put64(v, e + 48, kCreationTime);    // creation time
  e += 128;
  Put64(v, e, 3);                     // entry type 3
  Put64(v, e + 8, lists[0]);          // store block list offset
  PutGuid(v, e + 16, 0x40);           // store identifier
  Put64(v, e + 32, store);            // store header offset
  Put64(v, e + 40, ranges);           // store block range list offset
  Put64(v, e + 48, bitmap);           // store bitmap offset
  Put64(v, e + 56, 0);                // NTFS file reference of the store file
  Put64(v, e + 64, storeEnd - storeStart); // allocated size
  Put64(v, e + 72, 0);                // previous bitmap: none

  // Store header and store information.
  const std::u16string machine = u"QVX-TEST";
  const uint64_t info = store + 128;
  PutGuid(v, info, 0x70);             // unknown identifier
  PutGuid(v, info + 16, 0x80);        // shadow copy identifier
  PutGuid(v, info + 32, 0x90);        // shadow copy set identifier
  Put32(v, info + 48, 0x0d);          // type: client accessible writers
  Put32(v, info + 52, 1);             // provider
  Put32(v, info + 56, 0x0042000d);    // attributes: persistent, client accessible, no auto release, differential, auto recover
  uint64_t at = info + 64;
  for (int twice = 0; twice < 2; ++twice) { // operating machine, then service machine
    v[at] = static_cast<uint8_t>(machine.size() * 2);
    v[at + 1] = 0;
    at += 2;
    for (const char16_t c : machine) {
      v[at++] = static_cast<uint8_t>(c);
      v[at++] = static_cast<uint8_t>(c >> 8);
    }
  }
  PutBlockHeader(v, store, 4, relative(store), at - info);

  // Block list: one descriptor per changed block; unused slots are marked not used.
  for (uint64_t l = 0; l < listBlocks; ++l) {
    PutBlockHeader(v, lists[l], 3, relative(lists[l]), 0);
    if (l + 1 < listBlocks) Put64(v, lists[l] + 40, lists[l + 1]);
    for (uint64_t i = 0; i < kDescriptorsPerBlock; ++i) {
      const uint64_t d = lists[l] + 128 + i * 32;
      const uint64_t index = l * kDescriptorsPerBlock + i;
      if (index >= changed.size()) break;
      Put64(v, d, changed[index] * kBlock);  // original offset
      Put64(v, d + 8, relative(data[index])); // offset in the store
      Put64(v, d + 16, data[index]);          // offset in the volume
      Put32(v, d + 24, 0);                    // flags: a plain copy
      Put32(v, d + 28, 0);                    // allocation bitmap: none
      std::memcpy(&v[data[index]], &oldData[changed[index] * kBlock], kBlock);
    }
  }
  // Block ranges: the store as one range.
  PutBlockHeader(v, ranges, 5, relative(ranges), 0);
  Put64(v, ranges + 128, storeStart);        // range start in the volume
  Put64(v, ranges + 136, 0);                 // range start in the store
  Put64(v, ranges + 144, storeEnd - storeStart); // range size
  // Bitmap: all clear.
  PutBlockHeader(v, bitmap, 6, relative(bitmap), 0);

  if (damage == "store") std::memset(&v[lists[0]], 0xEE, 32);
  if (damage == "catalog") std::memset(&v[catalog], 0xEE, 32);

  std::fstream out(argv[2], std::ios::binary | std::ios::in | std::ios::out);
  if (!out) Die(std::string("cannot write ") + argv[2]);
  out.write(reinterpret_cast<const char*>(v.data()), static_cast<std::streamsize>(v.size()));
  if (!out) Die(std::string("cannot write ") + argv[2]);
  std::printf("%zu blocks preserved\n", changed.size());
  return 0;
}
