#include "descriptions/languages.h"

#include <unicode/uloc.h>

namespace qvx {

uint16_t LanguageNameToId(std::string_view AName) {
  if (AName.empty() || AName.size() > 64) return 0;
  std::string locale(AName);
  for (char& c : locale)
    if (c == '-') c = '_';
  // ICU knows the Windows identifiers of its locales (LCID = sort id << 16 | LANGID).
  const uint32_t lcid = uloc_getLCID(locale.c_str());
  return static_cast<uint16_t>(lcid & 0xFFFF);
}

} // namespace qvx
