#include "processstate.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include <cerrno>
#include <cfenv>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>

namespace fs = std::filesystem;

namespace {

// With what a fraction that is too small becomes, and which exceptions are signals.
unsigned long floatingPointControl() {
#ifdef __x86_64__
  constexpr unsigned kRaised = 0x3f;
  unsigned short x87 = 0;
  __asm__ volatile("fnstcw %0" : "=m"(x87));
  return (__builtin_ia32_stmxcsr() & ~kRaised) * 0x10000UL + x87;
#else
  return static_cast<unsigned long>(std::fegetround());
#endif
}

}  // namespace

int OpenDescriptors() {
  int count = 0;
  for (int descriptor = 0; descriptor < 1024; ++descriptor) count += ::fcntl(descriptor, F_GETFD) == -1 ? 0 : 1;
  return count;
}

int Threads() {
  std::error_code noDirectory;
  const fs::directory_iterator threads("/proc/self/task", noDirectory);
  return noDirectory ? 0 : static_cast<int>(std::distance(begin(threads), end(threads)));
}

bool HasChildren() {
  siginfo_t info;
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) == 0 || errno != ECHILD;
}

long ResidentBytes(pid_t process) {
#ifdef VEXADX_SANITIZED
  (void)process;
  return 0;
#else
  long pages = 0;
  long resident = 0;
  std::ifstream("/proc/" + std::to_string(process) + "/statm") >> pages >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
#endif
}

bool HasChildrenBeside(pid_t child) {
  std::error_code noDirectory;
  for (const fs::directory_entry& process : fs::directory_iterator("/proc", noDirectory)) {
    const pid_t id = std::atoi(process.path().filename().c_str());
    std::ifstream status(process.path() / "stat");
    status.ignore(std::numeric_limits<std::streamsize>::max(), ')');
    char state = 0;
    pid_t parent = 0;
    status >> state >> parent;
    if (id > 0 && id != child && parent == ::getpid()) return true;
  }
  return false;
}

long OwnBytes() {
  long bytes = 0;
#if defined(__GLIBC__) && !defined(VEXADX_SANITIZED)
  (void)::malloc_trim(0);
  std::ifstream maps("/proc/self/smaps_rollup");
  for (std::string word; maps >> word;) {
    if (word == "Anonymous:" && maps >> bytes) return bytes * 1024;
  }
#endif
  return bytes;
}

std::vector<bool> SignalState() {
  struct sigaction action {};
  ::sigaction(SIGPIPE, nullptr, &action);
  sigset_t blocked;
  sigset_t pending;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
  ::sigpending(&pending);
  std::vector<bool> state{action.sa_handler == SIG_DFL};
  for (int signal = 1; signal < NSIG; ++signal) {
    for (const sigset_t* set : {&blocked, &pending}) state.push_back(::sigismember(set, signal) == 1);
  }
  return state;
}

std::string ProcessState() {
  std::ostringstream state;
  const mode_t mask = ::umask(0);
  ::umask(mask);
  state << OpenDescriptors() << " descriptors, signals ";
  for (const bool is : SignalState()) state << is;
  state << ", " << std::setlocale(LC_ALL, nullptr) << ", floating point " << floatingPointControl() << ", in "
        << fs::current_path() << ", umask " << mask;
  return state.str();
}
