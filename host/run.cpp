#include <unistd.h>

#include <mutex>
#include <optional>
#include <string>

#include "blocks.h"
#include "commands.h"
#include "dxglobals.h"
#include "installation.h"
#include "interrupt.h"
#include "javaextension.h"
#include "session.h"
#include "trace.h"
#include "vexadx_codes.h"

namespace {

// The report that gets the engine's output: an output function has no argument of its own for it. Null when there is
// none, for threads of an engine may go on printing when it has been stopped.
Report* gOutputReport = nullptr;
std::mutex gOutputGuard;  // of the pointer, and held while it is used

int PostOutput(const char* text, int length) {
  const std::lock_guard guard(gOutputGuard);
  if (gOutputReport && text && length > 0) gOutputReport->Output({text, static_cast<std::size_t>(length)});
  return 0;
}

// Has the report get it, for a scope.
class OutputReport {
 public:
  explicit OutputReport(Report* report) { Set(report); }
  ~OutputReport() { Set(nullptr); }
  OutputReport(const OutputReport&) = delete;
  OutputReport& operator=(const OutputReport&) = delete;

 private:
  static void Set(Report* report) {
    const std::lock_guard guard(gOutputGuard);
    gOutputReport = report;
  }
};

Session::Place PlaceOf(const CommandLine& commandLine, XConfigOptions& options) {
  const bool configured = options.IsInnerProcess() && options.XName() != kJavaExtension;
  const bool inside = commandLine.inProcess || (configured && !commandLine.outOfProcess);
  return inside ? Session::Place::kThisProcess : Session::Place::kOwnProcess;
}

StartResult Start(Session& session, const XConfigOptions& options, Report& report) {
  try {
    return session.Start();
  } catch (const Problem&) {
    if (const vexadx::Death death = session.Death(); death.hasEnded) report.Death(options.XName(), death);
    throw;
  }
}

// A connection that breaks, and not only a block that fails, ends the run.
void RequireEngine(Session& session, const XConfigOptions& options, int code, Report& report) {
  if (!session.HasLost(code)) return;
  const vexadx::Death death = session.Death();
  report.Death(options.XName(), death);
  throw Problem(kEngineDied, "the process of the engine " + options.XName() + ' ' + EndText(death),
                "what the blocks had computed is gone; a run with --trace FILE shows more");
}

// A Problem when it took too long.
std::optional<Problem> Stop(Session& session, const XConfigOptions& options, Report& report) {
  const StopResult result = session.Stop();
  if (!result.timedOut && result.code != vexadx::kSuccess) {
    report.Warning(
        "the engine " + options.XName() + " answered code " + std::to_string(result.code) + " when it was stopped",
        "the blocks' results stand; a run with --trace FILE shows more");
  }
  return result.timedOut;
}

// One block in an engine of its own, or in the one that runs.
BlockResult RunBlock(Session& session, const CommandLine& commandLine, const XConfigOptions& options, Block& block,
                     Report& report) {
  if (options.XName() != kJavaExtension) return session.Run(block);
  PrepareJavaExtension(commandLine, block);
  report.Start(Start(session, options, report), commandLine.verbose);
  BlockResult result = session.Run(block);
  const std::optional<Problem> late = Stop(session, options, report);
  if (!result.timedOut) result.timedOut = late;
  return result;
}

int RunBlocks(Session& session, const CommandLine& commandLine, const XConfigOptions& options,
              std::vector<Block>& blocks, Report& report) {
  int status = kAllSucceeded;
  for (Block& block : blocks) {
    const BlockResult result = RunBlock(session, commandLine, options, block, report);
    report.Block(result, commandLine.verbose);
    if (interrupt::EndRequested()) return interrupt::Status();
    if (result.timedOut) {
      report.Error(*result.timedOut);
      return kTimedOut;
    }
    RequireEngine(session, options, result.code, report);
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
  std::vector<Block> blocks = ReadBlocks(commandLine.sources);

  const Trace trace(TracePath(commandLine.trace), options.XName(), report);
  SetDXGlobalInitFin(true);
  interrupt::Install();
  Session session(options, PlaceOf(commandLine, options),
                  commandLine.threaded ? Session::Thread::kOwn : Session::Thread::kCalling);
  session.LimitTimes(commandLine.limits, [&](const Problem& problem, const vexadx::Death& death) {
    if (death.hasEnded) report.Death(options.XName(), death);
    report.Error(problem);
    ::_exit(report.End(problem.Status()));
  });
  session.Load();
  const OutputReport output(&report);
  if (report.IsJson()) {
    session.SendOutputTo(&PostOutput);
  } else {
    session.KeepLastLines();
  }
  if (options.XName() == kJavaExtension) return RunBlocks(session, commandLine, options, blocks, report);
  report.Start(Start(session, options, report), commandLine.verbose);
  const int status = RunBlocks(session, commandLine, options, blocks, report);
  const std::optional<Problem> late = Stop(session, options, report);
  if (late) report.Error(*late);
  return late && !interrupt::EndRequested() ? kTimedOut : status;
}
