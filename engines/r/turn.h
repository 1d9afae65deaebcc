#pragma once

#include <mutex>

namespace vexar {

// R knows one thread at a time. Whoever has the turn may call R, in an R that checks this thread's stack and in R's own
// locale, which is that of the whole process meanwhile: in a process of the host's it gives way to the host's at the
// end of the turn. The thread cannot be cancelled meanwhile, which would leave R's frames behind.
class Turn {
 public:
  Turn();
  ~Turn();
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

  // Whether this thread has the turn already: the host's output function calls us, or R does.
  static bool IsHere();

  // R itself takes the stack for that of the main thread when it starts. REQUIRES: this thread has the turn.
  static void CheckThisStack();

 private:
  const std::lock_guard<std::mutex> m_lock;
  int m_cancelState = 0;
};

// Lets the block that this thread is about to run be interrupted, for a scope. An interrupt that comes too late for it
// does not hit what runs next. REQUIRES: this thread has the turn.
class InterruptTarget {
 public:
  InterruptTarget();
  ~InterruptTarget();
  InterruptTarget(const InterruptTarget&) = delete;
  InterruptTarget& operator=(const InterruptTarget&) = delete;

  // Whether one has come.
  bool IsHit() const;
};

// Interrupts the block that runs now: R looks for that every now and then. Also from a signal handler.
void InterruptBlock();

}  // namespace vexar
