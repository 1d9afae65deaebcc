#pragma once

#include <cxxabi.h>

namespace plugin {

// What the function answers, or `failure` when it throws: no exception crosses into C frames. The cancellation of the
// thread is none and goes on.
template <typename Result, typename Function>
Result Contained(Result failure, Function&& function) {
  try {
    return function();
#ifdef _CXXABI_FORCED_UNWIND
  } catch (const abi::__forced_unwind&) {
    throw;
#endif
  } catch (...) {
    return failure;
  }
}

}  // namespace plugin
