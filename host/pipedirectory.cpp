#include "pipedirectory.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string_view>

#include "problem.h"

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kName = "vexadx-";

// Whether the name says that a process made it which is there no more.
bool isLeftBehind(std::string_view name) {
  if (!name.starts_with(kName)) return false;
  name.remove_prefix(kName.size());
  pid_t process = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), process);
  return error == std::errc() && process > 0 && end != name.data() + name.size() && *end == '-' &&
         ::kill(process, 0) != 0 && errno == ESRCH;
}

bool isOurDirectory(const fs::path& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid();
}

void removeThoseLeftBehind(const fs::path& parent) {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(parent, ignored)) {
    if (isLeftBehind(entry.path().filename().string()) && isOurDirectory(entry.path())) {
      fs::remove_all(entry.path(), ignored);
    }
  }
}

}  // namespace

PipeDirectory::PipeDirectory() {
  std::error_code failed;
  const fs::path parent = fs::temp_directory_path(failed);
  removeThoseLeftBehind(parent);
  m_path = (parent / kName).string() + std::to_string(::getpid()) + "-XXXXXX";
  if (failed || !::mkdtemp(m_path.data())) {
    throw Problem(kNotStarted,
                  "there is no directory for the engine's pipes: " +
                      (failed ? failed.message() : m_path + ": " + std::strerror(errno)),
                  "set TMPDIR to a directory that can be written to");
  }
  m_path += '/';
}

void PipeDirectory::Remove() const {
  std::error_code ignored;
  fs::remove_all(m_path, ignored);
}
