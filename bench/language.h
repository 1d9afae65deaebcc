#pragma once

#include <span>

// Compiles and evaluates a text so many times in the language's global namespace. Nothing is printed.
struct DirectCall {
  const char* name;
  void (*run)(const char* text, int times);
};

// A language as the benchmarks need it: how its plug-in is driven, and the language itself called directly.
struct Language {
  const char* name;
  const char* library;    // its plug-in, in the staged home
  const char* arguments;  // of the start
  const char* block;      // costs little and prints nothing
  void (*start)();        // without the plug-in, which would do it too: once in a process
  void (*compile)(const char* text);
  std::span<const DirectCall> directCalls;
};

extern const Language kPython;
extern const Language kR;
