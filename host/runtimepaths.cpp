#include "runtimepaths.h"

#include <cstdlib>
#include <string>

#include "plugincheck.h"

namespace {

constexpr char kRPackages[] = "R_LIBS";

void TakePackagePath(XConfigOptions& options) {
  std::string path = options.GetXPkgPath();
  if (path.empty()) return;
  const char* const others = std::getenv(kRPackages);
  if (others && *others) path += std::string(":") + others;
  (void)::setenv(kRPackages, path.c_str(), 1);
}

}  // namespace

void TakeRuntimePaths(XConfigOptions& options, bool isInThisProcess) {
  if (!plugincheck::UsesPreferences(options)) return;
  const bool isR = options.XName() == "R";
  if (isR) TakePackagePath(options);
  if (!isInThisProcess) return;
  if (const std::string home = options.GetXHome(); !home.empty()) {
    (void)::setenv(isR ? "R_HOME" : "PYTHONHOME", home.c_str(), 1);
  }
}
