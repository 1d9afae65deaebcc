#include <string>

#include "blocks.h"
#include "commands.h"
#include "dxglobals.h"
#include "installation.h"
#include "interrupt.h"
#include "session.h"
#include "trace.h"
#include "vexadx_codes.h"

namespace {

// The report that gets the engine's output: an output function has no argument of its own for it.
Report* gOutputReport = nullptr;

int PostOutput(const char* text, int length) {
  if (length > 0) gOutputReport->Output({text, static_cast<std::size_t>(length)});
  return 0;
}

void RequireInProcess(const CommandLine& commandLine, XConfigOptions& options) {
  if (commandLine.inProcess || options.IsInnerProcess()) return;
  throw Problem(
      kWrongUsage, options.XName() + " would run in a process of its own, which is not available yet",
      "add --in-process, or write INNER_PROCESS=true into the section [" + options.XName() + "] of the configuration");
}

int RunBlocks(Session& session, std::vector<Block>& blocks, bool verbose, Report& report) {
  int status = kAllSucceeded;
  for (Block& block : blocks) {
    const BlockResult result = session.Run(block);
    report.Block(result, verbose);
    if (interrupt::EndRequested()) return interrupt::Status();
    if (result.interrupted) {
      status = interrupt::Status();
    } else if (result.code != vexadx::kSuccess && status == kAllSucceeded) {
      status = kBlockFailed;
    }
  }
  return status;
}

}  // namespace

int Run(const CommandLine& commandLine, Report& report) {
  (void)TakeHome();
  (void)CheckConfiguration(report);
  XConfigOptions& options = EngineOptions(commandLine.engine);
  RequireInProcess(commandLine, options);
  std::vector<Block> blocks = ReadBlocks(commandLine.sources);

  const Trace trace(TracePath(commandLine.trace), options.XName(), report);
  SetDXGlobalInitFin(true);
  interrupt::Install();
  Session session(options, commandLine.threaded ? Session::Thread::kOwn : Session::Thread::kCalling);
  session.Load();
  if (report.IsJson()) {
    gOutputReport = &report;
    session.SendOutputTo(&PostOutput);
  }
  session.Start();
  const int status = RunBlocks(session, blocks, commandLine.verbose, report);
  if (const int code = session.Stop(); code != vexadx::kSuccess) {
    report.Warning("the engine " + options.XName() + " answered code " + std::to_string(code) + " when it was stopped",
                   "the blocks' results stand; a run with --trace FILE shows more");
  }
  return status;
}
