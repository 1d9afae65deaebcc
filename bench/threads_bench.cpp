// What the library's locks, events and threads cost beside the platform's own, taken in turn within one run: a section
// beside a recursive mutex and beside the bare structure it is made of, the hand-off from one thread to another by
// events beside one by condition variables, a thread's start and end beside a platform thread's.

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "PlugInCriticalSection.h"
#include "PlugInThreadHot.h"
#include "placement.h"
#include "ratio.h"

namespace {

constexpr int kSlowRounds = 100;  // for what takes a thousand times as long as a lock

// Keeps the process at more than one thread, as every host has: with one, the platform's mutexes are a tenth cheaper.
class SecondThread {
 public:
  SecondThread() : m_thread([end = m_end.get_future()] { end.wait(); }) {}
  ~SecondThread() {
    m_end.set_value();
    m_thread.join();
  }
  SecondThread(const SecondThread&) = delete;
  SecondThread& operator=(const SecondThread&) = delete;

 private:
  std::promise<void> m_end;
  std::thread m_thread;
};

// The structure of a section written straight down: gate, main mutex, and a table of counts whose guard is taken for
// each of the two accesses that an acquisition and a release need.
class BareSection {
 public:
  void Acquire() {
    const pthread_t self = ::pthread_self();
    if (count(self) > 0) {
      change(self, 1);
      return;
    }
    ::pthread_mutex_lock(&m_gate);
    ::pthread_mutex_lock(&m_main);
    change(self, 1);
    ::pthread_mutex_unlock(&m_gate);
  }

  void Release() {
    const pthread_t self = ::pthread_self();
    if (count(self) == 1) ::pthread_mutex_unlock(&m_main);
    change(self, -1);
  }

 private:
  int count(pthread_t thread) {
    ::pthread_mutex_lock(&m_guard);
    const auto entry = m_counts.find(thread);
    const int found = entry == m_counts.end() ? 0 : entry->second;
    ::pthread_mutex_unlock(&m_guard);
    return found;
  }

  void change(pthread_t thread, int by) {
    ::pthread_mutex_lock(&m_guard);
    m_counts[thread] += by;
    ::pthread_mutex_unlock(&m_guard);
  }

  pthread_mutex_t m_main = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t m_gate = PTHREAD_MUTEX_INITIALIZER;
  pthread_mutex_t m_guard = PTHREAD_MUTEX_INITIALIZER;
  std::map<pthread_t, int> m_counts;
};

void acquire(PlugInCriticalSection& section) { section.Acquire(); }
void release(PlugInCriticalSection& section) { section.Release(); }
void acquire(BareSection& section) { section.Acquire(); }
void release(BareSection& section) { section.Release(); }
void acquire(std::recursive_mutex& mutex) { mutex.lock(); }
void release(std::recursive_mutex& mutex) { mutex.unlock(); }

template <typename Lock>
class Held {
 public:
  Held(Lock& lock, bool held) : m_lock(held ? &lock : nullptr) {
    if (m_lock) acquire(*m_lock);
  }
  ~Held() {
    if (m_lock) release(*m_lock);
  }
  Held(const Held&) = delete;
  Held& operator=(const Held&) = delete;

 private:
  Lock* m_lock;
};

// Of a free lock, or of one that the thread holds already.
template <typename Lock, typename Limit>
void AcquireAndRelease(benchmark::State& state) {
  const SecondThread second;
  Lock lock;
  Limit limit;
  const bool held = state.range(0) != 0;
  const Held<Lock> lockHeld(lock, held);
  const Held<Limit> limitHeld(limit, held);
  const auto acquireAndRelease = [](auto& subject) {
    acquire(subject);
    release(subject);
  };
  const Pair pair = measure(
      state, [&] { acquireAndRelease(lock); }, [&] { acquireAndRelease(limit); });
  state.counters["ratio"] = pair.Ratio();
}
BENCHMARK(AcquireAndRelease<PlugInCriticalSection, std::recursive_mutex>)
    ->ArgName("held")
    ->DenseRange(0, 1)
    ->UseManualTime()
    ->Iterations(kRounds);
BENCHMARK(AcquireAndRelease<PlugInCriticalSectionExt, std::recursive_mutex>)
    ->ArgName("held")
    ->DenseRange(0, 1)
    ->UseManualTime()
    ->Iterations(kRounds);
BENCHMARK(AcquireAndRelease<PlugInCriticalSection, BareSection>)  // about 1
    ->ArgName("held")
    ->DenseRange(0, 1)
    ->UseManualTime()
    ->Iterations(kRounds);

class AutomaticEvent : public PlugInSynchEvent {
 public:
  AutomaticEvent() : PlugInSynchEvent(false, false, nullptr) {}
};

class BareEvent {
 public:
  void Signal() {
    ::pthread_mutex_lock(&m_mutex);
    m_signaled = true;
    ::pthread_cond_signal(&m_cond);
    ::pthread_mutex_unlock(&m_mutex);
  }

  void WaitForSignal() {
    ::pthread_mutex_lock(&m_mutex);
    while (!m_signaled) ::pthread_cond_wait(&m_cond, &m_mutex);
    m_signaled = false;
    ::pthread_mutex_unlock(&m_mutex);
  }

 private:
  pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;
  bool m_signaled = false;
};

// A thread on a processor that answers each ping with a pong.
template <typename Event>
class Peer {
 public:
  explicit Peer(int processor) : m_thread([this, processor] { answer(processor); }) {}
  ~Peer() {
    m_end = true;
    m_ping.Signal();
    m_thread.join();
  }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  void PingPong() {
    m_ping.Signal();
    m_pong.WaitForSignal();
  }

 private:
  void answer(int processor) {
    const Placement here(processor, 1);
    for (;;) {
      m_ping.WaitForSignal();
      if (m_end) return;
      m_pong.Signal();
    }
  }

  Event m_ping;
  Event m_pong;
  bool m_end = false;  // handed over by the ping
  std::thread m_thread;
};

// There and back: two hand-offs.
void PingPong(benchmark::State& state) {
  const int processors = static_cast<int>(state.range(0));
  const Placement here(0, 1);
  Peer<AutomaticEvent> peer(processors - 1);
  Peer<BareEvent> barePeer(processors - 1);
  const Pair pair = measure(
      state, [&] { peer.PingPong(); }, [&] { barePeer.PingPong(); });
  state.counters["ratio"] = pair.Ratio();  // at most 1.3
}
BENCHMARK(PingPong)->ArgName("processors")->DenseRange(kFewestProcessors, 2)->UseManualTime()->Iterations(kSlowRounds);

void startAndJoin() {
  pthread_t thread{};
  const auto nothing = [](void*) -> void* { return nullptr; };
  stopUnless(::pthread_create(&thread, nullptr, nothing, nullptr) == 0, "the platform did not start a thread");
  stopUnless(::pthread_join(thread, nullptr) == 0, "the platform's thread could not be joined");
}

void StartAndWaitForStop(benchmark::State& state) {
  const Placement here(0, static_cast<int>(state.range(0)));
  PlugInThreadHot thread;  // its Run does nothing
  const Pair pair = measure(
      state,
      [&] {
        stopUnless(thread.Start(0), "the thread did not start");
        stopUnless(thread.WaitForStop(), "the thread did not stop");
      },
      [] { startAndJoin(); });
  state.counters["ratio"] = pair.Ratio();  // at most 1.2
}
BENCHMARK(StartAndWaitForStop)
    ->ArgName("processors")
    ->DenseRange(kFewestProcessors, 2)
    ->UseManualTime()
    ->Iterations(kSlowRounds);

}  // namespace

BENCHMARK_MAIN();
