#pragma once

#include <string>
#include <vector>

#include "PlugInThreadHot.h"
#include "statisticsx.h"
#include "vexadx_export.h"
#include "vexadx_run.h"
#include "xconfigoptions.h"

// Drives one run of a block of syntax through an engine: pre-action, execution, post-action; on the calling thread with
// invokeX, or on a thread of its own with startX. Codes of the engine are passed through.
//
// It takes no lock: from startX until the thread has ended, the caller leaves this driver and its engine alone, except
// for getReturnValue and vexadx::WaitForRun.
class VEXADX_API DriveX {
 public:
  class DriveXThread;

  // Engine and options stay the caller's and outlive the driver; neither may be null, which is checked.
  DriveX(const std::string& xName, StatisticsX* engine, XConfigOptions* options);

  // Waits for the thread, if there is one. A subclass waits for it in its own destructor, with vexadx::WaitForRun: the
  // thread still calls what it overrides.
  virtual ~DriveX();
  DriveX(const DriveX&) = delete;
  DriveX& operator=(const DriveX&) = delete;

  // Starts the engine, with the options' arguments or else those usual for the X; 0 at once when it is initialised.
  virtual int initializeX();

  // The whole run, on the calling thread, with an engine that it starts first if need be.
  virtual int invokeX();

  // The run itself. 99115 when the engine is not initialised; 999988 when the pre-action of the X named PYTHON answers
  // 1. A pre-action that fails ends it; the code of the post-action is not used.
  virtual int runX();

  // Executes the lines as one block, a newline after each. 1 when there is no memory for the block.
  virtual int ExecuteXLines(std::vector<std::string>& lines);

  const std::string& XName();

  // The lines to run. They stay the caller's, who keeps them until the run is over; without any the block is empty.
  void setSyntax(std::vector<std::string>& lines);

  // Runs runX on a thread of its own: 0 when that was started, 99116 when not. REQUIRES: an engine that is initialised.
  int startX();

  // The code of the run that startX started, once its thread has ended; 0 without one.
  int getReturnValue();

  // The nesting level of the run.
  int getIndex();
  void setIndex(int index);

  bool isStopped();  // always true: kept for the host

 private:
  friend void vexadx::WaitForRun(DriveX& driver);

  StatisticsX* m_ximpl;
  XConfigOptions* m_option;
  std::string m_xName;
  int m_index;
  std::vector<std::string>* m_syntax;
  DriveXThread* m_thread;  // owned
  bool m_running;
};

// The thread of one driver.
class VEXADX_API DriveX::DriveXThread : public PlugInThreadHot {
 public:
  // The driver stays the caller's and outlives the thread.
  explicit DriveXThread(DriveX* driver);
  ~DriveXThread() override;

  int Run() override;

 private:
  DriveX* m_driver;
};
