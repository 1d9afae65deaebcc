#pragma once

#include <gtest/gtest.h>

#include <string>

#include "clexdsmb.h"
#include "vexadx_bytes.h"

// The bytes in which a block is sent.
inline std::string MessageOf(CleXDSmb& block) {
  int length = -1;
  EXPECT_EQ(0, block.ContructSendData());
  const char* const message = block.GetSendBuf(length);
  return {message, static_cast<std::size_t>(length)};
}

// A message with another number in the four bytes there; those at its beginning announce its length.
inline std::string WithNumber(std::string message, std::size_t offset, int value) {
  vexadx::Store(message.data() + offset, value);
  return message;
}
