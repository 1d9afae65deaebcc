#include "levels.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <string_view>
#include <utility>

#include "xpipemanager.h"

namespace fs = std::filesystem;

namespace {

// A file system's clock may go in steps of some milliseconds: a directory that changed a moment ago may change again
// without showing it.
constexpr long kSettledNs = 50'000'000;

timespec lastChange(const std::string& directory) {
  struct stat status {};
  (void)::stat(directory.c_str(), &status);
#ifdef __APPLE__
  return status.st_mtimespec;
#else
  return status.st_mtim;
#endif
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

int Levels::levelOf(const std::string& fileName) const {
  if (!fileName.starts_with(m_prefix) || !fileName.ends_with(XPipes::SYNTAX_RESULT_PIPE)) return -1;
  const char* const begin = fileName.data() + m_prefix.size();
  const char* const end = fileName.data() + fileName.size() - XPipes::SYNTAX_RESULT_PIPE.size();
  int level = -1;
  const auto [last, error] = std::from_chars(begin, std::max(begin, end), level);
  return error == std::errc() && last == end ? level : -1;
}

int Levels::Highest() {
  const timespec change = lastChange(m_directory);
  if (areEqual(change, m_lastChange)) return m_highest;
  m_highest = -1;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(m_directory, ignored)) {
    m_highest = std::max(m_highest, levelOf(entry.path().filename().string()));
  }
  m_lastChange = isSettled(change) ? change : timespec{};
  return m_highest;
}

void Levels::RemoveAllPipes() const {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(m_directory, ignored)) {
    if (entry.path().filename().string().starts_with(m_prefix) && entry.is_fifo(ignored)) {
      fs::remove(entry.path(), ignored);
    }
  }
}
