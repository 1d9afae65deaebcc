#pragma once

#include <errno.h>
#include <unistd.h>
#ifdef __linux__
#include <sys/uio.h>
#endif

#include <atomic>
#include <cstddef>

#include "brokenpipeguard.h"

// Writes to a pipe without the signal that a missing reader causes, and again as often as a signal interrupts it.
// Answers what write answers.
class QuietWrite {
 public:
  static ssize_t Once(int descriptor, const char* bytes, std::size_t length) {
    ssize_t written;
    do {
      written = withoutSignal(descriptor, bytes, length);
    } while (written == -1 && errno == EINTR);
    return written;
  }

 private:
  static ssize_t withoutSignal(int descriptor, const char* bytes, std::size_t length) {
#ifdef __linux__
    if (systemKnows.load(std::memory_order_relaxed)) {
      iovec piece{const_cast<char*>(bytes), length};
      const ssize_t written = ::pwritev2(descriptor, &piece, 1, -1, kNoSignal);
      if (written != -1 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EPERM)) return written;
      systemKnows = false;
    }
#endif
    BrokenPipeGuard guard;
    const ssize_t written = ::write(descriptor, bytes, length);
    // A reader that leaves in the middle sends the signal too, though the count of what it took is the answer.
    if (written == -1 ? errno == EPIPE : static_cast<std::size_t>(written) < length) guard.NoteBrokenPipe();
    return written;
  }

#ifdef __linux__
  // RWF_NOSIGNAL, which is younger than many headers. A system that does not know it refuses the call; one that does
  // saves the two calls that mask the signal.
  static constexpr int kNoSignal = 0x100;
  static inline std::atomic<bool> systemKnows = true;
#endif
};
