#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/evtx_file.h"
#include "support/evtx_fixtures.h"
#include "support/partition_writer.h"

#include "platform/raw_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>
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

// Every chunk named by its place in AStream (each thread reads it into a buffer of its
// own, used again from chunk to chunk); the XML, issue texts and cut-short flags in order.
std::string RenderNamed(const TReadStream& AStream, size_t AChunks, unsigned AThreads) {
  size_t next = 0;
  std::string out;
  TChunkReader::Run(
      [&](TChunkJob& AJob) {
        if (next == AChunks) return false;
        AJob.Position = ChunkFileOffset(next++);
        AJob.ReadFrom = &AStream;
        return true;
      },
      [&](TChunkResult& AResult) {
        out += "chunk " + std::to_string(AResult.Position) + (AResult.Truncated ? " cut short\n" : "\n");
        out += AResult.Xml;
        for (const TChunkIssue& issue : AResult.Issues) out += "issue " + issue.Message + "\n";
      },
      AThreads);
  return out;
}

// Chunks read by the rendering threads, damaged ones and one cut short by the end of the
// data among them, give the same output whatever the number of threads.
TEST(ChunkReader, ChunksReadByTheThreadsGiveTheSameOutput) {
  auto file = MakeEvtxFile(30, 6);
  CorruptRecordSizeCopy(file, 4, 2);
  CorruptRecordMagic(file, 11, 3);
  // The last chunk keeps its header and first records only.
  file.resize(ChunkFileOffset(29) + 2000);
  test::TMemoryStream stream(file);
  const std::string one = RenderNamed(stream, 30, 1);
  EXPECT_NE(one.find(" cut short\n"), std::string::npos);
  EXPECT_NE(one.find("issue record walk stopped: bad record magic"), std::string::npos);
  for (unsigned threads : {2u, 3u}) EXPECT_EQ(RenderNamed(stream, 30, threads), one) << threads;
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


// Renders AChunks chunks of AFile with AThreads threads, the finisher calling AOnRender
// for each first; the sequence numbers the consumer received, in order, and the most
// chunks handed out but not yet consumed at any time.
struct TRunLog {
  std::vector<uint64_t> Seen;
  size_t MaxInFlight = 0;
  bool Raised = false;
};
TRunLog RunLogged(const std::vector<uint8_t>& AFile, size_t AChunks, unsigned AThreads,
                  const std::function<void(uint64_t)>& AOnRender,
                  const std::function<void(uint64_t)>& AOnConsume = {}) {
  TRunLog log;
  size_t next = 0;
  std::atomic<size_t> inFlight{0};
  try {
    TChunkReader::Run(
        [&](TChunkJob& AJob) {
          if (next == AChunks) return false;
          AJob.Position = ChunkFileOffset(next++);
          AJob.Bytes.assign(AFile.begin() + static_cast<ptrdiff_t>(AJob.Position),
                            AFile.begin() + static_cast<ptrdiff_t>(AJob.Position + 65536));
          log.MaxInFlight = std::max(log.MaxInFlight, ++inFlight);
          return true;
        },
        [&](TChunkResult& AResult) {
          if (AOnConsume) AOnConsume(AResult.Sequence);
          // The finisher's note travels with the result it was made for.
          EXPECT_EQ(AResult.Notes.size(), 1u);
          if (!AResult.Notes.empty()) {
            EXPECT_EQ(AResult.Notes[0], std::to_string(AResult.Position));
          }
          log.Seen.push_back(AResult.Sequence);
          --inFlight;
        },
        AThreads,
        [&](TChunkResult& AResult, unsigned) {
          AResult.Notes.assign(1, std::to_string(AResult.Position));
          AOnRender(AResult.Sequence);
        });
  } catch (const std::runtime_error&) {
    log.Raised = true;
  }
  return log;
}

// One thread stalls on a chunk: the others render ahead of it into the batches that are
// idle, but never more than the window, and the consumer still gets every chunk in order.
TEST(ChunkReader, StalledThreadLetsOthersRunAheadWithinTheWindow) {
  auto file = MakeEvtxFile(60, 3);
  for (unsigned threads : {2u, 3u}) {
    auto log = RunLogged(file, 60, threads, [](uint64_t ASequence) {
      if (ASequence == 1 || ASequence == 30) std::this_thread::sleep_for(std::chrono::milliseconds(30));
    });
    ASSERT_EQ(log.Seen.size(), 60u) << threads;
    for (size_t i = 0; i < log.Seen.size(); ++i) EXPECT_EQ(log.Seen[i], i) << threads;
    EXPECT_LE(log.MaxInFlight, 8u * threads) << threads;
    // While one thread slept the others filled the window, borrowing its idle batches.
    EXPECT_EQ(log.MaxInFlight, 8u * threads) << threads;
  }
}

// A source that ends before the chunks do (a chunk list cut short): every thread stops,
// and the consumer got exactly the chunks handed out, in order.
TEST(ChunkReader, SourceEndingEarlyStopsEveryThread) {
  auto file = MakeEvtxFile(40, 2);
  for (unsigned threads : {2u, 3u, 8u}) {
    for (size_t chunks : {size_t{0}, size_t{1}, size_t{7}}) {
      auto log = RunLogged(file, chunks, threads, [](uint64_t) {});
      EXPECT_FALSE(log.Raised);
      ASSERT_EQ(log.Seen.size(), chunks) << threads;
      for (size_t i = 0; i < chunks; ++i) EXPECT_EQ(log.Seen[i], i) << threads;
    }
  }
}

// A failing render or consumer stops the run with several threads: the error is raised
// again, and the consumer saw only chunks before the failing one, in order.
TEST(ChunkReader, FailureWithSeveralThreadsStopsInOrder) {
  auto file = MakeEvtxFile(40, 2);
  for (unsigned threads : {2u, 3u}) {
    auto render = RunLogged(file, 40, threads, [](uint64_t ASequence) {
      if (ASequence == 17) throw std::runtime_error("render failed");
    });
    EXPECT_TRUE(render.Raised) << threads;
    EXPECT_LT(render.Seen.size(), 18u) << threads;
    for (size_t i = 0; i < render.Seen.size(); ++i) EXPECT_EQ(render.Seen[i], i) << threads;

    auto consume = RunLogged(file, 40, threads, [](uint64_t) {}, [](uint64_t ASequence) {
      if (ASequence == 9) throw std::runtime_error("write failed");
    });
    EXPECT_TRUE(consume.Raised) << threads;
    ASSERT_EQ(consume.Seen.size(), 9u) << threads;
    for (size_t i = 0; i < consume.Seen.size(); ++i) EXPECT_EQ(consume.Seen[i], i) << threads;
  }
}

} // namespace
} // namespace qvx
