// The literal index decides nothing by itself: for every event, the rules the hunter
// reports (reading literal hits, skipping rules whose literals are absent) are exactly
// those found by testing every candidate rule the plain way, value by value.
#include "hunt/hunt_fixture.h"

#include "app/demo_log.h"
#include "engine/event_log_binxml.h"
#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

namespace qvx::test {
namespace {

using hunt::TEventFields;
using hunt::TRuleSet;

// Every candidate binding tested without the index, in the hunter's order.
std::vector<const hunt::TSigmaRule*> Searched(const TRuleSet& ARules, TEventFields& AFields, const TEventItemX& AItem) {
  std::vector<const hunt::TSigmaRule*> out;
  std::string key;
  const TRuleSet::TCandidates candidates = ARules.Candidates(AItem.FChannel, AItem.FEventID, key);
  AFields.Load(AItem.FEvtXML);
  for (const hunt::TBindingList* list : candidates.Lists) {
    if (!list) continue;
    for (const hunt::TRuleBinding* binding : list->Bindings) {
      bool where = true;
      for (const auto& [field, values] : binding->Where) {
        bool found = false;
        for (int v = AFields.First(field); v != TEventFields::kNoValue && !found; v = AFields.Value(v).Next)
          found = std::find(values.begin(), values.end(), AFields.Lower(v)) != values.end();
        where = where && found;
      }
      if (where && hunt::MatchRule(*binding->Rule, binding->SlotFields.data(), AFields)) out.push_back(binding->Rule);
    }
  }
  return out;
}

// Hunts over AFile both ways; returns the number of detections (all equal).
size_t CompareOver(const TRuleSet& ARules, const std::filesystem::path& AFile) {
  TEventLogBinXML source;
  source.SetTimeShift(2, 0, "UTC");
  source.SetBackupFileName(AFile.string());
  source.SetActive(true);
  hunt::THunter hunter(ARules);
  TEventFields fields(ARules.FieldNames());
  size_t detections = 0;
  while (TEventItemBase* item = source.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) continue;
    auto& x = static_cast<TEventItemX&>(*item);
    std::vector<const hunt::TSigmaRule*> indexed;
    for (const hunt::TDetection& detection : hunter.Test(x.FChannel, x.FEventID, x.FEvtXML))
      indexed.push_back(detection.Rule);
    const std::vector<const hunt::TSigmaRule*> searched = Searched(ARules, fields, x);
    EXPECT_EQ(indexed, searched) << AFile << ": record " << x.FEventRecordID;
    detections += indexed.size();
  }
  return detections;
}

// Loads one process creation rule per detection block into ARules: the list of Sysmon
// event 1 that holds them all (null, with a failure, when one does not load).
const hunt::TBindingList* ProcessCreationList(TRuleSet& ARules, const std::vector<std::string>& ADetections) {
  for (size_t i = 0; i < ADetections.size(); ++i) ARules.LoadText(RuleText(ADetections[i]), std::to_string(i) + ".yml");
  if (!ARules.Unusable().empty()) {
    ADD_FAILURE() << ARules.Unusable()[0].Reason;
    return nullptr;
  }
  std::string key;
  const TRuleSet::TCandidates candidates = ARules.Candidates(kSysmonChannel, 1, key);
  for (const hunt::TBindingList* candidate : candidates.Lists)
    if (candidate && candidate->Bindings.size() == ADetections.size()) return candidate;
  ADD_FAILURE() << "no list holds the " << ADetections.size() << " rules";
  return nullptr;
}

TEST(HuntLiteralIndex, AnswersAsSearchingWould) {
  const std::vector<std::string> detections = {
      // short literals, the whole value, at either end, overlapping and nested literals
      "  sel:\n    CommandLine: a\n  condition: sel\n",
      "  sel:\n    CommandLine|startswith: ab\n  condition: sel\n",
      "  sel:\n    CommandLine|endswith:\n      - cmd.exe\n      - d.exe\n      - x\n  condition: sel\n",
      "  sel:\n    CommandLine|contains: aaa\n  condition: sel\n",
      "  sel:\n    CommandLine|contains|all:\n      - 'ab'\n      - 'abc'\n      - 'zz'\n  condition: sel\n",
      "  sel:\n    Image|endswith: '\\cmd.exe'\n  filter:\n    CommandLine|contains: ' /c '\n"
      "  condition: sel and not filter\n",
      // case: folded by default, kept with cased
      "  sel:\n    CommandLine|contains|cased: ABC\n  condition: sel\n",
      "  sel:\n    Image: 'C:\\Windows\\System32\\CMD.EXE'\n  condition: sel\n",
      // wildcard patterns with '?' and '*'
      "  sel:\n    Image: 'C:\\W?ndows\\*\\c?d.exe'\n  condition: sel\n",
      "  sel:\n    CommandLine: '*a?c*zz*'\n  condition: sel\n",
      // keywords over every value, alone and with fields
      "  keywords:\n    - 'evil'\n    - 'ab'\n  condition: keywords\n",
      "  keywords:\n    - 'Cmd.Exe'\n  sel:\n    CommandLine|contains: 'c'\n  condition: keywords and sel\n",
      // non-ASCII text, encodings, regular expressions beside literals, null and exists
      "  sel:\n    CommandLine|contains: 'р'\n  condition: sel\n",
      "  sel:\n    CommandLine|contains: 'Р'\n  condition: sel\n",
      "  sel:\n    CommandLine|endswith: 'ÄBC'\n  condition: sel\n",
      "  sel:\n    CommandLine|contains|cased: 'Äb'\n  condition: sel\n",
      "  sel:\n    CommandLine: 'x äbc – ü'\n  condition: sel\n",
      "  sel:\n    CommandLine|base64offset|contains: 'abc'\n  condition: sel\n",
      "  sel:\n    CommandLine|re: '^a.c'\n    Image|endswith: '.exe'\n  condition: sel\n",
      "  sel:\n    ParentImage: null\n    CommandLine|contains: ab\n  condition: sel\n",
      "  sel:\n    ParentImage|exists: false\n  condition: sel\n",
      "  sel:\n    CommandLine|windash|contains: ' -c '\n  condition: sel\n",
  };
  TRuleSet rules;
  for (size_t i = 0; i < detections.size(); ++i) {
    std::string file = std::to_string(i);
    file.append(".yml");
    rules.LoadText(RuleText(detections[i]), file);
  }
  rules.LoadText(RuleText("  keywords:\n    - 'zz'\n  condition: keywords\n", "    product: windows\n"), "any.yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;

  const char* const images[] = {"C:\\Windows\\System32\\cmd.exe", "C:\\WINDOWS\\system32\\CMD.EXE",
                                "C:\\Wxndows\\Temp\\cad.exe", "d.exe", "x", ""};
  const char* const lines[] = {"a",        "A",        "ab",         "abc",           "ABC",       "aaaa",
                               "aa",       "xabcx zz", "cmd.exe /c", "d.exe",         "evil",      "r\xD1\x80r",
                               "p\xD1\x80", "YWJj",     "zzabc",      "/c whoami -c ", ("x \xE2\x80\x93" "c "),
                               "RРR", "xäbc", "XÄBC", "x ÄBc – Ü", "X ÄBC – Ü", ""};
  TEvtxFileWriter writer;
  for (const char* image : images)
    for (const char* line : lines) {
      writer.AddEvent(ProcessEvent(image, line));
      writer.AddEvent(ProcessEvent(image, line, {{"ParentImage", line}}));
    }
  writer.AddEvent(HuntEvent("Application", 1, {{"", "some evil text"}, {"", "zz"}}, "App"));
  const std::string path = WriteTempFile("literal_index.evtx", writer.Bytes());
  EXPECT_GT(CompareOver(rules, path), 100u);
}

// When every literal of a field is 7 bytes or longer, a value is tested for their heads
// only at every fourth place: a literal is still found at any place, at either end, or as
// the whole value, and a near miss is not.
TEST(HuntLiteralIndex, HeadsTestedEveryFewPlacesFindLiteralsAnywhere) {
  TRuleSet rules;
  rules.LoadText(RuleText("  sel:\n    CommandLine|contains:\n      - 'mimikatz'\n      - 'sekurlsa'\n"
                          "  condition: sel\n"),
                 "a.yml");
  rules.LoadText(RuleText("  sel:\n    CommandLine|endswith: 'lsadump::sam'\n  condition: sel\n"), "b.yml");
  rules.LoadText(RuleText("  sel:\n    CommandLine|startswith: 'Invoke-Mimi'\n  condition: sel\n"), "c.yml");
  rules.LoadText(RuleText("  sel:\n    CommandLine: 'procdump64'\n  condition: sel\n"), "d.yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;
  const char* const found[] = {"mimikatz", "SEKURLSA", "lsadump::sam", "Invoke-Mimi", "procdump64", "mimikaty",
                               "ekurlsa", "lsadump::sa", "nvoke-Mimi", "procdump6"};
  TEvtxFileWriter writer;
  for (const char* literal : found)
    for (size_t before = 0; before < 9; ++before)
      for (size_t after : {0u, 1u, 3u, 6u}) {
        const std::string line = std::string(before, 'x') + literal + std::string(after, 'y');
        writer.AddEvent(ProcessEvent("C:\\x.exe", line));
      }
  const std::string path = WriteTempFile("literal_heads.evtx", writer.Bytes());
  // Each literal once at every place (and the near misses never).
  EXPECT_EQ(CompareOver(rules, path), size_t{2 * 9 * 4 + 9 + 4 + 1});
}

// The widest step (literals of 11 bytes or more: a run tested every eighth place, the
// last one a literal at the end needs ending at the text's end), with
// the runs read four at a time and then one by one up to the text's end: a literal is
// found at every place and in any case, texts shorter than a run hold nothing, and a
// text whose runs share the literal's bits only when the 0x20 bit is set ('`' for '@')
// is not taken for it.
TEST(HuntLiteralIndex, WidestHeadStepFindsLiteralsUpToTheEnd) {
  TRuleSet rules;
  rules.LoadText(RuleText("  sel:\n    CommandLine|contains:\n      - 'lsadump::sa'\n      - 'invoke@mimikatz'\n"
                          "  condition: sel\n"),
                 "a.yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;
  const char* const found[] = {"lsadump::sa",     "LSADUMP::SA",     "invoke@mimikatz",
                               "INVOKE@MIMIKATZ", "invoke`mimikatz", "lsadump::s", "sadump::sa"};
  TEvtxFileWriter writer;
  for (const char* literal : found)
    for (size_t before = 0; before < 10; ++before)
      for (size_t after : {0u, 1u, 3u, 7u, 29u}) {
        const std::string line = std::string(before, 'x') + literal + std::string(after, 'y');
        writer.AddEvent(ProcessEvent("C:\\x.exe", line));
      }
  for (const char* line : {"", "l", "ls", "lsa", "lsad"}) writer.AddEvent(ProcessEvent("C:\\x.exe", line));
  const std::string path = WriteTempFile("literal_wide_heads.evtx", writer.Bytes());
  EXPECT_EQ(CompareOver(rules, path), size_t{4 * 10 * 5});
}

// A rule is evaluated only when every clause it needs holds: each part of an AND, each
// value of an "all" field, one text of each side of an OR. Events holding one part, the
// other, both or neither report as testing every rule would.
TEST(HuntLiteralIndex, ClausesOfEveryPartSelectTogether) {
  const std::vector<std::string> detections = {
      "  sel:\n    Image|endswith: '\\csi.exe'\n    Company: 'Microsoft Corporation'\n  condition: sel\n",
      "  a:\n    Image|endswith: '\\csi.exe'\n  b:\n    CommandLine|contains: 'evil'\n  condition: a and b\n",
      "  sel:\n    CommandLine|contains|all:\n      - 'one'\n      - 'two'\n  condition: sel\n",
      "  a:\n    - Image|endswith: '\\csi.exe'\n    - CommandLine|contains: 'evil'\n"
      "  b:\n    Company: 'Microsoft Corporation'\n  condition: a and b\n",
      "  a:\n    Image|endswith: '\\csi.exe'\n  b:\n    CommandLine|contains: 'evil'\n"
      "  c:\n    CommandLine|contains: 'one'\n  condition: (a and b) or c\n",
      "  a:\n    Image|endswith: '\\csi.exe'\n  b:\n    CommandLine|re: 'ev.l'\n  condition: a and not b\n",
      "  a:\n    Image|endswith: '\\csi.exe'\n  b:\n    CommandLine|re: 'ev.l'\n  condition: a and b\n",
  };
  TRuleSet rules;
  const hunt::TBindingList* list = ProcessCreationList(rules, detections);
  ASSERT_NE(list, nullptr);
  const hunt::TLiteralIndex& index = *list->Literals;
  const uint32_t expected[] = {2, 2, 2, 2, 1, 1, 2};
  for (uint32_t b = 0; b < detections.size(); ++b) EXPECT_EQ(index.ClausesOf(b), expected[b]) << detections[b];
  for (uint32_t clause = 0; clause < index.ClauseCount(); ++clause)
    EXPECT_LT(index.ClauseBinding(clause), detections.size());

  const char* const images[] = {"C:\\x\\csi.exe", "C:\\x\\other.exe"};
  const char* const lines[] = {"evil", "one", "two", "one two", "EVIL one", "nothing"};
  TEvtxFileWriter writer;
  for (const char* image : images)
    for (const char* line : lines) {
      writer.AddEvent(ProcessEvent(image, line));
      writer.AddEvent(ProcessEvent(image, line, {{"Company", "Microsoft Corporation"}}));
    }
  const std::string path = WriteTempFile("literal_clauses.evtx", writer.Bytes());
  // Per rule: csi and company on each of its 6 lines; csi and "evil" (either case) 2 x 2;
  // "one" and "two" 1 line x 2 images x 2; csi or "evil", with company, 6 + 2; one of
  // "one" (3 lines x 4) or csi and "evil" (2 more); csi without the cased "ev.l" 5 x 2;
  // csi with it 1 x 2.
  EXPECT_EQ(CompareOver(rules, path), size_t{6 + 4 + 4 + 8 + 14 + 10 + 2});
}

// A part of the paths most events hold ("\\windows\\") weighs as a single byte when
// the clause of an OR is chosen: the rarer text of the same part selects the rule, and
// the results stay those of testing every rule.
TEST(HuntLiteralIndex, CommonPathPartsDoNotSelect) {
  const std::string detection = "  sel_1:\n    Image|contains: '\\Windows\\'\n    CommandLine|contains: '\\..\\..\\'\n"
                                "  sel_2:\n    CommandLine|contains: '.exe\\..\\'\n  condition: 1 of sel_*\n";
  TRuleSet rules;
  rules.LoadText(RuleText(detection), "0.yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;
  std::string key;
  const TRuleSet::TCandidates candidates = rules.Candidates("Microsoft-Windows-Sysmon/Operational", 1, key);
  const hunt::TBindingList* list = candidates.Lists[0];
  ASSERT_NE(list, nullptr);
  const hunt::TLiteralIndex& index = *list->Literals;
  ASSERT_EQ(index.LiteralCount(), 3u); // in the order of the tests
  EXPECT_EQ(index.ClausesOf(0), 1u);
  EXPECT_TRUE(index.NeededBy(0).empty()); // "\\windows\\"
  EXPECT_EQ(index.NeededBy(1).size(), 1u); // "\\..\\..\\"
  EXPECT_EQ(index.NeededBy(2).size(), 1u); // ".exe\\..\\"

  TEvtxFileWriter writer;
  for (const char* image : {"C:\\Windows\\System32\\cmd.exe", "D:\\tools\\cmd.exe"})
    for (const char* line : {"cmd /c x\\..\\..\\y", "a.exe\\..\\b", "cmd /c dir", "A.EXE\\..\\..\\"})
      writer.AddEvent(ProcessEvent(image, line));
  const std::string path = WriteTempFile("literal_common.evtx", writer.Bytes());
  // Windows image: the traversal, the .exe one and the line with both; other image: the .exe ones.
  EXPECT_EQ(CompareOver(rules, path), size_t{3 + 2});
}

// A regular expression's sure run selects its rule as its matches would: cased and
// caseless patterns, texts in other cases, the Kelvin sign and long s that caseless
// matching takes for k and s, and texts without the run.
TEST(HuntLiteralIndex, RegexRunsSelectAsMatchingWould) {
  const std::vector<std::string> detections = {
      "  sel:\n    CommandLine|re: 'ipconfig\\s+/all'\n  condition: sel\n",
      "  sel:\n    CommandLine|re: '(?i)werfaultsecure\\.exe\\s+\\d+'\n  condition: sel\n",
      "  sel:\n    CommandLine|re|i: 'MASK'\n  condition: sel\n",
      "  sel:\n    CommandLine|re: 'Kiwi'\n  condition: sel\n",
      "  sel:\n    Image|endswith: '\\csi.exe'\n    CommandLine|re: 'ev.l'\n  condition: sel\n",
      "  sel:\n    - CommandLine|re: '\\$PSHome\\['\n    - CommandLine|re: 'a|b'\n  condition: sel\n",
  };
  TRuleSet rules;
  const hunt::TBindingList* list = ProcessCreationList(rules, detections);
  ASSERT_NE(list, nullptr);
  // Each rule is selected by its run, but the last: "a|b" has none, so neither has its OR.
  const uint32_t clauses[] = {1, 1, 1, 1, 2, 0};
  for (uint32_t b = 0; b < detections.size(); ++b) EXPECT_EQ(list->Literals->ClausesOf(b), clauses[b]) << b;

  const char* const lines[] = {"ipconfig /all",        "IPCONFIG  /all",  "ipconfig /ALL", "ipconfig",
                               "x WerFaultSecure.exe 12", ("werfault\xc5\xbf" "ecure.exe 7"), "mask", "MA\xc5\xbf\xe2\x84\xaa",
                               "Kiwi",                 "kiwi",            "evil",          "$PSHome[1]",
                               "$pshome[",             "nothing at all"};
  TEvtxFileWriter writer;
  for (const char* image : {"C:\\x\\csi.exe", "C:\\x\\other.exe"})
    for (const char* line : lines) writer.AddEvent(ProcessEvent(image, line));
  const std::string path = WriteTempFile("literal_regex.evtx", writer.Bytes());
  // Per image: the cased ipconfig 1; werfaultsecure 2 (with the long s too); MASK 2 (with
  // the long s and Kelvin sign too); the cased Kiwi 1; $PSHome[ or an a or b 7; and ev.l
  // on the csi image only.
  EXPECT_EQ(CompareOver(rules, path), size_t{2 * (1 + 2 + 2 + 1 + 7) + 1});
}

// Field tests that the literal hits decide alone are answered from the index's flat array,
// without reading the rule's tests: any and all of many values, at an end, whole or
// anywhere, fields the event lacks, and beside tests the hits cannot decide (cased, a
// wildcard pattern, a regular expression) in the same map, the same search and the same
// condition. Every event reports as testing every rule would.
TEST(HuntLiteralIndex, FieldTestsDecidedByHitsAnswerAsSearchingWould) {
  std::string many = "  sel:\n    CommandLine|contains:\n";
  for (int i = 0; i < 40; ++i) many += "      - 'word" + std::to_string(i) + "x'\n";
  many += "    Image|endswith:\n      - '\\a.exe'\n      - '\\b.exe'\n    Company: 'Corp'\n  condition: sel\n";
  const std::vector<std::string> detections = {
      many,
      "  sel:\n    CommandLine|contains|all:\n      - 'word1x'\n      - 'word2x'\n      - 'word3x'\n"
      "    Image|startswith: 'C:\\x'\n  condition: sel\n",
      "  sel:\n    CommandLine|contains|cased: 'Word1x'\n    Image|endswith: '\\a.exe'\n  condition: sel\n",
      "  sel:\n    Image: 'C:\\x\\?.exe'\n    CommandLine|contains: 'word2x'\n  condition: sel\n",
      "  a:\n    CommandLine|re: 'word[12]x'\n  b:\n    Missing: 'value'\n  c:\n    Missing|contains|all:\n"
      "      - 'one'\n      - 'two'\n  condition: a and not b and not c\n",
      "  a:\n    Image|endswith: '\\a.exe'\n  b:\n    Image|endswith: '\\b.exe'\n    CommandLine: 'word3x'\n"
      "  condition: a or b\n",
      "  sel:\n    Company: 'corp'\n  filter:\n    CommandLine|startswith: 'word1'\n  condition: sel and not filter\n",
  };
  TRuleSet rules;
  for (size_t i = 0; i < detections.size(); ++i) rules.LoadText(RuleText(detections[i]), std::to_string(i) + ".yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;
  TEvtxFileWriter writer;
  for (const char* image : {"C:\\x\\a.exe", "C:\\x\\b.exe", "C:\\y\\c.exe"})
    for (const char* line : {"word1x", "Word1x word2x", "word1x word2x word3x", "word3x", "x word39x y", "nothing"}) {
      writer.AddEvent(ProcessEvent(image, line));
      writer.AddEvent(ProcessEvent(image, line, {{"Company", "CORP"}}));
    }
  const std::string path = WriteTempFile("literal_fields.evtx", writer.Bytes());
  EXPECT_GT(CompareOver(rules, path), size_t{20});
}

// The process creation rules are bound to Sysmon 1 and to Security 4688 (Image read as
// NewProcessName): the two lists' indexes have the same automata, built once, and each
// answers as searching would.
TEST(HuntLiteralIndex, ListsOfTheSameLiteralsShareTheirAutomata) {
  TRuleSet rules;
  constexpr int kRules = 24; // (enough literals per field for the automata to be shared)
  for (int i = 0; i < kRules; ++i)
    rules.LoadText(RuleText("  sel:\n    Image|endswith: '\\t" + std::to_string(i) + ".exe'\n    CommandLine|contains: 'arg" +
                            std::to_string(i) + "'\n  condition: sel\n"),
                   std::to_string(i) + ".yml");
  ASSERT_TRUE(rules.Unusable().empty()) << rules.Unusable()[0].Reason;
  std::string key;
  const hunt::TBindingList* sysmon = rules.Candidates("Microsoft-Windows-Sysmon/Operational", 1, key).Lists[0];
  const hunt::TBindingList* security = rules.Candidates("Security", 4688, key).Lists[0];
  ASSERT_NE(sysmon, nullptr);
  ASSERT_NE(security, nullptr);
  ASSERT_EQ(sysmon->Literals->AutomatonCount(), 2u);
  ASSERT_EQ(security->Literals->AutomatonCount(), 2u);
  std::vector<const void*> a, b;
  for (uint32_t i = 0; i < 2; ++i) {
    a.push_back(sysmon->Literals->AutomatonIdentity(i));
    b.push_back(security->Literals->AutomatonIdentity(i));
  }
  std::sort(a.begin(), a.end());
  std::sort(b.begin(), b.end());
  EXPECT_EQ(a, b);

  TEvtxFileWriter writer;
  for (int i = 0; i < kRules + 2; ++i) {
    const std::string image = "C:\\x\\t" + std::to_string(i % (kRules + 1)) + ".exe";
    const std::string line = "run arg" + std::to_string((i * 7) % (kRules + 2));
    writer.AddEvent(ProcessEvent(image, line));
    writer.AddEvent(HuntEvent("Security", 4688, {{"NewProcessName", image}, {"CommandLine", line}},
                              "Microsoft-Windows-Security-Auditing"));
    writer.AddEvent(HuntEvent("Security", 4688, {{"NewProcessName", image}, {"CommandLine", "arg" + std::to_string(i)}},
                              "Microsoft-Windows-Security-Auditing"));
  }
  const std::string path = WriteTempFile("literal_shared.evtx", writer.Bytes());
  EXPECT_GT(CompareOver(rules, path), size_t{kRules});
}

// Values left to make (numbers, GUIDs: what the hunt's pairs defer) are made only when a
// literal could be in their text: a keyword of letters passes them over, one of digits
// makes them and finds itself there.
TEST(HuntLiteralIndex, DeferredValuesMadeOnlyWhereALiteralFits) {
  static const char* const texts[] = {"4624", "{0A1B2C3D-0000-0000-0000-000000000000}"};
  static int made = 0;
  TNamedValues pairs;
  const uint32_t image = InternNamedField(nfText, "Image", ""), id = InternNamedField(nfText, "LogonType", ""),
                 guid = InternNamedField(nfText, "LogonGuid", "");
  auto load = [&] {
    pairs.Clear();
    pairs.SetMaker({[](const TNamedValues::TMaker&, uint32_t ANumber, std::string& AOut) {
                      ++made;
                      AOut.append(texts[ANumber]);
                    },
                    nullptr, nullptr, nullptr});
    pairs.Begin(nfText, "", "", image);
    pairs.Text().append("C:\\x.exe");
    pairs.End();
    pairs.AddDeferred(nfText, "", "", id, 0, 0x08, 64);
    pairs.AddDeferred(nfText, "", "", guid, 1, 0x0F, 128);
  };
  const std::string anyLog = "    product: windows\n";
  for (const bool digits : {false, true}) {
    TRuleSet rules;
    rules.LoadText(RuleText("  keywords:\n    - mimikatz\n  condition: keywords\n", anyLog), "letters.yml");
    if (digits) rules.LoadText(RuleText("  keywords:\n    - '4624'\n  condition: keywords\n", anyLog), "digits.yml");
    hunt::THunter hunter(rules);
    load();
    made = 0;
    const auto detections = hunter.Test("Security", 4624, pairs);
    if (!digits) {
      EXPECT_TRUE(detections.empty());
      EXPECT_EQ(made, 0); // neither could hold "mimikatz"
      continue;
    }
    ASSERT_EQ(detections.size(), 1u);
    ASSERT_EQ(detections[0].Matched.size(), 1u);
    EXPECT_EQ(detections[0].Matched[0].second, "4624");
    EXPECT_EQ(made, 2); // both could hold "4624" (a GUID's hexadecimal digits)
  }
}

TEST(HuntLiteralIndex, WindowsRulesOverDemoAndRegressionLogs) {
  if (SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  TRuleSet rules;
  rules.LoadPath((SigmaDir() / "rules" / "windows").string());
  size_t detections = CompareOver(rules, WriteTempFile("demo.evtx", DemoLogBytes()));
  std::error_code error;
  const std::filesystem::path regression = SigmaDir() / "regression_data";
  if (std::filesystem::is_directory(regression, error))
    for (const auto& entry : std::filesystem::recursive_directory_iterator(regression, error))
      if (entry.path().extension() == ".evtx") detections += CompareOver(rules, entry.path());
  EXPECT_GT(detections, 0u);
}

} // namespace
} // namespace qvx::test
