#include "view/log_view_engine.h"

#include "descriptions/time_zones.h"
#include "engine/event_log_x.h"
#include "view/evt_lite_adaptor.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <strings.h>

namespace qvx {

// --- entries ---------------------------------------------------------------------------------

TLogEntry TLogEntry::CreateEventLogEntry(const std::string& ALogName, const std::string& AComputer) {
  TLogEntry entry;
  entry.LogName = ALogName;
  entry.Computer = AComputer;
  entry.LogType = ltEventLog;
  return entry;
}

TLogEntry TLogEntry::CreateEventLogFileEntry(const std::string& ALogName, const std::string& AFileName,
                                             bool ADirect) {
  TLogEntry entry;
  entry.LogName = ALogName;
  entry.FileName = AFileName;
  entry.LogType = ltEventLogFile;
  entry.DirectAccess = ADirect;
  return entry;
}

TLogEntry TLogEntry::CreateTaskEntry(const std::string& AName) {
  TLogEntry entry;
  entry.LogName = AName;
  entry.LogType = ltTask;
  return entry;
}

TLogEntry TLogEntry::CreateSnapEntry(const std::string& AName) {
  TLogEntry entry;
  entry.LogName = AName;
  entry.LogType = ltSnap;
  return entry;
}

std::string TLogEntry::GetDescription() const {
  if (LogType != ltEventLog) return LogName;
  std::string text = LogName;
  text.append(" on ").append(Computer);
  return text;
}

TLogEntry& TLogEntries::Add(TLogEntry AEntry) {
  FItems.push_back(std::move(AEntry));
  Normalized = false;
  return FItems.back();
}

TLogEntry& TLogEntries::AddEventLogEntry(const std::string& ALogName, const std::string& AComputer) {
  return Add(TLogEntry::CreateEventLogEntry(ALogName, AComputer));
}
TLogEntry& TLogEntries::AddEventLogFileEntry(const std::string& ALogName, const std::string& AFileName,
                                             bool ADirect) {
  return Add(TLogEntry::CreateEventLogFileEntry(ALogName, AFileName, ADirect));
}
TLogEntry& TLogEntries::AddTaskEntry(const std::string& AName) {
  return Add(TLogEntry::CreateTaskEntry(AName));
}
TLogEntry& TLogEntries::AddSnapEntry(const std::string& AName) {
  return Add(TLogEntry::CreateSnapEntry(AName));
}

void TLogEntries::RemoveLogEntry(size_t AIndex) {
  if (AIndex < FItems.size()) FItems.erase(FItems.begin() + static_cast<std::ptrdiff_t>(AIndex));
}

void TLogEntries::Normalize() {
  std::vector<TLogEntry> kept;
  for (TLogEntry& entry : FItems) {
    const bool repeated = std::any_of(kept.begin(), kept.end(), [&](const TLogEntry& e) {
      return e.LogType == entry.LogType && strcasecmp(e.LogName.c_str(), entry.LogName.c_str()) == 0 &&
             strcasecmp(e.Computer.c_str(), entry.Computer.c_str()) == 0 && e.FileName == entry.FileName;
    });
    if (!repeated) kept.push_back(std::move(entry));
  }
  FItems = std::move(kept);
  Normalized = true;
}

std::string TLogEntries::GetDescription() const {
  std::string text;
  for (const TLogEntry& entry : FItems) {
    if (!text.empty()) text.append(", ");
    text.append(entry.GetDescription());
  }
  return text;
}

// --- statistics ------------------------------------------------------------------------------

void TLogStatistics::AddType(TEventType AType) {
  switch (AType) {
  case EVT_SUCCESS:
    ++TypeSuccess;
    break;
  case EVT_VERBOSE:
    ++TypeVerbose;
    break;
  case EVT_INFORMATION:
    ++TypeInformation;
    break;
  case EVT_WARNING:
    ++TypeWarning;
    break;
  case EVT_ERROR:
    ++TypeError;
    break;
  case EVT_CRITICAL:
    ++TypeCritical;
    break;
  case EVT_AUDIT_SUCCESS:
    ++TypeAuditSuccess;
    break;
  case EVT_AUDIT_FAILURE:
    ++TypeAuditFailure;
    break;
  default:
    break; // the reserved values count nowhere
  }
}

// --- the main-thread queue and events --------------------------------------------------------

void TMainThreadQueue::Post(std::function<void()> ACall) {
  {
    std::lock_guard<std::mutex> lock(FLock);
    FCalls.push_back(std::move(ACall));
  }
  FPosted.notify_one();
}

size_t TMainThreadQueue::Drain(std::chrono::milliseconds AWait) {
  std::deque<std::function<void()>> calls;
  {
    std::unique_lock<std::mutex> lock(FLock);
    if (FCalls.empty() && AWait.count() > 0) FPosted.wait_for(lock, AWait, [&] { return !FCalls.empty(); });
    calls.swap(FCalls);
  }
  for (auto& call : calls)
    if (call) call();
  return calls.size();
}

void TManualEvent::SetEvent() {
  {
    std::lock_guard<std::mutex> lock(FLock);
    FSignalled = true;
  }
  FChanged.notify_all();
}

void TManualEvent::ResetEvent() {
  std::lock_guard<std::mutex> lock(FLock);
  FSignalled = false;
}

bool TManualEvent::WaitFor(std::chrono::milliseconds AWait) {
  std::unique_lock<std::mutex> lock(FLock);
  if (AWait.count() < 0) {
    FChanged.wait(lock, [&] { return FSignalled; });
    return true;
  }
  return FChanged.wait_for(lock, AWait, [&] { return FSignalled; });
}

void TLogView::AddNotice(const std::string& AText, int ALevel) {
  NoticeText.append(AText).push_back('\r');
  if (NoticeLevel != 2) NoticeLevel = ALevel;
}

std::string LoadedTypesText(int32_t AMask) {
  std::string text;
  for (int type = 0; type <= EVT_AUDIT_FAILURE; ++type) {
    if (!((AMask >> type) & 1) || (type >= EVT_RESERVED1 && type <= EVT_RESERVED6)) continue;
    if (!text.empty()) text.append(", ");
    text.append(type == EVT_SUCCESS ? "Success" : EventTypeName(static_cast<TEventType>(type)));
  }
  return text;
}

// --- the worker --------------------------------------------------------------------------

TWorkThread::TWorkThread(TLogView* AView) : FView(AView) {
  FThread = std::thread([this] { Execute(); });
}

TWorkThread::~TWorkThread() {
  FTerminated = true;
  FBreaked = true;
  if (FView && FView->Store) FView->Store->BreakSQLExec();
  ControllerEvent.SetEvent();
  InWorkEvent.SetEvent();
  if (FThread.joinable()) FThread.join();
}

void TWorkThread::Post(int32_t ACode) {
  WaitIdle();
  {
    std::lock_guard<std::mutex> lock(FPostLock);
    FPosted = true;
  }
  Controller.ControlCode = ACode;
  ControllerEvent.SetEvent();
}

bool TWorkThread::WaitIdle(std::chrono::milliseconds AWait) {
  // Idle: no command posted that the loop has not yet taken, and none running.
  const auto until = std::chrono::steady_clock::now() + AWait;
  while (true) {
    if (!FView || !FView->Busy) {
      std::lock_guard<std::mutex> lock(FPostLock);
      if (!FPosted) return true;
    }
    if (AWait.count() >= 0 && std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void TWorkThread::Execute() {
  FPhase = tphRun;
  while (!Terminated()) {
    ControllerEvent.WaitFor();
    ControllerEvent.ResetEvent();
    InWorkEvent.WaitFor();
    InWorkEvent.ResetEvent();
    if (Terminated() || !FView) break;
    FView->Busy = true;
    UnbreakThread();
    const int32_t code = Controller.ControlCode;
    try {
      switch (code) {
      case 1:
        LoadEntries();
        break;
      case 3:
        FInSorting = true;
        if (SortHandler) SortHandler();
        break;
      case 4:
        if (Job4) Job4();
        break;
      case 5:
        if (Job5) Job5();
        break;
      case 6:
        if (Job6) Job6();
        break;
      default:
        break;
      }
    } catch (const std::exception& e) {
      FView->Errors.emplace_back(e.what());
      if (FView->NoticeLevel != 2) FView->NoticeLevel = 2;
    }
    FView->Busy = false;
    {
      std::lock_guard<std::mutex> lock(FPostLock);
      FPosted = false;
    }
    InWorkEvent.SetEvent();
    FInSorting = false;
    FView->Queue.Post({}); // wakes a front end waiting for calls
    if (code == 100) break;
  }
  FPhase = tphDone;
}

void TWorkThread::LoadEntries() {
  TLogView& view = *FView;
  FNoticed.reset();
  if (!Controller.Loader) view.Statistics.Reset();
  view.Queue.Post([&view] {
    if (view.Events.OnLoadingStarted) view.Events.OnLoadingStarted();
  });
  if (!view.Entries.Normalized) view.Entries.Normalize();
  // One transaction for the whole load: the rows of one log are written while the next
  // one is read, rather than all at its end.
  bool buffered = false;
  try {
    view.Store->BeginBufferedOperation();
    buffered = true;
  } catch (const std::exception& e) {
    view.Errors.emplace_back(e.what());
    view.NoticeLevel = 2;
  }
  for (size_t i = static_cast<size_t>(std::max(0, view.Entries.LastLoadedEntryIndex));
       buffered && i < view.Entries.Count(); ++i) {
    if (Terminated() || FBreaked) break;
    try {
      LoadEntry(i);
    } catch (const std::exception& e) {
      view.Errors.emplace_back(view.Entries.GetItem(i).GetDescription() + ": " + e.what());
      view.NoticeLevel = 2;
    }
  }
  if (buffered) {
    try {
      view.Store->EndBufferedOpearion();
    } catch (const std::exception& e) {
      view.Errors.emplace_back(e.what());
      view.NoticeLevel = 2;
    }
  }
  if (!view.NoticeText.empty() && view.NoticeText.back() == '\r') view.NoticeText.pop_back();
  view.Queue.Post([&view] {
    if (view.Events.OnLoaded) view.Events.OnLoaded();
  });
}

namespace {

bool InNameList(const std::vector<std::string>& AList, const std::string& AName) {
  return std::any_of(AList.begin(), AList.end(),
                     [&](const std::string& item) { return strcasecmp(item.c_str(), AName.c_str()) == 0; });
}

bool ContainsNoCase(const std::string& AText, const std::string& APart) {
  if (APart.empty()) return true;
  auto it = std::search(AText.begin(), AText.end(), APart.begin(), APart.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
  });
  return it != AText.end();
}

double NowUtcDays() {
  return static_cast<double>(std::time(nullptr)) / 86400.0 + 25569.0;
}

std::string ShownTimeText(double ADays) {
  const TSystemTime t = DaysToSystemTime(ADays);
  char text[32];
  std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", t.wYear % 10000u, t.wMonth % 100u,
                t.wDay % 100u, t.wHour % 100u, t.wMinute % 100u, t.wSecond % 100u);
  return text;
}

enum TNoticeKind { nkTypes, nkIds, nkSources, nkUsers, nkComputers, nkDescr };

} // namespace

void TWorkThread::LoadEntry(size_t AIndex) {
  TLogView& view = *FView;
  TLogEntry& entry = view.Entries.GetItem(AIndex);
  std::unique_ptr<TEventLogBase> source = view.OpenSource(entry);
  TLogLoadingFilter& filter = view.LoadingFilter;
  TEvtLiteAdaptor& store = *view.Store;
  const int32_t logIndex = static_cast<int32_t>(AIndex);
  const std::string description = entry.GetDescription();

  auto notice = [&](TNoticeKind AKind, const std::string& AText) {
    if (FNoticed.test(AKind)) return;
    FNoticed.set(AKind);
    view.AddNotice(AText);
  };
  const bool typeTest = filter.LoadEventTypes != 0 && filter.LoadEventTypes != kAllEventTypes;
  const bool idTest = !filter.LoadEventIDStr.empty();
  const double periodStart =
      filter.LoadEvents == lemLastPeriod
          ? source->ConvertTime(NowUtcDays()) - filter.LastDays - filter.LastHours / 24.0
          : 0;
  const double lastTime = entry.LastEventTime;
  const uint32_t lastNo = entry.LastEventNo;

  uint64_t read = 0, accepted = 0;
  bool first = true;
  uint32_t previousNo = 0;
  auto progress = [&] {
    const int percent = view.ProgressOf ? view.ProgressOf(*source) : -1;
    const uint64_t totalRead = view.EventsRead, totalLoaded = view.EventsLoaded;
    view.Queue.Post([&view, totalRead, totalLoaded, percent, description] {
      if (view.Events.OnProgress) view.Events.OnProgress(totalRead, totalLoaded, percent, description);
    });
  };

  try {
    while (true) {
      if (Terminated()) break;
      if (FBreaked) {
        view.AddNotice("User break.");
        break;
      }
      TEventItemBase* item = source->EventNext();
      if (!item) break;
      if (item == TEventLogX::UndeliverableMarker()) continue;
      ++read;
      ++view.EventsRead;
      if (read % 200 == 0) progress();
      const uint32_t number = static_cast<uint32_t>(item->FRecordNumber);
      if (first) {
        // The newest event of the log: what the next refresh starts from.
        if (!view.NewerOnly || item->FTimeGenerated > lastTime ||
            (item->FTimeGenerated == lastTime && number > lastNo)) {
          entry.LastEventTime = item->FTimeGenerated;
          entry.LastEventNo = number;
        }
      } else if (view.CheckDeletedEvents && number != previousNo - 1) {
        char text[160];
        std::snprintf(
            text, sizeof(text),
            "Potentially deleted event. Expected record number: %u. Actual record number: %u. Time: %s UTC",
            previousNo - 1, number, ShownTimeText(item->FTimeGenerated).c_str());
        source->IssueList().AddIssue(text);
      }
      first = false;
      previousNo = number;

      // The loading filter.
      if (typeTest && !((filter.LoadEventTypes >> static_cast<int>(item->FEventType)) & 1)) {
        notice(nkTypes,
               "Only events of these types were loaded: " + LoadedTypesText(filter.LoadEventTypes) + ".");
        continue;
      }
      if (idTest && !filter.LoadsEventId(item->FEventID)) {
        notice(nkIds, "Only events with these IDs were loaded: " + filter.LoadEventIDStr + ".");
        continue;
      }
      if (!filter.LoadSources.empty() &&
          InNameList(filter.LoadSources, item->FSourceName) == filter.LoadSourceExcl) {
        notice(nkSources, "Only events from these sources were loaded: " + filter.LoadSource + ".");
        continue;
      }
      if (!filter.LoadUsers.empty() &&
          InNameList(filter.LoadUsers, item->GetUserName()) == filter.LoadUserExcl) {
        notice(nkUsers, "Only events from these users were loaded: " + filter.LoadUser + ".");
        continue;
      }
      if (!filter.LoadComputers.empty() &&
          InNameList(filter.LoadComputers, item->FComputername) == filter.LoadComputerExcl) {
        notice(nkComputers, "Only events from these computers were loaded: " + filter.LoadComputer + ".");
        continue;
      }
      if (!filter.LoadDescr.empty() &&
          ContainsNoCase(item->FEvtMessage, filter.LoadDescr) == filter.LoadDescrExcl) {
        notice(nkDescr, "Only events that contains \"" + filter.LoadDescr + "\" in description were loaded.");
        continue;
      }

      // Refresh: the first event that is not new ends the entry.
      if (view.NewerOnly &&
          !(item->FTimeGenerated > lastTime || (item->FTimeGenerated == lastTime && number > lastNo))) {
        view.AddNotice(description + ": Only the recent events since " +
                       ShownTimeText(source->ConvertTime(lastTime)) + " were loaded.");
        break;
      }
      // The loading filter's date and count limits.
      if (filter.LoadEvents == lemLastPeriod && item->GetTimeGenerated() < periodStart) {
        view.AddNotice(description + ": Only the recent events since " + ShownTimeText(periodStart) +
                       " were loaded.");
        break;
      }
      if (filter.LoadEvents == lemLastEvents &&
          accepted >= static_cast<uint64_t>(std::max(0, filter.NumEvents))) {
        view.AddNotice(description + ": Only the recent " + std::to_string(filter.NumEvents) +
                       " events were loaded.");
        break;
      }

      if (view.PrepareEvent) view.PrepareEvent(*item);
      view.Statistics.AddType(item->FEventType);
      TLiteRecord& record = store.NewLiteEvent();
      record.FromEvent(*item, logIndex);
      store.CommitLiteEvent();
      ++accepted;
      ++view.EventsLoaded;
      if (view.SourceNames.size() < 100000) view.SourceNames.insert(record.Source);
      if (view.Computers.size() < 100000) view.Computers.insert(record.Computer);
      if (view.WantUsers && view.UserNames.size() < 100000) view.UserNames.insert(record.UserName);
      if (view.WantCategories && view.Categories.size() < 100000) view.Categories.insert(record.CategoryName);
    }
  } catch (const EEventStoreError&) {
    throw;
  } catch (const std::exception& e) {
    // Damage the source could not step over ends the entry; what was read stands.
    source->IssueList().AddIssue(std::string("reading stopped: ") + e.what());
  }
  // The log's last rows stay pending: the next log's fill the same batch.
  progress();
  for (const std::string& line : source->IssueList().Lines())
    view.Issues.push_back(description + ": " + line);
  view.Entries.LastLoadedEntryIndex = static_cast<int32_t>(AIndex + 1); // entries before it are loaded
}

} // namespace qvx
