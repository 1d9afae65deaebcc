#pragma once

#include <pthread.h>

#include <map>

#include "vexadx_export.h"

// A recursive lock: the thread that holds it may acquire it again, and it is free once that thread has released it as
// often. Any thread may use it. It reports nothing: a platform call that fails stops the process.
//
// A thread that does not hold the section passes the gate, then waits for the main mutex; at most one thread waits
// there. The guard of the counts is innermost and held for one look-up or one change, never while waiting.
class VEXADX_API PlugInCriticalSection {
 public:
  class Lock;

  PlugInCriticalSection();

  // Releases a section that the calling thread still holds. REQUIRES: no other thread holds it, waits for it, or
  // is still inside Release.
  virtual ~PlugInCriticalSection();
  PlugInCriticalSection(const PlugInCriticalSection&) = delete;
  PlugInCriticalSection& operator=(const PlugInCriticalSection&) = delete;

  // Returns once the calling thread holds the section, once more often than before.
  virtual void Acquire();

  // Gives one acquisition back. Ignored when the calling thread holds none.
  virtual void Release();

  // The table of acquisitions. Changing it from outside changes what Acquire and Release take for granted.
  int get_ThreadCount(pthread_t thread);         // 0 for a thread that is not in the table
  void Increment_ThreadCount(pthread_t thread);  // puts it into the table when it is not there
  void Decrement_ThreadCount(pthread_t thread);  // never below 0

 private:
  pthread_mutex_t* m_Handle;  // the lock proper, owned like the other two
  bool m_Locked;              // written by the holder of m_Handle only
  pthread_mutex_t* m_Gate;
  pthread_mutex_t* m_CountGuard;
  std::map<pthread_t, int> m_ThreadCounts;  // a thread stays in the table with 0 after its last release
};

// Holds a section, of whichever kind, for the lifetime of a scope.
class VEXADX_API PlugInCriticalSection::Lock {
 public:
  explicit Lock(const PlugInCriticalSection& section);
  virtual ~Lock();
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  PlugInCriticalSection* m_Crit;
};

// A section that knows whether it is held and by whom, and that can be tried.
class VEXADX_API PlugInCriticalSectionExt : public PlugInCriticalSection {
 public:
  class TryLock;

  PlugInCriticalSectionExt();
  ~PlugInCriticalSectionExt() override;

  void Acquire() override;

  // Ignored when another thread holds the section. Releasing one that nobody holds stops the process.
  void Release() override;

  // Whether some thread holds the section.
  bool IsAcquired() const;

  // The section that guards the record of the owner. It stays this one's.
  PlugInCriticalSection* AcquireProtect();

  // Acquires the section unless another thread is recorded as holding it; each true wants a Release. Of two threads
  // that try a free section at the same time both may be told true, the second after it has waited for the first.
  bool Try();

 private:
  PlugInCriticalSection m_Protect;  // guards the two below; nobody waits for the section itself under it
  pthread_t m_Owner;                // 0: none
  int m_NumAcquisitions;            // 0 exactly while there is no owner
};

// Tries a section once and holds it for the lifetime of a scope if it was to be had.
class VEXADX_API PlugInCriticalSectionExt::TryLock {
 public:
  explicit TryLock(PlugInCriticalSectionExt& section);
  ~TryLock();
  TryLock(const TryLock&) = delete;
  TryLock& operator=(const TryLock&) = delete;

  bool IsAcquired() const;

 private:
  bool m_acquired;
  PlugInCriticalSectionExt* m_section;
};

// An event that one thread signals and another waits for. Any thread may use it. A waiting thread may be cancelled, on
// an automatic event when its turn to wait has come.
class VEXADX_API PlugInSynchEvent {
 public:
  // With automatic reset a completed wait clears the signalled state, with manual reset only Unsignal does. The name is
  // not used and may be null.
  PlugInSynchEvent(bool manualReset, bool signaled, const char* name);

  // REQUIRES: nobody is inside any other operation of it.
  virtual ~PlugInSynchEvent();
  PlugInSynchEvent(const PlugInSynchEvent&) = delete;
  PlugInSynchEvent& operator=(const PlugInSynchEvent&) = delete;

  // Sets the event and wakes one waiter. The state stays until a wait or Unsignal clears it; signalling twice before
  // that is signalling once.
  void Signal();
  void Unsignal();

  // Returns when the event is signalled or the milliseconds are over, without saying which; 4294967295 means no limit.
  // A wait whose time is over leaves an automatic event not signalled and a manual one signalled. With automatic reset
  // one thread waits at a time, and the time of the next begins when its turn comes.
  void WaitForSignal(unsigned int timeoutMs);
  void WaitForSignal();  // no limit

  // Signals and waits, without limit, for a Reply; a Reply that came before counts. One request at a time, others wait
  // for their turn.
  void SignalAndWaitForReply();
  void Reply();

  // The event that Reply signals, made on first use and gone after each SignalAndWaitForReply. Owned by this one.
  PlugInSynchEvent* ReplyEvent();
  void ClearReplyEvent();

 private:
  bool m_manualReset;
  pthread_mutex_t* m_mutex;  // guards m_signaled. Inner to m_waitersLock
  pthread_cond_t* m_cond;
  PlugInCriticalSection m_waitersLock;     // held by the one thread that waits on an automatic event
  PlugInCriticalSection m_requestLock;     // held for a whole request. Outer to m_replyEventLock
  PlugInCriticalSection m_replyEventLock;  // guards m_replyEvent. Outer to that event's own locks
  PlugInSynchEvent* m_replyEvent;          // owned
  int m_signaled;
};
