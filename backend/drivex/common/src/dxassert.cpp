#include "dxassert.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

void report(const char* text) noexcept {
  // The process is about to abort: there is nobody left to tell that a report could not be written.
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text, std::strlen(text));
}

}  // namespace

void DxAssertionFailed(const char* check, const char* operation, const char* sourceFile) noexcept {
  report("Assertion failed: (");
  report(check);
  report("), function ");
  report(operation);
  report(", file ");
  report(sourceFile);
  report(".\n");
  std::abort();
}
