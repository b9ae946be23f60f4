// Every real .evtx sample beside the repository decodes: each record renders (or its damage
// is known and asserted) and each chunk's XML is well-formed. Skips when the samples are absent.
#include "engine/evtx/chunk_reader.h"
#include "engine/evtx/elf_chunks.h"
#include "engine/evtx/evtx_file.h"
#include "platform/raw_file.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <cstring>
#include <map>

namespace qvx {
namespace {

// Real logs with damage of their own: the number of places where a chunk's record walk
// stops at a record that fails its checks.
const std::map<std::string, size_t> kKnownDamage = {
    {"2-vss_0-Microsoft-Windows-RemoteDesktopServices-RdpCoreTS%4Operational.evtx", 2},
    {"sample-with-zero-data-size-event.evtx", 1},
    {"sample_with_a_bad_chunk_magic.evtx", 3},
    {"Microsoft-Windows-HelloForBusiness%4Operational.evtx", 1},
};

struct TSampleResult {
  bool Carved = false;
  size_t Chunks = 0;
  size_t Records = 0;
  size_t WalkStops = 0;
  std::vector<std::string> RenderFailures;
  std::vector<std::string> BadXml;
};

TSampleResult ReadSample(const std::filesystem::path& APath) {
  TSampleResult out;
  TRawFile raw = TRawFile::Open(APath.string());
  TEvtxFile file(&raw);
  std::vector<uint64_t> starts;
  if (file.Count() >= 0) {
    for (int i = 0; i < file.Count(); ++i) starts.push_back(file.GetChunk(i)->Start);
  } else {
    out.Carved = true; // header and chunks disagree: read what the carver finds
  }
  TElfChnunks carver;
  if (out.Carved) carver.OpenFile(APath.string());
  size_t next = 0;
  TChunkReader::Run(
      [&](TChunkJob& AJob) {
        AJob.Bytes.assign(65536, 0);
        if (out.Carved) {
          for (;;) {
            TCarvedChunk c = carver.GetNextChunk();
            if (c.Result == TCarveResult::crEnd) return false;
            if (c.Result != TCarveResult::crChunk) continue;
            std::memcpy(AJob.Bytes.data(), c.Data, 65536);
            AJob.Position = c.Position;
            return true;
          }
        }
        if (next == starts.size()) return false;
        AJob.Position = starts[next++];
        raw.ReadAt(AJob.Position, AJob.Bytes.data(), 65536);
        return true;
      },
      [&](TChunkResult& AResult) {
        ++out.Chunks;
        out.Records += AResult.Records;
        for (const TChunkIssue& issue : AResult.Issues) {
          if (issue.Message.rfind("record walk stopped", 0) == 0) ++out.WalkStops;
          else out.RenderFailures.push_back("chunk at " + std::to_string(AResult.Position) + ": " + issue.Message);
        }
        pugi::xml_document doc;
        std::string wrapped = "<Events>" + AResult.Xml + "</Events>";
        auto parsed = doc.load_buffer(wrapped.data(), wrapped.size(), pugi::parse_default, pugi::encoding_utf8);
        if (!parsed) out.BadXml.push_back("chunk at " + std::to_string(AResult.Position) + ": " + parsed.description());
      },
      2);
  return out;
}

TEST(SampleConformance, EveryRealLogDecodesToWellFormedXml) {
  auto files = test::SampleFiles("evtx", ".evtx");
  if (files.empty()) GTEST_SKIP() << "no samples beside the repository";
  size_t carved = 0, records = 0;
  for (const auto& path : files) {
    SCOPED_TRACE(path.string());
    TSampleResult r = ReadSample(path);
    records += r.Records;
    carved += r.Carved;
    EXPECT_TRUE(r.RenderFailures.empty()) << r.RenderFailures.front();
    EXPECT_TRUE(r.BadXml.empty()) << r.BadXml.front();
    auto known = kKnownDamage.find(path.filename().string());
    EXPECT_EQ(r.WalkStops, known == kKnownDamage.end() ? 0 : known->second);
  }
  // 13 of the sample logs name fewer chunks in their header than follow it.
  EXPECT_GE(carved, 13u);
  EXPECT_GT(records, 40000u);
}

TEST(SampleConformance, RecordIdentifiersOfAHealthyLogAreAllThere) {
  auto path = test::SamplesDir() / "evtx/chainsaw/security_sample.evtx";
  if (!std::filesystem::exists(path)) GTEST_SKIP() << "sample absent";
  TRawFile raw = TRawFile::Open(path.string());
  TEvtxFile file(&raw);
  ASSERT_EQ(file.Count(), 1);
  TEvtxChunk chunk(&raw, false);
  chunk.Start = file.GetChunk(0)->Start;
  ASSERT_EQ(chunk.Count(), 10);
  // A saved log renumbers its record headers; the XML keeps the original identifiers.
  for (int i = 0; i < 10; ++i) EXPECT_EQ(chunk.GetEvent(i)->RecordId(), 1u + static_cast<uint64_t>(i));
  std::string xml = chunk.asXML();
  EXPECT_NE(xml.find("<EventRecordID>31791</EventRecordID>"), std::string::npos);
  EXPECT_NE(xml.find("<EventRecordID>31800</EventRecordID>"), std::string::npos);
  EXPECT_NE(xml.find("<Data Name=\"KeyType\">%%2500</Data>"), std::string::npos);
  EXPECT_NE(xml.find("<TimeCreated SystemTime=\"2022-10-11T19:26:52.0456558Z\" />"), std::string::npos);
}

} // namespace
} // namespace qvx
