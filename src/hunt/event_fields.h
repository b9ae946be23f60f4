// The fields of one event as Sigma's Windows field names see them, read out of the
// event's XML text.
//
// Names:
//   System          an element's text under its name (EventID, Channel, Computer, Level,
//                   Task, Keywords, EventRecordID, ...); an attribute as Element_Attribute
//                   (Provider_Name, Provider_Guid, TimeCreated_SystemTime,
//                   Execution_ProcessID, Security_UserID, EventID_Qualifiers)
//   EventData       <Data Name="N"> under N; a <Data> without a name under "Data";
//                   <Binary> under "Binary"
//   UserData        every element that holds text under its name, and every attribute
//                   (but xmlns) under its name
// A name may hold several values (unnamed <Data> elements, repeated elements).
//
// The names and the walk are engine/named_fields.h's; an event can also be loaded from
// the (name, value) pairs the engine reads straight from its binary XML, which gives the
// same fields. The reader does not build a tree: it walks the text once, points into it for values
// without entities and decodes the others into a buffer that keeps its room from event
// to event, so reading an event allocates nothing once the buffers have grown. The
// lower-case form of a value is made the first time a test asks for it. Malformed text
// never raises: what cannot be read is left out.
#pragma once

#include "engine/named_fields.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx::hunt {

// The 12-bit hash of 4 bytes of folded text, for the 4-gram table of a value.
inline uint32_t GramHash(uint32_t AFourBytes) {
  return (AFourBytes * 0x9E3779B1u) >> 20;
}

// ASCII lower case of one byte (the fast path of the folds below; the bytes of other
// letters keep their case).
inline char FoldChar(char AChar) {
  return AChar >= 'A' && AChar <= 'Z' ? static_cast<char>(AChar + 32) : AChar;
}
// Appends AText (UTF-8) folded with FoldCodePoint (platform/file_names.h): exactly as many bytes, each letter in
// the place it had, so a match found in the folded text is at the same place in the
// text. A byte that is not part of a well-formed sequence is kept.
void AppendFolded(std::string& AOut, std::string_view AText);
// Whether AText is all ASCII (its folded form is then its bytes with A-Z made small).
inline bool IsAscii(std::string_view AText) {
  uint64_t high = 0;
  size_t i = 0;
  for (; i + 8 <= AText.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, AText.data() + i, 8);
    high |= word;
  }
  for (; i < AText.size(); ++i) high |= static_cast<uint8_t>(AText[i]);
  return (high & 0x8080808080808080ull) == 0;
}
// The text folded as AppendFolded does: what rule values and event values are compared
// in when case is ignored.
std::string FoldText(std::string_view AText);
// Whether A and B are the same text in ASCII lower case (nothing copied; for names).
inline bool EqualFolded(std::string_view A, std::string_view B) {
  if (A.size() != B.size()) return false;
  for (size_t i = 0; i < A.size(); ++i)
    if (FoldChar(A[i]) != FoldChar(B[i])) return false;
  return true;
}

// Field names as numbers: the names that rules test, looked up without regard to case.
class TFieldNames {
public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;
  // The number of AName, added when new.
  uint32_t Intern(std::string_view AName);
  // The number of AName, or kNone when no rule tests it.
  uint32_t Find(std::string_view AName) const;
  const std::string& Name(uint32_t AId) const { return FNames[AId]; }
  uint32_t Count() const { return static_cast<uint32_t>(FNames.size()); }

private:
  static uint32_t Hash(std::string_view AName); // of the folded name
  std::unordered_map<std::string, uint32_t> FIds; // folded name -> number
  std::vector<std::string> FNames;
  std::vector<std::string> FFolded;
  // Open addressing for Find, which runs for every value of every event: slot -> number
  // + 1 (0: empty), a power of two at least twice the names.
  std::vector<uint32_t> FSlots;
};

class TEventFields {
public:
  static constexpr int kNoValue = -1;
  static constexpr int kMaxDepth = kNamedMaxDepth;

  struct TValue {
    std::string_view Name;
    mutable std::string_view Text; // (read through TEventFields::Text: it may not be made yet)
    uint32_t FieldId = TFieldNames::kNone;
    int Next = kNoValue; // the next value of the same field
    mutable int LowerAt = -1; // offset of the lower-case form in the fold buffer, once made
    mutable int GramsAt = -1; // offset of the 4-gram table in the gram buffer, once made
    // Not made yet: its item in the pairs it was loaded from (else -1), and its binary
    // type (NarrowTextChars says what its text can hold).
    mutable int Deferred = -1;
    uint8_t Type = 0;
  };

  explicit TEventFields(const TFieldNames& ANames) : FNames(ANames) {}
  const TFieldNames& Names() const { return FNames; }

  // Reads the fields of one event's XML. AXml must stay unchanged while the fields are used.
  void Load(std::string_view AXml);
  // Reads the fields of one event from its (name, value) pairs, as Load would from its
  // XML. AValues must stay unchanged while the fields are used.
  void Load(const TNamedValues& AValues);

  // The first value of field AId, kNoValue when the event has none; values chain
  // through TValue::Next.
  int First(uint32_t AId) const {
    return AId < FChainCount && FChainsAt[AId].Stamp == FStamp ? FChainsAt[AId].First : kNoValue;
  }
  const TValue& Value(int AIndex) const { return FValuesAt[AIndex]; }
  int ValueCount() const { return FValueCount; }
  // The value's text, made now when it was left to make (pairs may defer values: those no
  // test reads are never made).
  std::string_view Text(int AIndex) const {
    const TValue& value = FValuesAt[AIndex];
    if (value.Deferred >= 0) [[unlikely]]
      Make(value);
    return value.Text;
  }
  // The value's text folded (FoldText), as long as the text.
  std::string_view Lower(int AIndex) const;
  // The 4-gram table of the lower-case value: bit GramHash(x) is set for every 4 bytes x
  // in it (4096 bits). A text that has a 4-gram whose bit is clear cannot be in it.
  const uint64_t* Grams(int AIndex) const;
  static constexpr size_t kGramWords = 64;
  // The value as an IPv4 or IPv6 address (ParseIpAddress of sigma_rule.h), parsed the
  // first time a test asks: a rule's list of networks asks once per network. False when
  // it is not one.
  bool Address(int AIndex, std::array<uint8_t, 16>& AAddress) const;

private:
  // Starts loading an event of ASize bytes into layout ALayout.
  void Begin(size_t ASize, uint32_t ALayout);
  void Clear(size_t ASize); // the buffers of the last event, for one of ASize bytes
  // Loads pairs into the layout made for their shape: only their values change.
  void Reload(const TNamedValues& AValues, uint32_t ALayout);
  void Settle(); // the event's layout read from now on
  void Pairs(const TNamedValues& AValues); // what deferred values are made from
  void Add(std::string_view AName, std::string_view ARaw); // raw: entities decoded here
  void AddText(std::string_view AName, std::string_view AText);
  void AddKnown(std::string_view AName, std::string_view AText, uint32_t AFieldId);
  void Link(uint32_t AId, int AIndex);
  void Make(const TValue& AValue) const;
  // The lasting copy of the System name AElement_AAttr.
  std::string_view SystemAttrName(std::string_view AElement, std::string_view AAttr);

  const TFieldNames& FNames;
  struct TChain {                // per field number (together: one place to touch per value)
    uint32_t Stamp = 0;          // the load First and Last were set for
    int First = kNoValue;        // its first value
    int Last = kNoValue;         // its last value
  };
  // An event's values with their fields, and each field's chain. Pairs of a shape met
  // lately (TNamedValues::Shape: their names all numbered) are loaded into the layout
  // made for that shape, where only the values' texts change: a log's events are of a few
  // kinds, mixed.
  struct TLayout {
    std::vector<TValue> Values;
    std::vector<TChain> Chains;
    uint32_t Generation = 0;    // the chains' (the load that made them)
    TNamedValues::TShape Shape; // Form 0: made for no shape
  };
  static constexpr uint32_t kShapes = 16;
  TLayout FLayouts[kShapes + 1]; // the last: events of no shape, and XML
  uint32_t FCurrent = kShapes;   // the event's
  uint32_t FNextShape = 0;       // the layout the next new shape takes
  uint32_t FEvent = 0;           // the event's (address memos)
  // The event's layout, as its readers read it (set once the event is loaded).
  const TValue* FValuesAt = nullptr;
  int FValueCount = 0;
  const TChain* FChainsAt = nullptr;
  size_t FChainCount = 0;
  uint32_t FStamp = 0;
  std::string FDecoded;          // values with entities, decoded (room kept)
  const TNamedValues* FPairs = nullptr; // what deferred values are made from
  mutable std::string FMade;     // deferred values made (room for all of them, kept)
  mutable std::deque<std::string> FMadeOver; // (should a value outgrow its bound)
  mutable std::string FFolded;   // lower-case forms (room kept)
  mutable std::vector<uint64_t> FGrams; // 4-gram tables (room kept)
  struct TAddressMemo {
    uint32_t Event = 0; // the event it was parsed for (FEvent)
    bool Valid = false;
    std::array<uint8_t, 16> Bytes{};
  };
  mutable std::vector<TAddressMemo> FAddresses; // per value
  std::vector<std::pair<std::string, uint32_t>> FNameCache; // per value place: last name and its number
  // Per name number of the pairs (TNamedValues::TItem::NameId): its field number and, for
  // a System attribute, its lasting name (Set: made).
  struct TKnownName {
    bool Set = false;
    uint32_t FieldId = TFieldNames::kNone;
    std::string_view Name; // the number's name, or System attribute name (both lasting)
  };
  std::vector<TKnownName> FKnown;
  uint32_t FKnownNames = 0; // FNames.Count() when FKnown was made (a name added: made again)
  struct TAttrName {
    std::string Element, Attr, Name;
  };
  std::deque<TAttrName> FAttrNames; // (stable places: values point at the names)
  size_t FAttrNext = 0;             // where the next one was last time (events repeat their order)
};

} // namespace qvx::hunt
