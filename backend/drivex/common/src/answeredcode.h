#pragma once

#include <new>

#include "dxtraceline.h"
#include "vexadx_codes.h"

// The code of an operation, or the other one when memory gives out in it.
template <typename Operation>
int AnsweredCode(Operation operation, int withoutMemory = vexadx::kFailed) {
  try {
    return operation();
  } catch (const std::bad_alloc&) {
    TraceLine("An operation had no memory.");
    return withoutMemory;
  }
}
