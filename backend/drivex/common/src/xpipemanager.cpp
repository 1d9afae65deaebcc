#include "xpipemanager.h"

#include <algorithm>
#include <utility>

#include "dxassert.h"
#include "dxtraceline.h"

const std::string XPipes::SYNTAX_PIPE = "syntax";
const std::string XPipes::SYNTAX_RESULT_PIPE = "syntaxresult";
const std::string XPipes::XDAPI_PIPE = "xdapi";
const std::string XPipes::XDAPI_RESULT_PIPE = "xdapiresult";

namespace {

constexpr const char* kSourceFile = "backend/drivex/common/src/xpipemanager";
constexpr int kReader = 1;  // types of monitors
constexpr int kWriter = 0;

template <typename Suits>
auto findSuit(Suits& suits, const std::string& xName) {
  return std::find_if(suits.begin(), suits.end(), [&](const auto& suit) { return suit->XName() == xName; });
}

}  // namespace

XPipes::XPipes(std::string prefix) : m_prefix(std::move(prefix)) {
  const std::pair<const std::string&, VexaPipe*> roles[] = {{SYNTAX_PIPE, GetSyntaxPipe()},
                                                            {SYNTAX_RESULT_PIPE, GetSyntaxResultPipe()},
                                                            {XDAPI_PIPE, GetXDAPIPipe()},
                                                            {XDAPI_RESULT_PIPE, GetXDAPIResultPipe()}};
  for (const auto& [role, pipe] : roles) TraceLine({role, ":", pipe->GetPipeName()});
}

XPipes::~XPipes() = default;

std::unique_ptr<VexaPipe> XPipes::named(const std::string& role) const {
  return std::make_unique<VexaPipe>(m_prefix + role);
}

VexaPipe* XPipes::GetSyntaxPipe() {
  if (!m_syntaxPipe) m_syntaxPipe = named(SYNTAX_PIPE);
  return m_syntaxPipe.get();
}

VexaPipe* XPipes::GetSyntaxResultPipe() {
  if (!m_syntaxResultPipe) m_syntaxResultPipe = named(SYNTAX_RESULT_PIPE);
  return m_syntaxResultPipe.get();
}

VexaPipe* XPipes::GetXDAPIPipe() {
  if (!m_xdapiPipe) m_xdapiPipe = named(XDAPI_PIPE);
  return m_xdapiPipe.get();
}

VexaPipe* XPipes::GetXDAPIResultPipe() {
  if (!m_xdapiResultPipe) m_xdapiResultPipe = named(XDAPI_RESULT_PIPE);
  return m_xdapiResultPipe.get();
}

void XPipes::dropEnds(bool ownToo) {
  GetSyntaxPipe()->dropEnd();
  if (!ownToo) return;
  for (VexaPipe* const pipe : {GetSyntaxResultPipe(), GetXDAPIPipe(), GetXDAPIResultPipe()}) pipe->dropEnd();
}

XPipeSuit::XPipeSuit(std::string xName, XPipeManager* manager)
    : m_xname(std::move(xName)), m_manager(manager), m_pipe_index(-1) {
  DxAssert(m_manager != nullptr, "m_manager", "XPipeSuit", kSourceFile);
}

// Innermost level first; members would go in another order.
XPipeSuit::~XPipeSuit() {
  while (!m_pipes.empty()) m_pipes.pop_back();
  m_dispatcher.reset();
  m_monitorP2C.reset();
  m_monitorC2P.reset();
}

const std::string& XPipeSuit::XName() const { return m_xname; }

int XPipeSuit::getIndex() const {
  const std::lock_guard lock(m_guard);
  return m_pipe_index;
}

std::string XPipeSuit::getPipeNamePrefix() { return m_manager->getPipePath() + m_manager->getPipePid() + m_xname; }

void XPipeSuit::increaseIndex() {
  const std::lock_guard lock(m_guard);
  ++m_pipe_index;
  while (m_pipes.size() < static_cast<std::size_t>(m_pipe_index) + 1) {
    m_pipes.push_back(std::make_unique<XPipes>(getPipeNamePrefix() + std::to_string(m_pipe_index)));
  }
}

void XPipeSuit::decreaseIndex() {
  std::unique_ptr<XPipes> ended;  // once the lock has been released
  const std::lock_guard lock(m_guard);
  DxAssert(m_pipe_index >= 0, "m_pipe_index >= 0", "decreaseIndex", kSourceFile);
  --m_pipe_index;
  if (m_pipes.size() <= 1 || m_pipes.size() <= static_cast<std::size_t>(m_pipe_index) + 1) return;
  ended = std::move(m_pipes.back());
  m_pipes.pop_back();
}

XPipes* XPipeSuit::getXPipes() {
  const std::lock_guard lock(m_guard);
  DxAssert(m_pipe_index >= 0, "m_pipe_index >= 0", "getXPipes", "backend/drivex/common/include/xpipemanager");
  return m_pipes[static_cast<std::size_t>(m_pipe_index)].get();
}

DXCmdDispatcher* XPipeSuit::getCmdDispatcher(bool isServer) {
  if (!m_dispatcher) m_dispatcher = std::make_unique<DXCmdDispatcher>(getPipeNamePrefix(), isServer);
  return m_dispatcher.get();
}

void XPipeSuit::renewEnds(bool ownToo) {
  getCmdDispatcher(false)->renewEnds(ownToo);
  const std::lock_guard lock(m_guard);
  for (const auto& pipes : m_pipes) pipes->dropEnds(ownToo);
}

MonitorThread* XPipeSuit::startMonitor(bool p2c, void* handler) {
  std::unique_ptr<MonitorThread>& monitor = p2c ? m_monitorP2C : m_monitorC2P;
  if (!monitor) {
    const std::string name = getPipeNamePrefix() + (p2c ? "P2C" : "C2P");
    monitor = std::make_unique<MonitorThread>(name.c_str(), p2c ? kReader : kWriter);
    monitor->SetExceptionHandle(reinterpret_cast<int (*)()>(handler));
    (void)monitor->Start(0);
  }
  return monitor.get();
}

MonitorThread* XPipeSuit::getMonitor(bool p2c) { return p2c ? m_monitorP2C.get() : m_monitorC2P.get(); }

int XPipeSuit::stopMonitor(bool p2c) {
  if (MonitorThread* const monitor = getMonitor(p2c)) monitor->Stop();
  return 0;
}

XPipeManager::XPipeManager(std::string pipePath, std::string pipePid)
    : m_pipePath(std::move(pipePath)), m_pipePid(std::move(pipePid)) {}

XPipeManager::~XPipeManager() { cleanup(); }

const std::string& XPipeManager::getPipePath() const { return m_pipePath; }

const std::string& XPipeManager::getPipePid() const { return m_pipePid; }

XPipeSuit* XPipeManager::getPipeSuit(const std::string& xName) {
  const std::lock_guard lock(m_guard);
  if (const auto suit = findSuit(m_suits, xName); suit != m_suits.end()) return suit->get();
  return m_suits.emplace_back(std::make_unique<XPipeSuit>(xName, this)).get();
}

void XPipeManager::removePipeSuit(const std::string& xName) {
  std::unique_ptr<XPipeSuit> removed;  // once the lock has been released
  const std::lock_guard lock(m_guard);
  const auto suit = findSuit(m_suits, xName);
  if (suit == m_suits.end()) return;
  removed = std::move(*suit);
  m_suits.erase(suit);
}

// In the order in which they were made.
void XPipeManager::cleanup() {
  std::vector<std::unique_ptr<XPipeSuit>> removed;
  {
    const std::lock_guard lock(m_guard);
    removed.swap(m_suits);
  }
  for (std::unique_ptr<XPipeSuit>& suit : removed) suit.reset();
}
