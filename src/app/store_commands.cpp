// quorvex open / refresh / view: logs loaded into an event store, then filtered, sorted,
// bookmarked, counted and painted from it.
//
// Besides the event table a store file keeps what a refresh needs: the logs it was
// loaded from with the newest event of each (table QvxLogEntries) and the options of
// the load (table QvxSettings).
#include "app/classic_events.h"
#include "app/commands.h"
#include "app/event_output.h"
#include "app/hunt_command.h"
#include "app/evtx_source.h"
#include "app/progress.h"

#include "automation/alert_patterns.h"
#include "engine/classic_log.h"
#include "engine/event_log_binxml.h"
#include "catalog/message_catalog.h"
#include "imaged/imaged_pc.h"
#include "images/evidence_image.h"
#include "images/image_error.h"
#include "view/detection_store.h"
#include "view/evt_lite_adaptor.h"
#include "view/log_view_engine.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>

namespace qvx::app {

namespace {

std::atomic<bool> GBreakRequested{false};
extern "C" void OnInterrupt(int) {
  GBreakRequested = true;
}

// --- what the store keeps besides the events ----------------------------------------------

struct TStoredEntry {
  TLogEntry Entry;
  bool Scan = false;
};

void ExecOrFail(TEvtLiteAdaptor& AStore, const std::string& ASql) {
  AStore.ExecSQL(ASql);
}

void SaveEntries(TEvtLiteAdaptor& AStore, const std::vector<TStoredEntry>& AEntries,
                 const std::map<std::string, std::string>& ASettings) {
  ExecOrFail(
      AStore,
      "CREATE TABLE IF NOT EXISTS QvxLogEntries (Idx INTEGER PRIMARY KEY, LogName TEXT, Computer TEXT, "
      "LogType INTEGER, DirectAccess INTEGER, LastEventTime REAL, LastEventNo INTEGER, FileName TEXT, "
      "Scan INTEGER)");
  ExecOrFail(AStore, "CREATE TABLE IF NOT EXISTS QvxSettings (Name TEXT PRIMARY KEY, Value TEXT)");
  ExecOrFail(AStore, "DELETE FROM QvxLogEntries");
  sqlite3_stmt* insert = nullptr;
  const char* sql = "INSERT INTO QvxLogEntries VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9)";
  if (sqlite3_prepare_v2(AStore.Handle(), sql, -1, &insert, nullptr) != SQLITE_OK)
    throw EEventStoreError(AStore.FileName() + ": " + sqlite3_errmsg(AStore.Handle()));
  for (size_t i = 0; i < AEntries.size(); ++i) {
    const TLogEntry& e = AEntries[i].Entry;
    sqlite3_bind_int64(insert, 1, static_cast<int64_t>(i));
    sqlite3_bind_text(insert, 2, e.LogName.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(insert, 3, e.Computer.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(insert, 4, e.LogType);
    sqlite3_bind_int(insert, 5, e.DirectAccess);
    sqlite3_bind_double(insert, 6, e.LastEventTime);
    sqlite3_bind_int64(insert, 7, e.LastEventNo);
    sqlite3_bind_text(insert, 8, e.FileName.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int(insert, 9, AEntries[i].Scan);
    const int code = sqlite3_step(insert);
    sqlite3_reset(insert);
    if (code != SQLITE_DONE) {
      sqlite3_finalize(insert);
      throw EEventStoreError(AStore.FileName() +
                             ": cannot save the log list: " + sqlite3_errmsg(AStore.Handle()));
    }
  }
  sqlite3_finalize(insert);
  for (const auto& [name, value] : ASettings) {
    sqlite3_stmt* set = nullptr;
    sqlite3_prepare_v2(AStore.Handle(), "INSERT OR REPLACE INTO QvxSettings VALUES (?1, ?2)", -1, &set,
                       nullptr);
    sqlite3_bind_text(set, 1, name.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(set, 2, value.c_str(), -1, SQLITE_TRANSIENT);
    const int code = sqlite3_step(set);
    sqlite3_finalize(set);
    if (code != SQLITE_DONE)
      throw EEventStoreError(AStore.FileName() +
                             ": cannot save the settings: " + sqlite3_errmsg(AStore.Handle()));
  }
}

std::vector<TStoredEntry> LoadEntries(TEvtLiteAdaptor& AStore,
                                      std::map<std::string, std::string>& ASettings) {
  std::vector<TStoredEntry> entries;
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(
          AStore.Handle(),
          "SELECT LogName, Computer, LogType, DirectAccess, LastEventTime, LastEventNo, FileName, Scan "
          "FROM QvxLogEntries ORDER BY Idx",
          -1, &query, nullptr) != SQLITE_OK)
    throw EEventStoreError(AStore.FileName() +
                           ": the store does not list the logs it was loaded from (was it made by "
                           "'quorvex open'?)");
  auto text = [&](int AColumn) {
    const unsigned char* t = sqlite3_column_text(query, AColumn);
    return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
  };
  while (sqlite3_step(query) == SQLITE_ROW) {
    TStoredEntry stored;
    stored.Entry.LogName = text(0);
    stored.Entry.Computer = text(1);
    stored.Entry.LogType = static_cast<TLogType>(sqlite3_column_int(query, 2));
    stored.Entry.DirectAccess = sqlite3_column_int(query, 3) != 0;
    stored.Entry.LastEventTime = sqlite3_column_double(query, 4);
    stored.Entry.LastEventNo = static_cast<uint32_t>(sqlite3_column_int64(query, 5));
    stored.Entry.FileName = text(6);
    stored.Scan = sqlite3_column_int(query, 7) != 0;
    entries.push_back(std::move(stored));
  }
  sqlite3_finalize(query);
  if (sqlite3_prepare_v2(AStore.Handle(), "SELECT Name, Value FROM QvxSettings", -1, &query, nullptr) ==
      SQLITE_OK) {
    while (sqlite3_step(query) == SQLITE_ROW)
      ASettings[text(0)] = text(1);
    sqlite3_finalize(query);
  }
  return entries;
}

// --- loading ---------------------------------------------------------------------------------

// The current row of the store as alerts read it.
class TStoreAlertRow : public TAlertDataSet {
public:
  explicit TStoreAlertRow(TEvtLiteAdaptor& AStore) : FStore(AStore) {}
  bool FieldText(const std::string& AName, std::string& AValue) const override {
    if (FStore.FindField(AName) < 0) return false;
    AValue = FStore.FieldText(AName);
    return true;
  }

private:
  TEvtLiteAdaptor& FStore;
};

class TStoreRequestor : public TAlertRequestor {
public:
  TStoreRequestor(TEvtLiteAdaptor& AStore, const std::vector<TStoredEntry>& AEntries)
      : FStore(AStore), FEntries(AEntries) {}
  std::string LogName() const override {
    const int64_t index = FStore.FieldInt("EventLog");
    return index >= 0 && static_cast<size_t>(index) < FEntries.size()
               ? FEntries[static_cast<size_t>(index)].Entry.LogName
               : std::string();
  }
  std::string CurrentEventDescr() override { return FStore.FieldText("Descr"); }
  bool SetEventHandling(bool AOn) override { return std::exchange(FHandling, AOn); }

private:
  TEvtLiteAdaptor& FStore;
  const std::vector<TStoredEntry>& FEntries;
  bool FHandling = true;
};

// Tests the rows after AFirstNewId against the alert file's rules.
// A store lists its events in _ID order, which a load makes newest first. A refresh adds
// newer events, also newest first: they are renumbered to come before every older row,
// with their detections, so that the newest stay on top.
void MoveAheadOfOlderRows(TEvtLiteAdaptor& AStore, int64_t ALastOldId) {
  const std::string table = AStore.TableName(), last = std::to_string(ALastOldId);
  if (ALastOldId == 0 || AStore.QueryIntValue("SELECT COUNT(*) FROM " + table + " WHERE _ID > " + last) == 0) return;
  const int64_t lowest = AStore.QueryIntValue("SELECT MIN(_ID) FROM " + table);
  const int64_t highest = AStore.QueryIntValue("SELECT MAX(_ID) FROM " + table);
  const std::string shift = std::to_string(lowest - 1 - highest);
  AStore.ExecSQL("UPDATE " + table + " SET _ID = _ID + (" + shift + ") WHERE _ID > " + last);
  if (AStore.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' AND name = 'QvxDetections'"))
    AStore.ExecSQL("UPDATE QvxDetections SET _ID = _ID + (" + shift + ") WHERE _ID > " + last);
}

void RunAlerts(TEvtLiteAdaptor& AStore, const std::string& AFile, int64_t ALastOldId,
               const std::vector<TStoredEntry>& AEntries, std::FILE* AErr, const TLoadHooks* AHooks) {
  TAlertPatterns patterns;
  patterns.LoadFromFile(AFile);
  uint64_t matched = 0, started = 0;
  auto starter = patterns.Starter;
  patterns.Starter = [&](const std::string& ACommandLine) {
    ++started;
    return starter(ACommandLine);
  };
  AStore.SetFilterSQL("[_ID] > " + std::to_string(ALastOldId));
  AStore.SetOrderBy("[_ID] ASC");
  AStore.SetRowLimit(0);
  AStore.MakeSQL();
  TStoreAlertRow row(AStore);
  TStoreRequestor requestor(AStore, AEntries);
  for (AStore.First(); !AStore.Eof(); AStore.Next())
    if (patterns.TestEvent(row, &requestor)) {
      ++matched;
      if (AHooks && AHooks->OnAlert)
        AHooks->OnAlert(AStore.FieldInt("_ID"), AStore.FieldText("TimeStamp") + "  " + AStore.FieldText("Source") + " " +
                                                    std::to_string(AStore.FieldInt("EventID")));
    }
  AStore.Close();
  std::fprintf(AErr, "alerts: %llu new event%s matched the %zu rule%s of %s; %llu program%s started\n",
               static_cast<unsigned long long>(matched), matched == 1 ? "" : "s", patterns.Count(),
               patterns.Count() == 1 ? "" : "s", AFile.c_str(), static_cast<unsigned long long>(started),
               started == 1 ? "" : "s");
}

std::string TypeCounts(const TLogStatistics& AStats) {
  std::string text;
  auto add = [&](const char* AName, int32_t ACount) {
    if (!ACount) return;
    if (!text.empty()) text.append(", ");
    text.append(AName).append(" ").append(std::to_string(ACount));
  };
  add("Critical", AStats.TypeCritical);
  add("Error", AStats.TypeError);
  add("Warning", AStats.TypeWarning);
  add("Information", AStats.TypeInformation);
  add("Verbose", AStats.TypeVerbose);
  add("Audit Success", AStats.TypeAuditSuccess);
  add("Audit Failure", AStats.TypeAuditFailure);
  add("Success", AStats.TypeSuccess);
  return text.empty() ? "none" : text;
}

// Loads the entries into the store on a worker thread; the main thread shows progress
// and turns Ctrl-C into a break. Returns the exit status.
int LoadStore(const TStoreOptions& AOptions, TEvtLiteAdaptor& AStore, std::vector<TStoredEntry>& AEntries,
              bool ARefresh, std::FILE* AErr, const TLoadHooks* AHooks = nullptr) {
  const std::unique_ptr<TCatalogSet> catalogs = OpenCatalogs(AOptions.Catalogs);
  const std::unique_ptr<TImagedPC> imaged = OpenImaged(AOptions.Imaged);
  TLogView view;
  view.Store = &AStore;
  view.CheckDeletedEvents = AOptions.CheckDeleted;
  view.NewerOnly = ARefresh;
  view.LoadingFilter = BuildLoadingFilter(AOptions.Load);
  for (TStoredEntry& stored : AEntries)
    view.Entries.AddEventLogFileEntry(stored.Entry.LogName, stored.Entry.FileName, true) = stored.Entry;
  view.Entries.Normalized = true; // the command line's list is the view's, repeats included

  // The source being read (one at a time: an entry's source is gone before the next one
  // opens). Kept by kind, not by address in a map: a new source may lie where an old one
  // of the other kind was, and reading that one's progress crashed the load.
  TEventLogScan* currentScan = nullptr;
  TEventLogBinXML* currentFile = nullptr;
  std::string classicChannel;
  view.OpenSource = [&](TLogEntry& AEntry) -> std::unique_ptr<TEventLogBase> {
    const size_t index = static_cast<size_t>(&AEntry - &view.Entries.GetItem(0));
    const bool scan = index < AEntries.size() && AEntries[index].Scan;
    std::unique_ptr<TEventLogBase> source;
    currentScan = nullptr;
    currentFile = nullptr;
    // A log of the store gone since it was loaded.
    if (std::error_code error; AEntry.FileName.find("::") == std::string::npos &&
                               !std::filesystem::exists(AEntry.FileName, error) && !error)
      throw std::runtime_error(AEntry.FileName + ": no such file (the log was moved or deleted)");
    if (!scan && IsClassicLog(AEntry.FileName)) {
      auto classic = std::make_unique<TNTEventLog>();
      classic->SetSourceName(AEntry.LogName);
      source = std::move(classic);
    } else {
      std::unique_ptr<TEventLogBinXML> x;
      bool carve = scan;
      if (!scan) {
        // The header checks run on the reader's own file, so that its chunk headers are
        // read once here, not twice (inside an E01 each costs a whole container chunk).
        // The settings below apply as well to a reader already open: no event is read yet.
        x = std::make_unique<TEventLogBinXML>();
        x->SetBackupFileName(AEntry.FileName);
        try {
          x->SetActive(true);
        } catch (const std::exception&) {
          // The checks by name below raise the error with the file's fault named.
        }
        carve = x->Active() && x->EvtxFile() ? TEvtxSource::NeedsCarving(AEntry.FileName, *x->EvtxFile(), nullptr)
                                             : TEvtxSource::NeedsCarving(AEntry.FileName);
      }
      if (carve) {
        auto s = std::make_unique<TEventLogScan>();
        currentScan = s.get();
        x = std::move(s);
      }
      x->SetReadAhead(AOptions.Threads);
      currentFile = x.get();
      source = std::move(x);
    }
    source->SetImagedDescrServer(imaged.get());
    source->SetCatalogs(catalogs.get());
    ApplyTimeZone(*source, AOptions.TimeZone);
    source->SetBackupFileName(AEntry.FileName);
    source->SetActive(true);
    if (!source->Active()) throw std::runtime_error(AEntry.FileName + ": cannot be opened");
    return source;
  };
  view.ProgressOf = [&](TEventLogBase& ASource) -> int {
    if (currentScan && &ASource == currentScan) {
      const uint64_t total = currentScan->ElfChunks().SourceSize();
      return total ? static_cast<int>(currentScan->BytesScanned() * 100 / total) : -1;
    }
    if (currentFile && &ASource == currentFile && currentFile->EvtxFile()) {
      const uint64_t count = currentFile->EvtxFile()->Count();
      return count ? static_cast<int>(std::min<uint64_t>(100, currentFile->ChunkIndex() * 100 / count)) : -1;
    }
    return -1;
  };
  TEventItemX classicX(nullptr);
  view.PrepareEvent = [&](TEventItemBase& AItem) {
    if (auto* classic = dynamic_cast<TEventItem*>(&AItem)) {
      ClassicToX(*classic, AItem.Owner() ? AItem.Owner()->SourceName() : std::string(), classicX);
      AItem.FEvtXML.swap(classicX.FEvtXML);
    }
  };

  const bool showProgress =
      !AOptions.Quiet && (AOptions.Progress == 1 || (AOptions.Progress == -1 && IsTerminal(AErr)));
  bool drawn = false;
  view.Events.OnProgress = [&](uint64_t ARead, uint64_t ALoaded, int APercent, const std::string& AEntry) {
    if (AHooks && AHooks->OnProgress) AHooks->OnProgress(ARead, ALoaded, APercent, AEntry);
    if (!showProgress) return;
    std::string line = "\r  " + AEntry.substr(0, 40);
    if (APercent >= 0) line.append("  ").append(std::to_string(APercent)).append("%");
    line.append("  ").append(std::to_string(ALoaded)).append(" events loaded, ");
    line.append(std::to_string(ARead)).append(" read\x1b[K");
    std::fputs(line.c_str(), AErr);
    std::fflush(AErr);
    drawn = true;
  };

  const int64_t lastOldId = AStore.QueryIntValue("SELECT IFNULL(MAX(_ID), 0) FROM " + AStore.TableName());
  const auto started = std::chrono::steady_clock::now();
  GBreakRequested = false;
  // A front end that cancels on its own keeps its own Ctrl-C.
  auto previous = AHooks ? SIG_ERR : std::signal(SIGINT, OnInterrupt);
  {
    TWorkThread worker(&view);
    worker.Post(1);
    bool breakSent = false;
    while (!worker.WaitIdle(std::chrono::milliseconds(0))) {
      view.Queue.Drain(std::chrono::milliseconds(100));
      if ((GBreakRequested || (AHooks && AHooks->Cancel && *AHooks->Cancel)) && !breakSent) {
        worker.BreakThread();
        breakSent = true;
      }
    }
    view.Queue.Drain();
    worker.Post(100);
  }
  if (previous != SIG_ERR) std::signal(SIGINT, previous);
  if (drawn) std::fputs("\r\x1b[K", AErr);
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

  // The entries remember their newest event for the next refresh.
  for (size_t i = 0; i < AEntries.size() && i < view.Entries.Count(); ++i)
    AEntries[i].Entry = view.Entries.GetItem(i);

  // What the reads met in the media data of disk images (E01 chunks that fail their
  // checksum, a segment file missing): among the issues, or alone with --quiet.
  for (std::string& warning : TEvidenceImage::TakeWarnings()) {
    if (AOptions.Quiet)
      std::fprintf(AErr, "quorvex: warning: %s\n", warning.c_str());
    else
      view.Issues.push_back(std::move(warning));
  }
  int status = view.Errors.empty() ? 0 : 1;
  if (!AOptions.Quiet) {
    const double rate = seconds > 0 ? static_cast<double>(view.EventsLoaded) / seconds : 0;
    std::fprintf(AErr, "%s: %llu events %s from %zu log%s (%llu read) in %.2f s, %.0f events/s\n",
                 AStore.FileName().c_str(), static_cast<unsigned long long>(view.EventsLoaded),
                 ARefresh ? "added" : "loaded", AEntries.size(), AEntries.size() == 1 ? "" : "s",
                 static_cast<unsigned long long>(view.EventsRead), seconds, rate);
    std::fprintf(AErr, "  by type: %s\n", TypeCounts(view.Statistics).c_str());
    size_t start = 0;
    while (start < view.NoticeText.size()) {
      size_t end = view.NoticeText.find('\r', start);
      if (end == std::string::npos) end = view.NoticeText.size();
      std::fprintf(AErr, "  notice: %s\n", view.NoticeText.substr(start, end - start).c_str());
      start = end + 1;
    }
    const size_t shown = AOptions.AllIssues ? view.Issues.size() : std::min<size_t>(view.Issues.size(), 20);
    for (size_t i = 0; i < shown; ++i)
      std::fprintf(AErr, "  issue: %s\n", view.Issues[i].c_str());
    if (shown < view.Issues.size())
      std::fprintf(AErr, "  ... %zu more issues (--all-issues lists them)\n", view.Issues.size() - shown);
  }
  for (const std::string& error : view.Errors)
    std::fprintf(AErr, "quorvex: %s\n", error.c_str());
  if (!AOptions.Alerts.empty()) RunAlerts(AStore, AOptions.Alerts, lastOldId, AEntries, AErr, AHooks);
  if (!AOptions.Rules.empty()) HuntStoreEvents(AStore, AOptions.Rules, lastOldId, AOptions.Quiet, AErr, AOptions.RuleCache);
  if (ARefresh) MoveAheadOfOlderRows(AStore, lastOldId);
  return status;
}

std::map<std::string, std::string> SettingsOf(const TStoreOptions& AOptions) {
  std::string catalogs; // one file a line
  for (const std::string& catalog : AOptions.Catalogs) catalogs.append(catalog).push_back('\n');
  return {{"TimeZone", AOptions.TimeZone},
          {"Imaged", AOptions.Imaged},
          {"Catalogs", catalogs},
          {"CheckDeleted", AOptions.CheckDeleted ? "1" : "0"}};
}

// The same log file however it is named: relative or absolute, through links. A path
// inside an image ("IMAGE::PATH") is compared as written.
std::string SameFileKey(const std::string& APath) {
  if (APath.find("::") != std::string::npos) return APath;
  std::error_code error;
  const std::filesystem::path real = std::filesystem::canonical(APath, error);
  if (!error) return real.string();
  return std::filesystem::absolute(APath, error).lexically_normal().string();
}

// Leaves out of ANew the logs that AKept holds already, or that ANew names twice, each
// named on AErr: loaded again, their events would be in the store twice. A refresh
// brings a log's newer events.
void SkipLogsInStore(const std::vector<TStoredEntry>& AKept, std::vector<TStoredEntry>& ANew, std::FILE* AErr) {
  std::set<std::string> known;
  for (const TStoredEntry& stored : AKept) known.insert(SameFileKey(stored.Entry.FileName));
  std::vector<TStoredEntry> fresh;
  for (TStoredEntry& stored : ANew) {
    if (!known.insert(SameFileKey(stored.Entry.FileName)).second) {
      std::fprintf(AErr, "quorvex: %s: already in the store, not loaded again ('quorvex refresh' adds its newer events)\n",
                   stored.Entry.FileName.c_str());
      continue;
    }
    fresh.push_back(std::move(stored));
  }
  ANew = std::move(fresh);
}

std::string LogNameFor(const std::string& APath) {
  const std::string stem = std::filesystem::path(APath).stem().string();
  static const std::pair<const char*, const char*> kClassic[] = {
      {"AppEvent", "Application"}, {"SecEvent", "Security"}, {"SysEvent", "System"}};
  for (const auto& [file, log] : kClassic)
    if (strcasecmp(stem.c_str(), file) == 0) return log;
  return stem;
}

} // namespace

int RunOpen(const TStoreOptions& AOptions, std::FILE* AErr) {
  try {
    // A folder stands for the logs in it, a disk image for every log of the installation
    // in it, described from it.
    TStoreOptions options = AOptions;
    std::vector<std::string> logs;
    std::set<std::string> optional; // logs of shadow copies: damage there skips the log only
    int skipped = 0;
    for (const std::string& path : AOptions.Logs) {
      std::optional<TImageLogs> image;
      if (!options.Scan) image = ExpandInput(path, options.Shadows);
      if (!image) {
        logs.push_back(path);
        continue;
      }
      for (const std::string& problem : image->Problems) {
        std::fprintf(AErr, "quorvex: %s\n", problem.c_str());
        skipped = 1;
      }
      optional.insert(image->FromCopies.begin(), image->FromCopies.end());
      for (std::string& log : image->Logs) logs.push_back(std::move(log));
      if (options.Imaged.empty()) options.Imaged = image->Imaged; // the first image describes
    }
    options.Logs = std::move(logs);
    // Check every log before the store is touched.
    std::vector<TStoredEntry> entries;
    for (const std::string& path : options.Logs) {
      if (path.find("::") == std::string::npos && !std::filesystem::exists(path)) throw std::runtime_error(path + ": no such file or device");
      TStoredEntry stored;
      stored.Entry = TLogEntry::CreateEventLogFileEntry(LogNameFor(path), path, true);
      stored.Scan = options.Scan;
      if (!options.Scan && !IsClassicLog(path)) {
        try {
          TEvtxSource::NeedsCarving(path);
        } catch (const std::exception& e) {
          if (!optional.count(path))
            throw std::runtime_error(std::string(e.what()) + " (or open it with --scan)");
          // The header checks' hint names dump's option; a skipped log needs none.
          std::string message = e.what();
          if (const size_t hint = message.find(" (use --carve"); hint != std::string::npos)
            message.resize(hint);
          std::fprintf(AErr, "quorvex: %s; skipped\n", message.c_str());
          skipped = 1;
          continue;
        }
      }
      entries.push_back(std::move(stored));
    }
    TEvtLiteAdaptor store(options.Store);
    store.InitThreadDataSet();
    std::vector<TStoredEntry> kept;
    std::map<std::string, std::string> settings;
    if (options.Append) {
      if (!store.TableExists())
        throw EEventStoreError(options.Store + ": --append needs a store made by 'quorvex open'");
      kept = LoadEntries(store, settings);
    } else {
      // Never replace a database that is not ours.
      const int64_t tables = store.QueryIntValue("SELECT COUNT(*) FROM sqlite_master WHERE type = 'table' "
                                                 "AND name NOT IN ('Events', 'QvxLogEntries', "
                                                 "'QvxSettings', 'QvxDetections')");
      if (tables > 0) throw EEventStoreError(options.Store + ": not an event store; it was left unchanged");
      store.EmptyTable();
      TDetectionStore::Drop(store.Handle());
    }
    SkipLogsInStore(kept, entries, AErr);
    const size_t first = kept.size();
    for (TStoredEntry& stored : entries)
      kept.push_back(std::move(stored));
    std::vector<TStoredEntry> loading(kept.begin() + static_cast<std::ptrdiff_t>(first), kept.end());
    const int status = LoadStore(options, store, loading, false, AErr);
    std::copy(loading.begin(), loading.end(), kept.begin() + static_cast<std::ptrdiff_t>(first));
    SaveEntries(store, kept, SettingsOf(options));
    store.DoneThreadDataSet();
    return std::max(status, skipped);
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

int LoadIntoOpenStore(const TStoreOptions& AOptions, TEvtLiteAdaptor& AStore, bool ARefresh, const TLoadHooks& AHooks,
                      std::FILE* AErr) {
  std::map<std::string, std::string> settings;
  std::vector<TStoredEntry> entries = LoadEntries(AStore, settings);
  TStoreOptions options = AOptions;
  if (options.TimeZone.empty()) options.TimeZone = settings["TimeZone"];
  if (options.Imaged.empty()) options.Imaged = settings["Imaged"];
  const size_t first = ARefresh ? 0 : entries.size();
  if (!ARefresh) {
    std::vector<TStoredEntry> added;
    for (const std::string& path : AOptions.Logs) {
      TStoredEntry stored;
      stored.Entry = TLogEntry::CreateEventLogFileEntry(LogNameFor(path), path, true);
      stored.Scan = AOptions.Scan;
      added.push_back(std::move(stored));
    }
    SkipLogsInStore(entries, added, AErr);
    for (TStoredEntry& stored : added) entries.push_back(std::move(stored));
  }
  std::vector<TStoredEntry> loading(entries.begin() + static_cast<std::ptrdiff_t>(first), entries.end());
  if (ARefresh) AStore.PrepareMerge();
  const int status = LoadStore(options, AStore, loading, ARefresh, AErr, &AHooks);
  std::copy(loading.begin(), loading.end(), entries.begin() + static_cast<std::ptrdiff_t>(first));
  SaveEntries(AStore, entries, SettingsOf(options));
  return status;
}

int RunRefresh(const TStoreOptions& AOptions, std::FILE* AErr) {
  try {
    if (!std::filesystem::exists(AOptions.Store))
      throw std::runtime_error(AOptions.Store + ": no such store");
    TEvtLiteAdaptor store(AOptions.Store);
    store.InitThreadDataSet();
    store.OpenExistingTable();
    std::map<std::string, std::string> settings;
    std::vector<TStoredEntry> entries = LoadEntries(store, settings);
    TStoreOptions options = AOptions;
    // The zone and the installation of the first load, unless given again.
    if (options.TimeZone.empty()) options.TimeZone = settings["TimeZone"];
    if (options.Imaged.empty()) options.Imaged = settings["Imaged"];
    if (options.Catalogs.empty()) {
      const std::string& catalogs = settings["Catalogs"];
      for (size_t start = 0, end; start < catalogs.size(); start = end + 1) {
        end = catalogs.find('\n', start);
        if (end == std::string::npos) end = catalogs.size();
        if (end > start) options.Catalogs.push_back(catalogs.substr(start, end - start));
      }
    }
    options.CheckDeleted = options.CheckDeleted || settings["CheckDeleted"] == "1";
    store.PrepareMerge();
    const int status = LoadStore(options, store, entries, true, AErr);
    SaveEntries(store, entries, SettingsOf(options));
    store.DoneThreadDataSet();
    return status;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
