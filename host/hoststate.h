#pragma once

#include <string>
#include <vector>

// What is the host's own in a process, as it is at one moment: signal dispositions and mask, locale, floating-point
// control, working directory, file-creation mask and the three standard streams.
class HostState {
 public:
  HostState();

  // What is different at the later moment, in words: "the locale, the file-creation mask"; empty: nothing.
  std::string ChangesTo(const HostState& later) const;

 private:
  struct Item {
    std::string name;
    std::string value;
  };
  std::vector<Item> m_items;  // the same names in the same order
};

// As in "SIGINT".
std::string SignalName(int signal);
