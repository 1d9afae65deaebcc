#pragma once

namespace vexapython {

// Blocks running on this thread are from now on interrupted through Python's handling of SIGINT, which it has on one
// thread only. REQUIRES: the interpreter lock is held.
void InterruptBySignalHere();

// Says that InterruptBlocks may be called: from the next block on a thread stands by to carry interrupts to blocks.
void ExpectInterrupts();

// Raises KeyboardInterrupt in every block that runs now, of a nested run too; while none runs nothing happens. It
// reaches a block at its next instruction, and on the thread above also in a system call that a signal interrupts. Any
// thread, also from a signal handler.
void InterruptBlocks();

// Ends the thread that carries interrupts, until the next block. REQUIRES: the interpreter lock is not held.
void StopInterrupts();

// Makes a block interruptible from construction to destruction. An interrupt that comes too late for it does not hit
// what runs next. REQUIRES: made and destroyed on one thread with the interpreter lock held and no exception set.
class InterruptTarget {
 public:
  InterruptTarget();
  ~InterruptTarget();
  InterruptTarget(const InterruptTarget&) = delete;
  InterruptTarget& operator=(const InterruptTarget&) = delete;

  // Hits the targets of earlier requests. REQUIRES: the interpreter lock is held.
  static void Deliver();

 private:
  void endOnSignalThread();
  void endElsewhere();

  const unsigned long m_thread;
  const bool m_bySignal;
  unsigned m_seen;  // the requests that are no longer for this block
  bool m_hit = false;
  InterruptTarget* m_next = nullptr;
};

}  // namespace vexapython
