#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <future>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <vector>

#include "dxglobals.h"
#include "javaextension.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "outpstatisticsx.h"
#include "processstate.h"
#include "temphome.h"
#include "vexadx_death.h"
#include "vexadx_process.h"
#include "within.h"
#include "xconfigoptions.h"
#include "xpipemanager.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr auto kPromptly = 1s;  // after a death
constexpr const char* kRealJava = VEXADX_STAGED_HOME "/JRE";

// What the engine's processes write.
class Output {
 public:
  void Append(std::string_view text) {
    const std::lock_guard lock(m_guard);
    m_text += text;
    m_came.notify_all();
  }

  void Clear() {
    const std::lock_guard lock(m_guard);
    m_text.clear();
  }

  std::string Text() {
    const std::lock_guard lock(m_guard);
    return m_text;
  }

  // The id in the line that a process says; throws when none has come for a minute.
  pid_t AwaitProcess() {
    std::unique_lock lock(m_guard);
    const auto hasLine = [this] { return m_text.find('\n') != std::string::npos; };
    if (!m_came.wait_for(lock, 1min, hasLine)) throw std::runtime_error("no process says its id: " + m_text);
    return std::stoi(m_text.substr(std::string_view("process ").size()));
  }

 private:
  std::mutex m_guard;
  std::condition_variable m_came;
  std::string m_text;
};

// One engine with the Java extension's process, or a peer in its place.
class JavaEngine : public testing::Test {
 protected:
  JavaEngine() {
    ::unsetenv("JAVA_TOOL_OPTIONS");
    SetVEXAHOME(m_home.Path().c_str());
    SetXPipeManager(&m_pipes);
    SetavaExtSocket(&m_socket);
    vexadx::KeepLastLines(m_engine, vexadx::Streams::kBoth, [this](std::string_view text) { m_output.Append(text); });
    ExpectHealthy();
  }
  ~JavaEngine() override {
    (void)m_engine.stop_embedded_x();
    SetavaExtSocket(nullptr);
    SetXPipeManager(nullptr);
  }

  void UseRuntime(const std::string& runtime) {
    m_home.Remove("JRE");
    fs::create_directory_symlink(runtime, m_home.Path("JRE"));
  }

  void UsePeer(const std::string& script) {
    UseRuntime(VEXADX_JAVA_PEER);
    m_options.PutOption("JAVA_PEER", script);
  }

  int StartHere() {
    char argument[] = "JavaExtension";
    char* arguments[] = {argument};
    return m_engine.init_embedded_x(1, arguments);
  }

  int Start(const std::string& command = "STATS_HELLO", const Strings& lines = {}) {
    const std::string extensions = m_home.Path("extensions");
    fs::create_directories(extensions);
    fs::copy_file(VEXADX_COMMANDS, extensions + '/' + command + ".jar", fs::copy_options::skip_existing);
    CommandLine commandLine;
    commandLine.javaCommand = {command, extensions, true};
    PrepareJavaExtension(commandLine, {"block", lines});
    m_output.Clear();
    return StartHere();
  }

  // The syntax is not what a Java extension runs.
  int Execute() {
    char syntax[] = "not used\n";
    EXPECT_EQ(0, m_engine.pre_action());
    const int code = m_engine.execute_x(syntax);
    EXPECT_EQ(0, m_engine.post_action());
    vexadx::HandOnOutput(m_engine);
    return code;
  }

  // Kills the process once it has said its id, and answers when.
  std::future<Clock::time_point> KillOnceItSaysItsId() {
    return std::async(std::launch::async, [this] {
      const pid_t process = m_output.AwaitProcess();
      const Clock::time_point now = Clock::now();
      ::kill(process, SIGKILL);
      return now;
    });
  }

  // The connection ends a moment before the process.
  void AwaitEnd() {
    while (!vexadx::ProcessOf(m_engine).hasEnded) std::this_thread::sleep_for(1ms);
  }

  // The process is no more; answers its wait status.
  int ExpectEnded() {
    const vexadx::XProcess process = vexadx::ProcessOf(m_engine);
    EXPECT_TRUE(process.hasEnded);
    EXPECT_EQ(-1, process.id) << "it has not been reaped";
    return process.status;
  }

  // The same engine can be started again and runs a command, and nothing is left of it or of what was before.
  void ExpectHealthy() {
    UseRuntime(kRealJava);
    EXPECT_EQ(0, Start("STATS_HELLO", {"healthy"}));
    EXPECT_EQ(0, Execute());
    EXPECT_EQ("<healthy>", m_output.Text());
    EXPECT_EQ(0, m_engine.stop_embedded_x());
    ExpectClean();
  }

  // A sanitizer's own thread comes with the first.
  static int ThreadsOnceOneHasRun() {
    std::thread([] {}).join();
    return Threads();
  }

  void ExpectClean() {
    const auto state = [] { return std::tuple(HasChildren(), OpenDescriptors(), Threads()); };
    const Clock::time_point end = Clock::now() + kPromptly;
    while (state() != m_clean && Clock::now() < end) std::this_thread::sleep_for(1ms);
    EXPECT_EQ(m_clean, state());
  }

  TempHome m_home;
  XConfigOptions m_options{"JAVAEXTENSION"};
  XPipeManager m_pipes{m_home.Path().string() + '/', "1"};
  JavaPlugInSocket m_socket;
  Output m_output;
  // No child; the socket keeps its two descriptors.
  const std::tuple<bool, int, int> m_clean{false, OpenDescriptors() + 2, ThreadsOnceOneHasRun()};
  OutpStatisticsX m_engine{&m_options, 1, true};
};

TEST_F(JavaEngine, RunsACommandOfItsPackageAndReturnsWhenTheProcessHasEnded) {
  const struct {
    std::string command;
    Strings lines;
    int status;
    std::string out;
    Strings words = {};  // somewhere behind that; none: nothing
  } cases[] = {
      {"STATS_HELLO", {}, 0, ""},
      {"STATS_HELLO",
       {"first line", "", "n\xC3\xA4her\t\xF0\x9F\x98\x80", "not UTF-8: \xFF"},
       0,
       "<first line><><n\xC3\xA4her\t\xF0\x9F\x98\x80><not UTF-8: \xEF\xBF\xBD>"},
      {"com.vexa.commands.Count", Strings(1000, std::string(1000, 'x')), 0, "1000 1000000"},
      {"STATS_WORKER", {}, 0, "after"},  // the process goes on when the command has returned
      {"STATS_EXIT", {"7"}, 7, ""},
      {"STATS_THROW",
       {},
       1,
       "Exception in thread \"main\" java.lang.IllegalStateException: on purpose\n\tat STATS_THROW.main(",
       {"Caused by: java.lang.RuntimeException: the cause"}},
      {"STATS_BROKEN", {}, 1, "Exception", {"ExceptionInInitializerError", "no number"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.command + ' ' + c.out);
    ASSERT_EQ(0, Start(c.command, c.lines));
    const pid_t process = vexadx::ProcessOf(m_engine).id;
    EXPECT_EQ(0, ::kill(process, 0));
    EXPECT_EQ(0, Execute());
    EXPECT_EQ(c.status, WEXITSTATUS(ExpectEnded()));
    EXPECT_EQ(-1, ::kill(process, 0));
    const std::string out = m_output.Text();
    EXPECT_EQ(c.out, out.substr(0, c.words.empty() ? out.size() : c.out.size()));
    for (const std::string& word : c.words) EXPECT_NE(std::string::npos, out.find(word)) << word << " in\n" << out;
    EXPECT_EQ(0, m_engine.stop_embedded_x());
    ExpectClean();
  }
}

TEST_F(JavaEngine, WaitsForTheCommandWithoutTheProcessor) {
  ASSERT_EQ(0, Start("STATS_PROCESS"));
  std::future<int> executing = std::async(std::launch::async, [this] { return Execute(); });
  const pid_t process = m_output.AwaitProcess();
  const std::clock_t before = std::clock();
  EXPECT_EQ(std::future_status::timeout, executing.wait_for(2s));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 10);
  ::kill(process, SIGKILL);
  EXPECT_EQ(0, executing.get());
}

// As children are that a host lets the system discard.
TEST_F(JavaEngine, ReturnsWhenSomebodyElseHasReapedTheProcess) {
  ::signal(SIGCHLD, SIG_IGN);
  ASSERT_EQ(0, Start());
  EXPECT_EQ(0, Execute());
  (void)ExpectEnded();
  ExpectClean();
  ::signal(SIGCHLD, SIG_DFL);
}

TEST_F(JavaEngine, AStartEndsWithTheProcessThatItWaitsFor) {
  const struct {
    const char* what;
    const char* script;  // null: no runtime
    std::string out;
    std::chrono::milliseconds awaited;  // before it is killed
    int status;
    bool isKilled;
  } cases[] = {
      {"it never connects", "say wait", "process ", 1s, SIGKILL, true},
      {"it ends before it connects", "", "", 0s, 0, false},
      {"it connects and ends at once", "connect", "", 0s, 0, false},
      {"it connects and is killed at once", "connect say wait", "process ", 0s, SIGKILL, true},
      {"it leaves a child behind with the connection", "connect leave", "", 0s, 0, false},
      {"there is no runtime", nullptr, "No such file or directory\n", 0s, 0xff00, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    c.script ? UsePeer(c.script) : m_home.Remove("JRE");
    Clock::time_point end = Clock::now();
    std::future<int> starting = std::async(std::launch::async, [this] { return Start(); });
    if (c.isKilled) {
      const pid_t process = m_output.AwaitProcess();
      EXPECT_EQ(std::future_status::timeout, starting.wait_for(c.awaited));
      end = Clock::now();
      ::kill(process, SIGKILL);
    }
    EXPECT_EQ(99123, starting.get());
    EXPECT_LT(Clock::now() - end, kPromptly);
    EXPECT_EQ(c.status, ExpectEnded());
    vexadx::HandOnOutput(m_engine);
    EXPECT_EQ(c.out, m_output.Text().substr(0, c.out.size()));
    char syntax[] = "";
    EXPECT_EQ(99115, m_engine.execute_x(syntax));
    ExpectHealthy();
  }
}

TEST_F(JavaEngine, AStartWithoutDescriptorsIsACode) {
  static std::atomic<int> forks;
  ASSERT_EQ(0, ::pthread_atfork(
                   nullptr, [] { ++forks; }, nullptr));
  UsePeer("connect wait");
  const struct {
    rlim_t left;
    int code;
    int forks;
    std::chrono::milliseconds within;
  } cases[] = {{0, 99122, 0, 100ms}, {1, 99121, 1, 11s}};  // for the socket that is listened on, and for the connection
  std::vector<int> others;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.left);
    // Those that a program which is started may have: a sanitizer in it needs some.
    for (int i = 0; i < 16; ++i) others.push_back(::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0));
    const int lowestFree = ::dup(STDIN_FILENO);
    ASSERT_EQ(0, ::close(lowestFree));
    rlimit limit{};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
    const rlimit lowered{static_cast<rlim_t>(lowestFree) + c.left, limit.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &lowered));
    {
      const Within time(c.within);
      EXPECT_EQ(c.code, StartHere());
    }
    EXPECT_EQ(c.forks, forks.exchange(0));
    EXPECT_FALSE(HasChildren());
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  }
  EXPECT_EQ(SIGKILL, ExpectEnded()) << "the second had started one";
  for (const int other : others) ::close(other);
  ExpectHealthy();
}

// The code is that of the message's way: how the process ended is for the host to ask.
TEST_F(JavaEngine, ARunEndsWithItsProcess) {
  const struct {
    const char* what;
    const char* script;  // null: the real one
    std::size_t length;
    int code;
  } cases[] = {
      {"in the middle of the command", nullptr, 0, 0},
      {"in the middle of the message", "connect receive say wait", 32'000'000, 99122},
      {"and leaves a child behind with the connection", "connect leave receive say wait", 32'000'000, 99122},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.script) UsePeer(c.script);
    ASSERT_EQ(0, Start("STATS_PROCESS", {std::string(c.length, 'x')}));
    std::future<Clock::time_point> killing = KillOnceItSaysItsId();
    EXPECT_EQ(c.code, Execute());
    EXPECT_LT(Clock::now() - killing.get(), kPromptly);
    AwaitEnd();
    EXPECT_EQ(0, m_engine.stop_embedded_x());
    EXPECT_EQ(SIGKILL, ExpectEnded());
    ExpectHealthy();
  }
}

TEST_F(JavaEngine, AProcessKilledBeforeTheMessageRunsNothing) {
  ASSERT_EQ(0, Start("STATS_HELLO", {"never shown"}));
  ::kill(vexadx::ProcessOf(m_engine).id, SIGKILL);
  AwaitEnd();
  EXPECT_EQ(0, Execute());  // the system takes what it cannot deliver any more
  EXPECT_EQ(SIGKILL, ExpectEnded());
  EXPECT_EQ("", m_output.Text());
  EXPECT_EQ(0, m_engine.stop_embedded_x());
  ExpectHealthy();
}

TEST_F(JavaEngine, AStopEndsAProcessThatGotNoMessage) {
  for (const bool sendFails : {false, true}) {
    if (sendFails) UsePeer("connect reset say wait");
    ASSERT_EQ(0, Start());
    if (sendFails) {
      (void)m_output.AwaitProcess();
      EXPECT_EQ(99122, Execute());
      EXPECT_FALSE(vexadx::ProcessOf(m_engine).hasEnded) << "it is not waited for";
    }
    EXPECT_EQ(99104, m_engine.stop_embedded_x()) << "it serves no commands";
    ExpectClean();
    EXPECT_EQ(sendFails ? SIGTERM : (128 + SIGTERM) << 8, ExpectEnded()) << "Java turns the signal into a status";
    ExpectHealthy();
  }
}

}  // namespace
