#include "peerwatch.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

TEST(PeerWatch, ReapsItsChildOnceItHasDied) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (;;) ::pause();
  }
  const auto watch = PeerWatch::Make();
  watch->Begin(child);
  watch->Signal(SIGSTOP);
  siginfo_t info{};
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WNOWAIT));
  watch->Reap();
  EXPECT_TRUE(watch->IsToBeReaped()) << "it was stopped, no more";
  EXPECT_FALSE(watch->IsGone() || watch->HasEnded());
  watch->Signal(SIGKILL);
  ASSERT_TRUE(watch->AwaitEnd(std::chrono::seconds(20)));
  EXPECT_TRUE(watch->IsGone());
  EXPECT_EQ(SIGKILL, watch->EndStatus());
  EXPECT_EQ(-1, ::waitpid(child, nullptr, 0));
  EXPECT_EQ(ECHILD, errno);
  watch->Signal(SIGKILL);  // to nobody
}

TEST(PeerWatch, TouchesNoOtherProcess) {
  const PeerWatch::Operation unwatched(nullptr, vexadx::Step::kIdle);
  const auto none = PeerWatch::Make();
  none->Begin(-1);
  none->Signal(SIGKILL);  // which would be everybody's
  none->Reap();
  EXPECT_TRUE(none->HasEnded() && none->IsGone() && !none->IsToBeReaped());
  EXPECT_FALSE(none->EndStatus());

  const auto stranger = PeerWatch::Make();
  stranger->Begin(::getppid());
  EXPECT_FALSE(stranger->IsGone());
  stranger->Reap();
  EXPECT_TRUE(stranger->IsGone()) << "no child of this process to reap";
  EXPECT_FALSE(stranger->IsToBeReaped());
  stranger->Signal(SIGKILL);
  EXPECT_EQ(0, ::kill(::getppid(), 0));
}
