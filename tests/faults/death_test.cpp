#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <future>
#include <string>
#include <string_view>
#include <vector>

#include "faultyx.h"
#include "vexadx_death.h"

namespace {

using vexadx::Step;

// This process's standard error leads elsewhere for a scope.
class StandardError {
 public:
  explicit StandardError(int descriptor) : m_before(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {
    (void)::dup2(descriptor, STDERR_FILENO);
    ::close(descriptor);
  }
  ~StandardError() {
    (void)::dup2(m_before, STDERR_FILENO);
    ::close(m_before);
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

 private:
  const int m_before;
};

// Engines of Python's.
class Deaths : public OutOfProcess {
 protected:
  Deaths() { m_home.Configure("[PYX]\nLIB_NAME=vexapython\n"); }

  // That tells what it writes last, and whose output is received.
  OutpX& AddPython(vexadx::Streams streams = vexadx::Streams::kError) {
    OutpX& x = Add("PYX");
    vexadx::KeepLastLines(x.engine, streams, [this](std::string_view text) { m_received.append(text); });
    return x;
  }

  std::string m_received;  // to be looked at when all has been handed on
};

long residentKiB() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * (::sysconf(_SC_PAGESIZE) / 1024);
}

constexpr int kFloodLines = 1'400'000;  // 10 MB

#ifdef VEXADX_SANITIZED
constexpr long kKeptKiB = 1 << 20;  // a sanitizer keeps what is released
#else
constexpr long kKeptKiB = 256;
#endif

// Numbers, a line each: what is lost or out of order shows.
std::string floodText() {
  std::string text;
  for (int i = 0; i < kFloodLines; ++i) text += std::to_string(i) + '\n';
  return text;
}

const std::string kFloodBlock =
    "import os\n"
    "rest = memoryview(''.join('%d\\n' % i for i in range(1_400_000)).encode())\n"
    "while rest: rest = rest[os.write(2, rest):]\n";

}  // namespace

TEST_F(FaultyX, ItsDeathIsToldWithTheStep) {
  const struct {
    const char* fault;
    int status;
    Step step;
    bool byLibrary = false;
  } kRows[] = {
      {"started exit=3", 3 << 8, Step::kStart},      {"ready-read", SIGKILL, Step::kReadyCheck},
      {"unready=100", SIGKILL, Step::kStart, true},  {"begin-read", SIGKILL, Step::kBeginRun},
      {"block-read exit=4", 4 << 8, Step::kExecute}, {"half-reply late=100 fork", SIGKILL, Step::kExecute},
      {"end-read", SIGKILL, Step::kEndRun},          {"ended late=200", SIGKILL, Step::kIdle},
      {"stop-read exit=1", 1 << 8, Step::kStop},     {"stopped exit=0 late=50", 0, Step::kStop},
  };
  std::vector<OutpX*> xs;
  std::vector<std::future<void>> lives;
  for (const auto& row : kRows) xs.push_back(&AddFaulty(row.fault, "FAULTY" + std::to_string(xs.size())));
  for (OutpX* const x : xs) {
    const auto& row = kRows[lives.size()];
    lives.push_back(std::async(std::launch::async, [x, &row] {
      const bool hasRun = x->Start() == 0 && x->Run("block") == 0;
      EXPECT_TRUE(!hasRun || row.step == Step::kStop || x->Dies()) << row.fault;
      (void)x->Stop();
      EXPECT_TRUE(x->Dies());
      const vexadx::Death death = vexadx::DeathOf(x->engine);
      EXPECT_EQ(row.status, death.status) << row.fault;
      EXPECT_STREQ(vexadx::StepText(row.step), vexadx::StepText(death.step)) << row.fault;
      EXPECT_EQ(row.byLibrary, death.byLibrary) << row.fault;
    }));
  }
}

TEST_F(Deaths, AreToldWithTheLastLinesAndTheStack) {
  const struct {
    std::string block;
    int status;
    std::string lines;  // how they begin
    std::string stack;
  } kRows[] = {
      {"import ctypes, os\nos.write(2, b'one\\ntwo\\n')\nctypes.string_at(0)", SIGSEGV, "one\ntwo\nFatal Python error",
       "Fatal Python error: Segmentation fault\n\n"},
      {"import os\nos.abort()", SIGABRT, "Fatal Python error", "Fatal Python error: Aborted\n\n"},
      {"import os\nos.write(2, b'one\\ntwo\\n')\nos._exit(3)", 3 << 8, "one\ntwo\n", ""},
      {"import os, signal\nos.write(2, b'half')\nos.kill(os.getpid(), signal.SIGKILL)", SIGKILL, "half", ""},
      {"import os\nos.write(1, b'out\\n')\nos.write(2, b'err\\n')\nos.write(1, b'out\\n')\nos._exit(0)", 0,
       "out\nerr\nout\n", ""},
  };
  OutpX& x = AddPython(vexadx::Streams::kBoth);
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.block);
    ASSERT_EQ(0, x.Start());
    EXPECT_EQ(99103, x.Run(row.block));
    ASSERT_TRUE(x.Dies());
    const vexadx::Death death = vexadx::DeathOf(x.engine);
    EXPECT_EQ(row.status, death.status & 0x7f7f) << "but for the mark of a core file";
    EXPECT_EQ(row.lines, death.lastLines.substr(0, row.lines.size()));
    EXPECT_EQ(row.stack, death.stack.substr(0, row.stack.size()));
    EXPECT_EQ(row.stack.empty(), death.stack.find("File \"<block 1>\"") == std::string::npos) << death.stack;
    vexadx::HandOnOutput(x.engine);
    EXPECT_EQ(std::exchange(m_received, ""), death.lastLines);
    (void)x.Stop();
  }
}

TEST_F(Deaths, OfOneThatLeftAProcessBehindAreTold) {
  OutpX& x = AddPython();
  ASSERT_EQ(0, x.Start());
  std::ofstream(m_pipes.Path("PYX.group")) << x.Process();
  EXPECT_EQ(99103, x.Run("import os\nif os.fork() == 0:\n  while True: os.write(2, b'left\\n')\nos._exit(1)"));
  ASSERT_TRUE(x.Dies());
  EXPECT_EQ(0U, vexadx::DeathOf(x.engine).stack.size());
  vexadx::HandOnOutput(x.engine);
  (void)x.Stop();
}

TEST_F(Deaths, KeepLittleOfWhatArrivesWhole) {
  const std::string text = floodText();
  OutpX& x = AddPython();
  m_received.reserve(2 * text.size());
  ASSERT_EQ(0, x.Start());
  EXPECT_EQ(0, x.Run(kFloodBlock));
  vexadx::HandOnOutput(x.engine);
  EXPECT_TRUE(m_received == text) << m_received.size();
  const std::string last = vexadx::DeathOf(x.engine).lastLines;
  EXPECT_GE(16384U, last.size());
  EXPECT_LT(16000U, last.size());
  EXPECT_EQ('\n', text[text.size() - last.size() - 1]);
  EXPECT_EQ(text.substr(text.size() - last.size()), last);
  EXPECT_EQ(0, x.Stop());

  const std::string file = m_pipes.Path("standard-error");
  {
    const StandardError elsewhere(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    vexadx::KeepLastLines(x.engine);
    ASSERT_EQ(0, x.Start());
  }
  const long before = residentKiB();
  EXPECT_EQ(0, x.Run(kFloodBlock));
  vexadx::HandOnOutput(x.engine);
  EXPECT_GE(before + kKeptKiB, residentKiB());
  EXPECT_TRUE(ReadFile(file) == text);
  EXPECT_EQ(0, x.Stop());
}

TEST_F(Deaths, LeaveOutAHostThatTakesNothing) {
  std::array<int, 2> ends{};
  ASSERT_EQ(0, ::pipe(ends.data()));
  ::close(ends[0]);
  OutpX& x = Add("PYX");
  vexadx::KeepLastLines(x.engine);
  for (const int descriptor : {ends[1], ::open("/dev/full", O_WRONLY | O_CLOEXEC)}) {
    {
      const StandardError elsewhere(descriptor);
      ASSERT_EQ(0, x.Start());
    }
    EXPECT_EQ(0, x.Run(kFloodBlock));
    vexadx::HandOnOutput(x.engine);
    EXPECT_LT(16000U, vexadx::DeathOf(x.engine).lastLines.size());
    EXPECT_EQ(0, x.Stop());
  }
}
