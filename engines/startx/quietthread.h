#pragma once

#include <pthread.h>
#include <signal.h>

#include <thread>
#include <utility>

// A thread that takes no signals: those are the main thread's, whose system calls they end.
template <typename Work>
std::thread QuietThread(Work work) {
  sigset_t all;
  sigset_t mask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &mask);
  std::thread thread(std::move(work));
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return thread;
}
