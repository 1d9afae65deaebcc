#pragma once

#include <optional>
#include <string>
#include <vector>

#include "PlugInDynamicLoadedLibrary.h"
#include "vexadx_plugin.h"

// The plug-in library of an X. Its entry points answer codes and let no exception out; any thread may call them.
class Plugin {
 public:
  // Loads the library and starts its language. 99114 with a line on the error stream when it cannot be used, otherwise
  // the plug-in's code. Nothing else is called before.
  int Start(const std::string& libraryFile, int argc, char** argv);

  int Stop() { return call(m_stop); }
  int PreAction() { return call(m_preAction); }
  int PostAction() { return call(m_postAction); }

  // `error` gets what the language said, in parts: type, message, traceback, line; nothing when it said nothing.
  int Execute(char* text, std::vector<std::string>& error);

  // Interrupts the block that is being executed, if the plug-in can. Also from a signal handler.
  static void Interrupt();

 private:
  static int call(int (*entry)());
  template <typename Function>
  bool resolve(const char* name, Function& function);

  bool load(const std::string& libraryFile);

  std::optional<PlugInDynamicLoadedLibrary> m_library;
  int (*m_init)(int argc, char** argv) = nullptr;
  int (*m_execute)(char* syntax) = nullptr;
  int (*m_stop)() = nullptr;
  int (*m_preAction)() = nullptr;
  int (*m_postAction)() = nullptr;
};
