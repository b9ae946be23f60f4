// quorvex: the command-line front end.
#include "app/commands.h"
#include "app/hunt_command.h"
#include "images/image_opener.h"

#include <CLI/CLI.hpp>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

namespace {

// Letters to insert, delete or change to turn one word into the other (ASCII case ignored).
size_t EditDistance(std::string_view A, std::string_view B) {
  if (A.size() > 64 || B.size() > 64) return std::max(A.size(), B.size());
  std::vector<size_t> row(B.size() + 1);
  for (size_t j = 0; j <= B.size(); ++j) row[j] = j;
  for (size_t i = 1; i <= A.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= B.size(); ++j) {
      const size_t above = row[j];
      const bool same = std::tolower(static_cast<unsigned char>(A[i - 1])) ==
                        std::tolower(static_cast<unsigned char>(B[j - 1]));
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
      diagonal = above;
    }
  }
  return row[B.size()];
}

} // namespace

int main(int argc, char** argv) {
  using namespace qvx::app;
#if defined(__GLIBC__)
  // Chunk buffers and rendered text are a few hundred KB each and freed per chunk; keep
  // them in the heap instead of mapping and unmapping (and faulting in) pages each time.
  mallopt(M_MMAP_THRESHOLD, 64 * 1024 * 1024);
  mallopt(M_TRIM_THRESHOLD, 128 * 1024 * 1024);
  // Grow the heaps in large steps: a thread's heap otherwise grows by what each
  // allocation lacks, one system call (which takes the address space's lock and stalls
  // the other threads' page faults) per few kilobytes. The room is only reserved: pages
  // are used when written. A hunt loads its rules 2 ms sooner.
  mallopt(M_TOP_PAD, 16 * 1024 * 1024);
#endif

  CLI::App app{"Quorvex - a fast, portable viewer and analyser of Windows event logs.\n"
               "Reads .evtx and .evt files directly, with no help from Windows, and reports damage\n"
               "instead of stopping at it.",
               "quorvex"};
  app.require_subcommand(1);
  // A wrong option is named with the command it was given to, and points to that command's help.
  app.failure_message([](const CLI::App* AApp, const CLI::Error& AError) {
    std::string command = "quorvex";
    for (const CLI::App* at = AApp; !at->get_subcommands().empty();) {
      at = at->get_subcommands().front();
      command += " " + at->get_name();
    }
    return command + ": " + AError.what() + "\nRun '" + command + " --help' for the options.\n";
  });
  // Parses the command line: nothing when it is good, else the exit status after the help,
  // the version or the error was printed (0, or 2 for a wrong command line).
  auto parse = [&app](int AArgc, char** AArgv) -> std::optional<int> {
    try {
      app.parse(AArgc, AArgv);
      return std::nullopt;
    } catch (const CLI::ParseError& e) {
      return app.exit(e) == 0 ? 0 : 2;
    }
  };
  app.set_version_flag("--version", "quorvex 0.1.0");
  app.footer("Examples:\n"
             "  quorvex events Security.evtx                     the events, newest first, as a table\n"
             "  quorvex events --format jsonl --tz UTC System.evtx > system.jsonl\n"
             "  quorvex scan disk.img --format csv > found.csv   events of chunks found anywhere in an image\n"
             "  quorvex events AppEvent.Evt                      a classic log of Windows XP / Server 2003\n"
             "  sudo quorvex scan /dev/sdb --format jsonl > sdb.jsonl\n"
             "  quorvex dump Security.evtx > security.xml       every record as XML\n"
             "  quorvex dump --threads 2 --wrap big.evtx         parallel, as one XML document\n"
             "  quorvex info System.evtx                         header, chunks and damage\n"
             "  quorvex events Security.evtx --imaged /mnt/image/Windows\n"
             "                                                   descriptions from an offline installation\n"
             "  quorvex imaged /mnt/image                        its logs, channels, publishers and users\n"
             "  quorvex dump --carve damaged.bin                 records of chunks found anywhere in the data\n"
             "  quorvex open Security.evtx System.evtx -s case.db   load logs into an event store\n"
             "  quorvex view case.db --type error --sort Date --desc   filter, sort and show them\n"
             "  quorvex hunt -r sigma/rules/windows Logs/        run Sigma rules over a folder of logs\n"
             "  quorvex demo                                     write a demo log and list its events\n"
             "Run 'quorvex COMMAND --help' for the options of a command.");

  TDumpOptions dump;
  std::string order = "newest";
  auto* cmdDump = app.add_subcommand("dump", "Print the XML of every record of an .evtx file");
  cmdDump->add_option("file", dump.Path, "The .evtx file (or, with --carve, any file or device)")->required();
  cmdDump->add_option("-t,--threads", dump.Threads,
                      "Chunks rendered in parallel (output order is unchanged; 0 = one per core; "
                      "files under 16 MB use one)")
      ->default_val(1);
  cmdDump->add_flag("-w,--wrap", dump.Wrap, "Wrap the records in one <Events> root element (well-formed XML)");
  cmdDump->add_flag("-c,--carve", dump.Carve,
                    "Ignore the file header and read every chunk found by scanning the data for chunk signatures");
  cmdDump->add_option("--order", order,
                      "Chunk order: 'newest' (largest first record ID first, as the log is read) or 'file'")
      ->check(CLI::IsMember({"newest", "file"}))
      ->default_val("newest");
  cmdDump->add_flag("-q,--quiet", dump.Quiet, "Do not print the closing summary line on stderr");
  cmdDump->footer("Records are printed as the log holds them: each element starts on a new line (CR LF).\n"
                  "Damaged records are skipped and reported on stderr with their chunk and offset.\n"
                  "A file whose header does not match its chunks is read by scanning it; stderr says so.");
  auto runDump = [&] {
    qvx::InstallImageOpener();
    if (dump.Threads == 0) dump.Threads = std::max(1u, std::thread::hardware_concurrency());
    dump.Order = order == "file" ? TChunkOrder::coFile : TChunkOrder::coNewestFirst;
    return RunDump(dump, stdout, stderr);
  };
  // 'dump' is timed as a whole, and setting up every other command's options costs more than
  // a small log takes to print: when the command line names only dump, they are left out.
  // Another command's name anywhere after it takes the full path, so errors read the same.
  if (argc > 1 && std::string_view(argv[1]) == "dump") {
    static constexpr std::string_view kOtherCommands[] = {"events", "scan",    "zones", "imaged", "catalog",
                                                         "build",  "info",    "merge", "xpath",  "open",
                                                         "refresh", "serve",  "view",  "hunt",   "demo"};
    bool onlyDump = true;
    for (int i = 2; i < argc && onlyDump; ++i)
      for (std::string_view name : kOtherCommands)
        if (name == argv[i]) onlyDump = false;
    if (onlyDump) {
      if (const std::optional<int> status = parse(argc, argv)) return *status;
      return runDump();
    }
  }

  // events and scan share their output options.
  TEventsOptions events;
  std::string eventsFormat = "table";
  auto addOutputOptions = [&](CLI::App* ACommand) {
    ACommand->add_option("-f,--format", eventsFormat,
                         "Output: 'table' (fits the terminal), 'csv', 'jsonl' (one JSON object per line) or 'xml'")
        ->check(CLI::IsMember({"table", "csv", "jsonl", "xml"}))
        ->default_val("table");
    ACommand->add_option("--tz", events.TimeZone,
                         "Time shift of the shown times: 'UTC', 'local' (default), minutes east of UTC such as "
                         "+60 or -300, a Windows zone name such as \"Pacific Standard Time\" (see "
                         "'quorvex zones') or an IANA name such as America/Los_Angeles")
        ->default_val("local");
    ACommand->add_option("-n,--limit", events.Limit, "Stop after this many events (0 = all)")->default_val(0);
    ACommand->add_option("-t,--threads", events.Threads,
                         "Threads decoding chunks ahead of the one writing events (0 = none; the output is the "
                         "same either way)")
        ->default_val(std::thread::hardware_concurrency() > 1 ? 1 : 0);
    ACommand->add_option("--width", events.Width, "Table width in columns (default: the terminal's)");
    ACommand->add_flag_callback(
        "--progress", [&] { events.Progress = 1; },
        "Show a progress bar on stderr (by default it shows when stderr is a terminal and stdout is not)");
    ACommand->add_flag_callback("--no-progress", [&] { events.Progress = 0; }, "Never show the progress bar");
    ACommand->add_flag("--all-issues", events.AllIssues, "List every problem met while reading, not the first 20");
    ACommand->add_flag("-q,--quiet", events.Quiet, "No progress bar and no closing summary on stderr");
    AddFilterOptions(*ACommand, events.Filter);
    ACommand->add_option("--colors", events.Colors, "Paint the table's rows with this color code file (QVEX_Colors)");
    ACommand->add_option("--color", events.ColorMode, "When to paint rows: auto (a terminal), always or never")
        ->check(CLI::IsMember({"auto", "always", "never"}));
    ACommand->add_option("--imaged", events.Imaged,
                         "Describe the events from this offline Windows installation: its Windows folder or\n"
                         "the drive it lies on (a mounted image or a copy), read with no Windows needed");
    ACommand->add_option("--catalog", events.Catalogs,
                         "Describe the events from this message catalog ('quorvex catalog build'; repeatable):\n"
                         "what --imaged has no text for, or every event without --imaged")
        ->allow_extra_args(false);
  };
  auto* cmdEvents = app.add_subcommand("events", "List the events of an .evtx or classic .evt file, newest first");
  cmdEvents->add_option("file", events.Path,
                         "The .evtx file, or a classic .evt file (recognised by its header); inside a disk image "
                         "as IMAGE::/Windows/System32/winevt/Logs/System.evtx, IMAGE@2::PATH (volume 2) or\n"
                         "IMAGE@2:vss1::PATH (volume 2 as its shadow copy 1 holds it)")
      ->required();
  addOutputOptions(cmdEvents);
  cmdEvents->add_option("--offset", events.Offset,
                        "The file lies on the volume that starts at this byte offset of the image (as IMAGE@+BYTES::PATH)")
      ->check(CLI::NonNegativeNumber);
  cmdEvents->footer("Columns of the table: time, type, event ID, source, task, user, computer, record number and\n"
                    "channel. CSV and JSON Lines add level, qualifiers, version, opcode, keywords, the user's SID,\n"
                    "the description and the event data values; XML gives each event's XML.\n"
                    "Damaged records are skipped and listed at the end on stderr. A file whose header does not\n"
                    "match its chunks is read by scanning it for chunks; stderr says so.\n"
                    "Classic .evt logs are read directly, also when their data area wraps or they were never\n"
                    "closed; damaged records are stepped over and listed on stderr.");

  auto* cmdScan = app.add_subcommand("scan", "Deep-scan a damaged file, a disk image or a device for event chunks");
  cmdScan->add_option("path", events.Path,
                      "A file, a disk image or a block device such as /dev/sdb (reading a device needs permission);\n"
                      "IMAGE@N scans volume N of an image, IMAGE@N:vssM its shadow copy M")
      ->required();
  addOutputOptions(cmdScan);
  cmdScan->add_option("--offset", events.Offset,
                      "Scan only the volume that starts at this byte offset of the image (as IMAGE@+BYTES)")
      ->check(CLI::NonNegativeNumber);
  cmdScan->add_flag("--unallocated", events.Unallocated,
                    "Scan only the unallocated clusters of the image's NTFS volume, where deleted logs survive");
  cmdScan->footer("Chunks are listed in the order they lie in the data, each from its last event back to its\n"
                  "first; a chunk present twice (an old copy in free space) gives its events twice. The count\n"
                  "of events is not known in advance; the progress bar shows MB read, MB/s and events found.");

  app.add_subcommand("zones", "List the time zones that --tz accepts (* marks this computer's)");

  TImagedOptions imaged;
  auto* cmdImaged = app.add_subcommand("imaged", "Show what an offline Windows installation holds for describing events");
  cmdImaged->add_option("windows", imaged.Path,
                        "Its Windows folder (/mnt/image/Windows), the drive it lies on (/mnt/image), or a disk "
                        "image (E01, VHD/VHDX, VMDK, QCOW2, raw) or block device")
      ->required();
  cmdImaged->add_option("--only", imaged.Only, "One section: logs, channels, publishers, sources or users");
  int64_t imagedOffset = -1;
  cmdImaged->add_option("--offset", imagedOffset,
                        "Only the volume that starts at this byte offset of the image (as IMAGE@+BYTES)")
      ->check(CLI::NonNegativeNumber);
  cmdImaged->footer("Reads the installation's SOFTWARE and SYSTEM hives (never writes them) and lists its logs\n"
                    "folder, channels with their publishers, publishers and classic event sources with their\n"
                    "message files (mapped into the image), and the users of its profile list.\n"
                    "A disk image is listed first: container, partitions, volumes, and each NTFS volume's Windows\n"
                    "folder, logs and Volume Shadow Copies (vss1, vss2, ... with their creation time in UTC).\n"
                    "A copy's files are named IMAGE@VOLUME:vssN::PATH; IMAGE@VOLUME:vssN lists that copy.\n"
                    "Then: quorvex events LOG --imaged DIR  describes LOG's events as that Windows would.");

  TCatalogOptions catalog;
  std::string catalogLanguages;
  auto* cmdCatalog = app.add_subcommand("catalog", "Build, show and merge message catalogs that describe events anywhere");
  cmdCatalog->require_subcommand(1);
  auto* cmdCatalogBuild = cmdCatalog->add_subcommand("build", "Write the message catalog of a Windows installation");
  auto* catalogImaged = cmdCatalogBuild->add_option("--imaged", catalog.Imaged,
                                                    "The installation: its Windows folder or the drive it lies on");
  auto* catalogLive = cmdCatalogBuild->add_flag("--live", catalog.Live, "The running Windows system (Windows only)");
  catalogLive->excludes(catalogImaged);
  // One of the two is the catalog's installation: without either the command line is wrong.
  cmdCatalogBuild->parse_complete_callback([catalogImaged, catalogLive] {
    if (!*catalogImaged && !*catalogLive)
      throw CLI::ValidationError("--imaged", "the installation to read is needed: --imaged DIR|IMAGE, or --live");
  });
  cmdCatalogBuild->add_option("-o,--output", catalog.Output, "The catalog file to write (replaced)")->required();
  cmdCatalogBuild->add_option("--lang", catalogLanguages,
                              "Message table languages in order of preference, such as en-US,de-DE\n"
                              "(default: the installation's UI languages)");
  cmdCatalogBuild->add_option("--name", catalog.Name, "The installation's name in the catalog (default: its product)");
  cmdCatalogBuild->add_flag("-q,--quiet", catalog.Quiet,
                            "Do not list the message files that cannot be found or read (only count them)");
  cmdCatalogBuild->footer("The catalog holds every publisher and classic event source of the installation: names,\n"
                          "GUIDs, message files and versions, event definitions, task names and the message tables\n"
                          "of the chosen languages. Then: quorvex events LOG --catalog FILE  on any computer.");
  auto* cmdCatalogInfo = cmdCatalog->add_subcommand("info", "List a catalog's installations, counts and languages");
  cmdCatalogInfo->add_option("file", catalog.Inputs, "Catalog files")->required();
  auto* cmdCatalogMerge = cmdCatalog->add_subcommand("merge", "Join catalogs of several Windows versions into one");
  cmdCatalogMerge->add_option("catalogs", catalog.Inputs, "The catalogs to join")->required()->expected(2, -1);
  cmdCatalogMerge->add_option("-o,--output", catalog.Output, "The catalog file to write (replaced)")->required();
  cmdCatalogMerge->footer("Identical message tables are stored once. With several installations for one source,\n"
                          "the event's own version decides, else the newest installation (highest build).");

  TXPathOptions xpath;
  auto* cmdXPath = app.add_subcommand("xpath", "Turn a filter into the XML query of Windows' event log tools, or read one back");
  AddFilterOptions(*cmdXPath, xpath.Filter);
  cmdXPath->add_option("--log", xpath.Logs, "A log the query reads (repeatable; default Application)");
  cmdXPath->add_option("--file", xpath.Files, "A saved log the query reads, as file:// (repeatable)");
  cmdXPath->add_option("--parse", xpath.Parse, "Read this query file back (- for standard input) into filter criteria");
  cmdXPath->footer("Examples:\n"
                   "  quorvex xpath --type error,warning --id 4624,4625-4630!4627 --last 1d --log Security\n"
                   "  quorvex xpath --parse query.xml --save-filter from-query.xml\n"
                   "A query says levels, keywords, event IDs, providers and a last-N period; what else the filter\n"
                   "holds is listed on stderr as left out. A query read back reports 'parsed', or 'inaccurate'\n"
                   "(exit 3) with what it could not represent, or fails (exit 1) with the reason.");

  TInfoOptions info;
  auto* cmdInfo = app.add_subcommand("info", "Show the file header, every chunk and the damage found");
  cmdInfo->add_option("file", info.Path, "The .evtx file")->required();
  cmdInfo->add_flag("-c,--carve", info.Carve, "List the chunks found by scanning the data instead of the header's");

  // open / refresh / view: the event store.
  TStoreOptions store;
  int64_t openOffset = -1;
  auto addLoadOptions = [&](CLI::App* ACommand) {
    ACommand->add_flag("--shadows", store.Shadows,
                       "For a disk image: load the logs of each Volume Shadow Copy of its installation volume too\n"
                       "(named IMAGE@VOLUME:vssN::PATH in the store); a copy that cannot be read is reported and skipped");
    ACommand->add_option("--offset", openOffset,
                         "The installation is on the volume that starts at this byte offset of each image (IMAGE@+BYTES)")
      ->check(CLI::NonNegativeNumber);
    ACommand->add_option("--tz", store.TimeZone, "Time shift of the stored times (as for 'events'; default local)");
    ACommand->add_option("--imaged", store.Imaged, "Describe the events from this offline Windows installation");
    ACommand->add_option("--catalog", store.Catalogs,
                         "Describe the events from this message catalog (repeatable; kept for 'refresh')")
        ->allow_extra_args(false);
    ACommand->add_flag("--check-deleted", store.CheckDeleted,
                       "List gaps in record numbers as potentially deleted events");
    ACommand->add_option("--alerts", store.Alerts,
                         "Test the new events against this alert file (AlertPatterns) and start its programs");
    ACommand->add_option("--rules", store.Rules,
                         "Run these Sigma rules (files or folders, repeatable) over the new events and keep their\n"
                         "detections in the store ('view --detections')")
        ->allow_extra_args(false);
    ACommand->add_flag_callback("--no-rule-cache", [&] { store.RuleCache = false; },
                                "Parse every rule file, neither reading nor writing the rule cache");
    ACommand->add_option("-t,--threads", store.Threads, "Threads decoding chunks ahead of the loader (0 = none)")
        ->default_val(std::thread::hardware_concurrency() > 1 ? 1 : 0);
    ACommand->add_flag_callback("--progress", [&] { store.Progress = 1; }, "Always show progress on stderr");
    ACommand->add_flag_callback("--no-progress", [&] { store.Progress = 0; }, "Never show progress");
    ACommand->add_flag("--all-issues", store.AllIssues, "List every problem met while reading, not the first 20");
    ACommand->add_flag("-q,--quiet", store.Quiet, "No progress and no summary on stderr");
    AddLoadOptions(*ACommand, store.Load);
  };
  auto* cmdOpen = app.add_subcommand("open", "Load logs into an event store file for viewing, filtering and alerts");
  cmdOpen->add_option("logs", store.Logs,
                      ".evtx or .evt files, folders of them (every log in each and below it), or disk images\n"
                      "(every log of the installation in each, IMAGE@VOLUME or IMAGE@VOLUME:vssN for one volume or\n"
                      "shadow copy; with --scan: images, devices, damaged files)")
      ->required();
  cmdOpen->add_option("-s,--store", store.Store, "The store file to create (an existing store is replaced)")->required();
  cmdOpen->add_flag("--append", store.Append,
                    "Add the logs to the store's events instead of replacing them (a log the store "
                    "holds already is skipped: 'refresh' adds its newer events)");
  cmdOpen->add_flag("--scan", store.Scan, "Deep-scan the inputs for event chunks");
  addLoadOptions(cmdOpen);
  cmdOpen->footer("Loading runs on a worker thread; Ctrl-C stops it and keeps what was loaded (\"User break.\").\n"
                  "Afterwards stderr shows the counts by type, the notices of the loading filter and the\n"
                  "problems met. The logs themselves are only read.\n"
                  "Then: quorvex view STORE ...   and later   quorvex refresh STORE");
  auto* cmdRefresh = app.add_subcommand("refresh", "Load the events that are newer than those already in a store");
  cmdRefresh->add_option("store", store.Store, "A store made by 'quorvex open'")->required();
  addLoadOptions(cmdRefresh);
  cmdRefresh->get_option("--tz")->default_str("");

  TServeOptions serve;
  auto* cmdServe = app.add_subcommand("serve", "Show logs or a store in the browser: events grid, details, filter, "
                                               "statistics, bookmarks, export");
  cmdServe->add_option("inputs", store.Logs,
                       ".evtx or .evt files, folders of them or disk images to load (as for 'open'; with --scan:\n"
                       "any data), or one store (.db)")
      ->required();
  cmdServe->add_option("-s,--store", store.Store, "Load into this store file and keep it (default: a temporary store)");
  cmdServe->add_flag("--scan", store.Scan, "Deep-scan the inputs for event chunks");
  addLoadOptions(cmdServe);
  cmdServe->add_option("--port", serve.Port, "Port to listen on (default: a free one)");
  cmdServe->add_option("--bind", serve.Bind, "Address to listen on (default 127.0.0.1; any other prints a warning)");
  cmdServe->add_flag("--no-browser", serve.NoBrowser, "Do not open the address in the default browser");
  cmdServe->add_option("--colors", serve.Colors, "Paint the rows with this color code file (QVEX_Colors)");
  cmdServe->add_option("--root", serve.Roots,
                       "A folder whose logs the page may open (repeatable; default: the folders of the inputs)")
      ->allow_extra_args(false);
  cmdServe->footer("The first line on stdout is the address to open, with the session's token:\n"
                   "  Quorvex is serving http://127.0.0.1:PORT/?token=TOKEN\n"
                   "Every request needs that token; scripts send it as 'Authorization: Bearer TOKEN' (the JSON\n"
                   "calls are listed in the README). Ctrl-C stops the server.\n"
                   "Examples:\n"
                   "  quorvex serve Security.evtx System.evtx\n"
                   "  quorvex serve case.db --no-browser --port 8080");

  TViewOptions view;
  std::string viewFormat = "table";
  auto* cmdView = app.add_subcommand("view", "Show the events of a store: filtered, sorted, bookmarked, counted, colored");
  cmdView->add_option("store", view.Store, "A store made by 'quorvex open'")->required();
  AddFilterOptions(*cmdView, view.Filter);
  cmdView->add_option("--sort", view.Sort, "Sort by a column: Date, Type, EventID, Source, CategoryName, UserName,\n"
                                           "Computer, RecordNumber, EventLog, _ID (default: newest first as loaded)");
  cmdView->add_flag("--desc", view.Descending, "Sort in descending order");
  cmdView->add_flag("--no-index", view.NoIndex, "Sort without creating an index (slower, leaves the store smaller)");
  cmdView->add_option("-n,--limit", view.Limit, "Show at most this many rows");
  cmdView->add_option("-f,--format", viewFormat, "Output: table, csv, jsonl or xml (each event's XML)")
      ->check(CLI::IsMember({"table", "csv", "jsonl", "xml"}));
  cmdView->add_option("--width", view.Width, "Table width in columns (default: the terminal's)");
  cmdView->add_option("--colors", view.Colors, "Paint the rows with this color code file (QVEX_Colors)");
  cmdView->add_option("--color", view.ColorMode, "When to paint rows: auto (a terminal), always or never")
      ->check(CLI::IsMember({"auto", "always", "never"}));
  cmdView->add_flag("--stats", view.Stats, "Counts by type, the top sources and events per day");
  cmdView->add_flag("--count", view.Count, "Only the number of events the filter selects");
  cmdView->add_flag("--bookmark", view.Bookmark, "Bookmark exactly the events the filter selects (others lose theirs)");
  cmdView->add_flag("--clear-bookmarks", view.ClearBookmarks, "Remove every bookmark first");
  cmdView->add_flag("--bookmarked", view.Bookmarked, "Only bookmarked events");
  cmdView->add_flag("--detections", view.Detections,
                    "List the Sigma detections of the events (time, level, rule and author, matched values)");
  AddDetectionLevelOption(*cmdView, view.Filter);
  cmdView->footer("Examples:\n"
                  "  quorvex open Security.evtx System.evtx -s case.db\n"
                  "  quorvex view case.db --type error,warning --sort Date --desc -n 50\n"
                  "  quorvex view case.db --regex 'logon type:\\s+10' --count\n"
                  "  quorvex view case.db --id 4625 --bookmark   then   quorvex view case.db --bookmarked\n"
                  "  quorvex view case.db --stats --last 7d");

  THuntOptions hunt;
  std::string huntFormat = "table";
  auto* cmdHunt = app.add_subcommand("hunt", "Run Sigma rules over logs, folders of logs, scans and stores");
  cmdHunt->add_option("inputs", hunt.Inputs,
                      ".evtx or .evt files, folders of them, stores, or disk images (every log of the installation\n"
                      "in each, as for 'open'; with --scan: any data)")
      ->required();
  cmdHunt->add_option("-r,--rules", hunt.Rules, "A Sigma rule file or a folder of rules (repeatable)")
      ->required()
      ->allow_extra_args(false);
  cmdHunt->add_option("--min-level", hunt.MinLevel,
                      "Use only rules of this level or above: informational, low, medium, high, critical")
      ->default_val("informational");
  cmdHunt->add_option("--status", hunt.Statuses,
                      "Use only rules of these statuses (stable, test, experimental, ...; comma-separated)")
      ->delimiter(',');
  cmdHunt->add_option("-f,--format", huntFormat, "Output: table, csv or jsonl")
      ->check(CLI::IsMember({"table", "csv", "jsonl"}));
  cmdHunt->add_option("--tz", hunt.TimeZone, "Time shift of the shown times (as for 'events'; stores too)")
      ->default_val("local")
      ->check([](const std::string& AZone) { return TimeZoneProblem(AZone); }); // once, not per input
  cmdHunt->add_flag("--scan", hunt.Scan, "Deep-scan the inputs for event chunks (images, devices, damaged files)");
  cmdHunt->add_flag("--shadows", hunt.Shadows,
                    "For a disk image: also hunt in the logs of each Volume Shadow Copy of its installation volume");
  int64_t huntOffset = -1;
  cmdHunt->add_option("--offset", huntOffset,
                      "The installation is on the volume that starts at this byte offset of each image (IMAGE@+BYTES)")
      ->check(CLI::NonNegativeNumber);
  cmdHunt->add_option("-t,--threads", hunt.Threads,
                      "Threads beside the reader (0 = none): each of them and the reader takes a whole chunk "
                      "of an .evtx file; for other inputs they decode chunks, and as many test rules")
      ->default_val(std::thread::hardware_concurrency() > 1 ? 1 : 0);
  cmdHunt->add_option("--width", hunt.Width, "Table width in columns (default: the terminal's)");
  cmdHunt->add_flag("-q,--quiet", hunt.Quiet, "No summary on stderr");
  cmdHunt->add_flag_callback("--no-rule-cache", [&] { hunt.RuleCache = false; },
                    "Parse every rule file, neither reading nor writing the rule cache\n"
                    "($XDG_CACHE_HOME/quorvex or ~/.cache/quorvex)");
  cmdHunt->footer("One line per rule and event that matched: time, level, the rule's title with its author,\n"
                  "computer, event ID and the values that matched. stderr closes the run with the counts by\n"
                  "level and rule and lists the rules that could not be used, with the reason.\n"
                  "The rules' licence (Detection Rule License 1.1 for SigmaHQ's) asks that every view of a\n"
                  "match names the rule's author: each format carries it.");

  std::string demoOutput = "quorvex-demo.evtx";
  uint64_t demoRecords = 300;
  bool demoNoDump = false;
  auto* cmdDemo = app.add_subcommand("demo", "Write a small realistic demo log with Quorvex's own writer and list its events");
  cmdDemo->add_option("-o,--output", demoOutput, "Where to write the demo log")->default_val("quorvex-demo.evtx");
  cmdDemo->add_option("-n,--records", demoRecords, "Number of records to write")->default_val(300);
  cmdDemo->add_flag("--no-dump", demoNoDump, "Only write the log");

  // Without a command the help is what a user needs; a word that names no command is said to
  // be one (the parser would only say that a command is required), with the nearest name.
  if (argc < 2) {
    std::fputs(app.help().c_str(), stdout);
    return 1;
  }
  // "quorvex help [COMMAND...]" is "quorvex [COMMAND...] --help".
  std::vector<char*> helpArgs;
  if (std::string_view(argv[1]) == "help") {
    static char helpFlag[] = "--help";
    helpArgs.assign(argv, argv + argc);
    helpArgs.erase(helpArgs.begin() + 1);
    helpArgs.push_back(helpFlag);
    argc = static_cast<int>(helpArgs.size());
    argv = helpArgs.data();
    if (argc == 2) {
      std::fputs(app.help().c_str(), stdout);
      return 0;
    }
  }
  if (argv[1][0] != '-') {
    std::string nearest;
    size_t nearestDistance = 3; // a name two edits away or closer is suggested
    bool known = false;
    for (const CLI::App* command : app.get_subcommands({})) {
      known = known || command->check_name(argv[1]);
      const size_t distance = EditDistance(argv[1], command->get_name());
      if (distance < nearestDistance) {
        nearestDistance = distance;
        nearest = command->get_name();
      }
    }
    if (!known) {
      std::fprintf(stderr, "quorvex: '%s' is not a command%s\nRun 'quorvex --help' for the commands.\n", argv[1],
                   nearest.empty() ? "" : (" (did you mean '" + nearest + "'?)").c_str());
      return 1;
    }
  }
  if (const std::optional<int> status = parse(argc, argv)) return *status;
  if (!*cmdDump) qvx::InstallImageOpener();

  if (*cmdDump) return runDump();
  // --offset is a front to IMAGE@+BYTES.
  try {
    if (*cmdEvents && events.Offset >= 0) events.Path = qvx::WithVolumeOffset(events.Path, events.Offset);
    if (*cmdImaged && imagedOffset >= 0) imaged.Path = qvx::WithVolumeOffset(imaged.Path, imagedOffset);
    if ((*cmdOpen || *cmdServe) && openOffset >= 0)
      for (std::string& log : store.Logs) log = qvx::WithVolumeOffset(log, openOffset);
    if (*cmdHunt && huntOffset >= 0)
      for (std::string& input : hunt.Inputs) input = qvx::WithVolumeOffset(input, huntOffset);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "quorvex: %s\n", e.what());
    return 1;
  }
  if (*cmdEvents || *cmdScan) {
    events.Format = eventsFormat == "csv"     ? TOutputFormat::ofCsv
                    : eventsFormat == "jsonl" ? TOutputFormat::ofJsonl
                    : eventsFormat == "xml"   ? TOutputFormat::ofXml
                                              : TOutputFormat::ofTable;
    return *cmdEvents ? RunEvents(events, stdout, stderr) : RunScan(events, stdout, stderr);
  }
  if (app.got_subcommand("zones")) return RunZones(stdout);
  if (*cmdInfo) return RunInfo(info, stdout, stderr);
  if (*cmdImaged) return RunImaged(imaged, stdout, stderr);
  if (*cmdCatalogBuild) {
    for (size_t start = 0, end; start < catalogLanguages.size(); start = end + 1) {
      end = catalogLanguages.find(',', start);
      if (end == std::string::npos) end = catalogLanguages.size();
      if (end > start) catalog.Languages.push_back(catalogLanguages.substr(start, end - start));
    }
    return RunCatalogBuild(catalog, stdout, stderr);
  }
  if (*cmdCatalogInfo) return RunCatalogInfo(catalog, stdout, stderr);
  if (*cmdCatalogMerge) return RunCatalogMerge(catalog, stdout, stderr);
  if (*cmdXPath) return RunXPath(xpath, stdout, stderr);
  if (*cmdOpen) return RunOpen(store, stderr);
  if (*cmdRefresh) return RunRefresh(store, stderr);
  if (*cmdServe) {
#ifdef QVX_SERVE_PROGRAM
    return RunServeProgram(argc, argv, stderr);
#endif
    serve.Store = store;
    return RunServe(serve, stdout, stderr);
  }
  if (*cmdView) {
    view.Format = viewFormat == "csv"     ? TOutputFormat::ofCsv
                  : viewFormat == "jsonl" ? TOutputFormat::ofJsonl
                  : viewFormat == "xml"   ? TOutputFormat::ofXml
                                          : TOutputFormat::ofTable;
    return RunView(view, stdout, stderr);
  }
  if (*cmdHunt) {
    hunt.Format = huntFormat == "csv" ? TOutputFormat::ofCsv : huntFormat == "jsonl" ? TOutputFormat::ofJsonl
                                                                                     : TOutputFormat::ofTable;
    return RunHunt(hunt, stdout, stderr);
  }
  if (*cmdDemo) return RunDemo(demoOutput, demoRecords, !demoNoDump, stdout, stderr);
  return 0;
}
