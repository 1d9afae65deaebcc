#include "runtime.h"

#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <csetjmp>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "console.h"
#include "embeddedr.h"
#include "host.h"
#include "output.h"
#include "turn.h"

namespace vexar {
namespace {

namespace fs = std::filesystem;

constexpr char kHomeVariable[] = "R_HOME";

// Guarded by the turn.
enum class State { kNotStarted, kStarting, kRunning, kBroken };
State gState = State::kNotStarted;
std::optional<int> gQuitStatus;
std::jmp_buf gGiveUpStart;

// R would end the process; what has been started of it is never called again.
[[noreturn]] void leave() {
  if (gState == State::kStarting) std::longjmp(gGiveUpStart, 1);
  Rf_jump_to_toplevel();
}

void quit(SA_TYPE /*save*/, int status, int /*runLast*/) {
  gQuitStatus = status;
  leave();
}

void giveUp(const char* message) {
  for (const char* part : {"Fatal error: ", message, "\n"}) {
    WriteConsole(part, static_cast<int>(std::string_view(part).size()), 1);
  }
  if (gState == State::kRunning) gState = State::kBroken;
  leave();
}

// A block is no conversation.
int readNothing(const char* /*prompt*/, unsigned char* /*buffer*/, int /*size*/, int /*addToHistory*/) { return 0; }

void takeHooks() {
  R_SignalHandlers = 0;  // they are the host's
  ptr_R_CleanUp = &quit;
  ptr_R_Suicide = &giveUp;
  ptr_R_ReadConsole = &readNothing;
  ptr_R_WriteConsole = nullptr;
  ptr_R_WriteConsoleEx = &WriteConsole;
  R_Outputfile = nullptr;
  R_Consolefile = nullptr;
}

// R tells where it crashed, in a process of its own. On the thread on which it was started alone, with the stack that
// it has made for it there; and not for longer than a moment, as what it does takes memory, whose lock may be held.
constexpr std::array kFaults{SIGSEGV, SIGBUS, SIGILL};
constexpr unsigned kTellsWithin = 1;
struct sigaction gActions[NSIG];  // of the process, before R's
struct sigaction gTelling[NSIG];  // R's, of faults
pthread_t gThreadOfFaults{};
volatile sig_atomic_t gFault = 0;

void dieOf(int fault) {
  sigset_t only;
  ::sigemptyset(&only);
  ::sigaddset(&only, fault);
  (void)::signal(fault, SIG_DFL);
  (void)::pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  (void)::raise(fault);
}

void onFault(int fault, siginfo_t* info, void* context) {
  if (gFault == 0 && ::pthread_equal(::pthread_self(), gThreadOfFaults)) {
    gFault = fault;
    (void)::signal(SIGALRM, [](int) { dieOf(gFault); });
    (void)::alarm(kTellsWithin);
    // It would jump back to the block from what it takes for an overflow of its stack.
    R_CStackStart = R_CStackLimit = static_cast<std::uintptr_t>(-1);
    gTelling[fault].sa_sigaction(fault, info, context);
  }
  dieOf(fault);
}

void keepActions() {
  for (int signal = 1; signal < NSIG; ++signal) (void)::sigaction(signal, nullptr, &gActions[signal]);
}

void putActionsBack() {
  for (const int fault : kFaults) (void)::sigaction(fault, nullptr, &gTelling[fault]);
  for (int signal = 1; signal < NSIG; ++signal) (void)::sigaction(signal, &gActions[signal], nullptr);
}

void takeFaults() {
  gThreadOfFaults = ::pthread_self();
  for (const int fault : kFaults) {
    if ((gTelling[fault].sa_flags & SA_SIGINFO) == 0) continue;
    struct sigaction action = gTelling[fault];
    action.sa_sigaction = &onFault;
    (void)::sigaction(fault, &action, nullptr);
  }
}

// R's modules look for names in the libraries that are open to all, and then in R's: our wait comes first.
void openWaitToAll() {
  Dl_info wait{};
  if (::dladdr(reinterpret_cast<void*>(&R_SelectEx), &wait) == 0) return;
  (void)::dlopen(wait.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_GLOBAL);
}

// False when R has given up, with no way back. Nothing here has a destructor that a jump could pass.
bool initialize(int argc, char** argv) {
  if (setjmp(gGiveUpStart) != 0) return false;
  takeHooks();
  (void)Rf_initialize_R(argc, argv);
  takeHooks();
  R_Interactive = FALSE;
  Turn::CheckThisStack();
  if (plugin::IsProcessOfLanguage()) {
    R_SignalHandlers = 1;
    keepActions();
    setup_Rmainloop();
    putActionsBack();
    takeFaults();
  } else {
    setup_Rmainloop();
  }
  return R_ToplevelExec(&OpenConsole, nullptr) == TRUE;
}

// R finds out too late that it has been given the home of another version.
bool isHome(const std::string& home) {
  std::ifstream description(fs::path(home) / "library" / "base" / "DESCRIPTION");
  for (std::string line; std::getline(description, line);) {
    if (line.starts_with("Version: " VEXAR_VERSION ".")) return true;
  }
  return false;
}

std::string homeOf() {
  const char* const variable = std::getenv(kHomeVariable);
  return variable && *variable ? variable : VEXAR_HOME;
}

// Distributions keep some directories outside of the home, which only the script knows that usually starts R.
void setDirectories(const std::string& home) {
  std::ifstream script(fs::path(home) / "bin" / "R");
  for (std::string line; std::getline(script, line);) {
    const std::size_t equals = line.find('=');
    const std::string name = line.substr(0, equals);
    if (name != "R_SHARE_DIR" && name != "R_INCLUDE_DIR" && name != "R_DOC_DIR") continue;
    (void)::setenv(name.c_str(), line.c_str() + equals + 1, 0);
  }
}

bool refuse(const std::string& why) {
  plugin::PostErrorLine("R cannot be started: " + why);
  return false;
}

// R itself would have a shell do it, and let the process ignore signals meanwhile.
void removeTemporaryDirectory() {
  std::error_code ignored;
  if (R_TempDir) fs::remove_all(R_TempDir, ignored);
}

bool startRuntime(std::span<char* const> arguments) {
  const std::string home = homeOf();
  if (!isHome(home)) return refuse(home + " (R_HOME) does not hold the library of R " VEXAR_VERSION);
  (void)::setenv(kHomeVariable, home.c_str(), 1);
  setDirectories(home);

  // R looks at its arguments as long as it lives, and starts once.
  static std::vector<std::string>& words = *new std::vector<std::string>;
  static std::vector<char*>& argv = *new std::vector<char*>;
  words = {"R", "--no-echo"};
  for (const char* argument : arguments) {
    if (!argument) continue;
    if (std::string_view(argument) == "--version") return refuse("--version is no argument for an engine");
    words.emplace_back(argument);
  }
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  openWaitToAll();
  gState = State::kStarting;
  gState = initialize(static_cast<int>(words.size()), argv.data()) ? State::kRunning : State::kBroken;
  gQuitStatus.reset();
  if (CanRun()) return true;
  removeTemporaryDirectory();
  return refuse("it has given up");
}

void renewTemporaryDirectory(void* /*unused*/) {
  SEXP call = PROTECT(Rf_lang2(Rf_install("tempdir"), Rf_ScalarLogical(TRUE)));
  (void)Rf_eval(call, R_BaseEnv);
  UNPROTECT(1);
}

void endSession(void* /*unused*/) {
  R_RunExitFinalizers();
  Rf_KillAllDevices();
}

}  // namespace

bool StartR(std::span<char* const> arguments) {
  const Turn turn;
  switch (gState) {
    case State::kNotStarted:
      return startRuntime(arguments);
    case State::kRunning:
      (void)R_ToplevelExec(&renewTemporaryDirectory, nullptr);
      return true;
    default:
      return refuse("it has given up in this process before");
  }
}

void RestR() {
  const Turn turn;
  if (!CanRun()) return;
  (void)R_ToplevelExec(&endSession, nullptr);
  removeTemporaryDirectory();
}

bool CanRun() { return gState == State::kRunning; }

bool HasQuit() { return gQuitStatus.has_value(); }

std::optional<int> TakeQuitStatus() { return std::exchange(gQuitStatus, std::nullopt); }

}  // namespace vexar
