#pragma once

#include <atomic>
#include <ctime>
#include <string>

// The nesting level at which the host begins a run. A command does not carry it: it is the highest one whose result
// pipe the host has made.
//
// The name of another X may begin with this one's and a digit, and its pipes with names like those of a deep level of
// this one. So only levels within reach of the active ones are looked for.
class Levels {
 public:
  // The directory of the pipes, and what the names of the X's pipes begin with there.
  Levels(std::string directory, std::string prefix);

  // -1 when there is no such pipe. Of the active runs `innermost` is the deepest level, 0 when none is nested.
  int Highest(int innermost);

  // Removes the X's pipes, whoever made them.
  void RemovePipes() const;

 private:
  std::string pipe(int level, const std::string& role) const;

  const std::string m_directory;
  const std::string m_prefix;
  int m_highest = -1;
  int m_innermost = -1;           // for which that holds
  std::atomic<int> m_reached{0};  // the deepest level that was ever looked for. For RemovePipes, on any thread
  timespec m_lastChange{};        // of the directory, when it was
};
