#include <Python.h>

#include "language.h"
#include "stopunless.h"

namespace {

PyObject* compiled(const char* text) {
  PyObject* const code = Py_CompileString(text, "<block>", Py_file_input);
  stopUnless(code != nullptr, "CPython did not compile the block");
  return code;
}

// REQUIRES: the interpreter lock is held.
void evaluate(const char* text, PyObject* globals) {
  PyObject* const code = compiled(text);
  PyObject* const result = PyEval_EvalCode(code, globals, globals);
  stopUnless(result != nullptr, "CPython did not run the block");
  Py_DECREF(result);
  Py_DECREF(code);
}

PyObject* globalNames() { return PyModule_GetDict(PyImport_AddModule("__main__")); }

// By a program that has CPython to itself.
void runHoldingTheLock(const char* text, int times) {
  const PyGILState_STATE lock = PyGILState_Ensure();
  PyObject* const globals = globalNames();
  for (int i = 0; i < times; ++i) evaluate(text, globals);
  PyGILState_Release(lock);
}

// By one with other threads.
void runTakingTheLock(const char* text, int times) {
  PyGILState_STATE lock = PyGILState_Ensure();
  PyObject* const globals = globalNames();
  PyGILState_Release(lock);
  for (int i = 0; i < times; ++i) {
    lock = PyGILState_Ensure();
    evaluate(text, globals);
    PyGILState_Release(lock);
  }
}

constexpr DirectCall kDirectCalls[] = {{"lock_held", &runHoldingTheLock}, {"lock_taken", &runTakingTheLock}};

}  // namespace

const Language kPython = {
    "python",
    "vexapython",
    "",
    "1\n",
    [] { Py_InitializeEx(0); },
    [](const char* text) { Py_DECREF(compiled(text)); },
    kDirectCalls,
};
