#include "peerwatch.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <poll.h>
#include <sys/syscall.h>
#if defined(SYS_pidfd_open) && defined(SYS_pidfd_send_signal)
#define VEXADX_PROCESS_DESCRIPTORS
#endif
#endif
#ifdef __APPLE__
#include <sys/event.h>
#endif

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "cancellationguard.h"
#include "childoutput.h"
#include "vexadx_codes.h"

namespace {

using namespace std::chrono_literals;

constexpr auto kSlowLook = 50ms;  // where the system does not tell of a death
constexpr auto kReleaseEach = 1ms;
#ifdef VEXADX_PROCESS_DESCRIPTORS
constexpr auto kByDescriptor = static_cast<idtype_t>(3);  // P_PIDFD, which is younger than many headers
#endif

// -1 when there is none: a file that is no FIFO is nobody's other end.
int openOtherEnd(const char* pipe, int mode) {
  const int descriptor = ::open(pipe, mode | O_NONBLOCK | O_CLOEXEC);
  struct stat status;
  if (descriptor == -1 || (::fstat(descriptor, &status) == 0 && S_ISFIFO(status.st_mode))) return descriptor;
  ::close(descriptor);
  return -1;
}

int bytesIn(int descriptor) {
  int count = 0;
  return ::ioctl(descriptor, FIONREAD, &count) == 0 ? count : 0;
}

// A process by its descriptor, which never stands for another that has got its number; -1: the system has none.
int descriptorOf(pid_t process) {
#ifdef VEXADX_PROCESS_DESCRIPTORS
  return static_cast<int>(::syscall(SYS_pidfd_open, process, 0));
#else
  (void)process;
  return -1;
#endif
}

// A child's death by itself, without reaping it. False: it is no child to wait for any more, or lives.
bool hasDied(pid_t process, int descriptor, siginfo_t& info) {
  idtype_t kind = P_PID;
  auto id = static_cast<id_t>(process);
#ifdef VEXADX_PROCESS_DESCRIPTORS
  if (descriptor != -1) {
    kind = kByDescriptor;
    id = static_cast<id_t>(descriptor);
  }
#else
  (void)descriptor;
#endif
  int result;
  do {
    info.si_pid = 0;
    result = ::waitid(kind, id, &info, WEXITED | WNOHANG | WNOWAIT);
  } while (result == -1 && errno == EINTR);
  return result == 0 && info.si_pid == process;
}

void sendSignal(pid_t process, int descriptor, int number) {
#ifdef VEXADX_PROCESS_DESCRIPTORS
  if (descriptor != -1) {
    (void)::syscall(SYS_pidfd_send_signal, descriptor, number, nullptr, 0);
    return;
  }
#else
  (void)descriptor;
#endif
  (void)::kill(process, number);
}

bool isThere(pid_t process) { return ::kill(process, 0) == 0 || errno != ESRCH; }

void awaitDeathSlowly(pid_t process) {
  siginfo_t info;
  while (isThere(process) && !hasDied(process, -1, info)) std::this_thread::sleep_for(kSlowLook);
}

#ifdef VEXADX_PROCESS_DESCRIPTORS
void awaitDeath(pid_t process, int descriptor) {
  if (descriptor == -1) return awaitDeathSlowly(process);
  pollfd waited{descriptor, POLLIN, 0};
  int count;
  do {
    count = ::poll(&waited, 1, -1);
  } while (count == -1 && errno == EINTR);
  if (count == -1) awaitDeathSlowly(process);
}
#elif defined(__APPLE__)
void awaitDeath(pid_t process, int /*descriptor*/) {
  const PeerWatch::Descriptor queue(::kqueue());
  struct kevent change;
  EV_SET(&change, process, EVFILT_PROC, EV_ADD | EV_ONESHOT, NOTE_EXIT, 0, nullptr);
  struct kevent event;
  int count;
  do {
    count = ::kevent(queue, &change, 1, &event, 1, nullptr);
  } while (count == -1 && errno == EINTR);
  awaitDeathSlowly(process);  // at once when the event has come
}
#else
void awaitDeath(pid_t process, int /*descriptor*/) { awaitDeathSlowly(process); }
#endif

int waitStatus(const siginfo_t& info) {
  constexpr int kDumped = 0x80;
  if (info.si_code == CLD_EXITED) return (info.si_status & 0xff) << 8;
  return (info.si_status & 0x7f) | (info.si_code == CLD_DUMPED ? kDumped : 0);
}

}  // namespace

constinit thread_local PeerWatch::Operation* PeerWatch::Operation::current = nullptr;

std::shared_ptr<PeerWatch> PeerWatch::Make() {
  // The host's signals are for the host's threads, and the one of a broken pipe is for nobody.
  sigset_t all;
  sigset_t mask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &mask);
  std::shared_ptr<PeerWatch> watch;
  try {
    watch = std::make_shared<PeerWatch>();
    std::thread([watch] { watch->watch(); }).detach();
  } catch (const std::bad_alloc&) {
    watch.reset();
  } catch (const std::system_error&) {
    watch.reset();
  }
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return watch;
}

void PeerWatch::Begin(pid_t process, std::shared_ptr<ChildOutput> output) {
  const std::lock_guard lock(m_guard);
  m_begun = true;
  m_output = std::move(output);
  m_process = process;
  m_gone = process <= 0;
  m_ended = m_gone;
  if (!m_gone) m_descriptor.Reset(descriptorOf(process));
  m_changed.notify_all();
}

pid_t PeerWatch::Id() {
  const std::lock_guard lock(m_guard);
  return m_process;
}

std::shared_ptr<ChildOutput> PeerWatch::Output() {
  const std::lock_guard lock(m_guard);
  return m_output;
}

void PeerWatch::watch() {
  pid_t process;
  int descriptor;
  {
    std::unique_lock lock(m_guard);
    m_changed.wait(lock, [this] { return m_begun; });
    if (m_process <= 0) return;
    process = m_process;
    descriptor = m_descriptor;
  }
  awaitDeath(process, descriptor);
  noteEnd();
  if (m_output) m_output->ChildHasDied();
  releaseWaits();
}

void PeerWatch::noteEnd() {
  const std::lock_guard lock(m_guard);
  siginfo_t info;
  if (!m_gone && hasDied(m_process, m_descriptor, info)) {
    m_status = waitStatus(info);
  } else {
    m_gone = true;  // somebody else's wait, or nobody's, has taken it
  }
  m_ended = true;
  if (m_reapLater) (void)reapNow();
  (void)isGone();
  m_changed.notify_all();
}

bool PeerWatch::AwaitEnd(std::chrono::milliseconds atMost) {
  const CancellationGuard noCancellation;  // none passes through the standard library's wait
  std::unique_lock lock(m_guard);
  return m_changed.wait_for(lock, atMost, [this] { return m_ended.load(); });
}

// Once it has died its number is its own only as long as it is there to be reaped. While its death is waited for the
// descriptor stays.
bool PeerWatch::isGone() {
  siginfo_t info;
  if (!m_gone && !(m_ended ? hasDied(m_process, m_descriptor, info) : isThere(m_process))) m_gone = true;
  if (m_gone && m_ended) m_descriptor.Reset(-1);
  return m_gone;
}

bool PeerWatch::IsGone() {
  const std::lock_guard lock(m_guard);
  return isGone();
}

// A child that was stopped is also told of, and not reaped.
bool PeerWatch::reapNow() {
  if (isGone()) return true;
  int status = 0;
  const pid_t reaped = ::waitpid(m_process, &status, WNOHANG | WUNTRACED);
  if (reaped == m_process && !WIFSTOPPED(status)) {
    m_status = status;
    m_gone = true;
  } else if (reaped == -1 && errno == ECHILD) {
    m_gone = true;
  }
  return isGone();
}

void PeerWatch::Reap() {
  const std::lock_guard lock(m_guard);
  m_reapLater = !reapNow();
}

bool PeerWatch::IsToBeReaped() {
  const std::lock_guard lock(m_guard);
  return m_reapLater;
}

void PeerWatch::Signal(int number) {
  const std::lock_guard lock(m_guard);
  if (isGone() || m_ended) return;
  m_signal = number;
  sendSignal(m_process, m_descriptor, number);
}

bool PeerWatch::WasSignalled() {
  const std::lock_guard lock(m_guard);
  return m_signal != 0 && m_status == m_signal;
}

std::optional<int> PeerWatch::EndStatus() {
  const std::lock_guard lock(m_guard);
  return m_status;
}

vexadx::Step PeerWatch::LastStep() {
  const std::lock_guard lock(m_guard);
  return m_step;
}

// Of a process that has died nothing changes any more. The pipes tell of a death before the system does, so the step in
// which they did is the one.
void PeerWatch::EnterStep(vexadx::Step step) {
  const std::lock_guard lock(m_guard);
  m_between = step;
  if (!m_ended && !m_isLost && m_operations.empty()) m_step = step;
}

void PeerWatch::enter(Operation& operation) {
  const std::lock_guard lock(m_guard);
  m_operations.push_back(&operation);
  if (!m_ended && !m_isLost) m_step = operation.m_step;
}

// Those of several levels end in any order.
void PeerWatch::leave(Operation& operation) {
  const std::lock_guard lock(m_guard);
  std::erase(m_operations, &operation);
  if (m_ended) return;
  const int code = operation.m_code;
  m_isLost = code == vexadx::kPipeClosed || code == vexadx::kPipeFailed || code == vexadx::kSocketFailed;
  if (!m_isLost) m_step = m_operations.empty() ? m_between : m_operations.back()->m_step;
}

// Waits that began before the death was noted; those of later calls do not wait.
void PeerWatch::releaseWaits() {
  for (bool anyWaits = true; anyWaits; std::this_thread::sleep_for(kReleaseEach)) {
    const std::lock_guard lock(m_guard);
    anyWaits = false;
    for (Operation* const operation : m_operations) {
      const int kind = operation->m_waiting;
      if (kind == Wait::kNone) continue;
      operation->release(kind);
      anyWaits = true;
    }
  }
}

PeerWatch::Operation::Operation(std::shared_ptr<PeerWatch> watch, vexadx::Step step)
    : m_watch(std::move(watch)), m_step(step) {
  if (!m_watch) return;
  m_watch->enter(*this);
  current = this;
}

PeerWatch::Operation::~Operation() {
  if (!m_watch) return;
  current = nullptr;
  m_watch->leave(*this);
}

// Does what the other end would do: opens; closes, or lets go with a byte where another process has the pipe open;
// reads. A connection has ended for both.
void PeerWatch::Operation::release(int kind) {
  if (kind == Wait::kSend) {
    (void)::shutdown(m_descriptor, SHUT_RDWR);
    return;
  }
  const bool toWrite = kind == Wait::kOpenToRead || kind == Wait::kRead;
  const Descriptor other(openOther(toWrite ? O_WRONLY : O_RDONLY));
  if (other == -1) return;
  if (kind == Wait::kRead && !m_byteInPipe) m_byteInPipe = ::write(other, "", 1) == 1;
  if (kind == Wait::kWrite) {
    char discarded[4096];
    while (::read(other, discarded, sizeof discarded) > 0) {
    }
  }
}

// The file may be gone, and with it the name.
int PeerWatch::Operation::openOther(int mode) const {
#ifdef O_PATH
  if (m_descriptor != -1) {
    std::array<char, 32> link;  // the thread that watches has no memory to ask for
    (void)std::snprintf(link.data(), link.size(), "/proc/self/fd/%d", m_descriptor);
    if (const int other = openOtherEnd(link.data(), mode); other != -1) return other;
  }
#endif
  return openOtherEnd(m_pipe, mode | O_NOFOLLOW);
}

void PeerWatch::Wait::begin(Kind kind, const char* pipe, int descriptor) {
  if (PeerIsGone()) return;
#ifdef O_PATH
  if (kind == kOpenToRead || kind == kOpenToWrite) {
    m_operation->m_opened.Reset(::open(pipe, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    descriptor = m_operation->m_opened;
  }
#endif
  m_operation->m_pipe = pipe;
  m_operation->m_descriptor = descriptor;
  m_operation->m_waiting = kind;
}

bool PeerWatch::Wait::HasLeft(int descriptor) {
  const std::lock_guard lock(m_operation->m_watch->m_guard);
  return bytesIn(descriptor) > (m_operation->m_byteInPipe ? 1 : 0);
}

ssize_t PeerWatch::Wait::Left(int descriptor, ssize_t got) {
  if (got <= 0 || !PeerIsGone()) return got;
  const std::lock_guard lock(m_operation->m_watch->m_guard);
  if (!m_operation->m_byteInPipe || bytesIn(descriptor) > 0) return got;
  m_operation->m_byteInPipe = false;
  return got - 1;
}
