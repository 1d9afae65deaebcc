#include "errors.h"

#include <atomic>

namespace vexapython {
namespace {

std::atomic<ErrorFunction> gFunction{nullptr};

}  // namespace

void SetErrorFunction(ErrorFunction function) { gFunction = function; }

PyObject* ErrorsAreNoted(PyObject* /*module*/, PyObject* /*none*/) {
  return PyBool_FromLong(gFunction.load() != nullptr);
}

PyObject* NoteError(PyObject* /*module*/, PyObject* arguments) {
  const char* type = nullptr;
  const char* message = nullptr;
  const char* traceback = nullptr;
  int line = 0;
  if (!PyArg_ParseTuple(arguments, "yyyi", &type, &message, &traceback, &line)) return nullptr;
  if (const ErrorFunction function = gFunction) function(type, message, traceback, line);
  Py_RETURN_NONE;
}

}  // namespace vexapython
