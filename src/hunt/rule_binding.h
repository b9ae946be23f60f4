// One compiled rule bound to one channel of its log source.
#pragma once

#include "hunt/sigma_rule.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qvx::hunt {

struct TRuleBinding {
  const TSigmaRule* Rule = nullptr;
  std::vector<uint32_t> SlotFields; // rule slot -> event field number
  std::vector<std::pair<uint32_t, std::vector<std::string>>> Where; // event field -> folded values (any)
  // The rule's place among those the rule set compiles when first needed, or kCompiled
  // (see rule_set.h).
  static constexpr uint32_t kCompiled = 0xFFFFFFFF;
  uint32_t Deferred = kCompiled;
};

} // namespace qvx::hunt
