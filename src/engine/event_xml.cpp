#include "engine/event_xml.h"

#include <cstring>

namespace qvx {

namespace {

// AText.find(AChar, AFrom). The distances in event XML are short (a tag name, a value):
// the first bytes are looked at here, memchr takes over beyond them.
inline size_t FindByte(std::string_view AText, char AChar, size_t AFrom) {
  const size_t size = AText.size();
  const char* data = AText.data();
  const size_t near = AFrom + 24 < size ? AFrom + 24 : size;
  for (size_t i = AFrom; i < near; ++i)
    if (data[i] == AChar) return i;
  if (near >= size) return std::string_view::npos;
  const void* hit = std::memchr(data + near, AChar, size - near);
  return hit ? static_cast<size_t>(static_cast<const char*>(hit) - data) : std::string_view::npos;
}

// AText.find(ANeedle, AFrom), through memmem: it skips ahead by the needle, where find
// stops at every '<' of the XML to compare.
inline size_t FindText(std::string_view AText, std::string_view ANeedle, size_t AFrom = 0) {
  // Also an empty text, whose data may be null (memmem must not see it).
  if (AFrom > AText.size() || AText.size() - AFrom < ANeedle.size() || ANeedle.empty()) return std::string_view::npos;
#if defined(__GLIBC__)
  const void* hit = memmem(AText.data() + AFrom, AText.size() - AFrom, ANeedle.data(), ANeedle.size());
  return hit ? static_cast<size_t>(static_cast<const char*>(hit) - AText.data()) : std::string_view::npos;
#else
  return AText.find(ANeedle, AFrom);
#endif
}

// AText holds AName at AAt (the caller checked it fits). Names are short: no call.
inline bool NameAt(std::string_view AText, size_t AAt, std::string_view AName) {
  for (size_t i = 0; i < AName.size(); ++i)
    if (AText[AAt + i] != AName[i]) return false;
  return true;
}

bool IsNameEnd(char AChar) {
  return AChar == '>' || AChar == '/' || AChar == ' ' || AChar == '\t' || AChar == '\r' || AChar == '\n';
}

// One element found in a text: its attribute text and its content (empty when it is
// self-closed). AEnd is where the search for the next sibling may go on.
struct TElement {
  std::string_view Attributes;
  std::string_view Content;
  size_t End = std::string_view::npos;
};

// Finds the first element <AName …> at or after AFrom.
// AFar: the element may lie far from AFrom (a section, <Binary> after every <Data>): the
// search skips ahead by "<Name" instead of stopping at every tag.
bool FindElement(std::string_view AXml, std::string_view AName, TElement& AElement, size_t AFrom = 0,
                 bool AFar = false) {
  size_t pos = AFrom;
  char needle[24];
  const bool far = AFar && AName.size() < sizeof needle;
  if (far) {
    needle[0] = '<';
    std::memcpy(needle + 1, AName.data(), AName.size());
  }
  for (;;) {
    pos = far ? FindText(AXml, std::string_view(needle, AName.size() + 1), pos) : FindByte(AXml, '<', pos);
    if (pos == std::string_view::npos || pos + 1 + AName.size() >= AXml.size()) return false;
    // The first letter turns away closing tags and other elements without a call.
    if (AXml[pos + 1] == AName[0] && NameAt(AXml, pos + 1, AName) && IsNameEnd(AXml[pos + 1 + AName.size()]))
      break;
    ++pos;
  }
  const size_t attrStart = pos + 1 + AName.size();
  const size_t close = FindByte(AXml, '>', attrStart);
  if (close == std::string_view::npos) return false;
  if (AXml[close - 1] == '/') {
    AElement.Attributes = AXml.substr(attrStart, close - 1 - attrStart);
    AElement.Content = {};
    AElement.End = close + 1;
    return true;
  }
  AElement.Attributes = AXml.substr(attrStart, close - attrStart);
  // The closing tag of the same name; elements of the system section do not nest
  // inside themselves.
  // Looked for from each '<' on, as find would: the closing tag usually follows the text.
  const size_t closingSize = AName.size() + 3;
  size_t end = close + 1;
  for (;;) {
    end = FindByte(AXml, '<', end);
    if (end == std::string_view::npos || AXml.size() - end < closingSize) {
      end = std::string_view::npos;
      break;
    }
    if (AXml[end + 1] == '/' && NameAt(AXml, end + 2, AName) && AXml[end + 2 + AName.size()] == '>')
      break;
    ++end;
  }
  if (end == std::string_view::npos) {
    AElement.Content = AXml.substr(close + 1);
    AElement.End = AXml.size();
  } else {
    AElement.Content = AXml.substr(close + 1, end - close - 1);
    AElement.End = end + closingSize;
  }
  return true;
}

// The value of attribute AName in an attribute text, undecoded.
bool FindAttribute(std::string_view AAttributes, std::string_view AName, std::string_view& AValue) {
  size_t pos = 0;
  while ((pos = AAttributes.find(AName, pos)) != std::string_view::npos) {
    const bool startOk = pos > 0 && (AAttributes[pos - 1] == ' ' || AAttributes[pos - 1] == '\t' ||
                                     AAttributes[pos - 1] == '\r' || AAttributes[pos - 1] == '\n');
    size_t p = pos + AName.size();
    if (startOk && p + 1 < AAttributes.size() && AAttributes[p] == '=' &&
        (AAttributes[p + 1] == '"' || AAttributes[p + 1] == '\'')) {
      const char quote = AAttributes[p + 1];
      const size_t end = FindByte(AAttributes, quote, p + 2);
      if (end == std::string_view::npos) return false;
      AValue = AAttributes.substr(p + 2, end - p - 2);
      return true;
    }
    pos += AName.size();
  }
  return false;
}

void SetUnescaped(std::string& AOut, std::string_view AText) {
  AOut.clear();
  AppendXmlUnescaped(AOut, AText);
}

void AppendUtf8(std::string& AOut, uint32_t ACode) {
  if (ACode == 0 || ACode > 0x10FFFF || (ACode >= 0xD800 && ACode <= 0xDFFF)) ACode = 0xFFFD;
  if (ACode < 0x80) {
    AOut += static_cast<char>(ACode);
  } else if (ACode < 0x800) {
    AOut += static_cast<char>(0xC0 | (ACode >> 6));
    AOut += static_cast<char>(0x80 | (ACode & 0x3F));
  } else if (ACode < 0x10000) {
    AOut += static_cast<char>(0xE0 | (ACode >> 12));
    AOut += static_cast<char>(0x80 | ((ACode >> 6) & 0x3F));
    AOut += static_cast<char>(0x80 | (ACode & 0x3F));
  } else {
    AOut += static_cast<char>(0xF0 | (ACode >> 18));
    AOut += static_cast<char>(0x80 | ((ACode >> 12) & 0x3F));
    AOut += static_cast<char>(0x80 | ((ACode >> 6) & 0x3F));
    AOut += static_cast<char>(0x80 | (ACode & 0x3F));
  }
}

bool IsBlankText(std::string_view AText) {
  for (char c : AText)
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return false;
  return true;
}

int HexDigit(char AChar) {
  if (AChar >= '0' && AChar <= '9') return AChar - '0';
  if (AChar >= 'a' && AChar <= 'f') return AChar - 'a' + 10;
  if (AChar >= 'A' && AChar <= 'F') return AChar - 'A' + 10;
  return -1;
}

// Every attribute value (xmlns declarations aside) of a tag's attribute text. AKinds,
// when given, gets a 2 per value.
void CollectAttributeValues(std::string_view AAttributes, TStringList& AValues, size_t& ACount,
                            std::vector<uint8_t>* AKinds) {
  size_t pos = 0;
  while (pos < AAttributes.size()) {
    const size_t eq = FindByte(AAttributes, '=', pos);
    if (eq == std::string_view::npos || eq + 1 >= AAttributes.size()) return;
    const char quote = AAttributes[eq + 1];
    if (quote != '"' && quote != '\'') return;
    const size_t end = FindByte(AAttributes, quote, eq + 2);
    if (end == std::string_view::npos) return;
    std::string_view name = AAttributes.substr(pos, eq - pos);
    while (!name.empty() && (name.front() == ' ' || name.front() == '\t' || name.front() == '\r' ||
                             name.front() == '\n'))
      name.remove_prefix(1);
    if (name != "xmlns" && name.substr(0, 6) != "xmlns:") {
      AppendXmlUnescaped(NextListValue(AValues, ACount), AAttributes.substr(eq + 2, end - eq - 2));
      if (AKinds) AKinds->push_back(2);
    }
    pos = end + 1;
  }
}

} // namespace

void TEventXmlFields::ClearSystem() {
  for (std::string* s : {&ProviderName, &EventID, &EventIDQual, &Version, &Level, &Task, &OpCode, &Keywords,
                         &TimeCreated, &EventRecordID, &Channel, &Computer, &UserID, &UserName, &EvtMessage})
    s->clear();
  TaskNumber = 0;
  Strings.clear();
  BinaryData.clear();
}

void AppendXmlUnescaped(std::string& AOut, std::string_view AText) {
  size_t i = 0;
  while (i < AText.size()) {
    const size_t amp = AText.find('&', i);
    if (amp == std::string_view::npos) {
      AOut.append(AText.substr(i));
      return;
    }
    AOut.append(AText.substr(i, amp - i));
    const size_t semi = AText.find(';', amp + 1);
    if (semi == std::string_view::npos || semi - amp > 12) {
      AOut += '&';
      i = amp + 1;
      continue;
    }
    const std::string_view entity = AText.substr(amp + 1, semi - amp - 1);
    if (entity == "amp") AOut += '&';
    else if (entity == "lt") AOut += '<';
    else if (entity == "gt") AOut += '>';
    else if (entity == "quot") AOut += '"';
    else if (entity == "apos") AOut += '\'';
    else if (entity.size() >= 2 && entity[0] == '#') {
      uint32_t code = 0;
      bool ok = true;
      if (entity[1] == 'x' || entity[1] == 'X') {
        ok = entity.size() > 2;
        for (char c : entity.substr(2)) {
          const int d = HexDigit(c);
          if (d < 0 || code > 0x10FFFF) { ok = false; break; }
          code = code * 16 + static_cast<uint32_t>(d);
        }
      } else {
        for (char c : entity.substr(1)) {
          if (c < '0' || c > '9' || code > 0x10FFFF) { ok = false; break; }
          code = code * 10 + static_cast<uint32_t>(c - '0');
        }
      }
      if (!ok) {
        AOut.append(AText.substr(amp, semi - amp + 1));
      } else {
        AppendUtf8(AOut, code);
      }
    } else {
      AOut.append(AText.substr(amp, semi - amp + 1));
    }
    i = semi + 1;
  }
}

void ReadSystemFields(std::string_view AXml, TEventXmlFields& AFields) {
  AFields.ClearSystem();
  const size_t start = AXml.find("<System>"); // near the start: find stops at few '<' before it
  if (start == std::string_view::npos) return;
  const size_t end = FindText(AXml, "</System>", start);
  const std::string_view system =
      AXml.substr(start + 8, end == std::string_view::npos ? std::string_view::npos : end - start - 8);

  // One pass over the section's tags; its elements hold text only, so an element's
  // content runs to the next '<'. The first element of each name counts.
  unsigned seen = 0;
  size_t pos = 0;
  while (pos < system.size()) {
    const size_t lt = FindByte(system, '<', pos);
    if (lt == std::string_view::npos) break;
    size_t nameEnd = lt + 1;
    while (nameEnd < system.size() && !IsNameEnd(system[nameEnd])) ++nameEnd;
    const std::string_view name = system.substr(lt + 1, nameEnd - lt - 1);
    const size_t gt = FindByte(system, '>', nameEnd);
    if (gt == std::string_view::npos) break;
    pos = gt + 1;
    if (name.empty() || name[0] == '/') continue;
    const bool selfClosed = system[gt - 1] == '/';
    const std::string_view attributes = system.substr(nameEnd, (selfClosed ? gt - 1 : gt) - nameEnd);
    auto content = [&]() -> std::string_view {
      if (selfClosed) return {};
      const size_t next = FindByte(system, '<', gt + 1);
      return system.substr(gt + 1, next == std::string_view::npos ? std::string_view::npos : next - gt - 1);
    };
    auto first = [&](unsigned ABit) {
      if (seen & ABit) return false;
      seen |= ABit;
      return true;
    };
    std::string_view value;
    switch (name.size()) {
    case 4:
      if (name == "Task" && first(1)) SetUnescaped(AFields.Task, content());
      break;
    case 5:
      if (name == "Level" && first(2)) SetUnescaped(AFields.Level, content());
      break;
    case 6:
      // Event XML writes <Opcode>; "OpCode" is accepted too.
      if ((name == "Opcode" || name == "OpCode") && first(4)) SetUnescaped(AFields.OpCode, content());
      break;
    case 7:
      if (name == "EventID" && first(8)) {
        SetUnescaped(AFields.EventID, content());
        if (FindAttribute(attributes, "Qualifiers", value)) SetUnescaped(AFields.EventIDQual, value);
      } else if (name == "Version" && first(16)) {
        SetUnescaped(AFields.Version, content());
      } else if (name == "Channel" && first(32)) {
        SetUnescaped(AFields.Channel, content());
      }
      break;
    case 8:
      if (name == "Provider" && first(64)) {
        if (FindAttribute(attributes, "Name", value)) SetUnescaped(AFields.ProviderName, value);
      } else if (name == "Keywords" && first(128)) {
        SetUnescaped(AFields.Keywords, content());
      } else if (name == "Computer" && first(256)) {
        SetUnescaped(AFields.Computer, content());
      } else if (name == "Security" && first(512)) {
        if (FindAttribute(attributes, "UserID", value)) SetUnescaped(AFields.UserID, value);
      }
      break;
    case 11:
      if (name == "TimeCreated" && first(1024) && FindAttribute(attributes, "SystemTime", value))
        SetUnescaped(AFields.TimeCreated, value);
      break;
    case 13:
      if (name == "EventRecordID" && first(2048)) SetUnescaped(AFields.EventRecordID, content());
      break;
    default: break;
    }
  }
  AFields.TaskNumber = static_cast<uint32_t>(TextToInt(AFields.Task));
}

namespace {

void ReadDataValues(std::string_view AXml, TStringList& AValues, std::vector<uint8_t>* ABinary,
                    std::vector<uint8_t>* AKinds, std::string_view* ABinaryText) {
  size_t count = 0;
  struct TCut {
    TStringList& Values;
    size_t& Count;
    ~TCut() { Values.resize(Count); }
  } cut{AValues, count};
  if (ABinary) ABinary->clear();
  const size_t systemEnd = FindText(AXml, "</System>");
  const size_t from = systemEnd == std::string_view::npos ? 0 : systemEnd + 9;
  TElement section;
  if (FindElement(AXml, "EventData", section, from, true)) {
    const std::string_view data = section.Content;
    TElement item;
    size_t pos = 0;
    while (FindElement(data, "Data", item, pos)) {
      AppendXmlUnescaped(NextListValue(AValues, count), item.Content);
      if (AKinds) AKinds->push_back(0);
      pos = item.End;
    }
    if (ABinaryText && FindElement(data, "Binary", item, 0, true)) *ABinaryText = item.Content;
    if (ABinary && FindElement(data, "Binary", item, 0, true)) {
      const std::string_view hex = item.Content;
      for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        const int hi = HexDigit(hex[i]), lo = HexDigit(hex[i + 1]);
        if (hi < 0 || lo < 0) break;
        ABinary->push_back(static_cast<uint8_t>(hi * 16 + lo));
      }
    }
    return;
  }
  if (!FindElement(AXml, "UserData", section, from, true)) return;
  // Every attribute value and text node inside <UserData>, in document order: the
  // values that the provider's template put there.
  const std::string_view data = section.Content;
  size_t pos = 0;
  while (pos < data.size()) {
    const size_t lt = FindByte(data, '<', pos);
    const std::string_view text = data.substr(pos, lt == std::string_view::npos ? std::string_view::npos : lt - pos);
    if (!IsBlankText(text)) {
      AppendXmlUnescaped(NextListValue(AValues, count), text);
      if (AKinds) AKinds->push_back(1);
    }
    if (lt == std::string_view::npos) break;
    const size_t gt = FindByte(data, '>', lt);
    if (gt == std::string_view::npos) break;
    if (data[lt + 1] != '/' && data[lt + 1] != '?' && data[lt + 1] != '!') {
      size_t nameEnd = lt + 1;
      while (nameEnd < gt && !IsNameEnd(data[nameEnd])) ++nameEnd;
      size_t attrEnd = gt;
      if (attrEnd > nameEnd && data[attrEnd - 1] == '/') --attrEnd;
      CollectAttributeValues(data.substr(nameEnd, attrEnd - nameEnd), AValues, count, AKinds);
    }
    pos = gt + 1;
  }
}

} // namespace

void ReadEventDataValues(std::string_view AXml, TStringList& AValues, std::vector<uint8_t>* ABinary) {
  ReadDataValues(AXml, AValues, ABinary, nullptr, nullptr);
}

void ReadEventDataSources(std::string_view AXml, TStringList& AValues, std::vector<uint8_t>& AKinds,
                          std::string_view& ABinaryText) {
  AKinds.clear();
  ABinaryText = {};
  ReadDataValues(AXml, AValues, nullptr, &AKinds, &ABinaryText);
}

void DecodeBinaryText(std::string_view AHex, std::string& AOut) {
  for (size_t i = 0; i + 1 < AHex.size(); i += 2) {
    const int hi = HexDigit(AHex[i]), lo = HexDigit(AHex[i + 1]);
    if (hi < 0 || lo < 0) break;
    AOut.push_back(static_cast<char>(hi * 16 + lo));
  }
}

double SystemTimeTextToDays(std::string_view AText) {
  if (AText.size() < 19) return 0;
  auto number = [&](size_t AFrom, size_t ACount) {
    int v = 0;
    for (size_t i = AFrom; i < AFrom + ACount && i < AText.size(); ++i) {
      const char c = AText[i];
      if (c < '0' || c > '9') break;
      v = v * 10 + (c - '0');
    }
    return v;
  };
  TSystemTime t;
  t.wYear = static_cast<uint16_t>(number(0, 4));
  t.wMonth = static_cast<uint16_t>(number(5, 2));
  t.wDay = static_cast<uint16_t>(number(8, 2));
  t.wHour = static_cast<uint16_t>(number(11, 2));
  t.wMinute = static_cast<uint16_t>(number(14, 2));
  t.wSecond = static_cast<uint16_t>(number(17, 2));
  // The fraction is decimal: ".0457" is 45 ms. The day count carries whole milliseconds
  // (truncated, so an event never moves into the next millisecond or second); the
  // digits below them stay in the text (SubMillisecondUnits).
  t.wMilliseconds = static_cast<uint16_t>(FractionDigits(AText, 0, 3));
  if (t.wMonth < 1 || t.wMonth > 12 || t.wDay < 1 || t.wDay > 31) return 0;
  return SystemTimeToDays(t);
}

int FractionDigits(std::string_view AText, size_t AFirst, size_t ACount) {
  // The fraction's digits follow the separator at 19 ('.', or ':' in older text);
  // digits it does not have count as zeros.
  size_t end = 20;
  if (AText.size() > 19 && (AText[19] == '.' || AText[19] == ':'))
    while (end < AText.size() && AText[end] >= '0' && AText[end] <= '9') ++end;
  int v = 0;
  for (size_t k = 0; k < ACount; ++k) {
    const size_t i = 20 + AFirst + k;
    v = v * 10 + (i < end ? AText[i] - '0' : 0);
  }
  return v;
}

namespace {

uint64_t HexToU64(std::string_view AText) {
  if (AText.size() >= 2 && AText[0] == '0' && (AText[1] == 'x' || AText[1] == 'X')) AText.remove_prefix(2);
  uint64_t v = 0;
  for (char c : AText) {
    const int d = HexDigit(c);
    if (d < 0) return 0;
    v = (v << 4) | static_cast<uint64_t>(d);
  }
  return v;
}


} // namespace

TEventType EventTypeFromXml(std::string_view AChannel, std::string_view AKeywords, std::string_view ALevel) {
  if (detail::EqualsNoCase(AChannel, "Security")) {
    const uint64_t keywords = HexToU64(AKeywords);
    if (keywords & (uint64_t{1} << 52)) return EVT_AUDIT_FAILURE;
    if (keywords & (uint64_t{1} << 53)) return EVT_AUDIT_SUCCESS;
  }
  switch (TextToInt(ALevel)) {
  case 1: return EVT_CRITICAL;
  case 2: return EVT_ERROR;
  case 3: return EVT_WARNING;
  case 0:
  case 4: return EVT_INFORMATION;
  case 5: return EVT_VERBOSE;
  default: return EVT_SUCCESS;
  }
}

int64_t TextToInt(std::string_view AText) {
  if (AText.empty()) return 0;
  bool negative = false;
  size_t i = 0;
  if (AText[0] == '-' || AText[0] == '+') {
    negative = AText[0] == '-';
    i = 1;
  }
  if (i == AText.size() || AText.size() - i > 18) return 0; // keeps clear of overflow
  int64_t v = 0;
  for (; i < AText.size(); ++i) {
    const char c = AText[i];
    if (c < '0' || c > '9') return 0;
    v = v * 10 + (c - '0');
  }
  return negative ? -v : v;
}

} // namespace qvx
