#include "engine/evtx/evtx_chunk.h"
#include "engine/evtx/evtx_layout.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qvx {
namespace {

using namespace qvx::test;

TEST(EvtxChunkWalk, VisitsEveryRecordUpToTheFreeSpaceOffset) {
  TEvtxChunk chunk(MakeChunk(100, 12));
  ASSERT_EQ(chunk.Count(), 12);
  for (int i = 0; i < 12; ++i) {
    TEvtxEvent* e = chunk.GetEvent(i);
    ASSERT_TRUE(e->Valid());
    EXPECT_EQ(e->RecordId(), 100u + static_cast<uint64_t>(i));
  }
  EXPECT_EQ(chunk.GetEvent(12), nullptr);
  EXPECT_EQ(chunk.GetEvent(-1), nullptr);
  EXPECT_EQ(chunk.NumFirstFile(), 100u);
  EXPECT_EQ(chunk.NumLastFile(), 111u);
}

TEST(EvtxChunkWalk, EmptyChunkHoldsOneInvalidEventAndNoXml) {
  TEvtxChunk chunk(MakeEmptyChunk());
  ASSERT_EQ(chunk.Count(), 1);
  EXPECT_FALSE(chunk.GetEvent(0)->Valid());
  EXPECT_EQ(chunk.GetEvent(0)->Length(), 0u);
  EXPECT_EQ(chunk.asXML(), "");
}

TEST(EvtxChunkWalk, MismatchedTrailingSizeEndsTheWalk) {
  auto file = MakeEvtxFile(1, 6);
  CorruptRecordSizeCopy(file, 0, 3);
  std::vector<uint8_t> bytes(file.begin() + 4096, file.begin() + 4096 + 65536);
  TEvtxChunk chunk(bytes);
  ASSERT_EQ(chunk.Count(), 4); // three good records and the bad one that ends the walk
  EXPECT_TRUE(chunk.GetEvent(2)->Valid());
  EXPECT_FALSE(chunk.GetEvent(3)->Valid());
  EXPECT_STREQ(chunk.GetEvent(3)->Defect(), "trailing size copy differs");
  // The records before the damage still render.
  EXPECT_NE(chunk.asXML().find("<EventRecordID>3</EventRecordID>"), std::string::npos);
}

TEST(EvtxChunkWalk, BadRecordMagicEndsTheWalk) {
  auto file = MakeEvtxFile(1, 5);
  CorruptRecordMagic(file, 0, 1);
  std::vector<uint8_t> bytes(file.begin() + 4096, file.begin() + 4096 + 65536);
  TEvtxChunk chunk(bytes);
  ASSERT_EQ(chunk.Count(), 2);
  EXPECT_STREQ(chunk.GetEvent(1)->Defect(), "bad record magic");
}

TEST(EvtxChunkWalk, RecordSizeRunningPastTheChunkIsNotValid) {
  auto file = MakeEvtxFile(1, 3);
  SetRecordSize(file, 0, 2, 0x10000);
  std::vector<uint8_t> bytes(file.begin() + 4096, file.begin() + 4096 + 65536);
  TEvtxChunk chunk(bytes);
  ASSERT_EQ(chunk.Count(), 3);
  EXPECT_FALSE(chunk.GetEvent(2)->Valid());
  EXPECT_STREQ(chunk.GetEvent(2)->Defect(), "record size runs past the chunk");
  // Absurdly small sizes are refused too: the walk cannot loop on them.
  SetRecordSize(file, 0, 2, 4);
  std::vector<uint8_t> small(file.begin() + 4096, file.begin() + 4096 + 65536);
  TEvtxChunk chunk2(small);
  ASSERT_EQ(chunk2.Count(), 3);
  EXPECT_FALSE(chunk2.GetEvent(2)->Valid());
}

TEST(EvtxChunkWalk, RecordsAfterTheFreeSpaceOffsetOfADirtyChunkAreIgnored) {
  TEvtxChunk chunk(MakeDirtyChunk(1, 10, 4));
  EXPECT_EQ(chunk.Count(), 6);
  EXPECT_EQ(chunk.asXML().find("<EventRecordID>7</EventRecordID>"), std::string::npos);
}

TEST(EvtxChunkWalk, WrittenTimeKeepsTheFractionInHundredMicroseconds) {
  TEvtxChunk chunk(MakeChunk(1, 1));
  // Sample event 1 is written at 2024-03-11 09:00:01 UTC.
  EXPECT_EQ(chunk.GetEvent(0)->TimeCreated(), "2024-03-11T09:00:01.0000000Z");
}

TEST(EvtxChunkMemory, OnlyExactlySizedBuffersKeepTheirBytes) {
  std::vector<uint8_t> shortBuffer(1000, 0);
  TEvtxChunk chunk(shortBuffer);
  EXPECT_TRUE(chunk.Valid()); // a memory chunk is valid at once, without a magic check
  EXPECT_EQ(chunk.Data(), nullptr);
  EXPECT_EQ(chunk.Count(), 1);
  EXPECT_FALSE(chunk.GetEvent(0)->Valid());
  TEvtxChunk none(static_cast<const uint8_t*>(nullptr));
  EXPECT_EQ(none.Data(), nullptr);
  EXPECT_EQ(none.asXML(), "");
}

TEST(EvtxChunkMemory, GarbageNeverCrashesAndRendersNothingOrSomething) {
  std::vector<uint8_t> noise(65536);
  uint32_t x = 12345;
  for (auto& b : noise) {
    x = x * 1103515245 + 12345;
    b = static_cast<uint8_t>(x >> 16);
  }
  // A plausible record header over garbage binary XML.
  noise[48] = 0x00;
  noise[49] = 0x80; // free space offset 0x8000
  noise[50] = noise[51] = 0;
  uint32_t size = 2000;
  std::memcpy(noise.data() + 512, "\x2a\x2a\x00\x00", 4);
  std::memcpy(noise.data() + 516, &size, 4);
  std::memcpy(noise.data() + 512 + size - 4, &size, 4);
  TEvtxChunk chunk(noise);
  std::string xml = chunk.asXML();
  EXPECT_EQ(chunk.RenderIssues().size() + (xml.empty() ? 0 : 1), 1u);
}

TEST(EvtxChunkHexDump, LinesCarryTheChunkOffset) {
  TEvtxChunk chunk(MakeChunk(1, 1));
  EXPECT_EQ(chunk.HexDump(0, 8), "00000000  45 6C 66 43 68 6E 6B 00\n");
}

} // namespace
} // namespace qvx
