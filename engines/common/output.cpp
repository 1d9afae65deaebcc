#include "output.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <mutex>
#include <new>
#include <string>

#include "boundary.h"

namespace plugin {
namespace {

std::atomic<OutputFunction> gFunction{nullptr};

// Held around each call of the host's function: hosts do not expect two at once, and threads of a language print
// whenever they like. Recursive, because the function may itself run a block.
std::recursive_mutex gCalling;

// Keeps a write to a closed pipe from raising SIGPIPE, whose disposition is the host's. A signal that was pending
// before stays pending.
class BrokenPipeGuard {
 public:
  BrokenPipeGuard() {
    sigemptyset(&m_brokenPipe);
    sigaddset(&m_brokenPipe, SIGPIPE);
    m_wasPending = isPending();
    pthread_sigmask(SIG_BLOCK, &m_brokenPipe, &m_mask);
  }
  ~BrokenPipeGuard() {
    const int saved = errno;
    if (int taken = 0; !m_wasPending && isPending()) sigwait(&m_brokenPipe, &taken);
    pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    errno = saved;
  }
  BrokenPipeGuard(const BrokenPipeGuard&) = delete;
  BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;

 private:
  static bool isPending() {
    sigset_t pending;
    return sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
  }

  sigset_t m_brokenPipe;
  sigset_t m_mask;
  bool m_wasPending;
};

}  // namespace

void SetOutputFunction(OutputFunction function) { gFunction = function; }

OutputFunction HostOutput() { return gFunction; }

int CallOutput(OutputFunction function, std::string_view bytes) {
  const std::lock_guard guard(gCalling);
  return Contained(EIO, [&] {
    while (!bytes.empty()) {
      const std::string_view piece = bytes.substr(0, INT_MAX);
      (void)function(piece.data(), static_cast<int>(piece.size()));
      bytes.remove_prefix(piece.size());
    }
    return 0;
  });
}

int WriteOnce(int descriptor, std::string_view& bytes) {
  const BrokenPipeGuard guard;
  const ssize_t written = ::write(descriptor, bytes.data(), bytes.size());
  if (written >= 0) {
    bytes.remove_prefix(static_cast<std::size_t>(written));
    return 0;
  }
  if (errno != EAGAIN && errno != EWOULDBLOCK) return errno;
  pollfd room{descriptor, POLLOUT, 0};
  return ::poll(&room, 1, -1) == -1 ? errno : 0;
}

void PostErrorLine(std::string_view text) {
  const std::string line = std::string(text) + "\n";
  if (const OutputFunction function = gFunction) {
    (void)CallOutput(function, line);
    return;
  }
  std::string_view rest = line;
  while (!rest.empty()) {
    const int error = WriteOnce(STDERR_FILENO, rest);
    if (error != 0 && error != EINTR) return;
  }
}

void RenewOutputAfterFork() { new (&gCalling) std::recursive_mutex; }

}  // namespace plugin
