#include "otherprocess.h"

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

namespace otherprocess {

namespace {

fs::path directoryOf(pid_t process) { return fs::path("/proc") / std::to_string(process); }

// The word behind the name at the beginning of a line.
std::optional<std::string> statusWord(pid_t process, const std::string& name) {
  std::ifstream file(directoryOf(process) / "status");
  for (std::string key, value; file >> key && std::getline(file >> std::ws, value);) {
    if (key == name) return value;
  }
  return std::nullopt;
}

std::optional<bool> hasSignal(pid_t process, const std::string& set, int signal) {
  const std::optional<std::string> word = statusWord(process, set);
  if (!word) return std::nullopt;
  return (std::stoull(*word, nullptr, 16) >> (signal - 1) & 1U) != 0;
}

}  // namespace

std::optional<std::vector<std::string>> Descriptors(pid_t process) {
  std::error_code failed;
  std::vector<std::string> targets;
  for (const fs::directory_entry& entry : fs::directory_iterator(directoryOf(process) / "fd", failed)) {
    std::error_code gone;
    targets.push_back(fs::read_symlink(entry.path(), gone).string());
  }
  if (failed) return std::nullopt;
  return targets;
}

std::optional<long> ResidentBytes(pid_t process) {
  long pages = 0;
  long resident = 0;
  if (!(std::ifstream(directoryOf(process) / "statm") >> pages >> resident)) return std::nullopt;
  return resident * ::sysconf(_SC_PAGESIZE);
}

std::optional<double> ProcessorSeconds(pid_t process) {
  std::ifstream file(directoryOf(process) / "stat");
  std::string text;
  if (!std::getline(file, text)) return std::nullopt;
  std::istringstream fields(text.substr(text.rfind(')') + 1));  // the name before may hold blanks
  constexpr int kBefore = 11;
  std::string skipped;
  for (int i = 0; i < kBefore; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  if (!(fields >> user >> system)) return std::nullopt;
  return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

std::optional<bool> IsDeafTo(pid_t process, int signal) {
  const std::optional<bool> isBlocked = hasSignal(process, "SigBlk:", signal);
  const std::optional<bool> isIgnored = hasSignal(process, "SigIgn:", signal);
  if (!isBlocked || !isIgnored) return std::nullopt;
  return *isBlocked || *isIgnored;
}

}  // namespace otherprocess
