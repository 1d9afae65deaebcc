#include "installation.h"

#ifdef __APPLE__
#include <mach-o/dyld.h>

#include <cstdint>
#endif

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "dxglobals.h"
#include "vexadxconfigreader.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

fs::path ProgramPath() {
#ifdef __APPLE__
  std::string path(4096, '\0');
  auto size = static_cast<std::uint32_t>(path.size());
  if (::_NSGetExecutablePath(path.data(), &size) != 0) return {};
  return fs::canonical(path.c_str());
#else
  return fs::read_symlink("/proc/self/exe");
#endif
}

std::string FirstBytes(const std::string& path, std::size_t count) {
  std::ifstream file(path, std::ios::binary);
  std::string bytes(count, '\0');
  file.read(bytes.data(), static_cast<std::streamsize>(count));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

bool IsReadableFile(const std::string& path) {
  std::error_code ignored;
  return fs::is_regular_file(path, ignored) && std::ifstream(path).is_open();
}

std::string ConfigurationPath() { return VexaDXConfigReader::GetInstance()->GetConfigFullPath(); }

}  // namespace

std::string TakeHome() {
  const char* home = std::getenv("VEXA_HOME");
  if (!home || *home == '\0') {
    const std::string derived = ProgramPath().parent_path().parent_path().string();
    (void)::setenv("VEXA_HOME", derived.c_str(), 1);
    SetVEXAHOME(derived.c_str());
  }
  return GetVEXAHOME();
}

std::string CheckConfiguration(Report& report) {
  std::string path = ConfigurationPath();
  if (!IsReadableFile(path)) {
    throw Problem(kWrongConfiguration, "there is no readable configuration file " + path,
                  std::string("set VEXA_HOME (now ") + GetVEXAHOME() +
                      ") to the directory that holds bin/vexadxcfg.ini, or put the file there");
  }
  if (FirstBytes(path, kByteOrderMark.size()) == kByteOrderMark) {
    report.Warning(path + " begins with a byte-order mark, so a section on its first line is not found",
                   "save it as UTF-8 without a byte-order mark, or put an empty line before the section");
  }
  return path;
}

std::vector<std::string> ConfiguredEngines() {
  std::vector<std::string> names = VexaDXConfigReader::GetInstance()->GetSupportLanguage();
  std::erase(names, "");
  if (names.empty()) {
    throw Problem(kWrongConfiguration, ConfigurationPath() + " names no engine",
                  "write the engines' names as X=PYTHON into its section [SUPPORTED_LANG]");
  }
  return names;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

XConfigOptions& EngineOptions(const std::string& name) {
  VexaDXConfigReader* reader = VexaDXConfigReader::GetInstance();
  if (!reader->IsSupportLanguage(name)) {
    throw Problem(
        kWrongUsage, "there is no engine " + name + "; configured: " + Joined(ConfiguredEngines()),
        "choose one of these, or add " + name + " to X= in the section [SUPPORTED_LANG] of " + ConfigurationPath());
  }
  return *reader->GetOptions(name);
}
