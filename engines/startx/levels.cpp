#include "levels.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "xpipemanager.h"

namespace {

// A file system's clock may go in steps of some milliseconds: a directory that changed a moment ago may change again
// without showing it.
constexpr long kSettledNs = 50'000'000;

// So many nested runs may be registered and not begun.
constexpr int kNotRun = 8;

timespec lastChange(const std::string& directory) {
  struct stat status {};
  (void)::stat(directory.c_str(), &status);
#ifdef __APPLE__
  return status.st_mtimespec;
#else
  return status.st_mtim;
#endif
}

bool isFifo(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISFIFO(status.st_mode);
}

// Another user's is not ours to remove. The superuser is no other user, nor is anybody to it.
bool isOneOfOurs(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISFIFO(status.st_mode)) return false;
  const uid_t user = ::geteuid();
  return user == 0 || status.st_uid == user || status.st_uid == 0;
}

bool isSettled(const timespec& change) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  const long seconds = now.tv_sec - change.tv_sec;
  return seconds > 1 || seconds * 1'000'000'000 + now.tv_nsec - change.tv_nsec > kSettledNs;
}

bool areEqual(const timespec& a, const timespec& b) { return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec; }

}  // namespace

Levels::Levels(std::string directory, std::string prefix)
    : m_directory(std::move(directory)), m_prefix(std::move(prefix)) {}

std::string Levels::pipe(int level, const std::string& role) const {
  return m_directory + m_prefix + std::to_string(level) + role;
}

int Levels::Highest(int innermost) {
  const timespec change = lastChange(m_directory);
  if (innermost == m_innermost && areEqual(change, m_lastChange)) return m_highest;
  m_reached = std::max(m_reached.load(), innermost + kNotRun);
  m_highest = innermost + kNotRun;
  while (m_highest >= 0 && !isFifo(pipe(m_highest, XPipes::SYNTAX_RESULT_PIPE))) --m_highest;
  m_innermost = innermost;
  m_lastChange = isSettled(change) ? change : timespec{};
  return m_highest;
}

void Levels::RemovePipes() const {
  std::vector<std::string> pipes;
  for (const char* name : {"_s", "_c", "P2C", "C2P"}) pipes.push_back(m_directory + m_prefix + name);
  for (int level = 0; level <= m_reached; ++level) {
    for (const std::string* role :
         {&XPipes::SYNTAX_PIPE, &XPipes::SYNTAX_RESULT_PIPE, &XPipes::XDAPI_PIPE, &XPipes::XDAPI_RESULT_PIPE}) {
      pipes.push_back(pipe(level, *role));
    }
  }
  for (const std::string& path : pipes) {
    if (isOneOfOurs(path)) (void)::unlink(path.c_str());
  }
}
