#include "plugincheck.h"

#include <unistd.h>

#include <filesystem>

#include "PlugInDynamicLoadedLibrary.h"
#include "installation.h"
#include "problem.h"
#include "vexadx_plugin.h"
#include "vexadxconfigreader.h"
#include "vexajvm.h"

namespace fs = std::filesystem;

namespace plugincheck {

namespace {

Problem NoLibraryName(const XConfigOptions& options) {
  const std::string& name = options.XName();
  const std::string message = "no plug-in library is configured for " + name;
  if (UsesPreferences(options)) {
    return {kWrongConfiguration, message + ": the Java preferences were asked and answered nothing",
            "set " + name + ".libName in " + PreferencesPath()};
  }
  return {kWrongConfiguration, message,
          "write LIB_NAME=<name> into the section [" + name + "] of " +
              VexaDXConfigReader::GetInstance()->GetConfigFullPath() +
              ", in upper case and without blanks around \"=\""};
}

// What brings the file that the engine's plug-in library is, or what it is linked to.
std::string InstallRuntime(const XConfigOptions& options) {
  return options.XName() == "R" ? "install R (on Debian: apt-get install r-base-core)"
                                : "install what the loader misses";
}

std::string EngineProgram() { return InHome("bin/startx"); }

Problem NotExecutable(const std::string& advice) {
  return {kNotExecutable, "the engine program " + EngineProgram() + " cannot be executed", advice};
}

}  // namespace

bool UsesPreferences(const XConfigOptions& options) {
  return options.XName() == "R" || options.XName().find("PYTHON") != std::string::npos;
}

std::string PreferencesPath() { return InHome("bin/vexaprefs.properties"); }

void RequireJava(XConfigOptions& options) {
  (void)options.GetXLibName();  // asking starts the Java machine
  if (!VexaJVM::GetInstance()->IsStarted()) {
    throw Problem(kNotStarted,
                  "no plug-in library is known for " + options.XName() +
                      ": its name comes from the Java preferences, and no Java runtime could be started",
                  "install a Java runtime (on Debian: apt-get install default-jre-headless), or point JAVA_HOME or the "
                  "link " +
                      InHome("JRE") + " to one");
  }
}

std::string LibraryName(XConfigOptions& options) {
  if (UsesPreferences(options)) RequireJava(options);
  std::string name = options.GetXLibName();
  if (name.empty()) throw NoLibraryName(options);
  return name;
}

std::string LibraryFile(XConfigOptions& options, const std::string& libraryName) {
  std::string path = vexadx::PluginLibraryPath(options, libraryName);
  std::error_code ignored;
  if (!fs::exists(path, ignored)) {
    const std::string where = UsesPreferences(options) ? options.XName() + ".libName in " + PreferencesPath()
                                                       : "LIB_NAME in the section [" + options.XName() + "]";
    const std::string install = options.XName() == "R" ? InstallRuntime(options) + " and vexadx again" : "put it there";
    throw Problem(kNotStarted, "the plug-in library " + path + " does not exist",
                  install + ", or correct " + where + " (now " + libraryName + ")");
  }
  return path;
}

void RequireEntryPoints(const XConfigOptions& options, const std::string& libraryFile) {
  PlugInDynamicLoadedLibrary library(libraryFile, 0);
  if (library.LoadLibraryNow() != 0) {
    throw Problem(
        kNotStarted,
        "the plug-in library " + libraryFile + " could not be loaded; the loader says:\n" + library.GetErrorString(),
        InstallRuntime(options) + ", or replace the file by a plug-in library built for this machine");
  }
  std::string missing;
  std::string loaderTexts;
  for (const vexadx::PluginEntryPoint& entryPoint : vexadx::kPluginEntryPoints) {
    if (!entryPoint.mandatory || library.GetSymbolAddress(entryPoint.name)) continue;
    missing += std::string(" ") + entryPoint.name;
    loaderTexts += '\n' + library.GetErrorString();
  }
  if (missing.empty()) return;
  throw Problem(
      kNotStarted,
      "the plug-in library " + libraryFile + " does not export:" + missing + "; the loader says:" + loaderTexts,
      "install a complete plug-in library; the functions have to be exported with C linkage");
}

void RequireProgram() {
  const std::string program = EngineProgram();
  std::error_code ignored;
  if (!fs::exists(program, ignored)) {
    throw Problem(kNoProgram, "the engine program " + program + " does not exist",
                  "install vexadx again, or set VEXA_HOME to a complete home");
  }
  if (!fs::is_regular_file(program, ignored) || ::access(program.c_str(), X_OK) != 0) {
    throw NotExecutable("make it executable: chmod +x " + program);
  }
}

Problem NotAProgram() {
  return NotExecutable("it is no program for this machine: install vexadx again, or set VEXA_HOME to a complete home");
}

std::string ProcessLibraryFile(XConfigOptions& options) {
  if (options.XName() == "R") return LibraryFile(options, LibraryName(options));
  std::string name = options.GetOption(XConfigOptions::KEY_LIB_NAME);
  if (name.empty()) name = LibraryName(options);
  std::string path = vexadx::PluginLibraryFile(options.GetOption(XConfigOptions::KEY_LIB_PATH), name);
  std::error_code ignored;
  if (!fs::exists(path, ignored)) {
    throw Problem(kNotStarted, "the plug-in library " + path + " of the engine's own process does not exist",
                  "put it there, or correct LIB_NAME in the section [" + options.XName() + "] (now " + name + ")");
  }
  return path;
}

void RequireUsable(XConfigOptions& options) { RequireEntryPoints(options, LibraryFile(options, LibraryName(options))); }

}  // namespace plugincheck
