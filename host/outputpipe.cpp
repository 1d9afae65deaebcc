#include "outputpipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "problem.h"

namespace {

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

OutputPipe::Ends::Ends() {
  std::array<int, 2> ends{};
  if (::pipe(ends.data()) != 0) {
    throw Problem(kNotStarted, std::string("there is no pipe for the engine's output: ") + std::strerror(errno),
                  "close other programs, or raise the limit of open files");
  }
  for (const int end : ends) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  read = ends[0];
  write = ends[1];
}

OutputPipe::Ends::~Ends() {
  ::close(read);
  ::close(write);
}

OutputPipe::OutputPipe(Receiver receiver) : m_receiver(std::move(receiver)), m_thread([this] { receive(); }) {}

// The other process may have left one behind that never closes its end, so the end is told and not waited for.
OutputPipe::~OutputPipe() {
  Drain();
  (void)!::write(m_end.write, "", 1);
  m_thread.join();
}

void OutputPipe::receive() {
  for (;;) {
    pollfd waited[] = {{m_end.read, POLLIN, 0}, {m_output.read, POLLIN, 0}};
    if (::poll(waited, 2, -1) == -1) continue;
    if (waited[0].revents != 0) return;
    const std::lock_guard lock(m_reading);
    readSome(bytesThere());
  }
}

void OutputPipe::Drain() {
  const std::lock_guard lock(m_reading);
  for (std::size_t left = bytesThere(); left > 0;) left -= readSome(left);
}

std::size_t OutputPipe::bytesThere() const {
  int count = 0;
  return ::ioctl(m_output.read, FIONREAD, &count) == 0 ? static_cast<std::size_t>(count) : 0;
}

// REQUIRES: so many are there, and m_reading is held.
std::size_t OutputPipe::readSome(std::size_t atMost) {
  std::array<char, 8192> bytes;
  if (atMost == 0) return 0;
  const ssize_t count = ::read(m_output.read, bytes.data(), std::min(atMost, bytes.size()));
  if (count <= 0) return atMost;  // nothing of it will come
  m_receiver({bytes.data(), static_cast<std::size_t>(count)});
  return static_cast<std::size_t>(count);
}

OutputPipe::Redirection::Redirection(const OutputPipe& pipe)
    : m_out(replaceStream(STDOUT_FILENO, pipe.m_output.write)),
      m_error(replaceStream(STDERR_FILENO, pipe.m_output.write)) {}

OutputPipe::Redirection::~Redirection() {
  restoreStream(STDOUT_FILENO, m_out);
  restoreStream(STDERR_FILENO, m_error);
}
