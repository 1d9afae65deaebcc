#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// A thread that gets no signals.
std::thread ThreadWithoutSignals(std::function<void()> work);

// Acts on what takes too long, step by step, until it is destroyed. The steps are taken on a thread of its own, which
// gets no signals.
class Deadline {
 public:
  using Seconds = std::chrono::duration<double>;

  struct Step {
    Seconds after;  // since the step before
    std::function<void()> act;
  };

  // The steps to take at a limit; there is none without a limit, which is 0.
  Deadline(Seconds limit, std::vector<Step> steps);
  ~Deadline() { (void)End(); }
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  // Ends it, and answers how many steps were taken. One that has begun is waited for.
  std::size_t End();

 private:
  void watch(const std::vector<Step>& steps);

  std::mutex m_guard;
  std::condition_variable m_changed;
  std::size_t m_taken = 0;
  bool m_isOver = false;
  std::thread m_thread;
};
