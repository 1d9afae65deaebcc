#pragma once

#include <string>

#include "vexadx_export.h"

// The platform's file name of a shared library: "lib" is put before the last part of the path and ".dylib" behind it,
// unless it already ends in ".dylib". "/opt/r/lib/R" gives "/opt/r/lib/libR.dylib"; a "lib" that is already there is
// not looked for.
VEXADX_API std::string PlugInDecorateDynamicPathName(const std::string& name);

// One shared library, opened on demand and then kept open for the life of the process: addresses stay valid after the
// object is gone. Not for use from several threads at once.
class VEXADX_API PlugInDynamicLoadedLibrary {
 public:
  // Opens nothing. Mode 1 binds the library's symbols lazily, every other mode at once; always globally.
  PlugInDynamicLoadedLibrary(const std::string& path, int mode);
  ~PlugInDynamicLoadedLibrary();
  PlugInDynamicLoadedLibrary(const PlugInDynamicLoadedLibrary&) = delete;
  PlugInDynamicLoadedLibrary& operator=(const PlugInDynamicLoadedLibrary&) = delete;

  // 0 when the library is open, -1 when it could not be opened; the next call tries again.
  int LoadLibraryNow();

  // The address of a symbol, opening the library first; null when either fails.
  void* GetSymbolAddress(const std::string& name);

  // A copy of the text of the last failure; empty after a success.
  std::string GetErrorString() const;

 private:
  void* m_handle;
  int m_mode;
  int m_openFlags;
  std::string m_path;
  std::string m_error;
};
