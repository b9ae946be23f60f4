#include "filter/loading_filter.h"

#include "filter/event_filter.h"

#include <charconv>
#include <cstring>
#include <sstream>

namespace qvx {

namespace {

std::string Trim(const std::string& AText) {
  size_t begin = 0, end = AText.size();
  while (begin < end && static_cast<unsigned char>(AText[begin]) <= ' ') ++begin;
  while (end > begin && static_cast<unsigned char>(AText[end - 1]) <= ' ') --end;
  return AText.substr(begin, end - begin);
}

// The text, its exclusion flag and its comma-separated items.
void TranslateNames(const std::string& AText, std::vector<std::string>& AList, bool& AExclude) {
  std::string text = Trim(AText);
  AExclude = !text.empty() && text[0] == '!';
  if (AExclude) text.erase(0, 1);
  AList.clear();
  std::stringstream items(text);
  for (std::string item; std::getline(items, item, ',');) {
    item = Trim(item);
    if (!item.empty()) AList.push_back(item);
  }
}

bool SameNameNoCase(const char* A, const char* B) {
  for (; *A && *B; ++A, ++B)
    if (std::tolower(static_cast<unsigned char>(*A)) != std::tolower(static_cast<unsigned char>(*B))) return false;
  return *A == *B;
}

pugi::xml_node ChildNoCase(pugi::xml_node ANode, const char* AName) {
  for (const pugi::xml_node child : ANode.children())
    if (child.type() == pugi::node_element && SameNameNoCase(child.name(), AName)) return child;
  return {};
}

std::string PathOf(pugi::xml_node ANode) {
  std::string path;
  for (pugi::xml_node node = ANode; node && node.type() == pugi::node_element; node = node.parent())
    path.insert(0, path.empty() ? std::string(node.name()) : std::string(node.name()) + "/");
  return path;
}

} // namespace

void TLogLoadingFilter::Reset() {
  LoadEvents = lemAll;
  LastDays = LastHours = NumEvents = 0;
  LoadEventTypes = kAllEventTypes;
  LoadEventIDStr.clear();
  LoadEventIDs.reset();
  LoadSource.clear();
  LoadSources.clear();
  LoadUser.clear();
  LoadUsers.clear();
  LoadComputer.clear();
  LoadComputers.clear();
  LoadDescr.clear();
  LoadDescrParam.clear();
  LoadDescrParams.clear();
  LoadSourceExcl = LoadUserExcl = LoadComputerExcl = LoadDescrExcl = LoadDescrParamrExcl = false;
}

bool TLogLoadingFilter::IsEmpty() const {
  return LoadEvents == lemAll && (LoadEventTypes == kAllEventTypes || LoadEventTypes == 0) &&
         LoadEventIDStr.empty() && LoadSource.empty() && LoadUser.empty() && LoadComputer.empty() &&
         LoadDescr.empty() && LoadDescrParam.empty();
}

void TLogLoadingFilter::TranslateStrings() {
  // Event IDs: the included ones (all when none is named), less the excluded ones.
  std::vector<TEventIdSpan> include, exclude;
  SplitEventIdExpression(LoadEventIDStr, include, exclude);
  LoadEventIDs.reset();
  if (include.empty()) LoadEventIDs.set();
  auto apply = [this](const TEventIdSpan& AItem, bool AValue) {
    const uint32_t low = AItem.Low, high = AItem.Range ? AItem.High : AItem.Low;
    for (uint32_t id = low; id <= high && id <= 0xFFFF; ++id) LoadEventIDs.set(id, AValue);
  };
  for (const TEventIdSpan& item : include) apply(item, true);
  for (const TEventIdSpan& item : exclude) apply(item, false);

  TranslateNames(LoadSource, LoadSources, LoadSourceExcl);
  TranslateNames(LoadUser, LoadUsers, LoadUserExcl);
  TranslateNames(LoadComputer, LoadComputers, LoadComputerExcl);
  TranslateNames(LoadDescrParam, LoadDescrParams, LoadDescrParamrExcl);
}

void TLogLoadingFilter::AssignTo(TSerObject& ADest) const {
  auto* dest = dynamic_cast<TLogLoadingFilter*>(&ADest);
  if (!dest) {
    TSerObject::AssignTo(ADest); // raises with both class names
    return;
  }
  if (dest == this) return;
  const int32_t version = dest->Version();
  *dest = *this;
  dest->SetVersion(version);
  dest->SetVersion(Version());
}

void TLogLoadingFilter::SaveToXML(pugi::xml_node ARoot, const std::string& ASubNodeName) const {
  pugi::xml_node node = ARoot.append_child(ASubNodeName.c_str());
  auto put = [&](const char* AName, const std::string& AText) { node.append_child(AName).text().set(AText.c_str()); };
  put("LoadEvents", std::to_string(LoadEvents));
  put("LoadLastDays", std::to_string(LastDays));
  put("LoadLastHours", std::to_string(LastHours));
  put("LoadNumEvents", std::to_string(NumEvents));
  put("LoadEventTypes", std::to_string(LoadEventTypes));
  put("LoadEventIDs", Trim(LoadEventIDStr));
  put("LoadSource", Trim(LoadSource));
  put("LoadUser", Trim(LoadUser));
  put("LoadComputer", Trim(LoadComputer));
  put("LoadDescr", Trim(LoadDescr));
  put("LoadDescrParams", Trim(LoadComputer)); // the computer text, as files in the field have it
}

void TLogLoadingFilter::LoadFromXML(pugi::xml_node ARoot, const std::string& ASubNodeName) {
  const pugi::xml_node node = ASubNodeName.empty() ? ARoot : ChildNoCase(ARoot, ASubNodeName.c_str());
  if (!node) return;
  TLogLoadingFilter loaded;
  auto number = [&](const char* AName, int32_t& AValue) {
    const pugi::xml_node element = ChildNoCase(node, AName);
    if (!element) return;
    const std::string text = Trim(element.text().as_string());
    int32_t value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || ptr != text.data() + text.size())
      throw ESerLoadError("element " + PathOf(element) + ": \"" + text + "\" is not an integer");
    AValue = value;
  };
  auto text = [&](const char* AName, std::string& AValue) {
    if (const pugi::xml_node element = ChildNoCase(node, AName)) AValue = element.text().as_string();
  };
  number("LoadEvents", loaded.LoadEvents);
  number("LoadLastDays", loaded.LastDays);
  number("LoadLastHours", loaded.LastHours);
  number("LoadNumEvents", loaded.NumEvents);
  number("LoadEventTypes", loaded.LoadEventTypes);
  text("LoadEventIds", loaded.LoadEventIDStr);
  text("LoadSource", loaded.LoadSource);
  text("LoadUser", loaded.LoadUser);
  text("LoadComputer", loaded.LoadComputer);
  text("LoadDescr", loaded.LoadDescr);
  text("LoadDescrParams", loaded.LoadDescrParam);
  loaded.TranslateStrings();
  loaded.SetVersion(Version());
  *this = loaded;
}

void TForensicLoadingFilter::DeclareProperties(TPropertyList& AProps) {
  TSerClass<TForensicLoadingFilter>::DeclareProperties(AProps);
  AProps.Strings("LoadChannels", &TForensicLoadingFilter::LoadChannels)
      .Bool("LoadChannelsExcl", &TForensicLoadingFilter::LoadChannelsExcl);
}

} // namespace qvx
