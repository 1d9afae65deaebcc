#include "language.h"

#include "block.h"
#include "interpreter.h"
#include "interrupts.h"

bool plugin::Start(std::span<char* const> arguments) { return vexapython::StartInterpreter(arguments); }

void plugin::Rest() { vexapython::RestInterpreter(); }

bool plugin::IsInBlockHere() { return false; }  // the interpreter lock is free while the host is called

int plugin::RunBlock(const char* text) { return vexapython::RunBlock(text); }

void plugin::ExpectInterrupts() { vexapython::ExpectInterrupts(); }

void plugin::InterruptBlocks() { vexapython::InterruptBlocks(); }
