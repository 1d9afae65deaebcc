#include "session.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <iterator>
#include <thread>
#include <utility>

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
constexpr double kUsualStop = 3;   // an X process that was told to stop gives itself a second

// What comes of each step against an engine that takes too long has this time to show.
constexpr Deadline::Seconds kAfterInterrupt{1};
constexpr Deadline::Seconds kAfterTermination{0.5};
constexpr Deadline::Seconds kAfterKill{0.25};

constexpr auto kTaken = std::chrono::milliseconds(250);  // what is handed on, by whom it is for
constexpr auto kSaid = std::chrono::seconds(1);
constexpr auto kLook = std::chrono::milliseconds(10);

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
void SignalGroup(pid_t process, int signal) {
  if (process > 0 && ::kill(-process, signal) != 0) (void)::kill(process, signal);
}

void InterruptProcess() { SignalGroup(gProcess, SIGINT); }

void EndProcess() { SignalGroup(gProcess, SIGTERM); }

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

// How a process ended, unless the library had to end it.
std::string OwnEnd(OutpStatisticsX* engine) {
  const vexadx::Death death = engine ? vexadx::DeathOf(*engine) : vexadx::Death{};
  return death.hasEnded && !death.byLibrary && death.status != -1 ? "; its process " + EndText(death) : "";
}

// The same of one that was too late, and signalled; its death may be a moment away.
std::string LateEnd(OutpStatisticsX* engine) {
  const std::string end = OwnEnd(engine);
  return end.empty() ? "; its process was ended" : end;
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

std::string TookLonger(const std::string& what, double seconds, const std::string& option) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%g s", seconds);
  return what + " took longer than " + text + " (" + option + ")";
}

Problem TimedOut(const std::string& what) {
  return {kTimedOut, what, "allow it more seconds, or look for what it waits for; --trace FILE shows the step"};
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

void Session::LimitTimes(const TimeLimits& limits, Leave leave) {
  m_limits = limits;
  if (m_outside && m_limits.stop == 0) m_limits.stop = kUsualStop;
  m_leave = std::move(leave);
}

// Also of an engine that is being started.
void Session::signalEngine(int signal) {
  m_isSignalled = true;
  SignalGroup(vexadx::ProcessOf(*m_outside).id, signal);
}

// The first after an interrupt, unless a limit comes before it.
std::vector<Deadline::Step> Session::endingSteps(const std::string& what) {
  if (!m_outside)
    return {{kAfterInterrupt, [this, what] { leave(TimedOut(what + " and cannot be ended but with vexadx")); }}};
  return {{kAfterInterrupt, [this] { signalEngine(SIGTERM); }},
          {kAfterTermination, [this] { signalEngine(SIGKILL); }},
          {kAfterKill, [this, what] { leave(TimedOut(what + LateEnd(m_outside))); }}};
}

// Nobody may be taking what is still to be handed on and said.
void Session::leave(const Problem& problem) {
  std::thread([status = problem.Status()] {
    std::this_thread::sleep_for(kTaken + kSaid);
    ::_exit(status);
  }).detach();
  if (m_directory) m_directory->Remove();
  std::packaged_task<void()> handOn([this] { handOnOutput(); });
  const std::future<void> isHandedOn = handOn.get_future();
  std::thread(std::move(handOn)).detach();
  const bool isTaken = isHandedOn.wait_for(kTaken) == std::future_status::ready;
  m_leave(problem, isTaken ? Death() : vexadx::Death());
}

Problem Session::notStarted(int code) {
  return {kNotStarted,
          "the engine " + m_options.XName() + " could not be started: " + CodeText(code) + OwnEnd(m_outside),
          StartAdvice(m_options, code)};
}

// The library goes on asking a process for ten seconds whether it is ready, also one that has ended.
class Session::StartWatch {
 public:
  explicit StartWatch(Session& session) {
    if (session.m_outside && !session.m_socket) m_thread = ThreadWithoutSignals([this, &session] { watch(session); });
  }
  ~StartWatch() {
    m_isOver = true;
    if (m_thread.joinable()) m_thread.join();
  }
  StartWatch(const StartWatch&) = delete;
  StartWatch& operator=(const StartWatch&) = delete;

 private:
  void watch(Session& session) {
    for (; !m_isOver; std::this_thread::sleep_for(kLook)) {
      const vexadx::Death death = session.Death();
      if (!death.hasEnded || death.byLibrary || session.m_isSignalled || m_isOver) continue;
      session.leave(WasNotExecuted(*session.m_outside) ? plugincheck::NotAProgram()
                                                       : session.notStarted(vexadx::kPipeFailed));
    }
  }

  std::atomic<bool> m_isOver{false};
  std::thread m_thread;
};

int Session::startEngine() {
  const StartWatch watch(*this);
  return RegisteredDriver(m_registry, *m_engine, m_options)->initializeX();
}

StartResult Session::Start() {
  const Clock::time_point begin = Clock::now();
  const std::string late =
      TookLonger("the start of the engine " + m_options.XName(), m_limits.start, "--start-timeout");
  Deadline deadline(Deadline::Seconds(m_limits.start), endingSteps(late));
  const int code = startEngine();
  handOnOutput();
  if (deadline.End() > 0) throw TimedOut(late + LateEnd(m_outside));
  if (m_outside) {
    gProcess = vexadx::ProcessOf(*m_outside).id;
    interrupt::SetFunctions(&InterruptProcess, &EndProcess);
  }
  if (code == vexadx::kSuccess) return {m_options.XName(), gProcess, SecondsSince(begin)};
  if (m_outside && !m_socket && WasNotExecuted(*m_outside)) throw plugincheck::NotAProgram();
  throw notStarted(code);
}

BlockResult Session::Run(Block& block) {
  const Clock::time_point begin = Clock::now();
  const std::string late = TookLonger("block " + block.name, m_limits.block, "--timeout");
  std::vector<Deadline::Step> steps = endingSteps(late);
  steps.insert(steps.begin(), {Deadline::Seconds::zero(), [] { (void)interrupt::InterruptBlock(); }});
  Deadline deadline(Deadline::Seconds(m_limits.block), std::move(steps));
  const RegisteredDriver driver(m_registry, *m_engine, m_options);
  driver->setSyntax(block.lines);
  BlockResult result;
  result.name = block.name;
  result.code = m_thread == Thread::kOwn ? driver->RunOnItsThread() : driver->invokeX();
  handOnOutput();
  const bool isLate = deadline.End() > 0;
  result.seconds = SecondsSince(begin);
  if (m_socket && result.code == vexadx::kSuccess) result.code = exitCode();
  const bool isEnded = isLate && HasLost(result.code);
  // A block that came to its end all the same was not cut short.
  result.interrupted = (driver->Interrupted() || isLate) && !isEnded && result.code != vexadx::kSuccess;
  if (isLate) result.timedOut = TimedOut(late + (isEnded ? LateEnd(m_outside) : "; it was interrupted"));
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
StopResult Session::Stop() {
  StopResult result;
  const std::string late = TookLonger("the stop of the engine " + m_options.XName(), m_limits.stop, "--stop-timeout");
  Deadline deadline(Deadline::Seconds(m_limits.stop), endingSteps(late));
  const bool wasThere = m_outside && !vexadx::ProcessOf(*m_outside).hasEnded;
  gProcess = 0;
  const int code = m_engine->stop_embedded_x();
  while (wasThere && !ProcessSoonEnded(*m_outside).hasEnded) {
  }
  if (deadline.End() > 0) {
    result.timedOut = TimedOut(late + LateEnd(m_outside));
  } else if (wasThere || !m_outside) {
    result.code = code;
  }
  handOnOutput();
  return result;
}

// The run of the Java extension ends with its process, and the library does not look how.
int Session::exitCode() {
  const int status = vexadx::ProcessOf(*m_outside).status;
  return WIFEXITED(status) ? WEXITSTATUS(status) : vexadx::kPipeClosed;
}
