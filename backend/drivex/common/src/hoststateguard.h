#pragma once

#include <signal.h>

#include <array>
#include <string>

// Keeps the host's own state while foreign code runs in its process (a Java machine that starts, a language runtime):
// what that code changed is put back at the end, and one trace line names it. Kept are the signal dispositions and the
// locale of the process, and the signal mask and the floating-point control of the calling thread, which must also be
// the one that ends the guard.
class HostStateGuard {
 public:
  // The signals of faults (SIGSEGV, SIGBUS, SIGFPE, SIGILL) belong to a Java machine as long as one lives: it cannot
  // work without its handlers.
  enum class FaultSignals { kPutBack, kLeave };

  explicit HostStateGuard(FaultSignals faultSignals);
  ~HostStateGuard();
  HostStateGuard(const HostStateGuard&) = delete;
  HostStateGuard& operator=(const HostStateGuard&) = delete;

 private:
  // Rounding, precision, exception masks and the treatment of denormal numbers, without the exceptions raised so far.
  struct FloatingPointControl {
    static FloatingPointControl Current();
    void Apply() const;
    bool operator==(const FloatingPointControl&) const = default;

#ifdef __x86_64__
    unsigned short x87;
    unsigned sse;
#else
    int rounding;
#endif
  };

  // Each appends to `changes` what it had to put back.
  void PutBackDispositions(std::string& changes) const;
  void PutBackMask(std::string& changes) const;
  void PutBackLocale(std::string& changes) const;
  void PutBackFloatingPoint(std::string& changes) const;

  const FaultSignals m_faultSignals;
  std::array<struct sigaction, NSIG> m_dispositions{};  // by signal number
  sigset_t m_mask{};
  std::string m_locale;
  FloatingPointControl m_floatingPoint;
};
