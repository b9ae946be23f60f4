#include "descriptions/sid_store.h"

#include "platform/byte_reader.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <mutex>

#ifdef _WIN32
#include <windows.h>
#endif

namespace qvx {

namespace {

constexpr size_t kSidHeaderSize = 8; // revision, count, 6-byte authority
constexpr size_t kMaxSubAuthorities = 15;
constexpr uint64_t kMaxAuthority = 0xFFFFFFFFFFFFull; // 48 bits
constexpr size_t kMaxAccountUnits = 128;              // UTF-16 code units kept of a name or a domain

#ifdef _WIN32
// The win32 thread model of mingw-w64 has no std::mutex.
class TStoreLock {
public:
  void lock() { AcquireSRWLockExclusive(&FLock); }
  void unlock() { ReleaseSRWLockExclusive(&FLock); }

private:
  SRWLOCK FLock = SRWLOCK_INIT;
};
#else
using TStoreLock = std::mutex;
#endif

unsigned char UpperAscii(char c) {
  return static_cast<unsigned char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
}

// By account: upper-cased domain, "\", upper-cased name, compared ordinally as one text.
int CompareAccount(std::string_view ADomainA, std::string_view ANameA, std::string_view ADomainB,
                   std::string_view ANameB) {
  auto at = [](std::string_view ADomain, std::string_view AName, size_t i) -> unsigned char {
    if (i < ADomain.size()) return UpperAscii(ADomain[i]);
    return i == ADomain.size() ? '\\' : UpperAscii(AName[i - ADomain.size() - 1]);
  };
  size_t lengthA = ADomainA.size() + 1 + ANameA.size(), lengthB = ADomainB.size() + 1 + ANameB.size();
  for (size_t i = 0; i < std::min(lengthA, lengthB); ++i) {
    unsigned char a = at(ADomainA, ANameA, i), b = at(ADomainB, ANameB, i);
    if (a != b) return a < b ? -1 : 1;
  }
  return lengthA == lengthB ? 0 : (lengthA < lengthB ? -1 : 1);
}

// Drops whole characters from the end until the text takes at most AMax UTF-16 code
// units. A surrogate pair that would straddle the limit goes entirely.
void CutToUtf16Units(std::string& AText, size_t AMax) {
  size_t units = 0;
  for (size_t i = 0; i < AText.size();) {
    auto lead = static_cast<unsigned char>(AText[i]);
    size_t bytes = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    size_t need = bytes == 4 ? 2 : 1;
    if (units + need > AMax) {
      AText.resize(i);
      return;
    }
    units += need;
    i += bytes;
  }
}

bool IsLocalSystem(const uint8_t* ASid, size_t ALength) {
  static constexpr uint8_t kLocalSystem[] = {1, 1, 0, 0, 0, 0, 0, 5, 18, 0, 0, 0}; // S-1-5-18
  return CompareSid(ASid, ALength, kLocalSystem, sizeof kLocalSystem) == 0;
}

template <typename T> bool ParseNumber(std::string_view AText, int ABase, T& AValue) {
  if (AText.empty()) return false;
  auto [end, error] = std::from_chars(AText.data(), AText.data() + AText.size(), AValue, ABase);
  return error == std::errc() && end == AText.data() + AText.size();
}

std::atomic<TAccountResolver> GResolver{&SystemLookupAccountSid};

} // namespace

int CompareSid(const uint8_t* A, size_t ALength, const uint8_t* B, size_t BLength) {
  if (ALength != BLength) return ALength < BLength ? -1 : 1;
  return ALength == 0 ? 0 : std::memcmp(A, B, ALength); // memcmp compares unsigned bytes
}

bool IsWellFormedSid(const uint8_t* ASid, size_t ALength) {
  if (ASid == nullptr || ALength < kSidHeaderSize) return false;
  TByteReader reader(ASid, ALength);
  size_t count = reader.ReadU8(1);
  return reader.ReadU8(0) == 1 && count <= kMaxSubAuthorities && ALength == kSidHeaderSize + 4 * count;
}

bool SidToText(const uint8_t* ASid, size_t ALength, std::string& AText) {
  AText.clear();
  if (!IsWellFormedSid(ASid, ALength)) return false;
  TByteReader reader(ASid, ALength);
  uint64_t authority = 0;
  for (size_t i = 2; i < kSidHeaderSize; ++i)
    authority = authority << 8 | reader.ReadU8(i);
  char digits[24];
  auto append = [&](uint64_t AValue) {
    AText.push_back('-');
    AText.append(digits, std::to_chars(digits, digits + sizeof digits, AValue).ptr);
  };
  AText.append("S-1");
  if (authority >> 32) {
    AText.append("-0x");
    for (int shift = 44; shift >= 0; shift -= 4)
      AText.push_back("0123456789ABCDEF"[(authority >> shift) & 15]);
  } else {
    append(authority);
  }
  for (size_t i = 0, count = reader.ReadU8(1); i < count; ++i)
    append(reader.ReadU32(kSidHeaderSize + 4 * i));
  return true;
}

bool TextToSid(std::string_view AText, std::vector<uint8_t>& ASid) {
  ASid.clear();
  if (AText.size() < 2 || (AText[0] != 'S' && AText[0] != 's') || AText[1] != '-') return false;
  AText.remove_prefix(2);
  std::vector<std::string_view> parts;
  for (size_t start = 0;;) {
    size_t dash = AText.find('-', start);
    parts.push_back(AText.substr(start, dash == std::string_view::npos ? dash : dash - start));
    if (dash == std::string_view::npos) break;
    start = dash + 1;
  }
  uint8_t revision = 0;
  uint64_t authority = 0;
  if (parts.size() < 2 || parts.size() - 2 > kMaxSubAuthorities || !ParseNumber(parts[0], 10, revision) ||
      revision != 1)
    return false;
  std::string_view authorityText = parts[1];
  bool hex = authorityText.size() > 2 && authorityText[0] == '0' &&
             (authorityText[1] == 'x' || authorityText[1] == 'X');
  if (!ParseNumber(hex ? authorityText.substr(2) : authorityText, hex ? 16 : 10, authority) ||
      authority > kMaxAuthority)
    return false;
  ASid.assign(kSidHeaderSize, 0);
  ASid[0] = 1;
  ASid[1] = static_cast<uint8_t>(parts.size() - 2);
  for (size_t i = 0; i < 6; ++i)
    ASid[2 + i] = static_cast<uint8_t>(authority >> (8 * (5 - i)));
  for (size_t i = 2; i < parts.size(); ++i) {
    uint32_t value = 0;
    if (!ParseNumber(parts[i], 10, value)) {
      ASid.clear();
      return false;
    }
    for (int b = 0; b < 4; ++b)
      ASid.push_back(static_cast<uint8_t>(value >> (8 * b)));
  }
  return true;
}

// Both lists hold the same holders; BySid owns them.
struct TSidStore::TLists {
  TStoreLock Lock;
  std::vector<std::unique_ptr<TSidHolder>> BySid;
  std::vector<const TSidHolder*> ByAccount;
};

TSidStore::TSidStore() : FLists(std::make_unique<TLists>()) {}
TSidStore::~TSidStore() = default;

TSidStore& TSidStore::Instance() {
  static TSidStore store;
  return store;
}

void TSidStore::Add(const uint8_t* ASid, size_t ALength, std::string_view AName, std::string_view ADomain) {
  auto holder = std::make_unique<TSidHolder>(
      TSidHolder{std::vector<uint8_t>(ASid, ASid + ALength), std::string(AName), std::string(ADomain)});
  const TSidHolder* item = holder.get();
  std::lock_guard guard(FLists->Lock);
  auto& bySid = FLists->BySid;
  bySid.insert(std::upper_bound(bySid.begin(), bySid.end(), item,
                                [](const TSidHolder* A, const std::unique_ptr<TSidHolder>& B) {
                                  return CompareSid(A->Sid.data(), A->Sid.size(), B->Sid.data(),
                                                    B->Sid.size()) < 0;
                                }),
               std::move(holder));
  auto& byAccount = FLists->ByAccount;
  byAccount.insert(std::upper_bound(byAccount.begin(), byAccount.end(), item,
                                    [](const TSidHolder* A, const TSidHolder* B) {
                                      return CompareAccount(A->Domain, A->Name, B->Domain, B->Name) < 0;
                                    }),
                   item);
}

bool TSidStore::FindAccount(const uint8_t* ASid, size_t ALength, std::string& AName,
                            std::string& ADomain) const {
  std::lock_guard guard(FLists->Lock);
  const auto& bySid = FLists->BySid;
  auto it =
      std::lower_bound(bySid.begin(), bySid.end(), 0, [&](const std::unique_ptr<TSidHolder>& AItem, int) {
        return CompareSid(AItem->Sid.data(), AItem->Sid.size(), ASid, ALength) < 0;
      });
  if (it == bySid.end() || CompareSid((*it)->Sid.data(), (*it)->Sid.size(), ASid, ALength) != 0) return false;
  AName = (*it)->Name;
  ADomain = (*it)->Domain;
  return true;
}

bool TSidStore::FindSid(std::string_view ADomain, std::string_view AName, std::vector<uint8_t>& ASid) const {
  std::lock_guard guard(FLists->Lock);
  const auto& byAccount = FLists->ByAccount;
  auto it = std::lower_bound(byAccount.begin(), byAccount.end(), 0, [&](const TSidHolder* AItem, int) {
    return CompareAccount(AItem->Domain, AItem->Name, ADomain, AName) < 0;
  });
  if (it == byAccount.end() || CompareAccount((*it)->Domain, (*it)->Name, ADomain, AName) != 0) return false;
  ASid = (*it)->Sid;
  return true;
}

void TSidStore::Clear() {
  std::lock_guard guard(FLists->Lock);
  FLists->ByAccount.clear();
  FLists->BySid.clear();
}

TAccountResolver SetAccountResolver(TAccountResolver AResolver) {
  return GResolver.exchange(AResolver);
}

bool LookupAccountBySid(const std::string& AComputer, const uint8_t* ASid, size_t ALength, std::string& AName,
                        std::string& ADomain, int* AError) {
  auto result = [AError](int ACode, bool ASuccess) {
    if (AError) *AError = ACode;
    return ASuccess;
  };
  AName.clear();
  ADomain.clear();
  if (!IsWellFormedSid(ASid, ALength)) return result(kErrorInvalidSid, false);
  if (TSidStore::Instance().FindAccount(ASid, ALength, AName, ADomain)) return result(0, true);
  // The system is asked outside the store's lock: two threads may resolve and add the
  // same SID, and either holder answers later lookups.
  int error = 0;
  if (GResolver.load()(AComputer, ASid, ALength, AName, ADomain, error)) {
    CutToUtf16Units(AName, kMaxAccountUnits);
    CutToUtf16Units(ADomain, kMaxAccountUnits);
    if (IsLocalSystem(ASid, ALength)) ADomain.clear(); // shown as "\SYSTEM", without "NT AUTHORITY"
    TSidStore::Instance().Add(ASid, ALength, AName, ADomain);
    return result(0, true);
  }
  AName.clear();
  ADomain.clear();
  // A deleted account: show the SID, and ask again next time.
  if (error == kErrorNoneMapped) return result(error, SidToText(ASid, ALength, AName));
  return result(error, false);
}

#ifndef _WIN32
namespace {

struct TWellKnownAccount {
  const char* Sid;
  const char* Name;
  const char* Domain;
};

// The names Windows gives the SIDs that mean the same on every computer.
constexpr TWellKnownAccount kWellKnownAccounts[] = {
    {"S-1-1-0", "Everyone", ""},
    {"S-1-2-0", "LOCAL", ""},
    {"S-1-3-0", "CREATOR OWNER", ""},
    {"S-1-3-1", "CREATOR GROUP", ""},
    {"S-1-5-1", "DIALUP", "NT AUTHORITY"},
    {"S-1-5-2", "NETWORK", "NT AUTHORITY"},
    {"S-1-5-3", "BATCH", "NT AUTHORITY"},
    {"S-1-5-4", "INTERACTIVE", "NT AUTHORITY"},
    {"S-1-5-6", "SERVICE", "NT AUTHORITY"},
    {"S-1-5-7", "ANONYMOUS LOGON", "NT AUTHORITY"},
    {"S-1-5-9", "ENTERPRISE DOMAIN CONTROLLERS", "NT AUTHORITY"},
    {"S-1-5-10", "SELF", "NT AUTHORITY"},
    {"S-1-5-11", "Authenticated Users", "NT AUTHORITY"},
    {"S-1-5-12", "RESTRICTED", "NT AUTHORITY"},
    {"S-1-5-13", "TERMINAL SERVER USER", "NT AUTHORITY"},
    {"S-1-5-14", "REMOTE INTERACTIVE LOGON", "NT AUTHORITY"},
    {"S-1-5-15", "This Organization", "NT AUTHORITY"},
    {"S-1-5-17", "IUSR", "NT AUTHORITY"},
    {"S-1-5-18", "SYSTEM", "NT AUTHORITY"},
    {"S-1-5-19", "LOCAL SERVICE", "NT AUTHORITY"},
    {"S-1-5-20", "NETWORK SERVICE", "NT AUTHORITY"},
    {"S-1-5-32-544", "Administrators", "BUILTIN"},
    {"S-1-5-32-545", "Users", "BUILTIN"},
    {"S-1-5-32-546", "Guests", "BUILTIN"},
    {"S-1-5-32-547", "Power Users", "BUILTIN"},
    {"S-1-5-32-548", "Account Operators", "BUILTIN"},
    {"S-1-5-32-549", "Server Operators", "BUILTIN"},
    {"S-1-5-32-550", "Print Operators", "BUILTIN"},
    {"S-1-5-32-551", "Backup Operators", "BUILTIN"},
    {"S-1-5-32-552", "Replicator", "BUILTIN"},
    {"S-1-5-32-554", "Pre-Windows 2000 Compatible Access", "BUILTIN"},
    {"S-1-5-32-555", "Remote Desktop Users", "BUILTIN"},
    {"S-1-5-32-556", "Network Configuration Operators", "BUILTIN"},
    {"S-1-5-32-558", "Performance Monitor Users", "BUILTIN"},
    {"S-1-5-32-559", "Performance Log Users", "BUILTIN"},
    {"S-1-5-32-562", "Distributed COM Users", "BUILTIN"},
    {"S-1-5-32-568", "IIS_IUSRS", "BUILTIN"},
    {"S-1-5-32-569", "Cryptographic Operators", "BUILTIN"},
    {"S-1-5-32-573", "Event Log Readers", "BUILTIN"},
    {"S-1-5-32-574", "Certificate Service DCOM Access", "BUILTIN"},
    {"S-1-5-32-575", "RDS Remote Access Servers", "BUILTIN"},
    {"S-1-5-32-576", "RDS Endpoint Servers", "BUILTIN"},
    {"S-1-5-32-577", "RDS Management Servers", "BUILTIN"},
    {"S-1-5-32-578", "Hyper-V Administrators", "BUILTIN"},
    {"S-1-5-32-579", "Access Control Assistance Operators", "BUILTIN"},
    {"S-1-5-32-580", "Remote Management Users", "BUILTIN"},
    {"S-1-5-64-10", "NTLM Authentication", "NT AUTHORITY"},
    {"S-1-5-64-14", "SChannel Authentication", "NT AUTHORITY"},
    {"S-1-5-64-21", "Digest Authentication", "NT AUTHORITY"},
    {"S-1-5-80-0", "ALL SERVICES", "NT SERVICE"},
    {"S-1-5-90-0", "Window Manager Group", "Window Manager"},
    {"S-1-5-113", "Local account", "NT AUTHORITY"},
    {"S-1-5-114", "Local account and member of Administrators group", "NT AUTHORITY"},
    {"S-1-16-4096", "Low Mandatory Level", "Mandatory Label"},
    {"S-1-16-8192", "Medium Mandatory Level", "Mandatory Label"},
    {"S-1-16-8448", "Medium Plus Mandatory Level", "Mandatory Label"},
    {"S-1-16-12288", "High Mandatory Level", "Mandatory Label"},
    {"S-1-16-16384", "System Mandatory Level", "Mandatory Label"},
    {"S-1-16-20480", "Protected Process Mandatory Level", "Mandatory Label"},
};

} // namespace

// No account database here: the computer name is not used, and accounts of an imaged
// computer reach the store through TSidStore::Add.
bool SystemLookupAccountSid(const std::string&, const uint8_t* ASid, size_t ALength, std::string& AName,
                            std::string& ADomain, int& AError) {
  std::string text;
  if (!SidToText(ASid, ALength, text)) {
    AError = kErrorInvalidSid;
    return false;
  }
  for (const TWellKnownAccount& account : kWellKnownAccounts) {
    if (text == account.Sid) {
      AName = account.Name;
      ADomain = account.Domain;
      return true;
    }
  }
  AError = kErrorNoneMapped;
  return false;
}
#endif

} // namespace qvx
