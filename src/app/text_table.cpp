#include "app/text_table.h"

#include <algorithm>
#include <cstdint>

namespace qvx::app {

namespace {

// Decodes the code point at AText[AAt]; AAt moves past it. A malformed byte is taken as
// one character of its own.
char32_t NextCodePoint(std::string_view AText, size_t& AAt) {
  const unsigned char c = static_cast<unsigned char>(AText[AAt]);
  const size_t length = c < 0x80 ? 1 : (c & 0xE0) == 0xC0 ? 2 : (c & 0xF0) == 0xE0 ? 3 : (c & 0xF8) == 0xF0 ? 4 : 1;
  if (length == 1 || AAt + length > AText.size()) {
    ++AAt;
    return c;
  }
  char32_t cp = c & (0x7F >> length);
  for (size_t i = 1; i < length; ++i) {
    const unsigned char k = static_cast<unsigned char>(AText[AAt + i]);
    if ((k & 0xC0) != 0x80) {
      ++AAt;
      return c;
    }
    cp = (cp << 6) | (k & 0x3F);
  }
  AAt += length;
  return cp;
}

unsigned CodePointColumns(char32_t ACp) {
  if (ACp < 0x300) return 1;
  if ((ACp >= 0x300 && ACp <= 0x36F) || (ACp >= 0x200B && ACp <= 0x200F) || (ACp >= 0xFE00 && ACp <= 0xFE0F) ||
      (ACp >= 0x1AB0 && ACp <= 0x1AFF) || (ACp >= 0x1DC0 && ACp <= 0x1DFF) || (ACp >= 0x20D0 && ACp <= 0x20FF))
    return 0;
  if ((ACp >= 0x1100 && ACp <= 0x115F) || (ACp >= 0x2E80 && ACp <= 0x303E) || (ACp >= 0x3041 && ACp <= 0x33FF) ||
      (ACp >= 0x3400 && ACp <= 0x4DBF) || (ACp >= 0x4E00 && ACp <= 0x9FFF) || (ACp >= 0xA000 && ACp <= 0xA4CF) ||
      (ACp >= 0xAC00 && ACp <= 0xD7A3) || (ACp >= 0xF900 && ACp <= 0xFAFF) || (ACp >= 0xFE30 && ACp <= 0xFE4F) ||
      (ACp >= 0xFF00 && ACp <= 0xFF60) || (ACp >= 0xFFE0 && ACp <= 0xFFE6) || (ACp >= 0x1F300 && ACp <= 0x1F64F) ||
      (ACp >= 0x1F900 && ACp <= 0x1F9FF) || (ACp >= 0x20000 && ACp <= 0x3FFFD))
    return 2;
  return 1;
}

void AppendVisible(std::string& AOut, std::string_view AText) {
  for (char c : AText) AOut += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
}

} // namespace

size_t DisplayColumns(std::string_view AText) {
  size_t n = 0;
  for (size_t at = 0; at < AText.size();) n += CodePointColumns(NextCodePoint(AText, at));
  return n;
}

void AppendCell(std::string& AOut, std::string_view AText, size_t AWidth, bool ARight, bool ACut) {
  const size_t columns = DisplayColumns(AText);
  if (columns > AWidth && ACut) {
    // Keep what fits in AWidth - 1 columns, then the ellipsis; pad when a wide character
    // left one column over.
    size_t at = 0, kept = 0;
    while (at < AText.size()) {
      size_t next = at;
      const unsigned w = CodePointColumns(NextCodePoint(AText, next));
      if (kept + w > AWidth - (AWidth ? 1 : 0)) break;
      kept += w;
      at = next;
    }
    if (AWidth == 0) return;
    AppendVisible(AOut, AText.substr(0, at));
    AOut += "\xE2\x80\xA6";
    AOut.append(AWidth - 1 - kept, ' ');
    return;
  }
  const size_t pad = columns < AWidth ? AWidth - columns : 0;
  if (ARight) AOut.append(pad, ' ');
  AppendVisible(AOut, AText);
  if (!ARight) AOut.append(pad, ' ');
}

std::string AlignedRows(const std::vector<std::vector<std::string>>& ARows, std::string_view AIndent) {
  std::vector<size_t> widths;
  for (const auto& row : ARows) {
    if (widths.size() < row.size()) widths.resize(row.size());
    for (size_t i = 0; i + 1 < row.size(); ++i) widths[i] = std::max(widths[i], DisplayColumns(row[i]));
  }
  std::string out;
  for (const auto& row : ARows) {
    out += AIndent;
    for (size_t i = 0; i < row.size(); ++i) {
      if (i + 1 < row.size()) {
        AppendCell(out, row[i], widths[i], false, false);
        out += "  ";
      } else {
        AppendVisible(out, row[i]);
      }
    }
    out += '\n';
  }
  return out;
}

TTextTable::TTextTable(std::string& AOut, std::vector<TTableColumn> AColumns, unsigned AWidth, size_t AScreenRows)
    : FOut(AOut), FColumns(std::move(AColumns)), FWidth(AWidth), FScreenRows(std::max<size_t>(1, AScreenRows)) {}

void TTextTable::AddRow(std::initializer_list<std::string_view> ACells, std::string_view APrefix,
                        std::string_view ASuffix, std::string_view ANote) {
  if (FWidths.empty()) {
    THeldRow row;
    row.Cells.assign(ACells.begin(), ACells.end());
    row.Cells.resize(FColumns.size());
    row.Prefix = APrefix;
    row.Suffix = ASuffix;
    row.Note = ANote;
    FHeld.push_back(std::move(row));
    if (FHeld.size() >= FScreenRows) Finish();
    return;
  }
  FScratch.assign(ACells.begin(), ACells.end());
  FScratch.resize(FColumns.size());
  Write(FScratch, APrefix, ASuffix, ANote);
}

void TTextTable::Finish() {
  if (FWidths.empty()) {
    Layout();
    FScratch.clear();
    for (const TTableColumn& c : FColumns) FScratch.push_back(c.Header);
    Write(FScratch, {}, {}, {});
  }
  for (const THeldRow& row : FHeld) {
    FScratch.assign(row.Cells.begin(), row.Cells.end());
    Write(FScratch, row.Prefix, row.Suffix, row.Note);
  }
  FHeld.clear();
  FHeld.shrink_to_fit();
}

void TTextTable::Layout() {
  const size_t n = FColumns.size();
  std::vector<size_t> natural(n);
  for (size_t i = 0; i < n; ++i) {
    natural[i] = DisplayColumns(FColumns[i].Header);
    for (const THeldRow& row : FHeld) natural[i] = std::max(natural[i], DisplayColumns(row.Cells[i]));
    if (FColumns[i].Weight && !FWidth) natural[i] = std::min(natural[i], kMaxPipedWidth);
  }
  FWidths = natural;
  if (!FWidth) return;
  std::vector<bool> shown(n, true);
  unsigned maxRank = 0;
  for (const TTableColumn& c : FColumns) maxRank = std::max(maxRank, c.DropRank);
  for (unsigned dropped = 0;; ++dropped) {
    size_t fixed = 0, wanted = 0, visible = 0;
    unsigned weights = 0, flexShown = 0;
    for (size_t i = 0; i < n; ++i) {
      if (!shown[i]) continue;
      ++visible;
      if (FColumns[i].Weight) {
        wanted += natural[i];
        weights += FColumns[i].Weight;
        ++flexShown;
      } else {
        fixed += natural[i];
      }
    }
    const size_t separators = visible ? 2 * (visible - 1) : 0;
    const size_t rest = FWidth > fixed + separators ? FWidth - fixed - separators : 0;
    if (wanted <= rest || rest >= 10 * flexShown || dropped >= maxRank) {
      // Columns that want less than their share keep what they want; the others share
      // what remains by weight.
      std::vector<bool> settled(n, false);
      size_t left = rest;
      for (bool changed = true; changed;) {
        changed = false;
        for (size_t i = 0; i < n; ++i) {
          if (!shown[i] || !FColumns[i].Weight || settled[i] || !weights) continue;
          if (natural[i] * weights <= left * FColumns[i].Weight) {
            settled[i] = true;
            left -= natural[i];
            weights -= FColumns[i].Weight;
            changed = true;
          }
        }
      }
      for (size_t i = 0; i < n; ++i) {
        if (!shown[i]) FWidths[i] = 0;
        else if (FColumns[i].Weight && !settled[i])
          FWidths[i] = std::max<size_t>(4, weights ? left * FColumns[i].Weight / weights : 4);
      }
      return;
    }
    for (size_t i = 0; i < n; ++i)
      if (FColumns[i].DropRank == dropped + 1) shown[i] = false;
  }
}

void TTextTable::Write(const std::vector<std::string_view>& ACells, std::string_view APrefix,
                       std::string_view ASuffix, std::string_view ANote) {
  FOut.append(APrefix);
  bool first = true;
  for (size_t i = 0; i < FColumns.size(); ++i) {
    if (!FWidths[i]) continue;
    if (!first) FOut += "  ";
    first = false;
    AppendCell(FOut, ACells[i], FWidths[i], FColumns[i].Right);
  }
  while (!FOut.empty() && FOut.back() == ' ') FOut.pop_back();
  if (!ANote.empty()) {
    FOut += "\n    ";
    AppendCell(FOut, ANote, FWidth > 4 ? FWidth - 4 : ANote.size(), false, FWidth > 4);
    while (!FOut.empty() && FOut.back() == ' ') FOut.pop_back();
  }
  FOut.append(ASuffix); // a colour ends before the line break
  FOut += '\n';
}

} // namespace qvx::app
