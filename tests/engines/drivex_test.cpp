#include "drivex.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "inprocess.h"

namespace {

using Texts = std::vector<std::string>;

// Takes note of the arguments it is started with, of its blocks, and of the thread they run on.
class NotingEngine : public StatisticsX {
 public:
  NotingEngine() : StatisticsX(true) {}

  Texts m_arguments;
  std::string m_block;
  pthread_t m_thread{};

 private:
  int x_init_embedded_x(int argc, char** argv) override {
    m_arguments.assign(argv, argv + argc);
    return 0;
  }
  int x_execute_x(char* syntax) override {
    m_block = syntax;
    m_thread = ::pthread_self();
    return 5;
  }
  int x_stop_embedded_x() override { return 0; }
  int x_pre_action() override { return 0; }
  int x_post_action() override { return 0; }
};

const Texts kStarted{"StatisticsX::init_embedded_x error code : 0."};
const Texts kPrepared{"StatisticsX::pre_action error code : 0.", "DriveX PRE ACTION "};

// The texts of a run from its block on.
Texts Executed(const std::string& block, int code, int postCode = 0) {
  return {block, "StatisticsX::execute_x error code : " + std::to_string(code) + ".",
          "DriveX ExecuteXLines  error code : " + std::to_string(code) + ".",
          "StatisticsX::post_action error code : " + std::to_string(postCode) + ".", "DriveX POST ACTION "};
}

Texts Refused(int code) {
  return {"StatisticsX::pre_action error code : " + std::to_string(code) + ".", "DriveX PRE ACTION "};
}

Texts operator+(Texts first, const Texts& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

using DriverInProcess = InProcess;

PlugInSynchEvent gOutputCame(false, false, nullptr);
int noteOutput(const char*, int) {
  gOutputCame.Signal();
  return 0;
}

}  // namespace

TEST(Driver, StartsTheEngineWithTheArgumentsOfItsX) {
  const struct {
    const char* xName;
    const char* configured;
    Texts want;
  } kCases[] = {{"R", "", {"--silent", "--no-save"}},
                {"R", "--vanilla", {"--vanilla"}},
                {"r", "", {}},
                {"JAVAEXTENSION", "", {"JavaExtension"}},
                {"JAVAEXTENSION", "other  one", {"other", "", "one"}},
                {"PYTHON", "", {}},
                {"PYTHON", "-v -q", {"-v", "-q"}}};
  for (const auto& c : kCases) {
    XConfigOptions options(c.xName);
    options.PutOption(XConfigOptions::KEY_ARGS, c.configured);
    NotingEngine engine;
    DriveX driver("ANY", &engine, &options);  // the name in the options decides
    EXPECT_EQ(0, driver.initializeX());
    EXPECT_EQ(c.want, engine.m_arguments) << c.xName;
    engine.m_arguments = {"untouched"};
    EXPECT_EQ(0, driver.initializeX());
    EXPECT_EQ(Texts{"untouched"}, engine.m_arguments);
  }
}

TEST(Driver, JoinsTheLinesAndRunsThemOnTheThreadAskedFor) {
  XConfigOptions options("CTEST");
  NotingEngine engine;
  const struct {
    Texts lines;
    std::string block;
  } kCases[] = {{{"a", "b"}, "a\nb\n"}, {{""}, "\n"}, {{}, ""}};
  for (const auto& c : kCases) {
    Texts lines = c.lines;
    DriveX driver("CTEST", &engine, &options);
    driver.setSyntax(lines);
    EXPECT_EQ(5, driver.invokeX());
    EXPECT_EQ(c.block, engine.m_block);
    EXPECT_TRUE(::pthread_equal(::pthread_self(), engine.m_thread));

    engine.m_block = "untouched";
    EXPECT_EQ(0, driver.getReturnValue());
    vexadx::WaitForRun(driver);  // nothing to wait for
    EXPECT_EQ(0, driver.startX());
    vexadx::WaitForRun(driver);
    EXPECT_EQ(5, driver.getReturnValue());
    EXPECT_EQ(c.block, engine.m_block);
    EXPECT_FALSE(::pthread_equal(::pthread_self(), engine.m_thread));
  }
  DriveX(std::string("CTEST"), &engine, &options).startX();  // waits for its thread, which runs the empty block
  EXPECT_EQ("", engine.m_block);
}

TEST_F(DriverInProcess, AnswersTheCodeOfTheStepThatFailed) {
  const struct {
    const char* xName;
    const char* failing;  // the plug-in's variable for a step, and what it answers there
    const char* answers;
    const char* line;
    bool start;
    int code;
    Texts trace;
  } kCases[] = {
      {"CTEST", nullptr, "", "0", true, 0, kStarted + kPrepared + Executed("0\n", 0)},
      {"CTEST", nullptr, "", "6", true, 6, kStarted + kPrepared + Executed("6\n", 6)},
      {"PYTHON", nullptr, "", "1", true, 1, kStarted + kPrepared + Executed("1\n", 1)},
      {"CTEST", "CTEST_INIT", "7", "0", true, 7, {"StatisticsX::init_embedded_x error code : 7."}},
      {"PYTHON", "CTEST_PRE", "1", "0", true, 999988, kStarted + Refused(1)},
      {"PYTHON", "CTEST_PRE", "2", "0", true, 2, kStarted + Refused(2)},
      {"R", "CTEST_PRE", "1", "0", true, 1, kStarted + Refused(1)},
      {"CTEST", "CTEST_POST", "8", "0", true, 0, kStarted + kPrepared + Executed("0\n", 0, 8)},
      {"CTEST", "CTEST_POST", "8", "6", true, 6, kStarted + kPrepared + Executed("6\n", 6, 8)},
      {"PYTHON", nullptr, "", "0", false, 99115, Refused(99115)},
  };
  for (const auto& c : kCases) {
    for (const bool onThread : {false, true}) {
      SCOPED_TRACE(std::string(c.xName) + " " + c.answers + " " + c.line + (onThread ? " on a thread" : ""));
      if (c.failing) ::setenv(c.failing, c.answers, 1);
      const auto engine = Engine("ctest");
      DriveX driver(c.xName, engine.get(), &m_options);
      Texts lines{c.line};
      driver.setSyntax(lines);
      m_tracer.open(m_home.Path("trace.log"));

      int code = c.start ? driver.initializeX() : 0;
      if (code == 0 && onThread) {
        ASSERT_EQ(0, driver.startX());
        vexadx::WaitForRun(driver);
        code = driver.getReturnValue();
      } else if (code == 0) {
        code = c.start ? driver.invokeX() : driver.runX();
      }
      EXPECT_EQ(c.code, code);
      EXPECT_EQ(c.trace, Traced());
      if (c.failing) ::unsetenv(c.failing);
    }
  }
}

TEST_F(DriverInProcess, ACancellationPassesThroughTheEngine) {
  const auto engine = Engine("ctest");
  engine->set_post_vexa_output(&noteOutput);
  DriveX driver("CTEST", engine.get(), &m_options);
  Texts lines{"wait"};
  driver.setSyntax(lines);
  ASSERT_EQ(0, driver.initializeX());
  DriveX::DriveXThread thread(&driver);
  ASSERT_TRUE(thread.Start(0));
  gOutputCame.WaitForSignal();
  EXPECT_TRUE(engine->isRunning());
  EXPECT_TRUE(thread.Terminate());
  EXPECT_FALSE(thread.HasThread());
  EXPECT_FALSE(engine->isRunning());
  EXPECT_EQ("wait\n", Traced().back());

  lines = {"3"};  // engine and trace go on
  EXPECT_EQ(3, driver.invokeX());
  EXPECT_EQ("DriveX POST ACTION ", Traced().back());
}

TEST(DriverDeathTest, WithoutEngineOrOptionsTheProcessStops) {
  NotingEngine engine;
  XConfigOptions options("CTEST");
  const auto report = [](const std::string& check) {
    return "\\(" + check + "\\), function DriveX, file backend/drivex/common/src/drivex\\.";
  };
  EXPECT_DEATH(DriveX("X", nullptr, &options), report("m_ximpl"));
  EXPECT_DEATH(DriveX("X", &engine, nullptr), report("m_option"));
}
