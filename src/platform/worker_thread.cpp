#include "platform/worker_thread.h"

#include <cerrno>
#include <system_error>
#include <thread>

#if defined(__linux__)
#include <pthread.h>
#include <sched.h>
#endif

namespace qvx {

#if defined(__linux__)

struct TWorkerThread::TImpl {
  std::function<void()> Run;
  pthread_t Thread{};
  bool Joinable = false;
  bool Narrowed = false; // created on fewer processors than the creator may use
  cpu_set_t Allowed;     // the creator's processors, given back as the thread starts

  static void* Start(void* AImpl) {
    auto* impl = static_cast<TImpl*>(AImpl);
    if (impl->Narrowed) pthread_setaffinity_np(pthread_self(), sizeof impl->Allowed, &impl->Allowed);
    impl->Run();
    return nullptr;
  }
};

TWorkerThread::TWorkerThread(std::function<void()> ARun) : FImpl(std::make_unique<TImpl>()) {
  FImpl->Run = std::move(ARun);
  pthread_attr_t attr;
  if (int e = pthread_attr_init(&attr); e != 0)
    throw std::system_error(e, std::generic_category(), "pthread_attr_init");
  CPU_ZERO(&FImpl->Allowed);
  const int here = sched_getcpu();
  if (here >= 0 && here < CPU_SETSIZE && sched_getaffinity(0, sizeof FImpl->Allowed, &FImpl->Allowed) == 0 &&
      CPU_ISSET(here, &FImpl->Allowed) && CPU_COUNT(&FImpl->Allowed) > 1) {
    cpu_set_t elsewhere = FImpl->Allowed;
    CPU_CLR(here, &elsewhere);
    FImpl->Narrowed = pthread_attr_setaffinity_np(&attr, sizeof elsewhere, &elsewhere) == 0;
  }
  int e = pthread_create(&FImpl->Thread, &attr, &TImpl::Start, FImpl.get());
  if (e != 0 && FImpl->Narrowed) {
    // Refused with the narrowed set (a container may forbid it): start it as any thread.
    FImpl->Narrowed = false;
    pthread_attr_destroy(&attr);
    pthread_attr_init(&attr);
    e = pthread_create(&FImpl->Thread, &attr, &TImpl::Start, FImpl.get());
  }
  pthread_attr_destroy(&attr);
  if (e != 0) throw std::system_error(e, std::generic_category(), "pthread_create");
  FImpl->Joinable = true;
}

void TWorkerThread::Join() {
  if (FImpl && FImpl->Joinable) {
    pthread_join(FImpl->Thread, nullptr);
    FImpl->Joinable = false;
  }
}

#else

struct TWorkerThread::TImpl {
  std::thread Thread;
};

TWorkerThread::TWorkerThread(std::function<void()> ARun) : FImpl(std::make_unique<TImpl>()) {
  FImpl->Thread = std::thread(std::move(ARun));
}

void TWorkerThread::Join() {
  if (FImpl && FImpl->Thread.joinable()) FImpl->Thread.join();
}

#endif

TWorkerThread::~TWorkerThread() {
  Join();
}

TWorkerThread::TWorkerThread(TWorkerThread&&) noexcept = default;

TWorkerThread& TWorkerThread::operator=(TWorkerThread&& AOther) noexcept {
  if (this != &AOther) {
    Join();
    FImpl = std::move(AOther.FImpl);
  }
  return *this;
}

} // namespace qvx
