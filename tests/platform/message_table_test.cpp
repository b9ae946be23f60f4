#include "platform/message_table.h"

#include "platform/pe_resources.h"
#include "support/pe_writer.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>

namespace qvx {
namespace {

using test::AnsiEntry;
using test::BuildMessageTable;
using test::TMessageBlockFixture;
using test::UnicodeEntry;

std::string Lookup(const std::vector<uint8_t>& ATable, uint32_t AId) {
  std::string text, error;
  return TMessageTable(ATable).Find(AId, text, &error) ? text : error;
}

// Blocks 1..3 (ANSI), 0x100..0x101 (Unicode) and 0xC0000010 (mixed), as mc writes them.
std::vector<uint8_t> SampleTable() {
  return BuildMessageTable({
      {1, 3, {AnsiEntry("one"), AnsiEntry("two %1"), AnsiEntry("three\r\n")}, {}},
      {0x100, 0x101, {UnicodeEntry(u"wide \u00FC\u20AC"), UnicodeEntry(u"line 1\r\nline 2\r\n")}, {}},
      {0xC0000010, 0xC0000010, {AnsiEntry("\x80 \xE9")}, {}},
  });
}

TEST(MessageTableLookup, FindsMessagesInEveryBlock) {
  auto table = SampleTable();
  EXPECT_EQ(TMessageTable(table).Blocks().size(), 3u);
  EXPECT_EQ(Lookup(table, 1), "one");
  EXPECT_EQ(Lookup(table, 2), "two %1");
  EXPECT_EQ(Lookup(table, 0x101), "line 1\r\nline 2\r\n");
  EXPECT_EQ(Lookup(table, 0xC0000010), "\xE2\x82\xAC \xC3\xA9");
}

TEST(MessageTableLookup, AnsiIsCodePage1252AndUnicodeIsUtf16) {
  auto table = SampleTable();
  EXPECT_EQ(Lookup(table, 0x100), "wide \xC3\xBC\xE2\x82\xAC");
  EXPECT_EQ(Lookup(table, 0xC0000010), "\xE2\x82\xAC \xC3\xA9"); // 0x80 is the euro sign
}

TEST(MessageTableLookup, CrLfKeptAndTrailingNulsRemoved) {
  auto table = BuildMessageTable({{7, 8, {AnsiEntry(std::string_view("a\r\n\0\0\0\0\0", 8)), UnicodeEntry(u"b\r\n")}, {}}});
  EXPECT_EQ(Lookup(table, 7), "a\r\n");
  EXPECT_EQ(Lookup(table, 8), "b\r\n");
  auto inner = BuildMessageTable({{1, 1, {AnsiEntry(std::string_view("a\0b", 3))}, {}}});
  EXPECT_EQ(Lookup(inner, 1), std::string("a\0b", 3)); // only trailing NULs go
}

TEST(MessageTableLookup, IdsOutsideEveryBlockAreNotFound) {
  auto table = SampleTable();
  EXPECT_EQ(Lookup(table, 0), "message table: message 0x0 is in no block");
  EXPECT_EQ(Lookup(table, 4), "message table: message 0x4 is in no block");
  EXPECT_EQ(Lookup(table, 0xFF), "message table: message 0xFF is in no block");
  EXPECT_EQ(Lookup(table, 0x102), "message table: message 0x102 is in no block");
  EXPECT_EQ(Lookup({}, 1), "message table: message 0x1 is in no block");
}

TEST(MessageTableLookup, ForEachVisitsEveryMessageInBlockOrder) {
  auto table = SampleTable();
  std::map<uint32_t, std::string> seen;
  std::vector<uint32_t> order;
  TMessageTable(table).ForEach([&](uint32_t AId, const std::string& AText) {
    seen[AId] = AText;
    order.push_back(AId);
  });
  EXPECT_EQ(order, (std::vector<uint32_t>{1, 2, 3, 0x100, 0x101, 0xC0000010}));
  EXPECT_EQ(seen[3], "three\r\n");
}

TEST(MessageTableDamage, ShortEntryEndsTheWalk) {
  auto zero = AnsiEntry("x");
  zero.Length = 0;
  auto three = AnsiEntry("x");
  three.Length = 3;
  auto table = BuildMessageTable({{1, 3, {AnsiEntry("one"), zero, AnsiEntry("three")}, {}}});
  EXPECT_EQ(Lookup(table, 1), "one");
  EXPECT_EQ(Lookup(table, 2), "message table: message 0x2: entry shorter than its header at offset 0x18");
  EXPECT_EQ(Lookup(table, 3), "message table: message 0x3: entry shorter than its header at offset 0x18");
  table = BuildMessageTable({{1, 2, {three, AnsiEntry("two")}, {}}});
  EXPECT_EQ(Lookup(table, 2), "message table: message 0x2: entry shorter than its header at offset 0x10");
  int visited = 0;
  TMessageTable(table).ForEach([&](uint32_t, const std::string&) { ++visited; });
  EXPECT_EQ(visited, 0);
}

TEST(MessageTableDamage, EntriesPastTheEndAreNotRead) {
  auto big = AnsiEntry("one");
  big.Length = 0x400;
  auto table = BuildMessageTable({{1, 2, {big}, {}}});
  EXPECT_EQ(Lookup(table, 1), "message table: message 0x1: entry runs past the resource at offset 0x10");
  table = BuildMessageTable({{1, 5, {AnsiEntry("one")}, {}}}); // HighId promises more than is there
  EXPECT_EQ(Lookup(table, 1), "one");
  EXPECT_EQ(Lookup(table, 2), "message table: message 0x2: entry runs past the resource at offset 0x18");
  table = BuildMessageTable({{1, 1, {}, 0xFFFFFFF0}});
  EXPECT_EQ(Lookup(table, 1), "message table: message 0x1: entry runs past the resource at offset 0xFFFFFFF0");
}

TEST(MessageTableDamage, UnknownFlagsAreReported) {
  auto odd = AnsiEntry("x");
  odd.Flags = 7;
  auto table = BuildMessageTable({{1, 1, {odd}, {}}});
  EXPECT_EQ(Lookup(table, 1), "message table: message 0x1: entry has unknown flags at offset 0x10");
}

TEST(MessageTableDamage, OverlappingBlocksFirstContainingBlockWins) {
  // Block 2 claims 2..3 but points at block 1's entries: id 2 comes from block 1, and block
  // 2 would have answered "one".
  auto table = BuildMessageTable({{1, 3, {AnsiEntry("one"), AnsiEntry("two"), AnsiEntry("three")}, {}},
                                  {2, 3, {}, 4 + 2 * 12}});
  EXPECT_EQ(Lookup(table, 2), "two");
  EXPECT_EQ(Lookup(table, 3), "three");
  auto reversed = BuildMessageTable({{2, 3, {}, 4 + 2 * 12},
                                     {1, 3, {AnsiEntry("one"), AnsiEntry("two"), AnsiEntry("three")}, {}}});
  EXPECT_EQ(Lookup(reversed, 2), "one");
  EXPECT_TRUE(TMessageTable(table).HasOverlaps());
  EXPECT_FALSE(TMessageTable(SampleTable()).HasOverlaps());
  auto touching = BuildMessageTable({{5, 9, {}, {}}, {1, 4, {}, {}}, {10, 10, {}, {}}});
  EXPECT_FALSE(TMessageTable(touching).HasOverlaps());
  auto inside = BuildMessageTable({{5, 9, {}, {}}, {1, 20, {}, {}}});
  EXPECT_TRUE(TMessageTable(inside).HasOverlaps());
}

TEST(MessageTableDamage, BlocksWithLowAboveHighAreIgnored) {
  auto table = BuildMessageTable({{5, 1, {AnsiEntry("bad")}, {}}, {1, 5, {AnsiEntry("good")}, {}}});
  EXPECT_EQ(TMessageTable(table).Blocks().size(), 1u);
  EXPECT_EQ(Lookup(table, 1), "good");
}

TEST(MessageTableDamage, BlockCountBeyondTheDataKeepsWhatFits) {
  auto table = SampleTable();
  test::PutU32(table, 0, 0xFFFFFFFF);
  TMessageTable t(table);
  EXPECT_LE(t.Blocks().size(), (table.size() - 4) / 12);
  EXPECT_EQ(Lookup(table, 1), "one");
  for (size_t cut = 0; cut < table.size(); ++cut) { // truncated tables: no crash
    std::vector<uint8_t> part(table.begin(), table.begin() + static_cast<std::ptrdiff_t>(cut));
    std::string text;
    if (TMessageTable(part).Find(2, text)) {
      EXPECT_EQ(text, "two %1");
    }
  }
}

TEST(MessageTableDamage, WideBlocksOverSharedEntriesStayBounded) {
  // Many blocks of 2^32 ids each over the same entries: ForEach stops at its entry budget.
  std::vector<TMessageBlockFixture> blocks(64, TMessageBlockFixture{0, 0xFFFFFFFF, {}, 4 + 64 * 12});
  blocks[0].Entries.assign(2000, AnsiEntry("x"));
  auto table = BuildMessageTable(blocks);
  size_t visited = 0;
  TMessageTable(table).ForEach([&](uint32_t, const std::string&) { ++visited; });
  EXPECT_LE(visited, table.size() / 4);
  EXPECT_GE(visited, 2000u);
}

TEST(MessageTableFindMessage, PicksTheLanguageThenTheMessage) {
  test::TPeWriter w;
  w.Add(rtMessageTable, 1, 0x409, BuildMessageTable({{1, 1, {AnsiEntry("english")}, {}}}));
  w.Add(rtMessageTable, 1, 0x407, BuildMessageTable({{1, 1, {UnicodeEntry(u"deutsch")}, {}}}));
  auto image = w.Build();
  std::string text, error;
  ASSERT_TRUE(FindMessage(image, 1, {0x407}, text, &error)) << error;
  EXPECT_EQ(text, "deutsch");
  ASSERT_TRUE(FindMessage(image, 1, {0x40C}, text, &error)) << error;
  EXPECT_EQ(text, "english");
  EXPECT_FALSE(FindMessage(image, 2, {}, text, &error));
  EXPECT_EQ(error, "message table: message 0x2 is in no block");
}

TEST(MessageTableFindMessage, ReportsImagesWithoutATable) {
  test::TPeWriter w;
  w.Add(rtVersion, 1, 0x409, {1, 2, 3});
  auto image = w.Build();
  std::string text, error;
  EXPECT_FALSE(FindMessage(image, 1, {}, text, &error));
  EXPECT_EQ(error, "message table: the image has no message table resource");
  EXPECT_FALSE(FindMessage(std::vector<uint8_t>{'M'}, 1, {}, text, &error));
  EXPECT_EQ(error, "PE: no DOS header (\"MZ\") at file offset 0x0");
}

// Raw message table resources cut from real files.
TEST(MessageTableSamples, RawResourcesDecode) {
  auto files = test::SampleFiles("pe", ".1");
  auto bins = test::SampleFiles("pe", ".bin");
  files.insert(files.end(), bins.begin(), bins.end());
  size_t tables = 0;
  for (const auto& file : files) {
    if (file.filename().string().find("message") == std::string::npos) continue;
    SCOPED_TRACE(file.string());
    std::ifstream in(file, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    TMessageTable table(bytes);
    size_t messages = 0;
    table.ForEach([&](uint32_t AId, const std::string& AText) {
      std::string again;
      EXPECT_TRUE(table.Find(AId, again));
      EXPECT_EQ(again, AText);
      ++messages;
    });
    EXPECT_GT(messages, 0u);
    ++tables;
  }
  if (tables == 0) GTEST_SKIP() << "no raw message table samples";
}

} // namespace
} // namespace qvx
