// The rule cache: parsed rule files round-trip, a damaged cache never crashes and is
// ignored, a changed rule file is parsed again, and cached loads give the same rules,
// unusable rules and detections as uncached ones.
#include "hunt/hunt_fixture.h"
#include "hunt/rule_cache.h"
#include "hunt/sigma_rule.h"
#include "platform/file_stamp.h"

#include "support/evtx_fixtures.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

namespace qvx::test {
namespace {

namespace fs = std::filesystem;
using hunt::TParsedRuleFile;
using hunt::TRuleCache;
using hunt::TRuleSet;

void WriteText(const fs::path& APath, const std::string& AText) {
  std::ofstream out(APath, std::ios::binary | std::ios::trunc);
  out << AText;
}

std::string ReadText(const fs::path& APath) {
  std::ifstream in(APath, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The detections AThreads threads started together find in ALog with one rule set, each
// after AFirst(its number) when given.
std::vector<std::vector<std::string>> HuntTogether(const TRuleSet& ARules, const fs::path& ALog, int AThreads,
                                                   const std::function<void(int)>& AFirst = {}) {
  std::vector<std::vector<std::string>> found(static_cast<size_t>(AThreads));
  std::atomic<int> waiting{AThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < AThreads; ++t)
    threads.emplace_back([&, t] {
      for (--waiting; waiting.load() > 0;) std::this_thread::yield();
      if (AFirst) AFirst(t);
      found[static_cast<size_t>(t)] = HuntFile(ARules, ALog);
    });
  for (std::thread& thread : threads) thread.join();
  return found;
}

// A folder of rules: two that match ProcessEvent("C:\\x\\evil.exe", ...), one whose
// condition names no search (unusable), one that is not YAML (unusable at parse time).
fs::path RuleFolder(const fs::path& AScratch) {
  const fs::path dir = AScratch / "rules";
  fs::create_directories(dir / "sub");
  WriteText(dir / "a.yml", RuleText("  sel:\n    Image|endswith: '\\evil.exe'\n  condition: sel\n"));
  WriteText(dir / "sub" / "b.yml",
            RuleText("  sel:\n    CommandLine|contains|all:\n      - '-enc'\n      - 'AAAA'\n  condition: sel\n"));
  WriteText(dir / "c.yml", RuleText("  sel:\n    Image: x\n  condition: sel and other\n"));
  WriteText(dir / "d.yaml", "title: [unclosed\n");
  return dir;
}

std::string LogFile() {
  TEvtxFileWriter writer;
  writer.AddEvent(ProcessEvent("C:\\x\\evil.exe", "evil.exe -enc AAAA"));
  writer.AddEvent(ProcessEvent("C:\\x\\good.exe", "good.exe"));
  writer.AddEvent(ProcessEvent("C:\\y\\EVIL.EXE", "x"));
  return WriteTempFile("cache.evtx", writer.Bytes());
}

TFileStamp ReadStamp(const fs::path& APath) {
  TFileStamp stamp;
  EXPECT_TRUE(ReadFileStamp(APath.string(), stamp)) << APath;
  return stamp;
}

struct TLoaded {
  std::vector<std::string> Reasons;
  std::vector<std::string> Titles;
  std::vector<std::string> Detections;
  size_t Hits = 0, Misses = 0;
  std::vector<std::string> Notes;
};

TLoaded Load(const fs::path& ARules, const std::string& ACacheFolder, const std::string& ALog) {
  TRuleSet rules;
  rules.SetCacheFolder(ACacheFolder);
  rules.LoadPath(ARules.string());
  TLoaded out;
  for (const auto& unusable : rules.Unusable()) out.Reasons.push_back(unusable.Reason);
  for (const auto& rule : rules.Rules()) out.Titles.push_back(rule->File + "|" + rule->Title);
  out.Detections = HuntFile(rules, ALog);
  out.Hits = rules.CacheHits();
  out.Misses = rules.CacheMisses();
  out.Notes = rules.CacheNotes();
  return out;
}

void ExpectSame(const TLoaded& A, const TLoaded& B) {
  EXPECT_EQ(A.Reasons, B.Reasons);
  EXPECT_EQ(A.Titles, B.Titles);
  EXPECT_EQ(A.Detections, B.Detections);
}

TEST(RuleCache, CachedLoadsGiveTheSameRulesAndDetections) {
  const fs::path scratch = ScratchDir();
  const fs::path rules = RuleFolder(scratch);
  const std::string cache = (scratch / "cache").string();
  const std::string log = LogFile();
  const TLoaded plain = Load(rules, "", log);
  ASSERT_EQ(plain.Reasons.size(), 2u);
  ASSERT_EQ(plain.Detections.size(), 3u); // evil.exe by both rules, EVIL.EXE by the first
  EXPECT_EQ(plain.Hits + plain.Misses, 0u);

  const TLoaded first = Load(rules, cache, log);
  EXPECT_EQ(first.Hits, 0u);
  EXPECT_EQ(first.Misses, 4u);
  ExpectSame(plain, first);
  ASSERT_TRUE(fs::exists(TRuleCache::FileFor(cache, rules.string())));

  const TLoaded second = Load(rules, cache, log);
  EXPECT_EQ(second.Hits, 4u);
  EXPECT_EQ(second.Misses, 0u);
  EXPECT_TRUE(second.Notes.empty());
  ExpectSame(plain, second);
  // The unusable rules are still named, with their reasons, from the cache.
  EXPECT_NE(second.Reasons[1].find("YAML error"), std::string::npos) << second.Reasons[1];
}

// A rule taken from the cache is bound from what the cache says of it and compiled when
// an event first needs a list it is in: a Sysmon log compiles the process creation rules
// and not the System rule, and the detections and unusable rules are those of a load
// that compiles every rule.
TEST(RuleCache, ACachedRuleIsCompiledWhenAnEventFirstNeedsIt) {
  const fs::path scratch = ScratchDir();
  const fs::path rules = RuleFolder(scratch);
  WriteText(rules / "e.yml", RuleText("  sel:\n    EventID: 7045\n    ServiceName: x\n  condition: sel\n",
                                      "    product: windows\n    service: system\n"));
  const std::string cache = (scratch / "cache").string();
  const std::string log = LogFile();
  const TLoaded plain = Load(rules, "", log);
  ASSERT_EQ(plain.Detections.size(), 3u);
  Load(rules, cache, log); // writes the cache

  TRuleSet cached;
  cached.SetCacheFolder(cache);
  cached.LoadPath(rules.string());
  EXPECT_EQ(cached.CacheHits(), 5u);
  ASSERT_EQ(cached.Rules().size(), 3u);
  EXPECT_EQ(cached.DeferredCount(), 3u);
  EXPECT_EQ(cached.DeferredCompiled(), 0u);
  std::vector<std::string> reasons, titles;
  for (const auto& unusable : cached.Unusable()) reasons.push_back(unusable.Reason);
  for (const auto& rule : cached.Rules()) titles.push_back(rule->File + "|" + rule->Title);
  EXPECT_EQ(reasons, plain.Reasons);
  EXPECT_EQ(titles, plain.Titles);
  EXPECT_EQ(HuntFile(cached, log), plain.Detections);
  EXPECT_EQ(cached.DeferredCompiled(), 2u); // not the System rule
  EXPECT_TRUE(cached.CacheNotes().empty());
  cached.Prepare();
  EXPECT_EQ(cached.DeferredCompiled(), 3u);
}

// A rule of its own ID (RuleText's with the last digits replaced).
std::string RuleWithId(int AId, const std::string& ADetection, const std::string& ALogSource) {
  std::string text = ALogSource.empty() ? RuleText(ADetection) : RuleText(ADetection, ALogSource);
  const std::string digits = std::to_string(100000 + AId);
  text.replace(text.find("000000000001"), 12, std::string(12 - digits.size(), '0') + digits);
  return text;
}

// Hunters on several threads that make overlapping lists of many rules at once (the process
// creation rules are bound both to Sysmon 1 and to Security 4688, with other field names),
// half starting ahead on the kinds of events in an order of its own, half needing the lists
// as events come: every rule is compiled once, and each thread finds what one hunter over
// rules compiled at load finds.
TEST(RuleCache, HuntersMakingOverlappingListsAtOnceFindWhatOneFinds) {
  const fs::path scratch = ScratchDir();
  const fs::path dir = scratch / "rules";
  fs::create_directories(dir);
  constexpr int kProcessRules = 120, kLogonRules = 40;
  for (int i = 0; i < kProcessRules; ++i)
    WriteText(dir / ("p" + std::to_string(1000 + i) + ".yml"),
              RuleWithId(i,
                         "  sel:\n    Image|endswith: '\\t" + std::to_string(i % 7) +
                             ".exe'\n    CommandLine|contains: '" + std::to_string(i % 3) + "'\n  condition: sel\n",
                         ""));
  const std::string logon = "    product: windows\n    service: security\n";
  for (int i = 0; i < kLogonRules; ++i)
    WriteText(dir / ("l" + std::to_string(1000 + i) + ".yml"),
              RuleWithId(kProcessRules + i,
                         "  sel:\n    EventID: 4624\n    TargetUserName|startswith: 'u" + std::to_string(i % 5) +
                             "'\n  condition: sel\n",
                         logon));
  TEvtxFileWriter writer;
  for (int i = 0; i < 42; ++i) {
    const std::string image = "C:\\x\\t" + std::to_string(i % 7) + ".exe";
    const std::string command = "run " + std::to_string(i);
    if (i % 3 == 0) writer.AddEvent(ProcessEvent(image, command));
    if (i % 3 == 1)
      writer.AddEvent(HuntEvent("Security", 4688, {{"NewProcessName", image}, {"CommandLine", command}},
                                "Microsoft-Windows-Security-Auditing"));
    if (i % 3 == 2)
      writer.AddEvent(HuntEvent("Security", 4624, {{"TargetUserName", "u" + std::to_string(i % 5) + "x"}},
                                "Microsoft-Windows-Security-Auditing"));
  }
  const std::string log = WriteTempFile("cache_overlap.evtx", writer.Bytes());
  const std::string cache = (scratch / "cache").string();
  const TLoaded plain = Load(dir, "", log);
  ASSERT_GT(plain.Detections.size(), 20u);
  Load(dir, cache, log); // writes the cache

  const std::vector<TRuleSet::TEventKind> kinds = {
      {kSysmonChannel, 1}, {"SECURITY", 4688}, {"Security", 4624}, {"Security", 4625}, {"System", 7045}};
  for (int round = 0; round < 4; ++round) {
    TRuleSet cached;
    cached.SetCacheFolder(cache);
    cached.LoadPath(dir.string());
    ASSERT_EQ(cached.CacheHits(), size_t{kProcessRules + kLogonRules});
    ASSERT_EQ(cached.DeferredCompiled(), 0u);
    constexpr int kThreads = 4;
    const std::vector<std::vector<std::string>> found = HuntTogether(cached, log, kThreads, [&](int t) {
      if (t % 2) return; // (the others need the lists first as events come)
      std::vector<TRuleSet::TEventKind> mine = kinds;
      std::rotate(mine.begin(), mine.begin() + (t + round) % mine.size(), mine.end());
      hunt::THunter(cached).PrepareAhead(mine);
    });
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(found[t], plain.Detections) << "round " << round << " thread " << t;
    EXPECT_EQ(cached.DeferredCompiled(), size_t{kProcessRules + kLogonRules});
    EXPECT_TRUE(cached.CacheNotes().empty());
    for (const TRuleSet::TEventKind& kind : kinds) EXPECT_TRUE(cached.ListsReady(kind.Channel, kind.EventId));
  }
}

// Making ready ahead compiles the rules of the lists of the kinds given, and no others.
TEST(RuleCache, PrepareAheadMakesOnlyTheListsOfItsKinds) {
  const fs::path scratch = ScratchDir();
  const fs::path dir = scratch / "rules";
  fs::create_directories(dir);
  WriteText(dir / "p.yml", RuleWithId(1, "  sel:\n    Image|endswith: '\\evil.exe'\n  condition: sel\n", ""));
  WriteText(dir / "s.yml", RuleWithId(2, "  sel:\n    EventID: 7045\n    ServiceName: x\n  condition: sel\n",
                                      "    product: windows\n    service: system\n"));
  const std::string cache = (scratch / "cache").string();
  {
    TRuleSet writing;
    writing.SetCacheFolder(cache);
    writing.LoadPath(dir.string());
  }
  TRuleSet cached;
  cached.SetCacheFolder(cache);
  cached.LoadPath(dir.string());
  ASSERT_EQ(cached.CacheHits(), 2u);
  EXPECT_FALSE(cached.ListsReady("Security", 4688));
  EXPECT_TRUE(cached.ListsReady("Application", 1)); // no rule reads it
  const std::vector<TRuleSet::TEventKind> kinds = {{"Security", 4688}, {"Application", 1}};
  cached.PrepareAhead(kinds);
  EXPECT_TRUE(cached.ListsReady("security", 4688));
  EXPECT_EQ(cached.DeferredCompiled(), 1u); // the process creation rule: its Sysmon list is not made
  EXPECT_FALSE(cached.ListsReady(kSysmonChannel, 1));
  EXPECT_FALSE(cached.ListsReady("System", 7045));
  cached.Prepare();
  EXPECT_EQ(cached.DeferredCompiled(), 2u);
  EXPECT_TRUE(cached.ListsReady(kSysmonChannel, 1));
}

// Verdicts (what compiling each document gave) round-trip, and cut bytes are refused.
TEST(RuleCache, VerdictsRoundTrip) {
  TParsedRuleFile parsed;
  parsed.Documents = hunt::ParseYamlDocuments(RuleText("  sel:\n    Image|endswith: x\n  condition: sel\n"), "/r/a.yml");
  std::vector<hunt::TRuleVerdict> verdicts(2);
  verdicts[0].Header = hunt::CompileSigmaRule(parsed.Documents[0], "/r/a.yml");
  verdicts[1].Document = 1;
  verdicts[1].Title = "broken";
  verdicts[1].Error = "/r/a.yml:3: unknown modifier";
  std::string bytes;
  TRuleCache::EncodeVerdicts(verdicts, bytes);
  std::vector<hunt::TRuleVerdict> back;
  ASSERT_TRUE(TRuleCache::DecodeVerdicts(bytes, "/r/a.yml", back));
  ASSERT_EQ(back.size(), 2u);
  ASSERT_TRUE(back[0].Header);
  EXPECT_EQ(back[0].Header->Title, verdicts[0].Header->Title);
  EXPECT_EQ(back[0].Header->SlotNames, verdicts[0].Header->SlotNames);
  EXPECT_EQ(back[0].Header->Category, "process_creation");
  EXPECT_EQ(back[0].Header->File, "/r/a.yml");
  EXPECT_TRUE(back[0].Header->Searches.empty());
  EXPECT_FALSE(back[1].Header);
  EXPECT_EQ(back[1].Document, 1u);
  EXPECT_EQ(back[1].Error, verdicts[1].Error);
  std::string again;
  TRuleCache::EncodeVerdicts(back, again);
  EXPECT_EQ(again, bytes);
  for (size_t cut = 0; cut < bytes.size(); ++cut)
    EXPECT_FALSE(TRuleCache::DecodeVerdicts(bytes.substr(0, cut), "/r/a.yml", back)) << cut;
}

TEST(RuleCache, AChangedRuleFileIsParsedAgain) {
  const fs::path scratch = ScratchDir();
  const fs::path rules = RuleFolder(scratch);
  const std::string cache = (scratch / "cache").string();
  const std::string log = LogFile();
  Load(rules, cache, log);
  // Same size and same change time, other bytes: only the content hash tells.
  const fs::path a = rules / "a.yml";
  const auto changed = fs::last_write_time(a);
  std::string text = ReadText(a);
  const size_t at = text.find("evil.exe");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 8, "good.exe");
  WriteText(a, text);
  fs::last_write_time(a, changed);
  const TLoaded after = Load(rules, cache, log);
  EXPECT_EQ(after.Misses, 1u);
  EXPECT_EQ(after.Hits, 3u);
  ExpectSame(Load(rules, "", log), after);
  EXPECT_EQ(after.Detections.size(), 2u); // good.exe by a.yml, evil.exe -enc by b.yml

  // A file removed is dropped, a file added is parsed.
  fs::remove(rules / "c.yml");
  WriteText(rules / "e.yml", RuleText("  sel:\n    Image|contains: 'y\\'\n  condition: sel\n"));
  const TLoaded again = Load(rules, cache, log);
  EXPECT_EQ(again.Misses, 1u);
  EXPECT_EQ(again.Hits, 3u);
  ExpectSame(Load(rules, "", log), again);
  EXPECT_EQ(Load(rules, cache, log).Hits, 4u);

  // A file added before the others moves every entry's place: each is still found.
  WriteText(rules / "0.yml", RuleText("  sel:\n    Image|contains: 'zz'\n  condition: sel\n"));
  const TLoaded first = Load(rules, cache, log);
  EXPECT_EQ(first.Misses, 1u);
  EXPECT_EQ(first.Hits, 4u);
  ExpectSame(Load(rules, "", log), first);
  EXPECT_EQ(Load(rules, cache, log).Hits, 5u);
}

// A rule file whose stamp is its entry's is taken without being read; a stamp that
// differs in any part, or an entry without one, sends the caller to the file.
TEST(RuleCache, OnlyAnEntryOfTheSameStampIsTakenUnread) {
  const fs::path scratch = ScratchDir();
  const std::string file = (scratch / "stamps.bin").string();
  TParsedRuleFile parsed;
  parsed.Documents = hunt::ParseYamlDocuments(RuleText("  sel:\n    Image: a\n  condition: sel\n"), "r.yml");
  std::string bytes;
  TRuleCache::Encode(parsed, bytes);
  hunt::TRuleFileKey stamped{"/r/a.yml", 100, 5000, 77, 6000, 42};
  hunt::TRuleFileKey bare{"/r/b.yml", 100, 5000, 78};
  {
    TRuleCache cache(file);
    cache.Load();
    cache.Put(stamped, bytes);
    cache.Put(bare, bytes);
    ASSERT_TRUE(cache.Save());
  }
  TRuleCache cache(file);
  cache.Load();
  EXPECT_TRUE(cache.Note().empty()) << cache.Note();
  const TFileStamp same{100, 5000, 6000, 42};
  hunt::TRuleFileKey key;
  TParsedRuleFile back;
  ASSERT_TRUE(cache.FindUnread("/r/a.yml", same, key, back));
  EXPECT_EQ(key, stamped);
  EXPECT_EQ(key.StatusTime, 6000);
  EXPECT_EQ(key.Identity, 42u);
  ASSERT_EQ(back.Documents.size(), 1u);
  EXPECT_EQ(back.Documents[0].TextOf("title"), "Test Rule");
  for (const TFileStamp& other : {TFileStamp{101, 5000, 6000, 42}, TFileStamp{100, 5001, 6000, 42},
                                  TFileStamp{100, 5000, 6001, 42}, TFileStamp{100, 5000, 6000, 43}})
    EXPECT_FALSE(cache.FindUnread("/r/a.yml", other, key, back));
  EXPECT_FALSE(cache.FindUnread("/r/b.yml", TFileStamp{100, 5000, 0, 0}, key, back));
  EXPECT_FALSE(cache.FindUnread("/r/c.yml", same, key, back));
  // The place hinted at is only a guess.
  for (const size_t hint : {0u, 1u, 2u, 1000u}) {
    hunt::TCachedRuleFile found;
    EXPECT_TRUE(cache.FindUnread("/r/a.yml", same, key, found, hint)) << hint;
    EXPECT_EQ(found.Entry, 0u);
    EXPECT_FALSE(cache.FindUnread("/r/c.yml", same, key, found, hint)) << hint;
  }
  // The content hash still finds both.
  EXPECT_TRUE(cache.Find(stamped, back));
  EXPECT_TRUE(cache.Find(bare, back));
}

TEST(FileStamp, ARegularFileHasOneAFolderNone) {
  const fs::path scratch = ScratchDir();
  const fs::path file = scratch / "stamp.txt";
  WriteText(file, "12345");
  TFileStamp stamp;
#ifdef _WIN32
  EXPECT_FALSE(ReadFileStamp(file.string(), stamp));
#else
  ASSERT_TRUE(ReadFileStamp(file.string(), stamp));
  EXPECT_EQ(stamp.Size, 5u);
  EXPECT_NE(stamp.StatusTime, 0);
  EXPECT_NE(stamp.Identity, 0u);
  // Written again and given its old change time back: the entry's change time moves on.
  TFileStamp before = stamp;
  const auto changed = fs::last_write_time(file);
  WriteText(file, "54321");
  fs::last_write_time(file, changed);
  ASSERT_TRUE(ReadFileStamp(file.string(), stamp));
  EXPECT_EQ(stamp.ChangeTime, before.ChangeTime);
  EXPECT_GE(stamp.StatusTime, before.StatusTime);
#endif
  EXPECT_FALSE(ReadFileStamp(scratch.string(), stamp));
  EXPECT_FALSE(ReadFileStamp((scratch / "none").string(), stamp));
}

TEST(RuleCache, ADamagedCacheIsIgnoredWhole) {
  const fs::path scratch = ScratchDir();
  const fs::path rules = RuleFolder(scratch);
  const std::string cache = (scratch / "cache").string();
  const std::string log = LogFile();
  const TLoaded plain = Load(rules, "", log);
  Load(rules, cache, log);
  const std::string file = TRuleCache::FileFor(cache, rules.string());
  const std::string good = ReadText(file);
  ASSERT_GT(good.size(), 40u);

  struct TCase {
    std::string Bytes, Note;
  };
  std::string flipped = good;
  flipped[40] ^= 0x20; // in the index
  std::string magic = good;
  magic[0] = 'X';
  const std::vector<TCase> cases = {
      {flipped, "offset 12: damaged (size or hash does not match), ignored"},
      {good.substr(0, good.size() - 3), "offset 12: damaged (size or hash does not match), ignored"},
      {good + "x", "offset 12: damaged (size or hash does not match), ignored"},
      {good.substr(0, 10), "not a rule cache of a sensible size, ignored"},
      {magic, "offset 0: not a rule cache, ignored"},
  };
  for (const TCase& c : cases) {
    WriteText(file, c.Bytes);
    const TLoaded damaged = Load(rules, cache, log);
    EXPECT_EQ(damaged.Hits, 0u);
    ASSERT_EQ(damaged.Notes.size(), 1u);
    EXPECT_EQ(damaged.Notes[0], file + ": " + c.Note);
    ExpectSame(plain, damaged);
    // ... and is written anew.
    EXPECT_EQ(Load(rules, cache, log).Hits, 4u);
  }
}

// A parsed form is read (and its hash checked) only when its rule is compiled: a damaged
// one is not noticed at load, and the rule file is read in its place, with the same
// detections.
TEST(RuleCache, ADamagedParsedFormIsReadFromTheRuleFile) {
  const fs::path scratch = ScratchDir();
  const fs::path rules = RuleFolder(scratch);
  const std::string cache = (scratch / "cache").string();
  const std::string log = LogFile();
  const TLoaded plain = Load(rules, "", log);
  Load(rules, cache, log);
  const std::string file = TRuleCache::FileFor(cache, rules.string());
  std::string bytes = ReadText(file);
  // The last parsed form is sub/b.yml's (entries are in path order): its last node's text.
  ASSERT_EQ(bytes.substr(bytes.size() - 3), "sel");
  bytes[bytes.size() - 1] = 'x';
  WriteText(file, bytes);
  const TLoaded damaged = Load(rules, cache, log);
  EXPECT_EQ(damaged.Hits, 4u);
  EXPECT_TRUE(damaged.Notes.empty());
  ExpectSame(plain, damaged);

  // The cache itself finds the entry, and refuses its parsed form.
  TRuleCache direct(file);
  direct.Load();
  hunt::TCachedRuleFile found;
  // (Files this new are found by their content: their stamps are not trusted yet.)
  auto keyOf = [](const fs::path& APath) {
    const std::string text = ReadText(APath);
    return hunt::TRuleFileKey{APath.string(), text.size(), ReadStamp(APath).ChangeTime, hunt::HashBytes(text)};
  };
  ASSERT_TRUE(direct.Find(keyOf(rules / "sub" / "b.yml"), found));
  std::string parsed;
  EXPECT_FALSE(direct.ReadParsed(found, parsed));
  ASSERT_TRUE(direct.Find(keyOf(rules / "a.yml"), found));
  EXPECT_TRUE(direct.ReadParsed(found, parsed));
  TParsedRuleFile tree;
  EXPECT_TRUE(TRuleCache::Decode(parsed, tree));
}

TEST(RuleCache, EntriesThatDoNotReadBackAreRefused) {
  TParsedRuleFile parsed;
  parsed.Documents = hunt::ParseYamlDocuments(
      RuleText("  sel:\n    Image|endswith:\n      - a\n      - b\n  condition: sel\n") + "---\ntitle: two\n", "r.yml");
  std::string bytes;
  TRuleCache::Encode(parsed, bytes);
  TParsedRuleFile back;
  ASSERT_TRUE(TRuleCache::Decode(bytes, back));
  std::string again;
  TRuleCache::Encode(back, again);
  EXPECT_EQ(bytes, again);
  ASSERT_EQ(back.Documents.size(), 2u);
  EXPECT_EQ(back.Documents[0].TextOf("title"), "Test Rule");
  EXPECT_EQ(back.Documents[0].Find("detection")->Line, 10);

  // Every cut and every changed byte either reads back or is refused; none crashes or
  // asks for memory it has no bytes for.
  for (size_t cut = 0; cut < bytes.size(); ++cut) EXPECT_FALSE(TRuleCache::Decode(bytes.substr(0, cut), back));
  for (size_t at = 0; at < bytes.size(); ++at)
    for (const uint8_t value : {0x00, 0x01, 0x03, 0x7F, 0xFF}) {
      std::string damaged = bytes;
      damaged[at] = static_cast<char>(value);
      TRuleCache::Decode(damaged, back);
    }
  // A huge count with no bytes behind it.
  const std::string huge = std::string("\x00\xFF\xFF\xFF\x7F", 5);
  EXPECT_FALSE(TRuleCache::Decode(huge, back));
  // Nesting beyond the limit.
  std::string deep(1, '\0');
  deep += std::string("\x01\x00\x00\x00", 4);
  for (int i = 0; i < 300; ++i) deep += std::string("\x02\x01\x00\x00\x00\x01\x00\x00\x00", 9);
  EXPECT_FALSE(TRuleCache::Decode(deep, back));
}

// A cache entry may hold bytes no YAML file can (NUL in a condition): the rule compiles or
// is refused, in time and memory bounded by its text.
TEST(RuleCache, ANulByteInAConditionIsRefusedNotLoopedOn) {
  TParsedRuleFile parsed;
  parsed.Documents = hunt::ParseYamlDocuments(RuleText("  sel:\n    Image: a\n  condition: sel\n"), "r.yml");
  std::string bytes;
  TRuleCache::Encode(parsed, bytes);
  const size_t at = bytes.rfind("sel");
  ASSERT_NE(at, std::string::npos);
  bytes[at + 1] = '\0';
  TParsedRuleFile back;
  ASSERT_TRUE(TRuleCache::Decode(bytes, back));
  ASSERT_EQ(back.Documents.size(), 1u);
  EXPECT_THROW(hunt::CompileSigmaRule(back.Documents[0], "r.yml"), hunt::ESigmaError);
}

TEST(RuleCache, TheWholeWindowsRuleSetLoadsTheSameFromTheCache) {
  if (SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  const fs::path rules = SigmaDir() / "rules" / "windows";
  const std::string cache = (ScratchDir() / "cache").string();
  const std::string log = LogFile();
  const TLoaded plain = Load(rules, "", log);
  const TLoaded first = Load(rules, cache, log);
  const TLoaded second = Load(rules, cache, log);
  EXPECT_EQ(second.Misses, 0u);
  EXPECT_EQ(second.Hits, first.Misses);
  EXPECT_GT(second.Hits, 1000u);
  ExpectSame(plain, first);
  ExpectSame(plain, second);
}

} // namespace
} // namespace qvx::test
