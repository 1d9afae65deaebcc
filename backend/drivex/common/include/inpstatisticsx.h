#pragma once

#include <string>
#include <vector>

#include "PlugInDynamicLoadedLibrary.h"
#include "statisticsx.h"
#include "vexadx_export.h"
#include "vexadx_hoststate.h"
#include "xconfigoptions.h"

// An engine inside the host process: its plug-in library is loaded when the engine is made and stays loaded for the
// life of the process. A library that cannot be used does not make the constructor fail; every operation whose entry
// point is missing then answers 99118 (no library name configured) or 99114 (not loadable, or an entry point missing).
// The entry points run on the calling thread; what they change of the host's own state is put back as
// vexadx_hoststate.h says.
class VEXADX_API InpStatisticsX : public StatisticsX {
 public:
  // The option set is not owned and must outlive the engine. Its environment variables are put into the environment
  // of the process, for good.
  InpStatisticsX(XConfigOptions* options, bool vexaDrive);
  ~InpStatisticsX() override;  // stops the engine

  // Loads the library, at the first call, and resolves the entry points: 0, 99114 or 99118.
  int loadXlib();

 protected:
  int x_init_embedded_x(int argc, char** argv) override;
  int x_execute_x(char* syntax) override;
  int x_stop_embedded_x() override;
  int x_pre_action() override;
  int x_post_action() override;
  void x_setup_dxcallback(void* callback) override;
  void x_set_post_vexa_output(int (*output)(const char* text, int length)) override;
  int x_get_library_lock() override;
  int x_release_library_lock() override;

 private:
  friend void vexadx::GuardHostState(InpStatisticsX& engine, vexadx::HostStateGuarding guarding);
  friend std::vector<std::string> vexadx::HostStateChanges(InpStatisticsX& engine);

  VEXADX_HIDDEN bool openLibrary();  // false with the last code set
  VEXADX_HIDDEN int resolveEntryPoints();
  template <typename EntryPoint>
  VEXADX_HIDDEN int callAround(const char* name, EntryPoint entry);
  template <typename EntryPoint>
  VEXADX_HIDDEN int callWithin(const char* name, EntryPoint entry);

  void (*m_setupDxcallback)(void* callback);
  int (*m_initEmbeddedX)(int argc, char** argv);
  int (*m_executeX)(char* syntax);
  int (*m_stopEmbeddedX)();
  void (*m_setPostVexaOutput)(int (*output)(const char* text, int length));
  int (*m_preAction)();
  int (*m_postAction)();
  XConfigOptions* m_options;              // not owned
  PlugInDynamicLoadedLibrary* m_library;  // owned
  int m_lastCode;                         // of the entry point called last, or of a failed load
  vexadx::HostStateGuarding m_guarding;
  std::vector<std::string> m_hostStateChanges;  // since they were last asked for
};
