#include <signal.h>

#include <cstdio>
#include <exception>
#include <optional>

#include "commandline.h"
#include "commands.h"
#include "report.h"

namespace {

int Dispatch(const CommandLine& commandLine, Report& report) {
  switch (commandLine.command) {
    case CommandLine::Command::kEngines:
      return Engines(report);
    case CommandLine::Command::kDoctor:
      return Doctor(commandLine, report);
    case CommandLine::Command::kCertify:
      return Certify(commandLine, report);
    case CommandLine::Command::kRun:
      break;
  }
  return Run(commandLine, report);
}

int Execute(const CommandLine& commandLine) {
  Report report(commandLine.json);
  int status = kAllSucceeded;
  try {
    status = Dispatch(commandLine, report);
  } catch (const Problem& problem) {
    report.Error(problem);
    status = problem.Status();
  }
  return report.End(status);
}

}  // namespace

int main(int argc, char** argv) {
  // A program that ignores it hands that on, and then nobody is told how an engine's process ended.
  (void)::signal(SIGCHLD, SIG_DFL);
  try {
    const std::optional<CommandLine> commandLine = ParseCommandLine(argc, argv);
    return commandLine ? Execute(*commandLine) : kAllSucceeded;
  } catch (const Problem& problem) {
    Report(false).Error(problem);
    return problem.Status();
  } catch (const std::exception& error) {
    // Memory or the file system gave out where nothing better can be said.
    (void)std::fprintf(stderr, "vexadx: error: %s\n", error.what());
    return kWrongUsage;
  }
}
