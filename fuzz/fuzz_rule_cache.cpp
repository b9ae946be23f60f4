// Fuzz target: one entry of the rule cache (a parsed rule file as hunt/rule_cache.h
// stores it) read back, and the rules of the documents it holds compiled; and the same
// bytes read as an entry's verdicts.
//
// The cache lives in the user's folder and is untrusted: an entry either reads back
// whole, encodes to the very same bytes and compiles (or is named unusable), or is
// refused; nothing may crash, hang or reserve memory its bytes do not pay for.
#include "hunt/rule_cache.h"
#include "hunt/sigma_rule.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* AData, size_t ASize) {
  const std::string_view bytes(reinterpret_cast<const char*>(AData), ASize);
  std::vector<qvx::hunt::TRuleVerdict> verdicts;
  qvx::hunt::TRuleCache::DecodeVerdicts(bytes, "fuzz.yml", verdicts);
  qvx::hunt::TParsedRuleFile parsed;
  if (!qvx::hunt::TRuleCache::Decode(bytes, parsed)) return 0;
  std::string again;
  qvx::hunt::TRuleCache::Encode(parsed, again);
  // Lines are kept to 31 bits and every length is exact: what reads back writes back.
  if (again.size() != bytes.size()) std::abort();
  for (const qvx::hunt::TYamlNode& document : parsed.Documents) {
    try {
      qvx::hunt::CompileSigmaRule(document, "fuzz.yml");
    } catch (const qvx::hunt::ESigmaError&) {
    }
  }
  return 0;
}
