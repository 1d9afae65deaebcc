#include "outpstatisticsx.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <filesystem>
#include <future>
#include <ostream>
#include <string>
#include <thread>

#include "clexdsmb.h"
#include "framing.h"
#include "outofprocess.h"
#include "vexapipe.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kDeathTold = 1s;
constexpr auto kStartFailed = 11s;

// Engines whose X process misbehaves as its options say.
class FaultyX : public OutOfProcess {
 protected:
  FaultyX() { PutStartX(VEXADX_STARTX_FAULT); }
  ~FaultyX() override {
    if (m_group > 0) ::kill(-m_group, SIGKILL);
  }

  void PutStartX(const fs::path& program) {
    m_home.Remove("bin/startx");
    fs::create_symlink(program, m_home.Path("bin/startx"));
  }

  OutpX& AddFaulty(const std::string& fault) {
    OutpX& x = Add("FAULTY");
    x.options.PutOption("STARTX_FAULT", fault);
    return x;
  }

  // What an X process leaves behind ends with the test.
  void NoteProcess(OutpX& x) { m_group = x.Process(); }

  // When the process that wrote it died.
  Clock::time_point Death() const {
    return Clock::time_point(Clock::duration(std::stoll(ReadFile(m_pipes.Path("died")))));
  }

  static void ExpectHealthyAgain(OutpX& x) {
    x.options.PutOption("STARTX_FAULT", "");
    EXPECT_EQ(0, x.Start());
    EXPECT_EQ(0, x.Run("healthy"));
    EXPECT_EQ(0, x.Stop());
  }

 private:
  pid_t m_group = -1;
};

enum Step { kBegin, kExecute, kEnd, kStop };

struct RunFault {
  std::string fault;
  Step step;  // the one that fails
  int code;
  bool isDeadBefore = false;  // the step begins when the process has died
  std::size_t blockBytes = 100;
};

std::string testName(const std::string& fault, std::size_t blockBytes = 0) {
  std::string name = blockBytes > 100 ? "large-block " + fault : fault;
  std::ranges::replace_if(
      name, [](char c) { return !std::isalnum(static_cast<unsigned char>(c)); }, '_');
  return name;
}

std::ostream& operator<<(std::ostream& out, const RunFault& row) { return out << row.fault; }

constexpr std::size_t kLarge = 10'000'000;

const RunFault kRunFaults[] = {
    {"begin-read", kBegin, 99103},
    {"begin-read late", kBegin, 99103},
    {"begin-read late fork", kBegin, 99103},
    {"begin-answered", kBegin, 99103},
    {"begin-answered late", kBegin, 99103},
    {"begin-answered late fork", kBegin, 99103},
    {"result-open", kBegin, 99103},
    {"result-open late fork", kBegin, 99103},
    {"begun", kExecute, 99104},
    {"begun late", kExecute, 99104},
    {"begun late fork", kExecute, 99104},
    {"block-open", kExecute, 99104, false, kLarge},
    {"block-open late", kExecute, 99103},
    {"block-open late fork", kExecute, 99103},
    {"block-open late fork", kExecute, 99104, false, kLarge},
    {"block-read", kExecute, 99103},
    {"block-read late", kExecute, 99103},
    {"block-read exit=3", kExecute, 99103},
    {"block-read fork", kExecute, 99103},
    {"block-read late fork", kExecute, 99103},
    {"half-reply", kExecute, 99103},
    {"half-reply late fork", kExecute, 99103},
    {"replied", kEnd, 99104, true},
    {"replied late", kEnd, 99103},
    {"replied fork", kEnd, 99104, true},
    {"end-read", kEnd, 99103},
    {"end-read late fork", kEnd, 99103},
    {"ended", kBegin, 99104, true},
    {"ended late", kBegin, 99103},
    {"ended late fork", kBegin, 99103},
    {"stop-read", kStop, 99103},
    {"stop-read late fork", kStop, 99103},
    {"stopped", kStop, 0},
    {"stopped late fork", kStop, 0},
    {"stopped silent", kStop, 0},
};

class RunFaults : public FaultyX, public testing::WithParamInterface<RunFault> {
 protected:
  // The codes of the steps until one is not 0 or, after `runs` runs, the stop.
  int Take(Step step) {
    switch (step) {
      case kBegin:
        return m_x->Begin();
      case kExecute:
        return m_x->Execute(std::string(GetParam().blockBytes, 'b'));
      case kEnd:
        return m_x->End();
      case kStop:
        return m_x->Stop();
    }
    return -1;
  }

  OutpX* m_x = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Engine, RunFaults, testing::ValuesIn(kRunFaults),
                         [](const auto& row) { return testName(row.param.fault, row.param.blockBytes); });

}  // namespace

TEST_P(RunFaults, AreToldAndLeftBehind) {
  const RunFault& row = GetParam();
  m_x = &AddFaulty(row.fault);
  ASSERT_EQ(0, m_x->Start());
  NoteProcess(*m_x);
  const bool isInSecondRun = row.fault.starts_with("ended");
  for (const Step step : {kBegin, kExecute, kEnd}) {
    if (step == row.step && !isInSecondRun) break;
    ASSERT_EQ(0, Take(step));
  }
  ASSERT_TRUE(!row.isDeadBefore || m_x->Dies());

  const Clock::time_point begin = Clock::now();
  EXPECT_EQ(row.code, Take(row.step));
  const Clock::time_point end = Clock::now();
  if (row.code != 0) {
    EXPECT_LT(end - std::max(begin, Death()), kDeathTold);
    EXPECT_TRUE(m_x->Dies());
    EXPECT_EQ(row.fault.find("exit=3") == std::string::npos ? SIGKILL : 3 << 8, vexadx::ProcessOf(m_x->engine).status);
  }
  (void)m_x->Stop();  // an engine that has no process any more may say so
  EXPECT_LT(Clock::now() - end, kDeathTold);
  ExpectHealthyAgain(*m_x);
}
