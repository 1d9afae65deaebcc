#include "hoststateguard.h"

#ifdef __x86_64__
#include <xmmintrin.h>
#else
#include <cfenv>
#endif

#include <clocale>
#include <cstring>

#include "dxtraceline.h"

namespace {

bool isFaultSignal(int signal) { return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL; }

std::string signalName(int signal) {
#ifdef __GLIBC__
  if (const char* name = ::sigabbrev_np(signal)) return std::string("SIG") + name;
#endif
  return "signal " + std::to_string(signal);
}

// Signal by signal: what a set holds behind its last signal is left to chance.
bool isSame(const sigset_t& a, const sigset_t& b) {
  for (int signal = 1; signal < NSIG; ++signal) {
    if (sigismember(&a, signal) != sigismember(&b, signal)) return false;
  }
  return true;
}

bool isSame(const struct sigaction& a, const struct sigaction& b) {
  return a.sa_handler == b.sa_handler && a.sa_flags == b.sa_flags && isSame(a.sa_mask, b.sa_mask);
}

// False for the numbers the system keeps to itself.
bool getDisposition(int signal, struct sigaction& disposition) {
  return ::sigaction(signal, nullptr, &disposition) == 0;
}

}  // namespace

HostStateGuard::FloatingPointControl HostStateGuard::FloatingPointControl::Current() {
  FloatingPointControl current{};
#ifdef __x86_64__
  constexpr unsigned kRaised = 0x3F;
  __asm__ volatile("fnstcw %0" : "=m"(current.x87));
  current.sse = _mm_getcsr() & ~kRaised;
#else
  current.rounding = std::fegetround();
#endif
  return current;
}

void HostStateGuard::FloatingPointControl::Apply() const {
#ifdef __x86_64__
  __asm__ volatile("fldcw %0" : : "m"(x87));
  _mm_setcsr(sse);
#else
  std::fesetround(rounding);
#endif
}

HostStateGuard::HostStateGuard(FaultSignals faultSignals)
    : m_faultSignals(faultSignals),
      m_locale(std::setlocale(LC_ALL, nullptr)),
      m_floatingPoint(FloatingPointControl::Current()) {
  for (int signal = 1; signal < NSIG; ++signal) (void)getDisposition(signal, m_dispositions[signal]);
  ::pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
}

// The mask comes last: a signal it lets through must meet the host's own handler and state.
HostStateGuard::~HostStateGuard() {
  std::string changes;
  PutBackLocale(changes);
  PutBackFloatingPoint(changes);
  PutBackDispositions(changes);
  PutBackMask(changes);
  if (!changes.empty()) TraceLine({"HostStateGuard put back", changes});
}

void HostStateGuard::PutBackDispositions(std::string& changes) const {
  for (int signal = 1; signal < NSIG; ++signal) {
    if (m_faultSignals == FaultSignals::kLeave && isFaultSignal(signal)) continue;
    struct sigaction current {};
    if (!getDisposition(signal, current) || isSame(current, m_dispositions[signal])) continue;
    ::sigaction(signal, &m_dispositions[signal], nullptr);
    changes += " " + signalName(signal);
  }
}

void HostStateGuard::PutBackMask(std::string& changes) const {
  sigset_t current{};
  ::pthread_sigmask(SIG_SETMASK, nullptr, &current);
  if (isSame(current, m_mask)) return;
  ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
  changes += " signal mask";
}

void HostStateGuard::PutBackLocale(std::string& changes) const {
  if (m_locale == std::setlocale(LC_ALL, nullptr)) return;
  std::setlocale(LC_ALL, m_locale.c_str());
  changes += " locale";
}

void HostStateGuard::PutBackFloatingPoint(std::string& changes) const {
  if (FloatingPointControl::Current() == m_floatingPoint) return;
  m_floatingPoint.Apply();
  changes += " floating-point control";
}
