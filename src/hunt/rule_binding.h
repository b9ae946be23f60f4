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
};

} // namespace qvx::hunt
