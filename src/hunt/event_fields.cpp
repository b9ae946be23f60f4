#include "hunt/event_fields.h"

#include "engine/event_xml.h"

#include <array>
#include <cstring>

namespace qvx::hunt {

std::string FoldText(std::string_view AText) {
  std::string folded(AText);
  for (char& c : folded) c = FoldChar(c);
  return folded;
}

uint32_t TFieldNames::Hash(std::string_view AName) {
  // The length and three folded characters: names of events are short and differ there.
  uint32_t hash = static_cast<uint32_t>(AName.size()) * 0x9E3779B1u;
  if (!AName.empty()) {
    hash ^= static_cast<uint8_t>(FoldChar(AName.front())) * 0x85EBCA6Bu;
    hash ^= static_cast<uint8_t>(FoldChar(AName[AName.size() / 2])) * 0xC2B2AE35u;
    hash ^= static_cast<uint8_t>(FoldChar(AName.back())) * 0x27D4EB2Fu;
  }
  return hash ^ hash >> 15;
}

uint32_t TFieldNames::Intern(std::string_view AName) {
  if (const uint32_t known = Find(AName); known != kNone) return known; // most calls: nothing made
  std::string key = FoldText(AName);
  const auto [at, added] = FIds.emplace(key, static_cast<uint32_t>(FNames.size()));
  if (!added) return at->second;
  FNames.emplace_back(AName);
  FFolded.push_back(std::move(key));
  if (FSlots.size() < FNames.size() * 2) {
    FSlots.assign(std::max<size_t>(64, FSlots.size() * 4), 0);
    for (uint32_t id = 0; id + 1 < FNames.size(); ++id) {
      size_t slot = Hash(FFolded[id]) & (FSlots.size() - 1);
      while (FSlots[slot]) slot = (slot + 1) & (FSlots.size() - 1);
      FSlots[slot] = id + 1;
    }
  }
  size_t slot = Hash(FFolded.back()) & (FSlots.size() - 1);
  while (FSlots[slot]) slot = (slot + 1) & (FSlots.size() - 1);
  FSlots[slot] = static_cast<uint32_t>(FNames.size());
  return at->second;
}

uint32_t TFieldNames::Find(std::string_view AName) const {
  if (FSlots.empty()) return kNone;
  for (size_t slot = Hash(AName) & (FSlots.size() - 1); FSlots[slot]; slot = (slot + 1) & (FSlots.size() - 1)) {
    const uint32_t id = FSlots[slot] - 1;
    const std::string& folded = FFolded[id];
    if (folded.size() != AName.size()) continue;
    size_t i = 0;
    while (i < AName.size() && FoldChar(AName[i]) == folded[i]) ++i;
    if (i == AName.size()) return id;
  }
  return kNone;
}

namespace {

enum TSection { scOther, scSystem, scEventData, scUserData };

// Characters that end a tag or attribute name.
constexpr std::array<bool, 256> kNameEnd = [] {
  std::array<bool, 256> table{};
  for (const char c : {' ', '\t', '\r', '\n', '/', '>', '='}) table[static_cast<uint8_t>(c)] = true;
  return table;
}();

bool IsNameChar(char AChar) {
  return !kNameEnd[static_cast<uint8_t>(AChar)];
}

bool IsBlank(char AChar) {
  return AChar == ' ' || AChar == '\t' || AChar == '\r' || AChar == '\n';
}

// The local part of a qualified name ("ns:Name" -> "Name").
std::string_view LocalName(std::string_view AName) {
  for (size_t i = 0; i < AName.size(); ++i)
    if (AName[i] == ':') return AName.substr(i + 1);
  return AName;
}

} // namespace

void TEventFields::Link(uint32_t AId, int AIndex) {
  if (AId == TFieldNames::kNone) return;
  if (FStamp[AId] != FGeneration) {
    FStamp[AId] = FGeneration;
    FFirst[AId] = AIndex;
  } else {
    FValues[static_cast<size_t>(FLast[AId])].Next = AIndex;
  }
  FLast[AId] = AIndex;
}

void TEventFields::Add(std::string_view AName, std::string_view ARaw) {
  TValue& value = FValues.emplace_back();
  value.Name = AName;
  if (std::memchr(ARaw.data(), '&', ARaw.size()) == nullptr) {
    value.Text = ARaw;
  } else {
    // FDecoded has room for the whole event (decoding only shortens), so views into it
    // stay valid while the event is read.
    const size_t start = FDecoded.size();
    AppendXmlUnescaped(FDecoded, ARaw);
    value.Text = std::string_view(FDecoded.data() + start, FDecoded.size() - start);
  }
  // Events of one kind name their values in the same order: the name at this place in
  // the last event is tried before the table.
  const size_t at = FValues.size() - 1;
  if (at >= FNameCache.size()) FNameCache.resize(at + 1);
  auto& [cachedName, cachedId] = FNameCache[at];
  if (cachedName.size() != AName.size() || std::memcmp(cachedName.data(), AName.data(), AName.size()) != 0) {
    cachedName.assign(AName);
    cachedId = FNames.Find(AName);
  }
  value.FieldId = cachedId;
  Link(value.FieldId, static_cast<int>(FValues.size() - 1));
}

void TEventFields::Load(std::string_view AXml) {
  FValues.clear();
  FDecoded.clear();
  FFolded.clear();
  FGrams.clear();
  if (FDecoded.capacity() < AXml.size()) FDecoded.reserve(AXml.size());
  if (FFolded.capacity() < AXml.size()) FFolded.reserve(AXml.size());
  if (FStamp.size() < FNames.Count()) {
    FStamp.resize(FNames.Count(), 0);
    FFirst.resize(FNames.Count(), kNoValue);
    FLast.resize(FNames.Count(), kNoValue);
  }
  if (++FGeneration == 0) {
    std::fill(FStamp.begin(), FStamp.end(), 0);
    FGeneration = 1;
  }

  // Entries below depth are always set before they are read (not cleared per event).
  struct TOpen {
    std::string_view Name;      // the field name the element's text goes to ("" for none)
    size_t TextStart;
    bool HasChild;
  };
  TOpen stack[kMaxDepth];
  int depth = 0;
  TSection section = scOther;
  const char* const text = AXml.data();
  const size_t size = AXml.size();
  size_t pos = 0;
  while (pos < size) {
    // Rendered events put one tag right after another, at most a line break apart: the
    // next '<' is most often here. (A leaf's text runs from its start tag to its end tag,
    // so blanks stepped over here are not lost.)
    while (pos < size && IsBlank(text[pos])) ++pos;
    if (pos >= size) break;
    size_t at = pos;
    if (text[pos] != '<') {
      const void* found = std::memchr(text + pos, '<', size - pos);
      if (!found) break;
      at = static_cast<const char*>(found) - text;
    }
    if (at + 1 >= size) break;
    const char kind = text[at + 1];
    if (kind == '?' || kind == '!') {
      const void* close = std::memchr(text + at, '>', size - at);
      if (!close) break;
      pos = static_cast<const char*>(close) - text + 1;
      continue;
    }
    if (kind == '/') {
      // End tag: the text of a leaf element becomes its field's value.
      const void* close = std::memchr(text + at, '>', size - at);
      if (!close) break;
      if (depth > 0) {
        --depth;
        if (depth < kMaxDepth) {
          const TOpen& open = stack[depth];
          if (!open.HasChild && !open.Name.empty())
            Add(open.Name, AXml.substr(open.TextStart, at - open.TextStart));
        }
        if (depth <= 1) section = scOther;
      }
      pos = static_cast<const char*>(close) - text + 1;
      continue;
    }
    // Start tag. The commonest by far, <Data Name="N"> in EventData, is read at once
    // (anything else about it, such as more attributes, takes the general way below).
    static constexpr std::string_view kDataName = "<Data Name=\"";
    if (section == scEventData && depth == 2 && size - at > kDataName.size() &&
        std::memcmp(text + at, kDataName.data(), kDataName.size()) == 0) {
      const size_t nameStart = at + kDataName.size();
      const void* quote = std::memchr(text + nameStart, '"', size - nameStart);
      const size_t nameEnd = quote ? static_cast<size_t>(static_cast<const char*>(quote) - text) : size;
      if (nameEnd + 1 < size && text[nameEnd + 1] == '>') {
        stack[depth - 1].HasChild = true;
        stack[depth] = TOpen{AXml.substr(nameStart, nameEnd - nameStart), nameEnd + 2, false};
        ++depth;
        pos = nameEnd + 2;
        continue;
      }
    }
    size_t p = at + 1;
    // The local part of the name, after the first ':' ("ns:Name" -> "Name").
    size_t nameStart = p;
    bool prefixed = false;
    for (; p < size && IsNameChar(text[p]); ++p)
      if (text[p] == ':' && !prefixed) {
        prefixed = true;
        nameStart = p + 1;
      }
    const std::string_view element = AXml.substr(nameStart, p - nameStart);
    if (depth > 0 && depth <= kMaxDepth) stack[depth - 1].HasChild = true;
    if (depth == 1) {
      section = element == "System"      ? scSystem
                : element == "EventData" ? scEventData
                : element == "UserData"  ? scUserData
                                         : scOther;
    }
    std::string_view fieldName;
    if (depth >= 2 && section != scOther) fieldName = element;
    if (section == scEventData && depth == 2 && element == "Data") fieldName = "Data";
    // Attributes.
    bool selfClosing = false;
    for (;;) {
      while (p < size && IsBlank(text[p])) ++p;
      if (p >= size) break;
      if (text[p] == '>') {
        ++p;
        break;
      }
      if (text[p] == '/') {
        selfClosing = true;
        ++p;
        continue;
      }
      const size_t attrStart = p;
      while (p < size && IsNameChar(text[p])) ++p;
      const std::string_view attr = AXml.substr(attrStart, p - attrStart);
      while (p < size && IsBlank(text[p])) ++p;
      if (p >= size || text[p] != '=') {
        if (p == attrStart) ++p; // a stray character: step over it
        continue;
      }
      ++p;
      while (p < size && IsBlank(text[p])) ++p;
      if (p >= size || (text[p] != '"' && text[p] != '\'')) continue;
      const char quote = text[p++];
      const void* endQuote = std::memchr(text + p, quote, size - p);
      if (!endQuote) {
        p = size;
        break;
      }
      const size_t valueEnd = static_cast<const char*>(endQuote) - text;
      const std::string_view value = AXml.substr(p, valueEnd - p);
      p = valueEnd + 1;
      if (depth < 2 || section == scOther || attr.starts_with("xmlns")) continue;
      if (section == scEventData && depth == 2 && element == "Data" && attr == "Name") {
        fieldName = value;
      } else if (section == scSystem && depth == 2) {
        // Element_Attribute names live in a small buffer of their own; they are few and
        // always the same, so they are kept once.
        Add(SystemAttrName(element, attr), value);
      } else if (section == scUserData) {
        Add(LocalName(attr), value);
      }
    }
    if (selfClosing) {
      if (depth == 1) section = scOther;
      pos = p;
      continue;
    }
    if (depth < kMaxDepth) stack[depth] = TOpen{fieldName, p, false};
    ++depth;
    pos = p;
  }
}

std::string_view TEventFields::SystemAttrName(std::string_view AElement, std::string_view AAttr) {
  auto same = [&](const TAttrName& A) { return A.Element == AElement && A.Attr == AAttr; };
  if (FAttrNext < FAttrNames.size() && same(FAttrNames[FAttrNext])) return FAttrNames[FAttrNext++].Name;
  for (size_t i = 0; i < FAttrNames.size(); ++i)
    if (same(FAttrNames[i])) {
      FAttrNext = i + 1;
      return FAttrNames[i].Name;
    }
  if (FAttrNames.size() >= 256) return "System_Attribute"; // hostile XML: do not grow without end
  std::string name(AElement);
  name.append("_").append(AAttr);
  FAttrNames.push_back({std::string(AElement), std::string(AAttr), std::move(name)});
  FAttrNext = FAttrNames.size();
  return FAttrNames.back().Name;
}

std::string_view TEventFields::Lower(int AIndex) const {
  const TValue& value = FValues[static_cast<size_t>(AIndex)];
  if (value.LowerAt < 0) {
    // FFolded has room for every value of the event, so earlier views stay valid.
    value.LowerAt = static_cast<int>(FFolded.size());
    for (const char c : value.Text) FFolded.push_back(FoldChar(c));
  }
  return std::string_view(FFolded.data() + value.LowerAt, value.Text.size());
}

const uint64_t* TEventFields::Grams(int AIndex) const {
  const TValue& value = FValues[static_cast<size_t>(AIndex)];
  if (value.GramsAt < 0) {
    const std::string_view text = Lower(AIndex);
    value.GramsAt = static_cast<int>(FGrams.size());
    FGrams.resize(FGrams.size() + kGramWords, 0);
    uint64_t* bits = FGrams.data() + value.GramsAt;
    for (size_t at = 0; at + 4 <= text.size(); ++at) {
      uint32_t four;
      std::memcpy(&four, text.data() + at, 4);
      const uint32_t hash = GramHash(four);
      bits[hash >> 6] |= uint64_t{1} << (hash & 63);
    }
  }
  return FGrams.data() + value.GramsAt;
}

} // namespace qvx::hunt
