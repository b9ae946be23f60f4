#include "support/evt_writer.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "support/hive_writer.h"
#include "support/test_paths.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;
using namespace qvx::test;

uint32_t U32(const std::vector<uint8_t>& ABytes, size_t AOffset) {
  return ABytes[AOffset] | ABytes[AOffset + 1] << 8 | ABytes[AOffset + 2] << 16 | uint32_t{ABytes[AOffset + 3]} << 24;
}

std::vector<TEvtRecordDraft> Samples(uint32_t ACount) {
  std::vector<TEvtRecordDraft> records;
  for (uint32_t i = 0; i < ACount; ++i)
    records.push_back(SampleEvtRecord(i));
  return records;
}

TEST(EvtWriterRecord, LaysOutTheParts) {
  TEvtRecordDraft draft;
  draft.SourceName = "Src";   // 8 bytes with its NUL
  draft.Computername = "PC";  // 6 bytes
  draft.Sid = EvtSid(5, {18}); // 12 bytes
  draft.Strings = {"a", "bc"};
  draft.Data = {1, 2, 3};
  std::vector<uint8_t> bytes = BuildEvtRecord(draft);
  EXPECT_EQ(bytes.size() % 4, 0u);
  EXPECT_EQ(U32(bytes, 0), bytes.size());
  EXPECT_EQ(U32(bytes, bytes.size() - 4), bytes.size());
  EXPECT_EQ(U32(bytes, 4), kEvtSignature);
  EXPECT_EQ(U32(bytes, 44), 72u);       // UserSidOffset: 56 + 8 + 6, aligned
  EXPECT_EQ(U32(bytes, 40), 12u);       // UserSidLength
  EXPECT_EQ(U32(bytes, 36), 84u);       // StringOffset
  EXPECT_EQ(U32(bytes, 52), 84u + 10u); // DataOffset: "a\0" + "bc\0"
  EXPECT_EQ(U32(bytes, 48), 3u);
  EXPECT_EQ(bytes[26], 2);              // NumStrings
  EXPECT_EQ(bytes.size(), 100u + 4u);   // data ends at 97, padded to 100, then the copy
}

TEST(EvtWriterFile, HeaderAndEofRecordAgree) {
  TEvtLayout layout;
  std::vector<uint8_t> file = BuildEvtFile(Samples(5), {}, &layout);
  ASSERT_EQ(layout.RecordOffsets.size(), 5u);
  EXPECT_EQ(layout.RecordOffsets[0], 48u);
  EXPECT_FALSE(layout.Wrapped);
  EXPECT_EQ(file.size(), layout.EofOffset + 40u);
  EXPECT_EQ(U32(file, 16), 48u);               // StartOffset
  EXPECT_EQ(U32(file, 20), layout.EofOffset);  // EndOffset
  EXPECT_EQ(U32(file, 24), 6u);                // CurrentRecordNumber
  EXPECT_EQ(U32(file, 28), 1u);                // OldestRecordNumber
  EXPECT_EQ(U32(file, 32), file.size());       // MaxSize
  EXPECT_EQ(U32(file, layout.EofOffset + 4), 0x11111111u);
  EXPECT_EQ(U32(file, layout.EofOffset + 20), 48u);
  EXPECT_EQ(U32(file, layout.EofOffset + 24), layout.EofOffset);
  EXPECT_EQ(U32(file, layout.EofOffset + 36), 40u);
  TEvtFileOptions small;
  small.FileSize = 256;
  EXPECT_THROW(BuildEvtFile(Samples(5), small), std::length_error);
}

TEST(EvtWriterFile, WrapsAroundTheCircularArea) {
  std::vector<TEvtRecordDraft> records = Samples(6);
  TEvtFileOptions options;
  options.FileSize = 2048;
  options.StartOffset = 2048 - 100; // the first record runs past the end
  options.Flags = EvtFlagWrapped;
  TEvtLayout layout;
  std::vector<uint8_t> file = BuildEvtFile(records, options, &layout);
  ASSERT_EQ(file.size(), 2048u);
  EXPECT_TRUE(layout.Wrapped);
  EXPECT_EQ(layout.RecordOffsets[0], 1948u);
  std::vector<uint8_t> first = BuildEvtRecord(records[0]);
  EXPECT_TRUE(std::equal(first.begin(), first.begin() + 100, file.begin() + 1948));
  EXPECT_TRUE(std::equal(first.begin() + 100, first.end(), file.begin() + 48));
  EXPECT_EQ(layout.RecordOffsets[1], 48u + first.size() - 100u);
  EXPECT_EQ(U32(file, 36), EvtFlagWrapped);
  SetTrailingLength(file, layout, 0, 0xDEADBEEF);
  EXPECT_EQ(ReadEvtCircularU32(file, EvtCircularOffset(1948, first.size() - 4, 2048)), 0xDEADBEEFu);
  SetLeadingLength(file, layout, 0, 8);
  EXPECT_EQ(U32(file, 1948), 8u);
}

// evtexport (libevt-utils), run as a black box, reads what the writer builds.
TEST(EvtWriterFile, EvtexportReadsTheFile) {
  if (std::system("command -v evtexport > /dev/null 2>&1") != 0)
    GTEST_SKIP() << "evtexport is not installed";
  fs::path dir = ScratchDir();
  for (bool wrap : {false, true}) {
    TEvtFileOptions options;
    if (wrap) {
      options.FileSize = 8192;
      options.StartOffset = 8000;
      options.Flags = EvtFlagWrapped;
    }
    fs::path path = dir / (wrap ? "wrapped.evt" : "plain.evt");
    WriteFileBytes(path, BuildEvtFile(Samples(12), options));
    fs::path out = dir / "export.txt";
    std::string command = std::string("evtexport '").append(path.string()).append("' > '").append(out.string());
    command.append("' 2>&1");
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    std::vector<uint8_t> text = ReadFileBytes(out);
    std::string exported(text.begin(), text.end());
    size_t count = 0;
    for (size_t at = exported.find("Event number"); at != std::string::npos; at = exported.find("Event number", at + 1))
      ++count;
    EXPECT_EQ(count, 12u) << (wrap ? "wrapped" : "plain") << "\n" << exported.substr(0, 2000);
    EXPECT_NE(exported.find("Sample record 11"), std::string::npos);
    EXPECT_NE(exported.find("Service Control Manager"), std::string::npos);
  }
}

} // namespace
} // namespace qvx
