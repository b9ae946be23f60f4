// quorvex hunt: every event of the inputs tested against Sigma rules.
#include "app/hunt_command.h"

#include "app/classic_events.h"
#include "app/commands.h"
#include "app/progress.h"
#include "app/text_table.h"

#include "engine/classic_log.h"
#include "engine/event_log_binxml.h"
#include "engine/evtx/chunk_reader.h"
#include "engine/event_xml.h"
#include "engine/record_fields.h"
#include "images/evidence_image.h"
#include "platform/nt_exception.h"
#include "platform/raw_file.h"
#include "platform/worker_thread.h"
#include "view/detection_store.h"
#include "view/evt_lite_adaptor.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <unordered_map>
#include <mutex>
#include <optional>
#include <utility>

namespace qvx::app {

using namespace qvx::hunt;

namespace {

// A rule set for the options given, not loaded yet.
std::unique_ptr<TRuleSet> MakeHuntRules(const std::string& AMinLevel, const std::vector<std::string>& AStatuses,
                                        bool ARuleCache) {
  TRuleFilter filter;
  if (!ParseLevel(AMinLevel, filter.MinLevel))
    throw std::runtime_error("--min-level " + AMinLevel + ": not a level (informational, low, medium, high, critical)");
  static const char* const kStatuses[] = {"stable", "test", "experimental", "deprecated", "unsupported"};
  for (const std::string& status : AStatuses) {
    std::string folded = FoldText(status);
    if (std::find_if(std::begin(kStatuses), std::end(kStatuses), [&](const char* s) { return folded == s; }) ==
        std::end(kStatuses))
      throw std::runtime_error("--status " + status + ": not a rule status (stable, test, experimental, deprecated, "
                               "unsupported)");
    filter.Statuses.push_back(std::move(folded));
  }
  auto rules = std::make_unique<TRuleSet>(filter);
  if (ARuleCache) rules->SetCacheFolder(TRuleCache::DefaultFolder());
  return rules;
}

} // namespace

std::unique_ptr<TRuleSet> LoadHuntRules(const std::vector<std::string>& APaths, const std::string& AMinLevel,
                                        const std::vector<std::string>& AStatuses, bool ARuleCache) {
  std::unique_ptr<TRuleSet> rules = MakeHuntRules(AMinLevel, AStatuses, ARuleCache);
  for (const std::string& path : APaths) rules->LoadPath(path);
  return rules;
}

void PrintUnusableRules(const TRuleSet& ARules, std::FILE* AErr) {
  for (const std::string& note : ARules.CacheNotes()) std::fprintf(AErr, "rule cache: %s\n", note.c_str());
  const auto& unusable = ARules.Unusable();
  if (unusable.empty()) return;
  std::fprintf(AErr, "%zu rule%s could not be used:\n", unusable.size(), unusable.size() == 1 ? "" : "s");
  for (const TUnusableRule& rule : unusable) std::fprintf(AErr, "  %s\n", rule.Reason.c_str());
}

namespace {

bool IsStoreFile(const std::string& APath) {
  try {
    const std::unique_ptr<TReadStream> file = OpenReadStream(APath);
    char header[16] = {};
    return file->ReadAt(0, header, 16) == 16 && std::memcmp(header, "SQLite format 3", 16) == 0;
  } catch (const std::exception&) {
    return false;
  }
}

// What a detection line says about its event.
struct TEventInfo {
  uint64_t Record = 0;
  uint32_t EventId = 0;
  std::string Time;     // as shown (table, CSV)
  std::string TimeIso;  // with 'T' and the zone offset (JSON Lines)
  std::string_view Computer;
  std::string_view Channel;
  const std::string* File = nullptr;
};

std::string_view ElementText(std::string_view AXml, std::string_view AOpen, std::string_view AClose) {
  const size_t start = AXml.find(AOpen);
  if (start == std::string_view::npos) return {};
  const size_t from = start + AOpen.size();
  const size_t end = AXml.find(AClose, from);
  return end == std::string_view::npos ? std::string_view() : AXml.substr(from, end - from);
}

// "Field=value; Field=value" (keyword hits as the field they were found in).
void MatchedShort(const TDetection& ADetection, std::string& AOut) {
  AOut.clear();
  for (const auto& [name, value] : ADetection.Matched) {
    if (!AOut.empty()) AOut.append("; ");
    AOut.append(name).append("=").append(value.substr(0, 512));
  }
}

// "Field":"value" pairs; a field matched with several values gets a list.
void AppendMatchedJson(std::string& AOut, const TDetection& ADetection) {
  const auto& matched = ADetection.Matched;
  bool first = true;
  for (size_t i = 0; i < matched.size(); ++i) {
    bool seen = false;
    for (size_t j = 0; j < i && !seen; ++j) seen = matched[j].first == matched[i].first;
    if (seen) continue;
    size_t count = 0;
    for (size_t j = i; j < matched.size(); ++j) count += matched[j].first == matched[i].first;
    if (!first) AOut.push_back(',');
    first = false;
    AppendJsonString(AOut, matched[i].first);
    AOut.push_back(':');
    if (count == 1) {
      AppendJsonString(AOut, matched[i].second);
      continue;
    }
    AOut.push_back('[');
    bool firstValue = true;
    for (size_t j = i; j < matched.size(); ++j) {
      if (matched[j].first != matched[i].first) continue;
      if (!firstValue) AOut.push_back(',');
      firstValue = false;
      AppendJsonString(AOut, matched[j].second);
    }
    AOut.push_back(']');
  }
}

// The lines of JSON Lines or CSV of the detections of one event after another: what a
// line takes from its rule is made once per rule, and what it takes from its event once
// per event.
class TDetectionLines {
public:
  explicit TDetectionLines(TOutputFormat AFormat) : FFormat(AFormat) {}
  // The event the next lines are about.
  void Event(const TEventInfo& AInfo) {
    FHead.clear();
    FTail.clear();
    const std::string record = std::to_string(AInfo.Record), eventId = std::to_string(AInfo.EventId);
    if (FFormat == TOutputFormat::ofJsonl) {
      FTail.append(record).append(",\"event_id\":").append(eventId).append(",\"time\":");
      AppendJsonString(FTail, AInfo.TimeIso);
      FTail.append(",\"computer\":");
      AppendJsonString(FTail, AInfo.Computer);
      FTail.append(",\"channel\":");
      AppendJsonString(FTail, AInfo.Channel);
      FTail.append(",\"file\":");
      AppendJsonString(FTail, *AInfo.File);
      FTail.append(",\"matched\":{");
      return;
    }
    AppendCsvField(FHead, AInfo.Time);
    AppendCsvField(FTail, AInfo.Computer);
    FTail.append(",").append(eventId).append(",").append(record);
    FTail.push_back(',');
    AppendCsvField(FTail, AInfo.Channel);
    FTail.push_back(',');
    AppendCsvField(FTail, *AInfo.File);
    FTail.push_back(',');
  }
  // A detection's line (JSON Lines or CSV) about the event given last.
  void Append(std::string& AOut, const TDetection& ADetection) {
    AOut.append(FHead).append(RulePart(*ADetection.Rule)).append(FTail);
    if (FFormat == TOutputFormat::ofJsonl) {
      AppendMatchedJson(AOut, ADetection);
      AOut.append("}}\n");
      return;
    }
    MatchedShort(ADetection, FCell);
    AppendCsvField(AOut, FCell);
    AOut.append("\r\n");
  }

private:
  const std::string& RulePart(const TSigmaRule& ARule) {
    auto [at, added] = FRules.try_emplace(&ARule);
    if (!added) return at->second;
    std::string& text = at->second;
    if (FFormat == TOutputFormat::ofJsonl) {
      text.append("{\"rule_id\":");
      AppendJsonString(text, ARule.Id);
      text.append(",\"rule_title\":");
      AppendJsonString(text, ARule.Title);
      text.append(",\"rule_author\":");
      AppendJsonString(text, ARule.Author);
      text.append(",\"level\":");
      AppendJsonString(text, LevelName(ARule.Level));
      text.append(",\"status\":");
      AppendJsonString(text, ARule.Status);
      text.append(",\"tags\":[");
      for (size_t i = 0; i < ARule.Tags.size(); ++i) {
        if (i) text.push_back(',');
        AppendJsonString(text, ARule.Tags[i]);
      }
      text.append("],\"record\":");
      return text;
    }
    text.push_back(',');
    AppendCsvField(text, LevelName(ARule.Level));
    for (const std::string* field : {&ARule.Title, &ARule.Author, &ARule.Id}) {
      text.push_back(',');
      AppendCsvField(text, *field);
    }
    text.push_back(',');
    return text;
  }

  TOutputFormat FFormat;
  std::unordered_map<const TSigmaRule*, std::string> FRules; // what a line takes from each rule
  std::string FHead, FTail; // what it takes from the event, before and after the rule's part
  std::string FCell;
};

// What a detection line says about the event handed out last by its source.
void FillEventInfo(const TEventRow& ARow, const std::string& APath, TEventInfo& AInfo) {
  AInfo.Record = ARow.RecordId;
  AInfo.EventId = ARow.EventId;
  const TEventLogBase* owner = ARow.Owner;
  AppendDayCountText(AInfo.Time, owner ? owner->ConvertTime(ARow.TimeGenerated) : ARow.TimeGenerated);
  AppendDayCountText(AInfo.TimeIso, owner ? owner->ConvertTime(ARow.TimeGenerated) : ARow.TimeGenerated, 'T');
  AppendOffsetText(AInfo.TimeIso, owner ? owner->ShiftMinutesAt(ARow.TimeGenerated) : 0);
  AInfo.Computer = ARow.Computer;
  AInfo.Channel = ARow.Channel;
  AInfo.File = &APath;
}

void FillEventInfo(const TEventItemX& AItem, const std::string& APath, TEventInfo& AInfo) {
  AInfo.Record = AItem.FEventRecordID;
  AInfo.EventId = AItem.FEventID;
  AppendDayCountText(AInfo.Time, AItem.GetTimeGenerated());
  AppendDayCountText(AInfo.TimeIso, AItem.GetTimeGenerated(), 'T');
  const TEventLogBase* owner = AItem.Owner();
  AppendOffsetText(AInfo.TimeIso, owner ? owner->ShiftMinutesAt(AItem.FTimeGenerated) : 0);
  AInfo.Computer = AItem.FComputername;
  AInfo.Channel = AItem.FChannel;
  AInfo.File = &APath;
}

// An event read ahead of the hunters, with what a detection line says about it.
struct TPendingEvent {
  std::string Xml, Channel, Computer;
  TNamedValues Named; // the event's (name, value) pairs when it came without its XML
  bool HasNamed = false;
  uint64_t Record = 0;
  uint32_t EventId = 0;
  double Time = 0; // as shown
  int Shift = 0;   // minutes east of UTC at that time
};

struct TFoundDetection {
  size_t Event = 0; // in its batch
  const TSigmaRule* Rule = nullptr;
  std::vector<std::pair<std::string, std::string>> Matched;
};

struct THuntBatch {
  static constexpr size_t kEvents = 256;
  const std::string* File = nullptr;
  std::vector<TPendingEvent> Events; // the first Count are this batch's (the others keep their room)
  size_t Count = 0;
  std::vector<TFoundDetection> Found;
  bool Done = false;
  bool Failed = false;
};

// The rule set loading on a thread of its own while the inputs are opened and their first
// events read: whatever needs the rules waits for it.
class TRuleLoad {
public:
  TRuleLoad(TRuleSet& ARules, const std::vector<std::string>& APaths) : FRules(ARules) {
    FThread.emplace([this, APaths] {
      try {
        for (const std::string& path : APaths) FRules.LoadPath(path);
      } catch (const std::exception& e) {
        FError = e.what();
      } catch (...) {
        FError = "the rules could not be loaded";
      }
      FDone.store(true, std::memory_order_release);
    });
  }
  ~TRuleLoad() { Wait(); }
  TRuleLoad(const TRuleLoad&) = delete;
  TRuleLoad& operator=(const TRuleLoad&) = delete;

  // Waits for the load (on any thread); false when the rules cannot be hunted with: the
  // load failed (Error() says why) or no rule can be used.
  bool Wait() {
    std::call_once(FJoined, [this] { FThread->Join(); });
    return FError.empty() && !FRules.Rules().empty();
  }
  bool Done() const { return FDone.load(std::memory_order_acquire); }
  // Why the load failed (after Wait); empty when it did not.
  const std::string& Error() const { return FError; }

private:
  TRuleSet& FRules;
  std::string FError;
  std::atomic<bool> FDone{false};
  std::once_flag FJoined;
  std::optional<TWorkerThread> FThread;
};

// Thrown on the reading thread when the rules turn out not to be usable: the run is given up.
struct THuntAbort {};

// Hunter threads: the reader fills batches of events in turn, each thread tests whole
// batches with its own hunter (the prepared rule set is shared), and the reader writes
// the detections of the batches in the order it read them. A ring of batches bounds the
// memory: the reader waits for the oldest one when every batch is in use.
class THuntPool {
public:
  // The rule set is prepared by the first hunter to test an event, while the reader
  // starts on the log (preparing it uses one core, and the reader the other); a reader
  // that would wait for the hunters makes lists ready meanwhile (PrepareAhead).
  THuntPool(const TRuleSet& ARules, TRuleLoad& ALoad, unsigned AThreads)
      : FRing(2 * AThreads + 2), FRules(ARules), FLoad(ALoad) {
    for (unsigned i = 0; i < AThreads; ++i) FHunters.push_back(std::make_unique<THunter>(ARules));
    for (unsigned i = 0; i < AThreads; ++i) FThreads.emplace_back([this, i] { Work(*FHunters[i]); });
  }
  ~THuntPool() {
    {
      std::lock_guard<std::mutex> lock(FMutex);
      FStop = true;
    }
    FWorkReady.notify_all();
    for (TWorkerThread& thread : FThreads) thread.Join();
  }
  THuntPool(const THuntPool&) = delete;
  THuntPool& operator=(const THuntPool&) = delete;

  // The batch being filled; null when the oldest batch must be written first (Oldest).
  THuntBatch* Filling() { return FFill - FWritten < FRing.size() ? &FRing[FFill % FRing.size()] : nullptr; }
  // Hands the batch being filled to the hunters.
  void Submit() {
    {
      std::lock_guard<std::mutex> lock(FMutex);
      ++FFill;
    }
    FWorkReady.notify_one();
  }
  // The oldest batch not yet written, once tested; null when there is none. Release it
  // after writing it.
  THuntBatch* Oldest() {
    if (FWritten == FFill) return nullptr;
    THuntBatch& batch = FRing[FWritten % FRing.size()];
    if (!FAheadDone) {
      // (The batch is tested once the rules are loaded: waiting for them comes first anyway.)
      bool done;
      {
        std::lock_guard<std::mutex> lock(FMutex);
        done = batch.Done;
      }
      if (!done && FLoad.Wait()) PrepareAhead();
    }
    std::unique_lock<std::mutex> lock(FMutex);
    FBatchDone.wait(lock, [&] { return batch.Done; });
    return &batch;
  }
  void Release(THuntBatch& ABatch) {
    ABatch.Count = 0;
    ABatch.Done = false;
    ABatch.Failed = false;
    ++FWritten;
  }
  uint64_t EventsRead() const {
    uint64_t n = 0;
    for (const auto& hunter : FHunters) n += hunter->EventsRead();
    return n;
  }
  uint64_t EventsTested() const {
    uint64_t n = 0;
    for (const auto& hunter : FHunters) n += hunter->EventsTested();
    return n;
  }

private:
  // Instead of waiting for the hunters, the reader makes ready the lists that the events
  // of the batches handed over need and no hunter has started on (the rules are loaded),
  // until it finds them all ready. (The hunters only read the batches' events too.)
  void PrepareAhead() {
    FKinds.clear();
    for (size_t b = FWritten; b < FFill; ++b) {
      const THuntBatch& batch = FRing[b % FRing.size()];
      for (size_t i = 0; i < batch.Count; ++i) {
        const TPendingEvent& event = batch.Events[i];
        if (std::none_of(FKinds.begin(), FKinds.end(), [&](const TRuleSet::TEventKind& A) {
              return A.EventId == event.EventId && A.Channel == event.Channel;
            }))
          FKinds.push_back({event.Channel, event.EventId});
      }
    }
    FAheadDone = FRules.PrepareAhead(FKinds);
  }

  void Work(THunter& AHunter) {
    for (;;) {
      THuntBatch* batch = nullptr;
      {
        std::unique_lock<std::mutex> lock(FMutex);
        FWorkReady.wait(lock, [&] { return FStop || FTaken < FFill; });
        if (FTaken == FFill) return;
        batch = &FRing[FTaken++ % FRing.size()];
      }
      try {
        batch->Found.clear();
        // (Rules that cannot be used test nothing: the reader gives the run up.)
        const size_t count = FLoad.Wait() ? batch->Count : 0;
        for (size_t i = 0; i < count; ++i) {
          const TPendingEvent& event = batch->Events[i];
          const auto detections = event.HasNamed ? AHunter.Test(event.Channel, event.EventId, event.Named)
                                                 : AHunter.Test(event.Channel, event.EventId, event.Xml);
          for (const TDetection& detection : detections) {
            TFoundDetection& found = batch->Found.emplace_back();
            found.Event = i;
            found.Rule = detection.Rule;
            for (const auto& [name, value] : detection.Matched) found.Matched.emplace_back(name, value);
          }
        }
      } catch (...) {
        batch->Failed = true; // out of memory: the reader reports it
      }
      {
        std::lock_guard<std::mutex> lock(FMutex);
        batch->Done = true;
      }
      FBatchDone.notify_all();
    }
  }

  std::vector<THuntBatch> FRing;
  const TRuleSet& FRules;
  TRuleLoad& FLoad;
  bool FAheadDone = false; // (reader) the lists of the kinds of events met were all ready
  std::vector<TRuleSet::TEventKind> FKinds; // (reader) of the batches in flight
  std::vector<std::unique_ptr<THunter>> FHunters;
  std::vector<TWorkerThread> FThreads;
  std::mutex FMutex;
  std::condition_variable FWorkReady, FBatchDone;
  size_t FFill = 0;    // batches handed over (reader)
  size_t FTaken = 0;   // batches taken by a hunter (under FMutex)
  size_t FWritten = 0; // batches written (reader)
  bool FStop = false;
};

class THuntRun {
public:
  // While ALoad runs, what the run says on AErr is held back (in a temporary file) and
  // said once the rules are loaded, so that a load that fails is all the run says.
  THuntRun(const THuntOptions& AOptions, const TRuleSet& ARules, TRuleLoad& ALoad, std::FILE* AOut, std::FILE* AErr)
      : FOptions(AOptions), FRules(ARules), FLoad(ALoad), FHunter(ARules), FOut(AOut), FErr(AErr), FRealErr(AErr),
        FTable(FBuffer,
               {{"Time"}, {"Level"}, {"Rule (author)", false, 4}, {"Computer", false, 0, 2}, {"ID", true},
                {"Matched", false, 5, 1}},
               AOptions.Width ? AOptions.Width : TerminalWidth(AOut)),
        FLines(AOptions.Format) {
    if (AOptions.Format == TOutputFormat::ofCsv)
      FBuffer.append("time,level,rule_title,rule_author,rule_id,computer,event_id,record,channel,file,matched\r\n");
    if (!FLoad.Done() && (FHeld = std::tmpfile()) != nullptr) FErr = FHeld;
    else Ready();
  }
  ~THuntRun() {
    if (FHeld) std::fclose(FHeld);
  }

  void Input(const std::string& APath) {
    // A folder stands for its logs, a disk image for those of its installation (and of
    // its shadow copies).
    std::optional<TImageLogs> expanded;
    try {
      if (!FOptions.Scan) expanded = ExpandInput(APath, FOptions.Shadows);
    } catch (const std::exception& e) {
      Fail(e.what());
      return;
    }
    if (!expanded) {
      File(APath);
      return;
    }
    for (const std::string& problem : expanded->Problems) Fail(problem);
    for (const std::string& log : expanded->Logs) File(log);
  }

  // The closing summary; false when the output could not be written.
  bool Finish() {
    Ready();
    WritePending();
    if (FOptions.Format == TOutputFormat::ofTable) FTable.Finish();
    const bool written = Flush() && std::fflush(FOut) == 0;
    if (FOptions.Quiet) return written;
    std::fprintf(FErr, "hunt: %llu detection%s in %llu events read (%llu tested against %zu rules)\n",
                 static_cast<unsigned long long>(FDetections), FDetections == 1 ? "" : "s",
                 static_cast<unsigned long long>(EventsRead()), static_cast<unsigned long long>(EventsTested()),
                 FRules.Rules().size());
    if (FDetections) {
      std::fputs("By level:\n", FErr);
      for (int level = slCritical; level >= slInformational; --level)
        if (FByLevel[level])
          std::fprintf(FErr, "  %-14s %10llu\n", LevelName(static_cast<TSigmaLevel>(level)),
                       static_cast<unsigned long long>(FByLevel[level]));
      std::vector<std::pair<const TSigmaRule*, uint64_t>> rules(FByRule.begin(), FByRule.end());
      std::sort(rules.begin(), rules.end(), [](const auto& A, const auto& B) {
        if (A.first->Level != B.first->Level) return A.first->Level > B.first->Level;
        if (A.second != B.second) return A.second > B.second;
        return A.first->Title < B.first->Title;
      });
      std::fputs("By rule:\n", FErr);
      for (const auto& [rule, count] : rules)
        std::fprintf(FErr, "  %-13s %8llu  %s (%s)\n", LevelName(rule->Level), static_cast<unsigned long long>(count),
                     rule->Title.c_str(), rule->Author.c_str());
    }
    for (const auto& rule : FRules.Rules())
      if (rule->RegexLimitHits)
        std::fprintf(FErr, "%s: a regular expression reached its match limits %llu time%s (counted as no match)\n",
                     rule->File.c_str(), static_cast<unsigned long long>(rule->RegexLimitHits),
                     rule->RegexLimitHits == 1 ? "" : "s");
    PrintUnusableRules(FRules, FErr);
    return written;
  }

  int Status() const { return FStatus; }

private:
  uint64_t EventsRead() const {
    uint64_t n = FHunter.EventsRead() + (FPool ? FPool->EventsRead() : 0);
    for (const auto& hunter : FChunkHunters) n += hunter->Hunter.EventsRead();
    return n;
  }
  uint64_t EventsTested() const {
    uint64_t n = FHunter.EventsTested() + (FPool ? FPool->EventsTested() : 0);
    for (const auto& hunter : FChunkHunters) n += hunter->Hunter.EventsTested();
    return n;
  }

private:
  // The rules are loaded: what was held back goes out and the run goes on, or is given up
  // (THuntAbort) when the rules cannot be used. On the reading thread.
  void Ready() {
    if (FOpen) return;
    if (!FLoad.Wait()) throw THuntAbort{};
    FOpen = true;
    if (FHeld) {
      std::rewind(FHeld);
      char bytes[4096];
      for (size_t got; (got = std::fread(bytes, 1, sizeof bytes, FHeld)) > 0;) std::fwrite(bytes, 1, got, FRealErr);
      std::fclose(FHeld);
      FHeld = nullptr;
    }
    FErr = FRealErr;
  }
  // Ready once the load has ended (a check per event read, not a wait).
  void Poll() {
    if (!FOpen && FLoad.Done()) [[unlikely]]
      Ready();
  }

  void Fail(const std::string& AText) {
    std::fprintf(FErr, "quorvex: %s\n", AText.c_str());
    FStatus = 1;
  }

  void File(const std::string& APath) {
    try {
      if (FOptions.Scan)
        Scan(APath);
      else if (IsStoreFile(APath))
        Store(APath);
      else if (IsClassicLog(APath))
        Classic(APath);
      else
        Evtx(APath);
    } catch (const std::exception& e) {
      Fail(APath + ": reading stopped: " + e.what());
    }
    WritePending();
  }

  // The detections of the events handed to the hunter threads, in reading order.
  void WritePending() {
    if (!FPool) return;
    if (THuntBatch* batch = FPool->Filling(); batch && batch->Count) FPool->Submit();
    while (THuntBatch* batch = FPool->Oldest()) WriteBatch(*batch);
  }

  void WriteBatch(THuntBatch& ABatch) {
    if (ABatch.Failed && FStatus == 0) Fail(*ABatch.File + ": testing events stopped: out of memory");
    TDetection detection;
    for (size_t i = 0; i < ABatch.Found.size();) {
      const TPendingEvent& event = ABatch.Events[ABatch.Found[i].Event];
      TEventInfo info;
      info.Record = event.Record;
      info.EventId = event.EventId;
      AppendDayCountText(info.Time, event.Time);
      AppendDayCountText(info.TimeIso, event.Time, 'T');
      AppendOffsetText(info.TimeIso, event.Shift);
      info.Computer = event.Computer;
      info.Channel = event.Channel;
      info.File = ABatch.File;
      Event(info);
      for (; i < ABatch.Found.size() && &ABatch.Events[ABatch.Found[i].Event] == &event; ++i) {
        const TFoundDetection& found = ABatch.Found[i];
        detection.Rule = found.Rule;
        detection.Matched.clear();
        for (const auto& [name, value] : found.Matched) detection.Matched.emplace_back(name, value);
        Write(detection, info);
      }
    }
    FPool->Release(ABatch);
  }

  // Hands the event to the hunter threads (taking its XML).
  void Queue(TEventItemX& AItem, const std::string& APath, TNamedValues* ANamed) {
    THuntBatch* batch = FPool->Filling();
    if (batch && batch->Count && batch->File != &APath) {
      FPool->Submit();
      batch = FPool->Filling();
    }
    while (!batch) {
      WriteBatch(*FPool->Oldest());
      batch = FPool->Filling();
    }
    batch->File = &APath;
    if (batch->Events.size() <= batch->Count) batch->Events.emplace_back();
    TPendingEvent& event = batch->Events[batch->Count++];
    event.Xml.swap(AItem.FEvtXML); // the readers write each event's XML afresh: the old room is reused
    event.HasNamed = ANamed != nullptr;
    if (ANamed) ANamed->Swap(event.Named); // the same for the pairs
    event.Channel.assign(AItem.FChannel);
    event.Computer.assign(AItem.FComputername);
    event.Record = AItem.FEventRecordID;
    event.EventId = AItem.FEventID;
    event.Time = AItem.GetTimeGenerated();
    const TEventLogBase* owner = AItem.Owner();
    event.Shift = owner ? owner->ShiftMinutesAt(AItem.FTimeGenerated) : 0;
    if (batch->Count == THuntBatch::kEvents) FPool->Submit();
  }

  void ReadSource(TEventLogBinXML& ASource, const std::string& APath) {
    while (TEventItemBase* item = ASource.EventNext()) {
      if (item == TEventLogX::UndeliverableMarker()) continue;
      Test(static_cast<TEventItemX&>(*item), APath, ASource.NamedValues());
    }
    ReportIssues(ASource.IssueList(), APath);
  }

  void Evtx(const std::string& APath) {
    bool scan = false;
    const std::unique_ptr<TEventLogBinXML> source =
        OpenEvtxLog(APath, FOptions.TimeZone, FOptions.Threads, nullptr, FErr, scan);
    // Rules read the event's values by name: its data strings and description are not
    // made, nor its XML when its values can be read straight from the binary XML.
    source->SetSystemFieldsOnly(true);
    source->SetNamedValues(true);
    source->SetTaskAndUserNames(false); // no detection line shows them
#ifndef _WIN32 // there, the system's own metadata is looked up per source, as events does
    if (FOptions.ByChunk && !scan && source->EvtxFile()) {
      EvtxByChunk(*source, APath);
      return;
    }
#endif
    ReadSource(*source, APath);
  }

  // As ReadSource, with the work spread by chunk instead of by stage: each thread renders
  // a chunk, reads its events' values, tests them with a hunter of its own and makes the
  // chunk's detection lines; this thread writes them in the chunks' order and counts them.
  // The output is the same.
  static constexpr unsigned kQuietChunks = 16;

  void EvtxByChunk(TEventLogBinXML& ASource, const std::string& APath) {
    Ready(); // (every thread tests what it renders)
    const unsigned threads = std::min(FOptions.Threads, 64u) + 1; // the calling thread renders too
    while (FChunkHunters.size() < threads) {
      auto hunter = std::make_unique<TChunkHunter>(FRules);
      ApplyTimeZone(hunter->Source, FOptions.TimeZone);
      hunter->Source.SetSystemFieldsOnly(true);
      hunter->Source.SetNamedValues(true);
      hunter->Source.SetTaskAndUserNames(false);
      FChunkHunters.push_back(std::move(hunter));
    }
    FChunksFound.clear();
    const uint64_t firstChunk = ASource.ChunkIndex();
    const bool table = FOptions.Format == TOutputFormat::ofTable;
    TChunkReader::Run(
        ASource.ChunkProducer(),
        [&](TChunkResult& AResult) {
          for (const std::string& note : AResult.Notes) ASource.IssueList().AddIssue(note);
          TChunkFound found;
          {
            std::lock_guard<std::mutex> lock(FChunksLock);
            auto it = FChunksFound.find(AResult.Sequence);
            if (it == FChunksFound.end()) return;
            found = std::move(it->second);
            FChunksFound.erase(it);
          }
          for (const TSigmaRule* rule : found.Rules) Count(*rule);
          for (const TChunkFound::TRow& row : found.Rows)
            AddTableRow(*row.Rule, row.Time, row.Computer, std::to_string(row.EventId), row.Matched);
          if (found.Text.empty()) return;
          FBuffer.append(found.Text);
          if (FBuffer.size() > 256 * 1024) Flush();
        },
        threads,
        [&](TChunkResult& AResult, unsigned AWorker) {
          TChunkHunter& worker = *FChunkHunters[AWorker];
          TChunkFound found;
          if (!worker.Lines) worker.Lines = std::make_unique<TDetectionLines>(FOptions.Format);
          TEventInfo info;
          if (threads > 1 && AResult.FieldsRead && worker.QuietChunks < kQuietChunks) {
            // The kinds of events of the chunk, whose rule lists this thread makes ready
            // first when no other thread has started on them: each thread makes others.
            // Once a run of chunks has held no kind new to it, the thread stops looking (a
            // kind first met later is made ready when an event needs it).
            worker.Kinds.clear();
            for (const TChunkResult::TRecordSpan& span : AResult.RecordFields) {
              if (span.Count <= rfChannel) continue;
              const std::string& channel = AResult.Fields[span.First + rfChannel];
              const auto id = static_cast<uint32_t>(TextToInt(AResult.Fields[span.First + rfEventID]));
              if (std::none_of(worker.Kinds.begin(), worker.Kinds.end(), [&](const TRuleSet::TEventKind& A) {
                    return A.EventId == id && A.Channel == channel;
                  }))
                worker.Kinds.push_back({channel, id});
            }
            worker.QuietChunks = worker.Hunter.PrepareAhead(worker.Kinds) ? 0 : worker.QuietChunks + 1;
          }
          worker.Source.TakeChunkNamed(AResult, firstChunk + AResult.Sequence, [&](const TEventRow& ARow,
                                                                                   const TNamedValues* ANamed,
                                                                                   std::string_view AXml) {
            const auto detections = ANamed ? worker.Hunter.Test(ARow.Channel, ARow.EventId, *ANamed)
                                           : worker.Hunter.Test(ARow.Channel, ARow.EventId, AXml);
            if (detections.empty()) return;
            info.Time.clear();
            info.TimeIso.clear();
            FillEventInfo(ARow, APath, info);
            if (!table) worker.Lines->Event(info);
            for (const TDetection& detection : detections) {
              found.Rules.push_back(detection.Rule);
              if (!table) {
                worker.Lines->Append(found.Text, detection);
                continue;
              }
              TChunkFound::TRow& row = found.Rows.emplace_back();
              row.Rule = detection.Rule;
              row.Time = info.Time;
              row.Computer = info.Computer;
              row.EventId = info.EventId;
              MatchedShort(detection, row.Matched);
            }
          });
          if (found.Rules.empty()) return;
          std::lock_guard<std::mutex> lock(FChunksLock);
          FChunksFound[AResult.Sequence] = std::move(found);
        });
    ReportIssues(ASource.IssueList(), APath);
  }

  void Scan(const std::string& APath) {
    TEventLogScan source;
    source.SetSystemFieldsOnly(true);
    ApplyTimeZone(source, FOptions.TimeZone);
    source.SetReadAhead(FOptions.Threads);
    source.SetBackupFileName(APath);
    source.SetActive(true);
    if (!source.Active()) throw std::runtime_error("cannot be opened for scanning");
    ReadSource(source, APath);
  }

  void Classic(const std::string& APath) {
    TNTEventLog log;
    ApplyTimeZone(log, FOptions.TimeZone);
    const std::string channel = LogNameOf(APath);
    log.SetSourceName(channel);
    log.SetBackupFileName(APath);
    log.SetActive(true);
    TEventItemX item(&log);
    try {
      while (TEventItemBase* next = log.EventNext()) {
        ClassicToX(static_cast<TEventItem&>(*next), channel, item);
        Test(item, APath);
      }
    } catch (const ENTException& e) {
      // Damage that could not be stepped over ends reading; what was read stands.
      log.IssueList().AddIssue(std::string("reading stopped: ") + e.what());
    }
    ReportIssues(log.IssueList(), APath);
  }

  void Store(const std::string& APath) {
    Ready();
    TEvtLiteAdaptor store(APath);
    store.InitThreadDataSet();
    store.OpenExistingTable();
    store.SetFilterSQL({});
    store.MakeSQL();
    // The store keeps its times shifted to the zone it was loaded with; the event's own
    // UTC time is shown in the --tz zone instead, as for a log.
    TEventLogBinXML zone;
    ApplyTimeZone(zone, FOptions.TimeZone);
    TEventData row;
    for (store.First(); !store.Eof(); store.Next()) {
      store.GetEventData(row);
      const std::string_view channel = ElementText(row.EvtXML, "<Channel>", "</Channel>");
      const auto detections = FHunter.Test(channel, static_cast<uint32_t>(row.EventID), row.EvtXML);
      if (detections.empty()) continue;
      TEventInfo info;
      info.Record = static_cast<uint64_t>(row.RecordNumber);
      info.EventId = static_cast<uint32_t>(row.EventID);
      if (const double utc = SystemTimeTextToDays(ElementText(row.EvtXML, "SystemTime=\"", "\"")); utc > 0) {
        AppendDayCountText(info.Time, zone.ConvertTime(utc));
        AppendDayCountText(info.TimeIso, zone.ConvertTime(utc), 'T');
        AppendOffsetText(info.TimeIso, zone.ShiftMinutesAt(utc));
      } else {
        // (An event whose XML lacks its time: the stored time, in the store's zone.)
        info.Time = row.TimeStamp;
        info.TimeIso = row.TimeStamp;
        if (info.TimeIso.size() > 10) info.TimeIso[10] = 'T';
      }
      info.Computer = row.Computer;
      info.Channel = channel;
      info.File = &APath;
      Event(info);
      for (const TDetection& detection : detections) Write(detection, info);
    }
  }

  void ReportIssues(TIssueList& AIssues, const std::string& APath) {
    // What the reads met in the media data of disk images (E01 chunks that fail their
    // checksum, a segment file missing), also with --quiet: the evidence itself is at fault.
    for (const std::string& warning : TEvidenceImage::TakeWarnings())
      std::fprintf(FErr, "quorvex: warning: %s\n", warning.c_str());
    if (FOptions.Quiet || AIssues.IssueCount() == 0) return;
    std::fprintf(FErr, "%s: %d problem%s met while reading (quorvex events lists them)\n", APath.c_str(),
                 AIssues.IssueCount(), AIssues.IssueCount() == 1 ? "" : "s");
  }

  void Test(TEventItemX& AItem, const std::string& APath, TNamedValues* ANamed = nullptr) {
    if (FOptions.Threads > 0) {
      // Made for the first event read one by one (a whole .evtx file is not: EvtxByChunk).
      // The hunters wait for the rules; the events read meanwhile fill its batches.
      Poll();
      if (!FPool) FPool = std::make_unique<THuntPool>(FRules, FLoad, FOptions.Threads);
      Queue(AItem, APath, ANamed);
      return;
    }
    Ready();
    const auto detections = ANamed ? FHunter.Test(AItem.FChannel, AItem.FEventID, *ANamed)
                                   : FHunter.Test(AItem.FChannel, AItem.FEventID, AItem.FEvtXML);
    if (detections.empty()) return;
    TEventInfo info;
    FillEventInfo(AItem, APath, info);
    Event(info);
    for (const TDetection& detection : detections) Write(detection, info);
  }

  // Counts a detection for the closing summary.
  void Count(const TSigmaRule& ARule) {
    ++FDetections;
    ++FByLevel[ARule.Level];
    ++FByRule[&ARule];
  }

  // The event the detections written next are about.
  void Event(const TEventInfo& AInfo) {
    if (FOptions.Format != TOutputFormat::ofTable) FLines.Event(AInfo);
  }

  // A detection of the event given last to Event.
  void Write(const TDetection& ADetection, const TEventInfo& AInfo) {
    const TSigmaRule& rule = *ADetection.Rule;
    Count(rule);
    if (FOptions.Format == TOutputFormat::ofTable) {
      MatchedShort(ADetection, FCell);
      AddTableRow(rule, AInfo.Time, AInfo.Computer, std::to_string(AInfo.EventId), FCell);
    } else {
      FLines.Append(FBuffer, ADetection);
    }
    if (FBuffer.size() > 256 * 1024) Flush();
  }

  void AddTableRow(const TSigmaRule& ARule, std::string_view ATime, std::string_view AComputer, std::string_view AId,
                   std::string_view AMatched) {
    FRuleCell = ARule.Title;
    FRuleCell.append(" (").append(ARule.Author.empty() ? "unknown author" : ARule.Author).append(")");
    FTable.AddRow({ATime, LevelName(ARule.Level), FRuleCell, AComputer, AId, AMatched});
  }

  bool Flush() {
    const bool ok = std::fwrite(FBuffer.data(), 1, FBuffer.size(), FOut) == FBuffer.size();
    FBuffer.clear();
    if (!ok && FStatus == 0) Fail("writing the output failed");
    return ok;
  }

  const THuntOptions& FOptions;
  const TRuleSet& FRules;
  TRuleLoad& FLoad;
  THunter FHunter;
  std::FILE* FOut;
  std::FILE* FErr;          // FRealErr, or FHeld until the rules are loaded
  std::FILE* FRealErr;
  std::FILE* FHeld = nullptr;
  bool FOpen = false;       // the rules are loaded and usable
  std::string FBuffer;
  TTextTable FTable;
  TDetectionLines FLines; // (JSON Lines, CSV)
  std::string FCell, FRuleCell;
  uint64_t FDetections = 0;
  uint64_t FByLevel[slCritical + 1] = {};
  std::map<const TSigmaRule*, uint64_t> FByRule;
  int FStatus = 0;
  std::unique_ptr<THuntPool> FPool; // null: events are tested as they are read (or none yet)

  // A thread's share of EvtxByChunk, kept from file to file.
  struct TChunkHunter {
    explicit TChunkHunter(const TRuleSet& ARules) : Hunter(ARules) {}
    TEventLogBinXML Source;
    THunter Hunter;
    std::unique_ptr<TDetectionLines> Lines; // made for the run's format
    std::vector<TRuleSet::TEventKind> Kinds; // of the chunk being taken
    unsigned QuietChunks = 0; // chunks in a row whose kinds' lists were all known ready
  };
  // The detections of a chunk's events, left by the thread that tested them for the writer.
  struct TChunkFound {
    struct TRow { // of the table
      const TSigmaRule* Rule = nullptr;
      std::string Time, Computer, Matched;
      uint32_t EventId = 0;
    };
    std::vector<const TSigmaRule*> Rules; // one per detection, in order
    std::string Text;                     // their lines (JSON Lines, CSV)
    std::vector<TRow> Rows;               // table
  };
  std::vector<std::unique_ptr<TChunkHunter>> FChunkHunters;
  std::mutex FChunksLock;
  std::map<uint64_t, TChunkFound> FChunksFound; // by chunk sequence; only the chunks in flight
};

// The rule set of the last run, left for the process's end.
TRuleSet* GLastRules = nullptr;

} // namespace

int RunHunt(const THuntOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    if (AOptions.Format == TOutputFormat::ofXml) throw std::runtime_error("hunt writes table, csv or jsonl");
    std::unique_ptr<TRuleSet> rules = MakeHuntRules(AOptions.MinLevel, AOptions.Statuses, AOptions.RuleCache);
    int status = 0;
    {
      // The rules load while the inputs are opened and read; the run waits for them before
      // it tests an event or says anything, and is given up when they cannot be used.
      TRuleLoad load(*rules, AOptions.Rules);
      auto unusable = [&] {
        if (!load.Error().empty()) throw std::runtime_error(load.Error());
        PrintUnusableRules(*rules, AErr);
        throw std::runtime_error("no rule to hunt with");
      };
      try {
        THuntRun run(AOptions, *rules, load, AOut, AErr);
        for (const std::string& input : AOptions.Inputs) run.Input(input);
        const bool written = run.Finish();
        status = written ? run.Status() : 1;
      } catch (const THuntAbort&) {
        unusable();
      } catch (const std::exception&) {
        if (!load.Wait()) unusable(); // what the load says comes first
        throw;
      }
    }
    // The program ends here: the rule set's thousands of allocations are not freed one
    // by one, but left reachable (so leak checkers do not count them) until the next run.
    delete std::exchange(GLastRules, std::move(rules).release());
    return status;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

void HuntStoreEvents(TEvtLiteAdaptor& AStore, const std::vector<std::string>& ARulePaths, int64_t ALastOldId,
                     bool AQuiet, std::FILE* AErr, bool ARuleCache) {
  const std::unique_ptr<TRuleSet> rules = LoadHuntRules(ARulePaths, "informational", {}, ARuleCache);
  THunter hunter(*rules);
  TDetectionStore detections(AStore.Handle(), AStore.FileName());
  AStore.SetFilterSQL("[_ID] > " + std::to_string(ALastOldId));
  AStore.SetOrderBy("[_ID] ASC");
  AStore.SetRowLimit(0);
  AStore.MakeSQL();
  AStore.ExecSQL("BEGIN");
  uint64_t found = 0;
  std::string matched;
  TEventData row;
  try {
    for (AStore.First(); !AStore.Eof(); AStore.Next()) {
      AStore.GetEventData(row);
      const std::string_view channel = ElementText(row.EvtXML, "<Channel>", "</Channel>");
      for (const TDetection& detection : hunter.Test(channel, static_cast<uint32_t>(row.EventID), row.EvtXML)) {
        MatchedShort(detection, matched);
        const TSigmaRule& rule = *detection.Rule;
        detections.Add(row.ID, rule.Id, rule.Title, rule.Author, rule.Level, matched);
        ++found;
      }
    }
  } catch (...) {
    AStore.ExecSQL("ROLLBACK");
    throw;
  }
  AStore.ExecSQL("COMMIT");
  AStore.Close();
  if (AQuiet) return;
  std::fprintf(AErr, "hunt: %llu detection%s in %llu new events (%zu rules)\n", static_cast<unsigned long long>(found),
               found == 1 ? "" : "s", static_cast<unsigned long long>(hunter.EventsRead()), rules->Rules().size());
  PrintUnusableRules(*rules, AErr);
}

namespace {

int LevelNumber(const std::string& ALevel) {
  TSigmaLevel level = slInformational;
  if (!ParseLevel(ALevel, level))
    throw std::runtime_error("--detection-level " + ALevel +
                             ": not a level (informational, low, medium, high, critical)");
  return level;
}

} // namespace

int PrintStoreDetections(TEvtLiteAdaptor& AStore, const std::string& AWhere, const std::string& ALevel,
                         TOutputFormat AFormat, unsigned AWidth, int64_t ALimit, std::FILE* AOut) {
  const int level = ALevel.empty() ? 0 : LevelNumber(ALevel);
  // The event filter selects events; the level selects their detections. Both are our own
  // text (the filter's SQL and a checked number).
  const std::string sql = "SELECT e.TimeStamp, d.Level, d.Title, d.Author, e.Computer, e.EventID, d.Matched, d.RuleId, "
                          "e._ID, e.RecordNumber FROM QvxDetections d JOIN (SELECT * FROM " +
                          AStore.TableName() + (AWhere.empty() ? "" : " WHERE " + AWhere) +
                          ") e ON e._ID = d._ID WHERE d.Level >= " + std::to_string(level) +
                          " ORDER BY e._ID, d.Level DESC, d.Title" +
                          (ALimit > 0 ? " LIMIT " + std::to_string(ALimit) : std::string());
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(AStore.Handle(), sql.c_str(), -1, &query, nullptr) != SQLITE_OK)
    throw EEventStoreError(AStore.FileName() + ": cannot list detections: " + sqlite3_errmsg(AStore.Handle()));
  auto text = [&](int AColumn) {
    const unsigned char* t = sqlite3_column_text(query, AColumn);
    return t ? std::string_view(reinterpret_cast<const char*>(t)) : std::string_view();
  };
  std::string out, ruleCell, idText;
  if (AFormat == TOutputFormat::ofCsv) out.append("id,time,level,rule_title,rule_author,rule_id,computer,event_id,record,matched\r\n");
  TTextTable table(out,
                   {{"Time"}, {"Level"}, {"Rule (author)", false, 4}, {"Computer", false, 0, 2}, {"ID", true},
                    {"Matched", false, 5, 1}},
                   AWidth ? AWidth : TerminalWidth(AOut));
  int code;
  while ((code = sqlite3_step(query)) == SQLITE_ROW) {
    const char* levelName = LevelName(static_cast<TSigmaLevel>(std::clamp(sqlite3_column_int(query, 1), 0, 4)));
    idText = std::to_string(sqlite3_column_int64(query, 5));
    switch (AFormat) {
    case TOutputFormat::ofJsonl:
      out.append("{\"id\":").append(std::to_string(sqlite3_column_int64(query, 8))).append(",\"time\":");
      AppendJsonString(out, text(0));
      out.append(",\"level\":");
      AppendJsonString(out, levelName);
      out.append(",\"rule_id\":");
      AppendJsonString(out, text(7));
      out.append(",\"rule_title\":");
      AppendJsonString(out, text(2));
      out.append(",\"rule_author\":");
      AppendJsonString(out, text(3));
      out.append(",\"computer\":");
      AppendJsonString(out, text(4));
      out.append(",\"event_id\":").append(idText);
      out.append(",\"record\":").append(std::to_string(sqlite3_column_int64(query, 9)));
      out.append(",\"matched\":");
      AppendJsonString(out, text(6));
      out.append("}\n");
      break;
    case TOutputFormat::ofCsv:
      out.append(std::to_string(sqlite3_column_int64(query, 8))).push_back(',');
      AppendCsvField(out, text(0));
      out.append(",").append(levelName).push_back(',');
      for (int column : {2, 3, 7, 4}) {
        AppendCsvField(out, text(column));
        out.push_back(',');
      }
      out.append(idText).append(",").append(std::to_string(sqlite3_column_int64(query, 9))).push_back(',');
      AppendCsvField(out, text(6));
      out.append("\r\n");
      break;
    default:
      ruleCell.assign(text(2)).append(" (").append(text(3)).append(")");
      table.AddRow({text(0), levelName, ruleCell, text(4), idText, text(6)});
      break;
    }
    if (out.size() > 256 * 1024) {
      std::fwrite(out.data(), 1, out.size(), AOut);
      out.clear();
    }
  }
  const std::string message = code == SQLITE_DONE ? std::string() : sqlite3_errmsg(AStore.Handle());
  sqlite3_finalize(query);
  if (!message.empty()) throw EEventStoreError(AStore.FileName() + ": listing detections failed: " + message);
  if (AFormat == TOutputFormat::ofTable) table.Finish();
  if (std::fwrite(out.data(), 1, out.size(), AOut) != out.size() || std::fflush(AOut) != 0)
    throw std::runtime_error("cannot write the output");
  return 0;
}

} // namespace qvx::app
