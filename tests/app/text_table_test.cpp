// The text table: columns stay aligned whatever the values, sized from the first screenful,
// cut with an ellipsis, and narrow terminals drop the least needed columns.
#include "app/text_table.h"

#include <gtest/gtest.h>

#include <sstream>

namespace qvx::app {
namespace {

std::vector<std::string> Lines(const std::string& AText) {
  std::vector<std::string> out;
  std::istringstream in(AText);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

// Display column at which each of the given cells starts in every line (all must agree).
std::vector<size_t> Starts(const std::string& ALine, const std::vector<std::string>& ACells) {
  std::vector<size_t> starts;
  size_t from = 0;
  for (const std::string& cell : ACells) {
    const size_t at = ALine.find(cell, from);
    if (at == std::string::npos) return {};
    starts.push_back(DisplayColumns(ALine.substr(0, at)));
    from = at + cell.size();
  }
  return starts;
}

const std::vector<TTableColumn> kColumns = {{"Time"}, {"ID", true}, {"Source", false, 3}, {"User", false, 2, 1}};

TEST(TextTable, PipedColumnsAlignWhateverTheWidthOfTheValues) {
  std::string out;
  TTextTable t(out, kColumns, 0, 3);
  t.AddRow({"09:00", "1", "Short", "a"});
  t.AddRow({"09:01", "4624", "Microsoft-Windows-Security-Auditing", "bob"});
  t.AddRow({"09:02", "7", "日本語のソース", "карл"}); // wide and non-Latin text
  // After the first screenful: longer than any before, so it is cut.
  t.AddRow({"09:03", "123456", std::string(80, 'x'), std::string(70, 'y')});
  t.Finish();
  const auto lines = Lines(out);
  ASSERT_EQ(lines.size(), 5u);
  const auto header = Starts(lines[0], {"Time", "ID", "Source", "User"});
  EXPECT_EQ(Starts(lines[2], {"09:01", "4624", "Microsoft", "bob"}), (std::vector<size_t>{0, 7, 13, 50}));
  EXPECT_EQ(header, (std::vector<size_t>{0, 9, 13, 50}));
  EXPECT_EQ(Starts(lines[3], {"09:02", "7", "日本語", "карл"}), (std::vector<size_t>{0, 10, 13, 50})) << out;
  // The late row is cut to the widths of the first screenful and ends with an ellipsis.
  EXPECT_EQ(Starts(lines[4], {"09:03", "123", "xxx", "yyy"}), (std::vector<size_t>{0, 7, 13, 50})) << out;
  EXPECT_NE(lines[4].find("x\xE2\x80\xA6"), std::string::npos);
  EXPECT_EQ(DisplayColumns(lines[4]), 50u + 4u); // User is 4 wide: "yyy…"
}

TEST(TextTable, NarrowTerminalDropsColumnsThenCuts) {
  std::string out;
  TTextTable t(out, kColumns, 30);
  t.AddRow({"09:00", "4624", "Microsoft-Windows-Security-Auditing", "someone"});
  t.Finish();
  const auto lines = Lines(out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].find("User"), std::string::npos); // dropped first
  for (const auto& line : lines) EXPECT_LE(DisplayColumns(line), 30u) << line;
  EXPECT_NE(lines[1].find("\xE2\x80\xA6"), std::string::npos);
}

TEST(TextTable, CellsAreOneLineAndWideCharactersCountTwice) {
  EXPECT_EQ(DisplayColumns("abc"), 3u);
  EXPECT_EQ(DisplayColumns("日本"), 4u);
  EXPECT_EQ(DisplayColumns("e\xCC\x81"), 1u); // e + combining acute
  std::string cell;
  AppendCell(cell, "a\r\nb", 5, false);
  EXPECT_EQ(cell, "a  b ");
  cell.clear();
  AppendCell(cell, "日本語", 4, false); // 6 columns into 4: one wide character, the ellipsis, a pad
  EXPECT_EQ(cell, "日\xE2\x80\xA6 ");
  cell.clear();
  AppendCell(cell, "42", 5, true);
  EXPECT_EQ(cell, "   42");
}

TEST(TextTable, EmptyTableStillHasItsHeaderAndNotesAreIndented) {
  std::string out;
  {
    TTextTable t(out, kColumns, 0);
    t.Finish();
  }
  EXPECT_EQ(out, "Time  ID  Source  User\n");
  out.clear();
  TTextTable t(out, kColumns, 40);
  t.AddRow({"09:00", "1", "S", "u"}, "<", ">", "A description that is longer than the forty columns of it");
  t.Finish();
  const auto lines = Lines(out);
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1].front(), '<');
  EXPECT_EQ(lines[2].rfind("    A description", 0), 0u);
  EXPECT_EQ(lines[2].back(), '>');
  EXPECT_LE(DisplayColumns(lines[2]), 41u);
}

TEST(TextTable, ListingRowsAlignEveryColumnAndCutNothing) {
  const std::string out = AlignedRows({{"Application", "Microsoft-Windows-A", "a.dll"},
                                       {"Microsoft-Windows-TerminalServices-RemoteConnectionManager/Admin", "B",
                                        "b.dll"},
                                       {"\xE6\x97\xA5\xE6\x9C\xAC", "C", "c.dll"}}); // two wide characters
  const auto lines = Lines(out);
  ASSERT_EQ(lines.size(), 3u);
  // The last column starts at the same display column on every line.
  auto lastColumn = [](const std::string& ALine) { return DisplayColumns(ALine.substr(0, ALine.find(".dll") - 1)); };
  for (const std::string& line : lines) {
    EXPECT_EQ(line.rfind("  ", 0), 0u);
    EXPECT_EQ(lastColumn(line), lastColumn(lines[0])) << line;
  }
  EXPECT_NE(lines[1].find("RemoteConnectionManager/Admin"), std::string::npos);
  EXPECT_EQ(out.find("\xE2\x80\xA6"), std::string::npos);
}

} // namespace
} // namespace qvx::app
