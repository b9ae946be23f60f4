// The direct .evtx source and the deep scan: reading order, markers, issues, counts and
// the fields of each record, over logs and images built by the fixture writer.
#include "engine/event_log_binxml.h"

#include "engine/evtx/evtx_writer.h"
#include "platform/nt_exception.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace qvx {
namespace {

using namespace qvx::test;

std::unique_ptr<TEventLogBinXML> OpenFile(const std::string& APath) {
  auto log = std::make_unique<TEventLogBinXML>();
  log->SetBackupFileName(APath);
  log->SetActive(true);
  return log;
}

std::vector<int32_t> RecordNumbers(TEventLogBase& ALog) {
  std::vector<int32_t> numbers;
  while (TEventItemBase* item = ALog.EventNext())
    if (item != TEventLogX::UndeliverableMarker()) numbers.push_back(item->FRecordNumber);
  return numbers;
}

std::vector<int32_t> Descending(int32_t AFrom, int32_t ATo) {
  std::vector<int32_t> v;
  for (int32_t i = ATo; i >= AFrom; --i) v.push_back(i);
  return v;
}

// A chunk holding the given events as records AFirstId, AFirstId + 1, ...
std::vector<uint8_t> ChunkOf(uint64_t AFirstId, const std::vector<TEvtxEventDraft>& AEvents) {
  TEvtxChunkWriter chunk;
  TEvtxEventTemplates templates;
  uint64_t id = AFirstId;
  for (const auto& e : AEvents) EXPECT_TRUE(chunk.AddEvent(id++, e, templates));
  return chunk.Finish();
}

TEST(BinXmlSourceOrder, NewestChunkFirstAndLastRecordFirst) {
  auto log = OpenFile(WriteTempFile("three.evtx", MakeEvtxFile(3, 10)));
  ASSERT_TRUE(log->Active());
  EXPECT_EQ(RecordNumbers(*log), Descending(1, 30));
  EXPECT_EQ(log->IssueList().IssueCount(), 0);
}

TEST(BinXmlSourceOrder, ChunksLaidOutOfOrderStillReadNewestFirst) {
  auto log = OpenFile(WriteTempFile("wrapped.evtx", MakeFileInChunkOrder({2, 3, 0, 1}, 5)));
  EXPECT_EQ(RecordNumbers(*log), Descending(1, 20));
}

TEST(BinXmlSourceOrder, RecordIndexCountsTheReadingOrder) {
  auto log = OpenFile(WriteTempFile("index.evtx", MakeEvtxFile(2, 3)));
  std::vector<int32_t> indexes;
  while (TEventItemBase* item = log->EventNext()) indexes.push_back(item->FRecordIndex);
  EXPECT_EQ(indexes, (std::vector<int32_t>{0, 1, 2, 3, 4, 5}));
}

TEST(BinXmlSourceChunks, EmptyChunkGivesOneSkipAndOneIssue) {
  auto file = MakeFileFromChunks({MakeChunk(1, 4), MakeEmptyChunk(5, 5), MakeChunk(6, 4)});
  auto log = OpenFile(WriteTempFile("hole.evtx", file));
  std::string xml;
  TEventXmlFields fields;
  std::vector<std::string> results;
  for (;;) {
    log->EventNextXML(xml, fields);
    if (xml.empty()) break;
    results.push_back(xml.size() == 1 ? xml : fields.EventRecordID);
  }
  EXPECT_EQ(results, (std::vector<std::string>{"9", "8", "7", "6", "*", "4", "3", "2", "1"}));
  ASSERT_EQ(log->IssueList().Lines().size(), 1u);
  EXPECT_EQ(log->IssueList().Lines()[0], "Inconsistent data in chunk #1 ignored");
}

TEST(BinXmlSourceChunks, DamagedRecordIsReportedAndTheOthersStillRead) {
  auto file = MakeEvtxFile(2, 5);
  CorruptRecordMagic(file, 1, 3); // chunk 1 holds records 6..10; record 9 is damaged
  auto log = OpenFile(WriteTempFile("damaged.evtx", file));
  EXPECT_EQ(RecordNumbers(*log), (std::vector<int32_t>{8, 7, 6, 5, 4, 3, 2, 1}));
  ASSERT_EQ(log->IssueList().Lines().size(), 1u);
  const std::string& issue = log->IssueList().Lines()[0];
  EXPECT_EQ(issue.rfind("Chunk #0 at offset 0x11000: record at chunk offset 0x", 0), 0u) << issue;
  EXPECT_NE(issue.find("record walk stopped"), std::string::npos) << issue;
}

TEST(BinXmlSourceChunks, FileCutShortKeepsTheRecordsBeforeTheCut) {
  auto file = MakeEvtxFile(2, 10);
  const size_t cut = RecordFileOffset(file, 1, 6); // inside the newest chunk, before record 17
  TruncateAt(file, cut);
  auto log = OpenFile(WriteTempFile("cut.evtx", file));
  EXPECT_EQ(RecordNumbers(*log), Descending(1, 16));
  ASSERT_GE(log->IssueList().Lines().size(), 1u);
  EXPECT_EQ(log->IssueList().Lines()[0],
            "Chunk #0 at offset 0x11000 is cut short by the end of the data; reading what is there");
}

TEST(BinXmlSourceCount, CountsIdentifiersNotRecords) {
  auto file = MakeFileFromChunks({MakeChunk(1, 4), MakeChunk(11, 4)}); // 1..4 and 11..14
  auto log = OpenFile(WriteTempFile("gaps.evtx", file));
  EXPECT_EQ(log->GetCount(), 14);
  EXPECT_EQ(log->GetLastCount(), 14);
  EXPECT_EQ(RecordNumbers(*log).size(), 8u);
}

// A header naming fewer chunks than follow it leaves the file to the deep scan; one naming
// more than a copy made while the log grew holds reads those it holds.
TEST(BinXmlSourceCount, WrongChunkCountOpensWithNothingToRead) {
  auto file = MakeEvtxFile(3, 4);
  SetHeaderChunkCount(file, 2);
  auto log = OpenFile(WriteTempFile("count.evtx", file));
  ASSERT_TRUE(log->Active());
  EXPECT_EQ(log->GetCount(), 0);
  EXPECT_EQ(log->EventNext(), nullptr);

  SetHeaderChunkCount(file, 5);
  auto grew = OpenFile(WriteTempFile("grew.evtx", file));
  EXPECT_EQ(RecordNumbers(*grew).size(), 12u);
}

TEST(BinXmlSourceOpen, BadHeaderOrMissingFileRaisesAndStaysClosed) {
  auto file = MakeEvtxFile(1, 2);
  SetHeaderVersion(file, 2, 0);
  TEventLogBinXML log;
  log.SetBackupFileName(WriteTempFile("old.evtx", file));
  EXPECT_THROW(log.SetActive(true), ENTException);
  EXPECT_FALSE(log.Active());
  log.SetBackupFileName("/nonexistent/x.evtx");
  EXPECT_THROW(log.SetActive(true), ENTException);
  EXPECT_FALSE(log.Active());
}

TEST(BinXmlSourceFields, RecordFieldsComeFromTheXml) {
  auto log = OpenFile(WriteTempFile("fields.evtx", MakeEvtxFile(1, 3)));
  log->SetTimeShift(2, 0, "UTC");
  auto* item = static_cast<TEventItemX*>(log->EventNext());
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->FRecordNumber, 3);
  EXPECT_EQ(item->FEventID, 4624u);
  EXPECT_EQ(item->FSourceName, "Microsoft-Windows-Security-Auditing");
  EXPECT_EQ(item->FChannel, "Security");
  EXPECT_EQ(item->FComputername, "WS-FIN-042.corp.contoso.com");
  EXPECT_EQ(item->FEventType, EVT_AUDIT_SUCCESS); // Security keywords 0x8020…
  EXPECT_EQ(item->GetCategoryName(), "(12544)");  // no metadata here: the number in parentheses
  EXPECT_EQ(item->FVersion, 2);
  const TSystemTime t = DaysToSystemTime(item->GetTimeGenerated());
  EXPECT_EQ(t.wHour, 9); // sample event 3: 2024-03-11 09:00:03 UTC
  EXPECT_EQ(t.wSecond, 3);
  ASSERT_EQ(item->FStrings.size(), 10u);
  EXPECT_EQ(item->FStrings[0], "S-1-5-18");
  EXPECT_EQ(item->FStrings[1], "WS-FIN-042$");
  EXPECT_EQ(item->FEvtXML.rfind("<Event xmlns", 0), 0u);
}

TEST(BinXmlSourceFields, TaskZeroIsNoneAndNeverCached) {
  TEvtxEventDraft e = SampleEvent(1);
  e.FTask = 0;
  auto log = OpenFile(WriteTempFile("task0.evtx", MakeFileFromChunks({ChunkOf(1, {e})})));
  TEventItemBase* item = log->EventNext();
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->GetCategoryName(), "None");
  EXPECT_FALSE(log->CategoryCache().CategoryInCache(e.FProviderName, 0));
}

TEST(BinXmlSourceFields, TaskNameIsCachedByProviderAndNumber) {
  TEvtxEventDraft e = SampleEvent(1);
  e.FTask = 12;
  auto log = OpenFile(WriteTempFile("task12.evtx", MakeFileFromChunks({ChunkOf(1, {e, e})})));
  EXPECT_EQ(log->EventNext()->GetCategoryName(), "(12)");
  EXPECT_TRUE(log->CategoryCache().CategoryInCache(e.FProviderName, 12));
  EXPECT_EQ(log->EventNext()->GetCategoryName(), "(12)");
}

TEST(BinXmlSourceFields, NoDescriptionGivesTheMarkThenTheValues) {
  TEvtxEventDraft e = SampleEvent(1);
  e.FData = {{"A", TEvtxValue::String("first")}, {"B", TEvtxValue::UInt32(2)}};
  auto log = OpenFile(WriteTempFile("nodesc.evtx", MakeFileFromChunks({ChunkOf(1, {e})})));
  auto* item = static_cast<TEventItemX*>(log->EventNext());
  ASSERT_NE(item, nullptr);
  EXPECT_EQ(item->FEvtMessage, "\x01\r\nfirst\r\n2");
  EXPECT_FALSE(item->FDescriptionFound);
}

// A classic event's insertion strings, as Windows forwards them: one string array filling
// one unnamed <Data>. Other providers write integer and GUID arrays the same way.
TEvtxEventDraft ArrayEvent() {
  static const uint32_t numbers[] = {1, 4294967295u};
  static const TEvtxValue guids[] = {TEvtxValue::Guid("{54849625-5478-4994-A5BA-3E3B0328C30D}")};
  TEvtxEventDraft e = SampleEvent(1);
  e.FData = {{"", TEvtxValue::StringArray({"Product: Tool -- Installation completed.", "(NULL)", "", "it's"})},
             {"Numbers", TEvtxValue::UInt32Array(numbers)},
             {"Guids", TEvtxValue::Array(EvtxType::Guid, guids)},
             {"Empty", TEvtxValue::StringArray({})},
             {"After", TEvtxValue::String("last")}};
  return e;
}

TEST(BinXmlSourceArrays, EachItemIsADataValue) {
  auto log = OpenFile(WriteTempFile("arrays.evtx", MakeFileFromChunks({ChunkOf(1, {ArrayEvent()})})));
  auto* item = static_cast<TEventItemX*>(log->EventNext());
  ASSERT_NE(item, nullptr);
  const TStringList expected = {"Product: Tool -- Installation completed.", "(NULL)", "", "it's", "1", "4294967295",
                                "{54849625-5478-4994-A5BA-3E3B0328C30D}", "", "last"};
  EXPECT_EQ(item->FStrings, expected);
  EXPECT_NE(item->FEvtXML.find("<Data>(NULL)</Data>\r\n<Data></Data>\r\n<Data>it&apos;s</Data>"), std::string::npos);
  EXPECT_NE(item->FEvtXML.find("<Data Name=\"Numbers\">1</Data>\r\n<Data Name=\"Numbers\">4294967295</Data>"),
            std::string::npos);
  // The description without a message: the not-found mark, then every item.
  EXPECT_EQ(item->FEvtMessage.find("\x01\r\nProduct: Tool -- Installation completed.\r\n(NULL)\r\n\r\nit's\r\n1\r\n"), 0u);
}

// The same log through evtxexport (Debian's libevtx-utils), run as a black box: every
// <Data> element, with its attributes and text, must be the same.
TEST(BinXmlSourceArrays, DataElementsMatchEvtxexport) {
  const std::string path = WriteTempFile("arrays-peer.evtx", MakeFileFromChunks({ChunkOf(1, {ArrayEvent()})}));
  std::FILE* p = ::popen(("evtxexport -f xml '" + path + "' 2>/dev/null").c_str(), "r");
  std::string peer;
  if (p) {
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, p)) > 0;) peer.append(buf, n);
    ::pclose(p);
  }
  if (peer.find("<Event") == std::string::npos) GTEST_SKIP() << "evtxexport is not installed";
  auto dataElements = [](const std::string& AXml) {
    std::vector<std::string> out;
    for (size_t at = AXml.find("<Data"); at != std::string::npos; at = AXml.find("<Data", at + 1)) {
      const size_t end = AXml.find('>', at);
      if (end == std::string::npos) break;
      std::string head = AXml.substr(at, end - at);
      const bool empty = !head.empty() && head.back() == '/'; // <Data/> and <Data></Data> are one thing
      if (empty) head.pop_back();
      while (!head.empty() && head.back() == ' ') head.pop_back();
      const size_t close = AXml.find("</Data>", end);
      const std::string text = empty || close == std::string::npos ? "" : AXml.substr(end + 1, close - end - 1);
      out.push_back(head + ">" + text + "</Data>");
    }
    return out;
  };
  auto log = OpenFile(path);
  auto* item = static_cast<TEventItemX*>(log->EventNext());
  ASSERT_NE(item, nullptr);
  // evtxexport writes apostrophes raw.
  std::string ours;
  for (size_t from = 0;;) {
    const size_t at = item->FEvtXML.find("&apos;", from);
    ours.append(item->FEvtXML, from, at == std::string::npos ? std::string::npos : at - from);
    if (at == std::string::npos) break;
    ours.push_back('\'');
    from = at + 6;
  }
  const auto expected = dataElements(peer);
  EXPECT_EQ(dataElements(ours), expected) << peer;
}

TEST(BinXmlSourceFields, ControlCharactersInValuesBecomeSpaces) {
  TEvtxEventDraft e = SampleEvent(1);
  e.FData = {{"A", TEvtxValue::String("a\x0b" "b\x01" "c")}};
  auto log = OpenFile(WriteTempFile("ctrl.evtx", MakeFileFromChunks({ChunkOf(1, {e})})));
  auto* item = static_cast<TEventItemX*>(log->EventNext());
  ASSERT_NE(item, nullptr);
  ASSERT_EQ(item->FStrings.size(), 1u);
  EXPECT_EQ(item->FStrings[0], "a b c");
  EXPECT_EQ(item->FEvtXML.find('\x0b'), std::string::npos);
}

TEST(BinXmlSourceFields, UserNameResolvesWellKnownAndUnmappedSids) {
  TEvtxEventDraft system = SampleEvent(1), user = SampleEvent(2), none = SampleEvent(3);
  system.FUserId = "S-1-5-18";
  user.FUserId = "S-1-5-21-1-2-3-1001";
  none.FUserId.clear();
  auto log = OpenFile(WriteTempFile("users.evtx", MakeFileFromChunks({ChunkOf(1, {system, user, none})})));
  EXPECT_EQ(log->EventNext()->GetUserName(), "N/A");
  EXPECT_EQ(log->EventNext()->GetUserName(), "\\S-1-5-21-1-2-3-1001");
  EXPECT_EQ(log->EventNext()->GetUserName(), "\\SYSTEM");
}

// --- deep scan --------------------------------------------------------------------

std::unique_ptr<TEventLogScan> OpenScan(const std::string& APath) {
  auto log = std::make_unique<TEventLogScan>();
  log->SetBackupFileName(APath);
  log->SetActive(true);
  return log;
}

TEST(DeepScan, CountsAreUnknown) {
  auto log = OpenScan(WriteTempFile("count.bin", MakeEvtxFile(1, 2)));
  EXPECT_EQ(log->GetCount(), 0xFFFFFFFFll);
  EXPECT_EQ(log->GetLastCount(), 0xFFFFFFFFll);
}

TEST(DeepScan, ImageRecoversEveryChunkInImageOrder) {
  TSampleDiskImage image = MakeSampleDiskImage();
  auto log = OpenScan(WriteTempFile("image.bin", image.FBytes));
  std::vector<int32_t> expected;
  for (uint64_t first : image.FChunkFirstIds)
    for (auto n : Descending(static_cast<int32_t>(first), static_cast<int32_t>(first + image.FRecordsPerChunk - 1)))
      expected.push_back(n);
  EXPECT_EQ(RecordNumbers(*log), expected);
}

TEST(DeepScan, BufferWithoutChunksGivesATickFirst) {
  TDiskImage image(6 * kMiB, 7);
  image.Place(5 * kMiB + 3, MakeChunk(1, 3));
  auto log = OpenScan(WriteTempFile("late.bin", image.Take()));
  std::string xml;
  TEventXmlFields fields;
  log->EventNextXML(xml, fields);
  EXPECT_EQ(xml, "+");
  EXPECT_EQ(RecordNumbers(*log), Descending(1, 3));
}

TEST(DeepScan, EmptyChunkIsReportedWithoutNumber) {
  TDiskImage image(1 * kMiB);
  image.Place(4097, MakeEmptyChunk());
  image.Place(300001, MakeChunk(1, 2));
  auto log = OpenScan(WriteTempFile("empty.bin", image.Take()));
  EXPECT_EQ(RecordNumbers(*log), Descending(1, 2));
  ASSERT_EQ(log->IssueList().Lines().size(), 1u);
  EXPECT_EQ(log->IssueList().Lines()[0], "Inconsistent data in a chunk ignored");
}

TEST(DeepScan, DuplicateChunksYieldTheirEventsTwice) {
  TDiskImage image(1 * kMiB);
  const auto chunk = MakeChunk(1, 2);
  image.Place(1001, chunk);
  image.Place(500001, chunk);
  auto log = OpenScan(WriteTempFile("twice.bin", image.Take()));
  EXPECT_EQ(RecordNumbers(*log), (std::vector<int32_t>{2, 1, 2, 1}));
}

TEST(DeepScan, MissingSourceRaises) {
  TEventLogScan log;
  log.SetBackupFileName("/nonexistent/disk.img");
  EXPECT_THROW(log.SetActive(true), ENTException);
  EXPECT_FALSE(log.Active());
}

// --- read-ahead -----------------------------------------------------------------

// Every result of EventNextXML ("+", "*", or the record ID) and the issues at the end.
std::vector<std::string> Trace(TEventLogBinXML& ALog) {
  std::vector<std::string> trace;
  std::string xml;
  TEventXmlFields fields;
  for (;;) {
    ALog.EventNextXML(xml, fields);
    if (xml.empty()) break;
    trace.push_back(xml.size() == 1 ? xml : fields.EventRecordID);
  }
  for (const auto& line : ALog.IssueList().Lines()) trace.push_back(line);
  return trace;
}

template <class TLog>
std::vector<std::string> TraceWith(const std::string& APath, unsigned AThreads) {
  TLog log;
  log.SetReadAhead(AThreads);
  log.SetBackupFileName(APath);
  log.SetActive(true);
  return Trace(log);
}

TEST(ReadAhead, FileGivesTheSameEventsMarkersAndIssues) {
  auto file = MakeFileFromChunks({MakeChunk(1, 30), MakeEmptyChunk(31, 31), MakeChunk(32, 30), MakeChunk(62, 30),
                                  MakeChunk(92, 30), MakeChunk(122, 30)});
  CorruptRecordMagic(file, 2, 7);
  const std::string path = WriteTempFile("ahead.evtx", file);
  const auto plain = TraceWith<TEventLogBinXML>(path, 0);
  ASSERT_GT(plain.size(), 100u);
  EXPECT_EQ(TraceWith<TEventLogBinXML>(path, 1), plain);
  EXPECT_EQ(TraceWith<TEventLogBinXML>(path, 3), plain);
}

TEST(ReadAhead, ScanGivesTheSameTicksEventsAndIssues) {
  TSampleDiskImage sample = MakeSampleDiskImage();
  TDiskImage image(30 * kMiB, 3);
  image.Place(0, sample.FBytes);
  image.Place(21 * kMiB + 5, MakeEmptyChunk());
  const std::string path = WriteTempFile("ahead.bin", image.Take());
  const auto plain = TraceWith<TEventLogScan>(path, 0);
  ASSERT_GT(plain.size(), 100u);
  EXPECT_GE(std::count(plain.begin(), plain.end(), "+"), 5); // 30 MB: one tick per buffer past its last chunk
  EXPECT_EQ(plain.back(), "Inconsistent data in a chunk ignored");
  EXPECT_EQ(TraceWith<TEventLogScan>(path, 1), plain);
  EXPECT_EQ(TraceWith<TEventLogScan>(path, 2), plain);
}

TEST(ReadAhead, ClosingMidwayStopsTheReadingThreads) {
  const std::string path = WriteTempFile("stop.evtx", MakeEvtxFile(20, 10));
  for (int i = 0; i < 20; ++i) {
    TEventLogBinXML log;
    log.SetReadAhead(2);
    log.SetBackupFileName(path);
    log.SetActive(true);
    for (int k = 0; k < i; ++k) ASSERT_NE(log.EventNext(), nullptr);
    log.SetActive(false);
    log.SetActive(true); // reopened, it starts again from the newest event
    ASSERT_NE(log.EventNext(), nullptr);
    EXPECT_EQ(log.EventNext()->FRecordNumber, 199);
  }
}

TEST(ReadAhead, ScanProgressIsTheBytesBehindTheLastChunk) {
  TDiskImage image(9 * kMiB, 4);
  image.Place(5 * kMiB + 1, MakeChunk(1, 2));
  const std::string path = WriteTempFile("progress.bin", image.Take());
  TEventLogScan log;
  log.SetReadAhead(1);
  log.SetBackupFileName(path);
  log.SetActive(true);
  while (log.EventNext()) {
  }
  EXPECT_EQ(log.BytesScanned(), log.ElfChunks().SourceSize());
}

} // namespace
} // namespace qvx
