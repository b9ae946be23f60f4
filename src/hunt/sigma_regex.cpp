#include "hunt/sigma_regex.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cctype>
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
  FLiteral = RequiredRegexLiteral(APattern, ACaseless);
}

TSigmaRegex::~TSigmaRegex() = default;

namespace {

// Reading a pattern for RequiredRegexLiteral: false when it holds what the reader does
// not know (the caller then gives no literal).
class TPatternReader {
public:
  TPatternReader(std::string_view APattern, bool ACaseless) : FText(APattern), FCaseless(ACaseless) {}

  bool Read(std::string& ABest) {
    if (FText.starts_with("(*")) return false; // (*UTF), (*CR), ... change how the rest reads
    std::string run;
    auto close = [&] {
      if (run.size() > ABest.size()) ABest = run;
      run.clear();
    };
    while (FAt < FText.size()) {
      const auto c = static_cast<unsigned char>(FText[FAt]);
      bool literal = false;
      char ch = 0;
      if (c == '\\') {
        if (FAt + 1 >= FText.size()) return false;
        const auto e = static_cast<unsigned char>(FText[FAt + 1]);
        if (e >= 0x80) return false;
        if (std::isalnum(e)) {
          // Escapes of one character class, anchor or control character: no run goes on.
          if (!std::strchr("dDsSwWbBAzZGhHvVRXKtnrfea", e)) return false;
        } else {
          literal = true;
          ch = static_cast<char>(e);
        }
        FAt += 2;
      } else if (c == '[') {
        if (!SkipClass()) return false;
      } else if (c == '(') {
        if (!SkipGroup()) return false;
      } else if (c == '.' || c == '^' || c == '$') {
        ++FAt;
      } else if (c >= 0x80) {
        ++FAt; // (a UTF-8 sequence: its other bytes end the run as well)
      } else if (c == '|' || c == ')' || c == '*' || c == '+' || c == '?' || c == '{' || c == '}' || c == ']') {
        return false; // an alternation, or a quantifier or brace where an atom should be
      } else {
        literal = true;
        ch = static_cast<char>(c);
        ++FAt;
      }
      int least = 1; // how many times the atom must be there
      if (!Quantifier(least)) return false;
      if (!literal) {
        close();
        continue;
      }
      const char folded = FoldChar(ch);
      if (least == 0 || (FCaseless && (folded == 'k' || folded == 's'))) {
        close();
        continue;
      }
      run.push_back(folded);
      if (least != 1 || FQuantified) close(); // repeated: what follows it is not next to this one
    }
    close();
    return true;
  }

private:
  static char FoldChar(char AChar) { return AChar >= 'A' && AChar <= 'Z' ? static_cast<char>(AChar + 32) : AChar; }

  // A quantifier after an atom (none: ALeast stays 1); false when one cannot be read.
  bool Quantifier(int& ALeast) {
    FQuantified = false;
    if (FAt >= FText.size()) return true;
    const char q = FText[FAt];
    if (q == '?' || q == '*') {
      ALeast = 0;
      ++FAt;
    } else if (q == '+') {
      ++FAt;
    } else if (q == '{') {
      // {n}, {n,}, {n,m}, {,m}; anything else is refused rather than guessed.
      size_t at = FAt + 1;
      const size_t digits = at;
      while (at < FText.size() && std::isdigit(static_cast<unsigned char>(FText[at]))) ++at;
      const bool least = at > digits;
      ALeast = least && FText.substr(digits, at - digits).find_first_not_of('0') != std::string_view::npos ? 2 : 0;
      if (at < FText.size() && FText[at] == ',') {
        ++at;
        const size_t most = at;
        while (at < FText.size() && std::isdigit(static_cast<unsigned char>(FText[at]))) ++at;
        if (!least && at == most) return false;
      } else if (!least) {
        return false;
      }
      if (at >= FText.size() || FText[at] != '}') return false;
      FAt = at + 1;
      if (ALeast == 2) ALeast = 1;
    } else {
      return true;
    }
    FQuantified = true;
    if (FAt < FText.size() && (FText[FAt] == '?' || FText[FAt] == '+')) ++FAt; // lazy, possessive
    return true;
  }

  // [...] from its '['.
  bool SkipClass() {
    size_t at = FAt + 1;
    if (at < FText.size() && FText[at] == '^') ++at;
    if (at < FText.size() && FText[at] == ']') ++at; // a ']' first is one of the class
    while (at < FText.size()) {
      const char c = FText[at];
      if (c == '\\') {
        if (at + 1 < FText.size() && FText[at + 1] == 'Q') return false;
        at += 2;
      } else if (c == '[' && at + 1 < FText.size() && FText[at + 1] == ':') {
        const size_t end = FText.find(":]", at + 2);
        if (end == std::string_view::npos) return false;
        at = end + 2;
      } else if (c == ']') {
        FAt = at + 1;
        return true;
      } else {
        ++at;
      }
    }
    return false;
  }

  // (...) from its '(', with the groups, classes and escapes in it; notes the flags it sets.
  bool SkipGroup() {
    int depth = 0;
    while (FAt < FText.size()) {
      const char c = FText[FAt];
      if (c == '\\') {
        if (FAt + 1 < FText.size() && FText[FAt + 1] == 'Q') return false;
        FAt += 2;
      } else if (c == '[') {
        if (!SkipClass()) return false;
      } else if (c == '(') {
        if (FText.substr(FAt).starts_with("(?#")) {
          const size_t end = FText.find(')', FAt);
          if (end == std::string_view::npos) return false;
          FAt = end + 1;
          continue;
        }
        if (FText.substr(FAt).starts_with("(*")) return false;
        if (FText.substr(FAt).starts_with("(?")) {
          // Option letters: (?i) (?-i) (?i: (?^x) ...; x changes how the pattern reads.
          size_t at = FAt + 2;
          while (at < FText.size() && (std::isalpha(static_cast<unsigned char>(FText[at])) || FText[at] == '-' ||
                                       FText[at] == '^')) {
            if (FText[at] == 'x') return false;
            if (FText[at] == 'i') FCaseless = true; // (set or unset: taken as set, the safe side)
            ++at;
          }
        }
        ++depth;
        ++FAt;
      } else if (c == ')') {
        ++FAt;
        if (--depth == 0) return true;
      } else {
        ++FAt;
      }
    }
    return false;
  }

  std::string_view FText;
  size_t FAt = 0;
  bool FCaseless;
  bool FQuantified = false; // the last atom had a quantifier
};

} // namespace

std::string RequiredRegexLiteral(std::string_view APattern, bool ACaseless) {
  // Flags set inside a group count for the whole pattern (read first, so a run before
  // them knows).
  bool caseless = ACaseless;
  for (size_t at = APattern.find("(?"); at != std::string_view::npos; at = APattern.find("(?", at + 2))
    for (size_t i = at + 2; i < APattern.size() && (std::isalpha(static_cast<unsigned char>(APattern[i])) ||
                                                    APattern[i] == '-' || APattern[i] == '^');
         ++i) {
      if (APattern[i] == 'x') return {};
      if (APattern[i] == 'i') caseless = true;
    }
  std::string best;
  TPatternReader reader(APattern, caseless);
  if (!reader.Read(best)) return {};
  return best;
}

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
