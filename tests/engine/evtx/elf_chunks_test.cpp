#include "engine/evtx/elf_chunks.h"
#include "engine/evtx/evtx_chunk.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace qvx {
namespace {

using namespace qvx::test;

struct TCarveRun {
  std::vector<uint64_t> Positions;
  std::vector<uint64_t> FirstIds;
  int Ticks = 0; // buffers that held no further chunk
};

// Everything the carver hands out, in order: a chunk as "C<position>:<first id>", a
// buffer without a further chunk as "+", each with the bytes read so far.
std::vector<std::string> Trace(TElfChnunks& ACarver) {
  std::vector<std::string> trace;
  for (;;) {
    TCarvedChunk c = ACarver.GetNextChunk();
    if (c.Result == TCarveResult::crEnd) break;
    std::string line = c.Result == TCarveResult::crNoneInBlock
                           ? std::string("+")
                           : "C" + std::to_string(c.Position) + ":" + std::to_string(TEvtxChunk(c.Data).NumFirstFile());
    trace.push_back(line + " @" + std::to_string(ACarver.BytesRead()));
  }
  return trace;
}

std::vector<std::string> TraceFile(const std::string& APath, unsigned AThreads) {
  TElfChnunks carver;
  carver.SetSearchThreads(AThreads);
  EXPECT_TRUE(carver.OpenFile(APath));
  std::vector<std::string> trace = Trace(carver);
  EXPECT_EQ(carver.CurrentBlock(), carver.NumOfBlocks());
  return trace;
}

// Bytes in memory as a stream, which may claim more bytes than it holds and may fail
// every read that reaches AFailAt.
class TMemoryStream : public TReadStream {
public:
  TMemoryStream(const std::vector<uint8_t>& ABytes, uint64_t AClaimedSize, uint64_t AFailAt = UINT64_MAX)
      : FBytes(ABytes), FClaimedSize(AClaimedSize), FFailAt(AFailAt) {}
  size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
    if (AOffset + ALength > FFailAt) throw std::runtime_error(FName + ": read error at " + std::to_string(AOffset));
    if (AOffset >= FBytes.size()) return 0;
    const size_t n = std::min<size_t>(ALength, FBytes.size() - AOffset);
    std::memcpy(ABuffer, FBytes.data() + AOffset, n);
    return n;
  }
  uint64_t Size() const override { return FClaimedSize; }
  const std::string& Path() const override { return FName; }

private:
  const std::vector<uint8_t>& FBytes;
  uint64_t FClaimedSize;
  uint64_t FFailAt;
  std::string FName = "memory";
};

std::vector<std::string> TraceStream(const std::vector<uint8_t>& ABytes, uint64_t AClaimedSize, uint64_t AFailAt,
                                     unsigned AThreads) {
  TElfChnunks carver;
  carver.SetSearchThreads(AThreads);
  EXPECT_TRUE(carver.OpenStream(std::make_unique<TMemoryStream>(ABytes, AClaimedSize, AFailAt), TElfSourceType::stVolume));
  return Trace(carver);
}

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

// Buffers searched by different threads meet every 4 MB - 64 KB. Around the meeting
// points: a chunk that is the last start of one buffer, a second one that starts inside
// it (skipped there, found by the next buffer, which starts afresh), one crossing a
// buffer's end, one at a buffer's first byte, and one ending exactly at the end of the
// data. The threads hand out what one thread does: the same chunks, ticks and byte counts.
// Buffers 0, 4 and 6 hold no chunk start, so that the threads search ahead after them
// (after a buffer with chunks the caller searches the next one itself, as one thread).
TEST(ElfChunkCarver, SearchThreadsMeetAtBufferBoundariesAsOneThreadDoes) {
  constexpr size_t kBuffer = TElfChnunks::kBlockSize;
  constexpr size_t kStep = kBuffer - TElfChnunks::kOverlap;
  const size_t size = 7 * kStep + kMiB + 12345;
  TDiskImage image(size, 5);
  const std::vector<size_t> offsets = {2 * kStep - 1,             // the last start of buffer 1
                                       2 * kStep + 5000,          // inside the one before: found by buffer 2
                                       2 * kStep + kBuffer - 100, // crosses buffer 2's end: found by buffer 3
                                       5 * kStep,                 // buffer 5's first byte
                                       6 * kStep - 3,             // crosses into buffer 6, found by buffer 5
                                       size - kEvtxChunkSize};    // in the last buffer, ends with the data
  for (size_t i = 0; i < offsets.size(); ++i) image.Place(offsets[i], MakeChunk(1000 * (i + 1), 2));
  const std::string path = WriteTempFile("threads.bin", image.Bytes());
  const std::vector<std::string> one = TraceFile(path, 0);
  std::vector<std::string> chunks;
  for (const std::string& line : one)
    if (line[0] == 'C') chunks.push_back(line.substr(1, line.find(':') - 1));
  std::vector<std::string> expected;
  for (size_t offset : offsets) expected.push_back(std::to_string(offset));
  EXPECT_EQ(chunks, expected);
  EXPECT_EQ(std::count_if(one.begin(), one.end(), [](const std::string& l) { return l[0] == '+'; }), 8);
  for (int round = 0; round < 5; ++round) // the threads' timing varies from run to run
    for (unsigned threads : {1u, 2u, 3u}) EXPECT_EQ(TraceFile(path, threads), one) << threads << " threads";
}

// Data shorter than its stream claims (a device that ends early) and a read error part
// way: the search ends at the same place, after the same chunks, whoever searched.
TEST(ElfChunkCarver, SearchThreadsStopWhereOneThreadStops) {
  constexpr size_t kStep = TElfChnunks::kBlockSize - TElfChnunks::kOverlap;
  TDiskImage image(4 * kStep + 3 * kMiB, 9);
  const std::vector<size_t> offsets = {kStep + 1, 2 * kStep + 2 * TElfChnunks::kReadPiece + 5, 3 * kStep + 7,
                                       4 * kStep + 2 * kMiB};
  for (size_t i = 0; i < offsets.size(); ++i) image.Place(offsets[i], MakeChunk(10 * (i + 1), 1));
  const std::vector<uint8_t>& bytes = image.Bytes();
  // Claims twice its size: the short read ends it.
  const std::vector<std::string> shortOne = TraceStream(bytes, 2 * bytes.size(), UINT64_MAX, 0);
  EXPECT_EQ(shortOne.size(), offsets.size() + 5);
  for (unsigned threads : {1u, 2u, 3u}) EXPECT_EQ(TraceStream(bytes, 2 * bytes.size(), UINT64_MAX, threads), shortOne);
  // Fails in the fourth piece of buffer 2: its chunk in the pieces before is still found,
  // and nothing after it.
  const uint64_t failAt = 2 * kStep + 4 * TElfChnunks::kReadPiece - 1;
  const std::vector<std::string> failedOne = TraceStream(bytes, bytes.size(), failAt, 0);
  ASSERT_EQ(failedOne.size(), 4u);
  EXPECT_EQ(failedOne[0].substr(0, 1), "+");
  EXPECT_EQ(failedOne[1].substr(0, failedOne[1].find(':')), "C" + std::to_string(offsets[0]));
  EXPECT_EQ(failedOne[3].substr(0, failedOne[3].find(':')), "C" + std::to_string(offsets[1]));
  for (unsigned threads : {1u, 2u, 3u}) EXPECT_EQ(TraceStream(bytes, bytes.size(), failAt, threads), failedOne);
}

// Chunk copies are held in a store of 64 places; chunks the threads find ahead while it is
// full are read again when handed out. Buffers 1 to 3, searched by the threads (buffer 0
// holds no chunk), hold 189 chunks between them: the same chunks come out. A source that
// fails those second reads ends the search there, after the chunks before.
TEST(ElfChunkCarver, ChunksFoundAheadBeyondTheStoreAreReadAgain) {
  constexpr size_t kStep = TElfChnunks::kBlockSize - TElfChnunks::kOverlap;
  TDiskImage image(5 * kStep, 3);
  const std::vector<uint8_t> chunk = MakeChunk(7, 1);
  for (size_t at = kStep; at + kEvtxChunkSize <= 4 * kStep; at += kEvtxChunkSize) image.Place(at, chunk);
  const std::vector<uint8_t>& bytes = image.Bytes();
  const std::vector<std::string> one = TraceStream(bytes, bytes.size(), UINT64_MAX, 0);
  ASSERT_EQ(std::count_if(one.begin(), one.end(), [](const std::string& l) { return l[0] == 'C'; }), 189);
  for (unsigned threads : {2u, 3u}) EXPECT_EQ(TraceStream(bytes, bytes.size(), UINT64_MAX, threads), one);
  // Fails every read of one chunk's size: only the second reads are.
  class TNoSecondReadStream : public TMemoryStream {
  public:
    using TMemoryStream::TMemoryStream;
    size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
      if (ALength == kEvtxChunkSize) throw std::runtime_error("memory: read error");
      return TMemoryStream::ReadAt(AOffset, ABuffer, ALength);
    }
  };
  TElfChnunks one2;
  one2.SetSearchThreads(0);
  ASSERT_TRUE(one2.OpenStream(std::make_unique<TNoSecondReadStream>(bytes, bytes.size()), TElfSourceType::stVolume));
  EXPECT_EQ(Trace(one2), one); // one thread never reads a chunk twice
  for (unsigned threads : {2u, 3u}) {
    TElfChnunks carver;
    carver.SetSearchThreads(threads);
    ASSERT_TRUE(
        carver.OpenStream(std::make_unique<TNoSecondReadStream>(bytes, bytes.size()), TElfSourceType::stVolume));
    const std::vector<std::string> cut = Trace(carver);
    ASSERT_LE(cut.size(), one.size());
    EXPECT_TRUE(std::equal(cut.begin(), cut.end(), one.begin())) << threads << " threads";
  }
}

} // namespace
} // namespace qvx
