#pragma once

#include <pthread.h>
#ifdef __linux__
#include <sched.h>
#endif

#include <vector>

#include "ratio.h"

// Keeps a thread, and the threads and processes it makes meanwhile, on some of the processors that the program may use.
#ifdef __linux__
constexpr int kFewestProcessors = 1;

class Placement {
 public:
  Placement(int first, int count) {
    const std::vector<int>& processors = available();
    stopUnless(first + count <= static_cast<int>(processors.size()), "too few processors");
    ::pthread_getaffinity_np(::pthread_self(), sizeof m_before, &m_before);
    cpu_set_t chosen;
    CPU_ZERO(&chosen);
    for (int i = first; i < first + count; ++i) CPU_SET(processors[i], &chosen);
    stopUnless(::pthread_setaffinity_np(::pthread_self(), sizeof chosen, &chosen) == 0, "cannot choose processors");
  }
  ~Placement() { ::pthread_setaffinity_np(::pthread_self(), sizeof m_before, &m_before); }
  Placement(const Placement&) = delete;
  Placement& operator=(const Placement&) = delete;

 private:
  // Found once, before any thread has been placed.
  static const std::vector<int>& available() {
    static const std::vector<int> processors = [] {
      cpu_set_t usable;
      CPU_ZERO(&usable);
      ::pthread_getaffinity_np(::pthread_self(), sizeof usable, &usable);
      std::vector<int> found;
      for (int i = 0; i < CPU_SETSIZE; ++i) {
        if (CPU_ISSET(i, &usable)) found.push_back(i);
      }
      return found;
    }();
    return processors;
  }

  cpu_set_t m_before{};
};
#else
constexpr int kFewestProcessors = 2;  // left to the system, as a thread cannot be kept on one

class Placement {
 public:
  Placement(int /*first*/, int /*count*/) {}
};
#endif
