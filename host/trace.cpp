#include "trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "dxglobals.h"
#include "vexadxconfigreader.h"

Trace::Trace(const std::string& path, const std::string& xName, Report& report) {
  if (path.empty()) return;
  // The tracer says nothing about a file it cannot open. Kept open until the tracer has opened it, so that the reader
  // of a named pipe does not see an end.
  const int probe = ::open(path.c_str(), O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC, 0666);
  if (probe == -1) {
    report.Warning("the trace file " + path + " cannot be written: " + std::strerror(errno) + "; the run is not traced",
                   "name a writable file with --trace or with TRACE in the section [SUPPORTED_LANG]");
    return;
  }
  m_tracer.open(path);
  (void)::close(probe);
  m_tracer.setXName(xName);
  SetDxTracer(&m_tracer);
}

Trace::~Trace() { SetDxTracer(nullptr); }

std::string TracePath(const std::string& given) {
  return given.empty() ? VexaDXConfigReader::GetInstance()->GetTracePath() : given;
}
