// R inside this process.

#include <gtest/gtest.h>
#include <pthread.h>

#include <array>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "drivex.h"
#include "language.h"
#include "processstate.h"
#include "vexadx_run.h"
#include "vexajvm.h"
#include "within.h"

namespace {

using std::string_literals::operator""s;

class R : public Language {
 protected:
  R() : Language("vexar") {}

  // The text that the block writes.
  std::string Said(const std::string& block) {
    EXPECT_EQ(0, Run(block)) << gOutput;
    return gOutput;
  }
};

// On a thread with a stack of this size.
void onSmallStack(std::size_t size, std::function<void()> function) {
  pthread_attr_t attributes;
  ::pthread_attr_init(&attributes);
  ::pthread_attr_setstacksize(&attributes, size);
  const auto call = [](void* data) -> void* {
    (*static_cast<std::function<void()>*>(data))();
    return nullptr;
  };
  pthread_t thread;
  ASSERT_EQ(0, ::pthread_create(&thread, &attributes, call, &function));
  ::pthread_join(thread, nullptr);
  ::pthread_attr_destroy(&attributes);
}

}  // namespace

TEST_F(R, QuitEndsTheBlockAndNothingElse) {
  const struct {
    std::string block;
    int code;
  } cases[] = {
      {"q(status = 3)\nkept <- 2", 3},
      {"quit('no')", 0},
      {"f <- function() { on.exit(cat('left')); q('yes', -1) }\nf()", -1},
      {"tryCatch(q(status = 4), error = identity, finally = cat('left'))", 4},
      {"for (i in 1:3) withCallingHandlers(q(status = i))\nkept <- 3", 1},
      {".Last <- function() kept <<- 4\nq(status = 5)", 5},
  };
  ASSERT_EQ(0, Start());
  ASSERT_EQ(0, Run("kept <- 1"));
  for (const auto& c : cases) {
    EXPECT_EQ(c.code, Run(c.block)) << c.block;
    EXPECT_TRUE(gOutput.empty() || gOutput == "left") << gOutput;
    EXPECT_EQ("[1] 1\n", Said("kept"));
  }
}

TEST_F(R, InterruptsEndTheBlock) {
  const auto call = [](pthread_t /*runner*/) { gInterrupt(); };
  const auto signal = [](pthread_t runner) { ::pthread_kill(runner, SIGINT); };
  ASSERT_EQ(0, Start());
  ASSERT_EQ(0, Run("kept <- 1"));
  // The clock is a call at which the thread sanitizer delivers a signal.
  for (const std::string block :
       {"cat('ready')\nwhile (TRUE) Sys.time()", "cat('ready')\nrepeat i <- tryCatch(Sys.time(), error = 2)",
        "cat('ready')\nSys.sleep(1000)", "repeat cat('ready')"}) {
    for (const auto interrupt : {+call, +signal}) {
      EXPECT_EQ(1, RunAndInterrupt(block, interrupt)) << block;
      EXPECT_EQ(1, onAnotherThread([&] { return RunAndInterrupt(block, interrupt); })) << block;
      EXPECT_EQ("[1] 1\n", Said("kept")) << block;
    }
  }
  gErrors.clear();
  EXPECT_EQ(1, RunAndInterrupt("cat('ready')\nwhile (TRUE) {}", call));
  EXPECT_EQ((std::vector<std::string>{"interrupt", "", "", "0"}), gErrors);

  gInterrupt();
  EXPECT_EQ(0, Run("for (i in 1:100000) i"));
  EXPECT_EQ(0, CountBlocksHitTooLate("for (i in 1:500) i", "end <- Sys.time() + 0.01\nwhile (Sys.time() < end) {}"));
}

// R's own errors, on whatever stack it runs, and no crash.
TEST_F(R, DeepRecursionIsAnError) {
  constexpr std::size_t kSmall = 1 << 20;
  const auto recurse = [&] {
    EXPECT_EQ(1, Run("f <- function(n) f(n + 1)\nf(1)"));
    EXPECT_TRUE(holdsInOrder(gOutput, {"stack"}) || holdsInOrder(gOutput, {"infinite recursion"})) << gOutput;
    EXPECT_EQ(1, Run("options(expressions = 500000)\nf(1)\n"));
    EXPECT_TRUE(holdsInOrder(gOutput, {"stack"})) << gOutput;
    EXPECT_EQ("[1] 5000\n", Said("options(expressions = 5000); 5000"));
  };
  onSmallStack(kSmall, [&] { ASSERT_EQ(0, Start()); });
  recurse();
  onSmallStack(kSmall / 8, recurse);
  onSmallStack(kSmall, recurse);
  EXPECT_EQ("[1] TRUE\n", Said("Cstack_info()[['size']] > 2^20"));
  recurse();
}

TEST_F(R, TellsWhatItSaid) {
  const struct {
    std::string block;
    std::vector<std::string> error;
  } cases[] = {
      {"1", {}},
      {"warning('only that')", {}},
      {"q(status = 3)", {}},
      {"x <- 1\n\nf <- function(n) stop('n is ', n)\nf(x)",
       {"error", "Error in f(x) : n is 1", "2: stop(\"n is \", n)\n1: f(x)", "4"}},
      {"'\xC3\xA4'; stop('\xC3\xA4')", {"error", "Error: \xC3\xA4", "1: stop(\"\xC3\xA4\")", "1"}},
      {"a <- 1; b <-\n  a +\nc(2,\n", {"syntax error", "Error: unexpected end of input", "", "3"}},
      {"a <- 1\n\n# here\nb <- 2 )", {"syntax error", "Error: unexpected ')' in \"b <- 2 )\"", "", "4"}},
  };
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ASSERT_EQ(0, Start());
  for (const auto& c : cases) {
    gErrors.clear();
    (void)Run(c.block);
    EXPECT_EQ(c.error, gErrors) << c.block << '\n' << gOutput;
  }
}

TEST_F(R, RunsOnAnyThreadAndAgainAfterAStop) {
  m_engine->setIntialized(true);  // whatever the host believes, nothing runs before the start
  EXPECT_EQ(1, Run("1"));
  m_engine->setIntialized(false);

  ASSERT_EQ(0, onAnotherThread([&] { return Start(); }));
  ASSERT_EQ(0, m_engine->stop_embedded_x());
  const int threads = Threads();
  const int descriptors = OpenDescriptors();
  for (int round = 0; round < 3; ++round) {
    ASSERT_EQ(0, onAnotherThread([&] { return Start(); }));
    EXPECT_EQ("[1] " + std::to_string(round) + "\n", Said("if (!exists('here')) here <- 0\nhere"));
    EXPECT_EQ(0, onAnotherThread([&] { return Run("here <- here + 1\npdf(file.path(tempdir(), 'left_open.pdf'))"); }));
    const std::string directory = Said("cat(tempdir())");
    EXPECT_TRUE(std::filesystem::is_directory(directory)) << directory;
    EXPECT_EQ(0, onAnotherThread([&] { return m_engine->stop_embedded_x(); }));
    EXPECT_FALSE(std::filesystem::exists(directory)) << directory;
    m_engine->setIntialized(true);
    EXPECT_EQ(1, Run("1"));
    m_engine->setIntialized(false);
  }
  EXPECT_EQ(threads, Threads());
  EXPECT_EQ(descriptors, OpenDescriptors());
}

// A host's output function may do what it likes.
TEST_F(R, RefusesABlockWithinABlock) {
  ASSERT_EQ(0, Start());
  InpStatisticsX another(&m_options, true);
  another.setIntialized(true);
  int code = 0;
  gOnOutput = [&] {
    std::string block = "1";
    code = another.execute_x(block.data());
    InpStatisticsX beginner(&m_options, true);
    EXPECT_EQ(1, beginner.init_embedded_x(0, nullptr));
    EXPECT_EQ(1, another.stop_embedded_x());
    throw 1;
  };
  EXPECT_EQ("a", Said("cat('a')"));
  gOnOutput = nullptr;
  EXPECT_EQ(1, code);
  EXPECT_EQ("[1] 2\n", Said("2"));
}

// As far as this process can tell; R has the locale that its user's blocks have given it.
TEST_F(R, LeavesTheHostsStateAlone) {
  ::setenv("LC_ALL", "C.UTF-8", 1);
  ASSERT_STREQ("C", std::setlocale(LC_ALL, nullptr));
  const std::string before = ProcessState();
  ASSERT_EQ(0, Start());
  EXPECT_EQ("[1] \"C.UTF-8\"\n", Said("Sys.getlocale('LC_CTYPE')"));
  EXPECT_EQ(before, ProcessState());
  EXPECT_EQ(0, Run("invisible(Sys.setlocale('LC_ALL', 'C'))\nlibrary(parallel)\nsystem('true')"));
  EXPECT_EQ(before, ProcessState());
  ASSERT_STREQ("C.UTF-8", std::setlocale(LC_ALL, "C.UTF-8"));
  EXPECT_EQ("[1] \"C\"\n", Said("Sys.getlocale('LC_CTYPE')"));
  EXPECT_EQ(1, Run("Sys.setlocale('LC_CTYPE', 'C.UTF-8')\nnchar('\xC3\xA4')\nstop('and yet')")) << gOutput;
  EXPECT_STREQ("C.UTF-8", std::setlocale(LC_ALL, nullptr));
  std::setlocale(LC_ALL, "C");
  EXPECT_EQ("[1] 1\n", Said("nchar('\xC3\xA4')"));
  EXPECT_EQ(before, ProcessState());
}

TEST_F(R, AWrongHomeIsACodeAndTheRightOneStillStarts) {
  const std::filesystem::path other = m_home.Path("other");
  std::filesystem::create_directories(other / "library/base");
  m_home.Write("other/library/base/DESCRIPTION", "Package: base\nVersion: 0.65\n");
  for (const std::string& wrong : {"/no/such/home"s, other.string()}) {
    gOutput.clear();
    ::setenv("R_HOME", wrong.c_str(), 1);
    const Within limit(std::chrono::seconds(1));
    EXPECT_EQ(1, Start());
    EXPECT_NE(std::string::npos, gOutput.find(wrong)) << gOutput;
  }
  ::setenv("R_HOME", "", 1);
  std::string version = "--version";
  char* argument = version.data();
  EXPECT_EQ(1, m_engine->init_embedded_x(1, &argument));
  ASSERT_EQ(0, Start()) << gOutput;
  EXPECT_EQ("[1] TRUE TRUE\n", Said("c(R.home() == Sys.getenv('R_HOME'), file.exists(R.home('share')))"));
}

// R would end the process, which is the host's.
TEST_F(R, AStartThatRGivesUpIsACode) {
  ::setenv("R_PROFILE_USER", m_home.Write("profile.R", "q(status = 2)\n").c_str(), 1);
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_EQ(1, Start());
    EXPECT_NE(std::string::npos, gOutput.find("R cannot be started")) << gOutput;
  }
}

namespace {

// An X of the staged home, on a driver's thread.
class Driven {
 public:
  explicit Driven(const std::string& xName) : m_options(xName), m_engine(&m_options, true), m_name(xName) {
    m_engine.set_post_vexa_output(&takeOutput);
  }

  int Run(const std::string& block) {
    DriveX driver(m_name, &m_engine, &m_options);
    std::vector<std::string> lines{block};
    driver.setSyntax(lines);
    int code = driver.initializeX();
    if (code == 0) code = driver.startX();
    if (code != 0) return code;
    vexadx::WaitForRun(driver);
    return driver.getReturnValue();
  }

 private:
  XConfigOptions m_options;
  InpStatisticsX m_engine;
  const std::string m_name;
};

}  // namespace

// The Java machine answers for the names and homes of both.
TEST(Languages, LiveInOneProcess) {
  const TempHome home;
  SetVEXAHOME(home.Path().c_str());
  ASSERT_STREQ("C", std::setlocale(LC_ALL, nullptr));
  const auto numbers = [] { return std::string(std::setlocale(LC_NUMERIC, nullptr)) + std::to_string(1.5); };
  struct sigaction before {};
  ::sigaction(SIGINT, nullptr, &before);
  const std::string numbersBefore = numbers();

  Driven r("R");
  Driven python("PYTHON");
  for (int round = 0; round < 3; ++round) {
    gOutput.clear();
    EXPECT_EQ(0, r.Run("cat(1.5, sum(1:10), '')"));
    EXPECT_EQ(0, python.Run("print(1.5, sum(range(11)), end=' ')"));
    EXPECT_EQ("1.5 55 1.5 55 ", gOutput);
    EXPECT_EQ(1, r.Run("f <- function(n) f(n + 1)\nf(1)"));
    EXPECT_EQ(1, python.Run("def f(n): f(n + 1)\nf(1)"));
    ASSERT_TRUE(VexaJVM::GetInstance()->IsStarted());
    EXPECT_EQ("vexar", XConfigOptions("R").GetXLibName());
    EXPECT_EQ(numbersBefore, numbers());
    struct sigaction after {};
    ::sigaction(SIGINT, nullptr, &after);
    EXPECT_EQ(before.sa_handler, after.sa_handler);
  }
}
