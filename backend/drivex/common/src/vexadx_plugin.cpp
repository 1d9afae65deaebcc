#include "vexadx_plugin.h"

#include "PlugInDynamicLoadedLibrary.h"
#include "dxglobals.h"
#include "dxutils.h"
#include "xconfigoptions.h"

namespace vexadx {

std::string PluginLibraryPath(XConfigOptions& options, const std::string& libName) {
  std::string path = options.GetXLibPath();
  if (path.empty()) path = std::string(GetVEXAHOME()) + "/lib/";
  DecoratePathEnd(path);
  return PlugInDecorateDynamicPathName(path + libName);
}

}  // namespace vexadx
