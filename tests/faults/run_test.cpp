#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <future>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "exchange.h"
#include "faultyx.h"
#include "signals.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kDeathTold = 1s;

using Step = int (*)(OutpX& x, std::size_t blockBytes);

const Step kBegin = [](OutpX& x, std::size_t) { return x.Begin(); };
const Step kExecute = [](OutpX& x, std::size_t bytes) { return x.Execute(std::string(bytes, 'b')); };
const Step kEnd = [](OutpX& x, std::size_t) { return x.End(); };
const Step kStop = [](OutpX& x, std::size_t) { return x.Stop(); };

struct RunFault {
  std::string fault;
  Step step;  // the one that fails
  int code;
  bool isDeadBefore = false;  // the step begins when the process has died
  std::size_t blockBytes = 100;
};

std::ostream& operator<<(std::ostream& out, const RunFault& row) { return out << row.fault; }

constexpr std::size_t kLarge = 10'000'000;

const RunFault kRunFaults[] = {
    {"begin-read", kBegin, 99103},
    {"begin-read late=100", kBegin, 99103},
    {"begin-read late=100 fork", kBegin, 99103},
    {"begin-answered", kBegin, 99103},
    {"begin-answered late=100", kBegin, 99103},
    {"begin-answered late=100 fork", kBegin, 99103},
    {"result-open", kBegin, 99103},
    {"result-open late=100 fork", kBegin, 99103},
    {"begun", kExecute, 99104},
    {"begun late=100", kExecute, 99104},
    {"begun late=100 fork", kExecute, 99104},
    {"block-open", kExecute, 99104, false, kLarge},
    {"block-open late=100", kExecute, 99103},
    {"block-open late=100 fork", kExecute, 99103},
    {"block-open late=100 fork", kExecute, 99104, false, kLarge},
    {"block-read", kExecute, 99103},
    {"block-read late=100", kExecute, 99103},
    {"block-read exit=3", kExecute, 99103},
    {"block-read fork", kExecute, 99103},
    {"block-read late=100 fork", kExecute, 99103},
    {"half-reply", kExecute, 99103},
    {"half-reply late=100 fork", kExecute, 99103},
    {"replied", kEnd, 99104, true},
    {"replied late=100", kEnd, 99103},
    {"replied fork", kEnd, 99104, true},
    {"end-read", kEnd, 99103},
    {"end-read late=100 fork", kEnd, 99103},
    {"ended", kBegin, 99104, true},
    {"ended late=100", kBegin, 99103},
    {"ended late=100 fork", kBegin, 99103},
    {"stop-read", kStop, 99103},
    {"stop-read late=100 fork", kStop, 99103},
    {"stopped", kStop, 0},
    {"stopped late=100", kStop, 0},
    {"stopped late=100 fork", kStop, 0},
    {"stopped silent", kStop, 0},
};

class RunFaults : public FaultyX, public testing::WithParamInterface<RunFault> {};

std::string testName(const testing::TestParamInfo<RunFault>& row) {
  std::string name = (row.param.blockBytes > 100 ? "large-block " : "") + row.param.fault;
  std::ranges::replace_if(
      name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
  return name;
}

INSTANTIATE_TEST_SUITE_P(Engine, RunFaults, testing::ValuesIn(kRunFaults), testName);

}  // namespace

TEST_P(RunFaults, AreToldAndLeftBehind) {
  const RunFault& row = GetParam();
  OutpX& x = AddFaulty(row.fault);
  ASSERT_EQ(0, x.Start());
  const bool isInSecondRun = row.fault.starts_with("ended");
  for (const Step step : {kBegin, kExecute, kEnd}) {
    if (step == row.step && !isInSecondRun) break;
    ASSERT_EQ(0, step(x, row.blockBytes));
  }
  ASSERT_TRUE(!row.isDeadBefore || x.Dies());

  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(row.code, row.step(x, row.blockBytes));
  const Clock::time_point end = Clock::now();
  if (row.code != 0) {
    EXPECT_LT(end - std::max(begin, Death()), kDeathTold);
    EXPECT_TRUE(x.Dies());
    EXPECT_EQ(row.fault.find("exit=3") == std::string::npos ? SIGKILL : 3 << 8, vexadx::ProcessOf(x.engine).status);
  }
  if (row.fault == "stopped late=100") {
    EXPECT_TRUE(HasChildren()) << "the stop waited for its end";
    EXPECT_TRUE(BecomesTrue([] { return !HasChildren(); })) << "nobody reaps it";
  }
  (void)x.Stop();  // an engine that has no process any more may say so
  EXPECT_LT(Clock::now() - end, kDeathTold);
  ExpectHealthyAgain(x);
}

TEST_F(FaultyX, LeavesAnotherEngineAlone) {
  OutpX& dying = AddFaulty("block-read late=100");
  OutpX& other = AddFaulty("", "OTHER");
  ASSERT_EQ(0, other.Start());
  std::atomic<bool> isOver{false};
  auto blocks = std::async(std::launch::async, [&] {
    int count = 0;
    for (; !isOver; ++count) EXPECT_EQ(0, other.Run("other's " + std::to_string(count)));
    return count;
  });
  ASSERT_EQ(0, dying.Start());
  EXPECT_EQ(99103, dying.Run("dying"));
  EXPECT_LT(Clock::now() - Death(), kDeathTold);
  (void)dying.Stop();
  ExpectHealthyAgain(dying);
  isOver = true;
  EXPECT_LT(0, blocks.get());
  EXPECT_EQ(0, other.Stop());
}

TEST_F(FaultyX, StopsAlthoughAWorkerOfTheHostHasItsDescriptors) {
  OutpX& x = AddFaulty("");
  ASSERT_EQ(0, x.Start());
  ASSERT_EQ(0, x.Run("before"));
  const pid_t worker = ::fork();
  if (worker == 0) {
    for (;;) ::pause();
  }
  EXPECT_EQ(0, x.Run("meanwhile"));
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(0, x.Stop());
  EXPECT_LT(Clock::now() - begin, 2s);
  EXPECT_TRUE(x.Dies());

  x.options.PutOption("STARTX_FAULT", "block-read");
  EXPECT_EQ(0, x.Start());
  EXPECT_EQ(99103, x.Run("while it still has them"));
  EXPECT_LT(Clock::now() - Death(), kDeathTold);
  ::kill(worker, SIGKILL);
  EXPECT_EQ(worker, ::waitpid(worker, nullptr, 0));
  (void)x.Stop();
  ExpectHealthyAgain(x);
}

TEST_F(FaultyX, IsStoppedTwiceAtNoCost) {
  OutpX& x = AddFaulty("");
  EXPECT_EQ(0, x.Stop());  // none was started
  ASSERT_EQ(0, x.Start());
  EXPECT_EQ(0, x.Stop());
  ASSERT_TRUE(x.Dies());
  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(0, x.Stop());
  EXPECT_EQ(0, x.engine.stat_stop_x());
  EXPECT_LT(Clock::now() - begin, 100ms);
  ExpectHealthyAgain(x);
}

TEST_F(FaultyX, IsDrivenThroughSignals) {
  OutpX& x = AddFaulty("slow=2000");  // such a start is as patient as any
  const std::string text = TextOf(kLarge);
  {
    const Signals signals;
    EXPECT_EQ(0, x.Start());
    EXPECT_EQ(0, x.Run(text));

    ASSERT_EQ(0, x.Begin());
    EXPECT_TRUE(text == TextInReplyTo(text, "FAULTY"));
    EXPECT_EQ(0, x.End());
    EXPECT_EQ(0, x.Stop());
  }
  EXPECT_LT(1000, Signals::taken);
}
