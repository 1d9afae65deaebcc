#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "faultyx.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

#ifdef VEXADX_SANITIZED
constexpr auto kSlower = 1s;
#else
constexpr auto kSlower = 0s;
#endif

}  // namespace

TEST_F(FaultyX, ThatIsNeverReadyLeavesNoProcess) {
  const struct {
    const char* fault;
    int code;
    std::chrono::seconds within;
  } kFaults[] = {
      {"started exit=3", 99104, 11s},
      {"started silent", 99104, 11s},
      {"commands-made", 99104, 11s},
      {"commands-made late=600", 99104, 11s},
      {"commands-open late=100 fork", 99104, 11s},
      {"ready-read", 99104, 11s},
      {"ready-read late=100 fork", 99104, 11s},
      {"unready=100", 5, 11s},
      {"unready=49", 0, 6s},
  };
  // All at once, as each takes as long as the ready checks.
  std::vector<OutpX*> xs;
  std::vector<std::future<void>> starts;
  for (const auto& row : kFaults) xs.push_back(&AddFaulty(row.fault, "FAULTY" + std::to_string(xs.size())));
  for (OutpX* const x : xs) {
    const auto& row = kFaults[starts.size()];
    starts.push_back(std::async(std::launch::async, [x, &row] {
      const Clock::time_point begin = Clock::now();
      EXPECT_EQ(row.code, x->Start()) << row.fault;
      EXPECT_LT(Clock::now() - begin, row.within + kSlower) << row.fault;
      EXPECT_EQ(row.code != 0, x->Process() == -1) << row.fault;
      EXPECT_EQ(row.code == 0 ? 0 : 99115, x->Run("")) << row.fault;
      EXPECT_EQ(0, x->Stop()) << row.fault;
      if (std::string_view(row.fault).ends_with("exit=3")) {
        EXPECT_EQ(3 << 8, vexadx::ProcessOf(x->engine).status);
      }
      ExpectHealthyAgain(*x);
    }));
  }
}

TEST_F(FaultyX, WithoutAProgramIsToldWhenItsChildIsKeptAndWhenItIsDiscarded) {
  m_home.Remove("bin/startx");
  OutpX& x = AddFaulty("");
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(99104, x.Start());
  EXPECT_LT(Clock::now() - begin, 11s);
  EXPECT_FALSE(HasChildren());
  EXPECT_EQ(255 << 8, vexadx::ProcessOf(x.engine).status);

  ::signal(SIGCHLD, SIG_IGN);
  const struct {
    const char* program;
    fs::perms permissions;
  } kPrograms[] = {{nullptr, fs::perms::none},
                   {"#!/bin/sh\nsleep 60\n", fs::perms::owner_read},
                   {"no program", fs::perms::owner_all},
                   {"#!/no/such/interpreter\n", fs::perms::owner_all}};
  for (const auto& [program, permissions] : kPrograms) {
    if (program) fs::permissions(m_home.Replace("bin/startx", program), permissions);
    const Clock::time_point beginDiscarded = Clock::now();
    EXPECT_EQ(99107, x.Start()) << (program ? program : "none");
    EXPECT_LT(Clock::now() - beginDiscarded, 600ms);
    EXPECT_FALSE(HasChildren());
  }
  ::signal(SIGCHLD, SIG_DFL);
  PutStartX(VEXADX_STARTX_FAULT);
  ExpectHealthyAgain(x);
}

TEST_F(FaultyX, StartsOverWhatACrashedHostLeft) {
  OutpX& x = AddFaulty("");
  const std::string prefix = m_manager->getPipeSuit("FAULTY")->getPipeNamePrefix();
  for (const char* stale : {"_s", "_c", "0syntax", "0syntaxresult"}) {
    ASSERT_TRUE(fs::exists(prefix + stale) || ::mkfifo((prefix + stale).c_str(), 0600) == 0);
  }
  ExpectHealthyAgain(x);
}
