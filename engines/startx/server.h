#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "asycspipe1.h"
#include "clexdsmb.h"
#include "levels.h"
#include "plugin.h"
#include "vexapipe.h"

// Answers the host: commands on one thread, blocks on others, so that a command is answered while a block is executed.
// Blocks of level 0 run on the main thread, which languages need for interrupts; each deeper level has a thread of its
// own while its run lasts.
class Server : private DXCmdDispatcherVisitor {
 public:
  // `prefix` is what the names of the pipes begin with.
  Server(Plugin& plugin, Levels& levels, std::string prefix, bool isNestable);
  ~Server() override;

  // Makes the command pipe and answers commands from now on. The ready check waits for NoteStart.
  void ServeCommands();

  // Waits for the first command, at most so long; answers whether it has come. Any thread.
  bool HearsFromHost(std::chrono::milliseconds atMost);

  // The plug-in has answered this code when it was started.
  void NoteStart(int code);

  // Executes the blocks of level 0, on the calling thread, without end. REQUIRES: NoteStart came before.
  [[noreturn]] void RunBlocks();

  // The host has gone: ends this process and its children within two seconds, whatever a block does, and leaves no
  // pipe of either. Any thread.
  [[noreturn]] void LeaveHost();

 private:
  struct Level;

  int VisitReceiver(CleXDSmb& request, CleXDSmb& reply) override;
  int cmdDispatcher(DXCmdDispatcher::CmdKey key, const std::vector<std::string>& arguments) override;

  void serve();
  void noteCommand();
  int awaitStart();
  int beginRun();
  void replyToBeginning();
  int endRun();
  int innermost() const;  // level of the active runs
  void executeNext(Level& level);
  static int receive(Level& level, CleXDSmb& block);
  int execute(Level& level, CleXDSmb& block, std::vector<std::string>& error);
  void noteBlocks(int more);
  [[noreturn]] void leave(void (*whenTimeIsOver)());

  Plugin& m_plugin;
  Levels& m_levels;
  const std::string m_prefix;
  const bool m_isNestable;
  std::unique_ptr<DXCmdDispatcher> m_commands;
  std::unique_ptr<Level> m_outermost;
  std::vector<std::unique_ptr<Level>> m_nested;  // runs that are active, the innermost last
  Level* m_beginning = nullptr;                  // whose pre-action has not been replied to
  int m_beginCode = 0;                           // of that pre-action
  bool m_told = false;                           // to stop
  std::atomic<bool> m_leaving{false};

  std::mutex m_guard;
  std::condition_variable m_changed;
  bool m_heard = false;  // a command
  bool m_started = false;
  int m_startCode = 0;
  int m_executing = 0;  // blocks
};
