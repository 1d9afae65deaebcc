#pragma once

#include <stdexcept>
#include <string>

#include "exitstatus.h"

// Why vexadx cannot go on: what is wrong (what()), what the user can do about it, and the status to end with.
class Problem : public std::runtime_error {
 public:
  Problem(ExitStatus status, const std::string& message, const std::string& advice)
      : std::runtime_error(message), m_status(status), m_advice(advice) {}

  ExitStatus Status() const { return m_status; }
  const std::string& Advice() const { return m_advice; }

 private:
  ExitStatus m_status;
  std::string m_advice;
};
