#include "childoutput.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

#include "brokenpipeguard.h"
#include "cancellationguard.h"

namespace {

constexpr std::size_t kPiece = 8192;
constexpr std::size_t kKept = 16384;  // what the stacks of a few threads take

int aboveStreams(int descriptor) { return ::fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); }

}  // namespace

bool ChildOutput::Pipe::Open() {
  std::array<int, 2> ends{};
#ifdef __linux__
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) return false;
#else
  if (::pipe(ends.data()) != 0) return false;
  for (const int end : ends) (void)::fcntl(end, F_SETFD, FD_CLOEXEC);
#endif
  read.Reset(ends[0]);
  write.Reset(ends[1]);
  for (PeerWatch::Descriptor* const end : {&read, &write}) {
    if (*end <= STDERR_FILENO) end->Reset(aboveStreams(*end));
  }
  return read != -1 && write != -1;
}

ChildOutput::ChildOutput(std::shared_ptr<const ChildOutputSettings> settings) : m_settings(std::move(settings)) {
  m_kept.reserve(2 * kKept + kPiece);
}

std::shared_ptr<ChildOutput> ChildOutput::Make(std::shared_ptr<const ChildOutputSettings> settings) {
  // The host's signals are for the host's threads.
  sigset_t all;
  sigset_t mask;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &mask);
  std::shared_ptr<ChildOutput> output;
  try {
    output = std::make_shared<ChildOutput>(std::move(settings));
    if (output->open()) {
      std::thread([output] { output->run(); }).detach();
    } else {
      output.reset();
    }
  } catch (const std::bad_alloc&) {
    output.reset();
  } catch (const std::system_error&) {
    output.reset();
  }
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
  return output;
}

// A host without standard error has nobody to hand anything on to.
bool ChildOutput::open() {
  if (!m_settings->receiver) m_error.Reset(aboveStreams(STDERR_FILENO));
  return m_pipe.Open() && m_told.Open();
}

void ChildOutput::TakeStreams() const {
  (void)::dup2(m_pipe.write, STDERR_FILENO);
  if (m_settings->streams == vexadx::Streams::kBoth) (void)::dup2(m_pipe.write, STDOUT_FILENO);
}

void ChildOutput::ParentGoesOn() {
  const std::lock_guard lock(m_reading);
  m_pipe.write.Reset(-1);
}

void ChildOutput::ChildHasDied() {
  const std::lock_guard lock(m_reading);
  if (!m_isClosed) (void)!::write(m_told.write, "", 1);
}

void ChildOutput::run() {
  while (awaitMore()) {
    const std::lock_guard lock(m_handingOn);
    (void)handOnSome();
  }
  do {
    HandOn();
  } while (!close());
}

// Only the thread closes what is looked at here. False: the child has died, or nobody has the other end.
bool ChildOutput::awaitMore() const {
  std::array<pollfd, 2> waited{{{m_told.read, POLLIN, 0}, {m_pipe.read, POLLIN, 0}}};
  while (::poll(waited.data(), waited.size(), -1) == -1 && errno == EINTR) {
  }
  return waited[0].revents == 0 && (waited[1].revents & POLLIN) != 0;
}

// False when something has been read meanwhile.
bool ChildOutput::close() {
  const std::scoped_lock lock(m_handingOn, m_reading);
  if (!m_read.empty()) return false;
  for (Pipe* const pipe : {&m_pipe, &m_told}) {
    pipe->read.Reset(-1);
    pipe->write.Reset(-1);
  }
  m_error.Reset(-1);
  m_isClosed = true;
  return true;
}

std::size_t ChildOutput::bytesThere() const {
  int count = 0;
  return !m_isClosed && ::ioctl(m_pipe.read, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

// Does not wait: nobody else reads.
std::string_view ChildOutput::readSome(char* buffer, std::size_t atMost) {
  const std::size_t wanted = std::min(atMost, bytesThere());
  const ssize_t count = wanted == 0 ? 0 : ::read(m_pipe.read, buffer, wanted);
  const std::string_view text(buffer, count > 0 ? static_cast<std::size_t>(count) : 0);
  keep(text);
  return text;
}

void ChildOutput::keep(std::string_view text) {
  m_kept.append(text);
  if (m_kept.size() > 2 * kKept) m_kept.erase(0, m_kept.size() - kKept);
}

void ChildOutput::HandOn() {
  const CancellationGuard noCancellation;
  const std::lock_guard lock(m_handingOn);
  std::size_t left = 0;
  {
    const std::lock_guard readLock(m_reading);
    left = m_read.size() + bytesThere();
  }
  while (left > 0) {
    const std::size_t count = handOnSome();
    if (count == 0) return;
    left -= std::min(left, count);
  }
}

// What was read for the last lines goes first.
std::size_t ChildOutput::handOnSome() {
  std::array<char, kPiece> buffer;
  std::string earlier;
  std::string_view text;
  {
    const std::lock_guard lock(m_reading);
    earlier.swap(m_read);
    text = earlier.empty() ? readSome(buffer.data(), buffer.size()) : std::string_view(earlier);
  }
  hand(text);
  return text.size();
}

void ChildOutput::hand(std::string_view text) {
  if (m_isReleased || text.empty()) return;
  if (!m_settings->receiver) return write(text);
  try {
    m_settings->receiver(text);
  } catch (...) {  // NOLINT(bugprone-empty-catch): the receiver's own loss
  }
}

// What cannot be written is dropped.
void ChildOutput::write(std::string_view text) const {
  while (!text.empty()) {
    BrokenPipeGuard guard;
    const ssize_t count = ::write(m_error, text.data(), text.size());
    if (count >= 0) {
      text.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno == EAGAIN) {
      pollfd waited{m_error, POLLOUT, 0};
      (void)::poll(&waited, 1, -1);
    } else if (errno != EINTR) {
      if (errno == EPIPE) guard.NoteBrokenPipe();
      return;
    }
  }
}

void ChildOutput::Release() {
  HandOn();
  const std::lock_guard lock(m_handingOn);
  m_isReleased = static_cast<bool>(m_settings->receiver);
}

std::string ChildOutput::LastLines(bool hasDied) {
  const CancellationGuard noCancellation;
  const std::lock_guard lock(m_reading);
  if (hasDied && !m_isAllRead) {
    std::array<char, kPiece> buffer;
    std::size_t left = bytesThere();
    m_read.reserve(m_read.size() + left);
    m_isAllRead = true;
    while (left > 0) {
      const std::string_view text = readSome(buffer.data(), std::min(left, buffer.size()));
      if (text.empty()) break;
      m_read.append(text);
      left -= text.size();
    }
  }
  if (m_kept.size() <= kKept) return m_kept;
  // From the beginning of a line on, unless there is but one.
  const std::size_t begin = m_kept.size() - kKept;
  const std::size_t newline = m_kept.find('\n', begin - 1);
  return m_kept.substr(newline < m_kept.size() - 1 ? newline + 1 : begin);
}
