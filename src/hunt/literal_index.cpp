#include "hunt/literal_index.h"

#include <algorithm>
#include <optional>

namespace qvx::hunt {

namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;
// Literals longer than this are not indexed (their tests search the value themselves),
// and a field's automaton stops taking literals past a budget of states, so a hostile
// rule cannot make the tables grow without end.
constexpr size_t kMaxLiteralBytes = 512;
constexpr size_t kMaxStates = 1u << 20;

// The folded text a value test compares with, "" when it has none to index: the needle
// of a text comparison, the longest run of a wildcard pattern without '?'.
std::string LiteralText(const TValueTest& ATest) {
  switch (ATest.Kind) {
  case TValueTest::vkEquals:
  case TValueTest::vkContains:
  case TValueTest::vkStartsWith:
  case TValueTest::vkEndsWith: return FoldText(ATest.Needle);
  case TValueTest::vkGlob: {
    std::string best;
    for (const TGlobSegment& segment : ATest.Segments) {
      size_t start = 0;
      for (size_t i = 0; i <= segment.Text.size(); ++i)
        if (i == segment.Text.size() || segment.AnyAt[i]) {
          if (i - start > best.size()) best = segment.Text.substr(start, i - start);
          start = i + 1;
        }
    }
    return FoldText(best);
  }
  default: return {};
  }
}

// The test decides by the literal alone: folded text compared whole, at an end or anywhere.
bool DecidedByLiteral(const TValueTest& ATest) {
  return !ATest.Cased && (ATest.Kind == TValueTest::vkEquals || ATest.Kind == TValueTest::vkContains ||
                          ATest.Kind == TValueTest::vkStartsWith || ATest.Kind == TValueTest::vkEndsWith);
}

// What a part of a rule needs: one of these literals is in the event.
using TNeed = std::vector<uint32_t>;

class TNeeds {
public:
  TNeeds(const TSigmaRule& ARule, const std::vector<uint32_t>& ATestLiterals, const std::vector<uint32_t>& ALengths)
      : FRule(ARule), FTestLiterals(ATestLiterals), FLengths(ALengths) {}

  std::optional<TNeed> Node(const TCondNode& ANode) const {
    switch (ANode.Kind) {
    case TCondNode::cnSearch: return Search(FRule.Searches[ANode.Search]);
    case TCondNode::cnNot: return std::nullopt;
    case TCondNode::cnOr: {
      TNeed all;
      for (const TCondNode& child : ANode.Children) {
        std::optional<TNeed> need = Node(child);
        if (!need) return std::nullopt;
        all.insert(all.end(), need->begin(), need->end());
      }
      return all;
    }
    case TCondNode::cnAnd: {
      std::optional<TNeed> best;
      for (const TCondNode& child : ANode.Children) {
        std::optional<TNeed> need = Node(child);
        if (need && (!best || Better(*need, *best))) best = std::move(need);
      }
      return best;
    }
    }
    return std::nullopt;
  }

private:
  uint32_t Literal(const TValueTest& ATest) const {
    const uint32_t coded = FTestLiterals[ATest.Index];
    return coded == kNone ? kNone : coded >> 1;
  }

  std::optional<TNeed> Field(const TFieldTest& AField) const {
    TNeed need;
    if (AField.All) {
      // Every value must match: the longest literal of one of them is enough.
      uint32_t best = kNone;
      for (const TValueTest& value : AField.Values) {
        const uint32_t literal = Literal(value);
        if (literal != kNone && (best == kNone || FLengths[literal] > FLengths[best])) best = literal;
      }
      if (best == kNone) return std::nullopt;
      need.push_back(best);
      return need;
    }
    for (const TValueTest& value : AField.Values) {
      const uint32_t literal = Literal(value);
      if (literal == kNone) return std::nullopt;
      need.push_back(literal);
    }
    return need;
  }

  std::optional<TNeed> Search(const TSearch& ASearch) const {
    TNeed all;
    if (ASearch.Alts.empty()) return std::nullopt;
    for (const TSearchAlt& alt : ASearch.Alts) {
      std::optional<TNeed> best;
      for (const TFieldTest& field : alt.Fields) {
        std::optional<TNeed> need = Field(field);
        if (need && (!best || Better(*need, *best))) best = std::move(need);
      }
      if (!best) return std::nullopt;
      all.insert(all.end(), best->begin(), best->end());
    }
    return all;
  }

  // The more selective need: literals of 3 bytes or more, then fewer literals, then a
  // longer shortest literal.
  bool Better(const TNeed& A, const TNeed& B) const {
    const size_t a = Shortest(A), b = Shortest(B);
    if ((a >= 3) != (b >= 3)) return a >= 3;
    if (A.size() != B.size()) return A.size() < B.size();
    return a > b;
  }
  size_t Shortest(const TNeed& ANeed) const {
    size_t shortest = SIZE_MAX;
    for (const uint32_t literal : ANeed) shortest = std::min<size_t>(shortest, FLengths[literal]);
    return shortest;
  }

  const TSigmaRule& FRule;
  const std::vector<uint32_t>& FTestLiterals;
  const std::vector<uint32_t>& FLengths;
};

} // namespace

uint32_t TLiteralIndex::Intern(uint32_t AField, const std::string& AText) {
  if (AText.empty() || AText.size() > kMaxLiteralBytes) return kNoLiteral;
  std::string key = std::to_string(AField);
  key.push_back('\0');
  key.append(AText);
  const auto [at, added] = FIds.emplace(std::move(key), static_cast<uint32_t>(FLengths.size()));
  if (added) {
    FTexts.push_back(AText);
    FFields.push_back(AField);
    FLengths.push_back(static_cast<uint32_t>(AText.size()));
  }
  return at->second;
}

TLiteralIndex::TLiteralIndex(const std::vector<TRuleBinding*>& ABindings) {
  // The literal of every value test, per binding (the binding says which event field a
  // rule's field reads).
  for (size_t b = 0; b < ABindings.size(); ++b) {
    TRuleBinding& binding = *ABindings[b];
    const TSigmaRule& rule = *binding.Rule;
    binding.Number = static_cast<uint32_t>(b);
    binding.TestLiterals.assign(rule.TestCount, kNoLiteral);
    for (const TSearch& search : rule.Searches)
      for (const TSearchAlt& alt : search.Alts)
        for (const TFieldTest& field : alt.Fields) {
          const uint32_t fieldId = alt.Keywords ? kKeywordField : binding.SlotFields[field.Slot];
          for (const TValueTest& value : field.Values) {
            const uint32_t literal = Intern(fieldId, LiteralText(value));
            if (literal != kNoLiteral) binding.TestLiterals[value.Index] = literal << 1 | (DecidedByLiteral(value) ? 0 : 1);
          }
        }
  }

  // One automaton per field, over the literals in the order they came (so a budget cut
  // keeps the same ones every time).
  std::vector<std::vector<uint32_t>> byField;
  std::vector<uint32_t> keywords;
  for (uint32_t literal = 0; literal < FLengths.size(); ++literal) {
    const uint32_t field = FFields[literal];
    if (field == kKeywordField) {
      keywords.push_back(literal);
      continue;
    }
    if (field >= byField.size()) byField.resize(field + 1);
    byField[field].push_back(literal);
  }
  std::vector<uint8_t> indexed(FLengths.size(), 0);
  auto build = [&](TAutomaton& AAutomaton, std::vector<uint32_t>& ALiterals) {
    size_t states = 1;
    size_t kept = 0;
    for (const uint32_t literal : ALiterals)
      if (states + FLengths[literal] <= kMaxStates) {
        states += FLengths[literal];
        ALiterals[kept++] = literal;
        indexed[literal] = 1;
      }
    ALiterals.resize(kept);
    BuildAutomaton(AAutomaton, ALiterals);
  };
  FByField.assign(byField.size(), -1);
  for (size_t field = 0; field < byField.size(); ++field) {
    if (byField[field].empty()) continue;
    FByField[field] = static_cast<int32_t>(FAutomata.size());
    build(FAutomata.emplace_back(), byField[field]);
  }
  if (!keywords.empty()) build(FKeywords, keywords);

  // Tests whose literal did not fit search the value themselves; then what each binding needs.
  FNeededBy.resize(FLengths.size());
  for (TRuleBinding* binding : ABindings) {
    for (uint32_t& coded : binding->TestLiterals)
      if (coded != kNoLiteral && !indexed[coded >> 1]) coded = kNoLiteral;
    const std::optional<TNeed> need =
        TNeeds(*binding->Rule, binding->TestLiterals, FLengths).Node(binding->Rule->Condition);
    binding->Always = !need || need->empty();
    if (binding->Always) continue;
    for (const uint32_t literal : *need) {
      std::vector<uint32_t>& list = FNeededBy[literal];
      if (list.empty() || list.back() != binding->Number) list.push_back(binding->Number);
    }
  }
  FTexts.clear();
  FTexts.shrink_to_fit();
  FIds.clear();
}

void TLiteralIndex::BuildAutomaton(TAutomaton& AAutomaton, const std::vector<uint32_t>& ALiterals) {
  // Input classes: one per byte that some literal holds (literals are folded, so an upper
  // case letter falls into its lower case letter's class), 0 for the others.
  bool used[256] = {};
  for (const uint32_t literal : ALiterals)
    for (const char c : FTexts[literal]) used[static_cast<uint8_t>(c)] = true;
  uint16_t classOf[256] = {};
  uint32_t classes = 1;
  for (int b = 0; b < 256; ++b)
    if (used[b]) classOf[b] = static_cast<uint16_t>(classes++);
  for (int b = 0; b < 256; ++b) AAutomaton.ClassOf[b] = classOf[static_cast<uint8_t>(FoldChar(static_cast<char>(b)))];
  AAutomaton.Classes = classes;

  // The trie.
  std::vector<uint32_t>& next = AAutomaton.Next;
  std::vector<uint32_t>& own = AAutomaton.Own;
  next.assign(classes, kNone);
  own.assign(1, kNoLiteral);
  for (const uint32_t literal : ALiterals) {
    uint32_t state = 0;
    for (const char c : FTexts[literal]) {
      const size_t at = size_t{state} * classes + classOf[static_cast<uint8_t>(c)];
      uint32_t target = next[at];
      if (target == kNone) {
        target = static_cast<uint32_t>(own.size());
        own.push_back(kNoLiteral);
        next.resize(next.size() + classes, kNone);
        next[at] = target;
      }
      state = target;
    }
    own[state] = literal;
  }

  // Failure links breadth first, folded into a full transition table; each state's
  // suffix link goes to the longest proper suffix that completes a literal.
  const size_t states = own.size();
  std::vector<uint32_t> fail(states, 0);
  AAutomaton.Suffix.assign(states, 0);
  std::vector<uint32_t> order;
  order.reserve(states);
  for (uint32_t c = 0; c < classes; ++c) {
    if (next[c] == kNone)
      next[c] = 0;
    else
      order.push_back(next[c]);
  }
  for (size_t i = 0; i < order.size(); ++i) {
    const uint32_t state = order[i];
    const size_t row = size_t{state} * classes;
    const size_t failRow = size_t{fail[state]} * classes;
    for (uint32_t c = 0; c < classes; ++c) {
      const uint32_t target = next[row + c];
      const uint32_t viaFail = next[failRow + c];
      if (target == kNone) {
        next[row + c] = viaFail;
        continue;
      }
      fail[target] = viaFail;
      AAutomaton.Suffix[target] = own[viaFail] != kNoLiteral ? viaFail : AAutomaton.Suffix[viaFail];
      order.push_back(target);
    }
  }
  for (uint32_t& target : next)
    if (own[target] != kNoLiteral || AAutomaton.Suffix[target] != 0) target |= kOutput;
}

std::vector<uint32_t> TLiteralIndex::FieldsOf(const std::vector<const TRuleBinding*>& ABindings) const {
  std::vector<uint32_t> fields;
  for (const TRuleBinding* binding : ABindings)
    for (const uint32_t coded : binding->TestLiterals)
      if (coded != kNoLiteral) fields.push_back(FFields[coded >> 1]);
  std::sort(fields.begin(), fields.end());
  fields.erase(std::unique(fields.begin(), fields.end()), fields.end());
  return fields;
}

void TLiteralIndex::Scan(uint32_t AField, std::string_view AText, TLiteralHits& AHits) const {
  const TAutomaton* automaton = AutomatonOf(AField);
  if (!automaton) return;
  const uint32_t classes = automaton->Classes;
  const uint32_t* next = automaton->Next.data();
  const uint16_t* classOf = automaton->ClassOf;
  const size_t size = AText.size();
  uint32_t state = 0;
  for (size_t i = 0; i < size; ++i) {
    const uint32_t target = next[size_t{state} * classes + classOf[static_cast<uint8_t>(AText[i])]];
    state = target & ~kOutput;
    if (!(target & kOutput)) continue;
    for (uint32_t at = automaton->Own[state] != kNoLiteral ? state : automaton->Suffix[state]; at;
         at = automaton->Suffix[at]) {
      const uint32_t literal = automaton->Own[at];
      const bool starts = i + 1 == FLengths[literal];
      const bool ends = i + 1 == size;
      const uint8_t bits = static_cast<uint8_t>(lhContains | (starts ? lhStarts : 0) | (ends ? lhEnds : 0) |
                                                (starts && ends ? lhEquals : 0));
      uint8_t& hit = AHits.Bits[literal];
      if (!hit) AHits.Found.push_back(literal);
      hit |= bits;
    }
  }
}

size_t TLiteralIndex::MemoryBytes() const {
  size_t total = 0;
  auto add = [&](const TAutomaton& A) {
    total += A.Next.size() * 4 + A.Own.size() * 4 + A.Suffix.size() * 4 + sizeof A;
  };
  for (const TAutomaton& automaton : FAutomata) add(automaton);
  add(FKeywords);
  for (const auto& list : FNeededBy) total += list.size() * 4;
  return total + FLengths.size() * 12;
}

} // namespace qvx::hunt
