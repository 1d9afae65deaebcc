#include "gate.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>

namespace {

constexpr int kLongestWaitMs = 60000;

}  // namespace

Gate::Gate(const TempDir& directory, const std::string& name) : m_path(directory.Path(name)) {
  (void)::mkfifo(m_path.c_str(), 0600);
  m_pipe = ::open(m_path.c_str(), O_RDWR | O_CLOEXEC);
  if (m_pipe == -1) throw std::runtime_error("cannot make the gate " + m_path);
}

Gate::~Gate() { ::close(m_pipe); }

void Gate::Open() const {
  if (::write(m_pipe, "x", 1) != 1) throw std::runtime_error("cannot open the gate " + m_path);
}

void Gate::Await() const {
  pollfd waited{m_pipe, POLLIN, 0};
  char token;
  if (::poll(&waited, 1, kLongestWaitMs) != 1 || ::read(m_pipe, &token, 1) != 1) {
    throw std::runtime_error("nobody opened the gate " + m_path);
  }
}
