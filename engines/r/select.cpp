// R's wait for descriptors and for time to pass, of a library that stands before R's own: there a handler for SIGINT is
// put in for the time of each wait, which jumps back to the waiting thread from whatever thread of the host's gets the
// signal. Here R looks for interrupts as it does everywhere else.

#include <sys/select.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "embeddedr.h"
#include "vexadx_export.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr microseconds kSlice{50'000};
constexpr microseconds kForEver = microseconds::max();

struct Sets {
  fd_set read, write, except;
};

fd_set copyOf(const fd_set* set) { return set ? *set : fd_set{}; }

// As select does, and puts the answer into `sets`.
int selectFor(microseconds time, int count, Sets& sets) {
  timeval rest{static_cast<time_t>(time.count() / 1'000'000), static_cast<suseconds_t>(time.count() % 1'000'000)};
  return ::select(count, &sets.read, &sets.write, &sets.except, &rest);
}

}  // namespace

extern "C" VEXADX_API int R_SelectEx(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout,
                                     void (*onInterrupt)()) {
  if (timeout && timeout->tv_sec == 0 && timeout->tv_usec == 0) {
    return ::select(count, read, write, except, timeout);  // no wait: R may have interrupts suspended
  }
  const Clock::time_point begin = Clock::now();
  const microseconds time = timeout ? std::chrono::seconds(timeout->tv_sec) + microseconds(timeout->tv_usec) : kForEver;
  const Rboolean suspended = R_interrupts_suspended;
  R_interrupts_suspended = FALSE;
  for (;;) {
    if (PendingInterrupt()) (onInterrupt ? onInterrupt : &Rf_onintr)();
    const auto passed = std::chrono::duration_cast<microseconds>(Clock::now() - begin);
    const microseconds left = std::max(time - passed, microseconds(0));
    Sets sets{copyOf(read), copyOf(write), copyOf(except)};
    const int ready = selectFor(std::min(left, kSlice), count, sets);
    if (ready == 0 && left > kSlice) continue;
    if (ready == -1 && errno == EINTR) continue;
    R_interrupts_suspended = suspended;
    if (read) *read = sets.read;
    if (write) *write = sets.write;
    if (except) *except = sets.except;
    return ready;
  }
}
