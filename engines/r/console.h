#pragma once

#include "embeddedr.h"

namespace vexar {

// The functions of console.R. They live as long as the process.
struct Console {
  SEXP upToError = nullptr;
  SEXP described = nullptr;
};

const Console& TheConsole();

// Reads console.R. REQUIRES: called by R_ToplevelExec, once, as it may jump.
void OpenConsole(void* unused);

// Drops what goes to the error stream, for a scope. REQUIRES: this thread has the turn.
class QuietErrors {
 public:
  QuietErrors();
  ~QuietErrors();
  QuietErrors(const QuietErrors&) = delete;
  QuietErrors& operator=(const QuietErrors&) = delete;
};

// Prints the warnings that an expression has left. REQUIRES: called by R_ToplevelExec, as it may jump.
void PrintWarnings();

// R's output, of either stream: to the host's output function or, without one, to the descriptor.
void WriteConsole(const char* text, int length, int isError);

}  // namespace vexar
