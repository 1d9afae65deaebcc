#include "outpstatisticsx.h"

#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "answeredcode.h"
#include "cancellationguard.h"
#include "childoutput.h"
#include "clexdsmb.h"
#include "dxglobals.h"
#include "dxtraceline.h"
#include "dxutils.h"
#include "framing.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "peerwatch.h"
#include "vexadeploy.h"
#include "vexadx_codes.h"
#include "xpipemanager.h"

using vexadx::kSuccess;
using vexadx::Step;

namespace {

using namespace std::chrono_literals;

constexpr auto kStart = 500ms;
constexpr int kReadyChecks = 100;
constexpr auto kReadyCheck = 100ms;
constexpr auto kStopped = 2s;  // the time that a process has to end once it was told to stop, or was killed
constexpr auto kKilled = 1s;
constexpr auto kJavaLook = 100ms;

constexpr int kUserNotChanged = 1;
constexpr int kNotExecuted = 255;
constexpr int kLargestErrorNumber = 133;

// All of the time: the host's signals, which end a sleep, do not make an X process start any faster.
void sleepThrough(std::chrono::milliseconds time) {
  const auto end = std::chrono::steady_clock::now() + time;
  for (auto left = time; left > 0ms;
       left = std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now())) {
    msleep(static_cast<std::uint32_t>(left.count()));
  }
}

void writeToStandardOutput(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// What the child of a fork does until it is another program. Everything that takes memory is made before: another
// thread may have held the allocator's lock when the process was copied.
class Launch {
 public:
  Launch(XCmdArgument& arguments, XCmdArgument& environment)
      : m_program(arguments.argumentAt(0)), m_arguments(arguments.argv()), m_environment(environment.argv()) {
    for (int number = 0; number <= kLargestErrorNumber; ++number) {
      const char* const text = std::strerror(number);  // a number without a text of its own takes memory for one
      if (!text) throw std::bad_alloc();
      m_errorLines.push_back(std::string(text) + '\n');
    }
  }

  // The process's id for the parent, -1 when there is no child. What the child writes goes to the output, if there is
  // one.
  pid_t Fork(ChildOutput* output) const {
    const pid_t process = ::fork();
    if (process == 0) {
      if (output) output->TakeStreams();
      becomeTheProgram();
    }
    if (output) output->ParentGoesOn();
    return process;
  }

 private:
  [[noreturn]] void becomeTheProgram() const {
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::seteuid(::getuid()) != 0 || ::setgid(group) != 0 || ::setuid(user) != 0) {
      writeToStandardOutput("Failed to change user in some way\n");
      ::_exit(kUserNotChanged);
    }
    (void)::execve(m_program, m_arguments, m_environment);
    const auto number = static_cast<std::size_t>(errno);
    writeToStandardOutput(number < m_errorLines.size() ? m_errorLines[number] : m_errorLines[0]);
    ::_exit(kNotExecuted);
  }

  const char* const m_program;
  char* const* const m_arguments;
  char* const* const m_environment;
  std::vector<std::string> m_errorLines;  // by error number
};

void endProcess(PeerWatch& process) {
  process.Signal(SIGKILL);
  (void)process.AwaitEnd(kKilled);
  process.Reap();
}

// One that was told to stop gets the time for it.
void endEarlier(PeerWatch& process) {
  if (process.IsToBeReaped()) (void)process.AwaitEnd(kStopped);
  endProcess(process);
}

const char* modeName(int mode) { return mode != 0 ? "LOCAL" : "REMOTE"; }

std::string inHome(const std::string& relative) {
  std::string path = GetVEXAHOME();
  DecoratePathEnd(path);
  return path + relative;
}

}  // namespace

OutpStatisticsX::OutpStatisticsX(XConfigOptions* options, int mode, bool vexaDrive)
    : StatisticsX(vexaDrive), m_options(options), m_processId(-1), m_mode(mode), m_isJava(false) {}

OutpStatisticsX::~OutpStatisticsX() {
  const CancellationGuard noCancellation;
  (void)stop_embedded_x();
  if (const std::shared_ptr<ChildOutput> output = m_watch ? m_watch->Output() : nullptr) output->Release();
}

int OutpStatisticsX::x_init_embedded_x(int argc, char** argv) {
  if (argc < 1 || std::string_view(argv[0]) != "JavaExtension") return stat_start_x();
  m_isJava = true;
  return stat_start_java();
}

int OutpStatisticsX::x_stop_embedded_x() { return stat_stop_x(); }

int OutpStatisticsX::x_pre_action() { return m_isJava ? setup_java_run() : setup_x_run(); }

int OutpStatisticsX::x_post_action() { return m_isJava ? exit_java_run() : exit_x_run(); }

void OutpStatisticsX::x_set_post_vexa_output(int (* /*output*/)(const char* text, int length)) {}
int OutpStatisticsX::x_get_library_lock() { return 0; }
int OutpStatisticsX::x_release_library_lock() { return 0; }

XPipeSuit& OutpStatisticsX::suit() const { return *GetXPipeManager()->getPipeSuit(m_options->XName()); }

int OutpStatisticsX::startProcess(XCmdArgument& arguments) {
  XCmdArgument environment;
  pushEnv(environment);
  const Launch launch(arguments, environment);
  m_processId = -1;
  {
    const std::lock_guard lock(m_watchGuard);
    m_watch = PeerWatch::Make();
  }
  if (!m_watch) return vexadx::kProcessNotAlive;
  const std::shared_ptr<ChildOutput> output = m_output ? ChildOutput::Make(m_output) : nullptr;
  m_processId = launch.Fork(output.get());
  m_watch->Begin(m_processId, output);
  if (!m_isJava) suit().m_lastProcess = m_watch;
  return kSuccess;
}

// Before another one is started. What is left of an earlier one must not meet it: not the process, which removes its
// files when it ends, nor descriptors of the same pipes.
void OutpStatisticsX::leaveEarlierProcess() {
  if (m_watch) endEarlier(*m_watch);
  if (m_isJava) return;
  const std::shared_ptr<PeerWatch> last = suit().m_lastProcess;
  if (last && last != m_watch) endEarlier(*last);
  suit().renewEnds(last != nullptr);
}

int OutpStatisticsX::stat_start_x() {
  const int code = AnsweredCode([this] { return startX(); });
  if (code != kSuccess && m_watch) endProcess(*m_watch);
  return code;
}

int OutpStatisticsX::startX() {
  static const std::string NameOfStartX = "startx";
  XCmdArgument arguments;
  arguments.pushArgument(inHome("bin/" + NameOfStartX), false);
  arguments.pushArgument(modeName(m_mode), false);
  arguments.pushArgument(GetXPipeManager()->getPipePath(), false);
  arguments.pushArgument(GetXPipeManager()->getPipePid(), false);
  arguments.pushArgument(m_options->XName(), false);
  if (m_options->XName() == "R") {
    arguments.pushArgument('"' + m_options->GetXHome() + '"', false);
    arguments.pushArgument(m_options->GetXLibName(), false);
    arguments.pushArgument(m_options->GetXLibPath(), false);
  }
  (void)suit().getXPipes();  // a driver of the X is registered
  leaveEarlierProcess();
  int code = startProcess(arguments);
  if (code != kSuccess) return code;
  sleepThrough(kStart);
  code = isXProcessActive() ? checkReady() : vexadx::kProcessNotAlive;
  if (code == kSuccess) m_watch->EnterStep(Step::kIdle);
  return code;
}

int OutpStatisticsX::checkReady() {
  PeerWatch::Operation operation(m_watch, Step::kReadyCheck);
  DXCmdDispatcher* const commands = suit().getCmdDispatcher(false);
  (void)commands->connectPeer();
  int code = commands->sendCmd(DXCmdDispatcher::kPingDX);
  for (int checks = 1; code != kSuccess && checks < kReadyChecks; ++checks) {
    sleepThrough(kReadyCheck);
    code = commands->sendCmd(DXCmdDispatcher::kPingDX);
  }
  TraceCode("stat_start_x result", code);
  return operation.CameTo(code);
}

int OutpStatisticsX::stat_start_java() {
  const int code = AnsweredCode([this] { return startJava(); });
  TraceCode("stat_start_java result", code);
  if (code != kSuccess && m_watch) endProcess(*m_watch);
  return code;
}

int OutpStatisticsX::startJava() {
  static const std::string NameOfJava = "java";
  JavaPlugInSocket* const socket = GetJavaExtSocket();
  if (!socket || socket->CreateSocket() != kSuccess) return vexadx::kSocketFailed;
  const bool subscribed = IsApplicationOnCloud() || IsApplicationOnThinClient();
  XCmdArgument arguments;
  arguments.pushArgument(inHome("JRE/bin/" + NameOfJava), false);
  arguments.pushArgument(std::string("-Dversioninfo.apptype=") + (subscribed ? "Subscription" : "OnPrem"), false);
  arguments.pushArgument("com.zel.statistics.plugin.Extension", false);
  arguments.pushArgument(modeName(m_mode), false);
  arguments.pushArgument(std::to_string(socket->GetSocketPort()), false);
  arguments.pushArgument(JavaExtensionSmb().GetCommandName(), false);

  leaveEarlierProcess();
  if (startProcess(arguments) != kSuccess) return vexadx::kJavaNotAlive;
  const int code = socket->acceptWhile([this] { return !m_watch->HasEnded(); });
  sleepThrough(kStart);
  m_watch->Reap();  // one that has ended is not there
  if (!isXProcessActive()) return vexadx::kJavaNotAlive;
  if (code == kSuccess) m_watch->EnterStep(Step::kIdle);
  return code;
}

int OutpStatisticsX::stat_stop_x() {
  int code = kSuccess;
  if (m_watch) m_watch->EnterStep(Step::kStop);
  if (isXProcessActive()) {
    code = sendCommand(DXCmdDispatcher::kStopDX, Step::kStop);
    TraceCode("stat_stop_x cmdDispatcher sendCmd", code);
  } else {
    TraceLine("stat_stop_x: x process has already exited ");
  }
  (void)suit().stopMonitor(false);
  (void)suit().stopMonitor(true);
  if (m_watch) {
    if (m_isJava || code != kSuccess) m_watch->Signal(SIGTERM);  // it serves no commands, or could not be told
    m_watch->Reap();
  }
  return code;
}

int OutpStatisticsX::sendCommand(int key, Step step) {
  return AnsweredCode([&] {
    PeerWatch::Operation operation(m_watch, step);
    return operation.CameTo(suit().getCmdDispatcher(false)->sendCmd(static_cast<DXCmdDispatcher::CmdKey>(key)));
  });
}

int OutpStatisticsX::setup_x_run() {
  return AnsweredCode([this] { return beginXRun(); });
}

int OutpStatisticsX::beginXRun() {
  PeerWatch::Operation operation(m_watch, Step::kBeginRun);
  XPipeSuit& pipes = suit();
  VexaPipe* const result = pipes.getXPipes()->GetSyntaxResultPipe();
  if (result->IsPipeCreated()) {
    TraceLine("setup_x_run syntaxResultPipe has CreatePipe");
  } else {
    if (const int code = result->CreatePipe(); code != kSuccess) {
      TraceCode("setup_x_run syntaxResultPipe CreatePipe", code);
      return operation.CameTo(code);
    }
    (void)result->DisconnectPipe();
  }
  DXCmdDispatcher* const commands = pipes.getCmdDispatcher(false);
  int code = commands->sendCmd(DXCmdDispatcher::kSetupRunDX);
  TraceCode("setup_x_run cmdDispatcher sendCmd", code);
  if (commands->hasMissedReply()) leaveWaiting();
  if (code != kSuccess) return operation.CameTo(code);
  if (!result->IsWritePipeConnected()) (void)result->ConnectPipe();
  if (code = result->OpenPipeToRead(); code != kSuccess) {
    leaveWaiting();
    return operation.CameTo(code);
  }
  CleXDSmb reply;
  return operation.CameTo(ReceiveData(result, reply));
}

// The process may have begun the run, and waits for this end of the result's pipe: it would answer no command any more,
// not even to stop.
void OutpStatisticsX::leaveWaiting() {
  if (m_watch) endProcess(*m_watch);
}

int OutpStatisticsX::exit_x_run() {
  const int code = sendCommand(DXCmdDispatcher::kExitRunDX, Step::kEndRun);
  TraceCode("exit_x_run cmdDispatcher sendCmd", code);
  return code;
}

int OutpStatisticsX::setup_java_run() { return kSuccess; }

int OutpStatisticsX::exit_java_run() { return kSuccess; }

int OutpStatisticsX::x_execute_x(char* syntax) {
  if (m_isJava) return executeJava();
  PeerWatch::Operation operation(m_watch, Step::kExecute);
  XPipes* const pipes = suit().getXPipes();
  CleXDSmb request;
  request.SetString(syntax);
  int code = SendData(pipes->GetSyntaxPipe(), request, false);
  TraceCode("x_execute_x SendData syntaxPipe", code);
  if (code != kSuccess) return operation.CameTo(code);
  CleXDSmb reply;
  code = ReceiveData(pipes->GetSyntaxResultPipe(), reply, true);
  TraceCode("x_execute_x ReceiveData syntaxResultPipe", code);
  return operation.CameTo(code);
}

int OutpStatisticsX::executeJava() {
  PeerWatch::Operation operation(m_watch, Step::kExecute);
  JavaExtensionSmb message;
  const int code = SendData(GetJavaExtSocket(), message);
  TraceCode("x_execute_x SendData syntaxSocket", code);
  if (code != kSuccess) return operation.CameTo(code);
  while (isXProcessActive()) {
    if (m_watch->AwaitEnd(kJavaLook)) m_watch->Reap();
    ::pthread_testcancel();
  }
  return code;
}

bool OutpStatisticsX::isXProcessActive() {
  if (!isVexaDrive()) return true;
  return m_watch && !m_watch->IsGone();
}

std::shared_ptr<PeerWatch> OutpStatisticsX::lastProcess() const {
  const std::lock_guard lock(m_watchGuard);
  return m_watch;
}

vexadx::XProcess vexadx::ProcessOf(OutpStatisticsX& engine) {
  XProcess process;
  const std::shared_ptr<PeerWatch> watch = engine.lastProcess();
  if (!watch) return process;
  process.hasEnded = watch->HasEnded();
  if (!watch->IsGone()) process.id = watch->Id();
  if (process.hasEnded) process.status = watch->EndStatus().value_or(-1);
  return process;
}
