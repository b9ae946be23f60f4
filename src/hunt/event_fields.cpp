#include "hunt/event_fields.h"

#include "engine/event_xml.h"
#include "hunt/sigma_rule.h"
#include "platform/byte_reader.h"
#include "platform/file_names.h"

#include <array>
#include <cstring>

namespace qvx::hunt {

void AppendFolded(std::string& AOut, std::string_view AText) {
  const size_t size = AText.size();
  for (size_t i = 0; i < size;) {
    const auto c = static_cast<unsigned char>(AText[i]);
    if (c < 0x80) {
      AOut.push_back(FoldChar(static_cast<char>(c)));
      ++i;
      continue;
    }
    // Every folded letter lies below U+10000: two- and three-byte sequences only.
    const size_t length = c >= 0xC2 && c < 0xE0 ? 2 : c >= 0xE0 && c < 0xF0 ? 3 : 0;
    bool valid = length != 0 && size - i >= length;
    char32_t cp = length == 2 ? c & 0x1Fu : c & 0x0Fu;
    for (size_t k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(AText[i + k]);
      valid = (next & 0xC0) == 0x80;
      cp = cp << 6 | (next & 0x3Fu);
    }
    if (!valid) {
      AOut.push_back(static_cast<char>(c));
      ++i;
      continue;
    }
    const char32_t folded = FoldCodePoint(cp);
    // (FoldCodePoint keeps the length; the check keeps the promise should a pair not.)
    if (folded == cp || (length == 2 ? folded >= 0x800 : folded < 0x800 || folded >= 0x10000)) {
      AOut.append(AText.substr(i, length));
      i += length;
      continue;
    }
    if (length == 2) {
      AOut.push_back(static_cast<char>(0xC0 | folded >> 6));
    } else {
      AOut.push_back(static_cast<char>(0xE0 | folded >> 12));
      AOut.push_back(static_cast<char>(0x80 | (folded >> 6 & 0x3F)));
    }
    AOut.push_back(static_cast<char>(0x80 | (folded & 0x3F)));
    i += length;
  }
}

std::string FoldText(std::string_view AText) {
  std::string folded;
  folded.reserve(AText.size());
  AppendFolded(folded, AText);
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

inline bool Same(const std::string& A, std::string_view B) {
  return A.size() == B.size() && SameBytes(A.data(), B.data(), B.size());
}

} // namespace

void TEventFields::Link(uint32_t AId, int AIndex) {
  if (AId == TFieldNames::kNone) return;
  TLayout& layout = FLayouts[FCurrent];
  TChain& chain = layout.Chains[AId];
  if (chain.Stamp != layout.Generation) {
    chain.Stamp = layout.Generation;
    chain.First = AIndex;
  } else {
    layout.Values[static_cast<size_t>(chain.Last)].Next = AIndex;
  }
  chain.Last = AIndex;
}

void TEventFields::Add(std::string_view AName, std::string_view ARaw) {
  if (std::memchr(ARaw.data(), '&', ARaw.size()) == nullptr) {
    AddText(AName, ARaw);
    return;
  }
  // FDecoded has room for the whole event (decoding only shortens), so views into it
  // stay valid while the event is read.
  const size_t start = FDecoded.size();
  AppendXmlUnescaped(FDecoded, ARaw);
  AddText(AName, std::string_view(FDecoded.data() + start, FDecoded.size() - start));
}

void TEventFields::AddText(std::string_view AName, std::string_view AText) {
  std::vector<TValue>& values = FLayouts[FCurrent].Values;
  TValue& value = values.emplace_back();
  value.Name = AName;
  value.Text = AText;
  // Events of one kind name their values in the same order: the name at this place in
  // the last event is tried before the table.
  const size_t at = values.size() - 1;
  if (at >= FNameCache.size()) FNameCache.resize(at + 1);
  auto& [cachedName, cachedId] = FNameCache[at];
  if (!Same(cachedName, AName)) {
    cachedName.assign(AName);
    cachedId = FNames.Find(AName);
  }
  value.FieldId = cachedId;
  Link(value.FieldId, static_cast<int>(at));
}

void TEventFields::Clear(size_t ASize) {
  FPairs = nullptr;
  FMade.clear();
  FMadeOver.clear();
  FDecoded.clear();
  FFolded.clear();
  FGrams.clear();
  if (FDecoded.capacity() < ASize) FDecoded.reserve(ASize);
  if (FFolded.capacity() < ASize) FFolded.reserve(ASize);
  if (++FEvent == 0) {
    FAddresses.clear();
    FEvent = 1;
  }
}

void TEventFields::Begin(size_t ASize, uint32_t ALayout) {
  Clear(ASize);
  FCurrent = ALayout;
  TLayout& layout = FLayouts[ALayout];
  layout.Values.clear();
  layout.Shape = {};
  if (layout.Chains.size() < FNames.Count()) layout.Chains.resize(FNames.Count());
  if (++layout.Generation == 0) {
    for (TChain& chain : layout.Chains) chain.Stamp = 0;
    layout.Generation = 1;
  }
}

void TEventFields::Settle() {
  const TLayout& layout = FLayouts[FCurrent];
  FValuesAt = layout.Values.data();
  FValueCount = static_cast<int>(layout.Values.size());
  FChainsAt = layout.Chains.data();
  FChainCount = layout.Chains.size();
  FStamp = layout.Generation;
}

void TEventFields::Load(std::string_view AXml) {
  Begin(AXml.size(), kShapes);
  ForEachNamedField(AXml, [this](TNamedFieldKind AKind, std::string_view AName, std::string_view AAttr,
                                 std::string_view ARaw) {
    // Element_Attribute names live in a small buffer of their own; they are few and
    // always the same, so they are kept once.
    Add(AKind == nfSystemAttr ? SystemAttrName(AName, AAttr) : AName, ARaw);
  });
  Settle();
}

inline void TEventFields::AddKnown(std::string_view AName, std::string_view AText, uint32_t AFieldId) {
  std::vector<TValue>& values = FLayouts[FCurrent].Values;
  const int at = static_cast<int>(values.size());
  values.push_back(TValue{AName, AText, AFieldId});
  Link(AFieldId, at);
}

void TEventFields::Reload(const TNamedValues& AValues, uint32_t ALayout) {
  Clear(AValues.Bytes() + AValues.DeferredBytes());
  Pairs(AValues);
  FCurrent = ALayout;
  TValue* value = FLayouts[ALayout].Values.data();
  for (size_t i = 0, count = AValues.Count(); i < count; ++i, ++value) {
    const TNamedValues::TItem& item = AValues.Item(i);
    value->Text = AValues.Value(item);
    value->LowerAt = value->GramsAt = -1;
    value->Deferred = item.Deferred ? static_cast<int>(i) : -1;
    value->Type = item.Type;
  }
  Settle();
}

void TEventFields::Pairs(const TNamedValues& AValues) {
  FPairs = &AValues;
  if (FMade.capacity() < AValues.DeferredBytes()) FMade.reserve(AValues.DeferredBytes());
}

void TEventFields::Make(const TValue& AValue) const {
  const TNamedValues::TItem& item = FPairs->Item(static_cast<size_t>(AValue.Deferred));
  AValue.Deferred = -1;
  if (FMade.capacity() - FMade.size() >= item.ValueSize) {
    // Within the room reserved for every deferred value: earlier views stay good.
    const size_t at = FMade.size();
    FPairs->Make(item, FMade);
    AValue.Text = std::string_view(FMade.data() + at, FMade.size() - at);
    return;
  }
  std::string& made = FMadeOver.emplace_back();
  FPairs->Make(item, made);
  AValue.Text = made;
}

void TEventFields::Load(const TNamedValues& AValues) {
  if (FKnownNames != FNames.Count()) {
    // Names added: what was made of names is made again.
    FKnown.clear();
    FKnownNames = FNames.Count();
    for (TLayout& layout : FLayouts) layout.Shape = {};
  }
  const TNamedValues::TShape& shape = AValues.Shape();
  uint32_t into = kShapes;
  if (shape.Form != 0) {
    for (uint32_t at = 0; at < kShapes; ++at)
      if (FLayouts[at].Shape == shape && FLayouts[at].Values.size() == AValues.Count()) {
        Reload(AValues, at);
        return;
      }
    into = FNextShape;
    FNextShape = (FNextShape + 1) % kShapes;
  }
  // (The fold buffer must hold every value, and the buffer of made values every deferred
  // one: views point into them.)
  Begin(AValues.Bytes() + AValues.DeferredBytes(), into);
  Pairs(AValues);
  bool numbered = true;
  std::vector<TValue>& values = FLayouts[into].Values;
  if (values.capacity() < AValues.Count()) values.reserve(AValues.Count());
  for (size_t i = 0; i < AValues.Count(); ++i) {
    const TNamedValues::TItem& item = AValues.Item(i);
    if (item.NameId == TNamedValues::kNoNameId) {
      const std::string_view name = AValues.Name(item);
      AddText(item.Kind == nfSystemAttr ? SystemAttrName(name, AValues.Attr(item)) : name, AValues.Value(item));
      numbered = false; // (its name lies in the pairs: not kept for the next event)
      continue;
    }
    // A name met before by its number: nothing looked up.
    if (item.NameId >= FKnown.size()) FKnown.resize(item.NameId + 1);
    TKnownName& known = FKnown[item.NameId];
    if (!known.Set) {
      const std::string_view name = AValues.Name(item); // the number's: lasting
      // Made as AddText and SystemAttrName make it (the same answer every time after).
      known.Name = item.Kind == nfSystemAttr ? SystemAttrName(name, AValues.Attr(item)) : name;
      known.FieldId = FNames.Find(known.Name);
      known.Set = true;
    }
    AddKnown(known.Name, AValues.Value(item), known.FieldId);
  }
  for (size_t i = 0; i < AValues.Count(); ++i)
    if (const TNamedValues::TItem& item = AValues.Item(i); item.Deferred) {
      values[i].Deferred = static_cast<int>(i);
      values[i].Type = item.Type;
    }
  if (numbered) FLayouts[into].Shape = shape;
  Settle();
}



std::string_view TEventFields::SystemAttrName(std::string_view AElement, std::string_view AAttr) {
  auto same = [&](const TAttrName& A) { return Same(A.Element, AElement) && Same(A.Attr, AAttr); };
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
  const TValue& value = FValuesAt[AIndex];
  if (value.LowerAt < 0) {
    // FFolded has room for every value of the event, so earlier views stay valid.
    value.LowerAt = static_cast<int>(FFolded.size());
    const std::string_view text = Text(AIndex);
    // ASCII byte by byte until the first other byte (most values have none).
    size_t at = 0;
    for (; at < text.size() && static_cast<unsigned char>(text[at]) < 0x80; ++at)
      FFolded.push_back(FoldChar(text[at]));
    if (at < text.size()) AppendFolded(FFolded, text.substr(at));
  }
  return std::string_view(FFolded.data() + value.LowerAt, value.Text.size());
}

const uint64_t* TEventFields::Grams(int AIndex) const {
  const TValue& value = FValuesAt[AIndex];
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

bool TEventFields::Address(int AIndex, std::array<uint8_t, 16>& AAddress) const {
  const size_t at = static_cast<size_t>(AIndex);
  if (at >= FAddresses.size()) FAddresses.resize(static_cast<size_t>(FValueCount));
  TAddressMemo& memo = FAddresses[at];
  if (memo.Event != FEvent) {
    memo.Event = FEvent;
    memo.Valid = ParseIpAddress(Text(AIndex), memo.Bytes);
  }
  AAddress = memo.Bytes;
  return memo.Valid;
}

} // namespace qvx::hunt
