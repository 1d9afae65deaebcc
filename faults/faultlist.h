#pragma once

// The faults that a host survives, by name: what the fault kit can do, and what the tests inject.
struct Fault {
  // Who brings it about.
  enum class By {
    kStartX,   // startx-fault, told its words
    kPlugin,   // one of the fault plug-ins
    kPreload,  // the preload library
    kHost,     // what stands around the engine: files, limits, signals, the host itself
  };

  int number;
  const char* name;
  By by;
  const char* words;  // for startx-fault; empty where another brings it about
  const char* what;
};

// In the order of their numbers.
inline constexpr Fault kFaults[] = {
    {1, "program-missing", Fault::By::kHost, "", "there is no X program"},
    {2, "program-not-executable", Fault::By::kHost, "",
     "it is not executable, in no known format, or its interpreter is missing"},
    {3, "exits-at-once", Fault::By::kStartX, "started exit=3",
     "it exits with status 3 before it makes its command pipe"},
    {4, "dies-before-opening", Fault::By::kStartX, "commands-made",
     "it makes its command pipe and dies before it opens it"},
    {5, "dies-at-ready-check", Fault::By::kStartX, "ready-read", "it reads the ready check and dies"},
    {6, "never-ready", Fault::By::kStartX, "unready=100", "it answers a hundred ready checks with 5"},
    {7, "ready-late", Fault::By::kStartX, "unready=49", "it answers the 50th ready check"},
    {8, "makes-pipe-late", Fault::By::kStartX, "slow=30000", "it sleeps 30 s before it makes its command pipe"},
    {9, "silent-at-ready-check", Fault::By::kStartX, "ready-read silent", "it lives and never answers the ready check"},
    {10, "foreign-file-for-pipe", Fault::By::kHost, "",
     "a file, link, directory or another user's pipe has its pipe's name"},
    {11, "stale-pipes", Fault::By::kHost, "", "pipes of a crashed host are there"},
    {12, "pipe-directory-unusable", Fault::By::kHost, "",
     "the pipe directory is missing, read-only, full, or its path too long"},
    {13, "no-process", Fault::By::kHost, "", "no process can be made"},
    {14, "no-descriptor", Fault::By::kHost, "", "no descriptor is left"},
    {15, "user-not-changed", Fault::By::kPreload, "", "the child cannot become the user"},
    {16, "plugin-unusable", Fault::By::kHost, "",
     "the plug-in is missing, no library, of another machine, or lacks a symbol"},
    {17, "library-unnamed", Fault::By::kHost, "", "the plug-in library has no name"},
    {18, "java-missing", Fault::By::kHost, "", "the Java runtime is missing or dies before it connects"},
    {19, "java-exits", Fault::By::kHost, "", "it connects and exits at once"},
    {20, "java-stranger", Fault::By::kHost, "", "somebody else connects first"},
    {21, "java-no-port", Fault::By::kHost, "", "no port can be bound"},
    {22, "killed-between-runs", Fault::By::kStartX, "ended", "it is killed between two runs"},
    {23, "killed-in-block", Fault::By::kStartX, "block-read late=100", "it is killed while a block runs"},
    {24, "dies-before-result", Fault::By::kStartX, "begin-answered",
     "it answers the start of a run and dies before it opens the result pipe"},
    {25, "dies-before-block", Fault::By::kStartX, "begun",
     "it replies to the pre-action and dies before it opens the block pipe"},
    {26, "half-reply", Fault::By::kStartX, "half-reply", "it dies after half a reply"},
    {27, "orphan-keeps-pipes", Fault::By::kStartX, "block-read late=100 fork",
     "it dies, and its child keeps the pipes"},
    {28, "signal-storm", Fault::By::kHost, "", "signals come a thousand times a second"},
    {29, "byte-by-byte", Fault::By::kStartX, "bytewise", "small pipes, and it reads and writes a byte at a time"},
    {30, "stopped", Fault::By::kHost, "", "it is stopped for 30 s and continued"},
    {31, "endless-block", Fault::By::kHost, "", "a block of Python's, R's or Java's never ends, and is interrupted"},
    {32, "deaf-block", Fault::By::kHost, "", "a block never ends and ignores interrupts"},
    {33, "odd-codes", Fault::By::kStartX, "code=7 code=-1 code=-2147483648 code=2147483647",
     "it answers blocks with 7, -1 and the ends of the range"},
    {34, "wrong-length", Fault::By::kStartX, "longer twice", "its replies are longer than announced, and come twice"},
    {35, "large-block", Fault::By::kStartX, "", "64 MiB go there and back"},
    {36, "odd-block", Fault::By::kHost, "", "a block with NUL, lone carriage returns, invalid UTF-8, a line of 1 MiB"},
    {37, "nested-death", Fault::By::kHost, "", "the engine of a nested run dies"},
    {38, "nested-deep", Fault::By::kHost, "", "runs are nested 50 deep"},
    {39, "neighbour-killed", Fault::By::kStartX, "block-read late=100", "one of two engines is killed"},
    {40, "host-killed", Fault::By::kHost, "", "the host is killed"},
    {41, "host-forks", Fault::By::kHost, "", "the host forks a worker that keeps its descriptors"},
    {42, "silent-at-stop", Fault::By::kStartX, "stop-read silent", "it never answers the stop"},
    {43, "stopped-twice", Fault::By::kHost, "", "it is stopped twice, and its number is another process's"},
    {44, "output-flood", Fault::By::kHost, "", "a block prints 10 MB to each stream"},
    {45, "trace-unwritable", Fault::By::kHost, "", "the trace log cannot be written"},
    {46, "configuration-changes", Fault::By::kHost, "", "the configuration goes or changes between reads"},
    {47, "plugin-throws", Fault::By::kPlugin, "", "each entry point of a plug-in throws"},
    {48, "plugin-changes-host", Fault::By::kPlugin, "", "a plug-in changes what is the host's"},
    {49, "plugin-crashes", Fault::By::kPlugin, "", "a plug-in exits, aborts or writes to nowhere"},
    {50, "plugin-odd-output", Fault::By::kPlugin, "",
     "a plug-in outputs nothing, a negative length, from another thread, after the stop"},
    {51, "any-thread", Fault::By::kPlugin, "", "a plug-in is started, run and stopped on three threads"},
    {52, "fatal-start", Fault::By::kHost, "", "the language's runtime cannot start"},
    {53, "clock-stepped", Fault::By::kPreload, "", "the system's clock is set while a wait lasts"},
    {54, "no-memory", Fault::By::kPreload, "", "the n-th allocation fails"},
    {55, "call-fails", Fault::By::kPreload, "", "the n-th system call fails"},
    {56, "status-words", Fault::By::kHost, "", "status words come wrong, together, or in halves"},
    {57, "lock-abuse", Fault::By::kHost, "", "a lock is destroyed while it is held, or released by another thread"},
};
