#include "commands.h"
#include "installation.h"
#include "plugincheck.h"

int Engines(Report& report) {
  (void)TakeHome();
  (void)CheckConfiguration(report);
  for (const std::string& name : ConfiguredEngines()) {
    EngineState engine{name, true, "", ""};
    try {
      XConfigOptions& options = EngineOptions(name);
      engine.library = plugincheck::LibraryFile(options, plugincheck::LibraryName(options));
    } catch (const Problem& problem) {
      engine.found = false;
      engine.reason = problem.what();
    }
    report.Engine(engine);
  }
  return kAllSucceeded;
}
