// quorvex events / scan / zones.
#include "app/classic_events.h"
#include "app/commands.h"
#include "app/listing.h"
#include "app/event_output.h"
#include "app/progress.h"

#include "engine/event_log_binxml.h"
#include "catalog/message_catalog.h"
#include "catalog/sqlite_handle.h"
#include "descriptions/time_zones.h"
#include "imaged/imaged_pc.h"
#include "images/evidence_image.h"
#include "platform/file_names.h"
#include "images/image_opener.h"
#include "platform/nt_exception.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace qvx::app {

std::string TimeZoneProblem(const std::string& AZone) {
  TEventLogBinXML probe; // (a source reads its zones from the machine as any other does)
  try {
    ApplyTimeZone(probe, AZone);
  } catch (const std::invalid_argument& e) {
    const std::string_view text = e.what();
    return std::string(text.starts_with("--tz ") ? text.substr(5) : text);
  }
  return {};
}

void ApplyTimeZone(TEventLogBase& ASource, const std::string& AZone) {
  if (AZone.empty() || detail::EqualsNoCase(AZone, "local")) {
    ASource.SetTimeShift(1, 0, {});
    return;
  }
  if (detail::EqualsNoCase(AZone, "UTC") || detail::EqualsNoCase(AZone, "Z")) {
    ASource.SetTimeShift(2, 0, "UTC");
    return;
  }
  char* end = nullptr;
  const long minutes = std::strtol(AZone.c_str(), &end, 10);
  if (end && *end == '\0' && end != AZone.c_str()) {
    if (minutes < -24 * 60 || minutes > 24 * 60)
      throw std::invalid_argument("--tz " + AZone + ": a fixed shift must lie between -1440 and 1440 minutes");
    ASource.SetTimeShift(0, static_cast<int>(minutes), {});
    return;
  }
  TTimeZone zone;
  std::string key;
  const TTimeZones& zones = ASource.TimeZones();
  if (zones.FindTimeZone(AZone, zone) || zones.FindTimeZoneByDisplayName(AZone, zone))
    key = zone.KeyName;
  else if (const std::string windows = WindowsZoneFromIana(AZone); !windows.empty() && zones.FindTimeZone(windows, zone))
    key = zone.KeyName; // "Europe/Berlin": the Windows zone that covers it
  if (key.empty())
    throw std::invalid_argument("--tz " + AZone +
                                ": unknown time zone (use UTC, local, minutes such as +60, a name listed by "
                                "'quorvex zones' or an IANA name such as Europe/Berlin)");
  ASource.SetTimeShift(3, 0, key);
}

namespace {

void PrintSummary(std::FILE* AErr, const std::string& APath, uint64_t AEvents, TIssueList& AIssues,
                  bool AAllIssues) {
  const int count = AIssues.IssueCount();
  std::fprintf(AErr, "%s: %llu event%s", APath.c_str(), static_cast<unsigned long long>(AEvents),
               AEvents == 1 ? "" : "s");
  if (count == 0) {
    std::fputs(", no problems found\n", AErr);
    return;
  }
  std::fprintf(AErr, ", %d problem%s met while reading:\n", count, count == 1 ? "" : "s");
  const auto& lines = AIssues.Lines();
  const size_t shown = AAllIssues ? lines.size() : std::min<size_t>(lines.size(), 20);
  for (size_t i = 0; i < shown; ++i) std::fprintf(AErr, "  %s\n", lines[i].c_str());
  if (shown < static_cast<size_t>(count))
    std::fprintf(AErr, "  ... %zu more (%s)\n", static_cast<size_t>(count) - shown,
                 AAllIssues ? "not kept: the list holds 2000" : "--all-issues lists them");
}

// What the reads met in the media data of disk images (chunks of an E01 that fail their
// checksum): among the problems of the summary, or alone when there is none (--quiet).
void TakeImageWarnings(TIssueList& AIssues, bool AQuiet, std::FILE* AErr) {
  for (const std::string& warning : TEvidenceImage::TakeWarnings()) {
    if (AQuiet)
      std::fprintf(AErr, "quorvex: warning: %s\n", warning.c_str());
    else
      AIssues.AddIssue(warning);
  }
}

// Whether ReadEventsByChunk gives what ReadEvents would: JSON Lines or CSV of a whole
// .evtx file (not a scan), every event written, no description looked up anywhere.
bool ByChunk(TEventLogBinXML& ASource, bool AScan, const TEventsOptions& AOptions, const TListing& AListing) {
#ifdef _WIN32
  // The system's own publisher metadata gives descriptions there, looked up per source.
  (void)ASource, (void)AScan, (void)AOptions, (void)AListing;
  return false;
#else
  return !AScan && ASource.EvtxFile() && !ASource.UsesOfflineDescriptions() && !AListing.Filtering() &&
         AOptions.Limit == 0 && (AOptions.Format == TOutputFormat::ofJsonl || AOptions.Format == TOutputFormat::ofCsv);
#endif
}

// As ReadEvents, with the work spread by chunk instead of by stage: each thread renders
// a chunk, turns its events into output text with a source and writer of its own, and
// the texts are written in the chunks' order (as dump does). The output is the same.
int ReadEventsByChunk(TEventLogBinXML& ASource, const TEventsOptions& AOptions, TListing& AListing, std::FILE* AErr) {
  const unsigned threads = std::min(AOptions.Threads, 64u) + 1; // the calling thread renders too
  struct TWorker {
    TEventLogBinXML Source;
    std::unique_ptr<TEventWriter> Writer;
  };
  std::vector<std::unique_ptr<TWorker>> workers;
  for (unsigned i = 0; i < threads; ++i) {
    auto worker = std::make_unique<TWorker>();
    ApplyTimeZone(worker->Source, AOptions.TimeZone);
    worker->Source.SetWithoutXml(true);
    // JSON Lines and CSV show no description text for an event without one.
    worker->Source.SetValuesForMissingDescription(false);
    worker->Writer = MakeEventWriter(AOptions.Format, nullptr, 0);
    workers.push_back(std::move(worker));
  }
  const uint64_t firstChunk = ASource.ChunkIndex();
  const uint64_t fileSize = ASource.EvtxFile()->Count() * 65536ull + 4096;
  int status = 0;
  try {
    TChunkReader::Run(
        ASource.ChunkProducer(),
        [&](TChunkResult& AResult) {
          for (const std::string& note : AResult.Notes) ASource.IssueList().AddIssue(note);
          AListing.WriteText(AResult.Xml, AResult.Taken);
          AListing.Progress().Update((firstChunk + AResult.Sequence + 1) * 65536ull + 4096, fileSize, AListing.Events);
        },
        threads,
        [&](TChunkResult& AResult, unsigned AWorker) {
          TWorker& worker = *workers[AWorker];
          worker.Source.TakeChunkRows(AResult, firstChunk + AResult.Sequence,
                                      [&](const TEventRow& ARow) { worker.Writer->WriteRow(ARow); });
          worker.Writer->TakeText(AResult.Xml);
        });
  } catch (const std::exception& e) {
    AListing.Progress().Finish();
    std::fprintf(AErr, "%s: reading stopped: %s\n", AOptions.Path.c_str(), e.what());
    status = 1;
  }
  if (!AListing.Finish()) status = 1;
  TakeImageWarnings(ASource.IssueList(), AOptions.Quiet, AErr);
  if (!AOptions.Quiet) PrintSummary(AErr, AOptions.Path, AListing.Events, ASource.IssueList(), AOptions.AllIssues);
  return status;
}

// Reads every event of ASource into the writer. Returns the exit status.
int ReadEvents(TEventLogBinXML& ASource, bool AScan, const TEventsOptions& AOptions, std::FILE* AOut,
               std::FILE* AErr) {
  TListing listing(AOptions, ASource.UsesOfflineDescriptions(), AOut, AErr);
  if (ByChunk(ASource, AScan, AOptions, listing)) return ReadEventsByChunk(ASource, AOptions, listing, AErr);
  auto* scan = AScan ? static_cast<TEventLogScan*>(&ASource) : nullptr;
  const uint64_t fileSize = !AScan && ASource.EvtxFile() ? ASource.EvtxFile()->Count() * 65536ull + 4096 : 0;
  int status = 0;
  auto tick = [&] {
    if (scan)
      listing.Progress().Update(scan->BytesScanned(), scan->ElfChunks().SourceSize(), listing.Events);
    else
      listing.Progress().Update(ASource.ChunkIndex() * 65536ull + 4096, fileSize, listing.Events);
  };
  try {
    while (TEventItemBase* item = ASource.EventNext()) {
      if (item == TEventLogX::UndeliverableMarker()) {
        tick();
        continue;
      }
      const bool passes = listing.Passes(*item);
      if ((listing.Read & 255) == 0) tick();
      if (!passes) continue;
      if (listing.Write(static_cast<TEventItemX&>(*item))) break;
    }
  } catch (const std::exception& e) {
    listing.Progress().Finish();
    std::fprintf(AErr, "%s: reading stopped: %s\n", AOptions.Path.c_str(), e.what());
    status = 1;
  }
  if (!listing.Finish()) status = 1;
  TakeImageWarnings(ASource.IssueList(), AOptions.Quiet, AErr);
  if (!AOptions.Quiet) PrintSummary(AErr, AOptions.Path, listing.Events, ASource.IssueList(), AOptions.AllIssues);
  return status;
}

} // namespace

TRowColors RowColorsFor(const TEventsOptions& AOptions, std::FILE* AOut, TColorCodes& ACodes) {
  TRowColors colors;
  if (AOptions.Colors.empty()) return colors;
  try {
    ACodes.LoadFromFile(AOptions.Colors);
  } catch (const std::exception& e) {
    // The messages of a file's content name the file; the version messages do not.
    std::string text = "Load Color Codes: ";
    const std::string message = e.what();
    if (!message.starts_with(AOptions.Colors)) text.append(AOptions.Colors).append(": ");
    text.append(message);
    throw std::runtime_error(text);
  }
  if (AOptions.ColorMode == "never" || (AOptions.ColorMode == "auto" && !IsTerminal(AOut))) return colors;
  colors.Codes = &ACodes;
  const char* colorTerm = std::getenv("COLORTERM");
  colors.TrueColor = colorTerm && (std::strstr(colorTerm, "truecolor") || std::strstr(colorTerm, "24bit"));
  return colors;
}

std::unique_ptr<TImagedPC> OpenImaged(const std::string& APath) {
  if (APath.empty()) return nullptr;
  auto computer = std::make_unique<TImagedPC>();
  std::string root = APath;
  if (IsImageInput(APath)) {
    try {
      root = ImageRootOf(APath);
    } catch (const std::exception& e) {
      throw std::runtime_error(std::string("--imaged ") + e.what());
    }
  } else {
    // Registered files are mapped below the Windows folder; a relative folder would be
    // taken for a name in System32.
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(root, error);
    if (!error) root = absolute.string();
  }
  const std::string windows = FindWindowsFolder(root);
  if (!IsImageInput(APath) && TPathResolver().Resolve(windows + "/System32/config").empty()) {
    // Neither the folder nor its Windows folder holds the hives: both places are named, as
    // neither is the Windows folder the registry's paths would be read below.
    std::string folder = root;
    while (folder.size() > 1 && (folder.back() == '/' || folder.back() == '\\')) folder.pop_back();
    throw std::runtime_error("--imaged " + APath + ": no Windows installation there (neither " + folder +
                             "/System32/config nor " + folder +
                             "/Windows/System32/config exists; give the installation's Windows folder or the drive "
                             "it lies on)");
  }
  computer->SetMapping(windows);
  try {
    computer->SetActive(true);
  } catch (const EImagedPCException& e) {
    throw std::runtime_error("--imaged " + APath + ": " + e.what() +
                             " (give the installation's Windows folder or the drive it lies on)");
  }
  return computer;
}

std::unique_ptr<TCatalogSet> OpenCatalogs(const std::vector<std::string>& APaths) {
  if (APaths.empty()) return nullptr;
  auto catalogs = std::make_unique<TCatalogSet>();
  try {
    for (const std::string& path : APaths) catalogs->Add(path);
  } catch (const ECatalogError& e) {
    throw std::runtime_error(std::string("--catalog ") + e.what());
  }
  return catalogs;
}

std::unique_ptr<TEventLogBinXML> OpenEvtxLog(const std::string& APath, const std::string& ATimeZone, unsigned AThreads,
                                             TImagedPC* AImaged, std::FILE* AErr, bool& AScan) {
  auto make = [&](bool AScanning) {
    std::unique_ptr<TEventLogBinXML> source =
        AScanning ? std::make_unique<TEventLogScan>() : std::make_unique<TEventLogBinXML>();
    source->SetImagedDescrServer(AImaged);
    ApplyTimeZone(*source, ATimeZone);
    source->SetReadAhead(AThreads);
    source->SetBackupFileName(APath);
    return source;
  };
  // The checks of the file header name the fault; a header whose chunk count does not
  // match the chunks that follow it is read with the deep scan. They run on the reader's
  // own file, so that the chunk headers are read once: inside an E01 image each of them
  // costs the verified read of a whole container chunk.
  std::unique_ptr<TEventLogBinXML> source = make(false);
  try {
    source->SetActive(true);
  } catch (const std::exception&) {
    // The checks by name below raise the error with the file's fault named.
  }
  std::vector<std::string> notices;
  AScan = source->Active() && source->EvtxFile() ? TEvtxSource::NeedsCarving(APath, *source->EvtxFile(), &notices)
                                                 : TEvtxSource::NeedsCarving(APath, &notices);
  for (const std::string& notice : notices) std::fprintf(AErr, "%s\n", notice.c_str());
  if (AScan) source = make(true);
  source->SetActive(true); // raises when the file could not be opened after all
  return source;
}

int RunEvents(const TEventsOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    if (IsClassicLog(AOptions.Path)) {
      TClassicHooks hooks;
      hooks.ApplyTimeZone = [&](TEventLogBase& ASource) { ApplyTimeZone(ASource, AOptions.TimeZone); };
      hooks.PrintSummary = PrintSummary;
      return ReadClassicEvents(AOptions, hooks, AOut, AErr);
    }
    const std::unique_ptr<TCatalogSet> catalogs = OpenCatalogs(AOptions.Catalogs);
    const std::unique_ptr<TImagedPC> imaged = OpenImaged(AOptions.Imaged);
    bool scan = false;
    const std::unique_ptr<TEventLogBinXML> source =
        OpenEvtxLog(AOptions.Path, AOptions.TimeZone, AOptions.Threads, imaged.get(), AErr, scan);
    source->SetCatalogs(catalogs.get());
    // Only the XML listing shows the events' XML: the others take the fields without it.
    source->SetWithoutXml(AOptions.Format != TOutputFormat::ofXml);
    return ReadEvents(*source, scan, AOptions, AOut, AErr);
  } catch (const std::exception& e) {
    // The header checks are shared with dump, whose hint names its own option.
    std::string message = e.what();
    const std::string hint = "(use --carve to search it for chunks)";
    if (const size_t at = message.find(hint); at != std::string::npos)
      message.replace(at, hint.size(), "(use 'quorvex scan' to search it for chunks)");
    std::error_code error;
    const std::string& path = AOptions.Path;
    const size_t sep = path.find("::");
    std::string image, volume;
    if (std::filesystem::is_directory(path, error)) {
      message += " (the logs of a folder are read together by 'quorvex open FOLDER -s STORE' or 'quorvex hunt')";
    } else if (sep != std::string::npos && sep + 2 == path.size()) {
      message = path + ": name the log after '::', as " + path + "/Windows/System32/winevt/Logs/System.evtx ('quorvex imaged " +
                path.substr(0, sep) + "' lists the logs)";
    } else if (sep != std::string::npos && (SplitVolume(path.substr(0, sep), image, volume), !IsImageInput(image))) {
      message = image + ": no such disk image file or device";
    } else if (sep == std::string::npos && !std::filesystem::exists(path, error) && IsImageInput(path)) {
      message = path + ": a volume of a disk image: name a log on it as " + path +
                "::/Windows/System32/winevt/Logs/System.evtx ('quorvex imaged " + path + "' lists the logs)";
    }
    std::fprintf(AErr, "quorvex: %s\n", message.c_str());
    return 1;
  }
}

int RunScan(const TEventsOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    const std::unique_ptr<TCatalogSet> catalogs = OpenCatalogs(AOptions.Catalogs);
    const std::unique_ptr<TImagedPC> imaged = OpenImaged(AOptions.Imaged);
    TEventLogScan source;
    source.SetImagedDescrServer(imaged.get());
    source.SetCatalogs(catalogs.get());
    ApplyTimeZone(source, AOptions.TimeZone);
    source.SetReadAhead(AOptions.Threads);
    source.SetWithoutXml(AOptions.Format != TOutputFormat::ofXml);
    source.SetBackupFileName(AOptions.Path);
    // "IMAGE@2" and "IMAGE@2:vss1" (no file of that name) are a volume's data too.
    TEventsOptions options = AOptions;
    if (AOptions.Offset >= 0 || AOptions.Unallocated ||
        (!std::filesystem::exists(AOptions.Path) && AOptions.Path.find("::") == std::string::npos &&
         IsImageInput(AOptions.Path))) {
      std::function<std::string(uint64_t)> positionText;
      std::unique_ptr<TReadStream> stream = OpenVolumeForScan(AOptions.Path, AOptions.Offset, AOptions.Unallocated, &positionText);
      // A volume given by its offset is named in the summary as the volume it is.
      if (AOptions.Offset >= 0) options.Path = stream->Path();
      if (AOptions.Unallocated) source.SetPositionText(std::move(positionText));
      source.SetStream(std::move(stream));
    }
    source.SetActive(true);
    if (!source.Active()) throw std::runtime_error(AOptions.Path + ": cannot be opened for scanning");
    return ReadEvents(source, true, options, AOut, AErr);
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

int RunZones(std::FILE* AOut) {
  TTimeZones zones;
  zones.EnumTimeZones();
  const std::string current = CurrentTimeZoneKeyName();
  for (const TTimeZone& zone : zones.Items()) {
    const int offset = TimeZoneOffset(&zone);
    std::string now;
    AppendOffsetText(now, offset);
    std::fprintf(AOut, "%c %-34s %-7s %s\n", detail::EqualsNoCase(zone.KeyName, current) ? '*' : ' ',
                 zone.KeyName.c_str(), now.c_str(), zone.DisplayName.c_str());
  }
  return 0;
}

} // namespace qvx::app
