// quorvex hunt over a whole .evtx file: chunk by chunk on every thread, it gives the same
// detection lines, issues and summary as event by event, whatever the format and threads,
// also for a log with a damaged record.
#include "app/commands.h"
#include "app/hunt_command.h"

#include "hunt/hunt_fixture.h"
#include "support/test_paths.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

namespace qvx {
namespace {

namespace fs = std::filesystem;

std::string ReadAll(std::FILE* AFile) {
  std::string text;
  std::rewind(AFile);
  char buffer[65536];
  for (size_t n; (n = std::fread(buffer, 1, sizeof buffer, AFile)) > 0;) text.append(buffer, n);
  return text;
}

struct THuntOutput {
  int Status = 0;
  std::string Out, Err;
};

THuntOutput Hunt(app::THuntOptions AOptions, bool AByChunk, unsigned AThreads) {
  AOptions.ByChunk = AByChunk;
  AOptions.Threads = AThreads;
  std::FILE* out = std::tmpfile();
  std::FILE* err = std::tmpfile();
  THuntOutput result;
  result.Status = app::RunHunt(AOptions, out, err);
  result.Out = ReadAll(out);
  result.Err = ReadAll(err);
  std::fclose(out);
  std::fclose(err);
  return result;
}

// Rules that match the demo log's events: some many times, some once.
void WriteRules(const fs::path& AFolder) {
  fs::create_directories(AFolder);
  std::ofstream(AFolder / "whoami.yml") << R"(title: Whoami Privileges
id: 11111111-2222-3333-4444-555555555555
author: Jane Tester
level: high
logsource: {category: process_creation, product: windows}
detection:
  selection:
    Image|endswith: '\whoami.exe'
  condition: selection
)";
  std::ofstream(AFolder / "any.yml") << R"(title: Any Security Event
id: 22222222-2222-3333-4444-555555555555
author: John Tester
level: low
logsource: {product: windows, service: security}
detection:
  selection:
    EventID|gt: 0
  condition: selection
)";
  std::ofstream(AFolder / "keyword.yml") << R"(title: A Keyword
id: 33333333-2222-3333-4444-555555555555
level: medium
logsource: {product: windows}
detection:
  keywords: ['exe']
  condition: keywords
)";
}

void ExpectSameByChunk(const app::THuntOptions& AOptions, const std::string& AWhat) {
  for (app::TOutputFormat format : {app::TOutputFormat::ofJsonl, app::TOutputFormat::ofCsv,
                                    app::TOutputFormat::ofTable}) {
    app::THuntOptions options = AOptions;
    options.Format = format;
    const THuntOutput byEvent = Hunt(options, false, 0);
    EXPECT_NE(byEvent.Err.find("detection"), std::string::npos) << AWhat;
    for (unsigned threads : {0u, 1u, 3u}) {
      const THuntOutput byChunk = Hunt(options, true, threads);
      EXPECT_EQ(byEvent.Status, byChunk.Status) << AWhat << ", threads " << threads;
      EXPECT_TRUE(byEvent.Out == byChunk.Out) << AWhat << ", format " << static_cast<int>(format) << ", threads "
                                              << threads;
      EXPECT_EQ(byEvent.Err, byChunk.Err) << AWhat << ", threads " << threads;
    }
  }
}

class HuntByChunk : public ::testing::Test {
protected:
  void SetUp() override {
    FDir = test::ScratchDir();
    std::FILE* sink = std::tmpfile();
    ASSERT_EQ(app::RunDemo((FDir / "many.evtx").string(), 4000, false, sink, sink), 0);
    std::fclose(sink);
    // The magic of a record in the middle of the second chunk: the walk stops there.
    std::string data;
    {
      std::ifstream in(FDir / "many.evtx", std::ios::binary);
      data.assign(std::istreambuf_iterator<char>(in), {});
    }
    ASSERT_GT(data.size(), 4096u + 3 * 65536u);
    const size_t at = data.find(std::string("\x2a\x2a\x00\x00", 4), 4096 + 65536 + 512 + 20000);
    ASSERT_NE(at, std::string::npos);
    data.replace(at, 4, "XXXX");
    std::ofstream(FDir / "damaged.evtx", std::ios::binary) << data;
    WriteRules(FDir / "rules");
    FOptions.Rules = {(FDir / "rules").string()};
    FOptions.TimeZone = "UTC";
    FOptions.Width = 160;
    FOptions.RuleCache = false;
  }

  fs::path FDir;
  app::THuntOptions FOptions;
};

TEST_F(HuntByChunk, MultiChunkLogSameAsByEvent) {
  FOptions.Inputs = {(FDir / "many.evtx").string()};
  ExpectSameByChunk(FOptions, "many chunks");
}

TEST_F(HuntByChunk, DamagedLogSameAsByEvent) {
  FOptions.Inputs = {(FDir / "damaged.evtx").string()};
  const THuntOutput run = Hunt(FOptions, true, 1);
  EXPECT_NE(run.Err.find("problem"), std::string::npos) << run.Err;
  ExpectSameByChunk(FOptions, "damaged");
}

TEST_F(HuntByChunk, SeveralLogsSameAsByEvent) {
  // The threads' hunters go on from file to file; the lines keep the files' order.
  FOptions.Inputs = {(FDir / "many.evtx").string(), (FDir / "damaged.evtx").string(),
                     (FDir / "many.evtx").string()};
  ExpectSameByChunk(FOptions, "several logs");
}

TEST_F(HuntByChunk, SigmaRulesSameAsByEvent) {
  if (test::SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  FOptions.Rules = {(test::SigmaDir() / "rules" / "windows").string()};
  FOptions.Inputs = {(FDir / "damaged.evtx").string()};
  for (const fs::path& sample : test::SampleFiles("evtx", ".evtx"))
    if (fs::file_size(sample) < 4 * 1024 * 1024 && FOptions.Inputs.size() < 40)
      FOptions.Inputs.push_back(sample.string());
  ExpectSameByChunk(FOptions, "Sigma rules");
}

// Events read one by one and tested by hunter threads (the reader making lists ready
// while it waits for them) give what testing them as they are read gives, with the
// Windows rule set and its cache (its lists made by two threads at once).
TEST_F(HuntByChunk, HunterThreadsByEventSameAsAlone) {
  if (test::SigmaDir().empty()) GTEST_SKIP() << "no Sigma rules beside the repository";
  FOptions.Rules = {(test::SigmaDir() / "rules" / "windows").string()};
  FOptions.Inputs = {(FDir / "many.evtx").string(), (FDir / "damaged.evtx").string()};
  FOptions.RuleCache = true;
  const std::string cacheHome = (FDir / "cache-home").string();
  const char* before = std::getenv("XDG_CACHE_HOME");
  const std::string saved = before ? before : "";
  ::setenv("XDG_CACHE_HOME", cacheHome.c_str(), 1);
  const THuntOutput alone = Hunt(FOptions, false, 0); // (writes the cache)
  EXPECT_NE(alone.Err.find("detection"), std::string::npos) << alone.Err;
  EXPECT_FALSE(fs::is_empty(fs::path(cacheHome) / "quorvex")); // (the runs below take the rules from it)
  for (int round = 0; round < 2; ++round)
    for (unsigned threads : {1u, 3u})
      for (bool byChunk : {false, true}) {
        const THuntOutput run = Hunt(FOptions, byChunk, threads);
        EXPECT_EQ(run.Status, alone.Status) << threads << " threads";
        EXPECT_TRUE(run.Out == alone.Out) << threads << " threads, by chunk " << byChunk;
        EXPECT_EQ(run.Err, alone.Err) << threads << " threads, by chunk " << byChunk;
      }
  if (before)
    ::setenv("XDG_CACHE_HOME", saved.c_str(), 1);
  else
    ::unsetenv("XDG_CACHE_HOME");
}

// The rules load while the inputs are opened and read: a load that fails is all the run
// says (nothing an input said meanwhile, no detection), however the events are read.
TEST_F(HuntByChunk, AFailedRuleLoadIsAllTheRunSays) {
  const fs::path unusable = FDir / "unusable";
  fs::create_directories(unusable);
  std::ofstream(unusable / "linux.yml") << "title: Not Windows\nlogsource: {product: linux}\n"
                                           "detection:\n  a: {b: c}\n  condition: a\n";
  const std::string missingRules = (FDir / "no-rules").string();
  const std::string missingLog = (FDir / "absent.evtx").string();
  FOptions.Inputs = {missingLog, (FDir / "damaged.evtx").string(), (FDir / "many.evtx").string()};
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{missingRules}, "quorvex: " + missingRules + ": no such rule file or folder\n"},
      {{(FDir / "rules").string(), missingRules}, "quorvex: " + missingRules + ": no such rule file or folder\n"},
      {{unusable.string()}, "1 rule could not be used:\n  " + (unusable / "linux.yml").string() +
                                ": the log source product 'linux' is not windows\nquorvex: no rule to hunt with\n"},
  };
  for (const auto& [rules, said] : cases)
    for (const bool byChunk : {false, true})
      for (const unsigned threads : {0u, 1u, 3u}) {
        app::THuntOptions options = FOptions;
        options.Rules = rules;
        const THuntOutput run = Hunt(options, byChunk, threads);
        EXPECT_EQ(run.Status, 1);
        EXPECT_EQ(run.Out, "");
        EXPECT_EQ(run.Err, said) << rules[0] << ", threads " << threads;
      }
  // With usable rules, what the inputs said while the rules loaded comes first, in order.
  for (const unsigned threads : {0u, 1u, 3u}) {
    const THuntOutput run = Hunt(FOptions, true, threads);
    EXPECT_EQ(run.Status, 1);
    EXPECT_EQ(run.Err.rfind("quorvex: " + missingLog + ": reading stopped", 0), 0u) << run.Err;
    const size_t problems = run.Err.find((FDir / "damaged.evtx").string() + ": ");
    const size_t summary = run.Err.find("hunt: ");
    EXPECT_NE(problems, std::string::npos) << run.Err;
    EXPECT_LT(problems, summary) << run.Err;
    EXPECT_NE(run.Out, "");
  }
}

} // namespace
} // namespace qvx
