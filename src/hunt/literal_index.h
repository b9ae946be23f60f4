// Every literal text of every bound rule, found in an event's values in one pass.
//
// The texts that value tests compare with (equals, contains, starts and ends with, the
// longest plain run of a wildcard pattern, and the run every match of a regular
// expression holds) are gathered per event field, case-folded, into one Aho-Corasick
// automaton per field (and one for keyword tests, which look at every value). Per event,
// each value of a field some candidate rule reads is scanned once through its field's
// automaton, whatever the number of rules, and every text found is noted with where it
// was: anywhere, at the start, at the end, or the whole value. Value tests then read the
// answer instead of searching the value again: a test of folded text is decided by it,
// and a cased test, a wildcard pattern or a regular expression is tried only when its
// text was found.
//
// An index serves one list of bindings (the rules of one channel and event ID, see
// rule_set.h), and is made when an event first needs that list.
//
// The same texts select the rules worth evaluating: from its tests each rule binding gets
// clauses, sets of texts of which at least one must be in the event for it to match, and
// is evaluated only when every clause holds (a field test needs one of its values' texts,
// a field test of "all" values each of their texts, an AND what every part needs, an OR
// one of the texts of the most selective clause of each part; "not", null, exists,
// numbers, field references and regular expressions without a sure run need nothing). A
// binding that needs nothing is evaluated on every event of its channel and ID. Neither
// shortcut ever changes a result (but a regular expression that is not run cannot reach
// its limits either: limits are counted only for the texts a pattern is run on).
//
// An automaton is built the first time a value is scanned with it (on whichever thread
// that is), so a log that holds few kinds of events pays only for the fields their rules
// read, and a rule set loads without building any. A thread that needs an automaton
// another thread is building builds the index's other automata meanwhile.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/rule_binding.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx::hunt {

// The 4 bytes at AAt (all readable), each with its 0x20 bit set: an ASCII letter and
// its folded form give the same run, so a text's runs can be tested against folded
// literals' without folding it (other bytes may share a run too: only more candidates).
inline uint32_t HeadRunOf(const uint8_t* AAt) {
  uint32_t run;
  std::memcpy(&run, AAt, 4);
  return run | 0x20202020u;
}

// Where a literal was found in a value (bits of TLiteralHits::Bits).
enum TLiteralHit : uint8_t { lhContains = 1, lhStarts = 2, lhEnds = 4, lhEquals = 8 };

// The literals found in one event: Bits[literal] (0 when not found), and the literals set.
struct TLiteralHits {
  std::vector<uint8_t> Bits;
  std::vector<uint32_t> Found;
  void Clear() {
    for (const uint32_t literal : Found) Bits[literal] = 0;
    Found.clear();
  }
};

// What scanning texts with the automata that have no quick test of their literals'
// heads found (the large ones: every byte of a value walks them), kept by one hunter from
// event to event: events repeat their values (the same programs, command lines, users),
// and a text holds the same literals every time. A text is kept once it has been scanned
// twice with the same automaton (so values seen once cost only a hash), in a table of
// fixed size where a newer text takes the place of an older one.
class TScanMemo {
public:
  static constexpr size_t kSlots = 4096;
  static constexpr size_t kMinText = 8, kMaxText = 1024; // shorter are scanned faster than looked up
  TScanMemo() = default; // (its slots are made when first used)

private:
  friend class TLiteralIndex;
  struct TSlot {
    uint64_t Hash = 0;
    uint64_t Automaton = 0; // the index's serial number and the automaton's
    bool Kept = false;      // Text and Hits are set (else the text was seen once)
    std::string Text;
    std::vector<std::pair<uint32_t, uint8_t>> Hits; // literal, TLiteralHit bits
  };
  std::vector<TSlot> FSlots;
  TLiteralHits FScratch;
};

class TLiteralIndex {
private:
  struct TAutomaton;

public:
  static constexpr uint32_t kNoLiteral = 0xFFFFFFFF;
  static constexpr uint32_t kKeywordField = 0xFFFFFFFE; // keyword tests: every value of the event

  // The automata of the indexes of one rule set, by the literals they find: lists that
  // hold the same rules read through other field names (a log source in two logs) have
  // automata of the same literals under the same numbers, built once for both. Safe on
  // several threads at once; an automaton lives as long as an index or the pool has it.
  class TAutomatonPool {
  public:
    TAutomatonPool() = default;
    TAutomatonPool(const TAutomatonPool&) = delete;
    TAutomatonPool& operator=(const TAutomatonPool&) = delete;

  private:
    friend class TLiteralIndex;
    std::mutex FMutex;
    // Key: each literal's number, length and text, in the automaton's order.
    std::unordered_map<std::string, std::shared_ptr<TAutomaton>> FByLiterals;
  };

  // Builds the index of one list of bindings (binding number I is ABindings[I]): the
  // literal of each of their tests, what each binding needs, and the automata (left
  // unbuilt until first scanned; with APool, taken from it when it has one of the same
  // literals, and else put there).
  explicit TLiteralIndex(const std::vector<const TRuleBinding*>& ABindings, TAutomatonPool* APool = nullptr);

  uint32_t LiteralCount() const { return static_cast<uint32_t>(FLengths.size()); }
  // What must be scanned before the bindings are evaluated: the automaton of each field
  // their tests read literals of (Field: that field), and one of their keywords' literals
  // (Field: kKeywordField, every value of the event). One entry per automaton.
  struct TScan {
    uint32_t Automaton = 0;
    uint32_t Field = 0;
  };
  const std::vector<TScan>& Scans() const { return FScans; }
  uint32_t AutomatonCount() const { return static_cast<uint32_t>(FAutomata.size()); }
  // The clauses ALiteral is one of (a clause holds when one of its literals is found),
  // each with its binding.
  struct TClause {
    uint32_t Clause = 0;
    uint32_t Binding = 0;
  };
  std::span<const TClause> NeededBy(uint32_t ALiteral) const {
    return {FNeeded.data() + FNeededAt[ALiteral], FNeeded.data() + FNeededAt[ALiteral + 1]};
  }
  uint32_t ClauseCount() const { return static_cast<uint32_t>(FClauseBinding.size()); }
  // The binding a clause is of, and how many clauses a binding has: it is worth
  // evaluating only when all of them hold.
  uint32_t ClauseBinding(uint32_t AClause) const { return FClauseBinding[AClause]; }
  uint32_t ClausesOf(uint32_t ABinding) const { return FClauseCount[ABinding]; }
  // Per value test of binding ABinding (TValueTest::Index): literal << 1 | 1 when only a
  // hint, kNoLiteral when the test has none (MatchRule's ATestLiterals). Then, per field
  // test (TestCount + TFieldTest::Index), where in the same array the answers of a field
  // test that the literal hits decide alone (all of its values are such tests) start, else
  // kNoLiteral: per value, literal << 4 | the TLiteralHit bit that decides it. A rule's
  // tests are then not read at all for such field tests.
  const uint32_t* TestLiterals(uint32_t ABinding) const { return FTestLiterals[ABinding].data(); }
  // The binding needs no literal: it is evaluated on every event it is a candidate for.
  bool Always(uint32_t ABinding) const { return FClauseCount[ABinding] == 0; }
  // Scans AText (folded text, or ASCII text as the event has it: its letters are folded
  // while scanned) with automaton AAutomaton, adding the literals it finds to AHits.
  // Builds the automaton first when it is new; safe on several threads at once.
  void Scan(uint32_t AAutomaton, std::string_view AText, TLiteralHits& AHits) const;
  // Builds the automata no thread has started on (those a thread is building are left
  // to it); safe on several threads at once.
  void BuildUnstarted() const;
  // Scans what AScan names in AFields: every value of its field, or of the event for
  // kKeywordField (the automaton looked up once for all of them).
  // With AMemo, texts scanned before are looked up there (the same hits either way).
  void ScanFields(const TScan& AScan, const TEventFields& AFields, TLiteralHits& AHits,
                  TScanMemo* AMemo = nullptr) const;
  size_t MemoryBytes() const;
  // Which automaton AAutomaton is: the same for indexes that share it (TAutomatonPool).
  const void* AutomatonIdentity(uint32_t AAutomaton) const { return FAutomata[AAutomaton].get(); }

private:
  // States are numbered breadth first. The first DenseStates (the shallow ones, where
  // scanning spends most of its time) have a full row of transitions, 16 bits wide when
  // the automaton is small enough (so a small one stays in the first level cache); deeper
  // states keep only their children (consecutive numbers) and fall back along their
  // failure link.
  struct TAutomaton {
    std::vector<uint32_t> Literals; // what it finds (dropped once built)
    std::once_flag Built;
    std::atomic<bool> Ready{false}; // built (checked first: call_once costs more per scan)
    std::atomic<bool> Started{false}; // a thread is building it (or has built it)
    uint32_t Classes = 1;
    uint32_t DenseStates = 0;
    uint16_t ClassOf[256] = {};   // byte -> input class of its folded form (0: in no literal)
    std::vector<uint16_t> Dense16; // state * Classes + class -> state | kOutput16 when it ends literals
    std::vector<uint32_t> Dense32; // the same, for automata of 32768 states or more (kOutput)
    std::vector<uint32_t> FirstChild, ChildCount;
    std::vector<uint16_t> InClass; // state -> the class of the edge into it
    std::vector<uint32_t> Fail;
    std::vector<uint32_t> Own;    // state -> the literal it completes, or kNoLiteral
    std::vector<uint32_t> Suffix; // state -> the next state down its suffixes that completes one, or 0
    // For a few literals of 4 bytes or more: a bit per hash of their first 4 bytes, each
    // with its 0x20 bit set (HeadRunOf). A value none of whose 4-byte runs has its bit set holds none of them,
    // and is passed over at a fraction of the cost of the automaton.
    std::vector<uint64_t> Heads;
    uint32_t HeadStep = 1; // the heads are tested at every HeadStep-th place of a text
    uint32_t MinLength = 1; // of its literals: a shorter text holds none
    // Bit T: no literal is made of the characters the text of a value of type T can hold
    // (NarrowTextChars: numbers, times, GUIDs, SIDs): such a value holds none of them, and
    // is not even made.
    uint32_t SkipTypes = 0;
    // A literal holds bytes outside ASCII: a value that does too is scanned in its folded
    // form (ScannedText).
    bool ScansFolded = false;
  };
  static std::string_view ScannedText(const TAutomaton& AAutomaton, const TEventFields& AFields, int AValue);
  void ScanText(const TAutomaton& AAutomaton, std::string_view AText, TLiteralHits& AHits) const;
  void ScanRemembered(const TAutomaton& AAutomaton, uint64_t AKey, std::string_view AText, TLiteralHits& AHits,
                      TScanMemo& AMemo) const;
  static constexpr size_t kMaxHeadLiterals = 256;
  static constexpr uint32_t kMaxHeadStep = 8;
  static uint32_t HeadHash(uint32_t ARun) { return (ARun * 0x9E3779B1u) >> 16; }
  static uint32_t HeadRun(const uint8_t* AAt) { return HeadRunOf(AAt); }
  static constexpr uint32_t kOutput = 0x80000000;
  static constexpr uint16_t kOutput16 = 0x8000;
  static constexpr size_t kDenseBytes = 256u << 10; // per automaton

  uint32_t Intern(uint32_t AField, const std::string& AText, std::vector<uint32_t>& ASlots);
  // Appends the field tests' part of TestLiterals to a binding's ACodes (its value tests' part).
  static void AddFieldAnswers(const TSigmaRule& ARule, std::vector<uint32_t>& ACodes);
  // Adds the automaton of ALiterals (from APool when it has one of them).
  void AddAutomaton(std::vector<uint32_t> ALiterals, TAutomatonPool* APool);
  void BuildAutomaton(TAutomaton& AAutomaton, const std::vector<uint32_t>& ALiterals) const;
  const TAutomaton& Built(uint32_t AAutomaton) const; // (the check for a built one is inline)
  const TAutomaton& Build(uint32_t AAutomaton) const;
  template <typename TEntry>
  void ScanWith(const TAutomaton& AAutomaton, const TEntry* ARows, std::string_view AText, TLiteralHits& AHits) const;

  std::vector<std::string> FTexts;   // per literal: folded text
  std::vector<uint32_t> FFields;     // per literal: its field
  std::vector<uint32_t> FLengths;    // per literal: length in bytes
  std::vector<uint8_t> FIndexed;     // per literal: in its automaton (not over the budget)
  std::vector<TClause> FNeeded;                 // by literal: the clauses it is one of
  std::vector<uint32_t> FNeededAt;              // per literal: where its clauses start in FNeeded (and the end)
  std::vector<uint32_t> FClauseBinding;         // per clause
  std::vector<uint32_t> FClauseCount;           // per binding
  std::vector<std::vector<uint32_t>> FTestLiterals; // per binding
  std::vector<std::shared_ptr<TAutomaton>> FAutomata; // (not movable: once flags; may be shared, see TAutomatonPool)
  std::vector<TScan> FScans;
  uint64_t FSerial = 0; // unique among the indexes of the process (a memo's key)
};

} // namespace qvx::hunt
