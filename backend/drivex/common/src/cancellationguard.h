#pragma once

#include <pthread.h>

// Holds a cancellation of the calling thread off for a scope: where it must not cut something short, and in a
// destructor, out of which no unwinding can pass.
class CancellationGuard {
 public:
  CancellationGuard() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_state); }
  ~CancellationGuard() { ::pthread_setcancelstate(m_state, nullptr); }
  CancellationGuard(const CancellationGuard&) = delete;
  CancellationGuard& operator=(const CancellationGuard&) = delete;

 private:
  int m_state = PTHREAD_CANCEL_ENABLE;
};
