// Language names as Windows writes them ("en-US", "de-DE") and the language
// identifiers that resources are stored under (0x0409, 0x0407).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

// The identifier of a language name; 0 when the name is unknown.
uint16_t LanguageNameToId(std::string_view AName);

// The identifiers of ANames in order, unknown names left out, then en-US (0x0409) when it
// is not in the list yet: the order in which resources are chosen for a computer whose
// UI languages are ANames.
std::vector<uint16_t> LanguageIdsFor(const std::vector<std::string>& ANames);

} // namespace qvx
