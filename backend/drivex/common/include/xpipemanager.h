#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "asycspipe1.h"
#include "monitor.h"
#include "vexadx_export.h"
#include "vexapipe.h"

// The named pipes between the host and its X processes, and the names of their files. For one thread at a time, with
// everything that belongs to one manager; but suits may be asked for, and runs of a suit may begin and end, while
// engines of the manager run on other threads. Objects that getters answer belong to what answered them.
//
// The files of an X: P = pipe path + pid text + X name, the text before all of them.
//   P_s P_c           commands and their replies
//   PP2C PC2P         the monitors' status words
//   P<level><role>    the roles of XPipes, for each nesting level of runs

// The pipes of one nesting level.
class VEXADX_API XPipes {
 public:
  static const std::string SYNTAX_PIPE;         // "syntax": blocks of syntax to the X process
  static const std::string SYNTAX_RESULT_PIPE;  // "syntaxresult": what became of them; the host makes this FIFO
  static const std::string XDAPI_PIPE;          // "xdapi": data requests
  static const std::string XDAPI_RESULT_PIPE;   // "xdapiresult": what they brought

  // Names the four and makes no file.
  explicit XPipes(std::string prefix);

  // Removes their files.
  ~XPipes();
  XPipes(const XPipes&) = delete;
  XPipes& operator=(const XPipes&) = delete;

  VexaPipe* GetSyntaxPipe();
  VexaPipe* GetSyntaxResultPipe();
  VexaPipe* GetXDAPIPipe();
  VexaPipe* GetXDAPIResultPipe();

 private:
  friend class XPipeSuit;

  VEXADX_HIDDEN void dropEnds(bool ownToo);
  VEXADX_HIDDEN std::unique_ptr<VexaPipe> named(const std::string& role) const;

  std::string m_prefix;
  std::unique_ptr<VexaPipe> m_syntaxPipe;
  std::unique_ptr<VexaPipe> m_syntaxResultPipe;
  std::unique_ptr<VexaPipe> m_xdapiPipe;
  std::unique_ptr<VexaPipe> m_xdapiResultPipe;
};

class PeerWatch;
class XPipeManager;

// All pipes of one X: a set for each nesting level, the commands, the monitors.
class VEXADX_API XPipeSuit {
 public:
  // The manager is never null, which is checked, and outlives the suit.
  XPipeSuit(std::string xName, XPipeManager* manager);
  ~XPipeSuit();
  XPipeSuit(const XPipeSuit&) = delete;
  XPipeSuit& operator=(const XPipeSuit&) = delete;

  const std::string& XName() const;

  // The current nesting level; -1 when no run is active.
  int getIndex() const;

  std::string getPipeNamePrefix();

  // A run begins: the next level, whose set is made if need be. A run ends: the level before, which is checked to be
  // there. Sets of nested levels go with their run, that of level 0 stays.
  void increaseIndex();
  void decreaseIndex();

  // The set of the current level, which is checked to be there.
  XPipes* getXPipes();

  // Made when first asked for, then always the same whatever side is named.
  DXCmdDispatcher* getCmdDispatcher(bool isServer);

  // The monitors, true for P2C, which reads, false for C2P, which writes. startMonitor makes and starts one with a
  // handler, an int (*)(), unless there is one; both answer it, null when there is none. stopMonitor answers 0.
  MonitorThread* startMonitor(bool p2c, void* handler);
  MonitorThread* getMonitor(bool p2c);
  int stopMonitor(bool p2c);

 private:
  friend class OutpStatisticsX;

  // Before a new X process: none of an earlier one's files is there, and with `ownToo` no descriptor or file of this
  // side either that it may know.
  VEXADX_HIDDEN void renewEnds(bool ownToo);

  std::string m_xname;
  XPipeManager* m_manager;
  int m_pipe_index;
  std::vector<std::unique_ptr<XPipes>> m_pipes;  // by level
  std::unique_ptr<MonitorThread> m_monitorP2C;
  std::unique_ptr<MonitorThread> m_monitorC2P;
  std::unique_ptr<DXCmdDispatcher> m_dispatcher;
  std::shared_ptr<PeerWatch> m_lastProcess;  // that was started behind these pipes, by whatever engine
  mutable std::mutex m_guard;                // guards m_pipe_index and m_pipes. No set is destroyed under it
};

// The suits of all X names, one for each.
class VEXADX_API XPipeManager {
 public:
  // The directory of the pipes, ending in a separator, and the text for the host's process; both as they are.
  XPipeManager(std::string pipePath, std::string pipePid);
  ~XPipeManager();
  XPipeManager(const XPipeManager&) = delete;
  XPipeManager& operator=(const XPipeManager&) = delete;

  const std::string& getPipePath() const;
  const std::string& getPipePid() const;

  // The suit of an X, made when first asked for. Names differ in case.
  XPipeSuit* getPipeSuit(const std::string& xName);

  // Destroy one suit, if there is one, or all.
  void removePipeSuit(const std::string& xName);
  void cleanup();

 private:
  std::string m_pipePath;
  std::string m_pipePid;
  std::vector<std::unique_ptr<XPipeSuit>> m_suits;
  std::mutex m_guard;  // guards m_suits. Outer to a suit's; none is destroyed under it
};
