#pragma once

#include "vexadx_export.h"

class OutpStatisticsX;

namespace vexadx {

// The process of an out-of-process engine, for a host that interrupts a block, ends the process or says why it ended.
struct XProcess {
  int id = -1;            // -1: none was started, or it has been reaped
  bool hasEnded = false;  // the one started last
  int status = 0;         // how, as waitpid tells it; -1: the system did not tell
};

// Any thread, also while others use the engine: during a start from the moment on that there is a process.
VEXADX_API XProcess ProcessOf(OutpStatisticsX& engine);

}  // namespace vexadx
