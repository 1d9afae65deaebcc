#pragma once

#include <string>

#include "blocks.h"
#include "commandline.h"

// The Java extension's program and the archive it is in, under the home. Each throws Problem when it is not there.
std::string JavaProgram();
std::string JavaPlugInArchive();

// Makes the block the next that the Java extension runs: its start takes the command and where it is, its process then
// gets the lines. Throws Problem when they are too much for one message.
void PrepareJavaExtension(const CommandLine& commandLine, const Block& block);
