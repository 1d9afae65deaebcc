#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

// A program that a test runs, with pipes to its three standard streams. It starts with the signals' default
// dispositions, whatever the test was started with. Nothing here waits for longer than a minute: then the program is
// killed and the test fails with an exception that shows what the program wrote.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& command);
  ~ChildProcess();  // kills a program that still runs
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  void Write(const std::string& text);
  void CloseInput();
  void Signal(int signal);

  // Returns once everything written to standard output so far contains the text so many times; throws when the output
  // ends before.
  void AwaitOutput(const std::string& text, int times = 1);

  // Closes the input, reads the rest and reaps the program: its exit status, or the negative number of the signal that
  // killed it.
  int Wait();

  const std::string& Out() const { return m_text[0]; }
  const std::string& Err() const { return m_text[1]; }

 private:
  bool ReadSome();  // false once both streams have ended
  int Reap();
  [[noreturn]] void Fail(const std::string& reason);

  pid_t m_pid = -1;
  int m_input = -1;
  std::array<int, 2> m_output{-1, -1};  // standard output, standard error
  std::array<std::string, 2> m_text;
};
