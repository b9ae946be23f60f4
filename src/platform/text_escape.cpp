#include "platform/text_escape.h"

#include <array>

namespace qvx {

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

} // namespace qvx
