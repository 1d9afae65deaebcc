#include "language.h"

#include "block.h"
#include "runtime.h"
#include "turn.h"

bool plugin::Start(std::span<char* const> arguments) { return vexar::StartR(arguments); }

void plugin::Rest() { vexar::RestR(); }

bool plugin::IsInBlockHere() { return vexar::Turn::IsHere(); }

int plugin::RunBlock(const char* text) { return vexar::RunBlock(text); }

void plugin::ExpectInterrupts() {}  // R is always ready for them

void plugin::InterruptBlocks() { vexar::InterruptBlock(); }
