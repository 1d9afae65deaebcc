#pragma once

#include <ctime>
#include <string>

// The nesting level at which the host begins a run. A command does not carry it: it is the highest one whose result
// pipe the host has made.
class Levels {
 public:
  // The directory of the pipes, and what the names of the X's pipes begin with there.
  Levels(std::string directory, std::string prefix);

  // -1 when there is no such pipe.
  int Highest();

  // Removes every pipe of the X, whoever made it.
  void RemoveAllPipes() const;

 private:
  // What a level's pipe is called behind the prefix; -1 for another file.
  int levelOf(const std::string& fileName) const;

  const std::string m_directory;
  const std::string m_prefix;
  int m_highest = -1;
  timespec m_lastChange{};  // of the directory, when the highest level was looked for
};
