#pragma once

#include <span>

#include "clexdsmb.h"

// Parses for those who have to know whether it went well, which ParseBuf does not say.
struct MessageParser {
  // False, and the block is unchanged, when the bytes are not one message and nothing else, or memory gave out.
  static bool Parse(CleXDSmb& block, std::span<const char> message) { return block.parse(message); }
};
