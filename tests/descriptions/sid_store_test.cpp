#include "descriptions/sid_store.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace qvx {
namespace {

// A binary SID built field by field.
std::vector<uint8_t> MakeSid(uint64_t AAuthority, std::initializer_list<uint32_t> ASubAuthorities) {
  std::vector<uint8_t> sid;
  sid.push_back(1);                                            // revision
  sid.push_back(static_cast<uint8_t>(ASubAuthorities.size())); // subauthority count
  for (int shift = 40; shift >= 0; shift -= 8)                 // authority, big-endian
    sid.push_back(static_cast<uint8_t>(AAuthority >> shift));
  for (uint32_t value : ASubAuthorities) // subauthorities, little-endian
    for (int shift = 0; shift < 32; shift += 8)
      sid.push_back(static_cast<uint8_t>(value >> shift));
  return sid;
}

std::string Text(const std::vector<uint8_t>& ASid) {
  std::string text;
  return SidToText(ASid.data(), ASid.size(), text) ? text : "<invalid>";
}

// Replaces the system lookup for one test and counts its calls. The store is emptied
// so that accounts stored by earlier tests (or repeats) do not answer instead.
struct TFakeSystem {
  static inline int Calls = 0;
  static inline std::string LastComputer;
  static inline bool Success = true;
  static inline int Error = 0;
  static inline std::string Name, Domain;

  TFakeSystem() {
    Calls = 0;
    LastComputer.clear();
    Success = true;
    Error = 0;
    Name = "user";
    Domain = "DOMAIN";
    FPrevious = SetAccountResolver(&Resolve);
    TSidStore::Instance().Clear();
  }
  ~TFakeSystem() { SetAccountResolver(FPrevious); }

  static bool Resolve(const std::string& AComputer, const uint8_t*, size_t, std::string& AName,
                      std::string& ADomain, int& AError) {
    ++Calls;
    LastComputer = AComputer;
    if (!Success) {
      AError = Error;
      return false;
    }
    AName = Name;
    ADomain = Domain;
    return true;
  }

  TAccountResolver FPrevious;
};

TEST(SidText, BinaryLayoutAndRoundTrip) {
  std::vector<uint8_t> sid;
  ASSERT_TRUE(TextToSid("S-1-5-21-1-4294967295", sid));
  EXPECT_EQ(sid,
            (std::vector<uint8_t>{1, 3, 0, 0, 0, 0, 0, 5, 21, 0, 0, 0, 1, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}));
  for (const char* text : {"S-1-5-18", "S-1-1-0", "S-1-5", "S-1-5-21-3623811015-3361044348-30300820-1013",
                           "S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464",
                           "S-1-9-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"}) {
    ASSERT_TRUE(TextToSid(text, sid)) << text;
    EXPECT_EQ(Text(sid), text);
  }
}

TEST(SidText, AuthorityFrom2Pow32IsWrittenInHex) {
  EXPECT_EQ(Text(MakeSid(0xFFFFFFFFull, {7})), "S-1-4294967295-7");
  EXPECT_EQ(Text(MakeSid(0x100000000ull, {7})), "S-1-0x000100000000-7");
  EXPECT_EQ(Text(MakeSid(0xABCDEF012345ull, {})), "S-1-0xABCDEF012345");
  std::vector<uint8_t> sid;
  ASSERT_TRUE(TextToSid("s-1-0xabcdef012345", sid));
  EXPECT_EQ(sid, MakeSid(0xABCDEF012345ull, {}));
}

TEST(SidText, MalformedBytesAreRejected) {
  std::string text = "stale";
  auto good = MakeSid(5, {21, 1});
  EXPECT_TRUE(SidToText(good.data(), good.size(), text));

  auto revision = good;
  revision[0] = 2;
  EXPECT_FALSE(SidToText(revision.data(), revision.size(), text));
  EXPECT_EQ(text, "");

  auto countTooHigh = good; // count says 3, two subauthorities follow
  countTooHigh[1] = 3;
  EXPECT_FALSE(SidToText(countTooHigh.data(), countTooHigh.size(), text));

  std::vector<uint8_t> sixteen = MakeSid(5, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15});
  sixteen[1] = 16;
  sixteen.insert(sixteen.end(), 4, 0);
  EXPECT_FALSE(SidToText(sixteen.data(), sixteen.size(), text));

  EXPECT_FALSE(SidToText(good.data(), good.size() - 1, text));
  auto trailing = good;
  trailing.push_back(0);
  EXPECT_FALSE(SidToText(trailing.data(), trailing.size(), text));
  EXPECT_FALSE(SidToText(good.data(), 7, text));
  EXPECT_FALSE(SidToText(nullptr, 0, text));
}

TEST(SidText, MalformedTextIsRejected) {
  std::vector<uint8_t> sid = {9};
  for (const char* text : {"", "S", "S-", "S-1", "X-1-5", "S-2-5", "S-1-5-", "S-1--5", "S-1-5-x", "S-1-5- 1",
                           "S-1-+5", "S-1-5--1", "S-1-5-4294967296", "S-1-281474976710656",
                           "S-1-0x1000000000000", "S-1-0x", "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"}) {
    EXPECT_FALSE(TextToSid(text, sid)) << text;
    EXPECT_TRUE(sid.empty()) << text;
  }
}

TEST(SidStoreOrder, ShorterFirstThenUnsignedBytes) {
  auto shortHigh = MakeSid(5, {0xFFFFFFFF});
  auto longLow = MakeSid(5, {0, 0});
  EXPECT_LT(CompareSid(shortHigh.data(), shortHigh.size(), longLow.data(), longLow.size()), 0);
  auto low = MakeSid(5, {0x7F});
  auto high = MakeSid(5, {0x80});
  EXPECT_LT(CompareSid(low.data(), low.size(), high.data(), high.size()), 0);
  EXPECT_GT(CompareSid(high.data(), high.size(), low.data(), low.size()), 0);
  EXPECT_EQ(CompareSid(high.data(), high.size(), high.data(), high.size()), 0);
  // The store orders any bytes it is given, SID or not.
  const uint8_t prefix[] = {0xFF, 2, 3}, longer[] = {0xFF, 2, 3, 0}, zeros[] = {0, 0};
  EXPECT_LT(CompareSid(prefix, 3, longer, 4), 0);
  EXPECT_LT(CompareSid(prefix, 1, zeros, 2), 0);
}

TEST(SidStoreOrder, PrefixSidIsNeverEqual) {
  auto domain = MakeSid(5, {21, 7001});
  auto user = MakeSid(5, {21, 7001, 500});
  EXPECT_NE(CompareSid(domain.data(), domain.size(), user.data(), user.size()), 0);
  TSidStore& store = TSidStore::Instance();
  store.Clear();
  store.Add(user.data(), user.size(), "Admin", "D7001");
  std::string name, domain_;
  EXPECT_FALSE(store.FindAccount(domain.data(), domain.size(), name, domain_));
  store.Add(domain.data(), domain.size(), "D7001", "D7001");
  ASSERT_TRUE(store.FindAccount(user.data(), user.size(), name, domain_));
  EXPECT_EQ(name, "Admin");
  ASSERT_TRUE(store.FindAccount(domain.data(), domain.size(), name, domain_));
  EXPECT_EQ(name, "D7001");
}

TEST(SidStore, FindsEverySidAddedInAnyOrder) {
  TSidStore& store = TSidStore::Instance();
  std::vector<std::vector<uint8_t>> sids;
  for (uint32_t rid : {0x80u, 0x7Fu, 0xFFFFFFFFu, 0u, 0x100u})
    for (auto sid : {MakeSid(5, {21, 7002, rid}), MakeSid(5, {21, 7002, rid, 1})})
      sids.push_back(sid);
  for (size_t i = 0; i < sids.size(); ++i)
    store.Add(sids[i].data(), sids[i].size(), std::to_string(i), "D7002");
  for (size_t i = 0; i < sids.size(); ++i) {
    std::string name, domain;
    ASSERT_TRUE(store.FindAccount(sids[i].data(), sids[i].size(), name, domain)) << i;
    EXPECT_EQ(name, std::to_string(i));
  }
}

TEST(SidStore, FindSidComparesAccountWithoutCase) {
  TSidStore& store = TSidStore::Instance();
  auto alice = MakeSid(5, {21, 7003, 1001});
  auto bob = MakeSid(5, {21, 7003, 1002});
  store.Add(alice.data(), alice.size(), "Alice", "CONTOSO7003");
  store.Add(bob.data(), bob.size(), "Bob", "CONTOSO7003");
  std::vector<uint8_t> sid;
  ASSERT_TRUE(store.FindSid("contoso7003", "ALICE", sid));
  EXPECT_EQ(sid, alice);
  ASSERT_TRUE(store.FindSid("Contoso7003", "bob", sid));
  EXPECT_EQ(sid, bob);
  EXPECT_FALSE(store.FindSid("CONTOSO700", "3\\Alice", sid));
  EXPECT_FALSE(store.FindSid("", "Alice", sid));
}

TEST(SidLookup, StoreIsSharedAcrossComputers) {
  TFakeSystem system;
  auto sid = MakeSid(5, {21, 7004, 1001});
  std::string name, domain;
  ASSERT_TRUE(LookupAccountBySid("HOST-A", sid.data(), sid.size(), name, domain));
  EXPECT_EQ(system.LastComputer, "HOST-A");
  system.Name = "changed";
  int error = -1;
  ASSERT_TRUE(LookupAccountBySid("HOST-B", sid.data(), sid.size(), name, domain, &error));
  EXPECT_EQ(system.Calls, 1);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(name, "user");
  EXPECT_EQ(domain, "DOMAIN");
}

TEST(SidLookup, AddedAccountsAreFoundBeforeTheSystem) {
  TFakeSystem system;
  auto sid = MakeSid(5, {21, 7005, 1001});
  TSidStore::Instance().Add(sid.data(), sid.size(), "imaged", "IMAGE");
  std::string name, domain;
  ASSERT_TRUE(LookupAccountBySid("", sid.data(), sid.size(), name, domain));
  EXPECT_EQ(system.Calls, 0);
  EXPECT_EQ(name, "imaged");
  EXPECT_EQ(domain, "IMAGE");
}

TEST(SidLookup, UnmappedSidGivesItsTextAndIsAskedAgain) {
  TFakeSystem system;
  system.Success = false;
  system.Error = kErrorNoneMapped;
  auto sid = MakeSid(5, {21, 7006, 1001});
  for (int round = 1; round <= 2; ++round) {
    std::string name = "x", domain = "y";
    int error = 0;
    ASSERT_TRUE(LookupAccountBySid("", sid.data(), sid.size(), name, domain, &error));
    EXPECT_EQ(name, "S-1-5-21-7006-1001");
    EXPECT_EQ(domain, "");
    EXPECT_EQ(error, kErrorNoneMapped);
    EXPECT_EQ(system.Calls, round);
  }
  std::string name, domain;
  EXPECT_FALSE(TSidStore::Instance().FindAccount(sid.data(), sid.size(), name, domain));
}

TEST(SidLookup, OtherFailuresGiveTheSystemError) {
  TFakeSystem system;
  system.Success = false;
  system.Error = 1722; // RPC server unavailable
  auto sid = MakeSid(5, {21, 7007, 1001});
  std::string name = "x", domain = "y";
  int error = 0;
  EXPECT_FALSE(LookupAccountBySid("GONE", sid.data(), sid.size(), name, domain, &error));
  EXPECT_EQ(error, 1722);
  EXPECT_EQ(name, "");
  EXPECT_EQ(domain, "");
  EXPECT_FALSE(TSidStore::Instance().FindAccount(sid.data(), sid.size(), name, domain));
}

TEST(SidLookup, MalformedSidNeverReachesTheSystem) {
  TFakeSystem system;
  auto sid = MakeSid(5, {21, 7008});
  std::string name, domain;
  int error = 0;
  EXPECT_FALSE(LookupAccountBySid("", sid.data(), sid.size() - 1, name, domain, &error));
  EXPECT_EQ(error, kErrorInvalidSid);
  EXPECT_EQ(system.Calls, 0);
}

TEST(SidLookup, NamesAreCutTo128Utf16Units) {
  TFakeSystem system;
  std::string eAcute;
  for (int i = 0; i < 200; ++i)
    eAcute += "\xC3\xA9"; // one unit each
  system.Name = eAcute;
  system.Domain = std::string(127, 'b') + "\xF0\x9F\x98\x80"; // the emoji takes units 128 and 129
  auto sid = MakeSid(5, {21, 7009, 1001});
  std::string name, domain;
  ASSERT_TRUE(LookupAccountBySid("", sid.data(), sid.size(), name, domain));
  EXPECT_EQ(name, eAcute.substr(0, 256));
  EXPECT_EQ(domain, std::string(127, 'b'));
  ASSERT_TRUE(TSidStore::Instance().FindAccount(sid.data(), sid.size(), name, domain));
  EXPECT_EQ(name, eAcute.substr(0, 256));
}

TEST(SidLookup, LocalSystemLosesItsDomain) {
  TFakeSystem system;
  system.Name = "SYSTEM";
  system.Domain = "NT AUTHORITY";
  auto sid = MakeSid(5, {18});
  std::string name, domain = "x";
  ASSERT_TRUE(LookupAccountBySid("", sid.data(), sid.size(), name, domain));
  EXPECT_EQ(system.Calls, 1);
  EXPECT_EQ(name, "SYSTEM");
  EXPECT_EQ(domain, "");
}

TEST(SidLookup, WellKnownSidsAnswerAsWindows) {
  struct TCase {
    const char* Sid;
    const char* Name;
    const char* Domain;
  };
  for (const TCase& c : {TCase{"S-1-1-0", "Everyone", ""}, TCase{"S-1-5-19", "LOCAL SERVICE", "NT AUTHORITY"},
                         TCase{"S-1-5-32-544", "Administrators", "BUILTIN"},
                         TCase{"S-1-5-32-573", "Event Log Readers", "BUILTIN"},
                         TCase{"S-1-5-80-0", "ALL SERVICES", "NT SERVICE"},
                         TCase{"S-1-16-12288", "High Mandatory Level", "Mandatory Label"}}) {
    std::vector<uint8_t> sid;
    ASSERT_TRUE(TextToSid(c.Sid, sid));
    std::string name, domain;
    ASSERT_TRUE(LookupAccountBySid("", sid.data(), sid.size(), name, domain)) << c.Sid;
    EXPECT_EQ(name, c.Name);
    EXPECT_EQ(domain, c.Domain);
  }
}

} // namespace
} // namespace qvx
