#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "PlugInThreadHot.h"
#include "vexadx_export.h"
#include "vexapipe.h"

class VEXADX_API CleXDErrorCode {
 public:
  // Whether a code says that the other end of a pipe is gone: 109 and 99103.
  static bool IsPipeError(int code);
};

// A thread that watches the process at the other end of a named pipe of its own, on which status words of four bytes
// travel: 1 for running, 3 for stopping. Each monitor opens its own end when its thread begins. Any thread may call
// Stop; Start and the destructor are the owner's.
class VEXADX_API MonitorThread : public PlugInThreadHot {
 public:
  // Stops, and removes the pipe's file.
  ~MonitorThread() override;

  // Monitors until it is stopped or the other end is gone; 0.
  int Run() override;

  // Type 0 writes a word each second, and 3 at the end. Type 1 makes the pipe and reads: it stops at a 3, and when the
  // other end is gone without one the handler is called, on the monitor's thread. Other types stop the process. The
  // name is the pipe's path; null is an empty one.
  MonitorThread(const char* name, int type);

  // The loop of Run; 0.
  int Monitor();

  // Ends the loop and waits for the thread; at once when it does not run.
  void Stop();

  // Called, once, when the other end of a reading monitor is gone. Set before the start; null: nobody.
  void SetExceptionHandle(int (*handler)());

 private:
  class VEXADX_HIDDEN WakeUp;

  VEXADX_HIDDEN void writeStatus();
  VEXADX_HIDDEN void readStatus();
  VEXADX_HIDDEN int writeWord(int word);
  VEXADX_HIDDEN int readWord(int& word);

  std::unique_ptr<VexaPipe> m_monitorPipe;
  std::string m_monitorName;
  bool m_peerAlive;
  bool m_peerRunning;
  std::atomic<bool> m_stopped;  // no loop runs
  int m_monitorType;
  int (*m_exceptionHandle)();
  std::unique_ptr<WakeUp> m_wakeUp;
  std::atomic<bool> m_stopRequested;  // apart from m_stopped, which a thread that is only beginning to run clears
};
