#pragma once

#include <span>

namespace plugin {

constexpr int kBlockFailed = 1;

// What a plug-in has to do with its language. Any thread calls these, and an exception that leaves one is an answer of
// failure.

// Starts the language, or takes it up again after Rest, with the arguments of the host. False, with a line on the error
// stream, when it cannot be started. One thread at a time.
bool Start(std::span<char* const> arguments);

// Brings to an end what the blocks have left open. The language itself lives as long as the process, so that a later
// start goes on with its variables. REQUIRES: Start has succeeded. Not at the same time as Start.
void Rest();

// Whether this thread is within a block, from which the language can be neither started nor brought to rest.
bool IsInBlockHere();

// Runs one block. 0, kBlockFailed for an error, or the status with which the block left. REQUIRES: Start has
// succeeded.
int RunBlock(const char* text);

// Says that InterruptBlocks may be called.
void ExpectInterrupts();

// Interrupts the blocks that run now; while none runs nothing happens. Also from a signal handler.
void InterruptBlocks();

}  // namespace plugin
