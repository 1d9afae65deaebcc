#include "outputpipe.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "problem.h"

namespace {

bool isReadable(int descriptor, int timeoutMs) {
  pollfd waited{descriptor, POLLIN, 0};
  return ::poll(&waited, 1, timeoutMs) == 1 && (waited.revents & POLLIN) != 0;
}

int replaceStream(int stream, int by) {
  const int before = ::fcntl(stream, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  (void)::dup2(by, stream);
  return before;
}

void restoreStream(int stream, int before) {
  if (before == -1) return;
  (void)::dup2(before, stream);
  ::close(before);
}

}  // namespace

OutputPipe::OutputPipe(Receiver receiver) : m_receiver(std::move(receiver)) {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) {
    throw Problem(kNotStarted, std::string("there is no pipe for the engine's output: ") + std::strerror(errno),
                  "close other programs, or raise the limit of open files");
  }
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  m_readEnd = ends[0];
  m_writeEnd = ends[1];
  m_thread = std::thread([this] { receive(); });
}

// The other process may have left one behind that never closes its end, so the end is told and not waited for.
OutputPipe::~OutputPipe() {
  Drain();
  m_ended = true;
  (void)!::write(m_writeEnd, "", 1);
  m_thread.join();
  ::close(m_writeEnd);
  ::close(m_readEnd);
}

void OutputPipe::receive() {
  while (!m_ended) {
    if (!isReadable(m_readEnd, -1)) continue;
    const std::lock_guard lock(m_reading);
    if (!m_ended && isReadable(m_readEnd, 0)) readOnce();
  }
}

void OutputPipe::Drain() {
  const std::lock_guard lock(m_reading);
  while (isReadable(m_readEnd, 0)) readOnce();
}

void OutputPipe::readOnce() {
  std::array<char, 8192> bytes;
  const ssize_t count = ::read(m_readEnd, bytes.data(), bytes.size());
  if (count > 0) m_receiver({bytes.data(), static_cast<std::size_t>(count)});
}

OutputPipe::Redirection::Redirection(const OutputPipe& pipe)
    : m_out(replaceStream(STDOUT_FILENO, pipe.m_writeEnd)), m_error(replaceStream(STDERR_FILENO, pipe.m_writeEnd)) {}

OutputPipe::Redirection::~Redirection() {
  restoreStream(STDOUT_FILENO, m_out);
  restoreStream(STDERR_FILENO, m_error);
}
