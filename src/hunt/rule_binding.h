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
  // Set when the rule set's literal index is built (see literal_index.h):
  uint32_t Number = 0;                // index among the rule set's bindings
  std::vector<uint32_t> TestLiterals; // per value test (TValueTest::Index): literal << 1 | 1 when only a hint
  bool Always = true;                 // needs no literal: evaluated on every event it is a candidate for
};

} // namespace qvx::hunt
