#include "statisticsx.h"

#include "answeredcode.h"
#include "dxtraceline.h"
#include "vexadx_codes.h"

namespace {

// Sets the flag for a scope, also when the thread is cancelled in it. The flag only ever informs.
class RunningScope {
 public:
  explicit RunningScope(std::atomic<bool>& flag) : m_flag(flag) { m_flag.store(true, std::memory_order_relaxed); }
  ~RunningScope() { m_flag.store(false, std::memory_order_relaxed); }
  RunningScope(const RunningScope&) = delete;
  RunningScope& operator=(const RunningScope&) = delete;

 private:
  std::atomic<bool>& m_flag;
};

}  // namespace

StatisticsX::StatisticsX(bool vexaDrive)
    : m_vexaDrive(vexaDrive), m_initialized(false), m_running(false), m_lock(false), m_r(false) {}

StatisticsX::~StatisticsX() = default;

int StatisticsX::init_embedded_x(int argc, char** argv) {
  if (m_initialized && !m_r) return vexadx::kSuccess;
  if (m_r) {
    // R calls back into the host while it starts, and the host then has to find it initialised.
    m_initialized = true;
    TraceLine("StatisticsX::init_embedded_R");
  }
  const int code = m_vexaDrive ? AnsweredCode([&] { return x_init_embedded_x(argc, argv); }) : vexadx::kSuccess;
  m_initialized = code == vexadx::kSuccess;
  TraceCode("StatisticsX::init_embedded_x", code);
  return code;
}

int StatisticsX::execute_x(char* syntax) {
  int code = vexadx::kNotInitialized;
  if (m_initialized) {
    const RunningScope running(m_running);
    code = AnsweredCode([&] { return x_execute_x(syntax); });
  }
  TraceCode("StatisticsX::execute_x", code);
  return code;
}

int StatisticsX::stop_embedded_x() {
  const int code =
      m_initialized && m_vexaDrive ? AnsweredCode([this] { return x_stop_embedded_x(); }) : vexadx::kSuccess;
  m_initialized = false;
  TraceCode("StatisticsX::stop_embedded_x", code);
  return code;
}

int StatisticsX::pre_action() {
  const int code = m_initialized ? AnsweredCode([this] { return x_pre_action(); }) : vexadx::kNotInitialized;
  TraceCode("StatisticsX::pre_action", code);
  return code;
}

int StatisticsX::post_action() {
  const int code = m_initialized ? AnsweredCode([this] { return x_post_action(); }) : vexadx::kNotInitialized;
  TraceCode("StatisticsX::post_action", code);
  return code;
}

void StatisticsX::set_post_vexa_output(int (*output)(const char* text, int length)) {
  x_set_post_vexa_output(output);
  TraceLine("StatisticsX::x_set_post_vexa_output");
}

void StatisticsX::setup_dxcallback(void* callback) {
  x_setup_dxcallback(callback);
  TraceLine("StatisticsX::setup_dxcallback");
}

int StatisticsX::get_library_lock() { return x_get_library_lock(); }
int StatisticsX::release_library_lock() { return x_release_library_lock(); }

bool StatisticsX::isIntialized() { return m_initialized; }
void StatisticsX::setIntialized(bool initialized) { m_initialized = initialized; }
bool StatisticsX::isRunning() { return m_running; }
bool StatisticsX::isVexaDrive() { return m_vexaDrive; }
bool StatisticsX::hasLock() { return m_lock; }
void StatisticsX::setLock(bool lock) { m_lock = lock; }
bool StatisticsX::isR() { return m_r; }
void StatisticsX::setR(bool r) { m_r = r; }

void StatisticsX::x_setup_dxcallback(void* /*callback*/) {}
void StatisticsX::x_set_post_vexa_output(int (* /*output*/)(const char* text, int length)) {}
int StatisticsX::x_get_library_lock() { return 0; }
int StatisticsX::x_release_library_lock() { return 0; }
