#include "engine/evtx/evtx_file.h"
#include "support/evtx_fixtures.h"
#include "support/partition_writer.h"

#include "platform/raw_file.h"

#include <gtest/gtest.h>

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

// A log copied while it grew names more chunks than the copy holds: the copy's chunks are
// read, the last one as far as it goes; a file missing a chunk before its end is not
// merely cut short.
TEST(EvtxFileChunks, FileEndingBeforeTheChunksItsHeaderNamesIsCutShort) {
  auto bytes = MakeEvtxFile(10, 3);
  SetHeaderChunkCount(bytes, 12);
  bytes.resize(4096 + 2 * 65536 + 20000);
  TOpenFile cut(bytes);
  EXPECT_TRUE(cut.File.CutShort());
  EXPECT_EQ(cut.File.Count(), 3);

  bytes.resize(4096 + 2 * 65536 + 300);
  TOpenFile header(bytes);
  EXPECT_TRUE(header.File.CutShort());
  EXPECT_EQ(header.File.Count(), 3);

  bytes.resize(4096 + 2 * 65536);
  bytes[4096 + 65536] = 'X'; // the second chunk's signature
  TOpenFile gap(bytes);
  EXPECT_FALSE(gap.File.CutShort());
  EXPECT_EQ(gap.File.Count(), -1);
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

// The chunk list of AFile built with AThreads threads: count, chunks found, and each
// found chunk's place and first record number, in list order.
std::string ChunkList(const std::vector<uint8_t>& AFile, unsigned AThreads) {
  TMemoryStream stream(AFile);
  TEvtxFile file(&stream);
  file.SetHeaderThreads(AThreads);
  std::string out = std::to_string(file.Count()) + "/" + std::to_string(file.ChunksFound()) + ":";
  for (int i = 0; i < file.ChunksFound(); ++i)
    out += " " + std::to_string(file.GetFoundChunk(i)->Start) + "@" +
           std::to_string(file.GetFoundChunk(i)->NumFirstFile());
  return out;
}

// Headers read by two threads give the list one thread builds: a valid file, a broken
// chunk in either half (the walk stops there), and headers naming fewer or more chunks
// than follow them.
TEST(EvtxFileChunks, HeadersReadByTwoThreadsGiveTheSameList) {
  const size_t kChunks = 200;
  auto valid = MakeOutOfOrderFile(kChunks, 1);
  std::vector<std::vector<uint8_t>> files{valid};
  for (size_t broken : {size_t{30}, size_t{100}, size_t{150}, kChunks - 1}) {
    auto bytes = valid;
    bytes[ChunkFileOffset(broken)] = 'X'; // no "ElfChnk" signature
    files.push_back(bytes);
  }
  auto fewer = valid;
  SetHeaderChunkCount(fewer, kChunks - 50);
  files.push_back(fewer);
  auto more = valid;
  SetHeaderChunkCount(more, kChunks + 50);
  files.push_back(more);
  auto cut = valid;
  TruncateAt(cut, ChunkFileOffset(kChunks - 1) + 1000);
  files.push_back(cut);
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string one = ChunkList(files[i], 1);
    EXPECT_EQ(ChunkList(files[i], 2), one) << i;
  }
  EXPECT_EQ(ChunkList(files[0], 2).substr(0, 8), "200/200:");
  EXPECT_EQ(ChunkList(files[2], 2).substr(0, 8), "-1/100: ");
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

} // namespace
} // namespace qvx
