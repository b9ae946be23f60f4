// One compiled PCRE2 regular expression of a rule.
//
// The only holder of PCRE2 handles in the hunt library. The code is JIT-compiled when
// the library can, at the first search (most patterns of a rule set never see an event
// of their log source, and JIT compiling them all took a tenth of a rule set's load);
// matching reuses one match data block per thread and one match
// context (so a match allocates nothing once a thread has matched), and a thread keeps
// the answers of its recent texts (events repeat their values) and runs under match,
// depth and heap limits, so a pattern that would backtrack without end reports a failure
// instead of hanging. Several threads may match with one pattern at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace qvx::hunt {

class TSigmaRegex {
public:
  enum TResult { rxMatch, rxNoMatch, rxLimit };
  static constexpr uint32_t kMatchLimit = 1'000'000;
  static constexpr uint32_t kDepthLimit = 10'000;
  static constexpr uint32_t kHeapLimitKiB = 16 * 1024;

  // Compiles APattern (UTF-8 text, checked) with the flags of the re modifier:
  // ACaseless (i), AMultiline (m), ADotAll (s). Raises std::invalid_argument with
  // PCRE2's message and offset when it does not compile.
  TSigmaRegex(std::string_view APattern, bool ACaseless, bool AMultiline, bool ADotAll);
  ~TSigmaRegex();
  TSigmaRegex(const TSigmaRegex&) = delete;
  TSigmaRegex& operator=(const TSigmaRegex&) = delete;

  // Whether the pattern matches anywhere in AText. rxLimit when a limit was reached.
  // The answers of a thread's recent texts are kept (not those that reached a limit), so
  // a text seen again is answered without matching.
  TResult Search(std::string_view AText) const;
  // Whether the code is JIT-compiled (done here when not yet).
  bool IsJit() const;
  // A text every match holds, in ASCII lower case (RequiredRegexLiteral); "" when none is sure.
  const std::string& Literal() const { return FLiteral; }

private:
  TResult SearchNow(std::string_view AText) const;
  struct THandles;
  std::unique_ptr<THandles> FHandles;
  std::string FLiteral;
};

// The longest run of plain characters that every match of APattern holds, in ASCII lower
// case, so that a text without it (folded the same way) cannot match: the characters of
// the pattern's outermost sequence that stand for themselves and are not made optional,
// between the groups, classes, escapes and anchors that end a run. "" when no run is sure:
// an alternation outside groups, an escape or construct it does not know (\x, \Q, \p,
// back references, (*VERB), a quantifier it cannot read) or extended mode ((?x)).
// Caseless (ACaseless or (?i) anywhere), 'k' and 's' end a run: in UTF mode PCRE2 also
// matches them with the Kelvin sign U+212A and the long s U+017F, which ASCII folding
// does not; a non-ASCII character ends a run in every mode.
std::string RequiredRegexLiteral(std::string_view APattern, bool ACaseless);

} // namespace qvx::hunt
