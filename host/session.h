#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "blocks.h"
#include "commandline.h"
#include "deadline.h"
#include "inpstatisticsx.h"
#include "javapluginsocket.h"
#include "outpstatisticsx.h"
#include "pipedirectory.h"
#include "report.h"
#include "vexadx_death.h"
#include "xconfigoptions.h"
#include "xmanager.h"
#include "xpipemanager.h"

// One engine: Load, Start, blocks, Stop; the Java extension is started and stopped for each block. Used by one thread;
// one session at a time.
class Session {
 public:
  // Where the engine lives.
  enum class Place { kThisProcess, kOwnProcess };

  // Where blocks run: on the thread that calls Run, or each on one of its own.
  enum class Thread { kCalling, kOwn };

  // The options must outlive the session. Throws Problem when there can be no pipes.
  Session(XConfigOptions& options, Place place, Thread thread = Thread::kCalling);
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // The blocks' output goes to the function instead of the process's streams. Before Start, as the next.
  void SendOutputTo(int (*output)(const char* text, int length));

  // What the engine's process writes goes through here, so that Death has the end of it; but not to a terminal, which
  // shows it and which programs want for themselves.
  void KeepLastLines();

  // What takes longer is interrupted, if it is a block, and then ended with its process. What cannot be ended so is
  // left with the whole program, and so is a start whose process has ended: the function gets the reason, and the death
  // of the process if there is anybody to take that, on a thread of ours and does not return.
  using Leave = std::function<void(const Problem& problem, const vexadx::Death& death)>;
  void LimitTimes(const TimeLimits& limits, Leave leave);

  // Load opens the plug-in library, or looks whether there is an engine program. Each throws Problem when the engine
  // cannot be used.
  void Load();
  StartResult Start();

  BlockResult Run(Block& block);

  // Whether the engine's process is lost after a block answered the code, and what became of it.
  bool HasLost(int code);
  vexadx::Death Death();

  StopResult Stop();

 private:
  class StartWatch;

  void loadPlugin();
  void handOnOutput();
  void signalEngine(int signal);
  std::vector<Deadline::Step> endingSteps(const std::string& what);
  void leave(const Problem& problem);
  Problem notStarted(int code);
  int startEngine();
  int exitCode();

  XConfigOptions& m_options;
  const Thread m_thread;
  TimeLimits m_limits;
  Leave m_leave;
  std::atomic<bool> m_isSignalled{false};  // the process, as it took too long
  std::optional<PipeDirectory> m_directory;
  std::optional<JavaPlugInSocket> m_socket;  // of the Java extension
  XPipeManager m_pipes;
  XManager m_registry;  // owns the engine
  InpStatisticsX* m_inside = nullptr;
  OutpStatisticsX* m_outside = nullptr;
  StatisticsX* m_engine = nullptr;  // one of the two
};
