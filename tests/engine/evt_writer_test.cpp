// The .evt fixture writer against the format: a wrapped area split at the end of the file,
// and the peer reader reading what it writes.
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
