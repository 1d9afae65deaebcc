#pragma once

#include <string>

#include "temphome.h"

// Lets a test and the Python blocks that it runs wait for each other, in whatever processes they are: each Open lets
// one Await pass, whichever comes first.
class Gate {
 public:
  Gate(const TempDir& directory, const std::string& name);
  ~Gate();
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void Open() const;
  void Await() const;  // not for longer than a minute: then the test fails with an exception

  // The same as a line of a block.
  std::string OpenInPython() const { return "open('" + m_path + "', 'r+b', 0).write(b'x')\n"; }
  std::string AwaitInPython() const { return "open('" + m_path + "', 'r+b', 0).read(1)\n"; }

 private:
  const std::string m_path;
  int m_pipe;  // for both directions, so that no open of it ever waits
};
