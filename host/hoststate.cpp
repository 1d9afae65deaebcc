#include "hoststate.h"

#include <signal.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#ifdef __x86_64__
#include <xmmintrin.h>
#endif

#include <cfenv>
#include <clocale>
#include <filesystem>
#include <sstream>

namespace {

std::string words(const sigset_t& set) {
  std::string text;
  for (int signal = 1; signal < NSIG; ++signal) text += sigismember(&set, signal) == 1 ? '1' : '0';
  return text;
}

std::string dispositionOf(int signal) {
  struct sigaction action {};
  if (::sigaction(signal, nullptr, &action) != 0) return "";  // a number that the system keeps to itself
  if (action.sa_handler == SIG_DFL) return "default";         // flags and mask mean nothing
  if (action.sa_handler == SIG_IGN) return "ignored";
  std::ostringstream text;
  text << reinterpret_cast<void*>(action.sa_handler) << ' ' << action.sa_flags << ' ' << words(action.sa_mask);
  return text.str();
}

std::string signalMask() {
  sigset_t mask;
  ::sigemptyset(&mask);
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  return words(mask);
}

std::string floatingPoint() {
  std::string text = std::to_string(std::fegetround());
#ifdef __x86_64__
  constexpr unsigned kRaised = 0x3F;
  unsigned short x87 = 0;
  __asm__ volatile("fnstcw %0" : "=m"(x87));
  text += ' ' + std::to_string(x87) + ' ' + std::to_string(_mm_getcsr() & ~kRaised);
#endif
  return text;
}

std::string creationMask() {
  const mode_t mask = ::umask(0);
  (void)::umask(mask);
  return std::to_string(mask);
}

std::string stream(int descriptor) {
  struct stat status {};
  if (::fstat(descriptor, &status) != 0) return "closed";
  return std::to_string(status.st_dev) + ' ' + std::to_string(status.st_ino);
}

}  // namespace

std::string SignalName(int signal) {
#ifdef __GLIBC__
  if (const char* name = ::sigabbrev_np(signal)) return std::string("SIG") + name;
#endif
  return "signal " + std::to_string(signal);
}

HostState::HostState() {
  for (int signal = 1; signal < NSIG; ++signal) {
    m_items.push_back({"the disposition of " + SignalName(signal), dispositionOf(signal)});
  }
  std::error_code none;
  m_items.push_back({"the signal mask", signalMask()});
  m_items.push_back({"the locale", std::setlocale(LC_ALL, nullptr)});
  m_items.push_back({"the floating-point control", floatingPoint()});
  m_items.push_back({"the working directory", std::filesystem::current_path(none).string()});
  m_items.push_back({"the file-creation mask", creationMask()});
  for (int descriptor = STDIN_FILENO; descriptor <= STDERR_FILENO; ++descriptor) {
    m_items.push_back({"descriptor " + std::to_string(descriptor), stream(descriptor)});
  }
}

std::string HostState::ChangesTo(const HostState& later) const {
  std::string changes;
  for (std::size_t i = 0; i < m_items.size(); ++i) {
    if (m_items[i].value != later.m_items[i].value) changes += (changes.empty() ? "" : ", ") + m_items[i].name;
  }
  return changes;
}
