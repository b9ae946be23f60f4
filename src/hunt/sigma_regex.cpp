#include "hunt/sigma_regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace qvx::hunt {

struct TSigmaRegex::THandles {
  pcre2_code* Code = nullptr;
  pcre2_match_context* Context = nullptr;
  std::once_flag Jitted;
  bool Jit = false;
  uint64_t Serial = 0; // unique in the process (the answer memo's key: addresses are reused)
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

// The answers of this thread's last searches: events repeat their values (the same
// command lines, paths, users), and a pattern's answer for a text is always the same. A
// text is kept once it has been searched twice (as literal_index.h's scan memo does).
// Direct mapped by a hash of the pattern and the text; a slot keeps the text to compare,
// so a hash collision never gives another text's answer. Answers that reached a limit
// are not kept (they are counted every time).
class TAnswerMemo {
public:
  static constexpr size_t kSlots = 4096;
  static constexpr size_t kMinText = 16, kMaxText = 1024; // shorter are searched faster than looked up

  // The slot for (ASerial, AText), and whether it holds its answer.
  struct TSlot {
    uint64_t Hash = 0;
    uint64_t Serial = 0; // 0: empty
    bool Kept = false;   // Text and Matched are set (else the text was seen once)
    bool Matched = false;
    std::string Text;
  };
  TSlot& Find(uint64_t ASerial, std::string_view AText, uint64_t& AHash, bool& AKnown) {
    if (FSlots.empty()) [[unlikely]]
      FSlots.resize(kSlots);
    AHash = Hash(AText) ^ ASerial * 0xD6E8FEB86659FD93ull;
    TSlot& slot = FSlots[(AHash >> 40) % kSlots];
    AKnown = slot.Kept && slot.Serial == ASerial && slot.Hash == AHash && slot.Text == AText;
    return slot;
  }

private:
  // Of the length and at most the first and last 32 bytes (long texts that differ only
  // in the middle share a slot, and are told apart by their text).
  static uint64_t Hash(std::string_view AText) {
    uint64_t hash = AText.size() * 0x9E3779B97F4A7C15ull;
    auto mix = [&](const char* AAt) {
      uint64_t word;
      std::memcpy(&word, AAt, 8);
      hash = (hash ^ word) * 0xBF58476D1CE4E5B9ull;
      hash ^= hash >> 31;
    };
    // (AText holds at least kMinText = 16 bytes)
    const size_t head = std::min<size_t>(AText.size() / 8, 4);
    for (size_t i = 0; i < head; ++i) mix(AText.data() + i * 8);
    for (size_t i = 1; i <= head; ++i) mix(AText.data() + AText.size() - i * 8);
    hash *= 0x94D049BB133111EBull;
    return hash ^ hash >> 29;
  }
  std::vector<TSlot> FSlots;
};

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
  static std::atomic<uint64_t> serials{0};
  FHandles->Serial = ++serials;
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
  if (AText.size() < TAnswerMemo::kMinText || AText.size() > TAnswerMemo::kMaxText) return SearchNow(AText);
  thread_local TAnswerMemo memo;
  uint64_t hash = 0;
  bool known = false;
  TAnswerMemo::TSlot& slot = memo.Find(FHandles->Serial, AText, hash, known);
  if (known) return slot.Matched ? rxMatch : rxNoMatch;
  if (slot.Serial != FHandles->Serial || slot.Hash != hash || slot.Kept) {
    // Seen for the first time (or another text in its place): noted only, so a text
    // seen once costs a hash and not a copy.
    slot.Hash = hash;
    slot.Serial = FHandles->Serial;
    slot.Kept = false;
    return SearchNow(AText);
  }
  // The second time: kept with its answer.
  const TResult result = SearchNow(AText);
  if (result != rxLimit) {
    slot.Kept = true;
    slot.Matched = result == rxMatch;
    slot.Text.assign(AText);
  }
  return result;
}

TSigmaRegex::TResult TSigmaRegex::SearchNow(std::string_view AText) const {
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
