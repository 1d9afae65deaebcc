#include "session.h"

#include <algorithm>
#include <chrono>
#include <iterator>

#include "dxutils.h"
#include "interrupt.h"
#include "plugincheck.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"

namespace {

constexpr const char* kDefaultRArguments = "--silent --no-save";

// Outlives every engine, as a plug-in may use it to the end.
vexadx::HostCallback gHostCallback = [] {
  vexadx::HostCallback callback{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), callback.tag);
  callback.size = sizeof callback;
  callback.setInterrupt = &interrupt::SetFunction;
  return callback;
}();

std::vector<std::string> StartArguments(XConfigOptions& options) {
  std::string line = options.GetXArgs();
  if (line.empty() && options.XName() == "R") line = kDefaultRArguments;
  std::vector<std::string> arguments = GetListFromDelims(line, " ");
  std::erase(arguments, "");
  return arguments;
}

std::string CodeText(int code) { return "code " + std::to_string(code) + " (" + Meaning(code) + ")"; }

std::string StartAdvice(const XConfigOptions& options) {
  std::string trace = "a run with --trace FILE shows the step that failed";
  if (!plugincheck::UsesPreferences(options)) return trace;
  return "check " + options.XName() + ".home in " + plugincheck::PreferencesPath() +
         ", the home of the language's runtime; " + trace;
}

}  // namespace

Session::Session(XConfigOptions& options) : m_options(options), m_engine(&options, true) {
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
  std::vector<std::string> arguments = StartArguments(m_options);
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  const int code = m_engine.init_embedded_x(static_cast<int>(arguments.size()), argv.data());
  if (code == vexadx::kSuccess) return;
  throw Problem(kNotStarted, "the engine " + m_options.XName() + " could not be started: " + CodeText(code),
                StartAdvice(m_options));
}

BlockResult Session::Run(Block& block) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point begin = Clock::now();
  BlockResult result;
  result.name = block.name;
  result.code = m_engine.pre_action();
  if (result.code == vexadx::kSuccess) {
    Execute(block, result);
    (void)m_engine.post_action();  // the result of a block is that of its execution
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  return result;
}

void Session::Execute(Block& block, BlockResult& result) {
  const interrupt::RunningBlock running;
  result.code = m_engine.execute_x(block.text.data());
  // A block that came to its end all the same was not cut short.
  result.interrupted = running.Interrupted() && result.code != vexadx::kSuccess;
}

int Session::Stop() { return m_engine.stop_embedded_x(); }
