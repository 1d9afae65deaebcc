#include "PlugInThreadHot.h"

#include <signal.h>

#include <condition_variable>
#include <iostream>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <utility>

#include "cancellationguard.h"
#include "mutexlock.h"

namespace {

constexpr unsigned int kDefaultTimeoutMs = 3000;

}  // namespace

// A thread that Start made, from then until it has let go of its object. The thread itself removes the entry before it
// ends, so that no later thread of the same identifier ever finds it.
struct PlugInThreadHot::StartedThread {
  PlugInThreadHot* object;
  unsigned long serial;         // tells threads apart whose identifier or object is the same
  JoinClaim* joiner = nullptr;  // who joins the thread; it detaches itself when nobody does
};

struct PlugInThreadHot::Registry {
  // Guards everything here and the identifiers of all objects. Innermost lock: nothing waits under it but on
  // `threadLetGo`, and no thread is joined under it, because a thread needs it to leave.
  std::mutex guard;
  std::condition_variable threadLetGo;
  std::map<pthread_t, StartedThread> curThread;
  std::map<PlugInThreadHot*, JoinClaim*> attached;  // those whose thread somebody else made, and who joins it
  unsigned long lastSerial = 0;

  // The calling thread is about to end: no attached object has it any more.
  void forgetAttached();
};

// How one caller waits for one thread to end. At most one joins it; others wait until it has let go of its object.
class PlugInThreadHot::JoinClaim {
 public:
  enum class Way { kNothing, kLetGo, kJoin };

  explicit JoinClaim(PlugInThreadHot& object) : m_object(object) {}
  ~JoinClaim() {
    if (m_way == Way::kJoin) giveBack();
  }
  JoinClaim(const JoinClaim&) = delete;
  JoinClaim& operator=(const JoinClaim&) = delete;

  // Finds out how to wait; false when there is no thread to wait for. Called with the registry's guard held.
  bool Take(Registry& registry) {
    if (!m_object.isThreadKnown()) return false;
    m_thread = m_object.m_threadId;
    if (::pthread_equal(m_thread, ::pthread_self())) return false;
    const auto entry = registry.curThread.find(m_thread);
    m_attached = entry == registry.curThread.end();
    if (!m_attached) m_serial = entry->second.serial;
    JoinClaim*& joiner = m_attached ? registry.attached.at(&m_object) : entry->second.joiner;
    m_way = joiner || !m_object.HasThread() ? Way::kLetGo : Way::kJoin;
    if (m_way == Way::kJoin) joiner = this;
    return true;
  }

  pthread_t Thread() const { return m_thread; }

  // Waits. Does not touch the object once its thread may have let go of it. False when the thread cannot be joined.
  bool Wait() {
    if (m_way == Way::kLetGo) {
      awaitLetGo();
      return true;
    }
    if (::pthread_join(m_thread, nullptr) != 0) return false;  // given back by the destructor
    m_way = Way::kNothing;
    return true;
  }

  // The thread has let go of its object and ends, to be joined. Called with the registry's guard held.
  void ThreadHasLetGo() { m_letGo = true; }

 private:
  void awaitLetGo() {
    std::unique_lock guard(registry().guard);
    registry().threadLetGo.wait(guard, [this] {
      if (m_attached) return !registry().attached.contains(&m_object);
      const auto entry = registry().curThread.find(m_thread);
      return entry == registry().curThread.end() || entry->second.serial != m_serial;
    });
  }

  // The join has failed, or was cancelled: the thread has to look after itself again.
  void giveBack() {
    const std::lock_guard guard(registry().guard);
    if (m_letGo) {
      if (!m_attached) ::pthread_detach(m_thread);  // else it is for whoever made it
      return;
    }
    (m_attached ? registry().attached.at(&m_object) : registry().curThread.at(m_thread).joiner) = nullptr;
  }

  PlugInThreadHot& m_object;
  Way m_way = Way::kNothing;
  pthread_t m_thread{};
  unsigned long m_serial = 0;
  bool m_attached = false;  // not one of Start's
  bool m_letGo = false;     // guarded by the registry's guard
};

void PlugInThreadHot::Registry::forgetAttached() {
  const std::size_t forgotten = std::erase_if(attached, [](const auto& entry) {
    const auto& [object, joiner] = entry;
    if (!::pthread_equal(object->m_threadId, ::pthread_self())) return false;
    object->m_hasThread = false;
    if (joiner) joiner->ThreadHasLetGo();
    return true;
  });
  if (forgotten > 0) threadLetGo.notify_all();
}

// Ends with a thread that attached itself.
struct PlugInThreadHot::AttachedThread {
  AttachedThread() = default;
  ~AttachedThread() {
    const std::lock_guard guard(registry().guard);
    registry().forgetAttached();
  }
  AttachedThread(const AttachedThread&) = delete;
  AttachedThread& operator=(const AttachedThread&) = delete;

  static void BeginHere() {
    thread_local const AttachedThread ends;
    (void)ends;
  }
};

// Never destroyed: threads may still end while the process does. It takes no memory, as waiting for a thread must not
// fail.
PlugInThreadHot::Registry& PlugInThreadHot::registry() {
  union Kept {
    Kept() : registry() {}
    ~Kept() {}
    Registry registry;
  };
  static Kept kept;
  return kept.registry;
}

PlugInThreadHot::PlugInThreadHot()
    : m_threadId(),
      m_threadAttributes(),
      m_suspendMutex(PTHREAD_MUTEX_INITIALIZER),
      m_mutexAttributes(),
      m_condAttributes(),
      m_suspendCond(PTHREAD_COND_INITIALIZER),
      m_resumeCount(0),
      m_stopEvent(false, false, nullptr),
      m_exitCode(0),
      m_hasThread(false),
      m_returnValue(0) {
  int error = 0;
  const char* failed = initializePlatformObjects(error);
  if (!failed) return;
  std::cout << "*PlugInThreadHot Error: " + std::string(failed) + " returned " + std::to_string(error) + ": " +
                   std::generic_category().message(error)
            << std::endl;
}

// Answers the name of the call that failed, and its error; what comes after it is left as it was. Null: all is well.
const char* PlugInThreadHot::initializePlatformObjects(int& error) {
  if ((error = ::pthread_attr_init(&m_threadAttributes)) != 0) return "pthread_attr_init";
  if ((error = ::pthread_mutexattr_init(&m_mutexAttributes)) != 0) return "pthread_mutexattr_init";
  if ((error = ::pthread_condattr_init(&m_condAttributes)) != 0) return "pthread_condattr_init";
  if ((error = ::pthread_mutex_init(&m_suspendMutex, nullptr)) != 0) return "pthread_mutex_init";
  if ((error = ::pthread_cond_init(&m_suspendCond, nullptr)) != 0) return "pthread_cond_init";
  return nullptr;
}

PlugInThreadHot::~PlugInThreadHot() {
  const CancellationGuard noCancellation;
  (void)WaitForStop(kDefaultTimeoutMs);
  ::pthread_attr_destroy(&m_threadAttributes);
  ::pthread_cond_destroy(&m_suspendCond);
  ::pthread_mutex_destroy(&m_suspendMutex);
  ::pthread_mutexattr_destroy(&m_mutexAttributes);
  ::pthread_condattr_destroy(&m_condAttributes);
  const std::lock_guard guard(registry().guard);
  registry().attached.erase(this);
}

bool PlugInThreadHot::Start(unsigned long stackSize) {
  awaitEarlierThread();
  const PlugInCriticalSection::Lock state(m_stateLock);
  if (HasThread()) return false;
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  if (stackSize != 0) ::pthread_attr_setstacksize(&attributes, stackSize);
  const bool created = createThread(attributes);
  ::pthread_attr_destroy(&attributes);
  return created;
}

// A thread whose work has ended may not have let go of the object yet. Without the state lock, which it may want.
void PlugInThreadHot::awaitEarlierThread() {
  std::unique_lock guard(registry().guard);
  while (isThreadKnown() && !HasThread() && !::pthread_equal(m_threadId, ::pthread_self())) {
    registry().threadLetGo.wait(guard);
  }
}

bool PlugInThreadHot::createThread(const pthread_attr_t& attributes) {
  // Allocated before there is a thread that could be lost.
  std::map<pthread_t, StartedThread> entry;
  StartedThread& started = entry.emplace(pthread_t{}, StartedThread{this, 0}).first->second;

  // Kept until the thread is registered, so that it cannot leave before. It may have done its work by then, and cleared
  // the flag that is set here.
  const std::lock_guard guard(registry().guard);
  if (isThreadKnown()) return false;
  started.serial = ++registry().lastSerial;
  pthread_t thread{};
  m_hasThread = true;
  if (::pthread_create(&thread, &attributes, &EntryFunc, this) != 0) {
    m_hasThread = false;
    return false;
  }
  m_threadId = thread;
  auto node = entry.extract(entry.begin());
  node.key() = thread;
  registry().curThread.insert(std::move(node));
  return true;
}

// Whether the identifier is that of a thread that has not ended: one of ours that still has the object, or one that
// was attached. Called with the registry's guard held.
bool PlugInThreadHot::isThreadKnown() {
  const auto entry = registry().curThread.find(m_threadId);
  if (entry != registry().curThread.end() && entry->second.object == this) return true;
  return HasThread() && registry().attached.contains(this);
}

void* EntryFunc(void* threadObject) {
  struct Leaving {
    PlugInThreadHot* object;
    void* result;
  } leaving{static_cast<PlugInThreadHot*>(threadObject), nullptr};
  PlugInThreadHot& object = *leaving.object;

  // Also when the thread is cancelled, or ends itself inside Run.
  const auto leave = [](void* context) {
    auto& thread = *static_cast<Leaving*>(context);
    thread.object->Signal();
    thread.result = thread.object->letGo();
  };
  pthread_cleanup_push(leave, &leaving);
  // Without memory for the section's table the work is done all the same, and its code is not kept here.
  const auto keepExitCode = [&object](int code) {
    try {
      const PlugInCriticalSection::Lock lock(object.m_exitCodeLock);
      object.m_exitCode = code;
    } catch (const std::bad_alloc&) {
      return;
    }
  };
  keepExitCode(0);
  keepExitCode(object.Entry());
  pthread_cleanup_pop(1);
  return leaving.result;
}

// The thread's last act on its object. Answers what the thread ends with.
void* PlugInThreadHot::letGo() {
  void* result = &m_exitCode;
  const pthread_t self = ::pthread_self();
  const std::lock_guard guard(registry().guard);
  const auto entry = registry().curThread.find(self);
  JoinClaim* joiner = entry == registry().curThread.end() ? nullptr : entry->second.joiner;
  if (entry != registry().curThread.end()) {
    m_hasThread = false;
    registry().forgetAttached();
    registry().curThread.erase(entry);
    registry().threadLetGo.notify_all();
  }
  if (!joiner) {
    ::pthread_detach(self);
    return result;
  }
  joiner->ThreadHasLetGo();
  return nullptr;
}

int PlugInThreadHot::Entry() {
  m_returnValue = Run();
  // Cleared before the thread lets go, so that a WaitForStop that reads false never joins.
  m_hasThread = false;
  return m_returnValue;
}

int PlugInThreadHot::Run() { return 0; }

bool PlugInThreadHot::WaitForStop(unsigned int /*timeoutMs*/) {
  JoinClaim claim(*this);
  {
    const std::lock_guard guard(registry().guard);
    if (!claim.Take(registry())) return !HasThread();
  }
  return claim.Wait();
}

bool PlugInThreadHot::WaitForStop() { return WaitForStop(kDefaultTimeoutMs); }

bool PlugInThreadHot::WaitForMultipleThreads(PlugInThreadHot* const* /*threads*/, int count,
                                             unsigned int /*timeoutMs*/) {
  return count > 0;
}

bool PlugInThreadHot::Attach() {
  AttachedThread::BeginHere();
  const std::lock_guard guard(registry().guard);
  if (m_threadId != pthread_t{}) return false;
  registry().attached.emplace(this, nullptr);
  m_threadId = ::pthread_self();
  m_hasThread = true;
  return true;
}

bool PlugInThreadHot::HasThread() const { return m_hasThread; }

void PlugInThreadHot::SetHasThread(bool hasThread) {
  const PlugInCriticalSection::Lock state(m_stateLock);
  m_hasThread = hasThread;
}

int PlugInThreadHot::GetReturnValue() const { return m_returnValue; }

void PlugInThreadHot::Signal() { m_stopEvent.Signal(); }

void PlugInThreadHot::WaitforSignal() { m_stopEvent.WaitForSignal(); }

bool PlugInThreadHot::Signal(int signalNumber) {
  std::unique_lock guard(registry().guard);  // the thread cannot end under it
  if (!isThreadKnown()) return false;
  const pthread_t thread = m_threadId;
  if (::pthread_equal(thread, ::pthread_self())) guard.unlock();  // for what its own signal handler does
  return ::pthread_kill(thread, signalNumber) == 0;
}

bool PlugInThreadHot::Suspend() {
  const MutexLock lock(m_suspendMutex);
  if (m_resumeCount != 0) return true;
  while (m_resumeCount == 0) ::pthread_cond_wait(&m_suspendCond, &m_suspendMutex);
  --m_resumeCount;
  return true;
}

bool PlugInThreadHot::Resume() {
  const MutexLock lock(m_suspendMutex);
  if (m_resumeCount != 0) return true;
  ::pthread_cond_signal(&m_suspendCond);
  ++m_resumeCount;
  return true;
}

bool PlugInThreadHot::Terminate() {
  JoinClaim claim(*this);
  {
    const PlugInCriticalSection::Lock state(m_stateLock);
    const std::lock_guard guard(registry().guard);
    if (!HasThread() || !claim.Take(registry())) return false;
    ::pthread_cancel(claim.Thread());
  }
  return claim.Wait();  // without the state lock, which the thread may want before it can be cancelled
}
