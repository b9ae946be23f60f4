// Every real .evtx sample beside the repository read as events: the direct source yields
// each rendered record once, newest chunk first and last record first, with fields that
// agree with the record's XML; a deep scan of the sample hidden at an odd offset in a
// larger image recovers all of them. Skips when the samples are absent.
#include "platform/raw_file.h"
#include "engine/event_log_binxml.h"

#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace qvx {
namespace {

using namespace qvx::test;

// The records of a valid file as the chunk renderer gives them, in reading order.
std::vector<uint64_t> ExpectedRecordIds(const std::string& APath, bool& AValid) {
  TRawFile raw = TRawFile::Open(APath);
  TEvtxFile file(&raw);
  std::vector<uint64_t> ids;
  AValid = file.Count() >= 0;
  for (int i = 0; AValid && i < file.Count(); ++i) {
    TChunkJob job;
    job.ReadFrom = &raw;
    job.Position = file.GetChunk(i)->Start;
    TChunkResult result;
    TChunkReader::RenderChunk(job, result);
    std::vector<uint64_t> chunk;
    pugi::xml_document doc;
    const std::string wrapped = "<Events>" + result.Xml + "</Events>";
    EXPECT_TRUE(doc.load_string(wrapped.c_str())) << APath << " chunk " << i;
    for (pugi::xml_node event : doc.child("Events").children("Event"))
      chunk.push_back(event.child("System").child("EventRecordID").text().as_ullong());
    EXPECT_EQ(chunk.size(), result.Records) << APath << " chunk " << i;
    ids.insert(ids.end(), chunk.rbegin(), chunk.rend());
  }
  return ids;
}

// Checks one yielded record against its own XML.
void CheckFields(TEventItemX& AItem, const std::string& APath) {
  pugi::xml_document doc;
  ASSERT_TRUE(doc.load_string(AItem.FEvtXML.c_str(), (pugi::parse_default | pugi::parse_ws_pcdata) & ~pugi::parse_eol)) << APath << " record " << AItem.FEventRecordID;
  const pugi::xml_node system = doc.child("Event").child("System");
  const std::string where = APath + " record " + std::to_string(AItem.FEventRecordID);
  EXPECT_EQ(AItem.FEventRecordID, system.child("EventRecordID").text().as_ullong()) << where;
  EXPECT_EQ(AItem.FEventID, system.child("EventID").text().as_uint()) << where;
  EXPECT_EQ(AItem.FSourceName, system.child("Provider").attribute("Name").value()) << where;
  EXPECT_EQ(AItem.FChannel, system.child("Channel").text().get()) << where;
  EXPECT_EQ(AItem.FComputername, system.child("Computer").text().get()) << where;
  EXPECT_EQ(AItem.FUserSid, system.child("Security").attribute("UserID").value()) << where;
  EXPECT_EQ(AItem.FSystemTime, system.child("TimeCreated").attribute("SystemTime").value()) << where;
  const std::string task = system.child("Task").text().get();
  if (task == "0" || task.empty())
    EXPECT_EQ(AItem.GetCategoryName(), "None") << where;
  else
    EXPECT_EQ(AItem.GetCategoryName(), "(" + task + ")") << where;
  // Data values: the Data elements of EventData, in order.
  const pugi::xml_node data = doc.child("Event").child("EventData");
  if (data) {
    std::vector<std::string> values;
    for (pugi::xml_node d : data.children("Data")) values.push_back(d.text().get());
    EXPECT_EQ(AItem.FStrings, values) << where;
  }
}

std::vector<uint64_t> ReadAll(TEventLogBinXML& ALog, const std::string& APath, bool ACheckFields) {
  std::vector<uint64_t> ids;
  while (TEventItemBase* item = ALog.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) continue;
    auto& x = static_cast<TEventItemX&>(*item);
    ids.push_back(x.FEventRecordID);
    if (ACheckFields) CheckFields(x, APath);
  }
  return ids;
}

std::vector<uint64_t> Scan(const std::string& APath) {
  TEventLogScan scan;
  scan.SetBackupFileName(APath);
  scan.SetActive(true);
  return ReadAll(scan, APath, false);
}

TEST(EventsConformance, EverySampleYieldsItsRecordsNewestFirst) {
  const auto samples = SampleFiles("evtx", ".evtx");
  if (samples.empty()) GTEST_SKIP() << "no samples in " << SamplesDir();
  size_t files = 0, events = 0, mismatched = 0;
  for (const auto& path : samples) {
    const std::string p = path.string();
    bool valid = false;
    const std::vector<uint64_t> expected = ExpectedRecordIds(p, valid);
    TEventLogBinXML log;
    log.SetBackupFileName(p);
    try {
      log.SetActive(true);
    } catch (const std::exception& e) {
      ADD_FAILURE() << p << ": " << e.what();
      continue;
    }
    const std::vector<uint64_t> got = ReadAll(log, p, true);
    if (!valid) {
      EXPECT_TRUE(got.empty()) << p; // chunk count not valid: nothing to read this way
      EXPECT_EQ(log.GetCount(), 0) << p;
    } else {
      EXPECT_EQ(got, expected) << p;
      mismatched += got != expected;
    }
    ++files;
    events += got.size();
  }
  EXPECT_EQ(mismatched, 0u);
  std::printf("[ events ] %zu files, %zu events\n", files, events);
}

TEST(EventsConformance, DeepScanOfAnImageRecoversEverySample) {
  const auto samples = SampleFiles("evtx", ".evtx");
  if (samples.empty()) GTEST_SKIP() << "no samples in " << SamplesDir();
  size_t index = 0;
  for (const auto& path : samples) {
    const std::string p = path.string();
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // Odd offsets; every eighth sample straddles the carver's 4 MB buffer boundary.
    const size_t offset = (index++ % 8 == 0) ? test::kImageBufferSize - 40001 : 100003 + index * 2;
    test::TDiskImage image(offset + bytes.size() + 70001, 1 + index);
    image.Place(offset, bytes);
    const std::string imagePath = (ScratchDir() / "scan-image.bin").string();
    {
      std::ofstream out(imagePath, std::ios::binary | std::ios::trunc);
      out.write(reinterpret_cast<const char*>(image.Bytes().data()), static_cast<std::streamsize>(image.Size()));
    }
    // What the file itself holds: its records, or what a scan of it finds when its
    // chunk count is not valid.
    bool valid = false;
    std::vector<uint64_t> expected = ExpectedRecordIds(p, valid);
    if (!valid) expected = Scan(p);
    std::vector<uint64_t> got = Scan(imagePath);
    std::sort(expected.begin(), expected.end());
    std::sort(got.begin(), got.end());
    EXPECT_TRUE(std::includes(got.begin(), got.end(), expected.begin(), expected.end()))
        << p << ": scan found " << got.size() << " events, the file holds " << expected.size();
  }
  std::filesystem::remove(ScratchDir() / "scan-image.bin");
}

} // namespace
} // namespace qvx
