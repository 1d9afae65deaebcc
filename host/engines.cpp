#include "commands.h"
#include "installation.h"
#include "javaextension.h"
#include "plugincheck.h"

namespace {

// The file that makes the engine one. Throws Problem when it would not run.
std::string FileOf(const std::string& name) {
  if (name == kJavaExtension) {
    (void)JavaProgram();
    return JavaPlugInArchive();
  }
  XConfigOptions& options = EngineOptions(name);
  return plugincheck::LibraryFile(options, plugincheck::LibraryName(options));
}

}  // namespace

int Engines(Report& report) {
  (void)TakeHome();
  (void)CheckConfiguration(report);
  for (const std::string& name : ConfiguredEngines()) {
    EngineState engine{name, true, "", ""};
    try {
      engine.library = FileOf(name);
    } catch (const Problem& problem) {
      engine.found = false;
      engine.reason = problem.what();
    }
    report.Engine(engine);
  }
  return kAllSucceeded;
}
