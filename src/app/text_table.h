// Text tables for the terminal and for pipes: columns sized from the first screenful of
// rows, always aligned, values that do not fit cut with an ellipsis.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace qvx::app {

// Display columns of UTF-8 text: East Asian wide and fullwidth characters take two,
// combining marks and zero-width characters none, everything else one.
size_t DisplayColumns(std::string_view AText);

// AText cut or padded to AWidth display columns; a cut ends with "…". Control characters
// (line breaks inside a value) become blanks so that a row stays one line. With ACut
// false a longer text is written whole.
void AppendCell(std::string& AOut, std::string_view AText, size_t AWidth, bool ARight, bool ACut = true);

// The rows of a listing as lines: every column but the last as wide as its widest value
// in all rows, nothing cut (names are copied from listings), AIndent before each line.
std::string AlignedRows(const std::vector<std::vector<std::string>>& ARows, std::string_view AIndent = "  ");

struct TTableColumn {
  std::string_view Header;
  bool Right = false;   // numbers are right-aligned
  unsigned Weight = 0;  // 0: as wide as its widest value; else it shares what is left by weight
  unsigned DropRank = 0; // on a narrow terminal: 1 goes first, then 2, ...; 0 never goes
};

// Rows are held back until a screenful is there (or Finish), then the column widths are
// set from the header and those rows, and every row from then on is cut to them.
class TTextTable {
public:
  // AOut receives the text. AWidth is the width to fit (0: none; a column is then as wide as
  // its widest value in the first screenful, at most kMaxPipedWidth).
  TTextTable(std::string& AOut, std::vector<TTableColumn> AColumns, unsigned AWidth, size_t AScreenRows = 50);

  // One cell per column. APrefix and ASuffix enclose the row (colour codes); ANote, when
  // not empty, is a line indented under the row, cut to the width.
  void AddRow(std::initializer_list<std::string_view> ACells, std::string_view APrefix = {},
              std::string_view ASuffix = {}, std::string_view ANote = {});
  // Writes the rows still held back (and the header, when nothing was written yet).
  void Finish();

  // The widths chosen (0: the column was dropped); empty until the layout is made.
  const std::vector<size_t>& Widths() const { return FWidths; }

  static constexpr size_t kMaxPipedWidth = 60;

private:
  struct THeldRow {
    std::vector<std::string> Cells;
    std::string Prefix, Suffix, Note;
  };
  void Layout();
  void Write(const std::vector<std::string_view>& ACells, std::string_view APrefix, std::string_view ASuffix,
             std::string_view ANote);

  std::string& FOut;
  std::vector<TTableColumn> FColumns;
  unsigned FWidth;
  size_t FScreenRows;
  std::vector<THeldRow> FHeld;
  std::vector<size_t> FWidths;
  std::vector<std::string_view> FScratch;
};

} // namespace qvx::app
