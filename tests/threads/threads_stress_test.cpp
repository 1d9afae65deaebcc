#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "threadtools.h"
#include "within.h"

namespace {

#ifdef __linux__
long threadCount() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::distance(begin(tasks), end(tasks));
}

long residentPages() {
  long size = 0;
  long resident = 0;
  std::ifstream("/proc/self/statm") >> size >> resident;
  return resident;
}
#endif

}  // namespace

TEST(ThreadsUnderLoad, AreNeverLost) {
  constexpr int kStarters = 8;
  constexpr int kStarts = 2500;  // each
#ifdef __linux__
  std::thread([] {}).join();  // a sanitizer starts a thread of its own with the first
  const long threads = threadCount();
#endif
  inParallel(kStarters, [] { startAndEnd(kStarts / 10); });  // stacks and arenas are kept
#ifdef __linux__
  [[maybe_unused]] const long pages = residentPages();
#endif
  gWorkerRuns = 0;
  inParallel(kStarters, [] { startAndEnd(kStarts); });
  EXPECT_EQ(kStarters * kStarts, gWorkerRuns);
#ifdef __linux__
  // Who has detached itself may still be leaving.
  EXPECT_TRUE(becomesTrue([&] { return threadCount() <= threads; }));
#ifndef VEXADX_SANITIZED  // which keeps memory of its own
  EXPECT_LT(residentPages() - pages, 256);
#endif
#endif
}

TEST(ThreadsUnderLoad, ExcludeEachOtherHoweverDeepTheyHold) {
  PlugInCriticalSection section;
  PlugInCriticalSectionExt ext;
  long counter = 0;  // guarded by the section
  long extCounter = 0;
  const Within limit(std::chrono::seconds(10));
  inParallel(16, [&] {
    for (int depth = 1; depth <= 50; ++depth) {
      for (int i = 0; i < depth; ++i) section.Acquire();
      ++counter;
      for (int i = 0; i < depth; ++i) section.Release();

      while (!ext.Try()) std::this_thread::yield();
      for (int i = 1; i < depth; ++i) ext.Acquire();
      ++extCounter;
      for (int i = 0; i < depth; ++i) ext.Release();
    }
  });
  EXPECT_EQ(16 * 50, counter);
  EXPECT_EQ(16 * 50, extCounter);
  EXPECT_FALSE(ext.IsAcquired());
}

TEST(ThreadsUnderLoad, EachSignalReleasesOneWaiter) {
  constexpr int kSignals = 3000;
  Gate signal;
  Gate taken;
  std::atomic<int> takings{0};
  std::atomic<bool> end{false};
  std::thread signaller([&] {
    for (int i = 0; i < kSignals; ++i) {
      signal.Signal();
      taken.WaitForSignal();
      EXPECT_EQ(i + 1, takings);
    }
    end = true;
    signal.Signal();
  });
  inParallel(6, [&] {
    while (true) {
      signal.WaitForSignal();
      if (end) break;
      ++takings;
      taken.Signal();
    }
    signal.Signal();  // on to the next
  });
  signaller.join();
  EXPECT_EQ(kSignals, takings);
}

TEST(ThreadsUnderLoad, EachRequestIsAnsweredOnce) {
  constexpr int kRequests = 500;  // each
  constexpr int kRequesters = 6;
  Gate request;
  std::atomic<int> replies{0};
  std::atomic<bool> end{false};
  std::thread replier([&] {
    while (true) {
      request.WaitForSignal();
      if (end) return;
      ++replies;
      request.Reply();
    }
  });
  std::atomic<int> answered{0};
  inParallel(kRequesters, [&] {
    for (int i = 0; i < kRequests; ++i) {
      request.SignalAndWaitForReply();
      EXPECT_LE(++answered, replies);
    }
  });
  end = true;
  request.Signal();
  replier.join();
  EXPECT_EQ(kRequesters * kRequests, replies);
}
