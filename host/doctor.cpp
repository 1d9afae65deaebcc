#include <functional>
#include <memory>

#include "commands.h"
#include "dxglobals.h"
#include "installation.h"
#include "javaextension.h"
#include "plugincheck.h"
#include "session.h"
#include "trace.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"

namespace {

// Runs checks and keeps the status of the first that found a problem.
class Examination {
 public:
  explicit Examination(Report& report) : m_report(report) {}

  // The step answers what it found, or throws the Problem. True when all was well: later steps build on it.
  bool Check(const std::string& engine, const std::string& name, const std::function<std::string()>& step) {
    try {
      m_report.Check({engine, name, true, step(), ""});
      return true;
    } catch (const Problem& problem) {
      m_report.Check({engine, name, false, problem.what(), problem.Advice()});
      if (m_status == kAllSucceeded) m_status = problem.Status();
      return false;
    }
  }

  int Status() const { return m_status; }

 private:
  Report& m_report;
  int m_status = kAllSucceeded;
};

std::string EntryPointNames() {
  std::string names;
  for (const vexadx::PluginEntryPoint& entryPoint : vexadx::kPluginEntryPoints) {
    if (entryPoint.mandatory) names += (names.empty() ? "" : ", ") + std::string(entryPoint.name);
  }
  return names;
}

void Stop(Session& session) {
  const int code = session.Stop().code;
  if (code == vexadx::kSuccess) return;
  throw Problem(kNotStarted, "the engine started and answered code " + std::to_string(code) + " when it was stopped",
                "a run with --trace FILE shows more");
}

// Its process runs one command and ends, so there is nothing to start by way of trial.
void ExamineJavaExtension(Examination& examination) {
  (void)(examination.Check(kJavaExtension, "java", &JavaProgram) &&
         examination.Check(kJavaExtension, "archive", &JavaPlugInArchive));
}

// What an engine needs besides, when it is a process of its own. Looked at from here, as a start that fails takes ten
// seconds.
bool ExamineProcess(XConfigOptions& options, Examination& examination) {
  const auto program = [] {
    plugincheck::RequireProgram();
    return std::string("startx can be executed");
  };
  const auto library = [&] { return plugincheck::ProcessLibraryFile(options); };
  return examination.Check(options.XName(), "program", program) &&
         examination.Check(options.XName(), "process library", library);
}

void ExamineEngine(const std::string& name, Examination& examination) {
  if (name == kJavaExtension) return ExamineJavaExtension(examination);
  XConfigOptions& options = EngineOptions(name);
  // The process first: asking the preferences puts their library name into the options.
  if (!options.IsInnerProcess() && !ExamineProcess(options, examination)) return;
  Session session(options, Session::Place::kThisProcess);
  std::string library;
  const auto java = [&] {
    plugincheck::RequireJava(options);
    return std::string("the Java preferences can be asked");
  };
  const auto libraryName = [&] { return library = plugincheck::LibraryName(options); };
  const auto libraryFile = [&] { return library = plugincheck::LibraryFile(options, library); };
  const auto entryPoints = [&] {
    plugincheck::RequireEntryPoints(options, library);
    return EntryPointNames();
  };
  const auto start = [&] {
    session.Load();
    (void)session.Start();
    return std::string("the engine starts");
  };
  const auto stop = [&] {
    Stop(session);
    return std::string("the engine stops");
  };
  if (plugincheck::UsesPreferences(options) && !examination.Check(name, "java", java)) return;
  (void)(examination.Check(name, "library name", libraryName) && examination.Check(name, "library", libraryFile) &&
         examination.Check(name, "entry points", entryPoints) && examination.Check(name, "start", start) &&
         examination.Check(name, "stop", stop));
}

}  // namespace

int Doctor(const CommandLine& commandLine, Report& report) {
  Examination examination(report);
  std::vector<std::string> names;
  const auto engines = [&] {
    names = ConfiguredEngines();
    return Joined(names);
  };
  if (!examination.Check("", "home", &TakeHome) ||
      !examination.Check("", "configuration", [&] { return CheckConfiguration(report); }) ||
      !examination.Check("", "engines", engines)) {
    return examination.Status();
  }
  if (!commandLine.engine.empty()) {
    (void)EngineOptions(commandLine.engine);  // an engine that is not configured is wrong usage
    names = {commandLine.engine};
  }

  const Trace trace(TracePath(commandLine.trace), names.front(), report);
  SetDXGlobalInitFin(true);
  for (const std::string& name : names) ExamineEngine(name, examination);
  return examination.Status();
}
