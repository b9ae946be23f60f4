// Writing event records as a table, CSV, JSON Lines or XML.
//
// Every writer streams: one record in, its text appended to a buffer that is flushed
// to the file whenever it passes 256 KB. Nothing of the log is kept.
#pragma once

#include "engine/event_log_x.h"
#include "engine/event_row.h"
#include "platform/text_escape.h"
#include "view/color_codes.h"

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace qvx::app {

enum class TOutputFormat { ofTable, ofCsv, ofJsonl, ofXml };

class TEventWriter {
public:
  virtual ~TEventWriter();
  virtual void Begin() {}
  virtual void Write(TEventItemX& AItem) = 0;
  // The same for an event viewed as a row; only the CSV and JSON Lines writers take
  // rows (the others raise std::logic_error).
  virtual void WriteRow(const TEventRow& ARow);
  // Writes what is left; false when writing to the file failed at any point.
  bool Finish();
  // For a writer made without a file (AOut null), which only collects text: hands the
  // events written since the last call over in AText, and starts afresh.
  void TakeText(std::string& AText) {
    AText.swap(FBuffer);
    FBuffer.clear();
  }
  // Writes text that a writer of the same format handed over (TakeText), as it is.
  void WriteText(const std::string& AText);

protected:
  explicit TEventWriter(std::FILE* AOut) : FOut(AOut) {}
  virtual void End() {}
  void FlushIfFull() {
    if (FOut && FBuffer.size() >= kFlushSize) Flush();
  }
  void Flush();

  std::FILE* FOut;
  std::string FBuffer;
  bool FFailed = false;
  static constexpr size_t kFlushSize = 256 * 1024;
  static constexpr size_t kDirectSize = 16 * 1024; // WriteText's text from here on skips the buffer
};

// How the table paints its rows: the color codes (null: none) and whether the terminal
// takes 24-bit colours (else the 256-colour palette is used).
struct TRowColors {
  const TColorCodes* Codes = nullptr;
  bool TrueColor = false;
};

// ATableWidth: the width the table must fit (0 = no limit, columns are padded but never cut).
// ADescriptions: the table shows the first line of each found description under its row.
std::unique_ptr<TEventWriter> MakeEventWriter(TOutputFormat AFormat, std::FILE* AOut, unsigned ATableWidth,
                                              bool ADescriptions = false, const TRowColors& AColors = {});
// The terminal escape that starts a row painted with ACode.
void AppendColorStart(std::string& AOut, const TColorCode& ACode, bool ATrueColor);

// "2024-03-11 10:20:30.123" for a day count.
void AppendDayCountText(std::string& AOut, double ADays, char ASeparator = ' ');
// "+01:00", "-05:30" or "Z" for an offset in minutes.
void AppendOffsetText(std::string& AOut, int AMinutes);
using qvx::AppendCsvField;
using qvx::AppendJsonString;
// The description of an event for output: empty when no description was found (the
// data values stand in the data column instead).
std::string_view DescriptionText(const TEventItemX& AItem);

} // namespace qvx::app
