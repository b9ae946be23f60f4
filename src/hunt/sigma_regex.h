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

private:
  TResult SearchNow(std::string_view AText) const;
  struct THandles;
  std::unique_ptr<THandles> FHandles;
};

} // namespace qvx::hunt
