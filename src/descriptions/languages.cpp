#include "descriptions/languages.h"

#include <algorithm>

namespace qvx {

std::vector<uint16_t> LanguageIdsFor(const std::vector<std::string>& ANames) {
  std::vector<uint16_t> ids;
  for (const std::string& name : ANames) {
    const uint16_t id = LanguageNameToId(name);
    if (id != 0 && std::find(ids.begin(), ids.end(), id) == ids.end()) ids.push_back(id);
  }
  if (std::find(ids.begin(), ids.end(), uint16_t{0x0409}) == ids.end()) ids.push_back(0x0409);
  return ids;
}

} // namespace qvx
