// The quorvex subcommands.
#pragma once

#include "app/event_output.h"
#include "app/filter_options.h"
#include "app/evtx_source.h"
#include "images/image_inputs.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace qvx::app {

struct TDumpOptions {
  std::string Path;
  unsigned Threads = 1;
  bool Wrap = false;
  bool Carve = false;
  TChunkOrder Order = TChunkOrder::coNewestFirst;
  bool Quiet = false;
};

// Prints every record's XML to AOut; problems go to AErr. Returns the exit status.
int RunDump(const TDumpOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

struct TInfoOptions {
  std::string Path;
  bool Carve = false;
};

// Prints the file header, each chunk and a summary of damage. Returns the exit status.
int RunInfo(const TInfoOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

} // namespace qvx::app

namespace qvx {
class TEvtLiteAdaptor;
class TImagedPC;
class TEventLogBinXML;
class TCatalogSet;
}

namespace qvx::app {

struct TEventsOptions {
  std::string Path;
  TOutputFormat Format = TOutputFormat::ofTable;
  std::string TimeZone = "local";
  uint64_t Limit = 0;    // 0 = every event
  unsigned Width = 0;    // table width; 0 = the terminal's (no limit when not a terminal)
  int Progress = -1;     // -1 auto (stderr is a terminal and stdout is not), 0 never, 1 always
  unsigned Threads = 1;  // threads rendering chunks ahead of the reader (0: none)
  bool Quiet = false;
  bool AllIssues = false;
  std::string Imaged;    // Windows folder (or its drive root) that describes the events
  std::vector<std::string> Catalogs; // message catalogs that describe what the installation does not
  TFilterOptions Filter; // which events are listed
  std::string Colors;    // color code file that paints the table's rows
  std::string ColorMode = "auto"; // auto (when stdout is a terminal), always, never
  int64_t Offset = -1;   // scan: the volume at this byte offset of the image
  bool Unallocated = false; // scan: only the NTFS volume's unallocated clusters
};

// The row colours of the options (loading the color code file into ACodes); raises
// std::runtime_error with "Load Color Codes: ..." when the file cannot be loaded.
TRowColors RowColorsFor(const TEventsOptions& AOptions, std::FILE* AOut, TColorCodes& ACodes);

// Opens an .evtx file as events reads it: the file's own chunks newest first, or, when
// its header does not match its chunks, the chunks a scan finds (AScan is then true and
// the notice goes to AErr). Raises std::runtime_error naming the file when it cannot be
// read as an .evtx file.
std::unique_ptr<TEventLogBinXML> OpenEvtxLog(const std::string& APath, const std::string& ATimeZone, unsigned AThreads,
                                             TImagedPC* AImaged, std::FILE* AErr, bool& AScan);

// Lists the events of an .evtx file newest first. Returns the exit status.
int RunEvents(const TEventsOptions& AOptions, std::FILE* AOut, std::FILE* AErr);
// Deep-scans a file, image or device for event chunks and lists their events.
int RunScan(const TEventsOptions& AOptions, std::FILE* AOut, std::FILE* AErr);
// Lists the known time zones.
int RunZones(std::FILE* AOut);

struct TImagedOptions {
  std::string Path;
  std::string Only; // one section, or "" for all
};

// The Windows folder of an installation given by that folder or the drive it lies on.
std::string FindWindowsFolder(const std::string& APath);
// The active imaged computer of --imaged APath; null for "". Raises std::runtime_error
// naming the option when the installation cannot be read.
std::unique_ptr<TImagedPC> OpenImaged(const std::string& APath);
// The message catalogs of --catalog, each checked whole; null for none. Raises
// std::runtime_error with one line naming the file that is not a usable catalog.
std::unique_ptr<TCatalogSet> OpenCatalogs(const std::vector<std::string>& APaths);

struct TCatalogOptions {
  std::string Imaged;                 // build: the installation
  bool Live = false;                  // build: the running Windows
  std::string Output;                 // build, merge: the catalog written
  std::vector<std::string> Languages; // build: message table languages
  std::string Name;                   // build: the origin's name
  std::vector<std::string> Inputs;    // info: one file; merge: the catalogs joined
  bool Quiet = false;
};

// quorvex catalog build / info / merge. Return the exit status.
int RunCatalogBuild(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr);
int RunCatalogInfo(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr);
int RunCatalogMerge(const TCatalogOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

// Lists a disk image's container, partitions and volumes, and each NTFS volume's
// Windows folder and logs.
int RunImagedImage(const TImagedOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

// Lists an offline Windows installation's logs, channels, publishers, classic sources
// and users.
int RunImaged(const TImagedOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

struct TXPathOptions {
  TFilterOptions Filter;          // the filter to turn into a query
  std::vector<std::string> Logs;  // logs the query reads
  std::vector<std::string> Files; // saved logs the query reads (file://)
  std::string Parse;              // a query to read back ("-": standard input)
};

// Prints the XML query of a filter, or reads a query back into filter criteria (and a
// filter file with --save-filter). Returns 0, 1 on failure, 3 for an approximate reading.
int RunXPath(const TXPathOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

// Applies a --tz value to a source: "UTC", "local", minutes ("+60", "-300") or a zone's
// key or display name. Raises std::invalid_argument for an unknown zone.
void ApplyTimeZone(TEventLogBase& ASource, const std::string& AZone);
// Why AZone is no --tz value ApplyTimeZone takes, without the option's name ("Mars/Base:
// unknown time zone (...)"); "" when it is one. For checking the command line up front.
std::string TimeZoneProblem(const std::string& AZone);

struct TStoreOptions {
  std::vector<std::string> Logs; // open: the logs to load
  std::string Store;             // the store file
  bool Append = false;           // open: add the logs to the store's
  bool Scan = false;             // open: deep-scan the logs (images, devices, damaged files)
  bool Shadows = false;          // open: an image's logs in its shadow copies too
  std::string TimeZone = "local";
  std::string Imaged;
  std::vector<std::string> Catalogs;
  bool CheckDeleted = false;     // gaps in record numbers are listed as issues
  TLoadOptions Load;
  std::string Alerts;            // alert file tested against the new events
  std::vector<std::string> Rules; // Sigma rule files or folders run over the new events
  bool RuleCache = true;          // parsed rule files kept in the user's cache folder
  unsigned Threads = 1;
  int Progress = -1;
  bool Quiet = false;
  bool AllIssues = false;
};

// What a front end sees of a load it runs itself: progress, and a flag that cancels it.
struct TLoadHooks {
  std::function<void(uint64_t ARead, uint64_t ALoaded, int APercent, const std::string& AEntry)> OnProgress;
  const std::atomic<bool>* Cancel = nullptr;
  // An event of the load that an alert rule matched: its _ID and a line naming it.
  std::function<void(int64_t AId, const std::string& AText)> OnAlert;
};
// Adds AOptions.Logs to an open store made by 'open' (or, with ARefresh, loads the newer
// events of its logs). The summary and problems go to AErr. Returns the exit status.
int LoadIntoOpenStore(const TStoreOptions& AOptions, TEvtLiteAdaptor& AStore, bool ARefresh, const TLoadHooks& AHooks,
                      std::FILE* AErr);
// Loads logs into a new store (or adds them with Append). Returns the exit status.
int RunOpen(const TStoreOptions& AOptions, std::FILE* AErr);
// Loads the events that are newer than those already in the store.
int RunRefresh(const TStoreOptions& AOptions, std::FILE* AErr);

struct TViewOptions {
  std::string Store;
  TFilterOptions Filter;
  std::string Sort;          // a column; "" keeps the load order (newest first)
  bool Descending = false;
  bool NoIndex = false;      // sort without creating an index
  int64_t Limit = 0;         // rows shown (0 = all)
  TOutputFormat Format = TOutputFormat::ofTable;
  unsigned Width = 0;
  std::string Colors, ColorMode = "auto";
  bool Stats = false;        // counts by type, top sources, events per day
  bool Count = false;        // only the number of rows
  bool Bookmark = false;     // bookmark exactly the rows the filter selects
  bool ClearBookmarks = false;
  bool Bookmarked = false;   // only bookmarked rows
  bool Detections = false;    // list the detections of the rows instead of the rows (of the
                              // filter's detection level or above; any level when it has none)
};

// Shows the rows of a store. Returns the exit status.
int RunView(const TViewOptions& AOptions, std::FILE* AOut, std::FILE* AErr);

struct TServeOptions {
  TStoreOptions Store;      // the logs to load (or one store to serve) and how
  std::string Bind = "127.0.0.1";
  int Port = 0;             // 0: a free port
  bool NoBrowser = false;
  std::string Colors;       // color code file that paints the rows
  std::vector<std::string> Roots; // folders the page may open logs from (default: those of the inputs)
};
// Serves a store in the browser until Ctrl-C. Returns the exit status.
int RunServe(const TServeOptions& AOptions, std::FILE* AOut, std::FILE* AErr);
// Runs `serve` with this command line in the browser view's own program, quorvex-serve,
// found beside this one. Returns only when it cannot be started.
int RunServeProgram(int AArgc, char** AArgv, std::FILE* AErr);

// Writes the demo log to APath and, when AList, lists its events. Returns the exit status.
int RunDemo(const std::string& APath, uint64_t ARecords, bool AList, std::FILE* AOut, std::FILE* AErr);
} // namespace qvx::app
