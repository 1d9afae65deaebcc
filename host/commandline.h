#pragma once

#include <optional>
#include <string>
#include <vector>

// Where one block comes from.
struct BlockSource {
  enum class Kind { kFile, kStandardInput, kText };
  Kind kind;
  std::string value;  // the file's path, or the text itself
};

// The engine whose blocks each run a command in a Java process of their own.
inline constexpr const char* kJavaExtension = "JAVAEXTENSION";

// The command that a block for it runs.
struct JavaCommand {
  std::string name;                 // of the class
  std::string extensionPath = ".";  // where it is, separated by ":"
  bool isPackage = true;            // the path names directories that hold <name>.jar, not a class path
};

// How long a run waits for its engine, in seconds; 0 stands for no limit.
struct TimeLimits {
  double block = 0;  // each
  double start = 0;
  double stop = 0;
};

// What is examined for the rules of an X process program or of a plug-in library.
struct Certificate {
  enum class Kind { kBySight, kProgram, kPlugin };
  std::string file;
  Kind kind = Kind::kBySight;
  std::string engine = "CERTIFY";
  std::string library;  // that the program is to load: a file, or a name that the home's lib directory has
  std::string block;
  std::string endlessBlock;
  std::vector<std::string> section;  // KEY=VALUE, of its section of the configuration
  std::vector<std::string> rules;    // none: all
  double seconds = 30;               // for one rule
  bool listsRules = false;           // and examines nothing
};

struct CommandLine {
  enum class Command { kRun, kEngines, kDoctor, kCertify };
  Command command = Command::kRun;
  std::string engine;                // upper case; empty stands for every engine where one need not be named
  std::vector<BlockSource> sources;  // in the order of the command line
  bool inProcess = false;            // neither: as configured
  bool outOfProcess = false;
  bool threaded = false;  // each block runs on a thread of its own
  bool json = false;
  bool verbose = false;
  std::string trace;  // empty: as configured
  JavaCommand javaCommand;
  TimeLimits limits;
  Certificate certificate;
};

// Throws Problem for wrong usage. Nothing comes back when printing help or the version was all that was asked.
std::optional<CommandLine> ParseCommandLine(int argc, char** argv);
