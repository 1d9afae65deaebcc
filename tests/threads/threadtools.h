#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "PlugInThreadHot.h"

// A thread whose work is a function.
class Worker : public PlugInThreadHot {
 public:
  explicit Worker(std::function<int()> work) : m_work(std::move(work)) {}
  ~Worker() override { WaitForStop(); }
  int Run() override { return m_work(); }

 private:
  std::function<int()> m_work;
};

// What a thread waits for and another gives.
class Gate : public PlugInSynchEvent {
 public:
  Gate() : PlugInSynchEvent(false, false, nullptr) {}
};

// Looks until the condition holds; false when it does not for a long time.
template <typename Condition>
bool becomesTrue(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return condition();
}

template <typename Body>
void inParallel(int count, Body body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(body);
  for (std::thread& thread : threads) thread.join();
}

inline std::atomic<int> gWorkerRuns{0};

// Starts threads, and ends with each in another way; none may be joined twice, lost, or touch its object too late.
inline void startAndEnd(int starts) {
  for (int started = 0, way = 0; started < starts; ++started, ++way) {
    auto thread = std::make_unique<Worker>([way] {
      ++gWorkerRuns;
      return way;
    });
    ASSERT_TRUE(thread->Start(0));
    switch (way % 6) {
      case 0:  // joined
        EXPECT_TRUE(thread->WaitForStop());
        EXPECT_EQ(way, thread->GetReturnValue());
        break;
      case 1:  // waited for on its own way out
        EXPECT_TRUE(becomesTrue([&] { return !thread->HasThread(); }));
        EXPECT_TRUE(thread->WaitForStop());
        break;
      case 2:  // destroyed on its own way out
        EXPECT_TRUE(becomesTrue([&] { return !thread->HasThread(); }));
        break;
      case 3: {  // waited for by two at once
        std::thread other([&] { EXPECT_TRUE(thread->WaitForStop()); });
        EXPECT_TRUE(thread->WaitForStop());
        other.join();
        break;
      }
      case 4:  // started again on its way out
        EXPECT_TRUE(becomesTrue([&] { return !thread->HasThread(); }));
        ASSERT_TRUE(thread->Start(0));
        ++started;
        break;
      default:  // destroyed at once
        break;
    }
  }
}
