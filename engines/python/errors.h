#pragma once

#include "cpython.h"

namespace vexapython {

// Functions of console.py's: whether the host wants to know what a failed block said, and telling it.
PyObject* ErrorsAreNoted(PyObject* module, PyObject* none);
PyObject* NoteError(PyObject* module, PyObject* arguments);

}  // namespace vexapython
