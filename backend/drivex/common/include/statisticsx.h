#pragma once

#include <atomic>

#include "vexadx_export.h"

// A language engine as the host drives it: initialise, then for each block pre-action, execution and post-action, then
// stop. The public operations keep the state and write one trace line each; the virtual ones, of the same name with
// "x_" in front, do the work. Codes of an engine are passed through unchanged; 0 is success, and vexadx::kFailed (1)
// may be that memory gave out.
//
// An engine takes no lock: one thread at a time, which need not be the same one throughout. Only isRunning may be read
// from other threads meanwhile.
class VEXADX_API StatisticsX {
 public:
  // With `vexaDrive` false somebody else starts and stops the engine: init_embedded_x and stop_embedded_x then only
  // keep the state and answer 0.
  explicit StatisticsX(bool vexaDrive);
  virtual ~StatisticsX();
  StatisticsX(const StatisticsX&) = delete;
  StatisticsX& operator=(const StatisticsX&) = delete;

  // Starts the engine; 0 at once when it is initialised already, unless it is marked as R, which starts anew every
  // time. A failure leaves it uninitialised.
  int init_embedded_x(int argc, char** argv);

  // One block of syntax, NUL-terminated. 99115 when the engine is not initialised.
  int execute_x(char* syntax);

  // Afterwards the engine is uninitialised whatever the code; 0 when it was so before.
  int stop_embedded_x();

  // Around each block. 99115 when the engine is not initialised.
  int pre_action();
  int post_action();

  // The function that gets the engine's output: text that is not NUL-terminated, and its length in bytes.
  void set_post_vexa_output(int (*output)(const char* text, int length));

  // The host's callback table, in the form the engine's plug-in library expects.
  void setup_dxcallback(void* callback);

  int get_library_lock();
  int release_library_lock();

  bool isIntialized();  // exported spelling: the host links against it
  void setIntialized(bool initialized);
  bool isRunning();  // an execute_x is under way
  bool isVexaDrive();
  bool hasLock();  // kept for the host, like setLock
  void setLock(bool lock);
  bool isR();
  void setR(bool r);

 protected:
  virtual int x_init_embedded_x(int argc, char** argv) = 0;
  virtual int x_execute_x(char* syntax) = 0;
  virtual int x_stop_embedded_x() = 0;
  virtual int x_pre_action() = 0;
  virtual int x_post_action() = 0;
  virtual void x_setup_dxcallback(void* callback);
  virtual void x_set_post_vexa_output(int (*output)(const char* text, int length));
  virtual int x_get_library_lock();
  virtual int x_release_library_lock();

 private:
  bool m_vexaDrive;
  bool m_initialized;
  std::atomic<bool> m_running;
  bool m_lock;
  bool m_r;
};
