#pragma once

#include <chrono>
#include <functional>
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
