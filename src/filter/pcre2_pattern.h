// A compiled PCRE2 pattern (8-bit code units) that owns its code and frees it.
//
// The pattern is compiled once and JIT-compiled when the library supports it; matching
// is const and keeps no state between calls, so one pattern can serve several threads.
// Every match runs under a match limit and a depth limit, so a pattern that would
// backtrack without end on hostile text reports prError instead of hanging.
#pragma once

#ifndef PCRE2_CODE_UNIT_WIDTH
#define PCRE2_CODE_UNIT_WIDTH 8
#endif
#include <pcre2.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvx {

enum TPcre2Result { prMatch, prNoMatch, prError };

// Offsets of the whole match (group 0) and of every capturing group, in code units.
// A group that took no part in the match has npos for both ends.
struct TPcre2Match {
  std::vector<std::pair<size_t, size_t>> Groups;
  size_t Start(size_t AGroup = 0) const { return Groups[AGroup].first; }
  size_t End(size_t AGroup = 0) const { return Groups[AGroup].second; }
  bool Has(size_t AGroup) const {
    return AGroup < Groups.size() && Groups[AGroup].first != std::string::npos;
  }
  std::string_view Text(std::string_view ASubject, size_t AGroup = 0) const {
    return Has(AGroup) ? ASubject.substr(Start(AGroup), End(AGroup) - Start(AGroup)) : std::string_view();
  }
};

class TPcre2Pattern {
public:
  static constexpr uint32_t DefaultMatchLimit = 10'000'000;
  static constexpr uint32_t DefaultDepthLimit = 100'000;

  // AOptions are PCRE2 compile options (PCRE2_DOTALL, PCRE2_CASELESS...). A pattern
  // that does not compile leaves IsValid() false and the reason in ErrorMessage().
  explicit TPcre2Pattern(std::string_view APattern, uint32_t AOptions = 0) {
    int ErrorCode = 0;
    PCRE2_SIZE ErrorOffset = 0;
    FCode = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(APattern.data()), APattern.size(), AOptions,
                          &ErrorCode, &ErrorOffset, nullptr);
    if (!FCode) {
      PCRE2_UCHAR Buffer[256];
      pcre2_get_error_message(ErrorCode, Buffer, sizeof(Buffer));
      FErrorMessage = reinterpret_cast<const char*>(Buffer);
      FErrorMessage.append(" at offset ").append(std::to_string(ErrorOffset));
      return;
    }
    FJit = pcre2_jit_compile(FCode, PCRE2_JIT_COMPLETE) == 0;
  }
  ~TPcre2Pattern() {
    if (FCode) pcre2_code_free(FCode);
  }
  TPcre2Pattern(const TPcre2Pattern&) = delete;
  TPcre2Pattern& operator=(const TPcre2Pattern&) = delete;
  TPcre2Pattern(TPcre2Pattern&& AOther) noexcept
      : FCode(std::exchange(AOther.FCode, nullptr)), FJit(AOther.FJit),
        FErrorMessage(std::move(AOther.FErrorMessage)) {}
  TPcre2Pattern& operator=(TPcre2Pattern&& AOther) noexcept {
    if (this != &AOther) {
      if (FCode) pcre2_code_free(FCode);
      FCode = std::exchange(AOther.FCode, nullptr);
      FJit = AOther.FJit;
      FErrorMessage = std::move(AOther.FErrorMessage);
    }
    return *this;
  }

  bool IsValid() const { return FCode != nullptr; }
  bool IsJit() const { return FJit; }
  const std::string& ErrorMessage() const { return FErrorMessage; }

  // Looks for the first match that starts at or after AStart. prError covers an invalid
  // pattern, a start past the end and a match that hit its limits; AMatch is then empty.
  TPcre2Result Match(std::string_view ASubject, size_t AStart, TPcre2Match& AMatch,
                     uint32_t AMatchLimit = DefaultMatchLimit) const {
    AMatch.Groups.clear();
    if (!FCode || AStart > ASubject.size()) return prError;
    pcre2_match_data* Data = pcre2_match_data_create_from_pattern(FCode, nullptr);
    pcre2_match_context* Context = pcre2_match_context_create(nullptr);
    if (!Data || !Context) {
      pcre2_match_data_free(Data);
      pcre2_match_context_free(Context);
      return prError;
    }
    pcre2_set_match_limit(Context, AMatchLimit);
    pcre2_set_depth_limit(Context, DefaultDepthLimit);
    const auto Subject = reinterpret_cast<PCRE2_SPTR>(ASubject.data());
    int Rc = FJit ? pcre2_jit_match(FCode, Subject, ASubject.size(), AStart, 0, Data, Context)
                  : pcre2_match(FCode, Subject, ASubject.size(), AStart, 0, Data, Context);
    // The JIT stack is small by default; a long run of repeated groups can outgrow it,
    // and the interpreter, which keeps its backtracking on the heap, still copes.
    if (FJit && Rc == PCRE2_ERROR_JIT_STACKLIMIT)
      Rc = pcre2_match(FCode, Subject, ASubject.size(), AStart, PCRE2_NO_JIT, Data, Context);
    TPcre2Result Result = prError;
    if (Rc == PCRE2_ERROR_NOMATCH)
      Result = prNoMatch;
    else if (Rc > 0) {
      const PCRE2_SIZE* Vector = pcre2_get_ovector_pointer(Data);
      const uint32_t Pairs = pcre2_get_ovector_count(Data);
      AMatch.Groups.resize(Pairs);
      for (uint32_t I = 0; I < Pairs; ++I) {
        if (I < static_cast<uint32_t>(Rc) && Vector[2 * I] != PCRE2_UNSET)
          AMatch.Groups[I] = {Vector[2 * I], Vector[2 * I + 1]};
        else
          AMatch.Groups[I] = {std::string::npos, std::string::npos};
      }
      Result = prMatch;
    }
    pcre2_match_context_free(Context);
    pcre2_match_data_free(Data);
    return Result;
  }

  // Calls AVisit(match) for each match in turn, left to right, without overlaps; an
  // empty match moves one code unit on. Returns prError if a match hit its limits.
  template <typename TVisit> TPcre2Result MatchAll(std::string_view ASubject, TVisit&& AVisit) const {
    TPcre2Match Found;
    size_t Position = 0;
    while (Position <= ASubject.size()) {
      const TPcre2Result Rc = Match(ASubject, Position, Found);
      if (Rc == prNoMatch) return prNoMatch;
      if (Rc == prError) return prError;
      AVisit(static_cast<const TPcre2Match&>(Found));
      Position = Found.End() > Found.Start() ? Found.End() : Found.End() + 1;
    }
    return prNoMatch;
  }

private:
  pcre2_code* FCode = nullptr;
  bool FJit = false;
  std::string FErrorMessage;
};

} // namespace qvx
