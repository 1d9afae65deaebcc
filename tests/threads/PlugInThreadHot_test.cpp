#include "PlugInThreadHot.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "threadtools.h"

TEST(Thread, RunsAndAnswersWhatRunAnswered) {
  Gate begun;
  Gate go;
  int result = 7;
  Worker thread([&] {
    begun.Signal();
    go.WaitForSignal();
    return result;
  });
  EXPECT_TRUE(thread.WaitForStop());
  EXPECT_FALSE(thread.HasThread());
  for (const unsigned long stackSize : {0UL, 262144UL, 1UL}) {  // and once more on the same object
    EXPECT_TRUE(thread.Start(stackSize));
    begun.WaitForSignal();
    EXPECT_TRUE(thread.HasThread());
    EXPECT_FALSE(thread.Start(0));
    go.Signal();
    EXPECT_TRUE(thread.WaitForStop(0));
    EXPECT_FALSE(thread.HasThread());
    EXPECT_EQ(result++, thread.GetReturnValue());
    thread.WaitforSignal();  // given at the end
    EXPECT_TRUE(thread.WaitForStop());
  }
  PlugInThreadHot plain;
  EXPECT_TRUE(plain.Start(0));
  EXPECT_TRUE(plain.WaitForStop());
  EXPECT_EQ(0, plain.GetReturnValue());
}

TEST(Thread, IsWaitedForByAnyNumberOfThreadsButItself) {
  Gate go;
  std::promise<bool> itself;
  Worker thread([&] {
    go.WaitForSignal();
    itself.set_value(thread.WaitForStop());
    return 3;
  });
  ASSERT_TRUE(thread.Start(0));
  std::vector<std::future<bool>> waiters;
  waiters.reserve(4);
  for (int i = 0; i < 4; ++i) {
    waiters.push_back(
        std::async(std::launch::async, [&] { return thread.WaitForStop() && thread.GetReturnValue() == 3; }));
  }
  go.Signal();
  for (std::future<bool>& waiter : waiters) EXPECT_TRUE(waiter.get());
  EXPECT_FALSE(itself.get_future().get());
}

TEST(Thread, IsWaitedForByTheDestructor) {
  Gate begun;
  Gate go;
  std::atomic<bool> ended{false};
  struct Bare : PlugInThreadHot {  // whose own destructor does not wait
    explicit Bare(const std::function<void()>& todo) : m_todo(todo) {}
    int Run() override {
      m_todo();
      return 0;
    }
    const std::function<void()>& m_todo;
  };
  const std::function<void()> todo = [&] {
    begun.Signal();
    go.WaitForSignal();
    ended = true;
  };
  auto thread = std::make_unique<Bare>(todo);
  ASSERT_TRUE(thread->Start(0));
  begun.WaitForSignal();
  std::thread helper([&] { go.Signal(); });
  thread.reset();
  EXPECT_TRUE(ended);
  helper.join();
}

namespace {

// Its thread stays for a while after its work.
class Lingering : public Worker {
 public:
  Lingering(Gate& lingers, Gate& go, std::atomic<bool>& left)
      : Worker([] { return 0; }), m_lingers(lingers), m_go(go), m_left(left) {}
  ~Lingering() override { WaitForStop(); }

  int Entry() override {
    const int result = Worker::Entry();
    m_lingers.Signal();
    m_go.WaitForSignal();
    m_left = true;
    return result;
  }

 private:
  Gate& m_lingers;
  Gate& m_go;
  std::atomic<bool>& m_left;
};

}  // namespace

TEST(Thread, HasTheObjectUntilItLeaves) {
  using Object = std::unique_ptr<Lingering>;
  void (*const kOperations[])(Object&) = {[](Object& thread) { EXPECT_TRUE(thread->WaitForStop()); },
                                          [](Object& thread) { EXPECT_TRUE(thread->Start(0)); },
                                          [](Object& thread) { thread.reset(); }};
  for (const auto operation : kOperations) {
    Gate lingers;
    Gate go;
    std::atomic<bool> left{false};
    auto thread = std::make_unique<Lingering>(lingers, go, left);
    ASSERT_TRUE(thread->Start(0));
    lingers.WaitForSignal();
    EXPECT_FALSE(thread->HasThread());
    std::thread releaser([&] {
      for (int i = 0; i < 1000; ++i) std::this_thread::yield();  // time to answer too early
      go.Signal();
    });
    operation(thread);
    EXPECT_TRUE(left);
    releaser.join();
    go.Signal();  // for a thread that was started
  }
}

TEST(Thread, NothingIsKnownOfSeveralThreadsButTheirNumber) {
  PlugInThreadHot thread;
  PlugInThreadHot* threads[] = {&thread};
  EXPECT_TRUE(PlugInThreadHot::WaitForMultipleThreads(threads, 1));
  EXPECT_TRUE(PlugInThreadHot::WaitForMultipleThreads(threads, 1, 0));
  for (const int none : {0, -1}) EXPECT_FALSE(PlugInThreadHot::WaitForMultipleThreads(threads, none));
}

TEST(Thread, AnAttachedOneIsJoinedWhileItRunsAndForgottenWhenItHasEnded) {
  PlugInThreadHot own;
  EXPECT_TRUE(own.Attach());
  EXPECT_TRUE(own.HasThread());
  EXPECT_FALSE(own.Attach());
  EXPECT_FALSE(own.Start(0));
  EXPECT_FALSE(own.WaitForStop());
  EXPECT_FALSE(own.Terminate());

  PlugInThreadHot ended;
  std::thread([&] { EXPECT_TRUE(ended.Attach()); }).join();
  EXPECT_FALSE(ended.HasThread());
  EXPECT_FALSE(ended.Signal(0));
  EXPECT_TRUE(ended.WaitForStop());

  struct Running {
    PlugInThreadHot thread;
    Gate attached;
    Gate go;
  } running;
  pthread_t platformThread{};
  const auto run = [](void* context) -> void* {
    auto& self = *static_cast<Running*>(context);
    self.thread.Attach();
    self.attached.Signal();
    self.go.WaitForSignal();
    return nullptr;
  };
  ASSERT_EQ(0, ::pthread_create(&platformThread, nullptr, run, &running));
  running.attached.WaitForSignal();
  std::thread other([&] { EXPECT_TRUE(running.thread.WaitForStop()); });
  EXPECT_TRUE(running.thread.Signal(0));
  running.go.Signal();
  EXPECT_TRUE(running.thread.WaitForStop());
  EXPECT_FALSE(running.thread.HasThread());
  other.join();

  PlugInThreadHot second;  // of a thread that another object started
  Worker first([&] { return second.Attach() ? 1 : 0; });
  ASSERT_TRUE(first.Start(0));
  EXPECT_TRUE(first.WaitForStop());
  EXPECT_EQ(1, first.GetReturnValue());
  EXPECT_TRUE(second.WaitForStop());

  PlugInThreadHot none;
  none.SetHasThread(true);
  EXPECT_FALSE(none.WaitForStop());
  none.SetHasThread(false);
  EXPECT_TRUE(none.Start(0));
}

namespace {

std::atomic<pthread_t> gSignalled{};

void noteSignal(int) { gSignalled = ::pthread_self(); }

}  // namespace

TEST(Thread, GetsSignalsWhileItRuns) {
  ::signal(SIGUSR1, &noteSignal);
  Gate begun;
  Worker thread([&] {
    begun.Signal();
    // It looks and does not wait: the thread sanitizer keeps a signal back from a thread that sleeps.
    const bool came = becomesTrue([] { return ::pthread_equal(::pthread_self(), gSignalled) != 0; });
    return came && thread.Signal(0) ? 1 : 0;
  });
  EXPECT_FALSE(thread.Signal(SIGUSR1));
  ASSERT_TRUE(thread.Start(0));
  begun.WaitForSignal();
  EXPECT_FALSE(thread.Signal(-1));
  EXPECT_TRUE(thread.Signal(SIGUSR1));
  EXPECT_TRUE(thread.WaitForStop());
  EXPECT_EQ(1, thread.GetReturnValue());
  EXPECT_FALSE(thread.Signal(SIGUSR1));
}

TEST(Thread, SuspendsUntilItIsResumed) {
  for (int round = 0; round < 50; ++round) {
    Gate begun;
    std::atomic<bool> resumed{false};
    Worker thread([&] {  // a new one, because a Resume that comes first stays in force
      begun.Signal();
      return thread.Suspend() && resumed ? 1 : 0;
    });
    ASSERT_TRUE(thread.Start(0));
    begun.WaitForSignal();
    for (int i = 0; i < 100; ++i) std::this_thread::yield();  // time to go on too early
    resumed = true;
    EXPECT_TRUE(thread.Resume());
    EXPECT_TRUE(thread.WaitForStop());
    EXPECT_EQ(1, thread.GetReturnValue());
  }

  PlugInThreadHot resumedFirst;
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(resumedFirst.Resume());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(resumedFirst.Suspend());
}

TEST(Thread, IsTerminatedAlone) {
  Gate begun;
  Gate go;
  Gate never;
  std::promise<bool> itself;
  Worker other([&] {
    go.WaitForSignal();
    return 2;
  });
  Worker thread([&] {
    itself.set_value(thread.Terminate());
    begun.Signal();
    never.WaitForSignal();
    return 1;
  });
  EXPECT_FALSE(thread.Terminate());
  ASSERT_TRUE(other.Start(0));
  ASSERT_TRUE(thread.Start(0));
  begun.WaitForSignal();
  EXPECT_FALSE(itself.get_future().get());
  std::thread waiter([&] { EXPECT_TRUE(thread.WaitForStop()); });
  EXPECT_TRUE(thread.Terminate());
  EXPECT_FALSE(thread.HasThread());
  EXPECT_EQ(0, thread.GetReturnValue());
  thread.WaitforSignal();
  waiter.join();

  EXPECT_TRUE(other.HasThread());
  go.Signal();
  EXPECT_TRUE(other.WaitForStop());
  EXPECT_EQ(2, other.GetReturnValue());

  itself = {};
  ASSERT_TRUE(thread.Start(0));
  never.Signal();  // the cancelled thread has left the event usable
  EXPECT_TRUE(thread.WaitForStop());
  EXPECT_EQ(1, thread.GetReturnValue());
}
