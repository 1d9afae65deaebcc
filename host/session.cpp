#include "session.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <thread>

#include "drivex.h"
#include "dxglobals.h"
#include "interrupt.h"
#include "javaextension.h"
#include "plugincheck.h"
#include "runtimepaths.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"
#include "vexadx_process.h"
#include "vexadx_run.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kLocal = 1;
constexpr int kNotExecuted = 255;  // how the library's child ends without a program

double SecondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

// Outlives every engine, as a plug-in may use it to the end.
vexadx::HostCallback gHostCallback = [] {
  vexadx::HostCallback callback{};
  std::copy(std::begin(vexadx::kHostCallbackTag), std::end(vexadx::kHostCallbackTag), callback.tag);
  callback.size = sizeof callback;
  callback.setInterrupt = [](void (*function)()) { interrupt::SetFunctions(function, nullptr); };
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
    m_interrupted = running.Interrupted();
    return code;
  }

  bool Interrupted() const { return m_interrupted; }

 private:
  bool m_interrupted = false;
};

std::string CodeText(int code) { return "code " + std::to_string(code) + " (" + Meaning(code) + ")"; }

std::string StartAdvice(const XConfigOptions& options, int code) {
  if (code == vexadx::kLibraryNotLoaded) return "vexadx doctor --engine " + options.XName() + " looks for the cause";
  std::string trace = "a run with --trace FILE shows the step that failed";
  if (!plugincheck::UsesPreferences(options)) return trace;
  return "check " + options.XName() + ".home in " + plugincheck::PreferencesPath() +
         ", the home of the language's runtime; " + trace;
}

// The engine's process, for the functions that a signal calls.
std::atomic<pid_t> gProcess{0};

// The process leads a group, so that its children get the signal as they would at a terminal; the Java extension does
// not.
void SignalProcess(int signal) {
  const pid_t process = gProcess;
  if (process > 0 && ::kill(-process, signal) != 0) (void)::kill(process, signal);
}

void InterruptProcess() { SignalProcess(SIGINT); }

void EndProcess() { SignalProcess(SIGTERM); }

// The library learns of a death a moment after the pipes have told of it.
vexadx::XProcess ProcessSoonEnded(OutpStatisticsX& engine) {
  const Clock::time_point end = Clock::now() + std::chrono::seconds(1);
  vexadx::XProcess process = vexadx::ProcessOf(engine);
  while (!process.hasEnded && Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    process = vexadx::ProcessOf(engine);
  }
  return process;
}

// How a process ended that could not be started, unless the library had to end it.
std::string OwnEnd(OutpStatisticsX* engine) {
  const vexadx::Death death = engine ? vexadx::DeathOf(*engine) : vexadx::Death{};
  return death.hasEnded && !death.byLibrary && death.status != -1 ? "; its process " + EndText(death) : "";
}

bool IsOneFile(int descriptor, int other) {
  struct stat first;
  struct stat second;
  return ::fstat(descriptor, &first) == 0 && ::fstat(other, &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

// Whether the library's child could not become the engine's program.
bool WasNotExecuted(OutpStatisticsX& engine) {
  const vexadx::XProcess process = vexadx::ProcessOf(engine);
  return process.hasEnded && process.status != -1 && WIFEXITED(process.status) &&
         WEXITSTATUS(process.status) == kNotExecuted;
}

// A driver of the registry for a scope: it gives the run its nesting level.
class RegisteredDriver {
 public:
  RegisteredDriver(XManager& registry, StatisticsX& engine, XConfigOptions& options)
      : m_registry(registry), m_driver(new BlockDriver(options.XName(), &engine, &options)) {
    m_registry.addVexaDX(m_driver);
  }
  ~RegisteredDriver() { m_registry.destoryVexaDX(m_driver); }
  RegisteredDriver(const RegisteredDriver&) = delete;
  RegisteredDriver& operator=(const RegisteredDriver&) = delete;

  BlockDriver* operator->() const { return m_driver; }

 private:
  XManager& m_registry;
  BlockDriver* const m_driver;  // the registry's
};

}  // namespace

Session::Session(XConfigOptions& options, Place place, Thread thread)
    : m_options(options),
      m_thread(thread),
      m_directory(place == Place::kOwnProcess ? std::make_optional<PipeDirectory>() : std::nullopt),
      m_pipes(m_directory ? m_directory->Path() : "", std::to_string(::getpid())) {
  SetXPipeManager(&m_pipes);
  SetXManager(&m_registry);
  TakeRuntimePaths(options, place == Place::kThisProcess);
  if (options.XName() == kJavaExtension) SetavaExtSocket(&m_socket.emplace());
  if (place == Place::kOwnProcess) {
    m_engine = m_outside = new OutpStatisticsX(&options, kLocal, true);
  } else {
    m_engine = m_inside = new InpStatisticsX(&options, true);
    m_engine->setup_dxcallback(&gHostCallback);
  }
  m_registry.addStatisticsX(options.XName(), m_engine);
}

Session::~Session() {
  gProcess = 0;
  m_registry.cleanup();
  if (m_socket) (void)m_socket->CloseSocket();
  SetavaExtSocket(nullptr);
  SetXManager(nullptr);
  SetXPipeManager(nullptr);
}

void Session::SendOutputTo(int (*output)(const char* text, int length)) {
  m_engine->set_post_vexa_output(output);
  if (!m_outside) return;
  vexadx::KeepLastLines(*m_outside, vexadx::Streams::kBoth,
                        [output](std::string_view text) { (void)output(text.data(), static_cast<int>(text.size())); });
}

// Two streams that go to one file stay in order.
void Session::KeepLastLines() {
  if (!m_outside || ::isatty(STDERR_FILENO) != 0) return;
  const bool isOneFile = IsOneFile(STDOUT_FILENO, STDERR_FILENO);
  vexadx::KeepLastLines(*m_outside, isOneFile ? vexadx::Streams::kBoth : vexadx::Streams::kError);
}

void Session::handOnOutput() {
  if (m_outside) vexadx::HandOnOutput(*m_outside);
}

void Session::Load() {
  if (m_socket) {
    (void)JavaProgram();
    (void)JavaPlugInArchive();
  } else if (m_outside) {
    plugincheck::RequireProgram();
    (void)plugincheck::ProcessLibraryFile(m_options);
  } else {
    loadPlugin();
  }
}

void Session::loadPlugin() {
  // A library without one of the later entry points could still be initialised, so the load is looked at by itself.
  const int code = m_inside->loadXlib();
  if (code == vexadx::kSuccess) return;
  plugincheck::RequireUsable(m_options);
  throw Problem(kNotStarted, "the plug-in library of " + m_options.XName() + " cannot be used: " + CodeText(code),
                StartAdvice(m_options, code));
}

StartResult Session::Start() {
  const Clock::time_point begin = Clock::now();
  const int code = RegisteredDriver(m_registry, *m_engine, m_options)->initializeX();
  handOnOutput();
  if (m_outside) {
    gProcess = vexadx::ProcessOf(*m_outside).id;
    interrupt::SetFunctions(&InterruptProcess, &EndProcess);
  }
  if (code == vexadx::kSuccess) return {m_options.XName(), gProcess, SecondsSince(begin)};
  if (m_outside && !m_socket && WasNotExecuted(*m_outside)) throw plugincheck::NotAProgram();
  throw Problem(kNotStarted,
                "the engine " + m_options.XName() + " could not be started: " + CodeText(code) + OwnEnd(m_outside),
                StartAdvice(m_options, code));
}

BlockResult Session::Run(Block& block) {
  const Clock::time_point begin = Clock::now();
  const RegisteredDriver driver(m_registry, *m_engine, m_options);
  driver->setSyntax(block.lines);
  BlockResult result;
  result.name = block.name;
  result.code = m_thread == Thread::kOwn ? driver->RunOnItsThread() : driver->invokeX();
  result.seconds = SecondsSince(begin);
  if (m_socket && result.code == vexadx::kSuccess) result.code = exitCode();
  // A block that came to its end all the same was not cut short.
  result.interrupted = driver->Interrupted() && result.code != vexadx::kSuccess;
  handOnOutput();
  return result;
}

bool Session::HasLost(int code) {
  if (!m_outside) return false;
  if (m_socket && code == vexadx::kSocketFailed) return true;
  // A block may answer these itself.
  return (code == vexadx::kPipeClosed || code == vexadx::kPipeFailed) && ProcessSoonEnded(*m_outside).hasEnded;
}

vexadx::Death Session::Death() { return m_outside ? vexadx::DeathOf(*m_outside) : vexadx::Death{}; }

// What the engine writes while it stops is still its output.
int Session::Stop() {
  gProcess = 0;
  const int code = m_engine->stop_embedded_x();
  if (m_outside) (void)ProcessSoonEnded(*m_outside);
  handOnOutput();
  return code;
}

// The run of the Java extension ends with its process, and the library does not look how.
int Session::exitCode() {
  const int status = vexadx::ProcessOf(*m_outside).status;
  return WIFEXITED(status) ? WEXITSTATUS(status) : vexadx::kPipeClosed;
}
