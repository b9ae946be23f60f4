// A Sigma rule compiled into a tree of typed tests.
//
// CompileSigmaRule turns one YAML document into a TSigmaRule once: every value becomes a
// TValueTest whose kind (equals, contains, starts/ends with, wildcard pattern, regular
// expression, network, number, null, exists, field reference) and case-folded needle
// are fixed at compile time; maps become AND groups, lists OR groups, and the condition
// a tree over the search identifiers. Field names are rule-local slots; the log source
// binding says which event field each slot reads (see sigma_match.h), so one compiled
// rule serves every log its source maps to.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/sigma_regex.h"
#include "hunt/sigma_yaml.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace qvx::hunt {

enum TSigmaLevel : uint8_t { slInformational, slLow, slMedium, slHigh, slCritical };
const char* LevelName(TSigmaLevel ALevel);
// "informational", "low", ... (case ignored); false for anything else.
bool ParseLevel(std::string_view AText, TSigmaLevel& ALevel);

// An IPv4 or IPv6 network: 16 bytes (IPv4 as ::ffff:a.b.c.d) and a prefix length.
struct TNetwork {
  std::array<uint8_t, 16> Address{};
  int Prefix = 0;
  bool Contains(const std::array<uint8_t, 16>& AAddress) const;
};
// "10.0.0.0/8", "fe80::/10", a bare address (whole prefix). False when it is not one.
bool ParseNetwork(std::string_view AText, TNetwork& ANetwork);
bool ParseIpAddress(std::string_view AText, std::array<uint8_t, 16>& AAddress);

// One segment of a wildcard pattern between two '*': literal text in which AnyAt marks
// the positions of '?'.
struct TGlobSegment {
  std::string Text;
  std::vector<bool> AnyAt;
  bool HasAny = false;
};

class TValueTest {
public:
  enum TKind : uint8_t {
    vkEquals, vkContains, vkStartsWith, vkEndsWith, vkGlob, vkRegex, vkNetwork,
    vkLess, vkLessEqual, vkGreater, vkGreaterEqual, vkNull, vkExists, vkFieldRef
  };
  // (What every test of a rule reads first, together at the start: a rule's tests are
  // walked one after another, most of them decided by the literal index from these alone.)
  TKind Kind = vkEquals;
  bool Cased = false;  // compare with case (the cased modifier); otherwise Needle is folded
  bool ExistsWanted = true;
  uint32_t Index = 0;  // the test's number in its rule (TSigmaRule::TestCount)
  std::string Needle;  // equals/contains/starts/ends: the text; for display: the rule's value
  std::vector<TGlobSegment> Segments; // vkGlob: first anchored at the start, last at the end
  std::shared_ptr<TSigmaRegex> Regex;
  TNetwork Network;
  double Number = 0;
  uint32_t RefSlot = 0;               // vkFieldRef: the slot of the other field
  TKind RefKind = vkEquals;           // vkFieldRef: how the values compare
  uint16_t Grams[2] = {};             // vkContains: 4-gram hashes of the needle's two ends
  bool HasGrams = false;
};

// A field and its values: any value (or, with All, every value) matches one of the
// event's values of that field.
struct TFieldTest {
  uint32_t Slot = 0;
  uint32_t Index = 0; // the field test's number in its rule (TSigmaRule::FieldTestCount)
  std::vector<TValueTest> Values;
  bool All = false;
};

// One map of a search: every field test holds. Keyword tests (a list or a value
// without a field) match any value of the event.
struct TSearchAlt {
  std::vector<TFieldTest> Fields;
  bool Keywords = false;  // Fields[0] is a keyword test (its Slot unused)
};

// A search identifier: any of its alternatives holds.
struct TSearch {
  std::string Name;
  std::vector<TSearchAlt> Alts;
};

struct TCondNode {
  enum TKind : uint8_t { cnAnd, cnOr, cnNot, cnSearch };
  TKind Kind = cnSearch;
  uint32_t Search = 0;
  std::vector<TCondNode> Children;
};

class TSigmaRule {
public:
  std::string File, Id, Title, Author, Status, Description, Date;
  TSigmaLevel Level = slMedium;
  std::vector<std::string> Tags;
  std::string Product, Category, Service; // the log source, folded
  std::vector<std::string> SlotNames;     // the field names the rule tests
  std::vector<TSearch> Searches;
  TCondNode Condition;
  // The event IDs the condition needs one of, when it always needs one (empty: any).
  std::set<uint32_t> EventIds;
  uint32_t TestCount = 0; // value tests, numbered by TValueTest::Index
  uint32_t FieldTestCount = 0; // field tests, numbered by TFieldTest::Index
  // Times a regular expression reached its limits while matching (the rule is reported;
  // hunters on several threads may count at once).
  mutable std::atomic<uint64_t> RegexLimitHits{0};
};

struct TCompileLimits {
  size_t MaxValueBytes = 1u << 20; // longer values are refused
  int MaxConditionDepth = 64;
  size_t MaxConditionLength = 64 * 1024;
};

// Compiles one YAML document of AFile. Raises ESigmaError naming the file, line and
// reason when the rule cannot be used (not a rule, an unknown modifier, a correlation
// or aggregation, a regular expression that does not compile, a value over the limit,
// a condition that does not parse or names no search).
std::unique_ptr<TSigmaRule> CompileSigmaRule(const TYamlNode& ADocument, const std::string& AFile,
                                             const TCompileLimits& ALimits = {});

} // namespace qvx::hunt
