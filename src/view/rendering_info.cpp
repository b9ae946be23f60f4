#include "view/rendering_info.h"

#include "engine/event_log_x.h"
#include "engine/event_xml.h"
#include "platform/utf16.h"

namespace qvx {

namespace {

// Standard level names (winmeta.xml); other levels are the publisher's own.
const char* LevelName(uint8_t ALevel) {
  switch (ALevel) {
  case 1: return "Critical";
  case 2: return "Error";
  case 3: return "Warning";
  case 4: return "Information";
  case 5: return "Verbose";
  default: return "";
  }
}

struct TTag {
  std::string_view Open, Close;
};
constexpr TTag kLevel{"<Level>", "</Level>"}, kTask{"<Task>", "</Task>"}, kOpcode{"<Opcode>", "</Opcode>"},
    kChannel{"<Channel>", "</Channel>"}, kProvider{"<Provider>", "</Provider>"},
    kKeywords{"<Keywords>", "</Keywords>"}, kKeyword{"<Keyword>", "</Keyword>"};

void AppendElement(std::string& AOut, const TTag& ATag, std::string_view AText) {
  if (AText.empty()) return;
  AOut += ATag.Open;
  AppendEscaped(AOut, AText);
  AOut += ATag.Close;
}

// The text of the first ATag element in AXml from AFrom, ending before ALimit; AFrom moves
// past it. Empty (AFrom kept) when there is none.
std::string_view ElementText(std::string_view AXml, const TTag& ATag, size_t& AFrom, size_t ALimit) {
  const std::string_view open = ATag.Open, close = ATag.Close;
  const size_t start = AXml.find(open, AFrom);
  if (start == std::string_view::npos || start >= ALimit) return {};
  const size_t text = start + open.size();
  const size_t end = AXml.find(close, text);
  if (end == std::string_view::npos || end > ALimit) return {};
  AFrom = end + close.size();
  return AXml.substr(text, end - text);
}

} // namespace

bool RenderingNamesOf(const TEventItemBase& AItem, TRenderingNames& ANames) {
  const auto* x = dynamic_cast<const TEventItemX*>(&AItem);
  if (!x || (x->FOpcodeName.empty() && x->FKeywordNames.empty())) return false;
  ANames.Level = LevelName(x->FLevel);
  // Task 0 reads "None", an unknown one "(n)": neither is a name.
  const std::string& task = x->FCategoryName;
  ANames.Task = x->FTask != 0 && !task.starts_with('(') ? task : std::string();
  ANames.Opcode = x->FOpcodeName;
  ANames.Channel = x->FChannel;
  ANames.Provider = x->FSourceName;
  ANames.Keywords = x->FKeywordNames;
  return true;
}

bool AddRenderingInfo(std::string& AXml, const TRenderingNames& ANames) {
  if (ANames.Level.empty() && ANames.Task.empty() && ANames.Opcode.empty() && ANames.Channel.empty() &&
      ANames.Provider.empty() && ANames.Keywords.empty())
    return false;
  if (AXml.find("<RenderingInfo") != std::string::npos) return false;
  const size_t end = AXml.rfind("</Event>");
  if (end == std::string::npos) return false;
  std::string info = "<RenderingInfo>";
  AppendElement(info, kLevel, ANames.Level);
  AppendElement(info, kTask, ANames.Task);
  AppendElement(info, kOpcode, ANames.Opcode);
  AppendElement(info, kChannel, ANames.Channel);
  AppendElement(info, kProvider, ANames.Provider);
  if (!ANames.Keywords.empty()) {
    info += kKeywords.Open;
    std::string_view names = ANames.Keywords;
    while (!names.empty()) {
      const size_t comma = names.find(", ");
      AppendElement(info, kKeyword, names.substr(0, comma));
      names = comma == std::string_view::npos ? std::string_view() : names.substr(comma + 2);
    }
    info += kKeywords.Close;
  }
  info += "</RenderingInfo>";
  AXml.insert(end, info);
  return true;
}

void ReadRenderingNames(std::string_view AXml, std::string& AOpcode, std::string& AKeywords) {
  AOpcode.clear();
  AKeywords.clear();
  const size_t start = AXml.find("<RenderingInfo");
  if (start == std::string_view::npos) return;
  size_t limit = AXml.find("</RenderingInfo>", start);
  if (limit == std::string_view::npos) limit = AXml.size();
  size_t at = start;
  AppendXmlUnescaped(AOpcode, ElementText(AXml, kOpcode, at, limit));
  at = start;
  const std::string_view keywords = ElementText(AXml, kKeywords, at, limit);
  for (size_t from = 0; from < keywords.size();) {
    const size_t before = from;
    const std::string_view name = ElementText(keywords, kKeyword, from, keywords.size());
    if (from == before) break;
    if (name.empty()) continue;
    if (!AKeywords.empty()) AKeywords.append(", ");
    AppendXmlUnescaped(AKeywords, name);
  }
}

} // namespace qvx
