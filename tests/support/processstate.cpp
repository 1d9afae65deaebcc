#include "processstate.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cfenv>
#include <clocale>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace fs = std::filesystem;

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
  state << ", " << std::setlocale(LC_ALL, nullptr) << ", rounding " << std::fegetround() << ", in "
        << fs::current_path() << ", umask " << mask;
  return state.str();
}
