#pragma once

// A check on the library's own consistency: when it does not hold, going on would corrupt the host, so the process
// stops. It stays active in release builds. The report names the check's text, the operation and the source file (path
// from the top of the source tree, without extension).
//
//   DxAssert(m_manager != nullptr, "m_manager", "XPipeSuit", "backend/drivex/common/src/xpipemanager");

// Writes the report to standard error and aborts. Locks nothing and allocates nothing.
[[noreturn]] void DxAssertionFailed(const char* check, const char* operation, const char* sourceFile) noexcept;

inline void DxAssert(bool holds, const char* check, const char* operation, const char* sourceFile) noexcept {
  if (!holds) [[unlikely]] {
    DxAssertionFailed(check, operation, sourceFile);
  }
}
