#include "hunt/sigma_regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <mutex>
#include <stdexcept>

namespace qvx::hunt {

struct TSigmaRegex::THandles {
  pcre2_code* Code = nullptr;
  pcre2_match_context* Context = nullptr;
  std::once_flag Jitted;
  bool Jit = false;
  ~THandles() {
    pcre2_match_context_free(Context);
    pcre2_code_free(Code);
  }
};

namespace {

// The match data of this thread, shared by every pattern: one pair of offsets is all a
// search needs (a match with more groups than room still counts as a match), and the
// interpreter keeps its backtracking frames in it, so they are reused.
pcre2_match_data* ThreadMatchData() {
  struct THolder {
    pcre2_match_data* Data = pcre2_match_data_create(1, nullptr);
    ~THolder() { pcre2_match_data_free(Data); }
  };
  thread_local THolder holder;
  if (!holder.Data) throw std::bad_alloc();
  return holder.Data;
}

} // namespace

TSigmaRegex::TSigmaRegex(std::string_view APattern, bool ACaseless, bool AMultiline, bool ADotAll)
    : FHandles(std::make_unique<THandles>()) {
  // Event text is UTF-8 as the reader renders it; PCRE2_MATCH_INVALID_UTF keeps a stray
  // byte (from a damaged record) from failing the match.
  uint32_t options = PCRE2_UTF | PCRE2_MATCH_INVALID_UTF;
  if (ACaseless) options |= PCRE2_CASELESS;
  if (AMultiline) options |= PCRE2_MULTILINE;
  if (ADotAll) options |= PCRE2_DOTALL;
  int code = 0;
  PCRE2_SIZE offset = 0;
  FHandles->Code =
      pcre2_compile(reinterpret_cast<PCRE2_SPTR>(APattern.data()), APattern.size(), options, &code, &offset, nullptr);
  if (!FHandles->Code) {
    PCRE2_UCHAR buffer[256];
    pcre2_get_error_message(code, buffer, sizeof buffer);
    throw std::invalid_argument(std::string("regular expression: ") + reinterpret_cast<const char*>(buffer) +
                                " at offset " + std::to_string(offset));
  }
  FHandles->Context = pcre2_match_context_create(nullptr);
  if (!FHandles->Context) throw std::bad_alloc();
  pcre2_set_match_limit(FHandles->Context, kMatchLimit);
  pcre2_set_depth_limit(FHandles->Context, kDepthLimit);
  pcre2_set_heap_limit(FHandles->Context, kHeapLimitKiB);
}

TSigmaRegex::~TSigmaRegex() = default;

bool TSigmaRegex::IsJit() const {
  THandles& handles = *FHandles;
  std::call_once(handles.Jitted, [&] { handles.Jit = pcre2_jit_compile(handles.Code, PCRE2_JIT_COMPLETE) == 0; });
  return handles.Jit;
}

TSigmaRegex::TResult TSigmaRegex::Search(std::string_view AText) const {
  const auto subject = reinterpret_cast<PCRE2_SPTR>(AText.data());
  pcre2_match_data* data = ThreadMatchData();
  const bool jit = IsJit();
  int rc = jit ? pcre2_jit_match(FHandles->Code, subject, AText.size(), 0, 0, data, FHandles->Context)
                : pcre2_match(FHandles->Code, subject, AText.size(), 0, 0, data, FHandles->Context);
  // The JIT's own stack is small; the interpreter keeps its backtracking on the (limited) heap.
  if (jit && rc == PCRE2_ERROR_JIT_STACKLIMIT)
    rc = pcre2_match(FHandles->Code, subject, AText.size(), 0, PCRE2_NO_JIT, data, FHandles->Context);
  if (rc >= 0) return rxMatch;
  if (rc == PCRE2_ERROR_NOMATCH) return rxNoMatch;
  return rxLimit;
}

} // namespace qvx::hunt
