// A library to be loaded before all others, with LD_PRELOAD, into a program of which a call is to fail.
//
// VEXADX_FAIL says which, from the start of the program on: CALL:N:ERROR fails the n-th call with the error, N+ every
// one from the n-th on. CALL is alloc, for which no error is named, or the name of one of the functions below, of which
// relatives count as one: openat is an open, pwritev2 a write, accept4 an accept, pipe2 a pipe, waitid a waitpid. Calls
// count that the program itself and its libraries make, on all threads, not those that the C library makes of its own
// accord. With ":children" behind it calls count in the processes that the program forks as well.
//
//   VEXADX_FAIL=read:3:EINTR  VEXADX_FAIL=alloc:100+  VEXADX_FAIL=setuid:1:EACCES:children
//
// A program that is to fail between two points of its own says so there: see preload.h.

#include "preload.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The C library's own, behind the names that stand here before them.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {

enum Call : int {
  kNone,
  kAlloc,
  kOpen,
  kRead,
  kWrite,
  kMkfifo,
  kFork,
  kPoll,
  kSelect,
  kWaitpid,
  kPipe,
  kFcntl,
  kSyscall,
  kSocket,
  kBind,
  kListen,
  kAccept,
  kConnect,
  kRecv,
  kSend,
  kSetuid,
  kSetgid,
  kSeteuid,
  kThread,
};

struct Named {
  const char* name;
  int value;
};

constexpr Named kCalls[] = {
    {"alloc", kAlloc},
    {"open", kOpen},
    {"read", kRead},
    {"write", kWrite},
    {"mkfifo", kMkfifo},
    {"fork", kFork},
    {"poll", kPoll},
    {"select", kSelect},
    {"waitpid", kWaitpid},
    {"pipe", kPipe},
    {"fcntl", kFcntl},
    {"syscall", kSyscall},
    {"socket", kSocket},
    {"bind", kBind},
    {"listen", kListen},
    {"accept", kAccept},
    {"connect", kConnect},
    {"recv", kRecv},
    {"send", kSend},
    {"setuid", kSetuid},
    {"setgid", kSetgid},
    {"seteuid", kSeteuid},
    {"pthread_create", kThread},
};

constexpr Named kErrors[] = {{"EINTR", EINTR},   {"EAGAIN", EAGAIN}, {"EIO", EIO},
                             {"EMFILE", EMFILE}, {"ENOSPC", ENOSPC}, {"ECHILD", ECHILD},
                             {"EACCES", EACCES}, {"EPERM", EPERM},   {"ENOMEM", ENOMEM}};

// What is to fail. Shared with the children that are forked.
struct Failure {
  std::atomic<int> call{kNone};
  std::atomic<long> first{0};
  std::atomic<bool> allLater{false};
  std::atomic<bool> inChildren{false};
  std::atomic<int> error{0};
  std::atomic<pid_t> process{0};
  std::atomic<long> calls{0};
  std::atomic<bool> reached{false};
};

constinit std::atomic<Failure*> gFailure{nullptr};
constinit std::atomic<long> gBlocks{0};
constinit std::atomic<long> gStep{0};

// Allocates nothing and takes no lock, as everything that a hook does.
bool fails(Call call) {
  Failure* const failure = gFailure;
  if (!failure || failure->call != call) return false;
  if (!failure->inChildren && failure->process != ::getpid()) return false;
  const long number = ++failure->calls;
  if (number < failure->first || (number > failure->first && !failure->allLater)) return false;
  failure->reached = true;
  errno = failure->error;
  return true;
}

// The function that a hook stands before. Looked up without a lock: twice does no harm.
template <typename Function>
class Next {
 public:
  constexpr Next(Function* /*own*/, const char* name) : m_name(name) {}

  Function* Get() {
    void* function = m_function;
    if (!function) m_function = function = ::dlsym(RTLD_NEXT, m_name);
    return reinterpret_cast<Function*>(function);
  }

  template <typename... Arguments>
  auto CallUnless(Call call, Arguments... arguments) {
    using Result = decltype(Get()(arguments...));
    return fails(call) ? Result{-1} : Get()(arguments...);
  }

 private:
  const char* const m_name;
  std::atomic<void*> m_function{nullptr};
};

// The value of the name that the text begins with, which ends with the text or a colon; -1 when there is none. The text
// then begins behind it.
template <std::size_t kCount>
int take(const Named (&names)[kCount], const char*& text) {
  const std::size_t length = std::strcspn(text, ":");
  for (const Named& named : names) {
    if (std::strlen(named.name) != length || std::strncmp(named.name, text, length) != 0) continue;
    text += length + (text[length] == ':' ? 1 : 0);
    return named.value;
  }
  return -1;
}

void* counted(void* block) {
  if (block) ++gBlocks;
  return block;
}

// What the clock of the time of day answers.
timespec steppedTime() {
  static constinit Next next(&::clock_gettime, "clock_gettime");
  timespec now{};
  (void)next.Get()(CLOCK_REALTIME, &now);
  now.tv_sec += gStep;
  return now;
}

bool isBefore(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// A wait until a time of day, which ends when the clock, however it is set meanwhile, shows that.
int waitByTheClock(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static constinit Next next(&::pthread_cond_clockwait, "pthread_cond_clockwait");
  constexpr long kLook = 5'000'000;
  constexpr long kSecond = 1'000'000'000;
  while (isBefore(steppedTime(), *deadline)) {
    timespec look{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &look);
    look.tv_nsec += kLook;
    look.tv_sec += look.tv_nsec / kSecond;
    look.tv_nsec %= kSecond;
    const int result = next.Get()(condition, mutex, CLOCK_MONOTONIC, &look);
    if (result != ETIMEDOUT) return result;
  }
  return ETIMEDOUT;
}

__attribute__((constructor)) void begin() {
  void* const page = ::mmap(nullptr, sizeof(Failure), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (page == MAP_FAILED) return;
  gFailure = new (page) Failure;
  if (const char* const failure = std::getenv("VEXADX_FAIL")) (void)faultpreload_arm(failure);
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int faultpreload_arm(const char* failure) {
  Failure* const armed = gFailure;
  if (!armed) return -1;
  armed->call = kNone;
  const int call = take(kCalls, failure);
  char* end = nullptr;
  const long first = call == -1 ? 0 : std::strtol(failure, &end, 10);
  if (first < 1) return -1;
  armed->first = first;
  armed->allLater = *end == '+';
  if (*end == '+') ++end;
  const char* rest = end + (*end == ':' ? 1 : 0);
  const int error = call == kAlloc ? ENOMEM : take(kErrors, rest);
  armed->inChildren = std::strcmp(rest, "children") == 0;
  if (error == -1 || (*rest != '\0' && !armed->inChildren)) return -1;
  armed->error = error;
  armed->process = ::getpid();
  armed->calls = 0;
  armed->reached = false;
  armed->call = call;
  return 0;
}

int faultpreload_disarm() {
  Failure* const armed = gFailure;
  if (!armed) return 0;
  armed->call = kNone;
  return armed->reached ? 1 : 0;
}

long faultpreload_blocks() { return gBlocks; }

void faultpreload_step_clock(long seconds) { gStep += seconds; }

void* malloc(std::size_t size) noexcept { return fails(kAlloc) ? nullptr : counted(__libc_malloc(size)); }

void* calloc(std::size_t count, std::size_t size) noexcept {
  return fails(kAlloc) ? nullptr : counted(__libc_calloc(count, size));
}

void* realloc(void* block, std::size_t size) noexcept {
  if (fails(kAlloc)) return nullptr;
  void* const moved = __libc_realloc(block, size);
  if (!block) return counted(moved);
  if (!moved && size == 0) --gBlocks;
  return moved;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return fails(kAlloc) ? nullptr : counted(__libc_memalign(alignment, size));
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept { return memalign(alignment, size); }

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  void* const made = memalign(alignment, size);
  if (!made) return ENOMEM;
  *block = made;
  return 0;
}

void free(void* block) noexcept {
  if (block) --gBlocks;
  __libc_free(block);
}

int open(const char* path, int flags, ...) {
  static constinit Next next(&::open, "open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return next.CallUnless(kOpen, path, flags, mode);
}

int openat(int directory, const char* path, int flags, ...) {
  static constinit Next next(&::openat, "openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  return next.CallUnless(kOpen, directory, path, flags, mode);
}

ssize_t read(int descriptor, void* bytes, std::size_t length) {
  static constinit Next next(&::read, "read");
  return next.CallUnless(kRead, descriptor, bytes, length);
}

ssize_t write(int descriptor, const void* bytes, std::size_t length) {
  static constinit Next next(&::write, "write");
  return next.CallUnless(kWrite, descriptor, bytes, length);
}

ssize_t pwritev2(int descriptor, const iovec* pieces, int count, off_t offset, int flags) {
  static constinit Next next(&::pwritev2, "pwritev2");
  return next.CallUnless(kWrite, descriptor, pieces, count, offset, flags);
}

int mkfifo(const char* path, mode_t mode) noexcept {
  static constinit Next next(&::mkfifo, "mkfifo");
  return next.CallUnless(kMkfifo, path, mode);
}

pid_t fork() noexcept {
  static constinit Next next(&::fork, "fork");
  return next.CallUnless(kFork);
}

int poll(pollfd* waited, nfds_t count, int timeoutMs) {
  static constinit Next next(&::poll, "poll");
  return next.CallUnless(kPoll, waited, count, timeoutMs);
}

int ppoll(pollfd* waited, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static constinit Next next(&::ppoll, "ppoll");
  return next.CallUnless(kPoll, waited, count, timeout, mask);
}

int select(int count, fd_set* toRead, fd_set* toWrite, fd_set* exceptional, timeval* timeout) {
  static constinit Next next(&::select, "select");
  return next.CallUnless(kSelect, count, toRead, toWrite, exceptional, timeout);
}

pid_t waitpid(pid_t process, int* status, int options) {
  static constinit Next next(&::waitpid, "waitpid");
  return next.CallUnless(kWaitpid, process, status, options);
}

int waitid(idtype_t type, id_t id, siginfo_t* info, int options) {
  static constinit Next next(&::waitid, "waitid");
  return next.CallUnless(kWaitpid, type, id, info, options);
}

int pipe(int* ends) noexcept {
  static constinit Next next(&::pipe, "pipe");
  return next.CallUnless(kPipe, ends);
}

int pipe2(int* ends, int flags) noexcept {
  static constinit Next next(&::pipe2, "pipe2");
  return next.CallUnless(kPipe, ends, flags);
}

int fcntl(int descriptor, int command, ...) {
  static constinit Next next(&::fcntl, "fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return next.CallUnless(kFcntl, descriptor, command, argument);
}

long syscall(long number, ...) noexcept {
  static constinit Next next(&::syscall, "syscall");
  va_list list;
  va_start(list, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(list, long);
  va_end(list);
  return next.CallUnless(kSyscall, number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
                         arguments[5]);
}

int socket(int domain, int type, int protocol) noexcept {
  static constinit Next next(&::socket, "socket");
  return next.CallUnless(kSocket, domain, type, protocol);
}

int bind(int socket, const sockaddr* address, socklen_t length) noexcept {
  static constinit Next next(&::bind, "bind");
  return next.CallUnless(kBind, socket, address, length);
}

int listen(int socket, int backlog) noexcept {
  static constinit Next next(&::listen, "listen");
  return next.CallUnless(kListen, socket, backlog);
}

int accept(int socket, sockaddr* address, socklen_t* length) {
  static constinit Next next(&::accept, "accept");
  return next.CallUnless(kAccept, socket, address, length);
}

int accept4(int socket, sockaddr* address, socklen_t* length, int flags) {
  static constinit Next next(&::accept4, "accept4");
  return next.CallUnless(kAccept, socket, address, length, flags);
}

int connect(int socket, const sockaddr* address, socklen_t length) {
  static constinit Next next(&::connect, "connect");
  return next.CallUnless(kConnect, socket, address, length);
}

ssize_t recv(int socket, void* bytes, std::size_t length, int flags) {
  static constinit Next next(&::recv, "recv");
  return next.CallUnless(kRecv, socket, bytes, length, flags);
}

ssize_t send(int socket, const void* bytes, std::size_t length, int flags) {
  static constinit Next next(&::send, "send");
  return next.CallUnless(kSend, socket, bytes, length, flags);
}

int setuid(uid_t user) noexcept {
  static constinit Next next(&::setuid, "setuid");
  return next.CallUnless(kSetuid, user);
}

int setgid(gid_t group) noexcept {
  static constinit Next next(&::setgid, "setgid");
  return next.CallUnless(kSetgid, group);
}

int seteuid(uid_t user) noexcept {
  static constinit Next next(&::seteuid, "seteuid");
  return next.CallUnless(kSeteuid, user);
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
                   void* argument) noexcept {
  static constinit Next next(&::pthread_create, "pthread_create");
  return fails(kThread) ? errno : next.Get()(thread, attributes, start, argument);
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static constinit Next next(&::clock_gettime, "clock_gettime");
  if (clock != CLOCK_REALTIME) return next.Get()(clock, time);
  *time = steppedTime();
  return 0;
}

int gettimeofday(timeval* time, void* /*zone*/) noexcept {
  const timespec now = steppedTime();
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

std::time_t time(std::time_t* time) noexcept {
  const std::time_t now = steppedTime().tv_sec;
  if (time) *time = now;
  return now;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
  static constinit Next next(&::pthread_cond_timedwait, "pthread_cond_timedwait");
#ifdef __GLIBC__
  constexpr unsigned kMonotonic = 2;  // where the C library notes the clock that a condition was made with
  if ((condition->__data.__wrefs & kMonotonic) != 0) return next.Get()(condition, mutex, deadline);
#endif
  return waitByTheClock(condition, mutex, deadline);
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
  static constinit Next next(&::pthread_cond_clockwait, "pthread_cond_clockwait");
  if (clock != CLOCK_REALTIME) return next.Get()(condition, mutex, clock, deadline);
  return waitByTheClock(condition, mutex, deadline);
}

}  // extern "C"
#pragma GCC visibility pop
