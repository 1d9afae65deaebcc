#include "xmanager.h"

#include "dxglobals.h"
#include "dxtracer.h"
#include "xpipemanager.h"

XManager::XManager() = default;

XManager::~XManager() { cleanup(); }

void XManager::addVexaDX(DriveX* driver) {
  std::unique_ptr<DriveX> owned(driver);
  if (DxTracer* const tracer = GetDxTracer()) tracer->setXName(driver->XName());
  XPipeSuit* const suit = GetXPipeManager()->getPipeSuit(driver->XName());
  suit->increaseIndex();
  driver->setIndex(suit->getIndex());
  m_drivers.push(std::move(owned));
}

DriveX* XManager::getBackVexaDX() { return m_drivers.empty() ? nullptr : m_drivers.top().get(); }

void XManager::destoryVexaDX(DriveX* driver) {
  if (m_drivers.empty() || m_drivers.top().get() != driver) return;
  GetXPipeManager()->getPipeSuit(driver->XName())->decreaseIndex();
  m_drivers.pop();
}

StatisticsX* XManager::getStatisticsX(const std::string& xName) {
  const auto entry = m_engines.find(xName);
  return entry == m_engines.end() ? nullptr : entry->second.get();
}

// The earlier engine stops before the new one is there.
void XManager::addStatisticsX(const std::string& xName, StatisticsX* engine) {
  std::unique_ptr<StatisticsX>& entry = m_engines[xName];
  if (entry.get() == engine) return;
  entry.reset();
  entry.reset(engine);
}

void XManager::destoryStatisticsX(const std::string& xName) {
  const auto entry = m_engines.find(xName);
  if (entry == m_engines.end()) return;
  entry->second.reset();
  m_engines.erase(entry);
}

void XManager::stopX() {
  for (auto& [name, engine] : m_engines) engine.reset();
  m_engines.clear();
}

void XManager::cleanup() {
  stopX();
  while (!m_drivers.empty()) destoryVexaDX(m_drivers.top().get());
}
