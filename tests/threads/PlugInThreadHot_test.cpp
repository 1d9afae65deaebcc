#include "PlugInThreadHot.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
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
  auto thread = std::make_unique<Worker>([&] {
    begun.Signal();
    go.WaitForSignal();
    ended = true;
    return 0;
  });
  ASSERT_TRUE(thread->Start(0));
  begun.WaitForSignal();
  std::thread helper([&] { go.Signal(); });
  thread.reset();
  EXPECT_TRUE(ended);
  helper.join();
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
  running.go.Signal();
  EXPECT_TRUE(running.thread.WaitForStop());
  EXPECT_FALSE(running.thread.HasThread());

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

pthread_t gSignalled;

void noteSignal(int) { gSignalled = ::pthread_self(); }

}  // namespace

TEST(Thread, GetsSignalsWhileItRuns) {
  ::signal(SIGUSR1, &noteSignal);
  Gate begun;
  Gate go;
  pthread_t self{};
  Worker thread([&] {
    self = ::pthread_self();
    begun.Signal();
    go.WaitForSignal();
    return thread.Signal(0) ? 1 : 0;
  });
  EXPECT_FALSE(thread.Signal(SIGUSR1));
  ASSERT_TRUE(thread.Start(0));
  begun.WaitForSignal();
  EXPECT_TRUE(thread.Signal(SIGUSR1));
  EXPECT_FALSE(thread.Signal(-1));
  go.Signal();
  EXPECT_TRUE(thread.WaitForStop());
  EXPECT_TRUE(::pthread_equal(self, gSignalled));
  EXPECT_EQ(1, thread.GetReturnValue());
  EXPECT_FALSE(thread.Signal(SIGUSR1));
}

TEST(Thread, SuspendsUntilItIsResumed) {
  Gate begun;
  std::atomic<bool> suspended{true};
  Worker thread([&] {
    begun.Signal();
    const bool answer = thread.Suspend();
    suspended = false;
    return answer ? 1 : 0;
  });
  ASSERT_TRUE(thread.Start(0));
  begun.WaitForSignal();
  EXPECT_TRUE(suspended);
  EXPECT_TRUE(thread.Resume());
  EXPECT_TRUE(thread.WaitForStop());
  EXPECT_EQ(1, thread.GetReturnValue());

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
    thread.SetHasThread(true);  // for which it takes the lock of Terminate
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
