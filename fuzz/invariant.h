#pragma once

#include <cstdlib>

// What does not hold ends the run, and the fuzzer keeps the input.
inline void require(bool holds) {
  if (!holds) std::abort();
}
