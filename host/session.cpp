#include "session.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include "drivex.h"
#include "interrupt.h"
#include "plugincheck.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"
#include "vexadx_run.h"

namespace {

// Outlives every engine, as a plug-in may use it to the end.
vexadx::HostCallback gHostCallback = [] {
  vexadx::HostCallback callback{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), callback.tag);
  callback.size = sizeof callback;
  callback.setInterrupt = &interrupt::SetFunction;
  return callback;
}();

// One run. Its block can be interrupted while it executes.
class BlockDriver : public DriveX {
 public:
  using DriveX::DriveX;

  int RunOnItsThread() {
    if (const int code = startX(); code != vexadx::kSuccess) return code;
    vexadx::WaitForRun(*this);
    return getReturnValue();
  }

  int ExecuteXLines(std::vector<std::string>& lines) override {
    const interrupt::RunningBlock running;
    const int code = DriveX::ExecuteXLines(lines);
    // A block that came to its end all the same was not cut short.
    m_interrupted = running.Interrupted() && code != vexadx::kSuccess;
    return code;
  }

  bool Interrupted() const { return m_interrupted; }

 private:
  bool m_interrupted = false;
};

std::string CodeText(int code) { return "code " + std::to_string(code) + " (" + Meaning(code) + ")"; }

std::string StartAdvice(const XConfigOptions& options) {
  std::string trace = "a run with --trace FILE shows the step that failed";
  if (!plugincheck::UsesPreferences(options)) return trace;
  return "check " + options.XName() + ".home in " + plugincheck::PreferencesPath() +
         ", the home of the language's runtime; " + trace;
}

}  // namespace

Session::Session(XConfigOptions& options, Thread thread)
    : m_options(options), m_thread(thread), m_engine(&options, true) {
  m_engine.setup_dxcallback(&gHostCallback);
}

void Session::SendOutputTo(int (*output)(const char* text, int length)) { m_engine.set_post_vexa_output(output); }

void Session::Load() {
  // A library without one of the later entry points could still be initialised, so the load is looked at by itself.
  const int code = m_engine.loadXlib();
  if (code == vexadx::kSuccess) return;
  plugincheck::RequireUsable(m_options);
  throw Problem(kNotStarted, "the plug-in library of " + m_options.XName() + " cannot be used: " + CodeText(code),
                StartAdvice(m_options));
}

void Session::Start() {
  const int code = DriveX(m_options.XName(), &m_engine, &m_options).initializeX();
  if (code == vexadx::kSuccess) return;
  throw Problem(kNotStarted, "the engine " + m_options.XName() + " could not be started: " + CodeText(code),
                StartAdvice(m_options));
}

BlockResult Session::Run(Block& block) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  BlockDriver driver(m_options.XName(), &m_engine, &m_options);
  driver.setSyntax(block.lines);
  BlockResult result;
  result.name = block.name;
  result.code = m_thread == Thread::kOwn ? driver.RunOnItsThread() : driver.invokeX();
  result.interrupted = driver.Interrupted();
  result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  return result;
}

int Session::Stop() { return m_engine.stop_embedded_x(); }
