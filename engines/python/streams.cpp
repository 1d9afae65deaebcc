#include "streams.h"

#include <cerrno>
#include <string_view>

#include "output.h"

namespace vexapython {
namespace {

// All bytes to a descriptor. False with a Python exception set.
bool writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    int error = 0;
    {
      const InterpreterUnlock unlocked;
      error = plugin::WriteOnce(descriptor, bytes);
    }
    if (error == 0) continue;
    if (error == EINTR) {
      if (PyErr_CheckSignals() != 0) return false;
      continue;
    }
    errno = error;
    PyErr_SetFromErrno(PyExc_OSError);
    return false;
  }
  return true;
}

// The function may wait for another thread, which may want the interpreter.
bool post(plugin::OutputFunction function, std::string_view bytes) {
  int error = 0;
  {
    const InterpreterUnlock unlocked;
    error = plugin::CallOutput(function, bytes);
  }
  if (error == 0) return true;
  errno = error;
  PyErr_SetFromErrno(PyExc_OSError);
  return false;
}

struct Buffer : Py_buffer {
  ~Buffer() { PyBuffer_Release(this); }
};

}  // namespace

PyObject* Write(PyObject* /*module*/, PyObject* arguments) {
  int descriptor = 0;
  Buffer data{};
  if (!PyArg_ParseTuple(arguments, "iy*", &descriptor, &data)) return nullptr;
  const std::string_view bytes(static_cast<const char*>(data.buf), static_cast<std::size_t>(data.len));
  const plugin::OutputFunction function = plugin::HostOutput();
  if (!(function ? post(function, bytes) : writeAll(descriptor, bytes))) return nullptr;
  return PyLong_FromSsize_t(data.len);
}

PyObject* Redirected(PyObject* /*module*/, PyObject* /*none*/) {
  return PyBool_FromLong(plugin::HostOutput() != nullptr);
}

PyObject* Forked(PyObject* /*module*/, PyObject* /*none*/) {
  plugin::RenewOutputAfterFork();
  Py_RETURN_NONE;
}

}  // namespace vexapython
