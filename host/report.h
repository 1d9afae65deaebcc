#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "exitstatus.h"
#include "problem.h"
#include "vexadx_death.h"

// What a code of an engine or of the library means.
const char* Meaning(int code);

// How a process ended and in which step, in words.
std::string EndText(const vexadx::Death& death);

// How one block ended.
struct BlockResult {
  std::string name;
  int code = 0;
  double seconds = 0;
  bool interrupted = false;
  std::optional<Problem> timedOut;
};

// How an engine was stopped.
struct StopResult {
  int code = 0;
  std::optional<Problem> timedOut;
};

// How an engine was started.
struct StartResult {
  std::string engine;
  int process = 0;  // 0: in this one
  double seconds = 0;
};

// One configured engine.
struct EngineState {
  std::string name;
  bool found = false;
  std::string library;  // the file of the library, or of the Java archive; empty when none can be named
  std::string reason;   // why it was not found
};

// One step of an examination.
struct CheckResult {
  std::string engine;  // empty: concerns them all
  std::string check;
  bool ok = false;
  std::string detail;
  std::string advice;  // what to do when it is not ok
};

// What became of one rule that a program or plug-in is examined for.
struct RuleResult {
  std::string name;
  std::string rule;    // in a sentence
  std::string result;  // kept, broken or not examined
  std::string detail;  // what was seen, or why it was not examined; may be empty
  double seconds = 0;
};

// Everything that vexadx says. In plain words standard output belongs to the blocks of a run and vexadx speaks on
// standard error; the lists of the other commands are what standard output is asked for. As JSON, standard output
// carries one object a line and nothing else: whatever writes to the process's standard output meanwhile goes to
// standard error.
class Report {
 public:
  explicit Report(bool json);  // throws Problem when standard output cannot be taken over
  ~Report();
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;

  bool IsJson() const { return m_json; }

  void Error(const Problem& problem);
  void Warning(const std::string& message, const std::string& advice);

  // A piece of a block's output, in JSON; what is not UTF-8 is replaced. From any thread.
  void Output(std::string_view text);

  // In JSON, and with `verbose` a line.
  void Start(const StartResult& result, bool verbose);

  // One line for a block that failed, and with `verbose` for any.
  void Block(const BlockResult& result, bool verbose);

  // What the engine's process wrote last. The error that follows has the rest in words.
  void Death(const std::string& engine, const vexadx::Death& death);

  void Engine(const EngineState& engine);
  void Check(const CheckResult& result);
  void Rule(const RuleResult& result);
  void ListedRule(const std::string& subject, const std::string& name, const std::string& rule);

  // The last line. Answers the status to end with: output that could not be written is not a success.
  int End(int status);

 private:
  void WriteLine(const std::string& line);
  void WriteText(const std::string& text);
  void Write(std::string_view bytes);

  bool m_json;
  int m_out;

  // Guards what follows and the order of lines; nothing but a write happens under it.
  std::mutex m_guard;
  std::string m_unfinished;  // the beginning of a character whose rest comes with the next piece
  int m_writeError = 0;
};
