#pragma once

#include <span>

#include "cpython.h"

namespace vexapython {

// What blocks need of the running interpreter. Both live as long as the process.
struct Console {
  PyObject* mainNamespace = nullptr;  // the dictionary of __main__
  PyObject* outcome = nullptr;        // console.py's function
};

// Starts CPython, or takes the one that runs, and gives it our streams and these arguments behind an empty sys.argv[0].
// False when it cannot be started, with a line on the error stream; another start may then succeed.
//
// The environment variable PYTHONHOME names the installation and is removed once used, so that another Python that a
// block starts is not led astray. CPython is never finalised: a later start goes on with the same __main__.
//
// REQUIRES: one thread at a time.
bool StartInterpreter(std::span<char* const> arguments);

// Flushes the streams. REQUIRES: StartInterpreter has succeeded.
void RestInterpreter();

// REQUIRES: StartInterpreter has succeeded.
const Console& InterpreterConsole();

}  // namespace vexapython
