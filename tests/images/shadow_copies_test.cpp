#include "images/shadow_copies.h"

#include "images/image_error.h"
#include "support/partition_writer.h"
#include "support/vss_writer.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qvx {
namespace {

using test::AddShadowCopy;
using test::kVssBlock;
using test::TMemoryStream;
using test::TVssLayout;

constexpr uint64_t kBlocks = 64; // a 1 MiB volume

// The volume before: blocks 4-6 hold 'A'; after: they hold 'B' and block 9 'C'.
struct TFixture {
  std::vector<uint8_t> Old = std::vector<uint8_t>(kBlocks * kVssBlock);
  std::vector<uint8_t> New;
  TVssLayout Layout;
  TFixture() {
    std::memset(&Old[4 * kVssBlock], 'A', 3 * kVssBlock);
    New = Old;
    std::memset(&New[4 * kVssBlock], 'B', 3 * kVssBlock);
    std::memset(&New[9 * kVssBlock], 'C', kVssBlock);
    Layout = AddShadowCopy(Old, New);
  }
  std::shared_ptr<TShadowCopies> Open() const {
    return TShadowCopies::Open(std::make_shared<TMemoryStream>(New, "vol"), "vol");
  }
};

std::vector<uint8_t> ReadBlock(const TReadStream& AStream, uint64_t ABlock) {
  std::vector<uint8_t> block(kVssBlock);
  EXPECT_EQ(AStream.ReadAt(ABlock * kVssBlock, block.data(), block.size()), block.size());
  return block;
}

std::vector<uint8_t> BlockOf(const std::vector<uint8_t>& AVolume, uint64_t ABlock) {
  return {AVolume.begin() + static_cast<std::ptrdiff_t>(ABlock * kVssBlock),
          AVolume.begin() + static_cast<std::ptrdiff_t>((ABlock + 1) * kVssBlock)};
}

// The message a shadow copy call raises, or "" when it raises none.
template <class F> std::string ErrorOf(F AFunction) {
  try {
    AFunction();
  } catch (const EImageError& e) {
    return e.what();
  }
  return {};
}

TEST(ShadowCopies, ListsTheStoreWithItsCreationTime) {
  TFixture f;
  const auto copies = f.Open();
  ASSERT_EQ(copies->Count(), 1u);
  EXPECT_EQ(copies->Copies()[0].Number, 1u);
  EXPECT_EQ(copies->Copies()[0].CreationTime, test::kVssCreationTime);
  EXPECT_EQ(copies->Copies()[0].VolumeSize, kBlocks * kVssBlock);
  EXPECT_EQ(copies->Copies()[0].Identifier.size(), 36u);
}

TEST(ShadowCopies, ReadsTheOldBlocksAndTheUnchangedOnesFromTheVolume) {
  TFixture f;
  ASSERT_EQ(f.Layout.Preserved.size(), 4u);
  const auto store = f.Open()->Store(1, "vol shadow copy 1");
  EXPECT_EQ(store->Size(), kBlocks * kVssBlock);
  EXPECT_EQ(store->Path(), "vol shadow copy 1");
  for (uint64_t b : {4, 5, 6, 9})
    EXPECT_EQ(ReadBlock(*store, b), BlockOf(f.Old, b)) << "block " << b;
  for (uint64_t b : {1, 3, 7, 20})
    EXPECT_EQ(ReadBlock(*store, b), BlockOf(f.New, b)) << "block " << b;
  // A read across a preserved and an unchanged block.
  uint8_t pair[2] = {};
  ASSERT_EQ(store->ReadAt(7 * kVssBlock - 1, pair, 2), 2u);
  EXPECT_EQ(pair[0], 'A');
  EXPECT_EQ(pair[1], 0);
  EXPECT_EQ(store->ReadAt(kBlocks * kVssBlock, pair, 2), 0u);
}

TEST(ShadowCopies, AVolumeWithoutTheHeaderHasNone) {
  const std::vector<uint8_t> blank(kBlocks * kVssBlock);
  EXPECT_FALSE(TShadowCopies::HasHeader(TMemoryStream(blank)));
  EXPECT_EQ(TShadowCopies::Open(std::make_shared<TMemoryStream>(blank), "vol")->Count(), 0u);
  const std::vector<uint8_t> tiny(100);
  EXPECT_EQ(TShadowCopies::Open(std::make_shared<TMemoryStream>(tiny), "vol")->Count(), 0u);
}

TEST(ShadowCopies, ListsTwoCopiesADayApartEachWithTheOldBlocks) {
  TFixture f;
  std::vector<uint8_t> volume = f.Old;
  std::memset(&volume[4 * kVssBlock], 'B', 3 * kVssBlock);
  std::memset(&volume[9 * kVssBlock], 'C', kVssBlock);
  test::AddShadowCopies(f.Old, volume, 2);
  const auto copies = TShadowCopies::Open(std::make_shared<TMemoryStream>(volume, "vol"), "vol");
  ASSERT_EQ(copies->Count(), 2u);
  EXPECT_EQ(copies->Copies()[1].CreationTime - copies->Copies()[0].CreationTime, 864000000000u);
  EXPECT_NE(copies->Copies()[0].Identifier, copies->Copies()[1].Identifier);
  for (uint32_t n : {1u, 2u}) {
    const auto store = copies->Store(n, "vol shadow copy " + std::to_string(n));
    EXPECT_EQ(ReadBlock(*store, 5), BlockOf(f.Old, 5)) << "copy " << n;
    EXPECT_EQ(ReadBlock(*store, 20), BlockOf(volume, 20)) << "copy " << n;
  }
}

TEST(ShadowCopiesErrors, ADamagedCopyLeavesTheNewerOneReadable) {
  TFixture f;
  std::vector<uint8_t> volume = f.Old;
  std::memset(&volume[4 * kVssBlock], 'B', 3 * kVssBlock);
  const std::vector<TVssLayout> layouts = test::AddShadowCopies(f.Old, volume, 2);
  volume[layouts[0].BlockLists[0]] ^= 0xFF;
  const auto copies = TShadowCopies::Open(std::make_shared<TMemoryStream>(volume, "vol"), "vol");
  ASSERT_EQ(copies->Count(), 2u);
  EXPECT_EQ(ErrorOf([&] { ReadBlock(*copies->Store(1, "vol shadow copy 1"), 0); }),
            "vol shadow copy 1: cannot read the shadow copy's data at offset 0x0 (invalid store block list "
            "header identifier)");
  EXPECT_EQ(ReadBlock(*copies->Store(2, "vol shadow copy 2"), 5), BlockOf(f.Old, 5));
}

TEST(ShadowCopiesErrors, ANtfsBootSectorWithImpossibleSizesIsRefusedWithThem) {
  TFixture f;
  std::memcpy(&f.New[3], "NTFS    ", 8);
  f.New[11] = 37; // bytes per sector
  f.New[13] = 0;  // sectors per cluster
  EXPECT_EQ(ErrorOf([&] { f.Open(); }), "vol: shadow copies cannot be read: NTFS boot sector is not valid at offset "
                                        "0x0 (37 bytes per sector, 0 sectors per cluster)");
  f.New[11] = 0;
  f.New[12] = 2; // 512
  f.New[13] = 8;
  EXPECT_EQ(ErrorOf([&] { f.Open(); }), "");
  EXPECT_EQ(f.Open()->Count(), 1u);
}

TEST(ShadowCopiesErrors, NoSuchCopy) {
  TFixture f;
  const auto copies = f.Open();
  EXPECT_EQ(ErrorOf([&] { copies->Store(2, "vol shadow copy 2"); }),
            "vol: no shadow copy 2 (the volume has 1)");
  EXPECT_EQ(ErrorOf([&] { copies->Store(0, "vol shadow copy 0"); }),
            "vol: no shadow copy 0 (the volume has 1)");
}

TEST(ShadowCopiesErrors, CatalogHeaderIdentifier) {
  TFixture f;
  f.New[f.Layout.Catalog] ^= 0xFF;
  EXPECT_EQ(ErrorOf([&] { f.Open(); }), "vol: shadow copy header or catalog cannot be read at offset 0x1E00 "
                                        "(invalid catalog header identifier)");
}

TEST(ShadowCopiesErrors, CatalogOffsetPastTheVolume) {
  TFixture f;
  for (int i = 0; i < 8; ++i)
    f.New[test::kVssHeaderOffset + 48 + i] = i == 7 ? 0x7F : 0xFF;
  EXPECT_EQ(ErrorOf([&] { f.Open(); }), "vol: shadow copy header or catalog cannot be read at offset 0x1E00 "
                                        "(unable to read catalog block data)");
}

TEST(ShadowCopiesErrors, BlockListHeaderIdentifier) {
  TFixture f;
  f.New[f.Layout.BlockLists[0]] ^= 0xFF;
  const auto copies = f.Open(); // the catalog still lists the copy
  ASSERT_EQ(copies->Count(), 1u);
  EXPECT_EQ(ErrorOf([&] { ReadBlock(*copies->Store(1, "vol shadow copy 1"), 0); }),
            "vol shadow copy 1: cannot read the shadow copy's data at offset 0x0 (invalid store block list "
            "header identifier)");
}

TEST(ShadowCopiesErrors, DescriptorPastTheVolume) {
  TFixture f;
  // The first descriptor's offset in the volume, far past its end.
  const uint64_t d = f.Layout.BlockLists[0] + 128;
  for (int i = 0; i < 8; ++i)
    f.New[d + 16 + i] = i == 6 ? 0x01 : 0;
  const auto store = f.Open()->Store(1, "vol shadow copy 1");
  EXPECT_EQ(ErrorOf([&] { ReadBlock(*store, 4); }),
            "vol shadow copy 1: cannot read the shadow copy's data at offset 0x10000 (unable to read buffer "
            "from file IO handle)");
  EXPECT_EQ(ReadBlock(*store, 20), BlockOf(f.New, 20)); // the other blocks still read
}

TEST(ShadowCopiesErrors, DamagedRecordsRaiseOrReadNeverCrash) {
  const TFixture f;
  // Each record the catalog names, damaged a few bytes at a time (a fixed seed): opening
  // and reading every block either works or raises EImageError naming the volume.
  std::vector<uint64_t> records = {test::kVssHeaderOffset, f.Layout.Catalog, f.Layout.StoreHeader, f.Layout.Ranges,
                                   f.Layout.Bitmap};
  records.insert(records.end(), f.Layout.BlockLists.begin(), f.Layout.BlockLists.end());
  uint32_t seed = 12345;
  auto next = [&] { return seed = seed * 1103515245u + 12345u; };
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> volume = f.New;
    const uint64_t record = records[next() % records.size()];
    for (int i = 0; i < 4; ++i) volume[record + (next() >> 8) % 256] = static_cast<uint8_t>(next() >> 16);
    try {
      const auto copies = TShadowCopies::Open(std::make_shared<TMemoryStream>(volume, "vol"), "vol");
      for (uint32_t n = 1; n <= copies->Count(); ++n) {
        const auto store = copies->Store(n, "vol shadow copy");
        std::vector<uint8_t> block(kVssBlock);
        for (uint64_t b = 0; b < kBlocks; ++b) store->ReadAt(b * kVssBlock, block.data(), block.size());
      }
    } catch (const EImageError& e) {
      EXPECT_EQ(std::string(e.what()).rfind("vol", 0), 0u) << e.what();
    }
  }
}

} // namespace
} // namespace qvx
