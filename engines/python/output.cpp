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

namespace vexapython {
namespace {

std::atomic<OutputFunction> gFunction{nullptr};

// Held around each call of the host's function: hosts do not expect two at once, and Python threads print whenever
// they like. Recursive, because the function may itself run a block. Never waited for with the interpreter lock held.
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

// 0, or EIO when the function throws.
int callFunction(OutputFunction function, std::string_view bytes) {
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

// Writes once, waiting while a descriptor that does not block is full; takes what was written off the bytes.
// 0 or the error's number, EINTR included.
int writeOnce(int descriptor, std::string_view& bytes) {
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

// All bytes to a descriptor. False with a Python exception set.
bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    int error = 0;
    {
      const InterpreterUnlock unlocked;
      error = writeOnce(descriptor, bytes);
    }
    if (error == 0) continue;
    if (error == EINTR) {
      if (PyErr_CheckSignals() != 0) return false;
      continue;
    }
    errno = error;
    PyErr_SetFromErrno(PyExc_OSError);
    return false;
  }
  return true;
}

bool post(OutputFunction function, std::string_view bytes) {
  int error = 0;
  {
    const InterpreterUnlock unlocked;
    error = callFunction(function, bytes);
  }
  if (error == 0) return true;
  errno = error;
  PyErr_SetFromErrno(PyExc_OSError);
  return false;
}

struct Buffer : Py_buffer {
  ~Buffer() { PyBuffer_Release(this); }
};

}  // namespace

void SetOutputFunction(OutputFunction function) { gFunction = function; }

void PostErrorLine(std::string_view text) {
  const std::string line = std::string(text) + "\n";
  if (const OutputFunction function = gFunction) {
    (void)callFunction(function, line);
    return;
  }
  std::string_view rest = line;
  while (!rest.empty()) {
    const int error = writeOnce(STDERR_FILENO, rest);
    if (error != 0 && error != EINTR) return;
  }
}

PyObject* Write(PyObject* /*module*/, PyObject* arguments) {
  int descriptor = 0;
  Buffer data{};
  if (!PyArg_ParseTuple(arguments, "iy*", &descriptor, &data)) return nullptr;
  const std::string_view bytes(static_cast<const char*>(data.buf), static_cast<std::size_t>(data.len));
  const OutputFunction function = gFunction;
  if (!(function ? post(function, bytes) : writeAll(descriptor, bytes))) return nullptr;
  return PyLong_FromSsize_t(data.len);
}

PyObject* Redirected(PyObject* /*module*/, PyObject* /*none*/) { return PyBool_FromLong(gFunction.load() != nullptr); }

PyObject* Forked(PyObject* /*module*/, PyObject* /*none*/) {
  // The thread that held it may not exist in the child.
  new (&gCalling) std::recursive_mutex;
  Py_RETURN_NONE;
}

}  // namespace vexapython
