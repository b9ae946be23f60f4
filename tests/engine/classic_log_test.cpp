// The classic .evt source: reading order, wrapped and damaged files, the ReadEventLogW
// contract of the direct reader, and descriptions through an imaged computer.
#include "engine/classic_log.h"

#include "imaged/imaged_pc.h"
#include "platform/nt_exception.h"
#include "support/evt_writer.h"
#include "support/hive_writer.h"
#include "support/imaged_fixture.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <deque>

namespace qvx {
namespace {

using test::BuildEvtFile;
using test::SampleEvtRecord;
using test::TEvtFileOptions;
using test::TEvtLayout;
using test::TEvtRecordDraft;

std::vector<TEvtRecordDraft> Samples(uint32_t ACount, uint32_t AFirst = 0) {
  std::vector<TEvtRecordDraft> records;
  for (uint32_t i = 0; i < ACount; ++i) records.push_back(SampleEvtRecord(AFirst + i));
  return records;
}

// The file in the test's scratch folder (which that call empties), or in AFolder.
std::string Write(const std::vector<uint8_t>& AFile, const std::filesystem::path& AFolder = {}) {
  const auto path = (AFolder.empty() ? test::ScratchDir() : AFolder) / "log.evt";
  test::WriteFileBytes(path, AFile);
  return path.string();
}

struct TRead {
  std::vector<uint32_t> Numbers;
  std::deque<TEventItem> Items;
  std::vector<std::string> Damage;
  std::string Error;
};

// Every record the source gives, newest first, and how reading ended.
TRead ReadAll(const std::string& APath, TImagedPC* AImaged = nullptr) {
  TRead result;
  TNTEventLog log;
  log.SetImagedDescrServer(AImaged);
  log.SetBackupFileName(APath);
  try {
    log.SetActive(true);
    while (TEventItemBase* item = log.EventNext()) {
      auto& classic = static_cast<TEventItem&>(*item);
      result.Numbers.push_back(static_cast<uint32_t>(classic.FRecordNumber));
      result.Items.emplace_back(nullptr);
      result.Items.back().TEventItemBase::Assign(classic);
      result.Items.back().FEvtMessage = classic.FEvtMessage;
      result.Items.back().FDescriptionFound = classic.FDescriptionFound;
      result.Items.back().FCategoryName = classic.GetCategoryName();
    }
  } catch (const std::exception& e) {
    result.Error = e.what();
  }
  if (log.RawLog()) result.Damage = log.RawLog()->Damage();
  return result;
}

std::vector<uint32_t> Descending(uint32_t AFrom, uint32_t ATo) {
  std::vector<uint32_t> numbers;
  for (uint32_t n = AFrom; n >= ATo && n > 0; --n) numbers.push_back(n);
  return numbers;
}

TEST(ClassicLog, ReadsEveryRecordNewestFirstWithItsFields) {
  auto records = Samples(40);
  records[7].EventID = 0xC0001234; // qualifier bits: shown as the low 16 bits
  records[7].Data = {1, 2, 3};
  const TRead read = ReadAll(Write(BuildEvtFile(records)));
  EXPECT_EQ(read.Error, "");
  ASSERT_EQ(read.Numbers, Descending(40, 1));
  EXPECT_TRUE(read.Damage.empty());
  const TEventItem& item = read.Items[40 - 8];
  EXPECT_EQ(item.FEventID, 0x1234u);
  EXPECT_EQ(item.FSourceName, records[7].SourceName);
  EXPECT_EQ(item.FComputername, records[7].Computername);
  EXPECT_EQ(item.FStrings, records[7].Strings);
  EXPECT_EQ(item.FData, records[7].Data);
  EXPECT_EQ(item.FSID, records[7].Sid);
  EXPECT_DOUBLE_EQ(item.FTimeGenerated, 25569.0 + records[7].TimeGenerated / 86400.0);
  EXPECT_EQ(item.FEventType, ClassicToEventType(records[7].EventType));
  // No description computer: the not-found text with the record's strings.
  EXPECT_FALSE(item.FDescriptionFound);
  EXPECT_EQ(item.FEvtMessage.rfind("The description for Event ID ( 4660 ) in Source ( ", 0), 0u);
}

TEST(ClassicLog, WrappedRecordsAreJoinedFromTheEndAndTheStartOfTheArea) {
  const auto records = Samples(60);
  // Put the oldest record so that the area wraps somewhere inside a record, for several cuts.
  for (uint32_t cut : {0u, 4u, 17u * 4, 100u}) {
    TEvtFileOptions options;
    options.FileSize = 48 + 12000;
    options.StartOffset = options.FileSize - 3000 + cut;
    TEvtLayout layout;
    const auto file = BuildEvtFile(records, options, &layout);
    ASSERT_TRUE(layout.Wrapped);
    const TRead read = ReadAll(Write(file));
    EXPECT_EQ(read.Error, "") << cut;
    ASSERT_EQ(read.Numbers, Descending(60, 1)) << cut;
    for (size_t i = 0; i < read.Items.size(); ++i) EXPECT_EQ(read.Items[i].FStrings, records[59 - i].Strings);
  }
}

TEST(ClassicLog, TheEndOfFileRecordMayLieAnywhere) {
  const auto records = Samples(30);
  TEvtLayout plain;
  const size_t size = BuildEvtFile(records, {}, &plain).size();
  // The newest record ends exactly at the end of the file: the end-of-file record sits at 48.
  TEvtFileOptions options;
  options.FileSize = static_cast<uint32_t>(size);
  options.StartOffset = 48 + 40;
  TEvtLayout layout;
  const auto file = BuildEvtFile(records, options, &layout);
  EXPECT_EQ(layout.EofOffset, 48u);
  EXPECT_EQ(ReadAll(Write(file)).Numbers, Descending(30, 1));
  // Far from the end of a big file: found by the second search from the start.
  options = {};
  options.FileSize = 200000;
  EXPECT_EQ(ReadAll(Write(BuildEvtFile(records, options))).Numbers, Descending(30, 1));
}

TEST(ClassicLog, DamagedLengthsAreSteppedOverAndReported) {
  const auto records = Samples(30);
  TEvtLayout layout;
  auto file = BuildEvtFile(records, {}, &layout);
  test::SetTrailingLength(file, layout, 20, 0);      // a zero length
  test::SetLeadingLength(file, layout, 10, 0x1234);  // leading and trailing differ
  const TRead read = ReadAll(Write(file));
  EXPECT_EQ(read.Error, "");
  std::vector<uint32_t> expected = Descending(30, 1);
  std::erase(expected, 21u);
  std::erase(expected, 11u);
  EXPECT_EQ(read.Numbers, expected);
  EXPECT_EQ(read.Damage.size(), 2u);
}

TEST(ClassicLog, LengthsPointingOutsideTheFileNeverReadOutside) {
  const auto records = Samples(12);
  TEvtLayout layout;
  for (uint32_t bad : {0xFFFFFFFFu, 0x00FFFFF0u, 0x10u, 0x7FFFFFFFu}) {
    auto file = BuildEvtFile(records, {}, &layout);
    test::SetTrailingLength(file, layout, 11, bad); // the newest record
    test::SetLeadingLength(file, layout, 5, bad);
    const TRead read = ReadAll(Write(file));
    EXPECT_GE(read.Numbers.size(), 9u) << std::hex << bad;
    EXPECT_FALSE(read.Damage.empty());
  }
}

TEST(ClassicLog, ARecordLargerThanTheReadWindowIsReadAfterOneEnlargement) {
  auto records = Samples(5);
  records[2].Data.assign(20000, 0xAB);
  const TRead read = ReadAll(Write(BuildEvtFile(records)));
  ASSERT_EQ(read.Numbers, Descending(5, 1));
  EXPECT_EQ(read.Items[2].FData.size(), 20000u);
}

TEST(ClassicLog, FilesThatAreNotLogsGiveAClearError) {
  TEvtFileOptions options;
  options.EofRecord = false;
  const TRead noEof = ReadAll(Write(BuildEvtFile(Samples(3), options)));
  EXPECT_NE(noEof.Error.find("no end-of-file record found"), std::string::npos) << noEof.Error;
  EXPECT_NE(noEof.Error.find("1500"), std::string::npos) << noEof.Error;

  auto file = BuildEvtFile(Samples(3));
  test::SetHeaderU32(file, 0, 0x40);
  const TRead badHeader = ReadAll(Write(file));
  EXPECT_NE(badHeader.Error.find("the header size at offset 0x0 is not 48"), std::string::npos) << badHeader.Error;

  const TRead missing = ReadAll((test::ScratchDir() / "none.evt").string());
  EXPECT_NE(missing.Error.find("No such file"), std::string::npos) << missing.Error;
}

TEST(ClassicLogFileData, FollowsTheReadEventLogContract) {
  const auto path = Write(BuildEvtFile(Samples(10)));
  TLogFileData data;
  ASSERT_TRUE(data.Open(path));
  EXPECT_EQ(data.RecordNumbers(), 10u);
  std::vector<uint8_t> buffer(16384);
  uint32_t read = 0, needed = 0;
  // Forwards reading is not served: success with nothing read.
  EXPECT_TRUE(data.ReadEventLog(kEventlogSequentialRead, 0, buffer.data(), 16384, read, needed));
  EXPECT_EQ(read, 0u);
  // A buffer too small for the newest record: 122 and the size it needs.
  EXPECT_FALSE(data.ReadEventLog(9, 0, buffer.data(), 8, read, needed));
  EXPECT_EQ(data.LastError(), kErrorInsufficientBuffer);
  EXPECT_GT(needed, 56u);
  // A buffer for exactly one record reads one.
  const uint32_t one = needed;
  EXPECT_TRUE(data.ReadEventLog(9, 0, buffer.data(), one, read, needed));
  EXPECT_EQ(read, one);
  EXPECT_TRUE(data.ReadEventLog(9, 0, buffer.data(), 16384, read, needed));
  EXPECT_GT(read, 0u);
  // Then the end: 38.
  EXPECT_FALSE(data.ReadEventLog(9, 0, buffer.data(), 16384, read, needed));
  EXPECT_EQ(data.LastError(), kErrorHandleEof);
}

TEST(ClassicLog, DescriptionsComeFromTheImagedComputer) {
  const auto tree = test::BuildImagedWindows(test::ScratchDir() / "image");
  TImagedPC computer;
  computer.SetMapping(tree.WinDir.string());
  computer.SetActive(true);
  std::vector<TEvtRecordDraft> records(4);
  records[0].SourceName = "ClassicSrc";
  records[0].EventID = 100;
  records[0].Strings = {"x"};
  records[1].SourceName = "ClassicSrc";
  records[1].EventID = 0xB0000065; // found as it stands, shown as 101
  records[1].Strings = {"q"};
  records[1].EventCategory = 3;
  records[2].SourceName = "ClassicSrc";
  records[2].EventID = 0x80001234;
  records[2].Strings = {"a", "b"};
  records[3].SourceName = "Microsoft-Windows-Kernel-General";
  records[3].EventID = 12;
  records[3].Strings = {"t"};
  for (uint32_t i = 0; i < 4; ++i) records[i].RecordNumber = i + 1;
  const TRead read = ReadAll(Write(BuildEvtFile(records), tree.Root), &computer);
  ASSERT_EQ(read.Items.size(), 4u);
  EXPECT_EQ(read.Items[3].FEvtMessage, "ClassicA says x.");
  EXPECT_EQ(read.Items[3].FCategoryName, "None");
  EXPECT_EQ(read.Items[2].FEvtMessage, "Qualified 101: q");
  EXPECT_EQ(read.Items[2].FEventID, 101u);
  EXPECT_EQ(read.Items[2].FCategoryName, "Logon");
  EXPECT_EQ(read.Items[1].FEvtMessage,
            "The description for Event ID ( 4660 ) in Source ( ClassicSrc ) could not be found.\r\nEither the component "
            "that raises this event is not installed on the computer or the installation is corrupted.You can install "
            "or repair the component or try to change Description Server.\r\n\r\nThe following information was "
            "included with the event:\r\na\r\nb");
  EXPECT_EQ(read.Items[0].FEvtMessage, "Kernel time changed t");
}

} // namespace
} // namespace qvx
