#include "PlugInCriticalSection.h"

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "dxassert.h"
#include "mutexlock.h"

namespace {

constexpr const char* kSourceFile = "backend/drivex/common/src/PlugInCriticalSection";

constexpr pthread_t kNoThread{};

constexpr unsigned int kNoTimeLimit = 4294967295U;

[[maybe_unused]] constexpr long kNanosecondsPerSecond = 1'000'000'000;

// Waits on the condition, at most so long, whatever becomes of the time of day meanwhile. Answers an error number.
int waitAtMost(pthread_cond_t& condition, pthread_mutex_t& mutex, unsigned int timeoutMs) {
  timespec time{static_cast<time_t>(timeoutMs / 1000), static_cast<long>(timeoutMs % 1000) * 1'000'000};
#ifdef __APPLE__
  return ::pthread_cond_timedwait_relative_np(&condition, &mutex, &time);
#else
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  time.tv_sec += now.tv_sec;
  time.tv_nsec += now.tv_nsec;
  if (time.tv_nsec >= kNanosecondsPerSecond) {
    time.tv_nsec -= kNanosecondsPerSecond;
    ++time.tv_sec;
  }
  return ::pthread_cond_clockwait(&condition, &mutex, CLOCK_MONOTONIC, &time);
#endif
}

}  // namespace

PlugInCriticalSection::PlugInCriticalSection()
    : m_Handle(nullptr), m_Locked(false), m_Gate(nullptr), m_CountGuard(nullptr) {
  auto handle = std::make_unique<pthread_mutex_t>();
  auto gate = std::make_unique<pthread_mutex_t>();
  auto countGuard = std::make_unique<pthread_mutex_t>();
  m_Handle = handle.release();
  m_Gate = gate.release();
  m_CountGuard = countGuard.release();
  const int tmp2 = ::pthread_mutex_init(m_Gate, nullptr);
  const int tmp = ::pthread_mutex_init(m_Handle, nullptr);
  const int tmp3 = ::pthread_mutex_init(m_CountGuard, nullptr);
  DxAssert(tmp2 == 0, "tmp2==0", "PlugInCriticalSection", kSourceFile);
  DxAssert(tmp == 0, "tmp==0", "PlugInCriticalSection", kSourceFile);
  DxAssert(tmp3 == 0, "tmp3==0", "PlugInCriticalSection", kSourceFile);
  DxAssert(m_Handle != nullptr, "m_Handle!=NULL", "PlugInCriticalSection", kSourceFile);
}

PlugInCriticalSection::~PlugInCriticalSection() {
  if (m_Locked) PlugInCriticalSection::Release();
  DxAssert(m_Handle != nullptr, "m_Handle!=NULL", "~PlugInCriticalSection", kSourceFile);
  // Held more than once it is still locked, and a locked mutex must not be destroyed.
  if (get_ThreadCount(::pthread_self()) > 0) ::pthread_mutex_unlock(m_Handle);
  for (pthread_mutex_t* mutex : {m_Handle, m_Gate, m_CountGuard}) {
    ::pthread_mutex_destroy(mutex);
    delete mutex;
  }
}

void PlugInCriticalSection::Acquire() {
  const pthread_t self = ::pthread_self();
  if (get_ThreadCount(self) > 0) {  // nobody else changes it
    Increment_ThreadCount(self);
    return;
  }
  const MutexLock gate(*m_Gate);  // kept until the count is recorded
  const int tmp = ::pthread_mutex_lock(m_Handle);
  DxAssert(tmp == 0, "tmp==0", "Acquire", kSourceFile);
  m_Locked = true;
  try {
    Increment_ThreadCount(self);
  } catch (const std::bad_alloc&) {  // held by nobody, or it would be held for ever
    m_Locked = false;
    ::pthread_mutex_unlock(m_Handle);
    throw;
  }
}

void PlugInCriticalSection::Release() {
  DxAssert(m_Handle != nullptr, "m_Handle!=NULL", "Release", kSourceFile);
  const pthread_t self = ::pthread_self();
  if (get_ThreadCount(self) == 1) {
    m_Locked = false;
    const int tmp = ::pthread_mutex_unlock(m_Handle);
    DxAssert(tmp == 0, "tmp==0", "Release", kSourceFile);
  }
  Decrement_ThreadCount(self);
}

int PlugInCriticalSection::get_ThreadCount(pthread_t thread) {
  const MutexLock guard(*m_CountGuard);
  const auto entry = m_ThreadCounts.find(thread);
  return entry == m_ThreadCounts.end() ? 0 : entry->second;
}

void PlugInCriticalSection::Increment_ThreadCount(pthread_t thread) {
  const MutexLock guard(*m_CountGuard);
  ++m_ThreadCounts[thread];
}

void PlugInCriticalSection::Decrement_ThreadCount(pthread_t thread) {
  const MutexLock guard(*m_CountGuard);
  const auto entry = m_ThreadCounts.find(thread);
  if (entry != m_ThreadCounts.end() && entry->second > 0) --entry->second;
}

// A constant section can be locked: being held is no part of its value.
PlugInCriticalSection::Lock::Lock(const PlugInCriticalSection& section)
    : m_Crit(const_cast<PlugInCriticalSection*>(&section)) {
  m_Crit->Acquire();
}

PlugInCriticalSection::Lock::~Lock() {
  DxAssert(m_Crit != nullptr, "m_Crit!=NULL", "~Lock", kSourceFile);
  m_Crit->Release();
}

PlugInCriticalSectionExt::PlugInCriticalSectionExt() : m_Owner(kNoThread), m_NumAcquisitions(0) {}

PlugInCriticalSectionExt::~PlugInCriticalSectionExt() = default;

void PlugInCriticalSectionExt::Acquire() {
  const pthread_t self = ::pthread_self();
  m_Protect.Acquire();
  if (m_Owner == self) {
    PlugInCriticalSection::Acquire();
  } else {
    m_Protect.Release();  // for the holder, who needs it to release what this thread waits for
    PlugInCriticalSection::Acquire();
    m_Protect.Acquire();
  }
  ++m_NumAcquisitions;
  m_Owner = self;
  m_Protect.Release();
}

void PlugInCriticalSectionExt::Release() {
  const Lock protect(m_Protect);
  if (m_NumAcquisitions > 0 && m_Owner != ::pthread_self()) return;
  --m_NumAcquisitions;
  DxAssert(m_NumAcquisitions >= 0, "m_NumAcquisitions>=0", "Release", kSourceFile);
  if (m_NumAcquisitions == 0) m_Owner = kNoThread;
  PlugInCriticalSection::Release();
}

bool PlugInCriticalSectionExt::IsAcquired() const {
  const Lock protect(m_Protect);
  DxAssert(m_NumAcquisitions >= 0, "m_NumAcquisitions>=0", "IsAcquired", kSourceFile);
  return m_NumAcquisitions > 0;
}

PlugInCriticalSection* PlugInCriticalSectionExt::AcquireProtect() { return &m_Protect; }

bool PlugInCriticalSectionExt::Try() {
  {
    const Lock protect(m_Protect);
    if (m_Owner == ::pthread_self()) {
      PlugInCriticalSection::Acquire();
      ++m_NumAcquisitions;
      return true;
    }
    if (IsAcquired()) return false;
  }
  Acquire();
  return true;
}

PlugInCriticalSectionExt::TryLock::TryLock(PlugInCriticalSectionExt& section)
    : m_acquired(section.Try()), m_section(&section) {}

PlugInCriticalSectionExt::TryLock::~TryLock() {
  if (m_acquired) m_section->Release();
}

bool PlugInCriticalSectionExt::TryLock::IsAcquired() const { return m_acquired; }

PlugInSynchEvent::PlugInSynchEvent(bool manualReset, bool signaled, const char* /*name*/)
    : m_manualReset(manualReset),
      m_mutex(nullptr),
      m_cond(nullptr),
      m_replyEvent(nullptr),
      m_signaled(signaled ? 1 : 0) {
  auto mutex = std::make_unique<pthread_mutex_t>(pthread_mutex_t(PTHREAD_MUTEX_INITIALIZER));
  m_cond = new pthread_cond_t(PTHREAD_COND_INITIALIZER);
  m_mutex = mutex.release();
}

PlugInSynchEvent::~PlugInSynchEvent() {
  ::pthread_mutex_destroy(m_mutex);
  delete m_mutex;
  ::pthread_cond_destroy(m_cond);
  delete m_cond;
  delete m_replyEvent;  // without its lock, for which there might be no memory: nobody is inside
}

void PlugInSynchEvent::Signal() {
  const MutexLock lock(*m_mutex);
  m_signaled = 1;
  ::pthread_cond_signal(m_cond);
}

void PlugInSynchEvent::Unsignal() {
  const MutexLock lock(*m_mutex);
  m_signaled = 0;
}

void PlugInSynchEvent::WaitForSignal(unsigned int timeoutMs) {
  std::optional<PlugInCriticalSection::Lock> waiters;
  if (!m_manualReset) waiters.emplace(m_waitersLock);
  const MutexLock lock(*m_mutex);
  while (m_signaled == 0) {
    if (timeoutMs == kNoTimeLimit) {
      ::pthread_cond_wait(m_cond, m_mutex);
      continue;
    }
    if (waitAtMost(*m_cond, *m_mutex, timeoutMs) == ETIMEDOUT) m_signaled = 1;
  }
  if (m_manualReset) return;
  m_signaled = 0;
  waiters.reset();  // before m_mutex
}

void PlugInSynchEvent::WaitForSignal() { WaitForSignal(kNoTimeLimit); }

void PlugInSynchEvent::SignalAndWaitForReply() {
  const PlugInCriticalSection::Lock request(m_requestLock);
  PlugInSynchEvent* reply = ReplyEvent();
  Signal();
  reply->WaitForSignal();
  ClearReplyEvent();
}

void PlugInSynchEvent::Reply() {
  // Held until the signal is through: whoever waits for it destroys the event as soon as it is woken.
  const PlugInCriticalSection::Lock lock(m_replyEventLock);
  ReplyEvent()->Signal();
}

PlugInSynchEvent* PlugInSynchEvent::ReplyEvent() {
  const PlugInCriticalSection::Lock lock(m_replyEventLock);
  if (!m_replyEvent) m_replyEvent = new PlugInSynchEvent(false, false, nullptr);
  return m_replyEvent;
}

void PlugInSynchEvent::ClearReplyEvent() {
  const PlugInCriticalSection::Lock lock(m_replyEventLock);
  delete std::exchange(m_replyEvent, nullptr);
}
