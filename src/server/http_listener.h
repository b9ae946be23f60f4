// The HTTP server under the browser view: httplib's request handling, with the
// connections taken in by one thread that reads each request's head (request line and
// headers) before a worker sees it.
//
// A client that sends its head slowly, or connects and sends nothing, holds no worker:
// it is closed when its time is up. Kept-alive connections wait on that thread between
// their requests too, so the workers serve only requests that have fully arrived.
#pragma once

#include <httplib.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace qvx::server {

struct TListenerLimits {
  size_t Workers = 48;
  std::chrono::milliseconds HeadTime{10000}; // from a request's first byte to the end of its headers
  std::chrono::milliseconds BodyTime{30000}; // for its body, once a worker reads it
  std::chrono::milliseconds IdleTime{5000};  // a kept-alive connection between requests
  std::chrono::milliseconds WriteTime{5000}; // each write to a client that stops reading
  size_t MaxWaiting = 1000;                  // connections waiting for a head; newer ones are closed
  size_t MaxHead = 16384;                    // a longer head goes to a worker, which refuses it
  int MaxRequests = 100;                     // on one connection
};

class THttpListener : public httplib::Server {
public:
  explicit THttpListener(TListenerLimits ALimits = {});
  ~THttpListener() override;

  // Stops the workers and closes every connection; after stop() has returned from listen.
  void Shutdown();
  // Connections waiting for their head now (for tests).
  size_t Waiting() const;

  struct TConnection;

private:
  bool process_and_close_socket(socket_t ASocket) override;
  void Gate();
  void Work();
  void Hand(std::unique_ptr<TConnection> AConnection);
  void Wake();

  TListenerLimits FLimits;
  mutable std::mutex FLock;
  std::condition_variable FReadyChanged;
  std::vector<std::unique_ptr<TConnection>> FIncoming;
  std::deque<std::unique_ptr<TConnection>> FReady;
  size_t FWaiting = 0;
  bool FStopping = false;
  int FWake[2] = {-1, -1};
  std::thread FGate;
  std::vector<std::thread> FWorkers;
};

} // namespace qvx::server
