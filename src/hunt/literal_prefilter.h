// Which rules of a long list can match an event, found from literal text they need.
//
// For each rule the prefilter derives, from its compiled tests, a set of (field, text)
// of which at least one must occur in the event (in lower case) for the rule to match:
// a field test needs one of its values' literal parts, an AND needs what its most
// selective part needs, an OR all of what its parts need; "not", null, exists,
// numbers, field references, regular expressions and texts shorter than 4 bytes need
// nothing, and a rule that needs nothing is always tested. Per event, the values of the
// fields in question are scanned once for all texts (a 4-byte anchor per text, looked up
// in a bit table and verified in place), and only the rules whose text was found, and
// those always tested, are evaluated. Skipping a rule this way never changes a result.
#pragma once

#include "hunt/event_fields.h"
#include "hunt/rule_binding.h"

#include <cstdint>
#include <string>
#include <vector>

namespace qvx::hunt {

class TLiteralPrefilter {
public:
  static constexpr size_t kMinBindings = 24; // shorter lists are simply tested rule by rule
  static constexpr size_t kAnchor = 4;

  explicit TLiteralPrefilter(const std::vector<const TRuleBinding*>& ABindings);

  // ASelected[i] = 1 when binding i of the list must be evaluated for the event.
  void Select(const TEventFields& AFields, std::vector<uint8_t>& ASelected) const;

  size_t AlwaysCount() const { return FAlways.size(); }

private:
  struct TLiteral {
    std::string Text;     // folded
    uint32_t AnchorAt = 0; // offset of the anchor in Text
    std::vector<uint32_t> Bindings;
  };
  struct TFieldIndex {
    uint32_t FieldId = 0;
    std::vector<TLiteral> Literals;
    std::vector<std::pair<uint32_t, uint32_t>> Anchors; // (anchor bytes, literal), sorted
    std::vector<uint64_t> Bits;                         // anchor hash -> may be there
  };

  std::vector<TFieldIndex> FFields;
  std::vector<uint32_t> FAlways;
  size_t FCount = 0;
};

} // namespace qvx::hunt
