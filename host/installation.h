#pragma once

#include <string>
#include <vector>

#include "dxglobals.h"
#include "report.h"
#include "xconfigoptions.h"

// Decides on the home directory, VEXA_HOME or else the directory above the program's own, for the library and, through
// the environment, for the language runtimes; answers it.
std::string TakeHome();

// A path under the home that was taken.
inline std::string InHome(const char* relative) { return std::string(GetVEXAHOME()) + '/' + relative; }

// The configuration file's path. Throws Problem when the file cannot be read; warns of a byte-order mark.
std::string CheckConfiguration(Report& report);

// The names of the configured engines. Throws Problem when there is none.
std::vector<std::string> ConfiguredEngines();

// The names for a reader, "PYTHON, R".
std::string Joined(const std::vector<std::string>& names);

// The options of an engine, owned by the configuration reader. Throws Problem when it is not configured.
XConfigOptions& EngineOptions(const std::string& name);
