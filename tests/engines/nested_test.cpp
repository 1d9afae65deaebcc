#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "drivex.h"
#include "dxglobals.h"
#include "gate.h"
#include "outpstatisticsx.h"
#include "temphome.h"
#include "within.h"
#include "xmanager.h"
#include "xpipemanager.h"

namespace fs = std::filesystem;

namespace {

using Names = std::set<std::string>;

// Runs of one X in a process of its own, with the Python plug-in: PYTHON is nestable and PYX is not.
class NestedRuns : public testing::Test {
 protected:
  NestedRuns() {
    SetVEXAHOME(m_home.Path().c_str());
    m_home.Configure("[PYTHON]\nLIB_NAME=vexapython\n[PYX]\nLIB_NAME=vexapython\n");
    SetXPipeManager(&m_pipes);
  }
  // A process whose block waits for what a failed test has not done is ended: the runs end with it.
  ~NestedRuns() override {
    if (HasFailure() && m_engine) {
      if (const int process = vexadx::ProcessOf(*m_engine).id; process > 0) ::kill(process, SIGKILL);
    }
    m_registry.cleanup();
    m_pipes.cleanup();
    EXPECT_TRUE(fs::is_empty(m_directory.Path()));
    SetXPipeManager(nullptr);
  }

  int Start(const std::string& xName) {
    m_options = std::make_unique<XConfigOptions>(xName);
    m_engine = new OutpStatisticsX(m_options.get(), 1, true);
    m_registry.addStatisticsX(xName, m_engine);
    return Register()->initializeX();
  }

  // Unregisters a driver, and waits for its run before.
  struct Unregister {
    void operator()(DriveX* driver) const { registry->destoryVexaDX(driver); }
    XManager* registry;
  };
  using Driver = std::unique_ptr<DriveX, Unregister>;

  Driver Register() {
    auto* const driver = new DriveX(m_options->XName(), m_engine, m_options.get());
    m_registry.addVexaDX(driver);
    return Driver(driver, {&m_registry});
  }

  // One run on a thread of its own, at the next level.
  class Run {
   public:
    Run(Driver driver, const std::string& block) : m_driver(std::move(driver)), m_lines{block} {
      m_driver->setSyntax(m_lines);
      EXPECT_EQ(0, m_driver->startX());
    }
    ~Run() { Wait(); }
    Run(const Run&) = delete;
    Run& operator=(const Run&) = delete;

    int Wait() {
      vexadx::WaitForRun(*m_driver);
      return m_driver->getReturnValue();
    }

   private:
    Driver m_driver;
    std::vector<std::string> m_lines;
  };

  // A run from its beginning to its end.
  int RunBlock(const std::string& block) { return Run(Register(), block).Wait(); }

  // A run whose block is in its middle, where it waits until m_go opens.
  std::unique_ptr<Run> RunWaiting(const std::string& begin, const std::string& end) {
    auto run = std::make_unique<Run>(Register(), begin + '\n' + m_ready.OpenInPython() + m_go.AwaitInPython() + end);
    m_ready.Await();
    return run;
  }

  Names Files() const {
    Names names;
    for (const fs::directory_entry& entry : fs::directory_iterator(m_directory.Path())) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  // Those of the commands and of the levels from 0 on.
  static Names FilesOf(const std::string& xName, int levels) {
    Names names{"4711" + xName + "_s", "4711" + xName + "_c"};
    for (int level = 0; level < levels; ++level) {
      for (const char* role : {"syntax", "syntaxresult"}) {
        names.insert("4711" + xName + std::to_string(level) + role);
      }
    }
    return names;
  }

  int Ping() {
    return m_pipes.getPipeSuit(m_options->XName())->getCmdDispatcher(false)->sendCmd(DXCmdDispatcher::kPingDX);
  }

  TempHome m_home;
  const Gate m_ready{m_home, "ready"};
  const Gate m_go{m_home, "go"};
  TempDir m_directory;
  XPipeManager m_pipes{m_directory.Path().string() + '/', "4711"};
  std::unique_ptr<XConfigOptions> m_options;
  XManager m_registry;  // owns the engine
  OutpStatisticsX* m_engine = nullptr;
};

}  // namespace

TEST_F(NestedRuns, ExecuteWhileTheOuterBlockDoes) {
  ASSERT_EQ(0, Start("PYTHON"));
  {
    const auto outer = RunWaiting("seen = ['outer']", "seen.append('end')");
    EXPECT_EQ(0, Ping());
    EXPECT_EQ(FilesOf("PYTHON", 1), Files());
    EXPECT_EQ(3, RunBlock("seen.append('failed')\nraise SystemExit(3)"));
    EXPECT_EQ(FilesOf("PYTHON", 1), Files());
    // Lets the outer block end, so that the two runs end together.
    Run inner(Register(), "seen.append('inner')\n" + m_go.OpenInPython());
    EXPECT_EQ(0, inner.Wait());
    EXPECT_EQ(0, outer->Wait());
  }
  EXPECT_EQ(FilesOf("PYTHON", 1), Files());
  EXPECT_EQ(0, RunBlock("assert seen == ['outer', 'failed', 'inner', 'end'], seen"));
}

TEST_F(NestedRuns, GoFiftyDeepAndBack) {
  ASSERT_EQ(0, Start("PYTHON"));
  for (const int depth : {3, 50}) {
    SCOPED_TRACE(depth);
    const Within limit(std::chrono::seconds(30));
    ASSERT_EQ(0, RunBlock("ended = []"));
    std::vector<std::unique_ptr<Gate>> gates;
    std::vector<std::unique_ptr<Run>> runs;
    for (int level = 0; level < depth; ++level) {
      const std::string number = std::to_string(level);
      gates.push_back(std::make_unique<Gate>(m_home, "go" + number));
      runs.push_back(std::make_unique<Run>(
          Register(), m_ready.OpenInPython() + gates.back()->AwaitInPython() + "ended.append(" + number + ')'));
      m_ready.Await();
    }
    EXPECT_EQ(0, Ping());
    EXPECT_EQ(FilesOf("PYTHON", depth), Files());
    for (int level = depth; level-- > 0; runs.pop_back()) {
      gates[static_cast<std::size_t>(level)]->Open();
      ASSERT_EQ(0, runs.back()->Wait()) << level;
    }
    EXPECT_EQ(FilesOf("PYTHON", 1), Files());
    EXPECT_EQ(0, RunBlock("assert ended == list(range(" + std::to_string(depth) + "))[::-1], ended"));
  }
}

TEST_F(NestedRuns, EndWithTheProcess) {
  ASSERT_EQ(0, Start("PYTHON"));
  const auto outer = RunWaiting("", "");
  auto inner = RunWaiting("", "");
  const auto begin = std::chrono::steady_clock::now();
  ::kill(vexadx::ProcessOf(*m_engine).id, SIGKILL);
  EXPECT_EQ(99103, inner->Wait());
  EXPECT_EQ(99103, outer->Wait());
  inner.reset();
  EXPECT_EQ(FilesOf("PYTHON", 1), Files());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
}

TEST_F(NestedRuns, MayLeaveALevelOut) {
  ASSERT_EQ(0, Start("PYTHON"));
  const auto outer = RunWaiting("seen = 0", "assert seen == 3, seen");
  Driver unused = Register();
  EXPECT_EQ(0, RunBlock("seen += 1"));
  EXPECT_EQ(0, RunBlock("seen += 1"));
  EXPECT_EQ(FilesOf("PYTHON", 1), Files());
  EXPECT_EQ(0, Run(std::move(unused), "seen += 1").Wait());
  EXPECT_EQ(FilesOf("PYTHON", 1), Files());
  m_go.Open();
  EXPECT_EQ(0, outer->Wait());
}

TEST_F(NestedRuns, AreRefusedAtOnceByAnXThatHasNone) {
  ASSERT_EQ(0, Start("PYX"));
  {
    const auto outer = RunWaiting("seen = 'outer'", "");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(2, RunBlock("seen = 'inner'"));
    EXPECT_EQ(0, Ping());
    EXPECT_EQ(FilesOf("PYX", 1), Files());
    m_go.Open();  // not before: the refusals have not waited for it
    EXPECT_EQ(0, outer->Wait());
  }
  EXPECT_EQ(0, RunBlock("assert seen == 'outer', seen"));
}
