#include "inpstatisticsx.h"

#include <cxxabi.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "dxtraceline.h"
#include "hoststateguard.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"

namespace {

// The runtime inside the plug-in library reads these when it starts, and for the rest of the process.
void putIntoEnvironment(const std::map<std::string, std::string>& variables) {
  for (const auto& [name, value] : variables) {
    (void)::setenv(name.c_str(), value.c_str(), 1);  // a name that no environment can hold is left out
  }
}

// What a guarded entry point answers. An exception of the plug-in's own must not reach the host; the unwinding of a
// cancelled thread looks like one and has to go on.
template <typename Guarded>
int codeOf(const char* name, Guarded guarded) {
  try {
    return guarded();
#ifdef __GLIBCXX__
  } catch (const abi::__forced_unwind&) {
    throw;
#endif
  } catch (...) {
    TraceLine({"The plug-in's ", name, " threw an exception."});
    return vexadx::kFailed;
  }
}

}  // namespace

InpStatisticsX::InpStatisticsX(XConfigOptions* options, bool vexaDrive)
    : StatisticsX(vexaDrive),
      m_setupDxcallback(nullptr),
      m_initEmbeddedX(nullptr),
      m_executeX(nullptr),
      m_stopEmbeddedX(nullptr),
      m_setPostVexaOutput(nullptr),
      m_preAction(nullptr),
      m_postAction(nullptr),
      m_options(options),
      m_library(nullptr),
      m_lastCode(vexadx::kSuccess),
      m_guarding(vexadx::HostStateGuarding::kArithmetic) {
  (void)loadXlib();  // every later operation answers the code
}

InpStatisticsX::~InpStatisticsX() {
  (void)stop_embedded_x();
  delete m_library;
}

int InpStatisticsX::loadXlib() {
  try {
    if (!m_library && !openLibrary()) return m_lastCode;
    if (m_lastCode != vexadx::kSuccess) return m_lastCode;
    return resolveEntryPoints();
  } catch (const std::bad_alloc&) {
    m_initEmbeddedX = nullptr;  // nothing starts on some of the entry points
    m_lastCode = vexadx::kLibraryNotLoaded;
    TraceLine("No memory for the library.");
    return m_lastCode;
  }
}

bool InpStatisticsX::openLibrary() {
  const std::string name = m_options->GetXLibName();
  if (name.empty()) {
    m_lastCode = vexadx::kNoLibraryName;
    TraceLine("Configration file vexadxcfg.ini is invalid because the LIB_NAME is NULL.");
    return false;
  }
  putIntoEnvironment(m_options->GetXEnvVars());

  const std::string path = vexadx::PluginLibraryPath(*m_options, name);
  auto library = std::make_unique<PlugInDynamicLoadedLibrary>(path, 0);
  int failed = 0;
  {
    const HostStateGuard guard("the load of the library", HostStateGuard::OnChange::kPutBack, &m_hostStateChanges);
    failed = library->LoadLibraryNow();
  }
  if (failed != 0) {
    m_lastCode = vexadx::kLibraryNotLoaded;
    TraceLine(library->GetErrorString());
    TraceLine({"Load library from ", path, " failed."});
    return false;
  }
  m_library = library.release();
  return true;
}

int InpStatisticsX::resolveEntryPoints() {
  // In the order of vexadx::kPluginEntryPoints. An address is stored as the data pointer that the loader answers.
  const std::array<void*, vexadx::kPluginEntryPoints.size()> slots{
      &m_setupDxcallback, &m_initEmbeddedX, &m_executeX,          &m_stopEmbeddedX,
      &m_preAction,       &m_postAction,    &m_setPostVexaOutput,
  };
  for (std::size_t i = 0; i < slots.size(); ++i) {
    const auto& [name, mandatory] = vexadx::kPluginEntryPoints[i];
    void* address = m_library->GetSymbolAddress(name);
    if (!address && mandatory) {
      m_lastCode = vexadx::kLibraryNotLoaded;
      TraceLine(m_library->GetErrorString());
      return m_lastCode;
    }
    std::memcpy(slots[i], &address, sizeof address);
  }
  return m_lastCode;
}

// An entry point around the blocks.
template <typename EntryPoint>
int InpStatisticsX::callAround(const char* name, EntryPoint entry) {
  return codeOf(name, [&] {
    const HostStateGuard guard(name, HostStateGuard::OnChange::kPutBack, &m_hostStateChanges);
    return entry();
  });
}

// One of those that make up a run.
template <typename EntryPoint>
int InpStatisticsX::callWithin(const char* name, EntryPoint entry) {
  using OnChange = HostStateGuard::OnChange;
  return codeOf(name, [&] {
    if (m_guarding == vexadx::HostStateGuarding::kArithmetic) {
      const FloatingPointGuard guard(name, &m_hostStateChanges);
      return entry();
    }
    const bool putBack = m_guarding == vexadx::HostStateGuarding::kRestore;
    const HostStateGuard guard(name, putBack ? OnChange::kPutBack : OnChange::kLeave, &m_hostStateChanges);
    return entry();
  });
}

int InpStatisticsX::x_init_embedded_x(int argc, char** argv) {
  if (m_initEmbeddedX) m_lastCode = callAround("init_embedded_x", [&] { return m_initEmbeddedX(argc, argv); });
  return m_lastCode;
}

int InpStatisticsX::x_execute_x(char* syntax) {
  if (m_executeX) m_lastCode = callWithin("execute_x", [&] { return m_executeX(syntax); });
  return m_lastCode;
}

int InpStatisticsX::x_stop_embedded_x() {
  if (m_stopEmbeddedX) m_lastCode = callAround("stop_embedded_x", m_stopEmbeddedX);
  return m_lastCode;
}

int InpStatisticsX::x_pre_action() {
  if (m_preAction) m_lastCode = callWithin("pre_action", m_preAction);
  return m_lastCode;
}

int InpStatisticsX::x_post_action() {
  if (m_postAction) m_lastCode = callWithin("post_action", m_postAction);
  return m_lastCode;
}

void InpStatisticsX::x_setup_dxcallback(void* callback) {
  if (!m_setupDxcallback) return;
  (void)callAround("setup_dxcallback", [&] {
    m_setupDxcallback(callback);
    return vexadx::kSuccess;
  });
}

void InpStatisticsX::x_set_post_vexa_output(int (*output)(const char* text, int length)) {
  if (!m_setPostVexaOutput) return;
  (void)callAround("set_post_vexa_output", [&] {
    m_setPostVexaOutput(output);
    return vexadx::kSuccess;
  });
}

int InpStatisticsX::x_get_library_lock() { return 0; }
int InpStatisticsX::x_release_library_lock() { return 0; }

namespace vexadx {

void GuardHostState(InpStatisticsX& engine, HostStateGuarding guarding) { engine.m_guarding = guarding; }

std::vector<std::string> HostStateChanges(InpStatisticsX& engine) {
  return std::exchange(engine.m_hostStateChanges, {});
}

}  // namespace vexadx
