#include "app/event_output.h"

#include "app/text_table.h"
#include "engine/event_xml.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

namespace qvx::app {

TEventWriter::~TEventWriter() = default;

void TEventWriter::WriteRow(const TEventRow&) {
  throw std::logic_error("this listing takes no rows");
}

void TEventWriter::Flush() {
  if (!FBuffer.empty() && std::fwrite(FBuffer.data(), 1, FBuffer.size(), FOut) != FBuffer.size()) FFailed = true;
  FBuffer.clear();
}

void TEventWriter::WriteText(const std::string& AText) {
  // A chunk's text (tens of KB) goes to the file as it is, not through the buffer.
  if (AText.size() < kDirectSize && FBuffer.size() + AText.size() < kFlushSize) {
    FBuffer += AText;
    return;
  }
  Flush();
  if (!AText.empty() && std::fwrite(AText.data(), 1, AText.size(), FOut) != AText.size()) FFailed = true;
}

bool TEventWriter::Finish() {
  End();
  Flush();
  if (std::fflush(FOut) != 0) FFailed = true;
  return !FFailed;
}

namespace {

// Writes AValue's digits, zero-padded to AWidth (at most 12), at ADest; returns the end.
char* PutDigits(char* ADest, unsigned AValue, int AWidth) {
  char buf[12];
  char* end = buf + sizeof buf;
  char* p = end;
  do {
    *--p = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  } while (AValue);
  const int width = AWidth < 12 ? AWidth : 12;
  while (end - p < width) *--p = '0';
  while (p < end) *ADest++ = *p++;
  return ADest;
}

// The digits are made in a small buffer and appended in one call.
void AppendDigits(std::string& AOut, unsigned AValue, int AWidth) {
  char buf[12];
  AOut.append(buf, static_cast<size_t>(PutDigits(buf, AValue, AWidth) - buf));
}


// Writers of a row's fixed parts into a small buffer, appended at once.
template <size_t N> inline char* PutLiteral(char* ADest, const char (&AText)[N]) {
  std::memcpy(ADest, AText, N - 1);
  return ADest + N - 1;
}

inline char* PutUnsigned(char* ADest, uint64_t AValue) {
  if (AValue < 10) {
    *ADest = static_cast<char>('0' + AValue);
    return ADest + 1;
  }
  char buf[24];
  char* end = buf + sizeof buf;
  char* p = end;
  do {
    *--p = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  } while (AValue);
  const size_t n = static_cast<size_t>(end - p);
  std::memcpy(ADest, p, n);
  return ADest + n;
}

void AppendUnsigned(std::string& AOut, uint64_t AValue) {
  // Most values (levels, versions, opcodes) are one digit.
  if (AValue < 10) {
    AOut += static_cast<char>('0' + AValue);
    return;
  }
  char buf[24];
  AOut.append(buf, static_cast<size_t>(PutUnsigned(buf, AValue) - buf));
}

// --- table ----------------------------------------------------------------------

class TTableWriter : public TEventWriter {
public:
  // On a narrow terminal the channel, computer, task and user columns give way, in that order.
  TTableWriter(std::FILE* AOut, unsigned AWidth, bool ADescriptions, const TRowColors& AColors)
      : TEventWriter(AOut), FTable(FBuffer,
                                   {{"Time"},
                                    {"Type"},
                                    {"Event ID", true},
                                    {"Source", false, 3},
                                    {"Task", false, 2, 3},
                                    {"User", false, 3, 4},
                                    {"Computer", false, 2, 2},
                                    {"Record", true},
                                    {"Channel", false, 2, 1}},
                                   AWidth),
        FDescriptions(ADescriptions), FColors(AColors) {}

  void Write(TEventItemX& AItem) override {
    FTime.clear();
    AppendDayCountText(FTime, AItem.GetTimeGenerated());
    FId.clear();
    AppendUnsigned(FId, AItem.FEventID);
    FRecord.clear();
    AppendUnsigned(FRecord, AItem.FEventRecordID);
    // The first color code the event satisfies paints its row.
    const TColorCode* code = FColors.Codes ? FColors.Codes->FindColorCode(AItem.FEventType, AItem.FSourceName,
                                                                          AItem.FEventID, std::string(DescriptionText(AItem)))
                                           : nullptr;
    FPrefix.clear();
    if (code) AppendColorStart(FPrefix, *code, FColors.TrueColor);
    FTable.AddRow({FTime, EventTypeName(AItem.FEventType), FId, AItem.FSourceName, AItem.GetCategoryName(),
                   AItem.GetUserName(), AItem.FComputername, FRecord, AItem.FChannel},
                  FPrefix, code ? "\x1b[0m" : "", FDescriptions ? FirstDescriptionLine(AItem) : std::string_view());
    FlushIfFull();
  }

protected:
  void End() override { FTable.Finish(); }

private:
  // The first line of the description, shown indented under its row.
  static std::string_view FirstDescriptionLine(const TEventItemX& AItem) {
    std::string_view text = DescriptionText(AItem);
    text = text.substr(0, text.find_first_of("\r\n"));
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    return text;
  }

  TTextTable FTable;
  bool FDescriptions = false;
  TRowColors FColors;
  std::string FTime, FId, FRecord, FPrefix;
};

// --- CSV ------------------------------------------------------------------------

class TCsvWriter : public TEventWriter {
public:
  explicit TCsvWriter(std::FILE* AOut) : TEventWriter(AOut) {}

  void Begin() override {
    FBuffer += "Time,TimeUTC,Type,Level,EventID,Qualifiers,Version,Task,Opcode,Keywords,Source,Channel,Computer,"
               "User,UserSID,RecordNumber,Description,Data,OpcodeName,KeywordNames\r\n";
  }

  void Write(TEventItemX& AItem) override {
    RowOfItem(AItem, FRow);
    WriteRow(FRow);
  }

  void WriteRow(const TEventRow& ARow) override {
    FField.clear();
    const double local = ARow.Owner ? ARow.Owner->ConvertTime(ARow.TimeGenerated) : ARow.TimeGenerated;
    AppendDayCountText(FField, local);
    FBuffer += FField;
    FBuffer += ',';
    // Shown in UTC the two times are the same text: it is made once.
    if (local != ARow.TimeGenerated) {
      FField.clear();
      AppendDayCountText(FField, ARow.TimeGenerated);
    }
    FBuffer += FField;
    FBuffer += ',';
    AppendCsvField(FBuffer, EventTypeName(ARow.Type));
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.Level);
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.EventId);
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.Qualifiers);
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.Version);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.TaskName);
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.OpCode);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.Keywords);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.Source);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.Channel);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.Computer);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.UserName);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.UserSid);
    FBuffer += ',';
    AppendUnsigned(FBuffer, ARow.RecordId);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.Description);
    FBuffer += ',';
    FField.clear();
    AppendRowValuesJoined(ARow, FField);
    AppendCsvField(FBuffer, FField);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.OpcodeName);
    FBuffer += ',';
    AppendCsvField(FBuffer, ARow.KeywordNames);
    FBuffer += "\r\n";
    FlushIfFull();
  }

private:
  std::string FField;
  TEventRow FRow;
};

// --- JSON Lines -----------------------------------------------------------------

class TJsonlWriter : public TEventWriter {
public:
  explicit TJsonlWriter(std::FILE* AOut) : TEventWriter(AOut) {}

  void Write(TEventItemX& AItem) override {
    RowOfItem(AItem, FRow);
    WriteRow(FRow);
  }

  void WriteRow(const TEventRow& ARow) override {
    const TEventLogBase* owner = ARow.Owner;
    char fixed[192]; // the numbers between the texts, with their names
    char* d = PutLiteral(fixed, "{\"record\":");
    d = PutUnsigned(d, ARow.RecordId);
    d = PutLiteral(d, ",\"time\":\"");
    FBuffer.append(fixed, static_cast<size_t>(d - fixed));
    // The day count carries milliseconds; the 100 ns digits below them come from the
    // event's own time text (the zone offset is whole minutes, so they are the same).
    const unsigned units = static_cast<unsigned>(FractionDigits(ARow.SystemTime, 3, 4));
    const double local = owner ? owner->ConvertTime(ARow.TimeGenerated) : ARow.TimeGenerated;
    char unitsText[12];
    const size_t unitsLength = static_cast<size_t>(PutDigits(unitsText, units, 4) - unitsText);
    // Events often share their millisecond with the one before: the text of a day count
    // is kept for the next event of the same one (equal numbers give equal texts). Shown
    // in UTC the two times are the same text: it is made once.
    if (!FTimesSet || !(local == FLocalDays)) {
      FLocalText.clear();
      AppendDayCountText(FLocalText, local, 'T');
      FLocalDays = local;
    }
    if (!FTimesSet || !(ARow.TimeGenerated == FUtcDays)) {
      if (ARow.TimeGenerated == local) {
        FUtcText = FLocalText;
      } else {
        FUtcText.clear();
        AppendDayCountText(FUtcText, ARow.TimeGenerated, 'T');
      }
      FUtcDays = ARow.TimeGenerated;
    }
    FTimesSet = true;
    FBuffer += FLocalText;
    FBuffer.append(unitsText, unitsLength);
    AppendOffsetText(FBuffer, owner ? owner->ShiftMinutesAt(ARow.TimeGenerated) : 0);
    FBuffer += "\",\"time_utc\":\"";
    FBuffer += FUtcText;
    FBuffer.append(unitsText, unitsLength);
    FBuffer += "Z\",\"system_time\":";
    AppendJsonString(FBuffer, ARow.SystemTime);
    FBuffer += ",\"type\":";
    AppendJsonCached(FTypeJson, EventTypeName(ARow.Type));
    d = PutLiteral(fixed, ",\"level\":");
    d = PutUnsigned(d, ARow.Level);
    d = PutLiteral(d, ",\"event_id\":");
    d = PutUnsigned(d, ARow.EventId);
    d = PutLiteral(d, ",\"qualifiers\":");
    d = PutUnsigned(d, ARow.Qualifiers);
    d = PutLiteral(d, ",\"version\":");
    d = PutUnsigned(d, ARow.Version);
    d = PutLiteral(d, ",\"task\":");
    FBuffer.append(fixed, static_cast<size_t>(d - fixed));
    AppendJsonCached(FTaskNameJson, ARow.TaskName);
    d = PutLiteral(fixed, ",\"task_id\":");
    d = PutUnsigned(d, ARow.TaskNumber);
    d = PutLiteral(d, ",\"opcode\":");
    d = PutUnsigned(d, ARow.OpCode);
    d = PutLiteral(d, ",\"keywords\":");
    FBuffer.append(fixed, static_cast<size_t>(d - fixed));
    AppendJsonCached(FKeywordsJson, ARow.Keywords);
    if (!ARow.OpcodeName.empty()) {
      FBuffer += ",\"opcode_name\":";
      AppendJsonString(FBuffer, ARow.OpcodeName);
    }
    if (!ARow.KeywordNames.empty()) {
      FBuffer += ",\"keyword_names\":";
      AppendJsonString(FBuffer, ARow.KeywordNames);
    }
    FBuffer += ",\"source\":";
    AppendJsonCached(FSourceJson, ARow.Source);
    FBuffer += ",\"channel\":";
    AppendJsonCached(FChannelJson, ARow.Channel);
    FBuffer += ",\"computer\":";
    AppendJsonCached(FComputerJson, ARow.Computer);
    FBuffer += ",\"user\":";
    AppendJsonCached(FUserNameJson, ARow.UserName);
    FBuffer += ",\"user_sid\":";
    if (ARow.UserSid.empty())
      FBuffer += "null";
    else
      AppendJsonCached(FUserSidJson, ARow.UserSid);
    FBuffer += ",\"description\":";
    if (ARow.DescriptionFound)
      AppendJsonString(FBuffer, ARow.Description);
    else
      FBuffer += "null";
    FBuffer += ",\"data\":[";
    AppendRowValuesJson(ARow, FBuffer);
    FBuffer += "]}\n";
    FlushIfFull();
  }

private:
  // The JSON text of a field's last value: most fields repeat from event to event.
  struct TJsonCache {
    std::string Raw, Json = "\"\""; // at first the empty value's
  };
  void AppendJsonCached(TJsonCache& ACache, std::string_view AText) {
    if (AText != std::string_view(ACache.Raw)) {
      ACache.Raw.assign(AText);
      ACache.Json.clear();
      AppendJsonString(ACache.Json, AText);
    }
    FBuffer += ACache.Json;
  }

  TEventRow FRow;
  bool FTimesSet = false;
  double FLocalDays = 0, FUtcDays = 0;
  std::string FLocalText, FUtcText;
  TJsonCache FTypeJson, FTaskNameJson, FKeywordsJson, FSourceJson, FChannelJson, FComputerJson, FUserNameJson,
      FUserSidJson;
};

// --- XML ------------------------------------------------------------------------

class TXmlWriter : public TEventWriter {
public:
  explicit TXmlWriter(std::FILE* AOut) : TEventWriter(AOut) {}
  void Begin() override { FBuffer += "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Events>\n"; }
  void Write(TEventItemX& AItem) override {
    FBuffer += AItem.FEvtXML;
    FBuffer += '\n';
    FlushIfFull();
  }

protected:
  void End() override { FBuffer += "</Events>\n"; }
};

} // namespace

void AppendColorStart(std::string& AOut, const TColorCode& ACode, bool ATrueColor) {
  // Windows colour values are 0x00BBGGRR.
  const unsigned r = ACode.Value & 0xFF, g = (ACode.Value >> 8) & 0xFF, b = (ACode.Value >> 16) & 0xFF;
  char text[48];
  if (ATrueColor) {
    std::snprintf(text, sizeof text, "\x1b[38;2;%u;%u;%um", r, g, b);
  } else {
    // The nearest colour of the 256-colour cube.
    auto level = [](unsigned AValue) { return (AValue * 5 + 127) / 255; };
    std::snprintf(text, sizeof text, "\x1b[38;5;%um", 16 + 36 * level(r) + 6 * level(g) + level(b));
  }
  AOut.append(text);
  if (ACode.FontStyles & fsBold) AOut.append("\x1b[1m");
  if (ACode.FontStyles & fsItalic) AOut.append("\x1b[3m");
}

std::unique_ptr<TEventWriter> MakeEventWriter(TOutputFormat AFormat, std::FILE* AOut, unsigned ATableWidth,
                                              bool ADescriptions, const TRowColors& AColors) {
  switch (AFormat) {
  case TOutputFormat::ofCsv: return std::make_unique<TCsvWriter>(AOut);
  case TOutputFormat::ofJsonl: return std::make_unique<TJsonlWriter>(AOut);
  case TOutputFormat::ofXml: return std::make_unique<TXmlWriter>(AOut);
  case TOutputFormat::ofTable: break;
  }
  return std::make_unique<TTableWriter>(AOut, ATableWidth, ADescriptions, AColors);
}

void AppendDayCountText(std::string& AOut, double ADays, char ASeparator) {
  const TSystemTime t = DaysToSystemTime(ADays);
  // Made in a buffer and appended at once (as AppendDigits makes each number). The
  // fields below the year are below 100 (milliseconds below 1000): their digits are
  // put straight; a year of more than 4 digits takes the general way.
  char text[96];
  char* d = text;
  auto two = [&d](unsigned AValue) {
    d[0] = static_cast<char>('0' + AValue / 10);
    d[1] = static_cast<char>('0' + AValue % 10);
    d += 2;
  };
  if (t.wYear < 10000) {
    two(t.wYear / 100u);
    two(t.wYear % 100u);
  } else {
    d = PutDigits(d, t.wYear, 4);
  }
  *d++ = '-';
  two(t.wMonth);
  *d++ = '-';
  two(t.wDay);
  *d++ = ASeparator;
  two(t.wHour);
  *d++ = ':';
  two(t.wMinute);
  *d++ = ':';
  two(t.wSecond);
  *d++ = '.';
  *d++ = static_cast<char>('0' + t.wMilliseconds / 100u);
  two(t.wMilliseconds % 100u);
  AOut.append(text, static_cast<size_t>(d - text));
}

void AppendOffsetText(std::string& AOut, int AMinutes) {
  if (AMinutes == 0) {
    AOut += 'Z';
    return;
  }
  AOut += AMinutes < 0 ? '-' : '+';
  const unsigned m = static_cast<unsigned>(AMinutes < 0 ? -AMinutes : AMinutes);
  AppendDigits(AOut, m / 60, 2);
  AOut += ':';
  AppendDigits(AOut, m % 60, 2);
}

std::string_view DescriptionText(const TEventItemX& AItem) {
  return AItem.FDescriptionFound ? std::string_view(AItem.FEvtMessage) : std::string_view();
}

} // namespace qvx::app
