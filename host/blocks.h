#pragma once

#include <string>
#include <vector>

#include "commandline.h"

// One block of syntax, ready to be run.
struct Block {
  std::string name;
  std::vector<std::string> lines;  // without their newlines and without NUL bytes
};

// Reads every source, in order. Throws Problem when one cannot be read or holds a NUL byte.
std::vector<Block> ReadBlocks(const std::vector<BlockSource>& sources);
