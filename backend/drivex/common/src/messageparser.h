#pragma once

#include "clexdsmb.h"
#include "messagereader.h"

// Parses for those who have to know whether it went well, which ParseBuf does not say.
struct MessageParser {
  // Answers 0; or the code with which the source ended before the message did; or `malformed` when the bytes are not
  // one message and nothing else, or memory gave out. Then the block is unchanged.
  static int Parse(CleXDSmb& block, MessageSource& source, int malformed) { return block.parse(source, malformed); }
};
