#include "server/http_listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace qvx::server {

using TClock = std::chrono::steady_clock;

struct THttpListener::TConnection {
  socket_t Socket = -1;
  std::string Pending; // read but not yet handed to httplib
  size_t Used = 0;     // of Pending
  TClock::time_point Deadline;
  bool Started = false; // the next request's first byte has come
  int Served = 0;

  ~TConnection() {
    if (Socket >= 0) {
      ::shutdown(Socket, SHUT_RDWR);
      ::close(Socket);
    }
  }
  bool HeadComplete() const {
    return Pending.find("\r\n\r\n", Used) != std::string::npos ||
           Pending.find("\n\n", Used) != std::string::npos;
  }
};

namespace {

// Waits until ASocket is ready for AEvents or ADeadline passes; false on timeout or error.
bool WaitFor(socket_t ASocket, short AEvents, TClock::time_point ADeadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(ADeadline - TClock::now()).count();
    if (left <= 0) return false;
    pollfd item{ASocket, AEvents, 0};
    const int ready = ::poll(&item, 1, static_cast<int>(std::min<long long>(left, 1000)));
    if (ready > 0) return (item.revents & (AEvents | POLLHUP | POLLERR)) != 0;
    if (ready < 0 && errno != EINTR) return false;
  }
}

std::string AddressText(const sockaddr_storage& AAddress, int& APort) {
  char text[INET6_ADDRSTRLEN] = {};
  if (AAddress.ss_family == AF_INET) {
    const auto* v4 = reinterpret_cast<const sockaddr_in*>(&AAddress);
    ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
    APort = ntohs(v4->sin_port);
  } else if (AAddress.ss_family == AF_INET6) {
    const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&AAddress);
    ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
    APort = ntohs(v6->sin6_port);
  }
  return text;
}

// One request's reads and its answer's writes: the bytes the gate read come first, then
// the socket, each read before the request's deadline and each write within the write time.
class TConnectionStream : public httplib::Stream {
public:
  TConnectionStream(THttpListener::TConnection& AConnection, TClock::time_point AReadDeadline,
                    std::chrono::milliseconds AWriteTime)
      : FConnection(AConnection), FReadDeadline(AReadDeadline), FWriteTime(AWriteTime) {}

  bool is_readable() const override {
    return FConnection.Used < FConnection.Pending.size() ||
           WaitFor(FConnection.Socket, POLLIN, FReadDeadline);
  }
  bool is_writable() const override {
    if (!WaitFor(FConnection.Socket, POLLOUT, TClock::now() + FWriteTime)) return false;
    // A client that has gone reads as readable with nothing to read.
    pollfd item{FConnection.Socket, POLLIN, 0};
    if (::poll(&item, 1, 0) <= 0) return true;
    char byte;
    return ::recv(FConnection.Socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }
  ssize_t read(char* APtr, size_t ASize) override {
    std::string& pending = FConnection.Pending;
    if (FConnection.Used < pending.size()) {
      const size_t n = std::min(ASize, pending.size() - FConnection.Used);
      std::memcpy(APtr, pending.data() + FConnection.Used, n);
      FConnection.Used += n;
      return static_cast<ssize_t>(n);
    }
    for (;;) {
      if (!WaitFor(FConnection.Socket, POLLIN, FReadDeadline)) return -1;
      const ssize_t n = ::recv(FConnection.Socket, APtr, ASize, 0);
      if (n >= 0 || (errno != EINTR && errno != EAGAIN)) return n;
    }
  }
  ssize_t write(const char* APtr, size_t ASize) override {
    for (;;) {
      if (!WaitFor(FConnection.Socket, POLLOUT, TClock::now() + FWriteTime)) return -1;
      const ssize_t n = ::send(FConnection.Socket, APtr, ASize, MSG_NOSIGNAL);
      if (n >= 0 || (errno != EINTR && errno != EAGAIN)) return n;
    }
  }
  void get_remote_ip_and_port(std::string& AIp, int& APort) const override {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getpeername(FConnection.Socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      AIp = AddressText(address, APort);
  }
  void get_local_ip_and_port(std::string& AIp, int& APort) const override {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(FConnection.Socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
      AIp = AddressText(address, APort);
  }
  socket_t socket() const override { return FConnection.Socket; }

private:
  THttpListener::TConnection& FConnection;
  TClock::time_point FReadDeadline;
  std::chrono::milliseconds FWriteTime;
};

// httplib hands each accepted socket to its task queue; this one passes it straight on
// to the gate, on the accepting thread.
class TInlineQueue : public httplib::TaskQueue {
public:
  void enqueue(std::function<void()> AFn) override { AFn(); }
  void shutdown() override {}
};

} // namespace

THttpListener::THttpListener(TListenerLimits ALimits) : FLimits(ALimits) {
  if (::pipe2(FWake, O_NONBLOCK | O_CLOEXEC) != 0)
    throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
  new_task_queue = [] { return new TInlineQueue; };
  FGate = std::thread([this] { Gate(); });
  for (size_t i = 0; i < FLimits.Workers; ++i)
    FWorkers.emplace_back([this] { Work(); });
}

THttpListener::~THttpListener() {
  Shutdown();
  ::close(FWake[0]);
  ::close(FWake[1]);
}

void THttpListener::Shutdown() {
  {
    std::lock_guard lock(FLock);
    if (FStopping && !FGate.joinable()) return;
    FStopping = true;
  }
  Wake();
  FReadyChanged.notify_all();
  if (FGate.joinable()) FGate.join();
  for (std::thread& worker : FWorkers)
    if (worker.joinable()) worker.join();
  std::lock_guard lock(FLock);
  FIncoming.clear();
  FReady.clear();
}

size_t THttpListener::Waiting() const {
  std::lock_guard lock(FLock);
  return FWaiting + FIncoming.size();
}

void THttpListener::Wake() {
  const char byte = 1;
  [[maybe_unused]] const ssize_t n = ::write(FWake[1], &byte, 1);
}

bool THttpListener::process_and_close_socket(socket_t ASocket) {
  auto connection = std::make_unique<TConnection>();
  connection->Socket = ASocket;
  connection->Deadline = TClock::now() + FLimits.HeadTime;
  connection->Started = true; // a new connection is there to send a request
  Hand(std::move(connection));
  return true;
}

// A connection goes back to the gate to wait for its next request's head.
void THttpListener::Hand(std::unique_ptr<TConnection> AConnection) {
  {
    std::lock_guard lock(FLock);
    if (FStopping) return;
    FIncoming.push_back(std::move(AConnection));
  }
  Wake();
}

void THttpListener::Gate() {
  std::vector<std::unique_ptr<TConnection>> waiting;
  std::vector<pollfd> items;
  char buffer[4096];
  for (;;) {
    {
      std::lock_guard lock(FLock);
      if (FStopping) break;
      for (auto& connection : FIncoming) {
        if (connection->Used < connection->Pending.size() && connection->HeadComplete()) {
          FReady.push_back(std::move(connection));
          FReadyChanged.notify_one();
        } else if (waiting.size() < FLimits.MaxWaiting) {
          waiting.push_back(std::move(connection));
        } // else dropped, which closes it: too many are waiting already
      }
      FIncoming.clear();
      FWaiting = waiting.size();
    }
    items.assign(1, pollfd{FWake[0], POLLIN, 0});
    auto next = TClock::now() + std::chrono::seconds(1);
    for (const auto& connection : waiting) {
      items.push_back(pollfd{connection->Socket, POLLIN, 0});
      next = std::min(next, connection->Deadline);
    }
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(next - TClock::now()).count();
    const int ready = ::poll(items.data(), items.size(), static_cast<int>(std::max<long long>(wait, 0) + 1));
    if (ready < 0 && errno != EINTR) continue;
    if (items[0].revents & POLLIN)
      while (::read(FWake[0], buffer, sizeof buffer) > 0) {
      }
    const auto now = TClock::now();
    std::vector<std::unique_ptr<TConnection>> keep;
    for (size_t i = 0; i < waiting.size(); ++i) {
      auto& connection = waiting[i];
      bool closed = false;
      if (items[i + 1].revents & (POLLIN | POLLHUP | POLLERR)) {
        const ssize_t got = ::recv(connection->Socket, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got > 0) {
          if (!connection->Started) { // an idle kept-alive connection starts a request
            connection->Started = true;
            connection->Deadline = now + FLimits.HeadTime;
          }
          connection->Pending.append(buffer, static_cast<size_t>(got));
          if (connection->HeadComplete() ||
              connection->Pending.size() - connection->Used >= FLimits.MaxHead) {
            std::lock_guard lock(FLock);
            FReady.push_back(std::move(connection));
            FReadyChanged.notify_one();
            continue;
          }
        } else if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
          closed = true;
        }
      }
      if (!closed && now < connection->Deadline) keep.push_back(std::move(connection));
    }
    waiting = std::move(keep);
  }
}

void THttpListener::Work() {
  for (;;) {
    std::unique_ptr<TConnection> connection;
    {
      std::unique_lock lock(FLock);
      FReadyChanged.wait(lock, [&] { return FStopping || !FReady.empty(); });
      if (FStopping) return;
      connection = std::move(FReady.front());
      FReady.pop_front();
    }
    TConnectionStream stream(*connection, TClock::now() + FLimits.BodyTime, FLimits.WriteTime);
    const bool last = ++connection->Served >= FLimits.MaxRequests;
    bool closed = false;
    const bool served = process_request(stream, last, closed, nullptr);
    if (!served || closed || last || !is_running()) continue; // the connection closes with it
    connection->Pending.erase(0, connection->Used);
    connection->Used = 0;
    connection->Started = !connection->Pending.empty();
    connection->Deadline = TClock::now() + (connection->Started ? FLimits.HeadTime : FLimits.IdleTime);
    Hand(std::move(connection));
  }
}

} // namespace qvx::server
