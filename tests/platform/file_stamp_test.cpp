// Listing files with their stamps: the files a recursive walk finds, with the stamps
// ReadFileStamp gives them.
#include "platform/file_stamp.h"

#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace qvx::test {
namespace {

namespace fs = std::filesystem;

void WriteText(const fs::path& APath, const std::string& AText) {
  std::ofstream out(APath, std::ios::binary | std::ios::trunc);
  out << AText;
}

TEST(ListStampedFiles, FindsFilesByExtensionSortedWithTheirStamps) {
  const fs::path dir = ScratchDir() / "rules";
  fs::create_directories(dir / "b" / "deep");
  fs::create_directories(dir / "a");
  WriteText(dir / "z.yml", "z");
  WriteText(dir / "a" / "one.YAML", "one");
  WriteText(dir / "b" / "deep" / "two.yml", "two!");
  WriteText(dir / "notes.txt", "not a rule");
  WriteText(dir / ".yml", "no extension: the name is all dot and stem");
  fs::create_directories(dir / "folder.yml"); // a folder, whatever its name
  std::error_code error;
  fs::create_symlink(dir / "z.yml", dir / "link.yml", error); // a link to a file is a file
  const bool links = !error;
  fs::create_directory_symlink(dir / "b", dir / "c", error); // a link to a folder is not followed

  std::vector<TStampedFile> files;
  std::string why;
  ASSERT_TRUE(ListStampedFiles(dir.string(), {".yml", ".yaml"}, files, why)) << why;
  std::vector<std::string> paths;
  for (const TStampedFile& file : files) paths.push_back(file.Path);
  std::vector<std::string> expected{(dir / "a" / "one.YAML").string(), (dir / "b" / "deep" / "two.yml").string()};
  if (links) expected.push_back((dir / "link.yml").string());
  expected.push_back((dir / "z.yml").string());
  EXPECT_EQ(paths, expected);
  for (const TStampedFile& file : files) {
    TFileStamp stamp;
    const bool stamped = ReadFileStamp(file.Path, stamp);
    EXPECT_EQ(file.Stamped, stamped) << file.Path;
    if (stamped) {
      EXPECT_EQ(file.Stamp, stamp) << file.Path;
    }
  }
}

// Folders read by several threads give the same list as one thread: a wide and deep
// tree (folders added while others are read, some empty, one unreadable when not root).
TEST(ListStampedFiles, SeveralThreadsListTheSameFiles) {
  const fs::path dir = ScratchDir() / "many";
  std::vector<std::string> expected;
  for (int a = 0; a < 12; ++a)
    for (int b = 0; b < 6; ++b) {
      const fs::path folder = dir / ("f" + std::to_string(a)) / ("g" + std::to_string(b)) / (b % 2 ? "deep" : "");
      fs::create_directories(folder);
      for (int c = 0; c < a % 4; ++c) {
        const fs::path file = folder / ("r" + std::to_string(c) + ".yml");
        WriteText(file, std::string(static_cast<size_t>(c + 1), 'x'));
        expected.push_back(file.string());
      }
      WriteText(folder / "skip.txt", "not a rule");
    }
  fs::create_directories(dir / "empty" / "deeper" / "deepest");
  std::sort(expected.begin(), expected.end());
  for (const unsigned threads : {1u, 2u, 3u, 8u}) {
    std::vector<TStampedFile> files;
    std::string why;
    ASSERT_TRUE(ListStampedFiles(dir.string(), {".yml"}, files, why, threads)) << why;
    std::vector<std::string> paths;
    for (const TStampedFile& file : files) {
      paths.push_back(file.Path);
      TFileStamp stamp;
      ASSERT_TRUE(ReadFileStamp(file.Path, stamp));
      EXPECT_EQ(file.Stamp, stamp) << file.Path;
    }
    EXPECT_EQ(paths, expected) << threads << " threads";
  }
  // An unreadable top folder is still an error with several threads.
  std::vector<TStampedFile> files;
  std::string why;
  EXPECT_FALSE(ListStampedFiles((dir / "absent").string(), {".yml"}, files, why, 2));
  EXPECT_FALSE(why.empty());
}

TEST(ListStampedFiles, AMissingFolderIsAnError) {
  std::vector<TStampedFile> files;
  std::string why;
  EXPECT_FALSE(ListStampedFiles((ScratchDir() / "absent").string(), {".yml"}, files, why));
  EXPECT_FALSE(why.empty());
  EXPECT_TRUE(files.empty());
}

} // namespace
} // namespace qvx::test
