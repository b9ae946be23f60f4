// Testing a compiled rule against the fields of one event.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/sigma_rule.h"

#include <cstdint>
#include <vector>

namespace qvx::hunt {

// A field value that satisfied a search: the rule's slot (kKeywordSlot for a keyword)
// and the value's index in the event's fields.
struct TMatchedValue {
  static constexpr uint32_t kKeywordSlot = 0xFFFFFFFF;
  uint32_t Slot = 0;
  int Value = 0;
};

// Whether ARule's condition holds for AFields, the rule's slot I reading the event field
// ASlotFields[I]. With ARecord, the values that satisfied its searches (outside any
// "not") are appended to it. Never raises; a regular expression that reaches its limits
// counts as not matching and is counted in ARule.RegexLimitHits.
//
// With ATestLiterals (a binding's, see literal_index.h) and AHits (the literals found in
// the event's values that the binding reads), a value test with a literal reads the
// answer from AHits instead of searching the values; the result is the same. With
// ARecord, which needs to know which value matched, the answer only rules a test out, or
// names the value of a field that has one; the values are searched otherwise.
bool MatchRule(const TSigmaRule& ARule, const uint32_t* ASlotFields, const TEventFields& AFields,
               std::vector<TMatchedValue>* ARecord = nullptr, const uint32_t* ATestLiterals = nullptr,
               const uint8_t* AHits = nullptr);

// One value test against one value of an event (exists and null on absent fields are the
// caller's). Exposed for the tests.
bool MatchValue(const TSigmaRule& ARule, const TValueTest& ATest, const uint32_t* ASlotFields,
                const TEventFields& AFields, int AValue);

} // namespace qvx::hunt
