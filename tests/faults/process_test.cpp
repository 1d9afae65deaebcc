// A process that lives and does not answer, and one whose number another has got.

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#ifdef __linux__
#include <linux/sched.h>
#include <sys/syscall.h>
#endif

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <optional>
#include <string>

#include "dxtracer.h"
#include "faultyx.h"
#include "gate.h"
#include "vexapipe.h"
#include "within.h"

namespace fs = std::filesystem;

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class PythonX : public OutOfProcess {
 protected:
  PythonX() { m_home.Configure("[PYX]\nLIB_NAME=vexapython\n"); }

  void TearDown() override {
    m_ready.reset();
    m_go.reset();
    OutOfProcess::TearDown();
  }

  std::optional<Gate> m_ready{std::in_place, m_home, "ready"};
  std::optional<Gate> m_go{std::in_place, m_home, "go"};
};

template <typename Function>
std::future<int> async(Function function) {
  return std::async(std::launch::async, function);
}

bool isOver(const std::future<int>& call, std::chrono::milliseconds atMost) {
  return call.wait_for(atMost) == std::future_status::ready;
}

}  // namespace

// However long it is stopped: nothing but its death ends a wait.
TEST_F(PythonX, IsWaitedForWhileItIsStopped) {
  OutpX& x = Add("PYX");
  ASSERT_EQ(0, x.Start());
  const auto codeAfterStop = [&x](const std::function<int()>& call, const std::function<void()>& inTheMiddle,
                                  std::chrono::seconds time = 2s) {
    auto called = async(call);
    inTheMiddle();
    EXPECT_FALSE(isOver(called, time));
    const Within limit(1s);
    ::kill(x.Process(), SIGCONT);
    return called.get();
  };
  const auto stop = [&x] {
    siginfo_t info{};
    ::kill(x.Process(), SIGSTOP);
    (void)::waitid(P_PID, static_cast<id_t>(x.Process()), &info, WSTOPPED | WNOWAIT);
  };
  stop();
  EXPECT_EQ(0, codeAfterStop([&x] { return x.Run("kept = 'x' * 10_000_000"); }, [] {}));
  const std::string block = m_ready->OpenInPython() + m_go->AwaitInPython() + "raise SystemExit(len(kept))";
  ASSERT_EQ(0, x.Begin());
  const auto stopInTheMiddle = [&] {
    m_ready->Await();
    stop();
    m_go->Open();
  };
  EXPECT_EQ(10'000'000, codeAfterStop([&] { return x.Execute(block); }, stopInTheMiddle, 30s));
  EXPECT_EQ(0, x.End());
  stop();
  EXPECT_EQ(0, codeAfterStop([&x] { return x.Stop(); }, [] {}));
}

// From C code that knows of no interrupt, and from such that holds the interpreter's lock and blocks the signals.
TEST_F(PythonX, ADeafBlockIsEndedByWhatItCannotIgnore) {
  m_home.AddPlugin("ctest");
  m_home.Configure("[CTEST]\nLIB_NAME=ctest\n[PYX]\nLIB_NAME=vexapython\n");
  const std::string locked =
      "import ctypes, signal\n"
      "signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGINT, signal.SIGTERM})\n" +
      m_ready->OpenInPython() +
      "lock = ctypes.create_string_buffer(64)\n"
      "for _ in range(2): ctypes.PyDLL(None).pthread_mutex_lock(lock)";
  const struct {
    const char* xName;
    std::string deaf;
    std::string good;
    int ending;
  } kRows[] = {{"CTEST", "wait", "0", SIGTERM}, {"PYX", locked, "x = 1", SIGKILL}};
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.xName);
    OutpX& x = Add(row.xName);
    ASSERT_EQ(0, x.Start());
    ASSERT_EQ(0, x.Begin());
    auto executed = async([&] { return x.Execute(row.deaf); });
    if (row.ending == SIGKILL) m_ready->Await();
    const Clock::time_point begin = Clock::now();
    for (const int signal : {SIGINT, SIGTERM, SIGKILL}) {
      ::kill(x.Process(), signal);
      if (isOver(executed, 1s)) break;
    }
    EXPECT_EQ(99103, executed.get());
    EXPECT_TRUE(x.Dies());
    EXPECT_EQ(row.ending, vexadx::ProcessOf(x.engine).status);
    (void)x.Stop();
    ASSERT_EQ(0, x.Start());
    EXPECT_EQ(0, x.Run(row.good));
    EXPECT_LT(Clock::now() - begin, 8s);
    EXPECT_EQ(0, x.Stop());
  }
}

TEST_F(FaultyX, ThatNeverAnswersTheStopIsStoppedByItsEnd) {
  OutpX& x = AddFaulty("silent-at-stop");
  ASSERT_EQ(0, x.Start());
  auto stopped = async([&x] { return x.Stop(); });
  EXPECT_TRUE(BecomesTrue([this] { return fs::exists(m_pipes.Path("FAULTY.died")); }));
  const Clock::time_point begin = Clock::now();
  EXPECT_FALSE(isOver(stopped, 0s)) << "it lives";
  ::kill(x.Process(), SIGKILL);
  EXPECT_EQ(99103, stopped.get());
  EXPECT_LT(Clock::now() - begin, 1s);
  ExpectHealthyAgain(x);
}

#ifdef __linux__
namespace {

// A child of this process with that number, which waits to be killed; -1 when the system gives none.
pid_t childWithNumber(pid_t number) {
  clone_args arguments{};
  arguments.exit_signal = SIGCHLD;
  arguments.set_tid = reinterpret_cast<std::uintptr_t>(&number);
  arguments.set_tid_size = 1;
  const auto child = static_cast<pid_t>(::syscall(SYS_clone3, &arguments, sizeof arguments));
  if (child == 0) {
    for (;;) ::pause();
  }
  return child;
}

bool lives(pid_t child) {
  siginfo_t info{};
  return ::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

}  // namespace

TEST_F(FaultyX, WhoseNumberAnotherProcessHasLeavesThatAlone) {
  OutpX& x = AddFaulty("");
  for (const bool isEnded : {false, true}) {
    ASSERT_EQ(0, x.Start());
    const pid_t number = x.Process();
    ::kill(number, SIGKILL);
    ASSERT_TRUE(x.Dies());
    ASSERT_EQ(number, ::waitpid(number, nullptr, 0)) << "this host reaps whatever it can";
    const pid_t stranger = childWithNumber(number);
    if (stranger == -1 && errno == EPERM) GTEST_SKIP() << "only the superuser can choose a process's number";
    ASSERT_EQ(number, stranger);
    if (isEnded) {
      ::kill(stranger, SIGTERM);
      EXPECT_TRUE(BecomesTrue([stranger] { return !lives(stranger); }));
    }

    const Clock::time_point begin = Clock::now();
    EXPECT_EQ(0, x.Stop());
    EXPECT_EQ(0, x.Stop());
    EXPECT_LT(Clock::now() - begin, 100ms);
    EXPECT_EQ(-1, x.Process());
    ExpectHealthyAgain(x);
    EXPECT_EQ(!isEnded, lives(stranger));
    ::kill(stranger, SIGKILL);
    EXPECT_EQ(stranger, ::waitpid(stranger, nullptr, 0)) << "it was reaped by the engine";
  }
}
#endif

namespace {

// Without a neighbour, which would write to a trace that is taken back.
class AloneX : public FaultyX {
 protected:
  void SetUp() override {}
};

}  // namespace

TEST_F(AloneX, RunsTheSameWithATraceThatCannotBeWritten) {
  const std::string fifo = m_home.Path("fifo");
  ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
  const std::string file = m_home.Path("trace");
  VexaPipe reader(fifo);
  const struct {
    const char* what;
    std::string path;
    std::function<void()> before;
    std::function<void()> after;
  } kRows[] = {
      {"full", "/dev/full", {}, {}},
      {"read-only", "/proc/version", {}, {}},
      {"deleted", file, {}, [&] { fs::remove(file); }},
      {"a pipe without a reader", fifo, {}, {}},
      {"a pipe that nobody empties", fifo, [&] { (void)reader.OpenPipeToUnBlockRead(); }, {}},
      {"a pipe whose reader leaves", fifo, [&] { (void)reader.OpenPipeToUnBlockRead(); },
       [&] { (void)reader.ClosePipe(); }},
  };
  OutpX& x = AddFaulty("");
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    if (row.before) row.before();
    DxTracer tracer;
    tracer.open(row.path);
    SetDxTracer(&tracer);
    if (row.after) row.after();
    EXPECT_EQ(0, x.Start());
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(0, x.Run("block"));
    EXPECT_EQ(0, x.Stop());
    SetDxTracer(nullptr);
    (void)reader.ClosePipe();
  }
}
