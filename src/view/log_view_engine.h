// The log view engine: a worker thread per view that loads the events of the view's logs
// into its event store, applying the loading filter, counting types and collecting
// notices, and that runs the view's further jobs (sorting and the like) off the main
// thread.
//
// The worker never touches the screen. What the front end must see (progress, the start
// and the end of a load) is posted to a TMainThreadQueue that the front end drains on
// its own thread: the terminal front end in its wait loop, a graphical one in its event
// loop.
#pragma once

#include "engine/event_model.h"
#include "filter/loading_filter.h"
#include "view/evt_db_adaptor.h"

#include <atomic>
#include <bitset>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace qvx {

class TEvtLiteAdaptor;

enum TLogType : int32_t { ltEventLog, ltEventLogFile, ltTask, ltSnap };

// One log of a view.
struct TLogEntry {
  std::string LogName;
  std::string Computer;
  TLogType LogType = ltEventLogFile;
  bool DirectAccess = false;
  double LastEventTime = 0; // UTC day count of the newest event loaded so far
  uint32_t LastEventNo = 0; // its record number
  std::string FileName;     // a saved log's path (what is opened)

  static TLogEntry CreateEventLogEntry(const std::string& ALogName, const std::string& AComputer);
  static TLogEntry CreateEventLogFileEntry(const std::string& ALogName, const std::string& AFileName,
                                           bool ADirect);
  static TLogEntry CreateTaskEntry(const std::string& AName);
  static TLogEntry CreateSnapEntry(const std::string& AName);
  // "Application on PC1" for a live log, the log name for a file.
  std::string GetDescription() const;
};

class TLogEntries {
public:
  TLogEntry& AddEventLogEntry(const std::string& ALogName, const std::string& AComputer);
  TLogEntry& AddEventLogFileEntry(const std::string& ALogName, const std::string& AFileName, bool ADirect);
  TLogEntry& AddTaskEntry(const std::string& AName);
  TLogEntry& AddSnapEntry(const std::string& AName);
  void RemoveLogEntry(size_t AIndex);
  // Drops entries that repeat an earlier one (same kind, name, computer and file).
  void Normalize();
  size_t Count() const { return FItems.size(); }
  TLogEntry& GetItem(size_t AIndex) { return FItems.at(AIndex); }
  const TLogEntry& GetItem(size_t AIndex) const { return FItems.at(AIndex); }
  // The entries' descriptions joined with ", ".
  std::string GetDescription() const;

  bool Normalized = false;
  int32_t LastLoadedEntryIndex = 0;

private:
  TLogEntry& Add(TLogEntry AEntry);
  std::vector<TLogEntry> FItems;
};

// Loaded events by type.
struct TLogStatistics {
  int32_t TypeCritical = 0, TypeError = 0, TypeWarning = 0, TypeInformation = 0, TypeVerbose = 0,
          TypeSuccess = 0, TypeAuditSuccess = 0, TypeAuditFailure = 0;
  void Reset() { *this = TLogStatistics(); }
  void AddType(TEventType AType);
  int64_t Total() const {
    return int64_t{TypeCritical} + TypeError + TypeWarning + TypeInformation + TypeVerbose + TypeSuccess +
           TypeAuditSuccess + TypeAuditFailure;
  }
};

// Calls posted by the worker for the front end's thread.
class TMainThreadQueue {
public:
  void Post(std::function<void()> ACall);
  // Runs the calls queued so far; when there are none, waits up to AWait for one.
  // Gives the number of calls run.
  size_t Drain(std::chrono::milliseconds AWait = std::chrono::milliseconds(0));

private:
  std::mutex FLock;
  std::condition_variable FPosted;
  std::deque<std::function<void()>> FCalls;
};

// An event object that stays signalled until a waiter resets it.
class TManualEvent {
public:
  explicit TManualEvent(bool ASignalled) : FSignalled(ASignalled) {}
  void SetEvent();
  void ResetEvent();
  // Waits for the signal (no timeout when AWait is negative); false on timeout.
  bool WaitFor(std::chrono::milliseconds AWait = std::chrono::milliseconds(-1));

private:
  std::mutex FLock;
  std::condition_variable FChanged;
  bool FSignalled;
};

struct TThreadController {
  int32_t ControlCode = 0;
  std::function<void()> Loader; // set: a load that keeps the statistics
};

enum TThreadPhase { tphInit, tphRun, tphDone };

// What the front end sees of a load. Calls come through the view's queue.
struct TLogViewEvents {
  std::function<void()> OnLoadingStarted;
  // Events read and accepted so far, and the percentage of the current log (-1 unknown).
  std::function<void(uint64_t ARead, uint64_t AAccepted, int APercent, const std::string& AEntry)> OnProgress;
  std::function<void()> OnLoaded;
};

// The view the worker works for: its logs, store, loading filter, options and results.
class TLogView {
public:
  TLogEntries Entries;
  TEvtLiteAdaptor* Store = nullptr;
  TLogLoadingFilter LoadingFilter;
  bool CheckDeletedEvents = false; // gaps in record numbers go to the issue list
  bool NewerOnly = false;          // refresh: load only events newer than each entry's last
  bool WantUsers = true, WantCategories = true;

  // Opens the source of an entry (its time shift and descriptions set); raises
  // std::exception when it cannot.
  std::function<std::unique_ptr<TEventLogBase>(TLogEntry&)> OpenSource;
  // Percentage read of a source (-1 unknown); optional.
  std::function<int(TEventLogBase&)> ProgressOf;
  // Completes an event before it is stored (e.g. the XML of a classic record); optional.
  std::function<void(TEventItemBase&)> PrepareEvent;

  TMainThreadQueue Queue;
  TLogViewEvents Events;

  // Results, read by the front end between loads.
  TLogStatistics Statistics;
  std::string NoticeText;          // notices, each ended by "\r" (the last one's cut at the end)
  int NoticeLevel = 0;             // 0 none, 1 notice, 2 error
  std::vector<std::string> Issues; // the sources' issue lists, "entry: text"
  std::vector<std::string> Errors; // entries that could not be read
  std::set<std::string> SourceNames, Computers, UserNames, Categories;
  uint64_t EventsRead = 0, EventsLoaded = 0;
  std::atomic<bool> Busy{false};

  void AddNotice(const std::string& AText, int ALevel = 1);
};

class TWorkThread {
public:
  explicit TWorkThread(TLogView* AView);
  ~TWorkThread(); // tells the loop to end and joins it
  TWorkThread(const TWorkThread&) = delete;
  TWorkThread& operator=(const TWorkThread&) = delete;

  // Posts a command: waits until the previous one is done, then starts it.
  void Post(int32_t ACode);
  // Waits until the current command is done; false on timeout.
  bool WaitIdle(std::chrono::milliseconds AWait = std::chrono::milliseconds(-1));
  void BreakThread() { FBreaked = true; }
  void UnbreakThread() { FBreaked = false; }
  bool Breaked() const { return FBreaked; }
  TThreadPhase ThreadPhase() const { return FPhase; }
  bool InSorting() const { return FInSorting; }

  TThreadController Controller;
  // Commands 3 to 6; 3 runs with InSorting() true.
  std::function<void()> SortHandler, Job4, Job5, Job6;

  // Loads the view's entries on the calling thread (what command 1 runs).
  void LoadEntries();

private:
  void Execute();
  void LoadEntry(size_t AIndex);
  bool Terminated() const { return FTerminated; }

  TLogView* FView;
  std::atomic<bool> FBreaked{false};
  std::atomic<bool> FTerminated{false};
  std::atomic<bool> FInSorting{false};
  std::atomic<TThreadPhase> FPhase{tphInit};
  TManualEvent ControllerEvent{false};
  TManualEvent InWorkEvent{true};
  std::mutex FPostLock;
  bool FPosted = false; // a command is posted and not yet done
  std::thread FThread;
  // Notices that appear once per load.
  std::bitset<8> FNoticed;
};

// The notices of the loading filter and the limits.
std::string LoadedTypesText(int32_t AMask); // "Error, Warning"

} // namespace qvx
