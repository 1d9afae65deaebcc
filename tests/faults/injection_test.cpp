// A program of its own, loaded behind the preload library, which fails calls when it is told to.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "PlugInCriticalSection.h"
#include "asycspipe1.h"
#include "clexdsmb.h"
#include "drivex.h"
#include "dxtracer.h"
#include "forkedpeer.h"
#include "inprocess.h"
#include "javaextensionsmb.h"
#include "javapluginsocket.h"
#include "outofprocess.h"
#include "preload.h"
#include "vexadx_codes.h"
#include "within.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

template <typename Function>
Function* preloaded(const char* name) {
  void* const function = ::dlsym(RTLD_DEFAULT, name);
  if (!function) throw std::runtime_error("the preload library is not there");
  return reinterpret_cast<Function*>(function);
}
#define PRELOADED(function) preloaded<decltype(function)>(#function)

// Without those that the loader keeps for the text of its last error.
long blocks() {
  (void)::dlerror();
  (void)::dlerror();
  static auto* const ask = PRELOADED(faultpreload_blocks);
  return ask();
}

// From construction to End one call fails.
class Failing {
 public:
  explicit Failing(const std::string& failure) {
    static auto* const arm = PRELOADED(faultpreload_arm);
    EXPECT_EQ(0, arm(failure.c_str())) << failure;
  }

  // Whether it was reached.
  bool End() {
    static auto* const disarm = PRELOADED(faultpreload_disarm);
    return disarm() == 1;
  }
};

bool isListed(int code) { return code == vexadx::kFailed || vexadx::ResultText(code) != nullptr; }

std::string nth(const char* call, int number, const char* rest) {
  return std::string(call) + ':' + std::to_string(number) + rest;
}

void expectNoProcess() {
  EXPECT_TRUE(BecomesTrue([] { return !HasChildren(); })) << "a process is left";
}

constexpr const char* kErrors[] = {":EINTR", ":EAGAIN", ":EIO", ":EMFILE", ":ENOSPC", ":ECHILD"};

struct Swept {
  const char* call;
  const char* rest;
};

// Of each, the first call fails, the second, and so on until none is left; then the operation answers 0.
template <typename Operation, typename AndThen>
void sweepStarts(const std::vector<Swept>& all, Operation operation, AndThen andThen) {
  for (const auto& [call, rest] : all) {
    int number = 0;
    for (bool isReached = true; isReached;) {
      const std::string failure = nth(call, ++number, rest);
      SCOPED_TRACE(failure);
      const auto begin = Clock::now();
      Failing failing(failure);
      const int code = operation();
      isReached = failing.End();
      EXPECT_TRUE(isListed(code)) << code;
      EXPECT_TRUE(isReached || code == 0) << code;
      EXPECT_LT(Clock::now() - begin, 11s);
      andThen();
    }
    EXPECT_LT(1, number) << call << " is not called at all";
  }
}

// Instead of what one test run has time for.
bool isWhole() { return std::getenv("VEXADX_WHOLE_SWEEP") != nullptr; }

}  // namespace

class InProcessInjection : public InProcess {
 protected:
  InProcessInjection() {
    m_home.Remove("JRE");  // a machine without memory ends the process, and is nobody's to mend
    ::setenv("PATH", "", 1);
    ::unsetenv("JAVA_HOME");
    m_home.AddPlugin("ctest");
    m_options.PutOption("LIB_NAME", "ctest");
    m_options.PutOption("INJECTED", "a value that is too long to be kept in the text itself");
  }

  // The first code that is not 0 of an engine's whole life. Where a copy of the name is taken memory may give out.
  int life() {
    InpStatisticsX engine(&m_options, true);
    std::optional<DriveX> driver;
    try {
      driver.emplace(m_name, &engine, &m_options);
    } catch (const std::bad_alloc&) {
      return vexadx::kFailed;
    }
    driver->setSyntax(m_lines);
    int code = driver->invokeX();
    if (code == 0) code = driver->startX();
    vexadx::WaitForRun(*driver);
    if (code == 0) code = driver->getReturnValue();
    const int stopped = engine.stop_embedded_x();
    return code == 0 ? stopped : code;
  }

  const std::string m_name = "CTEST";
  std::vector<std::string> m_lines{"0", std::string(100, ' ')};
};

TEST_F(InProcessInjection, OfAllocationsIsACodeAndNoLeak) {
  for (DxTracer* const tracer : {static_cast<DxTracer*>(nullptr), &m_tracer}) {
    SetDxTracer(tracer);
    for (const char* const rest : {"", "+"}) {
      ASSERT_EQ(0, life());  // what is kept for the next time is there
      int number = 0;
      for (bool isReached = true; isReached;) {
        const std::string failure = nth("alloc", ++number, rest);
        bool isLeft = true;
        for (int times = 0; times < 3 && isLeft; ++times) {  // what the system keeps for threads grows, but not always
          const long before = blocks();
          Failing failing(failure);
          const int code = life();
          isReached = failing.End();
          isLeft = blocks() > before;
          EXPECT_TRUE(isListed(code)) << failure << ' ' << code;
        }
        EXPECT_FALSE(isLeft) << failure;
        EXPECT_EQ(0, life()) << failure;
      }
      EXPECT_LT(20, number);
    }
  }
}

TEST_F(InProcessInjection, OfAllocationsBeforeTheLibraryIsLoadedIsACode) {
  const struct {
    const char* call;
    const char* rest;
  } kFailures[] = {{"alloc", ""}, {"alloc", "+"}, {"open", ":EMFILE"}, {"pthread_create", ":EAGAIN"}};
  for (const auto& [call, rest] : kFailures) {
    int status = 0;
    for (int number = 1; status == 0; ++number) {
      const std::string failure = nth(call, number, rest);
      const pid_t child = ::fork();  // in which nothing is loaded
      if (child == 0) {
        Failing failing(failure);
        const int code = life();
        const bool isReached = failing.End();
        ::_exit(!isListed(code) || life() != 0 ? 1 : isReached ? 0 : 2);
      }
      ASSERT_EQ(child, ::waitpid(child, &status, 0));
      EXPECT_TRUE(status == 0 || status == 2 << 8) << failure << ' ' << status;
    }
  }
}

class Injection : public OutOfProcess {
 protected:
  static constexpr std::size_t kAtOnce = 16;

  Injection() {
    m_home.AddPlugin("ctest");
    std::string sections;
    for (std::size_t i = 0; i < kAtOnce; ++i) sections += "[X" + std::to_string(i) + "]\nLIB_NAME=ctest\n";
    m_home.Configure(sections);
  }

  OutpX& at(std::size_t index) {
    while (m_all.size() <= index) m_all.push_back(&Add("X" + std::to_string(m_all.size())));
    return *m_all[index];
  }

  // Starts so many engines, and runs a block in each.
  void startAll(std::size_t count) {
    std::vector<std::future<void>> starts;
    for (std::size_t i = 0; i < count; ++i) {
      starts.push_back(std::async(std::launch::async, [&x = at(i), i] {
        EXPECT_EQ(0, x.Start()) << i;
        EXPECT_EQ(0, x.Run("0")) << i;
      }));
    }
  }

  // Each of the failures while an engine runs a block and is stopped. Answers whether all were reached.
  bool failInRunAndStop(const std::vector<std::string>& failures) {
    startAll(failures.size());
    bool areReached = true;
    for (std::size_t i = 0; i < failures.size(); ++i) {
      OutpX& x = at(i);
      DriveX driver(x.options.XName(), &x.engine, &x.options);
      driver.setSyntax(m_lines);
      const Clock::time_point begin = Clock::now();
      Failing failing(failures[i]);
      const int code = driver.runX();
      const int stopped = x.engine.stop_embedded_x();
      const bool isReached = failing.End();
      EXPECT_TRUE(isListed(code)) << failures[i] << ' ' << code;
      EXPECT_TRUE(isListed(stopped)) << failures[i] << ' ' << stopped;
      EXPECT_LT(Clock::now() - begin, 5s) << failures[i];
      EXPECT_TRUE(isReached || code + stopped == 0) << failures[i];
      areReached = areReached && isReached;
    }
    return areReached;
  }

  // Until a run and stop make fewer of the calls.
  void sweepRunAndStop(const char* call, const char* rest) {
    int number = 0;
    for (bool areReached = true; areReached;) {
      std::vector<std::string> failures;
      for (std::size_t i = 0; i < kAtOnce; ++i) failures.push_back(nth(call, ++number, rest));
      areReached = failInRunAndStop(failures);
    }
  }

  void expectAllHealthy() {
    startAll(m_all.size());
    for (OutpX* const x : m_all) EXPECT_EQ(0, x->Stop());
  }

  std::vector<OutpX*> m_all;
  std::vector<std::string> m_lines{"0", std::string(100'000, ' ')};
};

TEST_F(Injection, OfAllocationsIntoRunAndStopIsACode) {
  DxTracer tracer;
  tracer.open(m_home.Path("trace.log"));
  for (DxTracer* const traced : {static_cast<DxTracer*>(nullptr), &tracer}) {
    SetDxTracer(traced);
    for (const char* const rest : {"", "+"}) {
      if (traced && *rest != '\0' && !isWhole()) continue;
      sweepRunAndStop("alloc", rest);
    }
  }
  expectAllHealthy();
  SetDxTracer(nullptr);
}

TEST_F(Injection, OfErrorsIntoRunAndStopIsACode) {
  std::vector<std::string> failures;
  for (int number = 1; number <= 3; ++number) failures.push_back(nth("waitpid", number, ":EINTR"));
  for (const char* const call : {"open", "read", "write", "mkfifo", "poll"}) {
    for (const char* const error : kErrors) {
      if (isWhole()) sweepRunAndStop(call, error);
      for (int number = 1; !isWhole() && number <= 6; ++number) failures.push_back(nth(call, number, error));
    }
  }
  while (!failures.empty()) {
    const auto rest = failures.end() - static_cast<std::ptrdiff_t>(std::min(failures.size(), kAtOnce));
    (void)failInRunAndStop({rest, failures.end()});
    failures.erase(rest, failures.end());
  }
  expectAllHealthy();
}

TEST_F(Injection, OfAnythingIntoStartIsACode) {
  OutpX& x = at(0);
  sweepStarts(
      {{"alloc", ""},
       {"fork", ":EAGAIN"},
       {"pthread_create", ":EAGAIN"},
       {"open", ":EINTR"},
       {"open", ":EMFILE"},
       {"read", ":EINTR"},
       {"read", ":EIO"},
       {"write", ":EINTR"},
       {"write", ":EIO"},
       {"poll", ":EINTR"},
       {"poll", ":EIO"},
       {"select", ":EINTR"},
       {"syscall", ":EMFILE"}},
      [&x] {
        const int code = x.engine.init_embedded_x(0, nullptr);
        return code == 0 ? x.engine.pre_action() : code;
      },
      [&x] {
        EXPECT_TRUE(isListed(x.Stop()));
        expectNoProcess();
      });
  expectAllHealthy();
}

// Some of these take as long as all ready checks.
TEST_F(Injection, OfEverythingIntoStartIsACode) {
  if (!isWhole()) GTEST_SKIP() << "VEXADX_WHOLE_SWEEP is not set";
  OutpX& x = at(0);
  std::vector<Swept> all{{"alloc", "+"}};
  for (const char* const call :
       {"fork", "pthread_create", "mkfifo", "open", "read", "write", "poll", "select", "syscall"}) {
    for (const char* const error : kErrors) all.push_back({call, error});
  }
  sweepStarts(
      all, [&x] { return x.engine.init_embedded_x(0, nullptr); }, [&x] { EXPECT_EQ(0, x.Stop()); });
  expectAllHealthy();
}

TEST_F(Injection, OfAReplyLostAnswersNoLaterCommand) {
  const std::string name = m_pipes.Path("commands").string();
  const ForkedPeer server([&name] {
    AsyCsPipe1 commands(name, true);
    return commands.receive([](CleXDSmb& /*request*/, CleXDSmb& reply) {
      static int count = 0;
      reply.SetErrorCode(++count);
      return 0;
    });
  });
  ASSERT_TRUE(BecomesTrue([&name] { return std::filesystem::exists(name + "_s"); }));
  DXCmdDispatcher commands(name, false);
  int asked = 0;
  for (const char* const failure : {"open:2:EMFILE", "read:1:EIO"}) {
    Failing failing(failure);
    EXPECT_EQ(99104, commands.sendCmd(DXCmdDispatcher::kPingDX)) << failure;
    EXPECT_TRUE(failing.End()) << failure;
    asked += 2;
    EXPECT_EQ(asked, commands.sendCmd(DXCmdDispatcher::kPingDX)) << failure;
  }
}

TEST_F(Injection, OfARefusedUserIsToldAndStatus1) {
  std::vector<std::future<void>> starts;
  testing::internal::CaptureStdout();
  for (const char* const call : {"seteuid", "setgid", "setuid"}) {
    OutpX& x = at(starts.size());
    Failing failing(nth(call, 1, ":EPERM:children"));
    starts.push_back(std::async(std::launch::async, [&x, call] {
      const Within limit(11s);
      EXPECT_EQ(99104, x.Start()) << call;
    }));
    EXPECT_TRUE(x.Dies()) << call;
    EXPECT_TRUE(failing.End()) << call;
  }
  starts.clear();
  std::string told;
  for (OutpX* const x : m_all) {
    told += "Failed to change user in some way\n";
    EXPECT_EQ(1 << 8, vexadx::ProcessOf(x->engine).status);
    EXPECT_EQ(-1, x->Process());
  }
  EXPECT_EQ(told, testing::internal::GetCapturedStdout());
  expectAllHealthy();
}

class JavaInjection : public testing::Test {
 protected:
  JavaInjection() {
    SetVEXAHOME(m_home.Path().c_str());
    SetXPipeManager(&m_manager);
    SetavaExtSocket(&m_socket);
    m_home.Remove("JRE");
    std::filesystem::create_directory_symlink(VEXADX_JAVA_PEER, m_home.Path("JRE"));
    m_options.PutOption("JAVA_PEER", "connect receive");
  }
  ~JavaInjection() override {
    SetavaExtSocket(nullptr);
    SetXPipeManager(nullptr);
  }

  // What the host sends with a block.
  static void compose() {
    JavaExtensionSmb message;
    message.SetDataLen(1);
    message.SetSendBuf("m");
  }

  // The first code that is not 0.
  int life() {
    char argument[] = "JavaExtension";
    char* arguments[] = {argument};
    int code = m_engine.init_embedded_x(1, arguments);
    if (code == 0) code = m_engine.execute_x(argument);
    const int stopped = m_engine.stop_embedded_x();
    return code == 0 ? stopped : code;
  }

  TempHome m_home;
  TempDir m_pipes;
  XPipeManager m_manager{m_pipes.Path().string() + "/", "4711"};
  JavaPlugInSocket m_socket;
  XConfigOptions m_options{"JAVAEXTENSION"};
  OutpStatisticsX m_engine{&m_options, 1, true};
};

TEST_F(JavaInjection, OfAnythingIsACode) {
  compose();
  ASSERT_EQ(0, life());
  compose();
  const std::string state = ProcessState();
  sweepStarts(
      {{"alloc", ""},
       {"socket", ":EMFILE"},
       {"bind", ":EACCES"},
       {"listen", ":EIO"},
       {"fork", ":EAGAIN"},
       {"accept", ":EINTR"},
       {"accept", ":EMFILE"},
       {"poll", ":EINTR"},
       {"send", ":EINTR"},
       {"send", ":EIO"}},
      [this] { return life(); },
      [] {
        expectNoProcess();
        compose();
      });
  EXPECT_EQ(state, ProcessState());
}

void awaitSleepOf(pid_t thread) {
  for (char state = 'R'; state != 'S';) {
    std::ifstream status("/proc/self/task/" + std::to_string(thread) + "/stat");
    status.ignore(std::numeric_limits<std::streamsize>::max(), ')') >> state;
    std::this_thread::yield();
  }
}

TEST(SteppedClock, ShortensAndLengthensNoWait) {
  static auto* const step = PRELOADED(faultpreload_step_clock);
  constexpr long kHour = 3600;
  for (const long seconds : {kHour, -kHour}) {
    std::vector<std::future<void>> waits;
    std::array<std::promise<pid_t>, 2> threads;
    for (const bool isManual : {false, true}) {
      waits.push_back(std::async(std::launch::async, [isManual, seconds, &thread = threads[isManual]] {
        PlugInSynchEvent event(isManual, false, nullptr);
        thread.set_value(::gettid());
        const Clock::time_point begin = Clock::now();
        event.WaitForSignal(1500);
        const auto taken = Clock::now() - begin;
        EXPECT_LE(1500ms, taken) << seconds;
        EXPECT_LT(taken, 2s) << seconds;
      }));
    }
    for (auto& thread : threads) awaitSleepOf(thread.get_future().get());
    const std::time_t before = ::time(nullptr);
    step(seconds);
    EXPECT_NEAR(static_cast<double>(before + seconds), static_cast<double>(::time(nullptr)), 2);
  }
}
