#include "descriptions/description_caches.h"

#include "descriptions/sid_store.h"

#include <gtest/gtest.h>

namespace qvx {
namespace {

std::vector<uint8_t> Sid(const char* AText) {
  std::vector<uint8_t> sid;
  EXPECT_TRUE(TextToSid(AText, sid)) << AText;
  return sid;
}

// Replaces the system lookup for one test: every SID fails with AError.
struct TFailingSystem {
  static inline int Calls = 0;
  static inline int Error = 0;
  static inline std::string LastComputer;

  explicit TFailingSystem(int AError) {
    Calls = 0;
    Error = AError;
    FPrevious = SetAccountResolver(&Resolve);
  }
  ~TFailingSystem() { SetAccountResolver(FPrevious); }

  static bool Resolve(const std::string& AComputer, const uint8_t*, size_t, std::string&, std::string&,
                      int& AError) {
    ++Calls;
    LastComputer = AComputer;
    AError = Error;
    return false;
  }

  TAccountResolver FPrevious;
};

TEST(CategoryCache, KeyHasNoSeparator) {
  TCategoryCache cache;
  cache.Add("Disk", 31, "Disk thirty-one");
  // "Disk" + 31 and "Disk3" + 1 are the same key "Disk31".
  bool found = false;
  EXPECT_EQ(cache.GetCategoryName("Disk3", 1, found), "Disk thirty-one");
  EXPECT_TRUE(found);
  EXPECT_FALSE(cache.CategoryInCache("Disk", 3));
  cache.Add("Src", -1, "minus one");
  EXPECT_TRUE(cache.CategoryInCache("Src", -1));
  EXPECT_FALSE(cache.CategoryInCache("Src", 1));
}

TEST(CategoryCache, CaseInsensitiveFirstEntryWins) {
  TCategoryCache cache;
  cache.Add("Service Control Manager", 2, "first");
  cache.Add("SERVICE CONTROL MANAGER", 2, "second");
  bool found = false;
  EXPECT_EQ(cache.GetCategoryName("service control manager", 2, found), "first");
  EXPECT_TRUE(found);
  cache.Clear();
  EXPECT_EQ(cache.GetCategoryName("Service Control Manager", 2, found), "");
  EXPECT_FALSE(found);
}

TEST(EventDescriptionCache, KeyHasHashSeparatorAndAll32Bits) {
  TEventDescriptionCache cache;
  cache.AddDescription("Disk", 31, "Disk#31");
  EXPECT_FALSE(cache.DescriptionInCache("Disk3", 1)); // "Disk3#1" is another key
  cache.AddDescription("Disk", 0xB0000064u, "qualified");
  std::string_view text;
  EXPECT_FALSE(cache.GetDescription("Disk", 0x64, text));
  ASSERT_TRUE(cache.GetDescription("disk", 0xB0000064u, text));
  EXPECT_EQ(text, "qualified");
}

TEST(EventDescriptionCache, NotFoundEntryIsPermanentUntilClear) {
  TEventDescriptionCache cache;
  cache.AddDescription("App", 1000, kDescriptionNotFound);
  cache.AddDescription("APP", 1000, "installed later");
  std::string_view text;
  ASSERT_TRUE(cache.GetDescription("App", 1000, text));
  EXPECT_EQ(text, "*");
  cache.Clear();
  EXPECT_FALSE(cache.GetDescription("App", 1000, text));
  EXPECT_EQ(text, "");
}

TEST(SourcePropertiesCache, UnregisteredSourceIsRemembered) {
  TSourcePropertiesCache cache;
  const TSourceProperties* properties = nullptr;
  EXPECT_FALSE(cache.GetProperties("Ghost", properties));
  EXPECT_TRUE(cache.AddProperties("Ghost", std::nullopt));
  EXPECT_FALSE(cache.AddProperties("GHOST", TSourceProperties{"EventMessageFile=x.dll"}));
  EXPECT_TRUE(cache.GetProperties("ghost", properties));
  EXPECT_EQ(properties, nullptr);
}

TEST(SourcePropertiesCache, FirstRegistrationWinsAndValuesAreFoundByName) {
  TSourcePropertiesCache cache;
  EXPECT_TRUE(cache.AddProperties("Disk", TSourceProperties{"EventMessageFile=C:\\a.dll;C:\\b.dll",
                                                            "TypesSupported=7", "eventmessagefile=late.dll",
                                                            "ParameterMessageFile=p=q.dll"}));
  EXPECT_FALSE(cache.AddProperties("disk", std::nullopt));
  const TSourceProperties* properties = nullptr;
  ASSERT_TRUE(cache.GetProperties("DISK", properties));
  ASSERT_NE(properties, nullptr);
  EXPECT_EQ(PropertyValue(*properties, "EVENTMESSAGEFILE"), "C:\\a.dll;C:\\b.dll");
  EXPECT_EQ(PropertyValue(*properties, "ParameterMessageFile"), "p=q.dll");
  EXPECT_EQ(PropertyValue(*properties, "CategoryMessageFile"), "");
  cache.Clear();
  EXPECT_FALSE(cache.GetProperties("Disk", properties));
}

TEST(UserNameCache, LocalSystemHasOnlyABackslash) {
  TUserNameCache cache;
  auto sid = Sid("S-1-5-18");
  EXPECT_EQ(cache.AddUserName(sid.data(), sid.size()), "\\SYSTEM");
  std::string account;
  ASSERT_TRUE(cache.GetUserNameFromStrSID("s-1-5-18", account));
  EXPECT_EQ(account, "\\SYSTEM");
  EXPECT_EQ(cache.AddUserName("S-1-5-32-544"), "BUILTIN\\Administrators");
}

TEST(UserNameCache, UnmappedSidShowsItsText) {
  TUserNameCache cache;
  EXPECT_EQ(cache.AddUserName("s-1-5-21-1004336348-1177238915-682003330-1001"),
            "\\S-1-5-21-1004336348-1177238915-682003330-1001");
  std::string account;
  ASSERT_TRUE(cache.GetUserNameFromStrSID("S-1-5-21-1004336348-1177238915-682003330-1001", account));
}

TEST(UserNameCache, EmptyOrMalformedTextRecordsNothing) {
  TUserNameCache cache;
  EXPECT_EQ(cache.AddUserName(""), "N/A");
  EXPECT_EQ(cache.AddUserName("S-1-5-x"), "");
  std::string account;
  EXPECT_FALSE(cache.GetUserNameFromStrSID("", account));
  EXPECT_FALSE(cache.GetUserNameFromStrSID("S-1-5-x", account));
  std::vector<uint8_t> sid;
  EXPECT_FALSE(cache.GetSidFromUserName("N/A", sid));
}

TEST(UserNameCache, FailedLookupIsRecordedEmptyAndNotRepeated) {
  TFailingSystem system(1722);
  TUserNameCache cache("FILESERVER");
  auto sid = Sid("S-1-5-21-8001-1001");
  std::string account = "unchanged";
  EXPECT_FALSE(cache.GetUserName(sid.data(), sid.size(), account));
  EXPECT_EQ(cache.AddUserName(sid.data(), sid.size()), "");
  EXPECT_EQ(cache.AddUserName(sid.data(), sid.size()), "");
  EXPECT_EQ(system.Calls, 1);
  EXPECT_EQ(system.LastComputer, "FILESERVER");
  EXPECT_FALSE(cache.GetUserName(sid.data(), sid.size(), account));
  EXPECT_EQ(account, "unchanged");
}

TEST(UserNameCache, GivenAccountIsKeptOnlyWhenAbsent) {
  TUserNameCache cache;
  cache.AddUserName("S-1-5-21-8002-500", "CONTOSO\\Administrator");
  cache.AddUserName("S-1-5-21-8002-500", "CONTOSO\\Other");
  std::string account;
  ASSERT_TRUE(cache.GetUserNameFromStrSID("S-1-5-21-8002-500", account));
  EXPECT_EQ(account, "CONTOSO\\Administrator");
  auto sid = Sid("S-1-5-21-8002-500");
  ASSERT_TRUE(cache.GetUserName(sid.data(), sid.size(), account));
  EXPECT_EQ(cache.AddUserName(sid.data(), sid.size()), "CONTOSO\\Administrator");
  cache.Clear();
  EXPECT_FALSE(cache.GetUserName(sid.data(), sid.size(), account));
}

TEST(UserNameCache, ReverseSearchTakesFirstLineWithoutCase) {
  TUserNameCache cache;
  cache.AddUserName("S-1-5-21-8003-1001", "CONTOSO\\Admin");
  cache.AddUserName("S-1-5-21-8003-1000", "contoso\\ADMIN");
  cache.AddUserName("S-1-5-21-8003-1002", "N/A");
  std::vector<uint8_t> sid;
  ASSERT_TRUE(cache.GetSidFromUserName("Contoso\\admin", sid));
  EXPECT_EQ(sid, Sid("S-1-5-21-8003-1001"));
  EXPECT_FALSE(cache.GetSidFromUserName("N/A", sid));
  EXPECT_FALSE(cache.GetSidFromUserName("CONTOSO\\Nobody", sid));
}

TEST(UserNameCache, AssignToCopiesComputerAndLines) {
  TUserNameCache source("HOST");
  source.AddUserName("S-1-5-21-8004-1001", "HOST\\alice");
  TUserNameCache target("OTHER");
  target.AddUserName("S-1-5-21-8004-1002", "OTHER\\bob");
  source.AssignTo(target);
  EXPECT_EQ(target.Computer(), "HOST");
  std::string account;
  EXPECT_TRUE(target.GetUserNameFromStrSID("S-1-5-21-8004-1001", account));
  EXPECT_FALSE(target.GetUserNameFromStrSID("S-1-5-21-8004-1002", account));
  target.AddUserName("S-1-5-21-8004-1003", "HOST\\carol");
  EXPECT_FALSE(source.GetUserNameFromStrSID("S-1-5-21-8004-1003", account));
}

} // namespace
} // namespace qvx
