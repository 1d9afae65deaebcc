#include "dxtracer.h"

#include <fcntl.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <ctime>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#ifdef __GLIBCXX__
#include <ext/stdio_filebuf.h>
#endif

#include "brokenpipeguard.h"
#include "cancellationguard.h"
#include "dxglobals.h"

namespace {

// Here and not among the other globals, so that DxTrace looks at it without a call.
std::atomic<DxTracer*> gDxTracer{nullptr};

constexpr std::string_view kBanner =
    "****************************************TRACE BEGIN****************************************\n";

// Guards the stream and the X name of every tracer. Innermost lock: nothing but composing and writing a line happens
// under it.
std::mutex gTraceGuard;

// The local time and a blank, in the process's locale.
void appendTimeStamp(std::string& line) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  std::array<char, 100> stamp;
  line.append(stamp.data(), std::strftime(stamp.data(), stamp.size(), "%x %X ", &local));
}

// Opens for writing and truncates. The descriptor is close-on-exec, so that no child holds the trace open, and it never
// blocks: a FIFO that nobody reads must not hold the host up. A stream that cannot be opened is left failed.
void openTruncated(std::ofstream& stream, const std::string& path) {
#ifdef __GLIBCXX__
  int descriptor;
  do {
    descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NONBLOCK, 0666);
  } while (descriptor == -1 && errno == EINTR);
  if (descriptor == -1) {
    stream.setstate(std::ios::failbit);
    return;
  }
  *stream.rdbuf() = __gnu_cxx::stdio_filebuf<char>(descriptor, std::ios::out);  // closes the descriptor with the stream
#else
  stream.open(path);
#endif
}

// A FIFO's reader may leave at any time.
void put(std::ofstream& stream, std::string_view text) {
  if (!stream) return;
  BrokenPipeGuard guard;
  if (!(stream << text << std::flush)) guard.NoteBrokenPipe();
}

// With a last try of what could not be written.
void close(std::ofstream* stream) {
  BrokenPipeGuard guard;
  if (stream && !*stream) guard.NoteBrokenPipe();
  delete stream;
}

}  // namespace

DxTracer* GetDxTracer() { return gDxTracer; }

void SetDxTracer(DxTracer* tracer) { gDxTracer = tracer; }

DxTracer::DxTracer() : m_stream(nullptr) {}

DxTracer::~DxTracer() { close(m_stream); }

void DxTracer::open(const std::string& path) {
  if (path.empty()) return;
  const CancellationGuard noCancellation;  // which would leave a stream that writes no more
  auto stream = std::make_unique<std::ofstream>();
  const std::lock_guard guard(gTraceGuard);
  close(std::exchange(m_stream, nullptr));  // first, so that opening the same file again truncates what it wrote
  openTruncated(*stream, path);
  put(*stream, kBanner);
  m_stream = stream.release();
}

void DxTracer::write(const std::string& text) {
  const CancellationGuard noCancellation;
  const std::lock_guard guard(gTraceGuard);
  if (!m_stream) return;
  std::string line;
  appendTimeStamp(line);
  line.append(m_xName).append(">>").append(text).push_back('\n');
  put(*m_stream, line);
}

void DxTracer::setXName(const std::string& name) {
  const std::lock_guard guard(gTraceGuard);
  m_xName = name;
}

void DxTrace(const std::string& text) {
  if (DxTracer* tracer = gDxTracer) tracer->write(text);
}

void DxTraceError(const std::string& text, int code) {
  if (DxTracer* tracer = gDxTracer) tracer->write(text + " error code : " + std::to_string(code) + '.');
}
