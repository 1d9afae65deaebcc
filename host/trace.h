#pragma once

#include <string>

#include "dxtracer.h"
#include "report.h"

// The trace log of this process while it lives. An empty path writes none; a path that cannot be written is reported
// and changes nothing else.
class Trace {
 public:
  Trace(const std::string& path, const std::string& xName, Report& report);
  ~Trace();
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

 private:
  DxTracer m_tracer;
};

// The path given on the command line, or else the configured one.
std::string TracePath(const std::string& given);
