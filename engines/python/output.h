#pragma once

#include <string_view>

#include "cpython.h"

namespace vexapython {

using OutputFunction = int (*)(const char* text, int length);

// Where all output goes from now on; null for the descriptors. Any thread, at any time: a call of the earlier function
// that is under way ends normally.
void SetOutputFunction(OutputFunction function);

// A line of the plug-in's own on the error stream. REQUIRES: the interpreter lock is not held.
void PostErrorLine(std::string_view text);

// The functions that console.py builds its streams on.
PyObject* Write(PyObject* module, PyObject* arguments);
PyObject* Redirected(PyObject* module, PyObject* none);
PyObject* Forked(PyObject* module, PyObject* none);

}  // namespace vexapython
