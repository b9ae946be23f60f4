#include "automation/alert_patterns.h"

#include "engine/event_model.h"
#include "platform/process_spawn.h"

#include <charconv>
#include <utility>

namespace qvx {

namespace {

constexpr const char* kRootName = "AlertPatterns";
constexpr const char* kAlertName = "Alert";
constexpr size_t kMaxDescrPart = 255;

char LowerAscii(char AChar) {
  return (AChar >= 'A' && AChar <= 'Z') ? static_cast<char>(AChar - 'A' + 'a') : AChar;
}

bool SameTextAscii(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i)
    if (LowerAscii(A[i]) != LowerAscii(B[i])) return false;
  return true;
}

bool StartsTextAscii(std::string_view AText, std::string_view APrefix) {
  return AText.size() >= APrefix.size() && SameTextAscii(AText.substr(0, APrefix.size()), APrefix);
}

// A decimal integer (optionally signed, blanks around it allowed); false when the text is not one.
bool ParseInteger(std::string_view AText, int64_t& AValue) {
  while (!AText.empty() && (AText.front() == ' ' || AText.front() == '\t'))
    AText.remove_prefix(1);
  while (!AText.empty() && (AText.back() == ' ' || AText.back() == '\t'))
    AText.remove_suffix(1);
  if (!AText.empty() && AText.front() == '+') AText.remove_prefix(1);
  if (AText.empty()) return false;
  const char* end = AText.data() + AText.size();
  auto [ptr, ec] = std::from_chars(AText.data(), end, AValue);
  return ec == std::errc() && ptr == end;
}

// The field AName of the row as an integer; 0 when missing or not a number.
int64_t FieldInteger(const TAlertDataSet& ADataSet, const std::string& AName, bool* AFound = nullptr) {
  std::string text;
  int64_t value = 0;
  const bool found = ADataSet.FieldText(AName, text);
  if (AFound) *AFound = found;
  if (!found || !ParseInteger(text, value)) return 0;
  return value;
}

uint32_t TypeBit(int64_t AType) {
  if (AType < 0 || AType > 255) return 0;
  return EventTypeToMask(static_cast<TEventType>(AType));
}

std::string TypeStr(int64_t AType) { return StoreTypeText(AType); }

std::string_view TrimBlanks(std::string_view AText) {
  while (!AText.empty() && (AText.front() == ' ' || AText.front() == '\t'))
    AText.remove_prefix(1);
  while (!AText.empty() && (AText.back() == ' ' || AText.back() == '\t'))
    AText.remove_suffix(1);
  return AText;
}

// The part of ADescr selected by "A\B" (the macro name after "Descr:").
std::string DescrPart(const std::string& ADescr, std::string_view ASelector) {
  if (ASelector.size() > kMaxDescrPart) {
    size_t cut = kMaxDescrPart;
    // Do not split a UTF-8 sequence.
    while (cut > 0 && (static_cast<unsigned char>(ASelector[cut]) & 0xC0) == 0x80)
      --cut;
    ASelector = ASelector.substr(0, cut);
  }
  std::string_view after = ASelector;
  std::string_view before;
  const size_t slash = ASelector.find('\\');
  if (slash == std::string_view::npos) {
    before = ASelector;
    after = std::string_view();
  } else {
    before = ASelector.substr(0, slash);
    after = ASelector.substr(slash + 1);
  }
  const size_t found = ADescr.find(before);
  if (found == std::string::npos) return std::string();
  const size_t start = found + before.size();
  size_t stop;
  if (after.empty()) {
    stop = ADescr.find_first_of("\r\n", start);
    if (stop == std::string::npos) stop = ADescr.size();
  } else {
    stop = ADescr.find(after, start);
    if (stop == std::string::npos) return std::string();
  }
  return std::string(TrimBlanks(std::string_view(ADescr).substr(start, stop - start)));
}

// Switches the requestor's event handling off for its lifetime.
class TEventHandlingOff {
public:
  explicit TEventHandlingOff(TAlertRequestor* ARequestor) : FRequestor(ARequestor) {
    if (FRequestor) FPrevious = FRequestor->SetEventHandling(false);
  }
  ~TEventHandlingOff() {
    if (FRequestor) FRequestor->SetEventHandling(FPrevious);
  }
  TEventHandlingOff(const TEventHandlingOff&) = delete;
  TEventHandlingOff& operator=(const TEventHandlingOff&) = delete;

private:
  TAlertRequestor* FRequestor;
  bool FPrevious = false;
};

} // namespace

void TAlertPattern::AssignTo(TAlertPattern& ADest) const {
  ADest.Source = Source;
  ADest.EventID = EventID;
  ADest.EventType = EventType;
  ADest.RunProgram = RunProgram;
  ADest.ProgramName = ProgramName;
}

TAlertPatterns::TAlertPatterns() : Starter(&StartProgram) {}

std::string TAlertPatterns::MakeKey(const std::string& ASource, uint32_t AEventID) {
  std::string key = ASource;
  key.push_back('|');
  key.append(std::to_string(static_cast<int32_t>(AEventID)));
  return key;
}

const TAlertPattern& TAlertPatterns::Get(size_t AIndex) const {
  return *FItems.at(AIndex).Pattern;
}

const std::string& TAlertPatterns::Key(size_t AIndex) const {
  return FItems.at(AIndex).Key;
}

int TAlertPatterns::IndexOf(const std::string& ASource, uint32_t AEventID) const {
  const std::string key = MakeKey(ASource, AEventID);
  for (size_t i = 0; i < FItems.size(); ++i)
    if (SameTextAscii(FItems[i].Key, key)) return static_cast<int>(i);
  return -1;
}

bool TAlertPatterns::HasKey(const std::string& AKey) const {
  for (const TItem& item : FItems)
    if (SameTextAscii(item.Key, AKey)) return true;
  return false;
}

void TAlertPatterns::AddPattern(const std::string& ASource, uint32_t AEventID, uint32_t AEventType,
                                bool ARunProgram, const std::string& AProgramName) {
  auto pattern = std::make_unique<TAlertPattern>();
  pattern->Source = ASource;
  pattern->EventID = AEventID;
  pattern->EventType = AEventType;
  pattern->RunProgram = ARunProgram;
  pattern->ProgramName = AProgramName;
  AddPattern(std::move(pattern));
}

bool TAlertPatterns::AddPattern(std::unique_ptr<TAlertPattern> APattern) {
  if (!APattern) return false;
  std::string key = MakeKey(APattern->Source, APattern->EventID);
  if (HasKey(key)) return false;
  FItems.push_back(TItem{std::move(key), std::move(APattern)});
  return true;
}

void TAlertPatterns::RemovePattern(const std::string& ASource, uint32_t AEventID) {
  RemovePatternIndex(IndexOf(ASource, AEventID));
}

void TAlertPatterns::RemovePatternIndex(int AIndex) {
  if (AIndex < 0 || static_cast<size_t>(AIndex) >= FItems.size()) return;
  FItems.erase(FItems.begin() + AIndex);
}

void TAlertPatterns::ChangePatternIndex(int AIndex, const std::string& ASource, uint32_t AEventID,
                                        uint32_t AEventType, bool ARunProgram,
                                        const std::string& AProgramName) {
  if (AIndex < 0 || static_cast<size_t>(AIndex) >= FItems.size()) return;
  TItem& item = FItems[static_cast<size_t>(AIndex)];
  item.Key = MakeKey(ASource, AEventID);
  item.Pattern->Source = ASource;
  item.Pattern->EventID = AEventID;
  item.Pattern->EventType = AEventType;
  item.Pattern->RunProgram = ARunProgram;
  item.Pattern->ProgramName = AProgramName;
}

void TAlertPatterns::ClearAll() {
  FItems.clear();
}

void TAlertPatterns::AssignTo(TAlertPatterns& ADest) const {
  if (&ADest == this) return;
  std::vector<TItem> items;
  items.reserve(FItems.size());
  for (const TItem& item : FItems) {
    auto copy = std::make_unique<TAlertPattern>();
    item.Pattern->AssignTo(*copy);
    items.push_back(TItem{item.Key, std::move(copy)});
  }
  ADest.FItems = std::move(items);
}

void TAlertPatterns::SaveXML(pugi::xml_node ARoot) const {
  for (const TItem& item : FItems) {
    const TAlertPattern& pattern = *item.Pattern;
    pugi::xml_node node = ARoot.append_child(kAlertName);
    node.append_attribute("Source").set_value(pattern.Source.c_str());
    node.append_attribute("Id").set_value(static_cast<unsigned long long>(pattern.EventID));
    node.append_attribute("EventType").set_value(static_cast<unsigned long long>(pattern.EventType));
    node.append_attribute("RunProgram").set_value(pattern.RunProgram ? 1 : 0);
    node.append_attribute("ProgramName").set_value(pattern.ProgramName.c_str());
  }
}

void TAlertPatterns::LoadXML(pugi::xml_node ARoot) {
  ClearAll();
  for (pugi::xml_node node = ARoot.child(kAlertName); node; node = node.next_sibling(kAlertName)) {
    // as_llong takes "4294967295" and "-1" alike; both give kAnyEventID.
    AddPattern(node.attribute("Source").as_string(), static_cast<uint32_t>(node.attribute("Id").as_llong(0)),
               static_cast<uint32_t>(node.attribute("EventType").as_llong(0)),
               node.attribute("RunProgram").as_llong(0) != 0, node.attribute("ProgramName").as_string());
  }
}

void TAlertPatterns::SaveToFile(const std::string& AFileName) const {
  pugi::xml_document doc;
  pugi::xml_node decl = doc.append_child(pugi::node_declaration);
  decl.append_attribute("version").set_value("1.0");
  decl.append_attribute("encoding").set_value("UTF-8");
  SaveXML(doc.append_child(kRootName));
  if (!doc.save_file(AFileName.c_str(), "  ", pugi::format_default, pugi::encoding_utf8))
    throw EAlertPatternsError(AFileName + ": the alert file cannot be written");
}

void TAlertPatterns::LoadFromFile(const std::string& AFileName) {
  pugi::xml_document doc;
  const pugi::xml_parse_result result = doc.load_file(AFileName.c_str());
  if (result.status == pugi::status_file_not_found || result.status == pugi::status_io_error ||
      result.status == pugi::status_out_of_memory)
    throw EAlertPatternsError(AFileName + ": the alert file cannot be read");
  if (!result)
    throw EAlertPatternsError(AFileName + ": not an XML file (offset " + std::to_string(result.offset) +
                              ": " + result.description() + ")");
  pugi::xml_node root = doc.child(kRootName);
  if (!root) throw EAlertPatternsError(AFileName + ": no AlertPatterns element; not an alert file");
  TAlertPatterns loaded;
  loaded.LoadXML(root);
  FItems.swap(loaded.FItems);
}

bool TAlertPatterns::TestEvent(const TAlertDataSet& ADataSet, TAlertRequestor* ARequestor) {
  std::string source;
  ADataSet.FieldText("Source", source);
  const uint32_t eventId = static_cast<uint32_t>(FieldInteger(ADataSet, "EventID"));
  const uint32_t typeBit = TypeBit(FieldInteger(ADataSet, "Type"));

  const TAlertPattern* match = nullptr;
  for (const TItem& item : FItems) {
    const TAlertPattern& pattern = *item.Pattern;
    if (pattern.Source.empty() && pattern.EventType == 0) continue; // inert rule
    if (pattern.EventType != 0 && (pattern.EventType & typeBit) == 0) continue;
    if (!pattern.Source.empty() &&
        (pattern.Source != source || (pattern.EventID != eventId && pattern.EventID != kAnyEventID)))
      continue;
    match = &pattern;
    break;
  }
  if (!match) return false;
  if (match->RunProgram) {
    // Copy first: the starter may run code that changes the list.
    const std::string programName = match->ProgramName;
    const std::string commandLine = ExpandMacros(programName, ADataSet, ARequestor);
    if (Starter) Starter(commandLine);
  }
  return true;
}

std::string TAlertPatterns::ExpandMacros(const std::string& AText, const TAlertDataSet& ADataSet,
                                         TAlertRequestor* ARequestor) {
  TEventHandlingOff handlingOff(ARequestor);
  std::string text = AText;
  bool haveDescr = false;
  std::string descr;
  auto description = [&]() -> const std::string& {
    if (!haveDescr) {
      if (ARequestor)
        descr = ARequestor->CurrentEventDescr();
      else if (!ADataSet.FieldText("Descr", descr))
        descr.clear();
      haveDescr = true;
    }
    return descr;
  };

  size_t limit = text.size(); // the scan looks at text[0, limit)
  while (limit > 0) {
    const size_t close = text.rfind(']', limit - 1);
    if (close == std::string::npos || close == 0) break;
    const size_t open = text.rfind('[', close - 1);
    if (open == std::string::npos) break;
    const std::string name = text.substr(open + 1, close - open - 1);
    std::string value;
    bool replace = true;
    if (SameTextAscii(name, "CRLF")) {
      value = "\r\n";
    } else if (SameTextAscii(name, "LogName")) {
      if (ARequestor)
        value = ARequestor->LogName();
      else
        replace = false;
    } else if (SameTextAscii(name, "TypeStr")) {
      bool found = false;
      const int64_t type = FieldInteger(ADataSet, "Type", &found);
      if (found)
        value = TypeStr(type);
      else
        replace = false;
    } else if (SameTextAscii(name, "Description")) {
      if (ARequestor)
        value = description();
      else
        replace = false;
    } else if (StartsTextAscii(name, "Descr:")) {
      value = DescrPart(description(), std::string_view(name).substr(6));
    } else {
      replace = ADataSet.FieldText(name, value);
    }
    if (replace) text.replace(open, close - open + 1, value);
    limit = open;
  }
  return text;
}

} // namespace qvx
