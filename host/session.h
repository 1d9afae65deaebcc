#pragma once

#include "blocks.h"
#include "inpstatisticsx.h"
#include "report.h"
#include "xconfigoptions.h"

// One engine inside this process: Load, Start, blocks, Stop. Used by one thread.
class Session {
 public:
  // Where blocks run: on the thread that calls Run, or each on one of its own.
  enum class Thread { kCalling, kOwn };

  // Opens the plug-in library. The options must outlive the session.
  explicit Session(XConfigOptions& options, Thread thread = Thread::kCalling);

  // The blocks' output goes to the function instead of the process's streams.
  void SendOutputTo(int (*output)(const char* text, int length));

  // Each throws Problem when the engine cannot be used.
  void Load();
  void Start();

  BlockResult Run(Block& block);

  // The engine's code.
  int Stop();

 private:
  XConfigOptions& m_options;
  const Thread m_thread;
  InpStatisticsX m_engine;
};
