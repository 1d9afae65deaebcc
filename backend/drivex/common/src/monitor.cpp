#include "monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <exception>

#include "cancellationguard.h"
#include "dxassert.h"
#include "vexadx_codes.h"

using vexadx::kSuccess;

namespace {

constexpr int kWriter = 0;
constexpr int kReader = 1;
constexpr int kNothing = 0;
constexpr int kRunning = 1;
constexpr int kStopping = 3;
constexpr int kPaceMs = 1000;
constexpr int kForever = -1;
constexpr int kNoDescriptor = -1;

}  // namespace

// Ends the waits of a monitor: a pipe of its own, because they also wait for the monitor's pipe. Without descriptors
// for it the waits are short ones.
class MonitorThread::WakeUp {
 public:
  WakeUp() {
    if (::pipe(m_ends.data()) != 0) return;
    for (const int end : m_ends) {
      ::fcntl(end, F_SETFD, FD_CLOEXEC);
      ::fcntl(end, F_SETFL, O_NONBLOCK);
    }
  }
  ~WakeUp() {
    for (const int end : m_ends) {
      if (end != kNoDescriptor) ::close(end);
    }
  }
  WakeUp(const WakeUp&) = delete;
  WakeUp& operator=(const WakeUp&) = delete;

  void Signal() { (void)!::write(m_ends[1], "", 1); }

  void Clear() {
    char bytes[64];
    while (::read(m_ends[0], bytes, sizeof bytes) > 0) {
    }
  }

  // Waits until there is something to read from the descriptor, its other end is gone, the time is over or Signal.
  void Wait(int descriptor, int timeoutMs) {
    if (m_ends[0] == kNoDescriptor && timeoutMs == kForever) timeoutMs = kPaceMs;
    pollfd waited[] = {{m_ends[0], POLLIN, 0}, {descriptor, POLLIN, 0}};
    (void)::poll(waited, 2, timeoutMs);  // the caller looks what there is, whatever ended it
  }

 private:
  std::array<int, 2> m_ends{kNoDescriptor, kNoDescriptor};
};

bool CleXDErrorCode::IsPipeError(int code) { return code == vexadx::kPipeBroken || code == vexadx::kPipeClosed; }

MonitorThread::MonitorThread(const char* name, int type)
    : m_monitorName(name ? name : ""),
      m_peerAlive(true),
      m_peerRunning(type == kWriter),
      m_stopped(true),
      m_monitorType(type),
      m_exceptionHandle(nullptr),
      m_wakeUp(std::make_unique<WakeUp>()),
      m_stopRequested(false) {
  DxAssert(type == kWriter || type == kReader, "Un_supported_monitorType", "MonitorThread",
           "backend/drivex/common/src/monitor");
  m_monitorPipe = std::make_unique<VexaPipe>(m_monitorName);
  if (type == kReader) {
    (void)m_monitorPipe->CreatePipe();
    (void)m_monitorPipe->DisconnectPipe();
  }
}

MonitorThread::~MonitorThread() {
  const CancellationGuard noCancellation;
  Stop();
  (void)m_monitorPipe->ClosePipe();
}

int MonitorThread::Run() {
  m_stopped = false;
  (void)Monitor();
  m_stopped = true;
  return 0;
}

int MonitorThread::Monitor() {
  if (m_monitorType == kWriter) {
    writeStatus();
  } else {
    readStatus();
  }
  m_stopped = true;
  if (!m_peerAlive && m_exceptionHandle) (void)m_exceptionHandle();
  return 0;
}

void MonitorThread::writeStatus() {
  for (;;) {
    const int word = m_stopRequested ? kStopping : kRunning;
    if (CleXDErrorCode::IsPipeError(writeWord(word)) || word == kStopping) return;
    if (!m_stopRequested) m_wakeUp->Wait(kNoDescriptor, kPaceMs);
  }
}

void MonitorThread::readStatus() {
  (void)m_monitorPipe->ConnectPipe();
  while (!m_stopRequested) {
    int word = kNothing;
    const int code = readWord(word);
    if (CleXDErrorCode::IsPipeError(code)) {
      m_peerAlive = false;
      m_peerRunning = false;
      return;
    }
    if (word == kRunning) m_peerRunning = true;
    if (word == kStopping) {
      m_peerRunning = false;
      return;
    }
    if (code != kSuccess) m_wakeUp->Wait(kNoDescriptor, kPaceMs);
  }
}

// Nobody reads yet: a failure that changes nothing. Nobody reads any more: the pipe is broken. Nobody has read for
// hours, and the pipe is full: a failure as well, as the end never waits.
int MonitorThread::writeWord(int word) {
  try {
    if (!m_monitorPipe->HasPipe()) {
      if (const int code = m_monitorPipe->OpenPipeToUnBlockWrite(); code != kSuccess) return code;
    }
    const int code = m_monitorPipe->WriteData(&word, sizeof word, nullptr);
    return code != kSuccess && errno == EPIPE ? vexadx::kPipeBroken : code;
  } catch (const std::exception&) {  // a trace line without memory for it
    return vexadx::kFailed;
  }
}

// Waits for a word; nothing when the wait was ended. Only the first word of a read counts.
int MonitorThread::readWord(int& word) {
  if (const int code = m_monitorPipe->OpenPipeToUnBlockRead(); code != kSuccess) return code;
  m_wakeUp->Wait(m_monitorPipe->m_pipe, kForever);
  if (m_stopRequested) return kSuccess;
  std::array<char, 8192> buffer{};
  unsigned long count = 0;
  const int code = m_monitorPipe->ReadData(static_cast<int>(buffer.size()), buffer.data(), count);
  if (code != kSuccess) return errno == EAGAIN ? kSuccess : code;  // woken for nothing
  if (count == 0) return vexadx::kPipeClosed;
  std::memcpy(&word, buffer.data(), sizeof word);
  return kSuccess;
}

void MonitorThread::Stop() {
  if (m_stopped && !HasThread()) return;
  m_stopRequested = true;
  m_wakeUp->Signal();
  (void)WaitForStop();
  m_wakeUp->Clear();
  m_stopRequested = false;
}

void MonitorThread::SetExceptionHandle(int (*handler)()) { m_exceptionHandle = handler; }
