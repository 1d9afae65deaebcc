#pragma once

#include <gtest/gtest.h>

#include <chrono>

// Expects the rest of a scope to take less than so long. A sanitizer takes its time, where there is little.
class Within {
 public:
  explicit Within(std::chrono::milliseconds limit) : m_limit(limit) {
#ifdef VEXADX_SANITIZED
    if (limit < std::chrono::seconds(5)) m_limit = limit * 5 / 2;
#endif
  }
  ~Within() { EXPECT_LT((Clock::now() - m_begin) / std::chrono::milliseconds(1), m_limit.count()) << "milliseconds"; }
  Within(const Within&) = delete;
  Within& operator=(const Within&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  std::chrono::milliseconds m_limit;
  const Clock::time_point m_begin = Clock::now();
};
