#pragma once

#include <string>
#include <vector>

#include "vexadx_export.h"

class InpStatisticsX;

// What is the host's own while a plug-in library runs inside its process, and what becomes of it when the plug-in's
// entry point has returned. Each item has a name:
//
//   of the calling thread   "rounding mode", "flush-to-zero", "floating-point control" (the rest of it), "signal mask"
//   of the process          "SIGINT" and so on, a signal's disposition; "locale", "working directory", "umask",
//                           "standard input", "standard output", "standard error" (closed, or another file)
//
// Around the load of the library, setup_dxcallback, init_embedded_x, stop_embedded_x and set_post_vexa_output all of it
// is always put back (of the process's own only with the memory for it), for the start of a language's runtime changes
// several of these and is nobody's wish. Around pre_action, execute_x and post_action the floating-point control is
// always put back, which costs next to nothing, and the rest only when the host asks for it: to look at it costs tens
// of microseconds, more than many a block, and whoever changes the working directory in one block expects to find it
// there in the next.
//
// Whatever is put back, or found to be changed, is also named in the trace. The signals SIGSEGV, SIGBUS, SIGFPE and
// SIGILL are left to a Java machine that handles them, because it cannot work without. A plug-in's handlers are put
// back like any other, so a plug-in that needs some of its own at all times is none to be guarded.
//
// The process is one: a change made by another thread of the host while a guarded entry point runs counts as the
// plug-in's. Guarded calls on several threads at once put the process's state back when the last of them ends; where
// unguarded ones have run meanwhile, working directory and umask, which may be theirs, are left.
namespace vexadx {

enum class HostStateGuarding {
  kArithmetic,  // pre_action, execute_x and post_action: the floating-point control is put back. This is the default
  kReport,      // the same, and what else they have changed is found out
  kRestore,     // and put back
};

// For the engine's calls from now on. No call of the engine may be under way.
VEXADX_API void GuardHostState(InpStatisticsX& engine, HostStateGuarding guarding);

// The names of what calls of the engine were found to have changed since this was last asked, each once, whether it was
// put back or not. No call of the engine may be under way.
VEXADX_API std::vector<std::string> HostStateChanges(InpStatisticsX& engine);

}  // namespace vexadx
