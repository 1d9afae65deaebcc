#pragma once

#include <map>
#include <memory>
#include <stack>
#include <string>

#include "drivex.h"
#include "statisticsx.h"
#include "vexadx_export.h"

// The registry of engines by X name and of the drivers of active runs, innermost on top. It owns what is put into it.
// For the host's own thread; nothing is added, removed or stopped while a driver thread of the engine runs.
//
// REQUIRES for drivers: a pipe manager set with SetXPipeManager.
class VEXADX_API XManager {
 public:
  XManager();
  ~XManager();  // cleanup
  XManager(const XManager&) = delete;
  XManager& operator=(const XManager&) = delete;

  // Takes a driver over, names its X to the tracer and gives it the next nesting level of that X.
  void addVexaDX(DriveX* driver);

  // The innermost driver; null when there is none.
  DriveX* getBackVexaDX();

  // Deletes the innermost driver and gives its level back; any other is left alone.
  void destoryVexaDX(DriveX* driver);  // exported spelling: the host links against it

  // The engine of a name; null when there is none.
  StatisticsX* getStatisticsX(const std::string& xName);

  // Takes an engine over, in place of the one that the name has, which is deleted.
  void addStatisticsX(const std::string& xName, StatisticsX* engine);

  // Deletes the engine of a name, which stops it.
  void destoryStatisticsX(const std::string& xName);  // exported spelling as above

  // Deletes all engines, by ascending name; cleanup then also all drivers, innermost first.
  void stopX();
  void cleanup();

 private:
  std::stack<std::unique_ptr<DriveX>> m_drivers;
  std::map<std::string, std::unique_ptr<StatisticsX>> m_engines;
};
