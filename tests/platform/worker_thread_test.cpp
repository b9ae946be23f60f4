#include "platform/worker_thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

#if defined(__linux__)
#include <pthread.h>
#include <sched.h>
#endif

namespace qvx {
namespace {

TEST(WorkerThread, RunsTheFunctionAndJoins) {
  std::atomic<int> runs{0};
  {
    TWorkerThread a([&] { ++runs; });
    TWorkerThread b([&] { ++runs; });
    b.Join();
    b.Join(); // a second wait returns at once
  }           // a is waited for here
  EXPECT_EQ(runs.load(), 2);
}

TEST(WorkerThread, MovesKeepOneThread) {
  std::atomic<int> runs{0};
  std::vector<TWorkerThread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] { ++runs; });
  for (TWorkerThread& t : threads)
    t.Join();
  EXPECT_EQ(runs.load(), 4);
}

#if defined(__linux__)
// The thread is started away from its creator's processor but may run on all of the
// creator's processors once it runs, never on fewer.
TEST(WorkerThread, RunsOnEveryProcessorItsCreatorMay) {
  cpu_set_t creator;
  ASSERT_EQ(sched_getaffinity(0, sizeof creator, &creator), 0);
  cpu_set_t seen;
  CPU_ZERO(&seen);
  TWorkerThread t([&] { pthread_getaffinity_np(pthread_self(), sizeof seen, &seen); });
  t.Join();
  EXPECT_TRUE(CPU_EQUAL(&seen, &creator));
}

// A creator allowed on one processor only: the thread shares it.
TEST(WorkerThread, CreatorOnOneProcessorSharesIt) {
  cpu_set_t before;
  ASSERT_EQ(pthread_getaffinity_np(pthread_self(), sizeof before, &before), 0);
  const int here = sched_getcpu();
  ASSERT_GE(here, 0);
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(here, &one);
  ASSERT_EQ(pthread_setaffinity_np(pthread_self(), sizeof one, &one), 0);
  cpu_set_t seen;
  CPU_ZERO(&seen);
  bool ran = false;
  TWorkerThread t([&] {
    ran = true;
    pthread_getaffinity_np(pthread_self(), sizeof seen, &seen);
  });
  t.Join();
  pthread_setaffinity_np(pthread_self(), sizeof before, &before);
  EXPECT_TRUE(ran);
  EXPECT_TRUE(CPU_EQUAL(&seen, &one));
}
#endif

} // namespace
} // namespace qvx
