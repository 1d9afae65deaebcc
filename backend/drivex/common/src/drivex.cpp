#include "drivex.h"

#include <new>

#include "answeredcode.h"
#include "cancellationguard.h"
#include "dxassert.h"
#include "dxtraceline.h"
#include "vexadx_codes.h"
#include "vexadx_plugin.h"
#include "xcmdargument.h"

namespace {

constexpr const char* kSourceFile = "backend/drivex/common/src/drivex";

// A pre-action of PYTHON that answers this has its own code as the run's.
constexpr int kPythonPreActionFailed = 1;

std::string joined(const std::vector<std::string>& lines) {
  std::size_t length = 0;
  for (const std::string& line : lines) length += line.size() + 1;
  std::string block;
  block.reserve(length);
  for (const std::string& line : lines) block.append(line).push_back('\n');
  return block;
}

}  // namespace

DriveX::DriveX(const std::string& xName, StatisticsX* engine, XConfigOptions* options)
    : m_ximpl(engine),
      m_option(options),
      m_xName(xName),
      m_index(0),
      m_syntax(nullptr),
      m_thread(nullptr),
      m_running(false) {
  DxAssert(m_ximpl != nullptr, "m_ximpl", "DriveX", kSourceFile);
  DxAssert(m_option != nullptr, "m_option", "DriveX", kSourceFile);
}

DriveX::~DriveX() { delete m_thread; }

int DriveX::initializeX() {
  if (m_ximpl->isIntialized()) return vexadx::kSuccess;
  return AnsweredCode([this] {
    XCmdArgument arguments(vexadx::StartArguments(*m_option));
    return m_ximpl->init_embedded_x(arguments.argc(), arguments.argv());
  });
}

int DriveX::invokeX() {
  const int code = m_ximpl->isIntialized() ? vexadx::kSuccess : initializeX();
  return code == vexadx::kSuccess ? runX() : code;
}

int DriveX::runX() {
  int code = m_ximpl->pre_action();
  TraceLine("DriveX PRE ACTION ");
  if (m_xName == "PYTHON" && code == kPythonPreActionFailed) code = vexadx::kPythonNotPrepared;
  if (code != vexadx::kSuccess) return code;

  std::vector<std::string> noLines;
  code = ExecuteXLines(m_syntax ? *m_syntax : noLines);
  TraceCode("DriveX ExecuteXLines ", code);
  (void)m_ximpl->post_action();  // the run's code is that of the execution
  TraceLine("DriveX POST ACTION ");
  return code;
}

int DriveX::ExecuteXLines(std::vector<std::string>& lines) {
  std::string block;  // the engine gets a text of its own, which it may change
  try {
    block = joined(lines);
    TraceLine(block);
  } catch (const std::bad_alloc&) {
    TraceLine("DriveX has no memory for the block.");
    return vexadx::kFailed;
  }
  return m_ximpl->execute_x(block.data());
}

const std::string& DriveX::XName() { return m_xName; }

void DriveX::setSyntax(std::vector<std::string>& lines) { m_syntax = &lines; }

int DriveX::startX() {
  const auto start = [this] {
    if (!m_thread) m_thread = new DriveXThread(this);
    return m_thread->Start(0) ? vexadx::kSuccess : vexadx::kThreadNotStarted;
  };
  return AnsweredCode(start, vexadx::kThreadNotStarted);
}

int DriveX::getReturnValue() { return m_thread ? m_thread->GetReturnValue() : vexadx::kSuccess; }

int DriveX::getIndex() { return m_index; }
void DriveX::setIndex(int index) { m_index = index; }

bool DriveX::isStopped() { return !m_running; }

DriveX::DriveXThread::DriveXThread(DriveX* driver) : m_driver(driver) {}

// Before Run is no longer this class's.
DriveX::DriveXThread::~DriveXThread() {
  const CancellationGuard noCancellation;
  (void)WaitForStop();
}

int DriveX::DriveXThread::Run() { return m_driver->runX(); }

void vexadx::WaitForRun(DriveX& driver) {
  if (driver.m_thread) (void)driver.m_thread->WaitForStop();
}
