#include "hunt/literal_index.h"

#include "engine/evtx/variant_types.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <type_traits>

namespace qvx::hunt {

namespace {

constexpr uint32_t kNone = 0xFFFFFFFF;
// Literals longer than this are not indexed (their tests search the value themselves),
// and a field's automaton stops taking literals past a budget of states, so a hostile
// rule cannot make the tables grow without end.
constexpr size_t kMaxLiteralBytes = 512;
constexpr size_t kMaxStates = 1u << 20;

// The folded text a value test compares with, "" when it has none to index: the needle
// of a text comparison, the longest run of a wildcard pattern without '?'. Written into
// AOut (its room reused from test to test).
void LiteralText(const TValueTest& ATest, std::string& AOut) {
  AOut.clear();
  switch (ATest.Kind) {
  case TValueTest::vkEquals:
  case TValueTest::vkContains:
  case TValueTest::vkStartsWith:
  case TValueTest::vkEndsWith: AOut.assign(ATest.Needle); break;
  case TValueTest::vkGlob: {
    std::string_view best;
    for (const TGlobSegment& segment : ATest.Segments) {
      size_t start = 0;
      for (size_t i = 0; i <= segment.Text.size(); ++i)
        if (i == segment.Text.size() || segment.AnyAt[i]) {
          if (i - start > best.size()) best = std::string_view(segment.Text).substr(start, i - start);
          start = i + 1;
        }
    }
    AOut.assign(best);
    break;
  }
  case TValueTest::vkRegex:
    // Already folded, ASCII only; a hint only (the pattern must still be matched).
    if (ATest.Regex) AOut.assign(ATest.Regex->Literal());
    return;
  default: return;
  }
  // (A cased needle is folded too: a value that holds it holds it folded, and the
  // automata find every literal in folded text.)
  if (ATest.Cased) AOut = FoldText(AOut);
}

// The test decides by the literal alone: folded text compared whole, at an end or anywhere.
bool DecidedByLiteral(const TValueTest& ATest) {
  return !ATest.Cased && (ATest.Kind == TValueTest::vkEquals || ATest.Kind == TValueTest::vkContains ||
                          ATest.Kind == TValueTest::vkStartsWith || ATest.Kind == TValueTest::vkEndsWith);
}

// What a part of a rule needs: one of these literals is in the event (a clause).
using TNeed = std::vector<uint32_t>;
// Every one of these clauses holds (none: the part needs nothing the index can see).
using TNeeds = std::vector<TNeed>;

// A binding is selected only when every clause it keeps holds; more clauses than this
// cost more to count than they save.
constexpr size_t kMaxClauses = 3;

// The length a literal counts as when clauses are weighed: its own, but 1 for a part of
// the paths that most process and file events hold ("\\windows\\", "\\system32\\",
// ".exe"), which is found about as often as a single byte. Only the choice of clauses
// depends on it, never a result.
uint32_t CommonLength(std::string_view AFolded) {
  static constexpr std::string_view kCommon[] = {
      "c:\\windows\\system32\\", "c:\\windows\\syswow64\\", "c:\\program files (x86)\\",
      "c:\\users\\",            "\\appdata\\local\\temp\\",   "\\appdata\\roaming\\", ".exe", ".dll"};
  for (const std::string_view common : kCommon)
    if (common.find(AFolded) != std::string_view::npos) return 1;
  return static_cast<uint32_t>(AFolded.size());
}

class TNeedFinder {
public:
  TNeedFinder(const TSigmaRule& ARule, const std::vector<uint32_t>& ATestLiterals, const std::vector<uint32_t>& ALengths)
      : FRule(ARule), FTestLiterals(ATestLiterals), FLengths(ALengths) {}

  // The clauses of a condition, the most selective first, at most kMaxClauses, each
  // sorted without repeats.
  TNeeds Rule(const TCondNode& ANode) const {
    TNeeds needs = Node(ANode, 0);
    for (TNeed& need : needs) {
      std::sort(need.begin(), need.end());
      need.erase(std::unique(need.begin(), need.end()), need.end());
    }
    std::stable_sort(needs.begin(), needs.end(), [&](const TNeed& A, const TNeed& B) { return Better(A, B); });
    if (needs.size() > kMaxClauses) needs.resize(kMaxClauses);
    return needs;
  }

private:
  // (ADepth: the condition's depth is bounded at compile time; kept as a guard.)
  TNeeds Node(const TCondNode& ANode, int ADepth) const {
    if (ADepth > 256) return {};
    switch (ANode.Kind) {
    case TCondNode::cnSearch: return Search(FRule.Searches[ANode.Search]);
    case TCondNode::cnNot: return {};
    case TCondNode::cnOr: {
      // One of the parts holds: the best clause of each, together.
      TNeed all;
      for (const TCondNode& child : ANode.Children) {
        const TNeeds need = Node(child, ADepth + 1);
        if (need.empty()) return {};
        const TNeed& best = Best(need);
        all.insert(all.end(), best.begin(), best.end());
      }
      if (all.empty()) return {};
      return {std::move(all)};
    }
    case TCondNode::cnAnd: {
      // Every part holds: what each needs.
      TNeeds all;
      for (const TCondNode& child : ANode.Children) Append(all, Node(child, ADepth + 1));
      return all;
    }
    }
    return {};
  }

  uint32_t Literal(const TValueTest& ATest) const {
    const uint32_t coded = FTestLiterals[ATest.Index];
    return coded == kNone ? kNone : coded >> 1;
  }

  TNeeds Field(const TFieldTest& AField) const {
    TNeeds needs;
    if (AField.All) {
      // Every value must match: the literal of each that has one.
      for (const TValueTest& value : AField.Values)
        if (const uint32_t literal = Literal(value); literal != kNone) needs.push_back({literal});
      return needs;
    }
    TNeed need;
    for (const TValueTest& value : AField.Values) {
      const uint32_t literal = Literal(value);
      if (literal == kNone) return {};
      need.push_back(literal);
    }
    if (!need.empty()) needs.push_back(std::move(need));
    return needs;
  }

  TNeeds Alt(const TSearchAlt& AAlt) const {
    TNeeds all;
    for (const TFieldTest& field : AAlt.Fields) Append(all, Field(field));
    return all;
  }

  TNeeds Search(const TSearch& ASearch) const {
    if (ASearch.Alts.empty()) return {};
    if (ASearch.Alts.size() == 1) return Alt(ASearch.Alts[0]);
    TNeed all;
    for (const TSearchAlt& alt : ASearch.Alts) {
      const TNeeds need = Alt(alt);
      if (need.empty()) return {};
      const TNeed& best = Best(need);
      all.insert(all.end(), best.begin(), best.end());
    }
    return {std::move(all)};
  }

  static void Append(TNeeds& ATo, TNeeds AFrom) {
    for (TNeed& need : AFrom) ATo.push_back(std::move(need));
  }
  const TNeed& Best(const TNeeds& ANeeds) const {
    size_t best = 0;
    for (size_t i = 1; i < ANeeds.size(); ++i)
      if (Better(ANeeds[i], ANeeds[best])) best = i;
    return ANeeds[best];
  }

  // The more selective need: the one less likely found, taking a literal one byte
  // longer as half as likely (so "\\edr-freeze" or "\\edrfreeze" beats ".exe"), then
  // fewer literals. (ALengths: the lengths the odds are reckoned with, CommonLength's.)
  bool Better(const TNeed& A, const TNeed& B) const {
    const uint64_t a = Odds(A), b = Odds(B);
    if (a != b) return a < b;
    return A.size() < B.size();
  }
  uint64_t Odds(const TNeed& ANeed) const {
    uint64_t odds = 0;
    for (const uint32_t literal : ANeed) odds += uint64_t{1} << (16 - std::min<uint32_t>(FLengths[literal], 16));
    return odds;
  }

  const TSigmaRule& FRule;
  const std::vector<uint32_t>& FTestLiterals;
  const std::vector<uint32_t>& FLengths;
};

} // namespace

uint32_t TLiteralIndex::Intern(uint32_t AField, const std::string& AText, std::vector<uint32_t>& ASlots) {
  if (AText.empty() || AText.size() > kMaxLiteralBytes) return kNoLiteral;
  // Open addressing over the literals so far (slot: literal + 1, 0 empty), a power of
  // two kept at least twice the literals.
  auto slotOf = [](uint32_t AFieldOf, std::string_view ATextOf) {
    return std::hash<std::string_view>{}(ATextOf) ^ (size_t{AFieldOf} * 0x9E3779B97F4A7C15ull);
  };
  if ((FLengths.size() + 1) * 2 > ASlots.size()) {
    ASlots.assign(std::max<size_t>(64, ASlots.size() * 2), 0);
    for (uint32_t known = 0; known < FLengths.size(); ++known) {
      size_t at = slotOf(FFields[known], FTexts[known]) & (ASlots.size() - 1);
      while (ASlots[at]) at = (at + 1) & (ASlots.size() - 1);
      ASlots[at] = known + 1;
    }
  }
  const size_t mask = ASlots.size() - 1;
  size_t slot = slotOf(AField, AText) & mask;
  for (; ASlots[slot]; slot = (slot + 1) & mask) {
    const uint32_t literal = ASlots[slot] - 1;
    if (FFields[literal] == AField && FTexts[literal] == AText) return literal;
  }
  const uint32_t literal = static_cast<uint32_t>(FLengths.size());
  ASlots[slot] = literal + 1;
  FTexts.push_back(AText);
  FFields.push_back(AField);
  FLengths.push_back(static_cast<uint32_t>(AText.size()));
  return literal;
}

void TLiteralIndex::AddFieldAnswers(const TSigmaRule& ARule, std::vector<uint32_t>& ACodes) {
  const size_t tests = ACodes.size(); // (ARule.TestCount)
  // (Room for every field test's number, whatever FieldTestCount says: MatchField reads
  // the place of each one it tests.)
  size_t fields = ARule.FieldTestCount;
  for (const TSearch& search : ARule.Searches)
    for (const TSearchAlt& alt : search.Alts)
      for (const TFieldTest& field : alt.Fields) fields = std::max<size_t>(fields, size_t{field.Index} + 1);
  ACodes.resize(tests + fields, kNoLiteral);
  for (const TSearch& search : ARule.Searches)
    for (const TSearchAlt& alt : search.Alts) {
      if (alt.Keywords) continue;
      for (const TFieldTest& field : alt.Fields) {
        bool decided = true;
        for (const TValueTest& value : field.Values) {
          const uint32_t coded = ACodes[value.Index];
          decided = decided && DecidedByLiteral(value) && coded != kNoLiteral && !(coded & 1) &&
                    (coded >> 1) < (1u << 27);
        }
        if (!decided) continue;
        ACodes[tests + field.Index] = static_cast<uint32_t>(ACodes.size());
        for (const TValueTest& value : field.Values) {
          const uint8_t bit = value.Kind == TValueTest::vkEquals       ? lhEquals
                              : value.Kind == TValueTest::vkStartsWith ? lhStarts
                              : value.Kind == TValueTest::vkEndsWith   ? lhEnds
                                                                       : lhContains;
          ACodes.push_back((ACodes[value.Index] >> 1) << 4 | bit);
        }
      }
    }
}

TLiteralIndex::TLiteralIndex(const std::vector<const TRuleBinding*>& ABindings, TAutomatonPool* APool) {
  static std::atomic<uint64_t> serials{0};
  FSerial = ++serials;
  // The literal of every value test, per binding (the binding says which event field a
  // rule's field reads).
  size_t tests = 0;
  for (const TRuleBinding* binding : ABindings) tests += binding->Rule->TestCount;
  size_t slots = 64;
  while (slots < 2 * tests) slots *= 2;
  std::vector<uint32_t> interned(slots, 0);
  std::string text;
  FTestLiterals.resize(ABindings.size());
  for (size_t b = 0; b < ABindings.size(); ++b) {
    const TRuleBinding& binding = *ABindings[b];
    const TSigmaRule& rule = *binding.Rule;
    std::vector<uint32_t>& testLiterals = FTestLiterals[b];
    testLiterals.assign(rule.TestCount, kNoLiteral);
    for (const TSearch& search : rule.Searches)
      for (const TSearchAlt& alt : search.Alts)
        for (const TFieldTest& field : alt.Fields) {
          const uint32_t fieldId = alt.Keywords ? kKeywordField : binding.SlotFields[field.Slot];
          for (const TValueTest& value : field.Values) {
            LiteralText(value, text);
            const uint32_t literal = Intern(fieldId, text, interned);
            if (literal != kNoLiteral) testLiterals[value.Index] = literal << 1 | (DecidedByLiteral(value) ? 0 : 1);
          }
        }
  }

  // One automaton per field, over the literals in the order they came (so a budget cut
  // keeps the same ones every time), and one for the keyword literals, as every value of
  // the event goes through it.
  std::vector<std::vector<uint32_t>> byField;
  std::vector<uint32_t> keywords;
  FIndexed.assign(FLengths.size(), 0);
  for (uint32_t literal = 0; literal < FLengths.size(); ++literal) {
    const uint32_t field = FFields[literal];
    if (field == kKeywordField) {
      FIndexed[literal] = 1; // a keyword set is within the budget (a rule's values are bounded)
      keywords.push_back(literal);
      continue;
    }
    if (field >= byField.size()) byField.resize(field + 1);
    byField[field].push_back(literal);
  }
  for (size_t field = 0; field < byField.size(); ++field) {
    std::vector<uint32_t>& literals = byField[field];
    if (literals.empty()) continue;
    size_t states = 1;
    size_t kept = 0;
    for (const uint32_t literal : literals)
      if (states + FLengths[literal] <= kMaxStates) {
        states += FLengths[literal];
        literals[kept++] = literal;
        FIndexed[literal] = 1;
      }
    literals.resize(kept);
    FScans.push_back({static_cast<uint32_t>(FAutomata.size()), static_cast<uint32_t>(field)});
    AddAutomaton(std::move(literals), APool);
  }
  if (!keywords.empty()) {
    FScans.push_back({static_cast<uint32_t>(FAutomata.size()), kKeywordField});
    AddAutomaton(std::move(keywords), APool);
  }

  // Tests whose literal did not fit search the value themselves; then what each binding
  // needs: clauses, each one of whose literals must be found.
  FClauseCount.assign(ABindings.size(), 0);
  std::vector<uint32_t> weighed(FLengths.size());
  for (uint32_t literal = 0; literal < FLengths.size(); ++literal) weighed[literal] = CommonLength(FTexts[literal]);
  std::vector<std::pair<uint32_t, uint32_t>> needed; // literal, clause
  for (uint32_t b = 0; b < ABindings.size(); ++b) {
    const TRuleBinding& binding = *ABindings[b];
    for (uint32_t& coded : FTestLiterals[b])
      if (coded != kNoLiteral && !FIndexed[coded >> 1]) coded = kNoLiteral;
    const TNeeds needs = TNeedFinder(*binding.Rule, FTestLiterals[b], weighed).Rule(binding.Rule->Condition);
    for (const TNeed& need : needs) {
      const uint32_t clause = static_cast<uint32_t>(FClauseBinding.size());
      FClauseBinding.push_back(b);
      ++FClauseCount[b];
      for (const uint32_t literal : need) needed.emplace_back(literal, clause);
    }
    AddFieldAnswers(*binding.Rule, FTestLiterals[b]);
  }
  // Flat, by literal (per event, every literal found walks its clauses here), each
  // literal's in clause order.
  FNeededAt.assign(FLengths.size() + 1, 0);
  for (const auto& [literal, clause] : needed) ++FNeededAt[literal + 1];
  for (size_t i = 1; i < FNeededAt.size(); ++i) FNeededAt[i] += FNeededAt[i - 1];
  FNeeded.resize(needed.size());
  {
    std::vector<uint32_t> fill(FNeededAt.begin(), FNeededAt.end() - 1);
    for (const auto& [literal, clause] : needed) FNeeded[fill[literal]++] = {clause, FClauseBinding[clause]};
  }
}

void TLiteralIndex::AddAutomaton(std::vector<uint32_t> ALiterals, TAutomatonPool* APool) {
  // A small automaton is built sooner than its key is made and looked up.
  constexpr size_t kPooledLiterals = 16;
  std::string key;
  if (APool && ALiterals.size() >= kPooledLiterals) {
    size_t bytes = 0;
    for (const uint32_t literal : ALiterals) bytes += 8 + FTexts[literal].size();
    key.reserve(bytes);
    for (const uint32_t literal : ALiterals) {
      const uint32_t head[2] = {literal, FLengths[literal]};
      key.append(reinterpret_cast<const char*>(head), sizeof head);
      key.append(FTexts[literal]);
    }
    const std::lock_guard<std::mutex> lock(APool->FMutex);
    if (const auto found = APool->FByLiterals.find(key); found != APool->FByLiterals.end()) {
      // The same literals under the same numbers: what it finds is the same, whichever
      // index builds it (an index's FTexts and FLengths of these numbers are equal).
      FAutomata.push_back(found->second);
      return;
    }
  }
  auto automaton = std::make_shared<TAutomaton>();
  for (const uint32_t literal : ALiterals)
    automaton->ScansFolded = automaton->ScansFolded || !IsAscii(FTexts[literal]);
  automaton->Literals = std::move(ALiterals);
  FAutomata.push_back(automaton);
  if (key.empty()) return;
  const std::lock_guard<std::mutex> lock(APool->FMutex);
  // (Another index may have put one there meanwhile: this one is kept for this index.)
  APool->FByLiterals.emplace(std::move(key), std::move(automaton));
}

void TLiteralIndex::BuildAutomaton(TAutomaton& AAutomaton, const std::vector<uint32_t>& ALiterals) const {
  for (uint8_t type = 0; type < 32; ++type) {
    const char* const chars = NarrowTextChars(type);
    if (!chars) continue;
    const std::string folded = FoldText(chars);
    if (std::none_of(ALiterals.begin(), ALiterals.end(), [&](uint32_t ALiteral) {
          return FTexts[ALiteral].find_first_not_of(folded) == std::string::npos;
        }))
      AAutomaton.SkipTypes |= uint32_t{1} << type;
  }
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

  // The trie, children as sibling lists (the root's by class: it has the most).
  std::vector<uint32_t> head{kNone}, sibling{kNone}, own{kNoLiteral}, rootChild(classes, kNone);
  std::vector<uint16_t> inClass{0};
  size_t most = 1; // states at most
  for (const uint32_t literal : ALiterals) most += FLengths[literal];
  most = std::min(most, kMaxStates + 1);
  head.reserve(most);
  sibling.reserve(most);
  own.reserve(most);
  inClass.reserve(most);
  for (const uint32_t literal : ALiterals) {
    uint32_t state = 0;
    for (const char c : FTexts[literal]) {
      const uint16_t cls = classOf[static_cast<uint8_t>(c)];
      uint32_t child = state == 0 ? rootChild[cls] : head[state];
      if (state != 0)
        while (child != kNone && inClass[child] != cls) child = sibling[child];
      if (child == kNone) {
        child = static_cast<uint32_t>(own.size());
        head.push_back(kNone);
        sibling.push_back(head[state]);
        own.push_back(kNoLiteral);
        inClass.push_back(cls);
        head[state] = child;
        if (state == 0) rootChild[cls] = child;
      }
      state = child;
    }
    own[state] = literal;
  }

  // Numbered breadth first: a state's children get consecutive numbers.
  const size_t states = own.size();
  std::vector<uint32_t> order{0};
  order.reserve(states);
  AAutomaton.FirstChild.assign(states, 0);
  AAutomaton.ChildCount.assign(states, 0);
  for (size_t i = 0; i < order.size(); ++i) {
    AAutomaton.FirstChild[i] = static_cast<uint32_t>(order.size());
    for (uint32_t child = head[order[i]]; child != kNone; child = sibling[child]) {
      order.push_back(child);
      ++AAutomaton.ChildCount[i];
    }
  }
  AAutomaton.InClass.resize(states);
  AAutomaton.Own.resize(states);
  for (size_t i = 0; i < states; ++i) {
    AAutomaton.InClass[i] = inClass[order[i]];
    AAutomaton.Own[i] = own[order[i]];
  }

  // In breadth-first order (every link goes to a shallower state, done before): the
  // failure link of each child of a state, read from a full row as soon as the chain
  // reaches one, and its suffix link; then the full row of a shallow state, its failure
  // state's row with its own children put in. An entry is marked when its state ends
  // literals as it is written (a copied entry is marked already), and the rows are made
  // in place, of the width they are kept in.
  const bool narrow = states < kOutput16;
  const size_t entryBytes = narrow ? 2 : 4;
  const uint32_t dense =
      static_cast<uint32_t>(std::min<size_t>(states, std::max<size_t>(1, kDenseBytes / entryBytes / classes)));
  AAutomaton.DenseStates = dense;
  std::vector<uint32_t>& fail = AAutomaton.Fail;
  std::vector<uint32_t>& suffix = AAutomaton.Suffix;
  fail.assign(states, 0);
  suffix.assign(states, 0);
  const uint32_t* firstChild = AAutomaton.FirstChild.data();
  const uint32_t* childCount = AAutomaton.ChildCount.data();
  const uint16_t* inClassOf = AAutomaton.InClass.data();
  const uint32_t* ownOf = AAutomaton.Own.data();
  auto childOf = [&](uint32_t AState, uint16_t AClass) {
    const uint32_t first = firstChild[AState];
    for (uint32_t c = first; c < first + childCount[AState]; ++c)
      if (inClassOf[c] == AClass) return c;
    return kNone;
  };
  auto fill = [&](auto& ARows, uint32_t AOutput) {
    using TEntry = typename std::remove_reference_t<decltype(ARows)>::value_type;
    ARows.resize(size_t{dense} * classes); // (the root's row: the root, but for its children)
    TEntry* rows = ARows.data();
    const uint32_t mask = ~AOutput;
    for (uint32_t state = 0; state < states; ++state) {
      const uint32_t first = firstChild[state];
      const uint32_t last = first + childCount[state];
      if (state != 0)
        for (uint32_t child = first; child < last; ++child) {
          const uint16_t c = inClassOf[child];
          uint32_t f = fail[state];
          uint32_t link = kNone;
          while (f >= dense && link == kNone) {
            link = childOf(f, c);
            f = fail[f];
          }
          if (link == kNone) link = rows[size_t{f} * classes + c] & mask;
          fail[child] = link;
          suffix[child] = ownOf[link] != kNoLiteral ? link : suffix[link];
        }
      if (state < dense) {
        TEntry* row = rows + size_t{state} * classes;
        if (state != 0) std::copy_n(rows + size_t{fail[state]} * classes, classes, row);
        for (uint32_t child = first; child < last; ++child)
          row[inClassOf[child]] =
              static_cast<TEntry>(child | (ownOf[child] != kNoLiteral || suffix[child] != 0 ? AOutput : 0));
      }
    }
  };
  if (narrow)
    fill(AAutomaton.Dense16, kOutput16);
  else
    fill(AAutomaton.Dense32, kOutput);

  AAutomaton.MinLength = 0xFFFFFFFF;
  for (const uint32_t literal : ALiterals) AAutomaton.MinLength = std::min(AAutomaton.MinLength, FLengths[literal]);
  if (ALiterals.empty()) AAutomaton.MinLength = 1;
  const bool heads = ALiterals.size() <= kMaxHeadLiterals &&
                     std::all_of(ALiterals.begin(), ALiterals.end(), [&](uint32_t A) { return FLengths[A] >= 4; });
  if (heads) {
    // The 4-byte runs at the first HeadStep places of each literal: every literal is
    // at least HeadStep + 3 bytes long, so one of the runs of any place it is found at
    // starts at a multiple of HeadStep, and only those runs of a text need be tested.
    AAutomaton.HeadStep = std::clamp<uint32_t>(AAutomaton.MinLength - 3, 1, kMaxHeadStep);
    AAutomaton.Heads.assign(65536 / 64, 0);
    for (const uint32_t literal : ALiterals)
      for (size_t at = 0; at < AAutomaton.HeadStep; ++at) {
        const uint32_t hash = HeadHash(HeadRun(reinterpret_cast<const uint8_t*>(FTexts[literal].data()) + at));
        AAutomaton.Heads[hash >> 6] |= uint64_t{1} << (hash & 63);
      }
  }
}

inline const TLiteralIndex::TAutomaton& TLiteralIndex::Built(uint32_t AAutomaton) const {
  const TAutomaton& automaton = *FAutomata[AAutomaton];
  if (automaton.Ready.load(std::memory_order_acquire)) [[likely]]
    return automaton;
  return Build(AAutomaton);
}

const TLiteralIndex::TAutomaton& TLiteralIndex::Build(uint32_t AAutomaton) const {
  TAutomaton& automaton = *FAutomata[AAutomaton];
  // Another thread is building it: rather than wait, this one builds the automata of the
  // index that no thread has started on (ScanFields builds every one of them for the
  // first event anyway), then waits.
  if (automaton.Started.load(std::memory_order_acquire))
    for (const TScan& scan : FScans)
      if (scan.Automaton != AAutomaton && !FAutomata[scan.Automaton]->Started.load(std::memory_order_acquire))
        Built(scan.Automaton);
  std::call_once(automaton.Built, [&] {
    automaton.Started.store(true, std::memory_order_release);
    BuildAutomaton(automaton, automaton.Literals);
    automaton.Literals = {};
    automaton.Ready.store(true, std::memory_order_release);
  });
  return automaton;
}

void TLiteralIndex::BuildUnstarted() const {
  for (const TScan& scan : FScans)
    if (!FAutomata[scan.Automaton]->Started.load(std::memory_order_acquire)) Built(scan.Automaton);
}

void TLiteralIndex::Scan(uint32_t AAutomaton, std::string_view AText, TLiteralHits& AHits) const {
  ScanText(Built(AAutomaton), AText, AHits);
}

// The text of value AValue as AAutomaton scans it: as the event has it, folded while
// scanned a byte at a time (ASCII), or, when a literal of the automaton has other letters
// and so does the value, folded whole first (FoldText). (The two are the same for ASCII
// literals: folding keeps every ASCII byte, and other bytes outside ASCII.)
inline std::string_view TLiteralIndex::ScannedText(const TAutomaton& AAutomaton, const TEventFields& AFields,
                                                   int AValue) {
  const std::string_view text = AFields.Text(AValue);
  return AAutomaton.ScansFolded && !IsAscii(text) ? AFields.Lower(AValue) : text;
}

void TLiteralIndex::ScanFields(const TScan& AScan, const TEventFields& AFields, TLiteralHits& AHits,
                               TScanMemo* AMemo) const {
  const TAutomaton& automaton = Built(AScan.Automaton);
  const size_t shortest = automaton.MinLength;
  // (A value not made yet whose type's text cannot hold a literal is passed over unmade.)
  const uint32_t skipTypes = automaton.SkipTypes;
  if (AScan.Field == kKeywordField) {
    for (int v = 0, count = AFields.ValueCount(); v < count; ++v) {
      const TEventFields::TValue& value = AFields.Value(v);
      if (value.Deferred >= 0 && value.Type < 32 && (skipTypes >> value.Type & 1)) continue;
      const std::string_view text = ScannedText(automaton, AFields, v);
      if (text.size() >= shortest) ScanText(automaton, text, AHits);
    }
    return;
  }
  // An automaton with its heads' test passes over most texts at once: only the others
  // are worth remembering (remembering more texts costs more in missed caches than the
  // heads' test does).
  if (!automaton.Heads.empty()) AMemo = nullptr;
  const uint64_t key = FSerial << 20 ^ AScan.Automaton;
  for (int v = AFields.First(AScan.Field); v != TEventFields::kNoValue; v = AFields.Value(v).Next) {
    const TEventFields::TValue& value = AFields.Value(v);
    if (value.Deferred >= 0 && value.Type < 32 && (skipTypes >> value.Type & 1)) continue;
    const std::string_view text = ScannedText(automaton, AFields, v);
    if (text.size() < shortest) continue;
    if (AMemo && text.size() >= TScanMemo::kMinText && text.size() <= TScanMemo::kMaxText)
      ScanRemembered(automaton, key, text, AHits, *AMemo);
    else
      ScanText(automaton, text, AHits);
  }
}

namespace {

uint64_t HashText(std::string_view AText) {
  uint64_t hash = AText.size() * 0x9E3779B97F4A7C15ull;
  size_t i = 0;
  for (; i + 8 <= AText.size(); i += 8) {
    uint64_t word;
    std::memcpy(&word, AText.data() + i, 8);
    hash = (hash ^ word) * 0xBF58476D1CE4E5B9ull;
    hash ^= hash >> 31;
  }
  uint64_t tail = 0;
  std::memcpy(&tail, AText.data() + i, AText.size() - i);
  hash = (hash ^ tail) * 0x94D049BB133111EBull;
  return hash ^ hash >> 29;
}

} // namespace

void TLiteralIndex::ScanRemembered(const TAutomaton& AAutomaton, uint64_t AKey, std::string_view AText,
                                   TLiteralHits& AHits, TScanMemo& AMemo) const {
  const uint64_t hash = HashText(AText) ^ AKey * 0xD6E8FEB86659FD93ull;
  if (AMemo.FSlots.empty()) [[unlikely]]
    AMemo.FSlots.resize(TScanMemo::kSlots);
  TScanMemo::TSlot& slot = AMemo.FSlots[(hash >> 40) % TScanMemo::kSlots];
  const bool same = slot.Hash == hash && slot.Automaton == AKey;
  if (same && slot.Kept && slot.Text == AText) {
    for (const auto& [literal, bits] : slot.Hits) {
      uint8_t& hit = AHits.Bits[literal];
      if (!hit) AHits.Found.push_back(literal);
      hit |= bits;
    }
    return;
  }
  if (!same || slot.Kept) {
    // Seen for the first time (or another text in its place): noted, and scanned.
    slot.Hash = hash;
    slot.Automaton = AKey;
    slot.Kept = false;
    ScanText(AAutomaton, AText, AHits);
    return;
  }
  // The second time: scanned on its own, and kept.
  TLiteralHits& scratch = AMemo.FScratch;
  if (scratch.Bits.size() < FLengths.size()) scratch.Bits.resize(FLengths.size(), 0);
  ScanText(AAutomaton, AText, scratch);
  slot.Kept = true;
  slot.Text.assign(AText);
  slot.Hits.clear();
  for (const uint32_t literal : scratch.Found) {
    const uint8_t bits = scratch.Bits[literal];
    slot.Hits.emplace_back(literal, bits);
    uint8_t& hit = AHits.Bits[literal];
    if (!hit) AHits.Found.push_back(literal);
    hit |= bits;
  }
  scratch.Clear();
}

namespace {

// Whether one of the 4-byte runs of AText at the multiples of AStep has its bit in
// AHeads (runs read whole, so only those that end within the text are tested).
template <uint32_t AStep>
bool AnyHead(const uint64_t* AHeads, const uint8_t* AText, size_t ASize) {
  if (ASize < 4) return false;
  const size_t last = ASize - 4; // the last place a run starts at
  auto test = [&](size_t AAt) {
    const uint32_t hash = (HeadRunOf(AText + AAt) * 0x9E3779B1u) >> 16;
    return AHeads[hash >> 6] >> (hash & 63) & 1;
  };
  size_t at = 0;
  // Four runs at a time, one branch for them all (most texts hold no head at all).
  for (; at + 3 * AStep <= last; at += 4 * AStep)
    if (test(at) | test(at + AStep) | test(at + 2 * AStep) | test(at + 3 * AStep)) return true;
  for (; at <= last; at += AStep)
    if (test(at)) return true;
  return false;
}

} // namespace

inline void TLiteralIndex::ScanText(const TAutomaton& automaton, std::string_view AText, TLiteralHits& AHits) const {
  if (!automaton.Heads.empty()) {
    const auto* text = reinterpret_cast<const uint8_t*>(AText.data());
    const uint64_t* heads = automaton.Heads.data();
    bool candidate;
    switch (automaton.HeadStep) {
    case 1: candidate = AnyHead<1>(heads, text, AText.size()); break;
    case 2: candidate = AnyHead<2>(heads, text, AText.size()); break;
    case 3: candidate = AnyHead<3>(heads, text, AText.size()); break;
    case 4: candidate = AnyHead<4>(heads, text, AText.size()); break;
    case 5: candidate = AnyHead<5>(heads, text, AText.size()); break;
    case 6: candidate = AnyHead<6>(heads, text, AText.size()); break;
    case 7: candidate = AnyHead<7>(heads, text, AText.size()); break;
    default: candidate = AnyHead<8>(heads, text, AText.size()); break;
    }
    if (!candidate) return;
  }
  if (!automaton.Dense16.empty())
    ScanWith(automaton, automaton.Dense16.data(), AText, AHits);
  else
    ScanWith(automaton, automaton.Dense32.data(), AText, AHits);
}

template <typename TEntry>
void TLiteralIndex::ScanWith(const TAutomaton& A, const TEntry* ARows, std::string_view AText,
                             TLiteralHits& AHits) const {
  constexpr uint32_t output = sizeof(TEntry) == 2 ? kOutput16 : kOutput;
  const uint32_t classes = A.Classes;
  const uint32_t dense = A.DenseStates;
  const size_t size = AText.size();
  const auto* text = reinterpret_cast<const uint8_t*>(AText.data());
  uint32_t state = 0;
  for (size_t i = 0; i < size; ++i) {
    const uint16_t c = A.ClassOf[text[i]];
    uint32_t target;
    for (;;) {
      if (state < dense) [[likely]] {
        target = ARows[size_t{state} * classes + c];
        break;
      }
      // A deep state: its own children, or down its failure link.
      const uint32_t first = A.FirstChild[state];
      const uint32_t last = first + A.ChildCount[state];
      uint32_t child = first;
      while (child < last && A.InClass[child] != c) ++child;
      if (child < last) {
        target = child | (A.Own[child] != kNoLiteral || A.Suffix[child] != 0 ? output : 0);
        break;
      }
      state = A.Fail[state];
    }
    state = target & ~output;
    if (!(target & output)) [[likely]]
      continue;
    for (uint32_t at = A.Own[state] != kNoLiteral ? state : A.Suffix[state]; at; at = A.Suffix[at]) {
      const uint32_t literal = A.Own[at];
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
    total += sizeof A + A.Dense16.size() * 2 + A.Dense32.size() * 4 + A.Own.size() * (4 * 5 + 2);
  };
  for (const auto& automaton : FAutomata) add(*automaton);
  total += FNeeded.size() * sizeof(TClause) + FNeededAt.size() * 4;
  total += FClauseBinding.size() * 4 + FClauseCount.size() * 4;
  return total + FLengths.size() * 8;
}

} // namespace qvx::hunt
