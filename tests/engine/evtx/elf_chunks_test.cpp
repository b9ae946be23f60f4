#include "engine/evtx/elf_chunks.h"
#include "engine/evtx/evtx_chunk.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <cstring>

namespace qvx {
namespace {

using namespace qvx::test;

struct TCarveRun {
  std::vector<uint64_t> Positions;
  std::vector<uint64_t> FirstIds;
  int Ticks = 0; // buffers that held no further chunk
};

TCarveRun Carve(const std::string& APath) {
  TElfChnunks carver;
  EXPECT_TRUE(carver.OpenFile(APath));
  TCarveRun run;
  for (;;) {
    TCarvedChunk c = carver.GetNextChunk();
    if (c.Result == TCarveResult::crEnd) break;
    if (c.Result == TCarveResult::crNoneInBlock) {
      ++run.Ticks;
      continue;
    }
    run.Positions.push_back(c.Position);
    TEvtxChunk chunk(c.Data);
    run.FirstIds.push_back(chunk.NumFirstFile());
  }
  EXPECT_EQ(carver.CurrentBlock(), carver.NumOfBlocks());
  return run;
}

TEST(ElfChunkCarver, FindsChunksAtOddOffsetsAndAcrossBufferBoundariesOnce) {
  TSampleDiskImage image = MakeSampleDiskImage();
  TCarveRun run = Carve(WriteTempFile("image.bin", image.FBytes));
  std::vector<uint64_t> expected(image.FChunkOffsets.begin(), image.FChunkOffsets.end());
  EXPECT_EQ(run.Positions, expected);
  EXPECT_EQ(run.FirstIds, image.FChunkFirstIds);
}

TEST(ElfChunkCarver, EmptyBuffersTickOncePerBuffer) {
  TDiskImage image(9 * kMiB);
  auto chunk = MakeChunk(1, 3);
  image.Place(9 * kMiB - kEvtxChunkSize, chunk); // ends exactly at the end of the data
  TCarveRun run = Carve(WriteTempFile("late.bin", image.Bytes()));
  ASSERT_EQ(run.Positions.size(), 1u);
  EXPECT_EQ(run.Positions[0], 9 * kMiB - kEvtxChunkSize);
  EXPECT_GE(run.Ticks, 2); // the first two buffers held no chunk
}

// A buffer is read and searched a piece at a time: a signature split between two pieces,
// a chunk whose header is in one piece and its end in the next, one that ends exactly
// where a piece ends, and a fake signature whose header size lies in the next piece are
// all handled as if the buffer had been read at once.
TEST(ElfChunkCarver, ChunksAcrossReadPiecesAreFoundOnce) {
  constexpr size_t kPiece = TElfChnunks::kReadPiece;
  TDiskImage image(6 * kPiece, 11);
  const std::vector<size_t> offsets = {kPiece - 3, 2 * kPiece - 1000, 3 * kPiece - kEvtxChunkSize,
                                       5 * kPiece - kEvtxChunkSize + 1};
  image.PlaceFakeChunkSignature(4 * kPiece - 20);
  for (size_t i = 0; i < offsets.size(); ++i) image.Place(offsets[i], MakeChunk(100 * (i + 1), 2));
  TCarveRun run = Carve(WriteTempFile("pieces.bin", image.Bytes()));
  EXPECT_EQ(run.Positions, std::vector<uint64_t>(offsets.begin(), offsets.end()));
  EXPECT_EQ(run.FirstIds, (std::vector<uint64_t>{100, 200, 300, 400}));
}

TEST(ElfChunkCarver, SignatureWithWrongHeaderSizeIsSkipped) {
  TDiskImage image(2 * kMiB, 7);
  image.PlaceFakeChunkSignature(1000);
  image.Place(5001, MakeChunk(50, 2));
  TCarveRun run = Carve(WriteTempFile("fake.bin", image.Bytes()));
  ASSERT_EQ(run.Positions.size(), 1u);
  EXPECT_EQ(run.Positions[0], 5001u);
  EXPECT_EQ(run.FirstIds[0], 50u);
}

TEST(ElfChunkCarver, DataShorterThanAChunkHoldsNone) {
  std::vector<uint8_t> small(1000, 0);
  std::memcpy(small.data(), "ElfChnk", 8);
  TCarveRun run = Carve(WriteTempFile("small.bin", small));
  EXPECT_TRUE(run.Positions.empty());
}

TEST(ElfChunkCarver, MissingSourceRaisesWithThePath) {
  TElfChnunks carver;
  try {
    carver.OpenFile("/nonexistent/quorvex/image.bin");
    FAIL() << "no exception";
  } catch (const std::exception& e) {
    EXPECT_NE(std::string(e.what()).find("/nonexistent/quorvex/image.bin"), std::string::npos);
  }
  EXPECT_FALSE(carver.Active());
}

} // namespace
} // namespace qvx
