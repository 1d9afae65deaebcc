#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <memory>

namespace vexapython {

struct DropReference {
  void operator()(PyObject* object) const { Py_DECREF(object); }
};

// A reference that is owned here. Made, used and dropped with the interpreter lock held.
using Reference = std::unique_ptr<PyObject, DropReference>;

// Holds the interpreter lock. Any thread, also one that holds it already.
class InterpreterLock {
 public:
  InterpreterLock() : m_state(PyGILState_Ensure()) {}
  ~InterpreterLock() { PyGILState_Release(m_state); }
  InterpreterLock(const InterpreterLock&) = delete;
  InterpreterLock& operator=(const InterpreterLock&) = delete;

 private:
  PyGILState_STATE m_state;
};

// Lets other threads have the interpreter lock meanwhile. REQUIRES: this thread holds it.
class InterpreterUnlock {
 public:
  InterpreterUnlock() : m_thread(PyEval_SaveThread()) {}
  ~InterpreterUnlock() { PyEval_RestoreThread(m_thread); }
  InterpreterUnlock(const InterpreterUnlock&) = delete;
  InterpreterUnlock& operator=(const InterpreterUnlock&) = delete;

 private:
  PyThreadState* m_thread;
};

}  // namespace vexapython
