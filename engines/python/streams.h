#pragma once

#include "cpython.h"

namespace vexapython {

// The functions that console.py builds its streams on.
PyObject* Write(PyObject* module, PyObject* arguments);
PyObject* Redirected(PyObject* module, PyObject* none);
PyObject* Forked(PyObject* module, PyObject* none);

}  // namespace vexapython
