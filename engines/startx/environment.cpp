#include "environment.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>

#ifdef __APPLE__
#include <crt_externs.h>
#define environ (*_NSGetEnviron())
#endif

namespace {

constexpr std::string_view kSearchPaths[] = {"PATH", "PYTHONPATH", "CLASSPATH", "DYLD_LIBRARY_PATH", "LD_LIBRARY_PATH"};

bool isSearchPath(std::string_view name) {
  for (const std::string_view path : kSearchPaths) {
    if (path == name) return true;
  }
  return false;
}

std::string withoutEmptyElements(std::string_view path) {
  std::string result;
  while (!path.empty()) {
    const std::string_view element = path.substr(0, path.find(':'));
    path.remove_prefix(std::min(path.size(), element.size() + 1));
    if (element.empty()) continue;
    if (!result.empty()) result += ':';
    result += element;
  }
  return result;
}

}  // namespace

void StandAlone() {
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) (void)::sigaction(signal, &defaultAction, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)::setpgid(0, 0);
  if (const int nothing = ::open("/dev/null", O_RDONLY); nothing > STDIN_FILENO) {
    ::dup2(nothing, STDIN_FILENO);
    ::close(nothing);
  }
}

void ClearEnvironment() {
  std::map<std::string, std::string, std::less<>> variables;
  for (char** entry = environ; entry && *entry; ++entry) {
    const std::string_view text = *entry;
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string_view::npos) continue;
    const std::string_view name = text.substr(0, equals);
    const std::string_view value = text.substr(equals + 1);
    variables.emplace(name, isSearchPath(name) ? withoutEmptyElements(value) : std::string(value));
  }
  for (const auto& [name, value] : variables) {
    (void)::unsetenv(name.c_str());  // all of them: setenv would replace one
    (void)::setenv(name.c_str(), value.c_str(), 1);
  }
}
