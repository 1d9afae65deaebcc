#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "vexadx_death.h"

class ChildOutput;

// Watches one process that this one has started, and stands in for it when it has died: an engine's operation that then
// waits for it in a pipe or a connection is released, also when a process that it left behind still holds that. The
// operation goes on as if the other end had been closed.
//
// Used by the engine's threads. The thread that watches lives until the process has died.
class PeerWatch {
 public:
  class Operation;
  class Wait;

  // Closed at the end; -1: none.
  class Descriptor {
   public:
    explicit Descriptor(int descriptor = -1) : m_descriptor(descriptor) {}
    ~Descriptor() { Reset(-1); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    void Reset(int descriptor) {
      if (m_descriptor != -1) ::close(m_descriptor);
      m_descriptor = descriptor;
    }
    operator int() const { return m_descriptor; }

   private:
    int m_descriptor;
  };

  // Null when there is no memory or thread for it. Begin follows, come what may.
  static std::shared_ptr<PeerWatch> Make();

  PeerWatch() = default;
  PeerWatch(const PeerWatch&) = delete;
  PeerWatch& operator=(const PeerWatch&) = delete;

  // The child to watch, once, and what it writes, null where that is left alone. An id that is not positive stands for
  // none: nothing is watched, nor ever signalled.
  void Begin(pid_t process, std::shared_ptr<ChildOutput> output = nullptr);

  // The id; -1 before Begin.
  pid_t Id();
  std::shared_ptr<ChildOutput> Output();

  // It has died; it may still be there to be reaped.
  bool HasEnded() const { return m_ended; }

  // Waits for that, at most so long; answers whether it has.
  bool AwaitEnd(std::chrono::milliseconds atMost);

  // It is not there any more; then it never is again, whoever gets its number.
  bool IsGone();

  // Reaps it if it has died; or else as soon as it does.
  void Reap();
  bool IsToBeReaped();

  // Sends a signal while its number is still its own.
  void Signal(int number);

  // The wait status with which it died; none while it lives, and when the system does not tell.
  std::optional<int> EndStatus();

  // The step that it ended in; while it lives, the one that it is in. An engine without an operation under way is idle,
  // or else still in the last one if that has lost the process.
  vexadx::Step LastStep();

  // Whether it ended by a signal of Signal's.
  bool WasSignalled();

  // The step between operations from now on; the first is the start.
  void EnterStep(vexadx::Step step);

 private:
  void watch();
  void noteEnd();
  void enter(Operation& operation);
  void leave(Operation& operation);
  void releaseWaits();
  bool isGone();   // REQUIRES: the lock is held, as for the next
  bool reapNow();  // whether it is gone

  std::mutex m_guard;
  std::condition_variable m_changed;
  std::atomic<bool> m_ended{false};
  pid_t m_process = -1;
  Descriptor m_descriptor;  // of the process, until it is gone
  bool m_begun = false;
  bool m_gone = true;
  bool m_reapLater = false;
  bool m_isLost = false;  // an operation has met no process, and no later one has met it again
  int m_signal = 0;       // sent last
  vexadx::Step m_step = vexadx::Step::kStart;
  vexadx::Step m_between = vexadx::Step::kStart;
  std::optional<int> m_status;
  std::shared_ptr<ChildOutput> m_output;
  std::vector<Operation*> m_operations;
};

// Marks an engine's operation on the calling thread, from construction to destruction: its waits are released. Without
// a watch it is none. Operations are not nested.
class PeerWatch::Operation {
 public:
  Operation(std::shared_ptr<PeerWatch> watch, vexadx::Step step);
  ~Operation();
  Operation(const Operation&) = delete;
  Operation& operator=(const Operation&) = delete;

  // Notes how it came out, and answers that.
  int CameTo(int code) {
    m_code = code;
    return code;
  }

 private:
  friend class PeerWatch;
  friend class Wait;

  void release(int kind);  // REQUIRES: the watch's lock is held
  int openOther(int mode) const;

  static constinit thread_local Operation* current;

  const std::shared_ptr<PeerWatch> m_watch;
  const vexadx::Step m_step;
  int m_code = 0;
  std::atomic<int> m_waiting{0};  // for what, a Wait::Kind
  // Where; not changed any more once the death is noted. The descriptor is that of the pipe or connection, or stands
  // for the file of a pipe that is being opened.
  const char* m_pipe = nullptr;
  int m_descriptor = -1;
  Descriptor m_opened;
  bool m_byteInPipe = false;  // one that released a read, until it is read. Guarded by the watch's lock
};

// One call on a pipe that waits for the other end, or sends on a connection, which stays open until the operation ends.
// The calls are made between construction and destruction; only an operation's waits are more than a look at a
// variable.
class PeerWatch::Wait {
 public:
  enum Kind : int { kNone, kOpenToRead, kOpenToWrite, kRead, kWrite, kSend };

  // For a read or write the pipe's descriptor as well.
  Wait(Kind kind, const std::string& pipe, int descriptor = -1) : m_operation(Operation::current) {
    if (m_operation) begin(kind, pipe.c_str(), descriptor);
  }
  explicit Wait(int connection) : m_operation(Operation::current) {
    if (m_operation) begin(kSend, nullptr, connection);
  }
  ~Wait() {
    if (m_operation) m_operation->m_waiting = kNone;
  }
  Wait(const Wait&) = delete;
  Wait& operator=(const Wait&) = delete;

  // Asked before the call: then it must not wait, for nobody will release it.
  bool PeerIsGone() const { return m_operation && m_operation->m_watch->m_ended; }

  // A read when the peer is gone: whether it has left anything to read, and what the call has got of that.
  bool HasLeft(int descriptor);
  ssize_t Left(int descriptor, ssize_t got);

 private:
  void begin(Kind kind, const char* pipe, int descriptor);

  Operation* const m_operation;
};
