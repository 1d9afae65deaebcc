#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "statisticsx.h"
#include "vexadx_death.h"
#include "vexadx_export.h"
#include "vexadx_process.h"
#include "xcmdargument.h"
#include "xconfigoptions.h"

struct ChildOutputSettings;
class PeerWatch;
class XPipeSuit;

// An engine as a process of its own, with which the library talks over the pipes of the X's suit; or, as the Java
// extension, over the socket that is registered with SetavaExtSocket.
//
// A wait for the process ends within a second of its death, with the code of a pipe whose other end is gone
// (vexadx::kPipeClosed, vexadx::kPipeFailed), also when a process that it left behind still holds the pipes. One that
// lives is waited for without limit. After any failure the engine can be stopped and started again. Of what operations
// answer, 1 (vexadx::kFailed) may be that memory gave out.
//
// REQUIRES, from the start on: a pipe manager set with SetXPipeManager and, but for the Java extension, a driver of the
// X in the registry (XManager::addVexaDX). Runs of different nesting levels may be on threads of their own, each with
// the level's own pipes; start and stop while no run is active on another thread.
class VEXADX_API OutpStatisticsX : public StatisticsX {
 public:
  // The option set is not owned and must outlive the engine. The mode is the process's first argument: 0 "REMOTE", any
  // other "LOCAL".
  OutpStatisticsX(XConfigOptions* options, int mode, bool vexaDrive);
  ~OutpStatisticsX() override;  // stops the engine

  // Start the X process, and the Java extension process; x_init_embedded_x does, the latter when its first argument is
  // "JavaExtension". A start that fails leaves no process behind.
  // vexadx::kProcessNotAlive (99107) when there is none half a second later, vexadx::kSocketFailed (99122) without a
  // socket to be connected to, vexadx::kJavaNotAlive (99123) when the Java process has ended; otherwise the code of the
  // hundredth ready check, or of the socket.
  int stat_start_x();
  int stat_start_java();

  // Tells the process to stop, and stops the monitors: 0 also when it has ended before. The child is reaped if it has
  // ended, and otherwise as soon as it does.
  int stat_stop_x();

  // Tell the process that a run begins or ends. The former answers the code of the process's own pre-action.
  int setup_x_run();
  int exit_x_run();

  // For the Java extension a run has neither: 0.
  int setup_java_run();
  int exit_java_run();

  // Whether the process is there: also when it has ended and was not reaped, and always when somebody else drives it.
  bool isXProcessActive();

  // Appends what the process gets as its environment, NAME=value each.
  void pushEnv(XCmdArgument& env);

 protected:
  int x_init_embedded_x(int argc, char** argv) override;
  int x_execute_x(char* syntax) override;  // a Java extension's: until its process has ended
  int x_stop_embedded_x() override;
  int x_pre_action() override;
  int x_post_action() override;
  void x_set_post_vexa_output(int (*output)(const char* text, int length)) override;  // does nothing
  int x_get_library_lock() override;
  int x_release_library_lock() override;

 private:
  friend vexadx::XProcess vexadx::ProcessOf(OutpStatisticsX& engine);
  friend vexadx::Death vexadx::DeathOf(OutpStatisticsX& engine);
  friend void vexadx::KeepLastLines(OutpStatisticsX& engine, vexadx::Streams streams, vexadx::OutputReceiver receiver);
  friend void vexadx::HandOnOutput(OutpStatisticsX& engine);

  VEXADX_HIDDEN std::shared_ptr<PeerWatch> lastProcess() const;
  VEXADX_HIDDEN XPipeSuit& suit() const;
  VEXADX_HIDDEN int startX();
  VEXADX_HIDDEN int startJava();
  VEXADX_HIDDEN int startProcess(XCmdArgument& arguments);
  VEXADX_HIDDEN void leaveEarlierProcess();
  VEXADX_HIDDEN int checkReady();
  VEXADX_HIDDEN int beginXRun();
  VEXADX_HIDDEN void leaveWaiting();
  VEXADX_HIDDEN int sendCommand(int key, vexadx::Step step);
  VEXADX_HIDDEN int executeJava();

  XConfigOptions* m_options;  // not owned
  int m_processId;            // as the last fork answered it; -1: there was none
  int m_mode;
  bool m_isJava;
  std::shared_ptr<const ChildOutputSettings> m_output;  // for what the next process writes; null: left alone

  // Guards what threads that do not use the engine look at meanwhile; the one that starts it writes.
  mutable std::mutex m_watchGuard;
  std::shared_ptr<PeerWatch> m_watch;  // of the process; null: none was started
};
