#include "imaged/file_search.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "support/hive_writer.h"
#include "support/test_paths.h"

namespace qvx {
namespace {

namespace fs = std::filesystem;

std::span<const uint8_t> Bytes(std::string_view AText) {
  return {reinterpret_cast<const uint8_t*>(AText.data()), AText.size()};
}

std::string WriteScratch(const std::string& AName, const std::vector<uint8_t>& ABytes) {
  fs::path path = test::ScratchDir() / AName;
  test::WriteFileBytes(path, ABytes);
  return path.string();
}

std::string WriteScratch(const std::string& AName, std::string_view AText) {
  return WriteScratch(AName, std::vector<uint8_t>(AText.begin(), AText.end()));
}

// Every occurrence the search reports, in order.
std::vector<uint64_t> AllMatches(TTFileSearch& ASearch, std::span<const uint8_t> APattern, bool AFold = false) {
  std::vector<uint64_t> found;
  if (AFold)
    ASearch.IInit(APattern, 0);
  else
    ASearch.Init(APattern, 0);
  for (;;) {
    uint64_t offset = AFold ? ASearch.INext() : ASearch.Next();
    if (!ASearch.Found())
      break;
    found.push_back(offset);
  }
  return found;
}

// Leftmost occurrences, each search going on behind the previous occurrence.
std::vector<uint64_t> NaiveMatches(const std::vector<uint8_t>& AText, std::span<const uint8_t> APattern) {
  std::vector<uint64_t> found;
  size_t i = 0;
  while (!APattern.empty() && i + APattern.size() <= AText.size()) {
    if (std::equal(APattern.begin(), APattern.end(), AText.begin() + static_cast<ptrdiff_t>(i))) {
      found.push_back(i);
      i += APattern.size();
    } else {
      ++i;
    }
  }
  return found;
}

// ---- Block size ------------------------------------------------------------------------

TEST(FileSearchBlocks, SmallBufferSizeGivesTheDefaultBlock) {
  std::string path = WriteScratch("big.bin", std::vector<uint8_t>(100000, 0x11));
  TTFileSearch search(path, 4096);
  EXPECT_EQ(search.BlockSize(), 35533u);
  EXPECT_EQ(search.FileSize(), 100000u);
  TTFileSearch large(path, 0x10000);
  EXPECT_EQ(large.BlockSize(), 0x10000u);
}

TEST(FileSearchBlocks, BlockIsCutToASmallerFile) {
  std::string path = WriteScratch("small.bin", std::string_view("abcdef"));
  TTFileSearch search(path, 4096);
  EXPECT_EQ(search.BlockSize(), 6u);
  uint8_t buffer[3] = {};
  EXPECT_EQ(search.ReadAt(4, buffer, sizeof(buffer)), 2u);
  EXPECT_EQ(buffer[0], 'e');
}

TEST(FileSearchBlocks, MissingFileRaises) {
  EXPECT_ANY_THROW(TTFileSearch((test::ScratchDir() / "absent.bin").string(), 0));
}

// ---- Matches ---------------------------------------------------------------------------

TEST(FileSearchMatches, OccurrenceStraddlingTwoBlocksIsFoundOnce) {
  std::vector<uint8_t> text(35533 * 2 + 100, '.');
  const std::string_view pattern = "LfLeLfLe";
  std::copy(pattern.begin(), pattern.end(), text.begin() + 35533 - 3); // 3 bytes in block 0
  TTFileSearch search(WriteScratch("straddle.bin", text), 0);
  EXPECT_EQ(AllMatches(search, Bytes(pattern)), std::vector<uint64_t>{35533 - 3});
  EXPECT_EQ(search.MatchCount(), 1u);
}

TEST(FileSearchMatches, OverlappingOccurrencesAreNotReported) {
  TTFileSearch search(WriteScratch("aaa.bin", std::string_view("AAA")), 0);
  EXPECT_EQ(AllMatches(search, Bytes("AA")), std::vector<uint64_t>{0});
  // Also where the carried bytes of a block would overlap the match ending the block.
  std::vector<uint8_t> text(35533 * 2, 'A');
  TTFileSearch blocks(WriteScratch("aaa_blocks.bin", text), 0);
  std::vector<uint8_t> pattern(7, 'A');
  EXPECT_EQ(AllMatches(blocks, pattern), NaiveMatches(text, pattern));
}

TEST(FileSearchMatches, MatchAtOffsetZeroSetsTheFlag) {
  TTFileSearch search(WriteScratch("zero.bin", std::string_view("LfLe and more")), 0);
  search.Init(Bytes("LfLe"), 0);
  EXPECT_EQ(search.Next(), 0u);
  EXPECT_TRUE(search.Found());
  EXPECT_EQ(search.Next(), 0u);
  EXPECT_FALSE(search.Found());
  EXPECT_EQ(search.MatchCount(), 1u);
}

TEST(FileSearchMatches, NothingInAFileShorterThanThePatternOrForAnEmptyPattern) {
  TTFileSearch search(WriteScratch("short.bin", std::string_view("LfL")), 0);
  EXPECT_TRUE(AllMatches(search, Bytes("LfLe")).empty());
  EXPECT_TRUE(AllMatches(search, Bytes("")).empty());
  TTFileSearch empty(WriteScratch("empty.bin", std::string_view("")), 0);
  EXPECT_TRUE(AllMatches(empty, Bytes("x")).empty());
}

TEST(FileSearchMatches, AgreesWithANaiveSearchOverManyBlocks) {
  std::mt19937 random(20240311);
  std::vector<uint8_t> text(35533 * 7 + 1234);
  for (uint8_t& byte : text)
    byte = static_cast<uint8_t>(random() % 4); // few symbols: many partial matches
  for (size_t length : {1u, 2u, 3u, 4u, 7u, 8u, 13u, 16u}) {
    std::vector<uint8_t> pattern(length);
    for (uint8_t& byte : pattern)
      byte = static_cast<uint8_t>(random() % 4);
    pattern.back() = 9; // a byte the noise lacks, so the planted ones dominate
    std::vector<uint8_t> planted = text;
    for (size_t at : {size_t{0}, size_t{35533} - length / 2, size_t{35533} * 3 - 1, planted.size() - length})
      std::copy(pattern.begin(), pattern.end(), planted.begin() + static_cast<ptrdiff_t>(at));
    for (int k = 0; k < 300; ++k) {
      size_t at = random() % (planted.size() - length);
      std::copy(pattern.begin(), pattern.end(), planted.begin() + static_cast<ptrdiff_t>(at));
    }
    std::string path = WriteScratch("random.bin", planted);
    TTFileSearch search(path, 0);
    std::vector<uint64_t> expected = NaiveMatches(planted, pattern);
    EXPECT_EQ(AllMatches(search, pattern), expected) << "length " << length;
    EXPECT_EQ(search.MatchCount(), expected.size());
    std::vector<uint8_t> noise = pattern;
    noise.back() = 3;
    EXPECT_EQ(AllMatches(search, noise), NaiveMatches(planted, noise)) << "noise length " << length;
  }
}

TEST(FileSearchMatches, StartsAtTheGivenPosition) {
  TTFileSearch search(WriteScratch("start.bin", std::string_view("xyxyxy")), 0);
  search.Init(Bytes("xy"), 1);
  EXPECT_EQ(search.Next(), 2u);
  EXPECT_EQ(search.Next(), 4u);
  EXPECT_EQ(search.Next(), 0u);
  EXPECT_FALSE(search.Found());
}

// ---- Case ------------------------------------------------------------------------------

TEST(FileSearchCase, IInitIgnoresTheCaseOfAsciiAndCodePage1252Letters) {
  // "Ärger" in code page 1252 (0xC4 = Ä, 0xE4 = ä), then "ŠKODA" with 0x8A = Š.
  std::string text = "x \xE4rGER y \xC4RGER z \x9Akoda";
  TTFileSearch search(WriteScratch("case.bin", text), 0);
  EXPECT_EQ(AllMatches(search, Bytes("\xC4rger"), true), (std::vector<uint64_t>{2, 10}));
  EXPECT_EQ(AllMatches(search, Bytes("\x8AKODA"), true), std::vector<uint64_t>{18});
  EXPECT_EQ(AllMatches(search, Bytes("\xC4rger"), false), std::vector<uint64_t>{});
  // The multiplication sign is no letter.
  TTFileSearch sign(WriteScratch("sign.bin", std::string_view("a\xF7" "b")), 0);
  EXPECT_TRUE(AllMatches(sign, Bytes("\xD7"), true).empty());
}

} // namespace
} // namespace qvx
