#pragma once

#include "exitstatus.h"

// What Ctrl-C (INT) and TERM do during a run. Each signal goes one step further:
//   1  the running block is interrupted; the run goes on with the next block
//   2  the running block is interrupted, or its engine ended; the run ends after it
//   3  the process ends at once
// TERM begins at step 2. While no block runs, every signal ends the process at once. A signal that is ignored when
// vexadx starts stays ignored.
namespace interrupt {

void Install();

// How the engine's running block is interrupted, and how the engine is ended under it; null when it cannot be. From any
// thread; the functions are called by a signal handler.
void SetFunctions(void (*interruptBlock)(), void (*endEngine)());

// Interrupts the running block as the first signal does, and tells no step. False when it cannot be.
bool InterruptBlock();

// A block runs while this lives. One at a time.
class RunningBlock {
 public:
  RunningBlock();
  ~RunningBlock();
  RunningBlock(const RunningBlock&) = delete;
  RunningBlock& operator=(const RunningBlock&) = delete;

  // Whether a signal has come since the block began.
  bool Interrupted() const;

 private:
  int m_stepBefore;
};

// Whether the run has to end after the current block.
bool EndRequested();

// The status of a run that a signal ended or in which it cut a block short.
ExitStatus Status();

}  // namespace interrupt
