#include "interrupts.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "cpython.h"

namespace vexapython {
namespace {

// Guarded by the interpreter lock.
unsigned long gSignalThread = 0;      // 0: nowhere
InterruptTarget* gTargets = nullptr;  // those not on that thread, the latest first

// Shared with InterruptBlocks, which may be a signal handler. A target leaves its count first and then waits until no
// call is under way: from then on every interrupt has either taken effect or found the target gone.
std::atomic<int> gCallsUnderWay{0};
std::atomic<int> gOnSignalThread{0};
std::atomic<int> gElsewhere{0};
std::atomic<bool> gSignalled{false};  // since the last time that no block ran on the signal thread
std::atomic<unsigned> gRequests{0};   // for blocks elsewhere
std::atomic<bool> gExpected{false};   // whether a courier is worth its thread
std::atomic<int> gWakeUp{-1};         // descriptor that wakes the courier
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void waitForCallsUnderWay() {
  while (gCallsUnderWay != 0) std::this_thread::yield();
}

void raiseSigint() {
#if PY_VERSION_HEX >= 0x030A0000
  PyErr_SetInterruptEx(SIGINT);
#else
  PyErr_SetInterrupt();
#endif
}

bool makePipe(int (&ends)[2]) {
#ifdef __linux__
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
#else
  if (::pipe(ends) != 0) return false;
  for (const int end : ends) (void)::fcntl(end, F_SETFD, FD_CLOEXEC);
#endif
  (void)::fcntl(ends[1], F_SETFL, O_NONBLOCK);  // a pipe full of wake-ups needs no further one
  return true;
}

// What a signal handler cannot do, because it takes the interpreter lock: raise an exception in another thread; and
// make the signal thread look for a signal that was raised on another one, which it does when the lock changes hands.
// So a thread does it, woken by a byte through a pipe.
class Courier {
 public:
  // Null when there are no descriptors or threads left.
  static std::unique_ptr<Courier> Start() {
    int ends[2];
    if (!makePipe(ends)) return nullptr;
    std::unique_ptr<Courier> courier(new Courier(ends[0], ends[1]));
    return courier->run() ? std::move(courier) : nullptr;
  }

  ~Courier() {
    gWakeUp = -1;
    waitForCallsUnderWay();
    ::close(m_writeEnd);
    if (m_thread.joinable()) m_thread.join();
    ::close(m_readEnd);
  }
  Courier(const Courier&) = delete;
  Courier& operator=(const Courier&) = delete;

 private:
  Courier(int readEnd, int writeEnd) : m_readEnd(readEnd), m_writeEnd(writeEnd) {}

  bool run() {
    // The host's signals are for the host's threads.
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &mask);
    try {
      m_thread = std::thread(&Courier::carry, m_readEnd);
    } catch (const std::system_error&) {
    }
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
    if (!m_thread.joinable()) return false;
    gWakeUp = m_writeEnd;
    return true;
  }

  static void carry(int readEnd) {
    while (true) {
      char wakeUps[64];
      const ssize_t count = ::read(readEnd, wakeUps, sizeof wakeUps);
      if (count == 0 || (count == -1 && errno != EINTR)) return;
      const InterpreterLock lock;
      InterruptTarget::Deliver();
    }
  }

  const int m_readEnd;
  const int m_writeEnd;
  std::thread m_thread;
};

// Owned, guarded by the interpreter lock. Not destroyed at exit, when blocks may still run.
Courier* gCourier = nullptr;

}  // namespace

void InterruptBySignalHere() { gSignalThread = PyThread_get_thread_ident(); }

void ExpectInterrupts() { gExpected = true; }

void InterruptBlocks() {
  const int saved = errno;
  ++gCallsUnderWay;
  const bool onSignalThread = gOnSignalThread > 0;
  const bool elsewhere = gElsewhere > 0;
  if (onSignalThread) {
    gSignalled = true;
    raiseSigint();
  }
  if (elsewhere) ++gRequests;
  if (onSignalThread || elsewhere) (void)!::write(gWakeUp, "", 1);
  --gCallsUnderWay;
  errno = saved;
}

void StopInterrupts() {
  std::unique_ptr<Courier> courier;
  {
    const InterpreterLock lock;
    courier.reset(std::exchange(gCourier, nullptr));
  }
}

InterruptTarget::InterruptTarget()
    : m_thread(PyThread_get_thread_ident()), m_bySignal(m_thread == gSignalThread), m_seen(gRequests) {
  if (gExpected && !gCourier) gCourier = Courier::Start().release();
  if (m_bySignal) {
    ++gOnSignalThread;
    return;
  }
  m_next = std::exchange(gTargets, this);
  ++gElsewhere;
}

InterruptTarget::~InterruptTarget() {
  if (m_bySignal) {
    endOnSignalThread();
  } else {
    endElsewhere();
  }
}

void InterruptTarget::endOnSignalThread() {
  if (--gOnSignalThread > 0) return;  // what came too late for this block is for the one around it
  waitForCallsUnderWay();
  if (!gSignalled) return;
  gSignalled = false;
  if (PyErr_CheckSignals() != 0) PyErr_Clear();
}

void InterruptTarget::endElsewhere() {
  --gElsewhere;
  InterruptTarget** link = &gTargets;
  while (*link != this) link = &(*link)->m_next;
  *link = m_next;
  if (m_hit) PyThreadState_SetAsyncExc(m_thread, nullptr);
}

void InterruptTarget::Deliver() {
  const unsigned requests = gRequests;
  for (InterruptTarget* target = gTargets; target; target = target->m_next) {
    if (target->m_seen == requests) continue;
    target->m_seen = requests;
    target->m_hit = true;
    PyThreadState_SetAsyncExc(target->m_thread, PyExc_KeyboardInterrupt);
  }
}

}  // namespace vexapython
