#include "deadline.h"

#include <pthread.h>
#include <signal.h>

#include <utility>

std::thread ThreadWithoutSignals(std::function<void()> work) {
  sigset_t all;
  sigset_t mask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &mask);
  std::thread thread(std::move(work));
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return thread;
}

Deadline::Deadline(Seconds limit, std::vector<Step> steps) {
  if (limit <= Seconds::zero() || steps.empty()) return;
  steps.front().after = limit;
  m_thread = ThreadWithoutSignals([this, steps = std::move(steps)] { watch(steps); });
}

std::size_t Deadline::End() {
  {
    const std::lock_guard lock(m_guard);
    m_isOver = true;
    m_changed.notify_all();
  }
  if (m_thread.joinable()) m_thread.join();
  return m_taken;
}

void Deadline::watch(const std::vector<Step>& steps) {
  std::unique_lock lock(m_guard);
  auto time = std::chrono::steady_clock::now();
  for (const Step& step : steps) {
    time += std::chrono::duration_cast<std::chrono::steady_clock::duration>(step.after);
    if (m_changed.wait_until(lock, time, [this] { return m_isOver; })) return;
    ++m_taken;
    lock.unlock();
    step.act();
    lock.lock();
  }
}
