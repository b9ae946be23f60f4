#include "platform/raw_file.h"

#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace qvx {
namespace {

// A second handle reads the same bytes as the first, also once the name has moved on
// to another file (it is the file that was opened, not whatever the name leads to now).
TEST(RawFile, OpenAgainReadsTheFileThatWasOpened) {
  const auto dir = test::ScratchDir();
  const auto path = dir / "log.bin";
  std::string bytes(200000, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  TRawFile file = TRawFile::Open(path.string());
  std::filesystem::rename(path, dir / "moved.bin");
  std::ofstream(path, std::ios::binary) << "another file";

  auto again = file.OpenAgain();
#if defined(__linux__)
  ASSERT_NE(again, nullptr);
#endif
  if (!again) GTEST_SKIP() << "no second handle on this system";
  EXPECT_EQ(again->Size(), bytes.size());
  EXPECT_EQ(again->Path(), file.Path());
  std::string read(1000, '\0');
  EXPECT_EQ(again->ReadAt(150000, read.data(), read.size()), read.size());
  EXPECT_EQ(read, bytes.substr(150000, 1000));
  EXPECT_EQ(again->ReadAt(bytes.size() - 10, read.data(), read.size()), 10u); // short only at the end
  file.Close();
  EXPECT_EQ(again->ReadAt(0, read.data(), 3), 3u); // each handle stands alone
  EXPECT_EQ(read.substr(0, 3), bytes.substr(0, 3));
}

} // namespace
} // namespace qvx
