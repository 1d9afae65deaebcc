#pragma once

#include <pthread.h>

#include <atomic>

#include "PlugInCriticalSection.h"
#include "vexadx_export.h"

// The platform thread's start routine: runs the object's Entry on the calling thread and then lets go of the object,
// the last time that the thread touches it.
VEXADX_API void* EntryFunc(void* threadObject);

// A worker thread. A subclass overrides Run; its owner calls Start and later WaitForStop, or destroys the object. Once
// WaitForStop has answered true the thread no longer touches the object; the thread's own resources are given back
// either way.
//
// Any thread may call the operations. REQUIRES, for a subclass that is destroyed while its thread may run: its
// destructor waits for the thread itself, as the thread still calls Run on it; with cancellation disabled if the
// destroying thread may be cancelled, since no cancellation can leave a destructor.
class VEXADX_API PlugInThreadHot {
 public:
  // What the thread does; calls Run and keeps its result. Answers that result.
  virtual int Entry();

  // Waits, without limit, for a running thread to end.
  virtual ~PlugInThreadHot();

  // Cancels the thread, and only it, and waits for its end; afterwards the object has no thread. The thread ends at the
  // next point at which a thread can be cancelled: a system call that may block, or a wait for a condition, but not
  // while it waits for a section or for its turn at an automatic event. False when there is no thread, or when it is
  // the calling one.
  virtual bool Terminate();

  // The work, for subclasses; this one does nothing and answers 0. No exception may leave it.
  virtual int Run();

  PlugInThreadHot();
  PlugInThreadHot(const PlugInThreadHot&) = delete;
  PlugInThreadHot& operator=(const PlugInThreadHot&) = delete;

  // Makes a thread with this stack size in bytes (0, or one the platform does not take: its default). True when there
  // is a new thread; false when the object has one already or the platform refuses. The object may be started again
  // once its thread has ended; Start waits for a thread that has done its work to let go of the object.
  bool Start(unsigned long stackSize);

  // Waits for the thread to end, or to let go of the object when its work is done; without limit: the time-out is not
  // used. True when the object then has no thread; false when the thread cannot be waited for, because it is the
  // calling one or itself waits for it.
  bool WaitForStop(unsigned int timeoutMs);
  bool WaitForStop();

  // Does not wait: true for a count above 0. Nothing else is used.
  static bool WaitForMultipleThreads(PlugInThreadHot* const* threads, int count, unsigned int timeoutMs = 4294967295U);

  // Makes the calling thread the object's thread until it ends, unless the object ever had one. Waiting for it while it
  // runs, also by destroying the object, joins it: then nobody else may, and it must not be detached.
  bool Attach();

  bool HasThread() const;
  void SetHasThread(bool hasThread);

  // The result of the last Run; 0 before.
  int GetReturnValue() const;

  // The event that is signalled when the thread's work has ended. One Signal releases one WaitforSignal.
  void Signal();
  void WaitforSignal();  // exported spelling: the host links against it

  // Sends a signal to the thread; false when there is none or the number is none.
  bool Signal(int signalNumber);

  // Suspend blocks the calling thread until Resume. A Resume that comes first is kept, and from then on Suspend returns
  // at once. Both answer true.
  bool Suspend();
  bool Resume();

 private:
  friend void* EntryFunc(void* threadObject);
  struct VEXADX_HIDDEN StartedThread;
  struct VEXADX_HIDDEN Registry;
  struct VEXADX_HIDDEN AttachedThread;
  class VEXADX_HIDDEN JoinClaim;

  VEXADX_HIDDEN static Registry& registry();
  VEXADX_HIDDEN const char* initializePlatformObjects(int& error);
  VEXADX_HIDDEN void awaitEarlierThread();
  VEXADX_HIDDEN bool createThread(const pthread_attr_t& attributes);
  VEXADX_HIDDEN bool isThreadKnown();
  VEXADX_HIDDEN void* letGo();

  pthread_t m_threadId;  // guarded by the registry's guard. Stays after the thread has ended; 0: there never was one
  pthread_attr_t m_threadAttributes;
  pthread_mutex_t m_suspendMutex;  // guards m_resumeCount
  pthread_mutexattr_t m_mutexAttributes;
  pthread_condattr_t m_condAttributes;
  pthread_cond_t m_suspendCond;
  int m_resumeCount;
  PlugInCriticalSection m_exitCodeLock;  // guards m_exitCode
  PlugInSynchEvent m_stopEvent;
  int m_exitCode;
  std::atomic<bool> m_hasThread;
  PlugInCriticalSection m_stateLock;  // starts, terminations and SetHasThread. Outer to the registry's guard
  std::atomic<int> m_returnValue;
};
