// Security identifiers (SIDs): their text form, and the process-wide store of
// accounts already resolved.
//
// Binary SID, as events and hives carry it (untrusted bytes):
//   offset  size     field
//   0       1        revision, always 1
//   1       1        subauthority count N, at most 15
//   2       6        identifier authority, big-endian
//   8       4 * N    subauthorities, each u32 little-endian
// The byte length must be exactly 8 + 4 * N.
//
// Text form: "S-1-" authority, then "-" and each subauthority in decimal. An
// authority of 2^32 or more is written "0x" and 12 upper-case hex digits.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace qvx {

inline constexpr int kErrorNoneMapped = 1332; // no mapping between account names and SIDs
inline constexpr int kErrorInvalidSid = 1337; // the bytes are not a SID

// True when ALength bytes at ASid form one SID, with nothing before or after it.
bool IsWellFormedSid(const uint8_t* ASid, size_t ALength);

// The store's order: the shorter SID first, SIDs of one length by their bytes as
// unsigned values. Negative, zero or positive; 0 only for identical bytes.
int CompareSid(const uint8_t* A, size_t ALength, const uint8_t* B, size_t BLength);

// Writes the text form of the SID into AText. False, with AText empty, when the bytes
// are not a well-formed SID.
bool SidToText(const uint8_t* ASid, size_t ALength, std::string& AText);

// Parses "S-1-…" ("s" in either case; authority in decimal or "0x" hex, below 2^48;
// 0 to 15 subauthorities in decimal, each below 2^32) into ASid. False, with ASid
// empty, on anything else: other revisions, signs, blanks, empty or extra parts.
bool TextToSid(std::string_view AText, std::vector<uint8_t>& ASid);

// One resolved SID.
struct TSidHolder {
  std::vector<uint8_t> Sid;
  std::string Name;
  std::string Domain;
};

// Every account resolved in this process, shared by all computers and threads.
// It grows until Clear. All members take the store's lock.
class TSidStore {
public:
  static TSidStore& Instance();

  ~TSidStore();
  TSidStore(const TSidStore&) = delete;
  TSidStore& operator=(const TSidStore&) = delete;

  // Records the account; no duplicate check (a SID added twice is found either way).
  void Add(const uint8_t* ASid, size_t ALength, std::string_view AName, std::string_view ADomain);

  // The account stored for exactly these bytes; false when there is none.
  bool FindAccount(const uint8_t* ASid, size_t ALength, std::string& AName, std::string& ADomain) const;

  // The SID stored for the account, domain and name compared without regard to ASCII
  // case; false when there is none.
  bool FindSid(std::string_view ADomain, std::string_view AName, std::vector<uint8_t>& ASid) const;

  // Forgets every account; later lookups ask the system again.
  void Clear();

private:
  TSidStore();
  struct TLists;
  std::unique_ptr<TLists> FLists;
};

// Resolves the account of a SID, asking the store first. On a store miss asks the
// system on AComputer (empty: this computer); a success is cut to 128 UTF-16 code
// units per part, the domain of S-1-5-18 is cleared, and the account is stored.
// When the system knows no account for the SID (error 1332) the name is the SID's
// text, the domain empty, nothing is stored (so the next call asks again) and the
// result is true. Any other failure gives false. *AError receives 0 on success, 1332
// when the name is the SID text, otherwise the system's error code (1337 when the
// bytes are not a well-formed SID).
bool LookupAccountBySid(const std::string& AComputer, const uint8_t* ASid, size_t ALength, std::string& AName,
                        std::string& ADomain, int* AError = nullptr);

// The account lookup below the store: gives the name and domain as the system
// returns them, or false and the system's error code. It receives only well-formed
// SIDs.
using TAccountResolver = bool (*)(const std::string& AComputer, const uint8_t* ASid, size_t ALength,
                                  std::string& AName, std::string& ADomain, int& AError);

// LookupAccountSidW on Windows. Elsewhere a table of the well-known SIDs that answers
// as Windows does, and 1332 for every other SID.
bool SystemLookupAccountSid(const std::string& AComputer, const uint8_t* ASid, size_t ALength,
                            std::string& AName, std::string& ADomain, int& AError);

// Makes LookupAccountBySid use AResolver (tests replace the system); returns the one
// used before.
TAccountResolver SetAccountResolver(TAccountResolver AResolver);

} // namespace qvx
