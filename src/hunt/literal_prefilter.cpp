#include "hunt/literal_prefilter.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <unordered_map>

namespace qvx::hunt {

namespace {

// What a part of a rule needs: one of these (slot, folded text) pairs occurs.
using TNeed = std::vector<std::pair<uint32_t, std::string>>;

// The literal text a value test needs in the field, or "" when it needs none we can use.
std::string LiteralOf(const TValueTest& ATest) {
  switch (ATest.Kind) {
  case TValueTest::vkEquals:
  case TValueTest::vkContains:
  case TValueTest::vkStartsWith:
  case TValueTest::vkEndsWith:
    return ATest.Needle.size() >= TLiteralPrefilter::kAnchor ? FoldText(ATest.Needle) : std::string();
  case TValueTest::vkGlob: {
    // The longest run of a segment without '?'.
    std::string best;
    for (const TGlobSegment& segment : ATest.Segments) {
      size_t start = 0;
      for (size_t i = 0; i <= segment.Text.size(); ++i)
        if (i == segment.Text.size() || segment.AnyAt[i]) {
          if (i - start > best.size()) best = segment.Text.substr(start, i - start);
          start = i + 1;
        }
    }
    return best.size() >= TLiteralPrefilter::kAnchor ? FoldText(best) : std::string();
  }
  default: return {};
  }
}

std::optional<TNeed> FieldNeed(const TFieldTest& AField) {
  TNeed need;
  if (AField.All) {
    // Every value must match: the longest literal of one of them is enough.
    std::string best;
    for (const TValueTest& value : AField.Values) {
      std::string text = LiteralOf(value);
      if (text.size() > best.size()) best = std::move(text);
    }
    if (best.empty()) return std::nullopt;
    need.emplace_back(AField.Slot, std::move(best));
    return need;
  }
  for (const TValueTest& value : AField.Values) {
    std::string text = LiteralOf(value);
    if (text.empty()) return std::nullopt;
    need.emplace_back(AField.Slot, std::move(text));
  }
  return need;
}

// Fewer texts, then longer shortest text: the more selective need.
bool Better(const TNeed& A, const TNeed& B) {
  if (A.size() != B.size()) return A.size() < B.size();
  auto shortest = [](const TNeed& N) {
    size_t s = SIZE_MAX;
    for (const auto& [slot, text] : N) s = std::min(s, text.size());
    return s;
  };
  return shortest(A) > shortest(B);
}

std::optional<TNeed> SearchNeed(const TSearch& ASearch) {
  TNeed all;
  if (ASearch.Alts.empty()) return std::nullopt;
  for (const TSearchAlt& alt : ASearch.Alts) {
    if (alt.Keywords) return std::nullopt;
    std::optional<TNeed> best;
    for (const TFieldTest& field : alt.Fields) {
      std::optional<TNeed> need = FieldNeed(field);
      if (need && (!best || Better(*need, *best))) best = std::move(need);
    }
    if (!best) return std::nullopt;
    all.insert(all.end(), best->begin(), best->end());
  }
  return all;
}

std::optional<TNeed> NodeNeed(const TSigmaRule& ARule, const TCondNode& ANode) {
  switch (ANode.Kind) {
  case TCondNode::cnSearch: return SearchNeed(ARule.Searches[ANode.Search]);
  case TCondNode::cnNot: return std::nullopt;
  case TCondNode::cnOr: {
    TNeed all;
    for (const TCondNode& child : ANode.Children) {
      std::optional<TNeed> need = NodeNeed(ARule, child);
      if (!need) return std::nullopt;
      all.insert(all.end(), need->begin(), need->end());
    }
    return all;
  }
  case TCondNode::cnAnd: {
    std::optional<TNeed> best;
    for (const TCondNode& child : ANode.Children) {
      std::optional<TNeed> need = NodeNeed(ARule, child);
      if (need && (!best || Better(*need, *best))) best = std::move(need);
    }
    return best;
  }
  }
  return std::nullopt;
}

uint32_t Load32(const char* AAt) {
  uint32_t value;
  std::memcpy(&value, AAt, 4);
  return value;
}

uint32_t AnchorHash(uint32_t AAnchor) {
  return (AAnchor * 0x9E3779B1u) >> 16;
}

} // namespace

TLiteralPrefilter::TLiteralPrefilter(const std::vector<const TRuleBinding*>& ABindings) : FCount(ABindings.size()) {
  // field -> text -> bindings
  std::map<uint32_t, std::map<std::string, std::vector<uint32_t>>> texts;
  for (size_t i = 0; i < ABindings.size(); ++i) {
    const TRuleBinding& binding = *ABindings[i];
    const std::optional<TNeed> need = NodeNeed(*binding.Rule, binding.Rule->Condition);
    if (!need || need->empty()) {
      FAlways.push_back(static_cast<uint32_t>(i));
      continue;
    }
    for (const auto& [slot, text] : *need) {
      auto& list = texts[binding.SlotFields[slot]][text];
      if (list.empty() || list.back() != i) list.push_back(static_cast<uint32_t>(i));
    }
  }
  for (auto& [field, byText] : texts) {
    TFieldIndex& index = FFields.emplace_back();
    index.FieldId = field;
    index.Bits.assign(65536 / 64, 0);
    // The anchor of each text is its rarest 4 bytes among the field's texts.
    std::unordered_map<uint32_t, uint32_t> frequency;
    for (const auto& [text, bindings] : byText)
      for (size_t at = 0; at + kAnchor <= text.size(); ++at) ++frequency[Load32(text.data() + at)];
    for (auto& [text, bindings] : byText) {
      TLiteral literal;
      literal.Text = text;
      literal.Bindings = std::move(bindings);
      uint32_t best = UINT32_MAX;
      for (size_t at = 0; at + kAnchor <= text.size(); ++at) {
        const uint32_t count = frequency[Load32(text.data() + at)];
        if (count < best) {
          best = count;
          literal.AnchorAt = static_cast<uint32_t>(at);
        }
      }
      const uint32_t anchor = Load32(text.data() + literal.AnchorAt);
      const uint32_t hash = AnchorHash(anchor);
      index.Bits[hash >> 6] |= uint64_t{1} << (hash & 63);
      index.Anchors.emplace_back(anchor, static_cast<uint32_t>(index.Literals.size()));
      index.Literals.push_back(std::move(literal));
    }
    std::sort(index.Anchors.begin(), index.Anchors.end());
  }
}

void TLiteralPrefilter::Select(const TEventFields& AFields, std::vector<uint8_t>& ASelected) const {
  ASelected.assign(FCount, 0);
  for (const uint32_t i : FAlways) ASelected[i] = 1;
  for (const TFieldIndex& index : FFields) {
    for (int v = AFields.First(index.FieldId); v != TEventFields::kNoValue; v = AFields.Value(v).Next) {
      const std::string_view text = AFields.Lower(v);
      if (text.size() < kAnchor) continue;
      const char* data = text.data();
      for (size_t at = 0; at + kAnchor <= text.size(); ++at) {
        const uint32_t anchor = Load32(data + at);
        const uint32_t hash = AnchorHash(anchor);
        if (!(index.Bits[hash >> 6] & (uint64_t{1} << (hash & 63)))) continue;
        auto it = std::lower_bound(index.Anchors.begin(), index.Anchors.end(), std::make_pair(anchor, uint32_t{0}));
        for (; it != index.Anchors.end() && it->first == anchor; ++it) {
          const TLiteral& literal = index.Literals[it->second];
          if (at < literal.AnchorAt) continue;
          const size_t start = at - literal.AnchorAt;
          if (start + literal.Text.size() > text.size() ||
              std::memcmp(data + start, literal.Text.data(), literal.Text.size()) != 0)
            continue;
          for (const uint32_t binding : literal.Bindings) ASelected[binding] = 1;
        }
      }
    }
  }
}

} // namespace qvx::hunt
