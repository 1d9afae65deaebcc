#include "interrupt.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <string_view>

namespace interrupt {

namespace {

// The state that the handler touches. Lock-free, because the handler may stop any thread between any two instructions.
std::atomic<int> gStep{0};
std::atomic<bool> gBlockRunning{false};
std::atomic<bool> gTerminated{false};
std::atomic<bool> gIsOwnSignal{false};
std::atomic<void (*)()> gInterruptBlock{nullptr};
std::atomic<void (*)()> gEndEngine{nullptr};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free &&
              std::atomic<void (*)()>::is_always_lock_free);

constexpr int kEndStep = 2;
constexpr std::array<std::string_view, kEndStep> kNotices{
    "vexadx: interrupting the block (Ctrl-C again ends the run)\n",
    "vexadx: interrupting the block and ending the run (once more leaves at once)\n"};
constexpr std::string_view kEndsEngine = "vexadx: ending the engine and the run (once more leaves at once)\n";
constexpr std::string_view kCannotInterrupt =
    "vexadx: this engine cannot interrupt its block (the third Ctrl-C leaves at once)\n";

pthread_t gMainThread{};

// Async-signal-safe: atomics, write, _exit and the engine's own function, which promises to be so.
void OnSignal(int signal) {
  if (gIsOwnSignal.exchange(false)) return;  // it has ended a system call, and that was all
  const int errnoBefore = errno;
  if (signal == SIGTERM) gTerminated = true;
  const int step = std::max(gStep + 1, signal == SIGTERM ? kEndStep : 1);
  gStep = step;
  if (!gBlockRunning || step > kEndStep) ::_exit(128 + signal);

  void (*const endEngine)() = step == kEndStep ? gEndEngine.load() : nullptr;
  void (*const act)() = endEngine ? endEngine : gInterruptBlock.load();
  const std::string_view notice = endEngine ? kEndsEngine
                                  : act     ? kNotices[static_cast<std::size_t>(step) - 1]
                                            : kCannotInterrupt;
  (void)!::write(STDERR_FILENO, notice.data(), notice.size());
  if (act) act();
  errno = errnoBefore;
}

void InstallFor(int signal) {
  struct sigaction action {};
  if (::sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN) return;
  action = {};
  action.sa_handler = &OnSignal;
  // Not restarting: a block that waits in a system call has to notice that it was interrupted.
  ::sigemptyset(&action.sa_mask);
  ::sigaddset(&action.sa_mask, SIGINT);
  ::sigaddset(&action.sa_mask, SIGTERM);
  (void)::sigaction(signal, &action, nullptr);
}

}  // namespace

void Install() {
  gMainThread = ::pthread_self();
  InstallFor(SIGINT);
  InstallFor(SIGTERM);
}

void SetFunctions(void (*interruptBlock)(), void (*endEngine)()) {
  gInterruptBlock = interruptBlock;
  gEndEngine = endEngine;
}

bool InterruptBlock() {
  void (*const interruptBlock)() = gInterruptBlock;
  if (!gBlockRunning || !interruptBlock) return false;
  interruptBlock();
  struct sigaction action {};
  if (::sigaction(SIGINT, nullptr, &action) == 0 && action.sa_handler == &OnSignal) {
    gIsOwnSignal = true;
    (void)::pthread_kill(gMainThread, SIGINT);
  }
  return true;
}

RunningBlock::RunningBlock() : m_stepBefore(gStep) { gBlockRunning = true; }

RunningBlock::~RunningBlock() { gBlockRunning = false; }

bool RunningBlock::Interrupted() const { return gStep != m_stepBefore; }

bool EndRequested() { return gStep >= kEndStep; }

ExitStatus Status() { return gTerminated ? kTerminated : kInterrupted; }

}  // namespace interrupt
