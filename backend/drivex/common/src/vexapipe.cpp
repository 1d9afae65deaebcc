#include "vexapipe.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <utility>

#include "cancellationguard.h"
#include "dxtraceline.h"
#include "dxutils.h"
#include "peerwatch.h"
#include "quietwrite.h"
#include "vexadx_codes.h"

using vexadx::kPipeFailed;
using vexadx::kSuccess;

namespace {

constexpr mode_t kEverybody = 0777;
constexpr std::size_t kPiece = 8192;
constexpr int kAttempts = 11;
constexpr int kAttemptMs = 1000;

// Another kind of file in a FIFO's place is nobody's end, and neither is the FIFO of a stranger: nothing is written to
// it. The superuser is no stranger, nor is anybody to it, as it starts X processes for others.
bool isOneOfOurs(const struct stat& status) {
  if (!S_ISFIFO(status.st_mode)) return false;
  const uid_t user = ::geteuid();
  return user == 0 || status.st_uid == user || status.st_uid == 0;
}

}  // namespace

VexaPipe::VexaPipe() : VexaPipe(std::string()) {}

VexaPipe::VexaPipe(std::string name)
    : m_pipe(-1), m_pipeName(std::move(name)), m_writeConnected(false), m_pipeCreated(false) {}

VexaPipe::~VexaPipe() {
  const CancellationGuard noCancellation;
  if (HasPipe()) (void)ClosePipe();
  (void)::unlink(m_pipeName.c_str());
}

void VexaPipe::dropEnd() {
  (void)ClosePipe();
  m_pipeCreated = false;
  struct stat status;
  if (::lstat(m_pipeName.c_str(), &status) == 0 && isOneOfOurs(status)) (void)::unlink(m_pipeName.c_str());
}

// What comes within a second and was not read. The other end may still be waiting for this one to open.
int VexaPipe::discardLate() {
  if (const int code = OpenPipeToRead(); code != kSuccess) return code;
  pollfd waited{m_pipe, POLLIN, 0};
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(kAttemptMs);
  int left = kAttemptMs;
  while (left > 0 && ::poll(&waited, 1, left) == -1 && errno == EINTR) {
    const auto rest = end - std::chrono::steady_clock::now();
    left = static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(rest).count());
  }
  std::array<char, kPiece> bytes;
  int count = 0;
  while (::ioctl(m_pipe, FIONREAD, &count) == 0 && count > 0) {
    if (::read(m_pipe, bytes.data(), bytes.size()) <= 0) return kPipeFailed;
  }
  return kSuccess;
}

void VexaPipe::SetPipeName(std::string name) { m_pipeName = std::move(name); }

std::string VexaPipe::GetPipeName() { return m_pipeName; }

const char* VexaPipe::GetPipeName(int& length) {
  length = static_cast<int>(m_pipeName.size());
  return m_pipeName.c_str();
}

int VexaPipe::CreatePipe() {
  if (m_pipeName.empty()) return vexadx::kPipeUnnamed;
  if (::access(m_pipeName.c_str(), F_OK) == 0) return kSuccess;
  if (::mkfifo(m_pipeName.c_str(), kEverybody) != 0) {
    const int error = errno;
    TraceCode({m_pipeName, " CreateNamedPipe"}, error);
    errno = error;
    return kPipeFailed;
  }
  m_pipeCreated = true;
  return kSuccess;
}

// The old descriptor is closed after the new one exists, so that the other end never sees the pipe without this one.
int VexaPipe::openWith(int mode) {
  const PeerWatch::Wait wait(
      (mode & O_ACCMODE) == O_WRONLY ? PeerWatch::Wait::kOpenToWrite : PeerWatch::Wait::kOpenToRead, m_pipeName);
  if (wait.PeerIsGone()) mode |= O_NONBLOCK;
  int descriptor;
  do {
    descriptor = ::open(m_pipeName.c_str(), mode | O_CLOEXEC | O_NOFOLLOW);
  } while (descriptor == -1 && errno == EINTR);
  struct stat status;
  if (descriptor != -1 && (::fstat(descriptor, &status) != 0 || !isOneOfOurs(status))) {
    ::close(std::exchange(descriptor, -1));
    errno = EINVAL;
  }
  const int error = errno;
  const int old = std::exchange(m_pipe, descriptor);
  if (old != -1) ::close(old);
  errno = error;
  if (descriptor == -1) return kPipeFailed;
#ifdef F_SETNOSIGPIPE
  ::fcntl(descriptor, F_SETNOSIGPIPE, 1);  // the signal goes to the process there: a thread's mask is no help
#endif
  return kSuccess;
}

int VexaPipe::openToWrite(int mode, const char* operation) {
  m_writeConnected = false;
  if (const int code = openWith(O_WRONLY | mode); code != kSuccess) {
    const int error = errno;
    TraceCode({m_pipeName, operation}, error);
    errno = error;
    return code;
  }
  m_writeConnected = true;
  return kSuccess;
}

int VexaPipe::OpenPipeToWrite() { return openToWrite(0, " OpenPipeToWrite"); }

int VexaPipe::OpenPipeToUnBlockWrite() { return openToWrite(O_NONBLOCK, " OpenPipeToUnBlockWrite"); }

int VexaPipe::openToRead(int mode) { return HasPipe() ? kSuccess : openWith(O_RDONLY | mode); }

int VexaPipe::OpenPipeToRead() { return openToRead(0); }

int VexaPipe::OpenPipeToUnBlockRead() { return openToRead(O_NONBLOCK); }

int VexaPipe::VEXACreateFile() { return openWith(O_WRONLY); }

int VexaPipe::VEXACreateFileR() {
  for (int attempt = 1;; ++attempt) {
    const int code = openWith(O_RDONLY);
    if (code == kSuccess || errno != ENOENT) return code;
    msleep(kAttemptMs);
    if (attempt == kAttempts) return code;
  }
}

int VexaPipe::WriteData(const void* buffer, int length, unsigned long*) {
  const auto* bytes = static_cast<const char*>(buffer);
  std::size_t left = static_cast<std::size_t>(std::max(length, 0));
  const PeerWatch::Wait wait(PeerWatch::Wait::kWrite, m_pipeName, m_pipe);
  do {  // also nothing is written, once
    if (wait.PeerIsGone()) {
      errno = EPIPE;
      return kPipeFailed;
    }
    const ssize_t written = QuietWrite::Once(m_pipe, bytes, std::min(left, kPiece));
    if (written == -1) return kPipeFailed;
    bytes += written;
    left -= static_cast<std::size_t>(written);
  } while (left > 0);
  return kSuccess;
}

int VexaPipe::ReadData(int length, void* buffer, unsigned long& count) {
  PeerWatch::Wait wait(PeerWatch::Wait::kRead, m_pipeName, m_pipe);
  ssize_t got = 0;
  if (!wait.PeerIsGone() || wait.HasLeft(m_pipe)) {
    do {
      got = ::read(m_pipe, buffer, static_cast<std::size_t>(std::max(length, 0)));
    } while (got == -1 && errno == EINTR);
    got = wait.Left(m_pipe, got);
  }
  if (got == -1) return kPipeFailed;
  count = static_cast<unsigned long>(got);
  return kSuccess;
}

int VexaPipe::FlushPipe() {
  (void)::fsync(m_pipe);
  return kSuccess;
}

int VexaPipe::ClosePipe() {
  if (!HasPipe()) return kSuccess;
  const int result = ::close(std::exchange(m_pipe, -1)) == 0 ? 0 : errno;
  m_writeConnected = false;
  m_pipeCreated = false;
  TraceCode({m_pipeName, " ClosePipe"}, result);
  return result;
}

bool VexaPipe::HasPipe() { return m_pipe != -1; }

bool VexaPipe::IsWritePipeConnected() { return m_writeConnected; }

bool VexaPipe::IsPipeCreated() { return m_pipeCreated; }

int VexaPipe::ConnectPipe() { return kSuccess; }

int VexaPipe::DisconnectPipe() { return kSuccess; }

int VexaPipe::ChangeReadMode() { return kSuccess; }

int VexaPipe::ChangeToUnBlockMode() { return kSuccess; }
