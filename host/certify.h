#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <span>
#include <stdexcept>
#include <string>

// The rules that an X process program and a plug-in library keep, each examined from outside in a process of its own.
namespace certify {

// What is examined, and what is known about it.
struct Subject {
  std::string file;          // the program or library, an absolute path
  std::string engine;        // the name of the X that it plays
  std::string block;         // a block that answers 0
  std::string endlessBlock;  // one that ends only when it is interrupted; empty: none is known
  std::string home;          // a home of its own, whose program it is
  std::string pipes;         // a directory of its own rule for pipes, ending in a separator
};

// How a rule says that it is not kept, with what was seen, or that it cannot be examined, with the reason.
class Broken : public std::runtime_error {
  using std::runtime_error::runtime_error;
};
class NotExamined : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Rule {
  const char* name;      // short, and the same in every version
  const char* sentence;  // what is to be so
  const char* needs;     // the rule that has to be kept for this one to be examined; null: none

  // Answers what was seen of a rule that is kept, if there is anything to say. Runs in a process of its own, which may
  // end, crash or hang, and which nothing that was started in it survives.
  std::string (*examine)(const Subject& subject);
};

std::span<const Rule> ProgramRules();
std::span<const Rule> PluginRules();

struct Finding {
  enum class Result { kKept, kBroken, kNotExamined };
  Result result;
  std::string detail;
};

// Examines one rule; ends all that was started for it. REQUIRES: one thread, and no child that the caller wants to
// keep.
Finding Examine(const Rule& rule, const Subject& subject, std::chrono::milliseconds atMost);

// From here on INT and TERM, unless they are ignored, end the examination under way and any that follows.
void NoteSignals();

// The signal that came; 0: none has.
int EndingSignal();

// For rules: notes what is going on, in words that follow "while"; what a rule that hangs or crashes is told by.
void Note(const std::string& step);

// Throws Broken with the text unless it is so.
void Require(bool isSo, const std::string& otherwise);

// The same for a code that has to be 0, in words that follow the code's number: "when a run began".
void RequireSuccess(int code, const std::string& when);

// Throws Broken when many runs cost the process descriptors or memory; answers what they cost.
std::string RequireFlat(pid_t process, const std::function<void()>& run);

// By what name the home of a subject that is a library knows it.
inline constexpr const char* kLibrary = "certified";

// A block of bytes that are no text.
inline constexpr const char* kOddBlock = "\x01\x7f\xff\xfe\r\xc3\r\n\xed\xa0\x80";

}  // namespace certify
