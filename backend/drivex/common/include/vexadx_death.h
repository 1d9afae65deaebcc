#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "vexadx_export.h"

class OutpStatisticsX;

// Why the process of an out-of-process engine ended, for a host that has to say so.
namespace vexadx {

// What engine and process were about.
enum class Step { kIdle, kStart, kReadyCheck, kBeginRun, kExecute, kEndRun, kStop };

// Such as "during the start". The text is static.
VEXADX_API const char* StepText(Step step);

struct Death {
  bool hasEnded = false;
  bool byLibrary = false;   // by a signal, as its start had failed, it waited for what could not come, or was stopped
  int status = 0;           // as waitpid tells it; -1: the system did not tell
  Step step = Step::kIdle;  // in which it ended
  std::string lastLines;    // what it wrote last, 16 KiB at most; empty unless KeepLastLines was called
  std::string stack;        // the part of it in which its language tells where it crashed; empty when there is none
};

// Of the process that was started last. With one that has ended, all that it wrote before is in; of one that lives, the
// step it is in and what it wrote so far; without memory for texts those are empty. Any thread, also while others use
// the engine.
VEXADX_API Death DeathOf(OutpStatisticsX& engine);

enum class Streams { kError, kBoth };
using OutputReceiver = std::function<void(std::string_view text)>;

// From the next start on, what the process writes to standard error, or to both streams in one, goes through a pipe,
// and the end of it is kept. All of it is handed on at once and in order: to the receiver, or without one to where this
// process's standard error leads at the start. Who takes it slowly holds the process up, as without the pipe; who does
// not take it any more is left out. What a process that it left behind writes after its death goes into a pipe that
// nobody reads, and may end it. A start without memory, descriptors or a thread for the pipe goes on without it.
//
// One call of the receiver at a time, on a thread of the library's or one that calls HandOnOutput; its exceptions are
// dropped. It must not use the engine, and is not called any more once the engine is destroyed, which waits until the
// rest has been handed on. Throws std::bad_alloc, and then changes nothing. The thread that starts the engine.
VEXADX_API void KeepLastLines(OutpStatisticsX& engine, Streams streams = Streams::kError, OutputReceiver receiver = {});

// Returns when all that the process has written so far has been handed on. Any thread but the receiver's.
VEXADX_API void HandOnOutput(OutpStatisticsX& engine);

}  // namespace vexadx
