#include "engine/evtx/evtx_file.h"
#include "support/evtx_fixtures.h"

#include "platform/raw_file.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace qvx {
namespace {

using namespace qvx::test;

struct TOpenFile {
  explicit TOpenFile(const std::vector<uint8_t>& ABytes, const char* AName = "log.evtx")
      : Raw(TRawFile::Open(WriteTempFile(AName, ABytes))), File(&Raw) {}
  TRawFile Raw;
  TEvtxFile File;
};

TEST(EvtxFileHeader, VersionThreeOneAndThreeTwoAreValidThreeZeroIsNot) {
  for (uint16_t minor : {0, 1, 2}) {
    auto bytes = MakeEvtxFile(2, 3);
    SetHeaderVersion(bytes, 3, minor);
    TOpenFile f(bytes);
    EXPECT_EQ(f.File.Valid(), minor >= 1) << minor;
    EXPECT_EQ(f.File.Count(), minor >= 1 ? 2 : -1) << minor;
  }
  auto bytes = MakeEvtxFile(1, 1);
  SetHeaderVersion(bytes, 2, 1);
  TOpenFile f(bytes);
  EXPECT_FALSE(f.File.HeaderValid());
}

TEST(EvtxFileHeader, FieldsAreReadAsStored) {
  auto bytes = MakeEvtxFile(3, 4);
  SetHeaderFlags(bytes, 1);
  TOpenFile f(bytes);
  ASSERT_TRUE(f.File.Valid());
  EXPECT_EQ(f.File.OldestChunk(), 0u);
  EXPECT_EQ(f.File.CurrentChunk(), 2u);
  EXPECT_EQ(f.File.NextRecord(), 13u);
  EXPECT_EQ(f.File.ChunkCount(), 3u);
  EXPECT_EQ(f.File.Flags(), 1u);
  EXPECT_EQ(f.File.HeaderLen(), 4096u);
}

TEST(EvtxFileHeader, NotAnEvtxFileIsNotValid) {
  std::vector<uint8_t> text(5000, 'x');
  TOpenFile f(text);
  EXPECT_FALSE(f.File.Valid());
  EXPECT_EQ(f.File.Count(), -1);
  EXPECT_EQ(f.File.GetChunk(0), nullptr);
  std::vector<uint8_t> tiny = {'E', 'l', 'f'};
  TOpenFile g(tiny, "tiny.evtx");
  EXPECT_FALSE(g.File.Valid());
}

TEST(EvtxFileChunks, HeaderNamingFewerChunksThanFollowMakesTheFileNotValid) {
  auto bytes = MakeEvtxFile(10, 2);
  SetHeaderChunkCount(bytes, 9);
  TOpenFile f(bytes);
  EXPECT_EQ(f.File.Count(), -1);
  EXPECT_EQ(f.File.ChunksFound(), 10);
  EXPECT_TRUE(f.File.HeaderValid());
  EXPECT_EQ(f.File.GetChunk(0), nullptr);
  EXPECT_NE(f.File.GetFoundChunk(0), nullptr);
}

TEST(EvtxFileChunks, ListedNewestFirstWhateverTheirOrderInTheFile) {
  TOpenFile f(MakeFileInChunkOrder({2, 3, 0, 1}, 5));
  ASSERT_EQ(f.File.Count(), 4);
  uint64_t previous = UINT64_MAX;
  for (int i = 0; i < 4; ++i) {
    uint64_t first = f.File.GetChunk(i)->NumFirstFile();
    EXPECT_LT(first, previous);
    previous = first;
  }
  EXPECT_EQ(f.File.GetChunk(0)->NumFirstFile(), 16u);
  EXPECT_EQ(f.File.GetChunk(4), nullptr);
}

TEST(EvtxFileChunks, FileCutInsideItsLastChunkStillListsIt) {
  auto bytes = MakeEvtxFile(3, 4);
  TruncateAt(bytes, ChunkFileOffset(2) + 1000);
  TOpenFile cut(bytes);
  EXPECT_EQ(cut.File.Count(), 3);
  auto shorter = MakeEvtxFile(3, 4);
  TruncateAt(shorter, ChunkFileOffset(2) + 100); // not even the chunk header
  SetHeaderChunkCount(shorter, 2);
  TOpenFile gone(shorter, "gone.evtx");
  EXPECT_EQ(gone.File.Count(), 2);
}

TEST(EvtxFileChunks, ExportHandsOutEveryChunkThenReadsAgain) {
  TOpenFile f(MakeEvtxFile(3, 2));
  ASSERT_EQ(f.File.Count(), 3);
  std::vector<std::string> list;
  f.File.Export(list);
  EXPECT_EQ(list.size(), 3u);
  // Header-only chunks carry no records; after the reset the file reads again.
  EXPECT_EQ(f.File.Count(), 3);
}

// The chunk list of a large file (300 chunks) with its headers read on two threads:
// the same chunks in the same order as one thread finds, wherever the walk stops (a
// damaged chunk at either end or side of a block of 32 the threads take, two damaged
// chunks, a header cut short by the end of the file) and the same validity.
TEST(EvtxFileChunks, HeadersReadOnTwoThreadsGiveTheSameList) {
  const auto intact = MakeEvtxFile(300, 1);
  struct TCase {
    const char* Name;
    std::vector<uint8_t> Bytes;
    int Found;
  };
  std::vector<TCase> cases;
  cases.push_back({"intact", intact, 300});
  for (size_t bad : {size_t{0}, size_t{10}, size_t{31}, size_t{32}, size_t{149}, size_t{150}, size_t{151}, size_t{299}}) {
    auto bytes = intact;
    bytes[ChunkFileOffset(bad)] = 'X'; // "XlfChnk"
    cases.push_back({"damaged", bytes, static_cast<int>(bad)});
  }
  {
    auto bytes = intact;
    bytes.resize(ChunkFileOffset(299) + 100); // the last header cut short
    cases.push_back({"cut in a header", bytes, 299});
    bytes = intact;
    bytes.resize(ChunkFileOffset(250) + 128); // a header whole, its records gone
    cases.push_back({"cut after a header", bytes, 251});
    bytes = intact;
    bytes[ChunkFileOffset(20)] = 'X';
    bytes[ChunkFileOffset(200)] = 'X';
    cases.push_back({"damaged twice", bytes, 20});
  }
  for (const TCase& c : cases) {
    TOpenFile one(c.Bytes, "one.evtx");
    TOpenFile two(c.Bytes, "two.evtx");
    two.File.SetListThreads(2);
    ASSERT_EQ(one.File.ChunksFound(), c.Found) << c.Name;
    ASSERT_EQ(two.File.ChunksFound(), c.Found) << c.Name;
    EXPECT_EQ(two.File.Count(), one.File.Count()) << c.Name;
    EXPECT_EQ(two.File.Count(), c.Found == 300 ? 300 : -1) << c.Name;
    for (int i = 0; i < c.Found; ++i) {
      EXPECT_EQ(two.File.GetFoundChunk(i)->Start, one.File.GetFoundChunk(i)->Start) << c.Name << " " << i;
      EXPECT_EQ(two.File.GetFoundChunk(i)->NumFirstFile(), one.File.GetFoundChunk(i)->NumFirstFile()) << c.Name;
    }
  }
}

// A file whose first chunks are slow to read (1 ms a header): the thread that takes
// them finds the damaged chunk among them long after the other thread read the chunks
// that follow it. Those are not listed.
TEST(EvtxFileChunks, ChunksReadAheadOfADamagedOneAreNotListed) {
  class TSlowStart : public TReadStream {
  public:
    explicit TSlowStart(const TReadStream& ABase) : FBase(ABase) {}
    size_t ReadAt(uint64_t AOffset, void* ABuffer, size_t ALength) const override {
      if (AOffset >= ChunkFileOffset(0) && AOffset < ChunkFileOffset(32))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      return FBase.ReadAt(AOffset, ABuffer, ALength);
    }
    uint64_t Size() const override { return FBase.Size(); }
    const std::string& Path() const override { return FBase.Path(); }

  private:
    const TReadStream& FBase;
  };
  auto bytes = MakeEvtxFile(300, 1);
  bytes[ChunkFileOffset(20)] = 'X';
  TRawFile raw = TRawFile::Open(WriteTempFile("slow.evtx", bytes));
  TSlowStart slow(raw);
  TEvtxFile file(&slow);
  file.SetListThreads(2);
  EXPECT_EQ(file.ChunksFound(), 20);
  EXPECT_EQ(file.Count(), -1);
}

} // namespace
} // namespace qvx
