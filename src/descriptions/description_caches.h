// The per-log-source caches that keep descriptions, categories, source registrations
// and account names from being looked up for every record.
//
// Keys compare without regard to ASCII case. The first entry for a key stays: later
// additions under the same key are ignored. Nothing is evicted; negative entries (a
// description not found, a source without registration, an account not resolved) are
// as permanent as the others, until Clear. The caches have no lock: one reader thread
// uses them at a time. Texts handed out as string_view stay valid until Clear or
// destruction. Lookups do not allocate once the cache's key buffer has grown.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qvx {

namespace detail {

inline char LowerAscii(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualsNoCase(std::string_view A, std::string_view B);

struct TNoCaseHash {
  using is_transparent = void;
  // Eight bytes a step, each with bit 5 set: keys equal but for ASCII case hash alike
  // (other bytes that differ only in that bit merely share a hash). Keys of a source name
  // and a number are hashed once per event, so this is on the reading path.
  size_t operator()(std::string_view AText) const noexcept {
    constexpr uint64_t kFold = 0x2020202020202020ull, kMul = 0x9E3779B97F4A7C15ull;
    uint64_t hash = 14695981039346656037ull ^ AText.size();
    size_t i = 0;
    for (; i + 8 <= AText.size(); i += 8) {
      uint64_t word;
      std::memcpy(&word, AText.data() + i, 8);
      hash = (hash ^ (word | kFold)) * kMul;
      hash ^= hash >> 29;
    }
    uint64_t tail = 0;
    for (unsigned shift = 0; i < AText.size(); ++i, shift += 8)
      tail |= static_cast<uint64_t>(static_cast<unsigned char>(AText[i]) | 0x20u) << shift;
    hash = (hash ^ tail) * kMul;
    return static_cast<size_t>(hash ^ (hash >> 32));
  }
};

struct TNoCaseEqual {
  using is_transparent = void;
  bool operator()(std::string_view A, std::string_view B) const noexcept { return EqualsNoCase(A, B); }
};

template <typename T> using TNoCaseMap = std::unordered_map<std::string, T, TNoCaseHash, TNoCaseEqual>;

} // namespace detail

// Category texts under the key source + category in signed decimal, no separator
// ("Disk" and 3 give "Disk3").
class TCategoryCache {
public:
  void Add(std::string_view ASource, int ACategory, std::string_view AName);
  bool CategoryInCache(std::string_view ASource, int ACategory) const;
  // The stored text, or empty with AFound false.
  std::string_view GetCategoryName(std::string_view ASource, int ACategory, bool& AFound) const;
  void Clear() { FItems.clear(); }

private:
  const std::string* Find(std::string_view ASource, int ACategory) const;

  detail::TNoCaseMap<std::string> FItems;
  mutable std::string FKey;
};

// The text stored for a description that was looked up and not found.
inline constexpr std::string_view kDescriptionNotFound = "*";

// Message templates under the key source + "#" + event id as unsigned decimal (all 32
// bits, qualifiers included).
class TEventDescriptionCache {
public:
  void AddDescription(std::string_view ASource, uint32_t AEventId, std::string_view AText);
  // True and the stored text (possibly kDescriptionNotFound) when the key exists.
  bool GetDescription(std::string_view ASource, uint32_t AEventId, std::string_view& AText) const;
  bool DescriptionInCache(std::string_view ASource, uint32_t AEventId) const;
  void Clear() { FItems.clear(); }

private:
  const std::string* Find(std::string_view ASource, uint32_t AEventId) const;

  detail::TNoCaseMap<std::string> FItems;
  mutable std::string FKey;
};

// A source's registration: "Name=Value" lines.
using TSourceProperties = std::vector<std::string>;

// The value of the first line whose name equals AName without regard to ASCII case;
// empty when there is none.
std::string PropertyValue(const TSourceProperties& AProperties, std::string_view AName);

// Source registrations under the source name as given; an entry without properties
// records a source that has no registration.
class TSourcePropertiesCache {
public:
  // Adds only when the source is absent; true when it added.
  bool AddProperties(std::string_view ASource, std::optional<TSourceProperties> AProperties);
  // True when the source is present; AProperties is then null for "no registration".
  bool GetProperties(std::string_view ASource, const TSourceProperties*& AProperties) const;
  void Clear() { FItems.clear(); }

private:
  detail::TNoCaseMap<std::optional<TSourceProperties>> FItems;
};

// SID text = account lines, in the order they were added. An account is domain + "\"
// + name (the backslash stays when the domain is empty), or empty when the lookup
// failed; an empty account is recorded too, so it is not looked up again.
class TUserNameCache {
public:
  // Accounts are looked up on AComputer; empty means this computer.
  explicit TUserNameCache(std::string AComputer = {}) : FComputer(std::move(AComputer)) {}

  // ATarget takes this cache's computer and a copy of its lines.
  void AssignTo(TUserNameCache& ATarget) const;

  // The account of the SID, looked up with LookupAccountBySid and recorded on a miss.
  // Empty when the bytes are not a SID. The reference stays valid until Clear.
  const std::string& AddUserName(const uint8_t* ASid, size_t ALength);
  // As above for the text form; "" gives "N/A" and records nothing, text that is not a
  // SID gives "".
  const std::string& AddUserName(std::string_view ASidText);
  // Records a known account under the SID text as given, unless the SID is present.
  void AddUserName(std::string_view ASidText, std::string_view AAccount);

  // Cache only: true and the account when a non-empty account is recorded.
  bool GetUserName(const uint8_t* ASid, size_t ALength, std::string& AAccount) const;
  bool GetUserNameFromStrSID(std::string_view ASidText, std::string& AAccount) const;

  // The SID of the first line, in the order added, whose account equals AAccount
  // without regard to ASCII case. "N/A" gives false.
  bool GetSidFromUserName(std::string_view AAccount, std::vector<uint8_t>& ASid) const;

  void Clear();
  void SetComputer(std::string AComputer) { FComputer = std::move(AComputer); }
  const std::string& Computer() const { return FComputer; }

private:
  struct TLine {
    std::string Sid;
    std::string Account;
  };

  std::string FComputer;
  std::deque<TLine> FLines;          // a deque keeps the references AddUserName returns
  detail::TNoCaseMap<size_t> FIndex; // SID text -> position in FLines
  mutable std::string FKey;
  std::vector<uint8_t> FSid;
};

} // namespace qvx
