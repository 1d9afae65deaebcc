#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "childprocess.h"
#include "within.h"

using Strings = std::vector<std::string>;

inline Strings CommandOf(const Strings& arguments) {
  Strings command{VEXADX_STAGED_HOME "/bin/vexadx"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

inline Outcome RunProgram(const Strings& command, const std::string& input = "") {
  ChildProcess child(command);
  if (!input.empty()) child.Write(input);
  const int status = child.Wait();
  return {status, child.Out(), child.Err()};
}

inline Outcome RunVexadx(const Strings& arguments, const std::string& input = "") {
  return RunProgram(CommandOf(arguments), input);
}

// The exit status after a signal, which does not take long.
inline int EndBy(int signal, ChildProcess& child) {
  const Within limit(std::chrono::seconds(2));
  child.Signal(signal);
  return child.Wait();
}

inline void ExpectWords(const std::string& text, const Strings& words) {
  for (const std::string& word : words) EXPECT_NE(std::string::npos, text.find(word)) << word << " in\n" << text;
}
