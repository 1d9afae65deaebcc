#include "inpstatisticsx.h"

#include <cxxabi.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "dxtraceline.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"

namespace {

// The runtime inside the plug-in library reads these when it starts, and for the rest of the process.
void putIntoEnvironment(const std::map<std::string, std::string>& variables) {
  for (const auto& [name, value] : variables) {
    (void)::setenv(name.c_str(), value.c_str(), 1);  // a name that no environment can hold is left out
  }
}

// The code of an entry point. An exception of the plug-in's own must not reach the host; the unwinding of a cancelled
// thread looks like one and has to go on.
template <typename EntryPoint>
int codeOf(const char* name, EntryPoint entry) {
  try {
    return entry();
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
      m_lastCode(vexadx::kSuccess) {
  (void)loadXlib();  // every later operation answers the code
}

InpStatisticsX::~InpStatisticsX() {
  (void)stop_embedded_x();
  delete m_library;
}

int InpStatisticsX::loadXlib() {
  if (!m_library && !openLibrary()) return m_lastCode;
  if (m_lastCode != vexadx::kSuccess) return m_lastCode;
  return resolveEntryPoints();
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
  if (library->LoadLibraryNow() != 0) {
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

int InpStatisticsX::x_init_embedded_x(int argc, char** argv) {
  if (m_initEmbeddedX) m_lastCode = codeOf("init_embedded_x", [&] { return m_initEmbeddedX(argc, argv); });
  return m_lastCode;
}

int InpStatisticsX::x_execute_x(char* syntax) {
  if (m_executeX) m_lastCode = codeOf("execute_x", [&] { return m_executeX(syntax); });
  return m_lastCode;
}

int InpStatisticsX::x_stop_embedded_x() {
  if (m_stopEmbeddedX) m_lastCode = codeOf("stop_embedded_x", m_stopEmbeddedX);
  return m_lastCode;
}

int InpStatisticsX::x_pre_action() {
  if (m_preAction) m_lastCode = codeOf("pre_action", m_preAction);
  return m_lastCode;
}

int InpStatisticsX::x_post_action() {
  if (m_postAction) m_lastCode = codeOf("post_action", m_postAction);
  return m_lastCode;
}

void InpStatisticsX::x_setup_dxcallback(void* callback) {
  if (!m_setupDxcallback) return;
  (void)codeOf("setup_dxcallback", [&] {
    m_setupDxcallback(callback);
    return vexadx::kSuccess;
  });
}

void InpStatisticsX::x_set_post_vexa_output(int (*output)(const char* text, int length)) {
  if (!m_setPostVexaOutput) return;
  (void)codeOf("set_post_vexa_output", [&] {
    m_setPostVexaOutput(output);
    return vexadx::kSuccess;
  });
}

int InpStatisticsX::x_get_library_lock() { return 0; }
int InpStatisticsX::x_release_library_lock() { return 0; }
