#pragma once

// How vexadx ends. Part of its interface: scripts decide on these numbers.
enum ExitStatus : int {
  kAllSucceeded = 0,
  kBlockFailed = 1,         // a block answered a code other than 0
  kRuleBroken = 1,          // what was examined breaks a rule
  kWrongUsage = 2,          // command line wrong, input not readable, output not writable
  kNotStarted = 3,          // the engine could not be started
  kEngineDied = 4,          // the engine's process died, or the connection to it broke, during the run
  kWrongConfiguration = 5,  // configuration missing or wrong
  kTimedOut = 124,          // a time limit was over
  kNotExecutable = 126,     // the engine program cannot be run
  kNoProgram = 127,         // the engine program is not there
  kInterrupted = 130,       // ended by Ctrl-C
  kTerminated = 143,        // ended by TERM
};
