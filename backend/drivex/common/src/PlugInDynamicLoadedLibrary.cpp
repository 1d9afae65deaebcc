#include "PlugInDynamicLoadedLibrary.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kSuffix = ".dylib";
constexpr std::size_t kMessageBytes = 1024;  // with the terminating NUL

std::string loaderError() {
  const char* text = ::dlerror();
  return text ? text : "";
}

// Why opening the path failed, as an error number. Not every platform's loader leaves one behind, but a file that
// cannot be read says so itself.
int openError(int errnoAfter, const std::string& path) {
  if (errnoAfter != 0 || path.find('/') == std::string::npos) return errnoAfter;
  return ::access(path.c_str(), R_OK) == 0 ? 0 : errno;
}

}  // namespace

std::string PlugInDecorateDynamicPathName(const std::string& name) {
  if (name.size() > kSuffix.size() && name.ends_with(kSuffix)) return name;
  const std::size_t baseName = name.rfind('/') + 1;  // 0 without a "/"
  return name.substr(0, baseName) + "lib" + name.substr(baseName) + std::string(kSuffix);
}

PlugInDynamicLoadedLibrary::PlugInDynamicLoadedLibrary(const std::string& path, int mode)
    : m_handle(nullptr),
      m_mode(mode),
      m_openFlags(m_mode == 1 ? RTLD_LAZY | RTLD_GLOBAL : RTLD_NOW | RTLD_GLOBAL),
      m_path(path) {}

PlugInDynamicLoadedLibrary::~PlugInDynamicLoadedLibrary() = default;

int PlugInDynamicLoadedLibrary::LoadLibraryNow() {
  m_error.clear();
  if (m_handle) return 0;

  errno = 0;
  m_handle = ::dlopen(m_path.c_str(), m_openFlags);
  if (m_handle) return 0;

  const int err = openError(errno, m_path);
  std::string message;
  if (err != 0) message = "dlopen errno(" + std::to_string(err) + "): " + std::strerror(err) + '\n';
  message += loaderError();
  m_error = message.substr(0, kMessageBytes - 1);
  return -1;
}

void* PlugInDynamicLoadedLibrary::GetSymbolAddress(const std::string& name) {
  if (LoadLibraryNow() != 0) return nullptr;
  void* address = ::dlsym(m_handle, name.c_str());
  if (!address) m_error = loaderError();
  return address;
}

std::string PlugInDynamicLoadedLibrary::GetErrorString() const { return m_error; }
