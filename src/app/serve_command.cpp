// quorvex serve: logs loaded into a store (a temporary one unless named), or a store
// opened as it is, then shown in the browser by the web server.
#include "app/commands.h"

#include "descriptions/time_zones.h"
#include "engine/event_log_binxml.h"
#include "platform/process_spawn.h"
#include "server/web_server.h"
#include "view/evt_lite_adaptor.h"

#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace qvx::app {

namespace {

std::atomic<bool> GStop{false};
extern "C" void OnStop(int) {
  GStop = true;
}

bool IsStore(const std::string& APath) {
  if (APath.size() < 3 || APath.compare(APath.size() - 3, 3, ".db") != 0) return false;
  return std::filesystem::is_regular_file(APath);
}

std::string StoreSetting(const std::string& AStore, const char* AName) {
  sqlite3* db = nullptr;
  std::string value;
  if (sqlite3_open_v2(AStore.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
    sqlite3_stmt* query = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT Value FROM QvxSettings WHERE Name = ?1", -1, &query, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(query, 1, AName, -1, SQLITE_STATIC);
      if (sqlite3_step(query) == SQLITE_ROW && sqlite3_column_text(query, 0))
        value = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
      sqlite3_finalize(query);
    }
  }
  sqlite3_close(db);
  return value;
}

bool IsLoopback(const std::string& AAddress) {
  return AAddress == "127.0.0.1" || AAddress == "localhost" || AAddress == "::1";
}

// A private folder for a temporary store, removed with everything in it.
class TTempFolder {
public:
  TTempFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quorvex-serve-XXXXXX").string();
#ifdef _WIN32
    FPath = std::filesystem::temp_directory_path() / ("quorvex-serve-" + server::RandomToken().substr(0, 8));
    std::filesystem::create_directory(FPath);
#else
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary folder for the store");
    FPath = pattern;
#endif
  }
  ~TTempFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(FPath, ignored);
  }
  std::string File(const std::string& AName) const { return (FPath / AName).string(); }

private:
  std::filesystem::path FPath;
};

} // namespace

int RunServe(const TServeOptions& AOptions, std::FILE* AOut, std::FILE* AErr) {
  try {
    std::unique_ptr<TTempFolder> temp;
    std::string store = AOptions.Store.Store;
    const bool existing = AOptions.Store.Logs.size() == 1 && IsStore(AOptions.Store.Logs[0]);
    if (existing) {
      if (!store.empty()) throw std::invalid_argument("--store: give either a store to serve or logs to load into one");
      store = AOptions.Store.Logs[0];
    } else {
      if (AOptions.Store.Logs.empty()) throw std::invalid_argument("give logs to load, or a store (.db) to serve");
      if (store.empty()) {
        temp = std::make_unique<TTempFolder>();
        store = temp->File("events.db");
      }
      TStoreOptions load = AOptions.Store;
      load.Store = store;
      const int status = RunOpen(load, AErr);
      if (status != 0 && !std::filesystem::exists(store)) return status;
    }

    // The store's times are shown times: "the last N hours" counts in its zone.
    std::string zoneName = StoreSetting(store, "TimeZone");
    if (zoneName.empty()) zoneName = "local";
    TEventLogBinXML zone;
    ApplyTimeZone(zone, zoneName);
    server::TStoreSession session(store, zone.ShiftMinutesAt(NowUtcDays()));
    session.SetTimeZoneName(zoneName);
    {
      // Each zone's offsets come from a source set to it, as 'events --tz' sets one.
      nlohmann::json zones = nlohmann::json::array({"UTC", "local"});
      TTimeZones known;
      known.EnumTimeZones();
      for (const TTimeZone& item : known.Items()) zones.push_back(item.KeyName);
      session.SetZones(
          [](const std::string& AName) -> server::TStoreSession::TShiftAt {
            auto source = std::make_shared<TEventLogBinXML>();
            ApplyTimeZone(*source, AName);
            return [source](double AUtcDays) { return source->ShiftMinutesAt(AUtcDays); };
          },
          std::move(zones));
    }
    if (!AOptions.Colors.empty()) {
      TColorCodes codes;
      codes.LoadFromFile(AOptions.Colors);
      session.SetColorCodes(std::move(codes));
    }

    server::TServeSettings settings;
    settings.Bind = AOptions.Bind;
    settings.Port = AOptions.Port;
    settings.Roots = AOptions.Roots;
    if (settings.Roots.empty())
      for (const std::string& input : AOptions.Store.Logs) {
        // A folder given as an input is a root itself; a log's or image's folder otherwise.
        std::error_code error;
        std::filesystem::path folder = std::filesystem::absolute(input).lexically_normal();
        if (!folder.has_filename() || !std::filesystem::is_directory(folder, error)) folder = folder.parent_path();
        if (std::find(settings.Roots.begin(), settings.Roots.end(), folder.string()) == settings.Roots.end())
          settings.Roots.push_back(folder.string());
      }
    for (const std::string& root : settings.Roots)
      if (!std::filesystem::is_directory(root)) throw std::invalid_argument("--root " + root + ": no such folder");
    // Loads from the page run the same loader as 'open --append' and 'refresh'; what they
    // print becomes the page's notices.
    settings.Loader = [&AOptions](TEvtLiteAdaptor& AStore, const server::TLoadJob& AJob,
                                  const server::TLoadProgress& AProgress, const server::TLoadAlert& AAlert,
                                  const std::atomic<bool>& ACancel) {
      TStoreOptions options = AOptions.Store;
      options.Logs = AJob.Files;
      options.Scan = AJob.Scan;
      options.TimeZone.clear(); // the store's own
      options.Progress = 0;
      TLoadHooks hooks;
      hooks.OnProgress = AProgress;
      hooks.Cancel = &ACancel;
      hooks.OnAlert = AAlert;
      std::FILE* notes = std::tmpfile();
      if (!notes) throw std::runtime_error("cannot make a temporary file for the load's notices");
      LoadIntoOpenStore(options, AStore, AJob.Refresh, hooks, notes);
      std::string text;
      std::rewind(notes);
      char buffer[4096];
      size_t got;
      while ((got = std::fread(buffer, 1, sizeof buffer, notes)) > 0 && text.size() < (1u << 20)) text.append(buffer, got);
      std::fclose(notes);
      return text;
    };
    server::TWebServer web(session, settings);
    web.Start();
    std::fprintf(AOut, "Quorvex is serving %s\n", web.Url().c_str());
    std::fflush(AOut);
    if (!IsLoopback(AOptions.Bind))
      std::fprintf(AErr, "quorvex: warning: serving on %s: anyone who reaches this address and has the token can "
                         "read the store\n", AOptions.Bind.c_str());
    std::fprintf(AErr, "Ctrl-C stops the server%s.\n", temp ? " and deletes the temporary store" : "");
    if (!AOptions.NoBrowser) {
#ifdef _WIN32
      const std::string opener = "explorer.exe";
#else
      const std::string opener = "xdg-open";
#endif
      if (!StartProgram(opener + " \"" + web.Url() + "\""))
        std::fprintf(AErr, "quorvex: could not start a browser; open the address above\n");
    }
    GStop = false;
    auto previousInt = std::signal(SIGINT, OnStop);
    auto previousTerm = std::signal(SIGTERM, OnStop);
    while (!GStop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::signal(SIGINT, previousInt);
    std::signal(SIGTERM, previousTerm);
    web.Stop();
    std::fprintf(AErr, "quorvex: server stopped after %llu requests\n", static_cast<unsigned long long>(web.Requests()));
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(AErr, "quorvex: %s\n", e.what());
    return 1;
  }
}

} // namespace qvx::app
