#include "peerwatch.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "temphome.h"

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

// Whether a core file is written is for the system to say.
TEST(PeerWatch, TellsTheSameStatusBeforeAndAfterItReaps) {
  const struct {
    void (*end)();
    int status;
  } kRows[] = {{[] { ::_exit(3); }, 3 << 8}, {[] { ::raise(SIGKILL); }, SIGKILL}, {[] { ::raise(SIGABRT); }, SIGABRT}};
  const TempDir directory;
  for (const auto& row : kRows) {
    const pid_t child = ::fork();
    if (child == 0) {
      rlimit core{};
      (void)::getrlimit(RLIMIT_CORE, &core);
      core.rlim_cur = core.rlim_max;
      (void)::setrlimit(RLIMIT_CORE, &core);
      if (::chdir(directory.Path().c_str()) == 0) row.end();
      ::_exit(1);
    }
    const auto watch = PeerWatch::Make();
    watch->Begin(child);
    ASSERT_TRUE(watch->AwaitEnd(std::chrono::seconds(20)));
    const auto told = watch->EndStatus();
    ASSERT_TRUE(told);
    EXPECT_EQ(row.status, *told & 0xff7f);
    watch->Reap();
    EXPECT_EQ(watch->EndStatus(), told);
  }
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
