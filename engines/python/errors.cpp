#include "errors.h"

#include "host.h"

namespace vexapython {

PyObject* ErrorsAreNoted(PyObject* /*module*/, PyObject* /*none*/) {
  return PyBool_FromLong(plugin::HostErrors() != nullptr);
}

PyObject* NoteError(PyObject* /*module*/, PyObject* arguments) {
  const char* type = nullptr;
  const char* message = nullptr;
  const char* traceback = nullptr;
  int line = 0;
  if (!PyArg_ParseTuple(arguments, "yyyi", &type, &message, &traceback, &line)) return nullptr;
  if (const plugin::ErrorFunction function = plugin::HostErrors()) function(type, message, traceback, line);
  Py_RETURN_NONE;
}

}  // namespace vexapython
