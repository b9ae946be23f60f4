#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/evtx_file.h"
#include "support/evtx_fixtures.h"

#include "platform/raw_file.h"

#include <gtest/gtest.h>

#include <mutex>
#include <stdexcept>

namespace qvx {
namespace {

using namespace qvx::test;

// Renders every chunk of AFile with AThreads threads; the concatenated XML and issue count.
std::pair<std::string, size_t> RenderAll(const std::vector<uint8_t>& AFile, unsigned AThreads) {
  size_t chunks = (AFile.size() - 4096) / 65536;
  size_t next = 0;
  std::string xml;
  size_t issues = 0;
  TChunkReader::Run(
      [&](TChunkJob& AJob) {
        if (next == chunks) return false;
        AJob.Position = ChunkFileOffset(next);
        AJob.Bytes.assign(AFile.begin() + static_cast<ptrdiff_t>(AJob.Position),
                          AFile.begin() + static_cast<ptrdiff_t>(AJob.Position + 65536));
        ++next;
        return true;
      },
      [&](TChunkResult& AResult) {
        xml += AResult.Xml;
        issues += AResult.Issues.size();
      },
      AThreads);
  return {xml, issues};
}

TEST(ChunkReader, OutputDoesNotDependOnTheNumberOfThreads) {
  auto file = MakeEvtxFile(40, 7);
  CorruptRecordSizeCopy(file, 13, 2);
  auto one = RenderAll(file, 1);
  for (unsigned threads : {2u, 3u, 8u}) {
    auto many = RenderAll(file, threads);
    EXPECT_EQ(many.first, one.first) << threads;
    EXPECT_EQ(many.second, one.second) << threads;
  }
  EXPECT_EQ(one.second, 1u);
}

TEST(ChunkReader, ReportsWhereTheRecordWalkStopped) {
  auto file = MakeEvtxFile(1, 5);
  CorruptRecordMagic(file, 0, 2);
  TChunkJob job;
  job.Bytes.assign(file.begin() + 4096, file.end());
  TChunkResult result;
  TChunkReader::RenderChunk(job, result);
  EXPECT_EQ(result.Records, 2u);
  ASSERT_EQ(result.Issues.size(), 1u);
  EXPECT_EQ(result.Issues[0].Message, "record walk stopped: bad record magic");
  EXPECT_EQ(result.Issues[0].Offset, RecordFileOffset(file, 0, 2) - 4096);
}

TEST(ChunkReader, ChecksumsAreComparedOnlyWhenAsked) {
  auto file = MakeEvtxFile(1, 3);
  BreakChunkDataCrc(file, 0);
  TChunkJob job;
  job.Bytes.assign(file.begin() + 4096, file.end());
  TChunkResult result;
  TChunkReader::RenderChunk(job, result);
  EXPECT_EQ(result.DataCrcOk, -1);
  job.CheckCrc = true;
  TChunkReader::RenderChunk(job, result);
  EXPECT_EQ(result.HeaderCrcOk, 1);
  EXPECT_EQ(result.DataCrcOk, 0);
  EXPECT_EQ(result.Records, 3u); // a checksum never stops reading
}

TEST(ChunkReader, ControlCharactersInValuesBecomeSpaces) {
  std::string text = "a\x01" "b\tc\r\n\x0B\x1F";
  ReplaceControlCharacters(text);
  EXPECT_EQ(text, "a b\tc\r\n  ");
}

// The replacement goes 32 bytes at a time where the processor allows: every byte value
// at every position of texts around that size, with the plain loop as the reference.
TEST(ChunkReader, ControlCharactersReplacedAtEveryPosition) {
  for (size_t length : {1u, 31u, 32u, 33u, 63u, 64u, 65u, 100u}) {
    for (size_t at = 0; at < length; ++at) {
      for (int byte = 0; byte < 256; byte += 3) {
        std::string text(length, 'x');
        text[at] = static_cast<char>(byte);
        const bool bad = byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
        std::string expected = text;
        if (bad) expected[at] = ' ';
        ReplaceControlCharacters(text);
        ASSERT_EQ(text, expected) << "byte " << byte << " at " << at << " of " << length;
      }
    }
  }
}

// A finisher runs on the thread that rendered each chunk, before the consumer sees it,
// and the consumer still gets the results in order.
TEST(ChunkReader, FinisherRunsBeforeTheConsumerInOrder) {
  auto file = MakeEvtxFile(30, 5);
  for (unsigned threads : {1u, 2u, 4u}) {
    size_t next = 0;
    std::vector<uint64_t> seen;
    std::vector<unsigned> workers;
    std::mutex lock;
    TChunkReader::Run(
        [&](TChunkJob& AJob) {
          if (next == 30) return false;
          AJob.Position = ChunkFileOffset(next++);
          AJob.Bytes.assign(file.begin() + static_cast<ptrdiff_t>(AJob.Position),
                            file.begin() + static_cast<ptrdiff_t>(AJob.Position + 65536));
          return true;
        },
        [&](TChunkResult& AResult) {
          ASSERT_EQ(AResult.Notes.size(), 1u);
          EXPECT_EQ(AResult.Notes[0], std::to_string(AResult.Sequence) + ":" + std::to_string(AResult.Records));
          seen.push_back(AResult.Sequence);
        },
        threads,
        [&](TChunkResult& AResult, unsigned AWorker) {
          AResult.Notes.assign(1, std::to_string(AResult.Sequence) + ":" + std::to_string(AResult.Records));
          std::lock_guard<std::mutex> guard(lock);
          workers.push_back(AWorker);
        });
    ASSERT_EQ(seen.size(), 30u) << threads;
    for (size_t i = 0; i < seen.size(); ++i) EXPECT_EQ(seen[i], i);
    for (unsigned worker : workers) EXPECT_LT(worker, threads);
  }
}

TEST(ChunkReader, ProducerFailureStopsTheRunAndIsRaisedAgain) {
  int calls = 0;
  auto producer = [&](TChunkJob& AJob) -> bool {
    if (++calls == 3) throw std::runtime_error("disk gone");
    AJob.Bytes.assign(65536, 0);
    return true;
  };
  for (unsigned threads : {1u, 2u}) {
    calls = 0;
    EXPECT_THROW(TChunkReader::Run(producer, [](TChunkResult&) {}, threads), std::runtime_error);
  }
}

} // namespace
} // namespace qvx
