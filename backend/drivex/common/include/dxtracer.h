#pragma once

#include <fstream>
#include <string>

#include "vexadx_export.h"

// Writes the trace log: one line per engine operation and transport step,
//   <date> <time> <X name>>><text>
// in the local time and the process's locale. A trace file that cannot be opened or written drops its lines; no
// operation fails because of it.
//
// `write` may be called from any thread: a line is composed first and written whole under one process-wide lock. The
// host opens and registers a tracer (SetDxTracer) before its first run, and takes it back before it destroys it.
class VEXADX_API DxTracer {
 public:
  DxTracer();
  ~DxTracer();
  DxTracer(const DxTracer&) = delete;
  DxTracer& operator=(const DxTracer&) = delete;

  // Truncates the file and writes the banner. An empty path does nothing; a second call closes the earlier file first.
  void open(const std::string& path);

  // Appends one line and flushes it; nothing happens while no file has been opened.
  void write(const std::string& text);

  // The engine name written into every later line.
  void setXName(const std::string& name);

 private:
  std::string m_xName;
  std::ofstream* m_stream;  // owned
};

// One trace line when a tracer is registered, otherwise nothing. DxTraceError appends " error code : <code>.".
VEXADX_API void DxTrace(const std::string& text);
VEXADX_API void DxTraceError(const std::string& text, int code);
