#pragma once

#include <string_view>

namespace plugin {

using OutputFunction = int (*)(const char* text, int length);

// Where all output goes from now on; null for the descriptors. Any thread, at any time: a call of the earlier function
// that is under way ends normally.
void SetOutputFunction(OutputFunction function);

// The function, null when there is none.
OutputFunction HostOutput();

// Hands bytes to a function of the host's, which sees one call at a time: waits for one that is under way. 0, or EIO
// when it throws. REQUIRES: no lock is held that the host's function may wait for on another thread.
int CallOutput(OutputFunction function, std::string_view bytes);

// Writes once to a descriptor, waiting while one that does not block is full; takes what was written off the bytes.
// A reader that has gone raises no signal. 0 or the error's number, EINTR included.
int WriteOnce(int descriptor, std::string_view& bytes);

// A line of the plug-in's own, to the host's function as CallOutput or else to the error stream.
void PostErrorLine(std::string_view text);

// To be called in the child of a fork: the thread that was calling the host may not exist there.
void RenewOutputAfterFork();

}  // namespace plugin
