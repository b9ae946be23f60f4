// Loading rules: what cannot be used and why, hostile rules, the mapping file, and the
// real rule set with its regression data.
#include "hunt/hunt_fixture.h"

#include "app/demo_log.h"
#include "engine/event_log_binxml.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>

namespace qvx::test {
namespace {

using hunt::TRuleSet;

std::string ReasonOf(const std::string& ARule) {
  TRuleSet rules;
  rules.LoadText(ARule, "r.yml");
  EXPECT_EQ(rules.Unusable().size(), 1u);
  return rules.Unusable().empty() ? std::string() : rules.Unusable()[0].Reason;
}

// A hunter keeps the channel it looked up last: events of channels in turn (in either
// case) find what a hunter made for each event alone finds.
TEST(SigmaRuleSet, HunterFindsEachChannelsRulesAsChannelsChange) {
  TEvtxFileWriter writer;
  writer.AddEvent(ProcessEvent("C:\\x\\evil.exe", "evil"));
  writer.AddEvent(HuntEvent("System", 7045, {{"ServiceName", "svc"}}, "Service Control Manager"));
  writer.AddEvent(HuntEvent("SYSTEM", 7045, {{"ServiceName", "svc"}}, "Service Control Manager"));
  writer.AddEvent(ProcessEvent("C:\\x\\good.exe", "good"));
  writer.AddEvent(HuntEvent("Application", 7045, {{"ServiceName", "svc"}}, "Service Control Manager"));
  writer.AddEvent(HuntEvent("System", 7045, {{"ServiceName", "svc"}}, "Service Control Manager"));
  writer.AddEvent(ProcessEvent("C:\\x\\evil.exe", "evil again"));
  struct TEvent {
    std::string Channel, Xml;
    uint32_t Id = 0;
  };
  std::vector<TEvent> events;
  TEventLogBinXML source;
  source.SetBackupFileName(WriteTempFile("channel_memo.evtx", writer.Bytes()));
  source.SetActive(true);
  while (TEventItemBase* item = source.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) continue;
    const auto& x = static_cast<TEventItemX&>(*item);
    events.push_back({x.FChannel, x.FEvtXML, x.FEventID});
  }
  ASSERT_EQ(events.size(), 7u);
  TRuleSet rules;
  rules.LoadText(RuleText("  sel:\n    Image|endswith: '\\evil.exe'\n  condition: sel\n"), "evil.yml");
  rules.LoadText(RuleText("  sel:\n    EventID: 7045\n    ServiceName: svc\n  condition: sel\n",
                          "    product: windows\n    service: system\n"),
                 "svc.yml");
  hunt::THunter hunter(rules);
  std::vector<size_t> one, fresh;
  for (int round = 0; round < 2; ++round)
    for (const TEvent& event : events) {
      one.push_back(hunter.Test(event.Channel, event.Id, event.Xml).size());
      hunt::THunter alone(rules);
      fresh.push_back(alone.Test(event.Channel, event.Id, event.Xml).size());
    }
  EXPECT_EQ(one, fresh);
  EXPECT_EQ(std::count(fresh.begin(), fresh.end(), size_t{1}), 2 * 5); // all but good.exe and Application
}

TEST(SigmaUnusableRules, EachCauseIsNamedWithFileAndLine) {
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image|sideways: x\n  condition: sel\n")),
            "r.yml:11: unknown modifier 'sideways'");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: sel | count() > 5\n")),
            "r.yml:12: aggregations in the condition (correlations) are not supported");
  EXPECT_EQ(ReasonOf("title: c\ncorrelation:\n  type: event_count\n"), "r.yml:3: correlation rules are not supported");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: sel\n", "    product: windows\n    category: nope\n")),
            "r.yml: no Windows log holds the log source category 'nope'");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: sel\n", "    product: linux\n    category: process_creation\n")),
            "r.yml: the log source product 'linux' is not windows");
  EXPECT_EQ(ReasonOf("title: [unclosed\n"), "r.yml:2: YAML error: end of sequence flow not found");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: sel and other\n")),
            "r.yml:12: the condition names 'other', which is not a search of the rule");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image|re: '(unclosed'\n  condition: sel\n")),
            "r.yml:11: regular expression: missing closing parenthesis at offset 9");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: 2 of sel\n")),
            "r.yml:12: '2 of' is not supported (only '1 of' and 'all of')");
}

TEST(SigmaUnusableRules, OthersStillLoad) {
  TRuleSet rules;
  rules.LoadText(RuleText("  sel:\n    Image|sideways: x\n  condition: sel\n"), "bad.yml");
  rules.LoadText(RuleText("  sel:\n    Image: x\n  condition: sel\n"), "good.yml");
  EXPECT_EQ(rules.Rules().size(), 1u);
  EXPECT_EQ(rules.Unusable().size(), 1u);
}

TEST(SigmaHostileRules, DeepConditionNestingIsRefused) {
  std::string condition(5000, '(');
  condition += "sel" + std::string(5000, ')');
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: '" + condition + "'\n")),
            "r.yml:12: the condition nests deeper than 64 levels");
  std::string nots;
  for (int i = 0; i < 5000; ++i) nots += "not ";
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: x\n  condition: " + nots + "sel\n")),
            "r.yml:12: the condition nests deeper than 64 levels");
}

TEST(SigmaHostileRules, DeepYamlNestingIsRefusedBeforeParsing) {
  const std::string flow = RuleText("  sel:\n    Image: " + std::string(100000, '[') + "\n  condition: sel\n");
  EXPECT_EQ(ReasonOf(flow), "r.yml:11: nesting deeper than 64 levels");
  std::string block = "title: t\n";
  for (int i = 0; i < 200; ++i) block += std::string(static_cast<size_t>(i + 1), ' ') + "k:\n";
  EXPECT_EQ(ReasonOf(block), "r.yml:65: nesting deeper than 64 levels"); // title, then k at 64 indents
}

// Fuzzer findings: the YAML parser loops for ever on a ',' where a document expects its
// root node, so a document must open with a key before the parser sees it.
TEST(SigmaHostileRules, DocumentsThatDoNotOpenWithAKeyAreRefusedBeforeParsing) {
  const std::string reason = "a rule document must open with a key such as 'title:' at the start of a line";
  EXPECT_EQ(ReasonOf(","), "r.yml:1: " + reason);
  EXPECT_EQ(ReasonOf("'a',"), "r.yml:1: " + reason);
  EXPECT_EQ(ReasonOf("[a],b"), "r.yml:1: " + reason);
  EXPECT_EQ(ReasonOf("- a\n,"), "r.yml:1: " + reason);
  EXPECT_EQ(ReasonOf(" title: t\n,"), "r.yml:1: " + reason);
  EXPECT_EQ(ReasonOf("# a comment\n\ntitle: t\n---\n,"), "r.yml:5: " + reason);
  EXPECT_EQ(ReasonOf("title: t\n...\n,"), "r.yml:3: " + reason);
  EXPECT_EQ(ReasonOf("--- ,"), "r.yml:1: content after '---' on the same line");
  // A ',' inside the mapping is an ordinary error.
  EXPECT_NE(ReasonOf("title: t\n,x\n").find("YAML error"), std::string::npos);
  // Runs of directives between documents made it loop as well, filling memory with documents.
  const std::string directive = "YAML directives ('%' at the start of a line) are not used in rules";
  EXPECT_EQ(ReasonOf("title: one\n---\n%tier: m\nnull: s}(---\n%title: two\n"), "r.yml:3: " + directive);
  EXPECT_EQ(ReasonOf("%YAML 1.2\n---\ntitle: t\n"), "r.yml:1: " + directive);
}

// A NUL inside a flow scalar reached the same loop.
TEST(SigmaHostileRules, ControlCharactersAreRefusedBeforeParsing) {
  const std::string looping(",ti\0\0\0=\0\0\0\0*_creinm", 19);
  EXPECT_EQ(ReasonOf(looping), "r.yml:1: control character 0x00 is not allowed in YAML");
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    Image: \"a\x01\"\n  condition: sel\n")),
            "r.yml:11: control character 0x01 is not allowed in YAML");
  TRuleSet rules; // tab and CR stay allowed
  rules.LoadText(RuleText("  sel:\n    Image: 'a\tb'\r\n  condition: sel\n"), "r.yml");
  EXPECT_EQ(rules.Rules().size(), 1u);
}

TEST(SigmaHostileRules, AliasBombIsRefused) {
  std::string bomb = "a: &a [x, x, x, x, x, x, x, x, x, x]\n";
  for (char c = 'b'; c <= 'k'; ++c)
    bomb += std::string(1, c) + ": &" + c + " [*" + static_cast<char>(c - 1) + ", *" + static_cast<char>(c - 1) + ", *" +
            static_cast<char>(c - 1) + ", *" + static_cast<char>(c - 1) + ", *" + static_cast<char>(c - 1) + "]\n";
  const std::string reason = ReasonOf(bomb + "title: t\n");
  EXPECT_NE(reason.find("the document expands to more than 200000 nodes (aliases used over and over)"),
            std::string::npos)
      << reason;
}

// A list too long for the limit, without an alias, is refused for what it is.
TEST(SigmaHostileRules, HugeListWithoutAliasesIsRefusedForItsSize) {
  std::string list = "title: t\nlogsource: {product: windows}\ndetection:\n  sel:\n    CommandLine|contains:\n";
  for (int i = 0; i < 200'001; ++i) list += "      - v" + std::to_string(i) + "\n";
  const std::string reason = ReasonOf(list + "  condition: sel\n");
  EXPECT_NE(reason.find("the document holds more than 200000 nodes (values, lists and maps; a list that long is not "
                        "supported)"),
            std::string::npos)
      << reason;
  EXPECT_EQ(reason.find("alias"), std::string::npos) << reason;
}

TEST(SigmaHostileRules, HugeValueIsRefused) {
  const std::string big(10u << 20, 'A');
  EXPECT_EQ(ReasonOf(RuleText("  sel:\n    CommandLine|contains: '" + big + "'\n  condition: sel\n")),
            "r.yml:11: a value of 10485760 bytes (the limit is 1048576)");
}

TEST(SigmaHostileRules, CatastrophicRegexStopsAtItsLimit) {
  const std::string text = std::string(40, 'a') + "!";
  const auto start = std::chrono::steady_clock::now();
  const THuntOutcome outcome = Hunt({RuleText("  sel:\n    CommandLine|re: '^(a+)+$'\n  condition: sel\n")},
                                    {ProcessEvent("C:\\a.exe", text), ProcessEvent("C:\\a.exe", text)});
  EXPECT_TRUE(outcome.Records.empty());
  EXPECT_EQ(outcome.RegexLimitHits, 2u);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(SigmaHostileRules, ValuesAreNeverRun) {
  // A rule is data: a value that looks like a command is only compared.
  const std::filesystem::path marker = ScratchDir() / "ran";
  EXPECT_TRUE(Matches(RuleText("  sel:\n    CommandLine: 'touch " + marker.string() + "'\n  condition: sel\n"),
                      ProcessEvent("C:\\a.exe", "touch " + marker.string())));
  EXPECT_FALSE(std::filesystem::exists(marker));
}

TEST(SigmaMapping, BuiltInMappingReadsAndResolves) {
  const hunt::TLogMapping& mapping = hunt::TLogMapping::Windows();
  std::string reason;
  const auto process = mapping.Resolve("windows", "process_creation", "", reason);
  ASSERT_EQ(process.size(), 2u);
  EXPECT_EQ(process[0].Channel, "Microsoft-Windows-Sysmon/Operational");
  EXPECT_EQ(process[1].Channel, "Security");
  EXPECT_EQ(process[1].EventIds, std::set<uint32_t>{4688});
  const auto security = mapping.Resolve("windows", "", "security", reason);
  ASSERT_EQ(security.size(), 1u);
  EXPECT_TRUE(security[0].EventIds.empty());
  EXPECT_EQ(mapping.Resolve("windows", "", "", reason)[0].Channel, "*");
  EXPECT_TRUE(mapping.Resolve("windows", "", "nosuchservice", reason).empty());
  EXPECT_EQ(reason, "no Windows log is known for the log source service 'nosuchservice'");
}

TEST(SigmaMapping, BadMappingFileIsNamed) {
  EXPECT_THROW(hunt::TLogMapping::Parse("categories:\n  x: 5\n", "m.yml"), hunt::ESigmaError);
  try {
    hunt::TLogMapping::Parse("categories:\n  x:\n    - channel: A\n      event_ids: [abc]\n", "m.yml");
    FAIL();
  } catch (const hunt::ESigmaError& e) {
    EXPECT_STREQ(e.what(), "m.yml:4: not an event ID: abc");
  }
}

// ---- The real rule set ----------------------------------------------------------------------

const TRuleSet& WindowsRules() {
  static TRuleSet* rules = [] {
    auto* set = new TRuleSet;
    const auto dir = SigmaDir();
    if (!dir.empty()) {
      set->LoadPath((dir / "rules" / "windows").string());
      for (const char* extra : {"rules-emerging-threats", "rules-threat-hunting"})
        if (std::filesystem::is_directory(dir / extra)) set->LoadPath((dir / extra).string());
    }
    return set;
  }();
  return *rules;
}

TEST(SigmaRuleSet, EveryWindowsRuleLoadsOrSaysWhy) {
  if (SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  TRuleSet rules;
  const auto start = std::chrono::steady_clock::now();
  rules.LoadPath((SigmaDir() / "rules" / "windows").string());
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  size_t files = 0;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(SigmaDir() / "rules" / "windows"))
    files += entry.path().extension() == ".yml";
  std::map<std::string, int> reasons;
  for (const auto& unusable : rules.Unusable()) {
    EXPECT_FALSE(unusable.Reason.empty());
    reasons[unusable.Reason.substr(unusable.Reason.find(": ") + 2)]++;
  }
  std::printf("[ rules    ] %zu files: %zu rules usable, %zu not (%.2f s to load and compile)\n", files,
              rules.Rules().size(), rules.Unusable().size(), seconds);
  for (const auto& [reason, count] : reasons) std::printf("[ rules    ]   %4d  %s\n", count, reason.c_str());
  EXPECT_EQ(rules.Rules().size() + rules.Unusable().size(), files);
  EXPECT_LE(rules.Unusable().size(), 10u);
}

struct TRegressionCase {
  std::filesystem::path Folder;
  std::string RuleId;
  std::vector<std::pair<std::filesystem::path, int>> Logs; // log and its least match count
};

std::vector<TRegressionCase> RegressionCases() {
  std::vector<TRegressionCase> cases;
  const auto dir = SigmaDir();
  if (dir.empty() || !std::filesystem::is_directory(dir / "regression_data")) return cases;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(dir / "regression_data")) {
    if (entry.path().filename() != "info.yml") continue;
    const YAML::Node info = YAML::LoadFile(entry.path().string());
    TRegressionCase c;
    c.Folder = entry.path().parent_path();
    c.RuleId = info["rule_metadata"][0]["id"].as<std::string>();
    for (const auto& test : info["regression_tests_info"]) {
      const std::filesystem::path log = c.Folder / std::filesystem::path(test["path"].as<std::string>()).filename();
      c.Logs.emplace_back(log, test["match_count"] ? test["match_count"].as<int>() : 1);
    }
    cases.push_back(std::move(c));
  }
  std::sort(cases.begin(), cases.end(), [](const auto& A, const auto& B) { return A.Folder < B.Folder; });
  return cases;
}

TEST(SigmaRegression, EachRuleDetectsItsEvents) {
  const auto cases = RegressionCases();
  if (cases.empty()) GTEST_SKIP() << "no Sigma regression data beside the repository";
  const TRuleSet& rules = WindowsRules();
  std::map<std::string, const hunt::TSigmaRule*> byId;
  for (const auto& rule : rules.Rules()) byId[rule->Id] = rule.get();
  int checked = 0;
  for (const TRegressionCase& c : cases) {
    ASSERT_TRUE(byId.count(c.RuleId)) << c.Folder << ": rule " << c.RuleId << " not loaded";
    for (const auto& [log, least] : c.Logs) {
      const auto ids = HuntFile(rules, log);
      const auto count = std::count(ids.begin(), ids.end(), c.RuleId);
      EXPECT_GE(count, least) << log << ": " << byId[c.RuleId]->File;
      ++checked;
    }
  }
  std::printf("[ rules    ] %d regression logs, each detected by its rule\n", checked);
}

TEST(SigmaRegression, DemoLogFiresOnlyWhatItReallyHolds) {
  if (SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  const std::string path = WriteTempFile("demo.evtx", DemoLogBytes());
  std::map<std::string, int> fired;
  std::map<std::string, std::string> titles;
  for (const std::string& id : HuntFile(WindowsRules(), path)) fired[id]++;
  for (const auto& rule : WindowsRules().Rules()) titles[rule->Id] = rule->Title;
  // The demo log writes, among benign events, the traces these rules look for:
  const std::map<std::string, std::string> expected = {
      {"e593cf51-88db-4ee1-b920-37e89012a3c9", "rundll32 shell32.dll,Control_RunDLL (4688)"},
      {"f88e112a-21aa-44bd-9b01-6ee2a2bbbed1", "4625 from 185.220.101.x, a public address"},
      {"f4bbd493-b796-416e-bbf2-121235348529", "powershell.exe whose parent is not explorer.exe"},
      {"87e3c4e8-a6a8-4ad9-bb4f-46e7ff99a180", "powershell -ExecutionPolicy Bypass"},
      {"754ed792-634f-40ae-b3bc-e0448d33f695", "powershell.exe started by services.exe"},
      {"6c0a7755-6d31-44fa-80e1-133e57752680", "7036: Windows Defender Antivirus Service stopped"},
      {"96036718-71cc-4027-a538-d1587e0006a7", "svchost.exe started by explorer.exe (parents are drawn at random)"},
      {"01d2e2a1-5f09-44f7-9fc1-24faa7479b6d", "svchost.exe started by explorer.exe or cmd.exe"},
      {"502b42de-4306-40b4-9596-6f590c81f073", "whoami.exe (Sysmon 1)"},
      {"8de1cbe8-d6f5-496d-8237-5f44a721c7a0", "whoami.exe started by an unusual parent"},
      {"97a80ec7-0e2f-4d05-9ef4-65760e634f6b", "whoami /priv"},
      {"42c575ea-e41e-41f1-b248-8093c3e82a28", "7045 installs PSEXESVC"},
      {"d99b79d2-0a6f-4f46-ad8b-260b6e17f982", "1102: the Security log was cleared"},
  };
  for (const auto& [id, count] : fired)
    EXPECT_TRUE(expected.count(id)) << "unexpected: " << titles[id] << " (" << id << ") " << count << " times";
  for (const auto& [id, why] : expected) EXPECT_TRUE(fired.count(id)) << "expected: " << id << " " << why;
}

} // namespace
} // namespace qvx::test
