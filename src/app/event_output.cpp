#include "app/event_output.h"

#include "engine/event_xml.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace qvx::app {

TEventWriter::~TEventWriter() = default;

void TEventWriter::Flush() {
  if (!FBuffer.empty() && std::fwrite(FBuffer.data(), 1, FBuffer.size(), FOut) != FBuffer.size()) FFailed = true;
  FBuffer.clear();
}

bool TEventWriter::Finish() {
  End();
  Flush();
  if (std::fflush(FOut) != 0) FFailed = true;
  return !FFailed;
}

namespace {

void AppendDigits(std::string& AOut, unsigned AValue, int AWidth) {
  char buf[12];
  int n = 0;
  do {
    buf[n++] = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  } while (AValue && n < 11);
  for (int i = n; i < AWidth; ++i) AOut += '0';
  while (n) AOut += buf[--n];
}

void AppendUnsigned(std::string& AOut, uint64_t AValue) {
  char buf[24];
  int n = 0;
  do {
    buf[n++] = static_cast<char>('0' + AValue % 10);
    AValue /= 10;
  } while (AValue);
  while (n) AOut += buf[--n];
}

// Number of display columns of UTF-8 text (code points; wide characters count one).
size_t Columns(std::string_view AText) {
  size_t n = 0;
  for (char c : AText)
    if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++n;
  return n;
}

// AText cut or padded to AWidth columns; a cut ends with "…". Control characters
// (line breaks inside a value) become blanks so that a row stays one line.
void AppendCell(std::string& AOut, std::string_view AText, size_t AWidth, bool ARight, bool ACut) {
  const size_t columns = Columns(AText);
  if (columns >= AWidth && !ACut) {
    for (char c : AText) AOut += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    return;
  }
  if (columns > AWidth) {
    size_t kept = 0, i = 0;
    for (; i < AText.size(); ++i) {
      if ((static_cast<unsigned char>(AText[i]) & 0xC0) != 0x80) {
        if (kept == AWidth - 1) break;
        ++kept;
      }
    }
    for (char c : AText.substr(0, i)) AOut += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
    AOut += "\xE2\x80\xA6";
    return;
  }
  if (ARight) AOut.append(AWidth - columns, ' ');
  for (char c : AText) AOut += static_cast<unsigned char>(c) < 0x20 ? ' ' : c;
  if (!ARight) AOut.append(AWidth - columns, ' ');
}

// --- table ----------------------------------------------------------------------

class TTableWriter : public TEventWriter {
public:
  TTableWriter(std::FILE* AOut, unsigned AWidth, bool ADescriptions, const TRowColors& AColors)
      : TEventWriter(AOut), FWidth(AWidth), FDescriptions(ADescriptions), FColors(AColors) {
    Layout(AWidth);
  }
  // On a narrow terminal the channel, computer, task and user columns give way, in that order.

  void Begin() override {
    AppendRow({"Time", "Type", "Event ID", "Source", "Task", "User", "Computer", "Record", "Channel"});
  }

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
    if (code) AppendColorStart(FBuffer, *code, FColors.TrueColor);
    AppendRow({FTime, EventTypeName(AItem.FEventType), FId, AItem.FSourceName, AItem.GetCategoryName(),
               AItem.GetUserName(), AItem.FComputername, FRecord, AItem.FChannel});
    if (FDescriptions) AppendDescription(AItem);
    if (code) {
      FBuffer.pop_back(); // the colour ends before the line break
      FBuffer.append("\x1b[0m\n");
    }
    FlushIfFull();
  }

private:
  enum { kTime, kType, kId, kSource, kTask, kUser, kComputer, kRecord, kChannel, kColumns };

  void Layout(unsigned AWidth) {
    FWidths = {23, 13, 8, 24, 16, 24, 16, 8, 20};
    FVisible.fill(true);
    FCut = AWidth != 0;
    if (!FCut) return; // padded to these widths, never cut
    // The fixed columns keep their width; the others share what remains by weight,
    // none narrower than 10. When that does not fit, the least needed go first.
    const std::array<int, 5> flex = {kSource, kTask, kUser, kComputer, kChannel};
    const std::array<unsigned, 5> weight = {3, 2, 3, 2, 2};
    const std::array<int, 4> dropOrder = {kChannel, kComputer, kTask, kUser};
    for (size_t dropped = 0;; ++dropped) {
      unsigned fixed = 0, shown = 0, total = 0;
      for (int c : {kTime, kType, kId, kRecord}) fixed += static_cast<unsigned>(FWidths[static_cast<size_t>(c)]);
      for (size_t i = 0; i < flex.size(); ++i)
        if (FVisible[static_cast<size_t>(flex[i])]) {
          ++shown;
          total += weight[i];
        }
      const unsigned separators = 2 * (4 + shown - 1);
      const unsigned rest = AWidth > fixed + separators ? AWidth - fixed - separators : 0;
      if (rest >= 10 * shown || dropped == dropOrder.size()) {
        for (size_t i = 0; i < flex.size(); ++i)
          if (FVisible[static_cast<size_t>(flex[i])])
            FWidths[static_cast<size_t>(flex[i])] = std::max(4u, rest * weight[i] / std::max(1u, total));
        return;
      }
      FVisible[static_cast<size_t>(dropOrder[dropped])] = false;
    }
  }

  void AppendRow(std::initializer_list<std::string_view> ACells) {
    size_t i = 0;
    bool first = true;
    for (std::string_view cell : ACells) {
      if (FVisible[i]) {
        if (!first) FBuffer += "  ";
        first = false;
        AppendCell(FBuffer, cell, FWidths[i], i == kId || i == kRecord, FCut);
      }
      ++i;
    }
    while (!FBuffer.empty() && FBuffer.back() == ' ') FBuffer.pop_back();
    FBuffer += '\n';
  }

  // The first line of the description, indented under its row.
  void AppendDescription(const TEventItemX& AItem) {
    std::string_view text = DescriptionText(AItem);
    text = text.substr(0, text.find_first_of("\r\n"));
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
    if (text.empty()) return;
    FBuffer += "    ";
    AppendCell(FBuffer, text, FWidth > 4 ? FWidth - 4 : text.size(), false, FWidth > 4);
    while (!FBuffer.empty() && FBuffer.back() == ' ') FBuffer.pop_back();
    FBuffer += '\n';
  }

  std::array<size_t, kColumns> FWidths{};
  std::array<bool, kColumns> FVisible{};
  unsigned FWidth = 0;
  bool FDescriptions = false;
  TRowColors FColors;
  bool FCut = false;
  std::string FTime, FId, FRecord;
};

// --- CSV ------------------------------------------------------------------------

class TCsvWriter : public TEventWriter {
public:
  explicit TCsvWriter(std::FILE* AOut) : TEventWriter(AOut) {}

  void Begin() override {
    FBuffer += "Time,TimeUTC,Type,Level,EventID,Qualifiers,Version,Task,Opcode,Keywords,Source,Channel,Computer,"
               "User,UserSID,RecordNumber,Description,Data\r\n";
  }

  void Write(TEventItemX& AItem) override {
    FField.clear();
    AppendDayCountText(FField, AItem.GetTimeGenerated());
    FBuffer += FField;
    FBuffer += ',';
    FField.clear();
    AppendDayCountText(FField, AItem.FTimeGenerated);
    FBuffer += FField;
    FBuffer += ',';
    AppendCsvField(FBuffer, EventTypeName(AItem.FEventType));
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FLevel);
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FEventID);
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FEventIDQual);
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FVersion);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.GetCategoryName());
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FOpCode);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.FKeywords);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.FSourceName);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.FChannel);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.FComputername);
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.GetUserName());
    FBuffer += ',';
    AppendCsvField(FBuffer, AItem.FUserSid);
    FBuffer += ',';
    AppendUnsigned(FBuffer, AItem.FEventRecordID);
    FBuffer += ',';
    AppendCsvField(FBuffer, DescriptionText(AItem));
    FBuffer += ',';
    FField.clear();
    for (size_t i = 0; i < AItem.FStrings.size(); ++i) {
      if (i) FField += '\n';
      FField += AItem.FStrings[i];
    }
    AppendCsvField(FBuffer, FField);
    FBuffer += "\r\n";
    FlushIfFull();
  }

private:
  std::string FField;
};

// --- JSON Lines -----------------------------------------------------------------

class TJsonlWriter : public TEventWriter {
public:
  explicit TJsonlWriter(std::FILE* AOut) : TEventWriter(AOut) {}

  void Write(TEventItemX& AItem) override {
    const TEventLogBase* owner = AItem.Owner();
    FBuffer += "{\"record\":";
    AppendUnsigned(FBuffer, AItem.FEventRecordID);
    FBuffer += ",\"time\":\"";
    // The day count carries milliseconds; the 100 ns digits below them come from the
    // event's own time text (the zone offset is whole minutes, so they are the same).
    const unsigned units = static_cast<unsigned>(FractionDigits(AItem.FSystemTime, 3, 4));
    AppendDayCountText(FBuffer, AItem.GetTimeGenerated(), 'T');
    AppendDigits(FBuffer, units, 4);
    AppendOffsetText(FBuffer, owner ? owner->ShiftMinutesAt(AItem.FTimeGenerated) : 0);
    FBuffer += "\",\"time_utc\":\"";
    AppendDayCountText(FBuffer, AItem.FTimeGenerated, 'T');
    AppendDigits(FBuffer, units, 4);
    FBuffer += "Z\",\"system_time\":";
    AppendJsonString(FBuffer, AItem.FSystemTime);
    FBuffer += ",\"type\":";
    AppendJsonString(FBuffer, EventTypeName(AItem.FEventType));
    FBuffer += ",\"level\":";
    AppendUnsigned(FBuffer, AItem.FLevel);
    FBuffer += ",\"event_id\":";
    AppendUnsigned(FBuffer, AItem.FEventID);
    FBuffer += ",\"qualifiers\":";
    AppendUnsigned(FBuffer, AItem.FEventIDQual);
    FBuffer += ",\"version\":";
    AppendUnsigned(FBuffer, AItem.FVersion);
    FBuffer += ",\"task\":";
    AppendJsonString(FBuffer, AItem.GetCategoryName());
    FBuffer += ",\"task_id\":";
    AppendUnsigned(FBuffer, AItem.FTask);
    FBuffer += ",\"opcode\":";
    AppendUnsigned(FBuffer, AItem.FOpCode);
    FBuffer += ",\"keywords\":";
    AppendJsonString(FBuffer, AItem.FKeywords);
    FBuffer += ",\"source\":";
    AppendJsonString(FBuffer, AItem.FSourceName);
    FBuffer += ",\"channel\":";
    AppendJsonString(FBuffer, AItem.FChannel);
    FBuffer += ",\"computer\":";
    AppendJsonString(FBuffer, AItem.FComputername);
    FBuffer += ",\"user\":";
    AppendJsonString(FBuffer, AItem.GetUserName());
    FBuffer += ",\"user_sid\":";
    if (AItem.FUserSid.empty())
      FBuffer += "null";
    else
      AppendJsonString(FBuffer, AItem.FUserSid);
    FBuffer += ",\"description\":";
    if (AItem.FDescriptionFound)
      AppendJsonString(FBuffer, AItem.FEvtMessage);
    else
      FBuffer += "null";
    FBuffer += ",\"data\":[";
    for (size_t i = 0; i < AItem.FStrings.size(); ++i) {
      if (i) FBuffer += ',';
      AppendJsonString(FBuffer, AItem.FStrings[i]);
    }
    FBuffer += "]}\n";
    FlushIfFull();
  }
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
  AppendDigits(AOut, t.wYear, 4);
  AOut += '-';
  AppendDigits(AOut, t.wMonth, 2);
  AOut += '-';
  AppendDigits(AOut, t.wDay, 2);
  AOut += ASeparator;
  AppendDigits(AOut, t.wHour, 2);
  AOut += ':';
  AppendDigits(AOut, t.wMinute, 2);
  AOut += ':';
  AppendDigits(AOut, t.wSecond, 2);
  AOut += '.';
  AppendDigits(AOut, t.wMilliseconds, 3);
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

void AppendJsonString(std::string& AOut, std::string_view AText) {
  static const char kHex[] = "0123456789abcdef";
  // Bytes that need an escape: control characters, '"' and '\\'.
  static constexpr auto kEscape = [] {
    std::array<bool, 256> t{};
    for (int i = 0; i < 0x20; ++i) t[static_cast<size_t>(i)] = true;
    t['"'] = t['\\'] = true;
    return t;
  }();
  AOut += '"';
  size_t run = 0;
  for (size_t i = 0; i < AText.size(); ++i) {
    const auto c = static_cast<unsigned char>(AText[i]);
    if (!kEscape[c]) [[likely]]
      continue;
    AOut.append(AText.data() + run, i - run);
    run = i + 1;
    switch (c) {
    case '"': AOut += "\\\""; break;
    case '\\': AOut += "\\\\"; break;
    case '\n': AOut += "\\n"; break;
    case '\r': AOut += "\\r"; break;
    case '\t': AOut += "\\t"; break;
    default:
      AOut += "\\u00";
      AOut += kHex[c >> 4];
      AOut += kHex[c & 15];
    }
  }
  AOut.append(AText.data() + run, AText.size() - run);
  AOut += '"';
}

void AppendCsvField(std::string& AOut, std::string_view AText) {
  if (AText.find_first_of(",\"\r\n") == std::string_view::npos) {
    AOut.append(AText);
    return;
  }
  AOut += '"';
  for (char c : AText) {
    if (c == '"') AOut += '"';
    AOut += c;
  }
  AOut += '"';
}

std::string_view DescriptionText(const TEventItemX& AItem) {
  return AItem.FDescriptionFound ? std::string_view(AItem.FEvtMessage) : std::string_view();
}

} // namespace qvx::app
