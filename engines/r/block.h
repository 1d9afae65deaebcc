#pragma once

namespace vexar {

// Runs one block in the global environment as the console would, expression by expression, printing what is visible and
// the warnings. 0, 1 for an error, which is printed and ends the block, or the status of q(). R does not run a block
// within a block: that is answered with 1. REQUIRES: StartR has succeeded.
int RunBlock(const char* text);

}  // namespace vexar
