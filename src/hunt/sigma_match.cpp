#include "hunt/sigma_match.h"

#include "hunt/literal_index.h"

#include <cstdlib>
#include <cstring>
#include <string.h>

namespace qvx::hunt {

namespace {

// The position of ANeedle in AText at or after AFrom, or npos.
size_t Find(std::string_view AText, std::string_view ANeedle, size_t AFrom) {
  if (ANeedle.empty()) return AFrom <= AText.size() ? AFrom : std::string_view::npos;
  if (AFrom >= AText.size() || AText.size() - AFrom < ANeedle.size()) return std::string_view::npos;
  const void* at = memmem(AText.data() + AFrom, AText.size() - AFrom, ANeedle.data(), ANeedle.size());
  return at ? static_cast<size_t>(static_cast<const char*>(at) - AText.data()) : std::string_view::npos;
}

bool SegmentAt(const TGlobSegment& ASegment, std::string_view AText, size_t AAt) {
  if (AText.size() - AAt < ASegment.Text.size()) return false;
  if (!ASegment.HasAny) return std::memcmp(AText.data() + AAt, ASegment.Text.data(), ASegment.Text.size()) == 0;
  for (size_t i = 0; i < ASegment.Text.size(); ++i)
    if (!ASegment.AnyAt[i] && AText[AAt + i] != ASegment.Text[i]) return false;
  return true;
}

size_t FindSegment(const TGlobSegment& ASegment, std::string_view AText, size_t AFrom, size_t ALimit) {
  if (!ASegment.HasAny) {
    const size_t at = Find(AText.substr(0, ALimit), ASegment.Text, AFrom);
    return at;
  }
  for (size_t at = AFrom; at + ASegment.Text.size() <= ALimit; ++at)
    if (SegmentAt(ASegment, AText, at)) return at;
  return std::string_view::npos;
}

// '*' between segments: the first is anchored at the start, the last at the end, and
// each middle one is taken at its leftmost place (which is always right for '*' and '?').
bool GlobMatch(const std::vector<TGlobSegment>& ASegments, std::string_view AText) {
  if (ASegments.size() == 1)
    return AText.size() == ASegments[0].Text.size() && SegmentAt(ASegments[0], AText, 0);
  const TGlobSegment& first = ASegments.front();
  const TGlobSegment& last = ASegments.back();
  if (AText.size() < first.Text.size() + last.Text.size()) return false;
  if (!SegmentAt(first, AText, 0)) return false;
  const size_t end = AText.size() - last.Text.size();
  if (!SegmentAt(last, AText, end)) return false;
  size_t pos = first.Text.size();
  for (size_t i = 1; i + 1 < ASegments.size(); ++i) {
    const size_t at = FindSegment(ASegments[i], AText, pos, end);
    if (at == std::string_view::npos) return false;
    pos = at + ASegments[i].Text.size();
  }
  return pos <= end;
}

// A number as event text writes it: decimal (with sign and fraction) or 0x hexadecimal.
bool ParseNumber(std::string_view AText, double& AValue) {
  if (AText.empty() || AText.size() > 64) return false;
  char buffer[65];
  std::memcpy(buffer, AText.data(), AText.size());
  buffer[AText.size()] = 0;
  char* end = nullptr;
  if (AText.size() > 2 && AText[0] == '0' && (AText[1] == 'x' || AText[1] == 'X'))
    AValue = static_cast<double>(std::strtoull(buffer + 2, &end, 16));
  else
    AValue = std::strtod(buffer, &end);
  return end && *end == 0;
}

bool Compare(TValueTest::TKind AKind, std::string_view AText, std::string_view ANeedle) {
  switch (AKind) {
  case TValueTest::vkContains: return Find(AText, ANeedle, 0) != std::string_view::npos;
  case TValueTest::vkStartsWith: return AText.starts_with(ANeedle);
  case TValueTest::vkEndsWith: return AText.ends_with(ANeedle);
  default: return AText == ANeedle;
  }
}

struct TContext {
  const TSigmaRule& Rule;
  const uint32_t* SlotFields;
  const TEventFields& Fields;
  const uint32_t* TestLiterals; // null: every test searches the values
  const uint8_t* Hits;
  const uint32_t* FieldAnswers; // TestLiterals' field tests part (literal_index.h), or null
};

// What the literal index says of ATest: 1 it matches a value, 0 it matches none, -1 it
// cannot say (the values must be tried).
int IndexedAnswer(const TContext& AContext, const TValueTest& ATest) {
  if (!AContext.TestLiterals) return -1;
  const uint32_t coded = AContext.TestLiterals[ATest.Index];
  if (coded == TLiteralIndex::kNoLiteral) return -1;
  const uint8_t hits = AContext.Hits[coded >> 1];
  if (coded & 1) return hits ? -1 : 0; // a hint: the literal is needed, not enough
  switch (ATest.Kind) {
  case TValueTest::vkEquals: return (hits & lhEquals) != 0;
  case TValueTest::vkStartsWith: return (hits & lhStarts) != 0;
  case TValueTest::vkEndsWith: return (hits & lhEnds) != 0;
  default: return (hits & lhContains) != 0;
  }
}

// The first value of the field (AField: an event field number) that ATest matches, or -1.
int MatchAnyValue(const TContext& AContext, const TValueTest& ATest, int AFirst) {
  for (int v = AFirst; v != TEventFields::kNoValue; v = AContext.Fields.Value(v).Next)
    if (MatchValue(AContext.Rule, ATest, AContext.SlotFields, AContext.Fields, v)) return v;
  return -1;
}

// A field that the event does not have: only null and "exists: false" hold.
bool MatchAbsent(const TValueTest& ATest) {
  return ATest.Kind == TValueTest::vkNull || (ATest.Kind == TValueTest::vkExists && !ATest.ExistsWanted);
}

bool MatchField(const TContext& AContext, const TFieldTest& ATest, std::vector<TMatchedValue>* ARecord) {
  const uint32_t field = AContext.SlotFields[ATest.Slot];
  const int first = AContext.Fields.First(field);
  if (AContext.FieldAnswers) {
    // Every value test is decided by its literal's hits: read from a flat array, as the
    // loops below would answer (none of these tests holds for an absent field).
    const uint32_t at = AContext.FieldAnswers[ATest.Index];
    if (at != TLiteralIndex::kNoLiteral) {
      if (first == TEventFields::kNoValue) return ATest.All && ATest.Values.empty();
      const uint32_t* code = AContext.TestLiterals + at;
      const uint32_t* const end = code + ATest.Values.size();
      if (ATest.All) {
        for (; code != end; ++code)
          if (!(AContext.Hits[*code >> 4] & (*code & 15))) return false;
        return true;
      }
      for (; code != end; ++code)
        if (AContext.Hits[*code >> 4] & (*code & 15)) return true;
      return false;
    }
  }
  if (first == TEventFields::kNoValue) {
    for (const TValueTest& value : ATest.Values) {
      const bool hit = MatchAbsent(value);
      if (ATest.All && !hit) return false;
      if (!ATest.All && hit) return true;
    }
    return ATest.All;
  }
  for (const TValueTest& value : ATest.Values) {
    int hit = -1;
    if (value.Kind == TValueTest::vkExists) {
      hit = value.ExistsWanted ? first : -1;
    } else {
      // (A recording knows the value that matched from the index only when it is the only one.)
      const int answer = IndexedAnswer(AContext, value);
      hit = answer == 0                                                                   ? -1
            : answer == 1 && (!ARecord || AContext.Fields.Value(first).Next == TEventFields::kNoValue) ? first
                                                                                          : MatchAnyValue(AContext, value, first);
    }
    if (hit >= 0 && ARecord) ARecord->push_back({ATest.Slot, hit});
    if (ATest.All && hit < 0) return false;
    if (!ATest.All && hit >= 0) return true;
  }
  return ATest.All;
}

bool MatchKeywords(const TContext& AContext, const TFieldTest& ATest, std::vector<TMatchedValue>* ARecord) {
  const int count = AContext.Fields.ValueCount();
  for (const TValueTest& value : ATest.Values) {
    const int answer = IndexedAnswer(AContext, value);
    int hit = answer == 1 && !ARecord ? 0 : -1;
    for (int v = 0; v < count && hit < 0 && answer != 0; ++v)
      if (MatchValue(AContext.Rule, value, AContext.SlotFields, AContext.Fields, v)) hit = v;
    if (hit >= 0 && ARecord) ARecord->push_back({TMatchedValue::kKeywordSlot, hit});
    if (ATest.All && hit < 0) return false;
    if (!ATest.All && hit >= 0) return true;
  }
  return ATest.All;
}

bool MatchSearch(const TContext& AContext, const TSearch& ASearch, std::vector<TMatchedValue>* ARecord) {
  for (const TSearchAlt& alt : ASearch.Alts) {
    const size_t mark = ARecord ? ARecord->size() : 0;
    bool all = true;
    for (const TFieldTest& field : alt.Fields) {
      if (!(alt.Keywords ? MatchKeywords(AContext, field, ARecord) : MatchField(AContext, field, ARecord))) {
        all = false;
        break;
      }
    }
    if (all) return true;
    if (ARecord) ARecord->resize(mark);
  }
  return false;
}

bool MatchNode(const TContext& AContext, const TCondNode& ANode, std::vector<TMatchedValue>* ARecord) {
  switch (ANode.Kind) {
  case TCondNode::cnSearch: return MatchSearch(AContext, AContext.Rule.Searches[ANode.Search], ARecord);
  case TCondNode::cnNot: return !MatchNode(AContext, ANode.Children[0], nullptr);
  case TCondNode::cnAnd: {
    const size_t mark = ARecord ? ARecord->size() : 0;
    for (const TCondNode& child : ANode.Children)
      if (!MatchNode(AContext, child, ARecord)) {
        if (ARecord) ARecord->resize(mark);
        return false;
      }
    return true;
  }
  case TCondNode::cnOr:
    for (const TCondNode& child : ANode.Children)
      if (MatchNode(AContext, child, ARecord)) return true;
    return false;
  }
  return false;
}

} // namespace

bool MatchValue(const TSigmaRule& ARule, const TValueTest& ATest, const uint32_t* ASlotFields,
                const TEventFields& AFields, int AValue) {
  const std::string_view text = AFields.Text(AValue);
  switch (ATest.Kind) {
  case TValueTest::vkEquals:
    if (text.size() != ATest.Needle.size()) return false;
    return (ATest.Cased ? text : AFields.Lower(AValue)) == ATest.Needle;
  case TValueTest::vkContains:
    if (text.size() < ATest.Needle.size()) return false;
    if (ATest.HasGrams) {
      const uint64_t* grams = AFields.Grams(AValue);
      for (const uint16_t gram : ATest.Grams)
        if (!(grams[gram >> 6] & (uint64_t{1} << (gram & 63)))) return false;
    }
    return Compare(ATest.Kind, ATest.Cased ? text : AFields.Lower(AValue), ATest.Needle);
  case TValueTest::vkStartsWith:
  case TValueTest::vkEndsWith:
    if (text.size() < ATest.Needle.size()) return false;
    return Compare(ATest.Kind, ATest.Cased ? text : AFields.Lower(AValue), ATest.Needle);
  case TValueTest::vkGlob: return GlobMatch(ATest.Segments, ATest.Cased ? text : AFields.Lower(AValue));
  case TValueTest::vkRegex:
    switch (ATest.Regex->Search(text)) {
    case TSigmaRegex::rxMatch: return true;
    case TSigmaRegex::rxNoMatch: return false;
    case TSigmaRegex::rxLimit: ARule.RegexLimitHits.fetch_add(1, std::memory_order_relaxed); return false;
    }
    return false;
  case TValueTest::vkNetwork: {
    std::array<uint8_t, 16> address;
    return AFields.Address(AValue, address) && ATest.Network.Contains(address);
  }
  case TValueTest::vkLess:
  case TValueTest::vkLessEqual:
  case TValueTest::vkGreater:
  case TValueTest::vkGreaterEqual: {
    double number = 0;
    if (!ParseNumber(text, number)) return false;
    return ATest.Kind == TValueTest::vkLess        ? number < ATest.Number
           : ATest.Kind == TValueTest::vkLessEqual ? number <= ATest.Number
           : ATest.Kind == TValueTest::vkGreater   ? number > ATest.Number
                                                   : number >= ATest.Number;
  }
  case TValueTest::vkNull: return text.empty();
  case TValueTest::vkExists: return ATest.ExistsWanted;
  case TValueTest::vkFieldRef: {
    const int other = AFields.First(ASlotFields[ATest.RefSlot]);
    for (int v = other; v != TEventFields::kNoValue; v = AFields.Value(v).Next) {
      const std::string_view mine = ATest.Cased ? text : AFields.Lower(AValue);
      const std::string_view theirs = ATest.Cased ? AFields.Text(v) : AFields.Lower(v);
      if (Compare(ATest.RefKind, mine, theirs)) return true;
    }
    return false;
  }
  }
  return false;
}

bool MatchRule(const TSigmaRule& ARule, const uint32_t* ASlotFields, const TEventFields& AFields,
               std::vector<TMatchedValue>* ARecord, const uint32_t* ATestLiterals, const uint8_t* AHits) {
  // A recording reads no flat answers: they do not say which value matched.
  const TContext context{ARule,         ASlotFields, AFields, ATestLiterals, AHits,
                         ATestLiterals && !ARecord ? ATestLiterals + ARule.TestCount : nullptr};
  return MatchNode(context, ARule.Condition, ARecord);
}

} // namespace qvx::hunt
