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
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

namespace qvx::server {

struct TServeSettings {
  std::string Bind = "127.0.0.1";
  int Port = 0;      // 0: a free port
  std::string Token; // "": a random one
};

// One file of the page, built into the program.
struct TPageFile {
  std::string_view Path; // "/app.js"
  std::string_view Type; // "text/javascript; charset=utf-8"
  std::string_view Body;
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

private:
  void Route();

  TStoreSession& FSession;
  TServeSettings FSettings;
  std::unique_ptr<httplib::Server> FServer;
  std::thread FThread;
  int FPort = 0;
  intptr_t FListenSocket = -1;
  std::atomic<uint64_t> FRequests{0};
};

// 32 hexadecimal digits from the system's random source.
std::string RandomToken();

} // namespace qvx::server
