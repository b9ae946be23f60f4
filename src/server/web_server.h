// The web server of the browser view: the page, and a JSON API under /api/ over one
// event store (see README "The browser view" for the calls).
//
// It binds to the loopback address unless told otherwise. Every request must carry the
// session's token: in the address once (it is then moved into an HttpOnly SameSite=Strict
// cookie), or as "Authorization: Bearer TOKEN" from a script. The Host header must name
// the address served, which defeats DNS rebinding. Bodies over 1 MB and JSON that does
// not parse get 400 with one line; the server goes on serving after any bad request.
#pragma once

#include "server/store_session.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace qvx::server {

class THttpListener;

// A load the page asks for: logs to add, or the newer events of the store's logs.
struct TLoadJob {
  std::vector<std::string> Files;
  bool Scan = false;
  bool Refresh = false;
};
using TLoadProgress = std::function<void(uint64_t ARead, uint64_t ALoaded, int APercent, const std::string& AEntry)>;
// Runs a load into the store; gives its summary and notices, one per line.
// An alert fired by an event of the load: its _ID and a line naming it.
using TLoadAlert = std::function<void(int64_t AId, const std::string& AText)>;
using TLoader = std::function<std::string(TEvtLiteAdaptor& AStore, const TLoadJob& AJob, const TLoadProgress& AProgress,
                                          const TLoadAlert& AAlert, const std::atomic<bool>& ACancel)>;

struct TServeSettings {
  std::string Bind = "127.0.0.1";
  int Port = 0;      // 0: a free port
  std::string Token; // "": a random one
  // Folders whose logs the page may list and load; nothing outside them is listed or
  // opened (their real paths count: ".." and links that lead out are refused).
  std::vector<std::string> Roots;
  TLoader Loader; // unset: the page cannot load logs
};

// Messages for the page's event stream, numbered; the last few hundred are kept.
class TEventHub {
public:
  // Gives the message's number.
  uint64_t Publish(const nlohmann::json& AMessage);
  // The first message after number AAfter (its number in AAfter), waiting up to AWait;
  // false on timeout or when the hub is closed.
  bool Next(uint64_t& AAfter, std::string& AMessage, std::chrono::milliseconds AWait);
  void Close();
  bool Closed() const { return FClosed; }

private:
  std::mutex FLock;
  std::condition_variable FChanged;
  std::deque<std::pair<uint64_t, std::string>> FMessages;
  uint64_t FNext = 1;
  std::atomic<bool> FClosed{false};
};

// One file of the page, built into the program.
struct TPageFile {
  std::string_view Path; // "/app.js"
  std::string_view Type; // "text/javascript; charset=utf-8"
  std::string_view Body;
  std::string_view Gzipped; // the same, gzip-compressed at build time
};
// The page's files (index.html is served for "/").
const std::vector<TPageFile>& PageFiles();

class TWebServer {
public:
  TWebServer(TStoreSession& ASession, TServeSettings ASettings);
  ~TWebServer();
  TWebServer(const TWebServer&) = delete;
  TWebServer& operator=(const TWebServer&) = delete;

  // Binds and starts serving on a thread of its own; gives the port. Raises
  // std::runtime_error naming the address when it cannot bind.
  int Start();
  void Stop();
  // http://ADDRESS:PORT/?token=TOKEN
  std::string Url() const;
  const std::string& Token() const { return FSettings.Token; }
  int Port() const { return FPort; }

  // Requests answered so far, and those refused (token, host, size or JSON).
  uint64_t Requests() const { return FRequests; }

  TEventHub& Events() { return FEvents; }

private:
  void Route();
  // The real path of APath when it lies inside a root; raises ERequestError otherwise.
  std::string InsideRoots(const std::string& APath) const;
  void StartLoad(TLoadJob AJob);

  TStoreSession& FSession;
  TServeSettings FSettings;
  std::unique_ptr<THttpListener> FServer;
  std::thread FThread;
  int FPort = 0;
  intptr_t FListenSocket = -1;
  std::atomic<uint64_t> FRequests{0};
  std::atomic<int> FStreams{0}; // event streams open now
  TEventHub FEvents;
  std::thread FLoadThread;
  std::atomic<bool> FLoadRunning{false};
  std::atomic<uint64_t> FLoadEvents{0}; // the stream's last message before the running load's
  std::atomic<bool> FCancel{false};
};

// 32 hexadecimal digits from the system's random source.
std::string RandomToken();

} // namespace qvx::server
