#pragma once

#include "cpython.h"

namespace vexapython {

// Runs one block in __main__, as a file named "<block N>". 0, or 1 for an exception that nothing caught, whose
// traceback is printed, or the status of a SystemExit. REQUIRES: the interpreter has been started, by StartInterpreter.
int RunBlock(const char* text);

// For tracebacks, a function of console.py's: the bytes of a block by its name, or None when it is no longer held. Held
// are the running ones, whose texts the host keeps, and a number of earlier ones that are not too long.
PyObject* Source(PyObject* module, PyObject* name);

}  // namespace vexapython
