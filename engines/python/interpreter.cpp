#include "interpreter.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "block.h"
#include "consolesource.h"
#include "errors.h"
#include "host.h"
#include "interrupts.h"
#include "output.h"
#include "streams.h"

namespace vexapython {
namespace {

namespace fs = std::filesystem;

constexpr char kHomeVariable[] = "PYTHONHOME";
const std::string kVersionName = "python" + std::to_string(PY_MAJOR_VERSION) + "." + std::to_string(PY_MINOR_VERSION);

Console gConsole;
PyObject* gConsoleModule = nullptr;  // null until the first start has succeeded

// Puts the host's disposition of SIGINT back: Python can only be told of the signal by installing a handler, and its
// signal module installs one when it finds none.
class SigintGuard {
 public:
  SigintGuard() { ::sigaction(SIGINT, nullptr, &m_action); }
  ~SigintGuard() { ::sigaction(SIGINT, &m_action, nullptr); }
  SigintGuard(const SigintGuard&) = delete;
  SigintGuard& operator=(const SigintGuard&) = delete;

 private:
  struct sigaction m_action {};
};

// A configuration being filled in. Stops at the first step that fails.
class Configuration {
 public:
  Configuration() { PyConfig_InitPythonConfig(&m_config); }
  ~Configuration() { PyConfig_Clear(&m_config); }
  Configuration(const Configuration&) = delete;
  Configuration& operator=(const Configuration&) = delete;

  PyConfig* operator->() { return &m_config; }
  PyStatus Set(wchar_t** member, const std::string& value) {
    return PyConfig_SetBytesString(&m_config, member, value.c_str());
  }
  PyStatus Initialize() { return Py_InitializeFromConfig(&m_config); }

 private:
  PyConfig m_config;
};

// Whether the standard library is there. CPython itself would find that out when it is too far on its way for another
// attempt.
bool isHome(const std::string& home) {
  const fs::path prefix = home.substr(0, home.find(':'));  // an exec_prefix may follow
  const auto holdsLibrary = [&](const char* directory) {
    std::error_code ignored;
    const fs::path library = prefix / directory / kVersionName;
    return fs::exists(library / "os.py", ignored) && fs::exists(library / "encodings", ignored);
  };
  return holdsLibrary("lib") || holdsLibrary("lib64");
}

std::string programOf(const std::string& home) {
  if (home.empty()) return VEXAPYTHON_PROGRAM;
  const fs::path program = fs::path(home.substr(home.find(':') + 1)) / "bin" / kVersionName;
  std::error_code ignored;
  return fs::exists(program, ignored) ? program.string() : VEXAPYTHON_PROGRAM;
}

PyStatus preinitialize() {
  PyPreConfig config;
  PyPreConfig_InitPythonConfig(&config);
  config.parse_argv = 0;
  config.configure_locale = 0;  // the locale is the host's
  return Py_PreInitialize(&config);
}

PyStatus initialize(const std::string& home) {
  PyStatus status = preinitialize();
  if (PyStatus_Exception(status)) return status;
  Configuration config;
  config->install_signal_handlers = 0;
  // Signals of faults are the host's; in a process of its own Python tells where it crashed.
  config->faulthandler = plugin::IsProcessOfLanguage() ? 1 : 0;
  config->parse_argv = 0;
  status = config.Set(&config->program_name, programOf(home));
  if (!PyStatus_Exception(status) && !home.empty()) status = config.Set(&config->home, home);
  return PyStatus_Exception(status) ? status : config.Initialize();
}

// Starts CPython and lets its lock go.
bool startPython(const std::string& home) {
  if (!home.empty() && !isHome(home)) {
    plugin::PostErrorLine("Python cannot be started: " + home + " (" + kHomeVariable +
                          ") does not hold the library of " + kVersionName);
    return false;
  }
  // Before the start, which copies the environment to os.environ.
  ::unsetenv(kHomeVariable);
  const PyStatus status = initialize(home);
  if (PyStatus_Exception(status)) {
    plugin::PostErrorLine(std::string("Python cannot be started: ") +
                          (status.err_msg ? status.err_msg : "unknown cause"));
    return false;
  }
  (void)PyEval_SaveThread();
  return true;
}

// Runs console.py in a module of its own. Null with an exception set.
PyObject* makeConsoleModule() {
  static std::array<PyMethodDef, 7> functions{{{"write", Write, METH_VARARGS, nullptr},
                                               {"redirected", Redirected, METH_NOARGS, nullptr},
                                               {"forked", Forked, METH_NOARGS, nullptr},
                                               {"source", Source, METH_O, nullptr},
                                               {"errors_are_noted", ErrorsAreNoted, METH_NOARGS, nullptr},
                                               {"note_error", NoteError, METH_VARARGS, nullptr},
                                               {nullptr, nullptr, 0, nullptr}}};
  static PyModuleDef definition{
      PyModuleDef_HEAD_INIT, "vexapython", nullptr, -1, functions.data(), nullptr, nullptr, nullptr, nullptr};
  Reference module(PyModule_Create(&definition));
  if (!module) return nullptr;
  PyObject* names = PyModule_GetDict(module.get());
  const Reference code(Py_CompileString(plugin::kConsoleSource, "<vexapython>", Py_file_input));
  if (!code || PyDict_SetItemString(names, "__builtins__", PyEval_GetBuiltins()) != 0) return nullptr;
  const Reference ran(PyEval_EvalCode(code.get(), names, names));
  return ran ? module.release() : nullptr;
}

bool takeInterrupts() {
  const Reference taken(PyObject_CallMethod(gConsoleModule, "take_interrupts", nullptr));
  if (!taken) return false;
  if (taken.get() == Py_True) InterruptBySignalHere();
  return true;
}

// Once in the life of the process. False with an exception set.
bool openConsole() {
  if (gConsoleModule) return true;
  Reference module(makeConsoleModule());
  if (!module) return false;
  Reference outcome(PyObject_GetAttrString(module.get(), "outcome"));
  PyObject* main = PyImport_AddModule("__main__");
  if (!outcome || !main) return false;
  Py_INCREF(main);
  gConsole = {PyModule_GetDict(main), outcome.release()};
  gConsoleModule = module.release();
  return takeInterrupts();
}

Reference listOf(std::span<char* const> arguments) {
  Reference list(PyList_New(0));
  if (!list) return nullptr;
  for (const char* argument : arguments) {
    const Reference text(PyUnicode_DecodeFSDefault(argument ? argument : ""));
    if (!text || PyList_Append(list.get(), text.get()) != 0) return nullptr;
  }
  return list;
}

bool beginConsole(std::span<char* const> arguments) {
  const Reference list = listOf(arguments);
  if (!list) return false;
  return Reference(PyObject_CallMethod(gConsoleModule, "begin", "O", list.get())) != nullptr;
}

}  // namespace

bool StartInterpreter(std::span<char* const> arguments) {
  const char* variable = std::getenv(kHomeVariable);
  const std::string home = variable ? variable : "";
  const SigintGuard guard;
  if (Py_IsInitialized()) {
    ::unsetenv(kHomeVariable);
  } else if (!startPython(home)) {
    return false;
  }
  const InterpreterLock lock;
  if (openConsole() && beginConsole(arguments)) return true;
  PyErr_Print();
  return false;
}

void RestInterpreter() {
  StopInterrupts();
  const InterpreterLock lock;
  if (!Reference(PyObject_CallMethod(gConsoleModule, "end", nullptr))) PyErr_Clear();
}

const Console& InterpreterConsole() { return gConsole; }

}  // namespace vexapython
