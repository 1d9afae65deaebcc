// The X process itself, as an engine drives it.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <future>
#include <iterator>
#include <list>
#include <string>
#include <thread>
#include <vector>

#include "childprocess.h"
#include "clexdsmb.h"
#include "framing.h"
#include "outofprocess.h"
#include "seededrandom.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class StartX : public OutOfProcess {
 protected:
  StartX() {
    m_home.AddPlugin("ctest");
    m_home.Configure("[CTEST]\nLIB_NAME=ctest\n[PYX]\nLIB_NAME=vexapython\n[RX]\nLIB_NAME=vexar\n");
  }
};

std::size_t descriptorsOf(pid_t process) {
  std::error_code noDirectory;
  const fs::directory_iterator descriptors("/proc/" + std::to_string(process) + "/fd", noDirectory);
  return noDirectory ? 0 : static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace

TEST_F(StartX, PassesCodesThrough) {
  const int codes[] = {7, -1, INT_MIN, INT_MAX};
  OutpX& x = Add("CTEST");
  ASSERT_EQ(0, x.Start());
  for (const int code : codes) EXPECT_EQ(code, x.Run(std::to_string(code)));
  EXPECT_EQ(0, x.Run("0"));
  EXPECT_EQ(0, x.Stop());
  for (const char* step : {"CTEST_POST", "CTEST_PRE"}) {
    for (const int code : codes) {
      x.options.PutOption(step, std::to_string(code));
      ASSERT_EQ(0, x.Start());
      EXPECT_EQ(code, x.Run("0")) << step;
      EXPECT_EQ(0, x.Stop());
    }
    x.options.PutOption(step, "0");
  }
}

TEST_F(StartX, SaysWhatTheLanguageSaid) {
  const struct {
    std::string block;
    int code;
    std::vector<std::string> said;  // type, message, the traceback's end, line
  } cases[] = {
      {"print('fine')", 0, {}},
      {"x = 1\n1/0", 1, {"ZeroDivisionError", "division by zero", "ZeroDivisionError: division by zero\n", "2"}},
      {"x = 1\n\nint('\xC3\xA4')", 1, {"ValueError", "'\xC3\xA4'", "'\xC3\xA4'\n", "3"}},
      {"if", 1, {"SyntaxError", "invalid syntax (<block 4>, line 1)", "SyntaxError: invalid syntax\n", "1"}},
      {"raise SystemExit(3)", 3, {}},
  };
  OutpX& x = Add("PYX");
  ASSERT_EQ(0, x.Start());
  XPipes* const pipes = m_manager->getPipeSuit("PYX")->getXPipes();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.block);
    ASSERT_EQ(0, x.Begin());
    CleXDSmb request;
    request.SetString(c.block);
    ASSERT_EQ(0, SendData(pipes->GetSyntaxPipe(), request, false));
    CleXDSmb reply;
    EXPECT_EQ(c.code, ReceiveData(pipes->GetSyntaxResultPipe(), reply, true));
    EXPECT_EQ(0, x.End());
    const std::vector<std::string> said = reply.GetStringData().GetData();
    ASSERT_EQ(c.said.size(), said.size());
    for (std::size_t i = 0; i < said.size(); ++i) EXPECT_TRUE(said[i].ends_with(c.said[i])) << said[i];
  }
  EXPECT_EQ(0, x.Stop());
}

// A pipe of CTEST3 has the name that one of CTEST would have at a level beginning with 3.
TEST_F(StartX, OfALikeNameHasNoLevelOfThisOne) {
  m_home.Configure("[CTEST]\nLIB_NAME=ctest\n[CTEST3]\nLIB_NAME=ctest\n");
  OutpX& x = Add("CTEST");
  OutpX& x3 = Add("CTEST3");
  ASSERT_EQ(0, x.Start());
  ASSERT_EQ(0, x3.Start());
  for (int round = 0; round < 3; ++round) {
    EXPECT_EQ(0, x3.Run("0"));
    EXPECT_EQ(0, x.Run("0"));
  }
  EXPECT_EQ(0, x.Stop());
  EXPECT_EQ(0, x3.Run("0")) << "whose pipes are its own";
  EXPECT_EQ(0, x3.Stop());
}

TEST_F(StartX, StartsAnewForAnotherEngineOfTheX) {
  OutpX& x = Add("CTEST");
  for (const bool isKilled : {false, true, false}) {
    OutpStatisticsX engine(&x.options, 1, true);
    std::string block = "0";
    ASSERT_EQ(0, engine.init_embedded_x(0, nullptr));
    EXPECT_EQ(0, engine.pre_action());
    EXPECT_EQ(0, engine.execute_x(block.data()));
    EXPECT_EQ(0, engine.post_action());
    if (isKilled) ::kill(vexadx::ProcessOf(engine).id, SIGKILL);
  }
}

TEST_F(StartX, DiesAlsoWhenItsFilesAreGoneAndAChildHasThePipes) {
  const struct {
    const char* xName;
    const char* block;
  } cases[] = {
      {"PYX",
       "import glob, os, signal, time\n"
       "if os.fork() == 0:\n  time.sleep(3)\n  os._exit(0)\n"
       "for pipe in glob.glob(os.environ['VEXADXTEMP'] + '*'): os.remove(pipe)\n"
       "os.kill(os.getpid(), signal.SIGKILL)\n"},
#ifdef VEXADX_WITH_R
      {"RX",
       "if (inherits(parallel:::mcfork(), 'masterProcess')) { Sys.sleep(3); parallel:::mcexit() }\n"
       "unlink(Sys.glob(paste0(Sys.getenv('VEXADXTEMP'), '*')))\n"
       "tools::pskill(Sys.getpid(), 9)"},
#endif
  };
  for (const auto& [xName, block] : cases) {
    OutpX& x = Add(xName);
    ASSERT_EQ(0, x.Start());
    ASSERT_EQ(0, x.Begin());
    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(99103, x.Execute(block)) << xName;
    EXPECT_LT(Clock::now() - begin, 1s);
    (void)x.Stop();
    ASSERT_EQ(0, x.Start());
    EXPECT_EQ(0, x.Run("x = 1"));
    EXPECT_EQ(0, x.Stop());
  }
}

namespace {

// X's that can be run for long: a block that does nothing, which blanks may follow, and the runs after which the X has
// all the memory that it will need. R goes on taking some until it has collected its garbage.
const struct {
  const char* xName;
  std::string idle;
  int settled;
} kLongRuns[] = {
    {"CTEST", "0", 1'000},
#ifdef VEXADX_WITH_R
    {"RX", "x <- 0", 80'000},
#endif
};

}  // namespace

// At random moments of runs, more often in blocks that take a while to be moved.
TEST_F(StartX, CanBeKilledAtAnyMoment) {
  SeededRandom random;
  constexpr int kRounds = 50;  // each start takes half a second
  std::vector<OutpX*> xs;
  for (const auto& run : kLongRuns) xs.push_back(&Add(run.xName));
  for (int round = 0; round < kRounds; ++round) {
    const std::size_t which = static_cast<std::size_t>(round) % xs.size();
    const std::string& block = kLongRuns[which].idle;
    SCOPED_TRACE(random.Seed() + ", round " + std::to_string(round) + " of " + kLongRuns[which].xName);
    OutpX& x = *xs[which];
    ASSERT_EQ(0, x.Start());
    ASSERT_EQ(0, x.Run(block)) << "whatever became of the process before";
    auto killing =
        std::async(std::launch::async, [process = x.Process(), delay = std::chrono::microseconds(random.UpTo(20'000))] {
          std::this_thread::sleep_for(delay);
          const Clock::time_point now = Clock::now();
          ::kill(process, SIGKILL);
          return now;
        });
    int code = 0;
    while (code == 0) {
      code = x.Run(block + std::string(static_cast<std::size_t>(random.UpTo(round % 4 < 2 ? 200'000 : 10)), ' '));
    }
    EXPECT_LT(Clock::now() - killing.get(), 1s);
    EXPECT_TRUE(code == 99103 || code == 99104) << code;
    ASSERT_TRUE(x.Dies());
    EXPECT_EQ(SIGKILL, vexadx::ProcessOf(x.engine).status);
    (void)x.Stop();
  }
}

TEST_F(StartX, KeepsNothingOfItsRuns) {
#ifdef VEXADX_SANITIZED
  constexpr int kRuns = 3'000;
#else
  constexpr int kRuns = 100'000;
#endif
  for (const auto& [xName, idle, settled] : kLongRuns) {
    SCOPED_TRACE(xName);
    OutpX& x = Add(xName);
    ASSERT_EQ(0, x.Start());
    const pid_t processes[] = {::getpid(), x.Process()};
    std::vector<std::size_t> descriptors;
    std::vector<long> bytes;
    const int first = std::min(settled, kRuns);
    for (int run = 0; run <= first + kRuns; ++run) {
      ASSERT_EQ(0, x.Run(idle)) << run;
      if (run != first) continue;
      for (const pid_t process : processes) {
        descriptors.push_back(descriptorsOf(process));
        bytes.push_back(ResidentBytes(process));
      }
    }
    for (const std::size_t side : {0, 1}) {
      EXPECT_GE(descriptors[side], descriptorsOf(processes[side])) << side;
      EXPECT_LE(ResidentBytes(processes[side]), bytes[side] + 256L * 1024) << side;
    }
    EXPECT_EQ(0, x.Stop());
  }
}

namespace {

// A host that is killed. Its X process, and what that has started, write to the same streams as it does: their end is
// theirs.
class KilledHost {
 public:
  KilledHost(const char* xName, const std::vector<std::string>& blocks) : m_host(command(xName, blocks)) {}

  void KillAt(const std::string& output, std::chrono::microseconds delay = {}) {
    m_host.AwaitOutput(output);
    std::this_thread::sleep_for(delay);
    m_killed = Clock::now();
    m_host.Signal(SIGKILL);
  }

  void ExpectAllGoneWithin(std::chrono::seconds time) {
    EXPECT_EQ(-SIGKILL, m_host.Wait());
    EXPECT_LT(Clock::now() - m_killed, time);
  }

  bool HasPipe(const std::string& name) const { return fs::exists(m_pipes.Path("4711" + name)); }
  bool HasPipes() const { return !fs::is_empty(m_pipes.Path()); }

 private:
  std::vector<std::string> command(const char* xName, const std::vector<std::string>& blocks) const {
    std::vector<std::string> command{VEXADX_STARTX_HOST, xName, m_pipes.Path().string()};
    command.insert(command.end(), blocks.begin(), blocks.end());
    return command;
  }

  const TempDir m_pipes;
  ChildProcess m_host;
  Clock::time_point m_killed;
};

}  // namespace

TEST_F(StartX, EndsWithItsHost) {
  const std::string child = "import subprocess; subprocess.Popen(['/bin/sleep', '60'])";
  const auto looping = [](const std::string& loop) { return "print('looping', flush=True)\n" + loop; };
  const std::string swallowing =
      "import os\nwhile True:\n  try: os.read(os.pipe()[0], 1)\n  except BaseException: pass";
#ifdef VEXADX_WITH_R
  const std::string rChild = "system('sleep 60', wait = FALSE)";
  const auto rLooping = [](const std::string& loop) { return "cat('looping\\n')\n" + loop; };
#endif
  const struct {
    const char* xName;
    std::vector<std::string> blocks;
    const char* moment;
  } kCases[] = {
      {"CTEST", {}, "idle"},
      {"CTEST", {"child"}, "idle"},
      {"CTEST", {"child", "wait"}, "running"},
      {"PYX", {child}, "idle"},
      {"PYX", {child, looping("while True: pass")}, "looping"},
      {"PYX", {child, looping("import time\ntime.sleep(60)")}, "looping"},
      {"PYX", {child, looping(swallowing)}, "looping"},
#ifdef VEXADX_WITH_R
      {"RX", {rChild}, "idle"},
      {"RX", {rChild, rLooping("while (TRUE) {}")}, "looping"},
      {"RX", {rChild, rLooping("Sys.sleep(60)")}, "looping"},
      {"RX", {rChild, rLooping("repeat tryCatch(Sys.sleep(60), interrupt = identity)")}, "looping"},
#endif
  };
  for (const auto& [xName, blocks, moment] : kCases) {
    SCOPED_TRACE(std::string(xName) + ' ' + moment + ' ' + (blocks.empty() ? "" : blocks.back()));
    KilledHost host(xName, blocks);
    host.KillAt(moment);
    host.ExpectAllGoneWithin(2s);
    EXPECT_FALSE(host.HasPipes());
  }
}

// The host's own pipe is there before the X process is.
TEST_F(StartX, EndsWithAHostThatIsKilledWhileItStarts) {
  std::list<KilledHost> hosts;
  for (int i = 0; i < 20; ++i) {
    hosts.emplace_back("CTEST", std::vector<std::string>{}).KillAt("starting", i * 300us);
  }
  for (KilledHost& host : hosts) {
    host.ExpectAllGoneWithin(5s);
    for (const char* pipe : {"CTEST_s", "CTEST0syntax"}) EXPECT_FALSE(host.HasPipe(pipe)) << pipe;
  }
}
