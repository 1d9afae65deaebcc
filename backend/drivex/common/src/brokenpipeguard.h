#pragma once

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#ifndef __APPLE__
#include <time.h>
#endif

// Keeps a write to a pipe or FIFO without a reader from ending the process: for its scope the calling thread blocks the
// broken-pipe signal, so that the write fails with EPIPE and nothing else happens. The process's disposition of the
// signal is the host's and never touched, and a signal that was pending before stays pending. Keeps errno.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    ::sigemptyset(&m_signal);
    ::sigaddset(&m_signal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &m_signal, &m_mask);
    // A thread that did not block the signal cannot have had it pending.
    if (::sigismember(&m_mask, SIGPIPE) == 1) m_pendingBefore = isPending();
  }

  ~BrokenPipeGuard() {
    const int error = errno;
    if (m_caused && !m_pendingBefore) takeBack();
    ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    errno = error;
  }

  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

  // The write met no reader: the signal that it may have caused is to go.
  void NoteBrokenPipe() { m_caused = true; }

 private:
  static bool isPending() {
    sigset_t pending;
    return ::sigpending(&pending) == 0 && ::sigismember(&pending, SIGPIPE) == 1;
  }

  void takeBack() {
#ifdef __APPLE__
    int number = 0;
    if (isPending()) ::sigwait(&m_signal, &number);
#else
    const timespec now{};
    while (::sigtimedwait(&m_signal, nullptr, &now) == -1 && errno == EINTR) {
    }
#endif
  }

  sigset_t m_signal;
  sigset_t m_mask;
  bool m_pendingBefore = false;
  bool m_caused = false;
};
