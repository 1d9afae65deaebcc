#pragma once

#include <optional>
#include <span>

namespace vexar {

// Starts R with these arguments, or takes up the one that runs. False, with a line on the error stream, when it cannot
// be started; another start can only succeed when the home was wrong.
//
// The environment variable R_HOME names the installation. R never ends while the process lives: a later start goes on
// with the same workspace. REQUIRES: this thread does not have the turn.
bool StartR(std::span<char* const> arguments);

// Closes the graphics devices, runs what is to run at the end, and removes the session's temporary directory.
// REQUIRES: StartR has succeeded, and this thread does not have the turn.
void RestR();

// False when R has given up, as it does without memory for itself. REQUIRES: this thread has the turn.
bool CanRun();

// The status of a call of q() since the last time. It ends the block and not the process. REQUIRES: this thread has
// the turn.
std::optional<int> TakeQuitStatus();

// Whether there is one. REQUIRES: this thread has the turn.
bool HasQuit();

}  // namespace vexar
