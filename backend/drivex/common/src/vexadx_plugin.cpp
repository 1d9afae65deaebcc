#include "vexadx_plugin.h"

#include "PlugInDynamicLoadedLibrary.h"
#include "dxglobals.h"
#include "dxutils.h"
#include "xconfigoptions.h"

namespace vexadx {

std::string PluginLibraryPath(XConfigOptions& options, const std::string& libName) {
  return PluginLibraryFile(options.GetXLibPath(), libName);
}

std::string PluginLibraryFile(const std::string& directory, const std::string& libName) {
  std::string path = directory.empty() ? std::string(GetVEXAHOME()) + "/lib/" : directory;
  DecoratePathEnd(path);
  return PlugInDecorateDynamicPathName(path + libName);
}

std::string StartArguments(XConfigOptions& options) {
  if (const std::string& configured = options.GetXArgs(); !configured.empty()) return configured;
  if (options.XName() == "R") return "--silent --no-save";
  if (options.XName() == "JAVAEXTENSION") return "JavaExtension";
  return "";
}

}  // namespace vexadx
