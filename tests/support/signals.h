#pragma once

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>
#include <vector>

// Signals to the calling thread that end a system call, a thousand a second, while it lives. One that was made while
// another was alive goes before it.
class Signals {
 public:
  Signals() : m_sending([this, thread = ::pthread_self()] { send(thread); }) {}
  ~Signals() {
    m_isOver = true;
    m_sending.join();
    for (const auto& [signal, action] : m_before) ::sigaction(signal, &action, nullptr);
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  static inline std::atomic<int> taken{0};

 private:
  void send(pthread_t thread) {
    for (std::size_t i = 0; !m_isOver; ++i) {
      ::pthread_kill(thread, m_before[i % m_before.size()].first);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  static std::pair<int, struct sigaction> take(int signal) {
    struct sigaction action {};
    struct sigaction before {};
    action.sa_handler = [](int) { ++taken; };
    ::sigaction(signal, &action, &before);
    return {signal, before};
  }

  const std::vector<std::pair<int, struct sigaction>> m_before{take(SIGALRM), take(SIGCHLD), take(SIGUSR1)};
  std::atomic<bool> m_isOver{false};
  std::thread m_sending;
};
