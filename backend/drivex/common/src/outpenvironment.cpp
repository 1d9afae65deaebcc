#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#ifdef __APPLE__
#include <crt_externs.h>
#else
#include <unistd.h>
#endif

#include "dxglobals.h"
#include "dxutils.h"
#include "javaextensionsmb.h"
#include "outpstatisticsx.h"
#include "xpipemanager.h"

// The environment of an out-of-process engine's process. Names may come twice; the order says which counts.

namespace {

using Variables = std::map<std::string, std::string>;

constexpr std::string_view kLibraryPath = "DYLD_LIBRARY_PATH";

char** hostEnvironment() {
#ifdef __APPLE__
  return *_NSGetEnviron();  // a shared library has no other way to it there
#else
  return environ;
#endif
}

// The host's value, or `otherwise`.
std::string hostValue(std::string_view name, const std::string& otherwise = "") {
  const char* const value = std::getenv(std::string(name).c_str());
  return value ? value : otherwise;
}

bool hostHas(const char* name) { return std::getenv(name) != nullptr; }

// A colon and the host's value, or nothing.
std::string hostSuffix(const char* name) { return hostHas(name) ? ':' + hostValue(name) : ""; }

class Entries {
 public:
  Entries(XCmdArgument& list, const Variables& section) : m_list(list), m_section(section) {}

  bool InSection(std::string_view name) const { return m_section.contains(std::string(name)); }

  void Push(std::string_view name, const std::string& value) {
    m_list.pushArgument(std::string(name) + '=' + value, false);
  }

  void PushUnlessInSection(std::string_view name, const std::string& value) {
    if (!InSection(name)) Push(name, value);
  }

 private:
  XCmdArgument& m_list;
  const Variables& m_section;
};

void pushPython(Entries& entries, const std::string& xName, const std::string& home, const Variables& section) {
  entries.Push("PYTHONHOME", home);

  const bool isPython2 = xName == "PYTHON";
  std::string path = std::string(GetVEXAHOME()) + "/../../Resources/" +
                     (isPython2 ? "Python/lib/python2.7" : "Python3/lib/python3.8") + "/site-packages";
  const auto configured = section.find("PYTHONPATH");
  path += configured != section.end() ? ':' + configured->second : hostSuffix("PYTHONPATH");
  entries.Push("PYTHONPATH", path);

  entries.PushUnlessInSection("BACKEND_PYTHON_SCRIPT", "True");
  if (!entries.InSection("CPRLMX_HOST") || !entries.InSection("CPRLMX_PORT")) {
    const bool isKnown = hostHas("TSOH") && hostHas("TROP");
    entries.Push("CPRLMX_HOST", isKnown ? hostValue("TSOH") : "127.0.0.1");
    entries.Push("CPRLMX_PORT", isKnown ? hostValue("TROP") : "0");
  }
  entries.PushUnlessInSection("JAVA_CLIENT_PORT", hostValue("JAVA_CLIENT_PORT", "0"));
}

// The archive of a packaged command in each of the directories.
std::string archives(const std::string& directories, const std::string& command) {
  std::string path;
  for (std::size_t begin = 0; begin < directories.size() || begin == 0;) {
    const std::size_t colon = directories.find(':', begin);
    path += directories.substr(begin, colon - begin) + '/' + command + ".jar";
    if (colon == std::string::npos) break;
    path += ':';
    begin = colon + 1;
  }
  return path;
}

std::string javaClassPath() {
  JavaExtensionSmb message;
  const std::string extension = message.IsPackageMode() ? archives(message.GetExtensionPath(), message.GetCommandName())
                                                        : message.GetExtensionPath();
  return std::string(GetVEXAHOME()) + "/bin/vexajavaplugin.jar:" + extension + hostSuffix("CLASSPATH");
}

}  // namespace

void OutpStatisticsX::pushEnv(XCmdArgument& env) {
  const std::string& xName = m_options->XName();
  const Variables& section = m_options->GetXEnvVars();
  std::string home = m_options->GetXHome();
  if (home.ends_with('/')) home.pop_back();

  Entries entries(env, section);
  for (const auto& [name, value] : section) entries.Push(name, value);
  entries.PushUnlessInSection("VEXA_HOME", GetVEXAHOME());
  entries.PushUnlessInSection("VEXADXTEMP", GetXPipeManager()->getPipePath());
  if (xName == "R") {
    entries.Push("R_HOME", home);
  } else if (xName.find("PYTHON") != std::string::npos) {
    pushPython(entries, xName, home, section);
  } else if (xName == "JAVAEXTENSION") {
    entries.Push("CLASSPATH", javaClassPath());
  } else {
    entries.PushUnlessInSection(kLibraryPath, hostValue(kLibraryPath));
  }

  for (char** entry = hostEnvironment(); entry && *entry; ++entry) {
    const std::string_view text = *entry;
    if (text.substr(0, text.find('=')) != kLibraryPath) env.pushArgument(*entry, false);
  }
  if (xName != "JAVAEXTENSION") entries.PushUnlessInSection(kLibraryPath, home + "/lib:" + hostValue(kLibraryPath));
}
