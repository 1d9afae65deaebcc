#pragma once

#include "cpython.h"

namespace vexapython {

using ErrorFunction = void (*)(const char* type, const char* message, const char* traceback, int line);

// Who is told what a failed block said; null for nobody. Any thread.
void SetErrorFunction(ErrorFunction function);

// Functions of console.py's: whether there is somebody, and telling him.
PyObject* ErrorsAreNoted(PyObject* module, PyObject* none);
PyObject* NoteError(PyObject* module, PyObject* arguments);

}  // namespace vexapython
