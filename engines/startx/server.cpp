#include "server.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <thread>
#include <utility>

#include "framing.h"
#include "quietthread.h"
#include "vexadx_codes.h"
#include "xpipemanager.h"

using vexadx::kSuccess;

namespace {

using namespace std::chrono_literals;

constexpr int kEndCommands = -1;  // what ends the library's loop once the reply has been sent
constexpr int kNestedRunRefused = 2;
constexpr auto kLeave = 1s;
constexpr auto kInterruptEach = 50ms;

std::atomic<bool> gIsCopy{false};  // of the process that the host started

// Lets the thread be cancelled for a scope: while it waits for a block, never while it executes one.
class Cancellable {
 public:
  Cancellable() { ::pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr); }
  ~Cancellable() { ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr); }
  Cancellable(const Cancellable&) = delete;
  Cancellable& operator=(const Cancellable&) = delete;
};

void killGroup() { ::kill(0, SIGKILL); }

void endProcess() { ::_exit(1); }

// Calls the function when the time is over: nothing that a block does prevents it.
void limitTime(void (*function)()) {
  QuietThread([function] {
    std::this_thread::sleep_for(kLeave);
    function();
  }).detach();
}

}  // namespace

// A run's level and its pipes. The block pipe is made here, the result pipe is the host's.
struct Server::Level {
  Level(const std::string& prefix, int levelNumber)
      : number(levelNumber),
        blocks(prefix + std::to_string(number) + XPipes::SYNTAX_PIPE),
        results(prefix + std::to_string(number) + XPipes::SYNTAX_RESULT_PIPE),
        created(blocks.CreatePipe()) {}
  ~Level() {
    if (thread.joinable()) {
      ::pthread_cancel(thread.native_handle());  // it may wait for a block that will not come
      thread.join();
    }
    results.SetPipeName("");  // the host's file stays
  }
  Level(const Level&) = delete;
  Level& operator=(const Level&) = delete;

  // Whether the host has opened the other end, at an earlier run.
  bool CanReply() {
    const std::lock_guard lock(replying);
    return results.IsWritePipeConnected();
  }

  // False when the host has closed the other end. One that is gone shows at the commands. The texts say what an error
  // was.
  bool Reply(int code, const std::vector<std::string>& texts = {}) {
    CleXDSmb message;
    message.SetErrorCode(code);
    for (const std::string& text : texts) message.SetString(text);
    const std::lock_guard lock(replying);
    const bool sent = SendData(&results, message, true) == kSuccess;
    if (!sent) (void)results.ClosePipe();
    return sent;
  }

  const int number;
  VexaPipe blocks;
  VexaPipe results;
  const int created;
  std::atomic<bool> isSetUp{false};
  std::mutex replying;
  std::thread thread;  // of a nested level
};

Server::Server(Plugin& plugin, Levels& levels, std::string prefix, bool isNestable)
    : m_plugin(plugin), m_levels(levels), m_prefix(std::move(prefix)), m_isNestable(isNestable) {}

Server::~Server() = default;

void Server::ServeCommands() {
  (void)::pthread_atfork(nullptr, nullptr, [] { gIsCopy = true; });
  m_outermost = std::make_unique<Level>(m_prefix, 0);
  m_commands = std::make_unique<DXCmdDispatcher>(m_prefix, true);
  QuietThread([this] { serve(); }).detach();
}

void Server::serve() {
  while (m_commands->receiveCmd(this) == kSuccess) {
    if (m_told) leave(&endProcess);
    if (m_beginning) replyToBeginning();
    m_beginning = nullptr;  // a host that does not want the reply has given the run up
  }
  LeaveHost();
}

void Server::LeaveHost() {
  m_levels.RemovePipes();
  leave(&killGroup);
}

// One command at a time: a run begins after its command has been answered.
int Server::VisitReceiver(CleXDSmb& request, CleXDSmb& reply) {
  noteCommand();
  (void)DXCmdDispatcherVisitor::VisitReceiver(request, reply);
  return kEndCommands;
}

int Server::cmdDispatcher(DXCmdDispatcher::CmdKey key, const std::vector<std::string>& /*arguments*/) {
  switch (key) {
    case DXCmdDispatcher::kPingDX:
      return awaitStart();
    case DXCmdDispatcher::kSetupRunDX:
      return beginRun();
    case DXCmdDispatcher::kExitRunDX:
      return endRun();
    case DXCmdDispatcher::kStopDX:
      m_told = true;
      break;
  }
  return kSuccess;
}

void Server::noteCommand() {
  const std::lock_guard lock(m_guard);
  m_heard = true;
  m_changed.notify_all();
}

bool Server::HearsFromHost(std::chrono::milliseconds atMost) {
  std::unique_lock lock(m_guard);
  return m_changed.wait_for(lock, atMost, [this] { return m_heard; });
}

void Server::NoteStart(int code) {
  const std::lock_guard lock(m_guard);
  m_started = true;
  m_startCode = code;
  m_changed.notify_all();
}

int Server::awaitStart() {
  std::unique_lock lock(m_guard);
  m_changed.wait(lock, [this] { return m_started; });
  return m_startCode;
}

// A level that has a run already lost its host's interest in that, and what was nested in it did as well.
int Server::beginRun() {
  if (const int code = awaitStart(); code != kSuccess) return code;
  const int number = m_levels.Highest(innermost());
  if (number < 0) return vexadx::kPipeFailed;
  if (number > 0 && !m_isNestable) return kNestedRunRefused;
  while (!m_nested.empty() && m_nested.back()->number >= number) m_nested.pop_back();
  m_beginning =
      number == 0 ? m_outermost.get() : m_nested.emplace_back(std::make_unique<Level>(m_prefix, number)).get();
  if (m_beginning->created != kSuccess) return std::exchange(m_beginning, nullptr)->created;
  m_beginCode = m_plugin.PreAction();
  // The host opens the result pipe of a first run when it has the command's answer. Later it finds both answers at
  // once.
  if (m_beginning->CanReply()) replyToBeginning();
  return kSuccess;
}

void Server::replyToBeginning() {
  Level& level = *m_beginning;
  const bool isNested = &level != m_outermost.get();
  level.isSetUp = m_beginCode == kSuccess;
  if (isNested && level.isSetUp && !level.thread.joinable()) {
    level.thread = QuietThread([this, &level] {
      ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
      executeNext(level);
    });
  }
  if (!level.Reply(m_beginCode)) return;
  m_beginning = nullptr;
  if (isNested && !level.isSetUp) m_nested.pop_back();  // no end of the run follows
}

int Server::innermost() const { return m_nested.empty() ? 0 : m_nested.back()->number; }

// Nested runs whose pipes the host has removed were given up, and their end is not told.
int Server::endRun() {
  while (!m_nested.empty() && innermost() > m_levels.Highest(innermost())) m_nested.pop_back();
  const bool isNested = !m_nested.empty();
  Level& level = isNested ? *m_nested.back() : *m_outermost;
  if (!level.isSetUp.exchange(false)) return vexadx::kNotInitialized;
  const int code = m_plugin.PostAction();
  if (isNested) m_nested.pop_back();
  return code;
}

void Server::RunBlocks() {
  for (;;) executeNext(*m_outermost);
}

void Server::executeNext(Level& level) {
  CleXDSmb block;
  const int received = receive(level, block);
  if (received == vexadx::kPipeClosed) {
    (void)level.blocks.ClosePipe();  // the next open waits for a host
    return;
  }
  std::vector<std::string> error;
  level.Reply(received == vexadx::kPipeFailed ? received : execute(level, block, error), error);
}

int Server::receive(Level& level, CleXDSmb& block) {
  const Cancellable whileItWaits;
  return ReceiveData(&level.blocks, block, true);
}

int Server::execute(Level& level, CleXDSmb& block, std::vector<std::string>& error) {
  if (!level.isSetUp) return vexadx::kNotInitialized;
  noteBlocks(1);
  std::string text = block.GetSingleString();
  const int code = m_plugin.Execute(text.data(), error);
  (void)std::fflush(nullptr);  // what the language wrote comes before its code
  if (gIsCopy) ::_exit(code);  // a child that the block forked has nothing to tell the host
  noteBlocks(-1);
  return code;
}

void Server::noteBlocks(int more) {
  const std::lock_guard lock(m_guard);
  m_executing += more;
  m_changed.notify_all();
}

// The commands and the host's end may both come to this.
void Server::leave(void (*whenTimeIsOver)()) {
  if (m_leaving.exchange(true)) {
    for (;;) ::pause();
  }
  limitTime(whenTimeIsOver);
  for (const char* own : {"_s", "0syntax"}) (void)::unlink((m_prefix + own).c_str());
  std::unique_lock lock(m_guard);
  while (m_executing > 0) {
    Plugin::Interrupt();
    m_changed.wait_for(lock, kInterruptEach);
  }
  if (m_started) (void)m_plugin.Stop();
  (void)std::fflush(nullptr);
  if (whenTimeIsOver == &killGroup) killGroup();
  ::_exit(0);
}
