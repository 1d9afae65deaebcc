#include "hostwatch.h"

#include <unistd.h>
#ifdef __linux__
#include <poll.h>
#include <sys/syscall.h>
#endif

#include <cerrno>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

// Without a host a process belongs to another one.
bool isThere(pid_t host) { return ::getppid() == host; }

// Whether the system has told.
bool awaitNews(pid_t host) {
#if defined(__linux__) && defined(SYS_pidfd_open)
  const auto descriptor = static_cast<int>(::syscall(SYS_pidfd_open, host, 0));
  if (descriptor == -1) return false;
  pollfd waited{descriptor, POLLIN, 0};
  while (isThere(host) && ::poll(&waited, 1, -1) == -1 && errno == EINTR) {
  }
  ::close(descriptor);
  return true;
#else
  (void)host;
  return false;
#endif
}

}  // namespace

bool MayBeAdopted(pid_t parent) { return parent == 1 || ::getsid(parent) != ::getsid(0); }

void AwaitHostsEnd(pid_t host) {
  if (awaitNews(host)) return;
  while (isThere(host)) std::this_thread::sleep_for(200ms);
}
