// An event's values with the names Sigma's Windows field names use, read out of its XML
// text, and the same (name, value) pairs carried without the XML.
//
// ForEachNamedField walks one event's XML text once and hands out, in document order:
//   System     each element's text under its name (EventID, Channel, ...), each
//              attribute as its element and attribute (nfSystemAttr: Provider + Name)
//   EventData  <Data Name="N"> under N, a <Data> without a name under "Data", any other
//              leaf element (<Binary>) under its name
//   UserData   every leaf element's text under its local name, every attribute (but
//              xmlns) under its local name
// Values are handed out raw, as the text holds them (entities not decoded). Only leaf
// elements give their text. It builds no tree and never raises: what cannot be read is
// left out. The hunt reads events with it (hunt/event_fields.h), and the field reader
// (record_fields.h) reads templates' marked text with it, so both name values alike.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

enum TNamedFieldKind : uint8_t {
  nfText,       // AName: the element (or Data's Name)
  nfSystemAttr, // AName: the System element, AAttr: its attribute
  nfAttr        // AName: a UserData attribute's local name
};

struct TNamedFieldName {
  TNamedFieldKind Kind = nfText;
  std::string Name, Attr;
};

// A number for a kind, name and attribute, the same for the same three in the whole
// process (so a reader of pairs can keep what it made of a name by number, and compare
// nothing). Numbers are small and dense; past a bound (1 << 20 names) kNoNameId (of
// TNamedValues). Thread-safe.
uint32_t InternNamedField(TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr);
// What number AId (given by InternNamedField) stands for; kept for the process's life.
// Thread-safe, takes no lock.
const TNamedFieldName& NamedFieldOf(uint32_t AId);

// (kind, name, attribute, value) of one event, values already decoded: what
// ForEachNamedField gives, kept without the XML (record_fields.h makes them straight
// from the binary XML). Reused from event to event with its room.
class TNamedValues {
public:
  static constexpr uint32_t kNoNameId = 0xFFFFFFFF;
  struct TItem {
    TNamedFieldKind Kind = nfText;
    // A value not made yet (AddDeferred): ValueAt is its maker's number for it, ValueSize
    // the most bytes its text can take, Type its binary type.
    bool Deferred = false;
    uint8_t Type = 0;
    // The number InternNamedField gave its kind, name and attribute (kNoNameId: none).
    uint32_t NameId = kNoNameId;
    uint32_t NameAt = 0, NameSize = 0, AttrAt = 0, AttrSize = 0, ValueAt = 0, ValueSize = 0;
    const char* View = nullptr; // the value's text when it lies outside Text() (AddView)
  };
  // What makes deferred values: Make appends the text of value ANumber to AOut (never
  // more than the bound AddDeferred was given, also while it works). Its data must stay
  // unchanged while the pairs are used.
  struct TMaker {
    void (*Make)(const TMaker& AMaker, uint32_t ANumber, std::string& AOut) = nullptr;
    const void* Context = nullptr;
    const uint8_t* Data = nullptr;
    const uint64_t* Refs = nullptr;
  };
  void Clear() {
    FText.clear();
    FItems.clear();
    FViewBytes = 0;
    FShape = {};
    FDeferredBytes = 0;
  }
  // What the items' kinds, names and order follow from, when the maker of the pairs knows
  // it (Form 0: not known): two events of the same shape have the same items in the same
  // order, but for their values, and a reader may keep what it made of their names.
  struct TShape {
    uint64_t Form = 0;    // unique in the process
    uint64_t Variant = 0; // which of the form's optional items are left out
    bool operator==(const TShape&) const = default;
  };
  const TShape& Shape() const { return FShape; }
  void SetShape(const TShape& AShape) { FShape = AShape; }
  // Starts an item; its value is appended to Text() until the next Begin. With a name
  // number (InternNamedField of AKind, AName and AAttr) the name is not copied.
  void Begin(TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr, uint32_t ANameId = kNoNameId) {
    TItem& item = FItems.emplace_back();
    item.Kind = AKind;
    item.NameId = ANameId;
    item.NameAt = item.AttrAt = static_cast<uint32_t>(FText.size());
    if (ANameId == kNoNameId) {
      item.NameSize = static_cast<uint32_t>(AName.size());
      FText.append(AName);
      item.AttrAt = static_cast<uint32_t>(FText.size());
      item.AttrSize = static_cast<uint32_t>(AAttr.size());
      FText.append(AAttr);
    }
    item.ValueAt = static_cast<uint32_t>(FText.size());
  }
  // Adds an item whose value is AValue where it lies, not copied: the caller keeps it
  // unchanged while the pairs are used.
  void AddView(TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr, uint32_t ANameId,
               std::string_view AValue) {
    Begin(AKind, AName, AAttr, ANameId);
    TItem& item = FItems.back();
    item.View = AValue.data();
    item.ValueSize = static_cast<uint32_t>(AValue.size());
    FViewBytes += AValue.size();
  }
  // Adds an item whose value is made only when asked for (Make), by the maker set last:
  // a reader that needs few of an event's values makes only those. AType is the value's
  // binary type, ABound the most bytes its text can take.
  void AddDeferred(TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr, uint32_t ANameId,
                   uint32_t ANumber, uint8_t AType, uint32_t ABound) {
    Begin(AKind, AName, AAttr, ANameId);
    TItem& item = FItems.back();
    item.Deferred = true;
    item.Type = AType;
    item.ValueAt = ANumber;
    item.ValueSize = ABound;
    FDeferredBytes += ABound;
  }
  void SetMaker(const TMaker& AMaker) { FMaker = AMaker; }
  // Appends a deferred item's text to AOut.
  void Make(const TItem& AItem, std::string& AOut) const { FMaker.Make(FMaker, AItem.ValueAt, AOut); }
  // The most bytes the deferred items' texts take together.
  size_t DeferredBytes() const { return FDeferredBytes; }
  std::string& Text() { return FText; }
  // The bytes of all values (those in Text() and those viewed elsewhere), names aside
  // for items without a number: at least the sum of the values' sizes.
  size_t Bytes() const { return FText.size() + FViewBytes; }
  const std::string& Text() const { return FText; }
  // Ends the item begun last.
  void End() { FItems.back().ValueSize = static_cast<uint32_t>(FText.size() - FItems.back().ValueAt); }
  // Drops the item begun last (with its text).
  void Drop() {
    if (FItems.back().View) FViewBytes -= FItems.back().ValueSize;
    FText.resize(FItems.back().NameAt);
    FItems.pop_back();
  }
  size_t Count() const { return FItems.size(); }
  const TItem& Item(size_t AIndex) const { return FItems[AIndex]; }
  // (Of a numbered item: the number's, good for the process's life.)
  std::string_view Name(const TItem& AItem) const {
    if (AItem.NameId != kNoNameId) return NamedFieldOf(AItem.NameId).Name;
    return {FText.data() + AItem.NameAt, AItem.NameSize};
  }
  std::string_view Attr(const TItem& AItem) const {
    if (AItem.NameId != kNoNameId) return NamedFieldOf(AItem.NameId).Attr;
    return {FText.data() + AItem.AttrAt, AItem.AttrSize};
  }
  // (Empty for a deferred item: Make gives its text.)
  std::string_view Value(const TItem& AItem) const {
    if (AItem.Deferred) return {};
    return {AItem.View ? AItem.View : FText.data() + AItem.ValueAt, AItem.ValueSize};
  }
  void Swap(TNamedValues& AOther) {
    FText.swap(AOther.FText);
    FItems.swap(AOther.FItems);
    std::swap(FViewBytes, AOther.FViewBytes);
    std::swap(FShape, AOther.FShape);
    std::swap(FDeferredBytes, AOther.FDeferredBytes);
    std::swap(FMaker, AOther.FMaker);
  }

private:
  std::string FText;
  std::vector<TItem> FItems;
  size_t FViewBytes = 0;     // the sizes of the viewed values
  size_t FDeferredBytes = 0; // the bounds of the deferred values
  TMaker FMaker;
  TShape FShape;
};

namespace detail {

enum TNamedSection { nsOther, nsSystem, nsEventData, nsUserData };

// Characters that end a tag or attribute name.
inline constexpr std::array<bool, 256> kNamedNameEnd = [] {
  std::array<bool, 256> table{};
  for (const char c : {' ', '\t', '\r', '\n', '/', '>', '='}) table[static_cast<uint8_t>(c)] = true;
  return table;
}();

inline bool IsNamedNameChar(char AChar) { return !kNamedNameEnd[static_cast<uint8_t>(AChar)]; }
inline bool IsNamedBlank(char AChar) { return AChar == ' ' || AChar == '\t' || AChar == '\r' || AChar == '\n'; }

// The local part of a qualified name ("ns:Name" -> "Name").
inline std::string_view NamedLocalName(std::string_view AName) {
  for (size_t i = 0; i < AName.size(); ++i)
    if (AName[i] == ':') return AName.substr(i + 1);
  return AName;
}

} // namespace detail

inline constexpr int kNamedMaxDepth = 32;

// Calls AAdd(TNamedFieldKind, std::string_view name, std::string_view attr, std::string_view raw)
// for every named value of AXml (see above), in document order.
template <typename TAdd>
void ForEachNamedField(std::string_view AXml, TAdd&& AAdd) {
  using namespace detail;
  // Entries below depth are always set before they are read (not cleared per event).
  struct TOpen {
    std::string_view Name; // the field name the element's text goes to ("" for none)
    size_t TextStart;
    bool HasChild;
  };
  TOpen stack[kNamedMaxDepth];
  int depth = 0;
  TNamedSection section = nsOther;
  const char* const text = AXml.data();
  const size_t size = AXml.size();
  size_t pos = 0;
  while (pos < size) {
    // Rendered events put one tag right after another, at most a line break apart: the
    // next '<' is most often here. (A leaf's text runs from its start tag to its end tag,
    // so blanks stepped over here are not lost.)
    while (pos < size && IsNamedBlank(text[pos])) ++pos;
    if (pos >= size) break;
    size_t at = pos;
    if (text[pos] != '<') {
      const void* found = std::memchr(text + pos, '<', size - pos);
      if (!found) break;
      at = static_cast<size_t>(static_cast<const char*>(found) - text);
    }
    if (at + 1 >= size) break;
    const char kind = text[at + 1];
    if (kind == '?' || kind == '!') {
      const void* close = std::memchr(text + at, '>', size - at);
      if (!close) break;
      pos = static_cast<size_t>(static_cast<const char*>(close) - text) + 1;
      continue;
    }
    if (kind == '/') {
      // End tag: the text of a leaf element becomes its field's value.
      const void* close = std::memchr(text + at, '>', size - at);
      if (!close) break;
      if (depth > 0) {
        --depth;
        if (depth < kNamedMaxDepth) {
          const TOpen& open = stack[depth];
          if (!open.HasChild && !open.Name.empty())
            AAdd(nfText, open.Name, std::string_view(), AXml.substr(open.TextStart, at - open.TextStart));
        }
        if (depth <= 1) section = nsOther;
      }
      pos = static_cast<size_t>(static_cast<const char*>(close) - text) + 1;
      continue;
    }
    // Start tag. The commonest by far, <Data Name="N"> in EventData, is read at once
    // (anything else about it, such as more attributes, takes the general way below).
    static constexpr std::string_view kDataName = "<Data Name=\"";
    if (section == nsEventData && depth == 2 && size - at > kDataName.size() &&
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
    for (; p < size && IsNamedNameChar(text[p]); ++p)
      if (text[p] == ':' && !prefixed) {
        prefixed = true;
        nameStart = p + 1;
      }
    const std::string_view element = AXml.substr(nameStart, p - nameStart);
    if (depth > 0 && depth <= kNamedMaxDepth) stack[depth - 1].HasChild = true;
    if (depth == 1) {
      section = element == "System"      ? nsSystem
                : element == "EventData" ? nsEventData
                : element == "UserData"  ? nsUserData
                                         : nsOther;
    }
    std::string_view fieldName;
    if (depth >= 2 && section != nsOther) fieldName = element;
    if (section == nsEventData && depth == 2 && element == "Data") fieldName = "Data";
    // Attributes.
    bool selfClosing = false;
    for (;;) {
      while (p < size && IsNamedBlank(text[p])) ++p;
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
      while (p < size && IsNamedNameChar(text[p])) ++p;
      const std::string_view attr = AXml.substr(attrStart, p - attrStart);
      while (p < size && IsNamedBlank(text[p])) ++p;
      if (p >= size || text[p] != '=') {
        if (p == attrStart) ++p; // a stray character: step over it
        continue;
      }
      ++p;
      while (p < size && IsNamedBlank(text[p])) ++p;
      if (p >= size || (text[p] != '"' && text[p] != '\'')) continue;
      const char quote = text[p++];
      const void* endQuote = std::memchr(text + p, quote, size - p);
      if (!endQuote) {
        p = size;
        break;
      }
      const size_t valueEnd = static_cast<size_t>(static_cast<const char*>(endQuote) - text);
      const std::string_view value = AXml.substr(p, valueEnd - p);
      p = valueEnd + 1;
      if (depth < 2 || section == nsOther || attr.starts_with("xmlns")) continue;
      if (section == nsEventData && depth == 2 && element == "Data" && attr == "Name") {
        fieldName = value;
      } else if (section == nsSystem && depth == 2) {
        AAdd(nfSystemAttr, element, attr, value);
      } else if (section == nsUserData) {
        AAdd(nfAttr, NamedLocalName(attr), std::string_view(), value);
      }
    }
    if (selfClosing) {
      if (depth == 1) section = nsOther;
      pos = p;
      continue;
    }
    if (depth < kNamedMaxDepth) stack[depth] = TOpen{fieldName, p, false};
    ++depth;
    pos = p;
  }
}

} // namespace qvx
