#include "hunt/hunt_fixture.h"

#include "engine/event_log_binxml.h"
#include "support/evtx_fixtures.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace qvx::test {

TEvtxEventDraft HuntEvent(const std::string& AChannel, uint16_t AEventId, const TDataList& AData,
                          const std::string& AProvider) {
  TEvtxEventDraft e;
  e.FProviderName = AProvider;
  e.FEventId = AEventId;
  e.FLevel = 4;
  e.FTimeCreated = EvtxFileTime(2024, 5, 6, 7, 8, 9);
  e.FProcessId = 4;
  e.FThreadId = 8;
  e.FChannel = AChannel;
  e.FComputer = "WS-HUNT-01.corp.example";
  e.FUserId = "S-1-5-18";
  for (const auto& [name, value] : AData) e.FData.push_back({name, TEvtxValue::String(value)});
  return e;
}

TEvtxEventDraft ProcessEvent(const std::string& AImage, const std::string& ACommandLine, const TDataList& AExtra) {
  TDataList data{{"Image", AImage}, {"CommandLine", ACommandLine}};
  data.insert(data.end(), AExtra.begin(), AExtra.end());
  return HuntEvent(kSysmonChannel, 1, data);
}

std::string RuleText(const std::string& ADetection, const std::string& ALogSource) {
  return "title: Test Rule\n"
         "id: 00000000-0000-0000-0000-000000000001\n"
         "author: Test Author\n"
         "status: test\n"
         "level: high\n"
         "logsource:\n" +
         ALogSource + "detection:\n" + ADetection;
}

namespace {

void HuntInto(const hunt::TRuleSet& ARules, const std::filesystem::path& AFile,
              const std::function<void(TEventItemX&, std::span<const hunt::TDetection>)>& AEach) {
  TEventLogBinXML source;
  source.SetTimeShift(2, 0, "UTC");
  source.SetBackupFileName(AFile.string());
  source.SetActive(true);
  hunt::THunter hunter(ARules);
  while (TEventItemBase* item = source.EventNext()) {
    if (item == TEventLogX::UndeliverableMarker()) continue;
    auto& x = static_cast<TEventItemX&>(*item);
    AEach(x, hunter.Test(x.FChannel, x.FEventID, x.FEvtXML));
  }
}

} // namespace

THuntOutcome Hunt(const std::vector<std::string>& ARules, const std::vector<TEvtxEventDraft>& AEvents) {
  hunt::TRuleSet rules;
  for (size_t i = 0; i < ARules.size(); ++i) rules.LoadText(ARules[i], "rule" + std::to_string(i + 1) + ".yml");
  TEvtxFileWriter writer;
  for (const TEvtxEventDraft& event : AEvents) writer.AddEvent(event);
  const std::string path = WriteTempFile("hunt.evtx", writer.Bytes());
  THuntOutcome outcome;
  outcome.Unusable = rules.Unusable();
  HuntInto(rules, path, [&](TEventItemX& AItem, std::span<const hunt::TDetection> ADetections) {
    for (const hunt::TDetection& detection : ADetections) {
      outcome.Records.push_back(AItem.FEventRecordID);
      auto& matched = outcome.Matched.emplace_back();
      for (const auto& [name, value] : detection.Matched) matched.emplace_back(name, value);
    }
  });
  for (const auto& rule : rules.Rules()) outcome.RegexLimitHits += rule->RegexLimitHits;
  return outcome;
}

bool Matches(const std::string& ARule, const TEvtxEventDraft& AEvent) {
  const THuntOutcome outcome = Hunt({ARule}, {AEvent});
  EXPECT_TRUE(outcome.Unusable.empty()) << (outcome.Unusable.empty() ? "" : outcome.Unusable[0].Reason);
  return !outcome.Records.empty();
}

std::vector<std::string> HuntFile(const hunt::TRuleSet& ARules, const std::filesystem::path& AFile) {
  std::vector<std::string> ids;
  HuntInto(ARules, AFile, [&](TEventItemX&, std::span<const hunt::TDetection> ADetections) {
    for (const hunt::TDetection& detection : ADetections) ids.push_back(detection.Rule->Id);
  });
  return ids;
}

std::filesystem::path SigmaDir() {
  const char* over = std::getenv("QVX_SIGMA_DIR");
  std::filesystem::path dir = over && *over ? over : QVX_SIGMA_DIR;
  std::error_code error;
  return std::filesystem::is_directory(dir / "rules" / "windows", error) ? dir : std::filesystem::path();
}

} // namespace qvx::test
