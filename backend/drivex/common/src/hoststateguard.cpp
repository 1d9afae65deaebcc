#include "hoststateguard.h"

#if defined(__x86_64__)
#include <xmmintrin.h>
#elif !defined(__aarch64__)
#include <cfenv>
#endif

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>

#include "cancellationguard.h"
#include "dxtraceline.h"

namespace {

constexpr std::size_t kStandardStreams = kHostStateItems - kStandardStream;

std::string nameOf(int item) {
  switch (item) {
    case kSignalMask:
      return "signal mask";
    case kRoundingMode:
      return "rounding mode";
    case kFlushToZero:
      return "flush-to-zero";
    case kFloatingPointControl:
      return "floating-point control";
    case kLocale:
      return "locale";
    case kWorkingDirectory:
      return "working directory";
    case kUmask:
      return "umask";
    case kStandardStream + STDIN_FILENO:
      return "standard input";
    case kStandardStream + STDOUT_FILENO:
      return "standard output";
    case kStandardStream + STDERR_FILENO:
      return "standard error";
    default:
      break;
  }
#ifdef __GLIBC__
  if (const char* name = ::sigabbrev_np(item)) return std::string("SIG") + name;
#endif
  return "signal " + std::to_string(item);
}

// A guard ends in whatever state memory is.
void tell(const char* what, const char* outcome, const HostStateItems& items,
          std::vector<std::string>* names) noexcept {
  if (items.none()) return;
  try {
    std::string list;
    for (int item = 1; item < kHostStateItems; ++item) {
      if (!items.test(static_cast<std::size_t>(item))) continue;
      const std::string name = nameOf(item);
      list += (list.empty() ? "" : ", ") + name;
      if (names && std::find(names->begin(), names->end(), name) == names->end()) names->push_back(name);
    }
    TraceLine({"HostStateGuard ", outcome, " what ", what, " changed: ", list});
  } catch (const std::bad_alloc&) {
  }
}

// Whether it is the C library's own. A thread that is cancelled unwinds out of the handler of one.
bool isReserved([[maybe_unused]] int signal) {
#ifdef __linux__
  constexpr int kFirstRealtimeSignal = 32;
  return signal >= kFirstRealtimeSignal && signal < SIGRTMIN;
#else
  return false;
#endif
}

// Signal by signal: what a set holds behind its last signal is left to chance.
bool isSame(const sigset_t& a, const sigset_t& b) {
  for (int signal = 1; signal < NSIG; ++signal) {
    if (isReserved(signal)) continue;
    if (sigismember(&a, signal) != sigismember(&b, signal)) return false;
  }
  return true;
}

bool isSame(const struct sigaction& a, const struct sigaction& b) {
#ifdef __linux__
  constexpr int kHasRestorer = 0x04000000;  // the C library adds it to what it sets
#else
  constexpr int kHasRestorer = 0;
#endif
  return a.sa_handler == b.sa_handler && ((a.sa_flags ^ b.sa_flags) & ~kHasRestorer) == 0 &&
         isSame(a.sa_mask, b.sa_mask);
}

// Whether they are the same file.
bool isSame(const struct stat& a, const struct stat& b) { return a.st_dev == b.st_dev && a.st_ino == b.st_ino; }

// False for the numbers the system keeps to itself.
bool getDisposition(int signal, struct sigaction& disposition) {
  return ::sigaction(signal, nullptr, &disposition) == 0;
}

bool isFaultOfJava(int signal, const struct sigaction& current) {
  if (signal != SIGSEGV && signal != SIGBUS && signal != SIGFPE && signal != SIGILL) return false;
  Dl_info library{};
  if (::dladdr(reinterpret_cast<void*>(current.sa_handler), &library) == 0 || !library.dli_fname) return false;
  const std::string_view path = library.dli_fname;
  return path.substr(path.rfind('/') + 1).starts_with("libjvm.");
}

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : m_number(number) {}
  ~Descriptor() {
    if (IsOpen()) (void)::close(m_number);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Number() const { return m_number; }
  bool IsOpen() const { return m_number != -1; }

 private:
  const int m_number;
};

Descriptor openWorkingDirectory() {
#ifdef O_PATH
  return Descriptor(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));  // also where it may not be read
#else
  return Descriptor(::open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
#endif
}

Descriptor duplicate(int stream) { return Descriptor(::fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)); }

// None where it cannot be told.
std::optional<mode_t> currentUmask() {
#ifdef __linux__
  // The call that answers it also sets it, for the files that other threads are making.
  const Descriptor status(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  std::array<char, 1024> text{};  // it is among the first lines
  if (!status.IsOpen() || ::read(status.Number(), text.data(), text.size() - 1) <= 0) return std::nullopt;
  constexpr std::string_view kKey = "\nUmask:";
  const char* const line = std::strstr(text.data(), kKey.data());
  if (!line) return std::nullopt;
  return static_cast<mode_t>(std::strtoul(line + kKey.size(), nullptr, 8));
#else
  const mode_t current = ::umask(S_IRWXG | S_IRWXO);  // the file that another thread makes just then is at least safe
  (void)::umask(current);
  return current;
#endif
}

std::string currentLocale() { return std::setlocale(LC_ALL, nullptr); }

// The calls under way. Never destroyed: the last may end after everything else of the process.
struct Calls {
  // Threads that have one, and above them how many unguarded ones have begun and ended.
  std::atomic<std::uint64_t> count{0};
  std::atomic<bool> isLocaleToBePutBack{false};  // after the last
  std::mutex guard;                              // innermost; of a change of the locale that has been noted
  std::string locale;                            // before the first; noted by the thread that has that one
};
Calls& gCalls = *new Calls;
thread_local int tCalls = 0;  // within one another

// REQUIRES: the lock, and no call under way but one that begins.
void putBackLocale() {
  if (!gCalls.isLocaleToBePutBack.exchange(false)) return;
  if (gCalls.locale != std::setlocale(LC_ALL, nullptr)) std::setlocale(LC_ALL, gCalls.locale.c_str());
}

constexpr std::uint64_t kThread = 1;
constexpr std::uint64_t kEvent = 1 << 16;
constexpr std::uint64_t kThreads = kEvent - 1;

}  // namespace

// The lock is taken by the first of the calls under way, and by the last when there is something to be put back: no
// other begins while either is about the locale.
ForeignCall::ForeignCall(Kind kind) : m_kind(kind) {
  if (tCalls++ > 0) return;
  const std::uint64_t more = kind == Kind::kUnguarded ? kEvent + kThread : kThread;
  std::uint64_t before = gCalls.count;
  while ((before & kThreads) > 0) {
    if (gCalls.count.compare_exchange_weak(before, before + more)) return;
  }
  const std::lock_guard lock(gCalls.guard);
  if ((gCalls.count.fetch_add(more) & kThreads) > 0) return;
  putBackLocale();  // the last of the calls before may be about to
  try {
    const char* const locale = std::setlocale(LC_ALL, nullptr);
    if (gCalls.locale != locale) gCalls.locale = locale;
  } catch (const std::bad_alloc&) {  // the call is counted, and ends as any other
  }
}

ForeignCall::~ForeignCall() {
  if (--tCalls > 0) return;
  gCalls.count += m_kind == Kind::kUnguarded ? kEvent - kThread : -kThread;
  if ((gCalls.count & kThreads) > 0 || !gCalls.isLocaleToBePutBack) return;
  const std::lock_guard lock(gCalls.guard);
  if ((gCalls.count & kThreads) == 0) putBackLocale();
}

bool ForeignCall::IsOutermostHere() { return tCalls == 1; }

std::uint64_t ForeignCall::UnguardedEvents() { return gCalls.count / kEvent; }

void ForeignCall::PutBackLocaleInTheEnd() { gCalls.isLocaleToBePutBack = true; }

#if defined(__x86_64__)

namespace {

unsigned currentX87() {
  unsigned short control = 0;
  __asm__ volatile("fnstcw %0" : "=m"(control));
  return control;
}

unsigned currentSse() {
  constexpr unsigned kRaised = 0x3F;
  return _mm_getcsr() & ~kRaised;
}

}  // namespace

FloatingPointControl::FloatingPointControl() : m_x87(currentX87()), m_sse(currentSse()) {}

bool FloatingPointControl::IsInForce() const { return m_x87 == currentX87() && m_sse == currentSse(); }

HostStateItems FloatingPointControl::PutBack() const {
  constexpr unsigned kRoundingOfX87 = 0x0C00;
  constexpr unsigned kRounding = 0x6000;
  constexpr unsigned kToZero = 0x8040;  // results, and operands
  const unsigned differentX87 = m_x87 ^ currentX87();
  const unsigned different = m_sse ^ currentSse();
  HostStateItems changes;
  changes[kRoundingMode] = (differentX87 & kRoundingOfX87) != 0 || (different & kRounding) != 0;
  changes[kFlushToZero] = (different & kToZero) != 0;
  changes[kFloatingPointControl] = (differentX87 & ~kRoundingOfX87) != 0 || (different & ~(kRounding | kToZero)) != 0;
  const auto control = static_cast<unsigned short>(m_x87);
  __asm__ volatile("fldcw %0" : : "m"(control));
  _mm_setcsr(m_sse);
  return changes;
}

#elif defined(__aarch64__)

namespace {

unsigned long long currentFpcr() {
  unsigned long long control = 0;
  __asm__ volatile("mrs %0, fpcr" : "=r"(control));
  return control;
}

}  // namespace

FloatingPointControl::FloatingPointControl() : m_fpcr(currentFpcr()) {}

bool FloatingPointControl::IsInForce() const { return m_fpcr == currentFpcr(); }

HostStateItems FloatingPointControl::PutBack() const {
  constexpr unsigned long long kRounding = 3ULL << 22;
  constexpr unsigned long long kToZero = 1ULL << 24;
  const unsigned long long different = m_fpcr ^ currentFpcr();
  HostStateItems changes;
  changes[kRoundingMode] = (different & kRounding) != 0;
  changes[kFlushToZero] = (different & kToZero) != 0;
  changes[kFloatingPointControl] = (different & ~(kRounding | kToZero)) != 0;
  __asm__ volatile("msr fpcr, %0" : : "r"(m_fpcr));
  return changes;
}

#else

FloatingPointControl::FloatingPointControl() : m_rounding(std::fegetround()) {}

bool FloatingPointControl::IsInForce() const { return m_rounding == std::fegetround(); }

HostStateItems FloatingPointControl::PutBack() const {
  HostStateItems changes;
  changes[kRoundingMode] = m_rounding != std::fegetround();
  (void)std::fesetround(m_rounding);
  return changes;
}

#endif

FloatingPointGuard::~FloatingPointGuard() {
  if (!m_floatingPoint.IsInForce()) tell(m_what, "put back", m_floatingPoint.PutBack(), m_names);
}

// What belongs to the process.
class HostStateGuard::Process {
 public:
  Process();

  HostStateItems Changes() const;
  void PutBack(const HostStateItems& items) const;

  // Whether no unguarded call has begun or ended since.
  bool IsAlone() const { return m_unguardedEvents == ForeignCall::UnguardedEvents(); }

 private:
  const std::uint64_t m_unguardedEvents = ForeignCall::UnguardedEvents();  // before all others are looked at
  const std::string m_locale = currentLocale();
  const std::optional<mode_t> m_umask = currentUmask();
  const Descriptor m_directory = openWorkingDirectory();
  const std::array<Descriptor, kStandardStreams> m_streams{duplicate(STDIN_FILENO), duplicate(STDOUT_FILENO),
                                                           duplicate(STDERR_FILENO)};
  std::array<struct sigaction, NSIG> m_dispositions{};  // by signal number
};

HostStateGuard::Process::Process() {
  for (int signal = 1; signal < NSIG; ++signal) (void)getDisposition(signal, m_dispositions[signal]);
}

HostStateItems HostStateGuard::Process::Changes() const {
  HostStateItems changes;
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (!getDisposition(signal, current) || isSame(current, m_dispositions[signal])) continue;
    changes[static_cast<std::size_t>(signal)] = !isFaultOfJava(signal, current);
  }
  changes[kLocale] = m_locale != std::setlocale(LC_ALL, nullptr);
  if (m_umask) changes[kUmask] = currentUmask().value_or(*m_umask) != *m_umask;
  struct stat before {};
  struct stat now {};
  if (m_directory.IsOpen() && ::fstat(m_directory.Number(), &before) == 0 && ::stat(".", &now) == 0) {
    changes[kWorkingDirectory] = !isSame(before, now);
  }
  for (std::size_t stream = 0; stream < kStandardStreams; ++stream) {
    if (!m_streams[stream].IsOpen() || ::fstat(m_streams[stream].Number(), &before) != 0) continue;
    const bool isThere = ::fstat(static_cast<int>(stream), &now) == 0;
    changes[kStandardStream + stream] = !isThere || !isSame(before, now);
  }
  return changes;
}

void HostStateGuard::Process::PutBack(const HostStateItems& items) const {
  if (items.test(kLocale)) std::setlocale(LC_ALL, m_locale.c_str());
  if (items.test(kUmask)) (void)::umask(*m_umask);
  if (items.test(kWorkingDirectory)) (void)!::fchdir(m_directory.Number());
  for (std::size_t stream = 0; stream < kStandardStreams; ++stream) {
    if (!items.test(kStandardStream + stream)) continue;
    (void)::dup2(m_streams[stream].Number(), static_cast<int>(stream));
  }
  for (int signal = 1; signal < NSIG; ++signal) {
    if (items.test(static_cast<std::size_t>(signal))) (void)::sigaction(signal, &m_dispositions[signal], nullptr);
  }
}

namespace {

// What the guards on several threads share. Outer to the lock of the calls; held over system calls.
struct Shared {
  std::mutex guard;
  std::weak_ptr<const void> process;
};
Shared& gShared = *new Shared;

}  // namespace

HostStateGuard::HostStateGuard(const char* what, OnChange onChange, std::vector<std::string>* names)
    : m_call(onChange == OnChange::kPutBack ? ForeignCall::Kind::kGuarded : ForeignCall::Kind::kUnguarded),
      m_what(what),
      m_onChange(onChange),
      m_names(names),
      m_isShared(onChange == OnChange::kPutBack && ForeignCall::IsOutermostHere()),
      m_process(Find()) {
  ::pthread_sigmask(SIG_SETMASK, nullptr, &m_mask);
}

// The mask comes last: a signal it lets through must meet the host's own state.
HostStateGuard::~HostStateGuard() {
  const int error = errno;
  HostStateItems putBack;
  HostStateItems left;
  EndOfProcess(putBack, left);
  putBack |= m_floatingPoint.PutBack();
  sigset_t mask{};
  ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
  if (!isSame(mask, m_mask)) {
    (m_onChange == OnChange::kPutBack ? putBack : left).set(kSignalMask);
    if (m_onChange == OnChange::kPutBack) ::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
  }
  tell(m_what, "put back", putBack, m_names);
  tell(m_what, "left", left, m_names);
  errno = error;
}

std::shared_ptr<const HostStateGuard::Process> HostStateGuard::Find() const {
  const CancellationGuard noLeak;
  try {
    if (!m_isShared) return std::make_shared<const Process>();
    const std::lock_guard lock(gShared.guard);
    auto process = std::static_pointer_cast<const Process>(gShared.process.lock());
    if (!process) process = std::make_shared<const Process>();
    gShared.process = process;
    return process;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void HostStateGuard::EndOfProcess(HostStateItems& putBack, HostStateItems& left) {
  if (!m_process) return;
  const CancellationGuard noUnwinding;
  std::unique_lock lock(gShared.guard, std::defer_lock);
  if (m_isShared) lock.lock();
  if (m_isShared && m_process.use_count() > 1) {
    m_process.reset();  // the last one will see
    return;
  }
  const HostStateItems changes = m_process->Changes();
  if (m_onChange == OnChange::kLeave) {
    left = changes;
  } else if (m_process->IsAlone()) {
    putBack = changes;
    m_process->PutBack(putBack);
  } else {
    left[kWorkingDirectory] = changes.test(kWorkingDirectory);
    left[kUmask] = changes.test(kUmask);
    putBack = changes & ~left;
    m_process->PutBack(HostStateItems(putBack).reset(kLocale));
    ForeignCall::PutBackLocaleInTheEnd();
  }
  m_process.reset();
}
