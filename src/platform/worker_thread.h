// TWorkerThread: a thread that starts on another processor than the one that creates it.
//
// Linux places a new thread on its creator's processor at times, even when another one is
// idle, and the thread then waits there until the balancer moves it: one to four
// milliseconds in a run of tens (measured on a two-core machine, in about a third of the
// runs). A worker that should run beside its creator is therefore created allowed only on
// the other processors the creator may use, and widens that to all of them as it starts.
#pragma once

#include <functional>
#include <memory>

namespace qvx {

class TWorkerThread {
public:
  // Starts ARun on a new thread. Raises std::system_error when no thread can be made.
  // ARun must not raise (as with std::thread, that ends the program).
  explicit TWorkerThread(std::function<void()> ARun);
  // Waits for the thread to end.
  ~TWorkerThread();
  TWorkerThread(const TWorkerThread&) = delete;
  TWorkerThread& operator=(const TWorkerThread&) = delete;
  TWorkerThread(TWorkerThread&&) noexcept;
  TWorkerThread& operator=(TWorkerThread&&) noexcept;

  // Waits for the thread to end (once; later calls return at once).
  void Join();

  struct TImpl;

private:
  std::unique_ptr<TImpl> FImpl;
};

} // namespace qvx
